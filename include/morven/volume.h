/**
 * @file
 * @brief Volumes, stacks of equally sized image planes.
 * @ingroup morven_volume
 */
/**
 * @defgroup morven_volume Volumes
 * @brief Volumes (stacks of equally sized image planes): creation and
 *        release, regions, type conversion, voxel access and statistics,
 *        slices, region copy, dump files and histogram operations.
 *
 * A volume (wzVolume) is a three-dimensional array of elements of one type,
 * addressed by column x, row y and plane z. Every plane is an ordinary
 * wzImage header, so any image operation can run on one plane. A volume comes
 * in one of three kinds, each with its own constructors, release and dump
 * operations; the caller keeps track of which kind it holds:
 *  - header-only (wzVolumeCreateHeader...): no block; wzVolumeAssignData
 *    points the planes into a block the caller keeps; release with
 *    wzVolumeReleaseHeader;
 *  - contiguous (wzVolumeCreate, ...WithType, ...WithEncoding, ...As): one
 *    zeroed block (voxels) that the volume owns, plane k at
 *    voxels + k * planeSize; release with wzVolumeRelease;
 *  - separate-plane (...WithSeparatePlanes): each plane owns its block and
 *    voxels is null; release with wzVolumeReleaseWithSeparatePlanes.
 *
 * planeSize = width * elementSize * height * channels, channels of plane 0
 * (formed in 64 bits).
 *
 * Sizes are always passed width, height, depth. Note that the record stores
 * width before height, unlike wzImage.
 *
 * Rules shared by the element-level operations of this header (reads,
 * fills, inversion, extremes, non-zero box, slices) and by the volume
 * histogram operations, choices of this library where the interface leaves
 * them open:
 *  - One element per voxel: voxel (x, y, z) is element y * width + x of
 *    plane z. These operations serve one-channel volumes; a volume whose
 *    plane 0 has more than one channel (or an encoding above 4) is treated
 *    like a volume of an unsupported element type: reads give 0.0, fills
 *    write nothing, status operations return 1 before writing anything.
 *    wzVolumeSetZero clears every channel, and wzCopy3D converts between
 *    encodings plane by plane.
 *  - Voxel storage: operations that walk the voxels use the voxels block
 *    when it is set and otherwise each plane's own block, so they serve
 *    contiguous, assigned header-only and separate-plane volumes alike. A
 *    volume with neither (a header without data, a plane without a block)
 *    has no voxels: status operations return 1 and fills write nothing.
 *  - Regions: wzVolumeGetMinMaxValues, wzCopy3D and the look-up
 *    wzHistogramMatchApplyGray3D return 1, writing nothing, when a non-empty
 *    region of interest does not lie inside its volume. Single-voxel reads
 *    (wzVolumeGetVal, the interpolation) check nothing, as for images.
 * @{
 */
#ifndef MORVEN_VOLUME_H
#define MORVEN_VOLUME_H

#include <stdio.h>

#include "common.h"
#include "histogram.h"
#include "image.h"

MORVEN_EXTERN_C_BEGIN

/** A box: first column, row and plane, then the extents along those axes. */
typedef struct wzBox {
    int32_t x;      /**< first column */
    int32_t y;      /**< first row */
    int32_t z;      /**< first plane */
    int32_t width;  /**< number of columns */
    int32_t height; /**< number of rows */
    int32_t depth;  /**< number of planes */
} wzBox;

/** The size of a volume, width first. */
typedef struct wzSize3D {
    int32_t width;  /**< number of columns */
    int32_t height; /**< number of rows */
    int32_t depth;  /**< number of planes */
} wzSize3D;

/** The volume record. Width is stored before height (unlike wzImage). 56
 *  bytes on 64-bit platforms. The record owns planes and the plane headers; a
 *  contiguous volume owns voxels, a separate-plane volume's planes own their
 *  blocks. */
