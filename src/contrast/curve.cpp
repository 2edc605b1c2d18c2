// Contrast enhancement: parameter and statistics records, the brightness
// histogram and the levels tone curve.
//
// The curve is computed in single precision exactly as documented in
// contrast.h: sums from 0 in the documented order, strict comparisons,
// products rounded on their own (the library is built without fused
// multiply-adds).
#include <cstdlib>
#include <cstring>

#include "common/cancel.hpp"
#include "common/memory.hpp"
#include "contrast/contrast_internal.hpp"
#include "image/image_internal.hpp"
#include "kernels/count.hpp"
#include "kernels/kernels.hpp"
#include "morven/contrast.h"

using namespace morven;

namespace {

// Pixel counts are kept as integers and turned into float bins at the end.
// A float bin grown by 1.0f stops at 2^24 (2^24 + 1 rounds back to even), so
// saturating there gives the same bins as counting in float.
void storeCounts(const uint64_t *counts, float *hist) {
    constexpr uint64_t kFloatLimit = uint64_t{1} << 24;
    for (int v = 0; v < 256; ++v)
        hist[v] = counts[v] >= kFloatLimit ? 16777216.0f : static_cast<float>(counts[v]);
}

// height * width as a wrapping signed 32-bit product, converted to float.
float pixelTotal(const wzImage &image) {
    const uint32_t product =
        static_cast<uint32_t>(image.height) * static_cast<uint32_t>(image.width);
    return static_cast<float>(static_cast<int32_t>(product));
}

void clearStats(wzContrastEnhanceStats &stats, const wzImage &image) {
    for (float &bin : stats.hist) bin = 0.0f;
    stats.total = pixelTotal(image);
}

// Truncation toward zero clamped to 0..255 (NaN gives 0).
inline uint8_t curveEntry(float v) {
    if (!(v > 0.0f)) return 0;
    if (v >= 255.0f) return 255;
    return static_cast<uint8_t>(v);
}

}  // namespace

void morven::statsFromBrightness(ByteCounter &brightness, const wzImage &image,
                                 wzContrastEnhanceStats &stats) noexcept {
    clearStats(stats, image);
    storeCounts(brightness.totals(), stats.hist);
}

extern "C" {

MORVEN_API wzContrastEnhanceParams *wzContrastEnhanceParamsDefault(void) {
    FreePtr<wzContrastEnhanceParams> p = allocZeroed<wzContrastEnhanceParams>();
    if (!p) return nullptr;
    p->highTail = 9.0f;
    p->lowTail = 4.0f;
    p->manual = 0;
    p->manualHigh = 255;
    p->manualLow = 0;
    return p.release();
}

MORVEN_API void wzContrastEnhanceParamsRelease(wzContrastEnhanceParams **params) {
    releaseRecord(params);
}

MORVEN_API wzContrastEnhanceStats *wzContrastEnhanceStatsCreate(void) {
    return allocZeroed<wzContrastEnhanceStats>().release();
}

MORVEN_API void wzContrastEnhanceStatsRelease(wzContrastEnhanceStats **stats) {
    releaseRecord(stats);
}

MORVEN_API void wzContrastEnhanceStatsInit(wzContrastEnhanceStats *stats, const wzImage *image) {
    clearStats(*stats, *image);
}

MORVEN_API wzStatus wzContrastEnhanceStatsRetrieve(wzContrastEnhanceStats *stats,
                                                   const wzImage *image, const uint32_t *cancel) {
    clearStats(*stats, *image);
    const int32_t n = channelCount(image->encoding);
    if (n < 1) return WZ_STATUS_ERROR;
    // An unknown type has an empty block: there is nothing to read.
    if (!isKnownType(image->type)) return WZ_STATUS_ERROR;

    // Whole block, rows packed: row y starts at y * width * n bytes.
    const int32_t rows = image->height;
    const int32_t cols = image->width > 0 ? image->width : 0;
    const size_t rowBytes = static_cast<size_t>(cols) * static_cast<size_t>(n);
    const uint8_t *row = image->data;
    ByteCounter counter;

    if (n == 1) {
        for (int32_t y = 0; y < rows; ++y, row += rowBytes) {
            if (cancelRequested(cancel)) {
                storeCounts(counter.totals(), stats->hist);
                return WZ_STATUS_CANCELLED;
            }
            counter.add(row, rowBytes);
        }
        storeCounts(counter.totals(), stats->hist);
        return WZ_STATUS_OK;
    }

    const ChannelBytes o = channelBytes(*image);
    if (rows < 1) return WZ_STATUS_OK;
    if (cancelRequested(cancel)) return WZ_STATUS_CANCELLED;
    // The rows are contiguous: brightness of a stretch of pixels into a
    // buffer, then counted.
    const Kernels &kernels = bestKernels();
    const size_t pixels = static_cast<size_t>(rows) * static_cast<size_t>(cols);
    constexpr size_t kChunk = 4096;
    uint8_t bright[kChunk];
    for (size_t done = 0; done < pixels;) {
        const size_t k = pixels - done < kChunk ? pixels - done : kChunk;
        kernels.brightnessRow(row + done * static_cast<size_t>(n), n, o.c, bright, k);
        counter.add(bright, k);
        done += k;
    }
    storeCounts(counter.totals(), stats->hist);
    return WZ_STATUS_OK;
}

MORVEN_API void wzContrastEnhanceStatsUpdate(const wzContrastEnhanceStats *from,
                                             wzContrastEnhanceStats *into) {
    for (int v = 0; v < 256; ++v) into->hist[v] += from->hist[v];
}

MORVEN_API void wzContrastEnhanceAddParamsCompute(const wzContrastEnhanceStats *stats,
                                                  const wzContrastEnhanceParams *params,
                                                  uint8_t curve[256]) {
    float low;
    float high;
    if (params->manual != 0) {
        high = static_cast<float>(params->manualHigh);
        low = static_cast<float>(params->manualLow);
    } else {
        const float highCount = (params->highTail * stats->total) / 1000.0f;
        const float lowCount = (stats->total * params->lowTail) / 1000.0f;

        int lowBin = 255;
        float sum = 0.0f;
        for (int k = 0; k < 255; ++k) {
            sum += stats->hist[k];
            if (sum > lowCount) {
                lowBin = k;
                break;
            }
        }
        int highBin = 0;
        sum = 0.0f;
        for (int k = 255; k > 0; --k) {
            sum += stats->hist[k];
            if (sum > highCount) {
                highBin = k;
                break;
            }
        }
        low = static_cast<float>(lowBin);
        high = static_cast<float>(highBin);
    }

    // Equal levels make the scale infinite: +inf above low, -inf below it and
    // NaN (0 * inf) at low itself. Spelled out rather than divided by zero,
    // with the same entries: 255 above low, 0 at or below it.
    if (high == low) {
        for (int v = 0; v < 256; ++v) curve[v] = static_cast<float>(v) > low ? 255 : 0;
        return;
    }
    const float scale = 255.0f / (high - low);
    for (int v = 0; v < 256; ++v) curve[v] = curveEntry((static_cast<float>(v) - low) * scale);
}

}  // extern "C"
