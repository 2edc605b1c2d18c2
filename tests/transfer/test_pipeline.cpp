// The transfer pipeline against its stages composed by hand.
#include <gtest/gtest.h>

#include <cstring>
#include <tuple>

#include "morven/transfer.h"
#include "support/image_fixtures.hpp"

using namespace morven_test;

namespace {

class Pipeline : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(support && params);
        // A dark, low-contrast source and a bright reference.
        ImagePtr reference = makeImage(31, 9, wzEncodingBGR);
        for (size_t i = 0; i < blockBytes(source.get()); ++i)
            source->data[i] = uint8_t(40 + rng() % 60);
        for (size_t i = 0; i < blockBytes(reference.get()); ++i)
            reference->data[i] = uint8_t(90 + rng() % 160);
        wzImageFillColorProfile(reference.get(), &target);
        params->targetProfile = &target;
        fillRandom(mask.get(), rng);
    }
    void TearDown() override {
        wzHistogramTransferSupportRelease(&support);
        wzHistogramTransferParamsRelease(&params);
    }

    ImagePtr clone(const wzImage *img) {
        ImagePtr out(wzImageCreateAs(img));
        std::memcpy(out->data, img->data, blockBytes(img));
        return out;
    }
    wzStatus run(wzImage *src, const wzImage *m, wzImage *dst, const uint32_t *cancel = nullptr) {
        return wzHistogramTransferFilter(params, support, src, m, dst, cancel);
    }
    // The stages by hand: matching (mode 0), then contrast in place when enabled.
    ImagePtr matchedAndContrasted(uint32_t encoding = wzEncodingBGR) {
        ImagePtr e = makeImage(23, 17, encoding);
        std::memset(e->data, 7, blockBytes(e.get()));  // the bytes no stage writes
        const wzHistogramMatchParams mp{params->matchStrength, params->matchFidelity, 0,
                                        params->matchMaxStep, &target};
        const wzContrastEnhanceParams cp{params->contrastHighTail, params->contrastLowTail, 0, 255,
                                         0};
        EXPECT_EQ(wzHistogramMatchFilter(&mp, source.get(), nullptr, e.get(), nullptr), 0u);
        if (params->contrastEnabled) {
            EXPECT_EQ(wzContrastEnhanceFilter(&cp, e.get(), nullptr, e.get(), nullptr), 0u);
        }
        return e;
    }

    std::mt19937 rng{77};
    wzHistogramTransferSupport *support = wzHistogramTransferSupportCreate();
    wzHistogramTransferParams *params = wzHistogramTransferParamsDefault();
    wzImageColorProfile target;
    ImagePtr source = makeImage(23, 17, wzEncodingBGR), mask = makeImage(23, 17, wzEncodingGray);
};

}  // namespace

// The default record, and every field carried into the stages' records.
TEST_F(Pipeline, DefaultsAndTheStagesRecords) {
    const wzHistogramTransferParams &p = *params;
    EXPECT_EQ(std::make_tuple(p.matchStrength, p.matchFidelity, p.contrastEnabled,
                              p.contrastHighTail, p.contrastLowTail, p.smoothEnabled,
                              p.smoothThreshold, p.smoothIterations, p.matchMaxStep),
              std::make_tuple(1.0f, 0.9f, 0, 9.0f, 50.0f, 0, 0.1f, 2, 255));
    wzHistogramTransferParamsInner *inner = wzHistogramTransferParamsInnerCreate();
    ASSERT_NE(inner, nullptr);
    *params = {&target, 0.5f, 0.7f, 1, 3.0f, 7.0f, 0, 0.3f, 4, 12};
    wzHistogramTransferSetInnerParams(params, inner);
    const wzHistogramMatchParams &m = *inner->matchParams;
    const wzContrastEnhanceParams &c = *inner->contrastParams;
    EXPECT_EQ(std::make_tuple(m.strength, m.fidelity, m.mode, m.maxStep, m.targetProfile),
              std::make_tuple(0.5f, 0.7f, 0, 12, &target));
    EXPECT_EQ(std::make_tuple(c.highTail, c.lowTail, c.manual, inner->contrastEnabled,
                              inner->smoothEnabled),
              std::make_tuple(3.0f, 7.0f, 0, 1, 0));
    EXPECT_EQ(std::make_pair(inner->smoothParams->threshold, inner->smoothParams->iterations),
              std::make_pair(0.3f, 4));
    wzHistogramTransferParamsInnerRelease(&inner);
    EXPECT_EQ(inner, nullptr);
    wzHistogramTransferParamsInnerRelease(&inner);
}

