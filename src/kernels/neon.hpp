// What the ARM64 kernels share: Advanced SIMD (always there on ARM64, so no
// attributes and no run-time check) and the helpers that load and store
// interleaved pixels. Only the *_neon.cpp files include this header.
#pragma once

#include "kernels/isa.hpp"

#if MORVEN_NEON

#include <arm_neon.h>

#include <cstddef>
#include <cstdint>

namespace morven::neon {

// 16 pixels of 3 or 4 bytes from p, byte k of each pixel in plane k (plane 3
// of 3-byte pixels is zero).
inline uint8x16x4_t loadPixels(const uint8_t *p, int32_t stride) {
    if (stride == 4) return vld4q_u8(p);
    const uint8x16x3_t v = vld3q_u8(p);
    return uint8x16x4_t{{v.val[0], v.val[1], v.val[2], vdupq_n_u8(0)}};
}

// The inverse of loadPixels: 16 pixels of 3 or 4 bytes to p.
inline void storePixels(uint8_t *p, int32_t stride, const uint8x16x4_t &v) {
    if (stride == 4) return vst4q_u8(p, v);
    vst3q_u8(p, uint8x16x3_t{{v.val[0], v.val[1], v.val[2]}});
}

}  // namespace morven::neon

#endif  // MORVEN_NEON
