// Selective smoothing: the support object with its difference and ratio
// tables, and the guided per-channel smoothing filter.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include "common/cancel.hpp"
#include "common/cpu.hpp"
#include "common/memory.hpp"
#include "image/image_internal.hpp"
#include "morven/color.h"
#include "morven/smoothing.h"
#include "smoothing/smoothing_internal.hpp"

using namespace morven;

namespace {

constexpr int32_t kLevels = 256;

// The per-call integer view of the support's tables, read once through their
// row pointers. A difference table depends on i - j only, so it is kept as
// one diagonal per value of i - j, which stays in the first-level cache:
//   valueDiff[i - j + 255] = absDiff[i][j] as an integer (0..255);
//   guideDiff[i - j + 255] = the same, capped at cap = min(t, 256);
//   accept[d * 256 + e]    = 1 when a pair with guide difference d and input
//                            difference e is smoothed (d < t, e >= 1 and
//                            ratio[d][e] < 0.5), else 0; row cap is all 0,
//                            so capping d keeps the table at cap + 1 rows.
// A pair is then two difference look-ups and one acceptance look-up.
struct PairTables {
    uint8_t valueDiff[2 * kLevels - 1];
    uint8_t guideDiff[2 * kLevels - 1];
    FreePtr<uint8_t> accept;
};

// Builds the view; false when an allocation fails or when the support does
// not hold such tables (too small, or a difference outside 0..255 or not a
// function of i - j: a support not made by wzSelectiveSmoothSupportCreate).
bool buildPairTables(const wzSelectiveSmoothSupport &support, int32_t t, PairTables &out) {
    const wzMatrix *ad = support.absDiff;
    const wzMatrix *ra = support.ratio;
    if (!ad || !ra || ad->nRows < kLevels || ad->nCols < kLevels || ra->nRows < kLevels ||
        ra->nCols < kLevels)
        return false;
    const int32_t cap = t < kLevels ? t : kLevels;
    for (int32_t i = 0; i < kLevels; ++i) {
        const double *row = ad->rowPtr[i];
        for (int32_t j = 0; j < kLevels; ++j) {
            const double v = row[j];
            if (!(v >= 0.0 && v < 256.0)) return false;
            const auto d = static_cast<uint8_t>(static_cast<int32_t>(v));
            uint8_t &slot = out.valueDiff[i - j + kLevels - 1];
            // Row 0 and column 0 set every diagonal first; the rest must agree.
            if (i == 0 || j == 0)
                slot = d;
            else if (slot != d)
                return false;
        }
    }
    for (int32_t k = 0; k < 2 * kLevels - 1; ++k)
        out.guideDiff[k] = static_cast<uint8_t>(out.valueDiff[k] < cap ? out.valueDiff[k] : cap);
    out.accept.reset(static_cast<uint8_t *>(std::malloc(static_cast<size_t>(cap + 1) * kLevels)));
    if (!out.accept) return false;
    uint8_t *accept = out.accept.get();
    for (int32_t d = 0; d <= cap; ++d) {
        uint8_t *dst = accept + d * kLevels;
        if (d == cap) {  // d >= t
            std::memset(dst, 0, kLevels);
            continue;
        }
        const double *row = ra->rowPtr[d];
        dst[0] = 0;
        for (int32_t e = 1; e < kLevels; ++e) dst[e] = row[e] < 0.5 ? 1 : 0;
    }
    return true;
}

// One unordered neighbour pair {p, q}: when accepted, each pixel counts the
// other and takes its proposal, the other's value shifted by the guide step.
// Branch-free: the acceptance byte masks the contributions, which go into
// the caller's running totals (kept in registers).
struct PairKernel {
    const uint8_t *guideDiff;  // centred: index gp - gq
    const uint8_t *valueDiff;  // centred: index xp - xq
    const uint8_t *accept;

