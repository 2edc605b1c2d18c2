/**
 * @file
 * @brief Contrast enhancement by a global levels stretch.
 * @ingroup morven_contrast
 */
/**
 * @defgroup morven_contrast Contrast enhancement
 * @brief Contrast enhancement by a global levels stretch: brightness
 *        statistics, the tone curve, its application and the one-call filter;
 *        with the extensions, statistics masks and 16-bit images.
 *
 * A 256-bin histogram of pixel brightness is gathered, a dark and a bright
 * level are found by clipping a small share of the pixels at each end (or
 * are given by hand), and a 256-entry tone curve maps the dark level to 0 and
 * the bright level to 255 with a straight line in between, saturating
 * outside. The tone curve is an array of 256 bytes owned by the caller:
 * entry v is the output for input v.
 *
 * Brightness is the value itself in a one-channel image and the largest of
 * channels 1, 2, 3 in an image of three or four channels (channel 4 never
 * counts). Images are read and written as 8-bit data over their full width
 * and height: regions of interest are not consulted (except by the mask
 * blend of the filter, see wzContrastEnhanceFilter).
 *
 * Cancel flags (may be null) are 32-bit values read before rows of a pass;
 * when another thread sets one non-zero the operation returns 2, leaving
 * what was already written.
 * @{
 */
#ifndef MORVEN_CONTRAST_H
#define MORVEN_CONTRAST_H

#include "image.h"

MORVEN_EXTERN_C_BEGIN

/** Parameters of contrast enhancement. Note that manualHigh precedes
 *  manualLow. */
typedef struct wzContrastEnhanceParams {
    float highTail; /**< per mille of all pixels allowed above the bright level; default 9 */
    float lowTail;  /**< per mille of all pixels allowed below the dark level; default 4 */
    int32_t manual; /**< non-zero: levels from manualLow/manualHigh, histogram ignored; default 0 */
    uint8_t manualHigh; /**< bright level in manual mode; default 255 */
    uint8_t manualLow;  /**< dark level in manual mode; default 0 */
} wzContrastEnhanceParams;

/** Brightness histogram. Counts are floats grown by 1.0f, so a bin stops
 *  growing at 2^24. */
typedef struct wzContrastEnhanceStats {
    float hist[256]; /**< number of pixels of each brightness 0..255 */
    float total;     /**< pixel count against which the tails are measured */
} wzContrastEnhanceStats;

/** New parameter record with the defaults (highTail 9, lowTail 4, manual 0,
 *  manualHigh 255, manualLow 0).
 *  @return the new record (release it with wzContrastEnhanceParamsRelease),
 *          or null when the allocation fails. */
MORVEN_API wzContrastEnhanceParams *wzContrastEnhanceParamsDefault(void);

/** Frees `*params` and sets it to null; nothing for null.
 *  @param[in,out] params holder of the record. */
MORVEN_API void wzContrastEnhanceParamsRelease(wzContrastEnhanceParams **params);

/** New statistics record.
 *
 *  Fill it with wzContrastEnhanceStatsInit or wzContrastEnhanceStatsRetrieve
 *  before use (this library zero-fills it, but callers must not rely on
 *  that).
 *  @return the new record (release it with wzContrastEnhanceStatsRelease),
 *          or null when the allocation fails. */
MORVEN_API wzContrastEnhanceStats *wzContrastEnhanceStatsCreate(void);

/** Frees `*stats` and sets it to null; nothing for null.
 *  @param[in,out] stats holder of the record. */
MORVEN_API void wzContrastEnhanceStatsRelease(wzContrastEnhanceStats **stats);

/** Sets every bin to 0 and total to height * width of the image (a signed
 *  32-bit product, wrapping on overflow, converted to float). Reads no
 *  pixels.
 *  @param[out] stats the record.
 *  @param image the image whose size gives total. */
MORVEN_API void wzContrastEnhanceStatsInit(wzContrastEnhanceStats *stats, const wzImage *image);

/** Replaces the record's contents with the brightness histogram of the whole
 *  image, and total with height * width as wzContrastEnhanceStatsInit does.
 *
 *  The whole image is read (roi ignored; pixel (x, y) starts at byte
 *  (y * width + x) * channels).
 *  The element type is not checked for the known types: the first
 *  height * width * channels bytes of the block are read as 8-bit values.
 *  A one-channel image reads the cancel flag before every row; an image of
 *  several channels reads it once before its pass (not at all when the height
 *  is below 1).
 *  @param[out] stats the record, replaced.
 *  @param image the image measured.
 *  @param cancel cancel flag, or null.
 *  @return 0; 1 when the encoding is above 4 (no channel count), after the
 *          record has been cleared; 2 when cancelled, with the bins counted
 *          so far. Choice of this library: an unknown type code (element
 *          size 0, hence an empty block) also returns 1 after clearing the
 *          record, reading nothing. */
MORVEN_API wzStatus wzContrastEnhanceStatsRetrieve(wzContrastEnhanceStats *stats,
                                                   const wzImage *image, const uint32_t *cancel);

/** Adds every bin of from into the same bin of into; into's total is kept
 *  (it stays the pixel count of into's own image).
 *  @param from the histogram added.
 *  @param[in,out] into the histogram that receives it. */