typedef struct wzVolume {
    uint32_t type;    /**< wzImageType of every plane */
    int32_t depth;    /**< number of planes */
    int32_t width;    /**< columns of every plane */
    int32_t height;   /**< rows of every plane */
    uint8_t *voxels;  /**< the contiguous block of all planes, or null */
    wzImage **planes; /**< depth plane headers, plane 0 first */
    wzBox roi;        /**< region of interest of the region-aware operations */
} wzVolume;

/** The same record with 32-bit pointer slots (48 bytes), the layout of the
 *  volume dump header. Pointers never cross the two layouts: the slots hold
 *  0. */
typedef struct wzVolume32 {
    uint32_t type;   /**< wzImageType of every plane */
    int32_t depth;   /**< number of planes */
    int32_t width;   /**< columns of every plane */
    int32_t height;  /**< rows of every plane */
    uint32_t voxels; /**< 0 */
    uint32_t planes; /**< 0 */
    wzBox roi;       /**< region of interest */
} wzVolume32;

/* ------------------------------------------------------------------------ */
/** @name Creation and release
 *  Every constructor returns null after releasing everything it allocated
 *  (plane headers in reverse order) when an allocation fails. The region of
 *  interest starts as the whole volume, every plane's roi as the whole plane.
 *  Choices of this library for all constructors: a negative width, height or
 *  depth yields null before anything is allocated; a zero width, height or
 *  depth yields a volume (its empty blocks must never be dereferenced); block
 *  sizes are formed in 64 bits and a block that cannot exist yields null.
 *  @{ */

/** Header-only volume of type wzType8U, encoding 0: depth plane headers
 *  without data and a null voxels.
 *
 *  Attach a block with wzVolumeAssignData; release with
 *  wzVolumeReleaseHeader.
 *  @param width columns of every plane.
 *  @param height rows of every plane.
 *  @param depth number of planes.
 *  @return the new volume, or null (see above). */
MORVEN_API wzVolume *wzVolumeCreateHeader(int32_t width, int32_t height, int32_t depth);

/** As wzVolumeCreateHeader with the given element type (not checked).
 *  @param width columns of every plane.
 *  @param height rows of every plane.
 *  @param depth number of planes.
 *  @param type wzImageType of the elements.
 *  @return the new volume, or null (see above). */
MORVEN_API wzVolume *wzVolumeCreateHeaderWithType(int32_t width, int32_t height, int32_t depth,
                                                  uint32_t type);

/** As wzVolumeCreateHeader with the given plane encoding.
 *  @param width columns of every plane.
 *  @param height rows of every plane.
 *  @param depth number of planes.
 *  @param encoding wzImageEncoding of the planes.
 *  @return the new volume, or null (see above). Choice of this library: an
 *          encoding above 4 yields null, as for wzVolumeCreateWithEncoding. */
MORVEN_API wzVolume *wzVolumeCreateHeaderWithEncoding(int32_t width, int32_t height, int32_t depth,
                                                      uint32_t encoding);

/** Sets voxels to block and, when depth >= 1, the data pointer of plane k to
 *  block + k * planeSize (channels from plane 0).
 *
 *  Nothing is copied or freed.
 *  Choice of this library: a null block leaves every plane's data null.
 *  @param volume the volume (normally header-only).
 *  @param block the voxels, kept by the caller. */
MORVEN_API void wzVolumeAssignData(wzVolume *volume, void *block);

/** Contiguous volume of the given type and encoding 0 over one zeroed block
 *  of width * height * elementSize * depth bytes; release with
 *  wzVolumeRelease.
 *
 *  An unknown type code gives element size 0 (an empty block).
 *  @param width columns of every plane.
 *  @param height rows of every plane.
 *  @param depth number of planes.
 *  @param type wzImageType of the elements.
 *  @return the new volume, or null (see above). */
MORVEN_API wzVolume *wzVolumeCreateWithType(int32_t width, int32_t height, int32_t depth,
                                            uint32_t type);

