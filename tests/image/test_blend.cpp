// Weighted blending and masked substitution of 8-bit images.
#include <gtest/gtest.h>

#include <cstring>

#include "support/image_fixtures.hpp"

using namespace morven_test;

namespace {

// The blend formula evaluated independently: two rounded single-precision
// products, one addition, clamp and truncation. The test is compiled
// without contraction, so the products are not fused.
uint8_t blendRef(uint32_t weight, uint8_t p, uint8_t q) {
    const float w = static_cast<float>(weight) / 255.0f;
    volatile float a = (1.0f - w) * static_cast<float>(p);
    volatile float b = w * static_cast<float>(q);
    float r = a + b;
    if (r < 0.0f) r = 0.0f;
    if (r > 255.0f) r = 255.0f;
    return static_cast<uint8_t>(static_cast<int>(r));
}

ImagePtr filled(int w, int h, uint32_t enc, std::mt19937 &rng) {
    ImagePtr img = makeImage(w, h, enc);
    fillRandom(img.get(), rng);
    return img;
}

void setRoi(wzImage *img, int x, int y, int w, int h) {
    wzRect r{x, y, w, h};
    wzImageSetROI(img, &r);
}

}  // namespace

TEST(AddWeightedS, WorkedNumbers) {
    ImagePtr a = makeImage(4, 1, wzEncodingGray);
    ImagePtr b = makeImage(4, 1, wzEncodingGray);
    ImagePtr d = makeImage(4, 1, wzEncodingGray);
    const uint8_t pa[4] = {0, 255, 100, 10}, pb[4] = {255, 0, 100, 11};
    std::memcpy(a->data, pa, 4);
    std::memcpy(b->data, pb, 4);
    ASSERT_EQ(wzAddWeigthedS(a.get(), b.get(), d.get(), 128), 0u);
    EXPECT_EQ(d->data[0], 128);
    EXPECT_EQ(d->data[1], 126);  // 126.99999 truncated
    EXPECT_EQ(d->data[2], 100);
    EXPECT_EQ(d->data[3], 10);
    ASSERT_EQ(wzAddWeigthedS(a.get(), b.get(), d.get(), 0), 0u);
    EXPECT_EQ(std::memcmp(d->data, pa, 4), 0);
    ASSERT_EQ(wzAddWeigthedS(a.get(), b.get(), d.get(), 255), 0u);
    EXPECT_EQ(std::memcmp(d->data, pb, 4), 0);
}

TEST(AddWeightedS, RandomColourBlendsMatchTheFormulaAndKeepAlpha) {
    std::mt19937 rng(21);
    for (uint32_t ea : {wzEncodingGray, wzEncodingBGR, wzEncodingRGBA}) {
        for (uint32_t ed : {wzEncodingBGR, wzEncodingARGB, wzEncodingRGBA}) {
            if (ea == wzEncodingGray && ed != wzEncodingBGR) continue;
            const uint32_t eb = ea == wzEncodingGray ? uint32_t{wzEncodingGray} : uint32_t{wzEncodingRGB};
            const uint32_t eDst = ea == wzEncodingGray ? uint32_t{wzEncodingGray} : ed;
            for (uint32_t weight : {1u, 77u, 128u, 254u}) {
                ImagePtr a = filled(12, 9, ea, rng);
                ImagePtr b = filled(10, 8, eb, rng);
                ImagePtr d = filled(11, 10, eDst, rng);
                setRoi(a.get(), 2, 1, 7, 6);
                setRoi(b.get(), 0, 2, 7, 6);
                setRoi(d.get(), 3, 3, 7, 6);
                const std::vector<uint8_t> before = snapshot(d.get());
                ASSERT_EQ(wzAddWeigthedS(a.get(), b.get(), d.get(), weight), 0u);
                const int nch = wzGetNChannelFromEncoding(eDst);
                for (int y = 0; y < d->height; ++y)
                    for (int x = 0; x < d->width; ++x)
                        for (int c = 1; c <= nch; ++c) {
                            const uint8_t *out = at(d.get(), x, y, c);
                            const bool inside = x >= 3 && x < 10 && y >= 3 && y < 9 && c <= 3;
                            const uint8_t want =
                                inside ? blendRef(weight, *at(a.get(), x - 1, y - 2, c),
                                                  *at(b.get(), x - 3, y - 1, c))
                                       : before[static_cast<size_t>(out - d->data)];
                            ASSERT_EQ(*out, want) << "weight " << weight << " at " << x << "," << y
                                                  << " ch " << c << " enc " << ea << "/" << eDst;
                        }
            }
        }
    }
}

