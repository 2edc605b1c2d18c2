/**
 * @file
 * @brief The image record and its whole-image operations.
 * @ingroup morven_image
 */
/**
 * @defgroup morven_image Images
 * @brief The image record, its creation and release, regions, pixel access,
 *        statistics, element-type conversion, thresholds and dump files.
 *
 * An image is a header (wzImage) over one block of interleaved pixels, rows
 * packed without padding: the element of channel c of pixel (x, y) lies at byte
 * (y * width + x) * channels * elementSize + offset(c) * elementSize.
 *
 * Channels are numbered 1 blue, 2 green, 3 red, 4 alpha whatever the memory
 * order of the encoding. Region-aware operations walk roi.height rows of
 * roi.width pixels of their first image, every image from its own region
 * origin; whole-block operations ignore roi. Each function says which it is.
 *
 * Null records are never checked (release operations excepted). Records
 * created here are released with the matching release operation.
 * @{
 */
#ifndef MORVEN_IMAGE_H
#define MORVEN_IMAGE_H

#include <stdio.h>

#include "common.h"

MORVEN_EXTERN_C_BEGIN

/** Element type codes (the values of wzImage.type); see the enumeration
 *  wzType8U, wzType32S, wzType16U, wzType32S24, wzType32F, wzType64F. */
typedef uint32_t wzImageType;
/** The element type codes, the values of wzImageType. */
enum {
    wzType8U = 0,     /**< unsigned 8-bit, full scale 255 */
    wzType32S = 10,   /**< signed 32-bit on a 16-bit scale, full scale 65535 */
    wzType16U = 12,   /**< unsigned 16-bit, full scale 65535 */
    wzType32S24 = 15, /**< signed 32-bit on a 24-bit scale, full scale 16777215 */
    wzType32F = 20,   /**< 32-bit float, full scale 1.0 */
    wzType64F = 30    /**< 64-bit float, full scale 1.0 */
};

/** Channel layouts (the values of wzImage.encoding); above 4 is invalid. */
typedef uint32_t wzImageEncoding;
/** The channel layouts, the values of wzImageEncoding. */
enum {
    wzEncodingGray = 0, /**< 1 channel */
    wzEncodingBGR = 1,  /**< 3 channels, memory order blue, green, red */
    wzEncodingRGB = 2,  /**< 3 channels, memory order red, green, blue */
    wzEncodingARGB = 3, /**< 4 channels, memory order alpha, red, green, blue */
    wzEncodingRGBA = 4  /**< 4 channels, memory order red, green, blue, alpha */
};

/** A rectangle: first column, first row, width, height. */
typedef struct wzRect {
    int32_t x;      /**< first column */
    int32_t y;      /**< first row */
    int32_t width;  /**< number of columns */
    int32_t height; /**< number of rows */
} wzRect;

/** A size, width first. */
typedef struct wzSize {
    int32_t width;  /**< number of columns */
    int32_t height; /**< number of rows */
} wzSize;

/** An integer position. The leading field is never read; z is read only by
 *  the volume operations. */
typedef struct wzPoint {
    int32_t reserved; /**< never read */
    int32_t x;        /**< column */
    int32_t y;        /**< row */
    int32_t z;        /**< plane; read only by the volume operations */
} wzPoint;

/** The image record. Height is stored before width; every operation that
 *  takes a size takes width first. 48 bytes on 64-bit platforms. */
typedef struct wzImage {
    uint32_t type;     /**< wzImageType */
    uint32_t encoding; /**< wzImageEncoding */
    int32_t height;    /**< number of rows */
    int32_t width;     /**< number of columns */
    uint8_t *data;     /**< the pixel block, or null in a bare header */
    wzRect roi;        /**< region of interest */
    int32_t coi;       /**< channel of interest: stored, saved, never consulted */
} wzImage;

/* ------------------------------------------------------------------------ */
/** @name Creation, release and queries
 *  @{ */

/** New header of type wzType8U with a null data pointer.
 *
 *  The caller attaches a block it keeps and releases the record with
 *  wzImageReleaseHeader. roi is the whole image, coi 0. No argument is
 *  checked.
 *  @param width number of columns.
 *  @param height number of rows.
 *  @param encoding wzImageEncoding of the pixels.
 *  @return the new header, or null when the record cannot be allocated. */
MORVEN_API wzImage *wzImageCreateHeader(int32_t width, int32_t height, uint32_t encoding);

/** As wzImageCreateHeader, with the given element type.
 *  @param width number of columns.
 *  @param height number of rows.
 *  @param encoding wzImageEncoding of the pixels.
 *  @param type wzImageType of the elements.
 *  @return the new header, or null when the record cannot be allocated. */
