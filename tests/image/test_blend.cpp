// Weighted blending and masked substitution of 8-bit images.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "support/image_fixtures.hpp"

using namespace morven_test;

namespace {

// The blend formula evaluated independently: two rounded single-precision
// products, one addition, clamp and truncation (no contraction: the tests are
// built with -ffp-contract=off).
uint8_t blendRef(uint32_t weight, uint8_t p, uint8_t q) {
    const float w = static_cast<float>(weight) / 255.0f;
    volatile float a = (1.0f - w) * static_cast<float>(p), b = w * static_cast<float>(q);
    const float r = a + b;
    return static_cast<uint8_t>(static_cast<int>(r < 0.0f ? 0.0f : r > 255.0f ? 255.0f : r));
}

ImagePtr filled(int w, int h, uint32_t enc, std::mt19937 &rng) {
    ImagePtr img = makeImage(w, h, enc);
    fillRandom(img.get(), rng);
    return img;
}

}  // namespace

TEST(AddWeightedS, WorkedNumbers) {
    ImagePtr a = makeImage(4, 1, wzEncodingGray), b = makeImage(4, 1, wzEncodingGray);
    ImagePtr d = makeImage(4, 1, wzEncodingGray);
    const std::vector<uint8_t> pa = {0, 255, 100, 10}, pb = {255, 0, 100, 11};
    std::memcpy(a->data, pa.data(), 4);
    std::memcpy(b->data, pb.data(), 4);
    ASSERT_EQ(wzAddWeigthedS(a.get(), b.get(), d.get(), 128), 0u);
    EXPECT_EQ(snapshot(d.get()), std::vector<uint8_t>({128, 126, 100, 10}));  // 126.99999 truncated
    ASSERT_EQ(wzAddWeigthedS(a.get(), b.get(), d.get(), 0), 0u);
    EXPECT_EQ(snapshot(d.get()), pa);
    ASSERT_EQ(wzAddWeigthedS(a.get(), b.get(), d.get(), 255), 0u);
    EXPECT_EQ(snapshot(d.get()), pb);
}

// Uniform and masked blends over offset regions and mixed encodings: every
// image walks from its own region origin, channels 1-3 follow the formula,
// everything else (alpha included) stays. The masked case also runs with the
// destination as its second input, as the filters use it.
TEST(AddWeighted, RandomBlendsMatchTheFormula) {
    std::mt19937 rng(21);
    const uint32_t configs[][3] = {{wzEncodingGray, wzEncodingGray, wzEncodingGray},
                                   {wzEncodingBGR, wzEncodingRGB, wzEncodingARGB},
                                   {wzEncodingRGBA, wzEncodingGray, wzEncodingRGBA},
                                   {wzEncodingARGB, wzEncodingBGR, wzEncodingGray}};
    for (const auto &e : configs) {
        for (uint32_t weight :
             {1u, 77u, 128u, 254u, 256u /* masked */, 257u /* masked, dst = b */}) {
            ImagePtr a = filled(12, 9, e[0], rng), b = filled(10, 8, e[1], rng);
            ImagePtr d = filled(11, 10, e[2], rng), mask = filled(13, 7, wzEncodingGray, rng);
            const bool masked = weight > 255, alias = weight == 257;
            wzImage *dst = alias ? b.get() : d.get();
            if (alias && e[1] == wzEncodingGray && e[0] != wzEncodingGray)
                continue;  // 3 writes to 1 byte
            setRoi(a.get(), 2, 1, 7, 6);
            setRoi(b.get(), 0, 2, 7, 6);
            setRoi(d.get(), 3, 3, 7, 6);
            setRoi(mask.get(), 5, 1, 7, 6);
            ImagePtr bCopy = makeImage(10, 8, e[1]);
            std::memcpy(bCopy->data, b->data, blockBytes(b.get()));
            std::vector<uint8_t> want = snapshot(dst);
            const int ox = alias ? 0 : 3, oy = alias ? 2 : 3;
            for (int y = 0; y < 6; ++y)
                for (int x = 0; x < 7; ++x) {
                    const uint32_t w = masked ? *at(mask.get(), x + 5, y + 1) : weight;
                    for (int c = 1; c <= 3; ++c)  // a gray image has offset 0 for each
                        want[at(dst, x + ox, y + oy, c) - dst->data] = blendRef(
                            w, *at(a.get(), x + 2, y + 1, c), *at(bCopy.get(), x, y + 2, c));
                }
            const wzStatus st = masked ? wzAddWeigthedM(a.get(), b.get(), dst, mask.get())
                                       : wzAddWeigthedS(a.get(), b.get(), dst, weight);
            ASSERT_EQ(st, 0u);
            EXPECT_EQ(snapshot(dst), want)
                << "weight " << weight << " encodings " << e[0] << "/" << e[1] << "/" << e[2];
        }
    }
}

