// Gray conversion of 8-bit colour pixels: every variant on all 2^24 colours
// (the plain one reads the public table, which this also checks)
// and on awkward rows of every layout against the fixed-point formula (the
// brightness row kernel alongside), and wzImageCvtColor over regions and in
// place.
#include "kernel_support.hpp"

using namespace kernel_test;

namespace {

uint8_t formulaGray(int b, int g, int r) {
    return uint8_t((8192 + 1868 * b + 9617 * g + 4899 * r) >> 14);
}

uint8_t grayOf(uint32_t enc, const uint8_t *p) {
    return formulaGray(p[offsetOf(enc, 1)], p[offsetOf(enc, 2)], p[offsetOf(enc, 3)]);
}

constexpr uint32_t kColour[] = {wzEncodingBGR, wzEncodingRGB, wzEncodingARGB, wzEncodingRGBA};

}  // namespace

TEST(KernelGray, EveryColourGivesTheFormulaInEveryVariant) {
    // All 2^24 colours as one BGR row, ending at a guard page.
    constexpr size_t kColours = size_t{1} << 24;
    GuardedBlock src(3 * kColours);
    Bytes expect(kColours);
    for (size_t c = 0; c < kColours; ++c) {
        for (int k = 0; k < 3; ++k) src.data[3 * c + k] = uint8_t(c >> (8 * k));
        expect[c] = formulaGray(c & 255, (c >> 8) & 255, c >> 16);
    }
    const ptrdiff_t bgr[3] = {0, 1, 2};
    for (Isa isa : availableIsas()) {
        GuardedBlock dst(kColours);
        kernels(isa).grayRow(src.data, 3, bgr, dst.data, kColours);
        ASSERT_EQ(0, std::memcmp(dst.data, expect.data(), kColours)) << isaName(isa);
    }
}

// Pixel-to-byte row kernels on 3- and 4-byte pixels of every layout: gray
// levels, and the brightness that the contrast statistics count.
TEST(KernelGray, GrayAndBrightnessRowsOfEveryLayout) {
    std::mt19937 rng(21);
    for (uint32_t enc : kColour)
        for (bool gray : {true, false}) {
            const ptrdiff_t off[3] = {offsetOf(enc, 1), offsetOf(enc, 2), offsetOf(enc, 3)};
            const size_t n = channels(enc);
            checkRowKernel({n, 1, 0,
                            [&](Isa isa, const uint8_t *s, uint8_t *d, size_t k) {
                                (gray ? kernels(isa).grayRow : kernels(isa).brightnessRow)(
                                    s, int32_t(n), off, d, k);
                            },
                            [&](const uint8_t *s, uint8_t *d, size_t k) {
                                for (size_t i = 0; i < k; ++i)
                                    d[i] = (gray ? grayOf : brightnessOf)(enc, s + i * n);
                            },
                            nullptr},
                           rng, (gray ? "gray " : "brightness ") + std::to_string(enc));
        }
}

// The destination walks from its own region origin with its own width; a
// gray header over the colour block converts in place, one 40 bytes in (past
// the start of a row) in pixel order.
TEST(KernelGray, CvtColorToGrayOverRegionsAndInPlace) {
    std::mt19937 rng(22);
    for (uint32_t enc : kColour)
        checkImageOp(enc, wzEncodingGray, true, 4, {0, 40}, rng, wzImageCvtColor,
                     [&](const uint8_t *s, uint8_t *d) { *d = grayOf(enc, s); });
}
