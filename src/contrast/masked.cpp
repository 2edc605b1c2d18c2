// Extended contrast enhancement: brightness statistics under a mask, and the
// levels stretch of 16-bit images on a 65536-bin brightness histogram.
#include <cstdlib>
#include <cstring>

#include "common/cancel.hpp"
#include "common/memory.hpp"
#include "contrast/contrast_internal.hpp"
#include "image/extension_support.hpp"
#include "image/image_internal.hpp"
#include "morven/color.h"
#include "morven/contrast.h"

using namespace morven;

namespace {

constexpr int kLevels = 65536;

// A whole image (contrast ignores regions) that is 8- or 16-bit with a known
// encoding, and a statistics mask of its full size.
bool imageAndMaskFit(const wzImage &image, const wzImage *mask) {
    return (image.type == wzType8U || image.type == wzType16U) && isValidEncoding(image.encoding) &&
           image.width >= 0 && image.height >= 0 && statsMaskFits(mask, image.width, image.height);
}

// Hands the brightness (the largest of channels 1..3) of every selected
// pixel of the whole image to count(b); returns the number of pixels, or -1
// when cancelled (the flag is read before every row).
template <typename Count>
int64_t countBrightness(const wzImage &image, const wzImage *mask, Count count,
                        const uint32_t *cancel) {
    const bool wide = image.type == wzType16U;
    const ChannelBytes o = channelBytes(image);
    const ptrdiff_t step = pixelStride(image);
    const MaskRows maskRows(mask);
    int64_t counted = 0;
    for (int32_t y = 0; y < image.height; ++y) {
        if (cancelRequested(cancel)) return -1;
        const uint8_t *selected = maskRows.row(y);
        const uint8_t *p = image.data + static_cast<ptrdiff_t>(y) * image.width * step;
        for (int32_t x = 0; x < image.width; ++x, p += step) {
            if (selected && !selected[x]) continue;
            uint32_t b = sampleAt(p + o.c[0], wide, 0);
            for (int k = 1; k < 3; ++k) {
                const uint32_t v = sampleAt(p + o.c[k], wide, 0);
                b = v > b ? v : b;
            }
            count(b);
            ++counted;
        }
    }
    return counted;
}

// The outcome of a filter that found nothing to measure: the destination
// gets the whole source picture.
wzStatus unchangedWhole(const wzImage *source, wzImage *destination) {
    if (source != destination) {
        wzImage from = *source, to = *destination;
        wzImageResetROI(&from);
        wzImageResetROI(&to);
        wzCopy(&from, &to);
    }
    return WZ_STATUS_NO_PIXELS;
}

void storeHistogram(const uint64_t *counts, float *hist) {
    constexpr uint64_t kFloatLimit = uint64_t{1} << 24;  // where a float bin grown by 1 stops
    for (int v = 0; v < 256; ++v)
        hist[v] = static_cast<float>(counts[v] < kFloatLimit ? counts[v] : kFloatLimit);
}

// The levels of the 16-bit stretch: the rule of the 8-bit curve on 65536
// bins, in double precision.
void levels16(const wzContrastEnhanceParams &params, const double *bins, double total, int32_t &low,
              int32_t &high) {
    if (params.manual) {
        low = params.manualLow * 257;
        high = params.manualHigh * 257;
        return;
    }
    const double highCount = (params.highTail * total) / 1000.0;
    const double lowCount = (total * params.lowTail) / 1000.0;
    double sum = 0.0;
    low = kLevels - 1;
    for (int k = 0; k < kLevels - 1; ++k) {
        sum += bins[k];
        if (sum > lowCount) {
            low = k;
            break;
        }
    }
    sum = 0.0;
    high = 0;
    for (int k = kLevels - 1; k >= 1; --k) {
        sum += bins[k];
        if (sum > highCount) {
            high = k;
            break;
        }
    }
}

wzStatus filter16(const wzContrastEnhanceParams &params, wzImage *source, const wzImage *statsMask,
                  const wzImage *mask, wzImage *destination, const uint32_t *cancel) {
    if (destination->type != wzType16U || destination->encoding != source->encoding ||
        destination->width != source->width || destination->height != source->height)
        return WZ_STATUS_ERROR;
    FreePtr<wzContrastEnhanceStats16> stats = allocArray<wzContrastEnhanceStats16>(1);
    FreePtr<uint16_t> curve = allocArray<uint16_t>(kLevels);
    if (!stats || !curve) return WZ_STATUS_ERROR;
    const wzStatus gathered =
        wzContrastEnhanceStatsRetrieve16(stats.get(), source, statsMask, cancel);
    if (gathered != WZ_STATUS_OK) return gathered;
    if (stats->total == 0.0 && int64_t{source->width} * source->height > 0)
        return unchangedWhole(source, destination);
    wzContrastEnhanceAddParamsCompute16(stats.get(), &params, curve.get());
    stats.reset();
    wzImage *copy = nullptr;
    ScopeGuard releaseCopy([&] { wzImageRelease(&copy); });
    if (mask && source == destination) {
        copy = wzImageCreateAs(source);
        if (!copy) return WZ_STATUS_ERROR;
        wzImageSetROI(copy, &source->roi);
        wzCopy(source, copy);
    }
    const wzStatus applied = wzContrastEnhanceApply16(curve.get(), source, destination, cancel);
    if (applied != WZ_STATUS_OK || !mask) return applied;
    const bool blended = copy ? blendMasked16(*copy, *source, *source, *mask)
                              : blendMasked16(*source, *destination, *destination, *mask);
    return blended ? WZ_STATUS_OK : WZ_STATUS_ERROR;
}

}  // namespace

