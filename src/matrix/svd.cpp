// Singular value decomposition (Golub-Reinsch) on index-offset arrays, and
// the helpers that create and release such arrays.
//
// svdcmp reduces A to bidiagonal form by Householder reflections applied
// alternately from the left (columns) and the right (rows), accumulates the
// right and then the left transformations into V and U, and diagonalises the
// bidiagonal matrix by implicitly shifted QR sweeps made of Givens rotations.
// Singular values that come out negative are negated together with their
// column of V; they are not sorted.
//
// The arithmetic of every element is fixed (operand order of each sum and
// product as listed in the comments). The loops are arranged for a row-major
// store: a sum over the rows of a column, needed for all later columns at
// once, is gathered row by row into a vector of partial sums, each still
// accumulated in ascending row order; the QR sweeps rotate columns of
// transposed copies of U and V, so that each rotation runs over contiguous
// memory. Neither arrangement changes a single result bit.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "common/memory.hpp"
#include "matrix/matrix_internal.hpp"

using namespace morven;

namespace {

// p + k elements, formed on addresses in wrapping arithmetic: offset arrays
// point outside their blocks deliberately, and k may be any 64-bit offset.
template <typename T>
T *offsetBy(T *p, uint64_t k) noexcept {
    return reinterpret_cast<T *>(reinterpret_cast<uintptr_t>(p) +
                                 static_cast<uintptr_t>(k * sizeof(T)));
}

// 1 - i and i - 1 without signed overflow.
uint64_t oneMinus(int64_t i) noexcept { return uint64_t{1} - static_cast<uint64_t>(i); }
uint64_t minusOne(int64_t i) noexcept { return static_cast<uint64_t>(i) - uint64_t{1}; }

// sqrt(a^2 + b^2) without destructive overflow or underflow: the larger
// magnitude times sqrt(1 + ratio^2); 0 when both are 0.
double pythag(double a, double b) noexcept {
    const double absa = std::fabs(a), absb = std::fabs(b);
    if (absa > absb) {
        const double r = absb / absa;
        return absa * std::sqrt(1.0 + (r == 0.0 ? 0.0 : r * r));
    }
    if (absb == 0.0) return 0.0;
    const double r = absa / absb;
    return absb * std::sqrt(1.0 + (r == 0.0 ? 0.0 : r * r));
}

// |a| with the sign of b (b = -0.0 counts as non-negative).
double withSignOf(double a, double b) noexcept { return b >= 0.0 ? std::fabs(a) : -std::fabs(a); }

// The columns of U or V as the QR sweeps see them: either in place in the
// caller's rows (strided), or as the rows of a transposed copy.
struct Columns {
    double **rows;     // in place: element (r, c) is rows[r][c]
    double *t;         // transposed copy: element (r, c) is t[c * len + r]
    int32_t len;       // number of rows

    // (p, q) <- (p * c + q * s, q * c - p * s), row by row.
    MORVEN_ALWAYS_INLINE void rotate(int32_t p, int32_t q, double c, double s) const noexcept {
        if (t) {
            double *__restrict x = t + static_cast<size_t>(p) * len;
            double *__restrict z = t + static_cast<size_t>(q) * len;
            for (int32_t r = 0; r < len; ++r) {
                const double y = x[r], w = z[r];
                x[r] = y * c + w * s;
                z[r] = w * c - y * s;
            }
        } else {
            for (int32_t r = 0; r < len; ++r) {
                double *row = rows[r];
                const double y = row[p], w = row[q];
                row[p] = y * c + w * s;
                row[q] = w * c - y * s;
            }
        }
    }

    MORVEN_ALWAYS_INLINE void negate(int32_t p) const noexcept {
        if (t) {
            double *x = t + static_cast<size_t>(p) * len;
            for (int32_t r = 0; r < len; ++r) x[r] = -x[r];
        } else {
            for (int32_t r = 0; r < len; ++r) rows[r][p] = -rows[r][p];
        }
    }

