// Histogram matching: the look-up table, its application and the filter,
// checked on worked curves and against a plain reference of the table.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "morven/morven.h"
#include "support/image_fixtures.hpp"

using namespace morven_test;

namespace {

using Table = std::array<uint8_t, 768>;

// ---------------------------------------------------------------------------
// Reference of the table computation, one statement per rounding so that
// nothing can be fused.

void refCdf(const float *bins, float cdf[256]) {
    volatile float total = 0.0f;
    for (int i = 0; i < 256; ++i) total = total + bins[i];
    volatile float running = 0.0f;
    for (int i = 0; i < 256; ++i) {
        running = running + bins[i];
        cdf[i] = running / total;
    }
}

void refLimit(float m[256], int32_t maxStep) {
    const float s = static_cast<float>(maxStep);
    for (;;) {
        int found = -1;
        int32_t e = 0;
        for (int i = 0; i < 255 && found < 0; ++i) {
            // Whole numbers: both subtractions are exact.
            e = static_cast<int32_t>((m[i + 1] - m[i]) - s);
            if (e >= 1) found = i;
        }
        if (found < 0) return;
        const int32_t h = static_cast<int32_t>(static_cast<uint32_t>(e) >> 1);
        m[found] = m[found] + static_cast<float>(h);
        m[found + 1] = m[found + 1] - static_cast<float>(h);
        if (e == 1) m[found + 1] = m[found + 1] - 1.0f;
    }
}

uint8_t toByte(float v) {  // truncation, clamped to 0..255
    if (!(v > 0.0f)) return 0;
    if (v >= 255.0f) return 255;
    return static_cast<uint8_t>(v);
}

// Unsmoothed table of one array: searches, step limits and mode.
void refBlockRaw(const float *src, const float *tgt, int32_t mode, int32_t maxStep, uint8_t *out) {
    if (mode < 0 || mode > 2) mode = 0;  // this library's choice
    if (maxStep < 0) maxStep = 0;        // this library's choice
    float cs[256], ct[256], f[256], r[256];
    refCdf(src, cs);
    refCdf(tgt, ct);
    for (int i = 0; i < 256; ++i) {
        int j = 0;
        while (j <= 254 && !!(ct[j] < cs[i])) ++j;
        f[i] = static_cast<float>(j);
        int k = 255;
        while (k >= 1 && !!(ct[k] > cs[i])) --k;
        r[i] = static_cast<float>(k);
    }
    if (maxStep <= 254) {
        refLimit(f, maxStep);
        refLimit(r, maxStep);
    }
    for (int i = 0; i < 256; ++i) {
        if (mode == 0) {
            volatile float sum = f[i] + r[i];
            volatile float half = 0.5f * sum;
            out[i] = toByte(half);
        } else {
            out[i] = toByte(mode == 1 ? f[i] : r[i]);
        }
    }
}

// Moving average of radius r (window cut at the block's ends), made
// non-decreasing and blended in with weight i / 255.
void refSmooth(uint8_t *block, int64_t r) {
    uint8_t t[256];
    for (int i = 0; i < 256; ++i) {
        const int64_t lo = std::max<int64_t>(0, i - r), hi = std::min<int64_t>(255, i + r);
        volatile float sum = 0.0f;
        for (int64_t k = lo; k <= hi; ++k) sum = sum + static_cast<float>(block[k]);
        volatile float mean = sum / static_cast<float>(hi - lo + 1);
        t[i] = toByte(mean);
    }
    for (int i = 1; i < 256; ++i) t[i] = std::max(t[i], t[i - 1]);
    for (int i = 0; i < 256; ++i) {
        volatile float w = static_cast<float>(i) / 255.0f;
        volatile float oneMinusW = 1.0f - w;
        volatile float a = static_cast<float>(block[i]) * oneMinusW;
        volatile float b = static_cast<float>(t[i]) * w;
        volatile float v = a + b;
        block[i] = toByte(v);
    }
}

int64_t refRadius(float fidelity) {
    volatile float d = 1.0f - fidelity;
    volatile float r = d * 50.0f;
    return r >= 1e9f ? int64_t{1000000000} : static_cast<int64_t>(r);
}

void refStrength(Table &t, float strength) {
    for (int b = 0; b < 3; ++b)
        for (int i = 0; i < 256; ++i) {
            volatile float p = strength * static_cast<float>(t[256 * b + i]);
            volatile float q1 = 1.0f - strength;
            volatile float q = q1 * static_cast<float>(i);
            volatile float v = p + q;
            t[256 * b + i] = toByte(v);
        }
}

// The whole table; smoothing radius given explicitly (negative: none).
Table refTableRadius(const wzImageColorProfile &src, const wzImageColorProfile &tgt, int32_t mode,
                     int32_t maxStep, int64_t radius, float strength) {
    Table t;
    for (int b = 0; b < 3; ++b) {
        refBlockRaw(src.bins[2 - b], tgt.bins[2 - b], mode, maxStep, &t[256 * b]);
        if (radius >= 0) refSmooth(&t[256 * b], radius);
    }
    if (strength < 1.0f) refStrength(t, strength);
    return t;
}

Table refTable(const wzImageColorProfile &src, const wzHistogramMatchParams &p) {
    return refTableRadius(src, *p.targetProfile, p.mode, p.maxStep,
                          p.fidelity < 1.0f ? refRadius(p.fidelity) : -1, p.strength);
}

Table libTable(const wzImageColorProfile &src, const wzHistogramMatchParams &p) {
    wzImageColorProfile copy = src;
    wzHistogramMatchStats stats{&copy};
    Table t;
    t.fill(0xCD);
    wzHistogramMatchAddParamsCompute(&stats, &p, t.data());
    return t;
}

wzHistogramMatchParams params(wzImageColorProfile *target, float strength = 1.0f,
                              float fidelity = 1.0f, int32_t mode = 0, int32_t maxStep = 255) {
    return wzHistogramMatchParams{strength, fidelity, mode, maxStep, target};
}

// Every array of a profile set from one 256-entry histogram.
wzImageColorProfile uniformProfile(const float *bins) {
    wzImageColorProfile p;
    for (int a = 0; a < 3; ++a) std::memcpy(p.bins[a], bins, sizeof p.bins[a]);
    return p;
}

void expectTablesEq(const Table &got, const Table &want, const char *what) {
    for (int i = 0; i < 768; ++i)
        ASSERT_EQ(int(got[i]), int(want[i])) << what << ": entry " << i % 256 << " of block " << i / 256;
}

// Random histogram: raw counts or normalised floats, dense or sparse, now
// and then empty.
void randomBins(std::mt19937 &rng, float *bins) {
    const int kind = static_cast<int>(rng() % 12);
    if (kind == 0) {
        std::fill(bins, bins + 256, 0.0f);
        return;
    }
    const unsigned keepOneIn = kind < 4 ? 1 : (kind < 8 ? 3 : 40);
    for (int v = 0; v < 256; ++v)
        bins[v] = rng() % keepOneIn == 0 ? static_cast<float>(1 + rng() % 500) : 0.0f;
    if (kind % 2 == 1) {
        float total = 0.0f;
        for (int v = 0; v < 256; ++v) total += bins[v];
        if (total > 0.0f)
            for (int v = 0; v < 256; ++v) bins[v] /= total;
    }
}

wzImageColorProfile randomProfile(std::mt19937 &rng) {
    wzImageColorProfile p;
    for (int a = 0; a < 3; ++a) randomBins(rng, p.bins[a]);
    return p;
}

wzHistogramMatchParams randomParams(std::mt19937 &rng, wzImageColorProfile *target) {
    static const int32_t modes[] = {0, 0, 1, 2, 3, -1};
    static const int32_t steps[] = {255, 256, 100000, 1, 2, 254};
    static const float fidelities[] = {1.0f, 0.9f, 0.8f, 0.5f, 0.0f, 0.99f, 1.5f, -30.0f};
    static const float strengths[] = {1.0f, 0.0f, 0.5f, 0.25f, 2.0f, -0.5f};
    std::uniform_real_distribution<float> unit(-0.2f, 1.2f);
    wzHistogramMatchParams p{};
    p.targetProfile = target;
    p.mode = modes[rng() % 6];
    // A limit of 0 flattens in many passes (tens of milliseconds): drawn rarely.
    if (rng() % 80 == 0) {
        p.maxStep = rng() % 2 ? 0 : -4;
    } else {
        p.maxStep = rng() % 3 == 0 ? static_cast<int32_t>(rng() % 255) : steps[rng() % 6];
    }
    p.fidelity = rng() % 3 == 0 ? unit(rng) : fidelities[rng() % 8];
    p.strength = rng() % 3 == 0 ? unit(rng) : strengths[rng() % 6];
    return p;
}

// The forward search on this pair gives 128 zeros then 128 x 255: the
// target's cdf is 0.5 from 0 to 254, the source's reaches 0.5 at 127.
void stepPair(wzImageColorProfile &src, wzImageColorProfile &tgt) {
    float s[256], t[256] = {};
    for (int v = 0; v < 256; ++v) s[v] = 1.0f;
    t[0] = 1.0f;
    t[255] = 1.0f;
    src = uniformProfile(s);
    tgt = uniformProfile(t);
}

}  // namespace

