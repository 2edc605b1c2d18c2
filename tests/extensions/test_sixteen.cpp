// 16-bit contrast, equalisation and blend against their documented rules
// (the 16-bit stretch is with the 8-bit one in the histogram tests).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "ext_support.hpp"

using namespace ext;

// A 10 x 10 picture: 3 pixels of 500, 5 of 1000, 4 of 15000, 80 of 20000,
// 5 of 50000, 3 of 64000. Levels come from the 65536-bin histogram (tails
// per mille of the pixels counted), manual levels are scaled by 257, and
// v -> trunc((v - low) * (65535.0 / (high - low))) clamped; high = low gives
// 0 at or below low, 65535 above. Gray, and RGBA whose alpha stays; with a
// blend mask of levels 0 and 255 in place, the 0 pixels keep the source.
TEST(ExtContrast16, LevelsAndCurveOfTheDocumentedRule) {
    const int values[6] = {500, 1000, 15000, 20000, 50000, 64000}, counts[6] = {3, 5, 4, 80, 5, 3};
    struct Case {
        float high, low;
        int manual, manualHigh, manualLow;
        bool masked;
        int want[6];
    };
    // low 1000, high 50000; 94 counted: low 15000; 2570 .. 51400; 25700 .. 25700.
    const Case cases[] = {
        {50.0f, 40.0f, 0, 255, 0, false, {0, 0, 18724, 25411, 65535, 65535}},
        {50.0f, 60.0f, 0, 255, 0, true, {0, 0, 0, 9362, 65535, 65535}},
        {9.0f, 4.0f, 1, 200, 10, false, {0, 0, 16682, 23392, 63656, 65535}},
        {9.0f, 4.0f, 1, 100, 100, false, {0, 0, 0, 0, 65535, 65535}},
    };
    for (uint32_t enc : {wzEncodingGray, wzEncodingRGBA}) {
        ImagePtr src = makeImage(10, 10, enc, wzType16U), stats = filledMask(10, 10, 255),
                 blend = makeImage(10, 10, wzEncodingGray);
        std::vector<int> which;
        for (int v = 0; v < 6; ++v) which.insert(which.end(), counts[v], v);
        std::shuffle(which.begin(), which.end(), std::mt19937(12));
        for (int i = 0; i < 100; ++i) {
            for (int c = 1; c <= colours(src.get()); ++c)
                put(src.get(), i % 10, i / 10, c, values[which[i]]);
            if (enc == wzEncodingRGBA) put(src.get(), i % 10, i / 10, 4, 1000 + i);
            stats->data[i] = which[i] == 0 || which[i] == 5 ? 0 : 255;  // drops the 500s and 64000s
            blend->data[i] = i % 3 ? 255 : 0;
        }
        for (const Case &k : cases)
            for (bool blended : {false, true}) {
                SCOPED_TRACE(testing::Message()
                             << "encoding " << enc << " low " << k.low << " manual " << k.manual
                             << (blended ? " blended in place" : ""));
                const wzContrastEnhanceParams p{k.high, k.low, k.manual, uint8_t(k.manualHigh),
                                                uint8_t(k.manualLow)};
                ImagePtr s = clone(src.get()), d = makeImage(10, 10, enc, wzType16U);
                std::memset(d->data, 0, blockBytes(d.get()));
                wzImage *dst = blended ? s.get() : d.get();
                ASSERT_EQ(
                    wzContrastEnhanceFilterMasked(&p, s.get(), k.masked ? stats.get() : nullptr,
                                                  blended ? blend.get() : nullptr, dst, nullptr),
                    0u);
                for (int i = 0; i < 100; ++i) {
                    for (int c = 1; c <= colours(src.get()); ++c)
                        ASSERT_EQ(get(dst, i % 10, i / 10, c),
                                  blended && !blend->data[i] ? values[which[i]] : k.want[which[i]])
                            << values[which[i]];
                    if (enc == wzEncodingRGBA) {
                        ASSERT_EQ(get(dst, i % 10, i / 10, 4), blended ? 1000 + i : 0);
                    }
                }
            }
    }
}

// A 16-bit picture of skewed levels (65535 u^2 for uniform u) equalised:
// the order of the pixels is kept and each sixteenth of the scale holds a
// sixteenth of the pixels, within a tenth.
TEST(ExtEqualize16, SpreadsTheLevelsEvenly) {
    std::mt19937 rng(13);
    ImagePtr src = makeImage(64, 64, wzEncodingGray, wzType16U),
             out = makeImage(64, 64, wzEncodingGray, wzType16U);
    for (int i = 0; i < 4096; ++i)
        put(src.get(), i % 64, i / 64, 1,
            int(65535.0 * std::pow(double(rng()) / 4294967296.0, 2.0)));
    ASSERT_EQ(wzHistogramEqualizationMasked(src.get(), nullptr, out.get()), 0u);
    std::vector<std::pair<int, int>> pairs;  // (before, after)
    std::vector<int> buckets(16);
    for (int i = 0; i < 4096; ++i)
        pairs.push_back({get(src.get(), i % 64, i / 64), get(out.get(), i % 64, i / 64)}),
            ++buckets[pairs.back().second / 4096];
    std::sort(pairs.begin(), pairs.end());
    EXPECT_TRUE(std::is_sorted(pairs.begin(), pairs.end(),
                               [](auto a, auto b) { return a.second < b.second; }));
    for (int b = 0; b < 16; ++b) EXPECT_NEAR(buckets[b], 256, 26) << "levels " << b * 4096 << "..";
}

// The 16-bit blend: a + w (b - a) rounded, w = mask / 255; the refusals.
TEST(ExtBlend16, WeighsByTheMaskRounded) {
    ImagePtr a = makeImage(4, 1, wzEncodingGray, wzType16U),
             b = makeImage(4, 1, wzEncodingGray, wzType16U);
    ImagePtr out = makeImage(4, 1, wzEncodingGray, wzType16U),
             mask = makeImage(4, 1, wzEncodingGray);
    const int from[4] = {1000, 1000, 65535, 7}, to[4] = {3000, 3000, 0, 8},
              level[4] = {0, 128, 255, 128};
    const int want[4] = {1000, 2004, 0, 8};  // 1000 + 2000 * 128 / 255 = 2003.92; 7.502 rounds up
    for (int x = 0; x < 4; ++x)
        put(a.get(), x, 0, 1, from[x]), put(b.get(), x, 0, 1, to[x]),
            mask->data[x] = uint8_t(level[x]);
    ASSERT_EQ(wzAddWeigthedM16(a.get(), b.get(), out.get(), mask.get()), 0u);
    for (int x = 0; x < 4; ++x) EXPECT_EQ(get(out.get(), x, 0), want[x]) << x;
    ImagePtr a8 = makeImage(4, 1, wzEncodingGray), rgb = makeImage(4, 1, wzEncodingRGB, wzType16U);
    const Bytes before = snapshot(out.get());
    EXPECT_EQ(wzAddWeigthedM16(a8.get(), b.get(), out.get(), mask.get()), 1u);
    EXPECT_EQ(wzAddWeigthedM16(a.get(), rgb.get(), out.get(), mask.get()), 1u);
    EXPECT_EQ(wzAddWeigthedM16(a.get(), b.get(), out.get(), b.get()), 1u);
    EXPECT_EQ(snapshot(out.get()), before);
}
