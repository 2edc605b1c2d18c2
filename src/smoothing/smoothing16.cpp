// Selective smoothing of 16-bit images: the 8-bit rule on the 16-bit scale,
// computed directly (differences and the e > 2d test need no tables here).
//
// A pass visits the neighbour pairs of rows y and y + 1 together, so the
// counts and sums of a row are complete once the pairs that reach down from
// it are done; two rows of them are kept, and the new values go into a
// second plane.
#include <cstdlib>
#include <cstring>

#include "common/cancel.hpp"
#include "common/memory.hpp"
#include "image/image_internal.hpp"
#include "morven/color.h"
#include "morven/smoothing.h"

using namespace morven;

namespace {

struct Planes {
    FreePtr<uint16_t> guide, current, next;
    FreePtr<int32_t> sum;    // 2 rows: proposals added so far
    FreePtr<uint8_t> count;  // 2 rows: 1 + accepted neighbours
};

// Adds the pair p, q when it is accepted.
inline void pair(const uint16_t *g, const uint16_t *x, size_t p, size_t q, int32_t *sp, int32_t *sq,
                 uint8_t *np, uint8_t *nq, int32_t t) {
    const int32_t gd = int32_t{g[p]} - g[q];
    const int32_t d = gd < 0 ? -gd : gd;
    if (d >= t) return;
    const int32_t xd = int32_t{x[p]} - x[q];
    const int32_t e = xd < 0 ? -xd : xd;
    if (e < 1 || e <= 2 * d) return;
    ++*np;
    ++*nq;
    *sp += x[q] + gd;
    *sq += x[p] - gd;
}

// One pass over a w x h plane: current -> next.
void pass(const uint16_t *g, const uint16_t *x, uint16_t *out, int32_t *sum, uint8_t *count,
          size_t w, size_t h, int32_t t) {
    int32_t *s0 = sum, *s1 = sum + w;
    uint8_t *n0 = count, *n1 = count + w;
    std::memset(s0, 0, w * sizeof *s0);
    std::memset(n0, 1, w);
    for (size_t y = 0; y < h; ++y) {
        const size_t row = y * w;
        const bool below = y + 1 < h;
        if (below) {
            std::memset(s1, 0, w * sizeof *s1);
            std::memset(n1, 1, w);
        }
        for (size_t i = 0; i < w; ++i) {
            const size_t p = row + i;
            if (i + 1 < w) pair(g, x, p, p + 1, &s0[i], &s0[i + 1], &n0[i], &n0[i + 1], t);
            if (!below) continue;
            const size_t q = p + w;
            if (i > 0) pair(g, x, p, q - 1, &s0[i], &s1[i - 1], &n0[i], &n1[i - 1], t);
            pair(g, x, p, q, &s0[i], &s1[i], &n0[i], &n1[i], t);
            if (i + 1 < w) pair(g, x, p, q + 1, &s0[i], &s1[i + 1], &n0[i], &n1[i + 1], t);
        }
        for (size_t i = 0; i < w; ++i) {
            const int32_t v = (s0[i] + x[row + i]) / n0[i];
            out[row + i] = static_cast<uint16_t>(v < 0 ? 0 : (v > 65535 ? 65535 : v));
        }
        std::swap(s0, s1);
        std::swap(n0, n1);
    }
}

// Channel k of a whole 16-bit image to or from a packed plane.
void extract(const wzImage &img, ptrdiff_t offset, uint16_t *plane, size_t pixels) {
    const ptrdiff_t step = pixelStride(img);
    const uint8_t *p = img.data + offset;
    for (size_t i = 0; i < pixels; ++i, p += step) plane[i] = loadElement<uint16_t>(p);
}

void insert(const uint16_t *plane, wzImage &img, ptrdiff_t offset, size_t pixels) {
    const ptrdiff_t step = pixelStride(img);
    uint8_t *p = img.data + offset;
    for (size_t i = 0; i < pixels; ++i, p += step) storeRaw<uint16_t>(p, plane[i]);
}

bool sameShape(const wzImage &a, const wzImage &b) {
    return b.type == wzType16U && b.encoding == a.encoding && b.width == a.width &&
           b.height == a.height;
}

// The whole input into the whole output.
void copyWhole(const wzImage &input, wzImage &output) {
    wzImage from = input, to = output;
    wzImageResetROI(&from);
    wzImageResetROI(&to);
    wzCopy(&from, &to);
}

}  // namespace

extern "C" {

MORVEN_API wzStatus wzSelectiveSmooth16(const wzSelectiveSmoothParams *params, const wzImage *guide,
                                        const wzImage *input, wzImage *output,
                                        const uint32_t *cancel) {
    if (input->type != wzType16U || !isValidEncoding(input->encoding) || input->width < 0 ||
        input->height < 0 || !sameShape(*input, *guide) || !sameShape(*input, *output))
        return WZ_STATUS_ERROR;
    const int32_t t = truncSat32(params->threshold * 65535.0f);
    if (t < 1 || params->iterations < 1 || input->width < 2 || input->height < 2) {
        copyWhole(*input, *output);
        return WZ_STATUS_OK;
    }
    const size_t w = static_cast<size_t>(input->width), h = static_cast<size_t>(input->height);
    const size_t pixels = w * h;
    Planes pl;
    pl.guide = allocArray<uint16_t>(static_cast<int64_t>(pixels));
    pl.current = allocArray<uint16_t>(static_cast<int64_t>(pixels));
    pl.next = allocArray<uint16_t>(static_cast<int64_t>(pixels));
    pl.sum = allocArray<int32_t>(static_cast<int64_t>(2 * w));
    pl.count = allocArray<uint8_t>(static_cast<int64_t>(2 * w));
    if (!pl.guide || !pl.current || !pl.next || !pl.sum || !pl.count) return WZ_STATUS_ERROR;
    const ChannelBytes o = channelBytes(*input);
    const int channels = input->encoding == wzEncodingGray ? 1 : 3;
    for (int k = 0; k < channels; ++k) {
        extract(*guide, o.c[k], pl.guide.get(), pixels);
        extract(*input, o.c[k], pl.current.get(), pixels);
        for (int32_t i = 0; i < params->iterations; ++i) {
            if (cancelRequested(cancel)) return WZ_STATUS_CANCELLED;
            pass(pl.guide.get(), pl.current.get(), pl.next.get(), pl.sum.get(), pl.count.get(), w,
                 h, t);
            std::swap(pl.current, pl.next);
        }
        insert(pl.current.get(), *output, o.c[k], pixels);
    }
    return WZ_STATUS_OK;
}

}  // extern "C"