    inline void operator()(int32_t gp, int32_t gq, int32_t xp, int32_t xq, int32_t &np,
                           int32_t &nq, int32_t &ap, int32_t &aq) const {
        const int32_t d = guideDiff[gp - gq];
        const int32_t e = valueDiff[xp - xq];
        const int32_t ok = accept[(d << 8) | e];
        const int32_t mask = -ok;
        const int32_t step = gp - gq;
        np += ok;
        nq += ok;
        ap += (xq + step) & mask;
        aq += (xp - step) & mask;
    }
};

// (sum + value) / count, a signed division truncating toward zero, of which
// the low eight bits are kept.
inline uint8_t newValue(int32_t sum, int32_t value, int32_t count) {
    return static_cast<uint8_t>((sum + value) / count);
}

// One pass over planes of w x h (w, h >= 2). n holds 1 and a holds 0 on
// entry; on return n holds the new values.
//
// Every unordered 8-connected pair is visited once, row by row: sweep y takes
// the horizontal pairs of row y and the vertical and both diagonal pairs
// between rows y and y + 1, left to right. Only g and x are read, so the
// order does not change the result. Along a sweep the contributions to the
// next pixel of either row are carried in registers; a pixel of row y is
// complete once its column has been swept (pairs with row y - 1 were added to
// n and a by the previous sweep), so its new value is stored at once, while
// the contributions to row y + 1 are added to n and a for the next sweep.
void smoothPass(const PairKernel &k, const uint8_t *g, const uint8_t *x, uint8_t *n, int32_t *a,
                int32_t w, int32_t h) {
    const ptrdiff_t stride = w;
    const int32_t last = w - 1;
    for (int32_t y = 0; y < h; ++y) {
        const uint8_t *g0 = g + y * stride;
        const uint8_t *x0 = x + y * stride;
        uint8_t *n0 = n + y * stride;
        const int32_t *a0 = a + y * stride;
        // Carried into pixel i of row y (from its left neighbour's pairs) and
        // of row y + 1 (lower-right pair of pixel i - 1 of row y).
        int32_t cn0 = 0, ca0 = 0, cn1 = 0, ca1 = 0;
        if (y + 1 == h) {
            for (int32_t i = 0; i < last; ++i) {
                int32_t np = n0[i] + cn0, ap = a0[i] + ca0, nr = 0, ar = 0;
                k(g0[i], g0[i + 1], x0[i], x0[i + 1], np, nr, ap, ar);  // right
                n0[i] = newValue(ap, x0[i], np);
                cn0 = nr;
                ca0 = ar;
            }
            n0[last] = newValue(a0[last] + ca0, x0[last], n0[last] + cn0);
            break;
        }
        const uint8_t *g1 = g0 + stride;
        const uint8_t *x1 = x0 + stride;
        uint8_t *n1 = n0 + stride;
        int32_t *a1 = a + (y + 1) * stride;
        for (int32_t i = 0; i < last; ++i) {
            int32_t np = n0[i] + cn0, ap = a0[i] + ca0;  // (i, y)
            int32_t nq = cn1, aq = ca1;                  // (i, y + 1)
            int32_t nr = 0, ar = 0;                      // (i + 1, y)
            int32_t nd = 0, ad = 0;                      // (i + 1, y + 1)
            k(g0[i], g0[i + 1], x0[i], x0[i + 1], np, nr, ap, ar);  // right
            k(g0[i], g1[i], x0[i], x1[i], np, nq, ap, aq);          // lower
            k(g0[i], g1[i + 1], x0[i], x1[i + 1], np, nd, ap, ad);  // lower-right
            k(g1[i], g0[i + 1], x1[i], x0[i + 1], nq, nr, aq, ar);  // upper-right of (i, y + 1)
            n0[i] = newValue(ap, x0[i], np);
            n1[i] = static_cast<uint8_t>(n1[i] + nq);
            a1[i] += aq;
            cn0 = nr;
            ca0 = ar;
            cn1 = nd;
            ca1 = ad;
        }
        int32_t np = n0[last] + cn0, ap = a0[last] + ca0, nq = cn1, aq = ca1;
        k(g0[last], g1[last], x0[last], x1[last], np, nq, ap, aq);  // lower
        n0[last] = newValue(ap, x0[last], np);
        n1[last] = static_cast<uint8_t>(n1[last] + nq);
        a1[last] += aq;
    }
}

bool isColour8U(const wzImage &img) {
    return img.type == wzType8U && channelCount(img.encoding) >= 3;
}

void releaseAll(wzImage *&acc, wzImage *&g, wzImage *&x, wzImage *&n) {
    wzImageRelease(&acc);
    wzImageRelease(&g);
    wzImageRelease(&x);
    wzImageRelease(&n);
}

// Whether the support's tables give exactly what the vector pass computes:
// absDiff[i][j] = |i - j| and, for d < t, acceptance exactly when e > 2d.
// Tables made by wzSelectiveSmoothSupportCreate always do (ratio[d][e] is a
// rounded float quotient, below 0.5 exactly when e > 2d); any other support
// takes the scalar pass, which reads its tables as they are.
bool closedFormHolds(const PairTables &tables, int32_t t) {
    for (int32_t k = 0; k < 2 * kLevels - 1; ++k)
        if (tables.valueDiff[k] != std::abs(k - (kLevels - 1))) return false;
    const uint8_t *accept = tables.accept.get();
    const int32_t cap = t < kLevels ? t : kLevels;
    for (int32_t d = 0; d < cap; ++d)
        for (int32_t e = 0; e < kLevels; ++e)
            if (accept[d * kLevels + e] != (e > 2 * d ? 1 : 0)) return false;
    return true;
}

// ---------------------------------------------------------------------------
// Vector pass.
//
// With the closed form, a pair is accepted when d < t and e > 2d (e >= 1
// follows), computed on bytes: e > 2d is e > adds_u8(d, d), because a
// saturated 2d of 255 is never exceeded and no d >= 128 can pass anyway; for
// the same reason t is clamped to 128, which keeps it a byte.
//
// Passes are row-pipelined instead of running over whole planes: level k
// holds the values after k passes, and row r of level k is made as soon as
// rows r - 1 .. r + 1 of level k - 1 exist. Each level keeps three rows of
// values x and of u = x - g in rings, the guide keeps levels + 1 rows, and a
// row of the output is written as soon as the last level has made it. So a
// call touches a few rows per level besides the images themselves, instead
// of image-sized working planes, whose first touch alone costs about as much
// as the whole vector pass.
//
// Row r of a level is made from rows r (B) and r + 1 (C) of the level below.
// For each pixel p of B the acceptance of its pairs with the right neighbour
// (H), the pixel below (V), below-right (DR) and below-left (DL) is computed
// once, as masks; the next row takes V, DR and DL as its up, up-left and
// up-right pairs. Each pixel then sums over its eight masks:
//   n = 1 + accepted neighbours,   num = u(p) + n g(p) + sum of u(q),
// which is X(p) + sum of (X(q) + G(p) - G(q)) rearranged. num lies in
// -2040..4335 and the partial sums within +-2295, so 16-bit lanes hold them.
// The new value is the low byte of num / n truncated toward zero.
//
// Row buffers carry kVecPad guard elements on both sides and are rounded up
// to whole vectors, so the loads at p - 1 and p + 1 and the last partial
// vector stay inside them; lanes past the row end compute garbage that the
// masks keep out of every pixel of the row.

constexpr int32_t kVecPad = 64;
// Passes pipelined together; more passes go through a plane kMaxLevels at a
// time.
constexpr int32_t kMaxLevels = 8;

// Division of num by n = 1..9, |num| = a <= 4335, as a multiply-high: with
// M = ceil(32768 / n) = (32768 + r) / n, where r = 0, 0, 1, 0, 2, 4, 6, 0, 1
// for n = 1..9,
//   (2a * M) >> 16 = floor(a / n + a r / (32768 n)),
// and a r <= 4335 * 6 < 32768, so the added term is below 1 / n and cannot
// lift a / n (whose fraction is at most (n - 1) / n) to the next integer:
// the result is floor(a / n). The sign goes back on afterwards, which is the
// truncation toward zero. 2a <= 8670 fits 16 unsigned bits.
alignas(64) constexpr uint16_t kQuotientMul[32] = {0,    32768, 16384, 10923, 8192,
                                                   6554, 5462,  4682,  4096,  3641};

struct QuotientBytes {
    uint8_t lo[16], hi[16];
};
constexpr QuotientBytes makeQuotientBytes() {
    QuotientBytes b{};
    for (int n = 0; n < 16; ++n) {
        b.lo[n] = static_cast<uint8_t>(kQuotientMul[n] & 0xFF);
        b.hi[n] = static_cast<uint8_t>(kQuotientMul[n] >> 8);
    }
    return b;
}
// The same table as byte halves, for 16-entry byte shuffles.
alignas(16) constexpr QuotientBytes kQuotientBytes = makeQuotientBytes();

// One row of one level. The four mask arrays of a block (H, V, DR, DL) lie
// maskStride bytes apart; their elements are bytes (0 or 0xFF) for AVX2 and
// 64-bit words of one bit per pixel for AVX-512.
struct RowJob {
    const uint8_t *gB, *gC;       // guide, rows r and r + 1 (gC null on the last row)
    const uint8_t *xB, *xC;       // values, rows r and r + 1
    const int16_t *uA, *uB, *uC;  // x - g, rows r - 1, r, r + 1 (any row when absent)
    const uint8_t *prevMasks;     // pairs of row r - 1 (zero for the first row)
    uint8_t *curMasks;            // pairs of row r, written
    ptrdiff_t maskStride;
    uint8_t *xOut;                // new values of row r
    int16_t *uOut;                // their x - g (null on the last level: not needed)
    int32_t w;
    uint8_t tc;                   // min(t, 128)
};

using RowFn = void (*)(const RowJob &);

#if defined(__x86_64__)

#define MORVEN_AVX2 __attribute__((target("avx2")))
#define MORVEN_AVX512 __attribute__((target("avx2,avx512f,avx512bw")))

// ---- AVX2: 32 pixels per step, masks as bytes.

MORVEN_AVX2 inline __m256i load256(const void *p) {
    return _mm256_loadu_si256(static_cast<const __m256i *>(p));
}

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

// trunc(num / n) for n in 1..9 (see kQuotientMul).
MORVEN_AVX2 inline __m256i quotient256(__m256i num, __m256i n) {
    const __m256i lo = _mm256_broadcastsi128_si256(_mm_load_si128(reinterpret_cast<const __m128i *>(kQuotientBytes.lo)));
    const __m256i hi = _mm256_broadcastsi128_si256(_mm_load_si128(reinterpret_cast<const __m128i *>(kQuotientBytes.hi)));
    // Byte index n in the low byte of each lane, 0x80 (gives 0) in the high one.
    const __m256i idx = _mm256_or_si256(n, _mm256_set1_epi16(static_cast<int16_t>(0x8000)));
    const __m256i mul = _mm256_or_si256(_mm256_shuffle_epi8(lo, idx),
                                        _mm256_slli_epi16(_mm256_shuffle_epi8(hi, idx), 8));
    const __m256i a = _mm256_abs_epi16(num);
    return _mm256_sign_epi16(_mm256_mulhi_epu16(_mm256_add_epi16(a, a), mul), num);
}

// The low bytes of 32 16-bit lanes (q0 then q1), in order.
MORVEN_AVX2 inline void storeLowBytes256(uint8_t *dst, __m256i q0, __m256i q1) {
    const __m256i low = _mm256_set1_epi16(0xFF);
    const __m256i packed = _mm256_packus_epi16(_mm256_and_si256(q0, low), _mm256_and_si256(q1, low));
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst), _mm256_permute4x64_epi64(packed, 0xD8));
}