// ---------------------------------------------------------------------------
// Worked tables

TEST(HistogramMatchTable, EqualProfilesGiveIdentity) {
    std::mt19937 rng(1);
    wzImageColorProfile prof;
    for (int a = 0; a < 3; ++a)
        for (int v = 0; v < 256; ++v) prof.bins[a][v] = static_cast<float>(1 + rng() % 1000);
    wzImageColorProfile target = prof;
    const Table exact = libTable(prof, params(&target, 1.0f, 1.0f));
    for (int i = 0; i < 768; ++i) ASSERT_EQ(int(exact[i]), i % 256);
    const Table smoothed = libTable(prof, params(&target, 1.0f, 0.9f));
    for (int b = 0; b < 3; ++b)
        for (int i = 5; i <= 250; ++i) ASSERT_EQ(int(smoothed[256 * b + i]), i) << b;
    EXPECT_EQ(smoothed[0], 0);
}

// Source value 50 sits on the target's flat stretch 10..199 (cdf 0.5);
// source value 100 has cdf 1, reached by the target from 200 on.
TEST(HistogramMatchTable, FlatTargetStretchByMode) {
    float s[256] = {}, t[256] = {};
    s[50] = 1.0f;
    s[100] = 1.0f;
    t[10] = 1.0f;
    t[200] = 1.0f;
    wzImageColorProfile src = uniformProfile(s), tgt = uniformProfile(t);
    struct Case { int32_t mode; int at50, at100, at0; };
    // Value 0 (cdf 0): forward 0, backward 9 (the last empty target bin).
    for (Case c : {Case{0, 104, 227, 4}, Case{1, 10, 200, 0}, Case{2, 199, 255, 9}, Case{3, 104, 227, 4}}) {
        const Table tab = libTable(src, params(&tgt, 1.0f, 1.0f, c.mode));
        for (int b = 0; b < 3; ++b) {
            EXPECT_EQ(tab[256 * b + 50], c.at50) << "mode " << c.mode;
            EXPECT_EQ(tab[256 * b + 100], c.at100) << "mode " << c.mode;
            EXPECT_EQ(tab[256 * b + 0], c.at0) << "mode " << c.mode;
        }
    }
}

