/**
 * @file
 * @brief Selective smoothing.
 * @ingroup morven_smoothing
 */
/**
 * @defgroup morven_smoothing Selective smoothing
 * @brief Smoothing of a processed picture where its unprocessed original is
 *        flat: the support tables, the parameters and the filters for 8-bit
 *        and 16-bit images.
 *
 * Pulls the local differences of a processed image back toward those of a
 * guide image (as a rule the same picture before processing). Wherever the
 * guide is locally flat but the input shows a step more than twice as large
 * between two 8-connected neighbours, both pixels move toward what the
 * guide's own step would give; edges of the guide are left alone. Works
 * channel by channel (channels 1, 2, 3) on three-channel 8-bit images and
 * repeats a small number of passes.
 *
 * A support object holds two 256 x 256 look-up tables (absolute differences
 * and ratios) built once; it is read-only afterwards and may serve concurrent
 * calls. Cancel flags (may be null) are read at the start of every pass of
 * every channel; a null flag and one never set take the same path.
 * @{
 */
#ifndef MORVEN_SMOOTHING_H
#define MORVEN_SMOOTHING_H

#include "image.h"
#include "matrix.h"

MORVEN_EXTERN_C_BEGIN

/** The precomputed tables, both 256 x 256 and owned by the record.
 *
 *  absDiff[i][j] = |i - j| exactly; ratio[a][b] = a / b computed as a 32-bit
 *  float quotient and widened to double for b in 1..255, and 0 in column 0. */
typedef struct wzSelectiveSmoothSupport {
    wzMatrix *absDiff; /**< absDiff[i][j] = |i - j| */
    wzMatrix *ratio;   /**< ratio[a][b] = a / b, 0 in column 0 */
} wzSelectiveSmoothSupport;

/** Parameters of selective smoothing. */
typedef struct wzSelectiveSmoothParams {
    float
        threshold; /**< largest guide difference that allows smoothing, as a fraction of 255; default 0.1 */
    int32_t iterations; /**< passes per channel; default 2 */
} wzSelectiveSmoothParams;

/** New support object with both tables filled.
 *  @return the new object (release it with wzSelectiveSmoothSupportRelease),
 *          or null when an allocation fails (nothing is leaked). */
MORVEN_API wzSelectiveSmoothSupport *wzSelectiveSmoothSupportCreate(void);

/** Releases both tables and the record and sets `*support` to null; nothing
 *  for null.
 *  @param[in,out] support holder of the object. */
MORVEN_API void wzSelectiveSmoothSupportRelease(wzSelectiveSmoothSupport **support);

/** New parameter record with the defaults (threshold 0.1, iterations 2).
 *  @return the new record (release it with wzSelectiveSmoothParamsRelease),
 *          or null when the allocation fails. */
MORVEN_API wzSelectiveSmoothParams *wzSelectiveSmoothParamsDefault(void);

/** Frees `*params` and sets it to null; nothing for null.
 *  @param[in,out] params holder of the record. */
MORVEN_API void wzSelectiveSmoothParamsRelease(wzSelectiveSmoothParams **params);

/** Smooths input into output under the guide, channel 1, then 2, then 3.
 *
 *  t = trunc(threshold * 255) (a float product; 0.1 gives 25). With t < 1 or
 *  iterations < 1 the input is copied to the output (wzCopy) and 0 returned.
 *  Otherwise each channel runs `iterations` passes over gray working planes:
 *  for every unordered pair {p, q} of 8-connected neighbours with guide
 *  difference d < t and input difference e >= 1, the pair is accepted when
 *  ratio[d][e] < 0.5 (that is, e > 2d); then p counts q once and adds the
 *  proposal X(q) + G(p) - G(q), and q likewise. Each pixel becomes
 *  (sum of proposals + X(p)) / (1 + accepted neighbours), truncated, low 8
 *  bits kept. The finished channel is inserted into the output.
 *  Regions of interest are ignored (a choice of this library): the whole
 *  images are smoothed, or copied.
 *
 *  Choices of this library, checked before anything is written:
 *   - input, guide or output not 8-bit or with fewer than three channels
 *     (gray or an encoding above 4): returns 1;
 *   - guide or output of a width or height different from the input's:
 *     returns 1;
 *   - an input narrower or shorter than 2 pixels has no neighbour pairs to
 *     smooth: it is copied as for t < 1 (wzCopy) and 0 is returned;
 *   - on the smoothing path, a support whose tables are smaller than
 *     256 x 256, or whose absDiff holds a value outside 0..255 or one that
 *     is not a function of i - j (not made by wzSelectiveSmoothSupportCreate):
 *     returns 1.
 *  @param params threshold and passes per channel.
 *  @param support the support tables.
 *  @param guide the unprocessed picture.
 *  @param input the processed picture.
 *  @param output the result; may be the same record as input.
 *  @param cancel cancel flag, or null.
 *  @return 0; 1 when working memory cannot be allocated (and in the cases
 *          above); 2 when the cancel flag is found set (it is read at the
 *          start of every pass of every channel, before the pass makes its
 *          first row: the channels already finished stay written, the others
 *          untouched; passes of several channels may run side by side, and
 *          then none of them is finished). */
