// Matrix dump files: exact bytes, round trips, several dumps in one stream,
// and refusal of empty, truncated or hostile input (null, nothing leaked).
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "support/dump_stream.hpp"
#include "morven/matrix.h"

namespace {

using namespace morven_test;

Bytes save(const wzMatrix *m, wzStatus *status) {
    return saveToBytes([m](FILE *f) { return wzMatrixDumpSave(m, f); }, status);
}

// A stream holding exactly the given bytes, positioned at the start.
FILE *streamOf(const Bytes &b, size_t n) {
    FILE *f = std::tmpfile();
    EXPECT_NE(f, nullptr);
    if (n) {
        EXPECT_EQ(std::fwrite(b.data(), n, 1, f), 1u);
    }
    std::rewind(f);
    return f;
}

Bytes header(int32_t rows, int32_t cols) {
    Bytes b(16, 0);
    std::memcpy(&b[8], &rows, 4);  // the supported processors are little-endian
    std::memcpy(&b[12], &cols, 4);
    return b;
}

TEST(MatrixDump, BytesRoundTripAndSequence) {
    wzMatrix *m = wzMatrixCreate(2, 3), *id = wzMatrixCreateIdentity(3);
    const double v[6] = {1.5, -2.0, 3.25, 0.0, -0.0, 1e300};
    std::memcpy(m->data, v, sizeof v);
    wzStatus st = 1;
    Bytes b = save(m, &st);
    EXPECT_EQ(st, 0u);
    ASSERT_EQ(b.size(), 64u);
    const uint8_t head[16] = {0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0};
    EXPECT_EQ(0, std::memcmp(b.data(), head, 16));
    EXPECT_EQ(0, std::memcmp(b.data() + 16, v, sizeof v));

    // Two dumps in one stream load back in order; a third load finds none.
    FILE *f = std::tmpfile();
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(wzMatrixDumpSave(m, f), 0u);
    EXPECT_EQ(wzMatrixDumpSave(id, f), 0u);
    std::rewind(f);
    wzMatrix *m2 = wzMatrixDumpLoad(f), *id2 = wzMatrixDumpLoad(f);
    EXPECT_EQ(wzMatrixDumpLoad(f), nullptr);
    std::fclose(f);
    ASSERT_TRUE(m2 && id2);
    EXPECT_EQ(m2->nRows, 2);
    EXPECT_EQ(m2->nCols, 3);
    EXPECT_EQ(0, std::memcmp(m2->data, v, sizeof v));
    for (int i = 0; i < 2; ++i) EXPECT_EQ(m2->rowPtr[i], m2->data + 3 * i);
    EXPECT_EQ(id2->nRows, 3);
    EXPECT_EQ(0, std::memcmp(id2->data, id->data, 9 * sizeof(double)));
    for (wzMatrix **p : {&m, &id, &m2, &id2}) wzMatrixRelease(p);
}

TEST(MatrixDump, EmptyTruncatedAndHostileInput) {
    // No element: the save writes the header and fails; such a dump does
    // not load.
    wzMatrix *e = wzMatrixCreate(0, 4);
    wzStatus st = 0;
    Bytes eb = save(e, &st);
    EXPECT_EQ(st, 0xFFFFFFFFu);
    EXPECT_EQ(eb, header(0, 4));
    wzMatrixRelease(&e);

    // Every proper prefix of a valid dump loads as null.
    wzMatrix *m = wzMatrixCreate(2, 3);
    Bytes full = save(m, &st);
    wzMatrixRelease(&m);
    ASSERT_EQ(full.size(), 64u);
    for (size_t n = 0; n < full.size(); ++n) {
        FILE *f = streamOf(full, n);
        EXPECT_EQ(wzMatrixDumpLoad(f), nullptr) << "cut at " << n;
        std::fclose(f);
    }

    // Zero, negative or absurd sizes are refused before any large block is
    // allocated; a plausible size without its elements fails on the read.
    const int32_t sizes[][2] = {{0, 4}, {3, 0}, {-2, 3}, {-2, -3}, {INT32_MAX, 2},
                                {65536, 65537}, {INT32_MAX, INT32_MAX}, {1000, 1000}};
    for (auto &s : sizes) {
        Bytes h = header(s[0], s[1]);
        FILE *f = streamOf(h, h.size());
        EXPECT_EQ(wzMatrixDumpLoad(f), nullptr) << s[0] << "x" << s[1];
        std::fclose(f);
    }

    // A stream that refuses writes.
    wzMatrix *one = wzMatrixCreateIdentity(1);
    FILE *ro = std::fopen("/dev/null", "r");
    ASSERT_NE(ro, nullptr);
    EXPECT_EQ(wzMatrixDumpSave(one, ro), 0xFFFFFFFFu);
    std::fclose(ro);
    wzMatrixRelease(&one);
}

}  // namespace
