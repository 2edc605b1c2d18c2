// Brightness statistics and the levels tone curve.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "morven/contrast.h"
#include "support/image_fixtures.hpp"

using morven_test::ImagePtr;
using morven_test::makeImage;

namespace {

struct Curve {
    uint8_t v[256];
};

Curve compute(const wzContrastEnhanceStats &stats, const wzContrastEnhanceParams &params) {
    Curve c;
    std::memset(c.v, 0xCD, sizeof c.v);
    wzContrastEnhanceAddParamsCompute(&stats, &params, c.v);
    return c;
}

wzContrastEnhanceParams defaults() { return {9.0f, 4.0f, 0, 255, 0}; }

wzContrastEnhanceStats emptyStats(float total) {
    wzContrastEnhanceStats s{};
    s.total = total;
    return s;
}

// Straightforward reading of the levels rule: cumulative sums from each end,
// then the line through (low, 0) and (high, 255), infinite slope included.
Curve referenceCurve(const wzContrastEnhanceStats &s, const wzContrastEnhanceParams &p) {
    float low = 255.0f, high = 0.0f;
    if (p.manual) {
        low = p.manualLow;
        high = p.manualHigh;
    } else {
        const float lowCount = (s.total * p.lowTail) / 1000.0f;
        const float highCount = (p.highTail * s.total) / 1000.0f;
        float below[256], above[256];
        float acc = 0.0f;
        for (int k = 0; k < 256; ++k) below[k] = acc += s.hist[k];
        acc = 0.0f;
        for (int k = 255; k >= 0; --k) above[k] = acc += s.hist[k];
        for (int k = 254; k >= 0; --k)
            if (below[k] > lowCount) low = static_cast<float>(k);
        for (int k = 1; k <= 255; ++k)
            if (above[k] > highCount) high = static_cast<float>(k);
    }
    const float scale = 255.0f / (high - low);
    Curve c;
    for (int v = 0; v < 256; ++v) {
        const float x = (static_cast<float>(v) - low) * scale;
        c.v[v] = std::isnan(x) ? 0 : static_cast<uint8_t>(std::clamp(std::trunc(x), 0.0f, 255.0f));
    }
    return c;
}

}  // namespace

TEST(ContrastParams, DefaultsAndRelease) {
    wzContrastEnhanceParams *p = wzContrastEnhanceParamsDefault();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->highTail, 9.0f);
    EXPECT_EQ(p->lowTail, 4.0f);
    EXPECT_EQ(p->manual, 0);
    EXPECT_EQ(p->manualHigh, 255);
    EXPECT_EQ(p->manualLow, 0);
    wzContrastEnhanceParamsRelease(&p);
    EXPECT_EQ(p, nullptr);
    wzContrastEnhanceParamsRelease(&p);

    wzContrastEnhanceStats *s = wzContrastEnhanceStatsCreate();
    ASSERT_NE(s, nullptr);
    wzContrastEnhanceStatsRelease(&s);
    EXPECT_EQ(s, nullptr);
    wzContrastEnhanceStatsRelease(&s);
}

TEST(ContrastCurve, EmptyRecordInverts) {
    ImagePtr img = makeImage(7, 5, wzEncodingBGR);
    wzContrastEnhanceStats s;
    std::memset(&s, 0x7F, sizeof s);
    wzContrastEnhanceStatsInit(&s, img.get());
    EXPECT_EQ(s.total, 35.0f);
    for (float bin : s.hist) ASSERT_EQ(bin, 0.0f);
    const Curve c = compute(s, defaults());
    for (int v = 0; v < 256; ++v) EXPECT_EQ(c.v[v], 255 - v) << v;
}

TEST(ContrastCurve, SingleBrightnessSplitsAtThatLevel) {
    for (int b : {0, 1, 17, 128, 254, 255}) {
        wzContrastEnhanceStats s = emptyStats(64.0f);
        s.hist[b] = 64.0f;
        const Curve c = compute(s, defaults());
        for (int v = 0; v < 256; ++v) ASSERT_EQ(c.v[v], v > b ? 255 : 0) << "b " << b << " v " << v;
    }
}

TEST(ContrastCurve, ZeroTailsStretchOccupiedRange) {
    wzContrastEnhanceStats s = emptyStats(6.0f);
    s.hist[20] = 1.0f;
    s.hist[90] = 4.0f;
    s.hist[71] = 1.0f;
    wzContrastEnhanceParams p = defaults();
    p.highTail = p.lowTail = 0.0f;
    const Curve c = compute(s, p);
    // low 20, high 90: scale 255 / 70.
    EXPECT_EQ(c.v[19], 0);
    EXPECT_EQ(c.v[20], 0);
    EXPECT_EQ(c.v[21], 3);   // 3.64
    EXPECT_EQ(c.v[55], 127); // 127.5
    EXPECT_EQ(c.v[89], 251); // 251.36
    EXPECT_EQ(c.v[90], 255);
    EXPECT_EQ(c.v[91], 255);
}

