// Matching at 16-bit precision and in working colour spaces: a ramp against
// the documented piecewise linear method, the conversions against plain
// formulas, pictures matched to themselves and their own profiles, and the
// chroma that the luma space keeps.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <set>

#include "ext_support.hpp"

using namespace ext;

namespace {

double srgbToLinear(double c) {
    return c <= 0.04045 ? c / 12.92 : std::pow((c + 0.055) / 1.055, 2.4);
}
double labF(double t) {
    return t > 216.0 / 24389.0 ? std::cbrt(t) : t * 841.0 / 108.0 + 4.0 / 29.0;
}

// Where a colour (r, g, b in 0..1) counts in a space: the bin positions on
// 0..65535 of profile arrays 2, 1, 0 (channel 1, Y' or L* first).
std::array<double, 3> binsOf(double r, double g, double b, int32_t space) {
    constexpr double S = 65535.0;
    if (space == wzSpaceChannels) return {b * S, g * S, r * S};
    if (space != wzSpaceLab) {
        const double y = 0.299 * r + 0.587 * g + 0.114 * b;
        return {y * S, ((b - y) / 1.772 + 0.5) * S, ((r - y) / 1.402 + 0.5) * S};
    }
    r = srgbToLinear(r), g = srgbToLinear(g), b = srgbToLinear(b);  // sRGB primaries, D65 white
    const double fx = labF((0.4124 * r + 0.3576 * g + 0.1805 * b) / 0.9505),
                 fy = labF(0.2126 * r + 0.7152 * g + 0.0722 * b);
    const double fz = labF((0.0193 * r + 0.1192 * g + 0.9505 * b) / 1.089);
    return {(116.0 * fy - 16.0) / 100.0 * S, (500.0 * (fx - fy) + 128.0) / 256.0 * S,
            (200.0 * (fy - fz) + 128.0) / 256.0 * S};
}

int maxDifference(const wzImage *a, const wzImage *b) {
    int worst = 0;
    for (int i = 0; i < a->width * a->height; ++i)
        for (int c = 1; c <= colours(a); ++c)
            worst = std::max(worst, std::abs(get(a, i % a->width, i / a->width, c) -
                                             get(b, i % a->width, i / a->width, c)));
    return worst;
}

ImagePtr ramp16() {
    ImagePtr ramp = makeImage(256, 256, wzEncodingGray, wzType16U);
    for (int u = 0; u < 65536; ++u) put(ramp.get(), u % 256, u / 256, 1, u);
    return ramp;
}

wzStatus match(const wzHistogramMatchParams &p, const wzHistogramMatchOptions *o, wzImage *src,
               wzImage *dst) {
    return wzHistogramMatchFilterWithOptions(&p, o, src, nullptr, dst, nullptr);
}

}  // namespace

// Every level u of a 16-bit gray ramp matched to an uneven 8-bit profile
// at fidelity 1 has the share (u + 0.5) / 65536 and goes to the
// point of the target's piecewise linear distribution (8-bit bin k spread
// over 257 k - 128.5 .. 257 k + 128.5) at that share, rounded; at strength
// 0.5 halfway from u to there. maxStep 3 bounds the rise over any 257
// levels to 3 * 257. At fidelity 0.9 the result still rises along the ramp
// through 4096 levels or more.
TEST(ExtDeep, RampFollowsThePiecewiseLinearTarget) {
    std::mt19937 rng(8);
    wzImageColorProfile target{};
    for (int k = 0; k < 256; ++k)  // uneven counts, and every third stretch of 16 levels empty
        target.bins[2][k] = k / 16 % 3 == 1 ? 0.0f : float(1 + rng() % 3000);
    ImagePtr ramp = ramp16(), out = ramp16();
    const float *t = target.bins[2];  // a gray picture matches channel 1
    std::vector<double> cum(257), want(65536);
    for (int k = 0; k < 256; ++k) cum[k + 1] = cum[k] + t[k];
    for (int u = 0, k = 0; u < 65536; ++u) {
        const double q = (u + 0.5) / 65536.0 * cum[256];
        while (cum[k + 1] <= q) ++k;
        const double lo = std::max(257.0 * k - 128.5, -0.5),
                     hi = std::min(257.0 * k + 128.5, 65535.5);
        want[u] = std::clamp(lo + (q - cum[k]) / t[k] * (hi - lo), 0.0, 65535.0);
    }
    const uint16_t *o = reinterpret_cast<const uint16_t *>(out->data);
    for (float strength : {1.0f, 0.5f}) {
        const wzHistogramMatchParams params{strength, 1.0f, 0, 255, &target};
        ASSERT_EQ(match(params, nullptr, ramp.get(), out.get()), 0u);
        int worst = 0;
        for (int u = 0; u < 65536; ++u)
            worst = std::max(
                worst,
                std::abs(o[u] - int(std::lround(strength * want[u] + (1.0 - strength) * u))));
        EXPECT_LE(worst, 1) << "strength " << strength;
    }
    ASSERT_EQ(match({1.0f, 1.0f, 0, 3, &target}, nullptr, ramp.get(), out.get()), 0u);
    for (int u = 0; u + 257 < 65536; ++u) ASSERT_LE(o[u + 257] - o[u], 3 * 257 + 1) << u;
    ASSERT_EQ(match({1.0f, 0.9f, 0, 255, &target}, nullptr, ramp.get(), out.get()), 0u);
    EXPECT_TRUE(std::is_sorted(o, o + 65536));
    EXPECT_GE(std::set<uint16_t>(o, o + 65536).size(), 4096u);
}

