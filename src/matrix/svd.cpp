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
#include "kernels/kernels.hpp"
#include "matrix/matrix_internal.hpp"

using namespace morven;

namespace {

// p + k elements, formed on addresses in wrapping arithmetic: offset arrays
// point outside their blocks deliberately, and k may be any 64-bit offset.
template <typename T>
T *offsetBy(T *p, uint64_t k) noexcept {
    // NOLINTNEXTLINE(performance-no-int-to-ptr): wrapping address arithmetic, see above
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
// caller's rows (strided), or as the rows of a transposed copy, whose
// rotations run over contiguous memory (a kernel).
struct Columns {
    double **rows;  // in place: element (r, c) is rows[r][c]
    double *t;      // transposed copy: element (r, c) is t[c * len + r]
    int32_t len;    // number of rows
    SvdKernels::RotateFn rotateContiguous;

    // (p, q) <- (p * c + q * s, q * c - p * s), row by row.
    void rotate(int32_t p, int32_t q, double c, double s) const noexcept {
        if (t) {
            rotateContiguous(t + static_cast<size_t>(p) * len, t + static_cast<size_t>(q) * len,
                             len, c, s);
            return;
        }
        for (int32_t r = 0; r < len; ++r) {
            double *row = rows[r];
            const double y = row[p], w = row[q];
            row[p] = y * c + w * s;
            row[q] = w * c - y * s;
        }
    }

    void negate(int32_t p) const noexcept {
        if (t) {
            double *x = t + static_cast<size_t>(p) * len;
            for (int32_t r = 0; r < len; ++r) x[r] = -x[r];
        } else {
            for (int32_t r = 0; r < len; ++r) rows[r][p] = -rows[r][p];
        }
    }

    // Between the caller's rows (cols columns) and the transposed copy.
    void load(int32_t cols) const noexcept {
        if (!t) return;
        for (int32_t r = 0; r < len; ++r) {
            const double *row = rows[r];
            for (int32_t c = 0; c < cols; ++c) t[static_cast<size_t>(c) * len + r] = row[c];
        }
    }
    void store(int32_t cols) const noexcept {
        if (!t) return;
        for (int32_t r = 0; r < len; ++r) {
            double *row = rows[r];
            for (int32_t c = 0; c < cols; ++c) row[c] = t[static_cast<size_t>(c) * len + r];
        }
    }
};

// One decomposition: zero-based views of the caller's arrays (A[r] is row r
// of a, W[i] is w[i + 1], V[r] is row r of v; columns are zero-based
// already), the superdiagonal e (e[0] unused: it is always 0), scratch t for
// the partial sums of one reflection, and the loops to use.
struct Svd {
    double **A;
    double *W;
    double **V;
    int32_t m, n;
    double *e, *t;
    const SvdKernels &k;
};

// The Householder reflection of column i (rows i..m-1) from the left, applied
// to the later columns l..n-1; returns its g with *scaleOut its scale.
double reflectColumn(const Svd &d, int32_t i, double *scaleOut) noexcept {
    double **A = d.A;
    const int32_t m = d.m, n = d.n, l = i + 1;
    double scale = 0.0, g = 0.0, s = 0.0;
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
            d.k.columnDots(d.t, A, i, i, m, l, n);
            for (int32_t j = 0; j < n - l; ++j) d.t[j] = d.t[j] / h;
            d.k.columnUpdates(A, d.t, i, i, m, l, n);
        }
        for (int32_t k = i; k < m; ++k) A[k][i] *= scale;
    }
    *scaleOut = scale;
    return g;
}

// The reflection of row i (columns l = i + 1..n-1) from the right, applied to
// the rows below; e[l..n-1] serve as its vector. Returns its g with
// *scaleOut its scale.
double reflectRow(const Svd &d, int32_t i, double *scaleOut) noexcept {
    double *ri = d.A[i], *e = d.e;
    const int32_t l = i + 1, n = d.n;
    double scale = 0.0, g = 0.0, s = 0.0;
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
        d.k.reflectRows(d.A, l, d.m, ri, e, l, n);
        for (int32_t k = l; k < n; ++k) ri[k] *= scale;
    }
    *scaleOut = scale;
    return g;
}

// Householder reduction to bidiagonal form: reflections from the left
// (columns) and the right (rows) in turn. Returns the norm bound anorm.
double bidiagonalize(const Svd &d) noexcept {
    double g = 0.0, scale = 0.0, anorm = 0.0;
    for (int32_t i = 0; i < d.n; ++i) {
        d.e[i] = scale * g;
        g = 0.0;
        scale = 0.0;
        if (i < d.m) g = reflectColumn(d, i, &scale);
        d.W[i] = scale * g;
        g = 0.0;
        scale = 0.0;
        if (i < d.m && i != d.n - 1) g = reflectRow(d, i, &scale);
        const double size = std::fabs(d.W[i]) + std::fabs(d.e[i]);
        anorm = anorm > size ? anorm : size;
    }
    return anorm;
}

