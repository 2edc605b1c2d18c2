// Histogram matching: the look-up table that maps a source distribution onto
// a target distribution, its application, and the one-call filter.
//
// The table computation is bit-exact single-precision arithmetic: sums in
// ascending order, one division per cdf entry, products rounded before each
// addition (the library is built without fused multiply-adds).
#include <cstdlib>
#include <cstring>

#include "common/cancel.hpp"
#include "common/memory.hpp"
#include "histogram/match_internal.hpp"
#include "image/image_internal.hpp"
#include "kernels/count.hpp"
#include "kernels/kernels.hpp"
#include "morven/color.h"
#include "morven/histogram.h"

using namespace morven;

namespace {

using Curve = float[256];

// cdf[i] = (bins 0..i) / (bins 0..255); an all-zero histogram gives NaN.
void cumulative(const float *bins, Curve cdf) {
    float total = 0.0f;
    for (int i = 0; i < 256; ++i) total += bins[i];
    float running = 0.0f;
    for (int i = 0; i < 256; ++i) {
        running += bins[i];
        cdf[i] = running / total;
    }
}

// Smallest j in 0..254 whose target cdf is not below the source's, else 255.
// Written as a negated test so that NaN stops the search at 0.
void forwardSearch(const Curve src, const Curve tgt, Curve out) {
    for (int i = 0; i < 256; ++i) {
        int j = 0;
        while (j < 255 && tgt[j] < src[i]) ++j;
        out[i] = static_cast<float>(j);
    }
}

// Largest j in 1..255 whose target cdf is not above the source's, else 0.
// Negated test: NaN stops the scan at 255.
void backwardSearch(const Curve src, const Curve tgt, Curve out) {
    for (int i = 0; i < 256; ++i) {
        int j = 255;
        while (j > 0 && tgt[j] > src[i]) --j;
        out[i] = static_cast<float>(j);
    }
}

// Removes jumps above maxStep between neighbouring entries: the first excess
// found is split between the two entries (an excess of exactly 1 comes off
// the upper one) and the scan restarts. Both ends absorb what spreads out, so
// the process settles for any maxStep >= 0.
// A correction at i changes only the steps at i - 1, i and i + 1, and every
// step before i was within the limit, so resuming the scan at i - 1 finds
// exactly what a restart from the first entry would.
void limitSteps(Curve m, int32_t maxStep) {
    const float s = static_cast<float>(maxStep);
    int start = 0;
    for (;;) {
        int i = start;
        int32_t e = 0;
        for (; i < 255; ++i) {
            e = static_cast<int32_t>((m[i + 1] - m[i]) - s);
            if (e >= 1) break;
        }
        if (i == 255) return;
        const float h = static_cast<float>(static_cast<uint32_t>(e) >> 1);
        m[i] = m[i] + h;
        m[i + 1] = m[i + 1] - h;
        if (e == 1) m[i + 1] = m[i + 1] - 1.0f;
        start = i > 0 ? i - 1 : 0;
    }
}

inline uint8_t clampToByte(float v) {
    // Truncation toward zero, clamped; NaN gives 0.
    if (!(v > 0.0f)) return 0;
    if (v >= 255.0f) return 255;
    return static_cast<uint8_t>(v);
}

// Moving average of radius r, shortened at the ends of the block, made
// non-decreasing, then blended in with weight i / 255.
void smoothBlock(uint8_t *block, int32_t r) {
    uint8_t t[256];
    for (int i = 0; i < 256; ++i) {
        const int lo = i - r < 0 ? 0 : i - r;
        const int hi = i + r > 255 ? 255 : i + r;
        float sum = 0.0f;
        for (int k = lo; k <= hi; ++k) sum += static_cast<float>(block[k]);
        t[i] = clampToByte(sum / static_cast<float>(hi - lo + 1));
    }
    for (int i = 1; i < 256; ++i) t[i] = t[i] > t[i - 1] ? t[i] : t[i - 1];
    for (int i = 0; i < 256; ++i) {
        const float w = static_cast<float>(i) / 255.0f;
        const float keep = static_cast<float>(block[i]) * (1.0f - w);
        const float smooth = static_cast<float>(t[i]) * w;
        block[i] = clampToByte(keep + smooth);
    }
}

// One region row of the plain apply, pixel by pixel, advancing both cursors
// past the row. Used where the two layouts differ, and for rows that overlap
// without coinciding, where the pixel order decides the result.
void applyRowPlain(const uint8_t *table, const ChannelBytes &os, const ChannelBytes &od, bool gray,
                   Cursor &s, Cursor &d, int32_t cols) {
    if (gray) {
        for (int32_t x = 0; x < cols; ++x, s.p += s.step, d.p += d.step) *d.p = table[*s.p];
        return;
    }
    for (int32_t x = 0; x < cols; ++x, s.p += s.step, d.p += d.step) {
        // Read all three before writing: source and destination may coincide.
        const uint8_t b = table[s.p[os.c[0]]];
        const uint8_t g = table[256 + s.p[os.c[1]]];
        const uint8_t r = table[512 + s.p[os.c[2]]];
        d.p[od.c[0]] = b;
        d.p[od.c[1]] = g;
        d.p[od.c[2]] = r;
    }
}

// The layout of the row kernel when both images lay their pixels out alike:
// false when they do not (then every row runs the plain loop).
bool rowKernelLayout(const uint8_t *table, const wzImage &src, const ChannelBytes &os,
                     const wzImage &dst, const ChannelBytes &od, LutLayout &layout) {
    const ptrdiff_t step = pixelStride(src);
    if (step != pixelStride(dst)) return false;
    layout = LutLayout{static_cast<int32_t>(step), {nullptr, nullptr, nullptr, nullptr}};
    if (src.encoding == wzEncodingGray) {
        layout.table[0] = table;
        return true;
    }
    for (int k = 0; k < 3; ++k) {
        if (os.c[k] != od.c[k]) return false;
        layout.table[os.c[k]] = table + 256 * k;
    }
    return true;
}

// Counts the brightness (the largest of channels 1-3) of a row of `cols`
// colour pixels of `step` bytes.
void countBrightness(const Kernels &kernels, const uint8_t *row, int32_t step,
                     const ChannelBytes &o, int32_t cols, ByteCounter &counter) {
    constexpr size_t kChunk = 4096;
    uint8_t bright[kChunk];
    const size_t pixels = cols > 0 ? static_cast<size_t>(cols) : 0;
    for (size_t done = 0; done < pixels;) {
        const size_t k = pixels - done < kChunk ? pixels - done : kChunk;
        kernels.brightnessRow(row + done * static_cast<size_t>(step), step, o.c, bright, k);
        counter.add(bright, k);
        done += k;
    }
}

}  // namespace