TEST(HistogramMatchTable, AllZeroTargetMapsToMiddle) {
    std::mt19937 rng(2);
    wzImageColorProfile src = randomProfile(rng), zero{};
    for (int a = 0; a < 3; ++a) src.bins[a][7] += 1.0f;
    for (auto [mode, value] : {std::pair{0, 127}, {1, 0}, {2, 255}}) {
        const Table tab = libTable(src, params(&zero, 1.0f, 1.0f, mode));
        for (int i = 0; i < 768; ++i) ASSERT_EQ(int(tab[i]), value) << "mode " << mode;
    }
}

TEST(HistogramMatchTable, StrengthBlendsWithIdentity) {
    std::mt19937 rng(3);
    for (int iter = 0; iter < 20; ++iter) {
        wzImageColorProfile src = randomProfile(rng), tgt = randomProfile(rng);
        const int32_t mode = static_cast<int32_t>(rng() % 3);
        const Table zero = libTable(src, params(&tgt, 0.0f, 0.9f, mode, 30));
        for (int i = 0; i < 768; ++i) ASSERT_EQ(int(zero[i]), i % 256);
        const Table full = libTable(src, params(&tgt, 1.0f, 0.9f, mode, 30));
        const Table over = libTable(src, params(&tgt, 7.0f, 0.9f, mode, 30));
        EXPECT_EQ(full, over);
        // Half strength: trunc(0.5 * entry + 0.5 * i), both products exact here.
        const Table half = libTable(src, params(&tgt, 0.5f, 0.9f, mode, 30));
        for (int i = 0; i < 768; ++i)
            ASSERT_EQ(int(half[i]), (int(full[i]) + i % 256) / 2) << i;
    }
}

