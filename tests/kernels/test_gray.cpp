// Gray conversion of 8-bit colour pixels: every variant on all 2^24 colours
// against the fixed-point formula, on awkward row lengths of every layout
// against the table sum, and through wzImageCvtColor over regions.
#include <gtest/gtest.h>

#include <vector>

#include "image/kernels.hpp"
#include "kernel_support.hpp"

using namespace kernel_test;
using morven::Isa;

namespace {

uint8_t formulaGray(int b, int g, int r) {
    return static_cast<uint8_t>((8192 + 1868 * b + 9617 * g + 4899 * r) >> 14);
}

uint8_t tableGray(int b, int g, int r) {
    return static_cast<uint8_t>(
        (wz_toGray_tab[b] + wz_toGray_tab[256 + g] + wz_toGray_tab[512 + r]) >> 14);
}

}  // namespace

TEST(KernelGray, EveryColourGivesTheFormulaInEveryVariant) {
    // The table holds the formula's terms.
    for (int v = 0; v < 256; ++v) {
        ASSERT_EQ(wz_toGray_tab[v], 8192 + 1868 * v);
        ASSERT_EQ(wz_toGray_tab[256 + v], 9617 * v);
        ASSERT_EQ(wz_toGray_tab[512 + v], 4899 * v);
    }
    // All 2^24 colours as one BGR row, ending at a guard page.
    constexpr size_t kColours = size_t{1} << 24;
    GuardedBlock src(3 * kColours);
    for (size_t c = 0; c < kColours; ++c) {
        src.data[3 * c] = static_cast<uint8_t>(c);
        src.data[3 * c + 1] = static_cast<uint8_t>(c >> 8);
        src.data[3 * c + 2] = static_cast<uint8_t>(c >> 16);
    }
    std::vector<uint8_t> expect(kColours);
    for (size_t c = 0; c < kColours; ++c) expect[c] = formulaGray(c & 255, (c >> 8) & 255, c >> 16);
    const ptrdiff_t bgr[3] = {0, 1, 2};
    for (Isa isa : availableIsas()) {
        SCOPED_TRACE(isaName(isa));
        GuardedBlock dst(kColours);
        morven::grayRow8(isa, src.data, 3, bgr, dst.data, kColours);
        ASSERT_EQ(0, std::memcmp(dst.data, expect.data(), kColours));
    }
}

TEST(KernelGray, AwkwardRowsOfEveryLayoutMatchTheTableSum) {
    std::mt19937 rng(21);
    for (uint32_t enc : {wzEncodingBGR, wzEncodingRGB, wzEncodingARGB, wzEncodingRGBA}) {
        const int stride = wzGetNChannelFromEncoding(enc);
        const ptrdiff_t off[3] = {offsetOf(enc, 1), offsetOf(enc, 2), offsetOf(enc, 3)};
        for (Isa isa : availableIsas())
            for (size_t n : awkwardLengths()) {
                SCOPED_TRACE(isaName(isa) + " encoding " + std::to_string(enc) + " n " +
                             std::to_string(n));
                GuardedBlock src(n * stride, n % 2 == 0), dst(n, n % 3 == 0);
                fillBytes(src.data, n * stride, rng);
                morven::grayRow8(isa, src.data, stride, off, dst.data, n);
                for (size_t i = 0; i < n; ++i) {
                    const uint8_t *p = src.data + i * stride;
                    ASSERT_EQ(dst.data[i], tableGray(p[off[0]], p[off[1]], p[off[2]]))
                        << "pixel " << i;
                }
            }
    }
}

TEST(KernelGray, CvtColorToGrayOverRegionsAndInPlace) {
    std::mt19937 rng(22);
    for (uint32_t enc : {wzEncodingBGR, wzEncodingRGB, wzEncodingARGB, wzEncodingRGBA})
        for (int round = 0; round < 20; ++round) {
            const int32_t w = 1 + static_cast<int32_t>(rng() % 150);
            const int32_t h = 1 + static_cast<int32_t>(rng() % 4);
            const int stride = wzGetNChannelFromEncoding(enc);
            const wzRect roi = randomRegion(w, h, rng);
            // The destination walks from its own origin with its own width.
            const int32_t gw = roi.width + static_cast<int32_t>(rng() % 5);
            const wzRect groi{
                static_cast<int32_t>(rng() % static_cast<uint32_t>(gw - roi.width + 1)), 0,
                roi.width, roi.height};
            GuardedBlock sb(blockSize(w, h, enc)), gb(blockSize(gw, roi.height, wzEncodingGray));
            fillBytes(sb.data, blockSize(w, h, enc), rng);
            fillBytes(gb.data, blockSize(gw, roi.height, wzEncodingGray), rng);
            std::vector<uint8_t> expect(gb.data,
                                        gb.data + blockSize(gw, roi.height, wzEncodingGray));
            for (int y = 0; y < roi.height; ++y)
                for (int x = 0; x < roi.width; ++x) {
                    const uint8_t *p = sb.data + ((roi.y + y) * w + roi.x + x) * stride;
                    expect[(groi.y + y) * gw + groi.x + x] =
                        formulaGray(p[offsetOf(enc, 1)], p[offsetOf(enc, 2)], p[offsetOf(enc, 3)]);
                }
            Header s(w, h, enc, sb.data, roi), g(gw, roi.height, wzEncodingGray, gb.data, groi);
            ASSERT_EQ(wzImageCvtColor(s.img, g.img), 0u);
            ASSERT_EQ(std::vector<uint8_t>(gb.data, gb.data + expect.size()), expect);

            // A gray header over the colour block itself: each level lands at
            // or before the pixel it comes from.
            std::vector<uint8_t> colour(sb.data, sb.data + blockSize(w, h, enc));
            Header inPlace(w, h, wzEncodingGray, sb.data, {0, 0, w, h});
            Header whole(w, h, enc, sb.data, {0, 0, w, h});
            ASSERT_EQ(wzImageCvtColor(whole.img, inPlace.img), 0u);
            for (int i = 0; i < w * h; ++i) {
                const uint8_t *p = colour.data() + i * stride;
                ASSERT_EQ(sb.data[i], formulaGray(p[offsetOf(enc, 1)], p[offsetOf(enc, 2)],
                                                  p[offsetOf(enc, 3)]));
            }
        }
}
