/**
 * @file
 * @brief Colour profiles, histogram matching, equalisation and stretch.
 * @ingroup morven_histogram
 */
/**
 * @defgroup morven_histogram Histograms
 * @brief Colour profiles, histogram matching, equalisation and stretch; with
 *        the extensions, statistics masks, 16-bit pictures and working colour
 *        spaces.
 *
 * All images handled by the core functions are 8-bit (wzType8U). A colour
 * profile holds three 256-bin histograms; a match look-up table holds 768
 * bytes, block 0 for channel 1 (blue), block 1 for channel 2 (green), block 2
 * for channel 3 (red); a one-channel image uses block 0.
 *
 * Filters take a cancel flag (may be null): a 32-bit value read before every
 * row; when another thread sets it non-zero the filter returns 2, leaving the
 * rows already written.
 * @{
 */
#ifndef MORVEN_HISTOGRAM_H
#define MORVEN_HISTOGRAM_H

#include "image.h"

MORVEN_EXTERN_C_BEGIN

/** Three 256-bin histograms as floats, in red, green, blue order.
 *
 *  bins[0] counts channel 3 (red), bins[1] channel 2 (green), bins[2]
 *  channel 1 (blue, or the one channel of a gray image). Counts grow by 1.0f,
 *  so a bin stops growing at 2^24. */
typedef struct wzImageColorProfile {
    float bins[3][256]; /**< bins[0] red, bins[1] green, bins[2] blue or gray */
} wzImageColorProfile;

/** Parameters of histogram matching. */
typedef struct wzHistogramMatchParams {
    float strength;  /**< < 1: blend every entry with the identity; default 1.0 */
    float fidelity;  /**< < 1: smooth with radius trunc((1 - fidelity) * 50); default 0.9 */
    int32_t mode;    /**< 0 mean of forward and backward search, 1 forward, 2 backward */
    int32_t maxStep; /**< largest jump between neighbouring entries; > 254 is off; default 255 */
    wzImageColorProfile *targetProfile; /**< borrowed; must be set before computing */
} wzHistogramMatchParams;

/** Statistics of histogram matching: the counts gathered from source images. */
typedef struct wzHistogramMatchStats {
    wzImageColorProfile *profile; /**< owned */
} wzHistogramMatchStats;

/* ------------------------------------------------------------------------ */
/** @name Colour profiles
 *  @{ */

/** New zero-filled profile.
 *  @return the new profile (release it with wzImageColorProfileRelease), or
 *          null when the allocation fails. */
MORVEN_API wzImageColorProfile *wzImageColorProfileCreate(void);

/** Sets all 768 bins to 0.
 *  @param profile the profile. */
MORVEN_API void wzImageColorProfileReset(wzImageColorProfile *profile);

/** Frees `*profile` when not null and sets it to null.
 *  @param[in,out] profile holder of the profile. */
MORVEN_API void wzImageColorProfileRelease(wzImageColorProfile **profile);

/** Replaces the profile with the histograms of the image's region of interest
 *  (note the argument order: image first).
 *
 *  A one-channel image counts once and copies its histogram into all three
 *  arrays; channel 4 is never counted.
 *  @param image the 8-bit image measured.
 *  @param[out] profile the profile, replaced.
 *  @return 0. Choice of this library: an image that is not 8-bit, or whose
 *          encoding is above 4, leaves an all-zero profile and returns 1. */
MORVEN_API wzStatus wzImageFillColorProfile(const wzImage *image, wzImageColorProfile *profile);

/** Divides every bin by the sum of bins[2] (float sum in ascending order, one
 *  float division per bin). An all-zero profile becomes all NaN.
 *  @param[in,out] profile the profile.
 *  @return 0. */
MORVEN_API wzStatus wzImageColorProfileNormalize(wzImageColorProfile *profile);

/** Sets every bin to 1/256, the flat target of equalisation.
 *  @param[out] profile the profile.
 *  @return 0. */
MORVEN_API wzStatus wzImageColorProfileForEqualization(wzImageColorProfile *profile);

/** @} */

/* ------------------------------------------------------------------------ */
/** @name Histogram matching
 *  @{ */

/** New parameter record with the defaults (strength 1.0, fidelity 0.9, mode 0,
 *  maxStep 255, no target profile).
 *  @return the new record (release it with wzHistogramMatchParamsRelease), or
 *          null. */
MORVEN_API wzHistogramMatchParams *wzHistogramMatchParamsDefault(void);

