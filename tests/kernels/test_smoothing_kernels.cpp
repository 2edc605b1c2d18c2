// Selective smoothing: the table-driven pass against the rule, and the
// row-pipelined pass with the row kernels of every instruction set here (the
// plain ones included) against the table-driven pass on guarded blocks
// (awkward and large sizes, every threshold regime, pass counts across the
// pipelined group size, flat guides, guide = input, in place, outputs partly
// over the input, with and without a cancel flag),
// the fallback for other tables, cancellation, and the quotient step over
// its whole input range.
#include <cstdlib>

#include "kernel_support.hpp"
#include "smoothing/smoothing_internal.hpp"

using namespace kernel_test;

namespace {

struct Support {
    wzSelectiveSmoothSupport *p = wzSelectiveSmoothSupportCreate();
    ~Support() { wzSelectiveSmoothSupportRelease(&p); }
};

// One run's images (initial contents). The guide may be the input, the
// output the input (inPlace) or a header one input row into the input's
// block (below: then `input` holds that whole block).
struct Scene {
    int32_t w, h;
    uint32_t encG = wzEncodingBGR, encX = wzEncodingBGR, encO = wzEncodingBGR;
    bool guideIsInput = false, inPlace = false, below = false;
    Bytes guide{}, input{}, output{};
};

// Runs the kernels of `isa` (null: the table-driven pass) on copies of the
// scene in guarded blocks; returns the block holding the output.
Bytes run(const Isa *isa, const Scene &s, const wzSelectiveSmoothParams &p,
          const wzSelectiveSmoothSupport *support, const uint32_t *cancel, wzStatus want = 0) {
    GuardedBlock gb(s.guide), xb(s.input), ob(s.output);
    uint8_t *out = s.inPlace ? xb.data
                   : s.below ? xb.data + size_t(s.w) * channels(s.encX)
                             : ob.data;
    const wzRect all{0, 0, s.w, s.h};
    HeaderPtr g = header(s.w, s.h, s.encG, gb.data, all),
              x = header(s.w, s.h, s.encX, xb.data, all),
              o = header(s.w, s.h, s.inPlace ? s.encX : s.encO, out, all);
    EXPECT_EQ(
        morven::selectiveSmoothWith(isa ? &kernels(*isa) : nullptr, &p, support,
                                    s.guideIsInput ? x.get() : g.get(), x.get(), o.get(), cancel),
        want);
    return out == ob.data ? bytesAt(ob.data, s.output.size()) : bytesAt(xb.data, s.input.size());
}

// The rule on the scene's initial contents, for outputs not partly over the
// input, channel by channel: a neighbour (of up to eight) whose guide
// differs by less than t and whose input differs by more than twice that
// proposes its input shifted by the guide step; the pixel becomes the
// truncated mean of itself and the proposals, of which the low byte is kept.
// Without a pair to accept (t below one level, no passes, images of one row
// or column: a choice of this library) the input is copied, whole pixels
// where the layouts agree.
Bytes reference(const Scene &s, const wzSelectiveSmoothParams &p) {
    const int t = int(p.threshold * 255.0f), w = s.w, h = s.h;
    const uint32_t encG = s.guideIsInput ? s.encX : s.encG, encO = s.inPlace ? s.encX : s.encO;
    const Bytes &guide = s.guideIsInput ? s.input : s.guide;
    if ((t < 1 || p.iterations < 1 || w < 2 || h < 2) && encO == s.encX) return s.input;
    Bytes out = s.inPlace ? s.input : s.output;
    for (int c = 1; c <= 3; ++c) {
        std::vector<int> x(w * h), g(w * h), next(w * h);
        for (int i = 0; i < w * h; ++i)
            x[i] = s.input[i * channels(s.encX) + offsetOf(s.encX, c)],
            g[i] = guide[i * channels(encG) + offsetOf(encG, c)];
        for (int it = 0; it < p.iterations && w > 1 && h > 1; ++it, x.swap(next))
            for (int i = 0; i < w * h; ++i) {
                int sum = x[i], count = 1;
                for (int k = 0; k < 9; ++k) {
                    const int qx = i % w + k % 3 - 1, qy = i / w + k / 3 - 1, q = qy * w + qx;
                    if (k != 4 && qx >= 0 && qy >= 0 && qx < w && qy < h &&
                        std::abs(g[i] - g[q]) < t &&
                        std::abs(x[i] - x[q]) > 2 * std::abs(g[i] - g[q]))
                        sum += x[q] + g[i] - g[q], ++count;
                }
                next[i] = uint8_t(sum / count);
            }
        for (int i = 0; i < w * h; ++i) out[i * channels(encO) + offsetOf(encO, c)] = uint8_t(x[i]);
    }
    return out;
}

// The table-driven pass follows the rule (unless the support's tables are
// not the usual ones), and every kernel table gives its bytes, with and
// without a cancel flag that is never set.
void expectSameAsScalar(const Scene &s, const wzSelectiveSmoothParams &p,
                        const wzSelectiveSmoothSupport *support, bool rule = true) {
    const uint32_t noCancel = 0;
    const Bytes want = run(nullptr, s, p, support, nullptr);
    ASSERT_TRUE(s.below || !rule || want == reference(s, p))
        << "rule " << s.w << "x" << s.h << " t=" << p.threshold << " passes=" << p.iterations;
    for (Isa isa : availableIsas())
        for (const uint32_t *cancel : {static_cast<const uint32_t *>(nullptr), &noCancel})
            ASSERT_EQ(run(&isa, s, p, support, cancel), want)
                << isaName(isa) << (cancel ? " with flag " : " ") << s.w << "x" << s.h
                << " t=" << p.threshold << " passes=" << p.iterations;
}

// A BGR scene whose three channels hold f(column, row) = {guide, input}.
template <class F>
Scene patterned(int32_t w, int32_t h, F f) {
    Scene s{w, h};
    for (size_t k = 0; k < blockSize(w, h, wzEncodingBGR); ++k) {
        const auto [g, x] = f(k / 3 % size_t(w), k / 3 / size_t(w));
        s.guide.push_back(uint8_t(g));
        s.input.push_back(uint8_t(x));
    }
    s.output = s.input;
    return s;
}

// Guides flat, locally flat with small steps (many pairs near the
// threshold) or random; inputs from narrow to the full range, or at its ends.
Scene randomScene(int32_t w, int32_t h, std::mt19937 &rng) {
    const uint32_t colour[] = {wzEncodingBGR, wzEncodingRGB, wzEncodingARGB, wzEncodingRGBA};
    Scene s{w,
            h,
            colour[rng() % 4],
            colour[rng() % 4],
            colour[rng() % 4],
            rng() % 8 == 0,
            rng() % 4 == 0};
    s.below = !s.inPlace && rng() % 6 == 0;
    s.guide.resize(blockSize(w, h, s.encG));
    s.output.resize(blockSize(w, h, s.encO));
    s.input.resize(
        std::max(blockSize(w, h, s.encX), s.below ? blockSize(w, 1, s.encX) + s.output.size() : 0));
    const int kind = int(rng() % 4), spread = 1 + int(rng() % 40);
    const uint8_t flat = uint8_t(rng());
    for (uint8_t &v : s.guide)
        v = kind == 0 ? flat : kind == 3 ? uint8_t(rng()) : uint8_t(100 + rng() % spread);
    const bool ends = rng() % 3 == 0;  // inputs near 0 and 255: sums below 0 and above 255
    for (uint8_t &v : s.input)
        v = ends        ? uint8_t(rng() % 2 ? rng() % 12 : 255 - rng() % 12)
            : rng() % 2 ? uint8_t(rng())
                        : uint8_t(90 + rng() % (3 * spread));
    fillBytes(s.output.data(), s.output.size(), rng);
    return s;
}

}  // namespace

