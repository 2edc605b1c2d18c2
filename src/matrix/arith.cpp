// Matrix arithmetic: product, transpose, element-wise product, row or column
// normalisation, scaling and addition. Results go into caller-made matrices;
// shapes are checked before anything is written.
//
// The product is register-blocked: a tile of dst rows x columns is kept in
// vector registers while the inner index runs upwards over a packed panel of
// b. Every element is still one running sum from 0.0 over the inner index in
// ascending order, of separate products (the library is built without
// contraction), so the result is bit for bit that of the plain triple loop.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "matrix/matrix_internal.hpp"

using namespace morven;

namespace {

typedef double V2 __attribute__((vector_size(16)));
typedef double V4 __attribute__((vector_size(32)));

// Unaligned vector moves (by reference: no vector crosses a call boundary).
template <typename V>
MORVEN_ALWAYS_INLINE void loadV(V &v, const double *p) {
    std::memcpy(&v, p, sizeof v);
}

template <typename V>
MORVEN_ALWAYS_INLINE void storeV(double *p, const V &v) {
    std::memcpy(p, &v, sizeof v);
}

// Depth of one packed panel of b (rows of the inner index), and rows of a
// per cache block (a multiple of the tile height 4): 128 x 256 doubles.
constexpr int kDepth = 256;
constexpr int kRowBlock = 128;

// One MR x (NV vectors) tile of dst over kc inner steps starting at k0.
// The accumulators start from 0.0 on the first panel and from the partial
// sums stored in dst on later ones; storing and reloading a double changes
// nothing, so the running sum is the same as one uninterrupted loop.
// a(i, k) is arows[i][k], or arows[k][i] when TA (a transposed).
template <typename V, int MR, int NV, bool TA>
MORVEN_ALWAYS_INLINE void tile(const double *const *arows, int i0, int k0, int kc,
                               const double *pack, double *const *drows, int j0, int valid,
                               bool first) {
    constexpr int W = sizeof(V) / sizeof(double);
    constexpr int NR = W * NV;
    V acc[MR][NV];
    for (int r = 0; r < MR; ++r) {
        if (first) {
            for (int v = 0; v < NV; ++v) acc[r][v] = V{};
        } else {
            double t[NR] = {};
            std::memcpy(t, drows[i0 + r] + j0, sizeof(double) * valid);
            for (int v = 0; v < NV; ++v) loadV(acc[r][v], t + v * W);
        }
    }
    const double *ap[MR];
    if (!TA)
        for (int r = 0; r < MR; ++r) ap[r] = arows[i0 + r] + k0;
    for (int k = 0; k < kc; ++k) {
        V b[NV];
        for (int v = 0; v < NV; ++v) loadV(b[v], pack + k * NR + v * W);
        const double *arow = TA ? arows[k0 + k] + i0 : nullptr;
        for (int r = 0; r < MR; ++r) {
            const double x = TA ? arow[r] : ap[r][k];
            for (int v = 0; v < NV; ++v) acc[r][v] = acc[r][v] + x * b[v];
        }
    }
    for (int r = 0; r < MR; ++r) {
        double t[NR];
        for (int v = 0; v < NV; ++v) storeV(t + v * W, acc[r][v]);
        std::memcpy(drows[i0 + r] + j0, t, sizeof(double) * valid);
    }
}

template <typename V, int NV, bool TA>
MORVEN_ALWAYS_INLINE void productBlocked(wzMatrix &dst, const wzMatrix &a, const wzMatrix &b) {
    constexpr int W = sizeof(V) / sizeof(double);
    constexpr int NR = W * NV;
    constexpr int MR = 4;
    const int M = dst.nRows, N = dst.nCols, K = b.nRows;
    alignas(64) double pack[kDepth * NR];
    // Panels of the inner index outermost (each element's sum goes through
    // them in ascending order); within one, a block of kRowBlock rows of a
    // stays in the second-level cache while every column panel of b passes.
    for (int k0 = 0; k0 < K; k0 += kDepth) {
        const int kc = std::min(kDepth, K - k0);
        const bool first = k0 == 0;
        for (int ib = 0; ib < M; ib += kRowBlock) {
            const int ie = std::min(M, ib + kRowBlock);
            for (int j0 = 0; j0 < N; j0 += NR) {
                const int valid = std::min(NR, N - j0);
                for (int k = 0; k < kc; ++k) {
                    double *p = pack + k * NR;
                    std::memcpy(p, b.rowPtr[k0 + k] + j0, sizeof(double) * valid);
                    for (int j = valid; j < NR; ++j) p[j] = 0.0;
                }
                int i0 = ib;
                for (; i0 + MR <= ie; i0 += MR)
                    tile<V, MR, NV, TA>(a.rowPtr, i0, k0, kc, pack, dst.rowPtr, j0, valid, first);
                switch (ie - i0) {
                    case 3: tile<V, 3, NV, TA>(a.rowPtr, i0, k0, kc, pack, dst.rowPtr, j0, valid, first); break;
                    case 2: tile<V, 2, NV, TA>(a.rowPtr, i0, k0, kc, pack, dst.rowPtr, j0, valid, first); break;
                    case 1: tile<V, 1, NV, TA>(a.rowPtr, i0, k0, kc, pack, dst.rowPtr, j0, valid, first); break;
                    default: break;
                }
            }
        }
    }
}

template <bool TA>
void productBaseline(wzMatrix &dst, const wzMatrix &a, const wzMatrix &b) {
    productBlocked<V2, 2, TA>(dst, a, b);
}

#ifdef MORVEN_MATRIX_AVX2
// The same kernel on 256-bit registers, for processors that have them
// (multiplications and additions stay separate: no fused multiply-add).
template <bool TA>
__attribute__((target("avx2"))) void productAvx2(wzMatrix &dst, const wzMatrix &a,
                                                 const wzMatrix &b) {
    productBlocked<V4, 2, TA>(dst, a, b);
}
#endif

void clearRows(wzMatrix &m) {
    for (int32_t i = 0; i < m.nRows; ++i) std::fill_n(m.rowPtr[i], m.nCols, 0.0);
}

// Columns normalised per block of this many, with their sums on the stack.
constexpr int kColumnBlock = 256;

}  // namespace

namespace morven {

void productKernel(wzMatrix &dst, const wzMatrix &a, const wzMatrix &b, bool transposeA,
                   bool portable) noexcept {
#ifdef MORVEN_MATRIX_AVX2
    if (!portable && cpuHasAvx2()) {
        if (transposeA)
            productAvx2<true>(dst, a, b);
        else
            productAvx2<false>(dst, a, b);
        return;
    }
#else
    (void)portable;
#endif
    if (transposeA)
        productBaseline<true>(dst, a, b);
    else
        productBaseline<false>(dst, a, b);
}

}  // namespace morven

extern "C" {

MORVEN_API wzStatus wzMatrixProduct(wzMatrix *dst, const wzMatrix *a, const wzMatrix *b) {
    if (dst->nRows != a->nRows || dst->nCols != b->nCols || a->nCols != b->nRows)
        return WZ_STATUS_FAILURE;
    if (dst->nRows < 1 || dst->nCols < 1) return WZ_STATUS_OK;
    if (a->nCols < 1) {
        clearRows(*dst);
        return WZ_STATUS_OK;
    }
    productKernel(*dst, *a, *b, false);
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