    // Between the caller's rows (cols columns) and the transposed copy.
    MORVEN_ALWAYS_INLINE void load(int32_t cols) const noexcept {
        if (!t) return;
        for (int32_t r = 0; r < len; ++r) {
            const double *row = rows[r];
            for (int32_t c = 0; c < cols; ++c) t[static_cast<size_t>(c) * len + r] = row[c];
        }
    }
    MORVEN_ALWAYS_INLINE void store(int32_t cols) const noexcept {
        if (!t) return;
        for (int32_t r = 0; r < len; ++r) {
            double *row = rows[r];
            for (int32_t c = 0; c < cols; ++c) row[c] = t[static_cast<size_t>(c) * len + r];
        }
    }
};

// Right reflection applied to rows j0..m-1: for each row j,
// s = sum over k = l..n-1 of A[j][k] * ri[k], then A[j][k] += s * u[k].
// Four rows at a time so that their independent sums overlap.
MORVEN_ALWAYS_INLINE void reflectRows(double **A, int32_t j0, int32_t m, const double *ri, const double *u, int32_t l,
                 int32_t n) noexcept {
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

// t[j - l] = sum over rows k = k0..k1-1 (ascending) of X[k][c] * X[k][j],
// for j = l..n-1: the dot products of column c with every later column.
MORVEN_ALWAYS_INLINE void columnDots(double *t, double **X, int32_t c, int32_t k0, int32_t k1, int32_t l,
                int32_t n) noexcept {
    const int32_t w = n - l;
    std::fill_n(t, w, 0.0);
    for (int32_t k = k0; k < k1; ++k) {
        const double x = X[k][c];
        const double *row = X[k] + l;
        for (int32_t j = 0; j < w; ++j) t[j] += x * row[j];
    }
}

// X[k][j] += t[j - l] * X[k][c] for rows k = k0..k1-1 and j = l..n-1.
MORVEN_ALWAYS_INLINE void columnUpdates(double **X, const double *t, int32_t c, int32_t k0, int32_t k1, int32_t l,
                   int32_t n) noexcept {
    const int32_t w = n - l;
    for (int32_t k = k0; k < k1; ++k) {
        const double x = X[k][c];
        double *row = X[k] + l;
        for (int32_t j = 0; j < w; ++j) row[j] += t[j] * x;
    }
}

MORVEN_ALWAYS_INLINE int32_t decompose(double **a, int32_t m, int32_t n, double *w, double **v,
                                       bool stagedRotations) noexcept {
    if (m < 0 || n < 0) return 1;
    // Zero-based views: A[r] is row r (a[r + 1]), W[i] is w[i + 1], V[r] is
    // v[r + 1]; columns are zero-based already.
    double **A = a + 1;
    double *W = w + 1;
    double **V = v + 1;

    // e: the superdiagonal (index 0 unused, as it is always 0); t: scratch
    // for the partial sums of one reflection.
    FreePtr<double> work(static_cast<double *>(
        std::malloc(sizeof(double) * (2 * static_cast<size_t>(n) + 1))));
    if (!work) return 1;
    double *e = work.get();
    double *t = e + n;

    // --- Householder reduction to bidiagonal form ------------------------
    double g = 0.0, scale = 0.0, anorm = 0.0;
    int32_t l = 0;
    for (int32_t i = 0; i < n; ++i) {
        l = i + 1;
        e[i] = scale * g;
        g = 0.0;
        scale = 0.0;
        double s = 0.0;
        if (i < m) {
            for (int32_t k = i; k < m; ++k) scale += std::fabs(A[k][i]);
            if (scale != 0.0) {
                for (int32_t k = i; k < m; ++k) {
                    A[k][i] /= scale;
                    s += A[k][i] * A[k][i];
                }
                const double f = A[i][i];
                g = -withSignOf(std::sqrt(s), f);
                const double h = f * g - s;
                A[i][i] = f - g;
                if (l < n) {
                    // Column j -= (column i . column j) / h times column i.
                    columnDots(t, A, i, i, m, l, n);
                    for (int32_t j = 0; j < n - l; ++j) t[j] = t[j] / h;
                    columnUpdates(A, t, i, i, m, l, n);
                }
                for (int32_t k = i; k < m; ++k) A[k][i] *= scale;
            }
        }
        W[i] = scale * g;
        g = 0.0;
        scale = 0.0;
        s = 0.0;
        if (i < m && i != n - 1) {
            double *ri = A[i];
            for (int32_t k = l; k < n; ++k) scale += std::fabs(ri[k]);
            if (scale != 0.0) {
                for (int32_t k = l; k < n; ++k) {
                    ri[k] /= scale;
                    s += ri[k] * ri[k];
                }
                const double f = ri[l];
                g = -withSignOf(std::sqrt(s), f);
                const double h = f * g - s;
                ri[l] = f - g;
                for (int32_t k = l; k < n; ++k) e[k] = ri[k] / h;
                reflectRows(A, l, m, ri, e, l, n);
                for (int32_t k = l; k < n; ++k) ri[k] *= scale;
            }
        }
        const double size = std::fabs(W[i]) + std::fabs(e[i]);
        anorm = anorm > size ? anorm : size;
    }

    // --- Accumulation of the right transformations into V ----------------
    for (int32_t i = n - 1; i >= 0; --i) {
        if (i < n - 1) {
            // g is the superdiagonal element of row i: 0 for every row that
            // had no right reflection, in particular every row i >= m.
            if (g != 0.0 && i < m) {
                const double *ri = A[i];
                const double ril = ri[l];
                // Double division avoids a possible underflow.
                for (int32_t j = l; j < n; ++j) V[j][i] = (ri[j] / ril) / g;
                // t[j] = sum over k of A[i][k] * V[k][j], then
                // V[k][j] += t[j] * V[k][i].
                const int32_t wdt = n - l;
                std::fill_n(t, wdt, 0.0);
                for (int32_t k = l; k < n; ++k) {
                    const double x = ri[k];
                    const double *row = V[k] + l;
                    for (int32_t j = 0; j < wdt; ++j) t[j] += x * row[j];
                }
                columnUpdates(V, t, i, l, n, l, n);
            }
            for (int32_t j = l; j < n; ++j) {
                V[i][j] = 0.0;
                V[j][i] = 0.0;
            }
        }
        V[i][i] = 1.0;
        g = e[i];
        l = i;
    }

    // --- Accumulation of the left transformations into U -----------------
    for (int32_t i = std::min(m, n) - 1; i >= 0; --i) {
        l = i + 1;
        g = W[i];
        double *ri = A[i];
        for (int32_t j = l; j < n; ++j) ri[j] = 0.0;
        if (g != 0.0) {
            g = 1.0 / g;
            if (l < n) {
                columnDots(t, A, i, l, m, l, n);
                const double rii = ri[i];
                for (int32_t j = 0; j < n - l; ++j) t[j] = (t[j] / rii) * g;
                columnUpdates(A, t, i, i, m, l, n);
            }
            for (int32_t j = i; j < m; ++j) A[j][i] *= g;
        } else {
            for (int32_t j = i; j < m; ++j) A[j][i] = 0.0;
        }
        ri[i] += 1.0;
    }

    // --- Diagonalisation of the bidiagonal form ----------------------------
    Columns U{A, nullptr, m};
    Columns Vc{V, nullptr, n};
    FreePtr<double> staged;
    if (stagedRotations && n > 0) {
        int64_t cells = 0, vcells = 0, total = 0;
        if (checkedMul(m, n, cells) && checkedMul(n, n, vcells) &&
            !__builtin_add_overflow(cells, vcells, &total) &&
            static_cast<uint64_t>(total) <= SIZE_MAX / sizeof(double))
            staged.reset(static_cast<double *>(std::malloc(sizeof(double) * static_cast<size_t>(total))));
        // Without the copies the rotations run in place: same results.
        if (staged) {
            U.t = staged.get();
            Vc.t = staged.get() + cells;
            U.load(n);
            Vc.load(n);
        }
    }

    for (int32_t k = n - 1; k >= 0; --k) {
        for (int32_t its = 1; its <= 30; ++its) {
            // Split test: look for a negligible superdiagonal element e[l]
            // (then w[l] is decoupled) or a negligible w[l - 1] (then e[l]
            // must be cancelled first). e[0] is 0: the search ends there.
            bool cancel = true;
            int32_t nm = 0;
            for (l = k; l >= 0; --l) {
                nm = l - 1;
                if (l == 0 || std::fabs(e[l]) + anorm == anorm) {
                    cancel = false;
                    break;
                }
                if (std::fabs(W[nm]) + anorm == anorm) break;
            }
            if (cancel) {
                // w[l - 1] is negligible: chase e[l] out with rotations of
                // rows (l - 1, i), applied to the columns of U.
                double c = 0.0, s = 1.0;
                for (int32_t i = l; i <= k; ++i) {
                    const double f = s * e[i];
                    e[i] = c * e[i];
                    if (std::fabs(f) + anorm == anorm) break;
                    g = W[i];
                    double h = pythag(f, g);
                    W[i] = h;
                    h = 1.0 / h;
                    c = g * h;
                    s = -f * h;
                    U.rotate(nm, i, c, s);
                }
            }
            const double z = W[k];
            if (l == k) {
                // Converged; make the singular value non-negative.
                if (z < 0.0) {
                    W[k] = -z;
                    Vc.negate(k);
                }
                break;
            }
            if (its == 30) {
                U.store(n);
                Vc.store(n);
                return 1;
            }
            // Shift from the bottom 2 x 2 minor.
            double x = W[l];
            nm = k - 1;
            double y = W[nm];
            g = e[nm];
            double h = e[k];
            double f = ((y - z) * (y + z) + (g - h) * (g + h)) / (2.0 * h * y);
            g = pythag(f, 1.0);
            f = ((x - z) * (x + z) + h * ((y / (f + withSignOf(g, f))) - h)) / x;
            // One implicit QR sweep over rows l..k.
            double c = 1.0, s = 1.0;
            for (int32_t j = l; j <= nm; ++j) {
                const int32_t i = j + 1;
                g = e[i];
                y = W[i];
                h = s * g;
                g = c * g;
                double r = pythag(f, h);
                e[j] = r;
                c = f / r;
                s = h / r;
                f = x * c + g * s;
                g = g * c - x * s;
                h = y * s;
                y *= c;
                Vc.rotate(j, i, c, s);
                r = pythag(f, h);
                W[j] = r;
                if (r != 0.0) {
                    r = 1.0 / r;
                    c = f * r;
                    s = h * r;
                }
                f = c * g + s * y;
                x = c * y - s * g;
                U.rotate(j, i, c, s);
            }
            e[l] = 0.0;
            e[k] = f;
            W[k] = x;
        }
    }
    U.store(n);
    Vc.store(n);
    return 0;
}

int32_t decomposePortable(double **a, int32_t m, int32_t n, double *w, double **v,
                          bool stagedRotations) noexcept {
    return decompose(a, m, n, w, v, stagedRotations);
}

#ifdef MORVEN_MATRIX_AVX2
// The same code on 256-bit vectors: element-wise loops only, no fused
// multiply-add and no reassociated sum, so the results are identical.
__attribute__((target("avx2"))) int32_t decomposeAvx2(double **a, int32_t m, int32_t n, double *w,
                                                      double **v, bool stagedRotations) noexcept {
    return decompose(a, m, n, w, v, stagedRotations);
}
#endif

}  // namespace

namespace morven {

int32_t svdDecompose(double **a, int32_t m, int32_t n, double *w, double **v, bool stagedRotations,
                     bool portable) noexcept {
#ifdef MORVEN_MATRIX_AVX2
    if (!portable && cpuHasAvx2()) return decomposeAvx2(a, m, n, w, v, stagedRotations);
#else
    (void)portable;
#endif
    return decomposePortable(a, m, n, w, v, stagedRotations);
}

}  // namespace morven

extern "C" {

MORVEN_API double *vector(int64_t nl, int64_t nh) {
    // One block of nh - nl + 2 doubles; v[nl - 1] is its first element.
    int64_t count = 0;
    if (nh < nl || __builtin_sub_overflow(nh, nl, &count) ||
        __builtin_add_overflow(count, int64_t{2}, &count) ||
        static_cast<uint64_t>(count) > SIZE_MAX / sizeof(double))
        return nullptr;
    double *block = static_cast<double *>(std::malloc(sizeof(double) * static_cast<size_t>(count)));
    if (!block) return nullptr;
    return offsetBy(block, oneMinus(nl));
}

MORVEN_API void free_vector(double *v, int64_t nl, int64_t /*nh*/) {
    if (v) std::free(offsetBy(v, minusOne(nl)));
}

MORVEN_API double **matrix(int64_t nrl, int64_t nrh, int64_t ncl, int64_t nch) {
    int64_t rows = 0, cols = 0, cells = 0;
    if (nrh < nrl || nch < ncl || __builtin_sub_overflow(nrh, nrl, &rows) ||
        __builtin_sub_overflow(nch, ncl, &cols) || __builtin_add_overflow(rows, int64_t{1}, &rows) ||
        __builtin_add_overflow(cols, int64_t{1}, &cols) || !checkedMul(rows, cols, cells) ||
        cells >= INT64_MAX || static_cast<uint64_t>(cells) + 1 > SIZE_MAX / sizeof(double) ||
        static_cast<uint64_t>(rows) + 1 > SIZE_MAX / sizeof(double *))
        return nullptr;
    // Row table of rows + 1 entries (m[nrl - 1] is its first) and one block
    // of rows * cols + 1 doubles (m[nrl][ncl - 1] is its first).
    double **table = static_cast<double **>(
        std::malloc(sizeof(double *) * (static_cast<size_t>(rows) + 1)));
    if (!table) return nullptr;
    double *block = static_cast<double *>(
        std::malloc(sizeof(double) * (static_cast<size_t>(cells) + 1)));
    if (!block) {
        std::free(table);
        return nullptr;
    }
    table[0] = nullptr;
    double *first = offsetBy(block, oneMinus(ncl));
    for (int64_t r = 0; r < rows; ++r) table[1 + r] = offsetBy(first, static_cast<uint64_t>(r * cols));
    return offsetBy(table, oneMinus(nrl));
}

MORVEN_API void free_matrix(double **m, int64_t nrl, int64_t /*nrh*/, int64_t ncl,
                            int64_t /*nch*/) {
    if (!m) return;
    double **table = offsetBy(m, minusOne(nrl));
    std::free(offsetBy(table[1], minusOne(ncl)));
    std::free(table);
}

MORVEN_API int32_t svdcmp(double **a, int32_t m, int32_t n, double *w, double **v) {
    return svdDecompose(a, m, n, w, v, true, false);
}

}  // extern "C"