// Widths 2-67 (tails of every vector step), two large images and single rows
// or columns; t = 1, 25, 127, 128, 255 and above, just below one level
// (0.00392 * 255 = 0.9996), negative, and random ones; mostly 1-3 passes,
// sometimes more than the pipelined group of 8, or none; outputs partly over
// the input, which must take the table-driven pass.
TEST(SmoothingKernels, RowKernelsMatchTheTableDrivenPass) {
    Support support;
    ASSERT_TRUE(support.p);
    std::mt19937 rng(2024);
    const float thresholds[] = {0.004f, 0.1f, 0.5f, 0.502f, 1.0f, 3.0f, 0.00392f, -1.0f};
    std::vector<std::pair<int32_t, int32_t>> sizes = {{1037, 203}, {300, 61}, {1, 6}, {9, 1}};
    for (int32_t w = 2; w <= 67; ++w)
        for (int rep = 0; rep < 3; ++rep) sizes.emplace_back(w, 2 + int32_t(rng() % 8));
    for (auto [w, h] : sizes) {
        const Scene s = randomScene(w, h, rng);
        const float th = rng() % 3 ? thresholds[rng() % 8]
                                   : std::uniform_real_distribution<float>(0.0f, 1.0f)(rng);
        const int32_t passes = rng() % 10 == 0 ? 8 + int32_t(rng() % 3) : int32_t(rng() % 4) - 1;
        expectSameAsScalar(s, {th, passes}, support.p);
    }
}

