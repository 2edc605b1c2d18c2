// Selective smoothing: support tables, worked numbers, copy and refusal paths,
// cancellation, and a randomized cross-check against a naive reference.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "morven/color.h"
#include "morven/smoothing.h"
#include "support/image_fixtures.hpp"

using morven_test::blockBytes;
using morven_test::ImagePtr;
using morven_test::makeImage;

namespace {

struct SupportDeleter {
    void operator()(wzSelectiveSmoothSupport *s) const { wzSelectiveSmoothSupportRelease(&s); }
};
using SupportPtr = std::unique_ptr<wzSelectiveSmoothSupport, SupportDeleter>;

// Memory position of channels 1, 2, 3, 4 per encoding.
const int kPos[5][4] = {{0, 0, 0, 0}, {0, 1, 2, -1}, {2, 1, 0, -1}, {3, 2, 1, 0}, {2, 1, 0, 3}};

uint8_t &at(wzImage *img, int x, int y, int c) {
    const int n = wzGetNChannelFromEncoding(img->encoding);
    return img->data[(static_cast<size_t>(y) * img->width + x) * n + kPos[img->encoding][c - 1]];
}

std::vector<uint8_t> bytes(const wzImage *img) {
    return std::vector<uint8_t>(img->data, img->data + blockBytes(img));
}

// An image whose channels 1-3 all hold rows[y][x].
ImagePtr fromRows(const std::vector<std::vector<int>> &rows, uint32_t enc = wzEncodingBGR) {
    ImagePtr img = makeImage(static_cast<int>(rows[0].size()), static_cast<int>(rows.size()), enc);
    std::memset(img->data, 77, blockBytes(img.get()));
    for (size_t y = 0; y < rows.size(); ++y)
        for (size_t x = 0; x < rows[0].size(); ++x)
            for (int c = 1; c <= 3; ++c) at(img.get(), int(x), int(y), c) = uint8_t(rows[y][x]);
    return img;
}

wzSelectiveSmoothParams params(float threshold = 0.1f, int32_t iterations = 2) {
    return wzSelectiveSmoothParams{threshold, iterations};
}

// Straightforward per-pixel version: every pixel looks at its up to eight
// neighbours with bounds checks and applies the acceptance rule directly.
void reference(float threshold, int iterations, wzImage *guide, wzImage *input, wzImage *out) {
    const int t = static_cast<int>(threshold * 255.0f);
    const int w = input->width, h = input->height;
    for (int c = 1; c <= 3; ++c) {
        std::vector<int> x(w * h), nx(w * h);
        for (int y = 0; y < h; ++y)
            for (int i = 0; i < w; ++i) x[y * w + i] = at(input, i, y, c);
        for (int it = 0; it < iterations; ++it) {
            for (int y = 0; y < h; ++y)
                for (int i = 0; i < w; ++i) {
                    int sum = x[y * w + i], cnt = 1;
                    const int gp = at(guide, i, y, c);
                    for (int dy = -1; dy <= 1; ++dy)
                        for (int dx = -1; dx <= 1; ++dx) {
                            const int qx = i + dx, qy = y + dy;
                            if ((dx == 0 && dy == 0) || qx < 0 || qy < 0 || qx >= w || qy >= h)
                                continue;
                            const int gq = at(guide, qx, qy, c);
                            const int d = std::abs(gp - gq);
                            const int e = std::abs(x[y * w + i] - x[qy * w + qx]);
                            if (d >= t || e < 1 || !(float(d) / float(e) < 0.5f)) continue;
                            sum += x[qy * w + qx] + gp - gq;
                            ++cnt;
                        }
                    nx[y * w + i] = static_cast<uint8_t>(sum / cnt);
                }
            x.swap(nx);
        }
        for (int y = 0; y < h; ++y)
            for (int i = 0; i < w; ++i) at(out, i, y, c) = static_cast<uint8_t>(x[y * w + i]);
    }
}

class SelectiveSmooth : public ::testing::Test {
protected:
    void SetUp() override {
        support.reset(wzSelectiveSmoothSupportCreate());
        ASSERT_NE(support, nullptr);
    }
    SupportPtr support;
};

TEST_F(SelectiveSmooth, SupportTablesAndDefaults) {
    const wzMatrix *ad = support->absDiff;
    const wzMatrix *ra = support->ratio;
    ASSERT_TRUE(ad && ra);
    ASSERT_EQ(ad->nRows + ad->nCols + ra->nRows + ra->nCols, 4 * 256);
    for (int i = 0; i < 256; ++i)
        for (int j = 0; j < 256; ++j) {
            ASSERT_EQ(ad->rowPtr[i][j], double(std::abs(i - j)));
            // Single-precision quotients (1 / 3 is not the double 1 / 3).
            ASSERT_EQ(ra->rowPtr[i][j], j == 0 ? 0.0 : double(float(i) / float(j)));
            // The acceptance test on the table is e > 2d for e >= 1.
            ASSERT_TRUE(j == 0 || (ra->rowPtr[i][j] < 0.5) == (j > 2 * i)) << i << "/" << j;
        }

    wzSelectiveSmoothParams *p = wzSelectiveSmoothParamsDefault();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->threshold, 0.1f);
    EXPECT_EQ(p->iterations, 2);
    wzSelectiveSmoothParamsRelease(&p);
    EXPECT_EQ(p, nullptr);
    wzSelectiveSmoothParamsRelease(&p);
}

