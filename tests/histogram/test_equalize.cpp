// Histogram equalisation and stretch on worked images, and the stretch of 8-
// and 16-bit pictures against its formula on random ranges.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "extensions/ext_support.hpp"

using namespace ext;

namespace {

// lo..hi onto the full scale, hi and above to the top, below lo to 0: 8-bit
// trunc(float(255 / (hi - lo)) * (v - lo)), 16-bit
// trunc(65535.0 / (hi - lo) * (v - lo)). The float scale matters: over
// 10..247 it gives 84 at 89 where exact arithmetic gives 85, and over 3..10
// the top entry is 255 although scale * 7 falls just below it.
int stretched(bool wide, int v, int lo, int hi) {
    if (v >= hi || v < lo) return v < lo ? 0 : wide ? 65535 : 255;
    return wide ? int(65535.0 / (hi - lo) * (v - lo))
                : int(255.0f / static_cast<float>(hi - lo) * static_cast<float>(v - lo));
}

}  // namespace

// Gray, BGR and RGBA regions, 8 and 16 bits, under no statistics mask or a
// random one, against the formula: each channel by its own selected range
// (the worked 8-bit ranges first, every level of them present; a channel of
// one value stays as it is), outside the destination's region and in its
// fourth channel nothing changes; separate and in place. A selection of a
// single value is copied with status 1.
TEST(HistogramStretch, RegionsAgainstTheFormula) {
    const int worked[4][2] = {{50, 100}, {10, 247}, {3, 10}, {0, 255}};
    std::mt19937 rng(99);
    for (uint32_t type : {wzType8U, wzType16U})
        for (int round = 0; round < 60; ++round) {
            const bool wide = type == wzType16U, masked = round >= 4 && round % 2 == 0;
            const uint32_t enc = round % 3 == 0   ? wzEncodingGray
                                 : round % 3 == 1 ? wzEncodingBGR
                                                  : wzEncodingRGBA;
            const int top = wide ? 65535 : 255, n = enc == wzEncodingGray ? 1 : 3;
            const bool single = round == 6 || round == 9;  // a single selected value
            ImagePtr src = randomImage(23, 17, enc, type, rng), m = randomMask(20, 15, rng, 0.5);
            int lo[3] = {top, top, top}, hi[3] = {0, 0, 0};
            for (int c = 0; c < n; ++c) {
                const int a = round < 4 ? worked[round][0] : int(rng() % top),
                          b = round < 4 ? worked[round][1] : a + 1 + int(rng() % (top - a));
                for (int i = 0; i < 300; ++i) {
                    int v = a + (i <= b - a ? i : int(rng() % uint32_t(b - a + 1)));
                    if ((single && (!masked || m->data[i])) || (round == 5 && c == 0)) v = a;
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
                          single ? 1u : 0u);
                ASSERT_EQ(snapshot(dst), snapshot(want.get()));
            }
        }
}

// Equalisation sets a region of one value to 255; outside the region
// nothing changes. Choices of this library: an empty region gives 1
// (stretch) or 0 (equalisation) without writing.
TEST(HistogramEqualization, SingleValueAndEmptyRegions) {
    ImagePtr img = makeImage(4, 3, wzEncodingGray);
    std::memset(img->data, 90, 12);
    img->data[0] = 1;  // outside the region
    img->roi = {1, 0, 3, 3};
    std::vector<uint8_t> want(12, 255);
    want[0] = 1;
    want[4] = want[8] = 90;
    ASSERT_EQ(wzHistogramEqualization(img.get(), img.get()), 0u);
    EXPECT_EQ(snapshot(img.get()), want);
    img->roi = {1, 0, 0, 3};
    EXPECT_EQ(wzHistogramStretch(img.get(), img.get()), 1u);
    EXPECT_EQ(wzHistogramEqualization(img.get(), img.get()), 0u);
    EXPECT_EQ(snapshot(img.get()), want);
}