extern "C" {

MORVEN_API wzHistogramMatchParams *wzHistogramMatchParamsDefault(void) {
    FreePtr<wzHistogramMatchParams> p = allocZeroed<wzHistogramMatchParams>();
    if (!p) return nullptr;
    p->strength = 1.0f;
    p->fidelity = 0.9f;
    p->mode = 0;
    p->maxStep = 255;
    p->targetProfile = nullptr;
    return p.release();
}

MORVEN_API void wzHistogramMatchParamsRelease(wzHistogramMatchParams **params) {
    releaseRecord(params);
}

MORVEN_API wzHistogramMatchStats *wzHistogramMatchStatsCreate(void) {
    FreePtr<wzHistogramMatchStats> stats = allocZeroed<wzHistogramMatchStats>();
    if (!stats) return nullptr;
    stats->profile = wzImageColorProfileCreate();
    if (!stats->profile) return nullptr;
    return stats.release();
}

MORVEN_API void wzHistogramMatchStatsRelease(wzHistogramMatchStats **stats) {
    releaseRecord(stats, [](wzHistogramMatchStats &s) { wzImageColorProfileRelease(&s.profile); });
}

MORVEN_API void wzHistogramMatchStatsInit(wzHistogramMatchStats *stats) {
    wzImageColorProfileReset(stats->profile);
}

MORVEN_API wzStatus wzHistogramMatchStatsRetrieve(wzHistogramMatchStats *stats,
                                                  const wzImage *image) {
    wzImageColorProfileReset(stats->profile);
    return wzImageFillColorProfile(image, stats->profile);
}

MORVEN_API void wzHistogramMatchStatsUpdate(const wzHistogramMatchStats *from,
                                            wzHistogramMatchStats *into) {
    for (int a = 0; a < 3; ++a)
        for (int v = 0; v < 256; ++v) into->profile->bins[a][v] += from->profile->bins[a][v];
}

MORVEN_API void wzHistogramMatchAddParamsCompute(const wzHistogramMatchStats *stats,
                                                 const wzHistogramMatchParams *params,
                                                 uint8_t table[768]) {
    const int32_t mode = params->mode >= 0 && params->mode <= 2 ? params->mode : 0;
    const bool limit = params->maxStep <= 254;
    const int32_t maxStep = params->maxStep < 0 ? 0 : params->maxStep;
    for (int a = 2; a >= 0; --a) {
        uint8_t *block = table + 256 * (2 - a);
        Curve cdfS, cdfT, fwd, bwd;
        cumulative(stats->profile->bins[a], cdfS);
        cumulative(params->targetProfile->bins[a], cdfT);
        if (mode != 2) {
            forwardSearch(cdfS, cdfT, fwd);
            if (limit) limitSteps(fwd, maxStep);
        }
        if (mode != 1) {
            backwardSearch(cdfS, cdfT, bwd);
            if (limit) limitSteps(bwd, maxStep);
        }
        for (int i = 0; i < 256; ++i) {
            const float v = mode == 0 ? 0.5f * (fwd[i] + bwd[i]) : (mode == 1 ? fwd[i] : bwd[i]);
            block[i] = clampToByte(v);
        }
        if (params->fidelity < 1.0f) smoothBlock(block, smoothingRadius(params->fidelity));
    }
    const float strength = params->strength;
    if (strength < 1.0f) {
        for (int b = 0; b < 3; ++b) {
            uint8_t *block = table + 256 * b;
            for (int i = 0; i < 256; ++i) {
                const float mapped = strength * static_cast<float>(block[i]);
                const float identity = (1.0f - strength) * static_cast<float>(i);
                block[i] = clampToByte(mapped + identity);
            }
        }
    }
}

MORVEN_API wzStatus wzHistogramMatchApply(const void *reserved, const uint8_t table[768],
                                          const wzImage *source, wzImage *destination,
                                          const uint32_t *cancel) {
    (void)reserved;
    return applyTable(table, source, destination, nullptr, cancel);
}

MORVEN_API wzStatus wzHistogramMatchFilter(const wzHistogramMatchParams *params, wzImage *source,
                                           const wzImage *mask, wzImage *destination,
                                           const uint32_t *cancel) {
    uint8_t table[768];
    const wzStatus filled = matchTable(params, source, table);
    if (filled != WZ_STATUS_OK) return filled;
    return applyTableMasked(table, source, mask, destination, cancel);
}

}  // extern "C"

