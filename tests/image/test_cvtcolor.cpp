// Colour conversion, region copy, transpose and channel moves.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "support/image_fixtures.hpp"

using namespace morven_test;

namespace {

const double kNaN = std::nan("");

// Gray conversion written from the luma weights, independently of the
// library's table: the 8-bit index of each level, then the weighted sum with
// the rounding half, on the type's scale.
double grayRef(uint32_t type, const double v[3]) {
    const double scale = type == wzType16U || type == wzType32S ? 1.0 / 256
                         : type == wzType32S24                  ? 1.0 / 65536
                                                                : 1;
    const int64_t weights[3] = {1868, 9617, 4899};
    int64_t sum = 8192;
    for (int k = 0; k < 3; ++k) {
        double i = type == wzType32F   ? static_cast<float>(v[k]) * 255.0f
                   : type == wzType64F ? v[k] * 255.0
                                       : std::floor(v[k] * scale);
        i = std::isnan(i) || i < 0 ? 0 : i > 255 ? 255 : std::trunc(i);
        sum += weights[k] * static_cast<int64_t>(i);
    }
    if (type == wzType8U) return static_cast<double>(sum / 16384);
    if (type == wzType16U || type == wzType32S) return static_cast<double>(sum / 64);
    if (type == wzType32S24) return static_cast<double>(sum * 4);
    return static_cast<double>(sum) / 4194304.0;
}

}  // namespace

// Differing types, and encodings above 4 (refused rather than walked with
// negative strides), write nothing.
TEST(CvtColor, RefusalsWriteNothing) {
    ImagePtr a = makeImage(2, 1, wzEncodingBGR), b = makeImage(2, 1, wzEncodingBGR, wzType16U);
    std::memset(a->data, 5, 6);
    std::memset(b->data, 7, 12);
    EXPECT_EQ(wzImageCvtColor(a.get(), b.get()), 1u);
    EXPECT_EQ(wzCopy(a.get(), b.get()), 1u);
    b->type = wzType8U, b->encoding = 7;
    EXPECT_EQ(wzImageCvtColor(a.get(), b.get()), 1u);
    EXPECT_EQ(wzImageCvtColor(b.get(), a.get()), 1u);
    EXPECT_EQ(std::count(a->data, a->data + 6, 5), 6);
    EXPECT_EQ(std::count(b->data, b->data + 12, 7), 12);
}

// Every pair of encodings and every type over offset regions: colour to gray
// by the formula (levels beyond the scale, negative and NaN ones clamp),
// same-encoding region copies of whole pixels, and channel moves of channels
// 1-3 (the destination's alpha stays). Outside the destination region nothing
// changes.
TEST(CvtColor, EveryPairMatchesReference) {
    std::mt19937 rng(1234);
    for (uint32_t type : kAllTypes)
        for (uint32_t se : kAllEncodings)
            for (uint32_t de : kAllEncodings) {
                ImagePtr src = makeImage(19, 13, se, type), dst = makeImage(21, 11, de, type);
                fillRandom(src.get(), rng);
                fillRandom(dst.get(), rng);
                for (int k = 0; k < 40 && type >= wzType32F; ++k)
                    setElementAt(src.get(), rng() % (blockBytes(src.get()) / typeSize(type)), kNaN);
                setRoi(src.get(), 3, 2, 15, 8);
                setRoi(dst.get(), 5, 3, 15, 8);
                std::vector<uint8_t> want = snapshot(dst.get());
                const int nd = wzGetNChannelFromEncoding(de);
                for (int y = 3; y < 11; ++y)
                    for (int x = 5; x < 20; ++x) {
                        double v[4];
                        for (int c = 1; c <= std::max(nd, 3); ++c)
                            v[c - 1] =
                                loadValue(type, c <= 3 || se == de ? at(src.get(), x - 2, y - 1, c)
                                                                   : at(dst.get(), x, y, c));
                        if (de == wzEncodingGray && se != wzEncodingGray) v[0] = grayRef(type, v);
                        for (int c = 1; c <= nd; ++c)
                            storeValue(type, want.data() + (at(dst.get(), x, y, c) - dst->data),
                                       v[c - 1]);
                    }
                ASSERT_EQ(
                    se == de ? wzCopy(src.get(), dst.get()) : wzImageCvtColor(src.get(), dst.get()),
                    0u);
                EXPECT_EQ(snapshot(dst.get()), want) << se << "->" << de << " type " << type;
            }
}

