/**
 * @file
 * @brief Colour conversion, region copy, channel moves, blending and
 *        substitution.
 * @ingroup morven_color
 */
/**
 * @defgroup morven_color Colour conversion and blending
 * @brief Colour conversion (including colour to gray), region copy,
 *        transpose, channel moves, weighted blending and substitution.
 *
 * These operations are region-aware: they walk roi.height rows of roi.width
 * pixels taken from the first image, and every image from its own region
 * origin with its own strides (wzImageExtractDerivedMembers). The other
 * images' regions must have the same size. Source and destination blocks must
 * not overlap unless a function says otherwise.
 * @{
 */
#ifndef MORVEN_COLOR_H
#define MORVEN_COLOR_H

#include "image.h"

MORVEN_EXTERN_C_BEGIN

/** The gray conversion table: 14-bit fixed-point luma weights.
 *
 *  Entries 0-255: 8192 + 1868 * i (blue, with the rounding half),
 *  256-511: 9617 * i (green), 512-767: 4899 * i (red). */
MORVEN_API extern const int32_t wz_toGray_tab[768];

/** Converts the source region into the destination region of the same size.
 *
 *  - equal encodings: a copy, one block per region row;
 *  - colour to colour, gray to colour: channels 1-3 are moved by their own
 *    offsets on each side; the destination's alpha is left as it was and the
 *    source's is dropped; a gray source fills channels 1-3 with its level;
 *  - to gray: the weighted sum of channels 1-3 through wz_toGray_tab, on the
 *    element type's own scale (8-bit: >> 14; 16-bit scales: 8 bits of each
 *    level, >> 6; 24-bit scale: * 4; float types: trunc(v * 255) clamped to
 *    0..255 as the index and the sum times 2^-22, so white gives 0.998046875).
 *
 *  The destination's roi.x, roi.y give its origin and its roi.width only its
 *  row gap.
 *  Float levels whose v * 255 is NaN or beyond 0..255 take the nearer end
 *  (NaN 0).
 *  @param src the source image; its region gives the size.
 *  @param dst the destination, of src's element type.
 *  @return 0; 1, writing nothing, when the element types differ. Choice of
 *          this library: also 1, writing nothing, when either encoding is
 *          above 4. An unknown type code writes nothing and returns 0. */
MORVEN_API wzStatus wzImageCvtColor(const wzImage *src, wzImage *dst);

/** Exactly wzImageCvtColor: a region copy when the encodings are equal.
 *  @param src the source image.
 *  @param dst the destination.
 *  @return the status of wzImageCvtColor. */
MORVEN_API wzStatus wzCopy(const wzImage *src, wzImage *dst);

/** Mirrors the image about its diagonal: destination pixel (c, r) = source
 *  pixel (r, c) over the whole destination.
 *
 *  Regions are ignored.
 *  Choices of this library: a pixel moves as channels * element size bytes, so
 *  every element type is transposed correctly; an encoding above 4 or an
 *  unknown type moves nothing.
 *  @param src the source image.
 *  @param dst the destination, src height wide and src width high.
 *  @return always 0. */
MORVEN_API wzStatus wzTranspose(const wzImage *src, wzImage *dst);

/** Copies channel `channel` of each source region pixel into the first element
 *  of the destination pixel.
 *
 *  Every channel number of a gray source gives its one channel.
 *  @param src the source image.
 *  @param dst the destination, normally a gray image of the same type (its
 *         type is not checked).
 *  @param channel the channel to copy: 1 blue, 2 green, 3 red, 4 alpha.
 *  @return 0; 1, writing nothing, for a channel the source encoding does not
 *          have. Choices of this library: also 1, writing nothing, when
 *          either encoding is above 4 or the two element sizes differ (the
 *          element could not fit the destination pixel). */
MORVEN_API wzStatus wzImageExtractChannel(const wzImage *src, wzImage *dst, int32_t channel);

