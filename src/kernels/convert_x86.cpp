// Element-type conversions on x86-64 (the plain loops are in convert.cpp).
// Each step loads all of its source elements before it stores anything;
// widening steps walk from the end and narrowing ones from the start, and
// the few elements left over run the plain loop in the same direction.
//
// Exactness: integer to float conversion of a byte is exact and the division
// by 255 is the same correctly rounded IEEE division; the float product
// v * 255 is the same single-precision product. Truncation returns
// 0x80000000 for NaN and for products beyond the 32-bit range, which already
// has the low byte of the saturated result except for products at or above
// 2^31 (saturated to INT32_MAX, low byte 0xFF): those lanes are set apart.
#include "kernels/variants.hpp"
#include "kernels/x86.hpp"

#if MORVEN_X86

namespace morven::kernels {
namespace {

using namespace x86;

// Low bytes of the saturated truncations of v * 255.
MORVEN_AVX2 inline __m256i f32ToLowBytes256(__m256 v) {
    const __m256 p = _mm256_mul_ps(v, _mm256_set1_ps(255.0f));
    const __m256i t = _mm256_cvttps_epi32(p);
    const __m256 big = _mm256_cmp_ps(p, _mm256_set1_ps(2147483648.0f), _CMP_GE_OQ);
    const __m256i low = _mm256_set1_epi32(0xFF);
    return _mm256_or_si256(_mm256_and_si256(t, low),
                           _mm256_and_si256(_mm256_castps_si256(big), low));
}

}  // namespace

MORVEN_AVX2 void u8ToF32Avx2(const uint8_t *src, uint8_t *dst, int64_t n) {
    const __m256 scale = _mm256_set1_ps(255.0f);
    int64_t i = n;
    while (i >= 32) {
        i -= 32;
        __m256 f[4];
        for (int k = 0; k < 4; ++k) {
            const __m128i b = _mm_loadl_epi64(reinterpret_cast<const __m128i *>(src + i + 8 * k));
            f[k] = _mm256_div_ps(_mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(b)), scale);
        }
        for (int k = 0; k < 4; ++k)
            _mm256_storeu_ps(reinterpret_cast<float *>(dst + 4 * (i + 8 * k)), f[k]);
    }
    u8ToF32Plain(src, dst, i);
}

MORVEN_AVX512 void u8ToF32Avx512(const uint8_t *src, uint8_t *dst, int64_t n) {
    const __m512 scale = _mm512_set1_ps(255.0f);
    int64_t i = n;
    while (i >= 64) {
        i -= 64;
        __m512 f[4];
        for (int k = 0; k < 4; ++k)
            f[k] = _mm512_div_ps(
                _mm512_cvtepi32_ps(_mm512_cvtepu8_epi32(load128(src + i + 16 * k))), scale);
        for (int k = 0; k < 4; ++k) _mm512_storeu_ps(dst + 4 * (i + 16 * k), f[k]);
    }
    u8ToF32Plain(src, dst, i);
}

MORVEN_AVX2 void f32ToU8Avx2(const uint8_t *src, uint8_t *dst, int64_t n) {
    const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
    int64_t i = 0;
    for (; i + 32 <= n; i += 32) {
        __m256i b[4];
        for (int k = 0; k < 4; ++k)
            b[k] = f32ToLowBytes256(
                _mm256_loadu_ps(reinterpret_cast<const float *>(src + 4 * (i + 8 * k))));
        // Values are 0..255: the saturating packs are exact.
        const __m256i bytes =
            _mm256_packus_epi16(_mm256_packus_epi32(b[0], b[1]), _mm256_packus_epi32(b[2], b[3]));
        store256(dst + i, _mm256_permutevar8x32_epi32(bytes, order));
    }
    f32ToU8Plain(src + 4 * i, dst + i, n - i);
}

MORVEN_AVX512 void f32ToU8Avx512(const uint8_t *src, uint8_t *dst, int64_t n) {
    const __m512 scale = _mm512_set1_ps(255.0f);
    const __m512 limit = _mm512_set1_ps(2147483648.0f);
    const __m512i ones = _mm512_set1_epi32(0xFF);
    int64_t i = 0;
    for (; i + 64 <= n; i += 64) {
        __m128i b[4];
        for (int k = 0; k < 4; ++k) {
            const __m512 p = _mm512_mul_ps(_mm512_loadu_ps(src + 4 * (i + 16 * k)), scale);
            const __m512i t = _mm512_mask_mov_epi32(_mm512_cvttps_epi32(p),
                                                    _mm512_cmp_ps_mask(p, limit, _CMP_GE_OQ), ones);
            b[k] = _mm512_cvtepi32_epi8(t);
        }
        for (int k = 0; k < 4; ++k) store128(dst + i + 16 * k, b[k]);
    }
    f32ToU8Plain(src + 4 * i, dst + i, n - i);
}

MORVEN_AVX2 void u8ToU16Avx2(const uint8_t *src, uint8_t *dst, int64_t n) {
    int64_t i = n;
    while (i >= 32) {
        i -= 32;
        const __m256i a = _mm256_slli_epi16(_mm256_cvtepu8_epi16(load128(src + i)), 8);
        const __m256i b = _mm256_slli_epi16(_mm256_cvtepu8_epi16(load128(src + i + 16)), 8);
        store256(dst + 2 * i, a);
        store256(dst + 2 * i + 32, b);
    }
    u8ToU16Plain(src, dst, i);
}

MORVEN_AVX512 void u8ToU16Avx512(const uint8_t *src, uint8_t *dst, int64_t n) {
    int64_t i = n;
    while (i >= 64) {
        i -= 64;
        const __m512i a = _mm512_slli_epi16(_mm512_cvtepu8_epi16(load256(src + i)), 8);
        const __m512i b = _mm512_slli_epi16(_mm512_cvtepu8_epi16(load256(src + i + 32)), 8);
        _mm512_storeu_si512(dst + 2 * i, a);
        _mm512_storeu_si512(dst + 2 * i + 64, b);
    }
    u8ToU16Plain(src, dst, i);
}

MORVEN_AVX2 void u16ToU8Avx2(const uint8_t *src, uint8_t *dst, int64_t n) {
    int64_t i = 0;
    for (; i + 32 <= n; i += 32) {
        const __m256i a = _mm256_srli_epi16(load256(src + 2 * i), 8);
        const __m256i b = _mm256_srli_epi16(load256(src + 2 * i + 32), 8);
        store256(dst + i, _mm256_permute4x64_epi64(_mm256_packus_epi16(a, b), 0xD8));
    }
    u16ToU8Plain(src + 2 * i, dst + i, n - i);
}

MORVEN_AVX512 void u16ToU8Avx512(const uint8_t *src, uint8_t *dst, int64_t n) {
    int64_t i = 0;
    for (; i + 64 <= n; i += 64) {
        const __m512i a = _mm512_srli_epi16(_mm512_loadu_si512(src + 2 * i), 8);
        const __m512i b = _mm512_srli_epi16(_mm512_loadu_si512(src + 2 * i + 64), 8);
        store256(dst + i, _mm512_cvtepi16_epi8(a));
        store256(dst + i + 32, _mm512_cvtepi16_epi8(b));
    }
    u16ToU8Plain(src + 2 * i, dst + i, n - i);
}

}  // namespace morven::kernels

#endif  // MORVEN_X86
