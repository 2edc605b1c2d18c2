// One channel of a row of 3- or 4-byte pixels to a packed row and back, on
// ARM64 (the plain loops are in channel.cpp): 16 pixels per step, split into
// planes by ld3/ld4; writing loads the pixels, replaces one plane and stores
// them back, so the other bytes keep their values.
#include "kernels/neon.hpp"
#include "kernels/variants.hpp"

#if MORVEN_NEON

namespace morven::kernels {

void readChannelNeon(const uint8_t *px, int32_t step, ptrdiff_t offset, uint8_t *dst, int32_t w) {
    int32_t i = 0;
    for (; i + 16 <= w; i += 16)
        vst1q_u8(dst + i,
                 neon::loadPixels(px + static_cast<ptrdiff_t>(step) * i, step).val[offset]);
    readChannelPlain(px + static_cast<ptrdiff_t>(step) * i, step, offset, dst + i, w - i);
}

void writeChannelNeon(const uint8_t *src, uint8_t *px, int32_t step, ptrdiff_t offset, int32_t w) {
    int32_t i = 0;
    for (; i + 16 <= w; i += 16) {
        uint8_t *d = px + static_cast<ptrdiff_t>(step) * i;
        uint8x16x4_t v = neon::loadPixels(d, step);
        v.val[offset] = vld1q_u8(src + i);
        neon::storePixels(d, step, v);
    }
    writeChannelPlain(src + i, px + static_cast<ptrdiff_t>(step) * i, step, offset, w - i);
}

}  // namespace morven::kernels

#endif  // MORVEN_NEON