/** Frees the record (never its target profile) and sets `*params` to null;
 *  nothing for null.
 *  @param[in,out] params holder of the record. */
MORVEN_API void wzHistogramMatchParamsRelease(wzHistogramMatchParams **params);

/** New statistics record owning a zeroed profile.
 *  @return the new record (release it with wzHistogramMatchStatsRelease), or
 *          null (nothing leaked). */
MORVEN_API wzHistogramMatchStats *wzHistogramMatchStatsCreate(void);

/** Releases the profile and the record and sets `*stats` to null; nothing for
 *  null.
 *  @param[in,out] stats holder of the record. */
MORVEN_API void wzHistogramMatchStatsRelease(wzHistogramMatchStats **stats);

/** Zeroes the record's profile.
 *  @param stats the record. */
MORVEN_API void wzHistogramMatchStatsInit(wzHistogramMatchStats *stats);

/** Replaces the record's counts with those of the image's region.
 *  @param[out] stats the record whose profile is replaced.
 *  @param image the 8-bit image measured.
 *  @return the status of wzImageFillColorProfile. */
MORVEN_API wzStatus wzHistogramMatchStatsRetrieve(wzHistogramMatchStats *stats,
                                                  const wzImage *image);

/** Adds every bin of from's profile into into's profile.
 *  @param from the statistics added.
 *  @param[in,out] into the statistics that receive them. */
MORVEN_API void wzHistogramMatchStatsUpdate(const wzHistogramMatchStats *from,
                                            wzHistogramMatchStats *into);

/** Computes the 768-byte match look-up table that maps the source statistics
 *  onto params->targetProfile.
 *
 *  Per channel, cumulative distributions in float (ascending sums, one
 *  division per entry), a forward search (smallest j with target cdf not
 *  below the source's) and a backward search (largest j with target cdf not
 *  above the source's), each step-limited to maxStep, combined by mode; then
 *  smoothed by a moving average of radius trunc((1 - fidelity) * 50) blended
 *  in with weight i/255, and blended with the identity by strength. No fused
 *  multiply-adds anywhere.
 *
 *  Choices of this library:
 *   - the smoothing window is shortened at the ends of a block: entry i is the
 *     mean of the entries i-r .. i+r that lie inside 0..255 (so any radius
 *     from 255 up gives the mean of the whole block);
 *   - a mode other than 0, 1, 2 computes as mode 0;
 *   - a negative maxStep limits as 0 (every entry equal), so the limit always
 *     settles;
 *   - blended entries are clamped to 0..255 (strength outside 0..1).
 *  @param stats the source statistics.
 *  @param params strength, fidelity, mode, maxStep and the target profile.
 *  @param[out] table the look-up table: block 0 blue, 1 green, 2 red. */
MORVEN_API void wzHistogramMatchAddParamsCompute(const wzHistogramMatchStats *stats,
                                                 const wzHistogramMatchParams *params,
                                                 uint8_t table[768]);

/** Writes destination = table[source] over the source's region of interest,
 *  the destination walked from its own region origin.
 *
 *  A one-channel source uses block 0; otherwise channels 1, 2, 3 use blocks
 *  0, 1, 2 by each image's own offsets, and a fourth destination channel is
 *  left as it was.
 *  @param reserved reserved, never read.
 *  @param table the 768-byte look-up table.
 *  @param source the 8-bit source image.
 *  @param destination the 8-bit destination; may be the same image as
 *         source.
 *  @param cancel cancel flag checked before each row, or null.
 *  @return 0, or 2 when cancelled. Choice of this library: returns 1,
 *          writing nothing, when either image is not 8-bit or has an encoding
 *          above 4. */
MORVEN_API wzStatus wzHistogramMatchApply(const void *reserved, const uint8_t table[768],
                                          const wzImage *source, wzImage *destination,
                                          const uint32_t *cancel);

/** Matches the source's region to params->targetProfile in one call: gathers
 *  the source's profile, computes the table and applies it into destination.
 *
 *  With a mask (8-bit gray, walked from its own region origin), the result is
 *  blended with the unmatched values: level 255 keeps the matched value, 0 the
 *  original. In place with a mask, the source region is copied first.
 *  @param params the matching parameters and target profile.
 *  @param source the 8-bit source image.
 *  @param mask blend mask, or null.
 *  @param destination the destination; may be the source.
 *  @param cancel cancel flag, or null.
 *  @return 0; 1 when the temporary copy cannot be allocated (nothing
 *          written); 2 when cancelled; or the non-zero status of the profile
 *          fill or the blend, passed on. */