// The step-limit example through real profiles: mode 1 takes the forward
// search alone; no smoothing, full strength.
TEST(HistogramMatchTable, StepLimitWorkedExample) {
    wzImageColorProfile src, tgt;
    stepPair(src, tgt);
    for (int32_t off : {255, 256, 1000, INT32_MAX}) {
        const Table tab = libTable(src, params(&tgt, 1.0f, 1.0f, 1, off));
        for (int b = 0; b < 3; ++b)
            for (int i = 0; i < 256; ++i) ASSERT_EQ(int(tab[256 * b + i]), i < 128 ? 0 : 255) << off;
    }
    const Table limited = libTable(src, params(&tgt, 1.0f, 1.0f, 1, 100));
    for (int b = 0; b < 3; ++b) {
        for (int i = 0; i <= 126; ++i) ASSERT_EQ(limited[256 * b + i], 0) << i;
        EXPECT_EQ(limited[256 * b + 127], 77);
        EXPECT_EQ(limited[256 * b + 128], 177);
        for (int i = 129; i < 256; ++i) ASSERT_EQ(limited[256 * b + i], 255) << i;
    }
    for (int32_t flat : {0, -1, -100000}) {  // negative limits as 0 (this library's choice)
        const Table tab = libTable(src, params(&tgt, 1.0f, 1.0f, 1, flat));
        for (int i = 0; i < 768; ++i) ASSERT_EQ(tab[i], 0) << "maxStep " << flat;
    }
    // Every remaining step is within the limit.
    for (int32_t s = 1; s <= 254; s += 11) {
        const Table tab = libTable(src, params(&tgt, 1.0f, 1.0f, 1, s));
        for (int i = 1; i < 256; ++i) ASSERT_LE(tab[i] - tab[i - 1], s) << "maxStep " << s;
    }
}

// The smoothing radius, observed on the step curve against the reference run
// with an explicit radius: the right radius matches, its neighbours do not.
TEST(HistogramMatchTable, SmoothingRadiusFromFidelity) {
    wzImageColorProfile src, tgt;
    stepPair(src, tgt);
    struct Case { float fidelity; int64_t radius; };
    // 0.74 and 0.3: the float product lands just above 13 and 35 (in double
    // it would fall just below).
    for (Case c : {Case{0.9f, 5}, Case{0.8f, 9}, Case{0.5f, 25}, Case{0.0f, 50}, Case{0.99f, 0},
                   Case{0.74f, 13}, Case{0.3f, 35}, Case{-4.0f, 250}, Case{-100.0f, 255}}) {
        const Table tab = libTable(src, params(&tgt, 1.0f, c.fidelity, 1));
        expectTablesEq(tab, refTableRadius(src, tgt, 1, 255, c.radius, 1.0f), "radius");
        if (c.radius > 0 && c.radius < 250) {
            EXPECT_NE(tab, refTableRadius(src, tgt, 1, 255, c.radius - 1, 1.0f)) << c.fidelity;
            EXPECT_NE(tab, refTableRadius(src, tgt, 1, 255, c.radius + 1, 1.0f)) << c.fidelity;
        }
        EXPECT_EQ(tab[0], 0);
        if (c.radius < 128) {
            EXPECT_EQ(tab[255], 255);  // full weight on the smoothed curve
        }
    }
    for (float f : {1.0f, 1.5f}) {
        const Table tab = libTable(src, params(&tgt, 1.0f, f, 1));
        for (int i = 0; i < 256; ++i) ASSERT_EQ(int(tab[i]), i < 128 ? 0 : 255);
    }
    // Hand-worked entries for radius 5: entry 123 averages 0..0,255 over 11.
    const Table r5 = libTable(src, params(&tgt, 1.0f, 0.9f, 1));
    EXPECT_EQ(r5[122], 0);
    EXPECT_EQ(r5[123], 11);   // T = 23, trunc(23 * 123 / 255) = 11
    EXPECT_EQ(r5[127], 57);   // T = trunc(1275 / 11) = 115, trunc(115 * 127 / 255) = 57
    EXPECT_EQ(r5[128], 196);  // T = trunc(1530 / 11) = 139, 255 * 127/255 + 139 * 128/255 = 196.8
}

// Randomized: the library's table equals the reference on random profiles
// and parameters, sparse and empty histograms included.
TEST(HistogramMatchTable, RandomAgainstReference) {
    std::mt19937 rng(20240611);
    for (int iter = 0; iter < 1000; ++iter) {
        wzImageColorProfile src = randomProfile(rng), tgt = randomProfile(rng);
        const wzHistogramMatchParams p = randomParams(rng, &tgt);
        const Table got = libTable(src, p);
        SCOPED_TRACE(testing::Message() << "iter " << iter << " mode " << p.mode << " maxStep "
                                        << p.maxStep << " fidelity " << p.fidelity
                                        << " strength " << p.strength);
        expectTablesEq(got, refTable(src, p), "table");
        if (p.strength >= 1.0f) {
            // Smoothing never moves entry 0.
            const Table raw = refTableRadius(src, tgt, p.mode, p.maxStep, -1, 1.0f);
            for (int b = 0; b < 3; ++b) ASSERT_EQ(got[256 * b], raw[256 * b]);
        }
        if (HasFatalFailure()) return;
    }
}

