// Contrast enhancement: applying a tone curve to an image, and the one-call
// filter (statistics, curve, apply, optional masked blend).
#include <cstdlib>

#include "common/cancel.hpp"
#include "common/memory.hpp"
#include "contrast/contrast_internal.hpp"
#include "image/image_internal.hpp"
#include "kernels/kernels.hpp"
#include "morven/color.h"
#include "morven/contrast.h"

using namespace morven;

namespace {

// Plain colour row: channels 1 to 3 in turn, each read and written before the
// next (in place each channel reads and writes the same byte). Used where the
// two layouts differ, and for rows that overlap without coinciding, where the
// order decides the result.
void applyRowPlain(const uint8_t *curve, const uint8_t *s, int32_t n, const ChannelBytes &os,
                   uint8_t *d, int32_t m, const ChannelBytes &od, int32_t cols) {
    for (int32_t x = 0; x < cols; ++x, s += n, d += m) {
        d[od.c[0]] = curve[s[os.c[0]]];
        d[od.c[1]] = curve[s[os.c[1]]];
        d[od.c[2]] = curve[s[os.c[2]]];
    }
}

}  // namespace

extern "C" {

MORVEN_API wzStatus wzContrastEnhanceApply(const uint8_t curve[256], const wzImage *source,
                                           wzImage *destination, const uint32_t *cancel) {
    const int32_t n = channelCount(source->encoding);
    if (n < 1) return WZ_STATUS_ERROR;
    if (source->type != wzType8U || destination->type != wzType8U) return WZ_STATUS_ERROR;

    const int32_t rows = source->height;
    const int32_t cols = source->width > 0 ? source->width : 0;
    const Kernels &kernels = bestKernels();

    if (n == 1) {
        // The destination is addressed with the source's width, so it must
        // have the same one-byte layout.
        if (channelCount(destination->encoding) != 1) return WZ_STATUS_ERROR;
        const LutLayout layout{1, {curve, nullptr, nullptr, nullptr}};
        const size_t bytes = static_cast<size_t>(cols);
        const uint8_t *s = source->data;
        uint8_t *d = destination->data;
        for (int32_t y = 0; y < rows; ++y, s += cols, d += cols) {
            if (cancelRequested(cancel)) return WZ_STATUS_CANCELLED;
            if (s == d || disjoint(s, bytes, d, bytes)) {
                kernels.lutRow(layout, s, d, bytes);
            } else {
                for (int32_t x = 0; x < cols; ++x) d[x] = curve[s[x]];
            }
        }
        return WZ_STATUS_OK;
    }

    const int32_t m = channelCount(destination->encoding);
    if (m < 3) return WZ_STATUS_ERROR;
    const ChannelBytes os = channelBytes(*source);
    const ChannelBytes od = channelBytes(*destination);
    // Alike layouts run whole rows through the table kernel: the curve at the
    // positions of channels 1 to 3, a fourth byte left as it was.
    bool alike = n == m;
    LutLayout layout{n, {nullptr, nullptr, nullptr, nullptr}};
    for (int k = 0; k < 3; ++k) {
        alike = alike && os.c[k] == od.c[k];
        if (alike) layout.table[os.c[k]] = curve;
    }
    const ptrdiff_t srcRow = static_cast<ptrdiff_t>(cols) * n;
    const ptrdiff_t dstRow =
        static_cast<ptrdiff_t>(destination->width > 0 ? destination->width : 0) * m;
    const size_t rowBytes = static_cast<size_t>(srcRow);
    const uint8_t *sRow = source->data;
    uint8_t *dRow = destination->data;
    for (int32_t y = 0; y < rows; ++y, sRow += srcRow, dRow += dstRow) {
        if (cancelRequested(cancel)) return WZ_STATUS_CANCELLED;
        if (alike && (sRow == dRow || disjoint(sRow, rowBytes, dRow, rowBytes)))
            kernels.lutRow(layout, sRow, dRow, static_cast<size_t>(cols));
        else
            applyRowPlain(curve, sRow, n, os, dRow, m, od, cols);
    }
    return WZ_STATUS_OK;
}

MORVEN_API wzStatus wzContrastEnhanceFilter(const wzContrastEnhanceParams *params, wzImage *source,
                                            const wzImage *mask, wzImage *destination,
                                            const uint32_t *cancel) {
    FreePtr<wzContrastEnhanceStats> stats(wzContrastEnhanceStatsCreate());
    if (!stats) return WZ_STATUS_ERROR;
    const wzStatus gathered = wzContrastEnhanceStatsRetrieve(stats.get(), source, cancel);
    if (gathered != WZ_STATUS_OK) return gathered;

    FreePtr<uint8_t> curve = allocArray<uint8_t>(256);
    if (!curve) return WZ_STATUS_ERROR;
    wzContrastEnhanceAddParamsCompute(stats.get(), params, curve.get());
    stats.reset();

    return applyCurveMasked(curve.get(), source, mask, destination, cancel);
}

}  // extern "C"

namespace morven {

wzStatus contrastFilterCounted(const wzContrastEnhanceParams *params, ByteCounter &brightness,
                               wzImage *image, const uint32_t *cancel) noexcept {
    FreePtr<wzContrastEnhanceStats> stats(wzContrastEnhanceStatsCreate());
    if (!stats) return WZ_STATUS_ERROR;
    // Where the statistics pass over a colour image reads the flag.
    if (image->height >= 1 && cancelRequested(cancel)) return WZ_STATUS_CANCELLED;
    statsFromBrightness(brightness, *image, *stats);
    FreePtr<uint8_t> curve = allocArray<uint8_t>(256);
    if (!curve) return WZ_STATUS_ERROR;
    wzContrastEnhanceAddParamsCompute(stats.get(), params, curve.get());
    stats.reset();
    return applyCurveMasked(curve.get(), image, nullptr, image, cancel);
}

wzStatus applyCurveMasked(const uint8_t curve[256], wzImage *source, const wzImage *mask,
                          wzImage *destination, const uint32_t *cancel) noexcept {
    // In place with a mask: keep the unprocessed pixels for the blend. The
    // copy takes the source's region so that the copy and the blend cover
    // the same pixels of both images.
    wzImage *copy = nullptr;
    ScopeGuard releaseCopy([&] { wzImageRelease(&copy); });
    if (mask && source == destination) {
        copy = wzImageCreate(source->width, source->height, source->encoding);
        if (!copy) return WZ_STATUS_ERROR;
        wzImageSetROI(copy, &source->roi);
        wzCopy(source, copy);
    }
    const wzStatus applied = wzContrastEnhanceApply(curve, source, destination, cancel);
    if (applied != WZ_STATUS_OK || !mask) return applied;
    if (copy) return wzAddWeigthedM(copy, source, source, mask);
    return wzAddWeigthedM(source, destination, destination, mask);
}

}  // namespace morven
