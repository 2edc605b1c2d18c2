// Image dump files: byte layout, round trips, and refusal of short or
// hostile input.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "image/image_internal.hpp"
#include "morven/image.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct ImagePtr {
    wzImage *p;
    explicit ImagePtr(wzImage *img) : p(img) {}
    ~ImagePtr() { wzImageRelease(&p); }
    ImagePtr(const ImagePtr &) = delete;
    ImagePtr &operator=(const ImagePtr &) = delete;
    wzImage *operator->() const { return p; }
    wzImage *get() const { return p; }
};

struct File {
    FILE *f;
    explicit File(FILE *s) : f(s) {}
    ~File() {
        if (f) std::fclose(f);
    }
    File(const File &) = delete;
    File &operator=(const File &) = delete;
};

const uint32_t kTypes[] = {wzType8U, wzType32S, wzType16U, wzType32S24, wzType32F, wzType64F};

size_t blockBytes(const wzImage *img) {
    return static_cast<size_t>(img->height) * img->width *
           morven::channelCount(img->encoding) * morven::elementSize(img->type);
}

// Saves into memory and returns the bytes (and the status through *status).
Bytes saveBytes(const wzImage *img, wzStatus *status) {
    char *buf = nullptr;
    size_t len = 0;
    FILE *f = open_memstream(&buf, &len);
    EXPECT_NE(f, nullptr);
    *status = wzImageDumpSave(img, f);
    std::fclose(f);
    Bytes out(buf, buf + len);
    std::free(buf);
    return out;
}

// Loads from the first n bytes presented as a stream of exactly that length.
wzImage *loadBytes(const uint8_t *bytes, size_t n) {
    File f(std::tmpfile());
    EXPECT_NE(f.f, nullptr);
    if (n) {
        EXPECT_EQ(std::fwrite(bytes, n, 1, f.f), 1u);
    }
    std::rewind(f.f);
    return wzImageDumpLoad(f.f);
}

void putLE(Bytes &b, uint32_t v) {
    for (int k = 0; k < 4; ++k) b.push_back(static_cast<uint8_t>(v >> (8 * k)));
}

Bytes header(uint32_t type, uint32_t enc, int32_t h, int32_t w) {
    Bytes b;
    for (uint32_t v : {type, enc, static_cast<uint32_t>(h), static_cast<uint32_t>(w), 0u, 0u, 0u,
                       static_cast<uint32_t>(w), static_cast<uint32_t>(h), 0u})
        putLE(b, v);
    return b;
}

void expectSameImage(const wzImage *a, const wzImage *b) {
    EXPECT_EQ(a->type, b->type);
    EXPECT_EQ(a->encoding, b->encoding);
    EXPECT_EQ(a->height, b->height);
    EXPECT_EQ(a->width, b->width);
    EXPECT_EQ(a->roi.x, b->roi.x);
    EXPECT_EQ(a->roi.y, b->roi.y);
    EXPECT_EQ(a->roi.width, b->roi.width);
    EXPECT_EQ(a->roi.height, b->roi.height);
    EXPECT_EQ(a->coi, b->coi);
    ASSERT_NE(b->data, nullptr);
    EXPECT_EQ(std::memcmp(a->data, b->data, blockBytes(a)), 0);
}

TEST(ImageDump, BgrLayoutAndRoundTrip) {
    ImagePtr img(wzImageCreate(2, 2, wzEncodingBGR));
    for (int i = 0; i < 12; ++i) img->data[i] = static_cast<uint8_t>(0xC0 + i);
    wzStatus st = 1;
    const Bytes b = saveBytes(img.get(), &st);
    EXPECT_EQ(st, 0u);
    ASSERT_EQ(b.size(), 52u);
    Bytes want = header(wzType8U, wzEncodingBGR, 2, 2);
    want.insert(want.end(), img->data, img->data + 12);
    EXPECT_EQ(b, want);
    const uint8_t first8[8] = {0, 0, 0, 0, 1, 0, 0, 0};
    EXPECT_EQ(std::memcmp(b.data(), first8, 8), 0);

    ImagePtr back(loadBytes(b.data(), b.size()));
    ASSERT_NE(back.get(), nullptr);
    expectSameImage(img.get(), back.get());
}