// Adds neighbour q (mask bytes at m, u at u) to the 16 pixels' sum and count.
MORVEN_AVX2 inline void take256(__m256i &sum, __m256i &n, const uint8_t *m, const int16_t *u) {
    const __m256i k = _mm256_cvtepi8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i *>(m)));
    sum = _mm256_add_epi16(sum, _mm256_and_si256(k, load256(u)));
    n = _mm256_sub_epi16(n, k);
}

// New values of pixels i .. i + 15 of row r; stores their x - g, returns the
// quotients.
MORVEN_AVX2 inline __m256i finishAvx2(const RowJob &j, int32_t i) {
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
    const __m256i g = _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i *>(j.gB + i)));
    const __m256i q = quotient256(_mm256_add_epi16(sum, _mm256_mullo_epi16(n, g)), n);
    if (j.uOut)
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(j.uOut + i),
                            _mm256_sub_epi16(_mm256_and_si256(q, _mm256_set1_epi16(0xFF)), g));
    return q;
}

MORVEN_AVX2 void smoothRowAvx2(const RowJob &job) {
    const RowJob j = job;  // a local copy: the stores below may alias the record
    const __m256i tc = _mm256_set1_epi8(static_cast<char>(j.tc));
    const __m256i iota = _mm256_setr_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16,
                                          17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31);
    uint8_t *cH = j.curMasks, *cV = cH + j.maskStride, *cDR = cV + j.maskStride,
            *cDL = cDR + j.maskStride;
    // Pair masks of the row first: the left pair of a pixel is the right
    // pair of the one before, read back shifted once the row is complete.
    for (int32_t i = 0; i < j.w; i += 32) {
        const int32_t rem = std::min(j.w - i, 64);
        const __m256i valid = _mm256_cmpgt_epi8(_mm256_set1_epi8(static_cast<char>(rem)), iota);
        const __m256i validR = _mm256_cmpgt_epi8(_mm256_set1_epi8(static_cast<char>(rem - 1)), iota);
        const __m256i gb = load256(j.gB + i), xb = load256(j.xB + i);
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(cH + i),
                            acceptPairs256(validR, gb, load256(j.gB + i + 1), xb, load256(j.xB + i + 1), tc));
        __m256i v = _mm256_setzero_si256(), dr = v, dl = v;
        if (j.gC) {
            const __m256i validL = i == 0 ? _mm256_cmpgt_epi8(iota, _mm256_setzero_si256()) : valid;
            v = acceptPairs256(valid, gb, load256(j.gC + i), xb, load256(j.xC + i), tc);
            dr = acceptPairs256(validR, gb, load256(j.gC + i + 1), xb, load256(j.xC + i + 1), tc);
            dl = acceptPairs256(_mm256_and_si256(valid, validL), gb, load256(j.gC + i - 1), xb,
                                load256(j.xC + i - 1), tc);
        }
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(cV + i), v);
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(cDR + i), dr);
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(cDL + i), dl);
    }
    for (int32_t i = 0; i < j.w; i += 32) {
        const __m256i q0 = finishAvx2(j, i);
        const __m256i q1 = finishAvx2(j, i + 16);
        storeLowBytes256(j.xOut + i, q0, q1);
    }
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
MORVEN_AVX512 inline void finish512(__m512i sum, __m512i n, __m512i g, uint8_t *xOut, int16_t *uOut) {
    const __m512i q = quotient512(_mm512_add_epi16(sum, _mm512_mullo_epi16(n, g)), n);
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(xOut), _mm512_cvtepi16_epi8(q));
    if (uOut) _mm512_storeu_si512(uOut, _mm512_sub_epi16(_mm512_and_si512(q, _mm512_set1_epi16(0xFF)), g));
}

