// Brightness statistics and the levels tone curve: worked curves and a
// randomized check against a plain reading of the levels rule.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "morven/contrast.h"
#include "support/image_fixtures.hpp"

using namespace morven_test;

namespace {

using Curve = std::vector<uint8_t>;

Curve compute(const wzContrastEnhanceStats &stats, const wzContrastEnhanceParams &params) {
    Curve c(256);
    wzContrastEnhanceAddParamsCompute(&stats, &params, c.data());
    return c;
}

// Tails in per mille of the total; low is the first k <= 254 whose sum from
// below exceeds its tail (else 255), high the last k >= 1 whose sum from above
// does (else 0); then the line through (low, 0) and (high, 255) in float.
Curve referenceCurve(const wzContrastEnhanceStats &s, const wzContrastEnhanceParams &p) {
    float low = p.manualLow, high = p.manualHigh;
    if (!p.manual) {
        const float lowCount = (s.total * p.lowTail) / 1000.0f,
                    highCount = (p.highTail * s.total) / 1000.0f;
        float below[256], above[256], acc = 0.0f;
        for (int k = 0; k < 256; ++k) below[k] = acc += s.hist[k];
        acc = 0.0f;
        for (int k = 255; k >= 0; --k) above[k] = acc += s.hist[k];
        low = 255.0f;
        high = 0.0f;
        for (int k = 254; k >= 0; --k) low = below[k] > lowCount ? static_cast<float>(k) : low;
        for (int k = 1; k <= 255; ++k) high = above[k] > highCount ? static_cast<float>(k) : high;
    }
    Curve c(256);
    for (int v = 0; v < 256; ++v) {
        const float x = (static_cast<float>(v) - low) * (255.0f / (high - low));
        c[v] = std::isnan(x) ? 0 : static_cast<uint8_t>(std::clamp(std::trunc(x), 0.0f, 255.0f));
    }
    return c;
}

wzContrastEnhanceStats statsOf(float total, std::initializer_list<std::pair<int, float>> bins) {
    wzContrastEnhanceStats s{};
    s.total = total;
    for (auto [v, n] : bins) s.hist[v] = n;
    return s;
}

}  // namespace

TEST(ContrastCurve, WorkedCurves) {
    // 1000 pixels with the default record (tails 9 and 4): lowCount 4,
    // highCount 9; the sum from below first exceeds 4 at 11, from above 9 at
    // 240. 229 * (255 / 229) falls just short of 255 in float. An empty
    // record gives low 255, high 0 (the inversion); one brightness b gives
    // low = high = b; zero tails give the occupied range 20..90.
    wzContrastEnhanceParams *defaults = wzContrastEnhanceParamsDefault();
    ASSERT_NE(defaults, nullptr);
    const wzContrastEnhanceParams dflt = *defaults, noTails{0.0f, 0.0f, 0, 255, 0};
    EXPECT_EQ(std::make_pair(dflt.highTail, dflt.lowTail), std::make_pair(9.0f, 4.0f));
    wzContrastEnhanceParamsRelease(&defaults);
    wzContrastEnhanceParamsRelease(&defaults);
    EXPECT_EQ(defaults, nullptr);
    const wzContrastEnhanceStats manualStats = statsOf(1000.0f, {{3, 1000.0f}});
    struct Case {
        wzContrastEnhanceStats s;
        wzContrastEnhanceParams p;
        std::vector<std::pair<int, int>> points;
    };
    const Case cases[] = {
        {statsOf(1000.0f, {{10, 3.0f}, {11, 2.0f}, {100, 985.0f}, {240, 5.0f}, {250, 5.0f}}),
         dflt,
         {{0, 0}, {11, 0}, {12, 1}, {100, 99}, {239, 253}, {240, 254}, {241, 255}, {255, 255}}},
        {statsOf(35.0f, {}), dflt, {{0, 255}, {1, 254}, {128, 127}, {255, 0}}},
        {statsOf(64.0f, {{17, 64.0f}}), dflt, {{0, 0}, {17, 0}, {18, 255}, {255, 255}}},
        {statsOf(64.0f, {{0, 64.0f}}), dflt, {{0, 0}, {1, 255}}},
        {statsOf(64.0f, {{255, 64.0f}}), dflt, {{0, 0}, {254, 0}, {255, 0}}},
        {statsOf(6.0f, {{20, 1.0f}, {71, 1.0f}, {90, 4.0f}}),
         noTails,
         {{19, 0}, {20, 0}, {21, 3}, {55, 127}, {89, 251}, {90, 255}, {91, 255}}},
        // Manual levels ignore the histogram: 0/255 is the identity, 50/100
        // halves at 75 (127.5), reversed levels give a falling line.
        {manualStats, {9.0f, 4.0f, 1, 255, 0}, {{0, 0}, {3, 3}, {77, 77}, {255, 255}}},
        {manualStats,
         {9.0f, 4.0f, 1, 100, 50},
         {{40, 0}, {50, 0}, {51, 5}, {75, 127}, {100, 255}, {120, 255}}},
        {manualStats, {9.0f, 4.0f, 1, 100, 200}, {{0, 255}, {100, 255}, {150, 127}, {200, 0}}},
    };
    for (const Case &k : cases) {
        const Curve got = compute(k.s, k.p);
        for (auto [v, want] : k.points)
            EXPECT_EQ(got[v], want) << "case " << (&k - cases) << " v " << v;
    }
}