// An 8-bit picture matched to a deep target takes, per channel, the 8-bit
// level nearest to the target's 16-bit level: 1000, 30000 and 50000 give
// 3.89, 116.73 and 194.55 on the 8-bit scale, so 4, 117 and 195.
TEST(ExtDeep, EightBitPictureTakesTheNearestLevelOfADeepTarget) {
    ImagePtr target = makeImage(1, 1, wzEncodingBGR, wzType16U),
             src = makeImage(1, 1, wzEncodingBGR), out = makeImage(1, 1, wzEncodingBGR);
    const int levels[3] = {1000, 30000, 50000}, want[3] = {4, 117, 195};
    for (int c = 1; c <= 3; ++c)
        put(target.get(), 0, 0, c, levels[c - 1]), put(src.get(), 0, 0, c, 100);
    Profile16Ptr deep = profile16(target.get(), wzSpaceChannels);
    const wzHistogramMatchOptions options{wzSpaceChannels, 0, nullptr, deep.get()};
    wzImageColorProfile unused{};
    ASSERT_EQ(match({1.0f, 1.0f, 0, 255, &unused}, &options, src.get(), out.get()), 0u);
    for (int c = 1; c <= 3; ++c) EXPECT_EQ(get(out.get(), 0, 0, c), want[c - 1]) << c;
}

// Colours on a grid of every 15th (8-bit) or 4369th (16-bit) level of each
// channel plus random ones, in BGR and RGBA, and gray ramps of every level.
// Their deep profiles in every space hold the bins of the conversions worked
// out here in double precision (the sorted bin positions each within half a
// bin; Lab within a bin, as published primaries differ in their last
// digits), luma counting as Y'CbCr does. Matched at strength 0 the curves are
// the identity, and the conversions far more accurate than half a level:
// every pixel comes back as it was, and a fourth channel stays. Matched at
// full strength to its own deep profile no pixel moves by more than a level;
// to its own 8-bit profile no 16-bit sample leaves its 8-bit level's bin
// (moves by more than 257 levels), and an 8-bit picture, in which every level
// occurs, stays as it is.
TEST(ExtSpaces, ConversionsAgainstPlainFormulasAndBack) {
    std::mt19937 rng(6);
    ImagePtr grid8 = randomImage(160, 200, wzEncodingBGR, wzType8U, rng),
             grid16 = randomImage(64, 128, wzEncodingRGBA, wzType16U, rng);
    ImagePtr gray8 = makeImage(256, 1, wzEncodingGray), gray16 = ramp16();
    for (int i = 0; i < 18 * 18 * 18; ++i)
        for (int c = 0, step = 1; c < 3; ++c, step *= 18)
            put(grid8.get(), i % 160, i / 160, c + 1, 15 * (i / step % 18));
    for (int i = 0; i < 4096; ++i)
        for (int c = 0; c < 3; ++c)
            put(grid16.get(), i % 64, i / 64, c + 1, 4369 * (i >> (4 * c) & 15));
    for (int u = 0; u < 256; ++u) put(gray8.get(), u, 0, 1, u);
    wzImageColorProfile unused{};
    const wzHistogramMatchParams params{0.0f, 0.9f, 0, 40, &unused},
        full1{1.0f, 1.0f, 0, 255, &unused};
    for (wzImage *src : {grid8.get(), grid16.get(), gray8.get(), gray16.get()}) {
        ImagePtr ref = randomImage(40, 30, src->encoding, src->type, rng);
        const int w = src->width, pixels = w * src->height;
        const double top = full(src);
        for (int32_t space = wzSpaceChannels; space <= wzSpaceLab; ++space) {
            SCOPED_TRACE(testing::Message() << "type " << src->type << " encoding " << src->encoding
                                            << " space " << space);
            Profile16Ptr p = profile16(src, space);
            ASSERT_TRUE(p && p->space == space);
            std::vector<double> want[3], got[3];
            for (int i = 0; i < pixels; ++i) {
                const int n = colours(src);
                const auto bins = binsOf(get(src, i % w, i / w, std::min(n, 3)) / top,
                                         get(src, i % w, i / w, std::min(n, 2)) / top,
                                         get(src, i % w, i / w, 1) / top, space);
                for (int a = 0; a < 3; ++a) want[a].push_back(bins[a]);
            }
            double worst = 0.0;
            for (int a = 0; a < 3; ++a) {
                for (int v = 0; v < 65536; ++v)
                    got[a].insert(got[a].end(), size_t(p->bins[2 - a][v]), v);
                ASSERT_EQ(got[a].size(), size_t(pixels)) << "array " << 2 - a;
                std::sort(want[a].begin(), want[a].end());
                for (int i = 0; i < pixels; ++i)
                    worst = std::max(worst, std::fabs(got[a][i] - want[a][i]));
            }
            EXPECT_LE(worst, space == wzSpaceLab ? 1.0 : 0.51);
            if (space == wzSpaceLuma) {
                EXPECT_EQ(std::memcmp(p->bins, profile16(src, wzSpaceYCbCr)->bins, sizeof p->bins),
                          0);
            }
            Profile16Ptr target = profile16(ref.get(), space);
            const wzHistogramMatchOptions options{space, 0, nullptr, target.get()};
            ImagePtr out = randomImage(w, src->height, src->encoding, src->type, rng),
                     before = clone(out.get());
            ASSERT_EQ(match(params, &options, src, out.get()), 0u);
            EXPECT_EQ(maxDifference(src, out.get()), 0);
            for (int i = 0; i < pixels && src->encoding == wzEncodingRGBA; ++i)
                ASSERT_EQ(get(out.get(), i % w, i / w, 4), get(before.get(), i % w, i / w, 4));
            const wzHistogramMatchOptions own{space, 0, nullptr, p.get()};
            ASSERT_EQ(match(full1, &own, src, out.get()), 0u);
            EXPECT_LE(maxDifference(src, out.get()), 1) << "matched to its own profile";
        }
        wzImageColorProfile own8;
        ASSERT_EQ(wzImageFillColorProfileMasked(src, nullptr, &own8), 0u);
        ImagePtr out = makeImage(w, src->height, src->encoding, src->type);
        ASSERT_EQ(match({1.0f, 1.0f, 0, 255, &own8}, nullptr, src, out.get()), 0u);
        EXPECT_LE(maxDifference(src, out.get()), src->type == wzType16U ? 257 : 0);
    }
}

