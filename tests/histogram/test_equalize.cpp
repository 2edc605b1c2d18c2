// Histogram equalisation and stretch on worked images.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "morven/morven.h"
#include "support/image_fixtures.hpp"

using namespace morven_test;

namespace {

ImagePtr grayOf(const std::vector<uint8_t> &values, int width) {
    const int height = static_cast<int>(values.size()) / width;
    ImagePtr img = makeImage(width, height, wzEncodingGray);
    std::memcpy(img->data, values.data(), values.size());
    return img;
}

std::vector<uint8_t> pixels(const wzImage *img) { return snapshot(img); }

}  // namespace

TEST(HistogramEqualization, SingleValueGoesToWhite) {
    for (int v : {0, 1, 77, 254, 255}) {
        ImagePtr img = grayOf(std::vector<uint8_t>(12, static_cast<uint8_t>(v)), 4);
        ImagePtr dst = makeImage(4, 3, wzEncodingGray);
        std::memset(dst->data, 3, 12);
        ASSERT_EQ(wzHistogramEqualization(img.get(), dst.get()), 0u);
        EXPECT_EQ(pixels(dst.get()), std::vector<uint8_t>(12, 255)) << v;
    }
    // Only the region is measured and written: values outside it stay.
    std::vector<uint8_t> values(20, 40);
    values[0] = 10;
    values[19] = 250;
    ImagePtr img = grayOf(values, 5);
    img->roi = {1, 1, 3, 2};
    ASSERT_EQ(wzHistogramEqualization(img.get(), img.get()), 0u);
    std::vector<uint8_t> want = values;
    for (int y = 1; y < 3; ++y)
        for (int x = 1; x < 4; ++x) want[y * 5 + x] = 255;
    EXPECT_EQ(pixels(img.get()), want);
}

TEST(HistogramEqualization, EvenlyUsedLevelsUnchanged) {
    std::vector<uint8_t> values(512);
    for (int i = 0; i < 512; ++i) values[i] = static_cast<uint8_t>(i * 7);  // each level twice
    ImagePtr img = grayOf(values, 32);
    ASSERT_EQ(wzHistogramEqualization(img.get(), img.get()), 0u);
    EXPECT_EQ(pixels(img.get()), values);

    ImagePtr colour = makeImage(256, 1, wzEncodingRGB);
    for (int i = 0; i < 256; ++i)
        for (int c = 1; c <= 3; ++c) *at(colour.get(), i, 0, c) = static_cast<uint8_t>(i * (2 * c + 1));
    const std::vector<uint8_t> before = pixels(colour.get());
    ASSERT_EQ(wzHistogramEqualization(colour.get(), colour.get()), 0u);
    EXPECT_EQ(pixels(colour.get()), before);
}

// Each channel by its own histogram: channel 1 holds one value, channel 2
// every level once, channel 3 two levels in equal numbers (cdf 0.5 and 1:
// the flat target reaches 0.5 at 127), alpha is left alone.
TEST(HistogramEqualization, ColourChannelsEachByOwnHistogram) {
    ImagePtr img = makeImage(16, 16, wzEncodingARGB);
    for (int i = 0; i < 256; ++i) {
        const int x = i % 16, y = i / 16;
        *at(img.get(), x, y, 1) = 40;
        *at(img.get(), x, y, 2) = static_cast<uint8_t>(255 - i);
        *at(img.get(), x, y, 3) = i % 2 ? 10 : 20;
        *at(img.get(), x, y, 4) = static_cast<uint8_t>(i * 3);
    }
    ImagePtr dst = makeImage(16, 16, wzEncodingBGR);
    ASSERT_EQ(wzHistogramEqualization(img.get(), dst.get()), 0u);
    for (int i = 0; i < 256; ++i) {
        const int x = i % 16, y = i / 16;
        ASSERT_EQ(*at(dst.get(), x, y, 1), 255);
        ASSERT_EQ(*at(dst.get(), x, y, 2), 255 - i);
        ASSERT_EQ(*at(dst.get(), x, y, 3), i % 2 ? 127 : 255);
    }
    ASSERT_EQ(wzHistogramEqualization(img.get(), img.get()), 0u);
    for (int i = 0; i < 256; ++i) ASSERT_EQ(*at(img.get(), i % 16, i / 16, 4), static_cast<uint8_t>(i * 3));
}

