// Extended histogram operations: statistics under a mask, deep (65536-bin)
// profiles, and matching, equalisation and stretch of 16-bit pictures and
// in working colour spaces.
#include <cstdlib>
#include <cstring>

#include "common/cancel.hpp"
#include "common/memory.hpp"
#include "histogram/deep.hpp"
#include "histogram/match_internal.hpp"
#include "histogram/space.hpp"
#include "image/extension_support.hpp"
#include "image/image_internal.hpp"
#include "morven/color.h"
#include "morven/histogram.h"

using namespace morven;

namespace {

constexpr int kLevels = deep::kLevels;
using LevelBins = double[kLevels];

bool knownSpace(int32_t space) { return space >= wzSpaceChannels && space <= wzSpaceLab; }

// Luma and Y'CbCr count the same values.
int32_t countingSpace(int32_t space) { return space == wzSpaceLuma ? wzSpaceYCbCr : space; }

bool regionEmpty(const wzImage &img) { return img.roi.width < 1 || img.roi.height < 1; }

// 8-bit profile counts of the selected pixels, saturated where a float bin
// grown by 1.0f stops (2^24).
void countProfile(const wzImage &image, const wzImage *mask, wzImageColorProfile &profile) {
    uint64_t counts[3][256] = {};
    const PixelLayout layout = pixelLayout(image);
    const int channels = layout.gray ? 1 : 3;
    const MaskRows maskRows(mask);
    Cursor c = regionCursor(image);
    const int32_t cols = image.roi.width;
    for (int32_t y = 0; y < image.roi.height; ++y, c.p += c.step * cols + c.gap) {
        const uint8_t *selected = maskRows.row(y);
        const uint8_t *p = c.p;
        for (int32_t x = 0; x < cols; ++x, p += c.step) {
            if (selected && !selected[x]) continue;
            for (int k = 0; k < channels; ++k) {
                const uint32_t v = layout.wide ? level8Of16(loadElement<uint16_t>(p + layout.c[k]))
                                               : p[layout.c[k]];
                ++counts[2 - k][v];
            }
        }
    }
    constexpr uint64_t kFloatLimit = uint64_t{1} << 24;
    for (int a = 0; a < 3; ++a) {
        const uint64_t *from = counts[channels == 1 ? 2 : a];
        for (int v = 0; v < 256; ++v)
            profile.bins[a][v] = static_cast<float>(from[v] < kFloatLimit ? from[v] : kFloatLimit);
    }
}

float profileTotal(const wzImageColorProfile &p) {
    float sum = 0.0f;
    for (float v : p.bins[2]) sum += v;
    return sum;
}

// The destination's region gets the source's values: the outcome of a
// filter that found nothing to measure.
wzStatus unchanged(const wzImage *source, wzImage *destination) {
    if (source != destination) wzCopy(source, destination);
    return WZ_STATUS_NO_PIXELS;
}

// Memory of one deep match: source counts, curves, the curve scratch and a
// row of working planes.
struct DeepWork {
    FreePtr<LevelBins> counts;  // [3]
    FreePtr<float> arrays;      // 3 (or 9, with bin ends) * kLevels
    deep::Curve curves[3] = {};
    FreePtr<double> scratch;    // deep::kCurveScratch
    FreePtr<float> planes;      // 3 * width
    WorkingSpace space;