MORVEN_API wzStatus wzHistogramMatchFilter(const wzHistogramMatchParams *params, wzImage *source,
                                           const wzImage *mask, wzImage *destination,
                                           const uint32_t *cancel);

/** @} */

/* ------------------------------------------------------------------------ */
/** @name Equalisation and stretch
 *  @{ */

/** Equalises every channel of the source's region by its own histogram into
 *  the destination's region.
 *
 *  A match to the flat profile without smoothing or step limit. May run in
 *  place.
 *  @param source the 8-bit source image.
 *  @param destination the destination; may be the source.
 *  @return always 0 (an image that is not 8-bit is left unwritten). */
MORVEN_API wzStatus wzHistogramEqualization(const wzImage *source, wzImage *destination);

/** Maps the occupied range lo..hi of a channel linearly onto 0..255.
 *
 *  Entries below lo give 0, lo..hi-1 give trunc(255/(hi - lo) * (i - lo)) in
 *  float, hi and above give 255. May run in place.
 *  Choices of this library: a colour image has every channel stretched by its
 *  own range (a channel holding a single value is copied unchanged).
 *  @param source the 8-bit source image.
 *  @param destination the destination; may be the source.
 *  @return 0 when stretched; 1 when the region holds a single value, after
 *          copying it unchanged. Choices of this library: a colour image
 *          returns 1 only when every channel holds a single value; an empty
 *          region returns 1 without writing; an image that is not 8-bit
 *          returns 1 without writing. */
MORVEN_API wzStatus wzHistogramStretch(const wzImage *source, wzImage *destination);

/** @} */

/* ======================================================================== */
/* Extensions                                                               */
/* ======================================================================== */

/** Working colour spaces of histogram matching (wzHistogramMatchOptions.space,
 *  wzImageFillColorProfile16). The stored values are taken as sRGB-encoded
 *  wherever a space needs a colorimetric meaning (Lab); any RGB encoding
 *  converts in and out without loss, since each conversion is inverted
 *  exactly on the way back. */
typedef int32_t wzWorkingSpace;
/** The working colour spaces, the values of wzWorkingSpace. */
enum {
    /** Channels 1, 2, 3 (blue, green, red) each matched on its own. */
    wzSpaceChannels = 0,
    /** Only the luma Y' (full-range BT.601 weights of the stored values) is
     *  matched; every pixel keeps its chroma Cb, Cr. */
    wzSpaceLuma = 1,
    /** Full-range BT.601 Y', Cb, Cr, each matched on its own. */
    wzSpaceYCbCr = 2,
    /** CIELAB (D65 white): L*, a*, b*, each matched on its own. */
    wzSpaceLab = 3
};

/** Number of bins per channel of a wzImageColorProfile16. */
#define WZ_PROFILE16_BINS 65536

/** A deep colour profile: three 65536-bin histograms of one working space.
 *
 *  Bins hold pixel counts as doubles (exact up to 2^53). The arrays follow
 *  wzImageColorProfile: bins[2] counts channel 1 (blue; the one channel of a
 *  gray image; Y' or L* in a luma/chroma space), bins[1] channel 2 (green; Cb
 *  or a*), bins[0] channel 3 (red; Cr or b*).
 *
 *  Values are counted on a scale of 0..65535: a 16-bit sample v at bin v, an
 *  8-bit sample v at bin 257 v; Y' at Y' * 65535, Cb and Cr at
 *  (C + 0.5) * 65535 (C in -0.5..0.5), L* at L* / 100 * 65535, a* and b* at
 *  (a + 128) / 256 * 65535, each rounded to the nearest bin and clamped. A
 *  gray image has the chroma of gray (Cb = Cr = 0, a* = b* = 0). */
typedef struct wzImageColorProfile16 {
    int32_t space;    /**< wzWorkingSpace the bins were counted in */
    int32_t reserved; /**< 0 */
    double bins
        [3]
        [WZ_PROFILE16_BINS]; /**< bins[0] red (Cr, b*), bins[1] green (Cb, a*), bins[2] blue or gray (Y', L*) */
} wzImageColorProfile16;

/** Options of the extended matching filter and the extended transfer.
 *  An all-zero record asks for the behaviour of wzHistogramMatchFilter:
 *  channels matched on
 *  their own, every pixel counted, the 8-bit target profile of the
 *  parameters. */
