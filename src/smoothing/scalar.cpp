// The table-driven pass of selective smoothing: every pair looked up in the
// support's tables, over whole working planes, channel after channel. It
// takes any support, and it is the pass the row kernels are held against.
#include <cstring>
#include <utility>

#include "common/cancel.hpp"
#include "image/image_internal.hpp"
#include "morven/color.h"
#include "smoothing/smoothing_internal.hpp"

using namespace morven;

namespace {

// One unordered neighbour pair {p, q}: when accepted, each pixel counts the
// other and takes its proposal, the other's value shifted by the guide step.
// Branch-free: the acceptance byte masks the contributions, which go into
// the caller's running totals (kept in registers).
struct PairKernel {
    const uint8_t *guideDiff;  // centred: index gp - gq
    const uint8_t *valueDiff;  // centred: index xp - xq
    const uint8_t *accept;

    inline void operator()(int32_t gp, int32_t gq, int32_t xp, int32_t xq, int32_t &np, int32_t &nq,
                           int32_t &ap, int32_t &aq) const {
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
            int32_t np = n0[i] + cn0, ap = a0[i] + ca0;             // (i, y)
            int32_t nq = cn1, aq = ca1;                             // (i, y + 1)
            int32_t nr = 0, ar = 0;                                 // (i + 1, y)
            int32_t nd = 0, ad = 0;                                 // (i + 1, y + 1)
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

// The working planes of one call: guide and values of one channel, the new
// values, and the sums of proposals.
struct Planes {
    wzImage *acc = nullptr, *g = nullptr, *x = nullptr, *n = nullptr;
    ~Planes() {
        wzImageRelease(&acc);
        wzImageRelease(&g);
        wzImageRelease(&x);
        wzImageRelease(&n);
    }
};

}  // namespace

namespace morven {

wzStatus smoothWithTables(const PairTables &tables, int32_t passes, const wzImage &guide,
                          const wzImage &input, const wzImage &output, const uint32_t *cancel) {
    const int32_t w = input.width, h = input.height;
    const PairKernel kernel{tables.guideDiff + (kLevels - 1), tables.valueDiff + (kLevels - 1),
                            tables.accept.get()};
    Planes p;
    p.acc = wzImageCreateWithType(w, h, wzEncodingGray, wzType32S);
    if (!p.acc) return WZ_STATUS_ERROR;
    p.g = wzImageCreate(w, h, wzEncodingGray);
    p.x = wzImageCreate(w, h, wzEncodingGray);
    p.n = wzImageCreate(w, h, wzEncodingGray);
    if (!p.g || !p.x || !p.n) return WZ_STATUS_ERROR;
    wzImage guideAll = guide, inputAll = input, outputAll = output;
    const size_t planeBytes = static_cast<size_t>(w) * static_cast<size_t>(h);
    // The accumulator is our own malloc block, hence aligned for int32_t.
    int32_t *a = reinterpret_cast<int32_t *>(p.acc->data);
    for (int32_t c = 1; c <= 3; ++c) {
        wzImageExtractChannel(&guideAll, p.g, c);
        wzImageExtractChannel(&inputAll, p.x, c);
        for (int32_t it = 0; it < passes; ++it) {
            if (cancelRequested(cancel)) return WZ_STATUS_CANCELLED;
            std::memset(p.n->data, 1, planeBytes);  // every pixel counts itself
            wzImageSetZero(p.acc);
            smoothPass(kernel, p.g->data, p.x->data, p.n->data, a, w, h);
            std::swap(p.x, p.n);
        }
        wzImageInsertChannel(p.x, &outputAll, c);
    }
    return WZ_STATUS_OK;
}

}  // namespace morven