MORVEN_AVX512 void smoothRowAvx512(const RowJob &j) {
    // Everything in locals: the stores below may alias the job record.
    const uint8_t *const gB = j.gB, *const gC = j.gC, *const xB = j.xB, *const xC = j.xC;
    const int16_t *const uA = j.uA, *const uB = j.uB, *const uC = j.uC;
    uint8_t *const xOut = j.xOut;
    int16_t *const uOut = j.uOut;
    const int32_t w = j.w;
    const __m512i tc = _mm512_set1_epi8(static_cast<char>(j.tc));
    const ptrdiff_t words = j.maskStride / 8;
    uint64_t *const cV = reinterpret_cast<uint64_t *>(j.curMasks) + words, *const cDR = cV + words,
                    *const cDL = cDR + words;
    const uint64_t *const pV = reinterpret_cast<const uint64_t *>(j.prevMasks) + words,
                         *const pDR = pV + words, *const pDL = pDR + words;
    uint64_t carry = 0;  // bit 63 of the previous word of right pairs
    for (int32_t i = 0, k = 0; i < w; i += 64, ++k) {
        const int32_t rem = w - i;
        const uint64_t valid = rem >= 64 ? ~0ull : (1ull << rem) - 1;
        const uint64_t validR = rem > 64 ? ~0ull : (1ull << (rem - 1)) - 1;  // a right neighbour exists
        const __m512i gb = load512(gB + i), xb = load512(xB + i);
        const uint64_t right = acceptPairs512(validR, gb, load512(gB + i + 1), xb, load512(xB + i + 1), tc);
        uint64_t below = 0, belowRight = 0, belowLeft = 0;
        if (gC) {
            below = acceptPairs512(valid, gb, load512(gC + i), xb, load512(xC + i), tc);
            belowRight = acceptPairs512(validR, gb, load512(gC + i + 1), xb, load512(xC + i + 1), tc);
            belowLeft = acceptPairs512(i == 0 ? valid & ~1ull : valid, gb, load512(gC + i - 1), xb,
                                       load512(xC + i - 1), tc);
        }
        cV[k] = below;
        cDR[k] = belowRight;
        cDL[k] = belowLeft;
        const uint64_t left = right << 1 | carry;
        carry = right >> 63;
        // Pairs with row r - 1: the pixel above's V, the above-left one's DR,
        // the above-right one's DL (guard words at -1 and past the end are 0).
        const uint64_t above = pV[k];
        const uint64_t aboveLeft = pDR[k] << 1 | pDR[k - 1] >> 63;
        const uint64_t aboveRight = pDL[k] >> 1 | pDL[k + 1] << 63;

        __m512i lo = load512(uB + i), hi = load512(uB + i + 32), n = _mm512_set1_epi8(1);
        take512(lo, hi, n, right, uB + i + 1);
        take512(lo, hi, n, left, uB + i - 1);
        take512(lo, hi, n, below, uC + i);
        take512(lo, hi, n, belowRight, uC + i + 1);
        take512(lo, hi, n, belowLeft, uC + i - 1);
        take512(lo, hi, n, above, uA + i);
        take512(lo, hi, n, aboveLeft, uA + i - 1);
        take512(lo, hi, n, aboveRight, uA + i + 1);
        finish512(lo, _mm512_cvtepu8_epi16(_mm512_castsi512_si256(n)),
                  _mm512_cvtepu8_epi16(_mm256_loadu_si256(reinterpret_cast<const __m256i *>(gB + i))),
                  xOut + i, uOut ? uOut + i : nullptr);
        finish512(hi, _mm512_cvtepu8_epi16(_mm512_extracti64x4_epi64(n, 1)),
                  _mm512_cvtepu8_epi16(_mm256_loadu_si256(reinterpret_cast<const __m256i *>(gB + i + 32))),
                  xOut + i + 32, uOut ? uOut + i + 32 : nullptr);
    }
}

