// The loops of the matrix family: the register-blocked product and the
// loops of the singular value decomposition. Each is written once and
// compiled twice: for the 128-bit vectors every processor has (SSE2 on
// x86-64, Advanced SIMD on ARM64) and, on x86-64, for 256-bit AVX2
// registers. Only element-wise loops and sums in the plain order: no fused
// multiply-add (the library is built without contraction) and no
// reassociated sum, so both forms give identical bits.
#include <algorithm>
#include <cstring>

#include "kernels/variants.hpp"
#include "kernels/x86.hpp"

#define MORVEN_INLINE inline __attribute__((always_inline))

namespace morven::kernels {
namespace {

// ---------------------------------------------------------------------------
// Product: a tile of dst rows x columns is kept in vector registers while the
// inner index runs upwards over a packed panel of b. Every element is still
// one running sum from 0.0 over the inner index in ascending order, of
// separate products: bit for bit the plain triple loop.

typedef double V2 __attribute__((vector_size(16)));
typedef double V4 __attribute__((vector_size(32)));

template <typename V>
MORVEN_INLINE void loadV(V &v, const double *p) {
    std::memcpy(&v, p, sizeof v);
}

template <typename V>
MORVEN_INLINE void storeV(double *p, const V &v) {
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
MORVEN_INLINE void tile(const double *const *arows, int i0, int k0, int kc, const double *pack,
                        double *const *drows, int j0, int valid, bool first) {
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
            // cppcheck-suppress [nullPointer, uninitvar] ; arow is set when TA, ap when not
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

// Columns j0 .. j0 + NR - 1 of b, rows k0 .. k0 + kc - 1, packed and padded.
template <int NR>
MORVEN_INLINE void packPanel(double *pack, const wzMatrix &b, int k0, int kc, int j0, int valid) {
    for (int k = 0; k < kc; ++k) {
        double *p = pack + k * NR;
        std::memcpy(p, b.rowPtr[k0 + k] + j0, sizeof(double) * valid);
        for (int j = valid; j < NR; ++j) p[j] = 0.0;
    }
}

template <typename V, int NV, bool TA>
MORVEN_INLINE void productBlocked(wzMatrix &dst, const wzMatrix &a, const wzMatrix &b) {
    constexpr int NR = static_cast<int>(sizeof(V) / sizeof(double)) * NV;
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
                packPanel<NR>(pack, b, k0, kc, j0, valid);
                int i0 = ib;
                for (; i0 + MR <= ie; i0 += MR)
                    tile<V, MR, NV, TA>(a.rowPtr, i0, k0, kc, pack, dst.rowPtr, j0, valid, first);
                switch (ie - i0) {
                    case 3:
                        tile<V, 3, NV, TA>(a.rowPtr, i0, k0, kc, pack, dst.rowPtr, j0, valid,
                                           first);
                        break;
                    case 2:
                        tile<V, 2, NV, TA>(a.rowPtr, i0, k0, kc, pack, dst.rowPtr, j0, valid,
                                           first);
                        break;
                    case 1:
                        tile<V, 1, NV, TA>(a.rowPtr, i0, k0, kc, pack, dst.rowPtr, j0, valid,
                                           first);
                        break;
                    default: break;
                }
            }
        }
    }
}

// ---------------------------------------------------------------------------
// The loops of the singular value decomposition (see SvdKernels).

template <typename Weight>
MORVEN_INLINE void dots(double *t, double *const *X, Weight weight, int32_t k0, int32_t k1,
                        int32_t l, int32_t n) {
    const int32_t w = n - l;
    std::fill_n(t, w, 0.0);
    for (int32_t k = k0; k < k1; ++k) {
        const double x = weight(k);
        const double *row = X[k] + l;
        for (int32_t j = 0; j < w; ++j) t[j] += x * row[j];
    }
}

MORVEN_INLINE void columnDotsBody(double *t, double *const *X, int32_t c, int32_t k0, int32_t k1,
                                  int32_t l, int32_t n) {
    dots(
        t, X, [X, c](int32_t k) { return X[k][c]; }, k0, k1, l, n);
}

MORVEN_INLINE void vectorDotsBody(double *t, double *const *X, const double *x, int32_t k0,
                                  int32_t k1, int32_t l, int32_t n) {
    dots(
        t, X, [x](int32_t k) { return x[k]; }, k0, k1, l, n);
}

MORVEN_INLINE void columnUpdatesBody(double *const *X, const double *t, int32_t c, int32_t k0,
                                     int32_t k1, int32_t l, int32_t n) {
    const int32_t w = n - l;
    for (int32_t k = k0; k < k1; ++k) {
        const double x = X[k][c];
        double *row = X[k] + l;
        for (int32_t j = 0; j < w; ++j) row[j] += t[j] * x;
    }
}

// Four rows at a time so that their independent sums overlap.
MORVEN_INLINE void reflectRowsBody(double *const *A, int32_t j0, int32_t m, const double *ri,
                                   const double *u, int32_t l, int32_t n) {
    int32_t j = j0;
    for (; j + 4 <= m; j += 4) {
        double *r0 = A[j], *r1 = A[j + 1], *r2 = A[j + 2], *r3 = A[j + 3];
        double s0 = 0.0, s1 = 0.0, s2 = 0.0, s3 = 0.0;
        for (int32_t k = l; k < n; ++k) {
            const double x = ri[k];
            s0 += r0[k] * x;
            s1 += r1[k] * x;
            s2 += r2[k] * x;
            s3 += r3[k] * x;
        }
        for (int32_t k = l; k < n; ++k) {
            r0[k] += s0 * u[k];
            r1[k] += s1 * u[k];
            r2[k] += s2 * u[k];
            r3[k] += s3 * u[k];
        }
    }
    for (; j < m; ++j) {
        double *r = A[j];
        double s = 0.0;
        for (int32_t k = l; k < n; ++k) s += r[k] * ri[k];
        for (int32_t k = l; k < n; ++k) r[k] += s * u[k];
    }
}

MORVEN_INLINE void rotateBody(double *__restrict x, double *__restrict z, int32_t len, double c,
                              double s) {
    for (int32_t r = 0; r < len; ++r) {
        const double y = x[r], w = z[r];
        x[r] = y * c + w * s;
        z[r] = w * c - y * s;
    }
}

}  // namespace

