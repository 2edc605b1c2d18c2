// The transfer pipeline against its stages composed by hand, and the host
// entry points against the pipeline.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <tuple>

#include "extensions/ext_support.hpp"

using namespace ext;

namespace {

class Pipeline : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(support && params);
        // A dark, low-contrast source and a bright reference.
        for (size_t i = 0; i < blockBytes(source.get()); ++i)
            source->data[i] = uint8_t(40 + rng() % 60);
        for (size_t i = 0; i < blockBytes(reference.get()); ++i)
            reference->data[i] = uint8_t(90 + rng() % 160);
        wzImageFillColorProfile(reference.get(), &target);
        params->targetProfile = &target;
        fillRandom(mask.get(), rng);
    }
    void TearDown() override {
        wzMorvenDispose();
        wzHistogramTransferSupportRelease(&support);
        wzHistogramTransferParamsRelease(&params);
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
    ImagePtr reference = makeImage(31, 9, wzEncodingBGR);
};

}  // namespace

// The default record. Then, every field off its default, into destinations
// of every colour layout: matching alone by default, contrast applied in
// place on the matched image when enabled. In BGR, with smoothing guided by
// an untouched copy of the source and a mask (random, or 0: the untouched
// picture comes back) that then blends it back, separate and in place; the
// source is left alone when separate. Matched into a region of a larger
// destination the result lands there alone, and the region is reset to the
// whole image.
TEST_F(Pipeline, TheStagesComposedByHand) {
    const wzHistogramTransferParams &p = *params;
    EXPECT_EQ(std::make_tuple(p.matchStrength, p.matchFidelity, p.contrastEnabled,
                              p.contrastHighTail, p.contrastLowTail, p.smoothEnabled,
                              p.smoothThreshold, p.smoothIterations, p.matchMaxStep),
              std::make_tuple(1.0f, 0.9f, 0, 9.0f, 50.0f, 0, 0.1f, 2, 255));
    // Values off the defaults, so that every field must reach its stage.
    *params = {&target, 0.8f, 0.7f, 0, 7.0f, 30.0f, 0, 0.2f, 3, 40};
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

// The host calls refuse before wzMorvenInit and after wzMorvenDispose
// (twice). In between, the transfer is the pipeline on the reference's
// profile, separate and in place, and the smoothing the smoothing filter, in
// place alike; a threshold below 1/255 or no passes copies the input.
TEST_F(Pipeline, HostEntryPoints) {
    using Buffer = std::vector<uint8_t>;
    uint8_t *src = source->data;
    Buffer dst(23 * 17 * 3, 9), input(dst.size());
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(wzMorvenTransfer(23, 17, src, dst.data(), 31, 9, reference->data, round, 255,
                                   1.0f, 9.0f, 50.0f, 0.9f),
                  1u);
        EXPECT_EQ(wzMorvenSmooth(23, 17, src, src, dst.data(), 2, 0.1f), 1u);
        EXPECT_EQ(dst, Buffer(dst.size(), 9));
        ASSERT_EQ(wzMorvenInit(), 0u);
        wzMorvenDispose();
        wzMorvenDispose();
    }
    ASSERT_EQ(wzMorvenInit(), 0u);
    for (int contrast : {0, 1})
        for (float fidelity : {0.9f, 1.0f}) {
            *params = {&target, 0.8f, fidelity, contrast, 7.0f, 30.0f, 0, 0.1f, 2, 40};
            Buffer inPlace = snapshot(source.get());
            ASSERT_EQ(wzMorvenTransfer(23, 17, src, dst.data(), 31, 9, reference->data, contrast,
                                       40, 0.8f, 7.0f, 30.0f, fidelity),
                      0u);
            ASSERT_EQ(wzMorvenTransfer(23, 17, inPlace.data(), inPlace.data(), 31, 9,
                                       reference->data, contrast, 40, 0.8f, 7.0f, 30.0f, fidelity),
                      0u);
            EXPECT_EQ(dst, snapshot(byHand().get())) << contrast << " " << fidelity;
            EXPECT_EQ(inPlace, dst);
        }
    for (auto &v : input) v = uint8_t(rng());
    const wzSelectiveSmoothParams sp{0.1f, 3};
    HeaderPtr in = wrapHeader(23, 17, wzEncodingBGR, input.data());
    ImagePtr want = makeImage(23, 17, wzEncodingBGR);
    ASSERT_EQ(
        wzSelectiveSmooth(&sp, support->smoothSupport, source.get(), in.get(), want.get(), nullptr),
        0u);
    ASSERT_NE(snapshot(want.get()), input);
    Buffer inPlace = input;
    ASSERT_EQ(wzMorvenSmooth(23, 17, src, input.data(), dst.data(), 3, 0.1f), 0u);
    ASSERT_EQ(wzMorvenSmooth(23, 17, src, inPlace.data(), inPlace.data(), 3, 0.1f), 0u);
    EXPECT_EQ(dst, snapshot(want.get()));
    EXPECT_EQ(inPlace, dst);
    for (auto [passes, threshold] : {std::pair{3, 0.003f}, {0, 0.1f}}) {
        ASSERT_EQ(wzMorvenSmooth(23, 17, src, input.data(), dst.data(), passes, threshold), 0u);
        EXPECT_EQ(dst, input) << passes;
    }
}

// Host calls from several threads on distinct buffers give what they give
// one after another.
TEST_F(Pipeline, HostCallsFromThreadsMatchSequentialOnes) {
    ASSERT_EQ(wzMorvenInit(), 0u);
    constexpr int kJobs = 8;
    std::vector<std::vector<uint8_t>> src, ref, guide, seq(kJobs), par(kJobs);
    const auto random = [&](size_t n, int lo, int span) {
        std::vector<uint8_t> b(n);
        for (auto &v : b) v = uint8_t(lo + rng() % span);
        return b;
    };
    for (int i = 0; i < kJobs; ++i) {
        src.push_back(random(64 * 48 * 3, 20 * (i % 4), 120));
        ref.push_back(random(50 * 40 * 3, 60, 190));
        guide.push_back(random(64 * 48 * 3, 100, 30));
    }
    auto job = [&](int i, std::vector<uint8_t> &out) {
        out.assign(src[i].size(), 0);
        if (i % 2 == 0)
            return wzMorvenTransfer(64, 48, src[i].data(), out.data(), 50, 40, ref[i].data(),
                                    i % 4 == 0, 255, 1.0f, 9.0f, 50.0f, 0.9f);
        return wzMorvenSmooth(64, 48, guide[i].data(), src[i].data(), out.data(), 2, 0.2f);
    };
    for (int i = 0; i < kJobs; ++i) ASSERT_EQ(job(i, seq[i]), 0u);
    std::vector<std::thread> threads;
    std::vector<wzStatus> status(kJobs, 99);
    for (int i = 0; i < kJobs; ++i) threads.emplace_back([&, i] { status[i] = job(i, par[i]); });
    for (auto &t : threads) t.join();
    for (int i = 0; i < kJobs; ++i) EXPECT_TRUE(status[i] == 0u && par[i] == seq[i]) << "job " << i;
}
