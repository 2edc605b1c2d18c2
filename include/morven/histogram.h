/*
 * Morven: colour profiles, histogram matching, equalisation and stretch.
 *
 * All images handled here are 8-bit (wzType8U). A colour profile holds three
 * 256-bin histograms; a match look-up table holds 768 bytes, block 0 for
 * channel 1 (blue), block 1 for channel 2 (green), block 2 for channel 3
 * (red); a one-channel image uses block 0.
 *
 * Filters take a cancel flag (may be null): a 32-bit value read before every
 * row; when another thread sets it non-zero the filter returns 2, leaving the
 * rows already written.
 */
#ifndef MORVEN_HISTOGRAM_H
#define MORVEN_HISTOGRAM_H

#include "image.h"

MORVEN_EXTERN_C_BEGIN

/* Three 256-bin histograms as floats, in red, green, blue order: bins[0]
 * counts channel 3 (red), bins[1] channel 2 (green), bins[2] channel 1 (blue,
 * or the one channel of a gray image). Counts grow by 1.0f, so a bin stops
 * growing at 2^24. */
typedef struct wzImageColorProfile {
    float bins[3][256];
} wzImageColorProfile;

/* Parameters of histogram matching. */
typedef struct wzHistogramMatchParams {
    float strength;  /* < 1: blend every entry with the identity; default 1.0 */
    float fidelity;  /* < 1: smooth with radius trunc((1 - fidelity) * 50); default 0.9 */
    int32_t mode;    /* 0 mean of forward and backward search, 1 forward, 2 backward */
    int32_t maxStep; /* largest jump between neighbouring entries; > 254 is off; default 255 */
    wzImageColorProfile *targetProfile; /* borrowed; must be set before computing */
} wzHistogramMatchParams;

/* Statistics of histogram matching: the counts gathered from source images. */
typedef struct wzHistogramMatchStats {
    wzImageColorProfile *profile; /* owned */
} wzHistogramMatchStats;

/* ------------------------------------------------------------------------ */
/* Colour profiles                                                           */

/* New zero-filled profile, or null when the allocation fails. */
MORVEN_API wzImageColorProfile *wzImageColorProfileCreate(void);

/* Sets all 768 bins to 0. */
MORVEN_API void wzImageColorProfileReset(wzImageColorProfile *profile);

/* Frees *profile when not null and sets it to null. */
MORVEN_API void wzImageColorProfileRelease(wzImageColorProfile **profile);

/* Replaces the profile with the histograms of the image's region of interest
 * (note the argument order: image first). A one-channel image counts once
 * and copies its histogram into all three arrays; channel 4 is never counted.
 * Returns 0. Choice of this library: an image that is not 8-bit, or whose
 * encoding is above 4, leaves an all-zero profile and returns 1. */
MORVEN_API wzStatus wzImageFillColorProfile(const wzImage *image, wzImageColorProfile *profile);

/* Divides every bin by the sum of bins[2] (float sum in ascending order, one
 * float division per bin). An all-zero profile becomes all NaN. Returns 0. */
MORVEN_API wzStatus wzImageColorProfileNormalize(wzImageColorProfile *profile);

/* Sets every bin to 1/256, the flat target of equalisation. Returns 0. */
MORVEN_API wzStatus wzImageColorProfileForEqualization(wzImageColorProfile *profile);

/* ------------------------------------------------------------------------ */
/* Histogram matching                                                        */

/* New parameter record with the defaults (strength 1.0, fidelity 0.9, mode 0,
 * maxStep 255, no target profile), or null. */
MORVEN_API wzHistogramMatchParams *wzHistogramMatchParamsDefault(void);

/* Frees the record (never its target profile) and sets *params to null;
 * nothing for null. */
MORVEN_API void wzHistogramMatchParamsRelease(wzHistogramMatchParams **params);

/* New statistics record owning a zeroed profile, or null (nothing leaked). */
MORVEN_API wzHistogramMatchStats *wzHistogramMatchStatsCreate(void);

/* Releases the profile and the record and sets *stats to null; nothing for
 * null. */
MORVEN_API void wzHistogramMatchStatsRelease(wzHistogramMatchStats **stats);

/* Zeroes the record's profile. */
MORVEN_API void wzHistogramMatchStatsInit(wzHistogramMatchStats *stats);