MORVEN_AVX2 void quotientsAvx2(const int16_t *num, const uint16_t *count, uint8_t *q, int32_t len) {
    for (int32_t i = 0; i < len; i += 32)
        storeLowBytes256(q + i, quotient256(load256(num + i), load256(count + i)),
                         quotient256(load256(num + i + 16), load256(count + i + 16)));
}

MORVEN_AVX512 void quotientsAvx512(const int16_t *num, const uint16_t *count, uint8_t *q, int32_t len) {
    for (int32_t i = 0; i < len; i += 32)
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(q + i),
                            _mm512_cvtepi16_epi8(quotient512(load512(num + i), load512(count + i))));
}

#pragma GCC diagnostic pop

#endif  // __x86_64__

// One channel of an 8-bit image (or a plane): element (i, y) at
// data[y * rowStep + i * pixelStep + offset]. Sources are only read.
struct ChannelRows {
    uint8_t *data;
    ptrdiff_t offset, pixelStep, rowStep;
};

ChannelRows channelRows(const wzImage &img, int32_t channel) {
    const ptrdiff_t step = pixelStride(img);
    return {img.data, channelOffset(img.encoding, channel), step, step * img.width};
}

#if defined(__x86_64__)

// Channel rows to and from pixels of 3 or 4 bytes, 16 pixels per step with
// byte shuffles over the 16-byte blocks of those pixels (only the row's own
// bytes are touched), the rest one by one.

// For block k of 16 pixels of `step` bytes: the byte of the block holding
// the channel byte of pixel j, or -128 (shuffles in a zero) when outside.
MORVEN_AVX2 inline __m128i gatherIndex(int32_t step, ptrdiff_t offset, int32_t k) {
    alignas(16) int8_t t[16];
    for (int32_t j = 0; j < 16; ++j) {
        const ptrdiff_t pos = offset + step * j - 16 * k;
        t[j] = static_cast<int8_t>(pos >= 0 && pos < 16 ? pos : -128);
    }
    return _mm_load_si128(reinterpret_cast<const __m128i *>(t));
}

MORVEN_AVX2 void gatherChannel(const uint8_t *px, int32_t step, ptrdiff_t offset, uint8_t *dst,
                               int32_t w) {
    __m128i idx[4];
    for (int32_t k = 0; k < step; ++k) idx[k] = gatherIndex(step, offset, k);
    int32_t i = 0;
    for (; i + 16 <= w; i += 16) {
        const uint8_t *s = px + static_cast<ptrdiff_t>(step) * i;
        __m128i v = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i *>(s)), idx[0]);
        for (int32_t k = 1; k < step; ++k)
            v = _mm_or_si128(v, _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i *>(s + 16 * k)), idx[k]));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(dst + i), v);
    }
    for (; i < w; ++i) dst[i] = px[static_cast<ptrdiff_t>(step) * i + offset];
}

MORVEN_AVX2 void scatterChannel(const uint8_t *src, uint8_t *px, int32_t step, ptrdiff_t offset,
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
        idx[k] = _mm_load_si128(reinterpret_cast<const __m128i *>(t));
        take[k] = _mm_load_si128(reinterpret_cast<const __m128i *>(m));
    }
    int32_t i = 0;
    for (; i + 16 <= w; i += 16) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + i));
        uint8_t *d = px + static_cast<ptrdiff_t>(step) * i;
        for (int32_t k = 0; k < step; ++k) {
            __m128i *p = reinterpret_cast<__m128i *>(d + 16 * k);
            _mm_storeu_si128(p, _mm_blendv_epi8(_mm_loadu_si128(p), _mm_shuffle_epi8(v, idx[k]), take[k]));
        }
    }
    for (; i < w; ++i) px[static_cast<ptrdiff_t>(step) * i + offset] = src[i];
}

