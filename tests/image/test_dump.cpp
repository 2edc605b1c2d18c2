// Image dump files: byte layout, round trips, and refusal of short or
// hostile input.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "support/dump_stream.hpp"
#include "support/image_fixtures.hpp"

using namespace morven_test;

namespace {

using FilePtr = std::unique_ptr<FILE, int (*)(FILE *)>;

Bytes saveBytes(const wzImage *img, wzStatus *status) {
    return saveToBytes([img](FILE *f) { return wzImageDumpSave(img, f); }, status);
}

ImagePtr loadBytes(const Bytes &bytes, size_t n) {
    return ImagePtr(loadPrefix(wzImageDumpLoad, bytes, n));
}

// Little-endian 32-bit words.
Bytes words(std::initializer_list<int64_t> values) {
    Bytes b;
    for (int64_t v : values)
        for (int k = 0; k < 4; ++k)
            b.push_back(static_cast<uint8_t>(static_cast<uint64_t>(v) >> (8 * k)));
    return b;
}

}  // namespace

// Every type and encoding, with arbitrary roi and coi (stored as they are,
// even outside the image): a dump is the 40-byte header of the record's fields
// (a zero word where the data pointer was), then the whole block, not the
// region. A stream that ends anywhere inside a dump loads as null (under
// LeakSanitizer this also shows that every failure frees all). All dumps in one
// stream load back in order, each load stopping just after its dump, and save
// again to the same bytes.
TEST(ImageDump, LayoutTruncationAndRoundTrip) {
    std::mt19937 rng(2024);
    auto any = [&] { return static_cast<int32_t>(rng() % 2001) - 1000; };
    std::vector<Bytes> dumps;
    Bytes all;
    for (uint32_t type : kAllTypes)
        for (uint32_t enc : kAllEncodings) {
            ImagePtr img = makeImage(1 + rng() % 9, 1 + rng() % 9, enc, type);
            for (size_t i = 0; i < blockBytes(img.get()); ++i)
                img->data[i] = static_cast<uint8_t>(rng());
            setRoi(img.get(), any(), any(), any(), any());
            wzImageSetCOI(img.get(), any());
            const wzRect r = img->roi;
            Bytes want = words(
                {type, enc, img->height, img->width, 0, r.x, r.y, r.width, r.height, img->coi});
            want.insert(want.end(), img->data, img->data + blockBytes(img.get()));
            wzStatus st = 1;
            dumps.push_back(saveBytes(img.get(), &st));
            EXPECT_EQ(st, 0u);
            ASSERT_EQ(dumps.back(), want) << type << " " << enc;
            for (size_t n : {size_t{0}, size_t{4}, size_t{39}, size_t{40},
                             40 + rng() % (want.size() - 40), want.size() - 1})
                EXPECT_EQ(loadBytes(want, n).get(), nullptr)
                    << type << " " << enc << " cut at " << n;
            all.insert(all.end(), want.begin(), want.end());
        }
    FilePtr f(std::tmpfile(), std::fclose);
    ASSERT_TRUE(f && std::fwrite(all.data(), all.size(), 1, f.get()) == 1);
    std::rewind(f.get());
    long end = 0;
    for (const Bytes &dump : dumps) {
        ImagePtr back(wzImageDumpLoad(f.get()));
        ASSERT_NE(back.get(), nullptr);
        wzStatus st = 1;
        EXPECT_EQ(saveBytes(back.get(), &st), dump);
        EXPECT_EQ(std::ftell(f.get()), end += static_cast<long>(dump.size()));
    }
    EXPECT_EQ(ImagePtr(wzImageDumpLoad(f.get())).get(), nullptr);  // the stream is exhausted
}

// Headers that describe no loadable block are refused before the payload is
// allocated (under AddressSanitizer an oversized calloc would abort the test
// rather than return null).
TEST(ImageDump, HostileHeadersLoadAsNull) {
    const int64_t cases[][4] = {
        // clang-format off
        // type, encoding, height, width
        {wzType8U, 7, 2, 2},                 {wzType8U, 0xFFFFFFFF, 1, 1},  // invalid encodings
        {3, wzEncodingGray, 2, 2},           {wzType8U, wzEncodingGray, 0, 5},  // empty payloads
        {wzType8U, wzEncodingGray, -1, 5},   {wzType64F, wzEncodingRGBA, 2, -3},  // negative
        {wzType8U, wzEncodingGray, -1, -1},  // a positive product of negative sizes
        {wzType8U, wzEncodingGray, 65536, 65536}, {wzType8U, wzEncodingGray, 46341, 46341},
        {wzType64F, wzEncodingRGBA, 0x40000000, 0x40000000},
        {wzType32F, wzEncodingBGR, 0x7FFFFFFF, 1},
        // clang-format on
    };
    for (const auto &c : cases) {
        Bytes b = words({c[0], c[1], c[2], c[3], 0, 0, 0, c[3], c[2], 0});
        b.resize(b.size() + 256, 0x5A);  // a payload is there to read
        EXPECT_EQ(loadBytes(b, b.size()).get(), nullptr)
            << c[0] << " " << c[1] << " " << c[2] << "x" << c[3];
    }
}

TEST(ImageDump, EmptyBlocksAndFailedWrites) {
    // An empty block (0 x 5), an unknown type, negative sizes (a positive
    // product): the header goes out, the missing payload reports failure and
    // the block is not read; an invalid encoding writes nothing at all.
    const int32_t cases[][5] = {{wzType8U, 0, 5, 0, 40},
                                {9, 0, 2, 2, 40},
                                {wzType8U, 0, -2, -2, 40},
                                {wzType8U, 5, 2, 2, 0}};
    for (const auto &c : cases) {
        const wzImage h{uint32_t(c[0]), uint32_t(c[1]), c[2], c[3], nullptr, {}, 0};
        wzStatus st = 0;
        EXPECT_EQ(saveBytes(&h, &st).size(), static_cast<size_t>(c[4]));
        EXPECT_EQ(st, 0xFFFFFFFFu);
    }
    // Full streams: too small for the header, then for the payload (the
    // header stays written).
    ImagePtr img = makeImage(2, 2, wzEncodingBGR);
    std::memset(img->data, 3, 12);
    for (size_t cap : {20u, 45u}) {
        std::vector<char> buf(cap, 0);
        FilePtr w(fmemopen(buf.data(), cap, "w"), std::fclose);
        ASSERT_TRUE(w);
        setvbuf(w.get(), nullptr, _IONBF, 0);  // make short writes visible at once
        EXPECT_EQ(wzImageDumpSave(img.get(), w.get()), 0xFFFFFFFFu) << cap;
        EXPECT_TRUE(cap == 20 || buf[4] == 1);
    }
}
