// The matrix record (creation, refusals, headers, image views, 32-bit layout)
// and its dump files (exact bytes, several dumps in one stream, refusal of
// empty, truncated or hostile input: null, nothing leaked).
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <tuple>

#include "morven/matrix.h"
#include "support/dump_stream.hpp"

namespace {

using namespace morven_test;

void expectRowsConsistent(const wzMatrix *m) {
    for (int32_t i = 0; i < m->nRows; ++i)
        EXPECT_EQ(m->rowPtr[i], m->data + ptrdiff_t{i} * m->nCols) << i;
}

// Zeroed blocks with consistent row tables (zero sizes too), and refusal of
// negative sizes and of products that wrap in 32 bits (65536 * 65537 =
// 2^32 + 65536). The identity serves as a reference throughout the linear
// algebra tests.
TEST(MatrixRecord, CreateAndRefusals) {
    const int32_t sizes[][2] = {{3, 4}, {0, 0}, {0, 5}, {5, 0}};
    for (auto &s : sizes) {
        wzMatrix *m = wzMatrixCreate(s[0], s[1]);
        ASSERT_NE(m, nullptr);
        EXPECT_TRUE(m->nRows == s[0] && m->nCols == s[1]);
        expectRowsConsistent(m);
        for (int k = 0; k < s[0] * s[1]; ++k) EXPECT_EQ(m->data[k], 0.0);
        wzMatrixRelease(&m);
        EXPECT_EQ(m, nullptr);
        wzMatrixRelease(&m);  // null: harmless
        wzMatrixReleaseHeader(&m);
    }
    const int32_t bad[][2] = {{-1, 4}, {4, -1}, {-3, -3}, {65536, 32768}, {65536, 65537}};
    for (auto &s : bad) EXPECT_EQ(wzMatrixCreate(s[0], s[1]), nullptr) << s[0] << "x" << s[1];
    EXPECT_TRUE(wzMatrixCreateIdentity(46341) == nullptr && wzMatrixCreateHeader(-1, 3) == nullptr);
}

// Headers over a caller's block (and without rows), both image views (the
// channel of interest is kept), and the 32-bit layout round trip.
TEST(MatrixRecord, HeadersViewsAndLayout32) {
    double block[10] = {};
    wzMatrix *h = wzMatrixCreateHeader(5, 2), *e = wzMatrixCreateHeader(0, 4);
    ASSERT_TRUE(h && e);
    EXPECT_TRUE(h->data == nullptr && h->rowPtr[4] == nullptr);
    wzMatrixAssignData(h, block);
    expectRowsConsistent(h);
    wzMatrixReleaseHeader(&h);
    wzMatrixReleaseHeader(&e);
    EXPECT_EQ(h, nullptr);

    wzMatrix *m = wzMatrixCreate(2, 3), *v = wzMatrixCreateHeader(4, 1);  // v: room for more rows
    wzImage *img = wzImageCreateHeader(9, 9, wzEncodingBGR);
    ASSERT_TRUE(m && v && img);
    m->rowPtr[1][2] = 4.25;
    img->roi = wzRect{1, 2, 3, 4};
    img->coi = 3;
    wzMatrixSetImageWrap(m, img);
    EXPECT_TRUE(img->type == wzType64F && img->encoding == wzEncodingGray && img->coi == 3);
    EXPECT_EQ(
        std::tie(img->height, img->width, img->roi.x, img->roi.y, img->roi.width, img->roi.height),
        std::make_tuple(2, 3, 0, 0, 3, 2));
    const wzPoint p{0, 2, 1, 0};
    EXPECT_EQ(wzImageGetVal(img, &p), 4.25);
    wzImageSetMatrixWrap(img, v);
    EXPECT_TRUE(v->nRows == 2 && v->nCols == 3 && v->data == m->data);
    expectRowsConsistent(v);
    wzMatrixReleaseHeader(&v);
    wzImageReleaseHeader(&img);
    wzMatrixRelease(&m);

    static_assert(sizeof(wzMatrix32) == 16 && offsetof(wzMatrix32, nCols) == 12);
    static_assert(sizeof(wzMatrix) == 24 && offsetof(wzMatrix, nRows) == 16);
    double x = 0, *row = &x;
    const wzMatrix full{&x, &row, 6, 5};
    wzMatrix32 r{0xDEADBEEF, 0xFEEDFACE, 0, 0};
    wzMatrix back = full;
    wzMatrixCvtTo32(&full, &r);
    wzMatrixCvtFrom32(&r, &back);
    EXPECT_EQ(std::tie(r.data, r.rowPtr, r.nRows, r.nCols), std::make_tuple(0u, 0u, 6, 5));
    EXPECT_TRUE(back.data == nullptr && back.rowPtr == nullptr && back.nRows == 6 &&
                back.nCols == 5);
}

Bytes save(const wzMatrix *m, wzStatus *st) {
    return saveToBytes([m](FILE *f) { return wzMatrixDumpSave(m, f); }, st);
}

// The dump's 16-byte header: two zero pointer slots, rows, columns.
Bytes header(int32_t rows, int32_t cols) {
    Bytes b(16, 0);
    std::memcpy(&b[8], &rows, 4);  // the supported processors are little-endian
    std::memcpy(&b[12], &cols, 4);
    return b;
}

// Exact bytes, and two dumps in one stream loading back in order with
// nothing after them.
TEST(MatrixDump, BytesAndSequence) {
    wzMatrix *m = wzMatrixCreate(2, 3), *id = wzMatrixCreateIdentity(3);
    const double v[6] = {1.5, -2.0, 3.25, 0.0, -0.0, 1e300};
    std::memcpy(m->data, v, sizeof v);
    wzStatus st = 1;
    Bytes want = header(2, 3);
    want.insert(want.end(), reinterpret_cast<const uint8_t *>(v),
                reinterpret_cast<const uint8_t *>(v + 6));
    EXPECT_EQ(save(m, &st), want);
    EXPECT_EQ(st, 0u);

    FILE *f = std::tmpfile();
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(wzMatrixDumpSave(m, f) | wzMatrixDumpSave(id, f), 0u);
    std::rewind(f);
    wzMatrix *m2 = wzMatrixDumpLoad(f), *id2 = wzMatrixDumpLoad(f);
    EXPECT_EQ(wzMatrixDumpLoad(f), nullptr);
    std::fclose(f);
    ASSERT_TRUE(m2 && id2);
    EXPECT_TRUE(m2->nRows == 2 && m2->nCols == 3 && id2->nRows == 3 && id2->nCols == 3);
    expectRowsConsistent(m2);
    EXPECT_EQ(0, std::memcmp(m2->data, v, sizeof v));
    EXPECT_EQ(0, std::memcmp(id2->data, id->data, 9 * sizeof(double)));
    for (wzMatrix **p : {&m, &id, &m2, &id2}) wzMatrixRelease(p);
}

// An empty matrix saves its header and fails; every proper prefix of a dump
// loads as null; zero, negative or absurd sizes are refused (before any
// large block is allocated), a plausible size without its elements fails on
// the read; a stream that refuses writes fails the save.
TEST(MatrixDump, EmptyTruncatedAndHostileInput) {
    wzMatrix *e = wzMatrixCreate(0, 4), *m = wzMatrixCreate(2, 3);
    wzStatus st = 0;
    EXPECT_EQ(save(e, &st), header(0, 4));
    EXPECT_EQ(st, 0xFFFFFFFFu);
    const Bytes full = save(m, &st);
    ASSERT_EQ(full.size(), 64u);
    for (size_t n = 0; n < full.size(); ++n)
        EXPECT_EQ(loadPrefix(wzMatrixDumpLoad, full, n), nullptr) << "cut at " << n;
    const int32_t sizes[][2] = {{0, 4},
                                {3, 0},
                                {-2, 3},
                                {-2, -3},
                                {INT32_MAX, 2},
                                {65536, 65537},
                                {INT32_MAX, INT32_MAX},
                                {1000, 1000}};
    for (auto &s : sizes)
        EXPECT_EQ(loadPrefix(wzMatrixDumpLoad, header(s[0], s[1]), 16), nullptr)
            << s[0] << "x" << s[1];
    FILE *ro = std::fopen("/dev/null", "r");
    ASSERT_NE(ro, nullptr);
    EXPECT_EQ(wzMatrixDumpSave(m, ro), 0xFFFFFFFFu);
    std::fclose(ro);
    wzMatrixRelease(&e);
    wzMatrixRelease(&m);
}

}  // namespace
