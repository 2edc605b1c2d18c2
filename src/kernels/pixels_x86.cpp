// Gray levels and brightness of 8-bit colour pixels on x86-64 (the plain
// loops are in pixels.cpp).
//
// Gray: T0[b] + T1[g] + T2[r] is by definition 8192 + 1868 b + 9617 g +
// 4899 r, whose terms are at most 4186112 (no wrap in 32 bits), and a 16-bit
// multiply-add of the word pairs (b, g) by (1868, 9617) and (r, 1) by
// (4899, 8192) forms exactly those products and sums in 32-bit lanes.
//
// Brightness: 3-byte pixels hold channels 1 to 3 in some order and nothing
// else, so the brightness is the largest of the three bytes whatever the
// offsets. 4-byte pixels: the largest of the three bytes at the channel
// offsets, taken in 32-bit lanes (byte p of a pixel is the low byte of the
// lane shifted by 8 p).
#include "kernels/variants.hpp"
#include "kernels/x86.hpp"

#if MORVEN_X86

namespace morven::kernels {
namespace {

using namespace x86;

// Shuffle controls for one 16-byte lane holding four pixels from its byte 0:
// `pairs` puts b and g into the two words of each pixel's dword, `rest` puts
// r into the low word (the high word gets the 1 that carries the rounding).
struct GrayControls {
    alignas(16) uint8_t pairs[16];
    alignas(16) uint8_t rest[16];
};

GrayControls grayControls(int32_t stride, const ptrdiff_t o[3]) {
    GrayControls c;
    for (int i = 0; i < 4; ++i) {
        const int base = stride * i;
        const uint8_t px[4] = {static_cast<uint8_t>(base + o[0]), 0x80,
                               static_cast<uint8_t>(base + o[1]), 0x80};
        const uint8_t pr[4] = {static_cast<uint8_t>(base + o[2]), 0x80, 0x80, 0x80};
        for (int k = 0; k < 4; ++k) {
            c.pairs[4 * i + k] = px[k];
            c.rest[4 * i + k] = pr[k];
        }
    }
    return c;
}

constexpr int32_t kWeightsBG = kGrayWeight[0] | (kGrayWeight[1] << 16);
constexpr int32_t kWeightsR1 = kGrayWeight[2] | (kGrayHalf << 16);

// Eight gray levels as dwords from a vector whose lanes hold four pixels each.
MORVEN_AVX2 inline __m256i grayDwords256(__m256i v, __m256i pairs, __m256i rest) {
    const __m256i bg = _mm256_shuffle_epi8(v, pairs);
    const __m256i r1 = _mm256_or_si256(_mm256_shuffle_epi8(v, rest), _mm256_set1_epi32(1 << 16));
    const __m256i sum = _mm256_add_epi32(_mm256_madd_epi16(bg, _mm256_set1_epi32(kWeightsBG)),
                                         _mm256_madd_epi16(r1, _mm256_set1_epi32(kWeightsR1)));
    return _mm256_srli_epi32(sum, 14);
}

// Brightness of 32 pixels of 3 bytes from s.
MORVEN_AVX2 inline __m256i brightness3x32(const uint8_t *s) {
    __m256i v[3];
    loadPixels3(s, v);
    return _mm256_max_epu8(_mm256_max_epu8(plane3(v, 0), plane3(v, 1)), plane3(v, 2));
}

// Brightness of 32 pixels of 4 bytes from s, shift counts 8 o[k].
MORVEN_AVX2 inline __m256i brightness4x32(const uint8_t *s, const __m128i shift[3]) {
    const __m256i low = _mm256_set1_epi32(0xFF);
    __m256i m[4];
    for (int k = 0; k < 4; ++k) {
        const __m256i v = load256(s + 32 * k);
        const __m256i a =
            _mm256_max_epu8(_mm256_srl_epi32(v, shift[0]), _mm256_srl_epi32(v, shift[1]));
        m[k] = _mm256_and_si256(_mm256_max_epu8(a, _mm256_srl_epi32(v, shift[2])), low);
    }
    // The packs interleave the lanes: put the 4-pixel groups back in order.
    const __m256i bytes =
        _mm256_packus_epi16(_mm256_packus_epi32(m[0], m[1]), _mm256_packus_epi32(m[2], m[3]));
    return _mm256_permutevar8x32_epi32(bytes, _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7));
}

}  // namespace

