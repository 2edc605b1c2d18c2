// Internal helpers of the matrix family, shared by its source files and
// reachable from the tests. Hidden from the shared library's interface.
#pragma once

#include <cstdint>

#include "common/cpu.hpp"
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
    return reinterpret_cast<T *>(reinterpret_cast<uintptr_t>(p) - sizeof(T));
}

inline bool sameShape(const wzMatrix &a, const wzMatrix &b) noexcept {
    return a.nRows == b.nRows && a.nCols == b.nCols;
}

// dst = op(a) * b for matrices whose shapes were checked (dst rows = rows of
// op(a), dst cols = b cols, inner size >= 1). op(a) is a, or a's transpose
// when transposeA is set (then a is inner x dst rows). Each element is the
// sum over the inner index, ascending, from 0.0, of separate products: bit
// for bit the plain triple loop. dst must not share storage with a or b.
// The widest vector kernel the processor supports is used unless portable
// is set (the kernel every processor runs; the tests compare both).
void productKernel(wzMatrix &dst, const wzMatrix &a, const wzMatrix &b, bool transposeA,
                   bool portable = false) noexcept;

#if defined(__x86_64__) && defined(__GNUC__)
// Kernels are also compiled for 256-bit vectors (AVX2, without fused
// multiply-add) and chosen at run time (cpuHasAvx2, common/cpu.hpp).
#define MORVEN_MATRIX_AVX2 1
#endif

#if defined(__GNUC__)
#define MORVEN_ALWAYS_INLINE inline __attribute__((always_inline))
#else
#define MORVEN_ALWAYS_INLINE inline
#endif

// Pseudo-inverse of the square matrix A (order = its row count) into P, by
// way of svdcmp. 0, or 1 when a temporary cannot be created or the
// decomposition fails. P of another shape is left unwritten.
wzStatus wzMatrixPseudoInverseSquare(const wzMatrix *A, wzMatrix *P);

// svdcmp with control over its internal layout: with stagedRotations false
// the QR sweeps rotate the caller's arrays in place, column by column; with
// true they work on transposed copies (column rotations over contiguous
// memory) when those can be allocated. portable selects the code every
// processor runs rather than the widest vectors available. All forms give
// identical bits; svdcmp uses the staged, widest one.
int32_t svdDecompose(double **a, int32_t m, int32_t n, double *w, double **v, bool stagedRotations,
                     bool portable) noexcept;

}  // namespace morven