/* Replaces the record's counts with those of the image's region; returns the
 * status of wzImageFillColorProfile. */
MORVEN_API wzStatus wzHistogramMatchStatsRetrieve(wzHistogramMatchStats *stats,
                                                  const wzImage *image);

/* Adds every bin of from's profile into into's profile. */
MORVEN_API void wzHistogramMatchStatsUpdate(const wzHistogramMatchStats *from,
                                            wzHistogramMatchStats *into);

/* Computes the 768-byte match look-up table that maps the source statistics
 * onto params->targetProfile: per channel, cumulative distributions in float
 * (ascending sums, one division per entry), a forward search (smallest j with
 * target cdf not below the source's) and a backward search (largest j with
 * target cdf not above the source's), each step-limited to maxStep, combined
 * by mode; then smoothed by a moving average of radius
 * trunc((1 - fidelity) * 50) blended in with weight i/255, and blended with
 * the identity by strength. No fused multiply-adds anywhere.
 * Choices of this library:
 *  - the smoothing window is shortened at the ends of a block: entry i is the
 *    mean of the entries i-r .. i+r that lie inside 0..255 (so any radius
 *    from 255 up gives the mean of the whole block);
 *  - a mode other than 0, 1, 2 computes as mode 0;
 *  - a negative maxStep limits as 0 (every entry equal), so the limit always
 *    settles;
 *  - blended entries are clamped to 0..255 (strength outside 0..1). */
MORVEN_API void wzHistogramMatchAddParamsCompute(const wzHistogramMatchStats *stats,
                                                 const wzHistogramMatchParams *params,
                                                 uint8_t table[768]);

/* Writes destination = table[source] over the source's region of interest,
 * the destination walked from its own region origin. A one-channel source
 * uses block 0; otherwise channels 1, 2, 3 use blocks 0, 1, 2 by each image's
 * own offsets, and a fourth destination channel is left as it was. The first
 * argument is reserved and never read. Source and destination may be the
 * same image. Returns 0, or 2 when cancelled (checked before each row).
 * Choice of this library: returns 1, writing nothing, when either image is
 * not 8-bit or has an encoding above 4. */
MORVEN_API wzStatus wzHistogramMatchApply(const void *reserved, const uint8_t table[768],
                                          const wzImage *source, wzImage *destination,
                                          const uint32_t *cancel);

/* Matches the source's region to params->targetProfile in one call: gathers
 * the source's profile, computes the table and applies it into destination.
 * With a mask (8-bit gray, walked from its own region origin), the result is
 * blended with the unmatched values: level 255 keeps the matched value, 0 the
 * original. In place with a mask, the source region is copied first.
 * Returns 0; 1 when the temporary copy cannot be allocated (nothing written);
 * 2 when cancelled; or the non-zero status of the profile fill or the blend,
 * passed on. */
MORVEN_API wzStatus wzHistogramMatchFilter(const wzHistogramMatchParams *params, wzImage *source,
                                           const wzImage *mask, wzImage *destination,
                                           const uint32_t *cancel);

/* ------------------------------------------------------------------------ */
/* Equalisation and stretch                                                  */

/* Equalises every channel of the source's region by its own histogram (a
 * match to the flat profile without smoothing or step limit) into the
 * destination's region. May run in place. Always returns 0 (an image that
 * is not 8-bit is left unwritten). */
MORVEN_API wzStatus wzHistogramEqualization(const wzImage *source, wzImage *destination);

/* Maps the occupied range lo..hi of a channel linearly onto 0..255:
 * entries below lo give 0, lo..hi-1 give trunc(255/(hi - lo) * (i - lo)) in
 * float, hi and above give 255. May run in place. Returns 0 when stretched;
 * 1 when the region holds a single value, after copying it unchanged.
 * Choices of this library: a colour image has every channel stretched by its
 * own range (a channel holding a single value is copied unchanged) and
 * returns 1 only when every channel holds a single value; an empty region
 * returns 1 without writing; an image that is not 8-bit returns 1 without
 * writing. */
MORVEN_API wzStatus wzHistogramStretch(const wzImage *source, wzImage *destination);

MORVEN_EXTERN_C_END

#endif /* MORVEN_HISTOGRAM_H */
