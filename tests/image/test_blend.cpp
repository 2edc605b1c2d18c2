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

// Uniform and masked blends and substitution over offset regions and mixed
// encodings: every image walks from its own region origin, channels 1-3 follow
// the formula, everything else (alpha included) stays. The masked blend also
// runs with the destination as its second input, as the filters use it.
// Substitution takes b as its mask (about half its bytes are zero): a gray mask
// gates whole pixels, a colour mask each channel by itself.
TEST(AddWeighted, RandomBlendsAndSubstitutionsMatchTheFormula) {
    std::mt19937 rng(21);
    const uint32_t configs[][3] = {{wzEncodingGray, wzEncodingGray, wzEncodingGray},
                                   {wzEncodingBGR, wzEncodingRGB, wzEncodingARGB},
                                   {wzEncodingRGBA, wzEncodingGray, wzEncodingRGBA},
                                   {wzEncodingARGB, wzEncodingBGR, wzEncodingGray}};
    enum { Masked = 256, Aliased, Substitute };  // after the weights 0..255
    for (const auto &e : configs) {
        for (uint32_t op : {0u, 1u, 77u, 128u, 254u, 255u, uint32_t(Masked), uint32_t(Aliased),
                            uint32_t(Substitute)}) {
            // Weights 0 and 255 convert a or b; where that converts colour to
            // gray or copies a fourth channel the formula does not apply.
            const uint32_t conv = op == 0 ? e[0] : e[1];
            if ((op == 0 || op == 255) && ((e[2] == wzEncodingGray && conv != wzEncodingGray) ||
                                           (conv == e[2] && conv >= wzEncodingARGB)))
                continue;
            ImagePtr a = filled(12, 9, e[0], rng), b = filled(10, 8, e[1], rng);
            ImagePtr d = filled(11, 10, e[2], rng), mask = filled(13, 7, wzEncodingGray, rng);
            for (size_t i = 0; i < blockBytes(b.get()); ++i) b->data[i] &= rng() % 2 ? 0xFF : 0;
            wzImage *dst = op == Aliased ? b.get() : d.get();
            if (op == Aliased && e[1] == wzEncodingGray && e[0] != wzEncodingGray)
                continue;  // 3 writes to 1 byte
            setRoi(a.get(), 2, 1, 7, 6);
            setRoi(b.get(), 0, 2, 7, 6);
            setRoi(d.get(), 3, 3, 7, 6);
            setRoi(mask.get(), 5, 1, 7, 6);
            const std::vector<uint8_t> bCopy = snapshot(b.get());
            std::vector<uint8_t> want = snapshot(dst);
            const int ox = op == Aliased ? 0 : 3, oy = op == Aliased ? 2 : 3;
            for (int y = 0; y < 6; ++y)
                for (int x = 0; x < 7; ++x)
                    for (int c = 1; c <= 3; ++c) {  // a gray image has offset 0 for each
                        uint8_t &out = want[at(dst, x + ox, y + oy, c) - dst->data];
                        const uint8_t p = *at(a.get(), x + 2, y + 1, c),
                                      q = bCopy[at(b.get(), x, y + 2, c) - b->data];
                        if (op == Substitute)
                            out = q ? p : out;
                        else
                            out = blendRef(op >= Masked ? *at(mask.get(), x + 5, y + 1) : op, p, q);
                    }
            const wzStatus st = op == Substitute ? wzSubstitute(a.get(), dst, b.get())
                                : op >= Masked   ? wzAddWeigthedM(a.get(), b.get(), dst, mask.get())
                                                 : wzAddWeigthedS(a.get(), b.get(), dst, op);
            ASSERT_EQ(st, 0u);
            EXPECT_EQ(snapshot(dst), want)
                << "op " << op << " encodings " << e[0] << "/" << e[1] << "/" << e[2];
        }
    }
}

// Empty regions and non-8-bit images write nothing; the extreme weights are
// conversions (any type, their own type check).
TEST(AddWeighted, EmptyRegionsAndWrongTypes) {
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
    EXPECT_EQ(wzAddWeigthedS(wide.get(), b.get(), d.get(), 0), 1u);
    EXPECT_EQ(snapshot(d.get()), before);
    ImagePtr wide2 = makeImage(4, 4, wzEncodingBGR, wzType16U);
    fillRandom(wide.get(), rng);
    ASSERT_EQ(wzAddWeigthedS(a.get(), wide.get(), wide2.get(), 255), 0u);
    EXPECT_EQ(snapshot(wide2.get()), snapshot(wide.get()));
}
