/**
 * @file
 * @brief Dense matrices of doubles.
 * @ingroup morven_matrix
 */
/**
 * @defgroup morven_matrix Dense matrices
 * @brief The matrix record, views between matrices and images, arithmetic,
 *        decompositions and solvers, singular value decomposition,
 *        pseudo-inverse and dump files.
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
 * @{
 */
#ifndef MORVEN_MATRIX_H
#define MORVEN_MATRIX_H

#include "image.h"

MORVEN_EXTERN_C_BEGIN

/** The matrix record. 24 bytes on 64-bit platforms. */
typedef struct wzMatrix {
    double *data;    /**< the elements, row-major, or null in a bare header */
    double **rowPtr; /**< nRows pointers into data */
    int32_t nRows;   /**< number of rows */
    int32_t nCols;   /**< number of columns */
} wzMatrix;

/** The same record with 32-bit pointer slots (16 bytes), the layout of the
 *  matrix dump header. Pointers are never carried across the two layouts:
 *  the slots hold 0. */
typedef struct wzMatrix32 {
    uint32_t data;   /**< 0 */
    uint32_t rowPtr; /**< 0 */
    int32_t nRows;   /**< number of rows */
    int32_t nCols;   /**< number of columns */
} wzMatrix32;

/* ------------------------------------------------------------------------ */
/** @name Record, views and layout conversion
 *  @{ */

/** New record without elements: data null and a zero-filled table of nRows
 *  row pointers, sizes set.
 *
 *  Attach a block with wzMatrixAssignData or wzImageSetMatrixWrap; release
 *  with wzMatrixReleaseHeader.
 *  Choices of this library: a negative nRows yields null; nRows 0 yields a
 *  record (its row-pointer table holds no usable entry).
 *  @param nRows number of rows.
 *  @param nCols number of columns.
 *  @return the new header; null when an allocation fails (nothing is
 *          leaked). */
MORVEN_API wzMatrix *wzMatrixCreateHeader(int32_t nRows, int32_t nCols);

/** Sets data to block and rowPtr[i] to block + i * nCols for every row.
 *
 *  Nothing is copied or freed (an earlier block is not released). With
 *  nRows < 1 only data changes. Choice of this library: a null block gives
 *  null row pointers.
 *  @param m the matrix (normally a header).
 *  @param block nRows * nCols doubles the caller keeps. */
MORVEN_API void wzMatrixAssignData(wzMatrix *m, double *block);

/** New nRows x nCols matrix owning a zero-filled block (all elements 0.0),
 *  row pointers set; release with wzMatrixRelease.
 *
 *  The element count is the 32-bit signed product nRows * nCols: a negative
 *  product yields null.
 *  Choices of this library: a negative nRows or nCols, or a product that does
 *  not fit in 32 bits, yields null before anything is allocated (a wrapped
 *  product never allocates a too-small block). A zero nRows or nCols yields a
 *  matrix with no elements whatever the allocator does with zero-sized
 *  requests: data is a valid pointer that must never be dereferenced, and no
 *  element is touched.
 *  @param nRows number of rows.
 *  @param nCols number of columns.
 *  @return the new matrix; null when an allocation fails, after freeing what
 *          was allocated (and in the cases above). */
MORVEN_API wzMatrix *wzMatrixCreate(int32_t nRows, int32_t nCols);

/** New n x n identity matrix (1.0 on the diagonal, 0.0 elsewhere).
 *  @param n the order.
 *  @return the new matrix, or null as for wzMatrixCreate(n, n). */
MORVEN_API wzMatrix *wzMatrixCreateIdentity(int32_t n);

/** Frees the row-pointer table and the record and sets `*m` to null; the
 *  element block is not touched. Nothing for a null `*m`.
 *  @param[in,out] m holder of the header. */
MORVEN_API void wzMatrixReleaseHeader(wzMatrix **m);