MORVEN_API wzImage *wzImageCreateHeaderWithType(int32_t width, int32_t height, uint32_t encoding,
                                                uint32_t type);

/** New 8-bit image owning an uninitialised block of width * height * channels
 *  bytes; released with wzImageRelease. See wzImageCreateWithType for sizes.
 *  @param width number of columns.
 *  @param height number of rows.
 *  @param encoding wzImageEncoding of the pixels.
 *  @return the new image, or null for an encoding above 4 or when an
 *          allocation fails. */
MORVEN_API wzImage *wzImageCreate(int32_t width, int32_t height, uint32_t encoding);

/** New image of the given type owning an uninitialised block of
 *  width * height * channels * elementSize bytes, roi the whole image, coi 0.
 *
 *  Choices of this library: a negative width or height, or a block size that
 *  does not fit in memory, yields null. An empty block (a zero width or height,
 *  or an unknown type code, whose element size is 0) still yields an image;
 *  its data pointer is valid but must never be dereferenced.
 *  @param width number of columns.
 *  @param height number of rows.
 *  @param encoding wzImageEncoding of the pixels.
 *  @param type wzImageType of the elements.
 *  @return the new image (release it with wzImageRelease); null for an
 *          encoding above 4 (before allocating anything) and when an
 *          allocation fails (nothing is leaked). */
MORVEN_API wzImage *wzImageCreateWithType(int32_t width, int32_t height, uint32_t encoding,
                                          uint32_t type);

/** New image with the model's width, height, encoding and type. Pixels, roi
 *  and coi are not copied.
 *  @param model the image whose size, encoding and type are taken.
 *  @return the new image owning its block, or null as for
 *          wzImageCreateWithType. */
MORVEN_API wzImage *wzImageCreateAs(const wzImage *model);

/** Frees the record only (the caller keeps the block) and sets `*image` to
 *  null. Does nothing when `*image` is null.
 *  @param[in,out] image holder of a header made by wzImageCreateHeader or
 *                 wzImageCreateHeaderWithType. */
MORVEN_API void wzImageReleaseHeader(wzImage **image);

/** Frees the block and the record and sets `*image` to null. Does nothing
 *  when `*image` is null.
 *  @param[in,out] image holder of an image that owns its block. */
MORVEN_API void wzImageRelease(wzImage **image);

/** The size of the image.
 *  @param image the image.
 *  @return (width, height) of the image. */
MORVEN_API wzSize wzImageSize(const wzImage *image);

/** The encoding field.
 *  @param image the image.
 *  @return image->encoding. */
MORVEN_API uint32_t wzImageGetEncoding(const wzImage *image);

/** Channel count of the image's encoding.
 *  @param image the image.
 *  @return 1, 3 or 4; -1 for an invalid encoding. */
MORVEN_API int32_t wzImageGetNChannel(const wzImage *image);

/** Channel count of an encoding.
 *  @param encoding wzImageEncoding.
 *  @return 1, 3, 3, 4, 4 for 0 to 4, else -1. */
MORVEN_API int32_t wzGetNChannelFromEncoding(uint32_t encoding);

/** Position of a channel (1 blue, 2 green, 3 red, 4 alpha) inside a pixel, in
 *  elements.
 *  @param encoding wzImageEncoding.
 *  @param channel channel number, 1 to 4.
 *  @return the offset in elements; 0 for any channel of a gray encoding; -1
 *          for an encoding above 4 or a channel the encoding does not have. */
MORVEN_API int32_t wzGetChannelOffsetFromEncoding(uint32_t encoding, int32_t channel);

/** Channel offset in bytes: wzGetChannelOffsetFromEncoding times the element
 *  size.
 *  @param image the image (its encoding and type).
 *  @param channel channel number, 1 to 4.
 *  @return the offset in bytes. The failure value is therefore -1 times the
 *          element size (0 for an unknown type code): test the channel, not
 *          the number -1. */
MORVEN_API int32_t wzImageGetChannelOffset(const wzImage *image, int32_t channel);

/** Whether two images' encodings are both gray or both colour.
 *  @param a first image.
 *  @param b second image.
 *  @return 0 when both encodings are gray or both are colour (1 to 4), else
 *          1; any encoding above 4 gives 1. */
MORVEN_API uint32_t wzImageHaveUncompatibleEncodings(const wzImage *a, const wzImage *b);

/** Copies the rectangle into roi, unchecked.
 *  @param image the image.
 *  @param rect the new region of interest. */
MORVEN_API void wzImageSetROI(wzImage *image, const wzRect *rect);

/** Sets roi to (0, 0, width, height).
 *  @param image the image. */