TEST(HistogramEqualization, EmptyRegionWritesNothing) {
    ImagePtr img = grayOf(std::vector<uint8_t>(9, 5), 3);
    img->roi = {1, 1, 0, 2};
    ASSERT_EQ(wzHistogramEqualization(img.get(), img.get()), 0u);
    EXPECT_EQ(pixels(img.get()), std::vector<uint8_t>(9, 5));
}

TEST(HistogramStretch, WorkedRange50To100) {
    std::vector<uint8_t> values;
    for (int v = 50; v <= 100; ++v) values.push_back(static_cast<uint8_t>(v));
    values.push_back(75);  // 52 values
    ImagePtr img = grayOf(values, 13);
    ImagePtr dst = makeImage(13, 4, wzEncodingGray);
    ASSERT_EQ(wzHistogramStretch(img.get(), dst.get()), 0u);
    const std::vector<uint8_t> out = pixels(dst.get());
    EXPECT_EQ(out[0], 0);     // 50
    EXPECT_EQ(out[25], 127);  // 75: 5.1 * 25 = 127.5
    EXPECT_EQ(out[49], 249);  // 99: trunc(5.1 * 49)
    EXPECT_EQ(out[50], 255);  // 100
    EXPECT_EQ(out[51], 127);
    for (int i = 0; i < 50; ++i) {
        volatile float scale = 255.0f / 50.0f;
        volatile float v = scale * static_cast<float>(i);
        ASSERT_EQ(out[i], static_cast<uint8_t>(v)) << i;
    }
}

TEST(HistogramStretch, FullRangeUnchangedAndInPlace) {
    std::vector<uint8_t> values(256);
    for (int i = 0; i < 256; ++i) values[i] = static_cast<uint8_t>(i * 13);
    ImagePtr img = grayOf(values, 16);
    ASSERT_EQ(wzHistogramStretch(img.get(), img.get()), 0u);
    EXPECT_EQ(pixels(img.get()), values);

    // In place on a region: 20..30 becomes 0..255, outside stays.
    std::vector<uint8_t> v2(30, 200);
    for (int i = 0; i < 11; ++i) v2[6 + 6 * (i / 5) + i % 5 + 1] = static_cast<uint8_t>(20 + i);
    ImagePtr part = grayOf(v2, 6);
    part->roi = {1, 1, 5, 2};
    // Region rows: 20..24 and 25..29.
    ASSERT_EQ(wzHistogramStretch(part.get(), part.get()), 0u);
    std::vector<uint8_t> want = v2;
    for (int i = 0; i < 10; ++i) {
        volatile float scale = 255.0f / 9.0f;
        volatile float v = scale * static_cast<float>(i);
        want[6 + 6 * (i / 5) + i % 5 + 1] = i == 9 ? 255 : static_cast<uint8_t>(v);
    }
    EXPECT_EQ(pixels(part.get()), want);
}

TEST(HistogramStretch, SingleValueCopiesAndReturnsOne) {
    ImagePtr img = grayOf(std::vector<uint8_t>(12, 90), 4);
    img->data[0] = 1;  // outside the region
    img->roi = {1, 0, 3, 3};
    ImagePtr dst = grayOf(std::vector<uint8_t>(25, 7), 5);
    dst->roi = {2, 1, 3, 3};
    EXPECT_EQ(wzHistogramStretch(img.get(), dst.get()), 1u);
    std::vector<uint8_t> want(25, 7);
    for (int y = 1; y < 4; ++y)
        for (int x = 2; x < 5; ++x) want[y * 5 + x] = 90;
    EXPECT_EQ(pixels(dst.get()), want);
    const std::vector<uint8_t> before = pixels(img.get());
    EXPECT_EQ(wzHistogramStretch(img.get(), img.get()), 1u);
    EXPECT_EQ(pixels(img.get()), before);
}

