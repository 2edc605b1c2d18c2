// The transfer pipeline against its stages composed by hand.
#include <gtest/gtest.h>

#include <cstring>

#include "morven/transfer.h"
#include "support/image_fixtures.hpp"

using namespace morven_test;

namespace {

struct SupportDeleter {
    void operator()(wzHistogramTransferSupport *s) const { wzHistogramTransferSupportRelease(&s); }
};
struct ParamsDeleter {
    void operator()(wzHistogramTransferParams *p) const { wzHistogramTransferParamsRelease(&p); }
};

class Pipeline : public ::testing::Test {
protected:
    void SetUp() override {
        support.reset(wzHistogramTransferSupportCreate());
        params.reset(wzHistogramTransferParamsDefault());
        ASSERT_TRUE(support && params);
        // A dark, low-contrast source and a bright reference.
        source = makeImage(23, 17, wzEncodingBGR);
        ImagePtr reference = makeImage(31, 9, wzEncodingBGR);
        for (size_t i = 0; i < blockBytes(source.get()); ++i)
            source->data[i] = static_cast<uint8_t>(40 + rng() % 60);
        for (size_t i = 0; i < blockBytes(reference.get()); ++i)
            reference->data[i] = static_cast<uint8_t>(90 + rng() % 160);
        wzImageFillColorProfile(reference.get(), &target);
        params->targetProfile = &target;
        mask = makeImage(23, 17, wzEncodingGray);
        fillRandom(mask.get(), rng);
    }

    ImagePtr clone(const wzImage *img) {
        ImagePtr out(wzImageCreateAs(img));
        std::memcpy(out->data, img->data, blockBytes(img));
        return out;
    }

    // Matching stage as the pipeline configures it.
    wzHistogramMatchParams matchParams() const {
        return wzHistogramMatchParams{params->matchStrength, params->matchFidelity, 0,
                                      params->matchMaxStep, params->targetProfile};
    }

    std::mt19937 rng{77};
    std::unique_ptr<wzHistogramTransferSupport, SupportDeleter> support;
    std::unique_ptr<wzHistogramTransferParams, ParamsDeleter> params;
    wzImageColorProfile target;
    ImagePtr source, mask;
};

}  // namespace

TEST_F(Pipeline, DefaultsAreTheDesignedOnes) {
    EXPECT_EQ(params->matchStrength, 1.0f);
    EXPECT_EQ(params->matchFidelity, 0.9f);
    EXPECT_EQ(params->contrastEnabled, 0);
    EXPECT_EQ(params->contrastHighTail, 9.0f);
    EXPECT_EQ(params->contrastLowTail, 50.0f);
    EXPECT_EQ(params->smoothEnabled, 0);
    EXPECT_EQ(params->smoothThreshold, 0.1f);
    EXPECT_EQ(params->smoothIterations, 2);
    EXPECT_EQ(params->matchMaxStep, 255);

    wzHistogramTransferParamsInner *inner = wzHistogramTransferParamsInnerCreate();
    ASSERT_NE(inner, nullptr);
    params->matchStrength = 0.5f;
    params->contrastLowTail = 7.0f;
    params->smoothIterations = 4;
    params->matchMaxStep = 12;
    params->contrastEnabled = 1;
    wzHistogramTransferSetInnerParams(params.get(), inner);
    EXPECT_EQ(inner->matchParams->strength, 0.5f);
    EXPECT_EQ(inner->matchParams->maxStep, 12);
    EXPECT_EQ(inner->matchParams->mode, 0);
    EXPECT_EQ(inner->matchParams->targetProfile, &target);
    EXPECT_EQ(inner->contrastParams->lowTail, 7.0f);
    EXPECT_EQ(inner->contrastParams->manual, 0);
    EXPECT_EQ(inner->smoothParams->iterations, 4);
    EXPECT_EQ(inner->contrastEnabled, 1);
    EXPECT_EQ(inner->smoothEnabled, 0);
    wzHistogramTransferParamsInnerRelease(&inner);
    EXPECT_EQ(inner, nullptr);
    wzHistogramTransferParamsInnerRelease(&inner);
}

TEST_F(Pipeline, DefaultRunIsMatchingAloneAndResetsTheRegion) {
    ImagePtr expected = makeImage(23, 17, wzEncodingBGR);
    const wzHistogramMatchParams mp = matchParams();
    ASSERT_EQ(wzHistogramMatchFilter(&mp, source.get(), nullptr, expected.get(), nullptr), 0u);

    ImagePtr dst = makeImage(23, 17, wzEncodingBGR);
    wzRect r{0, 0, 23, 17};
    wzImageSetROI(dst.get(), &r);
    ASSERT_EQ(wzHistogramTransferFilter(params.get(), support.get(), source.get(), nullptr,
                                        dst.get(), nullptr),
              0u);
    EXPECT_EQ(snapshot(dst.get()), snapshot(expected.get()));
    EXPECT_EQ(dst->roi.width, 23);
    EXPECT_EQ(dst->roi.height, 17);
}