    bool init(int32_t spaceCode, bool wide, int32_t width, bool needCounts) {
        if (needCounts) counts.reset(static_cast<LevelBins *>(std::calloc(3, sizeof(LevelBins))));
        // Working values fall between levels: their curves need bin ends.
        const size_t per = spaceCode == wzSpaceChannels ? 1 : 3;
        arrays.reset(static_cast<float *>(std::malloc(3 * per * kLevels * sizeof(float))));
        for (int k = 0; arrays && k < 3; ++k) {
            float *base = arrays.get() + static_cast<size_t>(k) * per * kLevels;
            curves[k] = {base, per == 3 ? base + kLevels : nullptr, per == 3 ? base + 2 * kLevels : nullptr};
        }
        scratch.reset(static_cast<double *>(std::malloc(deep::kCurveScratch * sizeof(double))));
        planes.reset(static_cast<float *>(std::malloc((3 * static_cast<size_t>(width) + 1) * sizeof(float))));
        return (counts || !needCounts) && arrays && scratch && planes &&
               space.init(spaceCode == wzSpaceChannels ? wzSpaceYCbCr : spaceCode, wide);
    }
};

// The 256 bins of an 8-bit profile array as doubles.
void widen256(const float *bins, double *out) {
    for (int i = 0; i < 256; ++i) out[i] = bins[i];
}

// Runs the curves from source to destination, blending under the mask as
// the matching filter does (in place with a mask, over a copy of the
// source's region).
wzStatus applyWithBlend(const deep::Curve *const curves[3], int32_t space, DeepWork &work, wzImage *source,
                        const wzImage *mask, wzImage *destination, const uint32_t *cancel) {
    if (space == wzSpaceChannels && source->type == wzType8U) {
        uint8_t table[768];
        deep::curvesToTable8(curves, table);
        return applyTableMasked(table, source, mask, destination, cancel);
    }
    if (mask && source == destination) {
        wzImage *copy = wzImageCreateWithType(source->roi.width, source->roi.height,
                                              source->encoding, source->type);
        if (!copy) return WZ_STATUS_ERROR;
        ScopeGuard release([&] { wzImageRelease(&copy); });
        wzCopy(source, copy);
        wzStatus status = deep::applyCurves(curves, space, work.space, *copy, *source,
                                            work.planes.get(), cancel);
        if (status == WZ_STATUS_OK) status = blendMaskedAny(*copy, *source, *source, *mask);
        return status;
    }
    wzStatus status = deep::applyCurves(curves, space, work.space, *source, *destination,
                                        work.planes.get(), cancel);
    if (status == WZ_STATUS_OK && mask) status = blendMaskedAny(*source, *destination, *destination, *mask);
    return status;
}

// Source and destination of an extended filter: 8- or 16-bit alike, both
// gray or both colour, regions inside their blocks, the destination's region
// at least the source's.
bool pairFits(const wzImage &source, const wzImage &destination) {
    return isDeepCapable(source) && isDeepCapable(destination) && source.type == destination.type &&
           (source.encoding == wzEncodingGray) == (destination.encoding == wzEncodingGray) &&
           destination.roi.width >= source.roi.width && destination.roi.height >= source.roi.height;
}

bool blendMaskFits(const wzImage *mask, const wzImage &source) {
    return statsMaskFits(mask, source.roi.width, source.roi.height);
}

}  // namespace