// Pairs exactly at the limits: guide columns alternating with d = t - 1 (at
// most 127), inputs with e = 2d or 2d + 1 by row, so half of the pairs are
// accepted; t = 128 accepts d = 127 only with e = 255.
TEST(SmoothingKernels, PairsAtTheThresholdAndRatioLimits) {
    Support support;
    ASSERT_TRUE(support.p);
    for (const float th : {0.004f, 0.1f, 0.5f, 0.502f, 1.0f}) {
        const int d = std::min(int(th * 255.0f) - 1, 127);
        const Scene s = patterned(70, 5, [&](size_t col, size_t row) {
            return std::pair{col % 2 ? d : 0, col % 2 ? 2 * d + int(row % 2) : 0};
        });
        expectSameAsScalar(s, {th, 1}, support.p);
        EXPECT_NE(run(nullptr, s, {th, 1}, support.p, nullptr), s.input)
            << "nothing accepted at t=" << th;
    }
}

// Supports whose tables are not the closed form take the table-driven pass;
// a flag set before the call gives status 2 and leaves the output as it was,
// with every kernel table and without.
TEST(SmoothingKernels, FallbacksAndCancelBeforeTheCall) {
    Support plain, odd;
    ASSERT_TRUE(plain.p && odd.p);
    std::mt19937 rng(5);
    const uint32_t stop = 1;
    const Scene r = randomScene(40, 6, rng);
    std::vector<const Isa *> choices{nullptr};
    const std::vector<Isa> isas = availableIsas();
    for (const Isa &isa : isas) choices.push_back(&isa);
    for (const Isa *isa : choices)
        for (int32_t passes : {2, 12})
            EXPECT_EQ(run(isa, r, {0.1f, passes}, plain.p, &stop, 2),
                      r.inPlace || r.below ? r.input : r.output)
                << (isa ? isaName(*isa) : "tables");

    // Horizontal pairs with d = 2, e = 4, which e > 2d refuses and the
    // modified table accepts.
    odd.p->ratio->rowPtr[2][4] = 0.25;
    const Scene s = patterned(37, 9, [](size_t col, size_t row) {
        return std::pair{100 + 2 * int(col % 2), 100 + 4 * int(col % 2) + int(row % 2)};
    });
    const wzSelectiveSmoothParams p{0.1f, 2};
    expectSameAsScalar(s, p, odd.p, false);
    EXPECT_NE(run(nullptr, s, p, odd.p, nullptr), run(nullptr, s, p, plain.p, nullptr));
}

// Every numerator the pass can form (-2040..4335) over every count (1..9):
// the low byte of the quotient truncated toward zero.
TEST(SmoothingKernels, QuotientStepIsExact) {
    std::vector<int16_t> num;
    std::vector<uint16_t> count;
    for (int n = 1; n <= 9; ++n)
        for (int v = -2040; v <= 4335; ++v) num.push_back(int16_t(v)), count.push_back(uint16_t(n));
    while (num.size() % 32) num.push_back(0), count.push_back(1);
    for (Isa isa : availableIsas()) {
        Bytes q(num.size());
        kernels(isa).smoothQuotients(num.data(), count.data(), q.data(), int32_t(q.size()));
        for (size_t i = 0; i < q.size(); ++i)
            ASSERT_EQ(q[i], uint8_t(num[i] / count[i]))
                << isaName(isa) << " " << num[i] << " / " << count[i];
    }
}