TEST_F(Pipeline, ContrastRunsInPlaceOnTheMatchedImage) {
    params->contrastEnabled = 1;
    ImagePtr expected = makeImage(23, 17, wzEncodingBGR);
    const wzHistogramMatchParams mp = matchParams();
    wzContrastEnhanceParams cp{params->contrastHighTail, params->contrastLowTail, 0, 255, 0};
    ASSERT_EQ(wzHistogramMatchFilter(&mp, source.get(), nullptr, expected.get(), nullptr), 0u);
    ASSERT_EQ(wzContrastEnhanceFilter(&cp, expected.get(), nullptr, expected.get(), nullptr), 0u);

    ImagePtr dst = makeImage(23, 17, wzEncodingBGR);
    ASSERT_EQ(wzHistogramTransferFilter(params.get(), support.get(), source.get(), nullptr,
                                        dst.get(), nullptr),
              0u);
    EXPECT_EQ(snapshot(dst.get()), snapshot(expected.get()));
}

TEST_F(Pipeline, SmoothingWithAMaskUsesACopyOfTheSourceAsGuideAndBlend) {
    params->smoothEnabled = 1;
    params->contrastEnabled = 1;
    const std::vector<uint8_t> original = snapshot(source.get());

    ImagePtr expected = makeImage(23, 17, wzEncodingBGR);
    const wzHistogramMatchParams mp = matchParams();
    wzContrastEnhanceParams cp{params->contrastHighTail, params->contrastLowTail, 0, 255, 0};
    wzSelectiveSmoothParams sp{params->smoothThreshold, params->smoothIterations};
    ASSERT_EQ(wzHistogramMatchFilter(&mp, source.get(), nullptr, expected.get(), nullptr), 0u);
    ASSERT_EQ(wzContrastEnhanceFilter(&cp, expected.get(), nullptr, expected.get(), nullptr), 0u);
    ASSERT_EQ(wzSelectiveSmooth(&sp, support->smoothSupport, source.get(), expected.get(),
                                expected.get(), nullptr),
              0u);
    ASSERT_EQ(wzAddWeigthedM(source.get(), expected.get(), expected.get(), mask.get()), 0u);

    for (bool inPlace : {false, true}) {
        ImagePtr src = clone(source.get());
        ImagePtr dst = inPlace ? nullptr : makeImage(23, 17, wzEncodingBGR);
        wzImage *out = inPlace ? src.get() : dst.get();
        ASSERT_EQ(wzHistogramTransferFilter(params.get(), support.get(), src.get(), mask.get(), out,
                                            nullptr),
                  0u);
        EXPECT_EQ(snapshot(out), snapshot(expected.get())) << "in place " << inPlace;
        if (!inPlace) {
            EXPECT_EQ(snapshot(src.get()), original);
        }
    }
}

TEST_F(Pipeline, MaskOfZeroRestoresTheUntouchedPicture) {
    params->contrastEnabled = 1;
    std::memset(mask->data, 0, blockBytes(mask.get()));
    const std::vector<uint8_t> original = snapshot(source.get());
    // In place: a copy is made and blended back.
    ImagePtr src = clone(source.get());
    ASSERT_EQ(wzHistogramTransferFilter(params.get(), support.get(), src.get(), mask.get(),
                                        src.get(), nullptr),
              0u);
    EXPECT_EQ(snapshot(src.get()), original);
    // Separate images: the source itself is the untouched picture.
    ImagePtr dst = makeImage(23, 17, wzEncodingBGR);
    ASSERT_EQ(wzHistogramTransferFilter(params.get(), support.get(), source.get(), mask.get(),
                                        dst.get(), nullptr),
              0u);
    EXPECT_EQ(snapshot(dst.get()), original);
}

TEST_F(Pipeline, CancelAndStageFailuresPassThrough) {
    uint32_t cancel = 1;
    ImagePtr dst = makeImage(23, 17, wzEncodingBGR);
    std::memset(dst->data, 7, blockBytes(dst.get()));
    const std::vector<uint8_t> before = snapshot(dst.get());
    EXPECT_EQ(wzHistogramTransferFilter(params.get(), support.get(), source.get(), mask.get(),
                                        dst.get(), &cancel),
              2u);
    EXPECT_EQ(snapshot(dst.get()), before);
    params->smoothEnabled = 1;  // with a copy made, which must still be released
    EXPECT_EQ(wzHistogramTransferFilter(params.get(), support.get(), source.get(), mask.get(),
                                        dst.get(), &cancel),
              2u);
    // A 16-bit destination is refused by the matching stage.
    ImagePtr wide = makeImage(23, 17, wzEncodingBGR, wzType16U);
    EXPECT_EQ(wzHistogramTransferFilter(params.get(), support.get(), source.get(), nullptr,
                                        wide.get(), nullptr),
              1u);
}
