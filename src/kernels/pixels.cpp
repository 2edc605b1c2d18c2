// Pixel-to-byte rows: the gray level of 8-bit colour pixels (wzImageCvtColor)
// and their brightness, the largest of channels 1-3 (contrast statistics).
// The plain loops; the vector forms are in pixels_x86.cpp and pixels_neon.cpp.
#include "kernels/variants.hpp"
#include "morven/color.h"

namespace morven::kernels {

void grayRowPlain(const uint8_t *p, int32_t stride, const ptrdiff_t o[3], uint8_t *dst,
                  size_t pixels) {
    const int32_t *b = wz_toGray_tab, *g = wz_toGray_tab + 256, *r = wz_toGray_tab + 512;
    for (size_t i = 0; i < pixels; ++i, p += stride)
        dst[i] = static_cast<uint8_t>((b[p[o[0]]] + g[p[o[1]]] + r[p[o[2]]]) >> 14);
}

void brightnessRowPlain(const uint8_t *p, int32_t stride, const ptrdiff_t o[3], uint8_t *dst,
                        size_t pixels) {
    for (size_t i = 0; i < pixels; ++i, p += stride) {
        const uint8_t a = p[o[0]], b = p[o[1]], c = p[o[2]];
        const uint8_t ab = a > b ? a : b;
        dst[i] = ab > c ? ab : c;
    }
}

}  // namespace morven::kernels
