// Element-type conversions on ARM64 (the plain loops and the walk order are
// in convert.cpp): 16 elements per step, all loaded before any is stored.
//
// Exactness: a byte converts to float exactly and the division by 255 is
// the same correctly rounded IEEE division; the product v * 255 is the same
// single-precision product (no fused multiply-add). The float to integer
// conversion (fcvtzs) truncates toward zero and saturates to the 32-bit
// range with NaN giving 0, which is the library's rule; the narrowing moves
// keep the low byte.
#include "kernels/neon.hpp"
#include "kernels/variants.hpp"

#if MORVEN_NEON

namespace morven::kernels {

void u8ToF32Neon(const uint8_t *src, uint8_t *dst, int64_t n) {
    const float32x4_t scale = vdupq_n_f32(255.0f);
    int64_t i = n;
    while (i >= 16) {
        i -= 16;
        const uint8x16_t b = vld1q_u8(src + i);
        const uint16x8_t lo = vmovl_u8(vget_low_u8(b)), hi = vmovl_high_u8(b);
        const uint32x4_t w[4] = {vmovl_u16(vget_low_u16(lo)), vmovl_high_u16(lo),
                                 vmovl_u16(vget_low_u16(hi)), vmovl_high_u16(hi)};
        for (int k = 0; k < 4; ++k)
            vst1q_u8(dst + 4 * i + 16 * k,
                     vreinterpretq_u8_f32(vdivq_f32(vcvtq_f32_u32(w[k]), scale)));
    }
    u8ToF32Plain(src, dst, i);
}

void f32ToU8Neon(const uint8_t *src, uint8_t *dst, int64_t n) {
    const float32x4_t scale = vdupq_n_f32(255.0f);
    int64_t i = 0;
    for (; i + 16 <= n; i += 16) {
        uint16x4_t t[4];
        for (int k = 0; k < 4; ++k) {
            const float32x4_t v = vreinterpretq_f32_u8(vld1q_u8(src + 4 * i + 16 * k));
            t[k] = vmovn_u32(vreinterpretq_u32_s32(vcvtq_s32_f32(vmulq_f32(v, scale))));
        }
        vst1q_u8(dst + i, vcombine_u8(vmovn_u16(vcombine_u16(t[0], t[1])),
                                      vmovn_u16(vcombine_u16(t[2], t[3]))));
    }
    f32ToU8Plain(src + 4 * i, dst + i, n - i);
}

void u8ToU16Neon(const uint8_t *src, uint8_t *dst, int64_t n) {
    int64_t i = n;
    while (i >= 16) {
        i -= 16;
        const uint8x16_t b = vld1q_u8(src + i);
        vst1q_u8(dst + 2 * i, vreinterpretq_u8_u16(vshll_n_u8(vget_low_u8(b), 8)));
        vst1q_u8(dst + 2 * i + 16, vreinterpretq_u8_u16(vshll_high_n_u8(b, 8)));
    }
    u8ToU16Plain(src, dst, i);
}

void u16ToU8Neon(const uint8_t *src, uint8_t *dst, int64_t n) {
    int64_t i = 0;
    for (; i + 16 <= n; i += 16) {
        const uint16x8_t a = vreinterpretq_u16_u8(vld1q_u8(src + 2 * i));
        const uint16x8_t b = vreinterpretq_u16_u8(vld1q_u8(src + 2 * i + 16));
        vst1q_u8(dst + i, vcombine_u8(vshrn_n_u16(a, 8), vshrn_n_u16(b, 8)));
    }
    u16ToU8Plain(src + 2 * i, dst + i, n - i);
}

}  // namespace morven::kernels

#endif  // MORVEN_NEON
