// Selective smoothing: support tables, worked numbers, a randomized check
// against a per-pixel reference, copy paths, refusals and cancellation.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "morven/smoothing.h"
#include "support/image_fixtures.hpp"

using namespace morven_test;

namespace {

struct SupportDeleter {
    void operator()(wzSelectiveSmoothSupport *s) const { wzSelectiveSmoothSupportRelease(&s); }
};
using SupportPtr = std::unique_ptr<wzSelectiveSmoothSupport, SupportDeleter>;

using Rows = std::vector<std::vector<int>>;

// An image whose channels 1-3 all hold rows[y][x] (other bytes 77).
ImagePtr fromRows(const Rows &rows, uint32_t enc = wzEncodingBGR) {
    ImagePtr img = makeImage(static_cast<int>(rows[0].size()), static_cast<int>(rows.size()), enc);
    std::memset(img->data, 77, blockBytes(img.get()));
    for (size_t y = 0; y < rows.size(); ++y)
        for (size_t x = 0; x < rows[0].size(); ++x)
            for (int c = 1; c <= 3; ++c) *at(img.get(), int(x), int(y), c) = uint8_t(rows[y][x]);
    return img;
}

// Each pixel with its up to eight neighbours: a neighbour whose guide
// differs by less than t and whose input differs by more than twice that
// proposes its input shifted by the guide step; the pixel becomes the
// truncated mean of itself and the proposals.
void reference(const wzSelectiveSmoothParams &p, const wzImage *guide, const wzImage *input, wzImage *out) {
    const int t = static_cast<int>(p.threshold * 255.0f), w = input->width, h = input->height;
    for (int c = 1; c <= 3; ++c) {
        std::vector<int> x(w * h), g(w * h), next(w * h);
        for (int i = 0; i < w * h; ++i) {
            x[i] = *at(input, i % w, i / w, c);
            g[i] = *at(guide, i % w, i / w, c);
        }
        for (int it = 0; it < p.iterations; ++it, x.swap(next))
            for (int i = 0; i < w * h; ++i) {
                int sum = x[i], count = 1;
                for (int dy = -1; dy <= 1; ++dy)
                    for (int dx = -1; dx <= 1; ++dx) {
                        const int qx = i % w + dx, qy = i / w + dy, q = qy * w + qx;
                        if ((dx || dy) && qx >= 0 && qy >= 0 && qx < w && qy < h && std::abs(g[i] - g[q]) < t &&
                            std::abs(x[i] - x[q]) > 2 * std::abs(g[i] - g[q])) {
                            sum += x[q] + g[i] - g[q];
                            ++count;
                        }
                    }
                next[i] = static_cast<uint8_t>(sum / count);
            }
        for (int i = 0; i < w * h; ++i) *at(out, i % w, i / w, c) = static_cast<uint8_t>(x[i]);
    }
}

class SelectiveSmooth : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(support, nullptr); }
    SupportPtr support{wzSelectiveSmoothSupportCreate()};
};

TEST_F(SelectiveSmooth, SupportTablesAndRecords) {
    const wzMatrix *ad = support->absDiff, *ra = support->ratio;
    ASSERT_TRUE(ad && ra && ad->nRows == 256 && ad->nCols == 256 && ra->nRows == 256 && ra->nCols == 256);
    for (int i = 0; i < 256; ++i)
        for (int j = 0; j < 256; ++j) {
            ASSERT_EQ(ad->rowPtr[i][j], double(std::abs(i - j)));
            ASSERT_EQ(ra->rowPtr[i][j], j == 0 ? 0.0 : double(float(i) / float(j)));  // single precision
        }
    wzSelectiveSmoothSupport *s = support.release();
    wzSelectiveSmoothSupportRelease(&s);
    wzSelectiveSmoothSupportRelease(&s);
    wzSelectiveSmoothParams *p = wzSelectiveSmoothParamsDefault();
    wzSelectiveSmoothParamsRelease(&p);
    wzSelectiveSmoothParamsRelease(&p);
    EXPECT_TRUE(s == nullptr && p == nullptr);
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
    struct Case { Rows guide, input; wzSelectiveSmoothParams p; Rows want; };
    const Case cases[] = {
        {{{100, 100}, {100, 100}}, {{10, 20}, {10, 10}}, one, {{15, 12}, {15, 15}}},
        {{{100, 100}, {100, 100}}, {{10, 20}, {10, 10}}, *dflt, {{13, 14}, {13, 13}}},
        {{{100, 124}, {100, 124}}, {{10, 200}, {10, 200}}, *dflt, {{120, 89}, {120, 89}}},
        {{{100, 125}, {100, 125}}, {{10, 200}, {10, 200}}, *dflt, {{10, 200}, {10, 200}}},
        {{{106, 106, 106}, {106, 100, 106}, {106, 106, 106}}, {{0, 0, 0}, {0, 13, 0}, {0, 0, 0}}, one,
         {{9, 9, 9}, {9, 253, 9}, {9, 9, 9}}},
        {{{100, 100, 100}, {100, 107, 100}, {100, 100, 100}}, {{255, 255, 255}, {255, 240, 255}, {255, 255, 255}}, one,
         {{244, 244, 244}, {244, 3, 244}, {244, 244, 244}}},
    };
    wzSelectiveSmoothParamsRelease(&dflt);
    for (const Case &k : cases) {
        ImagePtr g = fromRows(k.guide), in = fromRows(k.input), out = fromRows(k.input, wzEncodingRGBA);
        ASSERT_EQ(wzSelectiveSmooth(&k.p, support.get(), g.get(), in.get(), out.get(), nullptr), 0u);
        EXPECT_EQ(snapshot(out.get()), snapshot(fromRows(k.want, wzEncodingRGBA).get())) << "case " << (&k - cases);
    }
}

