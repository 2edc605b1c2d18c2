// What the x86-64 kernels share: the target attributes (the only place they
// are spelt), the intrinsics, and the load, store and shuffle helpers. Only
// the *_x86.cpp files include this header.
#pragma once

#include "kernels/isa.hpp"

#if MORVEN_X86

#include <cstddef>
#include <cstdint>

// GCC 12 reports the deliberately undefined pass-through operands inside the
// AVX-512 intrinsics as uninitialised; the reports point into the header.
#if !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <immintrin.h>
#if !defined(__clang__)
#pragma GCC diagnostic pop
#endif

// A kernel compiled for one instruction set carries its attribute; it runs
// only after isaAvailable() said yes (kernelsFor). AVX-512 kernels may use
// VBMI only under MORVEN_AVX512VBMI, which the tables pick when the
// processor has it.
#define MORVEN_AVX2 __attribute__((target("avx2")))
#define MORVEN_AVX512 __attribute__((target("avx2,avx512f,avx512bw,avx512vl")))
#define MORVEN_AVX512VBMI __attribute__((target("avx2,avx512f,avx512bw,avx512vl,avx512vbmi")))

namespace morven::x86 {

MORVEN_AVX2 inline __m128i load128(const void *p) {
    return _mm_loadu_si128(static_cast<const __m128i *>(p));
}
MORVEN_AVX2 inline void store128(void *p, __m128i v) {
    _mm_storeu_si128(static_cast<__m128i *>(p), v);
}
MORVEN_AVX2 inline __m256i load256(const void *p) {
    return _mm256_loadu_si256(static_cast<const __m256i *>(p));
}
MORVEN_AVX2 inline void store256(void *p, __m256i v) {
    _mm256_storeu_si256(static_cast<__m256i *>(p), v);
}

// Two 16-byte halves from two addresses (the low lane from lo), and back.
MORVEN_AVX2 inline __m256i load2x128(const void *lo, const void *hi) {
    return _mm256_inserti128_si256(_mm256_castsi128_si256(load128(lo)), load128(hi), 1);
}
MORVEN_AVX2 inline void store2x128(void *lo, void *hi, __m256i v) {
    store128(lo, _mm256_castsi256_si128(v));
    store128(hi, _mm256_extracti128_si256(v, 1));
}

// A 16-byte constant in both lanes.
MORVEN_AVX2 inline __m256i broadcast128(const uint8_t *c) {
    return _mm256_broadcastsi128_si256(load128(c));
}

// The low bytes of 32 16-bit lanes (q0 then q1), in order.
MORVEN_AVX2 inline void storeLowBytes256(uint8_t *dst, __m256i q0, __m256i q1) {
    const __m256i low = _mm256_set1_epi16(0xFF);
    const __m256i packed =
        _mm256_packus_epi16(_mm256_and_si256(q0, low), _mm256_and_si256(q1, low));
    store256(dst, _mm256_permute4x64_epi64(packed, 0xD8));
}

// Shuffle controls that split 48 bytes of 3-byte pixels (16 pixels) held in
// one lane of three vectors into three planes, and merge them back.
struct Split3 {
    alignas(16) uint8_t split[3][3][16];  // [plane][source vector]
    alignas(16) uint8_t merge[3][3][16];  // [output vector][plane]
    constexpr Split3() : split{}, merge{} {
        for (int p = 0; p < 3; ++p)
            for (int v = 0; v < 3; ++v)
                for (int i = 0; i < 16; ++i) {
                    const int j = 3 * i + p - 16 * v;
                    split[p][v][i] = j >= 0 && j < 16 ? static_cast<uint8_t>(j) : 0x80;
                }
        for (int v = 0; v < 3; ++v)
            for (int p = 0; p < 3; ++p)
                for (int b = 0; b < 16; ++b) {
                    const int j = 16 * v + b;
                    merge[v][p][b] = j % 3 == p ? static_cast<uint8_t>(j / 3) : 0x80;
                }
    }
};
inline constexpr Split3 kSplit3{};

// Plane p (byte p of each pixel) of the 16 pixels in each lane of v[0..2].
MORVEN_AVX2 inline __m256i plane3(const __m256i v[3], int p) {
    return _mm256_or_si256(
        _mm256_or_si256(_mm256_shuffle_epi8(v[0], broadcast128(kSplit3.split[p][0])),
                        _mm256_shuffle_epi8(v[1], broadcast128(kSplit3.split[p][1]))),
        _mm256_shuffle_epi8(v[2], broadcast128(kSplit3.split[p][2])));
}

// Output vector o of the 48-byte groups whose planes are in plane[0..2].
MORVEN_AVX2 inline __m256i merge3(const __m256i plane[3], int o) {
    return _mm256_or_si256(
        _mm256_or_si256(_mm256_shuffle_epi8(plane[0], broadcast128(kSplit3.merge[o][0])),
                        _mm256_shuffle_epi8(plane[1], broadcast128(kSplit3.merge[o][1]))),
        _mm256_shuffle_epi8(plane[2], broadcast128(kSplit3.merge[o][2])));
}

// 32 pixels of 3 bytes from p: lane 0 holds pixels 0..15, lane 1 pixels 16..31.
MORVEN_AVX2 inline void loadPixels3(const uint8_t *p, __m256i v[3]) {
    v[0] = load2x128(p, p + 48);
    v[1] = load2x128(p + 16, p + 64);
    v[2] = load2x128(p + 32, p + 80);
}

// Lane mask of the first n bytes of a 64-byte vector (all for n >= 64).
inline __mmask64 firstBytes(size_t n) { return n >= 64 ? ~__mmask64{0} : (__mmask64{1} << n) - 1; }

}  // namespace morven::x86

#endif  // MORVEN_X86
