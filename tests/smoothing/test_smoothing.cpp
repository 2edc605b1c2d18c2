// Selective smoothing: support tables, worked numbers, refusals and
// cancellation. The kernel suite holds every pass against the rule.
#include <gtest/gtest.h>

#include <cstdlib>
#include <tuple>

#include "morven/smoothing.h"
#include "support/image_fixtures.hpp"

using namespace morven_test;

namespace {

using Rows = std::vector<std::vector<int>>;

// An image whose channels 1-3 all hold rows[y][x] (other bytes 77).
ImagePtr fromRows(const Rows &rows, uint32_t enc = wzEncodingBGR) {
    ImagePtr img = makeImage(int(rows[0].size()), int(rows.size()), enc);
    std::memset(img->data, 77, blockBytes(img.get()));
    for (size_t y = 0; y < rows.size(); ++y)
        for (size_t x = 0; x < rows[0].size(); ++x)
            for (int c = 1; c <= 3; ++c) *at(img.get(), int(x), int(y), c) = uint8_t(rows[y][x]);
    return img;
}

class SelectiveSmooth : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(support, nullptr); }
    void TearDown() override { wzSelectiveSmoothSupportRelease(&support); }
    wzSelectiveSmoothSupport *support = wzSelectiveSmoothSupportCreate();
};

// |i - j| and the single-precision i / j (0 for j = 0); releases null the
// handles and tolerate a second call.
TEST_F(SelectiveSmooth, SupportTablesAndRecords) {
    const wzMatrix *ad = support->absDiff, *ra = support->ratio;
    ASSERT_TRUE(ad && ra && ad->nRows == 256 && ad->nCols == 256 && ra->nRows == 256 &&
                ra->nCols == 256);
    for (int i = 0; i < 256; ++i)
        for (int j = 0; j < 256; ++j)
            ASSERT_TRUE(ad->rowPtr[i][j] == std::abs(i - j) &&
                        ra->rowPtr[i][j] == (j ? float(i) / float(j) : 0.0f))
                << i << ", " << j;
    wzSelectiveSmoothParams *p = wzSelectiveSmoothParamsDefault();
    for (int k = 0; k < 2; ++k)
        wzSelectiveSmoothSupportRelease(&support), wzSelectiveSmoothParamsRelease(&p);
    EXPECT_TRUE(support == nullptr && p == nullptr);
}

// The default record (t = 25, 2 passes) through the public call. Flat guide
// 100 on 2 x 2, input (10, 20 / 10, 10): the first pass accepts the three
// pairs touching the 20 (15, 12 / 15, 15), the second gives (13, 14 / 13,
// 13). A guide step of 24 between columns, input 10 | 200: smoothed as
// ((10 + 2 * 176) / 3, (200 + 2 * 34) / 3). Every other case of the rule is
// in the kernel suite (SmoothingKernels).
TEST_F(SelectiveSmooth, DefaultRecordWorkedCases) {
    wzSelectiveSmoothParams *dflt = wzSelectiveSmoothParamsDefault();
    const Rows cases[][3] = {
        {{{100, 100}, {100, 100}}, {{10, 20}, {10, 10}}, {{13, 14}, {13, 13}}},
        {{{100, 124}, {100, 124}}, {{10, 200}, {10, 200}}, {{120, 89}, {120, 89}}},
    };
    for (const auto &k : cases) {
        ImagePtr g = fromRows(k[0]), in = fromRows(k[1]), out = fromRows(k[1], wzEncodingRGBA);
        ASSERT_EQ(wzSelectiveSmooth(dflt, support, g.get(), in.get(), out.get(), nullptr), 0u);
        EXPECT_EQ(snapshot(out.get()), snapshot(fromRows(k[2], wzEncodingRGBA).get()))
            << "case " << (&k - cases);
    }
    wzSelectiveSmoothParamsRelease(&dflt);
}

// Cancellation and refusals (not 8-bit, fewer than three channels, another
// size: choices of this library) write nothing.
TEST_F(SelectiveSmooth, CancelAndRefusalsWriteNothing) {
    std::mt19937 rng(7);
    ImagePtr g = makeImage(5, 6, wzEncodingBGR), x = makeImage(5, 6, wzEncodingBGR),
             o = makeImage(5, 6, wzEncodingBGR);
    ImagePtr gray = makeImage(5, 6, wzEncodingGray), wide = makeImage(6, 6, wzEncodingBGR),
             deep = makeImage(5, 6, wzEncodingBGR, wzType16U);
    for (wzImage *img : {g.get(), x.get(), o.get(), gray.get(), wide.get(), deep.get()})
        fillRandom(img, rng);
    auto outputs = [&] {
        return std::vector{snapshot(o.get()), snapshot(gray.get()), snapshot(wide.get())};
    };
    const auto before = outputs();
    const wzSelectiveSmoothParams p{0.1f, 2};
    const uint32_t flag = 1;
    EXPECT_EQ(wzSelectiveSmooth(&p, support, g.get(), x.get(), o.get(), &flag), 2u);
    for (auto [gi, xi, oi] : {std::tuple{gray.get(), x.get(), o.get()},
                              {g.get(), x.get(), gray.get()},
                              {g.get(), deep.get(), o.get()},
                              {g.get(), x.get(), wide.get()}})
        EXPECT_EQ(wzSelectiveSmooth(&p, support, gi, xi, oi, nullptr), 1u);
    EXPECT_EQ(outputs(), before);
}

}  // namespace