// ---------------------------------------------------------------------------
// Apply and filter on images

namespace {

void countRegion(const wzImage *img, wzImageColorProfile &out) {
    out = wzImageColorProfile{};
    const bool gray = img->encoding == wzEncodingGray;
    for (int y = img->roi.y; y < img->roi.y + img->roi.height; ++y)
        for (int x = img->roi.x; x < img->roi.x + img->roi.width; ++x)
            for (int c = 1; c <= 3; ++c) out.bins[3 - c][*at(img, x, y, gray ? 1 : c)] += 1.0f;
}

uint8_t blend(uint8_t before, uint8_t matched, uint8_t m) {
    volatile float w = static_cast<float>(m) / 255.0f;
    volatile float omw = 1.0f - w;
    volatile float a = omw * static_cast<float>(before);
    volatile float b = w * static_cast<float>(matched);
    volatile float v = a + b;
    return toByte(v);
}

// Expected block of `dst` after matching `src` (its state before the call)
// through `table` and blending under `mask` (may be null). Equal region sizes.
std::vector<uint8_t> expectedMatch(const wzImage *src, const std::vector<uint8_t> &srcBefore,
                                   const wzImage *dst, const std::vector<uint8_t> &dstBefore,
                                   const Table &t, const wzImage *mask) {
    std::vector<uint8_t> out = dstBefore;
    const int ns = wzGetNChannelFromEncoding(src->encoding);
    const int nd = wzGetNChannelFromEncoding(dst->encoding);
    for (int y = 0; y < src->roi.height; ++y) {
        for (int x = 0; x < src->roi.width; ++x) {
            const size_t sp = (static_cast<size_t>(src->roi.y + y) * src->width + src->roi.x + x) * ns;
            const size_t dp = (static_cast<size_t>(dst->roi.y + y) * dst->width + dst->roi.x + x) * nd;
            const uint8_t m = mask ? *at(mask, mask->roi.x + x, mask->roi.y + y) : 255;
            if (ns == 1) {  // block 0 into the first byte of the destination pixel
                out[dp] = mask ? blend(srcBefore[sp], t[srcBefore[sp]], m) : t[srcBefore[sp]];
                continue;
            }
            for (int c = 1; c <= 3; ++c) {
                const uint8_t v = srcBefore[sp + wzGetChannelOffsetFromEncoding(src->encoding, c)];
                const uint8_t matched = t[256 * (c - 1) + v];
                out[dp + wzGetChannelOffsetFromEncoding(dst->encoding, c)] =
                    mask ? blend(v, matched, m) : matched;
            }
        }
    }
    return out;
}

ImagePtr randomImage(std::mt19937 &rng, int w, int h, uint32_t enc, bool sparse) {
    ImagePtr img = makeImage(w, h, enc);
    fillRandom(img.get(), rng);
    if (sparse) {  // a few values per image
        uint8_t palette[4];
        for (auto &p : palette) p = static_cast<uint8_t>(rng());
        const size_t n = blockBytes(img.get());
        const unsigned k = 1 + rng() % 4;
        for (size_t i = 0; i < n; ++i) img->data[i] = palette[rng() % k];
    }
    return img;
}

// An image whose region, at a random origin, has the given size.
ImagePtr imageWithRegion(std::mt19937 &rng, int rw, int rh, uint32_t enc, bool sparse) {
    const int w = rw + static_cast<int>(rng() % 5), h = rh + static_cast<int>(rng() % 5);
    ImagePtr img = randomImage(rng, w, h, enc, sparse);
    img->roi = {static_cast<int>(rng() % (w - rw + 1)), static_cast<int>(rng() % (h - rh + 1)), rw, rh};
    return img;
}

}  // namespace