// Random sizes, thresholds, pass counts and layouts; each run both into a
// separate output and in place. A guide equal to the input changes nothing.
TEST_F(SelectiveSmooth, RandomizedAgainstReference) {
    std::mt19937 rng(1234);
    const int sizes[][2] = {{2, 2}, {2, 9}, {9, 2}, {3, 3}, {17, 11}, {40, 7}};
    const float thresholds[] = {0.1f, 0.03f, 0.5f, 1.5f};
    int round = 0;
    for (auto &s : sizes)
        for (float th : thresholds) {
            const int w = s[0], h = s[1], spread = 1 + int(rng() % 60);
            ImagePtr g = makeImage(w, h, kAllEncodings[1 + round % 4]), x = makeImage(w, h, kAllEncodings[1 + (round + 1) % 4]);
            ImagePtr o = makeImage(w, h, kAllEncodings[1 + (round + 2) % 4]), r = makeImage(w, h, o->encoding);
            // Locally flat guides with small steps; inputs from narrow to the
            // full range, so sums below 0 and above 255 occur.
            for (size_t k = 0; k < blockBytes(g.get()); ++k) g->data[k] = uint8_t(120 + rng() % spread);
            for (size_t k = 0; k < blockBytes(x.get()); ++k)
                x->data[k] = round % 3 == 0   ? uint8_t(rng())
                             : round % 3 == 1 ? uint8_t(rng() % 2 ? rng() % 12 : 255 - rng() % 12)
                                              : uint8_t(100 + rng() % (2 * spread));
            fillRandom(o.get(), rng);
            std::memcpy(r->data, o->data, blockBytes(o.get()));
            const wzSelectiveSmoothParams p{th, 1 + round++ % 3};
            reference(p, g.get(), x.get(), r.get());
            ASSERT_EQ(wzSelectiveSmooth(&p, support.get(), g.get(), x.get(), o.get(), nullptr), 0u);
            ASSERT_EQ(snapshot(o.get()), snapshot(r.get())) << w << "x" << h << " t=" << th;
            // In place gives the same; a guide equal to the input changes nothing.
            const std::vector<uint8_t> xBefore = snapshot(x.get());
            ImagePtr want = makeImage(w, h, x->encoding);
            std::memcpy(want->data, x->data, blockBytes(x.get()));
            reference(p, g.get(), x.get(), want.get());
            ASSERT_EQ(wzSelectiveSmooth(&p, support.get(), x.get(), x.get(), x.get(), nullptr), 0u);
            ASSERT_EQ(snapshot(x.get()), xBefore) << "guide = input";
            ASSERT_EQ(wzSelectiveSmooth(&p, support.get(), g.get(), x.get(), x.get(), nullptr), 0u);
            ASSERT_EQ(snapshot(x.get()), snapshot(want.get())) << "in place";
        }
}

// Copies (t = 0, no passes, fewer than 2 rows or columns: a choice of this
// library) under a flat guide that would otherwise smooth; cancellation and
// refusals (not 8-bit, fewer than three channels, another size: choices of
// this library) write nothing.
TEST_F(SelectiveSmooth, CopyPathsCancelAndRefusals) {
    std::mt19937 rng(7);
    auto random = [&](int w, int h, uint32_t enc = wzEncodingBGR, uint32_t type = wzType8U) {
        ImagePtr img = makeImage(w, h, enc, type);
        fillRandom(img.get(), rng);
        return img;
    };
    struct Case { float th; int iters, w, h; };
    for (const Case k : {Case{0.0039f, 2, 5, 6}, Case{-1.0f, 2, 5, 6}, Case{0.1f, 0, 5, 6}, Case{0.1f, -3, 5, 6},
                         Case{0.5f, 2, 1, 6}, Case{0.5f, 2, 6, 1}}) {
        ImagePtr g = random(k.w, k.h), x = random(k.w, k.h), o = random(k.w, k.h);
        std::memset(g->data, 50, blockBytes(g.get()));
        const wzSelectiveSmoothParams p{k.th, k.iters};
        ASSERT_EQ(wzSelectiveSmooth(&p, support.get(), g.get(), x.get(), o.get(), nullptr), 0u);
        EXPECT_EQ(snapshot(o.get()), snapshot(x.get())) << k.th << " " << k.iters << " " << k.w;
    }
    ImagePtr g = random(5, 6), x = random(5, 6), o = random(5, 6), gray = random(5, 6, wzEncodingGray);
    ImagePtr wide = random(6, 6), deep = random(5, 6, wzEncodingBGR, wzType16U);
    auto outputs = [&] { return std::vector{snapshot(o.get()), snapshot(gray.get()), snapshot(wide.get())}; };
    const auto before = outputs();
    const wzSelectiveSmoothParams p{0.1f, 2};
    const uint32_t flag = 1;
    EXPECT_EQ(wzSelectiveSmooth(&p, support.get(), g.get(), x.get(), o.get(), &flag), 2u);
    struct Bad { const wzImage *g, *x; wzImage *o; };
    for (const Bad &b : {Bad{gray.get(), x.get(), o.get()}, Bad{g.get(), x.get(), gray.get()},
                         Bad{g.get(), deep.get(), o.get()}, Bad{g.get(), x.get(), wide.get()}})
        EXPECT_EQ(wzSelectiveSmooth(&p, support.get(), b.g, b.x, b.o, nullptr), 1u);
    EXPECT_EQ(outputs(), before);
}

}  // namespace
