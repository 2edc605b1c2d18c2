// The matrix record: creation, identity, headers, image views, 32-bit layout.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <tuple>
#include <utility>

#include "morven/matrix.h"

namespace {

void expectRowsConsistent(const wzMatrix *m) {
    for (int32_t i = 0; i < m->nRows; ++i)
        EXPECT_EQ(m->rowPtr[i], m->data + static_cast<ptrdiff_t>(i) * m->nCols) << "row " << i;
}

TEST(MatrixRecord, CreateIdentityAndRelease) {
    wzMatrix *m = wzMatrixCreate(3, 4);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(std::tie(m->nRows, m->nCols), std::make_tuple(3, 4));
    EXPECT_EQ(m->rowPtr[2], m->data + 8);
    expectRowsConsistent(m);
    for (int k = 0; k < 12; ++k) EXPECT_EQ(m->data[k], 0.0);
    wzMatrixRelease(&m);
    EXPECT_EQ(m, nullptr);
    wzMatrixRelease(&m);  // null: harmless
    wzMatrixReleaseHeader(&m);

    for (int32_t n : {1, 4}) {
        wzMatrix *id = wzMatrixCreateIdentity(n);
        ASSERT_NE(id, nullptr);
        int ones = 0;
        for (int32_t i = 0; i < n; ++i)
            for (int32_t j = 0; j < n; ++j) {
                EXPECT_EQ(id->rowPtr[i][j], i == j ? 1.0 : 0.0);
                ones += id->data[i * n + j] == 1.0;
            }
        EXPECT_EQ(ones, n);
        wzMatrixRelease(&id);
    }
}

TEST(MatrixRecord, RefusedAndEmptySizes) {
    // Negative sizes or product, and products that wrap in 32 bits to a small
    // positive count (65536 * 65537 = 2^32 + 65536).
    const int32_t bad[][2] = {{-1, 4}, {4, -1}, {-3, -3}, {65536, 32768}, {65536, 65537}};
    for (auto &s : bad) EXPECT_EQ(wzMatrixCreate(s[0], s[1]), nullptr) << s[0] << "x" << s[1];
    EXPECT_EQ(wzMatrixCreateIdentity(46341), nullptr);
    EXPECT_EQ(wzMatrixCreateHeader(-1, 3), nullptr);

    // Zero rows or columns: a record with nothing to touch.
    for (auto &s : {std::pair{0, 0}, std::pair{0, 5}, std::pair{5, 0}}) {
        wzMatrix *m = wzMatrixCreate(s.first, s.second);
        ASSERT_NE(m, nullptr);
        expectRowsConsistent(m);
        wzMatrixRelease(&m);
    }
    wzMatrix *h = wzMatrixCreateHeader(0, 4);
    ASSERT_NE(h, nullptr);
    wzMatrixReleaseHeader(&h);
}

TEST(MatrixRecord, HeadersAndImageViews) {
    double block[10] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
    wzMatrix *h = wzMatrixCreateHeader(5, 2);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->data, nullptr);
    EXPECT_EQ(h->rowPtr[4], nullptr);
    wzMatrixAssignData(h, block);
    EXPECT_EQ(h->rowPtr[4], block + 8);
    expectRowsConsistent(h);
    wzMatrixReleaseHeader(&h);
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(block[9], 9.0);  // the block stays the caller's

    wzMatrix *m = wzMatrixCreate(2, 3);
    ASSERT_NE(m, nullptr);
    m->rowPtr[1][2] = 4.25;
    wzImage *img = wzImageCreateHeader(9, 9, wzEncodingBGR);
    ASSERT_NE(img, nullptr);
    img->roi = wzRect{1, 2, 3, 4};
    img->coi = 3;
    wzMatrixSetImageWrap(m, img);
    EXPECT_EQ(img->type, static_cast<uint32_t>(wzType64F));
    EXPECT_EQ(img->encoding, static_cast<uint32_t>(wzEncodingGray));
    EXPECT_EQ(std::tie(img->height, img->width), std::make_tuple(2, 3));
    EXPECT_EQ(std::tie(img->roi.x, img->roi.y, img->roi.width, img->roi.height),
              std::make_tuple(0, 0, 3, 2));
    EXPECT_EQ(img->coi, 3);
    const wzPoint p{0, 2, 1, 0};
    EXPECT_EQ(wzImageGetVal(img, &p), 4.25);

    wzMatrix *v = wzMatrixCreateHeader(4, 1);  // room for more rows than needed
    ASSERT_NE(v, nullptr);
    wzImageSetMatrixWrap(img, v);
    EXPECT_EQ(std::tie(v->nRows, v->nCols), std::make_tuple(2, 3));
    EXPECT_EQ(v->data, m->data);
    expectRowsConsistent(v);
    wzMatrixReleaseHeader(&v);
    wzImageReleaseHeader(&img);
    wzMatrixRelease(&m);
}

TEST(MatrixRecord, Layout32RoundTrip) {
    static_assert(sizeof(wzMatrix32) == 16 && offsetof(wzMatrix32, nCols) == 12);
    static_assert(sizeof(wzMatrix) == 24 && offsetof(wzMatrix, nRows) == 16);
    double x = 0;
    double *row = &x;
    const wzMatrix m{&x, &row, 6, 5};
    wzMatrix32 r{0xDEADBEEF, 0xFEEDFACE, 0, 0};
    wzMatrixCvtTo32(&m, &r);
    EXPECT_EQ(r.data | r.rowPtr, 0u);
    EXPECT_EQ(std::tie(r.nRows, r.nCols), std::make_tuple(6, 5));
    wzMatrix back = m;
    wzMatrixCvtFrom32(&r, &back);
    EXPECT_EQ(back.data, nullptr);
    EXPECT_EQ(back.rowPtr, nullptr);
    EXPECT_EQ(std::tie(back.nRows, back.nCols), std::make_tuple(6, 5));
}

}  // namespace