MORVEN_API void wzContrastEnhanceStatsUpdate(const wzContrastEnhanceStats *from,
                                             wzContrastEnhanceStats *into);

/** Writes the 256 entries of the tone curve, all arithmetic in 32-bit float
 *  without fused multiply-adds.
 *
 *  Manual mode: low = manualLow, high = manualHigh. Otherwise, with
 *  highCount = (highTail * total) / 1000 and lowCount = (total * lowTail) /
 *  1000: low is the first bin k in 0..254 at which the running sum of
 *  hist[0..k] is strictly greater than lowCount (255 when none; bin 255 is
 *  never examined), high the first bin k going down from 255 to 1 at which
 *  the running sum of hist[255..k] is strictly greater than highCount (0 when
 *  none; bin 0 is never examined).
 *  Then scale = 255 / (high - low) and entry v = (v - low) * scale truncated
 *  toward zero and clamped to 0..255. When high equals low, entries above low
 *  are 255 and entries at or below low 0. An empty histogram gives low 255,
 *  high 0, scale -1: the inversion 255 - v.
 *  @param stats the brightness histogram.
 *  @param params tails or manual levels.
 *  @param[out] curve the 256 entries of the tone curve. */
MORVEN_API void wzContrastEnhanceAddParamsCompute(const wzContrastEnhanceStats *stats,
                                                  const wzContrastEnhanceParams *params,
                                                  uint8_t curve[256]);

/** Applies the tone curve over the whole source (roi ignored), row by row,
 *  reading the cancel flag before every row.
 *
 *  One-channel source: destination byte y * width + x = curve[source byte
 *  y * width + x], the destination addressed with the source's width.
 *  Several channels: channels 1, 2, 3 of each source pixel go through the
 *  curve into the same channels of the destination pixel at the same (x, y),
 *  each image addressed with its own width and layout; a fourth destination
 *  channel is left as it was. Channels are matched by number, so a
 *  three-channel source may go into a four-channel destination and back.
 *  The destination must hold every position the source's width and height
 *  address (sizes are not checked).
 *  @param curve the tone curve.
 *  @param source the source image.
 *  @param destination the destination; may be the same record as source.
 *  @param cancel cancel flag, or null.
 *  @return 0; 1, writing nothing, when the source encoding is above 4 or a
 *          colour source meets a destination of fewer than 3 channels; 2 when
 *          cancelled, leaving the rows already written.
 *          Choices of this library: also 1, writing nothing, when the source
 *          or the destination is not 8-bit (wzType8U), and when a one-channel
 *          source meets a destination that is not one-channel (it would be
 *          addressed with the wrong layout). */
MORVEN_API wzStatus wzContrastEnhanceApply(const uint8_t curve[256], const wzImage *source,
                                           wzImage *destination, const uint32_t *cancel);

/** One-call contrast enhancement of the source into the destination.
 *
 *  Gathers the source's brightness histogram (wzContrastEnhanceStatsRetrieve),
 *  computes the tone curve (wzContrastEnhanceAddParamsCompute) and applies it
 *  (wzContrastEnhanceApply).
 *  With a mask (8-bit gray), the result is blended with the unprocessed image
 *  by wzAddWeigthedM: mask level 255 keeps the enhanced pixel, 0 the
 *  unprocessed one. The blend is region-aware: it covers the source's roi,
 *  each image (mask included) walked from its own region origin, so outside
 *  that region the destination keeps the enhanced pixels. In place with a
 *  mask, the source is first copied into a new 8-bit image of its width,
 *  height and encoding. Choice of this library: that copy takes the source's
 *  roi, so the copy and the blend cover the same pixels of both (with a roi
 *  of the whole image this is a plain full copy).
 *  Everything the filter allocates is released on every path.
 *  @param params tails or manual levels.
 *  @param source the source image.
 *  @param mask blend mask, or null.
 *  @param destination the destination; may be the same record as source.
 *  @param cancel cancel flag, or null.
 *  @return 0; 1 when an allocation fails or an image is unusable (see the two
 *          passes above; nothing is written then); 2 when cancelled, the
 *          destination holding the rows already written; or the non-zero
 *          status of the statistics pass, the apply pass or the blend, passed
 *          on unchanged. */
MORVEN_API wzStatus wzContrastEnhanceFilter(const wzContrastEnhanceParams *params, wzImage *source,
                                            const wzImage *mask, wzImage *destination,
                                            const uint32_t *cancel);

/* ======================================================================== */
/* Extensions                                                               */
/* ======================================================================== */

/** @name Extensions: statistics masks and 16-bit images
 *  Contrast statistics under a mask, and the filter for 16-bit images.
 *  Masks are 8-bit gray images of the image's full width and height (these
 *  operations ignore regions of interest), walked from their own roi origin;
 *  a pixel counts where its mask level is non-zero.
 *  @{ */