/** Frees the row-pointer table, the element block and the record, in that
 *  order, and sets `*m` to null. Nothing for a null `*m`.
 *  @param[in,out] m holder of the matrix. */
MORVEN_API void wzMatrixRelease(wzMatrix **m);

/** Makes the existing header image a view of the matrix's elements.
 *
 *  The image gets type wzType64F, encoding wzEncodingGray, height nRows,
 *  width nCols, roi the whole image, data the matrix's data; coi is left as
 *  it was. Nothing is allocated or copied; release the image with
 *  wzImageReleaseHeader and do not let it outlive the matrix.
 *  @param m the matrix viewed.
 *  @param[out] image the header made a view. */
MORVEN_API void wzMatrixSetImageWrap(const wzMatrix *m, wzImage *image);

/** Makes the matrix a view of the image's block.
 *
 *  nRows = height, nCols = width, data = the image's data (taken as doubles),
 *  row pointers rebuilt. The image's type, encoding and roi are not looked
 *  at: give a one-channel wzType64F image. A null image block gives null row
 *  pointers.
 *  @param image the image viewed.
 *  @param[out] m the matrix made a view; its row-pointer table must have room
 *              for height rows (a header made by wzMatrixCreateHeader with at
 *              least that many). */
MORVEN_API void wzImageSetMatrixWrap(const wzImage *image, wzMatrix *m);

/** Writes both pointer slots of out as 0 and copies nRows and nCols.
 *  @param m the matrix.
 *  @param[out] out the 32-bit record. */
MORVEN_API void wzMatrixCvtTo32(const wzMatrix *m, wzMatrix32 *out);

/** Sets out's data and rowPtr to null and copies nRows and nCols: a size-only
 *  record whose storage the caller attaches separately.
 *  @param in the 32-bit record.
 *  @param[out] out the matrix record. */
MORVEN_API void wzMatrixCvtFrom32(const wzMatrix32 *in, wzMatrix *out);

/** @} */

/* ------------------------------------------------------------------------ */
/** @name Arithmetic
 *  Results go into matrices that the caller created with the right shape;
 *  nothing is allocated. Shapes are checked first and nothing is written on a
 *  mismatch. Elements are read and written through rowPtr (the pointwise
 *  product walks the contiguous blocks). Every sum runs in ascending index
 *  order from 0.0, with separate multiplications and additions.
 *  @{ */

/** dst = a * b: dst(i, j) = sum over k ascending of a(i, k) * b(k, j).
 *
 *  Requires dst rows = a rows, dst cols = b cols, a cols = b rows. An inner
 *  size of 0 clears dst. dst must not share storage with a or b.
 *  @param[out] dst the product.
 *  @param a left factor.
 *  @param b right factor.
 *  @return 0 (at once when dst has no element); 0xFFFFFFFF when the shapes
 *          do not fit. */
MORVEN_API wzStatus wzMatrixProduct(wzMatrix *dst, const wzMatrix *a, const wzMatrix *b);

/** The same operation, checks and results as wzMatrixProduct, under a second
 *  name; it runs on the calling thread.
 *  @param[out] dst the product.
 *  @param a left factor.
 *  @param b right factor.
 *  @return as wzMatrixProduct. */
MORVEN_API wzStatus wzMatrixProduct_MP(wzMatrix *dst, const wzMatrix *a, const wzMatrix *b);

/** dst(i, j) = src(j, i).
 *
 *  Requires dst cols = src rows and dst rows = src cols. dst must not share
 *  storage with src.
 *  @param[out] dst the transpose.
 *  @param src the matrix.
 *  @return 0; 0xFFFFFFFF when the shapes do not fit. */
MORVEN_API wzStatus wzMatrixTranspose(wzMatrix *dst, const wzMatrix *src);