// Matching alone by default, contrast applied in place on the matched image
// when enabled, into destinations of every colour layout. Into a region of a
// larger destination the result lands there alone, and the region is reset
// to the whole image.
TEST_F(Pipeline, MatchingThenContrastAndRegionReset) {
    for (uint32_t encoding : {wzEncodingBGR, wzEncodingRGB, wzEncodingARGB, wzEncodingRGBA})
        for (int contrast : {1, 0}) {
            params->contrastEnabled = contrast;
            ImagePtr dst = makeImage(23, 17, encoding);
            std::memset(dst->data, 7, blockBytes(dst.get()));
            ImagePtr want = matchedAndContrasted(encoding);
            ASSERT_EQ(run(source.get(), nullptr, dst.get()), 0u);
            EXPECT_EQ(snapshot(dst.get()), snapshot(want.get()))
                << encoding << " contrast " << contrast;
        }
    ImagePtr big = makeImage(30, 20, wzEncodingBGR), e = matchedAndContrasted();
    std::memset(big->data, 7, 1800);
    big->roi = {4, 2, 23, 17};
    std::vector<uint8_t> want(1800, 7);
    for (int y = 0; y < 17; ++y) std::memcpy(&want[((y + 2) * 30 + 4) * 3], e->data + y * 69, 69);
    ASSERT_EQ(run(source.get(), nullptr, big.get()), 0u);
    EXPECT_EQ(snapshot(big.get()), want);
    EXPECT_EQ(std::make_tuple(big->roi.x, big->roi.y, big->roi.width, big->roi.height),
              std::make_tuple(0, 0, 30, 20));
}

// Smoothing is guided by an untouched copy of the source, which the mask
// then blends back; separate and in place, the source left alone when separate.
TEST_F(Pipeline, SmoothingWithAMaskUsesACopyOfTheSourceAsGuideAndBlend) {
    params->smoothEnabled = params->contrastEnabled = 1;
    const std::vector<uint8_t> original = snapshot(source.get());
    ImagePtr expected = matchedAndContrasted();
    const wzSelectiveSmoothParams sp{params->smoothThreshold, params->smoothIterations};
    ASSERT_EQ(wzSelectiveSmooth(&sp, support->smoothSupport, source.get(), expected.get(),
                                expected.get(), nullptr),
              0u);
    ASSERT_EQ(wzAddWeigthedM(source.get(), expected.get(), expected.get(), mask.get()), 0u);
    for (bool inPlace : {false, true}) {
        ImagePtr src = clone(source.get()),
                 dst = inPlace ? nullptr : makeImage(23, 17, wzEncodingBGR);
        wzImage *out = inPlace ? src.get() : dst.get();
        ASSERT_EQ(run(src.get(), mask.get(), out), 0u);
        EXPECT_EQ(snapshot(out), snapshot(expected.get())) << "in place " << inPlace;
        EXPECT_TRUE(inPlace || snapshot(src.get()) == original);
    }
}

// A mask of 0 gives back the untouched picture: in place from the copy,
// separate from the source itself.
TEST_F(Pipeline, MaskOfZeroRestoresTheUntouchedPicture) {
    params->contrastEnabled = 1;
    std::memset(mask->data, 0, blockBytes(mask.get()));
    const std::vector<uint8_t> original = snapshot(source.get());
    ImagePtr src = clone(source.get()), dst = makeImage(23, 17, wzEncodingBGR);
    ASSERT_EQ(run(src.get(), mask.get(), src.get()), 0u);
    EXPECT_EQ(snapshot(src.get()), original);
    ASSERT_EQ(run(source.get(), mask.get(), dst.get()), 0u);
    EXPECT_EQ(snapshot(dst.get()), original);
}

TEST_F(Pipeline, CancelAndStageFailuresPassThrough) {
    const uint32_t cancel = 1;
    ImagePtr dst = makeImage(23, 17, wzEncodingBGR),
             wide = makeImage(23, 17, wzEncodingBGR, wzType16U);
    std::memset(dst->data, 7, blockBytes(dst.get()));
    EXPECT_EQ(run(source.get(), mask.get(), dst.get(), &cancel), 2u);
    EXPECT_EQ(snapshot(dst.get()), std::vector<uint8_t>(blockBytes(dst.get()), 7));
    params->smoothEnabled = 1;  // with a copy made, which must still be released
    EXPECT_EQ(run(source.get(), mask.get(), dst.get(), &cancel), 2u);
    EXPECT_EQ(run(source.get(), nullptr, wide.get()), 1u);  // the matching stage refuses 16 bits
}