// ---------------------------------------------------------------------------
// The plain forms.

void columnDotsPlain(double *t, double *const *X, int32_t c, int32_t k0, int32_t k1, int32_t l,
                     int32_t n) {
    columnDotsBody(t, X, c, k0, k1, l, n);
}
void vectorDotsPlain(double *t, double *const *X, const double *x, int32_t k0, int32_t k1,
                     int32_t l, int32_t n) {
    vectorDotsBody(t, X, x, k0, k1, l, n);
}
void columnUpdatesPlain(double *const *X, const double *t, int32_t c, int32_t k0, int32_t k1,
                        int32_t l, int32_t n) {
    columnUpdatesBody(X, t, c, k0, k1, l, n);
}
void reflectRowsPlain(double *const *A, int32_t j0, int32_t m, const double *ri, const double *u,
                      int32_t l, int32_t n) {
    reflectRowsBody(A, j0, m, ri, u, l, n);
}
void rotatePlain(double *x, double *z, int32_t len, double c, double s) {
    rotateBody(x, z, len, c, s);
}

// ---------------------------------------------------------------------------
// The AVX2 forms: the same code on 256-bit vectors.

#if MORVEN_X86
MORVEN_AVX2 void columnDotsAvx2(double *t, double *const *X, int32_t c, int32_t k0, int32_t k1,
                                int32_t l, int32_t n) {
    columnDotsBody(t, X, c, k0, k1, l, n);
}
MORVEN_AVX2 void vectorDotsAvx2(double *t, double *const *X, const double *x, int32_t k0,
                                int32_t k1, int32_t l, int32_t n) {
    vectorDotsBody(t, X, x, k0, k1, l, n);
}
MORVEN_AVX2 void columnUpdatesAvx2(double *const *X, const double *t, int32_t c, int32_t k0,
                                   int32_t k1, int32_t l, int32_t n) {
    columnUpdatesBody(X, t, c, k0, k1, l, n);
}
MORVEN_AVX2 void reflectRowsAvx2(double *const *A, int32_t j0, int32_t m, const double *ri,
                                 const double *u, int32_t l, int32_t n) {
    reflectRowsBody(A, j0, m, ri, u, l, n);
}
MORVEN_AVX2 void rotateAvx2(double *x, double *z, int32_t len, double c, double s) {
    rotateBody(x, z, len, c, s);
}
#endif

void productPlain(wzMatrix &dst, const wzMatrix &a, const wzMatrix &b, bool transposeA) {
    if (transposeA)
        productBlocked<V2, 2, true>(dst, a, b);
    else
        productBlocked<V2, 2, false>(dst, a, b);
}

#if MORVEN_X86
MORVEN_AVX2 void productAvx2(wzMatrix &dst, const wzMatrix &a, const wzMatrix &b, bool transposeA) {
    if (transposeA)
        productBlocked<V4, 2, true>(dst, a, b);
    else
        productBlocked<V4, 2, false>(dst, a, b);
}
#endif

}  // namespace morven::kernels
