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

// The default record (tails 9 and 4) on 1000 pixels: lowCount 4, highCount 9;
// the sum from below first exceeds 4 at 11, from above 9 at 240, and 229 *
// (255 / 229) falls just short of 255 in float. Other records, empty and
// manual ones included, are left to the randomized check.
TEST(ContrastCurve, DefaultRecordWorkedCurve) {
    wzContrastEnhanceParams *defaults = wzContrastEnhanceParamsDefault();
    ASSERT_NE(defaults, nullptr);
    const Curve got =
        compute(statsOf(1000.0f, {{10, 3.0f}, {11, 2.0f}, {100, 985.0f}, {240, 5.0f}, {250, 5.0f}}),
                *defaults);
    wzContrastEnhanceParamsRelease(&defaults);
    wzContrastEnhanceParamsRelease(&defaults);
    EXPECT_EQ(defaults, nullptr);
    const int points[][2] = {{0, 0},     {11, 0},    {12, 1},    {100, 99},
                             {239, 253}, {240, 254}, {241, 255}, {255, 255}};
    for (auto [v, want] : points) EXPECT_EQ(got[v], want) << v;
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

// The histogram itself is held against plain counting in the kernel suite.
// Update adds the bins and keeps the receiving total; init clears; counts
// grow by 1.0f, so a bin stops at 2^24. An encoding without channel count
// leaves a cleared record with status 1; cancellation gives 2.
TEST(ContrastStats, UpdateInitStatusesAndSaturation) {
    wzContrastEnhanceStats from = statsOf(5.0f, {{3, 2.0f}, {255, 1.0f}}),
                           *into = wzContrastEnhanceStatsCreate();
    *into = statsOf(7.0f, {{3, 1.0f}, {9, 4.0f}});
    wzContrastEnhanceStatsUpdate(&from, into);
    const wzContrastEnhanceStats want = statsOf(7.0f, {{3, 3.0f}, {9, 4.0f}, {255, 1.0f}});
    EXPECT_EQ(0, std::memcmp(into, &want, sizeof want));
    ImagePtr img = makeImage(7, 5, wzEncodingBGR), big = makeImage(4097, 4097, wzEncodingGray);
    wzContrastEnhanceStatsInit(into, img.get());
    const wzContrastEnhanceStats cleared = statsOf(35.0f, {});
    EXPECT_EQ(0, std::memcmp(into, &cleared, sizeof cleared));
    const uint32_t set = 1;
    for (uint32_t enc : {uint32_t{wzEncodingGray}, uint32_t{wzEncodingBGR}, uint32_t{5}}) {
        img->encoding = enc;
        std::memset(into, 0x55, sizeof *into);
        EXPECT_EQ(wzContrastEnhanceStatsRetrieve(into, img.get(), &set), enc == 5 ? 1u : 2u);
        EXPECT_TRUE(enc != 5 || std::memcmp(into, &cleared, sizeof cleared) == 0);
    }
    wzContrastEnhanceStatsRelease(&into);
    wzContrastEnhanceStatsRelease(&into);
    EXPECT_EQ(into, nullptr);
    std::memset(big->data, 0, blockBytes(big.get()));
    big->data[0] = 1;
    wzContrastEnhanceStats s;
    ASSERT_EQ(wzContrastEnhanceStatsRetrieve(&s, big.get(), nullptr), 0u);
    EXPECT_EQ(std::make_pair(s.hist[0], s.hist[1]), std::make_pair(16777216.0f, 1.0f));
    big->height = 3000;  // 2^23 < count < 2^24: still exact
    ASSERT_EQ(wzContrastEnhanceStatsRetrieve(&s, big.get(), nullptr), 0u);
    EXPECT_EQ(s.hist[0], 4097.0f * 3000.0f - 1.0f);
}