/** dst(i, j) = a(i, j) * b(i, j) over the contiguous blocks.
 *
 *  Choice of this library: the element count is formed in 64 bits, so a
 *  header over more than 2^31 elements is processed whole.
 *  @param[out] dst the product; may be a or b.
 *  @param a first factor.
 *  @param b second factor.
 *  @return 0; 1 (not 0xFFFFFFFF) unless all three have equal rows and equal
 *          cols. */
MORVEN_API wzStatus wzMatrixPointwiseProduct(wzMatrix *dst, const wzMatrix *a, const wzMatrix *b);

/** Divides src by its row norms (byColumns 0) or column norms (byColumns not
 *  0) into dst.
 *
 *  norm = sqrt(sum of squares, ascending). A row (column) whose norm is 0.0
 *  is left untouched in dst; a NaN norm divides. Source first, then
 *  destination. Equal shapes required.
 *  @param src the matrix.
 *  @param[out] dst the result; may be src.
 *  @param byColumns 0 for row norms, any other value for column norms.
 *  @return 0; 0xFFFFFFFF when the shapes differ. */
MORVEN_API wzStatus wzMatrixNormalize(const wzMatrix *src, wzMatrix *dst, int32_t byColumns);

/** dst(i, j) = src(i, j) * s. Equal shapes required.
 *  @param[out] dst the result; may be src.
 *  @param src the matrix.
 *  @param s the scalar.
 *  @return 0; 0xFFFFFFFF when the shapes differ. */
MORVEN_API wzStatus wzMatrixScalarProduct(wzMatrix *dst, const wzMatrix *src, double s);

/** dst(i, j) = a(i, j) + b(i, j). Equal shapes required. (There is no
 *  subtraction: add a matrix scaled by -1.)
 *  @param[out] dst the sum; may be a or b.
 *  @param a first term.
 *  @param b second term.
 *  @return 0; 0xFFFFFFFF when the shapes differ. */
MORVEN_API wzStatus wzMatrixAddition(wzMatrix *dst, const wzMatrix *a, const wzMatrix *b);

/** @} */

/* ------------------------------------------------------------------------ */
/** @name Decompositions and solvers
 *  n is the order of the square matrix; right-hand sides and solutions are
 *  n x k, one system per column. Sums run in ascending order from 0.0.
 *  Statuses: 0 success; 1 shape mismatch, singular matrix or failed
 *  allocation (QR: 0xFFFFFFFF for a mismatch). Divisions are not guarded:
 *  zero diagonals or norms give infinities or NaNs with status 0.
 *  A triangular solve takes diag: 0.0 divides row i by the matrix's own
 *  (i, i); any other value divides by diag and the diagonal is not read.
 *  @{ */

/** Classical Gram-Schmidt QR decomposition.
 *
 *  A, Q and R are all n x n (n = A's column count). Column j of Q is column
 *  j of A minus its projections on the earlier columns of Q (coefficients
 *  taken against A's column), divided by its norm; then R = Q^T * A in full
 *  (the part below the diagonal is computed, not cleared). A rank-deficient
 *  A gives non-finite values with status 0. Q and R must not share storage
 *  with A or with each other (R serves as scratch before it receives
 *  Q^T * A).
 *  @param A the matrix.
 *  @param[out] Q the orthonormal factor.
 *  @param[out] R Q^T * A.
 *  @return 0 (also for n 0); 0xFFFFFFFF when the shapes do not fit. */
MORVEN_API wzStatus wzMatrixQRDecomposition(const wzMatrix *A, wzMatrix *Q, wzMatrix *R);

/** Doolittle LU with partial pivoting, P * A = L * U, the same row
 *  interchanges applied to every column of B.
 *
 *  A, L and U are n x n (n = A's column count) and B has n rows (any column
 *  count). The pivot is the first row holding the largest |U(i, k)|.
 *  When L and U are the same record it receives the compact form: the
 *  multipliers strictly below the diagonal, U on and above it. Otherwise L
 *  gets the unit lower factor and U the zero-cleared upper one. The
 *  permutation is visible only in B.
 *  @param A the matrix.
 *  @param[out] L the unit lower factor, or the compact form when L is U.
 *  @param[out] U the upper factor.
 *  @param[in,out] B the right-hand sides, rows interchanged.
 *  @return 0; 1 when the shapes do not fit; 1 (singular) when a largest
 *          pivot value is exactly 0.0, leaving L, U and B as far as they had
 *          got. */