TEST(ContrastCurve, ThousandPixelExample) {
    wzContrastEnhanceStats s = emptyStats(1000.0f);
    s.hist[10] = 3.0f;
    s.hist[11] = 2.0f;
    s.hist[100] = 985.0f;
    s.hist[240] = 5.0f;
    s.hist[250] = 5.0f;
    const Curve c = compute(s, defaults());
    for (int v = 0; v <= 11; ++v) EXPECT_EQ(c.v[v], 0) << v;
    EXPECT_EQ(c.v[12], 1);
    EXPECT_EQ(c.v[100], 99);
    EXPECT_EQ(c.v[239], 253);
    EXPECT_EQ(c.v[240], 254);  // 229 * (255 / 229) falls just short of 255
    for (int v = 241; v < 256; ++v) EXPECT_EQ(c.v[v], 255) << v;
}

TEST(ContrastCurve, ManualLevels) {
    wzContrastEnhanceStats s = emptyStats(1000.0f);
    s.hist[3] = 1000.0f;  // ignored in manual mode
    wzContrastEnhanceParams p = defaults();
    p.manual = 1;
    Curve c = compute(s, p);
    for (int v = 0; v < 256; ++v) ASSERT_EQ(c.v[v], v);

    p.manualLow = 50;
    p.manualHigh = 100;
    c = compute(s, p);
    EXPECT_EQ(c.v[40], 0);
    EXPECT_EQ(c.v[50], 0);
    EXPECT_EQ(c.v[51], 5);
    EXPECT_EQ(c.v[75], 127);
    EXPECT_EQ(c.v[100], 255);
    EXPECT_EQ(c.v[120], 255);

    // Reversed manual levels give a falling line.
    p.manualLow = 200;
    p.manualHigh = 100;
    c = compute(s, p);
    EXPECT_EQ(c.v[100], 255);
    EXPECT_EQ(c.v[150], 127);
    EXPECT_EQ(c.v[200], 0);
    EXPECT_EQ(c.v[0], 255);
}

TEST(ContrastCurve, RandomHistogramsMatchReference) {
    std::mt19937 rng(1234);
    for (int round = 0; round < 3000; ++round) {
        wzContrastEnhanceStats s{};
        float sum = 0.0f;
        const int occupied = 1 + static_cast<int>(rng() % 12);
        for (int i = 0; i < occupied; ++i) {
            const int bin = static_cast<int>(rng() % 256);
            const float n = static_cast<float>(rng() % (round % 3 == 0 ? 5 : 5000));
            s.hist[bin] += n;
            sum += n;
        }
        // Usually the histogram's own count; sometimes a record merged from
        // several images, whose total is that of one of them.
        s.total = round % 5 == 0 ? std::floor(sum * 0.3f) : sum;
        wzContrastEnhanceParams p = defaults();
        p.lowTail = static_cast<float>(rng() % 400) / 4.0f;
        p.highTail = round % 7 == 0 ? 0.0f : static_cast<float>(rng() % 400) / 4.0f;
        if (round % 11 == 0) {
            p.manual = 1;
            p.manualLow = static_cast<uint8_t>(rng());
            p.manualHigh = static_cast<uint8_t>(rng() % 3 == 0 ? p.manualLow : rng());
        }
        const Curve got = compute(s, p);
        const Curve want = referenceCurve(s, p);
        for (int v = 0; v < 256; ++v)
            ASSERT_EQ(got.v[v], want.v[v]) << "round " << round << " v " << v;
    }
}

TEST(ContrastStats, GrayHistogramIgnoresRegion) {
    const uint8_t px[] = {5, 5, 9, 200, 5, 0};
    ImagePtr img = makeImage(3, 2, wzEncodingGray);
    std::memcpy(img->data, px, sizeof px);
    const wzRect roi{1, 1, 1, 1};
    wzImageSetROI(img.get(), &roi);
    wzContrastEnhanceStats s;
    std::memset(&s, 0x55, sizeof s);
    const uint32_t clear = 0;
    ASSERT_EQ(wzContrastEnhanceStatsRetrieve(&s, img.get(), &clear), 0u);
    EXPECT_EQ(s.total, 6.0f);
    for (int v = 0; v < 256; ++v) {
        const float want = v == 5 ? 3.0f : (v == 0 || v == 9 || v == 200) ? 1.0f : 0.0f;
        EXPECT_EQ(s.hist[v], want) << v;
    }
}