// Accumulation of the right transformations into V.
void accumulateRight(const Svd &d) noexcept {
    double **V = d.V;
    const int32_t n = d.n;
    double g = 0.0;
    int32_t l = n;
    for (int32_t i = n - 1; i >= 0; --i) {
        if (i < n - 1) {
            // g is the superdiagonal element of row i: 0 for every row that
            // had no right reflection, in particular every row i >= m.
            if (g != 0.0 && i < d.m) {
                const double *ri = d.A[i];
                const double ril = ri[l];
                // Double division avoids a possible underflow.
                for (int32_t j = l; j < n; ++j) V[j][i] = (ri[j] / ril) / g;
                // t[j] = sum over k of A[i][k] * V[k][j], then
                // V[k][j] += t[j] * V[k][i].
                d.k.vectorDots(d.t, V, ri, l, n, l, n);
                d.k.columnUpdates(V, d.t, i, l, n, l, n);
            }
            for (int32_t j = l; j < n; ++j) {
                V[i][j] = 0.0;
                V[j][i] = 0.0;
            }
        }
        V[i][i] = 1.0;
        g = d.e[i];
        l = i;
    }
}

// Accumulation of the left transformations into U (in A).
void accumulateLeft(const Svd &d) noexcept {
    double **A = d.A;
    const int32_t m = d.m, n = d.n;
    for (int32_t i = std::min(m, n) - 1; i >= 0; --i) {
        const int32_t l = i + 1;
        double g = d.W[i];
        double *ri = A[i];
        for (int32_t j = l; j < n; ++j) ri[j] = 0.0;
        if (g != 0.0) {
            g = 1.0 / g;
            if (l < n) {
                d.k.columnDots(d.t, A, i, l, m, l, n);
                const double rii = ri[i];
                for (int32_t j = 0; j < n - l; ++j) d.t[j] = (d.t[j] / rii) * g;
                d.k.columnUpdates(A, d.t, i, i, m, l, n);
            }
            for (int32_t j = i; j < m; ++j) A[j][i] *= g;
        } else {
            for (int32_t j = i; j < m; ++j) A[j][i] = 0.0;
        }
        ri[i] += 1.0;
    }
}

// Split test of rows ..k: the largest l <= k with a negligible superdiagonal
// element e[l] (then w[l] is decoupled; e[0] is 0, so the search ends
// there), or with a negligible w[l - 1] (then *cancel is set: e[l] must be
// cancelled first).
int32_t splitPoint(const Svd &d, int32_t k, double anorm, bool *cancel) noexcept {
    *cancel = true;
    int32_t l = k;
    for (; l >= 0; --l) {
        if (l == 0 || std::fabs(d.e[l]) + anorm == anorm) {
            *cancel = false;
            break;
        }
        if (std::fabs(d.W[l - 1]) + anorm == anorm) break;
    }
    return l;
}

// w[l - 1] is negligible: chase e[l] out with rotations of rows (l - 1, i),
// applied to the columns of U.
void cancelSuperdiagonal(const Svd &d, int32_t l, int32_t k, double anorm,
                         const Columns &U) noexcept {
    const int32_t nm = l - 1;
    double c = 0.0, s = 1.0;
    for (int32_t i = l; i <= k; ++i) {
        const double f = s * d.e[i];
        d.e[i] = c * d.e[i];
        if (std::fabs(f) + anorm == anorm) break;
        const double g = d.W[i];
        double h = pythag(f, g);
        d.W[i] = h;
        h = 1.0 / h;
        c = g * h;
        s = -f * h;
        U.rotate(nm, i, c, s);
    }
}