extern "C" {

MORVEN_API wzStatus wzContrastEnhanceStatsRetrieveMasked(wzContrastEnhanceStats *stats,
                                                         const wzImage *image, const wzImage *mask,
                                                         const uint32_t *cancel) {
    // cppcheck-suppress memsetClassFloat ; all bits zero is 0.0 in IEEE 754, as the library assumes
    std::memset(stats, 0, sizeof *stats);
    if (!imageAndMaskFit(*image, mask)) return WZ_STATUS_ERROR;
    if (!mask && image->type == wzType8U)
        return wzContrastEnhanceStatsRetrieve(stats, image, cancel);
    uint64_t counts[256] = {};
    const bool wide = image->type == wzType16U;
    const int64_t counted = countBrightness(
        *image, mask, [&counts, wide](uint32_t b) { ++counts[wide ? level8Of16(b) : b]; }, cancel);
    if (counted < 0) return WZ_STATUS_CANCELLED;
    storeHistogram(counts, stats->hist);
    stats->total = static_cast<float>(counted);
    return WZ_STATUS_OK;
}

MORVEN_API wzStatus wzContrastEnhanceStatsRetrieve16(wzContrastEnhanceStats16 *stats,
                                                     const wzImage *image, const wzImage *mask,
                                                     const uint32_t *cancel) {
    std::memset(stats, 0, sizeof *stats);
    if (!imageAndMaskFit(*image, mask)) return WZ_STATUS_ERROR;
    const uint32_t scale = image->type == wzType16U ? 1 : 257;
    // Counted straight into the doubles: whole numbers stay exact to 2^53.
    double *hist = stats->hist;
    const int64_t counted = countBrightness(
        *image, mask, [hist, scale](uint32_t b) { hist[b * scale] += 1.0; }, cancel);
    if (counted < 0) return WZ_STATUS_CANCELLED;
    stats->total = static_cast<double>(counted);
    return WZ_STATUS_OK;
}

MORVEN_API void wzContrastEnhanceAddParamsCompute16(const wzContrastEnhanceStats16 *stats,
                                                    const wzContrastEnhanceParams *params,
                                                    uint16_t curve[65536]) {
    int32_t low = 0, high = 0;
    levels16(*params, stats->hist, stats->total, low, high);
    const double scale = 65535.0 / (high - low);
    for (int32_t v = 0; v < kLevels; ++v) {
        double level = high == low ? (v > low ? 65535.0 : 0.0) : (v - low) * scale;
        level = level > 0.0 ? (level < 65535.0 ? level : 65535.0) : 0.0;
        curve[v] = static_cast<uint16_t>(level);
    }
}

MORVEN_API wzStatus wzContrastEnhanceApply16(const uint16_t curve[65536], const wzImage *source,
                                             wzImage *destination, const uint32_t *cancel) {
    if (source->type != wzType16U || !isValidEncoding(source->encoding) ||
        destination->type != wzType16U || destination->encoding != source->encoding ||
        destination->width != source->width || destination->height != source->height ||
        source->width < 0 || source->height < 0)
        return WZ_STATUS_ERROR;
    const ChannelBytes o = channelBytes(*source);
    const int channels = source->encoding == wzEncodingGray ? 1 : 3;
    const ptrdiff_t step = pixelStride(*source);
    const ptrdiff_t row = step * source->width;
    for (int32_t y = 0; y < source->height; ++y) {
        if (cancelRequested(cancel)) return WZ_STATUS_CANCELLED;
        const uint8_t *s = source->data + y * row;
        uint8_t *d = destination->data + y * row;
        for (int32_t x = 0; x < source->width; ++x, s += step, d += step)
            for (int k = 0; k < channels; ++k)
                storeRaw<uint16_t>(d + o.c[k], curve[loadElement<uint16_t>(s + o.c[k])]);
    }
    return WZ_STATUS_OK;
}

MORVEN_API wzStatus wzContrastEnhanceFilterMasked(const wzContrastEnhanceParams *params,
                                                  wzImage *source, const wzImage *statsMask,
                                                  const wzImage *mask, wzImage *destination,
                                                  const uint32_t *cancel) {
    if (!imageAndMaskFit(*source, statsMask) ||
        (mask && (mask->type != wzType8U || mask->encoding != wzEncodingGray)))
        return WZ_STATUS_ERROR;
    if (source->type == wzType16U)
        return filter16(*params, source, statsMask, mask, destination, cancel);
    if (!statsMask) return wzContrastEnhanceFilter(params, source, mask, destination, cancel);
    wzContrastEnhanceStats stats;
    const wzStatus gathered =
        wzContrastEnhanceStatsRetrieveMasked(&stats, source, statsMask, cancel);
    if (gathered != WZ_STATUS_OK) return gathered;
    if (stats.total == 0.0f && int64_t{source->width} * source->height > 0)
        return unchangedWhole(source, destination);
    uint8_t curve[256];
    wzContrastEnhanceAddParamsCompute(&stats, params, curve);
    return applyCurveMasked(curve, source, mask, destination, cancel);
}

}  // extern "C"