typedef struct wzHistogramMatchOptions {
    /** wzWorkingSpace of the match; default wzSpaceChannels. */
    int32_t space;
    /** 0. */
    int32_t reserved;
    /** Source pixels that count in the statistics (non-zero level), or null
     *  for all. The match is applied to every pixel of the region. */
    const wzImage *statsMask;
    /** The target as a deep profile counted in `space`, or null to use the
     *  8-bit targetProfile of the parameters (possible in wzSpaceChannels
     *  only). Luma and YCbCr profiles count the same values and serve either
     *  space. */
    const wzImageColorProfile16 *targetProfile16;
} wzHistogramMatchOptions;

/** Matching curves at 16-bit precision, channel by channel (or plane by
 *  plane of a working space): the computed half of the extended matching
 *  filter, for callers that gather statistics from many pieces of a picture
 *  (tiles, chunks, a collection) and apply one mapping to every piece.
 *
 *  Index k serves channel k + 1 (blue, green, red) in wzSpaceChannels and
 *  plane k + 1 (Y' or L*, Cb or a*, Cr or b*) in the other spaces, on the
 *  0..65535 scale of wzImageColorProfile16. centre[k][u] is the level that
 *  level u becomes; lower[k][u] and upper[k][u] are where u - 0.5 and
 *  u + 0.5 go, so that working values between levels keep their place
 *  inside their level's bin. About 2.4 MB. */
typedef struct wzHistogramMatchCurves {
    int32_t space;  /**< wzWorkingSpace the curves map in */
    int32_t mapped; /**< bit k set: index k is mapped; the others pass unchanged */
    float centre[3][WZ_PROFILE16_BINS]; /**< centre[k][u]: the level that level u becomes */
    float lower[3][WZ_PROFILE16_BINS];  /**< lower[k][u]: where u - 0.5 goes */
    float upper[3][WZ_PROFILE16_BINS];  /**< upper[k][u]: where u + 0.5 goes */
} wzHistogramMatchCurves;

/** @name Extensions: statistics masks, 16-bit pictures, working colour spaces
 *  Beyond the core functions: statistics gathered under a mask, 16-bit
 *  pictures and matching in a working colour space. The core functions keep
 *  their behaviour exactly; these are separate entry points.
 *
 *  Statistics masks are 8-bit gray images whose roi has the width and height
 *  of the region being measured; they are walked from their own roi origin,
 *  as the blend masks of the filters are. A pixel counts when its mask level
 *  is non-zero. A null mask counts every pixel. With a mask of all 255 every
 *  result equals that of the unmasked function bit for bit.
 *  @{ */

/** Creates a zero-filled deep profile (space wzSpaceChannels).
 *  @return the new profile (about 1.5 MB), or null when the allocation fails. */
MORVEN_API wzImageColorProfile16 *wzImageColorProfile16Create(void);

/** Frees a deep profile.
 *  @param profile holder of the profile; when it holds a profile, the profile
 *         is freed and the holder set to null. Null holders are ignored. */
MORVEN_API void wzImageColorProfile16Release(wzImageColorProfile16 **profile);

/** Fills an 8-bit colour profile from the pixels of the image's region that
 *  the mask selects; the unmasked form of wzImageFillColorProfile, extended
 *  to 16-bit images.
 *  @param image 8-bit or 16-bit image, any encoding; a 16-bit sample v counts
 *         in bin (v + 128) / 257 (v / 257 rounded to the nearest level).
 *  @param mask statistics mask (8-bit gray, the region's size), or null.
 *  @param profile the profile, replaced; all zeros when the mask selects no
 *         pixel.
 *  @return 0; 1 for an image that is not 8-bit or 16-bit, an encoding above
 *          4, or a mask that is not 8-bit gray of the region's size (the
 *          profile is then all zeros). */
MORVEN_API wzStatus wzImageFillColorProfileMasked(const wzImage *image, const wzImage *mask,
                                                  wzImageColorProfile *profile);

/** Fills a deep profile from the pixels of the image's region that the mask
 *  selects, counted in a working space (see wzImageColorProfile16).
 *  @param image 8-bit or 16-bit image, any encoding.
 *  @param mask statistics mask (8-bit gray, the region's size), or null.
 *  @param space wzWorkingSpace to count in.
 *  @param profile the profile, replaced; its space is set to `space`.
 *  @return 0; 1 for an image that is not 8-bit or 16-bit, an encoding above
 *          4, an unknown space, or a mask that is not 8-bit gray of the
 *          region's size (the profile is then all zeros). */
