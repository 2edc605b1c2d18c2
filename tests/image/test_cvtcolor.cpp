// Colour conversion, region copy, transpose and channel moves.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "support/image_fixtures.hpp"

using namespace morven_test;

namespace {

// Gray conversion written straight from the luma weights, independent of the
// library's table: index of each level, weighted sum, then the type's scale.
template <typename T>
T loadAs(const uint8_t *p) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

int grayIndexRef(uint32_t type, const uint8_t *p) {
    switch (type) {
        case wzType8U: return *p;
        case wzType16U: return loadAs<uint16_t>(p) / 256;
        case wzType32S: {
            int64_t v = loadAs<int32_t>(p);
            return v < 0 ? 0 : static_cast<int>(std::min<int64_t>(v / 256, 255));
        }
        case wzType32S24: {
            int64_t v = loadAs<int32_t>(p);
            return v < 0 ? 0 : static_cast<int>(std::min<int64_t>(v / 65536, 255));
        }
        case wzType32F: {
            float s = loadAs<float>(p) * 255.0f;
            return s <= 0.0f ? 0 : (s >= 255.0f ? 255 : static_cast<int>(std::trunc(s)));
        }
        default: {
            double s = loadAs<double>(p) * 255.0;
            return s <= 0.0 ? 0 : (s >= 255.0 ? 255 : static_cast<int>(std::trunc(s)));
        }
    }
}

// Expected gray element as a double (all results are exact in double).
double grayRef(uint32_t type, int b, int g, int r) {
    const int64_t sum = 8192 + 1868 * b + 9617 * g + 4899 * r;
    switch (type) {
        case wzType8U: return static_cast<double>(sum / 16384);
        case wzType16U:
        case wzType32S: return static_cast<double>(sum / 64);
        case wzType32S24: return static_cast<double>(sum * 4);
        default: return static_cast<double>(sum) / 4194304.0;
    }
}

double loadElementAsDouble(uint32_t type, const uint8_t *p) {
    switch (type) {
        case wzType8U: return *p;
        case wzType16U: return loadAs<uint16_t>(p);
        case wzType32S:
        case wzType32S24: return loadAs<int32_t>(p);
        case wzType32F: return loadAs<float>(p);
        default: return loadAs<double>(p);
    }
}

void setRoi(wzImage *img, int x, int y, int w, int h) {
    wzRect r{x, y, w, h};
    wzImageSetROI(img, &r);
}

}  // namespace

TEST(CvtColor, GrayWorkedNumbers) {
    ImagePtr bgr = makeImage(4, 1, wzEncodingBGR);
    ImagePtr gray = makeImage(4, 1, wzEncodingGray);
    const uint8_t px[4][3] = {{255, 255, 255}, {0, 0, 0}, {255, 0, 0}, {0, 0, 255}};
    std::memcpy(bgr->data, px, sizeof px);
    ASSERT_EQ(wzImageCvtColor(bgr.get(), gray.get()), 0u);
    EXPECT_EQ(gray->data[0], 255);
    EXPECT_EQ(gray->data[1], 0);
    EXPECT_EQ(gray->data[2], 29);  // blue alone
    EXPECT_EQ(gray->data[3], 76);  // red alone

    ImagePtr white16 = makeImage(1, 1, wzEncodingBGR, wzType16U);
    ImagePtr gray16 = makeImage(1, 1, wzEncodingGray, wzType16U);
    const uint16_t w16[3] = {65535, 65535, 65535};
    std::memcpy(white16->data, w16, sizeof w16);
    ASSERT_EQ(wzImageCvtColor(white16.get(), gray16.get()), 0u);
    EXPECT_EQ(loadAs<uint16_t>(gray16->data), 65408);

    ImagePtr white32f = makeImage(1, 1, wzEncodingRGBA, wzType32F);
    ImagePtr gray32f = makeImage(1, 1, wzEncodingGray, wzType32F);
    const float wf[4] = {1.0f, 1.0f, 1.0f, 0.25f};
    std::memcpy(white32f->data, wf, sizeof wf);
    ASSERT_EQ(wzImageCvtColor(white32f.get(), gray32f.get()), 0u);
    EXPECT_EQ(loadAs<float>(gray32f->data), 0.998046875f);

    // A negative 32S channel counts as level 0; NaN and huge floats clamp.
    ImagePtr s32 = makeImage(1, 1, wzEncodingBGR, wzType32S);
    ImagePtr g32 = makeImage(1, 1, wzEncodingGray, wzType32S);
    const int32_t neg[3] = {-5000, 65535, 65535};
    std::memcpy(s32->data, neg, sizeof neg);
    ASSERT_EQ(wzImageCvtColor(s32.get(), g32.get()), 0u);
    EXPECT_EQ(loadAs<int32_t>(g32->data), (8192 + 9617 * 255 + 4899 * 255) >> 6);

    ImagePtr f64 = makeImage(1, 1, wzEncodingBGR, wzType64F);
    ImagePtr g64 = makeImage(1, 1, wzEncodingGray, wzType64F);
    const double odd[3] = {NAN, 1e300, -1e300};
    std::memcpy(f64->data, odd, sizeof odd);
    ASSERT_EQ(wzImageCvtColor(f64.get(), g64.get()), 0u);
    EXPECT_EQ(loadAs<double>(g64->data), (8192.0 + 9617.0 * 255) / 4194304.0);
}