/** wzVolumeCreateWithType with type wzType8U.
 *  @param width columns of every plane.
 *  @param height rows of every plane.
 *  @param depth number of planes.
 *  @return the new volume, or null (see above). */
MORVEN_API wzVolume *wzVolumeCreate(int32_t width, int32_t height, int32_t depth);

/** Contiguous 8-bit volume whose planes have the given encoding, over one
 *  zeroed block of channels * width * height * depth bytes.
 *  @param width columns of every plane.
 *  @param height rows of every plane.
 *  @param depth number of planes.
 *  @param encoding wzImageEncoding of the planes.
 *  @return the new volume; null for an encoding above 4 (and see above). */
MORVEN_API wzVolume *wzVolumeCreateWithEncoding(int32_t width, int32_t height, int32_t depth,
                                                uint32_t encoding);

/** wzVolumeCreateWithType with the model's width, height, depth and type.
 *
 *  The result has encoding 0 and a full region of interest (the model's
 *  encoding, region and voxels are not copied).
 *  @param model the volume whose size and type are taken.
 *  @return the new volume, or null (see above). */
MORVEN_API wzVolume *wzVolumeCreateAs(const wzVolume *model);

/** Separate-plane volume of the given type, encoding 0: every plane owns an
 *  uninitialised block of width * height * elementSize bytes, voxels is null.
 *
 *  Release with wzVolumeReleaseWithSeparatePlanes.
 *  @param width columns of every plane.
 *  @param height rows of every plane.
 *  @param depth number of planes.
 *  @param type wzImageType of the elements.
 *  @return the new volume, or null. Choice of this library: when the record
 *          or any plane cannot be allocated, every plane made so far is
 *          released (block and header, in reverse order) and null is
 *          returned. */
MORVEN_API wzVolume *wzVolumeCreateWithTypeWithSeparatePlanes(int32_t width, int32_t height,
                                                              int32_t depth, uint32_t type);

/** wzVolumeCreateWithTypeWithSeparatePlanes with type wzType8U.
 *  @param width columns of every plane.
 *  @param height rows of every plane.
 *  @param depth number of planes.
 *  @return the new volume, or null (see above). */
MORVEN_API wzVolume *wzVolumeCreateWithSeparatePlanes(int32_t width, int32_t height, int32_t depth);

/** Releases the plane headers (last to first), the plane table and the
 *  record, never a pixel block, and sets `*volume` to null. Nothing for null.
 *  @param[in,out] volume holder of the volume. */
MORVEN_API void wzVolumeReleaseHeader(wzVolume **volume);

/** Frees voxels, then does what wzVolumeReleaseHeader does.
 *  @param[in,out] volume holder of a contiguous volume. */
MORVEN_API void wzVolumeRelease(wzVolume **volume);

/** Releases every plane with its block (last to first), the plane table and
 *  the record, and sets `*volume` to null; voxels is not freed. Nothing for
 *  null.
 *  @param[in,out] volume holder of a separate-plane volume. */
MORVEN_API void wzVolumeReleaseWithSeparatePlanes(wzVolume **volume);

/** @} */

/* ------------------------------------------------------------------------ */
/** @name Size, region of interest, record layouts and type conversion
 *  @{ */

/** The size of the volume.
 *  @param volume the volume.
 *  @return (width, height, depth). */
MORVEN_API wzSize3D wzVolumeSize(const wzVolume *volume);

/** Copies the box into roi, unchecked; the planes' own regions are untouched.
 *  @param volume the volume.
 *  @param box the new region of interest. */
MORVEN_API void wzVolumeSetROI(wzVolume *volume, const wzBox *box);

/** Sets roi to (0, 0, 0, width, height, depth); the planes' own regions are
 *  untouched.
 *  @param volume the volume. */
MORVEN_API void wzVolumeResetROI(wzVolume *volume);

/** Copies type, depth, width, height and roi; both pointer slots become 0.
 *  @param volume the volume.
 *  @param[out] out the 32-bit record. */