TEST_F(SelectiveSmooth, WorkedTwoByTwoAndThresholdBoundary) {
    ImagePtr guide = fromRows({{100, 100}, {100, 100}});
    ImagePtr in = fromRows({{10, 20}, {10, 10}});
    ImagePtr out = fromRows({{0, 0}, {0, 0}}, wzEncodingRGBA);  // its alpha (77) is kept
    const auto p = params(0.1f, 1);
    ASSERT_EQ(wzSelectiveSmooth(&p, support.get(), guide.get(), in.get(), out.get(), nullptr), 0u);
    EXPECT_EQ(bytes(out.get()), bytes(fromRows({{15, 12}, {15, 15}}, wzEncodingRGBA).get()));

    // Guide columns 100 | 100 + step, input columns 10 | 200 (e = 190). With
    // t = 25 a step of 24 is smoothed: the left pixels take
    // (10 + 2 * (200 - 24)) / 3 = 120, the right (200 + 2 * (10 + 24)) / 3 = 89.
    // A step of 25 is an edge of the guide and nothing changes.
    for (int step : {24, 25}) {
        ImagePtr g = fromRows({{100, 100 + step}, {100, 100 + step}});
        ImagePtr x = fromRows({{10, 200}, {10, 200}});
        ImagePtr want = step == 24 ? fromRows({{120, 89}, {120, 89}}) : fromRows({{10, 200}, {10, 200}});
        ASSERT_EQ(wzSelectiveSmooth(&p, support.get(), g.get(), x.get(), x.get(), nullptr), 0u);
        EXPECT_EQ(bytes(x.get()), bytes(want.get())) << step;
    }
}

TEST_F(SelectiveSmooth, QuotientsTruncateTowardZeroAndWrap) {
    // Centre 13 among zeros, guide centre 6 below its ring: every ring pixel
    // proposes 0 - 6 for the centre, (13 - 48) / 9 = -3 (not -4), stored as
    // 253; each ring pixel takes (0 + 13 + 6) / 2 = 9.
    // Centre 240 among 255s, guide centre 7 above: (240 + 8 * 262) / 9 = 259,
    // stored as 3; the ring takes (255 + 240 - 7) / 2 = 244.
    struct Case { int gc, gr, xc, xr, wantC, wantR; };
    for (const Case k : {Case{100, 106, 13, 0, 253, 9}, Case{107, 100, 240, 255, 3, 244}}) {
        ImagePtr g = fromRows({{k.gr, k.gr, k.gr}, {k.gr, k.gc, k.gr}, {k.gr, k.gr, k.gr}});
        ImagePtr x = fromRows({{k.xr, k.xr, k.xr}, {k.xr, k.xc, k.xr}, {k.xr, k.xr, k.xr}});
        const auto p = params(0.1f, 1);
        ASSERT_EQ(wzSelectiveSmooth(&p, support.get(), g.get(), x.get(), x.get(), nullptr), 0u);
        const int r = k.wantR;
        EXPECT_EQ(bytes(x.get()), bytes(fromRows({{r, r, r}, {r, k.wantC, r}, {r, r, r}}).get()));
    }
}

TEST_F(SelectiveSmooth, RandomizedAgainstReference) {
    std::mt19937 rng(1234);
    const int sizes[][2] = {{2, 2}, {2, 9}, {9, 2}, {3, 3}, {17, 11}, {40, 7}};
    const float thresholds[] = {0.1f, 0.03f, 0.5f, 1.5f};
    const uint32_t encs[] = {wzEncodingBGR, wzEncodingRGB, wzEncodingARGB, wzEncodingRGBA};
    int round = 0;
    for (auto &s : sizes)
        for (float th : thresholds) {
            const int w = s[0], h = s[1], spread = 1 + int(rng() % 60);
            ImagePtr g = makeImage(w, h, encs[round % 4]);
            ImagePtr x = makeImage(w, h, encs[(round + 1) % 4]);
            ImagePtr o = makeImage(w, h, encs[(round + 2) % 4]);
            ImagePtr r = makeImage(w, h, o->encoding);
            // Locally flat guides with small steps; inputs from narrow to full
            // range, so sums both below 0 and above 255 occur.
            for (size_t k = 0; k < blockBytes(g.get()); ++k) g->data[k] = uint8_t(120 + rng() % spread);
            for (size_t k = 0; k < blockBytes(x.get()); ++k)
                x->data[k] = round % 3 == 0   ? uint8_t(rng())
                             : round % 3 == 1 ? uint8_t(rng() % 2 ? rng() % 12 : 255 - rng() % 12)
                                              : uint8_t(100 + rng() % (2 * spread));
            morven_test::fillRandom(o.get(), rng);
            std::memcpy(r->data, o->data, blockBytes(o.get()));
            const auto p = params(th, 1 + round % 3);
            ASSERT_EQ(wzSelectiveSmooth(&p, support.get(), g.get(), x.get(), o.get(), nullptr), 0u);
            reference(th, p.iterations, g.get(), x.get(), r.get());
            ASSERT_EQ(bytes(o.get()), bytes(r.get())) << w << "x" << h << " t=" << th;
            ++round;
        }
}