// Destination (x, y) is source (y, x): 8-bit as documented, wider types move whole pixels.
TEST(Transpose, MirrorsAboutTheDiagonal) {
    std::mt19937 rng(3);
    for (uint32_t type : {wzType8U, wzType16U}) {
        const uint32_t enc = type == wzType8U ? wzEncodingBGR : wzEncodingRGBA;
        ImagePtr src = makeImage(3, 2, enc, type), dst = makeImage(2, 3, enc, type);
        fillRandom(src.get(), rng);
        EXPECT_EQ(wzTranspose(src.get(), dst.get()), 0u);
        const size_t pb = blockBytes(src.get()) / 6;
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 2; ++x)
                EXPECT_EQ(
                    std::memcmp(dst->data + (y * 2 + x) * pb, src->data + (x * 3 + y) * pb, pb), 0)
                    << type << " at " << x << "," << y;
    }
}

// Every type and channel over offset regions, against the element that the
// channel tables locate: extraction into a plane, then insertion of the plane
// into another image, which changes nothing else there.
TEST(ChannelMoves, ExtractAndInsertMatchTheChannelTables) {
    std::mt19937 rng(11);
    for (uint32_t type : kAllTypes)
        for (int c = 1; c <= 4; ++c) {
            const uint32_t enc = kAllEncodings[c];  // BGR, RGB, ARGB, RGBA
            ImagePtr src = makeImage(8, 6, enc, type), out = makeImage(7, 7, enc, type);
            ImagePtr p = makeImage(5, 4, wzEncodingGray, type);
            fillRandom(src.get(), rng);
            fillRandom(out.get(), rng);
            setRoi(src.get(), 2, 1, 5, 4);
            setRoi(out.get(), 1, 2, 5, 4);
            std::vector<uint8_t> want = snapshot(out.get());
            ASSERT_EQ(wzImageExtractChannel(src.get(), p.get(), c), 0u);
            ASSERT_EQ(wzImageInsertChannel(p.get(), out.get(), c), 0u);
            for (int y = 0; y < 4; ++y)
                for (int x = 0; x < 5; ++x) {
                    ASSERT_EQ(std::memcmp(at(p.get(), x, y), at(src.get(), x + 2, y + 1, c),
                                          typeSize(type)),
                              0);
                    std::memcpy(want.data() + (at(out.get(), x + 1, y + 2, c) - out->data),
                                at(p.get(), x, y), typeSize(type));
                }
            EXPECT_EQ(snapshot(out.get()), want) << type << " channel " << c;
        }

    // Any channel of a gray image is its only one. Channels the encoding
    // lacks, and element sizes that differ (they would overflow the
    // destination pixel), are refused with nothing written.
    ImagePtr gray = makeImage(2, 1, wzEncodingGray), plane = makeImage(2, 1, wzEncodingGray);
    ImagePtr rgba = makeImage(2, 1, wzEncodingRGBA),
             plane16 = makeImage(2, 1, wzEncodingGray, wzType16U);
    gray->data[0] = 1, gray->data[1] = 2;
    ASSERT_EQ(wzImageExtractChannel(gray.get(), plane.get(), 2), 0u);
    EXPECT_EQ(snapshot(plane.get()), std::vector<uint8_t>({1, 2}));
    std::memset(rgba->data, 7, 8);
    EXPECT_EQ(wzImageExtractChannel(rgba.get(), plane.get(), 5), 1u);
    EXPECT_EQ(wzImageInsertChannel(gray.get(), makeImage(2, 1, wzEncodingBGR).get(), 4), 1u);
    EXPECT_EQ(wzImageExtractChannel(rgba.get(), plane16.get(), 1), 1u);
    EXPECT_EQ(wzImageInsertChannel(plane16.get(), rgba.get(), 1), 1u);
    EXPECT_EQ(snapshot(rgba.get()), std::vector<uint8_t>(8, 7));
    EXPECT_EQ(snapshot(plane.get()), std::vector<uint8_t>({1, 2}));
}