MORVEN_API wzStatus wzImageFillColorProfile16(const wzImage *image, const wzImage *mask,
                                              wzWorkingSpace space, wzImageColorProfile16 *profile);

/** Creates curves that map nothing (every level to itself).
 *  @return the new record, or null when the allocation fails. */
MORVEN_API wzHistogramMatchCurves *wzHistogramMatchCurvesCreate(void);

/** Frees curves.
 *  @param curves holder of the record; when it holds one, the record is
 *         freed and the holder set to null. Null holders are ignored. */
MORVEN_API void wzHistogramMatchCurvesRelease(wzHistogramMatchCurves **curves);

/** Computes the curves that match a source distribution onto a target, at
 *  16-bit precision (see wzHistogramMatchFilterWithOptions for the method
 *  and the meaning of the parameters there).
 *  @param source the source's deep profile; its space is the curves' space.
 *  @param params strength, fidelity and maxStep; targetProfile is the 8-bit
 *         target when target16 is null.
 *  @param target16 the target as a deep profile of the same space (luma and
 *         Y'CbCr profiles serve either), or null for params->targetProfile
 *         (wzSpaceChannels only).
 *  @param channels 3 to map every channel (plane), 1 to map the first only
 *         (gray pictures); wzSpaceLuma maps the first only in any case.
 *  @param curves the result, replaced.
 *  @return 0; 1 for rejected arguments (the curves are then left as they
 *          were); WZ_STATUS_NO_PIXELS when the source or the target
 *          distribution of a channel to be mapped is empty (the curves are
 *          then the identity, mapping nothing). */
MORVEN_API wzStatus wzHistogramMatchCurvesCompute(const wzImageColorProfile16 *source,
                                                  const wzHistogramMatchParams *params,
                                                  const wzImageColorProfile16 *target16,
                                                  int32_t channels, wzHistogramMatchCurves *curves);

/** Applies curves from the source's region into the destination's region:
 *  in wzSpaceChannels each mapped channel's sample v becomes centre[k][v]
 *  (an 8-bit sample v: centre[k][257 v] / 257), rounded; in the other spaces
 *  each pixel goes into the space, through the mapped planes' curves
 *  (interpolated between levels) and back, clamped and rounded. A gray
 *  picture uses index 0 only. A fourth destination channel is left as it
 *  was.
 *  @param curves the curves.
 *  @param source 8-bit or 16-bit image.
 *  @param destination of the source's type, gray if and only if the source
 *         is, region at least the source's; may be the source.
 *  @param cancel cancel flag read before every row, or null.
 *  @return 0; 1 for rejected arguments or when the space's tables cannot be
 *          allocated (nothing written); 2 when cancelled. */
MORVEN_API wzStatus wzHistogramMatchCurvesApply(const wzHistogramMatchCurves *curves,
                                                const wzImage *source, wzImage *destination,
                                                const uint32_t *cancel);

/** wzHistogramMatchStatsRetrieve over the pixels the mask selects.
 *  @param stats statistics record whose profile is replaced.
 *  @param image 8-bit or 16-bit image (see wzImageFillColorProfileMasked).
 *  @param mask statistics mask, or null.
 *  @return the status of wzImageFillColorProfileMasked. */
MORVEN_API wzStatus wzHistogramMatchStatsRetrieveMasked(wzHistogramMatchStats *stats,
                                                        const wzImage *image, const wzImage *mask);