TEST(AddWeightedM, PerPixelMaskWithTheDestinationAsInput) {
    std::mt19937 rng(8);
    ImagePtr a = filled(16, 5, wzEncodingBGR, rng);
    ImagePtr b = filled(16, 5, wzEncodingBGR, rng);
    ImagePtr mask = filled(16, 5, wzEncodingGray, rng);
    mask->data[0] = 0;
    mask->data[1] = 255;
    ImagePtr bCopy = makeImage(16, 5, wzEncodingBGR);
    ASSERT_EQ(wzCopy(b.get(), bCopy.get()), 0u);
    // dst is b itself, as the filters use it.
    ASSERT_EQ(wzAddWeigthedM(a.get(), b.get(), b.get(), mask.get()), 0u);
    EXPECT_EQ(std::memcmp(at(b.get(), 0, 0), at(a.get(), 0, 0), 3), 0);      // mask 0: a
    EXPECT_EQ(std::memcmp(at(b.get(), 1, 0), at(bCopy.get(), 1, 0), 3), 0);  // mask 255: b
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 16; ++x)
            for (int c = 1; c <= 3; ++c)
                ASSERT_EQ(*at(b.get(), x, y, c),
                          blendRef(*at(mask.get(), x, y), *at(a.get(), x, y, c),
                                   *at(bCopy.get(), x, y, c)));
}

TEST(AddWeightedM, MaskWalksFromItsOwnRegionAndAlphaStays) {
    std::mt19937 rng(9);
    ImagePtr a = filled(6, 4, wzEncodingGray, rng);
    ImagePtr b = filled(6, 4, wzEncodingGray, rng);
    ImagePtr d = filled(6, 4, wzEncodingGray, rng);
    ImagePtr mask = filled(9, 7, wzEncodingGray, rng);
    setRoi(a.get(), 1, 1, 4, 2);
    setRoi(b.get(), 1, 1, 4, 2);
    setRoi(d.get(), 1, 1, 4, 2);
    setRoi(mask.get(), 5, 4, 4, 2);
    ASSERT_EQ(wzAddWeigthedM(a.get(), b.get(), d.get(), mask.get()), 0u);
    for (int y = 1; y < 3; ++y)
        for (int x = 1; x < 5; ++x)
            ASSERT_EQ(*at(d.get(), x, y), blendRef(*at(mask.get(), x + 4, y + 3), *at(a.get(), x, y),
                                                   *at(b.get(), x, y)));

    ImagePtr rgba = filled(3, 3, wzEncodingRGBA, rng);
    ImagePtr m = filled(3, 3, wzEncodingGray, rng);
    for (int i = 0; i < 9; ++i) rgba->data[i * 4 + 3] = 200;
    ImagePtr src = filled(3, 3, wzEncodingBGR, rng);
    ASSERT_EQ(wzAddWeigthedM(src.get(), src.get(), rgba.get(), m.get()), 0u);
    ASSERT_EQ(wzAddWeigthedS(src.get(), src.get(), rgba.get(), 40), 0u);
    for (int i = 0; i < 9; ++i) EXPECT_EQ(rgba->data[i * 4 + 3], 200);
}

