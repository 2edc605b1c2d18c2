// Colour conversion, region copy, transpose and channel moves.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "support/image_fixtures.hpp"

using namespace morven_test;

namespace {

// Gray conversion written from the luma weights, independently of the
// library's table: the 8-bit index of each level, then the weighted sum with
// the rounding half, on the type's scale.
double grayRef(uint32_t type, const double v[3]) {
    int64_t sum = 8192;
    const int64_t weights[3] = {1868, 9617, 4899};
    for (int k = 0; k < 3; ++k) {
        double i = type == wzType8U      ? v[k]
                   : type == wzType16U   ? std::floor(v[k] / 256)
                   : type == wzType32S   ? std::floor(v[k] / 256)
                   : type == wzType32S24 ? std::floor(v[k] / 65536)
                   : type == wzType32F   ? static_cast<float>(v[k]) * 255.0f
                                         : v[k] * 255.0;
        i = std::isnan(i) || i < 0 ? 0 : i > 255 ? 255 : std::trunc(i);
        sum += weights[k] * static_cast<int64_t>(i);
    }
    if (type == wzType8U) return static_cast<double>(sum / 16384);
    if (type == wzType16U || type == wzType32S) return static_cast<double>(sum / 64);
    if (type == wzType32S24) return static_cast<double>(sum * 4);
    return static_cast<double>(sum) / 4194304.0;
}

}  // namespace

TEST(CvtColor, GrayWorkedNumbers) {
    const double nan = std::nan("");
    const struct {
        uint32_t type, enc;
        double b, g, r, want;
    } cases[] = {
        {wzType8U, wzEncodingBGR, 255, 255, 255, 255},
        {wzType8U, wzEncodingBGR, 0, 0, 0, 0},
        {wzType8U, wzEncodingBGR, 255, 0, 0, 29},
        {wzType8U, wzEncodingRGB, 0, 0, 255, 76},
        {wzType16U, wzEncodingBGR, 65535, 65535, 65535, 65408},
        {wzType32F, wzEncodingRGBA, 1, 1, 1, 0.998046875},
        {wzType32S, wzEncodingBGR, -5000, 65535, 65535, (8192 + 9617 * 255 + 4899 * 255) >> 6},
        {wzType64F, wzEncodingARGB, nan, 1e300, -1e300, (8192.0 + 9617.0 * 255) / 4194304.0}};
    for (const auto &c : cases) {
        ImagePtr src = makeImage(1, 1, c.enc, c.type),
                 dst = makeImage(1, 1, wzEncodingGray, c.type);
        std::memset(src->data, 0, blockBytes(src.get()));
        storeValue(c.type, at(src.get(), 0, 0, 1), c.b);
        storeValue(c.type, at(src.get(), 0, 0, 2), c.g);
        storeValue(c.type, at(src.get(), 0, 0, 3), c.r);
        ASSERT_EQ(wzImageCvtColor(src.get(), dst.get()), 0u);
        EXPECT_EQ(elementAt(dst.get(), 0), c.want)
            << c.type << " " << c.b << "," << c.g << "," << c.r;
    }
}

// Every pair of encodings and every type over offset regions: colour to gray
// by the formula, same-encoding region copies of whole pixels, and channel
// moves of channels 1-3 (the destination's alpha stays). Outside the
// destination region nothing changes.
TEST(CvtColor, EveryPairMatchesReference) {
    std::mt19937 rng(1234);
    for (uint32_t type : kAllTypes) {
        for (uint32_t se : kAllEncodings) {
            for (uint32_t de : kAllEncodings) {
                ImagePtr src = makeImage(19, 13, se, type), dst = makeImage(21, 11, de, type);
                fillRandom(src.get(), rng);
                fillRandom(dst.get(), rng);
                setRoi(src.get(), 3, 2, 15, 8);
                setRoi(dst.get(), 5, 3, 15, 8);
                std::vector<uint8_t> want = snapshot(dst.get());
                const bool toGray = de == wzEncodingGray && se != wzEncodingGray;
                const int nd = wzGetNChannelFromEncoding(de);
                for (int y = 3; y < 11; ++y)
                    for (int x = 5; x < 20; ++x) {
                        double v[4];
                        for (int c = 1; c <= std::max(nd, 3); ++c)
                            v[c - 1] =
                                loadValue(type, c <= 3 || se == de ? at(src.get(), x - 2, y - 1, c)
                                                                   : at(dst.get(), x, y, c));
                        if (toGray) v[0] = grayRef(type, v);
                        for (int c = 1; c <= nd; ++c)
                            storeValue(type, want.data() + (at(dst.get(), x, y, c) - dst->data),
                                       v[c - 1]);
                    }
                ASSERT_EQ(wzImageCvtColor(src.get(), dst.get()), 0u);
                EXPECT_EQ(snapshot(dst.get()), want) << se << "->" << de << " type " << type;
            }
        }
    }
}

