// Single-element reads, bilinear interpolation, fills, whole-image
// statistics and inversion.
#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>
#include <tuple>
#include <vector>

#include "support/image_fixtures.hpp"

using namespace morven_test;

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();
const double kNaN = std::nan("");

double getVal(const wzImage *img, int32_t x, int32_t y) {
    const wzPoint p{12345, x, y, 0};
    return wzImageGetVal(img, &p);
}

double interp(const wzImage *img, double x, double y) {
    const double pos[2] = {x, y};
    return wzImageGetInterpolatedVal(img, pos);
}

}  // namespace

// Worked values, then reads and interpolation of every type on an unaligned
// block against the element grid of width w: the index counts elements, not
// pixels (the image is BGR), and ignores roi. Integer elements and fractions in
// eighths keep every product exact, so the textbook weighted form must agree
// bit for bit.
TEST(ImageAccess, GetValAndInterpolation) {
    // The block holds exactly 4 bytes: under AddressSanitizer, reading a right
    // or lower neighbour that a zero fraction does not need would be reported.
    ImagePtr a = makeImage(2, 2, wzEncodingGray);
    const uint8_t levels[4] = {10, 20, 30, 40};
    std::memcpy(a->data, levels, 4);
    const double cases[][3] = {
        {0.5, 0.0, 15.0},  {0.25, 0.5, 22.5}, {0.0, 0.5, 20.0}, {0.0, 0.0, 10.0},
        {-0.5, 0.0, 5.0},  // negative positions extrapolate from the right neighbour
        {0.0, -0.25, 5.0}, {1.0, 1.0, 40.0},  {1.0, 0.5, 30.0}, {0.5, 1.0, 35.0}};
    for (const auto &c : cases) EXPECT_EQ(interp(a.get(), c[0], c[1]), c[2]) << c[0] << "," << c[1];
    a->type = 7;  // unknown type: 0.0
    EXPECT_EQ(getVal(a.get(), 1, 0), 0.0);
    EXPECT_EQ(interp(a.get(), 0.5, 0.0), 0.0);

    std::mt19937 rng(7);
    const int w = 7, h = 5;
    for (uint32_t type : kAllTypes) {
        std::vector<uint8_t> raw(1 + 3 * w * h * typeSize(type));
        HeaderPtr img(wzImageCreateHeaderWithType(w, h, wzEncodingBGR, type));
        img->data = raw.data() + 1;
        setRoi(img.get(), 3, 2, 1, 1);
        // Random 32-bit integers, wrapped or rounded into the element: every
        // product with an eighth stays exact in double.
        for (int i = 0; i < w * h; ++i) setElementAt(img.get(), i, static_cast<int32_t>(rng()));
        auto px = [&](int x, int y) { return elementAt(img.get(), y * w + x); };
        for (int k = 0; k < 300; ++k) {
            const int xi = rng() % (w - 1), yi = rng() % (h - 1);
            const double fx = (rng() % 8) / 8.0, fy = (rng() % 8) / 8.0;
            const double want = (1 - fx) * (1 - fy) * px(xi, yi) + fx * (1 - fy) * px(xi + 1, yi) +
                                (1 - fx) * fy * px(xi, yi + 1) + fx * fy * px(xi + 1, yi + 1);
            ASSERT_EQ(getVal(img.get(), xi, yi + 1), px(xi, yi + 1)) << type;
            ASSERT_EQ(interp(img.get(), xi + fx, yi + fy), want)
                << type << " " << xi + fx << "," << yi + fy;
        }
    }
}