TEST(ContrastStats, ColourBrightnessIsMaxOfChannelsOneToThree) {
    std::mt19937 rng(7);
    // Memory position of channel 1, 2, 3 and 4 (-1: none) per encoding.
    const int pos[5][4] = {{0, 0, 0, -1}, {0, 1, 2, -1}, {2, 1, 0, -1}, {3, 2, 1, 0}, {2, 1, 0, 3}};
    for (uint32_t enc : {wzEncodingBGR, wzEncodingRGB, wzEncodingARGB, wzEncodingRGBA}) {
        ImagePtr img = makeImage(13, 9, enc);
        const int n = wzImageGetNChannel(img.get());
        std::vector<float> want(256, 0.0f);
        for (int i = 0; i < 13 * 9; ++i) {
            uint8_t *p = img->data + i * n;
            for (int c = 0; c < 3; ++c) p[pos[enc][c]] = static_cast<uint8_t>(rng() % 200);
            if (pos[enc][3] >= 0) p[pos[enc][3]] = 250;  // alpha brighter than any colour
            want[std::max({p[pos[enc][0]], p[pos[enc][1]], p[pos[enc][2]]})] += 1.0f;
        }
        wzContrastEnhanceStats s;
        ASSERT_EQ(wzContrastEnhanceStatsRetrieve(&s, img.get(), nullptr), 0u);
        EXPECT_EQ(s.total, 117.0f);
        for (int v = 0; v < 256; ++v) ASSERT_EQ(s.hist[v], want[v]) << "enc " << enc << " v " << v;
    }
}

TEST(ContrastStats, BinSaturatesLikeFloatCounting) {
    // 4097 * 4097 > 2^24 pixels of one value: a float bin stops at 2^24.
    ImagePtr img = makeImage(4097, 4097, wzEncodingGray);
    ASSERT_NE(img, nullptr);
    std::memset(img->data, 0, size_t{4097} * 4097);
    img->data[0] = 1;
    wzContrastEnhanceStats s;
    ASSERT_EQ(wzContrastEnhanceStatsRetrieve(&s, img.get(), nullptr), 0u);
    EXPECT_EQ(s.hist[0], 16777216.0f);
    EXPECT_EQ(s.hist[1], 1.0f);
    EXPECT_EQ(s.total, static_cast<float>(4097 * 4097));
}

TEST(ContrastStats, StatusesAndCancellation) {
    wzContrastEnhanceStats s;
    ImagePtr img = makeImage(4, 3, wzEncodingGray);
    std::memset(img->data, 40, 12);

    // Encoding without a channel count: record cleared, status 1.
    img->encoding = 5;
    std::memset(&s, 0x55, sizeof s);
    EXPECT_EQ(wzContrastEnhanceStatsRetrieve(&s, img.get(), nullptr), 1u);
    for (float bin : s.hist) ASSERT_EQ(bin, 0.0f);
    EXPECT_EQ(s.total, 12.0f);

    // Unknown type code: empty block, nothing read.
    img->encoding = wzEncodingGray;
    img->type = 7;
    EXPECT_EQ(wzContrastEnhanceStatsRetrieve(&s, img.get(), nullptr), 1u);
    img->type = wzType8U;

    const uint32_t set = 1;
    EXPECT_EQ(wzContrastEnhanceStatsRetrieve(&s, img.get(), &set), 2u);
    EXPECT_EQ(s.hist[40], 0.0f);

    ImagePtr colour = makeImage(4, 3, wzEncodingRGBA);
    std::memset(colour->data, 40, 48);
    EXPECT_EQ(wzContrastEnhanceStatsRetrieve(&s, colour.get(), &set), 2u);
    colour->height = 0;  // no rows: the flag is not read
    EXPECT_EQ(wzContrastEnhanceStatsRetrieve(&s, colour.get(), &set), 0u);
    EXPECT_EQ(s.total, 0.0f);
}

TEST(ContrastStats, UpdateAddsBinsAndKeepsTotal) {
    ImagePtr a = makeImage(2, 2, wzEncodingGray);
    ImagePtr b = makeImage(3, 1, wzEncodingBGR);
    const uint8_t pa[] = {1, 2, 2, 255};
    const uint8_t pb[] = {2, 0, 0, 0, 9, 1, 7, 7, 7};
    std::memcpy(a->data, pa, sizeof pa);
    std::memcpy(b->data, pb, sizeof pb);
    wzContrastEnhanceStats sa, sb;
    ASSERT_EQ(wzContrastEnhanceStatsRetrieve(&sa, a.get(), nullptr), 0u);
    ASSERT_EQ(wzContrastEnhanceStatsRetrieve(&sb, b.get(), nullptr), 0u);
    wzContrastEnhanceStatsUpdate(&sb, &sa);
    EXPECT_EQ(sa.total, 4.0f);
    EXPECT_EQ(sa.hist[1], 1.0f);
    EXPECT_EQ(sa.hist[2], 3.0f);
    EXPECT_EQ(sa.hist[7], 1.0f);
    EXPECT_EQ(sa.hist[9], 1.0f);
    EXPECT_EQ(sa.hist[255], 1.0f);
    EXPECT_EQ(sb.total, 3.0f);
    EXPECT_EQ(sb.hist[2], 1.0f);
}