TEST(CvtColor, RandomGrayConversionMatchesTheFormula) {
    std::mt19937 rng(1234);
    for (uint32_t type : kAllTypes) {
        for (uint32_t enc : {wzEncodingBGR, wzEncodingRGB, wzEncodingARGB, wzEncodingRGBA}) {
            ImagePtr src = makeImage(37, 23, enc, type);
            ImagePtr dst = makeImage(41, 19, wzEncodingGray, type);
            fillRandom(src.get(), rng);
            fillRandom(dst.get(), rng);
            setRoi(src.get(), 3, 2, 30, 15);
            setRoi(dst.get(), 7, 4, 30, 15);
            const std::vector<uint8_t> before = snapshot(dst.get());
            ASSERT_EQ(wzImageCvtColor(src.get(), dst.get()), 0u);
            const size_t es = typeSize(type);
            for (int y = 0; y < dst->height; ++y) {
                for (int x = 0; x < dst->width; ++x) {
                    const uint8_t *out = at(dst.get(), x, y);
                    const bool inside = x >= 7 && x < 37 && y >= 4 && y < 19;
                    if (!inside) {
                        const size_t off = static_cast<size_t>(out - dst->data);
                        ASSERT_EQ(std::memcmp(out, &before[off], es), 0) << "outside " << x << "," << y;
                        continue;
                    }
                    const int sx = x - 7 + 3, sy = y - 4 + 2;
                    const double expected =
                        grayRef(type, grayIndexRef(type, at(src.get(), sx, sy, 1)),
                                grayIndexRef(type, at(src.get(), sx, sy, 2)),
                                grayIndexRef(type, at(src.get(), sx, sy, 3)));
                    ASSERT_EQ(loadElementAsDouble(type, out), expected)
                        << "type " << type << " encoding " << enc << " at " << x << "," << y;
                }
            }
        }
    }
}

TEST(CvtColor, ColourMovesKeepEveryChannelAndTheDestinationAlpha) {
    std::mt19937 rng(99);
    for (uint32_t type : kAllTypes) {
        for (uint32_t se : kAllEncodings) {
            for (uint32_t de : {wzEncodingBGR, wzEncodingRGB, wzEncodingARGB, wzEncodingRGBA}) {
                if (se == de) continue;
                ImagePtr src = makeImage(9, 7, se, type);
                ImagePtr dst = makeImage(11, 6, de, type);
                fillRandom(src.get(), rng);
                fillRandom(dst.get(), rng);
                setRoi(src.get(), 1, 2, 5, 4);
                setRoi(dst.get(), 4, 1, 5, 4);
                const std::vector<uint8_t> before = snapshot(dst.get());
                ASSERT_EQ(wzImageCvtColor(src.get(), dst.get()), 0u);
                const size_t es = typeSize(type);
                for (int y = 0; y < dst->height; ++y) {
                    for (int x = 0; x < dst->width; ++x) {
                        const bool inside = x >= 4 && x < 9 && y >= 1 && y < 5;
                        const int nch = wzGetNChannelFromEncoding(de);
                        for (int c = 1; c <= nch; ++c) {
                            const uint8_t *out = at(dst.get(), x, y, c);
                            const uint8_t *want =
                                inside && c <= 3 ? at(src.get(), x - 3, y + 1, c)
                                                 : &before[static_cast<size_t>(out - dst->data)];
                            ASSERT_EQ(std::memcmp(out, want, es), 0)
                                << se << "->" << de << " type " << type << " ch " << c;
                        }
                    }
                }
            }
        }
    }
}