MORVEN_API void wzVolumeCvtTo32(const wzVolume *volume, wzVolume32 *out);

/** Copies type, depth, width, height and roi into out and sets its voxels and
 *  planes to null (nothing is freed): a size-only record.
 *  @param in the 32-bit record.
 *  @param[out] out the volume record. */
MORVEN_API void wzVolumeCvtFrom32(const wzVolume32 *in, wzVolume *out);

/** Converts plane k of src into plane k of dst with wzImageCvtType, planes in
 *  order.
 *  @param src the source volume.
 *  @param dst the destination volume.
 *  @return the first non-zero plane status at once (later planes untouched),
 *          else 0 (also for depth < 1). Choice of this library: 1,
 *          converting nothing, when dst has fewer planes than src. */
MORVEN_API wzStatus wzVolumeCvtType(const wzVolume *src, wzVolume *dst);

/** Converts plane by plane with wzImageCvtTypeGivenRange(low, high).
 *  @param src the source volume.
 *  @param dst the destination volume.
 *  @param low the source value that becomes 0.
 *  @param high the source value that becomes the full scale.
 *  @return 1, converting nothing, when the depths differ; otherwise the first
 *          non-zero plane status, or 0. */
MORVEN_API wzStatus wzVolumeCvtTypeGivenRange(const wzVolume *src, wzVolume *dst, double low,
                                              double high);

/** @} */

/* ------------------------------------------------------------------------ */
/** @name Voxel access, statistics, slices and region copy
 *  One element per voxel; see the shared rules of this header.
 *  @{ */

/** Voxel (p->x, p->y, p->z) as a double, read through plane p->z's block;
 *  p->reserved is not read and nothing is checked.
 *  @param volume the volume.
 *  @param p the position.
 *  @return the voxel; 0.0 for an unsupported type or a multi-channel
 *          volume. */
MORVEN_API double wzVolumeGetVal(const wzVolume *volume, const wzPoint *p);

/** Trilinear value at (pos[0] = x, pos[1] = y, pos[2] = z).
 *
 *  Bilinear in plane trunc(z) (along x, then y), then along z towards plane
 *  trunc(z) + 1. Only the neighbours a non-zero fraction needs are read, so
 *  positions exactly on the last column, row or plane read nothing beyond
 *  them. The position is not checked (0 <= x <= width - 1 and so on); a
 *  coordinate in (-1, 0) truncates to 0 and extrapolates.
 *  @param volume the volume.
 *  @param pos x, y, z.
 *  @return the interpolated value; 0.0 for an unsupported type or a
 *          multi-channel volume. */
MORVEN_API double wzVolumeGetInterpolatedVal(const wzVolume *volume, const double pos[3]);

/** Exactly wzVolumeGetInterpolatedVal.
 *  @param volume the volume.
 *  @param pos x, y, z.
 *  @return as wzVolumeGetInterpolatedVal. */
MORVEN_API double wzVolumeGetInterpolatedValPerPlane(const wzVolume *volume, const double pos[3]);

/** Writes value into each of the width * height * depth voxels (roi
 *  ignored).
 *
 *  Integer types take value truncated toward zero to 32 bits, of which 8-bit
 *  and 16-bit elements keep the low 8 or 16 bits (300.7 stores 44 in 8 bits);
 *  wzType32F its single-precision rounding. Nothing for an unsupported type.
 *  Choices of this library: beyond the 32-bit range the integer saturates to
 *  the nearer limit and NaN gives 0 (as wzImageSetVal).
 *  @param volume the volume.
 *  @param value the value to store. */
MORVEN_API void wzVolumeSetVal(wzVolume *volume, double value);

/** Clears elementSize * width * height * depth * channels bytes (channels of
 *  plane 0, every channel cleared). Nothing for an unknown type.
 *  @param volume the volume. */
MORVEN_API void wzVolumeSetZero(wzVolume *volume);