// Whole-image matching against the reference table and a pixel-by-pixel
// application: every encoding, distinct regions and encodings, in place or
// not, with and without masks.
TEST(HistogramMatchFilter, RandomImagesAgainstReference) {
    std::mt19937 rng(777);
    for (int iter = 0; iter < 400; ++iter) {
        const uint32_t encS = kAllEncodings[rng() % 5];
        const bool inPlace = rng() % 4 == 0;
        const int rw = 1 + static_cast<int>(rng() % 20), rh = 1 + static_cast<int>(rng() % 20);
        ImagePtr src = imageWithRegion(rng, rw, rh, encS, rng() % 3 == 0);
        // Mixed gray and colour only without a mask.
        uint32_t encD = encS;
        const bool mixed = !inPlace && rng() % 5 == 0;
        if (!inPlace) {
            const uint32_t colour = kAllEncodings[1 + rng() % 4];
            const uint32_t gray = wzEncodingGray;
            encD = encS == gray ? gray : colour;
            if (mixed) encD = encS == gray ? colour : gray;
        }
        ImagePtr dstOwned = inPlace ? nullptr : imageWithRegion(rng, rw, rh, encD, false);
        wzImage *dst = inPlace ? src.get() : dstOwned.get();
        ImagePtr mask;
        if (!mixed && rng() % 2 == 0) {
            mask = imageWithRegion(rng, rw, rh, wzEncodingGray, false);
            const unsigned kind = rng() % 4;
            if (kind < 2) std::memset(mask->data, kind == 0 ? 0 : 255, blockBytes(mask.get()));
        }
        wzImageColorProfile target;
        if (rng() % 2 == 0) {
            target = randomProfile(rng);
        } else {
            ImagePtr ref = randomImage(rng, 1 + rng() % 30, 1 + rng() % 30, kAllEncodings[rng() % 5],
                                       rng() % 2 == 0);
            countRegion(ref.get(), target);
        }
        const wzHistogramMatchParams p = randomParams(rng, &target);

        wzImageColorProfile srcProfile;
        countRegion(src.get(), srcProfile);
        const Table table = refTable(srcProfile, p);
        const std::vector<uint8_t> srcBefore = snapshot(src.get()), dstBefore = snapshot(dst);
        const std::vector<uint8_t> want =
            expectedMatch(src.get(), srcBefore, dst, dstBefore, table, mask.get());
        const uint32_t notSet = 0;
        SCOPED_TRACE(testing::Message() << "iter " << iter << " enc " << encS << "->" << encD
                                        << (inPlace ? " in place" : "") << (mask ? " mask" : ""));
        ASSERT_EQ(wzHistogramMatchFilter(&p, src.get(), mask.get(), dst, rng() % 2 ? &notSet : nullptr), 0u);
        ASSERT_EQ(snapshot(dst), want);
        if (!inPlace) {
            ASSERT_EQ(snapshot(src.get()), srcBefore);
        }
    }
}

// The several-image calling order: one table from two images, applied to each.
TEST(HistogramMatchFilter, StatsComputeApplyOverTwoImages) {
    std::mt19937 rng(9);
    ImagePtr a = imageWithRegion(rng, 9, 7, wzEncodingBGR, false);
    ImagePtr b = imageWithRegion(rng, 4, 12, wzEncodingRGBA, true);
    wzImageColorProfile target = randomProfile(rng), pa, pb;
    countRegion(a.get(), pa);
    countRegion(b.get(), pb);
    for (int k = 0; k < 3; ++k)
        for (int v = 0; v < 256; ++v) pa.bins[k][v] += pb.bins[k][v];
    wzHistogramMatchParams *p = wzHistogramMatchParamsDefault();
    p->targetProfile = &target;
    p->maxStep = 40;

    wzHistogramMatchStats *total = wzHistogramMatchStatsCreate(), *part = wzHistogramMatchStatsCreate();
    ASSERT_EQ(wzHistogramMatchStatsRetrieve(total, a.get()), 0u);
    ASSERT_EQ(wzHistogramMatchStatsRetrieve(part, b.get()), 0u);
    wzHistogramMatchStatsUpdate(part, total);
    Table t;
    wzHistogramMatchAddParamsCompute(total, p, t.data());
    const Table want = refTable(pa, *p);
    expectTablesEq(t, want, "gathered table");
    for (wzImage *img : {a.get(), b.get()}) {
        const std::vector<uint8_t> before = snapshot(img);
        const std::vector<uint8_t> expected = expectedMatch(img, before, img, before, want, nullptr);
        int reserved = 0;
        ASSERT_EQ(wzHistogramMatchApply(&reserved, t.data(), img, img, nullptr), 0u);
        EXPECT_EQ(snapshot(img), expected);
    }
    wzHistogramMatchStatsRelease(&total);
    wzHistogramMatchStatsRelease(&part);
    wzHistogramMatchParamsRelease(&p);
}

