// One channel of a row of 3- or 4-byte pixels to a packed row and back (the
// rows that selective smoothing reads and writes). The plain loops; the
// vector forms are in channel_x86.cpp and channel_neon.cpp.
#include "kernels/variants.hpp"

namespace morven::kernels {

void readChannelPlain(const uint8_t *px, int32_t step, ptrdiff_t offset, uint8_t *dst, int32_t w) {
    for (int32_t i = 0; i < w; ++i) dst[i] = px[static_cast<ptrdiff_t>(step) * i + offset];
}

void writeChannelPlain(const uint8_t *src, uint8_t *px, int32_t step, ptrdiff_t offset, int32_t w) {
    for (int32_t i = 0; i < w; ++i) px[static_cast<ptrdiff_t>(step) * i + offset] = src[i];
}

}  // namespace morven::kernels
