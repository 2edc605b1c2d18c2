// Histogram equalisation and stretch on worked images, and the stretch
// against its formula on random ranges.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "morven/morven.h"
#include "support/image_fixtures.hpp"

using namespace morven_test;

namespace {

// lo .. hi onto 0 .. 255: trunc(float(255 / (hi - lo)) * (v - lo)), hi to 255.
uint8_t stretched(int v, int lo, int hi) {
    const float scale = 255.0f / static_cast<float>(hi - lo);
    return v >= hi ? 255 : static_cast<uint8_t>(scale * static_cast<float>(v - lo));
}

}  // namespace

// Worked values: 50..100 (scale 5.1); the float scale over 10..247 gives 84
// at 89 where exact arithmetic gives 85; over 3..10, 9 -> 218 and the top
// entry is 255 although scale * 7 falls just below 255; 0..255 is identity.
// Then random ranges against the formula. Each over a gray region (outside
// it nothing changes), separate and in place.
TEST(HistogramStretch, WorkedAndRandomRanges) {
    struct Case {
        int lo, hi;
        std::vector<std::pair<int, int>> points;
    };
    std::vector<Case> cases = {{50, 100, {{50, 0}, {75, 127}, {99, 249}, {100, 255}}},
                               {10, 247, {{89, 84}, {168, 169}, {247, 255}}},
                               {3, 10, {{9, 218}, {10, 255}}},
                               {0, 255, {{0, 0}, {1, 1}, {128, 128}, {254, 254}, {255, 255}}}};
    std::mt19937 rng(99);
    for (int i = 0; i < 100; ++i) {
        const int lo = static_cast<int>(rng() % 255);
        cases.push_back({lo, lo + 1 + static_cast<int>(rng() % (255 - lo)), {}});
    }
    for (const Case &c : cases) {
        ImagePtr src = makeImage(22, 15, wzEncodingGray), dst = makeImage(22, 15, wzEncodingGray);
        fillRandom(src.get(), rng);
        for (int i = 0; i < 300; ++i)  // lo..hi first, then random values in the range
            *at(src.get(), 1 + i % 20, i / 20) =
                uint8_t(c.lo + (i <= c.hi - c.lo ? i : rng() % (c.hi - c.lo + 1)));
        src->roi = dst->roi = {1, 0, 20, 15};
        std::memcpy(dst->data, src->data, 330);
        std::vector<uint8_t> want = snapshot(src.get());
        for (int i = 0; i < 300; ++i)
            want[i / 20 * 22 + 1 + i % 20] = stretched(want[i / 20 * 22 + 1 + i % 20], c.lo, c.hi);
        ASSERT_EQ(wzHistogramStretch(src.get(), dst.get()), 0u);
        for (auto [v, w] : c.points)
            EXPECT_EQ(dst->data[1 + (v - c.lo) % 20 + (v - c.lo) / 20 * 22], w)
                << c.lo << ".." << c.hi << " at " << v;
        ASSERT_EQ(snapshot(dst.get()), want) << c.lo << ".." << c.hi;
        ASSERT_EQ(wzHistogramStretch(src.get(), src.get()), 0u);
        ASSERT_EQ(snapshot(src.get()), want) << c.lo << ".." << c.hi << " in place";
    }
}

// A region of one value: the stretch copies it unchanged with status 1 (into
// the destination's own region), equalisation sets it to 255; outside the
// region nothing changes. Choices of this library: an empty region gives 1
// (stretch) or 0 (equalisation) without writing; a colour image has each
// channel stretched by its own range (one of a single value stays, alpha too).
TEST(HistogramStretchAndEqualization, SingleValueEmptyAndColour) {
    ImagePtr img = makeImage(4, 3, wzEncodingGray), dst = makeImage(5, 5, wzEncodingGray);
    std::memset(img->data, 90, 12);
    std::memset(dst->data, 7, 25);
    img->data[0] = 1;  // outside the region
    img->roi = {1, 0, 3, 3};
    dst->roi = {2, 1, 3, 3};
    EXPECT_EQ(wzHistogramStretch(img.get(), dst.get()), 1u);
    std::vector<uint8_t> want(25, 7), eq(12, 255);
    for (int y = 1; y < 4; ++y)
        for (int x = 2; x < 5; ++x) want[y * 5 + x] = 90;
    EXPECT_EQ(snapshot(dst.get()), want);
    eq[0] = 1;
    eq[4] = eq[8] = 90;
    ASSERT_EQ(wzHistogramEqualization(img.get(), img.get()), 0u);
    EXPECT_EQ(snapshot(img.get()), eq);
    img->roi = {1, 0, 0, 3};
    EXPECT_EQ(wzHistogramStretch(img.get(), dst.get()), 1u);
    EXPECT_EQ(wzHistogramEqualization(img.get(), img.get()), 0u);
    EXPECT_EQ(snapshot(dst.get()), want);
    EXPECT_EQ(snapshot(img.get()), eq);

    ImagePtr colour = makeImage(51, 1, wzEncodingRGBA);
    for (int i = 0; i < 51; ++i) {
        const uint8_t px[4] = {7, uint8_t(i * 5), uint8_t(50 + i),
                               uint8_t(i)};  // 7, 0..250, 50..100, alpha
        std::memcpy(colour->data + 4 * i, px, 4);
    }
    ASSERT_EQ(wzHistogramStretch(colour.get(), colour.get()), 0u);
    for (int i = 0; i < 51; ++i) {
        const uint8_t *px = colour->data + 4 * i;
        ASSERT_TRUE(px[0] == 7 && px[1] == stretched(i * 5, 0, 250) &&
                    px[2] == stretched(50 + i, 50, 100) && px[3] == i)
            << i;
    }
}