TEST(HistogramMatchApply, BlocksPerChannelAlphaKept) {
    Table t;
    for (int i = 0; i < 256; ++i) {
        t[i] = static_cast<uint8_t>(255 - i);
        t[256 + i] = static_cast<uint8_t>(i / 2);
        t[512 + i] = static_cast<uint8_t>(i ^ 0x0F);
    }
    ImagePtr gray = makeImage(2, 1, wzEncodingGray);
    gray->data[0] = 10;
    gray->data[1] = 200;
    ASSERT_EQ(wzHistogramMatchApply(nullptr, t.data(), gray.get(), gray.get(), nullptr), 0u);
    EXPECT_EQ(gray->data[0], 245);
    EXPECT_EQ(gray->data[1], 55);

    ImagePtr src = makeImage(1, 1, wzEncodingBGR), dst = makeImage(1, 1, wzEncodingARGB);
    src->data[0] = 100;  // blue
    src->data[1] = 100;  // green
    src->data[2] = 100;  // red
    std::memset(dst->data, 1, 4);
    ASSERT_EQ(wzHistogramMatchApply(nullptr, t.data(), src.get(), dst.get(), nullptr), 0u);
    EXPECT_EQ(dst->data[0], 1);              // alpha
    EXPECT_EQ(dst->data[1], 100 ^ 0x0F);     // red
    EXPECT_EQ(dst->data[2], 50);             // green
    EXPECT_EQ(dst->data[3], 155);            // blue

    // Choice of this library: images that are not 8-bit are refused untouched.
    ImagePtr wide = makeImage(1, 1, wzEncodingBGR, wzType16U);
    std::memset(wide->data, 0, 6);
    EXPECT_EQ(wzHistogramMatchApply(nullptr, t.data(), src.get(), wide.get(), nullptr), 1u);
    EXPECT_EQ(wzHistogramMatchApply(nullptr, t.data(), wide.get(), dst.get(), nullptr), 1u);
    EXPECT_EQ(std::vector<uint8_t>(wide->data, wide->data + 6), std::vector<uint8_t>(6, 0));
    EXPECT_EQ(dst->data[3], 155);
}

namespace {

// A BGR source with a target profile that moves every value, plus a
// destination of its own.
struct MaskScene {
    ImagePtr src, dst, mask;
    wzImageColorProfile target;
    wzHistogramMatchParams p;
    explicit MaskScene(uint32_t maskLevel) {
        std::mt19937 rng(17);  // the same images for every mask level
        src = imageWithRegion(rng, 11, 8, wzEncodingBGR, false);
        dst = imageWithRegion(rng, 11, 8, wzEncodingRGBA, false);
        mask = imageWithRegion(rng, 11, 8, wzEncodingGray, false);
        std::memset(mask->data, static_cast<int>(maskLevel), blockBytes(mask.get()));
        float t[256] = {};
        t[30] = 1.0f;
        t[220] = 3.0f;
        target = uniformProfile(t);
        p = params(&target, 1.0f, 0.9f, 0, 255);
    }
};

}  // namespace

TEST(HistogramMatchFilter, MaskLevelsZeroAndFull) {
    // Separate destination.
    {
        MaskScene none(0), zero(0), full(255);
        ASSERT_EQ(wzHistogramMatchFilter(&none.p, none.src.get(), nullptr, none.dst.get(), nullptr), 0u);
        ASSERT_EQ(wzHistogramMatchFilter(&full.p, full.src.get(), full.mask.get(), full.dst.get(), nullptr), 0u);
        EXPECT_EQ(snapshot(full.dst.get()), snapshot(none.dst.get()));
        // Mask 0: the destination region holds the source's values, alpha kept.
        const std::vector<uint8_t> before = snapshot(zero.dst.get());
        ASSERT_EQ(wzHistogramMatchFilter(&zero.p, zero.src.get(), zero.mask.get(), zero.dst.get(), nullptr), 0u);
        std::vector<uint8_t> want = before;
        wzImage *s = zero.src.get(), *d = zero.dst.get();
        for (int y = 0; y < 8; ++y)
            for (int x = 0; x < 11; ++x)
                for (int c = 1; c <= 3; ++c)
                    want[at(d, d->roi.x + x, d->roi.y + y, c) - d->data] =
                        *at(s, s->roi.x + x, s->roi.y + y, c);
        EXPECT_EQ(snapshot(d), want);
        EXPECT_NE(snapshot(none.dst.get()), before);  // the match did change values
    }
    // In place.
    {
        MaskScene none(0), zero(0), full(255);
        const std::vector<uint8_t> before = snapshot(zero.src.get());
        ASSERT_EQ(wzHistogramMatchFilter(&none.p, none.src.get(), nullptr, none.src.get(), nullptr), 0u);
        ASSERT_EQ(wzHistogramMatchFilter(&full.p, full.src.get(), full.mask.get(), full.src.get(), nullptr), 0u);
        EXPECT_EQ(snapshot(full.src.get()), snapshot(none.src.get()));
        EXPECT_NE(snapshot(none.src.get()), before);
        ASSERT_EQ(wzHistogramMatchFilter(&zero.p, zero.src.get(), zero.mask.get(), zero.src.get(), nullptr), 0u);
        EXPECT_EQ(snapshot(zero.src.get()), before);
    }
}

