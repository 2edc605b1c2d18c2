// Applying tone curves and the one-call contrast filter.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "morven/contrast.h"
#include "support/image_fixtures.hpp"

using namespace morven_test;

namespace {

ImagePtr filledImage(int w, int h, uint32_t enc, uint8_t value, uint32_t type = wzType8U) {
    ImagePtr img = makeImage(w, h, enc, type);
    std::memset(img->data, value, blockBytes(img.get()));
    return img;
}

// The worked example as a 40 x 25 gray image: 3 pixels of 10, 2 of 11, 985
// of 100, 5 of 240, 5 of 250. Default levels: low 11, high 240.
ImagePtr thousandPixels() {
    ImagePtr img = filledImage(40, 25, wzEncodingGray, 100);
    int i = 0;
    for (auto [value, count] : {std::pair{10, 3}, {11, 2}, {240, 5}, {250, 5}})
        for (int k = 0; k < count; ++k) img->data[(i++ * 37) % 1000] = static_cast<uint8_t>(value);
    return img;
}

uint8_t enhanced(uint8_t v) { return v <= 11 ? 0 : v == 100 ? 99 : v == 240 ? 254 : 255; }

const wzContrastEnhanceParams kDefaults{9.0f, 4.0f, 0, 255, 0};

wzStatus filter(wzImage *src, const wzImage *mask, wzImage *dst, const uint32_t *cancel = nullptr) {
    return wzContrastEnhanceFilter(&kDefaults, src, mask, dst, cancel);
}

}  // namespace

// Every pair of layouts: gray only into gray (a choice of this library),
// colour not into gray, refused (status 1). Cancellation (status 2) of the
// apply and of the filter, with and without a mask, separate and in place.
// Neither writes anything. What the accepted pairs write is held against the
// pixel rule in the kernel suite (KernelLut).
TEST(ContrastApply, RefusalsAndCancelWriteNothing) {
    std::mt19937 rng(5);
    uint8_t curve[256];
    for (auto &e : curve) e = static_cast<uint8_t>(rng());
    const uint32_t set = 1;
    ImagePtr mask = filledImage(9, 5, wzEncodingGray, 128);
    for (uint32_t se : kAllEncodings)
        for (uint32_t de : kAllEncodings) {
            const bool gray = se == wzEncodingGray, ok = gray == (de == wzEncodingGray);
            ImagePtr src = makeImage(9, 5, se), dst = makeImage(gray ? 9 : 12, 5, de);
            fillRandom(src.get(), rng);
            fillRandom(dst.get(), rng);
            const std::vector<uint8_t> s0 = snapshot(src.get()), d0 = snapshot(dst.get());
            for (const uint32_t *cancel : {&set, ok ? &set : nullptr})
                EXPECT_EQ(wzContrastEnhanceApply(curve, src.get(), dst.get(), cancel),
                          ok ? 2u : 1u);
            for (wzImage *out : {dst.get(), src.get()})
                for (const wzImage *m : {static_cast<wzImage *>(nullptr), mask.get()})
                    EXPECT_EQ(filter(src.get(), m, out, &set), 2u);
            ASSERT_TRUE(snapshot(src.get()) == s0 && snapshot(dst.get()) == d0) << se << "->" << de;
        }
    // Element types other than 8-bit (an in-place 16-bit image with a mask is
    // refused before any copy) and invalid encodings, through apply and the
    // filter alike: each refused, nothing written.
    ImagePtr gray = filledImage(6, 4, wzEncodingGray, 3),
             wide = filledImage(6, 4, wzEncodingGray, 9, wzType16U);
    ImagePtr colour = filledImage(6, 4, wzEncodingBGR, 50),
             bad = filledImage(6, 4, wzEncodingGray, 5);
    bad->encoding = 6;
    for (auto [s, d] : {std::pair{wide.get(), gray.get()},
                        {gray.get(), wide.get()},
                        {wide.get(), wide.get()},
                        {bad.get(), bad.get()},
                        {colour.get(), gray.get()},
                        {bad.get(), gray.get()}}) {
        EXPECT_EQ(wzContrastEnhanceApply(curve, s, d, nullptr), 1u);
        EXPECT_EQ(filter(s, nullptr, d), 1u);
        EXPECT_EQ(filter(s, gray.get(), d), 1u);  // with a mask the blend is never reached
    }
    bad->encoding = wzEncodingGray;
    EXPECT_EQ(snapshot(gray.get()), std::vector<uint8_t>(24, 3));
    EXPECT_EQ(snapshot(wide.get()), std::vector<uint8_t>(48, 9));
    EXPECT_EQ(snapshot(bad.get()), std::vector<uint8_t>(24, 5));
    // A mask the blend refuses (16 bits) gives 1, separate and in place.
    ImagePtr wideMask = filledImage(6, 4, wzEncodingGray, 0, wzType16U);
    for (wzImage *img : {gray.get(), colour.get()}) {
        ImagePtr out = makeImage(6, 4, img->encoding);
        EXPECT_EQ(filter(img, wideMask.get(), out.get()), 1u);
        EXPECT_EQ(filter(img, wideMask.get(), img), 1u);
    }
}

// The worked example in colour (the brightest channel carries the level;
// alpha survives) without a mask, then masks of 255 and 0, separate and in
// place. (A uniform image turning black is a curve property, checked there.)
TEST(ContrastFilter, WorkedImageWithMasksInPlaceAndSeparate) {
    ImagePtr gray = thousandPixels(), src = makeImage(40, 25, wzEncodingRGBA);
    for (int i = 0; i < 1000; ++i) {
        const uint8_t px[4] = {gray->data[i], static_cast<uint8_t>(gray->data[i] / 2), 10, 33};
        std::memcpy(src->data + 4 * i, px, 4);
    }
    ImagePtr mask0 = filledImage(40, 25, wzEncodingGray, 0),
             mask255 = filledImage(40, 25, wzEncodingGray, 255);
    ImagePtr plain = filledImage(40, 25, wzEncodingRGBA, 33);
    ASSERT_EQ(filter(src.get(), nullptr, plain.get()), 0u);
    for (int i = 0; i < 1000; ++i)
        ASSERT_TRUE(plain->data[4 * i] == enhanced(gray->data[i]) && plain->data[4 * i + 3] == 33)
            << i;
    for (bool inPlace : {false, true})
        for (const auto &[m, want] :
             {std::pair{mask255.get(), plain.get()}, {mask0.get(), src.get()}}) {
            ImagePtr out = filledImage(40, 25, wzEncodingRGBA, 33);
            if (inPlace) std::memcpy(out->data, src->data, 4000);
            ASSERT_EQ(filter(inPlace ? out.get() : src.get(), m, out.get()), 0u);
            EXPECT_EQ(snapshot(out.get()), snapshot(want)) << "in place " << inPlace;
        }
    // Gray in place with a mask of 0 over a roi: the blend (and, a choice of
    // this library, the copy) covers the roi alone; outside it, enhanced.
    const std::vector<uint8_t> before = snapshot(gray.get());
    gray->roi = {30, 20, 6, 4};
    ASSERT_EQ(filter(gray.get(), mask0.get(), gray.get()), 0u);
    for (int i = 0; i < 1000; ++i) {
        const bool inside = i % 40 >= 30 && i % 40 < 36 && i / 40 >= 20 && i / 40 < 24;
        ASSERT_EQ(gray->data[i], inside ? before[i] : enhanced(before[i])) << i;
    }
}
