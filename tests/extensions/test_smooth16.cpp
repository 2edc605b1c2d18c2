// Selective smoothing of 16-bit images against a plain loop of its rule.
#include <gtest/gtest.h>

#include <cstdlib>

#include "ext_support.hpp"

using namespace ext;

namespace {

// Each pixel with its up to eight neighbours: a neighbour whose guide
// differs by d < t and whose input differs by more than 2d proposes its
// input shifted by the guide step; the pixel becomes the mean of itself and
// the proposals, truncated toward zero and clamped to 0..65535. Without a
// pass to make (t < 1, no passes, a single row or column) the whole input is
// copied, fourth channel too.
void reference(const wzSelectiveSmoothParams &p, const wzImage *guide, const wzImage *input,
               wzImage *out) {
    const int t = int(p.threshold * 65535.0f), w = input->width, h = input->height;
    const bool copy = t < 1 || p.iterations < 1 || w < 2 || h < 2;
    for (int c = 1; c <= (copy ? wzGetNChannelFromEncoding(input->encoding) : colours(input));
         ++c) {
        std::vector<int> x(w * h), g(w * h), next(w * h);
        for (int i = 0; i < w * h; ++i)
            x[i] = get(input, i % w, i / w, c), g[i] = get(guide, i % w, i / w, c);
        for (int it = 0; it < p.iterations && !copy; ++it, x.swap(next))
            for (int i = 0; i < w * h; ++i) {
                int sum = x[i], count = 1;
                for (int k = 0; k < 9; ++k) {
                    const int qx = i % w + k % 3 - 1, qy = i / w + k / 3 - 1, q = qy * w + qx;
                    if (k == 4 || qx < 0 || qy < 0 || qx >= w || qy >= h) continue;
                    const int d = std::abs(g[i] - g[q]), e = std::abs(x[i] - x[q]);
                    if (d < t && e >= 1 && e > 2 * d) sum += x[q] + g[i] - g[q], ++count;
                }
                next[i] = std::clamp(sum / count, 0, 65535);
            }
        for (int i = 0; i < w * h; ++i) put(out, i % w, i / w, c, x[i]);
    }
}

ImagePtr grid3x3(int centre, int around) {
    ImagePtr img = makeImage(3, 3, wzEncodingGray, wzType16U);
    for (int i = 0; i < 9; ++i) put(img.get(), i % 3, i / 3, 1, i == 4 ? centre : around);
    return img;
}

}  // namespace

// Worked clamps (t = trunc(0.01f * 65535) = 655): a centre of 1000 among
// eight 0s, guide 0 among 499s: each pair has d = 499, e = 1000 > 998, so
// the centre gets (1000 + 8 * (0 - 499)) / 9 = -332 -> 0 and each
// neighbour (0 + 1000 + 499) / 2 = 749; mirrored, 592807 / 9 -> 65535 and
// 129571 / 2 = 64785; with guide steps of 500, e = 2d is not more than
// 2d and nothing changes. Then random pictures (gray, BGR, RGBA, single rows
// and columns too) of large steps under random guides, now and then with a
// threshold below one level or no passes (copies): the plain loop, separate
// and in place, a fourth channel left as it was.
TEST(ExtSmooth16, FollowsThePlainRule) {
    const wzSelectiveSmoothParams one{0.01f, 1};
    for (auto [centre, around, gc, ga, wantCentre, wantAround] :
         {std::tuple{1000, 0, 0, 499, 0, 749},
          {64535, 65535, 499, 0, 65535, 64785},
          {1000, 0, 0, 500, 1000, 0}}) {
        ImagePtr in = grid3x3(centre, around), guide = grid3x3(gc, ga), out = grid3x3(7, 7);
        ASSERT_EQ(wzSelectiveSmooth16(&one, guide.get(), in.get(), out.get(), nullptr), 0u);
        for (int i = 0; i < 9; ++i)
            EXPECT_EQ(get(out.get(), i % 3, i / 3), i == 4 ? wantCentre : wantAround) << i;
    }
    std::mt19937 rng(21);
    for (int round = 0; round < 60; ++round) {
        const uint32_t enc = round % 3 == 0   ? wzEncodingGray
                             : round % 3 == 1 ? wzEncodingBGR
                                              : wzEncodingRGBA;
        const int w = 1 + int(rng() % 13), h = 1 + int(rng() % 10);
        ImagePtr guide = randomImage(w, h, enc, wzType16U, rng), input = clone(guide.get());
        for (size_t i = 0; i < blockBytes(input.get()) / 2; ++i)  // steps of up to a quarter
            setElementAt(
                input.get(), i,
                std::clamp(elementAt(input.get(), i) + int(rng() % 32768) - 16384, 0.0, 65535.0));
        // now and then a threshold below one level, or no passes: copies
        const wzSelectiveSmoothParams p{
            round % 10 ? float(rng() % 1000) / 2000.0f : 0.9f / 65535.0f,
            round % 7 ? 1 + int(rng() % 3) : 0};
        ImagePtr want = randomImage(w, h, enc, wzType16U, rng), out = clone(want.get()),
                 inPlace = clone(input.get());
        reference(p, guide.get(), input.get(), want.get());
        setRoi(out.get(), 1, 1, 1, 1);  // regions are ignored
        SCOPED_TRACE(testing::Message() << "round " << round << " " << w << " x " << h
                                        << " threshold " << p.threshold);
        ASSERT_EQ(wzSelectiveSmooth16(&p, guide.get(), input.get(), out.get(), nullptr), 0u);
        EXPECT_EQ(snapshot(out.get()), snapshot(want.get()));
        reference(p, guide.get(), input.get(), input.get());
        ASSERT_EQ(wzSelectiveSmooth16(&p, guide.get(), inPlace.get(), inPlace.get(), nullptr), 0u);
        EXPECT_EQ(snapshot(inPlace.get()), snapshot(input.get()));
    }
}