#undef MORVEN_AVX2
#undef MORVEN_AVX512

#endif  // __x86_64__

void readRow(const ChannelRows &v, int32_t y, uint8_t *dst, int32_t w) {
    const uint8_t *px = v.data + y * v.rowStep;
    if (v.pixelStep == 1) {
        std::memcpy(dst, px + v.offset, static_cast<size_t>(w));
        return;
    }
#if defined(__x86_64__)
    gatherChannel(px, static_cast<int32_t>(v.pixelStep), v.offset, dst, w);
#else
    for (int32_t i = 0; i < w; ++i) dst[i] = px[i * v.pixelStep + v.offset];
#endif
}

void writeRow(const ChannelRows &v, int32_t y, const uint8_t *src, int32_t w) {
    uint8_t *px = v.data + y * v.rowStep;
    if (v.pixelStep == 1) {
        std::memcpy(px + v.offset, src, static_cast<size_t>(w));
        return;
    }
#if defined(__x86_64__)
    scatterChannel(src, px, static_cast<int32_t>(v.pixelStep), v.offset, w);
#else
    for (int32_t i = 0; i < w; ++i) px[i * v.pixelStep + v.offset] = src[i];
#endif
}

void prefetchRow(const ChannelRows &v, int32_t y, int32_t w) {
    const uint8_t *px = v.data + y * v.rowStep;
    const ptrdiff_t bytes = w * v.pixelStep;
    for (ptrdiff_t b = 0; b < bytes; b += 64) __builtin_prefetch(px + b);
}

// The rows of one channel's pipeline, each pointer at element 0 of a row
// with kVecPad guard elements either side.
struct Pipeline {
    uint8_t *g[kMaxLevels + 1];         // guide ring
    uint8_t *x[kMaxLevels + 1][3];      // values after k passes, ring of 3
    int16_t *u[kMaxLevels + 1][3];      // their x - g
    uint8_t *masks[kMaxLevels + 1][2];  // pair masks of levels 1.., current and previous row
};

struct VectorRun {
    RowFn row;
    int32_t w, h;
    uint8_t tc;
    size_t rowBytes;  // bytes of one guarded byte row
};

// Rows of a pipeline of `levels` levels, in 64-byte aligned rows.
size_t pipelineRows(int32_t levels) { return static_cast<size_t>(10 * (levels + 1) + 8 * levels); }

void carvePipeline(const VectorRun &vr, int32_t levels, uint8_t *&at, Pipeline &p) {
    const size_t rb = vr.rowBytes;
    auto take = [&](size_t rows) {
        uint8_t *row = at + kVecPad;
        at += rows * rb;
        return row;
    };
    for (int32_t k = 0; k <= levels; ++k) {
        p.g[k] = take(1);
        for (int32_t s = 0; s < 3; ++s) {
            p.x[k][s] = take(1);
            p.u[k][s] = reinterpret_cast<int16_t *>(take(2)) + kVecPad / 2;  // kVecPad elements in
        }
        if (k > 0) {
            p.masks[k][0] = take(4);
            p.masks[k][1] = take(4);
        }
    }
}

// Before a run: no previous row of masks.
void resetPipeline(const VectorRun &vr, Pipeline &p, int32_t levels) {
    for (int32_t k = 1; k <= levels; ++k) std::memset(p.masks[k][1] - kVecPad, 0, 4 * vr.rowBytes);
}

// Step s of a run of `levels` passes from src to dst: reads row s, makes row
// s - k of each level k, writes row s - levels. Row s of the source is read
// before row s - levels of the destination is written, so the destination
// may be the source itself.
void pipelineStep(const VectorRun &vr, Pipeline &p, int32_t levels, const ChannelRows &guide,
                  const ChannelRows &src, const ChannelRows &dst, int32_t s) {
    const int32_t w = vr.w, h = vr.h, ring = levels + 1;
    // The next source rows are fetched while this step computes, instead of
    // stalling the next step's reads.
    if (s + 1 < h) {
        prefetchRow(guide, s + 1, w);
        prefetchRow(src, s + 1, w);
    }
    if (s < h) {
        uint8_t *g = p.g[s % ring], *x = p.x[0][s % 3];
        int16_t *u = p.u[0][s % 3];
        readRow(guide, s, g, w);
        readRow(src, s, x, w);
        for (int32_t i = 0; i < w; ++i) u[i] = static_cast<int16_t>(x[i] - g[i]);
    }
    for (int32_t k = 1; k <= levels; ++k) {
        const int32_t r = s - k;
        if (r < 0 || r >= h) continue;
        const bool last = r + 1 == h;
        RowJob j;
        j.gB = p.g[r % ring];
        j.gC = last ? nullptr : p.g[(r + 1) % ring];
        j.xB = p.x[k - 1][r % 3];
        j.xC = last ? j.xB : p.x[k - 1][(r + 1) % 3];
        j.uB = p.u[k - 1][r % 3];
        j.uA = r > 0 ? p.u[k - 1][(r + 2) % 3] : j.uB;
        j.uC = last ? j.uB : p.u[k - 1][(r + 1) % 3];
        j.prevMasks = p.masks[k][1];
        j.curMasks = p.masks[k][0];
        j.maskStride = static_cast<ptrdiff_t>(vr.rowBytes);
        j.xOut = p.x[k][r % 3];
        j.uOut = k < levels ? p.u[k][r % 3] : nullptr;
        j.w = w;
        j.tc = vr.tc;
        vr.row(j);
        std::swap(p.masks[k][0], p.masks[k][1]);
    }
    const int32_t r = s - levels;
    if (r >= 0 && r < h) writeRow(dst, r, p.x[levels][r % 3], w);
}

