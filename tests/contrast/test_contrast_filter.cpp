// Applying tone curves and the one-call contrast filter.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "morven/contrast.h"
#include "support/image_fixtures.hpp"

using morven_test::blockBytes;
using morven_test::ImagePtr;
using morven_test::makeImage;

namespace {

// Memory position of channels 1, 2, 3 per encoding.
const int kPos[5][3] = {{0, 0, 0}, {0, 1, 2}, {2, 1, 0}, {3, 2, 1}, {2, 1, 0}};

std::vector<uint8_t> bytes(const wzImage *img) {
    return std::vector<uint8_t>(img->data, img->data + blockBytes(img));
}

ImagePtr randomImage(int w, int h, uint32_t enc, std::mt19937 &rng) {
    ImagePtr img = makeImage(w, h, enc);
    morven_test::fillRandom(img.get(), rng);
    return img;
}

ImagePtr filledImage(int w, int h, uint32_t enc, uint8_t value) {
    ImagePtr img = makeImage(w, h, enc);
    std::memset(img->data, value, blockBytes(img.get()));
    return img;
}

// The worked example as a 40 x 25 gray image: 3 pixels of 10, 2 of 11,
// 985 of 100, 5 of 240, 5 of 250. Default levels: low 11, high 240.
ImagePtr thousandPixels() {
    ImagePtr img = filledImage(40, 25, wzEncodingGray, 100);
    const std::pair<uint8_t, int> runs[] = {{10, 3}, {11, 2}, {240, 5}, {250, 5}};
    int i = 0;
    for (auto [value, count] : runs)
        for (int k = 0; k < count; ++k) img->data[(i++ * 37) % 1000] = value;
    return img;
}

uint8_t enhancedLevel(uint8_t v) {
    switch (v) {
        case 10: case 11: return 0;
        case 100: return 99;
        case 240: return 254;
        default: return 255;
    }
}

const wzContrastEnhanceParams kDefaults{9.0f, 4.0f, 0, 255, 0};

}  // namespace

TEST(ContrastApply, GrayUsesWholeImage) {
    std::mt19937 rng(3);
    uint8_t curve[256];
    for (auto &e : curve) e = static_cast<uint8_t>(rng());
    ImagePtr src = randomImage(11, 7, wzEncodingGray, rng);
    const wzRect roi{2, 2, 3, 3};
    wzImageSetROI(src.get(), &roi);
    ImagePtr dst = makeImage(11, 7, wzEncodingGray);
    ASSERT_EQ(wzContrastEnhanceApply(curve, src.get(), dst.get(), nullptr), 0u);
    for (int i = 0; i < 77; ++i) ASSERT_EQ(dst->data[i], curve[src->data[i]]) << i;
    // In place gives the same.
    ASSERT_EQ(wzContrastEnhanceApply(curve, src.get(), src.get(), nullptr), 0u);
    EXPECT_EQ(bytes(src.get()), bytes(dst.get()));
}

TEST(ContrastApply, ColourChannelsMatchedByNumber) {
    std::mt19937 rng(5);
    uint8_t curve[256];
    for (auto &e : curve) e = static_cast<uint8_t>(rng());
    for (uint32_t se = 1; se <= 4; ++se) {
        for (uint32_t de = 1; de <= 4; ++de) {
            // The destination is wider: it is addressed with its own width.
            ImagePtr src = randomImage(9, 5, se, rng);
            ImagePtr dst = randomImage(12, 5, de, rng);
            const std::vector<uint8_t> before = bytes(dst.get());
            const int n = wzImageGetNChannel(src.get()), m = wzImageGetNChannel(dst.get());
            ASSERT_EQ(wzContrastEnhanceApply(curve, src.get(), dst.get(), nullptr), 0u);
            for (int y = 0; y < 5; ++y) {
                for (int x = 0; x < 12; ++x) {
                    const uint8_t *s = src->data + (y * 9 + x) * n;
                    const size_t di = static_cast<size_t>(y * 12 + x) * m;
                    for (int k = 0; k < m; ++k) {
                        const bool colour = k == kPos[de][0] || k == kPos[de][1] || k == kPos[de][2];
                        uint8_t want = before[di + k];
                        if (x < 9 && colour) {
                            const int c = k == kPos[de][0] ? 0 : k == kPos[de][1] ? 1 : 2;
                            want = curve[s[kPos[se][c]]];
                        }
                        ASSERT_EQ(dst->data[di + k], want) << se << "->" << de << " " << x << "," << y;
                    }
                }
            }
        }
    }
}

