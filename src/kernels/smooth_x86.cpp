// One row of the row-pipelined smoothing pass on x86-64 (the plain loop and
// the rule are in smooth.cpp).
//
// The acceptance test runs on bytes: e > 2d is e > adds_u8(d, d), because a
// saturated 2d of 255 is never exceeded and no d >= 128 can pass anyway.
// For each pixel p of row B the acceptance of its pairs with the right
// neighbour (H), the pixel below (V), below-right (DR) and below-left (DL) is
// computed once, as masks; the next row takes V, DR and DL as its up,
// up-left and up-right pairs. Sums stay within 16-bit lanes (see smooth.cpp);
// the quotient is a multiply-high (kQuotientMul). Lanes past the row end
// compute garbage that the masks keep out of every pixel of the row.
#include <algorithm>

#include "kernels/variants.hpp"
#include "kernels/x86.hpp"

#if MORVEN_X86

namespace morven::kernels {
namespace {

using namespace x86;

// ---- AVX2: 32 pixels per step, masks as bytes.

// 0xFF where the pair is accepted and the lane is valid.
MORVEN_AVX2 inline __m256i acceptPairs256(__m256i valid, __m256i gp, __m256i gq, __m256i xp,
                                          __m256i xq, __m256i tc) {
    const __m256i d = _mm256_or_si256(_mm256_subs_epu8(gp, gq), _mm256_subs_epu8(gq, gp));
    const __m256i e = _mm256_or_si256(_mm256_subs_epu8(xp, xq), _mm256_subs_epu8(xq, xp));
    // Both e - 2d and t - d (saturated) are nonzero exactly for an accepted pair.
    const __m256i both =
        _mm256_min_epu8(_mm256_subs_epu8(e, _mm256_adds_epu8(d, d)), _mm256_subs_epu8(tc, d));
    return _mm256_andnot_si256(_mm256_cmpeq_epi8(both, _mm256_setzero_si256()), valid);
}

// trunc(num / n) for n in 1..9.
MORVEN_AVX2 inline __m256i quotient256(__m256i num, __m256i n) {
    const __m256i lo = broadcast128(kQuotientBytes.lo), hi = broadcast128(kQuotientBytes.hi);
    // Byte index n in the low byte of each lane, 0x80 (gives 0) in the high one.
    const __m256i idx = _mm256_or_si256(n, _mm256_set1_epi16(static_cast<int16_t>(0x8000)));
    const __m256i mul = _mm256_or_si256(_mm256_shuffle_epi8(lo, idx),
                                        _mm256_slli_epi16(_mm256_shuffle_epi8(hi, idx), 8));
    const __m256i a = _mm256_abs_epi16(num);
    return _mm256_sign_epi16(_mm256_mulhi_epu16(_mm256_add_epi16(a, a), mul), num);
}

// Adds neighbour q (mask bytes at m, u at u) to the 16 pixels' sum and count.
MORVEN_AVX2 inline void take256(__m256i &sum, __m256i &n, const uint8_t *m, const int16_t *u) {
    const __m256i k = _mm256_cvtepi8_epi16(load128(m));
    sum = _mm256_add_epi16(sum, _mm256_and_si256(k, load256(u)));
    n = _mm256_sub_epi16(n, k);
}

// New values of pixels i .. i + 15 of row r; stores their x - g, returns the
// quotients.
MORVEN_AVX2 inline __m256i finishAvx2(const SmoothRow &j, int32_t i) {
    const uint8_t *cH = j.curMasks, *cV = cH + j.maskStride, *cDR = cV + j.maskStride,
                  *cDL = cDR + j.maskStride;
    const uint8_t *pV = j.prevMasks + j.maskStride, *pDR = pV + j.maskStride,
                  *pDL = pDR + j.maskStride;
    __m256i sum = load256(j.uB + i), n = _mm256_set1_epi16(1);
    take256(sum, n, cH + i, j.uB + i + 1);       // right
    take256(sum, n, cH + i - 1, j.uB + i - 1);   // left
    take256(sum, n, cV + i, j.uC + i);           // below
    take256(sum, n, cDR + i, j.uC + i + 1);      // below-right
    take256(sum, n, cDL + i, j.uC + i - 1);      // below-left
    take256(sum, n, pV + i, j.uA + i);           // above
    take256(sum, n, pDR + i - 1, j.uA + i - 1);  // above-left
    take256(sum, n, pDL + i + 1, j.uA + i + 1);  // above-right
    const __m256i g = _mm256_cvtepu8_epi16(load128(j.gB + i));
    const __m256i q = quotient256(_mm256_add_epi16(sum, _mm256_mullo_epi16(n, g)), n);
    if (j.uOut)
        store256(j.uOut + i, _mm256_sub_epi16(_mm256_and_si256(q, _mm256_set1_epi16(0xFF)), g));
    return q;
}

// ---- AVX-512: 64 pixels per step, masks as bits.

// GCC 12's 256-bit extracts and narrowings start from a self-initialised
// "undefined" vector, which -Wmaybe-uninitialized reports wrongly.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

MORVEN_AVX512 inline __m512i load512(const void *p) { return _mm512_loadu_si512(p); }

MORVEN_AVX512 inline __mmask64 acceptPairs512(__mmask64 valid, __m512i gp, __m512i gq, __m512i xp,
                                              __m512i xq, __m512i tc) {
    const __m512i d = _mm512_or_si512(_mm512_subs_epu8(gp, gq), _mm512_subs_epu8(gq, gp));
    const __m512i e = _mm512_or_si512(_mm512_subs_epu8(xp, xq), _mm512_subs_epu8(xq, xp));
    const __mmask64 near = _mm512_mask_cmplt_epu8_mask(valid, d, tc);
    return _mm512_mask_cmpgt_epu8_mask(near, e, _mm512_adds_epu8(d, d));
}

MORVEN_AVX512 inline __m512i quotient512(__m512i num, __m512i n) {
    const __m512i a = _mm512_abs_epi16(num);
    const __m512i mul = _mm512_permutexvar_epi16(n, _mm512_load_si512(kQuotientMul));
    const __m512i q = _mm512_mulhi_epu16(_mm512_add_epi16(a, a), mul);
    return _mm512_mask_sub_epi16(q, _mm512_movepi16_mask(num), _mm512_setzero_si512(), q);
}

// Adds neighbour q (mask bits m, u at u) to the 64 pixels' sums and counts.
MORVEN_AVX512 inline void take512(__m512i &lo, __m512i &hi, __m512i &n, uint64_t m,
                                  const int16_t *u) {
    n = _mm512_mask_add_epi8(n, m, n, _mm512_set1_epi8(1));
    lo = _mm512_mask_add_epi16(lo, static_cast<__mmask32>(m), lo, load512(u));
    hi = _mm512_mask_add_epi16(hi, static_cast<__mmask32>(m >> 32), hi, load512(u + 32));
}

// Quotients of 32 pixels from their sums, counts and guide values; stores
// the new values and, when uOut is given, their x - g.
MORVEN_AVX512 inline void finish512(__m512i sum, __m512i n, __m512i g, uint8_t *xOut,
                                    int16_t *uOut) {
    const __m512i q = quotient512(_mm512_add_epi16(sum, _mm512_mullo_epi16(n, g)), n);
    store256(xOut, _mm512_cvtepi16_epi8(q));
    if (uOut)
        _mm512_storeu_si512(uOut,
                            _mm512_sub_epi16(_mm512_and_si512(q, _mm512_set1_epi16(0xFF)), g));
}

// The pair masks of 64 pixels from i: the right pairs (returned) and the
// pairs with the next row (stored as words k of the V, DR and DL arrays).
struct Pairs512 {
    uint64_t right, below, belowRight, belowLeft;
};

MORVEN_AVX512 inline Pairs512 pairs512(const SmoothRow &j, int32_t i, __m512i tc) {
    const int32_t rem = j.w - i;
    const uint64_t valid = rem >= 64 ? ~0ull : (1ull << rem) - 1;
    const uint64_t validR = rem > 64 ? ~0ull : (1ull << (rem - 1)) - 1;  // a right neighbour exists
    const __m512i gb = load512(j.gB + i), xb = load512(j.xB + i);
    Pairs512 p{acceptPairs512(validR, gb, load512(j.gB + i + 1), xb, load512(j.xB + i + 1), tc), 0,
               0, 0};
    if (j.gC) {
        p.below = acceptPairs512(valid, gb, load512(j.gC + i), xb, load512(j.xC + i), tc);
        p.belowRight =
            acceptPairs512(validR, gb, load512(j.gC + i + 1), xb, load512(j.xC + i + 1), tc);
        p.belowLeft = acceptPairs512(i == 0 ? valid & ~1ull : valid, gb, load512(j.gC + i - 1), xb,
                                     load512(j.xC + i - 1), tc);
    }
    return p;
}

}  // namespace

MORVEN_AVX2 void smoothRowAvx2(const SmoothRow &job) {
    const SmoothRow j = job;  // a local copy: the stores below may alias the record
    const __m256i tc = _mm256_set1_epi8(static_cast<char>(j.tc));
    const __m256i iota =
        _mm256_setr_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20,
                         21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31);
    uint8_t *cH = j.curMasks, *cV = cH + j.maskStride, *cDR = cV + j.maskStride,
            *cDL = cDR + j.maskStride;
    // Pair masks of the row first: the left pair of a pixel is the right
    // pair of the one before, read back shifted once the row is complete.
    for (int32_t i = 0; i < j.w; i += 32) {
        const int32_t rem = std::min(j.w - i, 64);
        const __m256i valid = _mm256_cmpgt_epi8(_mm256_set1_epi8(static_cast<char>(rem)), iota);
        const __m256i validR =
            _mm256_cmpgt_epi8(_mm256_set1_epi8(static_cast<char>(rem - 1)), iota);
        const __m256i gb = load256(j.gB + i), xb = load256(j.xB + i);
        store256(cH + i,
                 acceptPairs256(validR, gb, load256(j.gB + i + 1), xb, load256(j.xB + i + 1), tc));
        __m256i v = _mm256_setzero_si256(), dr = v, dl = v;
        if (j.gC) {
            const __m256i validL = i == 0 ? _mm256_cmpgt_epi8(iota, _mm256_setzero_si256()) : valid;
            v = acceptPairs256(valid, gb, load256(j.gC + i), xb, load256(j.xC + i), tc);
            dr = acceptPairs256(validR, gb, load256(j.gC + i + 1), xb, load256(j.xC + i + 1), tc);
            dl = acceptPairs256(_mm256_and_si256(valid, validL), gb, load256(j.gC + i - 1), xb,
                                load256(j.xC + i - 1), tc);
        }
        store256(cV + i, v);
        store256(cDR + i, dr);
        store256(cDL + i, dl);
    }
    for (int32_t i = 0; i < j.w; i += 32) {
        const __m256i q0 = finishAvx2(j, i);
        const __m256i q1 = finishAvx2(j, i + 16);
        storeLowBytes256(j.xOut + i, q0, q1);
    }
}

