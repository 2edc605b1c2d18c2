// Table look-ups: the row kernel in every instruction set against the tables
// byte by byte, and the histogram-matching and contrast apply steps over
// regions, in place and through overlapping headers, against the documented
// pixel-by-pixel loops.
#include <gtest/gtest.h>

#include <vector>

#include "image/kernels.hpp"
#include "kernel_support.hpp"

using namespace kernel_test;
using morven::Isa;

namespace {

// wzHistogramMatchApply as documented, straight on the bytes: source region
// row by row, the destination in step from its own region origin.
void referenceMatch(const uint8_t *table, const wzImage &src, const uint8_t *sData,
                    const wzImage &dst, uint8_t *dData) {
    const int ns = wzGetNChannelFromEncoding(src.encoding);
    const int nd = wzGetNChannelFromEncoding(dst.encoding);
    for (int y = 0; y < src.roi.height; ++y)
        for (int x = 0; x < src.roi.width; ++x) {
            const uint8_t *s =
                sData + static_cast<size_t>((src.roi.y + y) * src.width + src.roi.x + x) * ns;
            uint8_t *d =
                dData + static_cast<size_t>((dst.roi.y + y) * dst.width + dst.roi.x + x) * nd;
            if (ns == 1) {
                *d = table[*s];
                continue;
            }
            uint8_t v[3];
            for (int c = 0; c < 3; ++c) v[c] = table[256 * c + s[offsetOf(src.encoding, c + 1)]];
            for (int c = 0; c < 3; ++c) d[offsetOf(dst.encoding, c + 1)] = v[c];
        }
}

// wzContrastEnhanceApply as documented: whole images, channel by channel.
void referenceContrast(const uint8_t *curve, const wzImage &src, const uint8_t *sData,
                       const wzImage &dst, uint8_t *dData) {
    const int n = wzGetNChannelFromEncoding(src.encoding);
    const int m = wzGetNChannelFromEncoding(dst.encoding);
    for (int y = 0; y < src.height; ++y)
        for (int x = 0; x < src.width; ++x) {
            if (n == 1) {
                dData[y * src.width + x] = curve[sData[y * src.width + x]];
                continue;
            }
            for (int c = 1; c <= 3; ++c)
                dData[(y * dst.width + x) * m + offsetOf(dst.encoding, c)] =
                    curve[sData[(y * src.width + x) * n + offsetOf(src.encoding, c)]];
        }
}

}  // namespace

TEST(KernelLut, RowKernelMatchesTheTablesInEveryVariant) {
    std::mt19937 rng(11);
    uint8_t tables[4][256];
    for (auto &t : tables) fillBytes(t, 256, rng);
    // Stride, and per byte position the table used (-1: byte left alone).
    struct Layout {
        int stride;
        int slot[4];
    };
    const Layout layouts[] = {{1, {0, -1, -1, -1}}, {3, {0, 1, 2, -1}},   {3, {2, 0, 1, -1}},
                              {3, {0, 0, 0, -1}},   {3, {1, -1, 1, -1}},  {3, {0, 1, 0, -1}},
                              {4, {0, 1, 2, -1}},   {4, {-1, 2, 1, 0}},   {4, {0, 0, 0, -1}},
                              {4, {0, 1, 2, 3}},    {4, {-1, -1, -1, -1}}};
    for (Isa isa : availableIsas())
        for (const Layout &lay : layouts) {
            morven::LutLayout layout{lay.stride, {nullptr, nullptr, nullptr, nullptr}};
            for (int k = 0; k < lay.stride; ++k)
                if (lay.slot[k] >= 0) layout.table[k] = tables[lay.slot[k]];
            for (size_t n : awkwardLengths())
                for (bool inPlace : {false, true}) {
                    SCOPED_TRACE(isaName(isa) + " stride " + std::to_string(lay.stride) +
                                 " slots " + std::to_string(lay.slot[0]) +
                                 std::to_string(lay.slot[1]) + std::to_string(lay.slot[2]) + " n " +
                                 std::to_string(n) + (inPlace ? " in place" : ""));
                    const size_t bytes = n * static_cast<size_t>(lay.stride);
                    GuardedBlock src(bytes, n % 2 == 0);
                    GuardedBlock dst(bytes, n % 3 == 0);
                    fillBytes(src.data, bytes, rng);
                    fillBytes(dst.data, bytes, rng);
                    const std::vector<uint8_t> s0(src.data, src.data + bytes);
                    std::vector<uint8_t> expected(
                        inPlace ? s0 : std::vector<uint8_t>(dst.data, dst.data + bytes));
                    for (size_t i = 0; i < bytes; ++i) {
                        const int slot = lay.slot[i % static_cast<size_t>(lay.stride)];
                        if (slot >= 0) expected[i] = tables[slot][s0[i]];
                    }
                    uint8_t *out = inPlace ? src.data : dst.data;
                    morven::lutRow(isa, layout, src.data, out, n);
                    ASSERT_EQ(std::vector<uint8_t>(out, out + bytes), expected);
                    if (!inPlace) {
                        ASSERT_EQ(std::vector<uint8_t>(src.data, src.data + bytes), s0);
                    }
                }
        }
}

