// Colour profiles and the histogram-matching records.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>

#include "morven/morven.h"
#include "support/image_fixtures.hpp"

using namespace morven_test;

namespace {

struct ProfileDeleter {
    void operator()(wzImageColorProfile *p) const { wzImageColorProfileRelease(&p); }
};
using ProfilePtr = std::unique_ptr<wzImageColorProfile, ProfileDeleter>;

ProfilePtr newProfile() { return ProfilePtr(wzImageColorProfileCreate()); }

// Counts the region of an 8-bit image independently: array 2 - (c - 1) holds
// channel c; a gray image's one channel goes into all three arrays.
void countRegion(const wzImage *img, float out[3][256]) {
    std::memset(out, 0, 3 * 256 * sizeof(float));
    const bool gray = img->encoding == wzEncodingGray;
    for (int y = img->roi.y; y < img->roi.y + img->roi.height; ++y)
        for (int x = img->roi.x; x < img->roi.x + img->roi.width; ++x)
            for (int c = 1; c <= 3; ++c) {
                if (gray) {
                    out[c - 1][*at(img, x, y)] += 1.0f;
                } else {
                    out[3 - c][*at(img, x, y, c)] += 1.0f;
                }
            }
}

void expectProfileEq(const wzImageColorProfile &p, const float expected[3][256]) {
    for (int a = 0; a < 3; ++a)
        for (int v = 0; v < 256; ++v)
            ASSERT_EQ(p.bins[a][v], expected[a][v]) << "array " << a << " bin " << v;
}

void fillPixel(wzImage *img, int x, int y, uint8_t b, uint8_t g, uint8_t r, uint8_t alpha) {
    *at(img, x, y, 1) = b;
    *at(img, x, y, 2) = g;
    *at(img, x, y, 3) = r;
    if (wzGetNChannelFromEncoding(img->encoding) == 4) *at(img, x, y, 4) = alpha;
}

}  // namespace

TEST(ColorProfile, CreateResetRelease) {
    ProfilePtr p = newProfile();
    ASSERT_NE(p, nullptr);
    for (int a = 0; a < 3; ++a)
        for (int v = 0; v < 256; ++v) ASSERT_EQ(p->bins[a][v], 0.0f);
    for (int a = 0; a < 3; ++a)
        for (int v = 0; v < 256; ++v) p->bins[a][v] = 3.5f;
    wzImageColorProfileReset(p.get());
    for (int a = 0; a < 3; ++a)
        for (int v = 0; v < 256; ++v) ASSERT_EQ(p->bins[a][v], 0.0f);

    wzImageColorProfile *raw = wzImageColorProfileCreate();
    wzImageColorProfileRelease(&raw);
    EXPECT_EQ(raw, nullptr);
    wzImageColorProfileRelease(&raw);  // holder holding null: nothing
    EXPECT_EQ(raw, nullptr);
}

// The byte order of each encoding against the red, green, blue array order.
TEST(ColorProfile, ChannelsLandInReversedArrays) {
    const uint8_t memory[5][4] = {{0, 0, 0, 0},
                                  {10, 20, 30, 0},     // BGR
                                  {30, 20, 10, 0},     // RGB
                                  {200, 30, 20, 10},   // ARGB
                                  {30, 20, 10, 200}};  // RGBA
    for (uint32_t enc = wzEncodingBGR; enc <= wzEncodingRGBA; ++enc) {
        ImagePtr img = makeImage(1, 1, enc);
        const int n = wzGetNChannelFromEncoding(enc);
        std::memcpy(img->data, memory[enc], static_cast<size_t>(n));
        ProfilePtr p = newProfile();
        ASSERT_EQ(wzImageFillColorProfile(img.get(), p.get()), 0u);
        for (int a = 0; a < 3; ++a) {
            float sum = 0.0f;
            for (int v = 0; v < 256; ++v) sum += p->bins[a][v];
            EXPECT_EQ(sum, 1.0f) << "encoding " << enc;
            EXPECT_EQ(p->bins[a][200], 0.0f) << "alpha counted, encoding " << enc;
        }
        EXPECT_EQ(p->bins[2][10], 1.0f) << "encoding " << enc;
        EXPECT_EQ(p->bins[1][20], 1.0f) << "encoding " << enc;
        EXPECT_EQ(p->bins[0][30], 1.0f) << "encoding " << enc;
    }
}

TEST(ColorProfile, GrayFillsThreeIdenticalArrays) {
    ImagePtr img = makeImage(7, 5, wzEncodingGray);
    for (int i = 0; i < 35; ++i) img->data[i] = static_cast<uint8_t>(i % 4 == 0 ? 9 : 100 + i);
    ProfilePtr p = newProfile();
    ASSERT_EQ(wzImageFillColorProfile(img.get(), p.get()), 0u);
    EXPECT_EQ(p->bins[2][9], 9.0f);
    EXPECT_EQ(std::memcmp(p->bins[0], p->bins[2], sizeof p->bins[2]), 0);
    EXPECT_EQ(std::memcmp(p->bins[1], p->bins[2], sizeof p->bins[2]), 0);
}