TEST(AddWeighted, EmptyRegionsAndWrongTypesWriteNothing) {
    std::mt19937 rng(10);
    ImagePtr a = filled(4, 4, wzEncodingBGR, rng), b = filled(4, 4, wzEncodingBGR, rng);
    ImagePtr d = filled(4, 4, wzEncodingBGR, rng), m = filled(4, 4, wzEncodingGray, rng);
    ImagePtr wide = makeImage(4, 4, wzEncodingBGR, wzType16U);
    const std::vector<uint8_t> before = snapshot(d.get());
    setRoi(a.get(), 0, 0, 0, 4);
    EXPECT_EQ(wzAddWeigthedS(a.get(), b.get(), d.get(), 100), 0u);
    EXPECT_EQ(wzAddWeigthedM(a.get(), b.get(), d.get(), m.get()), 0u);
    EXPECT_EQ(wzSubstitute(a.get(), d.get(), m.get()), 0u);
    EXPECT_EQ(wzAddWeigthedS(wide.get(), b.get(), d.get(), 100), 1u);
    EXPECT_EQ(wzAddWeigthedM(b.get(), b.get(), d.get(), wide.get()), 1u);
    EXPECT_EQ(wzSubstitute(wide.get(), d.get(), m.get()), 1u);
    // The extreme weights are conversions, with their type check.
    EXPECT_EQ(wzAddWeigthedS(wide.get(), b.get(), d.get(), 0), 1u);
    EXPECT_EQ(snapshot(d.get()), before);
}

// Gray images substitute byte by byte, a gray mask gates whole pixels (not
// alpha), a colour mask gates each channel by itself.
TEST(Substitute, GrayAndColourMasks) {
    std::mt19937 rng(12);
    const uint32_t configs[][3] = {{wzEncodingGray, wzEncodingGray, wzEncodingGray},
                                   {wzEncodingBGR, wzEncodingRGBA, wzEncodingGray},
                                   {wzEncodingBGR, wzEncodingRGBA, wzEncodingRGB}};
    for (const auto &e : configs) {
        ImagePtr src = filled(5, 3, e[0], rng), dst = filled(5, 3, e[1], rng),
                 mask = filled(5, 3, e[2], rng);
        for (size_t i = 0; i < blockBytes(mask.get()); ++i) mask->data[i] = rng() % 2 ? 9 : 0;
        std::vector<uint8_t> want = snapshot(dst.get());
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 5; ++x)
                for (int c = 1; c <= (e[0] == wzEncodingGray ? 1 : 3); ++c)
                    if (*at(mask.get(), x, y, c))
                        want[at(dst.get(), x, y, c) - dst->data] = *at(src.get(), x, y, c);
        ASSERT_EQ(wzSubstitute(src.get(), dst.get(), mask.get()), 0u);
        EXPECT_EQ(snapshot(dst.get()), want) << e[0] << "/" << e[1] << "/" << e[2];
    }
}
