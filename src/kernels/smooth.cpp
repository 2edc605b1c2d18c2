// One row of the row-pipelined smoothing pass, and its quotient step: the
// plain loops. The vector forms (smooth_x86.cpp, smooth_neon.cpp) compute the
// same with pair masks held as vectors.
//
// A pair {p, q} of 8-connected neighbours is accepted when the guide
// difference d = |g(p) - g(q)| is below t (passed as tc = min(t, 128): no
// pair with d >= 128 can pass the next test) and the value difference
// e = |x(p) - x(q)| exceeds 2d. Each pixel then sums over its accepted pairs:
//   n = 1 + accepted neighbours,   num = u(p) + n g(p) + sum of u(q),
// with u = x - g, which is x(p) + sum of (x(q) + g(p) - g(q)) rearranged.
// num lies in -2040..4335; the new value is the low byte of num / n
// truncated toward zero.
#include "kernels/variants.hpp"

namespace morven::kernels {
namespace {

inline uint8_t accept(int gp, int gq, int xp, int xq, int tc) {
    const int d = gp > gq ? gp - gq : gq - gp;
    const int e = xp > xq ? xp - xq : xq - xp;
    return d < tc && e > 2 * d ? 0xFF : 0;
}

}  // namespace

// Masks as bytes (0 or 0xFF), one per pixel, written for pixels 0..w-1 only.
void smoothRowPlain(const SmoothRow &job) {
    const SmoothRow j = job;  // a local copy: the stores below may alias the record
    const int32_t w = j.w;
    uint8_t *cH = j.curMasks, *cV = cH + j.maskStride, *cDR = cV + j.maskStride,
            *cDL = cDR + j.maskStride;
    const uint8_t *pV = j.prevMasks + j.maskStride, *pDR = pV + j.maskStride,
                  *pDL = pDR + j.maskStride;
    for (int32_t i = 0; i < w; ++i) {
        const bool right = i + 1 < w, left = i > 0;
        cH[i] = right ? accept(j.gB[i], j.gB[i + 1], j.xB[i], j.xB[i + 1], j.tc) : 0;
        cV[i] = j.gC ? accept(j.gB[i], j.gC[i], j.xB[i], j.xC[i], j.tc) : 0;
        cDR[i] = j.gC && right ? accept(j.gB[i], j.gC[i + 1], j.xB[i], j.xC[i + 1], j.tc) : 0;
        cDL[i] = j.gC && left ? accept(j.gB[i], j.gC[i - 1], j.xB[i], j.xC[i - 1], j.tc) : 0;
    }
    for (int32_t i = 0; i < w; ++i) {
        const bool right = i + 1 < w, left = i > 0;
        int32_t sum = j.uB[i], n = 1;
        auto take = [&](bool pair, const int16_t *u) {
            if (!pair) return;
            sum += *u;
            ++n;
        };
        take(right && cH[i], j.uB + i + 1);
        take(left && cH[i - 1], j.uB + i - 1);
        take(cV[i], j.uC + i);
        take(cDR[i], j.uC + i + 1);
        take(cDL[i], j.uC + i - 1);
        take(pV[i], j.uA + i);
        take(left && pDR[i - 1], j.uA + i - 1);
        take(right && pDL[i + 1], j.uA + i + 1);
        const int32_t g = j.gB[i];
        const uint8_t q = static_cast<uint8_t>((sum + n * g) / n);
        j.xOut[i] = q;
        if (j.uOut) j.uOut[i] = static_cast<int16_t>(q - g);
    }
}

void quotientsPlain(const int16_t *num, const uint16_t *count, uint8_t *q, int32_t len) {
    for (int32_t i = 0; i < len; ++i) q[i] = static_cast<uint8_t>(num[i] / count[i]);
}

}  // namespace morven::kernels