/** dst voxel = 255 - src voxel over the whole volume (roi ignored).
 *  @param src the source volume.
 *  @param dst the destination; may be src.
 *  @return 0; 1, writing nothing, unless dst has src's width, height, depth
 *          and type and that type is wzType8U (or under the shared rules). */
MORVEN_API wzStatus wzVolumeInvert(const wzVolume *src, wzVolume *dst);

/** Minimum and maximum over the region of interest, every voxel of the box
 *  once.
 *
 *  `*min` is first set to DBL_MAX and `*max` to -DBL_MAX in every case; an
 *  empty box (an extent below 1) keeps them and returns 0. NaN voxels change
 *  neither.
 *  @param volume the volume.
 *  @param[out] min the smallest voxel.
 *  @param[out] max the largest voxel.
 *  @return 0; 1 for an unsupported type (or under the shared rules). */
MORVEN_API wzStatus wzVolumeGetMinMaxValues(const wzVolume *volume, double *min, double *max);

/** Bounding box of the non-zero voxels of the whole volume (roi ignored; for
 *  float types -0.0 is zero and NaN non-zero).
 *  @param volume the volume.
 *  @param[out] box the bounding box; when `*empty` stays 1 it carries no
 *              meaning (this library writes (0, 0, 0, 0, 0, 0) then).
 *  @param[out] empty set to 1 first; becomes 0 when a voxel is non-zero.
 *  @return 1 with the box untouched for an unsupported type (or under the
 *          shared rules), else 0. */
MORVEN_API wzStatus wzVolumeGetNonZeroROI(const wzVolume *volume, wzBox *box, int32_t *empty);

/** Copies an axis-aligned slice into out.
 *
 *  out must have encoding 0, the volume's type, the size below and a block:
 *   - axis 2: plane z = index (0 <= index < depth); out is width x height, a
 *     copy of the plane;
 *   - axis 1: row y = index (0 <= index < height); out is depth wide and width
 *     high, out (row r, column c) = voxel (r, index, c);
 *   - axis 0: column x = index (0 <= index < width); out is height wide and
 *     depth high, out (row r, column c) = voxel (index, c, r).
 *  @param volume the volume.
 *  @param axis 0, 1 or 2.
 *  @param index the column, row or plane.
 *  @param[out] out the slice.
 *  @return 1, writing nothing, for any other axis, an index or out size that
 *          does not fit, an unsupported type (or under the shared rules; out
 *          without a block counts too); else 0, also for an empty slice. */
MORVEN_API wzStatus wzVolumeGetSlice(const wzVolume *volume, int32_t axis, int32_t index,
                                     wzImage *out);

/** Copies src's region of interest into dst's, plane by plane through
 *  wzImageCvtColor (planes may differ in encoding, not in element type).
 *
 *  Each pair of planes gets the boxes' (x, y, width, height) as roi for the
 *  copy and its own roi back afterwards.
 *  @param src the source volume.
 *  @param dst the destination volume.
 *  @return 1, writing nothing, when the boxes differ in depth, height or
 *          width; 0 when depth < 1; the first non-zero plane status at once
 *          (those two planes then keep the copy's roi, earlier planes stay
 *          copied); else 0. Choice of this library: a box that does not lie
 *          inside its volume, or a plane without a block, returns 1, writing
 *          nothing. */
MORVEN_API wzStatus wzCopy3D(const wzVolume *src, wzVolume *dst);

/** @} */

/* ------------------------------------------------------------------------ */
/** @name Dump files
 *  A 48-byte little-endian header in the layout of wzVolume32 (type, depth,
 *  width, height, two zero words, roi x, y, z, width, height, depth), then
 *  plane 0 to depth - 1, each height rows of width elements in their
 *  in-memory form, nothing between rows or planes. Both save forms write the
 *  same bytes for the same voxels and either load reads them. The stream is
 *  opened, positioned and closed by the caller.
 *  The payload holds one element per voxel and no encoding; loaded volumes
 *  have encoding 0. Choice of this library: saving a multi-channel volume (or
 *  one with an encoding above 4) returns 0xFFFFFFFF before writing anything,
 *  so a one-channel payload is never mixed with a partial one.
 *  @{ */

