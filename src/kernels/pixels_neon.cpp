// Gray levels and brightness of 8-bit colour pixels on ARM64 (the plain
// loops are in pixels.cpp): 16 pixels per step, split into planes by
// ld3/ld4. The gray sum 8192 + 1868 c1 + 9617 c2 + 4899 c3 is formed
// exactly in 32-bit lanes by widening multiply-adds, and the rounding shift
// by 14 adds the 8192.
#include "kernels/neon.hpp"
#include "kernels/variants.hpp"

#if MORVEN_NEON

namespace morven::kernels {
namespace {

using namespace neon;

// (8192 + w0 a + w1 b + w2 c) >> 14 for 8 pixels of 16-bit channel values.
inline uint16x8_t gray8(uint16x8_t a, uint16x8_t b, uint16x8_t c) {
    uint32x4_t lo = vmull_n_u16(vget_low_u16(a), kGrayWeight[0]);
    lo = vmlal_n_u16(lo, vget_low_u16(b), kGrayWeight[1]);
    lo = vmlal_n_u16(lo, vget_low_u16(c), kGrayWeight[2]);
    uint32x4_t hi = vmull_high_n_u16(a, kGrayWeight[0]);
    hi = vmlal_high_n_u16(hi, b, kGrayWeight[1]);
    hi = vmlal_high_n_u16(hi, c, kGrayWeight[2]);
    static_assert(kGrayHalf == 1 << 13, "the rounding shift adds 2^13");
    return vcombine_u16(vrshrn_n_u32(lo, 14), vrshrn_n_u32(hi, 14));
}

template <int Stride>
size_t grayPixels(const uint8_t *src, const ptrdiff_t o[3], uint8_t *dst, size_t pixels) {
    size_t i = 0;
    for (; i + 16 <= pixels; i += 16) {
        const uint8x16x4_t v = loadPixels(src + Stride * i, Stride);
        const uint8x16_t a = v.val[o[0]], b = v.val[o[1]], c = v.val[o[2]];
        const uint16x8_t lo =
            gray8(vmovl_u8(vget_low_u8(a)), vmovl_u8(vget_low_u8(b)), vmovl_u8(vget_low_u8(c)));
        const uint16x8_t hi = gray8(vmovl_high_u8(a), vmovl_high_u8(b), vmovl_high_u8(c));
        vst1q_u8(dst + i, vcombine_u8(vmovn_u16(lo), vmovn_u16(hi)));
    }
    return i;
}

template <int Stride>
size_t brightnessPixels(const uint8_t *src, const ptrdiff_t o[3], uint8_t *dst, size_t pixels) {
    size_t i = 0;
    for (; i + 16 <= pixels; i += 16) {
        const uint8x16x4_t v = loadPixels(src + Stride * i, Stride);
        vst1q_u8(dst + i, vmaxq_u8(vmaxq_u8(v.val[o[0]], v.val[o[1]]), v.val[o[2]]));
    }
    return i;
}

}  // namespace

void grayRowNeon(const uint8_t *src, int32_t stride, const ptrdiff_t o[3], uint8_t *dst,
                 size_t pixels) {
    const size_t done = stride == 3   ? grayPixels<3>(src, o, dst, pixels)
                        : stride == 4 ? grayPixels<4>(src, o, dst, pixels)
                                      : 0;
    grayRowPlain(src + done * static_cast<size_t>(stride), stride, o, dst + done, pixels - done);
}

void brightnessRowNeon(const uint8_t *src, int32_t stride, const ptrdiff_t o[3], uint8_t *dst,
                       size_t pixels) {
    const size_t done = stride == 3   ? brightnessPixels<3>(src, o, dst, pixels)
                        : stride == 4 ? brightnessPixels<4>(src, o, dst, pixels)
                                      : 0;
    brightnessRowPlain(src + done * static_cast<size_t>(stride), stride, o, dst + done,
                       pixels - done);
}

}  // namespace morven::kernels

#endif  // MORVEN_NEON
