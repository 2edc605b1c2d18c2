// One channel of a row of 3- or 4-byte pixels to a packed row and back, on
// x86-64 (the plain loops are in channel.cpp): 16 pixels per step with byte
// shuffles over the 16-byte blocks of those pixels, so that only the row's
// own bytes are touched; the rest one by one.
#include "kernels/variants.hpp"
#include "kernels/x86.hpp"

#if MORVEN_X86

namespace morven::kernels {
namespace {

using namespace x86;

// For block k of 16 pixels of `step` bytes: the byte of the block holding
// the channel byte of pixel j, or -128 (shuffles in a zero) when outside.
MORVEN_AVX2 inline __m128i gatherIndex(int32_t step, ptrdiff_t offset, int32_t k) {
    alignas(16) int8_t t[16];
    for (int32_t j = 0; j < 16; ++j) {
        const ptrdiff_t pos = offset + step * j - 16 * k;
        t[j] = static_cast<int8_t>(pos >= 0 && pos < 16 ? pos : -128);
    }
    return load128(t);
}

}  // namespace

MORVEN_AVX2 void readChannelAvx2(const uint8_t *px, int32_t step, ptrdiff_t offset, uint8_t *dst,
                                 int32_t w) {
    __m128i idx[4];
    for (int32_t k = 0; k < step; ++k) idx[k] = gatherIndex(step, offset, k);
    int32_t i = 0;
    for (; i + 16 <= w; i += 16) {
        const uint8_t *s = px + static_cast<ptrdiff_t>(step) * i;
        __m128i v = _mm_shuffle_epi8(load128(s), idx[0]);
        for (int32_t k = 1; k < step; ++k)
            v = _mm_or_si128(v, _mm_shuffle_epi8(load128(s + 16 * k), idx[k]));
        store128(dst + i, v);
    }
    readChannelPlain(px + static_cast<ptrdiff_t>(step) * i, step, offset, dst + i, w - i);
}

MORVEN_AVX2 void writeChannelAvx2(const uint8_t *src, uint8_t *px, int32_t step, ptrdiff_t offset,
                                  int32_t w) {
    // For block k: which of the 16 values each byte takes, and whether it
    // takes one (else it keeps its byte).
    __m128i idx[4], take[4];
    for (int32_t k = 0; k < step; ++k) {
        alignas(16) int8_t t[16], m[16];
        for (int32_t b = 0; b < 16; ++b) {
            const ptrdiff_t rel = 16 * k + b - offset;
            const bool mine = rel >= 0 && rel % step == 0;
            t[b] = static_cast<int8_t>(mine ? rel / step : -128);
            m[b] = static_cast<int8_t>(mine ? -1 : 0);
        }
        idx[k] = load128(t);
        take[k] = load128(m);
    }
    int32_t i = 0;
    for (; i + 16 <= w; i += 16) {
        const __m128i v = load128(src + i);
        uint8_t *d = px + static_cast<ptrdiff_t>(step) * i;
        for (int32_t k = 0; k < step; ++k)
            store128(d + 16 * k,
                     _mm_blendv_epi8(load128(d + 16 * k), _mm_shuffle_epi8(v, idx[k]), take[k]));
    }
    writeChannelPlain(src + i, px + static_cast<ptrdiff_t>(step) * i, step, offset, w - i);
}

}  // namespace morven::kernels

#endif  // MORVEN_X86