// Whether `img` may be read row by row while `out` is written: the same
// block with the same layout, or no common byte.
bool rowSafe(const wzImage &img, const wzImage &out) {
    const auto a = reinterpret_cast<uintptr_t>(img.data), b = reinterpret_cast<uintptr_t>(out.data);
    if (a == b) return img.encoding == out.encoding;
    const auto na = static_cast<uintptr_t>(blockElements(img)), nb = static_cast<uintptr_t>(blockElements(out));
    return a + na <= b || b + nb <= a;
}

// The vector pass over whole images (w, h >= 2, t >= 1, passes >= 1).
wzStatus vectorSmooth(RowFn row, int32_t t, int32_t passes, const wzImage &guide,
                      const wzImage &input, const wzImage &output, const uint32_t *cancel) {
    const int32_t w = input.width, h = input.height;
    const int32_t levels = std::min(passes, kMaxLevels);
    const size_t rounded = (static_cast<size_t>(w) + 63) & ~static_cast<size_t>(63);
    const VectorRun vr{row, w, h, static_cast<uint8_t>(std::min(t, 128)), rounded + 2 * kVecPad};
    // Without a cancel flag the three channels advance together, over one
    // read of each image row; with one, channel after channel, so that a
    // cancellation leaves whole channels. More passes than kMaxLevels go
    // through a plane, channel after channel.
    const bool together = !cancel && passes <= kMaxLevels;
    const int32_t pipes = together ? 3 : 1;
    FreePtr<uint8_t> block(static_cast<uint8_t *>(
        std::calloc(pipes * pipelineRows(levels) * vr.rowBytes + 64, 1)));
    FreePtr<uint8_t> plane(passes > kMaxLevels
                               ? static_cast<uint8_t *>(std::malloc(static_cast<size_t>(w) * static_cast<size_t>(h)))
                               : nullptr);
    if (!block || (passes > kMaxLevels && !plane)) return WZ_STATUS_ERROR;
    uint8_t *at = block.get() + (-reinterpret_cast<uintptr_t>(block.get()) & 63);
    Pipeline pl[3];
    for (int32_t c = 0; c < pipes; ++c) carvePipeline(vr, levels, at, pl[c]);

    if (together) {
        ChannelRows gv[3], xv[3], ov[3];
        for (int32_t c = 0; c < 3; ++c) {
            gv[c] = channelRows(guide, c + 1);
            xv[c] = channelRows(input, c + 1);
            ov[c] = channelRows(output, c + 1);
            resetPipeline(vr, pl[c], levels);
        }
        for (int32_t s = 0; s < h + levels; ++s)
            for (int32_t c = 0; c < 3; ++c) pipelineStep(vr, pl[c], levels, gv[c], xv[c], ov[c], s);
        return WZ_STATUS_OK;
    }
    const ChannelRows planeRows{plane.get(), 0, 1, w};
    for (int32_t c = 1; c <= 3; ++c) {
        const ChannelRows gv = channelRows(guide, c), ov = channelRows(output, c);
        ChannelRows src = channelRows(input, c);
        // Only the last run writes the output, so a cancellation between
        // runs leaves this channel untouched.
        for (int32_t done = 0; done < passes;) {
            if (cancelRequested(cancel)) return WZ_STATUS_CANCELLED;
            const int32_t n = std::min(passes - done, kMaxLevels);
            const ChannelRows &dst = done + n == passes ? ov : planeRows;
            resetPipeline(vr, pl[0], n);
            for (int32_t s = 0; s < h + n; ++s) pipelineStep(vr, pl[0], n, gv, src, dst, s);
            src = planeRows;
            done += n;
        }
    }
    return WZ_STATUS_OK;
}

RowFn rowKernel(Isa isa) {
#if defined(__x86_64__)
    if (isa == Isa::Avx512 && isaAvailable(Isa::Avx512)) return smoothRowAvx512;
    if (isa == Isa::Avx2 && isaAvailable(Isa::Avx2)) return smoothRowAvx2;
#else
    (void)isa;
#endif
    return nullptr;
}

}  // namespace

