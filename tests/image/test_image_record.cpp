// The image record: creation, release, channel tables and strides.
#include <gtest/gtest.h>

#include <cstring>

#include "support/image_fixtures.hpp"

using namespace morven_test;

TEST(ImageRecord, CreateWithTypeFillsTheRecord) {
    ImagePtr img = makeImage(4, 3, wzEncodingBGR, wzType16U);
    ASSERT_TRUE(img);
    EXPECT_EQ(img->type, wzType16U);
    EXPECT_EQ(img->encoding, wzEncodingBGR);
    EXPECT_EQ(img->height, 3);
    EXPECT_EQ(img->width, 4);
    EXPECT_EQ(img->roi.x, 0);
    EXPECT_EQ(img->roi.y, 0);
    EXPECT_EQ(img->roi.width, 4);
    EXPECT_EQ(img->roi.height, 3);
    EXPECT_EQ(img->coi, 0);
    ASSERT_NE(img->data, nullptr);
    std::memset(img->data, 0xAB, 72);  // the whole 72-byte block is ours (ASan checks)

    ImagePtr as(wzImageCreateAs(img.get()));
    ASSERT_TRUE(as);
    EXPECT_EQ(as->type, wzType16U);
    EXPECT_EQ(as->width, 4);
    EXPECT_NE(as->data, img->data);
}

TEST(ImageRecord, CreateRejectsInvalidEncodingsAndSizes) {
    EXPECT_EQ(wzImageCreate(4, 3, 5), nullptr);
    EXPECT_EQ(wzImageCreateWithType(4, 3, 99, wzType32F), nullptr);
    EXPECT_EQ(wzImageCreate(-4, 3, wzEncodingGray), nullptr);
    EXPECT_EQ(wzImageCreate(4, -3, wzEncodingGray), nullptr);
    EXPECT_EQ(wzImageCreate(-4, -3, wzEncodingGray), nullptr);
    // 2^31 * 2^31 * 32 bytes cannot exist: refused, not wrapped.
    EXPECT_EQ(wzImageCreateWithType(INT32_MAX, INT32_MAX, wzEncodingRGBA, wzType64F), nullptr);
    // Empty blocks are images; an unknown type has element size 0.
    ImagePtr empty = makeImage(0, 5, wzEncodingGray);
    ASSERT_TRUE(empty);
    EXPECT_EQ(empty->height, 5);
    ImagePtr unknown = makeImage(3, 3, wzEncodingGray, 7);
    ASSERT_TRUE(unknown);
    EXPECT_EQ(unknown->type, 7u);
}

TEST(ImageRecord, HeadersBorrowTheCallersBlock) {
    uint8_t block[640 * 3] = {};
    wzImage *h = wzImageCreateHeader(640, 1, wzEncodingBGR);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->type, wzType8U);
    EXPECT_EQ(h->data, nullptr);
    wzSize size = wzImageSize(h);
    EXPECT_EQ(size.width, 640);
    EXPECT_EQ(size.height, 1);
    h->data = block;
    block[5] = 9;
    wzImageReleaseHeader(&h);
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(block[5], 9);  // the block stays the caller's

    wzImage *typed = wzImageCreateHeaderWithType(640, 480, wzEncodingRGBA, wzType32F);
    ASSERT_NE(typed, nullptr);
    EXPECT_EQ(typed->type, wzType32F);
    EXPECT_EQ(wzImageSize(typed).height, 480);
    wzImageReleaseHeader(&typed);

    // Releasing through a null pointer does nothing.
    wzImage *none = nullptr;
    wzImageRelease(&none);
    wzImageReleaseHeader(&none);
    EXPECT_EQ(none, nullptr);
    wzImage *owned = wzImageCreate(2, 2, wzEncodingGray);
    wzImageRelease(&owned);
    EXPECT_EQ(owned, nullptr);
}

