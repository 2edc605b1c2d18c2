// The filters' pieces for tiled work: statistics of the tiles added up, one
// mapping computed, applied tile by tile, must give the one-call result.
#include <gtest/gtest.h>

#include "ext_support.hpp"

using namespace ext;

namespace {

// Rows y0 .. y0 + h - 1 of an image, as a header over its block.
HeaderPtr rows(const wzImage *img, int y0, int h) {
    HeaderPtr tile(wzImageCreateHeaderWithType(img->width, h, img->encoding, img->type));
    tile->data = img->data +
                 size_t(y0) * img->width * (blockBytes(img) / (size_t(img->width) * img->height));
    return tile;
}

}  // namespace

// Matching: 16-bit channels and 8-bit Lab against a deep target, in two
// tiles of unequal height (curves from the summed deep profiles) and in one
// call of the filter. Contrast of 16-bit pictures: summed full-resolution
// statistics against the masked filter.
TEST(ExtPieces, TilesGiveTheOneCallResult) {
    std::mt19937 rng(5);
    wzHistogramMatchParams params{0.8f, 0.9f, 0, 40, nullptr};
    for (const auto &[type, space] :
         {std::pair{wzType16U, wzSpaceChannels}, std::pair{wzType8U, wzSpaceLab}}) {
        SCOPED_TRACE(testing::Message() << "type " << type << " space " << space);
        ImagePtr src = randomImage(31, 20, wzEncodingRGB, type, rng),
                 ref = randomImage(17, 9, wzEncodingRGB, type, rng);
        for (int i = 0; i < 31 * 20; ++i)
            put(src.get(), i % 31, i / 31, 1 + i % 3, full(src.get()) / 4);  // a lopsided source
        Profile16Ptr target = profile16(ref.get(), space), whole(wzImageColorProfile16Create()),
                     part(wzImageColorProfile16Create());
        ImagePtr expected = clone(src.get()), tiled = clone(src.get());
        const wzHistogramMatchOptions options{space, 0, nullptr, target.get()};
        ASSERT_EQ(wzHistogramMatchFilterWithOptions(&params, &options, expected.get(), nullptr,
                                                    expected.get(), nullptr),
                  0u);

        HeaderPtr top = rows(tiled.get(), 0, 7), bottom = rows(tiled.get(), 7, 13);
        ASSERT_EQ(wzImageFillColorProfile16(top.get(), nullptr, space, whole.get()), 0u);
        ASSERT_EQ(wzImageFillColorProfile16(bottom.get(), nullptr, space, part.get()), 0u);
        for (int a = 0; a < 3; ++a)
            for (int v = 0; v < WZ_PROFILE16_BINS; ++v) whole->bins[a][v] += part->bins[a][v];
        wzHistogramMatchCurves *curves = wzHistogramMatchCurvesCreate();
        ASSERT_EQ(wzHistogramMatchCurvesCompute(whole.get(), &params, target.get(), 3, curves), 0u);
        EXPECT_EQ(curves->mapped, 7);
        EXPECT_EQ(wzHistogramMatchCurvesApply(curves, top.get(), top.get(), nullptr), 0u);
        EXPECT_EQ(wzHistogramMatchCurvesApply(curves, bottom.get(), bottom.get(), nullptr), 0u);
        wzHistogramMatchCurvesRelease(&curves);
        EXPECT_EQ(curves, nullptr);
        EXPECT_EQ(snapshot(tiled.get()), snapshot(expected.get()));
    }

    ImagePtr pic = randomImage(29, 23, wzEncodingRGBA, wzType16U, rng),
             mask = randomMask(29, 23, rng, 0.6);
    const wzContrastEnhanceParams contrast{9.0f, 50.0f, 0, 255, 0};
    ImagePtr expected = clone(pic.get()), tiled = clone(pic.get());
    ASSERT_EQ(wzContrastEnhanceFilterMasked(&contrast, expected.get(), mask.get(), nullptr,
                                            expected.get(), nullptr),
              0u);
    auto stats = std::make_unique<wzContrastEnhanceStats16>(),
         more = std::make_unique<wzContrastEnhanceStats16>();
    HeaderPtr top = rows(tiled.get(), 0, 10), bottom = rows(tiled.get(), 10, 13),
              maskTop = rows(mask.get(), 0, 10), maskBottom = rows(mask.get(), 10, 13);
    ASSERT_EQ(wzContrastEnhanceStatsRetrieve16(stats.get(), top.get(), maskTop.get(), nullptr), 0u);
    ASSERT_EQ(wzContrastEnhanceStatsRetrieve16(more.get(), bottom.get(), maskBottom.get(), nullptr),
              0u);
    for (int v = 0; v < 65536; ++v) stats->hist[v] += more->hist[v];
    stats->total += more->total;
    std::vector<uint16_t> curve(65536);
    wzContrastEnhanceAddParamsCompute16(stats.get(), &contrast, curve.data());
    EXPECT_EQ(wzContrastEnhanceApply16(curve.data(), top.get(), top.get(), nullptr), 0u);
    EXPECT_EQ(wzContrastEnhanceApply16(curve.data(), bottom.get(), bottom.get(), nullptr), 0u);
    EXPECT_EQ(snapshot(tiled.get()), snapshot(expected.get()));
}