// 8-bit gray smoothing equals the three-channel filter on the gray level
// copied into every channel; the extended transfer smooths gray with it.
TEST(ExtSmoothGray, EqualsTheThreeChannelFilter) {
    std::mt19937 rng(21);
    SupportPtr support(wzHistogramTransferSupportCreate());
    ImagePtr guide = randomImage(27, 19, wzEncodingGray, wzType8U, rng),
             input = randomImage(27, 19, wzEncodingGray, wzType8U, rng);
    for (size_t i = 0; i < blockBytes(guide.get()); ++i)
        guide->data[i] = uint8_t(100 + guide->data[i] % 16);
    const wzSelectiveSmoothParams params{0.1f, 3};
    ImagePtr g3 = makeImage(27, 19, wzEncodingBGR), x3 = makeImage(27, 19, wzEncodingBGR),
             out = makeImage(27, 19, wzEncodingGray);
    for (size_t i = 0; i < 3 * blockBytes(guide.get()); ++i)
        g3->data[i] = guide->data[i / 3], x3->data[i] = input->data[i / 3];
    ASSERT_EQ(
        wzSelectiveSmooth(&params, support->smoothSupport, g3.get(), x3.get(), x3.get(), nullptr),
        0u);
    ASSERT_EQ(wzSelectiveSmoothGray(&params, support->smoothSupport, guide.get(), input.get(),
                                    out.get(), nullptr),
              0u);
    for (size_t i = 0; i < blockBytes(out.get()); ++i)
        ASSERT_EQ(out->data[i], x3->data[3 * i]) << i;
    EXPECT_NE(snapshot(out.get()), snapshot(input.get()));
    EXPECT_EQ(wzSelectiveSmoothGray(&params, support->smoothSupport, g3.get(), input.get(),
                                    out.get(), nullptr),
              1u);
    // The extended transfer: the match, then this smoothing guided by the source.
    wzImageColorProfile target;
    wzImageFillColorProfile(guide.get(), &target);
    const wzHistogramMatchParams mp{1.0f, 0.9f, 0, 255, &target};
    const wzHistogramTransferParams tp{&target, 1.0f, 0.9f, 0, 9.0f, 50.0f, 1, 0.1f, 3, 255};
    ImagePtr want = makeImage(27, 19, wzEncodingGray);
    ASSERT_EQ(wzHistogramMatchFilter(&mp, input.get(), nullptr, want.get(), nullptr), 0u);
    ASSERT_EQ(wzSelectiveSmoothGray(&params, support->smoothSupport, input.get(), want.get(),
                                    want.get(), nullptr),
              0u);
    ASSERT_EQ(wzHistogramTransferFilterWithOptions(&tp, nullptr, support.get(), input.get(),
                                                   nullptr, out.get(), nullptr),
              0u);
    EXPECT_EQ(snapshot(out.get()), snapshot(want.get()));
}
