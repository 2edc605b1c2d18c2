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
    // The stages by hand: matching (mode 0), contrast in place, smoothing
    // guided by the source, the mask's blend with the source.
    ImagePtr byHand(uint32_t encoding = wzEncodingBGR, const wzImage *m = nullptr) {
        ImagePtr e = makeImage(23, 17, encoding);
        std::memset(e->data, 7, blockBytes(e.get()));  // the bytes no stage writes
        const wzHistogramMatchParams mp{params->matchStrength, params->matchFidelity, 0,
                                        params->matchMaxStep, &target};
        const wzContrastEnhanceParams cp{params->contrastHighTail, params->contrastLowTail, 0, 255,
                                         0};
        const wzSelectiveSmoothParams sp{params->smoothThreshold, params->smoothIterations};
        EXPECT_EQ(wzHistogramMatchFilter(&mp, source.get(), nullptr, e.get(), nullptr), 0u);
        if (params->contrastEnabled) {
            EXPECT_EQ(wzContrastEnhanceFilter(&cp, e.get(), nullptr, e.get(), nullptr), 0u);
        }
        if (params->smoothEnabled) {
            EXPECT_EQ(wzSelectiveSmooth(&sp, support->smoothSupport, source.get(), e.get(), e.get(),
                                        nullptr),
                      0u);
        }
        if (m) {
            EXPECT_EQ(wzAddWeigthedM(source.get(), e.get(), e.get(), m), 0u);
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

// Into destinations of every colour layout: matching alone by default,
// contrast applied in place on the matched image when enabled. In BGR, with
// smoothing guided by an untouched copy of the source and a mask (random, or
// 0: the untouched picture comes back) that then blends it back, separate and
// in place; the source is left alone when separate. Matched into a region
// of a larger destination the result lands there alone, and the region is
// reset to the whole image.
TEST_F(Pipeline, TheStagesComposedByHand) {
    ImagePtr zero = makeImage(23, 17, wzEncodingGray);
    std::memset(zero->data, 0, blockBytes(zero.get()));
    const std::vector<uint8_t> original = snapshot(source.get());
    for (uint32_t encoding : {wzEncodingBGR, wzEncodingRGB, wzEncodingARGB, wzEncodingRGBA})
        for (int stages = 0; stages < 4; ++stages)  // contrast, smoothing
            for (const wzImage *m : {static_cast<wzImage *>(nullptr), mask.get(), zero.get()})
                for (bool inPlace : {false, true}) {
                    const bool bgr = encoding == wzEncodingBGR;
                    // (in place without a mask, smoothing has no untouched copy to go by)
                    if ((!bgr && (stages > 1 || m || inPlace)) || (inPlace && !m && stages > 1))
                        continue;
                    params->contrastEnabled = stages & 1;
                    params->smoothEnabled = stages >> 1;
                    ImagePtr want = byHand(encoding, m);
                    ImagePtr src = clone(source.get()), dst = makeImage(23, 17, encoding);
                    std::memset(dst->data, 7, blockBytes(dst.get()));
                    wzImage *out = inPlace ? src.get() : dst.get();
                    ASSERT_EQ(run(src.get(), m, out), 0u);
                    EXPECT_EQ(snapshot(out), snapshot(want.get()))
                        << encoding << " stages " << stages << " mask " << (m == mask.get())
                        << (inPlace ? " in place" : "");
                    EXPECT_TRUE(inPlace || snapshot(src.get()) == original);
                }
    params->contrastEnabled = params->smoothEnabled = 0;  // contrast would measure the whole
    ImagePtr big = makeImage(30, 20, wzEncodingBGR), e = byHand();
    std::memset(big->data, 7, 1800);
    big->roi = {4, 2, 23, 17};
    std::vector<uint8_t> want(1800, 7);
    for (int y = 0; y < 17; ++y) std::memcpy(&want[((y + 2) * 30 + 4) * 3], e->data + y * 69, 69);
    ASSERT_EQ(run(source.get(), nullptr, big.get()), 0u);
    EXPECT_EQ(snapshot(big.get()), want);
    EXPECT_EQ(std::make_tuple(big->roi.x, big->roi.y, big->roi.width, big->roi.height),
              std::make_tuple(0, 0, 30, 20));
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