// Sparse histograms, merged records (total below the bin sum), zero tails
// and manual levels, equal ones included.
TEST(ContrastCurve, RandomHistogramsMatchReference) {
    std::mt19937 rng(1234);
    for (int round = 0; round < 3000; ++round) {
        wzContrastEnhanceStats s{};
        float sum = 0.0f;
        for (int i = 1 + static_cast<int>(rng() % 12); i > 0; --i) {
            const float n = static_cast<float>(rng() % (round % 3 == 0 ? 5 : 5000));
            s.hist[rng() % 256] += n;
            sum += n;
        }
        s.total = round % 5 == 0 ? std::floor(sum * 0.3f) : sum;
        wzContrastEnhanceParams p{static_cast<float>(rng() % 400) / 4.0f,
                                  static_cast<float>(rng() % 400) / 4.0f, 0, 255, 0};
        if (round % 7 == 0) p.highTail = 0.0f;
        if (round % 11 == 0) {
            p.manual = 1;
            p.manualLow = static_cast<uint8_t>(rng());
            p.manualHigh = static_cast<uint8_t>(rng() % 3 == 0 ? p.manualLow : rng());
        }
        ASSERT_EQ(compute(s, p), referenceCurve(s, p)) << "round " << round;
    }
}

// The histogram of the whole image (roi ignored): the value of a gray pixel,
// the largest of channels 1..3 of a colour one (alpha never counts); update
// adds the bins and keeps the receiving total; init clears. Counts grow by
// 1.0f, so a bin stops at 2^24. An encoding without channel count leaves a
// cleared record with status 1; cancellation gives 2.
TEST(ContrastStats, BrightnessHistogramUpdateInitStatuses) {
    std::mt19937 rng(7);
    wzContrastEnhanceStats *all = wzContrastEnhanceStatsCreate(), s;
    auto hist = [](const wzContrastEnhanceStats *r) {
        return std::vector<float>(r->hist, r->hist + 256);
    };
    *all = wzContrastEnhanceStats{};
    std::vector<float> sum(256, 0.0f);
    const uint32_t clear = 0, set = 1;
    for (uint32_t enc : kAllEncodings) {
        ImagePtr img = makeImage(13, 9, enc);
        fillRandom(img.get(), rng);
        img->roi = {2, 2, 3, 3};
        for (int i = 0; i < 117; ++i) {
            auto ch = [&](int c) { return static_cast<int>(*at(img.get(), i % 13, i / 13, c)); };
            if (enc >= wzEncodingARGB) *at(img.get(), i % 13, i / 13, 4) = 255;
            sum[enc == wzEncodingGray ? ch(1) : std::max({ch(1), ch(2), ch(3)})] += 1.0f;
        }
        std::memset(&s, 0x55, sizeof s);
        ASSERT_EQ(wzContrastEnhanceStatsRetrieve(&s, img.get(), &clear), 0u);
        EXPECT_EQ(s.total, 117.0f);
        wzContrastEnhanceStatsUpdate(&s, all);
        EXPECT_EQ(wzContrastEnhanceStatsRetrieve(&s, img.get(), &set), 2u);
    }
    EXPECT_EQ(hist(all), sum);
    EXPECT_EQ(all->total, 0.0f);
    ImagePtr img = makeImage(7, 5, wzEncodingBGR), big = makeImage(4097, 4097, wzEncodingGray);
    wzContrastEnhanceStatsInit(all, img.get());
    EXPECT_EQ(all->total, 35.0f);
    EXPECT_EQ(hist(all), std::vector<float>(256, 0.0f));
    img->encoding = 5;
    std::memset(all, 0x55, sizeof *all);
    EXPECT_EQ(wzContrastEnhanceStatsRetrieve(all, img.get(), nullptr), 1u);
    EXPECT_EQ(hist(all), std::vector<float>(256, 0.0f));
    EXPECT_EQ(all->total, 35.0f);
    wzContrastEnhanceStatsRelease(&all);
    wzContrastEnhanceStatsRelease(&all);
    EXPECT_EQ(all, nullptr);
    std::memset(big->data, 0, blockBytes(big.get()));
    big->data[0] = 1;
    ASSERT_EQ(wzContrastEnhanceStatsRetrieve(&s, big.get(), nullptr), 0u);
    EXPECT_EQ(std::make_pair(s.hist[0], s.hist[1]), std::make_pair(16777216.0f, 1.0f));
}