TEST(HistogramMatchFilter, CancelAndStatuses) {
    const uint32_t set = 1;
    for (int path = 0; path < 3; ++path) {  // separate, in place, in place with mask
        MaskScene sc(128);
        wzImage *dst = path == 0 ? sc.dst.get() : sc.src.get();
        const wzImage *mask = path == 2 ? sc.mask.get() : nullptr;
        const std::vector<uint8_t> before = snapshot(dst), srcBefore = snapshot(sc.src.get());
        EXPECT_EQ(wzHistogramMatchFilter(&sc.p, sc.src.get(), mask, dst, &set), 2u) << path;
        EXPECT_EQ(snapshot(dst), before) << path;
        EXPECT_EQ(snapshot(sc.src.get()), srcBefore) << path;
    }
    {
        MaskScene sc(0);
        Table t;
        t.fill(9);
        const std::vector<uint8_t> before = snapshot(sc.dst.get());
        EXPECT_EQ(wzHistogramMatchApply(nullptr, t.data(), sc.src.get(), sc.dst.get(), &set), 2u);
        EXPECT_EQ(snapshot(sc.dst.get()), before);
    }
    // A source the profile fill refuses: its status, nothing written.
    {
        MaskScene sc(0);
        ImagePtr wide = makeImage(11, 8, wzEncodingBGR, wzType16U);
        std::memset(wide->data, 0, blockBytes(wide.get()));
        const std::vector<uint8_t> before = snapshot(sc.dst.get());
        EXPECT_EQ(wzHistogramMatchFilter(&sc.p, wide.get(), nullptr, sc.dst.get(), nullptr), 1u);
        EXPECT_EQ(snapshot(sc.dst.get()), before);
    }
    // A mask the blend refuses: the blend's status is passed on.
    {
        MaskScene sc(0);
        ImagePtr wideMask = makeImage(11, 8, wzEncodingGray, wzType16U);
        std::memset(wideMask->data, 0, blockBytes(wideMask.get()));
        EXPECT_EQ(wzHistogramMatchFilter(&sc.p, sc.src.get(), wideMask.get(), sc.dst.get(), nullptr), 1u);
        EXPECT_EQ(wzHistogramMatchFilter(&sc.p, sc.src.get(), wideMask.get(), sc.src.get(), nullptr), 1u);
    }
}

// Equalisation is a match of the normalised profile to the flat one, without
// smoothing or step limit.
TEST(HistogramEqualization, RandomAgainstReference) {
    std::mt19937 rng(4242);
    for (int iter = 0; iter < 200; ++iter) {
        const uint32_t enc = kAllEncodings[rng() % 5];
        const int rw = 1 + static_cast<int>(rng() % 25), rh = 1 + static_cast<int>(rng() % 25);
        ImagePtr src = imageWithRegion(rng, rw, rh, enc, rng() % 2 == 0);
        const bool inPlace = rng() % 3 == 0;
        ImagePtr dstOwned = inPlace ? nullptr : imageWithRegion(rng, rw, rh, enc, false);
        wzImage *dst = inPlace ? src.get() : dstOwned.get();

        wzImageColorProfile prof, flat;
        countRegion(src.get(), prof);
        float total = 0.0f;
        for (int v = 0; v < 256; ++v) total += prof.bins[2][v];
        for (int a = 0; a < 3; ++a)
            for (int v = 0; v < 256; ++v) prof.bins[a][v] = prof.bins[a][v] / total;
        for (int a = 0; a < 3; ++a)
            for (int v = 0; v < 256; ++v) flat.bins[a][v] = 0.00390625f;
        const Table table = refTableRadius(prof, flat, 0, 256, -1, 1.0f);
        const std::vector<uint8_t> srcBefore = snapshot(src.get());
        const std::vector<uint8_t> want =
            expectedMatch(src.get(), srcBefore, dst, snapshot(dst), table, nullptr);
        ASSERT_EQ(wzHistogramEqualization(src.get(), dst), 0u);
        ASSERT_EQ(snapshot(dst), want) << "iter " << iter;
    }
}