TEST(KernelLut, MatchApplyEqualsThePixelLoopOverRegionsAndOverlaps) {
    std::mt19937 rng(12);
    uint8_t table[768];
    fillBytes(table, sizeof table, rng);
    for (uint32_t se : kEncodings)
        for (uint32_t de : kEncodings)
            for (int round = 0; round < 12; ++round) {
                SCOPED_TRACE(std::to_string(se) + " -> " + std::to_string(de) + " round " +
                             std::to_string(round));
                const int32_t w = 1 + static_cast<int32_t>(rng() % 90);
                const int32_t h = 1 + static_cast<int32_t>(rng() % 4);
                const wzRect roi = randomRegion(w, h, rng);
                const size_t sBytes = blockSize(w, h, se);
                const size_t dBytes = blockSize(w, h, de);
                // Separate images, each region at its own origin.
                {
                    GuardedBlock sb(sBytes), db(dBytes);
                    fillBytes(sb.data, sBytes, rng);
                    fillBytes(db.data, dBytes, rng);
                    wzRect droi = roi;
                    droi.x = static_cast<int32_t>(rng() % static_cast<uint32_t>(w - roi.width + 1));
                    droi.y =
                        static_cast<int32_t>(rng() % static_cast<uint32_t>(h - roi.height + 1));
                    Header s(w, h, se, sb.data, roi), d(w, h, de, db.data, droi);
                    std::vector<uint8_t> expect(db.data, db.data + dBytes);
                    referenceMatch(table, *s.img, sb.data, *d.img, expect.data());
                    ASSERT_EQ(wzHistogramMatchApply(nullptr, table, s.img, d.img, nullptr), 0u);
                    ASSERT_EQ(std::vector<uint8_t>(db.data, db.data + dBytes), expect);
                }
                // In place on one record, and through a second header shifted
                // by a few bytes over the same block (order matters there).
                if (se != de) continue;
                for (size_t shift : {size_t{0}, size_t{1}, size_t{5}}) {
                    GuardedBlock b(sBytes + shift);
                    fillBytes(b.data, sBytes + shift, rng);
                    std::vector<uint8_t> expect(b.data, b.data + sBytes + shift);
                    Header s(w, h, se, b.data, roi), d(w, h, se, b.data + shift, roi);
                    wzImage *dst = shift == 0 ? s.img : d.img;
                    referenceMatch(table, *s.img, expect.data(), *dst, expect.data() + shift);
                    ASSERT_EQ(wzHistogramMatchApply(nullptr, table, s.img, dst, nullptr), 0u);
                    ASSERT_EQ(std::vector<uint8_t>(b.data, b.data + sBytes + shift), expect);
                }
            }
}

TEST(KernelLut, ContrastApplyEqualsThePixelLoopInPlaceAndAcrossLayouts) {
    std::mt19937 rng(13);
    uint8_t curve[256];
    fillBytes(curve, sizeof curve, rng);
    for (uint32_t se : kEncodings)
        for (uint32_t de : kEncodings) {
            const bool gray = se == wzEncodingGray;
            if (gray != (de == wzEncodingGray)) continue;  // refused combinations
            for (int round = 0; round < 12; ++round) {
                SCOPED_TRACE(std::to_string(se) + " -> " + std::to_string(de) + " round " +
                             std::to_string(round));
                const int32_t w = 1 + static_cast<int32_t>(rng() % 90);
                const int32_t h = 1 + static_cast<int32_t>(rng() % 4);
                // A colour destination may be wider: it is addressed with its own width.
                const int32_t dw = gray ? w : w + static_cast<int32_t>(rng() % 3);
                const size_t sBytes = blockSize(w, h, se);
                const size_t dBytes = blockSize(dw, h, de);
                {
                    GuardedBlock sb(sBytes), db(dBytes);
                    fillBytes(sb.data, sBytes, rng);
                    fillBytes(db.data, dBytes, rng);
                    Header s(w, h, se, sb.data, {0, 0, w, h}), d(dw, h, de, db.data, {0, 0, dw, h});
                    std::vector<uint8_t> expect(db.data, db.data + dBytes);
                    referenceContrast(curve, *s.img, sb.data, *d.img, expect.data());
                    ASSERT_EQ(wzContrastEnhanceApply(curve, s.img, d.img, nullptr), 0u);
                    ASSERT_EQ(std::vector<uint8_t>(db.data, db.data + dBytes), expect);
                }
                if (se != de) continue;
                for (size_t shift : {size_t{0}, size_t{2}, size_t{7}}) {
                    GuardedBlock b(sBytes + shift);
                    fillBytes(b.data, sBytes + shift, rng);
                    std::vector<uint8_t> expect(b.data, b.data + sBytes + shift);
                    Header s(w, h, se, b.data, {0, 0, w, h}),
                        d(w, h, se, b.data + shift, {0, 0, w, h});
                    wzImage *dst = shift == 0 ? s.img : d.img;
                    referenceContrast(curve, *s.img, expect.data(), *dst, expect.data() + shift);
                    ASSERT_EQ(wzContrastEnhanceApply(curve, s.img, dst, nullptr), 0u);
                    ASSERT_EQ(std::vector<uint8_t>(b.data, b.data + sBytes + shift), expect);
                }
            }
        }
}