MORVEN_API wzStatus wzMatrixLUDecomposition(const wzMatrix *A, wzMatrix *L, wzMatrix *U,
                                            wzMatrix *B);

/** Solves L * X = B by forward substitution, reading only the lower triangle
 *  of L (and its diagonal only when diag is 0.0).
 *
 *  L is square (n = its row count), B and X have n rows, X has B's column
 *  count.
 *  Choice of this library: a system of order 0 (with any column count)
 *  reads and writes nothing and returns 0.
 *  @param L the lower triangular matrix.
 *  @param B the right-hand sides.
 *  @param[out] X the solutions; may be B.
 *  @param diag 0.0 to divide by L's diagonal, else the value divided by.
 *  @return 0 (also when there is no column); 1 when the shapes do not fit. */
MORVEN_API wzStatus wzMatrixForwardSubstitution(const wzMatrix *L, const wzMatrix *B, wzMatrix *X,
                                                double diag);

/** Solves U * X = B by backward substitution (rows from n - 1 down, each sum
 *  in ascending column order), reading only the upper triangle of U (and its
 *  diagonal only when diag is 0.0).
 *
 *  Checks, statuses and aliasing as wzMatrixForwardSubstitution, including
 *  the order-0 choice.
 *  @param U the upper triangular matrix.
 *  @param B the right-hand sides.
 *  @param[out] X the solutions; may be B.
 *  @param diag 0.0 to divide by U's diagonal, else the value divided by.
 *  @return as wzMatrixForwardSubstitution. */
MORVEN_API wzStatus wzMatrixBackwardSubstitution(const wzMatrix *U, const wzMatrix *B, wzMatrix *X,
                                                 double diag);

/** Solves A * X = B.
 *
 *  B is copied into X, A is factorised in compact form into work with the
 *  row interchanges applied to X, then forward (unit diagonal) and backward
 *  substitution run in place in X.
 *  @param A the square matrix.
 *  @param[out] X the solutions, of B's shape.
 *  @param B the right-hand sides.
 *  @param work null, or an n x n matrix that keeps the compact
 *         factorisation; when null, an A-shaped matrix is created and
 *         released on every path.
 *  @return 0; 1 when X does not have B's shape, when work is null and cannot
 *          be created, or for a singular A or a mismatch found by the
 *          factorisation (possibly after X was written). */
MORVEN_API wzStatus wzMatrixSolveLinearSystem(const wzMatrix *A, wzMatrix *X, const wzMatrix *B,
                                              wzMatrix *work);

/** Least squares through the normal equations (A^T A) X = A^T B for an
 *  m x n A and an m x k B.
 *
 *  Work matrices may be null (created here and released on every path).
 *  Choices of this library: an A with fewer rows than columns (m < n) is
 *  rejected with 1 before anything is created or written, and so is a
 *  caller's work1 whose block holds fewer than n * m doubles or fewer than
 *  work2's element count; any failed creation returns 1 after releasing
 *  what was created.
 *  @param A the m x n matrix.
 *  @param[out] X the n x k solution.
 *  @param B the m x k right-hand sides.
 *  @param work1 m x n scratch (A^T, then the compact factorisation), or null.
 *  @param work2 n x n, receives A^T A, or null.
 *  @param work3 n x k, receives A^T B, or null.
 *  @return 0; 1 for a shape that does not fit (reported by the solve) and in
 *          the cases above. */