MORVEN_AVX2 void grayRowAvx2(const uint8_t *src, int32_t stride, const ptrdiff_t o[3], uint8_t *dst,
                             size_t pixels) {
    const GrayControls c = grayControls(stride, o);
    const __m256i pairs = broadcast128(c.pairs), rest = broadcast128(c.rest);
    const size_t lane = 4 * static_cast<size_t>(stride);  // bytes of four pixels
    // Each 16-byte half load reads 16 bytes from the start of four pixels:
    // 3-byte pixels need 4 bytes beyond the 16 pixels of a step.
    const size_t need = stride == 3 ? 18 : 16;
    size_t i = 0;
    for (; i + need <= pixels; i += 16) {
        const uint8_t *s = src + i * static_cast<size_t>(stride);
        const __m256i lo = grayDwords256(load2x128(s, s + lane), pairs, rest);
        const __m256i hi = grayDwords256(load2x128(s + 2 * lane, s + 3 * lane), pairs, rest);
        // Levels are 0..255, so the saturating packs are exact.
        const __m256i words = _mm256_permute4x64_epi64(_mm256_packus_epi32(lo, hi), 0xD8);
        store128(dst + i, _mm_packus_epi16(_mm256_castsi256_si128(words),
                                           _mm256_extracti128_si256(words, 1)));
    }
    grayRowPlain(src + i * static_cast<size_t>(stride), stride, o, dst + i, pixels - i);
}

// Sixteen pixels per vector; for 3-byte pixels a dword permute first gives
// each lane the 16 bytes that start its four pixels. Masked loads and stores
// take the tail.
MORVEN_AVX512 void grayRowAvx512(const uint8_t *src, int32_t stride, const ptrdiff_t o[3],
                                 uint8_t *dst, size_t pixels) {
    const GrayControls c = grayControls(stride, o);
    const __m512i pairs = _mm512_broadcast_i32x4(load128(c.pairs));
    const __m512i rest = _mm512_broadcast_i32x4(load128(c.rest));
    const __m512i spread = _mm512_setr_epi32(0, 1, 2, 3, 3, 4, 5, 6, 6, 7, 8, 9, 9, 10, 11, 12);
    const __m512i one = _mm512_set1_epi32(1 << 16);
    const __m512i wBG = _mm512_set1_epi32(kWeightsBG);
    const __m512i wR1 = _mm512_set1_epi32(kWeightsR1);
    for (size_t i = 0; i < pixels; i += 16) {
        const size_t n = pixels - i < 16 ? pixels - i : 16;
        const uint8_t *s = src + i * static_cast<size_t>(stride);
        __m512i v = _mm512_maskz_loadu_epi8(firstBytes(n * static_cast<size_t>(stride)), s);
        if (stride == 3) v = _mm512_permutexvar_epi32(spread, v);
        const __m512i bg = _mm512_shuffle_epi8(v, pairs);
        const __m512i r1 = _mm512_or_si512(_mm512_shuffle_epi8(v, rest), one);
        const __m512i sum =
            _mm512_add_epi32(_mm512_madd_epi16(bg, wBG), _mm512_madd_epi16(r1, wR1));
        _mm512_mask_cvtepi32_storeu_epi8(dst + i, static_cast<__mmask16>((1u << n) - 1),
                                         _mm512_srli_epi32(sum, 14));
    }
}