MORVEN_API void wzImageResetROI(wzImage *image);

/** Stores channel in coi.
 *  @param image the image.
 *  @param channel the channel of interest (stored, never consulted). */
MORVEN_API void wzImageSetCOI(wzImage *image, int32_t channel);

/** Stores 0 in coi.
 *  @param image the image. */
MORVEN_API void wzImageResetCOI(wzImage *image);

/** The strides every region-aware loop uses, as 32-bit products.
 *
 *  out[0] pixel stride (channels * element size, negative for an invalid
 *  encoding), out[1] row stride (width * out[0]), out[2] region row gap
 *  ((width - roi.width) * out[0]): the bytes from just past the last region
 *  pixel of a row to the first region pixel of the next.
 *  @param image the image.
 *  @param[out] out the three strides, in bytes. */
MORVEN_API void wzImageExtractDerivedMembers(const wzImage *image, int32_t out[3]);

/** @} */

/* ------------------------------------------------------------------------ */
/** @name Pixel access and statistics
 *  One element per position, no channels.
 *  @{ */

/** The element at index p->y * width + p->x of the block, as a double; roi is
 *  ignored and the position is not checked.
 *  @param image the image.
 *  @param p the position (x and y are read).
 *  @return the element, or 0.0 for an unknown type code. */
MORVEN_API double wzImageGetVal(const wzImage *image, const wzPoint *p);

/** Bilinear value at (pos[0] = x, pos[1] = y) over the block seen as one
 *  channel of width elements per row.
 *
 *  Only the neighbours that a non-zero fraction needs are read, so integral
 *  positions on the last row or column are safe; negative positions
 *  extrapolate.
 *  @param image the image.
 *  @param pos x, then y.
 *  @return the interpolated value, or 0.0 for an unknown type code. */
MORVEN_API double wzImageGetInterpolatedVal(const wzImage *image, const double pos[2]);

/** Fills the whole block (height * width * channels elements, roi ignored).
 *
 *  Integer types take value truncated toward zero to 32 bits (and its low 8 or
 *  16 bits for types 8U and 16U), wzType32F its single-precision rounding.
 *  Choices of this library: for the integer types a value beyond the 32-bit
 *  range saturates to the nearer limit and NaN stores 0; an encoding above 4,
 *  an unknown type or an element count that is not positive writes nothing.
 *  @param image the image.
 *  @param value the value to store. */
MORVEN_API void wzImageSetVal(wzImage *image, double value);

/** Sets every byte of the block to zero (roi ignored). An unknown type or an
 *  encoding above 4 clears nothing.
 *  @param image the image. */
MORVEN_API void wzImageSetZero(wzImage *image);

/** Minimum and maximum of the elements of the region of a gray image.
 *
 *  `*min` is first set to DBL_MAX and `*max` to -DBL_MAX in every case; an
 *  empty region keeps them. NaN elements change neither. Elements are taken
 *  in order and an infinite extreme does not survive the next element:
 *  max = +inf becomes DBL_MAX when the next element is not greater, and
 *  min = -inf becomes -DBL_MAX at the next element, which is then not
 *  compared.
 *  @param image a gray image.
 *  @param[out] min the smallest element.
 *  @param[out] max the largest element.
 *  @return 0, or 1 for a non-gray encoding or an unknown type code. */
MORVEN_API wzStatus wzImageGetMinMaxValues(const wzImage *image, double *min, double *max);

/** Bounding rectangle of the non-zero elements of the whole gray image (roi
 *  ignored; for float types -0.0 counts as zero and NaN as non-zero).
 *  @param image a gray image.
 *  @param[out] rect the bounding rectangle; carries no meaning when `*empty`
 *              is 1 (this library writes (0, 0, 0, 0) then).
 *  @param[out] empty 0 when at least one element is non-zero, else 1.
 *  @return 1 without writing anything for a non-gray encoding; 1 with
 *          `*empty` set to 1 for an unknown type code; else 0. */
MORVEN_API wzStatus wzImageGetNonZeroROI(const wzImage *image, wzRect *rect, uint32_t *empty);

/** dst byte = 255 - src byte over the first width * height bytes (an 8-bit
 *  one-channel mask); roi and encoding are not consulted.
 *  @param src the mask to invert.
 *  @param dst the result; may be the same image as src.
 *  @return 0; 1, writing nothing, unless both images have equal width,
 *          height and type and that type is wzType8U. */
MORVEN_API wzStatus wzImageInvert(const wzImage *src, wzImage *dst);

/** @} */

/* ------------------------------------------------------------------------ */
/** @name Element-type conversion and thresholding
 *  These operations work on whole blocks.
 *  @{ */