// One implicit QR sweep over rows l..k, shifted by the eigenvalue of the
// bottom 2 x 2 minor nearer to z = w[k].
void qrSweep(const Svd &d, int32_t l, int32_t k, double z, const Columns &U,
             const Columns &Vc) noexcept {
    double *e = d.e, *W = d.W;
    double x = W[l];
    const int32_t nm = k - 1;
    double y = W[nm];
    double g = e[nm];
    double h = e[k];
    double f = ((y - z) * (y + z) + (g - h) * (g + h)) / (2.0 * h * y);
    g = pythag(f, 1.0);
    f = ((x - z) * (x + z) + h * ((y / (f + withSignOf(g, f))) - h)) / x;
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

// Diagonalisation of the bidiagonal form by QR sweeps, at most 30 per
// singular value; false when one does not converge. Singular values that
// come out negative are negated with their column of V.
bool diagonalize(const Svd &d, double anorm, const Columns &U, const Columns &Vc) noexcept {
    for (int32_t k = d.n - 1; k >= 0; --k) {
        for (int32_t its = 1; its <= 30; ++its) {
            bool cancel = false;
            const int32_t l = splitPoint(d, k, anorm, &cancel);
            if (cancel) cancelSuperdiagonal(d, l, k, anorm, U);
            const double z = d.W[k];
            if (l == k) {
                if (z < 0.0) {
                    d.W[k] = -z;
                    Vc.negate(k);
                }
                break;
            }
            if (its == 30) return false;
            qrSweep(d, l, k, z, U, Vc);
        }
    }
    return true;
}

// The transposed copies of U (m x n) and V (n x n) for the QR sweeps, in one
// block; null (the sweeps then rotate in place) when the sizes overflow or
// the block cannot be had.
FreePtr<double> stageColumns(int32_t m, int32_t n, Columns &U, Columns &Vc) noexcept {
    int64_t cells = 0, vcells = 0, total = 0;
    if (n < 1 || !checkedMul(m, n, cells) || !checkedMul(n, n, vcells) ||
        __builtin_add_overflow(cells, vcells, &total))
        return nullptr;
    FreePtr<double> staged = allocArray<double>(total);
    if (staged) {
        U.t = staged.get();
        Vc.t = staged.get() + cells;
        U.load(n);
        Vc.load(n);
    }
    return staged;
}

int32_t decompose(const SvdKernels &kernels, double **a, int32_t m, int32_t n, double *w,
                  double **v, bool stagedRotations) noexcept {
    if (m < 0 || n < 0) return 1;
    FreePtr<double> work = allocArray<double>(2 * int64_t{n} + 1);
    if (!work) return 1;
    const Svd d{a + 1, w + 1, v + 1, m, n, work.get(), work.get() + n, kernels};
    const double anorm = bidiagonalize(d);
    accumulateRight(d);
    accumulateLeft(d);
    Columns U{d.A, nullptr, m, kernels.rotate};
    Columns Vc{d.V, nullptr, n, kernels.rotate};
    FreePtr<double> staged;
    if (stagedRotations) staged = stageColumns(m, n, U, Vc);
    const bool converged = diagonalize(d, anorm, U, Vc);
    U.store(n);
    Vc.store(n);
    return converged ? 0 : 1;
}

}  // namespace

namespace morven {

int32_t svdDecompose(const Kernels &kernels, double **a, int32_t m, int32_t n, double *w,
                     double **v, bool stagedRotations) noexcept {
    return decompose(kernels.svd, a, m, n, w, v, stagedRotations);
}

}  // namespace morven

extern "C" {

MORVEN_API double *vector(int64_t nl, int64_t nh) {
    // One block of nh - nl + 2 doubles; v[nl - 1] is its first element.
    int64_t count = 0;
    if (nh < nl || __builtin_sub_overflow(nh, nl, &count) ||
        __builtin_add_overflow(count, int64_t{2}, &count))
        return nullptr;
    double *block = allocArray<double>(count).release();
    if (!block) return nullptr;
    return offsetBy(block, oneMinus(nl));
}

MORVEN_API void free_vector(double *v, int64_t nl, int64_t /*nh*/) {
    if (v) std::free(offsetBy(v, minusOne(nl)));
}

MORVEN_API double **matrix(int64_t nrl, int64_t nrh, int64_t ncl, int64_t nch) {
    int64_t rows = 0, cols = 0, cells = 0;
    if (nrh < nrl || nch < ncl || __builtin_sub_overflow(nrh, nrl, &rows) ||
        __builtin_sub_overflow(nch, ncl, &cols) ||
        __builtin_add_overflow(rows, int64_t{1}, &rows) ||
        __builtin_add_overflow(cols, int64_t{1}, &cols) || !checkedMul(rows, cols, cells) ||
        cells >= INT64_MAX || !arrayFits<double>(cells + 1) || !arrayFits<double *>(rows + 1))
        return nullptr;
    // Row table of rows + 1 entries (m[nrl - 1] is its first) and one block
    // of rows * cols + 1 doubles (m[nrl][ncl - 1] is its first).
    FreePtr<double *> rowTable = allocArray<double *>(rows + 1);
    if (!rowTable) return nullptr;
    double *block = allocArray<double>(cells + 1).release();
    if (!block) return nullptr;
    double **table = rowTable.release();
    table[0] = nullptr;
    double *first = offsetBy(block, oneMinus(ncl));
    for (int64_t r = 0; r < rows; ++r)
        table[1 + r] = offsetBy(first, static_cast<uint64_t>(r * cols));
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
    return svdDecompose(bestKernels(), a, m, n, w, v, true);
}

}  // extern "C"