TEST(ImageDump, RoiAndCoiAreFields) {
    ImagePtr img(wzImageCreateWithType(3, 1, wzEncodingGray, wzType64F));
    const double px[3] = {0.5, -1.25, 3e-300};
    std::memcpy(img->data, px, sizeof px);
    const wzRect r{1, 0, 2, 1};
    wzImageSetROI(img.get(), &r);
    wzImageSetCOI(img.get(), 2);
    wzStatus st = 1;
    const Bytes b = saveBytes(img.get(), &st);
    EXPECT_EQ(st, 0u);
    ASSERT_EQ(b.size(), 40u + 24u);
    const uint8_t roiBytes[20] = {1, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0};
    EXPECT_EQ(std::memcmp(b.data() + 20, roiBytes, 20), 0);
    EXPECT_EQ(std::memcmp(b.data() + 40, px, 24), 0);  // whole block, not the region

    ImagePtr back(loadBytes(b.data(), b.size()));
    ASSERT_NE(back.get(), nullptr);
    expectSameImage(img.get(), back.get());
}

TEST(ImageDump, RoundTripEveryTypeAndEncoding) {
    std::mt19937 rng(2024);
    std::uniform_int_distribution<int> any(-1000, 1000);
    for (uint32_t type : kTypes) {
        for (uint32_t enc = 0; enc <= 4; ++enc) {
            const int w = std::uniform_int_distribution<int>(1, 9)(rng);
            const int h = std::uniform_int_distribution<int>(1, 9)(rng);
            ImagePtr img(wzImageCreateWithType(w, h, enc, type));
            ASSERT_NE(img.get(), nullptr);
            const size_t n = blockBytes(img.get());
            for (size_t i = 0; i < n; ++i) img->data[i] = static_cast<uint8_t>(rng());
            // roi is stored as read, even outside the image.
            const wzRect r{any(rng), any(rng), any(rng), any(rng)};
            wzImageSetROI(img.get(), &r);
            wzImageSetCOI(img.get(), any(rng));

            File f(std::tmpfile());
            ASSERT_NE(f.f, nullptr);
            ASSERT_EQ(wzImageDumpSave(img.get(), f.f), 0u);
            EXPECT_EQ(std::ftell(f.f), static_cast<long>(40 + n));
            std::rewind(f.f);
            ImagePtr back(wzImageDumpLoad(f.f));
            ASSERT_NE(back.get(), nullptr) << "type " << type << " encoding " << enc;
            expectSameImage(img.get(), back.get());
            EXPECT_EQ(std::ftell(f.f), static_cast<long>(40 + n));  // just after the dump
        }
    }
}

TEST(ImageDump, TwoDumpsBackToBack) {
    ImagePtr a(wzImageCreateWithType(3, 2, wzEncodingRGBA, wzType16U));
    ImagePtr b(wzImageCreateWithType(1, 4, wzEncodingGray, wzType32F));
    for (size_t i = 0; i < blockBytes(a.get()); ++i) a->data[i] = static_cast<uint8_t>(i * 7);
    for (size_t i = 0; i < blockBytes(b.get()); ++i) b->data[i] = static_cast<uint8_t>(i * 13);
    wzImageSetCOI(b.get(), 3);

    File f(std::tmpfile());
    ASSERT_EQ(wzImageDumpSave(a.get(), f.f), 0u);
    ASSERT_EQ(wzImageDumpSave(b.get(), f.f), 0u);
    std::rewind(f.f);
    ImagePtr a2(wzImageDumpLoad(f.f));
    ImagePtr b2(wzImageDumpLoad(f.f));
    ASSERT_NE(a2.get(), nullptr);
    ASSERT_NE(b2.get(), nullptr);
    expectSameImage(a.get(), a2.get());
    expectSameImage(b.get(), b2.get());
    ImagePtr none(wzImageDumpLoad(f.f));  // the stream is exhausted
    EXPECT_EQ(none.get(), nullptr);
}

// A stream that ends anywhere inside the header or the payload loads as null.
// Run under LeakSanitizer this also shows that every failure frees all.
TEST(ImageDump, TruncatedAtEveryOffset) {
    for (uint32_t type : {wzType8U, wzType16U, wzType64F}) {
        ImagePtr img(wzImageCreateWithType(3, 2, wzEncodingBGR, type));
        for (size_t i = 0; i < blockBytes(img.get()); ++i) img->data[i] = static_cast<uint8_t>(i);
        wzStatus st = 1;
        const Bytes b = saveBytes(img.get(), &st);
        ASSERT_EQ(st, 0u);
        for (size_t n = 0; n < b.size(); ++n) {
            ImagePtr got(loadBytes(b.data(), n));
            EXPECT_EQ(got.get(), nullptr) << "type " << type << " cut at " << n;
        }
        ImagePtr whole(loadBytes(b.data(), b.size()));
        ASSERT_NE(whole.get(), nullptr);
        expectSameImage(img.get(), whole.get());
    }
}