// Fills cover the whole block whatever roi says; the store rule wraps
// integers, saturates beyond 32 bits and stores NaN as 0.
TEST(ImageAccess, SetValStoreRulesAndSetZero) {
    const struct {
        uint32_t type;
        double value, stored;
    } cases[] = {
        // clang-format off
        {wzType8U, 300.0, 44},  {wzType8U, -1.0, 255},      {wzType8U, 7.99, 7},
        {wzType8U, 1e10, 255},  {wzType8U, kNaN, 0},        {wzType16U, 70000.0, 4464},
        {wzType64F, 0.1, 0.1},  {wzType32F, 0.1, static_cast<float>(0.1)},
        {wzType32S, -7.9, -7},  {wzType32S, 1e10, INT32_MAX}, {wzType32S, -1e10, INT32_MIN},
        {wzType32S24, kNaN, 0}, {wzType32S24, -kInf, INT32_MIN},
        // clang-format on
    };
    for (const auto &c : cases) {
        ImagePtr img = makeImage(3, 2, wzEncodingARGB, c.type);
        setRoi(img.get(), 1, 1, 1, 1);
        wzImageSetVal(img.get(), c.value);
        for (int i = 0; i < 24; ++i)
            ASSERT_EQ(elementAt(img.get(), i), c.stored) << c.type << " " << c.value;
        wzImageSetZero(img.get());
        EXPECT_EQ(snapshot(img.get()), std::vector<uint8_t>(blockBytes(img.get()), 0));
    }
    // An invalid encoding, an unknown type or a negative count writes nothing.
    uint8_t buf[16];
    std::memset(buf, 0xA5, sizeof buf);
    for (wzImage bad : {wzImage{wzType8U, 7, 2, 2, buf, {}, 0}, wzImage{3, 0, 2, 2, buf, {}, 0},
                        wzImage{wzType8U, 0, 2, -2, buf, {}, 0}}) {
        wzImageSetVal(&bad, 1.0);
        wzImageSetZero(&bad);
    }
    EXPECT_EQ(std::count(buf, buf + 16, 0xA5), 16);
}

// Refusals and the update order of the statistics.
TEST(ImageAccess, StatisticsStatusesInfinityAndNaN) {
    // Min/max of an image that is not gray, of an empty region, of an unknown
    // type: the initial extremes. The non-zero box of the first and the last:
    // not gray gives status 1 with nothing written; an unknown type status 1
    // with the empty flag set and rect untouched.
    double mn, mx;
    for (int k = 0; k < 3; ++k) {
        ImagePtr g = makeImage(4, 3, k == 0 ? wzEncodingRGB : wzEncodingGray, k == 2 ? 3 : 0);
        setRoi(g.get(), 1, 1, k == 1 ? 0 : 2, 2);
        mn = mx = 0;
        EXPECT_EQ(wzImageGetMinMaxValues(g.get(), &mn, &mx), k == 1 ? 0u : 1u);
        EXPECT_TRUE(mn == DBL_MAX && mx == -DBL_MAX) << k;
        wzRect rect{9, 9, 9, 9};
        uint32_t empty = 7;
        if (k == 1) continue;
        EXPECT_EQ(wzImageGetNonZeroROI(g.get(), &rect, &empty), 1u);
        EXPECT_TRUE(empty == (k == 0 ? 7u : 1u) && rect.x == 9 && rect.height == 9) << k;
    }
    // An infinite extreme is pulled back to +-DBL_MAX by the next element, the
    // element that pulls min back is not compared, and NaN changes nothing.
    const float inf = std::numeric_limits<float>::infinity(), nan = std::nanf("");
    const struct {
        std::vector<float> v;
        double min, max;
    } cases[] = {{{inf}, DBL_MAX, kInf},          {{inf, 5}, 5, DBL_MAX},
                 {{-inf}, -kInf, -DBL_MAX},       {{-inf, 5, 3}, -DBL_MAX, 5},
                 {{nan, 2, nan, -1, nan}, -1, 2}, {{nan}, DBL_MAX, -DBL_MAX}};
    for (const auto &c : cases) {
        ImagePtr f = makeImage(static_cast<int32_t>(c.v.size()), 1, wzEncodingGray, wzType32F);
        std::memcpy(f->data, c.v.data(), 4 * c.v.size());
        ASSERT_EQ(wzImageGetMinMaxValues(f.get(), &mn, &mx), 0u);
        EXPECT_TRUE(mn == c.min && mx == c.max) << c.v.size() << ": " << mn << " " << mx;
    }
}