TEST(CvtColor, WorkedReorderingsAndRefusals) {
    const struct {
        uint32_t se;
        std::vector<uint8_t> in;
        uint32_t de;
        std::vector<uint8_t> preset, want;
    } cases[] = {{wzEncodingRGB, {10, 20, 30}, wzEncodingBGR, {0, 0, 0}, {30, 20, 10}},
                 {wzEncodingBGR, {30, 20, 10}, wzEncodingRGBA, {0, 0, 0, 77}, {10, 20, 30, 77}},
                 {wzEncodingGray, {5}, wzEncodingARGB, {201, 0, 0, 0}, {201, 5, 5, 5}},
                 {wzEncodingARGB, {1, 2, 3, 4}, wzEncodingRGB, {0, 0, 0}, {2, 3, 4}}};
    for (const auto &c : cases) {
        ImagePtr src = makeImage(1, 1, c.se), dst = makeImage(1, 1, c.de);
        std::memcpy(src->data, c.in.data(), c.in.size());
        std::memcpy(dst->data, c.preset.data(), c.preset.size());
        ASSERT_EQ(wzImageCvtColor(src.get(), dst.get()), 0u);
        EXPECT_EQ(snapshot(dst.get()), c.want) << c.se << "->" << c.de;
    }
    // Differing types, and encodings above 4 (refused rather than walked with
    // negative strides), write nothing.
    ImagePtr a = makeImage(2, 1, wzEncodingBGR), b = makeImage(2, 1, wzEncodingBGR, wzType16U);
    std::memset(a->data, 5, 6);
    std::memset(b->data, 7, 12);
    EXPECT_EQ(wzImageCvtColor(a.get(), b.get()), 1u);
    EXPECT_EQ(wzCopy(a.get(), b.get()), 1u);
    b->type = wzType8U;
    b->encoding = 7;
    EXPECT_EQ(wzImageCvtColor(a.get(), b.get()), 1u);
    EXPECT_EQ(wzImageCvtColor(b.get(), a.get()), 1u);
    EXPECT_EQ(std::vector<uint8_t>(a->data, a->data + 6), std::vector<uint8_t>(6, 5));
    EXPECT_EQ(std::vector<uint8_t>(b->data, b->data + 12), std::vector<uint8_t>(12, 7));
}

TEST(Transpose, MirrorsAboutTheDiagonal) {
    std::mt19937 rng(3);
    // 8-bit as designed; wider types move whole pixels.
    for (uint32_t type : {wzType8U, wzType16U}) {
        const uint32_t enc = type == wzType8U ? wzEncodingBGR : wzEncodingRGBA;
        ImagePtr src = makeImage(3, 2, enc, type), dst = makeImage(2, 3, enc, type);
        fillRandom(src.get(), rng);
        EXPECT_EQ(wzTranspose(src.get(), dst.get()), 0u);
        const size_t pb = blockBytes(src.get()) / 6;
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 2; ++x)  // destination (x, y) is source (y, x)
                EXPECT_EQ(
                    std::memcmp(dst->data + (y * 2 + x) * pb, src->data + (x * 3 + y) * pb, pb), 0)
                    << type << " at " << x << "," << y;
    }
}

TEST(ChannelMoves, ExtractAndInsert) {
    ImagePtr rgba = makeImage(2, 1, wzEncodingRGBA), plane = makeImage(2, 1, wzEncodingGray);
    const uint8_t px[8] = {11, 22, 33, 44, 55, 66, 77, 88};
    std::memcpy(rgba->data, px, 8);
    ASSERT_EQ(wzImageExtractChannel(rgba.get(), plane.get(), 3), 0u);  // red, at offset 0
    EXPECT_EQ(wzImageExtractChannel(rgba.get(), plane.get(), 5), 1u);
    EXPECT_EQ(snapshot(plane.get()), std::vector<uint8_t>({11, 55}));
    ImagePtr gray = makeImage(2, 1, wzEncodingGray);
    gray->data[0] = 1;
    gray->data[1] = 2;
    EXPECT_EQ(wzImageInsertChannel(gray.get(), makeImage(2, 1, wzEncodingBGR).get(), 4), 1u);
    ASSERT_EQ(wzImageExtractChannel(gray.get(), plane.get(), 2), 0u);  // any channel of gray
    EXPECT_EQ(snapshot(plane.get()), std::vector<uint8_t>({1, 2}));
    ASSERT_EQ(wzImageInsertChannel(gray.get(), rgba.get(), 2), 0u);  // green only
    EXPECT_EQ(snapshot(rgba.get()), std::vector<uint8_t>({11, 1, 33, 44, 55, 2, 77, 88}));
    // Element sizes that differ would overflow the destination pixel: refused.
    ImagePtr plane16 = makeImage(2, 1, wzEncodingGray, wzType16U);
    EXPECT_EQ(wzImageExtractChannel(rgba.get(), plane16.get(), 1), 1u);
    EXPECT_EQ(wzImageInsertChannel(plane16.get(), rgba.get(), 1), 1u);
    EXPECT_EQ(snapshot(rgba.get()), std::vector<uint8_t>({11, 1, 33, 44, 55, 2, 77, 88}));

    // Splitting and merging every channel through regions restores the pixels.
    std::mt19937 rng(11);
    for (uint32_t type : kAllTypes) {
        ImagePtr src = makeImage(8, 6, wzEncodingARGB, type),
                 out = makeImage(8, 6, wzEncodingARGB, type);
        ImagePtr p = makeImage(5, 4, wzEncodingGray, type);
        fillRandom(src.get(), rng);
        fillRandom(out.get(), rng);
        setRoi(src.get(), 2, 1, 5, 4);
        setRoi(out.get(), 2, 1, 5, 4);
        for (int c = 1; c <= 4; ++c) {
            ASSERT_EQ(wzImageExtractChannel(src.get(), p.get(), c), 0u);
            ASSERT_EQ(wzImageInsertChannel(p.get(), out.get(), c), 0u);
        }
        for (int y = 1; y < 5; ++y)
            for (int x = 2; x < 7; ++x)
                ASSERT_EQ(
                    std::memcmp(at(out.get(), x, y, 4), at(src.get(), x, y, 4), 4 * typeSize(type)),
                    0)
                    << type;
    }
}