MORVEN_API wzStatus wzMatrixLinearSystemLeastSquares(const wzMatrix *A, wzMatrix *X,
                                                     const wzMatrix *B, wzMatrix *work1,
                                                     wzMatrix *work2, wzMatrix *work3);

/** @} */

/* ------------------------------------------------------------------------ */
/** @name Singular value decomposition and pseudo-inverse
 *  Index-offset arrays of doubles: a vector with bounds nl..nh is valid from
 *  v[nl] to v[nh] (one block that also holds v[nl - 1]); a matrix with bounds
 *  nrl..nrh, ncl..nch is valid from m[nrl][ncl] to m[nrh][nch] (a row table
 *  and one contiguous element block, rows nch - ncl + 1 apart). These helpers
 *  and svdcmp carry no name prefix.
 *  @{ */

/** New offset vector v[nl..nh].
 *
 *  Choice of this library: bounds with no element (nh < nl) or a size that
 *  does not fit in memory yield null.
 *  @param nl lowest index.
 *  @param nh highest index.
 *  @return the vector (free it with free_vector), or null when the
 *          allocation fails. */
MORVEN_API double *vector(int64_t nl, int64_t nh);

/** Frees a vector made by vector(nl, nh) (only nl is used). Nothing for a
 *  null v.
 *  @param v the vector.
 *  @param nl its lowest index.
 *  @param nh its highest index (not used). */
MORVEN_API void free_vector(double *v, int64_t nl, int64_t nh);

/** New offset matrix m[nrl..nrh][ncl..nch].
 *
 *  Choice of this library: bounds with no row or no column, or sizes that do
 *  not fit in memory, yield null.
 *  @param nrl lowest row index.
 *  @param nrh highest row index.
 *  @param ncl lowest column index.
 *  @param nch highest column index.
 *  @return the matrix (free it with free_matrix), or null when an allocation
 *          fails (nothing is leaked). */
MORVEN_API double **matrix(int64_t nrl, int64_t nrh, int64_t ncl, int64_t nch);

/** Frees the element block, then the row table, of a matrix made by matrix()
 *  with the same bounds (only nrl and ncl are used). Nothing for a null m.
 *  @param m the matrix.
 *  @param nrl its lowest row index.
 *  @param nrh its highest row index (not used).
 *  @param ncl its lowest column index.
 *  @param nch its highest column index (not used). */
MORVEN_API void free_matrix(double **m, int64_t nrl, int64_t nrh, int64_t ncl, int64_t nch);

/** Golub-Reinsch singular value decomposition A = U * diag(w) * V^T of the
 *  m x n matrix in a, in double precision.
 *
 *  a and v are row tables addressed from 1 (a[1..m], v[1..n]) whose rows are
 *  addressed from 0 (columns 0..n-1); w is addressed from 1 (w[1..n]). On
 *  return a holds U (m x n, orthonormal columns), w the singular values, all
 *  non-negative, and v the n x n matrix V (not transposed). The singular
 *  values are not sorted: the columns of U and V follow their order.
 *  Householder bidiagonalisation, accumulation of both transformations, then
 *  implicit-shift QR sweeps with exact-equality split tests against the norm
 *  estimate. Prints nothing. For speed the sweeps work on transposed copies
 *  of U and V (m * n + n * n doubles) when those can be allocated, and in
 *  place otherwise, with identical results.
 *  Choices of this library: the split search never goes below row 1, so a
 *  matrix with NaN or infinite elements cannot make the routine read or
 *  write outside the arrays (it then typically returns 1). m < n is
 *  supported.
 *  @param[in,out] a the matrix A, rows a[1..m]; receives U.
 *  @param m number of rows.
 *  @param n number of columns.
 *  @param[out] w the singular values, w[1..n].
 *  @param[out] v the matrix V, rows v[1..n].
 *  @return 0, or 1 when the work vector cannot be allocated or a singular
 *          value has not converged after 29 sweeps (a, w and v are then left
 *          in their partial state). Choices of this library: m or n negative
 *          returns 1 before anything is touched, n 0 returns 0. */