MORVEN_AVX512 void smoothRowAvx512(const SmoothRow &job) {
    const SmoothRow j = job;  // a local copy: the stores below may alias the record
    const __m512i tc = _mm512_set1_epi8(static_cast<char>(j.tc));
    const ptrdiff_t words = j.maskStride / 8;
    uint64_t *const cV = reinterpret_cast<uint64_t *>(j.curMasks) + words, *const cDR = cV + words,
                    *const cDL = cDR + words;
    const uint64_t *const pV = reinterpret_cast<const uint64_t *>(j.prevMasks) + words,
                          *const pDR = pV + words, *const pDL = pDR + words;
    uint64_t carry = 0;  // bit 63 of the previous word of right pairs
    for (int32_t i = 0, k = 0; i < j.w; i += 64, ++k) {
        const Pairs512 p = pairs512(j, i, tc);
        cV[k] = p.below;
        cDR[k] = p.belowRight;
        cDL[k] = p.belowLeft;
        const uint64_t left = p.right << 1 | carry;
        carry = p.right >> 63;
        // Pairs with row r - 1: the pixel above's V, the above-left one's DR,
        // the above-right one's DL (guard words at -1 and past the end are 0).
        const uint64_t aboveLeft = pDR[k] << 1 | pDR[k - 1] >> 63;
        const uint64_t aboveRight = pDL[k] >> 1 | pDL[k + 1] << 63;
        const int16_t *uA = j.uA + i, *uB = j.uB + i, *uC = j.uC + i;
        __m512i lo = load512(uB), hi = load512(uB + 32), n = _mm512_set1_epi8(1);
        take512(lo, hi, n, p.right, uB + 1);
        take512(lo, hi, n, left, uB - 1);
        take512(lo, hi, n, p.below, uC);
        take512(lo, hi, n, p.belowRight, uC + 1);
        take512(lo, hi, n, p.belowLeft, uC - 1);
        take512(lo, hi, n, pV[k], uA);
        take512(lo, hi, n, aboveLeft, uA - 1);
        take512(lo, hi, n, aboveRight, uA + 1);
        int16_t *uOut = j.uOut ? j.uOut + i : nullptr;
        finish512(lo, _mm512_cvtepu8_epi16(_mm512_castsi512_si256(n)),
                  _mm512_cvtepu8_epi16(load256(j.gB + i)), j.xOut + i, uOut);
        finish512(hi, _mm512_cvtepu8_epi16(_mm512_extracti64x4_epi64(n, 1)),
                  _mm512_cvtepu8_epi16(load256(j.gB + i + 32)), j.xOut + i + 32,
                  uOut ? uOut + 32 : nullptr);
    }
}

MORVEN_AVX2 void quotientsAvx2(const int16_t *num, const uint16_t *count, uint8_t *q, int32_t len) {
    for (int32_t i = 0; i < len; i += 32)
        storeLowBytes256(q + i, quotient256(load256(num + i), load256(count + i)),
                         quotient256(load256(num + i + 16), load256(count + i + 16)));
}

MORVEN_AVX512 void quotientsAvx512(const int16_t *num, const uint16_t *count, uint8_t *q,
                                   int32_t len) {
    for (int32_t i = 0; i < len; i += 32)
        store256(q + i, _mm512_cvtepi16_epi8(quotient512(load512(num + i), load512(count + i))));
}

#pragma GCC diagnostic pop

}  // namespace morven::kernels

#endif  // MORVEN_X86
