// Selective smoothing: support tables, worked numbers, a randomized check
// against a per-pixel reference (copy paths included), refusals and
// cancellation.
#include <gtest/gtest.h>

#include <cstdlib>

#include "morven/smoothing.h"
#include "support/image_fixtures.hpp"

using namespace morven_test;

namespace {

using Rows = std::vector<std::vector<int>>;

// An image whose channels 1-3 all hold rows[y][x] (other bytes 77).
ImagePtr fromRows(const Rows &rows, uint32_t enc = wzEncodingBGR) {
    ImagePtr img = makeImage(int(rows[0].size()), int(rows.size()), enc);
    std::memset(img->data, 77, blockBytes(img.get()));
    for (size_t y = 0; y < rows.size(); ++y)
        for (size_t x = 0; x < rows[0].size(); ++x)
            for (int c = 1; c <= 3; ++c) *at(img.get(), int(x), int(y), c) = uint8_t(rows[y][x]);
    return img;
}

// Each pixel with its up to eight neighbours: a neighbour whose guide
// differs by less than t and whose input differs by more than twice that
// proposes its input shifted by the guide step; the pixel becomes the
// truncated mean of itself and the proposals. Images of one row or column
// are copied (a choice of this library).
void reference(const wzSelectiveSmoothParams &p, const wzImage *guide, const wzImage *input,
               wzImage *out) {
    const int t = int(p.threshold * 255.0f), w = input->width, h = input->height;
    for (int c = 1; c <= 3; ++c) {
        std::vector<int> x(w * h), g(w * h), next(w * h);
        for (int i = 0; i < w * h; ++i)
            x[i] = *at(input, i % w, i / w, c), g[i] = *at(guide, i % w, i / w, c);
        for (int it = 0; it < p.iterations && w > 1 && h > 1; ++it, x.swap(next))
            for (int i = 0; i < w * h; ++i) {
                int sum = x[i], count = 1;
                for (int k = 0; k < 9; ++k) {
                    const int qx = i % w + k % 3 - 1, qy = i / w + k / 3 - 1, q = qy * w + qx;
                    if (k != 4 && qx >= 0 && qy >= 0 && qx < w && qy < h &&
                        std::abs(g[i] - g[q]) < t &&
                        std::abs(x[i] - x[q]) > 2 * std::abs(g[i] - g[q]))
                        sum += x[q] + g[i] - g[q], ++count;
                }
                next[i] = uint8_t(sum / count);
            }
        for (int i = 0; i < w * h; ++i) *at(out, i % w, i / w, c) = uint8_t(x[i]);
    }
}

class SelectiveSmooth : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(support, nullptr); }
    void TearDown() override { wzSelectiveSmoothSupportRelease(&support); }
    wzSelectiveSmoothSupport *support = wzSelectiveSmoothSupportCreate();
};

// |i - j| and the single-precision i / j (0 for j = 0); releases null the
// handles and tolerate a second call.
TEST_F(SelectiveSmooth, SupportTablesAndRecords) {
    const wzMatrix *ad = support->absDiff, *ra = support->ratio;
    ASSERT_TRUE(ad && ra && ad->nRows == 256 && ad->nCols == 256 && ra->nRows == 256 &&
                ra->nCols == 256);
    for (int i = 0; i < 256; ++i)
        for (int j = 0; j < 256; ++j)
            ASSERT_TRUE(ad->rowPtr[i][j] == std::abs(i - j) &&
                        ra->rowPtr[i][j] == (j ? float(i) / float(j) : 0.0f))
                << i << ", " << j;
    wzSelectiveSmoothParams *p = wzSelectiveSmoothParamsDefault();
    for (int k = 0; k < 2; ++k)
        wzSelectiveSmoothSupportRelease(&support), wzSelectiveSmoothParamsRelease(&p);
    EXPECT_TRUE(support == nullptr && p == nullptr);
}

// Flat guide 100 on 2 x 2, input (10, 20 / 10, 10): one pass accepts the
// three pairs touching the 20 ((10 + 10 + 10 + 20) / 4 = 12); the default
// record (t = 25, 2 passes) goes on to (13, 14 / 13, 13). Guide steps of 24
// and 25 between columns, input 10 | 200: 24 < t is smoothed
// ((10 + 2 * 176) / 3, (200 + 2 * 34) / 3), 25 is an edge of the guide.
// 3 x 3 rings: quotients truncate toward zero (-35 / 9 = -3, stored 253)
// and keep their low eight bits (2331 / 9 = 259, stored 3).
TEST_F(SelectiveSmooth, WorkedCases) {
    wzSelectiveSmoothParams *dflt = wzSelectiveSmoothParamsDefault();
    const wzSelectiveSmoothParams one{0.1f, 1};
    struct Case {
        Rows guide, input;
        wzSelectiveSmoothParams p;
        Rows want;
    };
    const Case cases[] = {
        {{{100, 100}, {100, 100}}, {{10, 20}, {10, 10}}, one, {{15, 12}, {15, 15}}},
        {{{100, 100}, {100, 100}}, {{10, 20}, {10, 10}}, *dflt, {{13, 14}, {13, 13}}},
        {{{100, 124}, {100, 124}}, {{10, 200}, {10, 200}}, *dflt, {{120, 89}, {120, 89}}},
        {{{100, 125}, {100, 125}}, {{10, 200}, {10, 200}}, *dflt, {{10, 200}, {10, 200}}},
        {{{106, 106, 106}, {106, 100, 106}, {106, 106, 106}},
         {{0, 0, 0}, {0, 13, 0}, {0, 0, 0}},
         one,
         {{9, 9, 9}, {9, 253, 9}, {9, 9, 9}}},
        {{{100, 100, 100}, {100, 107, 100}, {100, 100, 100}},
         {{255, 255, 255}, {255, 240, 255}, {255, 255, 255}},
         one,
         {{244, 244, 244}, {244, 3, 244}, {244, 244, 244}}},
    };
    wzSelectiveSmoothParamsRelease(&dflt);
    for (const Case &k : cases) {
        ImagePtr g = fromRows(k.guide), in = fromRows(k.input),
                 out = fromRows(k.input, wzEncodingRGBA);
        ASSERT_EQ(wzSelectiveSmooth(&k.p, support, g.get(), in.get(), out.get(), nullptr), 0u);
        EXPECT_EQ(snapshot(out.get()), snapshot(fromRows(k.want, wzEncodingRGBA).get()))
            << "case " << (&k - cases);
    }
}