// wzSpaceLuma, with a target counted in Y'CbCr, darkens mid-tones toward a
// dark target while each pixel's Cb and Cr stay within a level wherever no
// channel had to be clamped.
TEST(ExtSpaces, LumaKeepsEachPixelsChroma) {
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    for (uint32_t type : {wzType8U, wzType16U}) {
        ImagePtr src = makeImage(60, 40, wzEncodingBGR, type),
                 dark = makeImage(30, 30, wzEncodingBGR, type),
                 out = makeImage(60, 40, wzEncodingBGR, type);
        const int top = full(src.get());
        for (int i = 0, base = 0; i < 60 * 40 * 3; ++i) {  // mid-tones of little chroma
            base = i % 3 ? base : int(top * (0.3 + 0.4 * u(rng)));
            put(src.get(), i / 3 % 60, i / 180, i % 3 + 1, base + int(top * 0.16 * (u(rng) - 0.5)));
        }
        for (int i = 0; i < 30 * 30 * 3; ++i)
            put(dark.get(), i / 3 % 30, i / 90, i % 3 + 1, int(top * (0.15 + 0.35 * u(rng))));
        Profile16Ptr target = profile16(dark.get(), wzSpaceYCbCr);
        wzImageColorProfile unused{};
        const wzHistogramMatchOptions options{wzSpaceLuma, 0, nullptr, target.get()};
        ASSERT_EQ(match({1.0f, 0.9f, 0, 255, &unused}, &options, src.get(), out.get()), 0u);
        const auto ycc = [](const wzImage *img, int i) {
            const double b = get(img, i % 60, i / 60, 1), g = get(img, i % 60, i / 60, 2),
                         r = get(img, i % 60, i / 60, 3), y = 0.299 * r + 0.587 * g + 0.114 * b;
            return std::array<double, 3>{y, (b - y) / 1.772, (r - y) / 1.402};
        };
        int clamped = 0;
        double drop = 0.0, worst = 0.0;
        for (int i = 0; i < 60 * 40; ++i) {
            const auto before = ycc(src.get(), i), after = ycc(out.get(), i);
            drop += (before[0] - after[0]) / (60 * 40);
            if (std::min({get(out.get(), i % 60, i / 60, 1), get(out.get(), i % 60, i / 60, 2),
                          get(out.get(), i % 60, i / 60, 3)}) == 0)
                ++clamped;
            else
                worst = std::max(
                    {worst, std::fabs(after[1] - before[1]), std::fabs(after[2] - before[2])});
        }
        EXPECT_LE(worst, 1.0) << "type " << type;
        EXPECT_LT(clamped, 60 * 40 / 10);
        EXPECT_GT(drop, top / 10.0) << "Y' did not move toward the target";
    }
}
