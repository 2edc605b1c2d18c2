// Host entry points: their states, their equivalence with the lower layers,
// and concurrent use.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "morven/transfer.h"
#include "support/image_fixtures.hpp"

using namespace morven_test;

namespace {

using Buffer = std::vector<uint8_t>;

Buffer randomBGR(int w, int h, std::mt19937 &rng, int lo, int span) {
    Buffer b(static_cast<size_t>(w) * h * 3);
    for (auto &v : b) v = static_cast<uint8_t>(lo + rng() % span);
    return b;
}

HeaderPtr header(int w, int h, Buffer &b) { return wrapHeader(w, h, wzEncodingBGR, b.data()); }

class Host : public ::testing::Test {
protected:
    void TearDown() override { wzMorvenDispose(); }
};

}  // namespace

// Before wzMorvenInit and after wzMorvenDispose (twice) both calls refuse.
TEST_F(Host, WithoutSupportNothingIsTouched) {
    std::mt19937 rng(1);
    Buffer src = randomBGR(8, 8, rng, 0, 256), ref = randomBGR(4, 4, rng, 0, 256),
           dst(src.size(), 9);
    const Buffer before = dst;
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(wzMorvenTransfer(8, 8, src.data(), dst.data(), 4, 4, ref.data(), round, 255, 1.0f,
                                   9.0f, 50.0f, 0.9f),
                  1u);
        EXPECT_EQ(wzMorvenSmooth(8, 8, ref.data(), src.data(), dst.data(), 2, 0.1f), 1u);
        EXPECT_EQ(dst, before);
        ASSERT_EQ(wzMorvenInit(), 0u);
        wzMorvenDispose();
        wzMorvenDispose();
    }
}

// The matching filter with the reference's profile (then contrast in place),
// separate and in place.
TEST_F(Host, TransferIsTheMatchingFilterWithTheReferenceProfile) {
    ASSERT_EQ(wzMorvenInit(), 0u);
    std::mt19937 rng(2);
    Buffer src = randomBGR(40, 30, rng, 30, 90), ref = randomBGR(25, 35, rng, 100, 150);
    for (int contrast : {0, 1})
        for (float fidelity : {0.9f, 1.0f}) {
            Buffer dst(src.size()), expected(src.size()), inPlace = src;
            ASSERT_EQ(wzMorvenTransfer(40, 30, src.data(), dst.data(), 25, 35, ref.data(), contrast,
                                       40, 0.8f, 9.0f, 50.0f, fidelity),
                      0u);
            ASSERT_EQ(wzMorvenTransfer(40, 30, inPlace.data(), inPlace.data(), 25, 35, ref.data(),
                                       contrast, 40, 0.8f, 9.0f, 50.0f, fidelity),
                      0u);
            HeaderPtr r = header(25, 35, ref), s = header(40, 30, src),
                      e = header(40, 30, expected);
            wzImageColorProfile profile;
            wzImageFillColorProfile(r.get(), &profile);
            const wzHistogramMatchParams mp{0.8f, fidelity, 0, 40, &profile};
            const wzContrastEnhanceParams cp{9.0f, 50.0f, 0, 255, 0};
            ASSERT_EQ(wzHistogramMatchFilter(&mp, s.get(), nullptr, e.get(), nullptr), 0u);
            if (contrast) {
                ASSERT_EQ(wzContrastEnhanceFilter(&cp, e.get(), nullptr, e.get(), nullptr), 0u);
            }
            EXPECT_EQ(dst, expected) << "contrast " << contrast << " fidelity " << fidelity;
            EXPECT_EQ(inPlace, expected);
        }
}

// Smoothing changes the input, in place alike; a threshold below 1/255 or no
// passes copies it exactly.
TEST_F(Host, SmoothIsTheSmoothingFilterAndMayRunInPlace) {
    ASSERT_EQ(wzMorvenInit(), 0u);
    std::mt19937 rng(3);
    Buffer guide = randomBGR(21, 13, rng, 100, 20), input = randomBGR(21, 13, rng, 0, 256),
           out(input.size()), inPlace = input;
    ASSERT_EQ(wzMorvenSmooth(21, 13, guide.data(), input.data(), out.data(), 3, 0.1f), 0u);
    ASSERT_EQ(wzMorvenSmooth(21, 13, guide.data(), inPlace.data(), inPlace.data(), 3, 0.1f), 0u);
    EXPECT_EQ(inPlace, out);
    EXPECT_NE(out, input);
    for (auto [passes, threshold] : {std::pair{3, 0.003f}, {0, 0.1f}}) {
        Buffer copy(input.size());
        ASSERT_EQ(
            wzMorvenSmooth(21, 13, guide.data(), input.data(), copy.data(), passes, threshold), 0u);
        EXPECT_EQ(copy, input) << passes;
    }
}

TEST_F(Host, ConcurrentCallsOnDistinctBuffersMatchSequentialOnes) {
    ASSERT_EQ(wzMorvenInit(), 0u);
    constexpr int kJobs = 8;
    std::mt19937 rng(4);
    std::vector<Buffer> src, ref, guide, seq(kJobs), par(kJobs);
    for (int i = 0; i < kJobs; ++i) {
        src.push_back(randomBGR(64, 48, rng, 20 * (i % 4), 120));
        ref.push_back(randomBGR(50, 40, rng, 60, 190));
        guide.push_back(randomBGR(64, 48, rng, 100, 30));
    }
    auto job = [&](int i, Buffer &out) {
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
