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

}  // namespace

// Every pair of layouts over the whole image (roi ignored): colour channels
// matched by number, each image with its own width, a fourth destination
// channel kept; gray only into gray (a choice of this library), colour not
// into gray. Refusals (status 1; element types other than 8-bit are choices
// of this library) and cancellation (status 2) write nothing.
TEST(ContrastApply, ChannelsMatchedByNumberRefusalsAndCancel) {
    std::mt19937 rng(5);
    uint8_t curve[256];
    for (auto &e : curve) e = static_cast<uint8_t>(rng());
    const uint32_t set = 1;
    for (uint32_t se : kAllEncodings)
        for (uint32_t de : kAllEncodings) {
            const bool gray = se == wzEncodingGray, ok = gray == (de == wzEncodingGray);
            ImagePtr src = makeImage(9, 5, se), dst = makeImage(gray ? 9 : 12, 5, de);
            fillRandom(src.get(), rng);
            fillRandom(dst.get(), rng);
            src->roi = {2, 1, 3, 3};
            std::vector<uint8_t> want = snapshot(dst.get());
            EXPECT_EQ(wzContrastEnhanceApply(curve, src.get(), dst.get(), &set), ok ? 2u : 1u);
            ASSERT_EQ(snapshot(dst.get()), want);
            for (int y = 0; y < 5 && ok; ++y)
                for (int x = 0; x < 9; ++x)
                    for (int c = 1; c <= (gray ? 1 : 3); ++c) want[at(dst.get(), x, y, c) - dst->data] = curve[*at(src.get(), x, y, c)];
            EXPECT_EQ(wzContrastEnhanceApply(curve, src.get(), dst.get(), nullptr), ok ? 0u : 1u) << se << "->" << de;
            ASSERT_EQ(snapshot(dst.get()), want) << se << "->" << de;
        }
    ImagePtr gray = filledImage(6, 4, wzEncodingGray, 3), wide = filledImage(6, 4, wzEncodingGray, 9, wzType16U);
    EXPECT_EQ(wzContrastEnhanceApply(curve, wide.get(), gray.get(), nullptr), 1u);
    EXPECT_EQ(wzContrastEnhanceApply(curve, gray.get(), wide.get(), nullptr), 1u);
    gray->encoding = 6;
    EXPECT_EQ(wzContrastEnhanceApply(curve, gray.get(), gray.get(), nullptr), 1u);
    gray->encoding = wzEncodingGray;
    EXPECT_EQ(snapshot(gray.get()), std::vector<uint8_t>(24, 3));
    EXPECT_EQ(snapshot(wide.get()), std::vector<uint8_t>(48, 9));
}

TEST(ContrastFilter, InPlaceWithoutMask) {
    ImagePtr img = thousandPixels();
    const std::vector<uint8_t> before = snapshot(img.get());
    ASSERT_EQ(wzContrastEnhanceFilter(&kDefaults, img.get(), nullptr, img.get(), nullptr), 0u);
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(img->data[i], enhanced(before[i])) << i;
    // A uniform image turns black, whatever its level.
    for (uint8_t b : {0, 77, 255}) {
        ImagePtr u = filledImage(5, 4, wzEncodingBGR, b);
        ASSERT_EQ(wzContrastEnhanceFilter(&kDefaults, u.get(), nullptr, u.get(), nullptr), 0u);
        EXPECT_EQ(snapshot(u.get()), std::vector<uint8_t>(60, 0)) << int(b);
    }
}