TEST_F(SelectiveSmooth, InPlaceAndGuideEqualToInput) {
    std::mt19937 rng(99);
    ImagePtr g = makeImage(23, 15, wzEncodingBGR), x = makeImage(23, 15, wzEncodingBGR);
    ImagePtr o = makeImage(23, 15, wzEncodingBGR);
    for (size_t k = 0; k < blockBytes(g.get()); ++k) {
        g->data[k] = uint8_t(60 + rng() % 8);
        x->data[k] = uint8_t(rng() % 90);
    }
    const auto p = params(0.1f, 3);
    ASSERT_EQ(wzSelectiveSmooth(&p, support.get(), g.get(), x.get(), o.get(), nullptr), 0u);
    EXPECT_NE(bytes(o.get()), bytes(x.get()));  // something was smoothed
    ASSERT_EQ(wzSelectiveSmooth(&p, support.get(), g.get(), x.get(), x.get(), nullptr), 0u);
    EXPECT_EQ(bytes(x.get()), bytes(o.get()));
    // d = e for every pair: nothing is ever accepted.
    ASSERT_EQ(wzSelectiveSmooth(&p, support.get(), x.get(), x.get(), g.get(), nullptr), 0u);
    EXPECT_EQ(bytes(g.get()), bytes(x.get()));
}

TEST_F(SelectiveSmooth, CopyPathsCancelAndRefusals) {
    std::mt19937 rng(7);
    auto random = [&](int w, int h, uint32_t enc = wzEncodingBGR, uint32_t type = wzType8U) {
        ImagePtr img = makeImage(w, h, enc, type);
        morven_test::fillRandom(img.get(), rng);
        return img;
    };
    // Under a flat guide a random input would be smoothed; each case copies:
    // t = trunc(0.0039 * 255) = 0, negative t, no passes, fewer than 2 rows
    // or columns.
    struct Case { float th; int iters, w, h; };
    for (const Case k : {Case{0.0039f, 2, 5, 6}, Case{-1.0f, 2, 5, 6}, Case{0.1f, 0, 5, 6},
                         Case{0.1f, -3, 5, 6}, Case{0.5f, 2, 1, 6}, Case{0.5f, 2, 6, 1}}) {
        ImagePtr g = random(k.w, k.h), x = random(k.w, k.h), o = random(k.w, k.h);
        std::memset(g->data, 50, blockBytes(g.get()));
        const auto p = params(k.th, k.iters);
        ASSERT_EQ(wzSelectiveSmooth(&p, support.get(), g.get(), x.get(), o.get(), nullptr), 0u);
        EXPECT_EQ(bytes(o.get()), bytes(x.get())) << k.th << " " << k.iters << " " << k.w;
    }

    // Cancelled before the first pass, and refusals (not 8-bit, fewer than
    // three channels, a size other than the input's): nothing is written.
    ImagePtr g = random(5, 6), x = random(5, 6), o = random(5, 6);
    ImagePtr gray = random(5, 6, wzEncodingGray), wide = random(6, 6);
    ImagePtr deep = random(5, 6, wzEncodingBGR, wzType16U);
    const auto before = bytes(o.get()), grayBefore = bytes(gray.get()), wideBefore = bytes(wide.get());
    const auto p = params();
    const uint32_t flag = 1;
    EXPECT_EQ(wzSelectiveSmooth(&p, support.get(), g.get(), x.get(), o.get(), &flag), 2u);
    struct Bad { const wzImage *g, *x; wzImage *o; };
    for (const Bad &b : {Bad{gray.get(), x.get(), o.get()}, Bad{g.get(), gray.get(), o.get()},
                         Bad{g.get(), x.get(), gray.get()}, Bad{g.get(), deep.get(), o.get()},
                         Bad{wide.get(), x.get(), o.get()}, Bad{g.get(), x.get(), wide.get()}})
        EXPECT_EQ(wzSelectiveSmooth(&p, support.get(), b.g, b.x, b.o, nullptr), 1u);
    EXPECT_EQ(bytes(o.get()), before);
    EXPECT_EQ(bytes(gray.get()), grayBefore);
    EXPECT_EQ(bytes(wide.get()), wideBefore);
}

}  // namespace
