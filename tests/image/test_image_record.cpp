// The image record: creation, release, channel tables and strides.
#include <gtest/gtest.h>

#include <cstring>

#include "support/image_fixtures.hpp"

using namespace morven_test;

TEST(ImageRecord, CreateAndRelease) {
    ImagePtr img = makeImage(4, 3, wzEncodingBGR, wzType16U);
    ASSERT_TRUE(img);
    const wzRect r = img->roi;
    EXPECT_TRUE(img->height == 3 && img->width == 4 && r.x == 0 && r.y == 0 && r.width == 4 &&
                r.height == 3 && img->coi == 0);
    std::memset(img->data, 0xAB, 72);  // the block holds 72 bytes (AddressSanitizer checks)
    ImagePtr as(wzImageCreateAs(img.get()));
    EXPECT_TRUE(as && as->type == wzType16U && as->width == 4 && as->data != img->data);
    // An invalid encoding, negative sizes (two of them make a positive product), overflow.
    const int32_t refused[][4] = {{4, 3, 5, 0},
                                  {-4, 3, 0, 0},
                                  {4, -3, 0, 0},
                                  {-4, -3, 0, 0},
                                  {INT32_MAX, INT32_MAX, wzEncodingRGBA, wzType64F}};
    for (const auto &c : refused)
        EXPECT_EQ(makeImage(c[0], c[1], c[2], c[3]).get(), nullptr) << c[0];
    EXPECT_TRUE(makeImage(0, 5, wzEncodingGray));     // an empty block is an image
    EXPECT_TRUE(makeImage(3, 3, wzEncodingGray, 7));  // unknown type: element size 0

    uint8_t block[4] = {1, 2, 3, 9};
    wzImage *h = wzImageCreateHeaderWithType(640, 480, wzEncodingRGBA, wzType32F);
    ASSERT_NE(h, nullptr);
    EXPECT_TRUE(h->data == nullptr && wzImageSize(h).width == 640 && wzImageSize(h).height == 480);
    h->data = block;
    wzImageReleaseHeader(&h);
    EXPECT_TRUE(h == nullptr && block[3] == 9);  // the block stays the caller's
    wzImageRelease(&h);                          // null: nothing happens
    wzImageReleaseHeader(&h);
    wzImage *owned = wzImageCreate(2, 2, wzEncodingGray);
    wzImageRelease(&owned);
    EXPECT_EQ(owned, nullptr);
}

TEST(ImageRecord, ChannelTablesAndStrides) {
    // Offsets of channels 0..5 per encoding; -1 where the channel does not exist.
    const int32_t offsets[6][6] = {
        {0, 0, 0, 0, 0, 0},   {-1, 0, 1, 2, -1, -1}, {-1, 2, 1, 0, -1, -1},
        {-1, 3, 2, 1, 0, -1}, {-1, 2, 1, 0, 3, -1},  {-1, -1, -1, -1, -1, -1},
    };
    const int32_t counts[6] = {1, 3, 3, 4, 4, -1};
    for (uint32_t e = 0; e < 6; ++e) {
        EXPECT_EQ(wzGetNChannelFromEncoding(e), counts[e]);
        for (int32_t c = 0; c <= 5; ++c)
            EXPECT_EQ(wzGetChannelOffsetFromEncoding(e, c), offsets[e][c]) << e << "," << c;
    }
    // In bytes, failures scaled too: 6, 4, 2, 0 and -2 for a 16-bit ARGB image.
    ImagePtr argb16 = makeImage(2, 2, wzEncodingARGB, wzType16U),
             gray = makeImage(2, 2, wzEncodingGray);
    for (int32_t c = 1; c <= 5; ++c) EXPECT_EQ(wzImageGetChannelOffset(argb16.get(), c), 8 - 2 * c);
    for (int32_t c : {1, 2, 3, 7}) EXPECT_EQ(wzImageGetChannelOffset(gray.get(), c), 0);
    EXPECT_EQ(wzImageGetNChannel(argb16.get()), 4);

    // Gray against colour is incompatible, and so is any invalid encoding.
    const uint32_t pairs[][3] = {{1, 4, 0}, {3, 2, 0}, {0, 0, 0}, {0, 1, 1},
                                 {2, 0, 1}, {5, 5, 1}, {0, 5, 1}};
    for (const auto &p : pairs) {
        wzImage a{}, b{};
        a.encoding = p[0], b.encoding = p[1];
        EXPECT_EQ(wzImageHaveUncompatibleEncodings(&a, &b), p[2]) << p[0] << "," << p[1];
    }

    // Pixel stride, row stride and region row gap in bytes, then an invalid
    // encoding (negative strides, not a crash); roi reset.
    ImagePtr img = makeImage(10, 2, wzEncodingRGBA, wzType32F);
    setRoi(img.get(), 2, 1, 4, 3);
    wzImage bad{0, 9, 1, 4, nullptr, {}, 0};
    int32_t out[3] = {}, badOut[3] = {};
    wzImageExtractDerivedMembers(img.get(), out);
    wzImageExtractDerivedMembers(&bad, badOut);
    EXPECT_TRUE(out[0] == 16 && out[1] == 160 && out[2] == 96 && badOut[0] == -1 &&
                badOut[1] == -4);
    wzImageResetROI(img.get());
    const wzRect r = img->roi;
    EXPECT_TRUE(r.x == 0 && r.y == 0 && r.width == 10 && r.height == 2);
}