TEST(ContrastApply, RejectedLayoutsAndCancelWriteNothing) {
    std::mt19937 rng(9);
    uint8_t curve[256];
    for (int v = 0; v < 256; ++v) curve[v] = static_cast<uint8_t>(255 - v);
    const uint32_t set = 1;
    struct Case {
        uint32_t srcEnc, dstEnc, srcType, dstType;
        const uint32_t *cancel;
        wzStatus status;
    } cases[] = {
        {wzEncodingBGR, wzEncodingGray, wzType8U, wzType8U, nullptr, 1},
        {wzEncodingGray, wzEncodingBGR, wzType8U, wzType8U, nullptr, 1},
        {wzEncodingGray, wzEncodingRGBA, wzType8U, wzType8U, nullptr, 1},
        {wzEncodingGray, wzEncodingGray, wzType16U, wzType8U, nullptr, 1},
        {wzEncodingBGR, wzEncodingBGR, wzType8U, wzType32F, nullptr, 1},
        {wzEncodingGray, wzEncodingGray, wzType8U, wzType8U, &set, 2},
        {wzEncodingARGB, wzEncodingRGB, wzType8U, wzType8U, &set, 2},
    };
    for (const Case &c : cases) {
        ImagePtr src = makeImage(6, 4, c.srcEnc, c.srcType);
        ImagePtr dst = makeImage(6, 4, c.dstEnc, c.dstType);
        morven_test::fillRandom(src.get(), rng);
        morven_test::fillRandom(dst.get(), rng);
        const std::vector<uint8_t> before = bytes(dst.get());
        EXPECT_EQ(wzContrastEnhanceApply(curve, src.get(), dst.get(), c.cancel), c.status)
            << c.srcEnc << "->" << c.dstEnc;
        EXPECT_EQ(bytes(dst.get()), before) << c.srcEnc << "->" << c.dstEnc;
    }
    ImagePtr src = makeImage(6, 4, wzEncodingGray);
    src->encoding = 6;
    ImagePtr dst = filledImage(6, 4, wzEncodingGray, 1);
    EXPECT_EQ(wzContrastEnhanceApply(curve, src.get(), dst.get(), nullptr), 1u);
    EXPECT_EQ(dst->data[0], 1);
}

TEST(ContrastFilter, InPlaceWithoutMaskStretches) {
    ImagePtr img = thousandPixels();
    const std::vector<uint8_t> before = bytes(img.get());
    ASSERT_EQ(wzContrastEnhanceFilter(&kDefaults, img.get(), nullptr, img.get(), nullptr), 0u);
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(img->data[i], enhancedLevel(before[i])) << i;

    // A uniform image turns black, whatever its level.
    for (uint8_t b : {0, 77, 255}) {
        ImagePtr u = filledImage(5, 4, wzEncodingBGR, b);
        ASSERT_EQ(wzContrastEnhanceFilter(&kDefaults, u.get(), nullptr, u.get(), nullptr), 0u);
        for (uint8_t v : bytes(u.get())) ASSERT_EQ(v, 0) << int(b);
    }
}

TEST(ContrastFilter, MasksInPlaceAndSeparate) {
    // Colour version of the worked example: the brightest channel carries
    // the level, the others are dimmer. Alpha must survive.
    ImagePtr gray = thousandPixels();
    ImagePtr src = makeImage(40, 25, wzEncodingRGBA);
    for (int i = 0; i < 1000; ++i) {
        uint8_t *p = src->data + 4 * i;
        p[0] = gray->data[i];      // red: channel 3
        p[1] = gray->data[i] / 2;  // green
        p[2] = 10;                 // blue
        p[3] = 33;                 // alpha
    }
    ImagePtr mask0 = filledImage(40, 25, wzEncodingGray, 0);
    ImagePtr mask255 = filledImage(40, 25, wzEncodingGray, 255);

    // Reference result without a mask.
    ImagePtr plain = makeImage(40, 25, wzEncodingRGBA);
    std::memset(plain->data, 33, 4000);
    ASSERT_EQ(wzContrastEnhanceFilter(&kDefaults, src.get(), nullptr, plain.get(), nullptr), 0u);
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(plain->data[4 * i], enhancedLevel(gray->data[i]));
        ASSERT_EQ(plain->data[4 * i + 3], 33);
    }

    // Separate images: 255 gives the unweighted result, 0 the source.
    ImagePtr dst = filledImage(40, 25, wzEncodingRGBA, 33);
    ASSERT_EQ(wzContrastEnhanceFilter(&kDefaults, src.get(), mask255.get(), dst.get(), nullptr), 0u);
    EXPECT_EQ(bytes(dst.get()), bytes(plain.get()));
    ASSERT_EQ(wzContrastEnhanceFilter(&kDefaults, src.get(), mask0.get(), dst.get(), nullptr), 0u);
    EXPECT_EQ(bytes(dst.get()), bytes(src.get()));

    // In place: 0 leaves the image as it was, 255 gives the unweighted result.
    ImagePtr work = makeImage(40, 25, wzEncodingRGBA);
    std::memcpy(work->data, src->data, 4000);
    ASSERT_EQ(wzContrastEnhanceFilter(&kDefaults, work.get(), mask0.get(), work.get(), nullptr), 0u);
    EXPECT_EQ(bytes(work.get()), bytes(src.get()));
    ASSERT_EQ(wzContrastEnhanceFilter(&kDefaults, work.get(), mask255.get(), work.get(), nullptr), 0u);
    EXPECT_EQ(bytes(work.get()), bytes(plain.get()));
}