namespace morven {

wzStatus selectiveSmoothWith(Isa isa, const wzSelectiveSmoothParams *params,
                             const wzSelectiveSmoothSupport *support, const wzImage *guide,
                             const wzImage *input, wzImage *output, const uint32_t *cancel) {
    if (!isColour8U(*guide) || !isColour8U(*input) || !isColour8U(*output))
        return WZ_STATUS_ERROR;
    const int32_t w = input->width;
    const int32_t h = input->height;
    if (guide->width != w || guide->height != h || output->width != w || output->height != h)
        return WZ_STATUS_ERROR;

    // The whole images are smoothed: views with the region reset keep the
    // channel moves (which walk regions) inside every block.
    wzImage guideAll = *guide, inputAll = *input, outputAll = *output;
    wzImageResetROI(&guideAll);
    wzImageResetROI(&inputAll);
    wzImageResetROI(&outputAll);

    // Threshold in levels: a single-precision product truncated toward zero.
    const int32_t t = truncSat32(params->threshold * 255.0f);
    // Nothing to smooth (and, below 2 x 2, no neighbour pairs to walk).
    if (t < 1 || params->iterations < 1 || w < 2 || h < 2) {
        wzCopy(&inputAll, &outputAll);
        return WZ_STATUS_OK;
    }

    PairTables tables;
    if (!buildPairTables(*support, t, tables)) return WZ_STATUS_ERROR;
    // (The size bound keeps the vector path's row and column counters far
    // from overflowing.)
    if (const RowFn row = rowKernel(isa);
        row && w < INT32_MAX - 256 && h < INT32_MAX - 2 * kMaxLevels && closedFormHolds(tables, t) &&
        rowSafe(guideAll, outputAll) && rowSafe(inputAll, outputAll))
        return vectorSmooth(row, t, params->iterations, guideAll, inputAll, outputAll, cancel);

    // The scalar pass, over whole working planes.
    const PairKernel kernel{tables.guideDiff + (kLevels - 1), tables.valueDiff + (kLevels - 1),
                            tables.accept.get()};

    wzImage *acc = wzImageCreateWithType(w, h, wzEncodingGray, wzType32S);
    if (!acc) return WZ_STATUS_ERROR;
    wzImage *g = wzImageCreate(w, h, wzEncodingGray);
    wzImage *x = wzImageCreate(w, h, wzEncodingGray);
    wzImage *n = wzImageCreate(w, h, wzEncodingGray);
    ScopeGuard release([&] { releaseAll(acc, g, x, n); });
    if (!g || !x || !n) return WZ_STATUS_ERROR;

    const size_t planeBytes = static_cast<size_t>(w) * static_cast<size_t>(h);

    // The accumulator is our own malloc block, hence aligned for int32_t.
    int32_t *a = reinterpret_cast<int32_t *>(acc->data);
    for (int32_t c = 1; c <= 3; ++c) {
        wzImageExtractChannel(&guideAll, g, c);
        wzImageExtractChannel(&inputAll, x, c);
        for (int32_t it = 0; it < params->iterations; ++it) {
            if (cancelRequested(cancel)) return WZ_STATUS_CANCELLED;
            std::memset(n->data, 1, planeBytes);  // every pixel counts itself
            wzImageSetZero(acc);
            smoothPass(kernel, g->data, x->data, n->data, a, w, h);
            std::swap(x, n);
        }
        wzImageInsertChannel(x, &outputAll, c);
    }
    return WZ_STATUS_OK;
}

bool smoothQuotients(Isa isa, const int16_t *num, const uint16_t *count, uint8_t *q, int32_t len) {
#if defined(__x86_64__)
    if (isa == Isa::Avx512 && isaAvailable(Isa::Avx512)) {
        quotientsAvx512(num, count, q, len);
        return true;
    }
    if (isa == Isa::Avx2 && isaAvailable(Isa::Avx2)) {
        quotientsAvx2(num, count, q, len);
        return true;
    }
#else
    (void)isa, (void)num, (void)count, (void)q, (void)len;
#endif
    return false;
}

}  // namespace morven

extern "C" {

MORVEN_API wzSelectiveSmoothSupport *wzSelectiveSmoothSupportCreate(void) {
    FreePtr<wzSelectiveSmoothSupport> s = allocZeroed<wzSelectiveSmoothSupport>();
    if (!s) return nullptr;
    s->absDiff = wzMatrixCreate(kLevels, kLevels);
    if (!s->absDiff) return nullptr;
    for (int32_t i = 0; i < kLevels; ++i) {
        double *row = s->absDiff->rowPtr[i];
        for (int32_t j = 0; j < kLevels; ++j) row[j] = static_cast<double>(std::abs(i - j));
    }
    s->ratio = wzMatrixCreate(kLevels, kLevels);
    if (!s->ratio) {
        wzMatrixRelease(&s->absDiff);
        return nullptr;
    }
    // Column 0 keeps the zero of creation: a / 0 is never formed.
    for (int32_t a = 0; a < kLevels; ++a) {
        double *row = s->ratio->rowPtr[a];
        for (int32_t b = 1; b < kLevels; ++b)
            row[b] = static_cast<double>(std::fabs(static_cast<float>(a) / static_cast<float>(b)));
    }
    return s.release();
}

MORVEN_API void wzSelectiveSmoothSupportRelease(wzSelectiveSmoothSupport **support) {
    if (!support || !*support) return;
    wzMatrixRelease(&(*support)->absDiff);
    wzMatrixRelease(&(*support)->ratio);
    std::free(*support);
    *support = nullptr;
}

MORVEN_API wzSelectiveSmoothParams *wzSelectiveSmoothParamsDefault(void) {
    FreePtr<wzSelectiveSmoothParams> p = allocZeroed<wzSelectiveSmoothParams>();
    if (!p) return nullptr;
    p->threshold = 0.1f;
    p->iterations = 2;
    return p.release();
}

MORVEN_API void wzSelectiveSmoothParamsRelease(wzSelectiveSmoothParams **params) {
    if (!params || !*params) return;
    std::free(*params);
    *params = nullptr;
}

MORVEN_API wzStatus wzSelectiveSmooth(const wzSelectiveSmoothParams *params,
                                      const wzSelectiveSmoothSupport *support,
                                      const wzImage *guide, const wzImage *input, wzImage *output,
                                      const uint32_t *cancel) {
    return selectiveSmoothWith(bestIsa(), params, support, guide, input, output, cancel);
}

}  // extern "C"