/** Copies the first element of each source region pixel into channel
 *  `channel` of the destination pixel; the other channels are untouched.
 *  @param src the source image.
 *  @param dst the destination.
 *  @param channel the channel written: 1 blue, 2 green, 3 red, 4 alpha.
 *  @return 0; 1, writing nothing, for a channel the destination encoding does
 *          not have. Choices of this library: also 1, writing nothing, when
 *          either encoding is above 4 or the two element sizes differ. */
MORVEN_API wzStatus wzImageInsertChannel(const wzImage *src, wzImage *dst, int32_t channel);

/** Blends two images with one weight: dst = (1 - w) * a + w * b with
 *  w = weight / 255 in single precision.
 *
 *  Each result is clamped to 0..255 and truncated toward zero (weight 128
 *  blends 10 and 11 into 10). Weight 0 is wzImageCvtColor(a, dst), weight 255
 *  is wzImageCvtColor(b, dst), with that function's statuses. Otherwise a
 *  gray a blends byte by byte; a colour a blends channels 1-3 by each image's
 *  own offsets (b or dst may be gray) and leaves dst's alpha.
 *  @param a the weight 0 side.
 *  @param b the weight 255 side.
 *  @param dst the result; may be a or b.
 *  @param weight 0 to 255.
 *  @return 0; for weights 0 and 255, the status of wzImageCvtColor. Choice
 *          of this library: for weights 1-254, returns 1 without writing when
 *          a, b or dst is not 8-bit or has an encoding above 4. */
MORVEN_API wzStatus wzAddWeigthedS(const wzImage *a, const wzImage *b, wzImage *dst,
                                   uint32_t weight);

/** As wzAddWeigthedS with a weight per pixel: w = m / 255 from the byte of the
 *  mask at that pixel.
 *
 *  Mask level 0 gives a, 255 gives b, both through the blend formula. The
 *  mask advances one byte per pixel from its own region origin, plus its own
 *  region row gap after each row.
 *  @param a the weight 0 side.
 *  @param b the weight 255 side.
 *  @param dst the result; may be a or b.
 *  @param mask 8-bit weights, one byte per pixel.
 *  @return 0. Choice of this library: returns 1 without writing when any of
 *          the four images is not 8-bit or has an encoding above 4. */
MORVEN_API wzStatus wzAddWeigthedM(const wzImage *a, const wzImage *b, wzImage *dst,
                                   const wzImage *mask);

/** Copies source pixels into dst where the mask is non-zero.
 *
 *  A gray source byte by byte; a colour source with a colour mask channel by
 *  channel (channels 1-3, each gated by the mask's same channel); a colour
 *  source with a gray mask whole pixels (channels 1-3). Channel 4 is never
 *  written.
 *  @param src the source image.
 *  @param dst the destination.
 *  @param mask gray or colour mask; non-zero selects.
 *  @return 0. Choice of this library: returns 1 without writing when any
 *          image is not 8-bit or has an encoding above 4. */
MORVEN_API wzStatus wzSubstitute(const wzImage *src, wzImage *dst, const wzImage *mask);

/* ======================================================================== */
/* Extensions                                                               */
/* ======================================================================== */

/** @name Extensions: 16-bit blending
 *  @{ */

/** wzAddWeigthedM for 16-bit images: per channel 1..3 (the one channel of a
 *  gray image) over a's region, each image from its own region origin,
 *  dst = a + w (b - a) with w = mask / 255, in double precision rounded to
 *  the nearest level, so that mask level 255 gives b exactly and 0 gives a.
 *  A fourth channel of dst is left as it was.
 *  @param a 16-bit image (the weight 0 side).
 *  @param b 16-bit image of a's encoding (the weight 255 side).
 *  @param dst 16-bit image of a's encoding; may be a or b.
 *  @param mask 8-bit gray weights.
 *  @return 0; 1, writing nothing, when the images are not 16-bit of one
 *          encoding or the mask is not 8-bit gray. */
MORVEN_API wzStatus wzAddWeigthedM16(const wzImage *a, const wzImage *b, wzImage *dst,
                                     const wzImage *mask);

/** @} */

MORVEN_EXTERN_C_END

/** @} */

#endif /* MORVEN_COLOR_H */
