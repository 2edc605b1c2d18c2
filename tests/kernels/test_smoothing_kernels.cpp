// Selective smoothing: the vector passes against the scalar pass on guarded
// blocks (awkward sizes, every threshold regime, pass counts across the
// pipelined group size, flat guides, guide = input, in place, with and
// without a cancel flag), the fallbacks to the scalar pass, and the vector
// quotient step over its whole input range.
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <vector>

#include "kernel_support.hpp"
#include "smoothing/smoothing_internal.hpp"

using namespace kernel_test;
using morven::Isa;

namespace {

struct SupportDeleter {
    void operator()(wzSelectiveSmoothSupport *s) const { wzSelectiveSmoothSupportRelease(&s); }
};
using SupportPtr = std::unique_ptr<wzSelectiveSmoothSupport, SupportDeleter>;

std::vector<Isa> vectorIsas() {
    std::vector<Isa> out;
    for (Isa isa : availableIsas())
        if (isa != Isa::Portable) out.push_back(isa);
    return out;
}

// One run's images: guide, input and output, each in a block flush against
// an inaccessible page; the guide may be the input, the output the input.
struct Scene {
    int32_t w, h;
    uint32_t encG, encX, encO;
    bool guideIsInput, inPlace;
    std::vector<uint8_t> guide, input, output;  // initial contents
};

// Runs `isa` on fresh guarded copies of the scene; returns the output block.
std::vector<uint8_t> run(Isa isa, const Scene &s, const wzSelectiveSmoothParams &p,
                         const wzSelectiveSmoothSupport *support, const uint32_t *cancel,
                         wzStatus want = 0) {
    GuardedBlock gb(s.guide.size()), xb(s.input.size()), ob(s.output.size());
    std::memcpy(gb.data, s.guide.data(), s.guide.size());
    std::memcpy(xb.data, s.input.data(), s.input.size());
    std::memcpy(ob.data, s.output.data(), s.output.size());
    const wzRect all{0, 0, s.w, s.h};
    Header g(s.w, s.h, s.encG, gb.data, all), x(s.w, s.h, s.encX, xb.data, all),
        o(s.w, s.h, s.encO, ob.data, all);
    wzImage *out = s.inPlace ? x.img : o.img;
    EXPECT_EQ(morven::selectiveSmoothWith(isa, &p, support, s.guideIsInput ? x.img : g.img, x.img, out,
                                          cancel),
              want);
    const uint8_t *d = s.inPlace ? xb.data : ob.data;
    return std::vector<uint8_t>(d, d + (s.inPlace ? s.input.size() : s.output.size()));
}

// Every vector isa gives the scalar pass's bytes, with and without a cancel
// flag (channels side by side or one after the other).
void expectSameAsScalar(const Scene &s, const wzSelectiveSmoothParams &p,
                        const wzSelectiveSmoothSupport *support, const std::string &what) {
    const uint32_t noCancel = 0;
    const std::vector<uint8_t> want = run(Isa::Portable, s, p, support, nullptr);
    for (Isa isa : vectorIsas())
        for (const uint32_t *cancel : {static_cast<const uint32_t *>(nullptr), &noCancel})
            ASSERT_EQ(run(isa, s, p, support, cancel), want)
                << isaName(isa) << (cancel ? " with flag " : " ") << what;
}

// Guides locally flat with small steps (many pairs near the threshold) or
// fully random; inputs from narrow to the full range.
Scene randomScene(int32_t w, int32_t h, std::mt19937 &rng) {
    const uint32_t colour[] = {wzEncodingBGR, wzEncodingRGB, wzEncodingARGB, wzEncodingRGBA};
    Scene s{w, h, colour[rng() % 4], colour[rng() % 4], colour[rng() % 4], rng() % 8 == 0, rng() % 4 == 0,
            {}, {}, {}};
    if (s.inPlace) s.encO = s.encX;
    s.guide.resize(blockSize(w, h, s.encG));
    s.input.resize(blockSize(w, h, s.encX));
    s.output.resize(blockSize(w, h, s.encO));
    const int kind = static_cast<int>(rng() % 4), spread = 1 + static_cast<int>(rng() % 40);
    const uint8_t flat = static_cast<uint8_t>(rng());
    for (uint8_t &v : s.guide)
        v = kind == 0 ? flat : kind == 3 ? static_cast<uint8_t>(rng()) : static_cast<uint8_t>(100 + rng() % spread);
    for (uint8_t &v : s.input)
        v = rng() % 2 ? static_cast<uint8_t>(rng()) : static_cast<uint8_t>(90 + rng() % (3 * spread));
    fillBytes(s.output.data(), s.output.size(), rng);
    return s;
}

TEST(SmoothingKernels, VectorPassesMatchScalarOnAwkwardSizes) {
    if (vectorIsas().empty()) GTEST_SKIP() << "no vector instruction set here";
    SupportPtr support(wzSelectiveSmoothSupportCreate());
    ASSERT_TRUE(support);
    std::mt19937 rng(2024);
    // t = 1, 25, 127, 128, 255 and above, and random ones.
    const float thresholds[] = {0.004f, 0.1f, 0.5f, 0.502f, 1.0f, 3.0f};
    for (int32_t w = 2; w <= 67; ++w)
        for (int rep = 0; rep < 3; ++rep) {
            const int32_t h = 2 + static_cast<int32_t>(rng() % 8);
            const Scene s = randomScene(w, h, rng);
            const float th = rep == 0 ? std::uniform_real_distribution<float>(0.0f, 1.0f)(rng)
                                      : thresholds[rng() % 6];
            // Mostly 1-3 passes; sometimes more than the pipelined group size.
            const int32_t passes = rng() % 10 == 0 ? 8 + static_cast<int32_t>(rng() % 3)
                                                   : 1 + static_cast<int32_t>(rng() % 3);
            expectSameAsScalar(s, {th, passes}, support.get(),
                               std::to_string(w) + "x" + std::to_string(h) + " t=" + std::to_string(th) +
                                   " passes=" + std::to_string(passes));
        }
}

// A larger photo-like scene: a smooth guide with noise and its tone-mapped,
// noisier version as input, default parameters, one to three passes.
TEST(SmoothingKernels, VectorPassesMatchScalarOnLargeImage) {
    if (vectorIsas().empty()) GTEST_SKIP() << "no vector instruction set here";
    SupportPtr support(wzSelectiveSmoothSupportCreate());
    ASSERT_TRUE(support);
    std::mt19937 rng(77);
    const int32_t w = 1037, h = 203;
    Scene s{w, h, wzEncodingBGR, wzEncodingBGR, wzEncodingBGR, false, false, {}, {}, {}};
    s.guide.resize(blockSize(w, h, wzEncodingBGR));
    s.input.resize(s.guide.size());
    s.output.resize(s.guide.size());
    for (size_t k = 0; k < s.guide.size(); ++k) {
        const int px = static_cast<int>(k / 3 % w), py = static_cast<int>(k / 3 / w);
        const int v = (px / 9 + py / 4 + static_cast<int>(k % 3) * 50) % 200 + static_cast<int>(rng() % 4);
        s.guide[k] = static_cast<uint8_t>(v);
        s.input[k] = static_cast<uint8_t>(std::min(255, v * 5 / 4 + static_cast<int>(rng() % 12)));
    }
    for (int32_t passes = 1; passes <= 3; ++passes) {
        expectSameAsScalar(s, {0.1f, passes}, support.get(), "passes=" + std::to_string(passes));
        s.inPlace = true;
        expectSameAsScalar(s, {0.1f, passes}, support.get(), "in place");
        s.inPlace = false;
    }
    // The guide itself as input: nothing is accepted, the input comes back.
    s.guideIsInput = true;
    s.inPlace = true;
    const std::vector<uint8_t> out = run(vectorIsas().back(), s, {0.1f, 2}, support.get(), nullptr);
    EXPECT_EQ(out, s.input);
}

// Pairs exactly at the limits: guide columns alternating with d = t - 1
// (at most 127) and inputs with e = 2d or 2d + 1 by row, so half of the
// pairs are accepted; t = 128 accepts d = 127 only with e = 255.
TEST(SmoothingKernels, PairsAtTheThresholdAndRatioLimits) {
    SupportPtr support(wzSelectiveSmoothSupportCreate());
    ASSERT_TRUE(support);
    for (const float th : {0.004f, 0.1f, 0.5f, 0.502f, 1.0f}) {
        const int t = static_cast<int>(th * 255.0f), d = std::min(t - 1, 127);
        Scene s{70, 5, wzEncodingBGR, wzEncodingBGR, wzEncodingBGR, false, false, {}, {}, {}};
        for (size_t k = 0; k < blockSize(70, 5, wzEncodingBGR); ++k) {
            const size_t col = k / 3 % 70, row = k / 3 / 70;
            s.guide.push_back(static_cast<uint8_t>(col % 2 ? d : 0));
            s.input.push_back(static_cast<uint8_t>(col % 2 ? 2 * d + static_cast<int>(row % 2) : 0));
        }
        s.output = s.input;
        expectSameAsScalar(s, {th, 1}, support.get(), "t=" + std::to_string(t));
        EXPECT_NE(run(Isa::Portable, s, {th, 1}, support.get(), nullptr), s.input) << "nothing accepted";
    }
}

// Supports whose tables are not the closed form, and outputs that partly
// overlap the input, take the scalar pass: the same bytes as Portable.
TEST(SmoothingKernels, FallbacksGiveTheScalarResult) {
    if (vectorIsas().empty()) GTEST_SKIP() << "no vector instruction set here";
    SupportPtr plain(wzSelectiveSmoothSupportCreate()), odd(wzSelectiveSmoothSupportCreate());
    ASSERT_TRUE(plain && odd);
    odd->ratio->rowPtr[2][4] = 0.25;  // accepts d = 2, e = 4, which e > 2d refuses
    std::mt19937 rng(5);
    // Guide columns alternate 100, 102 and input columns 100, 104 (+ the row
    // parity): horizontal pairs have d = 2, e = 4.
    Scene s{37, 9, wzEncodingBGR, wzEncodingBGR, wzEncodingBGR, false, false, {}, {}, {}};
    for (size_t k = 0; k < blockSize(37, 9, wzEncodingBGR); ++k) {
        s.guide.push_back(static_cast<uint8_t>(100 + 2 * (k / 3 % 2)));
        s.input.push_back(static_cast<uint8_t>(100 + 4 * (k / 3 % 2) + (k / 3 / 37 % 2)));
    }
    s.output.resize(s.guide.size());
    const wzSelectiveSmoothParams p{0.1f, 2};
    expectSameAsScalar(s, p, odd.get(), "modified ratio table");
    EXPECT_NE(run(Isa::Portable, s, p, odd.get(), nullptr), run(Isa::Portable, s, p, plain.get(), nullptr))
        << "the modified entry should matter here";

    // Output one row below the input in one block, all 3-byte pixels.
    const int32_t w = 23, h = 7;
    const size_t row = 3 * w;
    std::vector<uint8_t> init(row * (h + 1)), guideBytes(row * h);
    fillBytes(init.data(), init.size(), rng);
    for (uint8_t &v : guideBytes) v = static_cast<uint8_t>(120 + rng() % 6);
    std::vector<std::vector<uint8_t>> results;
    for (Isa isa : availableIsas()) {
        GuardedBlock block(init.size()), gblock(guideBytes.size());
        std::memcpy(block.data, init.data(), init.size());
        std::memcpy(gblock.data, guideBytes.data(), guideBytes.size());
        const wzRect all{0, 0, w, h};
        Header g(w, h, wzEncodingBGR, gblock.data, all), x(w, h, wzEncodingBGR, block.data, all),
            o(w, h, wzEncodingBGR, block.data + row, all);
        ASSERT_EQ(morven::selectiveSmoothWith(isa, &p, plain.get(), g.img, x.img, o.img, nullptr), 0u);
        results.emplace_back(block.data, block.data + init.size());
    }
    for (size_t k = 1; k < results.size(); ++k) EXPECT_EQ(results[k], results[0]) << "overlap, isa " << k;
}

// A flag set before the call: status 2 and the output untouched, vector
// passes included.
TEST(SmoothingKernels, CancelBeforeTheCallWritesNothing) {
    SupportPtr support(wzSelectiveSmoothSupportCreate());
    ASSERT_TRUE(support);
    std::mt19937 rng(9);
    const Scene s = randomScene(40, 6, rng);
    const uint32_t stop = 1;
    for (Isa isa : availableIsas())
        for (int32_t passes : {2, 12})
            EXPECT_EQ(run(isa, s, {0.1f, passes}, support.get(), &stop, 2),
                      s.inPlace ? s.input : s.output)
                << isaName(isa);
}

// Every numerator the pass can form (-2040..4335) over every count (1..9):
// the low byte of the quotient truncated toward zero.
TEST(SmoothingKernels, QuotientStepIsExact) {
    std::vector<int16_t> num;
    std::vector<uint16_t> count;
    for (int n = 1; n <= 9; ++n)
        for (int v = -2040; v <= 4335; ++v) {
            num.push_back(static_cast<int16_t>(v));
            count.push_back(static_cast<uint16_t>(n));
        }
    while (num.size() % 32) num.push_back(0), count.push_back(1);
    for (Isa isa : vectorIsas()) {
        std::vector<uint8_t> q(num.size());
        ASSERT_TRUE(morven::smoothQuotients(isa, num.data(), count.data(), q.data(), static_cast<int32_t>(q.size())));
        for (size_t i = 0; i < q.size(); ++i)
            ASSERT_EQ(q[i], static_cast<uint8_t>(num[i] / count[i])) << isaName(isa) << " " << num[i] << " / " << count[i];
    }
    EXPECT_FALSE(morven::smoothQuotients(Isa::Portable, num.data(), count.data(), nullptr, 32));
}

}  // namespace