MORVEN_API wzStatus wzSelectiveSmooth(const wzSelectiveSmoothParams *params,
                                      const wzSelectiveSmoothSupport *support, const wzImage *guide,
                                      const wzImage *input, wzImage *output,
                                      const uint32_t *cancel);

/* ======================================================================== */
/* Extensions                                                               */
/* ======================================================================== */

/** @name Extensions: 16-bit and gray images
 *  @{ */

/** Selective smoothing of 16-bit images: the rule of wzSelectiveSmooth on
 *  the 16-bit scale, with no tables.
 *
 *  t = trunc(threshold * 65535) (a float product). For every unordered pair
 *  of 8-connected neighbours p, q with guide difference d = |G(p) - G(q)|
 *  below t and input difference e = |X(p) - X(q)| of at least 1, the pair is
 *  accepted when e > 2d; each pixel then becomes (X(p) + the proposals
 *  X(q) + G(p) - G(q) of its accepted neighbours) / (1 + their number),
 *  truncated toward zero and clamped to 0..65535. Channels 1, 2, 3 (the one
 *  channel of a gray image) are smoothed in turn, `iterations` passes each;
 *  a fourth channel of the output is left as it was. Regions are ignored.
 *
 *  @param params threshold (a fraction of the full scale) and passes.
 *  @param guide 16-bit guide of the input's size and layout.
 *  @param input 16-bit input, gray or colour.
 *  @param output 16-bit output of the input's size and layout; may be the
 *         input.
 *  @param cancel cancel flag read before every pass, or null.
 *  @return 0 (t < 1, no passes or an image under 2 x 2 pixels: the input is
 *          copied); 1 for images that are not 16-bit of one size and layout,
 *          or when working memory cannot be allocated (nothing written); 2
 *          when cancelled (finished channels stay written). */
MORVEN_API wzStatus wzSelectiveSmooth16(const wzSelectiveSmoothParams *params, const wzImage *guide,
                                        const wzImage *input, wzImage *output,
                                        const uint32_t *cancel);

/** Selective smoothing of an 8-bit gray image: exactly what
 *  wzSelectiveSmooth gives a three-channel image that holds the gray level
 *  in every channel, read back from one channel.
 *  @param params threshold and passes, as for wzSelectiveSmooth.
 *  @param support the support object's tables.
 *  @param guide 8-bit gray guide of the input's size.
 *  @param input 8-bit gray input.
 *  @param output 8-bit gray output of the input's size; may be the input.
 *  @param cancel cancel flag, read as wzSelectiveSmooth reads it, or null.
 *  @return as wzSelectiveSmooth (0, 1 when working memory cannot be
 *          allocated, 2 when cancelled: the output then holds the input's
 *          values); 1, writing nothing, for images that are not 8-bit gray
 *          of one size. */
MORVEN_API wzStatus wzSelectiveSmoothGray(const wzSelectiveSmoothParams *params,
                                          const wzSelectiveSmoothSupport *support,
                                          const wzImage *guide, const wzImage *input,
                                          wzImage *output, const uint32_t *cancel);

/** @} */

MORVEN_EXTERN_C_END

/** @} */

#endif /* MORVEN_SMOOTHING_H */