TEST(ContrastFilter, InPlaceMaskOverRegionBlendsOnlyThere) {
    ImagePtr img = thousandPixels();
    const std::vector<uint8_t> before = bytes(img.get());
    const wzRect roi{30, 20, 6, 4};
    wzImageSetROI(img.get(), &roi);
    ImagePtr mask = filledImage(6, 4, wzEncodingGray, 0);
    ASSERT_EQ(wzContrastEnhanceFilter(&kDefaults, img.get(), mask.get(), img.get(), nullptr), 0u);
    for (int y = 0; y < 25; ++y) {
        for (int x = 0; x < 40; ++x) {
            const int i = y * 40 + x;
            const bool inside = x >= 30 && x < 36 && y >= 20 && y < 24;
            ASSERT_EQ(img->data[i], inside ? before[i] : enhancedLevel(before[i])) << x << "," << y;
        }
    }
}

TEST(ContrastFilter, CancelAndBadImagesLeaveDestination) {
    std::mt19937 rng(11);
    const uint32_t set = 1;
    ImagePtr mask = filledImage(8, 6, wzEncodingGray, 128);
    for (uint32_t enc : {wzEncodingGray, wzEncodingBGR, wzEncodingARGB}) {
        ImagePtr src = randomImage(8, 6, enc, rng);
        ImagePtr dst = randomImage(8, 6, enc, rng);
        const std::vector<uint8_t> s0 = bytes(src.get()), d0 = bytes(dst.get());
        for (const wzImage *m : {static_cast<const wzImage *>(nullptr), static_cast<const wzImage *>(mask.get())}) {
            EXPECT_EQ(wzContrastEnhanceFilter(&kDefaults, src.get(), m, dst.get(), &set), 2u);
            EXPECT_EQ(wzContrastEnhanceFilter(&kDefaults, src.get(), m, src.get(), &set), 2u);
        }
        EXPECT_EQ(bytes(src.get()), s0);
        EXPECT_EQ(bytes(dst.get()), d0);
    }

    // Colour into gray, gray into colour, encoding without channel count,
    // 16-bit source: status 1, nothing written.
    ImagePtr colour = randomImage(8, 6, wzEncodingBGR, rng);
    ImagePtr gray = randomImage(8, 6, wzEncodingGray, rng);
    const std::vector<uint8_t> c0 = bytes(colour.get()), g0 = bytes(gray.get());
    EXPECT_EQ(wzContrastEnhanceFilter(&kDefaults, colour.get(), nullptr, gray.get(), nullptr), 1u);
    EXPECT_EQ(wzContrastEnhanceFilter(&kDefaults, gray.get(), mask.get(), colour.get(), nullptr), 1u);
    ImagePtr wide = makeImage(8, 6, wzEncodingGray, wzType16U);
    morven_test::fillRandom(wide.get(), rng);
    const std::vector<uint8_t> w0 = bytes(wide.get());
    EXPECT_EQ(wzContrastEnhanceFilter(&kDefaults, wide.get(), mask.get(), wide.get(), nullptr), 1u);
    EXPECT_EQ(bytes(wide.get()), w0);
    gray->encoding = 9;
    EXPECT_EQ(wzContrastEnhanceFilter(&kDefaults, gray.get(), nullptr, colour.get(), nullptr), 1u);
    gray->encoding = wzEncodingGray;
    EXPECT_EQ(bytes(colour.get()), c0);
    EXPECT_EQ(bytes(gray.get()), g0);
}
