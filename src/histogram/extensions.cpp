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

// Working memory of computing curves and of walking rows in a space.
struct CurveWork {
    FreePtr<double> scratch;  // deep::kCurveScratch
    FreePtr<float> planes;    // 3 * width + 1
    WorkingSpace space;

    bool initCompute() {
        scratch = allocArray<double>(deep::kCurveScratch);
        return scratch != nullptr;
    }
    bool initRows(int32_t spaceCode, bool wide, int32_t width) {
        planes = allocArray<float>(3 * int64_t{width} + 1);
        return planes && space.init(spaceCode == wzSpaceChannels ? wzSpaceYCbCr : spaceCode, wide);
    }
};

void setIdentity(wzHistogramMatchCurves &c, int32_t space) {
    c.space = space;
    c.mapped = 0;
    for (int k = 0; k < 3; ++k)
        for (int u = 0; u < kLevels; ++u) {
            c.centre[k][u] = static_cast<float>(u);
            c.lower[k][u] = u > 0 ? u - 0.5f : 0.0f;
            c.upper[k][u] = u < kLevels - 1 ? u + 0.5f : static_cast<float>(kLevels - 1);
        }
}

// Counts the selected pixels of the image's region into a deep profile.
wzStatus fillDeep(const wzImage &image, const wzImage *mask, int32_t space,
                  wzImageColorProfile16 &profile, const uint32_t *cancel) {
    std::memset(&profile, 0, sizeof profile);
    profile.space = space;
    CurveWork work;
    if (!work.initRows(space, image.type == wzType16U, image.roi.width)) return WZ_STATUS_ERROR;
    return deep::countLevels(image, mask, countingSpace(space), work.space, profile.bins,
                             work.planes.get(), cancel);
}

// Applies a curves record from source to destination's region.
wzStatus applyRecord(const wzHistogramMatchCurves &c, const wzImage &source, wzImage &destination,
                     const uint32_t *cancel) {
    const bool gray = source.encoding == wzEncodingGray;
    deep::Curve views[3];
    const deep::Curve *curves[3] = {nullptr, nullptr, nullptr};
    for (int k = 0; k < (gray ? 1 : 3); ++k) {
        if (!(c.mapped >> k & 1)) continue;
        views[k] = deep::Curve{c.centre[k], c.lower[k], c.upper[k]};
        curves[k] = &views[k];
    }
    if (c.space == wzSpaceChannels && source.type == wzType8U) {
        uint8_t table[768];
        deep::curvesToTable8(curves, table);
        return wzHistogramMatchApply(nullptr, table, &source, &destination, cancel);
    }
    CurveWork work;
    if (!work.initRows(c.space, source.type == wzType16U, source.roi.width)) return WZ_STATUS_ERROR;
    return deep::applyCurves(curves, c.space, work.space, source, destination, work.planes.get(),
                             cancel);
}

// Applies curves and blends with the unmatched values under the mask as the
// matching filter does (in place with a mask, from a copy of the region).
wzStatus applyBlended(const wzHistogramMatchCurves &c, wzImage *source, const wzImage *mask,
                      wzImage *destination, const uint32_t *cancel) {
    if (mask && source == destination) {
        wzImage *copy = wzImageCreateWithType(source->roi.width, source->roi.height,
                                              source->encoding, source->type);
        if (!copy) return WZ_STATUS_ERROR;
        ScopeGuard release([&] { wzImageRelease(&copy); });
        wzCopy(source, copy);
        wzStatus status = applyRecord(c, *copy, *source, cancel);
        if (status == WZ_STATUS_OK) status = blendMaskedAny(*copy, *source, *source, *mask);
        return status;
    }
    wzStatus status = applyRecord(c, *source, *destination, cancel);
    if (status == WZ_STATUS_OK && mask)
        status = blendMaskedAny(*source, *destination, *destination, *mask);
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

// A deep target that serves a space, or else an 8-bit one in channels.
bool targetServes(const wzImageColorProfile16 *target16, const wzHistogramMatchParams &params,
                  int32_t space) {
    return target16 ? countingSpace(target16->space) == countingSpace(space)
                    : params.targetProfile && space == wzSpaceChannels;
}

}  // namespace

