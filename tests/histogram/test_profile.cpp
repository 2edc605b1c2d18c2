// Colour profiles: saturation, empty regions, normalisation, the flat
// profile and the record's life. (Channel order under every encoding is
// checked with the masked profiles in the extension tests.)
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>

#include "morven/morven.h"
#include "support/image_fixtures.hpp"

using namespace morven_test;

// Counts grow by 1.0f, so a bin stops at 2^24; an empty region replaces
// stale counts by zeros. (Random regions against plain counting are in the
// kernel tests.)
TEST(ColorProfile, CountsSaturateAndEmptyRegionsClear) {
    ImagePtr img = makeImage(4097, 4096, wzEncodingGray);
    ASSERT_NE(img, nullptr);
    std::memset(img->data, 7, blockBytes(img.get()));
    img->data[0] = 8;
    wzImageColorProfile p;
    ASSERT_EQ(wzImageFillColorProfile(img.get(), &p), 0u);
    for (auto &a : p.bins) EXPECT_TRUE(a[7] == 16777216.0f && a[8] == 1.0f);
    img->roi.height = 0;
    ASSERT_EQ(wzImageFillColorProfile(img.get(), &p), 0u);
    const wzImageColorProfile zero{};
    EXPECT_EQ(std::memcmp(&p, &zero, sizeof p), 0);
}

// Every entry divided by the sum of array 2 (a division, not a reciprocal);
// an all-zero profile becomes NaN; the flat profile is exactly 1/256; the
// record is created and reset to zeros.
TEST(ColorProfile, NormalizeFlatCreateResetRelease) {
    std::mt19937 rng(5);
    wzImageColorProfile *p = wzImageColorProfileCreate(), counts, zero{};
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(std::memcmp(p, &zero, sizeof zero), 0);
    for (auto &a : p->bins)
        for (float &bin : a) bin = static_cast<float>(rng() % 50);
    p->bins[0][3] += 77.0f;  // arrays 0 and 1 do not add up to the same total
    counts = *p;
    float total = 0.0f;
    for (float bin : p->bins[2]) total += bin;
    ASSERT_EQ(wzImageColorProfileNormalize(p), 0u);
    for (int a = 0; a < 3; ++a)
        for (int v = 0; v < 256; ++v)
            ASSERT_EQ(p->bins[a][v], counts.bins[a][v] / total) << a << " " << v;
    ASSERT_EQ(wzImageColorProfileForEqualization(p), 0u);
    for (auto &a : p->bins)
        for (float bin : a) ASSERT_EQ(bin, 0.00390625f);
    wzImageColorProfileReset(p);
    EXPECT_EQ(std::memcmp(p, &zero, sizeof zero), 0);
    ASSERT_EQ(wzImageColorProfileNormalize(p), 0u);
    EXPECT_TRUE(std::isnan(p->bins[0][0]) && std::isnan(p->bins[1][128]) &&
                std::isnan(p->bins[2][255]));
    wzImageColorProfileRelease(&p);
    EXPECT_EQ(p, nullptr);
    wzImageColorProfileRelease(&p);
}