/** Converts height * width * channels elements of src into dst's type; white
 *  maps onto white (255 becomes 65280 in 16-bit scales).
 *
 *  Integer narrowing and widening are shifts without saturation; integer to
 *  float divides by the full scale in the destination precision; float to
 *  integer multiplies by the destination full scale and truncates toward
 *  zero, keeping the low 8 or 16 bits for wzType8U and wzType16U. Equal types
 *  copy the block.
 *  Widening runs from the last element to the first, narrowing from the first,
 *  so a destination header over the source's own block converts in place.
 *  The destination's block must hold the result; its size is not compared.
 *  The count is formed in 64 bits; below 1 (or too large for any block)
 *  nothing is converted.
 *  Choices of this library: a float product beyond the 32-bit integer range
 *  saturates to the nearer limit before the low bits are kept (so it becomes
 *  255 or 0 in wzType8U), and NaN becomes 0.
 *  @param src the source image.
 *  @param dst the destination, of src's encoding.
 *  @return 1, writing nothing, when the encodings differ; otherwise 0 (an
 *          unknown type code on either side converts nothing). */
MORVEN_API wzStatus wzImageCvtType(const wzImage *src, wzImage *dst);

/** Stretches [low, high] of the source onto the destination's full range.
 *
 *  t = (v - low) / (high - low) in double; integer destinations store t * FS
 *  clamped to 0..FS and truncated, float destinations t clamped to 0..1.
 *  Processes height * width * channels of the source's encoding elements.
 *  Choices of this library: NaN elements store 0 into integer types and NaN
 *  into float types.
 *  @param src the source image.
 *  @param dst the destination, of src's width and height.
 *  @param low the source value that becomes 0.
 *  @param high the source value that becomes the full scale FS.
 *  @return 0; 1, writing nothing, when the widths or heights differ, when
 *          high is not greater than low (NaN included) or when either type
 *          code is unknown. Choice of this library: also 1 when the
 *          destination's encoding has fewer channels than the source's (its
 *          block could not hold the result). */
MORVEN_API wzStatus wzImageCvtTypeGivenRange(const wzImage *src, wzImage *dst, double low,
                                             double high);

/** Thresholds a one-channel image element by element (dst height * width of
 *  them).
 *
 *  Above high gives the destination full scale, below low gives 0, otherwise
 *  the value rescaled by FS(dst) / FS(src). low > high is allowed (everything
 *  becomes FS or 0). NaN elements store 0 into integer types.
 *  @param src the source image.
 *  @param dst the destination, of src's width and height.
 *  @param low values below it give 0.
 *  @param high values above it give the full scale.
 *  @return 0; 1, writing nothing, when the widths or heights differ or either
 *          type code is unknown. */
MORVEN_API wzStatus wzImageThreshold(const wzImage *src, wzImage *dst, double low, double high);

/** @} */

/* ------------------------------------------------------------------------ */
/** @name Dump files
 *  A 40-byte little-endian header (type, encoding, height, width, a zero
 *  word, roi x, y, width, height, coi) and the whole block as it lies in
 *  memory. The stream is opened, positioned and closed by the caller.
 *  @{ */

/** Writes one dump of the image.
 *
 *  An empty block (a zero dimension or an unknown type) writes the header and
 *  returns 0xFFFFFFFF.
 *  Choices of this library: an encoding above 4 returns 0xFFFFFFFF before
 *  writing anything; a negative width or height is treated as an empty block.
 *  @param image the image.
 *  @param stream the stream written to.
 *  @return 0, or 0xFFFFFFFF when a write is short (and in the cases above). */
MORVEN_API wzStatus wzImageDumpSave(const wzImage *image, FILE *stream);

/** Reads one dump into a new image owning its block (release it with
 *  wzImageRelease).
 *
 *  Choices of this library: a header with a negative height or width, or
 *  whose height * width * channels does not fit in 32 bits, is refused before
 *  anything is allocated for the payload; a payload above 16 MiB is read in
 *  pieces into a block that doubles as they arrive, so a header that claims
 *  more than the stream holds costs at most 16 MiB or about twice what was
 *  read. The stream is left just after the dump on success, wherever the
 *  failed read left it otherwise.
 *  @param stream the stream read from.
 *  @return the new image; null, with nothing leaked, on a short header or
 *          payload, an encoding above 4, an unknown type, an empty payload or
 *          a failed allocation. */
MORVEN_API wzImage *wzImageDumpLoad(FILE *stream);

/** @} */

MORVEN_EXTERN_C_END

/** @} */

#endif /* MORVEN_IMAGE_H */