/** Writes the header, then elementSize * width * depth * height bytes of
 *  voxels as one item.
 *
 *  An empty payload (no planes, an empty plane or an unknown type) writes the
 *  header and returns 0xFFFFFFFF. Choices of this library: a volume without a
 *  voxels block is written from its planes' own blocks, and returns
 *  0xFFFFFFFF before writing anything when a plane has no block; negative
 *  sizes count as an empty payload.
 *  @param volume the volume.
 *  @param stream the stream written to.
 *  @return 0, or 0xFFFFFFFF on a short write (and in the cases above). */
MORVEN_API wzStatus wzVolumeDumpSave(const wzVolume *volume, FILE *stream);

/** Writes the header, then each plane's own block (elementSize * height *
 *  width bytes) as one item, planes in order.
 *  @param volume the volume.
 *  @param stream the stream written to.
 *  @return 0 (also right after the header when depth < 1), or 0xFFFFFFFF at
 *          the first short write (an empty plane counts as one). Choice of
 *          this library: 0xFFFFFFFF before writing anything when a plane has
 *          no block. */
MORVEN_API wzStatus wzVolumeDumpSaveWithSeparatePlanes(const wzVolume *volume, FILE *stream);

/** Reads one dump into a new contiguous volume (release with
 *  wzVolumeRelease), with the saved region of interest.
 *
 *  The limits on untrusted headers are those given for
 *  wzVolumeDumpLoadWithSeparatePlanes.
 *  @param stream the stream read from.
 *  @return the new volume; null, with nothing left allocated, on a short
 *          header or payload, an empty payload or a failed allocation. */
MORVEN_API wzVolume *wzVolumeDumpLoad(FILE *stream);

/** Reads one dump into a new separate-plane volume (release with
 *  wzVolumeReleaseWithSeparatePlanes), planes read one after another; a
 *  header with depth 0 gives a volume without planes.
 *
 *  Choices of this library, for both loads (dumps may come from untrusted
 *  streams): sizes are formed in 64 bits, and the header is refused before
 *  anything is allocated when the type is unknown, a size is negative, or
 *  width * height * depth, or width * height alone (even for depth 0),
 *  exceeds 2^31 - 1 voxels (the format's 32-bit voxel count). Memory follows
 *  the data that actually arrives: the plane table grows with the planes
 *  read, and a block (the contiguous payload, or one plane) above 16 MiB is
 *  read in pieces into a block that doubles as they arrive, so a header that
 *  claims more than the stream holds costs at most 16 MiB or about twice what
 *  was read.
 *  @param stream the stream read from.
 *  @return the new volume; null, with every plane and record made so far
 *          released, on a short header or plane, an empty plane or a failed
 *          allocation. */
MORVEN_API wzVolume *wzVolumeDumpLoadWithSeparatePlanes(FILE *stream);

/** @} */

/* ------------------------------------------------------------------------ */
/** @name Histogram operations on volumes
 *  Statistics are gathered from every plane, each over its own plane roi (the
 *  volume's roi does not restrict them); the table look-up runs over the
 *  volume's roi. The look-up, the filter, equalisation and stretch serve
 *  8-bit one-channel volumes with voxels (contiguous, assigned header-only or
 *  separate-plane); choices of this library: any other volume, or a source
 *  without planes, makes them return 1 before writing anything.
 *  @{ */

/** Replaces the record's profile with the volume profile: plane 0's profile
 *  plus, in plane order, those of planes 1 to depth - 1 (entry by entry, the
 *  order wzHistogramMatchStatsUpdate adds in).
 *
 *  Choice of this library: multi-channel planes fill all three arrays as
 *  wzImageFillColorProfile does.
 *  @param[out] stats the record whose profile is replaced.
 *  @param volume the volume measured.
 *  @return 0. Choices of this library: a volume without planes or whose type
 *          is not wzType8U leaves an all-zero profile and returns 1. */
