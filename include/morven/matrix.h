/*
 * Morven: dense matrices of doubles.
 *
 * A matrix is a record over one contiguous row-major block of nRows * nCols
 * doubles plus a table of row pointers: element (i, j) is data[i * nCols + j]
 * and also rowPtr[i][j]. Every operation that sets data keeps
 * rowPtr[i] == data + i * nCols for 0 <= i < nRows; code that fills data
 * directly must keep it too. Indices are zero-based.
 *
 * The row-pointer table always belongs to the record. The element block
 * belongs to it when made by wzMatrixCreate or wzMatrixCreateIdentity
 * (release with wzMatrixRelease); a header made by wzMatrixCreateHeader
 * borrows whatever block is assigned to it (release with
 * wzMatrixReleaseHeader).
 *
 * Null records are never checked (release operations excepted).
 */
#ifndef MORVEN_MATRIX_H
#define MORVEN_MATRIX_H

#include "image.h"

MORVEN_EXTERN_C_BEGIN

/* The matrix record. 24 bytes on 64-bit platforms. */
typedef struct wzMatrix {
    double *data;    /* the elements, row-major, or null in a bare header */
    double **rowPtr; /* nRows pointers into data */
    int32_t nRows;
    int32_t nCols;
} wzMatrix;

/* The same record with 32-bit pointer slots (16 bytes), the layout of the
 * matrix dump header. Pointers are never carried across the two layouts:
 * the slots hold 0. */
typedef struct wzMatrix32 {
    uint32_t data;
    uint32_t rowPtr;
    int32_t nRows;
    int32_t nCols;
} wzMatrix32;

/* ------------------------------------------------------------------------ */
/* Record, views and layout conversion                                       */

/* New record without elements: data null and a zero-filled table of nRows
 * row pointers, sizes set. Attach a block with wzMatrixAssignData or
 * wzImageSetMatrixWrap; release with wzMatrixReleaseHeader. Null when an
 * allocation fails (nothing is leaked).
 * Choices of this library: a negative nRows yields null; nRows 0 yields a
 * record (its row-pointer table holds no usable entry). */
MORVEN_API wzMatrix *wzMatrixCreateHeader(int32_t nRows, int32_t nCols);

/* Sets data to block and rowPtr[i] to block + i * nCols for every row.
 * Nothing is copied or freed (an earlier block is not released). With
 * nRows < 1 only data changes. Choice of this library: a null block gives
 * null row pointers. */
MORVEN_API void wzMatrixAssignData(wzMatrix *m, double *block);

/* New nRows x nCols matrix owning a zero-filled block (all elements 0.0),
 * row pointers set; release with wzMatrixRelease. The element count is the
 * 32-bit signed product nRows * nCols: a negative product yields null.
 * Null when an allocation fails, after freeing what was allocated.
 * Choices of this library: a negative nRows or nCols, or a product that does
 * not fit in 32 bits, yields null before anything is allocated (a wrapped
 * product never allocates a too-small block). A zero nRows or nCols yields a
 * matrix with no elements whatever the allocator does with zero-sized
 * requests: data is a valid pointer that must never be dereferenced, and no
 * element is touched. */
MORVEN_API wzMatrix *wzMatrixCreate(int32_t nRows, int32_t nCols);

/* New n x n identity matrix (1.0 on the diagonal, 0.0 elsewhere), or null as
 * for wzMatrixCreate(n, n). */
MORVEN_API wzMatrix *wzMatrixCreateIdentity(int32_t n);

/* Frees the row-pointer table and the record and sets *m to null; the
 * element block is not touched. Nothing for a null *m. */
MORVEN_API void wzMatrixReleaseHeader(wzMatrix **m);

/* Frees the row-pointer table, the element block and the record, in that
 * order, and sets *m to null. Nothing for a null *m. */
MORVEN_API void wzMatrixRelease(wzMatrix **m);

/* Makes the existing header image a view of the matrix's elements: type
 * wzType64F, encoding wzEncodingGray, height nRows, width nCols, roi the whole
 * image, data the matrix's data; coi is left as it was. Nothing is allocated
 * or copied; release the image with wzImageReleaseHeader and do not let it
 * outlive the matrix. */
MORVEN_API void wzMatrixSetImageWrap(const wzMatrix *m, wzImage *image);

/* Makes the matrix a view of the image's block: nRows = height, nCols =
 * width, data = the image's data (taken as doubles), row pointers rebuilt.
 * The image's type, encoding and roi are not looked at: give a one-channel
 * wzType64F image. The matrix's row-pointer table must have room for height
 * rows (a header made by wzMatrixCreateHeader with at least that many).
 * A null image block gives null row pointers. */
MORVEN_API void wzImageSetMatrixWrap(const wzImage *image, wzMatrix *m);

/* Writes both pointer slots of out as 0 and copies nRows and nCols. */
MORVEN_API void wzMatrixCvtTo32(const wzMatrix *m, wzMatrix32 *out);

/* Sets out's data and rowPtr to null and copies nRows and nCols: a size-only
 * record whose storage the caller attaches separately. */
MORVEN_API void wzMatrixCvtFrom32(const wzMatrix32 *in, wzMatrix *out);

MORVEN_EXTERN_C_END

#endif /* MORVEN_MATRIX_H */