extern "C" {

MORVEN_API wzImageColorProfile16 *wzImageColorProfile16Create(void) {
    return allocZeroed<wzImageColorProfile16>().release();
}

MORVEN_API void wzImageColorProfile16Release(wzImageColorProfile16 **profile) {
    releaseRecord(profile);
}

MORVEN_API wzHistogramMatchCurves *wzHistogramMatchCurvesCreate(void) {
    FreePtr<wzHistogramMatchCurves> curves = allocArray<wzHistogramMatchCurves>(1);
    if (curves) setIdentity(*curves, wzSpaceChannels);
    return curves.release();
}

MORVEN_API void wzHistogramMatchCurvesRelease(wzHistogramMatchCurves **curves) {
    releaseRecord(curves);
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
                                              wzWorkingSpace space,
                                              wzImageColorProfile16 *profile) {
    std::memset(profile, 0, sizeof *profile);
    if (!isDeepCapable(*image) || !knownSpace(space) ||
        !statsMaskFits(mask, image->roi.width, image->roi.height))
        return WZ_STATUS_ERROR;
    return fillDeep(*image, mask, space, *profile, nullptr);
}

MORVEN_API wzStatus wzHistogramMatchStatsRetrieveMasked(wzHistogramMatchStats *stats,
                                                        const wzImage *image, const wzImage *mask) {
    return wzImageFillColorProfileMasked(image, mask, stats->profile);
}

MORVEN_API wzStatus wzHistogramMatchCurvesCompute(const wzImageColorProfile16 *source,
                                                  const wzHistogramMatchParams *params,
                                                  const wzImageColorProfile16 *target16,
                                                  int32_t channels,
                                                  wzHistogramMatchCurves *curves) {
    const int32_t space = source->space;
    if (!knownSpace(space) || !targetServes(target16, *params, space) ||
        (channels != 1 && channels != 3))
        return WZ_STATUS_ERROR;
    CurveWork work;
    if (!work.initCompute()) return WZ_STATUS_ERROR;
    const int matched = channels == 1 || space == wzSpaceLuma ? 1 : 3;
    setIdentity(*curves, space);
    for (int k = 0; k < matched; ++k) {
        const int a = 2 - k;  // profile array of channel (or plane) k + 1
        double t8[256];
        deep::Bins target{t8, 256};
        if (target16) {
            target = deep::Bins{target16->bins[a], kLevels};
        } else {
            for (int v = 0; v < 256; ++v) t8[v] = params->targetProfile->bins[a][v];
        }
        const deep::Bins from{source->bins[a], kLevels};
        const deep::CurveShape shape{params->strength, params->fidelity, params->maxStep,
                                     space != wzSpaceChannels && k > 0};
        if (!deep::buildCurve(from, target, shape, work.scratch.get(), curves->centre[k],
                              curves->lower[k], curves->upper[k])) {
            setIdentity(*curves, space);
            return WZ_STATUS_NO_PIXELS;
        }
    }
    curves->mapped = (1 << matched) - 1;
    return WZ_STATUS_OK;
}

MORVEN_API wzStatus wzHistogramMatchCurvesApply(const wzHistogramMatchCurves *curves,
                                                const wzImage *source, wzImage *destination,
                                                const uint32_t *cancel) {
    if (!pairFits(*source, *destination) || !knownSpace(curves->space)) return WZ_STATUS_ERROR;
    return applyRecord(*curves, *source, *destination, cancel);
}

MORVEN_API wzStatus wzHistogramMatchFilterWithOptions(const wzHistogramMatchParams *params,
                                                      const wzHistogramMatchOptions *options,
                                                      wzImage *source, const wzImage *mask,
                                                      wzImage *destination,
                                                      const uint32_t *cancel) {
    const wzHistogramMatchOptions defaults{};
    const wzHistogramMatchOptions &o = options ? *options : defaults;
    if (!pairFits(*source, *destination) || !knownSpace(o.space) ||
        !statsMaskFits(o.statsMask, source->roi.width, source->roi.height) ||
        !blendMaskFits(mask, *source) || !targetServes(o.targetProfile16, *params, o.space))
        return WZ_STATUS_ERROR;

    // 8-bit channels against an 8-bit target: the core computation.
    if (source->type == wzType8U && !o.targetProfile16 && o.space == wzSpaceChannels) {
        wzImageColorProfile profile;
        wzHistogramMatchStats stats{&profile};
        wzImageFillColorProfileMasked(source, o.statsMask, &profile);
        if (!regionEmpty(*source) &&
            (!(profileTotal(profile) > 0.0f) || !(profileTotal(*params->targetProfile) > 0.0f)))
            return unchanged(source, destination);
        uint8_t table[768];
        wzHistogramMatchAddParamsCompute(&stats, params, table);
        return applyTableMasked(table, source, mask, destination, cancel);
    }

    // Everything else at 16-bit precision.
    FreePtr<wzImageColorProfile16> profile = allocZeroed<wzImageColorProfile16>();
    FreePtr<wzHistogramMatchCurves> curves = allocArray<wzHistogramMatchCurves>(1);
    if (!profile || !curves) return WZ_STATUS_ERROR;
    wzStatus status = fillDeep(*source, o.statsMask, o.space, *profile, cancel);
    if (status != WZ_STATUS_OK) return status;
    status =
        wzHistogramMatchCurvesCompute(profile.get(), params, o.targetProfile16,
                                      source->encoding == wzEncodingGray ? 1 : 3, curves.get());
    profile.reset();
    if (status == WZ_STATUS_NO_PIXELS)
        return regionEmpty(*source) ? WZ_STATUS_OK : unchanged(source, destination);
    if (status != WZ_STATUS_OK) return status;
    if (o.space == wzSpaceChannels && source->type == wzType8U) {
        uint8_t table[768];
        const deep::Curve views[3] = {{curves->centre[0], nullptr, nullptr},
                                      {curves->centre[1], nullptr, nullptr},
                                      {curves->centre[2], nullptr, nullptr}};
        const deep::Curve *mapped[3] = {&views[0], &views[1], &views[2]};
        deep::curvesToTable8(mapped, table);
        curves.reset();
        return applyTableMasked(table, source, mask, destination, cancel);
    }
    return applyBlended(*curves, source, mask, destination, cancel);
}

MORVEN_API wzStatus wzHistogramEqualizationMasked(const wzImage *source, const wzImage *statsMask,
                                                  wzImage *destination) {
    if (!pairFits(*source, *destination) ||
        !statsMaskFits(statsMask, source->roi.width, source->roi.height))
        return WZ_STATUS_ERROR;
    if (source->type == wzType8U) {
        wzImageColorProfile profile;
        wzImageFillColorProfileMasked(source, statsMask, &profile);
        if (regionEmpty(*source)) return WZ_STATUS_OK;
        if (!(profileTotal(profile) > 0.0f)) return unchanged(source, destination);
        applyEqualization(profile, source, destination);
        return WZ_STATUS_OK;
    }
    // 16-bit: a match to the flat distribution over every level.
    FreePtr<wzImageColorProfile16> flat = allocZeroed<wzImageColorProfile16>();
    if (!flat) return WZ_STATUS_ERROR;
    for (auto &array : flat->bins)
        for (double &bin : array) bin = 1.0;
    wzImageColorProfile unused{};
    const wzHistogramMatchParams params{1.0f, 1.0f, 0, 256, &unused};
    const wzHistogramMatchOptions options{wzSpaceChannels, 0, statsMask, flat.get()};
    wzImage *src = const_cast<wzImage *>(source);  // only read: no blend mask is given
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
    if (lo[0] == hi[0] && (channels == 1 || (lo[1] == hi[1] && lo[2] == hi[2]))) {
        wzCopy(source, destination);  // every channel holds a single value
        return WZ_STATUS_ERROR;
    }
    // Per sample, nothing allocated: a channel holding one value stays as it is.
    const PixelLayout out = pixelLayout(*destination);
    Cursor s = regionCursor(*source), d = regionCursor(*destination);
    for (int32_t y = 0; y < source->roi.height; ++y) {
        for (int32_t x = 0; x < cols; ++x, s.p += s.step, d.p += d.step) {
            uint16_t v[3];
            for (int k = 0; k < channels; ++k) {
                const uint32_t level = loadElement<uint16_t>(s.p + layout.c[k]);
                v[k] = lo[k] == hi[k]  ? static_cast<uint16_t>(level)
                       : level < lo[k] ? 0
                       : level >= hi[k]
                           ? 65535
                           : static_cast<uint16_t>(65535.0 / (hi[k] - lo[k]) * (level - lo[k]));
            }
            for (int k = 0; k < channels; ++k) storeRaw<uint16_t>(d.p + out.c[k], v[k]);
        }
        s.p += s.gap;
        d.p += d.gap;
    }
    return WZ_STATUS_OK;
}

}  // extern "C"
