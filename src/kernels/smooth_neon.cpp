// One row of the row-pipelined smoothing pass on ARM64 (the plain loop and
// the rule are in smooth.cpp; smooth_x86.cpp explains the vector form, which
// this one follows with 16 pixels per step and masks as bytes). The
// quotient is the multiply-high of kQuotientMul, its factor looked up with
// tbl from the count.
#include <algorithm>

#include "kernels/neon.hpp"
#include "kernels/variants.hpp"

#if MORVEN_NEON

namespace morven::kernels {
namespace {

// 0xFF where the pair is accepted and the lane is valid: e - 2d and t - d,
// both saturated, are nonzero.
inline uint8x16_t acceptPairs(uint8x16_t valid, uint8x16_t gp, uint8x16_t gq, uint8x16_t xp,
                              uint8x16_t xq, uint8x16_t tc) {
    const uint8x16_t d = vabdq_u8(gp, gq), e = vabdq_u8(xp, xq);
    const uint8x16_t both = vminq_u8(vqsubq_u8(e, vqaddq_u8(d, d)), vqsubq_u8(tc, d));
    return vandq_u8(vtstq_u8(both, both), valid);
}

// trunc(num / n) for 8 lanes, n in 1..9.
inline int16x8_t quotient(int16x8_t num, int16x8_t n) {
    const uint8x8_t idx = vmovn_u16(vreinterpretq_u16_s16(n));
    const uint8x8_t lo = vqtbl1_u8(vld1q_u8(kQuotientBytes.lo), idx),
                    hi = vqtbl1_u8(vld1q_u8(kQuotientBytes.hi), idx);
    const uint16x8_t mul = vorrq_u16(vmovl_u8(lo), vshll_n_u8(hi, 8));
    const uint16x8_t a = vreinterpretq_u16_s16(vabsq_s16(num));
    const uint16x8_t a2 = vaddq_u16(a, a);
    const uint16x8_t q =
        vcombine_u16(vshrn_n_u32(vmull_u16(vget_low_u16(a2), vget_low_u16(mul)), 16),
                     vshrn_n_u32(vmull_high_u16(a2, mul), 16));
    const int16x8_t sign = vshrq_n_s16(num, 15);
    return vsubq_s16(veorq_s16(vreinterpretq_s16_u16(q), sign), sign);
}

// Adds neighbour q (mask bytes at m, u at u) to the 8 pixels' sum and count.
inline void take(int16x8_t &sum, int16x8_t &n, const uint8_t *m, const int16_t *u) {
    const int16x8_t k = vmovl_s8(vreinterpret_s8_u8(vld1_u8(m)));
    sum = vaddq_s16(sum, vandq_s16(k, vld1q_s16(u)));
    n = vsubq_s16(n, k);
}

// New values of pixels i .. i + 7 of row r; stores their x - g, returns the
// quotients.
inline int16x8_t finish(const SmoothRow &j, int32_t i) {
    const uint8_t *cH = j.curMasks, *cV = cH + j.maskStride, *cDR = cV + j.maskStride,
                  *cDL = cDR + j.maskStride;
    const uint8_t *pV = j.prevMasks + j.maskStride, *pDR = pV + j.maskStride,
                  *pDL = pDR + j.maskStride;
    int16x8_t sum = vld1q_s16(j.uB + i), n = vdupq_n_s16(1);
    take(sum, n, cH + i, j.uB + i + 1);       // right
    take(sum, n, cH + i - 1, j.uB + i - 1);   // left
    take(sum, n, cV + i, j.uC + i);           // below
    take(sum, n, cDR + i, j.uC + i + 1);      // below-right
    take(sum, n, cDL + i, j.uC + i - 1);      // below-left
    take(sum, n, pV + i, j.uA + i);           // above
    take(sum, n, pDR + i - 1, j.uA + i - 1);  // above-left
    take(sum, n, pDL + i + 1, j.uA + i + 1);  // above-right
    const int16x8_t g = vreinterpretq_s16_u16(vmovl_u8(vld1_u8(j.gB + i)));
    const int16x8_t q = quotient(vmlaq_s16(sum, n, g), n);
    if (j.uOut) vst1q_s16(j.uOut + i, vsubq_s16(vandq_s16(q, vdupq_n_s16(0xFF)), g));
    return q;
}

}  // namespace

void smoothRowNeon(const SmoothRow &job) {
    const SmoothRow j = job;  // a local copy: the stores below may alias the record
    const uint8x16_t tc = vdupq_n_u8(j.tc);
    alignas(16) static constexpr uint8_t kIota[16] = {0, 1, 2,  3,  4,  5,  6,  7,
                                                      8, 9, 10, 11, 12, 13, 14, 15};
    const uint8x16_t iota = vld1q_u8(kIota);
    uint8_t *cH = j.curMasks, *cV = cH + j.maskStride, *cDR = cV + j.maskStride,
            *cDL = cDR + j.maskStride;
    // Pair masks of the row first: the left pair of a pixel is the right
    // pair of the one before, read back shifted once the row is complete.
    for (int32_t i = 0; i < j.w; i += 16) {
        const int32_t rem = std::min(j.w - i, 64);
        const uint8x16_t valid = vcltq_u8(iota, vdupq_n_u8(static_cast<uint8_t>(rem)));
        const uint8x16_t validR = vcltq_u8(iota, vdupq_n_u8(static_cast<uint8_t>(rem - 1)));
        const uint8x16_t gb = vld1q_u8(j.gB + i), xb = vld1q_u8(j.xB + i);
        vst1q_u8(cH + i,
                 acceptPairs(validR, gb, vld1q_u8(j.gB + i + 1), xb, vld1q_u8(j.xB + i + 1), tc));
        uint8x16_t v = vdupq_n_u8(0), dr = v, dl = v;
        if (j.gC) {
            const uint8x16_t validL =
                i == 0 ? vandq_u8(valid, vcgtq_u8(iota, vdupq_n_u8(0))) : valid;
            v = acceptPairs(valid, gb, vld1q_u8(j.gC + i), xb, vld1q_u8(j.xC + i), tc);
            dr = acceptPairs(validR, gb, vld1q_u8(j.gC + i + 1), xb, vld1q_u8(j.xC + i + 1), tc);
            dl = acceptPairs(validL, gb, vld1q_u8(j.gC + i - 1), xb, vld1q_u8(j.xC + i - 1), tc);
        }
        vst1q_u8(cV + i, v);
        vst1q_u8(cDR + i, dr);
        vst1q_u8(cDL + i, dl);
    }
    for (int32_t i = 0; i < j.w; i += 16) {
        const int16x8_t q0 = finish(j, i), q1 = finish(j, i + 8);
        vst1q_u8(j.xOut + i, vcombine_u8(vmovn_u16(vreinterpretq_u16_s16(q0)),
                                         vmovn_u16(vreinterpretq_u16_s16(q1))));
    }
}

void quotientsNeon(const int16_t *num, const uint16_t *count, uint8_t *q, int32_t len) {
    for (int32_t i = 0; i < len; i += 8) {
        const int16x8_t r =
            quotient(vld1q_s16(num + i), vreinterpretq_s16_u16(vld1q_u16(count + i)));
        vst1_u8(q + i, vmovn_u16(vreinterpretq_u16_s16(r)));
    }
}

}  // namespace morven::kernels

#endif  // MORVEN_NEON