// Only the region is counted; an empty region gives zeros; filling replaces.
TEST(ColorProfile, RegionOnlyEmptyRegionAndRefill) {
    ImagePtr img = makeImage(6, 4, wzEncodingRGBA);
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 6; ++x) fillPixel(img.get(), x, y, 1, 2, 3, 4);
    fillPixel(img.get(), 2, 1, 50, 60, 70, 80);
    fillPixel(img.get(), 3, 2, 50, 61, 71, 81);
    img->roi = {2, 1, 2, 2};
    ProfilePtr p = newProfile();
    for (int a = 0; a < 3; ++a) p->bins[a][77] = 123.0f;  // stale content
    ASSERT_EQ(wzImageFillColorProfile(img.get(), p.get()), 0u);
    EXPECT_EQ(p->bins[2][50], 2.0f);
    EXPECT_EQ(p->bins[2][1], 2.0f);
    EXPECT_EQ(p->bins[1][60], 1.0f);
    EXPECT_EQ(p->bins[1][61], 1.0f);
    EXPECT_EQ(p->bins[0][71], 1.0f);
    EXPECT_EQ(p->bins[0][3], 2.0f);
    EXPECT_EQ(p->bins[0][77], 0.0f);

    wzImageColorProfile once, twice;
    ASSERT_EQ(wzImageFillColorProfile(img.get(), &once), 0u);
    ASSERT_EQ(wzImageFillColorProfile(img.get(), &twice), 0u);
    ASSERT_EQ(wzImageFillColorProfile(img.get(), &twice), 0u);
    EXPECT_EQ(std::memcmp(&once, &twice, sizeof once), 0);

    for (uint32_t enc : kAllEncodings) {
        ImagePtr e = makeImage(3, 3, enc);
        std::memset(e->data, 9, blockBytes(e.get()));
        for (wzRect r : {wzRect{1, 1, 0, 2}, wzRect{1, 1, 2, 0}, wzRect{0, 0, -1, 3}}) {
            e->roi = r;
            for (int a = 0; a < 3; ++a) p->bins[a][9] = 5.0f;
            ASSERT_EQ(wzImageFillColorProfile(e.get(), p.get()), 0u);
            for (int a = 0; a < 3; ++a)
                for (int v = 0; v < 256; ++v) ASSERT_EQ(p->bins[a][v], 0.0f) << enc;
        }
    }
}

TEST(ColorProfile, RandomRegionsMatchIndependentCount) {
    std::mt19937 rng(11);
    for (int iter = 0; iter < 60; ++iter) {
        const uint32_t enc = kAllEncodings[iter % 5];
        const int w = 1 + static_cast<int>(rng() % 30), h = 1 + static_cast<int>(rng() % 30);
        ImagePtr img = makeImage(w, h, enc);
        fillRandom(img.get(), rng);
        const int rx = static_cast<int>(rng() % w), ry = static_cast<int>(rng() % h);
        img->roi = {rx, ry, 1 + static_cast<int>(rng() % (w - rx)),
                    1 + static_cast<int>(rng() % (h - ry))};
        float expected[3][256];
        countRegion(img.get(), expected);
        wzImageColorProfile p;
        ASSERT_EQ(wzImageFillColorProfile(img.get(), &p), 0u);
        expectProfileEq(p, expected);
    }
}

// Counts grow by 1.0f, so a bin saturates at 2^24.
TEST(ColorProfile, BinStopsGrowingAtTwoToTheTwentyFour) {
    ImagePtr img = makeImage(4097, 4096, wzEncodingGray);
    ASSERT_NE(img, nullptr);
    std::memset(img->data, 7, blockBytes(img.get()));
    img->data[0] = 8;
    wzImageColorProfile p;
    ASSERT_EQ(wzImageFillColorProfile(img.get(), &p), 0u);
    for (int a = 0; a < 3; ++a) {
        EXPECT_EQ(p.bins[a][7], 16777216.0f);
        EXPECT_EQ(p.bins[a][8], 1.0f);
    }
}

// Choice of this library: images that are not 8-bit are rejected with 1 and
// an all-zero profile.
TEST(ColorProfile, NonByteImagesRejected) {
    for (uint32_t type : kAllTypes) {
        if (type == wzType8U) continue;
        ImagePtr img = makeImage(4, 4, wzEncodingGray, type);
        std::memset(img->data, 3, blockBytes(img.get()));
        wzImageColorProfile p;
        for (int a = 0; a < 3; ++a) p.bins[a][3] = 1.0f;
        EXPECT_EQ(wzImageFillColorProfile(img.get(), &p), 1u) << type;
        for (int a = 0; a < 3; ++a)
            for (int v = 0; v < 256; ++v) ASSERT_EQ(p.bins[a][v], 0.0f);
    }
}

