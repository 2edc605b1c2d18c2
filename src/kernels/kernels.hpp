// The kernel layer: every loop of the library that has vector forms, behind
// one table of function pointers per instruction set. A subsystem takes the
// table once per call (bestKernels()) and calls through it; it never names
// an instruction set. Tests take kernelsFor(isa) for every set the machine
// runs and hold each entry against the plain table.
//
// Every entry of every table gives exactly the bytes (or doubles) of the
// plain loop it stands for; README.md lists the families and their files.
// The tables are constants: there is nothing to initialise and nothing that
// changes while the library runs.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kernels/isa.hpp"
#include "morven/matrix.h"

namespace morven {

// ---------------------------------------------------------------------------
// Table look-ups over interleaved 8-bit pixels (lut*.cpp).

// Byte k of every pixel (k < stride) goes through table[k], a 256-entry
// table; a null table leaves that destination byte as it was.
struct LutLayout {
    int32_t stride;  // bytes per pixel: 1, 3 or 4
    const uint8_t *table[4];
};

// dst = table[src] byte by byte over `pixels` pixels of the layout. The two
// rows are the same bytes (in place) or do not overlap at all.
using LutRowFn = void (*)(const LutLayout &layout, const uint8_t *src, uint8_t *dst, size_t pixels);

// ---------------------------------------------------------------------------
// Pixel to byte rows (pixels*.cpp): `pixels` pixels of `stride` (3 or 4)
// bytes, offsets[0..2] the positions of channels 1..3 in a pixel (three
// distinct ones), one byte out per pixel. The destination row does not
// overlap the source row, or starts at or before it (a step reads its
// pixels before it writes, and the destination advances more slowly).
//   gray:       dst[i] = (T0[c1] + T1[c2] + T2[c3]) >> 14 with the gray table
//               T of wz_toGray_tab, i.e. (8192 + 1868 c1 + 9617 c2 + 4899 c3) >> 14
//   brightness: dst[i] = the largest of c1, c2, c3
using PixelRowFn = void (*)(const uint8_t *src, int32_t stride, const ptrdiff_t offsets[3],
                            uint8_t *dst, size_t pixels);

// ---------------------------------------------------------------------------
// Element-type conversions (convert*.cpp) of n elements by the rule of
// wzImageCvtType: 8U -> 32F v / 255 (single precision), 32F -> 8U the low
// byte of the saturated truncation of v * 255, 8U -> 16U v << 8, 16U -> 8U
// v >> 8. Widening walks from the last element to the first and narrowing
// from the first, as the element loop does; a vector step loads all of its
// source before it stores. The caller makes sure the blocks do not overlap
// in a way that the step size could change the result.
using ConvertFn = void (*)(const uint8_t *src, uint8_t *dst, int64_t n);

// ---------------------------------------------------------------------------
// Selective smoothing (smooth*.cpp, channel*.cpp).

// One row of one level of the row-pipelined pass (smoothing/pipeline.cpp
// describes the pipeline and the closed form it computes). The four mask
// arrays of a block (right, below, below-right, below-left pairs) lie
// maskStride bytes apart; each kernel chooses their element (bytes of 0 or
// 0xFF, or 64-bit words of one bit per pixel) and reads only what it wrote.
struct SmoothRow {
    const uint8_t *gB, *gC;       // guide, rows r and r + 1 (gC null on the last row)
    const uint8_t *xB, *xC;       // values, rows r and r + 1
    const int16_t *uA, *uB, *uC;  // x - g, rows r - 1, r, r + 1 (any row when absent)
    const uint8_t *prevMasks;     // pairs of row r - 1 (zero for the first row)
    uint8_t *curMasks;            // pairs of row r, written
    ptrdiff_t maskStride;
    uint8_t *xOut;  // new values of row r
    int16_t *uOut;  // their x - g (null on the last level: not needed)
    int32_t w;
    uint8_t tc;  // min(t, 128)
};
// Rows carry kSmoothPad guard elements on both sides and are whole multiples
// of 64 elements, so a kernel may read and write whole vectors past w.
constexpr int32_t kSmoothPad = 64;
using SmoothRowFn = void (*)(const SmoothRow &job);

// q[i] = low 8 bits of num[i] / count[i] truncated toward zero, for num[i] in
// -2040..4335 and count[i] in 1..9; len a multiple of 32.
using QuotientsFn = void (*)(const int16_t *num, const uint16_t *count, uint8_t *q, int32_t len);

// One channel of a row of w pixels of `step` (3 or 4) bytes to a packed row
// and back: dst[i] = px[i * step + offset], px[i * step + offset] = src[i].
// Only the row's own bytes are read and written; the other bytes of the
// pixels keep their values.
using ReadChannelFn = void (*)(const uint8_t *px, int32_t step, ptrdiff_t offset, uint8_t *dst,
                               int32_t w);
using WriteChannelFn = void (*)(const uint8_t *src, uint8_t *px, int32_t step, ptrdiff_t offset,
                                int32_t w);

// ---------------------------------------------------------------------------
// Matrices (matrix.cpp). Each element is computed with the
// operations of the plain loop in the same order (the library is built
// without fused multiply-adds), so every form gives the same bits.

// dst = op(a) * b (shapes checked, inner size >= 1; op(a) = a, or its
// transpose when transposeA); each element the sum over the inner index,
// ascending, from 0.0. dst shares no storage with a or b.
using ProductFn = void (*)(wzMatrix &dst, const wzMatrix &a, const wzMatrix &b, bool transposeA);

// The loops of the singular value decomposition (zero-based row pointers).
struct SvdKernels {
    using RotateFn = void (*)(double *x, double *z, int32_t len, double c, double s);
    // t[j - l] = sum over k = k0..k1-1 (ascending) of X[k][c] * X[k][j], j = l..n-1.
    void (*columnDots)(double *t, double *const *X, int32_t c, int32_t k0, int32_t k1, int32_t l,
                       int32_t n);
    // t[j - l] = sum over k = k0..k1-1 (ascending) of x[k] * X[k][j], j = l..n-1.
    void (*vectorDots)(double *t, double *const *X, const double *x, int32_t k0, int32_t k1,
                       int32_t l, int32_t n);
    // X[k][j] += t[j - l] * X[k][c] for k = k0..k1-1, j = l..n-1.
    void (*columnUpdates)(double *const *X, const double *t, int32_t c, int32_t k0, int32_t k1,
                          int32_t l, int32_t n);
    // For each row j = j0..m-1: s = sum over k = l..n-1 of A[j][k] * ri[k],
    // then A[j][k] += s * u[k].
    void (*reflectRows)(double *const *A, int32_t j0, int32_t m, const double *ri, const double *u,
                        int32_t l, int32_t n);
    // (x[r], z[r]) <- (x[r] c + z[r] s, z[r] c - x[r] s) for r < len.
    RotateFn rotate;
};

// ---------------------------------------------------------------------------

struct Kernels {
    Isa isa;
    LutRowFn lutRow;
    PixelRowFn grayRow;
    PixelRowFn brightnessRow;
    ConvertFn u8ToF32, f32ToU8, u8ToU16, u16ToU8;
    SmoothRowFn smoothRow;
    QuotientsFn smoothQuotients;
    ReadChannelFn readChannel;
    WriteChannelFn writeChannel;
    ProductFn product;
    SvdKernels svd;
};

// The table of `isa`; the plain one when this processor lacks `isa`.
const Kernels &kernelsFor(Isa isa) noexcept;

// The table of the best instruction set of this processor.
inline const Kernels &bestKernels() noexcept { return kernelsFor(bestIsa()); }

// The plain loops: for blocks that overlap in a way where the order of a
// vector walk would change the result.
inline const Kernels &plainKernels() noexcept { return kernelsFor(Isa::Portable); }

}  // namespace morven
