// Matrix arithmetic: product, transpose, element-wise product, row or column
// normalisation, scaling and addition. Results go into caller-made matrices;
// shapes are checked before anything is written.
//
// The product is a kernel (kernels/matrix.cpp): each element one running sum
// from 0.0 over the inner index in ascending order, of separate products,
// bit for bit the plain triple loop.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "kernels/kernels.hpp"
#include "matrix/matrix_internal.hpp"

using namespace morven;

namespace {

void clearRows(wzMatrix &m) {
    for (int32_t i = 0; i < m.nRows; ++i) std::fill_n(m.rowPtr[i], m.nCols, 0.0);
}

// Columns normalised per block of this many, with their sums on the stack.
constexpr int kColumnBlock = 256;

}  // namespace

extern "C" {

MORVEN_API wzStatus wzMatrixProduct(wzMatrix *dst, const wzMatrix *a, const wzMatrix *b) {
    if (dst->nRows != a->nRows || dst->nCols != b->nCols || a->nCols != b->nRows)
        return WZ_STATUS_FAILURE;
    if (dst->nRows < 1 || dst->nCols < 1) return WZ_STATUS_OK;
    if (a->nCols < 1) {
        clearRows(*dst);
        return WZ_STATUS_OK;
    }
    bestKernels().product(*dst, *a, *b, false);
    return WZ_STATUS_OK;
}

MORVEN_API wzStatus wzMatrixProduct_MP(wzMatrix *dst, const wzMatrix *a, const wzMatrix *b) {
    return wzMatrixProduct(dst, a, b);
}

MORVEN_API wzStatus wzMatrixTranspose(wzMatrix *dst, const wzMatrix *src) {
    if (dst->nCols != src->nRows || dst->nRows != src->nCols) return WZ_STATUS_FAILURE;
    if (dst->nRows < 1 || dst->nCols < 1) return WZ_STATUS_OK;
    // Bands of eight source rows: each destination row receives eight
    // consecutive elements per band while the source rows stream forward.
    constexpr int kBand = 8;
    const int32_t rows = src->nRows, cols = src->nCols;
    for (int32_t i0 = 0; i0 < rows; i0 += kBand) {
        const int32_t band = std::min<int32_t>(kBand, rows - i0);
        const double *s[kBand];
        for (int32_t r = 0; r < band; ++r) s[r] = src->rowPtr[i0 + r];
        if (band == kBand) {
            for (int32_t j = 0; j < cols; ++j) {
                double *d = dst->rowPtr[j] + i0;
                for (int r = 0; r < kBand; ++r) d[r] = s[r][j];
            }
        } else {
            for (int32_t j = 0; j < cols; ++j) {
                double *d = dst->rowPtr[j] + i0;
                for (int32_t r = 0; r < band; ++r) d[r] = s[r][j];
            }
        }
    }
    return WZ_STATUS_OK;
}

MORVEN_API wzStatus wzMatrixPointwiseProduct(wzMatrix *dst, const wzMatrix *a, const wzMatrix *b) {
    if (!sameShape(*dst, *a) || !sameShape(*dst, *b)) return WZ_STATUS_ERROR;
    const int64_t n = matrixElements(dst->nRows, dst->nCols);
    double *d = dst->data;
    const double *x = a->data, *y = b->data;
    for (int64_t k = 0; k < n; ++k) d[k] = x[k] * y[k];
    return WZ_STATUS_OK;
}

MORVEN_API wzStatus wzMatrixNormalize(const wzMatrix *src, wzMatrix *dst, int32_t byColumns) {
    if (!sameShape(*src, *dst)) return WZ_STATUS_FAILURE;
    const int32_t rows = src->nRows, cols = src->nCols;
    if (rows < 1 || cols < 1) return WZ_STATUS_OK;
    if (!byColumns) {
        for (int32_t i = 0; i < rows; ++i) {
            const double *s = src->rowPtr[i];
            double sum = 0.0;
            for (int32_t j = 0; j < cols; ++j) sum += s[j] * s[j];
            const double norm = std::sqrt(sum);
            if (norm == 0.0) continue;  // a NaN norm divides
            double *d = dst->rowPtr[i];
            for (int32_t j = 0; j < cols; ++j) d[j] = s[j] / norm;
        }
        return WZ_STATUS_OK;
    }
    // Column sums accumulate row by row (each column still in ascending row
    // order) so that the inner loops run along rows.
    double norm[kColumnBlock];
    for (int32_t j0 = 0; j0 < cols; j0 += kColumnBlock) {
        const int32_t w = std::min<int32_t>(kColumnBlock, cols - j0);
        std::fill_n(norm, w, 0.0);
        for (int32_t i = 0; i < rows; ++i) {
            const double *s = src->rowPtr[i] + j0;
            for (int32_t j = 0; j < w; ++j) norm[j] += s[j] * s[j];
        }
        for (int32_t j = 0; j < w; ++j) norm[j] = std::sqrt(norm[j]);
        for (int32_t i = 0; i < rows; ++i) {
            const double *s = src->rowPtr[i] + j0;
            double *d = dst->rowPtr[i] + j0;
            for (int32_t j = 0; j < w; ++j)
                if (norm[j] != 0.0) d[j] = s[j] / norm[j];
        }
    }
    return WZ_STATUS_OK;
}

MORVEN_API wzStatus wzMatrixScalarProduct(wzMatrix *dst, const wzMatrix *src, double s) {
    if (!sameShape(*dst, *src)) return WZ_STATUS_FAILURE;
    if (dst->nRows < 1 || dst->nCols < 1) return WZ_STATUS_OK;
    for (int32_t i = 0; i < dst->nRows; ++i) {
        double *d = dst->rowPtr[i];
        const double *x = src->rowPtr[i];
        for (int32_t j = 0; j < dst->nCols; ++j) d[j] = x[j] * s;
    }
    return WZ_STATUS_OK;
}

MORVEN_API wzStatus wzMatrixAddition(wzMatrix *dst, const wzMatrix *a, const wzMatrix *b) {
    if (!sameShape(*dst, *a) || !sameShape(*dst, *b)) return WZ_STATUS_FAILURE;
    if (dst->nRows < 1 || dst->nCols < 1) return WZ_STATUS_OK;
    for (int32_t i = 0; i < dst->nRows; ++i) {
        double *d = dst->rowPtr[i];
        const double *x = a->rowPtr[i], *y = b->rowPtr[i];
        for (int32_t j = 0; j < dst->nCols; ++j) d[j] = x[j] + y[j];
    }
    return WZ_STATUS_OK;
}

}  // extern "C"