TEST(ColorProfile, NormalizeDividesByRegionCount) {
    std::mt19937 rng(5);
    ImagePtr img = makeImage(37, 23, wzEncodingBGR);
    fillRandom(img.get(), rng);
    img->roi = {3, 2, 29, 17};
    wzImageColorProfile p;
    ASSERT_EQ(wzImageFillColorProfile(img.get(), &p), 0u);
    const wzImageColorProfile counts = p;
    ASSERT_EQ(wzImageColorProfileNormalize(&p), 0u);
    const float pixels = 29.0f * 17.0f;
    for (int a = 0; a < 3; ++a) {
        for (int v = 0; v < 256; ++v) {
            volatile float expected = counts.bins[a][v] / pixels;  // a division, not a reciprocal
            ASSERT_EQ(p.bins[a][v], expected) << a << " " << v;
        }
    }

    // Only array 2 is summed.
    wzImageColorProfile q{};
    q.bins[2][0] = 3.0f;
    q.bins[2][1] = 1.0f;
    q.bins[0][5] = 2.0f;
    ASSERT_EQ(wzImageColorProfileNormalize(&q), 0u);
    EXPECT_EQ(q.bins[2][0], 0.75f);
    EXPECT_EQ(q.bins[2][1], 0.25f);
    EXPECT_EQ(q.bins[0][5], 0.5f);
    EXPECT_EQ(q.bins[1][5], 0.0f);

    wzImageColorProfile zero{};
    ASSERT_EQ(wzImageColorProfileNormalize(&zero), 0u);
    for (int a = 0; a < 3; ++a)
        for (int v = 0; v < 256; ++v) ASSERT_TRUE(std::isnan(zero.bins[a][v]));
}

TEST(ColorProfile, ForEqualizationIsExactlyFlat) {
    wzImageColorProfile p;
    std::memset(&p, 0xAB, sizeof p);
    ASSERT_EQ(wzImageColorProfileForEqualization(&p), 0u);
    for (int a = 0; a < 3; ++a) {
        for (int v = 0; v < 256; ++v) {
            uint32_t bits;
            std::memcpy(&bits, &p.bins[a][v], 4);
            ASSERT_EQ(bits, 0x3B800000u);
        }
    }
}

TEST(HistogramMatchRecords, DefaultsAndRelease) {
    wzHistogramMatchParams *params = wzHistogramMatchParamsDefault();
    ASSERT_NE(params, nullptr);
    EXPECT_EQ(params->strength, 1.0f);
    EXPECT_EQ(params->fidelity, 0.9f);
    EXPECT_EQ(params->mode, 0);
    EXPECT_EQ(params->maxStep, 255);
    EXPECT_EQ(params->targetProfile, nullptr);
    // The borrowed profile survives the record's release.
    wzImageColorProfile target;
    wzImageColorProfileForEqualization(&target);
    params->targetProfile = &target;
    wzHistogramMatchParamsRelease(&params);
    EXPECT_EQ(params, nullptr);
    wzHistogramMatchParamsRelease(&params);
    EXPECT_EQ(target.bins[1][100], 0.00390625f);

    wzHistogramMatchStats *stats = wzHistogramMatchStatsCreate();
    ASSERT_NE(stats, nullptr);
    ASSERT_NE(stats->profile, nullptr);
    for (int v = 0; v < 256; ++v) ASSERT_EQ(stats->profile->bins[1][v], 0.0f);
    wzHistogramMatchStatsRelease(&stats);
    EXPECT_EQ(stats, nullptr);
    wzHistogramMatchStatsRelease(&stats);
}

// Several images gathered into one record: retrieve starts from zero, update adds.
TEST(HistogramMatchRecords, RetrieveUpdateInit) {
    std::mt19937 rng(3);
    ImagePtr a = makeImage(9, 8, wzEncodingARGB), b = makeImage(5, 6, wzEncodingGray);
    fillRandom(a.get(), rng);
    fillRandom(b.get(), rng);
    b->roi = {1, 1, 3, 4};
    float ca[3][256], cb[3][256];
    countRegion(a.get(), ca);
    countRegion(b.get(), cb);

    wzHistogramMatchStats *total = wzHistogramMatchStatsCreate();
    wzHistogramMatchStats *part = wzHistogramMatchStatsCreate();
    ASSERT_TRUE(total && part);
    total->profile->bins[0][0] = 99.0f;
    ASSERT_EQ(wzHistogramMatchStatsRetrieve(total, a.get()), 0u);
    expectProfileEq(*total->profile, ca);
    ASSERT_EQ(wzHistogramMatchStatsRetrieve(part, b.get()), 0u);
    wzHistogramMatchStatsUpdate(part, total);
    float sum[3][256];
    for (int k = 0; k < 3; ++k)
        for (int v = 0; v < 256; ++v) sum[k][v] = ca[k][v] + cb[k][v];
    expectProfileEq(*total->profile, sum);
    expectProfileEq(*part->profile, cb);

    ImagePtr wide = makeImage(2, 2, wzEncodingGray, wzType16U);
    EXPECT_EQ(wzHistogramMatchStatsRetrieve(part, wide.get()), 1u);

    wzHistogramMatchStatsInit(total);
    for (int k = 0; k < 3; ++k)
        for (int v = 0; v < 256; ++v) ASSERT_EQ(total->profile->bins[k][v], 0.0f);
    wzHistogramMatchStatsRelease(&total);
    wzHistogramMatchStatsRelease(&part);
}