MORVEN_API wzStatus wzHistogramMatchStatsRetrieve3D(wzHistogramMatchStats *stats,
                                                    const wzVolume *volume);

/** destination voxel = table[source voxel] (block 0) over source's region of
 *  interest, the destination walked from its own region origin.
 *  @param reserved reserved, never read.
 *  @param table the 768-byte look-up table; block 0 is used.
 *  @param source the source volume.
 *  @param destination the destination; may be the same volume as source.
 *  @param cancel cancel flag checked before every row, or null.
 *  @return 0 at once when the source region's depth or height is below 1; 2
 *          when the cancel flag is set before a row (rows already written
 *          stay); else 0. Choices of this library: 1, writing nothing, when
 *          the destination region's extents differ from the source's, a
 *          region does not lie inside its volume, or under the rules above. */
MORVEN_API wzStatus wzHistogramMatchApplyGray3D(const void *reserved, const uint8_t table[768],
                                                const wzVolume *source, wzVolume *destination,
                                                const uint32_t *cancel);

/** Histogram matching of a volume in one call.
 *
 *  The table is computed from the volume profile of the source and params,
 *  then looked up from the source region into the destination region. With a
 *  mask (an 8-bit one-channel volume), each plane k of the region is blended
 *  with wzAddWeigthedM (mask level 255 keeps the matched value, 0 the
 *  original) with mask plane mask->roi.z + k; in place with a mask the source
 *  region is first copied into a temporary volume.
 *  Choices of this library: the blend is aligned with the look-up: during the
 *  blend every plane involved has its volume's region rectangle (x, y, and
 *  the source region's width and height) as roi, and gets its own roi back
 *  after.
 *  @param params the matching parameters and target profile.
 *  @param source the source volume.
 *  @param mask blend mask volume, or null.
 *  @param destination the destination volume; may be the source.
 *  @param cancel cancel flag, or null.
 *  @return 0; 1 when the temporary volume cannot be allocated (nothing
 *          written); 2 when cancelled (no plane blended); or the first
 *          non-zero status of wzAddWeigthedM (planes before it are blended).
 *          Choice of this library: a mask whose region (from its own origin,
 *          with the source region's extents) does not lie inside it returns 1
 *          before anything is written. */
MORVEN_API wzStatus wzHistogramMatchFilter3D(const wzHistogramMatchParams *params, wzVolume *source,
                                             const wzVolume *mask, wzVolume *destination,
                                             const uint32_t *cancel);

/** Equalises the source region into the destination region.
 *
 *  The normalised volume profile is matched to the flat profile (strength 1,
 *  fidelity 1, mode 0, maxStep 256), block 0 looked up without a cancel flag.
 *  @param source the source volume.
 *  @param destination the destination volume.
 *  @return 0 (1 under the rules above). */
MORVEN_API wzStatus wzHistogramEqualization3D(const wzVolume *source, wzVolume *destination);

/** Maps the occupied range lo..hi of the volume profile onto 0..255 and looks
 *  it up from the source region into the destination region.
 *
 *  Below lo 0, lo..hi-1 trunc(255/(hi - lo) * (i - lo)) in float, hi and
 *  above 255. When the profile holds a single value the source region is
 *  copied with wzCopy3D.
 *  @param source the source volume.
 *  @param destination the destination volume.
 *  @return 0; 1 when the profile holds a single value (after the copy).
 *          Choice of this library: an empty profile (no voxel in any plane's
 *          roi) returns 1 without writing (1 also under the rules above). */
MORVEN_API wzStatus wzHistogramStretch3D(const wzVolume *source, wzVolume *destination);

/** @} */

MORVEN_EXTERN_C_END

/** @} */

#endif /* MORVEN_VOLUME_H */