// Choices of this library: an empty region returns 1 without writing; a
// colour image has each channel stretched by its own range.
TEST(HistogramStretch, EmptyRegionAndColour) {
    ImagePtr empty = grayOf(std::vector<uint8_t>(9, 5), 3);
    ImagePtr dst = grayOf(std::vector<uint8_t>(9, 6), 3);
    empty->roi = {0, 0, 3, 0};
    EXPECT_EQ(wzHistogramStretch(empty.get(), dst.get()), 1u);
    EXPECT_EQ(pixels(dst.get()), std::vector<uint8_t>(9, 6));

    ImagePtr img = makeImage(51, 1, wzEncodingRGBA);
    for (int i = 0; i < 51; ++i) {
        *at(img.get(), i, 0, 1) = static_cast<uint8_t>(50 + i);  // 50..100
        *at(img.get(), i, 0, 2) = static_cast<uint8_t>(i * 5);    // 0..250
        *at(img.get(), i, 0, 3) = 7;                              // one value
        *at(img.get(), i, 0, 4) = static_cast<uint8_t>(i);
    }
    ASSERT_EQ(wzHistogramStretch(img.get(), img.get()), 0u);
    for (int i = 0; i < 51; ++i) {
        volatile float s1 = 255.0f / 50.0f, v1 = s1 * static_cast<float>(i);
        volatile float s2 = 255.0f / 250.0f, v2 = s2 * static_cast<float>(i * 5);
        ASSERT_EQ(*at(img.get(), i, 0, 1), i == 50 ? 255 : static_cast<uint8_t>(v1)) << i;
        ASSERT_EQ(*at(img.get(), i, 0, 2), i == 50 ? 255 : static_cast<uint8_t>(v2)) << i;
        ASSERT_EQ(*at(img.get(), i, 0, 3), 7);
        ASSERT_EQ(*at(img.get(), i, 0, 4), i);
    }

    ImagePtr flat = makeImage(3, 2, wzEncodingBGR);
    for (int i = 0; i < 6; ++i) {
        flat->data[3 * i] = 1;
        flat->data[3 * i + 1] = 2;
        flat->data[3 * i + 2] = 3;
    }
    ImagePtr out = makeImage(3, 2, wzEncodingBGR);
    EXPECT_EQ(wzHistogramStretch(flat.get(), out.get()), 1u);
    EXPECT_EQ(pixels(out.get()), pixels(flat.get()));
}

// The scale is a float: over a range of 237 levels, level 79 gives
// trunc(255/237 * 79) = 84 where exact arithmetic would give 85; over 7
// levels the top entry is 255 although scale * 7 is just below 255.
TEST(HistogramStretch, FloatScaleAndRandomRanges) {
    std::vector<uint8_t> values(238);
    for (int i = 0; i < 238; ++i) values[i] = static_cast<uint8_t>(10 + i);  // 10..247
    ImagePtr img = grayOf(values, 14);
    ASSERT_EQ(wzHistogramStretch(img.get(), img.get()), 0u);
    EXPECT_EQ(img->data[79], 84);
    EXPECT_EQ(img->data[158], 169);
    EXPECT_EQ(img->data[237], 255);

    ImagePtr seven = grayOf({3, 4, 5, 6, 7, 8, 9, 10}, 8);
    ASSERT_EQ(wzHistogramStretch(seven.get(), seven.get()), 0u);
    EXPECT_EQ(seven->data[6], 218);  // trunc(36.42857 * 6)
    EXPECT_EQ(seven->data[7], 255);

    std::mt19937 rng(99);
    for (int iter = 0; iter < 100; ++iter) {
        const int lo = static_cast<int>(rng() % 255);
        const int hi = lo + 1 + static_cast<int>(rng() % (255 - lo));
        const int w = 2 + static_cast<int>(rng() % 20), h = 1 + static_cast<int>(rng() % 20);
        ImagePtr src = makeImage(w, h, wzEncodingGray);
        for (int i = 0; i < w * h; ++i) src->data[i] = static_cast<uint8_t>(lo + rng() % (hi - lo + 1));
        src->data[0] = static_cast<uint8_t>(lo);
        src->data[1] = static_cast<uint8_t>(hi);
        ImagePtr dst = makeImage(w, h, wzEncodingGray);
        ASSERT_EQ(wzHistogramStretch(src.get(), dst.get()), 0u);
        volatile float scale = 255.0f / static_cast<float>(hi - lo);
        for (int i = 0; i < w * h; ++i) {
            const int v = src->data[i];
            volatile float y = scale * static_cast<float>(v - lo);
            ASSERT_EQ(dst->data[i], v == hi ? 255 : static_cast<uint8_t>(y)) << lo << ".." << hi << " " << v;
        }
    }
}