/** wzContrastEnhanceStatsRetrieve over the pixels the mask selects: the
 *  brightness histogram of those pixels, and total = their number. For an
 *  8-bit image with a null mask, or one of all 255, the record equals that
 *  of wzContrastEnhanceStatsRetrieve (for images of fewer than 2^31
 *  pixels).
 *  @param stats the record, replaced.
 *  @param image 8-bit or 16-bit image; a 16-bit brightness b counts in bin
 *         (b + 128) / 257.
 *  @param mask statistics mask, or null.
 *  @param cancel cancel flag read before every row, or null.
 *  @return 0; 1 for an image that is not 8-bit or 16-bit, an encoding above
 *          4, or a mask that is not 8-bit gray of the image's size (the
 *          record is then cleared); 2 when cancelled. */
MORVEN_API wzStatus wzContrastEnhanceStatsRetrieveMasked(wzContrastEnhanceStats *stats,
                                                         const wzImage *image, const wzImage *mask,
                                                         const uint32_t *cancel);

/** Brightness histogram of a 16-bit image at full resolution: hist[b]
 *  counts the selected pixels whose brightness (the largest of channels
 *  1..3) is b, as exact whole numbers; total is their number. */
typedef struct wzContrastEnhanceStats16 {
    double hist[65536]; /**< number of selected pixels of each brightness 0..65535 */
    double total;       /**< number of selected pixels */
} wzContrastEnhanceStats16;

/** Fills a full-resolution brightness histogram over the whole image
 *  (regions are ignored), counting the pixels the mask selects.
 *  @param stats the record, replaced.
 *  @param image 16-bit image (an 8-bit image counts brightness b at 257 b).
 *  @param mask statistics mask of the image's size, or null.
 *  @param cancel cancel flag read before every row, or null.
 *  @return 0; 1 for an image that is not 8-bit or 16-bit, an encoding above
 *          4, or a mask that does not fit (the record is then cleared); 2
 *          when cancelled. */
MORVEN_API wzStatus wzContrastEnhanceStatsRetrieve16(wzContrastEnhanceStats16 *stats,
                                                     const wzImage *image, const wzImage *mask,
                                                     const uint32_t *cancel);

/** The 16-bit tone curve of wzContrastEnhanceFilterMasked: the levels low
 *  and high by the rule of wzContrastEnhanceAddParamsCompute applied to the
 *  65536 bins in double precision (manual levels scaled by 257), then
 *  curve[v] = trunc((v - low) * (65535.0 / (high - low))) clamped to
 *  0..65535 (high = low: 0 at or below low, 65535 above).
 *  @param stats brightness histogram (hist and total).
 *  @param params tails or manual levels.
 *  @param curve the 65536 entries, written. */
MORVEN_API void wzContrastEnhanceAddParamsCompute16(const wzContrastEnhanceStats16 *stats,
                                                    const wzContrastEnhanceParams *params,
                                                    uint16_t curve[65536]);

/** Applies a 16-bit tone curve to channels 1..3 (the one channel of a gray
 *  image) of the whole source into the same positions of the destination;
 *  a fourth channel is left as it was.
 *  @param curve the 65536-entry curve.
 *  @param source 16-bit image.
 *  @param destination 16-bit image of the source's size and encoding; may
 *         be the source.
 *  @param cancel cancel flag read before every row, or null.
 *  @return 0; 1 for images that do not fit (nothing written); 2 when
 *          cancelled. */
MORVEN_API wzStatus wzContrastEnhanceApply16(const uint16_t curve[65536], const wzImage *source,
                                             wzImage *destination, const uint32_t *cancel);

/** wzContrastEnhanceFilter with the levels measured under a statistics mask,
 *  for 8-bit and 16-bit images; the curve is applied to every pixel.
 *  8-bit images: the curve of wzContrastEnhanceAddParamsCompute from the masked
 *  statistics (bit for bit wzContrastEnhanceFilter's result with no
 *  statistics mask). 16-bit images: the same
 *  rule on a 65536-bin brightness histogram, so the levels low and high are
 *  16-bit levels (manual levels are 8-bit and scaled by 257), and a value v
 *  becomes trunc((v - low) * (65535.0 / (high - low))) in double precision,
 *  clamped to 0..65535 (high = low: 0 at or below low, 65535 above).
 *  @param params tails or manual levels as for wzContrastEnhanceFilter.
 *  @param source source image, 8-bit or 16-bit.
 *  @param statsMask statistics mask, or null.
 *  @param mask blend mask (8-bit gray), or null: as for
 *         wzContrastEnhanceFilter, level 255 keeps the enhanced pixel.
 *  @param destination destination of the source's type and layout; may be
 *         the source.
 *  @param cancel cancel flag, or null.
 *  @return 0; 1 for rejected arguments or an allocation failure (nothing
 *          written); 2 when cancelled; WZ_STATUS_NO_PIXELS when the mask
 *          selects no pixel (the destination then holds the source's
 *          values). */
MORVEN_API wzStatus wzContrastEnhanceFilterMasked(const wzContrastEnhanceParams *params,
                                                  wzImage *source, const wzImage *statsMask,
                                                  const wzImage *mask, wzImage *destination,
                                                  const uint32_t *cancel);

/** @} */

MORVEN_EXTERN_C_END

/** @} */

#endif /* MORVEN_CONTRAST_H */