TEST(CvtColor, WorkedReorderings) {
    ImagePtr rgb = makeImage(1, 1, wzEncodingRGB);
    ImagePtr bgr = makeImage(1, 1, wzEncodingBGR);
    const uint8_t rgbPx[3] = {10, 20, 30};
    std::memcpy(rgb->data, rgbPx, 3);
    ASSERT_EQ(wzImageCvtColor(rgb.get(), bgr.get()), 0u);
    EXPECT_EQ(bgr->data[0], 30);
    EXPECT_EQ(bgr->data[1], 20);
    EXPECT_EQ(bgr->data[2], 10);

    ImagePtr rgba = makeImage(1, 1, wzEncodingRGBA);
    rgba->data[3] = 77;
    ASSERT_EQ(wzImageCvtColor(bgr.get(), rgba.get()), 0u);
    EXPECT_EQ(rgba->data[0], 10);
    EXPECT_EQ(rgba->data[3], 77);

    ImagePtr gray = makeImage(1, 1, wzEncodingGray);
    ImagePtr argb = makeImage(1, 1, wzEncodingARGB);
    gray->data[0] = 5;
    argb->data[0] = 201;
    ASSERT_EQ(wzImageCvtColor(gray.get(), argb.get()), 0u);
    EXPECT_EQ(argb->data[0], 201);
    EXPECT_EQ(argb->data[1], 5);
    EXPECT_EQ(argb->data[2], 5);
    EXPECT_EQ(argb->data[3], 5);
}

TEST(CvtColor, RefusalsWriteNothing) {
    ImagePtr a8 = makeImage(3, 3, wzEncodingBGR, wzType8U);
    ImagePtr b16 = makeImage(3, 3, wzEncodingBGR, wzType16U);
    std::mt19937 rng(5);
    fillRandom(a8.get(), rng);
    fillRandom(b16.get(), rng);
    std::vector<uint8_t> before = snapshot(b16.get());
    EXPECT_EQ(wzImageCvtColor(a8.get(), b16.get()), 1u);
    EXPECT_EQ(wzCopy(a8.get(), b16.get()), 1u);
    EXPECT_EQ(snapshot(b16.get()), before);

    // An encoding above 4 is refused rather than walked with negative strides.
    ImagePtr c8 = makeImage(3, 3, wzEncodingBGR, wzType8U);
    fillRandom(c8.get(), rng);
    before = snapshot(c8.get());
    a8->encoding = 7;
    EXPECT_EQ(wzImageCvtColor(a8.get(), c8.get()), 1u);
    EXPECT_EQ(wzImageCvtColor(c8.get(), a8.get()), 1u);
    a8->encoding = wzEncodingBGR;
    EXPECT_EQ(snapshot(c8.get()), before);
}

TEST(CvtColor, RegionCopyTouchesOnlyTheRegion) {
    std::mt19937 rng(7);
    ImagePtr src = makeImage(4, 4, wzEncodingRGBA, wzType64F);
    ImagePtr dst = makeImage(4, 4, wzEncodingRGBA, wzType64F);
    fillRandom(src.get(), rng);
    fillRandom(dst.get(), rng);
    setRoi(src.get(), 1, 1, 2, 2);
    setRoi(dst.get(), 1, 1, 2, 2);
    const std::vector<uint8_t> before = snapshot(dst.get());
    ASSERT_EQ(wzCopy(src.get(), dst.get()), 0u);
    const size_t pixel = 4 * 8;
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 4; ++x) {
            const size_t off = (static_cast<size_t>(y) * 4 + x) * pixel;
            const bool inside = x >= 1 && x < 3 && y >= 1 && y < 3;
            const uint8_t *want = inside ? src->data + off : &before[off];
            EXPECT_EQ(std::memcmp(dst->data + off, want, pixel), 0) << x << "," << y;
        }
}