/** Histogram matching with statistics masks, 16-bit images and working
 *  spaces. Matches the source's region into the destination's region, then
 *  blends with the unmatched values under `mask` as wzHistogramMatchFilter
 *  does.
 *
 *  8-bit images in wzSpaceChannels with the 8-bit target profile run the
 *  computation of wzHistogramMatchAddParamsCompute on the masked statistics:
 *  with no statistics mask (or one of all 255) the result is that of
 *  wzHistogramMatchFilter bit for bit.
 *
 *  Everything else (16-bit images, working spaces, deep targets) is matched
 *  at 16-bit precision: each channel's cumulative distributions are taken
 *  as piecewise linear over their bins (a bin of an 8-bit profile spans the
 *  257 sixteen-bit levels that round to it), and a value maps to the point
 *  of the target distribution at the same cumulative share. Matching a
 *  picture to its own deep profile thus changes nothing, and a 16-bit
 *  picture keeps its fine levels. The parameters keep their meaning on the
 *  16-bit scale: maxStep (0..254) bounds the slope of the curve (its rise
 *  over one 8-bit step is at most maxStep 8-bit steps), fidelity smooths it
 *  over 257 * trunc((1 - fidelity) * 50) levels with the weight rising
 *  toward the bright end (for the chroma planes Cb, Cr, a*, b*: rising from
 *  neutral toward either end, so that near-neutral colours keep their exact
 *  match), strength blends it with the identity; mode is not used. The result is rounded to the nearest level. In a luma/chroma space
 *  or Lab the pixels go into the space, through the curves and back, row by
 *  row (wzSpaceLuma maps only Y'); results outside the picture's range are
 *  clamped. A gray picture in any space other than channels is matched by
 *  its luma (or L*) alone.
 *
 *  A fourth channel of the destination is left as it was.
 *
 *  @param params strength, fidelity and maxStep as for
 *         wzHistogramMatchFilter; targetProfile is the 8-bit target used
 *         when options->targetProfile16 is null.
 *  @param options space, statistics mask and deep target; null for the
 *         all-zero defaults.
 *  @param source source image, 8-bit or 16-bit.
 *  @param mask blend mask (8-bit gray), or null.
 *  @param destination destination of the source's type, gray if and only if
 *         the source is (channels are matched by number, so a three-channel
 *         source may fill a four-channel destination); its region at least
 *         the source's; may be the source.
 *  @param cancel cancel flag read before every row of each pass, or null.
 *  @return 0; 1 for rejected arguments (types, encodings, masks of the wrong
 *          size, an unknown space, a deep target of another space, no
 *          target) or an allocation failure, nothing written; 2 when
 *          cancelled; WZ_STATUS_NO_PIXELS when the statistics mask selects
 *          no pixel or the target profile is empty: the destination's region
 *          then holds the source's values unchanged. */
MORVEN_API wzStatus wzHistogramMatchFilterWithOptions(const wzHistogramMatchParams *params,
                                                      const wzHistogramMatchOptions *options,
                                                      wzImage *source, const wzImage *mask,
                                                      wzImage *destination, const uint32_t *cancel);

/** wzHistogramEqualization with statistics gathered under a mask, for 8-bit
 *  and 16-bit images; the table is applied to every pixel of the region.
 *  8-bit images give wzHistogramEqualization's result bit for bit with an
 *  all-255 mask;
 *  16-bit images are equalised at 16-bit precision to a flat distribution
 *  over 0..65535 (see wzHistogramMatchFilterWithOptions).
 *  @param source source image, 8-bit or 16-bit.
 *  @param statsMask statistics mask, or null.
 *  @param destination destination of the source's type; may be the source.
 *  @return 0; 1 for rejected arguments or an allocation failure (nothing
 *          written); WZ_STATUS_NO_PIXELS when the mask selects no pixel (the
 *          destination's region holds the source's values). */
MORVEN_API wzStatus wzHistogramEqualizationMasked(const wzImage *source, const wzImage *statsMask,
                                                  wzImage *destination);

/** wzHistogramStretch with the occupied range measured under a mask, for
 *  8-bit and 16-bit images: every channel's range lo..hi among the selected
 *  pixels is mapped onto the full scale and the map applied to every pixel
 *  of the region (values outside lo..hi saturate). 8-bit entries are as in
 *  wzHistogramStretch; a 16-bit value v in lo..hi-1 gives
 *  trunc(65535.0 / (hi - lo) * (v - lo)) in double precision.
 *  @param source source image, 8-bit or 16-bit.
 *  @param statsMask statistics mask, or null.
 *  @param destination destination of the source's type; may be the source.
 *  @return 0 when stretched; 1 as wzHistogramStretch (every channel holds a
 *          single value: copied unchanged) and for rejected arguments (no
 *          memory is allocated);
 *          WZ_STATUS_NO_PIXELS when the mask selects no pixel (the
 *          destination's region holds the source's values). */
MORVEN_API wzStatus wzHistogramStretchMasked(const wzImage *source, const wzImage *statsMask,
                                             wzImage *destination);

/** @} */

MORVEN_EXTERN_C_END

/** @} */

#endif /* MORVEN_HISTOGRAM_H */
