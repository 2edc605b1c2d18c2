// Internal helpers of the matrix family, shared by its source files and
// reachable from the tests. Hidden from the shared library's interface.
#pragma once

#include <cstdint>

#include "kernels/kernels.hpp"
#include "morven/matrix.h"

namespace morven {

// Number of elements of an rows x cols matrix in 64 bits (0 when either size
// is not positive).
inline int64_t matrixElements(int32_t rows, int32_t cols) noexcept {
    return rows > 0 && cols > 0 ? int64_t{rows} * cols : 0;
}

// The address one element before p, for the one-based arrays of svdcmp
// (formed on addresses: it lies outside the block on purpose).
template <typename T>
T *oneBefore(T *p) noexcept {
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the address lies outside the block on purpose
    return reinterpret_cast<T *>(reinterpret_cast<uintptr_t>(p) - sizeof(T));
}

inline bool sameShape(const wzMatrix &a, const wzMatrix &b) noexcept {
    return a.nRows == b.nRows && a.nCols == b.nCols;
}

// Pseudo-inverse of the square matrix A (order = its row count) into P, by
// way of svdcmp. 0, or 1 when a temporary cannot be created or the
// decomposition fails. P of another shape is left unwritten.
wzStatus wzMatrixPseudoInverseSquare(const wzMatrix *A, wzMatrix *P);

// svdcmp with the loops of `kernels` and control over its internal layout:
// with stagedRotations false the QR sweeps rotate the caller's arrays in
// place, column by column; with true they work on transposed copies (column
// rotations over contiguous memory) when those can be allocated. All forms
// give identical bits; svdcmp uses the staged one with the best kernels.
int32_t svdDecompose(const Kernels &kernels, double **a, int32_t m, int32_t n, double *w,
                     double **v, bool stagedRotations) noexcept;

}  // namespace morven
