// Dense direct solvers: QR by classical Gram-Schmidt, LU with partial
// pivoting, triangular substitutions with several right-hand sides, square
// systems and least squares through the normal equations.
//
// Loops run along rows. Where a sum runs down a column (over the rows of a
// right-hand side, or over the rows of a column of Q) the partial sums of all
// the columns concerned are gathered row by row, each still in ascending
// order from 0.0, so every result is that of the plain column-by-column loop.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "common/memory.hpp"
#include "matrix/matrix_internal.hpp"

using namespace morven;

namespace {

// Right-hand-side columns handled per pass of a substitution (their partial
// sums live on the stack).
constexpr int32_t kColumnBlock = 256;

void copyElements(double *dst, const double *src, int64_t count) {
    if (count > 0 && dst != src)
        std::memmove(dst, src, sizeof(double) * static_cast<size_t>(count));
}

// Triangular solve of T * X = B for the rows in the order given by Forward,
// over every column of B: X(i, c) = (B(i, c) - sum over the solved rows k of
// T(i, k) * X(k, c)) / d_i, the sum in ascending k from 0.0. With Unit the
// division is left out and row 0 (row n - 1 backward) is not touched: the
// in-place elimination with an implied unit diagonal. X may be B.
template <bool Forward, bool Unit>
void substitute(const wzMatrix &T, const wzMatrix &B, wzMatrix &X, double diag) {
    const int32_t n = T.nRows, cols = B.nCols;
    double acc[kColumnBlock];
    for (int32_t c0 = 0; c0 < cols; c0 += kColumnBlock) {
        const int32_t w = std::min(kColumnBlock, cols - c0);
        for (int32_t step = Unit ? 1 : 0; step < n; ++step) {
            const int32_t i = Forward ? step : n - 1 - step;
            const int32_t k0 = Forward ? 0 : i + 1, k1 = Forward ? i : n;
            const double *ti = T.rowPtr[i];
            std::fill_n(acc, w, 0.0);
            for (int32_t k = k0; k < k1; ++k) {
                const double tik = ti[k];
                const double *xk = X.rowPtr[k] + c0;
                for (int32_t c = 0; c < w; ++c) acc[c] += tik * xk[c];
            }
            const double *bi = B.rowPtr[i] + c0;
            double *xi = X.rowPtr[i] + c0;
            if (Unit) {
                for (int32_t c = 0; c < w; ++c) xi[c] = bi[c] - acc[c];
            } else {
                const double d = diag == 0.0 ? ti[i] : diag;
                for (int32_t c = 0; c < w; ++c) xi[c] = (bi[c] - acc[c]) / d;
            }
        }
    }
}

bool triangularShapesFit(const wzMatrix &T, const wzMatrix &B, const wzMatrix &X) {
    const int32_t n = T.nRows;
    return T.nCols == n && B.nRows == n && X.nRows == n && X.nCols == B.nCols;
}

void swapRows(double *p, double *q, int32_t count) {
    for (int32_t j = 0; j < count; ++j) std::swap(p[j], q[j]);
}

}  // namespace

