// The forms of every kernel family, which table.cpp gathers into the tables,
// and the pieces that the forms of one family share. A family's plain loop
// is in <family>.cpp, its x86-64 forms in <family>_x86.cpp and its ARM64
// forms in <family>_neon.cpp; a form exists only where its file compiles it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kernels/kernels.hpp"

namespace morven::kernels {

// ---- Table look-ups (lut*.cpp)
void lutRowPlain(const LutLayout &layout, const uint8_t *src, uint8_t *dst, size_t pixels);
void lutRowAvx2(const LutLayout &layout, const uint8_t *src, uint8_t *dst, size_t pixels);
void lutRowAvx512Vbmi(const LutLayout &layout, const uint8_t *src, uint8_t *dst, size_t pixels);
void lutRowNeon(const LutLayout &layout, const uint8_t *src, uint8_t *dst, size_t pixels);

// The distinct tables of a layout and which one each byte position uses
// (-1: the byte is left as it was).
struct LutPlan {
    const uint8_t *tables[4];
    int count;
    int slot[4];
    bool keeps;  // some byte position has no table
};
LutPlan planOf(const LutLayout &layout);

// ---- Gray levels and brightness (pixels*.cpp)
void grayRowPlain(const uint8_t *src, int32_t stride, const ptrdiff_t o[3], uint8_t *dst,
                  size_t pixels);
void grayRowAvx2(const uint8_t *src, int32_t stride, const ptrdiff_t o[3], uint8_t *dst,
                 size_t pixels);
void grayRowAvx512(const uint8_t *src, int32_t stride, const ptrdiff_t o[3], uint8_t *dst,
                   size_t pixels);
void grayRowNeon(const uint8_t *src, int32_t stride, const ptrdiff_t o[3], uint8_t *dst,
                 size_t pixels);

// The gray sum T0[c1] + T1[c2] + T2[c3] is 8192 + 1868 c1 + 9617 c2 + 4899 c3
// (the terms of wz_toGray_tab); the vector forms compute it directly.
constexpr int32_t kGrayWeight[3] = {1868, 9617, 4899};
constexpr int32_t kGrayHalf = 8192;

void brightnessRowPlain(const uint8_t *src, int32_t stride, const ptrdiff_t o[3], uint8_t *dst,
                        size_t pixels);
void brightnessRowAvx2(const uint8_t *src, int32_t stride, const ptrdiff_t o[3], uint8_t *dst,
                       size_t pixels);
void brightnessRowAvx512Vbmi(const uint8_t *src, int32_t stride, const ptrdiff_t o[3], uint8_t *dst,
                             size_t pixels);
void brightnessRowNeon(const uint8_t *src, int32_t stride, const ptrdiff_t o[3], uint8_t *dst,
                       size_t pixels);

// ---- Element conversions (convert*.cpp)
void u8ToF32Plain(const uint8_t *src, uint8_t *dst, int64_t n);
void f32ToU8Plain(const uint8_t *src, uint8_t *dst, int64_t n);
void u8ToU16Plain(const uint8_t *src, uint8_t *dst, int64_t n);
void u16ToU8Plain(const uint8_t *src, uint8_t *dst, int64_t n);
void u8ToF32Avx2(const uint8_t *src, uint8_t *dst, int64_t n);
void f32ToU8Avx2(const uint8_t *src, uint8_t *dst, int64_t n);
void u8ToU16Avx2(const uint8_t *src, uint8_t *dst, int64_t n);
void u16ToU8Avx2(const uint8_t *src, uint8_t *dst, int64_t n);
void u8ToF32Avx512(const uint8_t *src, uint8_t *dst, int64_t n);
void f32ToU8Avx512(const uint8_t *src, uint8_t *dst, int64_t n);
void u8ToU16Avx512(const uint8_t *src, uint8_t *dst, int64_t n);
void u16ToU8Avx512(const uint8_t *src, uint8_t *dst, int64_t n);
void u8ToF32Neon(const uint8_t *src, uint8_t *dst, int64_t n);
void f32ToU8Neon(const uint8_t *src, uint8_t *dst, int64_t n);
void u8ToU16Neon(const uint8_t *src, uint8_t *dst, int64_t n);
void u16ToU8Neon(const uint8_t *src, uint8_t *dst, int64_t n);

// ---- Selective smoothing (smooth*.cpp, channel*.cpp)
void smoothRowPlain(const SmoothRow &job);
void smoothRowAvx2(const SmoothRow &job);
void smoothRowAvx512(const SmoothRow &job);
void smoothRowNeon(const SmoothRow &job);
void quotientsPlain(const int16_t *num, const uint16_t *count, uint8_t *q, int32_t len);
void quotientsAvx2(const int16_t *num, const uint16_t *count, uint8_t *q, int32_t len);
void quotientsAvx512(const int16_t *num, const uint16_t *count, uint8_t *q, int32_t len);
void quotientsNeon(const int16_t *num, const uint16_t *count, uint8_t *q, int32_t len);

// Division of num by n = 1..9, |num| = a <= 4335, as a multiply-high: with
// M = ceil(32768 / n) = (32768 + r) / n, where r = 0, 0, 1, 0, 2, 4, 6, 0, 1
// for n = 1..9,
//   (2a * M) >> 16 = floor(a / n + a r / (32768 n)),
// and a r <= 4335 * 6 < 32768, so the added term is below 1 / n and cannot
// lift a / n (whose fraction is at most (n - 1) / n) to the next integer:
// the result is floor(a / n). The sign goes back on afterwards, which is the
// truncation toward zero. 2a <= 8670 fits 16 unsigned bits.
alignas(64) inline constexpr uint16_t kQuotientMul[32] = {0,    32768, 16384, 10923, 8192,
                                                          6554, 5462,  4682,  4096,  3641};

// The same factors as byte halves, for 16-entry byte look-ups.
struct QuotientBytes {
    uint8_t lo[16], hi[16];
};
constexpr QuotientBytes makeQuotientBytes() {
    QuotientBytes b{};
    for (int n = 0; n < 16; ++n) {
        b.lo[n] = static_cast<uint8_t>(kQuotientMul[n] & 0xFF);
        b.hi[n] = static_cast<uint8_t>(kQuotientMul[n] >> 8);
    }
    return b;
}
alignas(16) inline constexpr QuotientBytes kQuotientBytes = makeQuotientBytes();

void readChannelPlain(const uint8_t *px, int32_t step, ptrdiff_t offset, uint8_t *dst, int32_t w);
void readChannelAvx2(const uint8_t *px, int32_t step, ptrdiff_t offset, uint8_t *dst, int32_t w);
void readChannelNeon(const uint8_t *px, int32_t step, ptrdiff_t offset, uint8_t *dst, int32_t w);
void writeChannelPlain(const uint8_t *src, uint8_t *px, int32_t step, ptrdiff_t offset, int32_t w);
void writeChannelAvx2(const uint8_t *src, uint8_t *px, int32_t step, ptrdiff_t offset, int32_t w);
void writeChannelNeon(const uint8_t *src, uint8_t *px, int32_t step, ptrdiff_t offset, int32_t w);

// ---- Matrices (matrix.cpp)
void productPlain(wzMatrix &dst, const wzMatrix &a, const wzMatrix &b, bool transposeA);
void productAvx2(wzMatrix &dst, const wzMatrix &a, const wzMatrix &b, bool transposeA);
void columnDotsPlain(double *t, double *const *X, int32_t c, int32_t k0, int32_t k1, int32_t l,
                     int32_t n);
void columnDotsAvx2(double *t, double *const *X, int32_t c, int32_t k0, int32_t k1, int32_t l,
                    int32_t n);
void vectorDotsPlain(double *t, double *const *X, const double *x, int32_t k0, int32_t k1,
                     int32_t l, int32_t n);
void vectorDotsAvx2(double *t, double *const *X, const double *x, int32_t k0, int32_t k1, int32_t l,
                    int32_t n);
void columnUpdatesPlain(double *const *X, const double *t, int32_t c, int32_t k0, int32_t k1,
                        int32_t l, int32_t n);
void columnUpdatesAvx2(double *const *X, const double *t, int32_t c, int32_t k0, int32_t k1,
                       int32_t l, int32_t n);
void reflectRowsPlain(double *const *A, int32_t j0, int32_t m, const double *ri, const double *u,
                      int32_t l, int32_t n);
void reflectRowsAvx2(double *const *A, int32_t j0, int32_t m, const double *ri, const double *u,
                     int32_t l, int32_t n);
void rotatePlain(double *x, double *z, int32_t len, double c, double s);
void rotateAvx2(double *x, double *z, int32_t len, double c, double s);

}  // namespace morven::kernels