namespace morven {

wzStatus applyTable(const uint8_t table[768], const wzImage *source, wzImage *destination,
                    ByteCounter *brightness, const uint32_t *cancel) noexcept {
    if (source->type != wzType8U || destination->type != wzType8U ||
        !isValidEncoding(source->encoding) || !isValidEncoding(destination->encoding))
        return WZ_STATUS_ERROR;
    const bool gray = source->encoding == wzEncodingGray;
    const ChannelBytes os = channelBytes(*source);
    const ChannelBytes od = channelBytes(*destination);
    LutLayout layout;
    const bool kernel = rowKernelLayout(table, *source, os, *destination, od, layout);
    const Kernels &kernels = bestKernels();
    Cursor s = regionCursor(*source);
    Cursor d = regionCursor(*destination);
    const int32_t rows = source->roi.height;
    const int32_t cols = source->roi.width;
    const size_t rowBytes = cols > 0 ? static_cast<size_t>(cols) * static_cast<size_t>(s.step) : 0;
    for (int32_t y = 0; y < rows; ++y) {
        if (cancelRequested(cancel)) return WZ_STATUS_CANCELLED;
        uint8_t *written = d.p;
        if (kernel && rowBytes > 0 && (s.p == d.p || disjoint(s.p, rowBytes, d.p, rowBytes))) {
            kernels.lutRow(layout, s.p, d.p, static_cast<size_t>(cols));
            s.p += rowBytes;
            d.p += rowBytes;
        } else {
            applyRowPlain(table, os, od, gray, s, d, cols);
        }
        if (brightness)
            countBrightness(kernels, written, static_cast<int32_t>(d.step), od, cols, *brightness);
        s.p += s.gap;
        d.p += d.gap;
    }
    return WZ_STATUS_OK;
}

wzStatus matchTable(const wzHistogramMatchParams *params, const wzImage *source,
                    uint8_t table[768]) noexcept {
    wzImageColorProfile profile;
    const wzStatus filled = wzImageFillColorProfile(source, &profile);
    if (filled != WZ_STATUS_OK) return filled;
    const wzHistogramMatchStats stats{&profile};
    wzHistogramMatchAddParamsCompute(&stats, params, table);
    return WZ_STATUS_OK;
}

wzStatus matchFilterCounting(const wzHistogramMatchParams *params, wzImage *source,
                             wzImage *destination, ByteCounter &brightness,
                             const uint32_t *cancel) noexcept {
    uint8_t table[768];
    const wzStatus filled = matchTable(params, source, table);
    if (filled != WZ_STATUS_OK) return filled;
    return applyTable(table, source, destination, &brightness, cancel);
}

wzStatus applyTableMasked(const uint8_t table[768], wzImage *source, const wzImage *mask,
                          wzImage *destination, const uint32_t *cancel) noexcept {
    if (mask && source == destination) {
        wzImage *copy = wzImageCreate(source->roi.width, source->roi.height, source->encoding);
        if (!copy) return WZ_STATUS_ERROR;
        ScopeGuard release([&] { wzImageRelease(&copy); });
        wzCopy(source, copy);
        wzStatus status = wzHistogramMatchApply(nullptr, table, copy, source, cancel);
        if (status == WZ_STATUS_OK) status = wzAddWeigthedM(copy, source, source, mask);
        return status;
    }
    wzStatus status = wzHistogramMatchApply(nullptr, table, source, destination, cancel);
    if (status == WZ_STATUS_OK && mask)
        status = wzAddWeigthedM(source, destination, destination, mask);
    return status;
}

}  // namespace morven