extern "C" {

MORVEN_API wzStatus wzMatrixQRDecomposition(const wzMatrix *A, wzMatrix *Q, wzMatrix *R) {
    const int32_t n = A->nCols;
    if (A->nRows != n || Q->nRows != n || Q->nCols != n || R->nRows != n || R->nCols != n)
        return WZ_STATUS_FAILURE;
    if (n < 1) return WZ_STATUS_OK;

    // Until it receives Q^T * A, R's first two rows hold the squared norms of
    // the finished columns of Q (each the same ascending sum a recomputation
    // would give) and the projection coefficients of the current column.
    double *normSq = n >= 2 ? R->rowPtr[0] : nullptr;
    double *coef = n >= 2 ? R->rowPtr[1] : nullptr;
    for (int32_t j = 0; j < n; ++j) {
        if (j == 0) {
            for (int32_t i = 0; i < n; ++i) Q->rowPtr[i][0] = A->rowPtr[i][0];
        } else {
            // coef[k] = (sum over i of Q(i, k) * A(i, j)) / |Q(., k)|^2: the
            // projections are taken against A's own column.
            std::fill_n(coef, j, 0.0);
            for (int32_t i = 0; i < n; ++i) {
                const double aij = A->rowPtr[i][j];
                const double *q = Q->rowPtr[i];
                for (int32_t k = 0; k < j; ++k) coef[k] += q[k] * aij;
            }
            for (int32_t k = 0; k < j; ++k) coef[k] = coef[k] / normSq[k];
            // Q(i, j) = A(i, j) - Q(i, 0) c0 - Q(i, 1) c1 - ..., in that order.
            for (int32_t i = 0; i < n; ++i) {
                double *q = Q->rowPtr[i];
                double x = A->rowPtr[i][j];
                for (int32_t k = 0; k < j; ++k) x -= q[k] * coef[k];
                q[j] = x;
            }
        }
        double sum = 0.0;
        for (int32_t i = 0; i < n; ++i) sum += Q->rowPtr[i][j] * Q->rowPtr[i][j];
        const double norm = std::sqrt(sum);
        for (int32_t i = 0; i < n; ++i) Q->rowPtr[i][j] /= norm;
        if (normSq && j < n - 1) {
            double s = 0.0;
            for (int32_t i = 0; i < n; ++i) s += Q->rowPtr[i][j] * Q->rowPtr[i][j];
            normSq[j] = s;
        }
    }
    // R(r, c) = sum over i of Q(i, r) * A(i, c), in full.
    bestKernels().product(*R, *Q, *A, true);
    return WZ_STATUS_OK;
}

MORVEN_API wzStatus wzMatrixLUDecomposition(const wzMatrix *A, wzMatrix *L, wzMatrix *U,
                                            wzMatrix *B) {
    const int32_t n = A->nCols;
    if (A->nRows != n || L->nRows != n || L->nCols != n || U->nRows != n || U->nCols != n ||
        B->nRows != n)
        return WZ_STATUS_ERROR;
    const int64_t cells = matrixElements(n, n);
    if (cells > 0) std::memset(L->data, 0, sizeof(double) * static_cast<size_t>(cells));
    for (int32_t i = 0; i < n; ++i) L->rowPtr[i][i] = 1.0;
    copyElements(U->data, A->data, cells);
    if (n < 1) return WZ_STATUS_OK;

    double **u = U->rowPtr;
    for (int32_t k = 0; k < n; ++k) {
        // The first row holding the largest magnitude wins.
        int32_t p = k;
        double largest = std::fabs(u[k][k]);
        for (int32_t i = k + 1; i < n; ++i) {
            const double v = std::fabs(u[i][k]);
            if (v > largest) {
                largest = v;
                p = i;
            }
        }
        if (largest == 0.0) return WZ_STATUS_ERROR;  // singular
        if (p != k) {
            swapRows(u[k], u[p], n);
            swapRows(B->rowPtr[k], B->rowPtr[p], B->nCols);
        }
        const double *uk = u[k];
        for (int32_t i = k + 1; i < n; ++i) {
            double *ui = u[i];
            ui[k] = ui[k] / uk[k];
            const double f = ui[k];
            for (int32_t j = k + 1; j < n; ++j) ui[j] -= f * uk[j];
        }
    }
    if (L == U) return WZ_STATUS_OK;  // compact form
    for (int32_t i = 1; i < n; ++i)
        for (int32_t j = 0; j < i; ++j) {
            L->rowPtr[i][j] = u[i][j];
            u[i][j] = 0.0;
        }
    return WZ_STATUS_OK;
}

MORVEN_API wzStatus wzMatrixForwardSubstitution(const wzMatrix *L, const wzMatrix *B, wzMatrix *X,
                                                double diag) {
    if (!triangularShapesFit(*L, *B, *X)) return WZ_STATUS_ERROR;
    substitute<true, false>(*L, *B, *X, diag);
    return WZ_STATUS_OK;
}

MORVEN_API wzStatus wzMatrixBackwardSubstitution(const wzMatrix *U, const wzMatrix *B, wzMatrix *X,
                                                 double diag) {
    if (!triangularShapesFit(*U, *B, *X)) return WZ_STATUS_ERROR;
    substitute<false, false>(*U, *B, *X, diag);
    return WZ_STATUS_OK;
}

MORVEN_API wzStatus wzMatrixSolveLinearSystem(const wzMatrix *A, wzMatrix *X, const wzMatrix *B,
                                              wzMatrix *work) {
    if (!sameShape(*X, *B)) return WZ_STATUS_ERROR;
    wzMatrix *own = nullptr;
    if (!work) {
        own = wzMatrixCreate(A->nRows, A->nCols);
        if (!own) return WZ_STATUS_ERROR;
        work = own;
    }
    ScopeGuard release([&] { wzMatrixRelease(&own); });

    copyElements(X->data, B->data, matrixElements(B->nRows, B->nCols));
    if (wzMatrixLUDecomposition(A, work, work, X) != WZ_STATUS_OK) return WZ_STATUS_ERROR;
    substitute<true, true>(*work, *X, *X, 1.0);  // unit lower factor, in place
    return wzMatrixBackwardSubstitution(work, X, X, 0.0);
}

MORVEN_API wzStatus wzMatrixLinearSystemLeastSquares(const wzMatrix *A, wzMatrix *X,
                                                     const wzMatrix *B, wzMatrix *work1,
                                                     wzMatrix *work2, wzMatrix *work3) {
    const int32_t m = A->nRows, n = A->nCols, k = B->nCols;
    // The scratch block first holds A^T (n x m), then the n x n compact
    // factorisation: with fewer rows than columns it could not hold the
    // latter (and A^T A would be singular anyway).
    if (m < n) return WZ_STATUS_ERROR;

    wzMatrix *own1 = nullptr, *own2 = nullptr, *own3 = nullptr, *T = nullptr, *F = nullptr;
    ScopeGuard release([&] {
        wzMatrixReleaseHeader(&T);
        wzMatrixReleaseHeader(&F);
        wzMatrixRelease(&own2);
        wzMatrixRelease(&own3);
        wzMatrixRelease(&own1);
    });
    if (!work2) work2 = own2 = wzMatrixCreate(n, n);
    if (!work3) work3 = own3 = wzMatrixCreate(n, k);
    if (!work1) work1 = own1 = wzMatrixCreate(m, n);
    if (!work1 || !work2 || !work3) return WZ_STATUS_ERROR;
    T = wzMatrixCreateHeader(n, m);
    F = wzMatrixCreateHeader(work2->nRows, work2->nCols);
    if (!T || !F) return WZ_STATUS_ERROR;
    // A caller's scratch block must hold both views.
    const int64_t capacity = matrixElements(work1->nRows, work1->nCols);
    if (capacity < matrixElements(n, m) || capacity < matrixElements(F->nRows, F->nCols))
        return WZ_STATUS_ERROR;
    wzMatrixAssignData(T, work1->data);
    wzMatrixAssignData(F, work1->data);

    // Products whose shapes do not fit are skipped; the solve reports them.
    wzMatrixTranspose(T, A);
    wzMatrixProduct(work3, T, B);
    wzMatrixProduct(work2, T, A);
    return wzMatrixSolveLinearSystem(work2, X, work3, F);
}

}  // extern "C"