TEST(Blend, EmptyRegionsAndWrongTypes) {
    std::mt19937 rng(10);
    ImagePtr a = filled(4, 4, wzEncodingBGR, rng);
    ImagePtr b = filled(4, 4, wzEncodingBGR, rng);
    ImagePtr d = filled(4, 4, wzEncodingBGR, rng);
    ImagePtr m = filled(4, 4, wzEncodingGray, rng);
    const std::vector<uint8_t> before = snapshot(d.get());
    setRoi(a.get(), 0, 0, 0, 4);
    EXPECT_EQ(wzAddWeigthedS(a.get(), b.get(), d.get(), 100), 0u);
    EXPECT_EQ(wzAddWeigthedM(a.get(), b.get(), d.get(), m.get()), 0u);
    EXPECT_EQ(wzSubstitute(a.get(), d.get(), m.get()), 0u);
    EXPECT_EQ(snapshot(d.get()), before);

    ImagePtr wide = makeImage(4, 4, wzEncodingBGR, wzType16U);
    EXPECT_EQ(wzAddWeigthedS(wide.get(), b.get(), d.get(), 100), 1u);
    EXPECT_EQ(wzAddWeigthedM(b.get(), b.get(), d.get(), wide.get()), 1u);
    EXPECT_EQ(wzSubstitute(wide.get(), d.get(), m.get()), 1u);
    // The extreme weights are plain conversions, with their type check.
    EXPECT_EQ(wzAddWeigthedS(wide.get(), b.get(), d.get(), 0), 1u);
    EXPECT_EQ(snapshot(d.get()), before);
}

TEST(Substitute, GrayAndColourMasks) {
    std::mt19937 rng(12);
    ImagePtr src = filled(5, 3, wzEncodingBGR, rng);
    ImagePtr dst = filled(5, 3, wzEncodingRGBA, rng);
    ImagePtr gray = makeImage(5, 3, wzEncodingGray);
    for (int i = 0; i < 15; ++i) gray->data[i] = (i % 3 == 0) ? 9 : 0;
    std::vector<uint8_t> before = snapshot(dst.get());
    ASSERT_EQ(wzSubstitute(src.get(), dst.get(), gray.get()), 0u);
    for (int i = 0; i < 15; ++i) {
        const int x = i % 5, y = i / 5;
        for (int c = 1; c <= 4; ++c) {
            const uint8_t *out = at(dst.get(), x, y, c);
            const uint8_t want = (gray->data[i] && c <= 3) ? *at(src.get(), x, y, c)
                                                           : before[static_cast<size_t>(out - dst->data)];
            EXPECT_EQ(*out, want);
        }
    }

    // A colour mask gates each channel by itself: green alone here.
    ImagePtr cmask = makeImage(5, 3, wzEncodingRGB);
    std::memset(cmask->data, 0, 45);
    for (int i = 0; i < 15; ++i) *at(cmask.get(), i % 5, i / 5, 2) = 1;
    before = snapshot(dst.get());
    ASSERT_EQ(wzSubstitute(src.get(), dst.get(), cmask.get()), 0u);
    for (int i = 0; i < 15; ++i) {
        const int x = i % 5, y = i / 5;
        EXPECT_EQ(*at(dst.get(), x, y, 2), *at(src.get(), x, y, 2));
        for (int c : {1, 3, 4}) {
            const uint8_t *out = at(dst.get(), x, y, c);
            EXPECT_EQ(*out, before[static_cast<size_t>(out - dst->data)]);
        }
    }

    // Gray images substitute byte by byte.
    ImagePtr gs = filled(4, 2, wzEncodingGray, rng);
    ImagePtr gd = filled(4, 2, wzEncodingGray, rng);
    before = snapshot(gd.get());
    ImagePtr gm = makeImage(4, 2, wzEncodingGray);
    for (int i = 0; i < 8; ++i) gm->data[i] = static_cast<uint8_t>(i & 1);
    ASSERT_EQ(wzSubstitute(gs.get(), gd.get(), gm.get()), 0u);
    for (int i = 0; i < 8; ++i) EXPECT_EQ(gd->data[i], (i & 1) ? gs->data[i] : before[i]);
}