TEST(Transpose, MirrorsAboutTheDiagonal) {
    ImagePtr src = makeImage(3, 2, wzEncodingBGR);
    ImagePtr dst = makeImage(2, 3, wzEncodingBGR);
    for (int i = 0; i < 18; ++i) src->data[i] = static_cast<uint8_t>(i);
    EXPECT_EQ(wzTranspose(src.get(), dst.get()), 0u);
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 2; ++x)
            for (int c = 1; c <= 3; ++c)
                EXPECT_EQ(*at(dst.get(), x, y, c), *at(src.get(), y, x, c));
    EXPECT_EQ(*at(dst.get(), 1, 2, 1), *at(src.get(), 2, 1, 1));

    // Wider types move whole pixels.
    std::mt19937 rng(3);
    ImagePtr s16 = makeImage(5, 3, wzEncodingRGBA, wzType16U);
    ImagePtr d16 = makeImage(3, 5, wzEncodingRGBA, wzType16U);
    fillRandom(s16.get(), rng);
    EXPECT_EQ(wzTranspose(s16.get(), d16.get()), 0u);
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 3; ++x)
            EXPECT_EQ(std::memcmp(at(d16.get(), x, y, 3), at(s16.get(), y, x, 3), 8), 0);
}

TEST(ChannelMoves, ExtractAndInsert) {
    ImagePtr rgba = makeImage(2, 1, wzEncodingRGBA);
    const uint8_t px[8] = {11, 22, 33, 44, 55, 66, 77, 88};
    std::memcpy(rgba->data, px, 8);
    ImagePtr plane = makeImage(2, 1, wzEncodingGray);
    ASSERT_EQ(wzImageExtractChannel(rgba.get(), plane.get(), 3), 0u);  // red
    EXPECT_EQ(plane->data[0], 11);
    EXPECT_EQ(plane->data[1], 55);
    ASSERT_EQ(wzImageExtractChannel(rgba.get(), plane.get(), 4), 0u);  // alpha
    EXPECT_EQ(plane->data[1], 88);
    plane->data[0] = 9;
    EXPECT_EQ(wzImageExtractChannel(rgba.get(), plane.get(), 5), 1u);
    EXPECT_EQ(plane->data[0], 9);

    ImagePtr gray = makeImage(2, 1, wzEncodingGray);
    gray->data[0] = 1;
    gray->data[1] = 2;
    ASSERT_EQ(wzImageExtractChannel(gray.get(), plane.get(), 2), 0u);
    EXPECT_EQ(plane->data[0], 1);
    EXPECT_EQ(plane->data[1], 2);

    // Insert into green of the RGBA image only.
    ASSERT_EQ(wzImageInsertChannel(gray.get(), rgba.get(), 2), 0u);
    const uint8_t want[8] = {11, 1, 33, 44, 55, 2, 77, 88};
    EXPECT_EQ(std::memcmp(rgba->data, want, 8), 0);
    ImagePtr bgr = makeImage(2, 1, wzEncodingBGR);
    EXPECT_EQ(wzImageInsertChannel(gray.get(), bgr.get(), 4), 1u);

    // Element sizes that differ would overflow the destination pixel: refused.
    ImagePtr plane16 = makeImage(2, 1, wzEncodingGray, wzType16U);
    EXPECT_EQ(wzImageExtractChannel(rgba.get(), plane16.get(), 1), 1u);
    EXPECT_EQ(wzImageInsertChannel(plane16.get(), rgba.get(), 1), 1u);
}

TEST(ChannelMoves, SplitAndMergeRoundTripEveryTypeWithRegions) {
    std::mt19937 rng(11);
    for (uint32_t type : kAllTypes) {
        ImagePtr src = makeImage(8, 6, wzEncodingARGB, type);
        ImagePtr out = makeImage(8, 6, wzEncodingARGB, type);
        fillRandom(src.get(), rng);
        fillRandom(out.get(), rng);
        ImagePtr plane = makeImage(5, 4, wzEncodingGray, type);
        setRoi(src.get(), 2, 1, 5, 4);
        setRoi(out.get(), 2, 1, 5, 4);
        for (int c = 1; c <= 4; ++c) {
            ASSERT_EQ(wzImageExtractChannel(src.get(), plane.get(), c), 0u);
            ASSERT_EQ(wzImageInsertChannel(plane.get(), out.get(), c), 0u);
        }
        for (int y = 1; y < 5; ++y)
            for (int x = 2; x < 7; ++x)
                ASSERT_EQ(std::memcmp(at(out.get(), x, y, 4), at(src.get(), x, y, 4), 4 * typeSize(type)), 0)
                    << "type " << type;
    }
}