// Headers that describe no loadable block are refused before the payload is
// allocated. (The sanitizer run limits allocations to a few MiB, so a huge
// calloc here would abort the test rather than quietly fail.)
TEST(ImageDump, HostileHeadersLoadAsNull) {
    struct Case {
        uint32_t type, enc;
        int32_t h, w;
    };
    const Case cases[] = {
        {wzType8U, 7, 2, 2},                       // invalid encoding
        {wzType8U, 0xFFFFFFFFu, 1, 1},             // invalid encoding, channels -1
        {3, wzEncodingGray, 2, 2},                 // unknown type: empty payload
        {wzType8U, wzEncodingGray, -1, 5},         // negative element count
        {wzType64F, wzEncodingRGBA, 2, -3},        // negative element count
        {wzType8U, wzEncodingGray, 65536, 65536},  // 2^32 elements
        {wzType8U, wzEncodingGray, 46341, 46341},  // just past INT32_MAX
        {wzType64F, wzEncodingRGBA, 0x40000000, 0x40000000},
        {wzType32F, wzEncodingBGR, 0x7FFFFFFF, 1},  // 3 * INT32_MAX
        {wzType8U, wzEncodingGray, 0, 5},           // empty payload
    };
    for (const Case &c : cases) {
        Bytes b = header(c.type, c.enc, c.h, c.w);
        b.resize(b.size() + 256, 0x5A);  // a payload is there to read
        ImagePtr got(loadBytes(b.data(), b.size()));
        EXPECT_EQ(got.get(), nullptr) << c.type << " " << c.enc << " " << c.h << "x" << c.w;
    }
}

TEST(ImageDump, EmptyBlocksWriteHeaderAndFail) {
    // 0 x 5: the header goes out, the empty payload reports failure, and the
    // dump does not load.
    ImagePtr z(wzImageCreate(0, 5, wzEncodingGray));
    ASSERT_NE(z.get(), nullptr);
    wzStatus st = 0;
    const Bytes b = saveBytes(z.get(), &st);
    EXPECT_EQ(st, 0xFFFFFFFFu);
    EXPECT_EQ(b, header(wzType8U, wzEncodingGray, 5, 0));
    ImagePtr back(loadBytes(b.data(), b.size()));
    EXPECT_EQ(back.get(), nullptr);

    // Unknown type and negative sizes: header, then failure; the block is not read.
    uint8_t guard[8] = {};
    ImagePtr h(wzImageCreateHeaderWithType(2, 2, wzEncodingGray, 9));
    h->data = guard;
    EXPECT_EQ(saveBytes(h.get(), &st).size(), 40u);
    EXPECT_EQ(st, 0xFFFFFFFFu);
    h->type = wzType8U;
    h->width = -2;
    h->height = -2;  // the product would be positive
    EXPECT_EQ(saveBytes(h.get(), &st).size(), 40u);
    EXPECT_EQ(st, 0xFFFFFFFFu);

    // An invalid encoding writes nothing at all.
    h->width = h->height = 2;
    h->encoding = 5;
    EXPECT_EQ(saveBytes(h.get(), &st).size(), 0u);
    EXPECT_EQ(st, 0xFFFFFFFFu);
    h->data = nullptr;
}

TEST(ImageDump, FailedWritesReportFailure) {
    ImagePtr img(wzImageCreate(2, 2, wzEncodingBGR));
    std::memset(img->data, 3, 12);

    // A stream opened for reading only.
    char ro[64] = {};
    File r(fmemopen(ro, sizeof ro, "r"));
    ASSERT_NE(r.f, nullptr);
    EXPECT_EQ(wzImageDumpSave(img.get(), r.f), 0xFFFFFFFFu);

    // A full memory buffer: too small for the header, then too small for the payload.
    for (size_t cap : {20u, 45u}) {
        std::vector<char> buf(cap, 0);
        File w(fmemopen(buf.data(), cap, "w"));
        ASSERT_NE(w.f, nullptr);
        setvbuf(w.f, nullptr, _IONBF, 0);  // make short writes visible at once
        EXPECT_EQ(wzImageDumpSave(img.get(), w.f), 0xFFFFFFFFu) << cap;
        if (cap == 45) {
            EXPECT_EQ(buf[4], 1);  // the header stays written
        }
    }
}

}  // namespace