// Masks of 0 and 255, separate and in place, on a colour version of the
// worked example (the brightest channel carries the level; alpha survives).
TEST(ContrastFilter, MasksInPlaceAndSeparate) {
    ImagePtr gray = thousandPixels(), src = makeImage(40, 25, wzEncodingRGBA);
    for (int i = 0; i < 1000; ++i) {
        const uint8_t px[4] = {gray->data[i], static_cast<uint8_t>(gray->data[i] / 2), 10, 33};
        std::memcpy(src->data + 4 * i, px, 4);
    }
    ImagePtr mask0 = filledImage(40, 25, wzEncodingGray, 0), mask255 = filledImage(40, 25, wzEncodingGray, 255);
    ImagePtr plain = filledImage(40, 25, wzEncodingRGBA, 33), dst = filledImage(40, 25, wzEncodingRGBA, 33);
    ASSERT_EQ(wzContrastEnhanceFilter(&kDefaults, src.get(), nullptr, plain.get(), nullptr), 0u);
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(plain->data[4 * i], enhanced(gray->data[i]));
        ASSERT_EQ(plain->data[4 * i + 3], 33);
    }
    ASSERT_EQ(wzContrastEnhanceFilter(&kDefaults, src.get(), mask255.get(), dst.get(), nullptr), 0u);
    EXPECT_EQ(snapshot(dst.get()), snapshot(plain.get()));
    ASSERT_EQ(wzContrastEnhanceFilter(&kDefaults, src.get(), mask0.get(), dst.get(), nullptr), 0u);
    EXPECT_EQ(snapshot(dst.get()), snapshot(src.get()));

    ImagePtr work = makeImage(40, 25, wzEncodingRGBA);
    std::memcpy(work->data, src->data, 4000);
    ASSERT_EQ(wzContrastEnhanceFilter(&kDefaults, work.get(), mask0.get(), work.get(), nullptr), 0u);
    EXPECT_EQ(snapshot(work.get()), snapshot(src.get()));
    ASSERT_EQ(wzContrastEnhanceFilter(&kDefaults, work.get(), mask255.get(), work.get(), nullptr), 0u);
    EXPECT_EQ(snapshot(work.get()), snapshot(plain.get()));

    // In place with a roi: the blend (and, a choice of this library, the
    // copy) covers the roi alone; outside it the pixels are enhanced.
    ImagePtr img = thousandPixels();
    const std::vector<uint8_t> before = snapshot(img.get());
    img->roi = {30, 20, 6, 4};
    ASSERT_EQ(wzContrastEnhanceFilter(&kDefaults, img.get(), mask0.get(), img.get(), nullptr), 0u);
    for (int i = 0; i < 1000; ++i) {
        const bool inside = i % 40 >= 30 && i % 40 < 36 && i / 40 >= 20 && i / 40 < 24;
        ASSERT_EQ(img->data[i], inside ? before[i] : enhanced(before[i])) << i;
    }
}

TEST(ContrastFilter, CancelAndStatusesPassedOn) {
    std::mt19937 rng(11);
    const uint32_t set = 1;
    ImagePtr mask = filledImage(8, 6, wzEncodingGray, 128), wideMask = filledImage(8, 6, wzEncodingGray, 0, wzType16U);
    for (uint32_t enc : {wzEncodingGray, wzEncodingARGB}) {
        ImagePtr src = makeImage(8, 6, enc), dst = makeImage(8, 6, enc);
        fillRandom(src.get(), rng);
        fillRandom(dst.get(), rng);
        const std::vector<uint8_t> s0 = snapshot(src.get()), d0 = snapshot(dst.get());
        for (const wzImage *m : {static_cast<const wzImage *>(nullptr), static_cast<const wzImage *>(mask.get())}) {
            EXPECT_EQ(wzContrastEnhanceFilter(&kDefaults, src.get(), m, dst.get(), &set), 2u);
            EXPECT_EQ(wzContrastEnhanceFilter(&kDefaults, src.get(), m, src.get(), &set), 2u);
        }
        EXPECT_EQ(snapshot(src.get()), s0);
        EXPECT_EQ(snapshot(dst.get()), d0);
        // A mask the blend refuses: its status comes back, separate and in place.
        EXPECT_EQ(wzContrastEnhanceFilter(&kDefaults, src.get(), wideMask.get(), dst.get(), nullptr), 1u);
        EXPECT_EQ(wzContrastEnhanceFilter(&kDefaults, src.get(), wideMask.get(), src.get(), nullptr), 1u);
    }
    // Colour into gray, a 16-bit image, an encoding without channel count:
    // status 1, nothing written.
    ImagePtr colour = filledImage(8, 6, wzEncodingBGR, 50), gray = filledImage(8, 6, wzEncodingGray, 60);
    ImagePtr wide = filledImage(8, 6, wzEncodingGray, 70, wzType16U);
    EXPECT_EQ(wzContrastEnhanceFilter(&kDefaults, colour.get(), nullptr, gray.get(), nullptr), 1u);
    EXPECT_EQ(wzContrastEnhanceFilter(&kDefaults, wide.get(), mask.get(), wide.get(), nullptr), 1u);
    colour->encoding = 9;
    EXPECT_EQ(wzContrastEnhanceFilter(&kDefaults, colour.get(), nullptr, gray.get(), nullptr), 1u);
    colour->encoding = wzEncodingBGR;
    EXPECT_EQ(snapshot(gray.get()), std::vector<uint8_t>(48, 60));
    EXPECT_EQ(snapshot(wide.get()), std::vector<uint8_t>(96, 70));
}