// Random sizes, thresholds, pass counts and layouts, into a separate output
// and in place; thresholds below one level, no passes and single rows or
// columns copy. A guide equal to the input changes nothing.
TEST_F(SelectiveSmooth, RandomizedAgainstReference) {
    std::mt19937 rng(1234);
    const int passes[] = {1, 2, 3, 0, -3};
    int round = 0;
    for (auto [w, h] : {std::pair{2, 2}, {2, 9}, {9, 2}, {3, 3}, {17, 11}, {40, 7}, {1, 6}, {6, 1}})
        for (float th : {0.1f, 0.03f, 0.5f, 1.5f, 0.0039f, -1.0f}) {
            const int spread = 1 + int(rng() % 60);
            auto colour = [&](int k) {
                return makeImage(w, h, kAllEncodings[1 + (round + k) % 4]);
            };
            ImagePtr g = colour(0), x = colour(1), o = colour(2), r = makeImage(w, h, o->encoding);
            // Locally flat guides with small steps; inputs from narrow to the
            // full range, so sums below 0 and above 255 occur.
            for (size_t k = 0; k < blockBytes(g.get()); ++k)
                g->data[k] = uint8_t(120 + rng() % spread);
            for (size_t k = 0; k < blockBytes(x.get()); ++k) {
                const uint32_t v = uint32_t(rng()), near = v / 2 % 12;
                x->data[k] = uint8_t(round % 3 == 0   ? v
                                     : round % 3 == 1 ? (v % 2 ? near : 255 - near)
                                                      : 100 + v % (2 * spread));
            }
            fillRandom(o.get(), rng);
            std::memcpy(r->data, o->data, blockBytes(o.get()));
            const wzSelectiveSmoothParams p{th, passes[round++ % 5]};
            reference(p, g.get(), x.get(), r.get());
            ASSERT_EQ(wzSelectiveSmooth(&p, support, g.get(), x.get(), o.get(), nullptr), 0u);
            ASSERT_EQ(snapshot(o.get()), snapshot(r.get())) << w << "x" << h << " t=" << th;
            ImagePtr y = makeImage(w, h, x->encoding);  // in place on a copy of the input
            std::memcpy(y->data, x->data, blockBytes(x.get()));
            ASSERT_EQ(wzSelectiveSmooth(&p, support, g.get(), y.get(), y.get(), nullptr), 0u);
            reference(p, g.get(), x.get(), x.get());
            ASSERT_EQ(snapshot(y.get()), snapshot(x.get())) << "in place";
            ASSERT_EQ(wzSelectiveSmooth(&p, support, x.get(), x.get(), x.get(), nullptr), 0u);
            ASSERT_EQ(snapshot(y.get()), snapshot(x.get())) << "guide = input";
        }
}

// Cancellation and refusals (not 8-bit, fewer than three channels, another
// size: choices of this library) write nothing.
TEST_F(SelectiveSmooth, CancelAndRefusalsWriteNothing) {
    std::mt19937 rng(7);
    ImagePtr g = makeImage(5, 6, wzEncodingBGR), x = makeImage(5, 6, wzEncodingBGR),
             o = makeImage(5, 6, wzEncodingBGR);
    ImagePtr gray = makeImage(5, 6, wzEncodingGray), wide = makeImage(6, 6, wzEncodingBGR),
             deep = makeImage(5, 6, wzEncodingBGR, wzType16U);
    for (wzImage *img : {g.get(), x.get(), o.get(), gray.get(), wide.get(), deep.get()})
        fillRandom(img, rng);
    auto outputs = [&] {
        return std::vector{snapshot(o.get()), snapshot(gray.get()), snapshot(wide.get())};
    };
    const auto before = outputs();
    const wzSelectiveSmoothParams p{0.1f, 2};
    const uint32_t flag = 1;
    EXPECT_EQ(wzSelectiveSmooth(&p, support, g.get(), x.get(), o.get(), &flag), 2u);
    struct Bad {
        const wzImage *g, *x;
        wzImage *o;
    };
    for (const Bad &b : {Bad{gray.get(), x.get(), o.get()}, Bad{g.get(), x.get(), gray.get()},
                         Bad{g.get(), deep.get(), o.get()}, Bad{g.get(), x.get(), wide.get()}})
        EXPECT_EQ(wzSelectiveSmooth(&p, support, b.g, b.x, b.o, nullptr), 1u);
    EXPECT_EQ(outputs(), before);
}

}  // namespace