MORVEN_AVX2 void brightnessRowAvx2(const uint8_t *src, int32_t stride, const ptrdiff_t o[3],
                                   uint8_t *out, size_t pixels) {
    size_t i = 0;
    if (stride == 3) {
        for (; i + 32 <= pixels; i += 32) store256(out + i, brightness3x32(src + 3 * i));
    } else if (stride == 4) {
        const __m128i shift[3] = {_mm_cvtsi32_si128(static_cast<int>(8 * o[0])),
                                  _mm_cvtsi32_si128(static_cast<int>(8 * o[1])),
                                  _mm_cvtsi32_si128(static_cast<int>(8 * o[2]))};
        for (; i + 32 <= pixels; i += 32) store256(out + i, brightness4x32(src + 4 * i, shift));
    }
    brightnessRowPlain(src + i * static_cast<size_t>(stride), stride, o, out + i, pixels - i);
}

// 3-byte pixels are split into planes with two-source byte permutes (VBMI),
// 64 pixels from 192 bytes; 4-byte pixels as with AVX2, 16 per vector,
// narrowed with a truncating move. Tails use masked loads and stores.
MORVEN_AVX512VBMI void brightnessRowAvx512Vbmi(const uint8_t *src, int32_t stride,
                                               const ptrdiff_t o[3], uint8_t *out, size_t pixels) {
    if (stride == 3) {
        alignas(64) uint8_t lo[3][64], hi[3][64];
        __mmask64 fromC[3] = {0, 0, 0};
        for (int p = 0; p < 3; ++p)
            for (int i = 0; i < 64; ++i) {
                const int j = 3 * i + p;
                lo[p][i] = static_cast<uint8_t>(j & 127);
                hi[p][i] = static_cast<uint8_t>(j >= 128 ? j - 128 : 0);
                if (j >= 128) fromC[p] |= __mmask64{1} << i;
            }
        __m512i ilo[3], ihi[3];
        for (int p = 0; p < 3; ++p) {
            ilo[p] = _mm512_load_si512(lo[p]);
            ihi[p] = _mm512_load_si512(hi[p]);
        }
        for (size_t i = 0; i < pixels; i += 64) {
            const size_t n = pixels - i < 64 ? pixels - i : 64, bytes = 3 * n;
            const uint8_t *s = src + 3 * i;
            const __m512i a = _mm512_maskz_loadu_epi8(firstBytes(bytes), s);
            const __m512i b =
                _mm512_maskz_loadu_epi8(firstBytes(bytes > 64 ? bytes - 64 : 0), s + 64);
            const __m512i c =
                _mm512_maskz_loadu_epi8(firstBytes(bytes > 128 ? bytes - 128 : 0), s + 128);
            __m512i m = _mm512_setzero_si512();
            for (int p = 0; p < 3; ++p) {
                __m512i plane = _mm512_permutex2var_epi8(a, ilo[p], b);
                plane = _mm512_mask_permutexvar_epi8(plane, fromC[p], ihi[p], c);
                m = _mm512_max_epu8(m, plane);
            }
            _mm512_mask_storeu_epi8(out + i, firstBytes(n), m);
        }
        return;
    }
    if (stride != 4) return brightnessRowPlain(src, stride, o, out, pixels);
    const __m128i s0 = _mm_cvtsi32_si128(static_cast<int>(8 * o[0]));
    const __m128i s1 = _mm_cvtsi32_si128(static_cast<int>(8 * o[1]));
    const __m128i s2 = _mm_cvtsi32_si128(static_cast<int>(8 * o[2]));
    for (size_t i = 0; i < pixels; i += 16) {
        const size_t n = pixels - i < 16 ? pixels - i : 16;
        const __mmask16 live = static_cast<__mmask16>((1u << n) - 1);
        const __m512i v = _mm512_maskz_loadu_epi32(live, src + 4 * i);
        const __m512i a = _mm512_max_epu8(_mm512_srl_epi32(v, s0), _mm512_srl_epi32(v, s1));
        _mm512_mask_cvtepi32_storeu_epi8(out + i, live,
                                         _mm512_max_epu8(a, _mm512_srl_epi32(v, s2)));
    }
}

}  // namespace morven::kernels

#endif  // MORVEN_X86
