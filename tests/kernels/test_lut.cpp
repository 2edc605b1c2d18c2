// Table look-ups: the row kernel in every variant against the tables byte by
// byte, and the histogram-matching and contrast apply steps over regions, in
// place and through overlapping headers against the documented pixel loops.
#include "kernel_support.hpp"

using namespace kernel_test;

TEST(KernelLut, RowKernelMatchesTheTablesInEveryVariant) {
    std::mt19937 rng(11);
    uint8_t tables[4][256];
    for (auto &t : tables) fillBytes(t, 256, rng);
    // Stride, and per byte position the table used (-1: byte left alone):
    // one, two, three and four distinct tables, repeated ones, none.
    struct Layout {
        int stride, slot[4];
    };
    const Layout layouts[] = {{1, {0, -1, -1, -1}}, {3, {0, 1, 2, -1}},   {3, {2, 0, 1, -1}},
                              {3, {0, 0, 0, -1}},   {3, {1, -1, 1, -1}},  {3, {0, 1, 0, -1}},
                              {4, {0, 1, 2, -1}},   {4, {-1, 2, 1, 0}},   {4, {0, 0, 0, -1}},
                              {4, {0, 1, 2, 3}},    {4, {-1, -1, -1, -1}}};
    for (const Layout &lay : layouts) {
        morven::LutLayout layout{lay.stride, {nullptr, nullptr, nullptr, nullptr}};
        for (int k = 0; k < lay.stride; ++k)
            if (lay.slot[k] >= 0) layout.table[k] = tables[lay.slot[k]];
        const size_t stride = size_t(lay.stride);
        checkRowKernel({stride, stride, stride,
                        [&](Isa isa, const uint8_t *s, uint8_t *d, size_t n) {
                            kernels(isa).lutRow(layout, s, d, n);
                        },
                        [&](const uint8_t *s, uint8_t *d, size_t n) {
                            for (size_t i = 0; i < n * stride; ++i)
                                if (const int slot = lay.slot[i % stride]; slot >= 0)
                                    d[i] = tables[slot][s[i]];
                        },
                        nullptr},
                       rng, "layout " + std::to_string(&lay - layouts));
    }
}

// The histogram-matching apply: channel c (1-3) of the source region through
// table c - 1 into channel c of the destination region (a gray source: its
// byte through table 0), every channel read before any is written. The
// contrast apply: whole images (a region set on the source is ignored),
// channels 1-3 (or the gray byte) through the curve one after the other; a
// colour destination may be wider (it is addressed with its own width), gray
// and colour do not mix.
TEST(KernelLut, MatchAndContrastApplyOverLayoutsAndOverlaps) {
    std::mt19937 rng(12);
    uint8_t table[768];
    fillBytes(table, sizeof table, rng);
    for (bool match : {true, false})
        for (uint32_t se : kAllEncodings)
            for (uint32_t de : kAllEncodings) {
                const bool gray = se == wzEncodingGray;
                if (!match && gray != (de == wzEncodingGray)) continue;
                const Shifts shifts = se != de ? Shifts{}
                                      : match  ? Shifts{0, 1, 5}
                                               : Shifts{0, 2, 7};
                checkImageOp(
                    se, de, match, gray && !match ? 0 : 2, shifts, rng,
                    [&](const wzImage *s, wzImage *d) {
                        if (match) return wzHistogramMatchApply(nullptr, table, s, d, nullptr);
                        wzImage whole = *s;
                        whole.roi = {1, 0, 0, 1};
                        return wzContrastEnhanceApply(table, &whole, d, nullptr);
                    },
                    [&](const uint8_t *s, uint8_t *d) {
                        if (gray) return void(*d = table[*s]);
                        uint8_t v[3];
                        for (int c = 0; c < 3; ++c) {
                            v[c] = table[256 * (match ? c : 0) + s[offsetOf(se, c + 1)]];
                            if (!match) d[offsetOf(de, c + 1)] = v[c];
                        }
                        for (int c = 0; c < 3 && match; ++c) d[offsetOf(de, c + 1)] = v[c];
                    });
            }
}