extern "C" {

MORVEN_API wzImageColorProfile16 *wzImageColorProfile16Create(void) {
    return static_cast<wzImageColorProfile16 *>(std::calloc(1, sizeof(wzImageColorProfile16)));
}

MORVEN_API void wzImageColorProfile16Release(wzImageColorProfile16 **profile) {
    if (!profile || !*profile) return;
    std::free(*profile);
    *profile = nullptr;
}

MORVEN_API wzStatus wzImageFillColorProfileMasked(const wzImage *image, const wzImage *mask,
                                                  wzImageColorProfile *profile) {
    std::memset(profile, 0, sizeof *profile);
    if (!isDeepCapable(*image) || !statsMaskFits(mask, image->roi.width, image->roi.height))
        return WZ_STATUS_ERROR;
    if (!mask && image->type == wzType8U) return wzImageFillColorProfile(image, profile);
    countProfile(*image, mask, *profile);
    return WZ_STATUS_OK;
}

MORVEN_API wzStatus wzImageFillColorProfile16(const wzImage *image, const wzImage *mask,
                                              wzWorkingSpace space, wzImageColorProfile16 *profile) {
    std::memset(profile, 0, sizeof *profile);
    if (!isDeepCapable(*image) || !knownSpace(space) ||
        !statsMaskFits(mask, image->roi.width, image->roi.height))
        return WZ_STATUS_ERROR;
    profile->space = space;
    WorkingSpace ws;
    const size_t n = static_cast<size_t>(image->roi.width);
    FreePtr<float> planes(static_cast<float *>(std::malloc((3 * n + 1) * sizeof(float))));
    if (!planes || !ws.init(space == wzSpaceChannels ? wzSpaceYCbCr : space, image->type == wzType16U))
        return WZ_STATUS_ERROR;
    return deep::countLevels(*image, mask, countingSpace(space), ws, profile->bins, planes.get(), nullptr);
}

MORVEN_API wzStatus wzHistogramMatchStatsRetrieveMasked(wzHistogramMatchStats *stats,
                                                        const wzImage *image, const wzImage *mask) {
    return wzImageFillColorProfileMasked(image, mask, stats->profile);
}

MORVEN_API wzStatus wzHistogramMatchFilterWithOptions(const wzHistogramMatchParams *params,
                                                      const wzHistogramMatchOptions *options,
                                                      wzImage *source, const wzImage *mask,
                                                      wzImage *destination, const uint32_t *cancel) {
    const wzHistogramMatchOptions defaults{};
    const wzHistogramMatchOptions &o = options ? *options : defaults;
    const wzImageColorProfile16 *deepTarget = o.targetProfile16;
    const int32_t roiW = source->roi.width, roiH = source->roi.height;
    if (!pairFits(*source, *destination) || !knownSpace(o.space) ||
        !statsMaskFits(o.statsMask, roiW, roiH) || !blendMaskFits(mask, *source))
        return WZ_STATUS_ERROR;
    if (deepTarget ? countingSpace(deepTarget->space) != countingSpace(o.space)
                   : (!params->targetProfile || o.space != wzSpaceChannels))
        return WZ_STATUS_ERROR;
    const bool wide = source->type == wzType16U;
    const bool gray = source->encoding == wzEncodingGray;

    // 8-bit channels against an 8-bit target: the core computation.
    if (!wide && !deepTarget && o.space == wzSpaceChannels) {
        wzImageColorProfile profile;
        wzHistogramMatchStats stats{&profile};
        wzImageFillColorProfileMasked(source, o.statsMask, &profile);
        if (!regionEmpty(*source) && (!(profileTotal(profile) > 0.0f) ||
                                      !(profileTotal(*params->targetProfile) > 0.0f)))
            return unchanged(source, destination);
        uint8_t table[768];
        wzHistogramMatchAddParamsCompute(&stats, params, table);
        return applyTableMasked(table, source, mask, destination, cancel);
    }

    // Everything else at 16-bit precision. Source statistics: the 8-bit
    // profile for 8-bit channels, else counts of every level.
    const bool count8 = !wide && o.space == wzSpaceChannels;
    DeepWork work;
    if (!work.init(o.space, wide, roiW, !count8)) return WZ_STATUS_ERROR;
    wzImageColorProfile profile8;
    if (count8) {
        wzImageFillColorProfileMasked(source, o.statsMask, &profile8);
    } else {
        const wzStatus counted = deep::countLevels(*source, o.statsMask, countingSpace(o.space),
                                                   work.space, work.counts.get(),
                                                   work.planes.get(), cancel);
        if (counted != WZ_STATUS_OK) return counted;
    }
    const deep::CurveShape shape{params->strength, params->fidelity, params->maxStep};
    const int matched = gray || o.space == wzSpaceLuma ? 1 : 3;
    const deep::Curve *curves[3] = {nullptr, nullptr, nullptr};
    for (int k = 0; k < matched; ++k) {
        const int a = 2 - k;  // profile array of channel (or plane) k + 1
        double s8[256], t8[256];
        deep::Bins src{work.counts ? work.counts.get()[a] : s8, kLevels};
        if (count8) {
            widen256(profile8.bins[a], s8);
            src.size = 256;
        }
        deep::Bins tgt{deepTarget ? deepTarget->bins[a] : t8, kLevels};
        if (!deepTarget) {
            widen256(params->targetProfile->bins[a], t8);
            tgt.size = 256;
        }
        if (!deep::buildCurve(src, tgt, shape, work.scratch.get(), work.curves[k])) {
            if (regionEmpty(*source)) return WZ_STATUS_OK;
            return unchanged(source, destination);
        }
        curves[k] = &work.curves[k];
    }
    return applyWithBlend(curves, o.space, work, source, mask, destination, cancel);
}

MORVEN_API wzStatus wzHistogramEqualizationMasked(const wzImage *source, const wzImage *statsMask,
                                                  wzImage *destination) {
    wzImage *src = const_cast<wzImage *>(source);  // only read: no blend mask is given
    if (!pairFits(*source, *destination) ||
        !statsMaskFits(statsMask, source->roi.width, source->roi.height))
        return WZ_STATUS_ERROR;
    if (source->type == wzType8U) {
        wzImageColorProfile flat, profile;
        wzImageColorProfileForEqualization(&flat);
        wzImageFillColorProfileMasked(source, statsMask, &profile);
        if (regionEmpty(*source)) return WZ_STATUS_OK;
        if (!(profileTotal(profile) > 0.0f)) return unchanged(source, destination);
        wzImageColorProfileNormalize(&profile);
        const wzHistogramMatchParams params{1.0f, 1.0f, 0, 256, &flat};
        const wzHistogramMatchStats stats{&profile};
        uint8_t table[768];
        wzHistogramMatchAddParamsCompute(&stats, &params, table);
        wzHistogramMatchApply(nullptr, table, source, destination, nullptr);
        return WZ_STATUS_OK;
    }
    // 16-bit: a match to the flat distribution over every level.
    wzImageColorProfile16 *flat = wzImageColorProfile16Create();
    if (!flat) return WZ_STATUS_ERROR;
    ScopeGuard release([&] { wzImageColorProfile16Release(&flat); });
    for (auto &array : flat->bins)
        for (double &bin : array) bin = 1.0;
    wzImageColorProfile unused{};
    const wzHistogramMatchParams params{1.0f, 1.0f, 0, 256, &unused};
    const wzHistogramMatchOptions options{wzSpaceChannels, 0, statsMask, flat};
    return wzHistogramMatchFilterWithOptions(&params, &options, src, nullptr, destination, nullptr);
}

MORVEN_API wzStatus wzHistogramStretchMasked(const wzImage *source, const wzImage *statsMask,
                                             wzImage *destination) {
    if (!pairFits(*source, *destination) ||
        !statsMaskFits(statsMask, source->roi.width, source->roi.height))
        return WZ_STATUS_ERROR;
    if (regionEmpty(*source)) return WZ_STATUS_ERROR;
    if (source->type == wzType8U) {
        wzImageColorProfile profile;
        wzImageFillColorProfileMasked(source, statsMask, &profile);
        uint8_t table[768];
        switch (stretchTable8(profile, table)) {
            case Stretch::Empty: return unchanged(source, destination);
            case Stretch::Flat: wzCopy(source, destination); return WZ_STATUS_ERROR;
            case Stretch::Done: break;
        }
        wzHistogramMatchApply(nullptr, table, source, destination, nullptr);
        return WZ_STATUS_OK;
    }
    // 16-bit: each channel's lowest and highest selected level.
    const PixelLayout layout = pixelLayout(*source);
    const int channels = layout.gray ? 1 : 3;
    uint32_t lo[3] = {65535, 65535, 65535}, hi[3] = {0, 0, 0};
    bool any = false;
    const MaskRows maskRows(statsMask);
    Cursor c = regionCursor(*source);
    const int32_t cols = source->roi.width;
    for (int32_t y = 0; y < source->roi.height; ++y, c.p += c.step * cols + c.gap) {
        const uint8_t *selected = maskRows.row(y);
        const uint8_t *p = c.p;
        for (int32_t x = 0; x < cols; ++x, p += c.step) {
            if (selected && !selected[x]) continue;
            any = true;
            for (int k = 0; k < channels; ++k) {
                const uint32_t v = loadElement<uint16_t>(p + layout.c[k]);
                lo[k] = v < lo[k] ? v : lo[k];
                hi[k] = v > hi[k] ? v : hi[k];
            }
        }
    }
    if (!any) return unchanged(source, destination);
    DeepWork work;
    if (!work.init(wzSpaceChannels, true, cols, false)) return WZ_STATUS_ERROR;
    const deep::Curve *curves[3] = {nullptr, nullptr, nullptr};
    for (int k = 0; k < channels; ++k) {
        if (lo[k] == hi[k]) continue;  // a single value: that channel stays as it is
        float *curve = work.curves[k].centre;
        const double scale = 65535.0 / (hi[k] - lo[k]);
        for (uint32_t v = 0; v < static_cast<uint32_t>(kLevels); ++v)
            curve[v] = v < lo[k] ? 0.0f
                     : v >= hi[k] ? 65535.0f
                                  : static_cast<float>(static_cast<uint32_t>(scale * (v - lo[k])));
        curves[k] = &work.curves[k];
    }
    if (!curves[0] && !curves[1] && !curves[2]) {
        wzCopy(source, destination);
        return WZ_STATUS_ERROR;
    }
    return deep::applyCurves(curves, wzSpaceChannels, work.space, *source, *destination,
                             work.planes.get(), nullptr);
}

}  // extern "C"
