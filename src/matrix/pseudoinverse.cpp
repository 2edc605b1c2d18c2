// The singular value decomposition of matrix records, and the Moore-Penrose
// pseudo-inverse built on it.
#include <algorithm>
#include <cstdint>
#include <cstring>

#include "common/memory.hpp"
#include "matrix/matrix_internal.hpp"

using namespace morven;

namespace {

// Copies count doubles between blocks (count <= 0: nothing).
void copyElements(double *dst, const double *src, int64_t count) {
    if (count > 0 && dst != src)
        std::memmove(dst, src, sizeof(double) * static_cast<size_t>(count));
}

// svdcmp on records: U (m x n) holds A and receives U, W's block the n
// singular values, V the n x n matrix V.
int32_t decompose(wzMatrix &U, wzMatrix &W, wzMatrix &V) {
    return svdcmp(oneBefore(U.rowPtr), U.nRows, U.nCols, oneBefore(W.data), oneBefore(V.rowPtr));
}

}  // namespace

namespace morven {

wzStatus wzMatrixPseudoInverseSquare(const wzMatrix *A, wzMatrix *P) {
    const int32_t n = A->nRows;
    wzMatrix *U = wzMatrixCreate(n, n);
    wzMatrix *V = wzMatrixCreate(n, n);
    wzMatrix *Ut = wzMatrixCreate(n, n);
    wzMatrix *T = wzMatrixCreate(n, n);
    wzMatrix *W = wzMatrixCreate(n, 1);
    ScopeGuard release([&] {
        wzMatrixRelease(&U);
        wzMatrixRelease(&V);
        wzMatrixRelease(&Ut);
        wzMatrixRelease(&T);
        wzMatrixRelease(&W);
    });
    if (!U || !V || !Ut || !T || !W) return WZ_STATUS_ERROR;

    copyElements(U->data, A->data, matrixElements(n, n));
    if (decompose(*U, *W, *V) != 0) return WZ_STATUS_ERROR;
    wzMatrixTranspose(Ut, U);

    // U becomes diag(1 / w); an exactly zero singular value stays 0.
    if (n > 0) std::memset(U->data, 0, sizeof(double) * static_cast<size_t>(matrixElements(n, n)));
    for (int32_t i = 0; i < n; ++i)
        if (W->data[i] != 0.0) U->rowPtr[i][i] = 1.0 / W->data[i];

    wzMatrixProduct(T, U, Ut);  // diag(1 / w) * U^T
    wzMatrixProduct(P, V, T);   // a P of another shape is left unwritten
    return WZ_STATUS_OK;
}

}  // namespace morven

extern "C" {

MORVEN_API int32_t wzMatrixSVDDecomposition(const wzMatrix *A, wzMatrix *U, wzMatrix *W,
                                            wzMatrix *V) {
    copyElements(U->data, A->data, matrixElements(U->nRows, U->nCols));
    return decompose(*U, *W, *V);
}

MORVEN_API wzStatus wzMatrixPseudoInverse(const wzMatrix *A, wzMatrix *P) {
    const int32_t m = A->nRows, n = A->nCols;
    if (m == n) return wzMatrixPseudoInverseSquare(A, P);

    // Zero-pad to a square s x s matrix: its pseudo-inverse holds that of A
    // in its top-left n x m corner.
    const int32_t s = std::max(m, n);
    wzMatrix *S = wzMatrixCreate(s, s);
    if (!S) return WZ_STATUS_ERROR;
    wzMatrix *R = wzMatrixCreate(s, s);
    if (!R) {
        wzMatrixRelease(&S);
        return WZ_STATUS_ERROR;
    }
    std::memset(S->data, 0, sizeof(double) * static_cast<size_t>(matrixElements(s, s)));
    for (int32_t i = 0; i < m; ++i) copyElements(S->rowPtr[i], A->rowPtr[i], n);

    const wzStatus status = wzMatrixPseudoInverseSquare(S, R);
    if (status == WZ_STATUS_OK) {
        const int32_t rows = std::min(P->nRows, s), cols = std::min(P->nCols, s);
        for (int32_t i = 0; i < rows; ++i) copyElements(P->rowPtr[i], R->rowPtr[i], cols);
    }
    wzMatrixRelease(&S);
    wzMatrixRelease(&R);
    return status;
}

}  // extern "C"