MORVEN_API int32_t svdcmp(double **a, int32_t m, int32_t n, double *w, double **v);

/** Singular value decomposition of a wzMatrix.
 *
 *  Copies U rows * U cols elements of A into U and runs svdcmp on U (m x n,
 *  receives U), W (at least n elements, receives the singular values in
 *  elements 0..n-1) and V (n x n, receives V). No shape is checked: U must
 *  have A's shape.
 *  @param A the m x n matrix.
 *  @param[out] U receives U.
 *  @param[out] W receives the singular values.
 *  @param[out] V receives V.
 *  @return svdcmp's status. */
MORVEN_API int32_t wzMatrixSVDDecomposition(const wzMatrix *A, wzMatrix *U, wzMatrix *W,
                                            wzMatrix *V);

/** Moore-Penrose pseudo-inverse of the m x n matrix A into the n x m matrix
 *  P: V * diag(1 / w) * U^T where every singular value that is not exactly
 *  0.0 is inverted (no tolerance: tiny values are inverted too).
 *
 *  A non-square A is zero-padded to s x s, s = max(m, n), and P receives the
 *  top-left corner of the padded result. A square A with a P of another
 *  shape leaves P unwritten.
 *  The zero columns padded to a tall A give singular values of exactly 0;
 *  the zero rows padded to a wide A (m < n) can leave tiny non-zero ones,
 *  which are inverted: for such input, transposing the pseudo-inverse of A^T
 *  is the safer route.
 *  Choice of this library: for a non-square A, rows and columns of P beyond
 *  s are left unwritten (only the existing corner is copied).
 *  @param A the m x n matrix.
 *  @param[out] P the n x m pseudo-inverse.
 *  @return 0, or 1 when a temporary matrix cannot be created or the
 *          decomposition fails (every temporary is released). */
MORVEN_API wzStatus wzMatrixPseudoInverse(const wzMatrix *A, wzMatrix *P);

/** @} */

/* ------------------------------------------------------------------------ */
/** @name Dump files
 *  A 16-byte little-endian header (two zero pointer slots, nRows, nCols: the
 *  wzMatrix32 layout) and the nRows * nCols doubles in row order. No magic
 *  number, version or checksum. The stream is opened, positioned and closed
 *  by the caller; dumps may follow one another.
 *  @{ */

/** Writes one dump of the matrix from its contiguous block.
 *
 *  A matrix with no element writes the header and returns 0xFFFFFFFF (an
 *  empty item counts as not written).
 *  Choice of this library: negative sizes count as no element.
 *  @param m the matrix.
 *  @param stream the stream written to.
 *  @return 0, or 0xFFFFFFFF when a write is short (and for a matrix with no
 *          element). */
MORVEN_API wzStatus wzMatrixDumpSave(const wzMatrix *m, FILE *stream);

/** Reads one dump into a new matrix owning its block (release it with
 *  wzMatrixRelease).
 *
 *  Choice of this library: a header with a negative size, or whose element
 *  count exceeds 2^31 - 1 (the largest wzMatrixCreate accepts), is refused
 *  before any element block is allocated; sizes are computed in 64 bits.
 *  A block above 16 MiB is read in pieces into a block that doubles as they
 *  arrive, so a header that claims more than the stream holds costs at most
 *  16 MiB or about twice what was read. The stream is left just after the
 *  dump on success, wherever the failed read left it otherwise.
 *  @param stream the stream read from.
 *  @return the new matrix; null, with nothing leaked, on a short header or
 *          block, a dump with no element, or a failed allocation. */
MORVEN_API wzMatrix *wzMatrixDumpLoad(FILE *stream);

/** @} */

MORVEN_EXTERN_C_END

/** @} */

#endif /* MORVEN_MATRIX_H */