// Random sparse gray images of every type: min/max over a random region (from
// its own offset), and the box of the non-zeros over the whole block (roi
// ignored). Float zeros are -0.0, which counts as zero; a float NaN counts as
// non-zero but is never an extreme.
TEST(ImageAccess, MinMaxAndNonZeroBoxOfRandomImages) {
    std::mt19937 rng(5);
    for (uint32_t type : kAllTypes)
        for (int k = 0; k < 40; ++k) {
            const int w = 1 + rng() % 17, h = 1 + rng() % 11;
            ImagePtr img = makeImage(w, h, wzEncodingGray, type);
            fillRandom(img.get(), rng);
            int x0 = w, y0 = h, x1 = -1, y1 = -1;
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x) {
                    if (rng() % 8 >= unsigned(k % 4))
                        setElementAt(img.get(), y * w + x, -0.0);
                    else if (type >= wzType32F && rng() % 4 == 0)
                        setElementAt(img.get(), y * w + x, kNaN);
                    if (elementAt(img.get(), y * w + x) == 0) continue;
                    x0 = std::min(x0, x), x1 = std::max(x1, x), y0 = std::min(y0, y), y1 = y;
                }
            const int rx = rng() % w, ry = rng() % h;
            setRoi(img.get(), rx, ry, 1 + rng() % (w - rx), 1 + rng() % (h - ry));
            double wantMin = DBL_MAX, wantMax = -DBL_MAX, mn, mx;
            for (int y = ry; y < ry + img->roi.height; ++y)
                for (int x = rx; x < rx + img->roi.width; ++x) {
                    wantMin = std::min(wantMin, elementAt(img.get(), y * w + x));
                    wantMax = std::max(wantMax, elementAt(img.get(), y * w + x));
                }
            ASSERT_EQ(wzImageGetMinMaxValues(img.get(), &mn, &mx), 0u);
            EXPECT_TRUE(mn == wantMin && mx == wantMax) << type << ": " << mn << " " << mx;
            wzRect rect{};
            uint32_t empty = 7;
            ASSERT_EQ(wzImageGetNonZeroROI(img.get(), &rect, &empty), 0u);
            EXPECT_EQ(empty, x1 < 0 ? 1u : 0u);
            EXPECT_TRUE(x1 < 0 || (rect.x == x0 && rect.y == y0 && rect.width == x1 - x0 + 1 &&
                                   rect.height == y1 - y0 + 1))
                << type << " " << w << "x" << h;
        }
}

TEST(ImageAccess, Invert) {
    // Only the first width * height bytes: a BGR image keeps two thirds.
    ImagePtr a = makeImage(3, 1, wzEncodingBGR), b = makeImage(3, 1, wzEncodingBGR);
    const std::vector<uint8_t> in = {0, 1, 255, 4, 5, 6, 7, 8, 9};
    std::memcpy(a->data, in.data(), 9);
    std::memcpy(b->data, in.data(), 9);
    EXPECT_EQ(wzImageInvert(a.get(), b.get()), 0u);
    EXPECT_EQ(snapshot(b.get()), std::vector<uint8_t>({255, 254, 0, 4, 5, 6, 7, 8, 9}));
    EXPECT_EQ(wzImageInvert(b.get(), b.get()), 0u);  // in place
    EXPECT_EQ(snapshot(b.get()), in);

    // Size or type mismatches and 16-bit images write nothing.
    ImagePtr s16 = makeImage(3, 1, wzEncodingGray, wzType16U);
    for (ImagePtr *s : {&a, &s16})
        for (auto [w, h, type] :
             {std::tuple{3, 2, wzType8U}, {4, 1, wzType8U}, {3, 1, wzType16U}}) {
            ImagePtr d = makeImage(w, h, wzEncodingBGR, type);
            std::memset(d->data, 77, blockBytes(d.get()));
            EXPECT_EQ(wzImageInvert(s->get(), d.get()), 1u) << w << "x" << h << " " << type;
            EXPECT_EQ(snapshot(d.get()), std::vector<uint8_t>(blockBytes(d.get()), 77));
        }
}
