// Selective smoothing: the support object with its difference and ratio
// tables, and the guided per-channel smoothing filter.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "common/cancel.hpp"
#include "common/memory.hpp"
#include "image/image_internal.hpp"
#include "morven/color.h"
#include "morven/smoothing.h"

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

}  // namespace

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

}  // extern "C"