TEST(ImageRecord, ChannelCountsAndOffsets) {
    const int32_t counts[] = {1, 3, 3, 4, 4};
    for (uint32_t e = 0; e < 5; ++e) EXPECT_EQ(wzGetNChannelFromEncoding(e), counts[e]);
    EXPECT_EQ(wzGetNChannelFromEncoding(5), -1);

    // Offsets of channels 1..4 per encoding; -1 where the channel does not exist.
    const int32_t expected[5][6] = {
        {0, 0, 0, 0, 0, 0},      // gray: any channel number, valid or not
        {-1, 0, 1, 2, -1, -1},   // BGR
        {-1, 2, 1, 0, -1, -1},   // RGB
        {-1, 3, 2, 1, 0, -1},    // ARGB
        {-1, 2, 1, 0, 3, -1},    // RGBA
    };
    for (uint32_t e = 0; e < 5; ++e)
        for (int32_t c = 0; c <= 5; ++c)
            EXPECT_EQ(wzGetChannelOffsetFromEncoding(e, c), expected[e][c]) << e << "," << c;
    EXPECT_EQ(wzGetChannelOffsetFromEncoding(5, 1), -1);
    EXPECT_EQ(wzGetChannelOffsetFromEncoding(0, 7), 0);

    // In bytes: scaled by the element size, failures included.
    ImagePtr argb16 = makeImage(2, 2, wzEncodingARGB, wzType16U);
    EXPECT_EQ(wzImageGetChannelOffset(argb16.get(), 1), 6);
    EXPECT_EQ(wzImageGetChannelOffset(argb16.get(), 2), 4);
    EXPECT_EQ(wzImageGetChannelOffset(argb16.get(), 3), 2);
    EXPECT_EQ(wzImageGetChannelOffset(argb16.get(), 4), 0);
    EXPECT_EQ(wzImageGetChannelOffset(argb16.get(), 5), -2);
    ImagePtr gray = makeImage(2, 2, wzEncodingGray);
    for (int32_t c : {1, 2, 3, 7}) EXPECT_EQ(wzImageGetChannelOffset(gray.get(), c), 0);
    EXPECT_EQ(wzImageGetNChannel(argb16.get()), 4);
    EXPECT_EQ(wzImageGetEncoding(argb16.get()), wzEncodingARGB);
}

TEST(ImageRecord, EncodingCompatibility) {
    auto incompatible = [](uint32_t a, uint32_t b) {
        wzImage x{}, y{};
        x.encoding = a;
        y.encoding = b;
        return wzImageHaveUncompatibleEncodings(&x, &y);
    };
    EXPECT_EQ(incompatible(1, 4), 0u);
    EXPECT_EQ(incompatible(3, 2), 0u);
    EXPECT_EQ(incompatible(0, 0), 0u);
    EXPECT_EQ(incompatible(0, 1), 1u);
    EXPECT_EQ(incompatible(2, 0), 1u);
    EXPECT_EQ(incompatible(5, 5), 1u);
    EXPECT_EQ(incompatible(0, 5), 1u);
}

TEST(ImageRecord, RegionsStridesAndChannelOfInterest) {
    ImagePtr img = makeImage(10, 2, wzEncodingRGBA, wzType32F);
    wzRect r{2, 1, 4, 1};
    wzImageSetROI(img.get(), &r);
    int32_t out[3] = {};
    wzImageExtractDerivedMembers(img.get(), out);
    EXPECT_EQ(out[0], 16);
    EXPECT_EQ(out[1], 160);
    EXPECT_EQ(out[2], 96);

    wzRect odd{2, 1, 3, 3};
    wzImageSetROI(img.get(), &odd);
    EXPECT_EQ(img->roi.height, 3);  // stored unchecked
    wzImageResetROI(img.get());
    EXPECT_EQ(img->roi.x, 0);
    EXPECT_EQ(img->roi.y, 0);
    EXPECT_EQ(img->roi.width, 10);
    EXPECT_EQ(img->roi.height, 2);

    wzImageSetCOI(img.get(), 3);
    EXPECT_EQ(img->coi, 3);
    wzImageResetCOI(img.get());
    EXPECT_EQ(img->coi, 0);

    // An invalid encoding gives negative strides, not a crash.
    wzImage bad{};
    bad.encoding = 9;
    bad.width = 4;
    wzImageExtractDerivedMembers(&bad, out);
    EXPECT_EQ(out[0], -1);
    EXPECT_EQ(out[1], -4);
}
