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


struct FileCloser {
    void operator()(FILE *f) const { std::fclose(f); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

Bytes saveBytes(const wzImage *img, wzStatus *status) {
    return saveToBytes([img](FILE *f) { return wzImageDumpSave(img, f); }, status);
}

// Loads from the first n bytes presented as a stream of exactly that length.
ImagePtr loadBytes(const Bytes &bytes, size_t n) {
    FilePtr f(std::tmpfile());
    EXPECT_TRUE(f && (n == 0 || std::fwrite(bytes.data(), n, 1, f.get()) == 1));
    std::rewind(f.get());
    return ImagePtr(wzImageDumpLoad(f.get()));
}

// Little-endian 32-bit words.
Bytes words(std::initializer_list<int64_t> values) {
    Bytes b;
    for (int64_t v : values)
        for (int k = 0; k < 4; ++k)
            b.push_back(static_cast<uint8_t>(static_cast<uint64_t>(v) >> (8 * k)));
    return b;
}

void expectSameImage(const wzImage *a, const wzImage *b) {
    ASSERT_NE(b, nullptr);
    const wzRect &r = a->roi, &s = b->roi;
    EXPECT_TRUE(a->type == b->type && a->encoding == b->encoding && a->height == b->height &&
                a->width == b->width && a->coi == b->coi);
    EXPECT_TRUE(r.x == s.x && r.y == s.y && r.width == s.width && r.height == s.height);
    EXPECT_EQ(snapshot(a), snapshot(b));
}

}  // namespace

// The byte layout of two worked images (roi and coi are fields; the payload is
// the whole block, not the region). A stream that ends anywhere inside the
// header or the payload loads as null (under LeakSanitizer this also shows that
// every failure frees all); the whole dump loads back the same image.
TEST(ImageDump, ByteLayoutAndTruncation) {
    ImagePtr bgr = makeImage(2, 2, wzEncodingBGR), d = makeImage(3, 1, wzEncodingGray, wzType64F);
    for (int i = 0; i < 12; ++i) bgr->data[i] = static_cast<uint8_t>(0xC0 + i);
    const double px[3] = {0.5, -1.25, 3e-300};
    std::memcpy(d->data, px, sizeof px);
    setRoi(d.get(), 1, 0, 2, 1);
    wzImageSetCOI(d.get(), 2);
    const std::pair<wzImage *, Bytes> cases[] = {
        {bgr.get(), words({wzType8U, wzEncodingBGR, 2, 2, 0, 0, 0, 2, 2, 0})},  // 40 + 12 bytes
        {d.get(), words({wzType64F, wzEncodingGray, 1, 3, 0, 1, 0, 2, 1, 2})}};
    for (const auto &[img, header] : cases) {
        wzStatus st = 1;
        const Bytes b = saveBytes(img, &st);
        Bytes want = header;
        want.insert(want.end(), img->data, img->data + blockBytes(img));
        EXPECT_EQ(st, 0u);
        EXPECT_EQ(b, want);
        for (size_t n = 0; n < b.size(); ++n)
            EXPECT_EQ(loadBytes(b, n).get(), nullptr) << img->type << " cut at " << n;
        expectSameImage(img, loadBytes(b, b.size()).get());
    }
}

// Every type and encoding, all dumps in one stream, read back in order; roi
// and coi are stored as they are, even outside the image.
TEST(ImageDump, RoundTripEveryTypeAndEncodingInOneStream) {
    std::mt19937 rng(2024);
    auto any = [&] { return static_cast<int32_t>(rng() % 2001) - 1000; };
    std::vector<ImagePtr> saved;
    std::vector<long> ends;
    FilePtr f(std::tmpfile());
    ASSERT_TRUE(f);
    for (uint32_t type : kAllTypes)
        for (uint32_t enc : kAllEncodings) {
            saved.push_back(makeImage(1 + rng() % 9, 1 + rng() % 9, enc, type));
            wzImage *img = saved.back().get();
            for (size_t i = 0; i < blockBytes(img); ++i) img->data[i] = static_cast<uint8_t>(rng());
            setRoi(img, any(), any(), any(), any());
            wzImageSetCOI(img, any());
            ASSERT_EQ(wzImageDumpSave(img, f.get()), 0u);
            ends.push_back(std::ftell(f.get()));
            EXPECT_EQ(ends.back() - (ends.size() > 1 ? ends[ends.size() - 2] : 0),
                      40 + static_cast<long>(blockBytes(img)));
        }
    std::rewind(f.get());
    for (size_t i = 0; i < saved.size(); ++i) {
        ImagePtr back(wzImageDumpLoad(f.get()));
        expectSameImage(saved[i].get(), back.get());
        EXPECT_EQ(std::ftell(f.get()), ends[i]);  // just after the dump
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
    // 0 x 5: the header goes out, the empty payload reports failure, and the
    // dump does not load.
    wzStatus st = 0;
    const Bytes b = saveBytes(makeImage(0, 5, wzEncodingGray).get(), &st);
    EXPECT_EQ(st, 0xFFFFFFFFu);
    EXPECT_EQ(b, words({wzType8U, wzEncodingGray, 5, 0, 0, 0, 0, 0, 5, 0}));
    EXPECT_EQ(loadBytes(b, b.size()).get(), nullptr);
    // Unknown type, negative sizes (a positive product): header only, the
    // block unread; an invalid encoding: nothing at all.
    const int32_t cases[][5] = {
        {9, 0, 2, 2, 40}, {wzType8U, 0, -2, -2, 40}, {wzType8U, 5, 2, 2, 0}};
    uint8_t block[8] = {};
    for (const auto &c : cases) {
        wzImage h{};
        h.type = c[0], h.encoding = c[1], h.height = c[2], h.width = c[3], h.data = block;
        EXPECT_EQ(saveBytes(&h, &st).size(), static_cast<size_t>(c[4]));
        EXPECT_EQ(st, 0xFFFFFFFFu);
    }
    // Full streams: too small for the header, then for the payload (the
    // header stays written).
    ImagePtr img = makeImage(2, 2, wzEncodingBGR);
    std::memset(img->data, 3, 12);
    for (size_t cap : {20u, 45u}) {
        std::vector<char> buf(cap, 0);
        FilePtr w(fmemopen(buf.data(), cap, "w"));
        ASSERT_TRUE(w);
        setvbuf(w.get(), nullptr, _IONBF, 0);  // make short writes visible at once
        EXPECT_EQ(wzImageDumpSave(img.get(), w.get()), 0xFFFFFFFFu) << cap;
        if (cap == 45) {
            EXPECT_EQ(buf[4], 1);
        }
    }
}
