// Histogram equalisation and stretch on worked images, and the stretch of 8-
// and 16-bit pictures against its formula on random ranges.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <random>
#include <vector>

#include "extensions/ext_support.hpp"

using namespace ext;

namespace {

// lo..hi onto the full scale, hi and above to the top, below lo to 0: 8-bit
// trunc(float(255 / (hi - lo)) * (v - lo)), 16-bit
// trunc(65535.0 / (hi - lo) * (v - lo)).
int stretched(bool wide, int v, int lo, int hi) {
    if (v >= hi || v < lo) return v < lo ? 0 : wide ? 65535 : 255;
    return wide ? int(65535.0 / (hi - lo) * (v - lo))
                : int(255.0f / static_cast<float>(hi - lo) * static_cast<float>(v - lo));
}

}  // namespace

// The formula on worked values: 8-bit over 50..100 (scale 5.1); over 10..247
// the float scale gives 84 at 89 where exact arithmetic gives 85; over 3..10,
// 9 -> 218 and the top entry is 255 although scale * 7 falls just below 255;
// 0..255 is identity. 16 bits over 1000..60000.
TEST(HistogramStretch, TheFormulaOnWorkedValues) {
    const std::array<int, 5> worked[] = {{0, 50, 100, 75, 127},
                                         {0, 50, 100, 99, 249},
                                         {0, 10, 247, 89, 84},
                                         {0, 10, 247, 168, 169},
                                         {0, 3, 10, 9, 218},
                                         {0, 3, 10, 10, 255},
                                         {0, 0, 255, 1, 1},
                                         {0, 0, 255, 254, 254},
                                         {1, 1000, 60000, 300, 0},
                                         {1, 1000, 60000, 2000, 1110},
                                         {1, 1000, 60000, 30000, 32212},
                                         {1, 1000, 60000, 59999, 65533},
                                         {1, 1000, 60000, 65000, 65535}};
    for (auto [wide, lo, hi, v, want] : worked)
        EXPECT_EQ(stretched(wide, v, lo, hi), want) << lo << ".." << hi << " at " << v;
}

// Gray and BGR regions, 8 and 16 bits, under no statistics mask or a random
// one, against the formula: each channel by its own selected range (the
// worked 8-bit ranges first, every level of them present), outside the
// destination's region nothing changes; separate and in place. A selection
// of a single value is copied with status 1.
TEST(HistogramStretch, RegionsAgainstTheFormula) {
    const int worked[4][2] = {{50, 100}, {10, 247}, {3, 10}, {0, 255}};
    std::mt19937 rng(99);
    for (uint32_t type : {wzType8U, wzType16U})
        for (int round = 0; round < 60; ++round) {
            const bool wide = type == wzType16U, masked = round >= 4 && round % 2 == 0;
            const uint32_t enc = round % 3 ? wzEncodingBGR : wzEncodingGray;
            const int top = wide ? 65535 : 255, n = enc == wzEncodingGray ? 1 : 3;
            ImagePtr src = randomImage(23, 17, enc, type, rng), m = randomMask(20, 15, rng, 0.5);
            int lo[3] = {top, top, top}, hi[3] = {0, 0, 0};
            for (int c = 0; c < n; ++c) {
                const int a = round < 4 ? worked[round][0] : int(rng() % top),
                          b = round < 4 ? worked[round][1] : a + 1 + int(rng() % (top - a));
                for (int i = 0; i < 300; ++i) {
                    int v = a + (i <= b - a ? i : int(rng() % uint32_t(b - a + 1)));
                    if (round == 6 && m->data[i]) v = a;  // a single selected value
                    put(src.get(), 2 + i % 20, 1 + i / 20, c + 1, v);
                    if (masked && !m->data[i]) continue;
                    lo[c] = std::min(lo[c], v), hi[c] = std::max(hi[c], v);
                }
            }
            setRoi(src.get(), 2, 1, 20, 15);
            for (bool inPlace : {false, true}) {
                SCOPED_TRACE(testing::Message() << "type " << type << " round " << round
                                                << (inPlace ? " in place" : ""));
                ImagePtr s = clone(src.get()), d = randomImage(23, 17, enc, type, rng);
                wzImage *dst = inPlace ? s.get() : d.get();
                if (!inPlace) setRoi(dst, 0, 2, 20, 15);
                ImagePtr want = clone(dst);
                for (int i = 0; i < 300 * n; ++i) {
                    const int x = i / n % 20, y = i / n / 20, c = i % n;
                    const int v = get(src.get(), 2 + x, 1 + y, c + 1);
                    put(want.get(), dst->roi.x + x, dst->roi.y + y, c + 1,
                        lo[c] == hi[c] ? v : stretched(wide, v, lo[c], hi[c]));
                }
                ASSERT_EQ(masked ? wzHistogramStretchMasked(s.get(), m.get(), dst)
                          : wide ? wzHistogramStretchMasked(s.get(), nullptr, dst)
                                 : wzHistogramStretch(s.get(), dst),
                          round == 6 ? 1u : 0u);
                ASSERT_EQ(snapshot(dst), snapshot(want.get()));
            }
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
        ASSERT_TRUE(px[0] == 7 && px[1] == stretched(false, i * 5, 0, 250) &&
                    px[2] == stretched(false, 50 + i, 50, 100) && px[3] == i)
            << i;
    }
}
