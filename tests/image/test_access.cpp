// Single-element reads, bilinear interpolation, fills and whole-image
// statistics.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "image/image_internal.hpp"
#include "morven/image.h"

namespace {

using morven::loadElement;
using morven::storeRaw;

struct ImagePtr {
    wzImage *p;
    explicit ImagePtr(wzImage *img) : p(img) {}
    ~ImagePtr() { wzImageRelease(&p); }
    ImagePtr(const ImagePtr &) = delete;
    ImagePtr &operator=(const ImagePtr &) = delete;
    wzImage *operator->() const { return p; }
    wzImage *get() const { return p; }
};

const uint32_t kTypes[] = {wzType8U, wzType32S, wzType16U, wzType32S24, wzType32F, wzType64F};

// Stores element i of a block, by type code.
void put(wzImage *img, int64_t i, double v) {
    morven::dispatchType(img->type, [&](auto tag) {
        using T = typename decltype(tag)::T;
        storeRaw<T>(img->data + i * int64_t{sizeof(T)}, static_cast<T>(v));
    });
}

double get(const wzImage *img, int64_t i) {
    double v = 0;
    morven::dispatchType(img->type, [&](auto tag) {
        using T = typename decltype(tag)::T;
        v = static_cast<double>(loadElement<T>(img->data + i * int64_t{sizeof(T)}));
    });
    return v;
}

double getVal(const wzImage *img, int32_t x, int32_t y) {
    const wzPoint p{12345, x, y, 0};
    return wzImageGetVal(img, &p);
}

double interp(const wzImage *img, double x, double y) {
    const double pos[2] = {x, y};
    return wzImageGetInterpolatedVal(img, pos);
}

TEST(ImageAccess, GetValReadsByType) {
    ImagePtr a(wzImageCreate(4, 3, wzEncodingGray));
    std::memset(a->data, 0, 12);
    a->data[1 * 4 + 2] = 200;
    EXPECT_EQ(getVal(a.get(), 2, 1), 200.0);
    EXPECT_EQ(getVal(a.get(), 1, 2), 0.0);

    ImagePtr b(wzImageCreateWithType(4, 3, wzEncodingGray, wzType32S));
    put(b.get(), 5, -5);
    EXPECT_EQ(getVal(b.get(), 1, 1), -5.0);

    ImagePtr c(wzImageCreateWithType(2, 2, wzEncodingGray, wzType16U));
    put(c.get(), 3, 65535);
    EXPECT_EQ(getVal(c.get(), 1, 1), 65535.0);

    ImagePtr d(wzImageCreateWithType(2, 2, wzEncodingGray, wzType32S24));
    put(d.get(), 2, -16777215);
    EXPECT_EQ(getVal(d.get(), 0, 1), -16777215.0);

    ImagePtr f(wzImageCreateWithType(2, 1, wzEncodingGray, wzType32F));
    put(f.get(), 1, 0.1f);
    EXPECT_EQ(getVal(f.get(), 1, 0), static_cast<double>(0.1f));

    ImagePtr g(wzImageCreateWithType(2, 1, wzEncodingGray, wzType64F));
    put(g.get(), 1, 0.1);
    EXPECT_EQ(getVal(g.get(), 1, 0), 0.1);

    // The index counts elements, not pixels: x 1 of a BGR row is pixel 0's green.
    ImagePtr bgr(wzImageCreate(2, 1, wzEncodingBGR));
    for (int i = 0; i < 6; ++i) bgr->data[i] = static_cast<uint8_t>(10 + i);
    EXPECT_EQ(getVal(bgr.get(), 1, 0), 11.0);
    // roi is ignored.
    const wzRect r{1, 0, 1, 1};
    wzImageSetROI(bgr.get(), &r);
    EXPECT_EQ(getVal(bgr.get(), 0, 0), 10.0);

    // Unknown type codes read 0.0 (a header over a real block).
    ImagePtr u(wzImageCreateHeaderWithType(2, 1, wzEncodingGray, 7));
    uint8_t bytes[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    u->data = bytes;
    EXPECT_EQ(getVal(u.get(), 1, 0), 0.0);
    EXPECT_EQ(interp(u.get(), 0.5, 0.0), 0.0);
    u->data = nullptr;
}

TEST(ImageAccess, GetValUnalignedBlock) {
    // A host buffer need not be aligned to the element size.
    alignas(8) uint8_t raw[1 + 4 * 8] = {};
    const double vals[4] = {1.5, -2.25, 1e300, -0.0};
    std::memcpy(raw + 1, vals, sizeof vals);
    ImagePtr h(wzImageCreateHeaderWithType(2, 2, wzEncodingGray, wzType64F));
    h->data = raw + 1;
    EXPECT_EQ(getVal(h.get(), 0, 0), 1.5);
    EXPECT_EQ(getVal(h.get(), 1, 0), -2.25);
    EXPECT_EQ(getVal(h.get(), 0, 1), 1e300);
    EXPECT_EQ(interp(h.get(), 0.5, 0.0), 1.5 + 0.5 * (-2.25 - 1.5));
    h->data = nullptr;
}

TEST(ImageAccess, InterpolationWorkedValues) {
    ImagePtr a(wzImageCreate(2, 2, wzEncodingGray));
    const uint8_t px[4] = {10, 20, 30, 40};
    std::memcpy(a->data, px, 4);
    EXPECT_EQ(interp(a.get(), 0.5, 0.0), 15.0);
    EXPECT_EQ(interp(a.get(), 0.25, 0.5), 22.5);
    EXPECT_EQ(interp(a.get(), 0.0, 0.5), 20.0);
    EXPECT_EQ(interp(a.get(), 0.0, 0.0), 10.0);
    // Negative positions truncate toward zero and extrapolate from the right
    // or lower neighbour: 10 + (-0.5) * (20 - 10).
    EXPECT_EQ(interp(a.get(), -0.5, 0.0), 5.0);
    EXPECT_EQ(interp(a.get(), 0.0, -0.25), 10.0 - 0.25 * 20.0);
    // The block holds exactly 4 bytes: under AddressSanitizer a read of a
    // right or lower neighbour of the last element would be reported.
    EXPECT_EQ(interp(a.get(), 1.0, 1.0), 40.0);
    EXPECT_EQ(interp(a.get(), 1.0, 0.5), 30.0);  // last column: only below is read
    EXPECT_EQ(interp(a.get(), 0.5, 1.0), 35.0);  // last row: only the right is read

    ImagePtr d(wzImageCreateWithType(3, 2, wzEncodingGray, wzType64F));
    for (int i = 0; i < 6; ++i) put(d.get(), i, i * 1.5);
    EXPECT_EQ(interp(d.get(), 2.0, 1.0), 7.5);
    EXPECT_EQ(interp(d.get(), 2.0, 0.5), 3.0 + 0.5 * (7.5 - 3.0));  // reads index 5, not 3
}

// Exact cross-check: integer elements and fractions in eighths make every
// product and sum exact, so the textbook weighted form must agree bit for bit.
TEST(ImageAccess, InterpolationMatchesWeightedForm) {
    std::mt19937 rng(7);
    for (uint32_t type : kTypes) {
        const int w = 7, h = 5;
        ImagePtr img(wzImageCreateWithType(w, h, wzEncodingGray, type));
        std::vector<double> ref(w * h);
        const int hi = type == wzType8U ? 255 : 1000;
        for (int i = 0; i < w * h; ++i) {
            ref[i] = static_cast<double>(std::uniform_int_distribution<int>(0, hi)(rng));
            put(img.get(), i, ref[i]);
        }
        for (int k = 0; k < 300; ++k) {
            const int xi = std::uniform_int_distribution<int>(0, w - 2)(rng);
            const int yi = std::uniform_int_distribution<int>(0, h - 2)(rng);
            const double fx = std::uniform_int_distribution<int>(0, 7)(rng) / 8.0;
            const double fy = std::uniform_int_distribution<int>(0, 7)(rng) / 8.0;
            const double p00 = ref[yi * w + xi], p10 = ref[yi * w + xi + 1];
            const double p01 = ref[(yi + 1) * w + xi], p11 = ref[(yi + 1) * w + xi + 1];
            const double want = (1 - fx) * (1 - fy) * p00 + fx * (1 - fy) * p10 +
                                (1 - fx) * fy * p01 + fx * fy * p11;
            EXPECT_EQ(interp(img.get(), xi + fx, yi + fy), want)
                << "type " << type << " at " << xi + fx << ", " << yi + fy;
        }
    }
}

TEST(ImageAccess, SetValStoreRules) {
    ImagePtr a(wzImageCreate(3, 2, wzEncodingBGR));
    wzImageSetVal(a.get(), 300.0);
    for (int i = 0; i < 18; ++i) ASSERT_EQ(a->data[i], 44) << i;
    wzImageSetVal(a.get(), -1.0);
    for (int i = 0; i < 18; ++i) ASSERT_EQ(a->data[i], 255) << i;
    wzImageSetVal(a.get(), 7.99);
    EXPECT_EQ(a->data[17], 7);
    wzImageSetVal(a.get(), 1e10);  // saturates to INT32_MAX, low byte 255
    EXPECT_EQ(a->data[0], 255);
    wzImageSetVal(a.get(), std::nan(""));
    EXPECT_EQ(a->data[5], 0);

    ImagePtr b(wzImageCreateWithType(2, 2, wzEncodingRGBA, wzType16U));
    wzImageSetVal(b.get(), 70000.0);
    for (int i = 0; i < 16; ++i) ASSERT_EQ(get(b.get(), i), 4464.0) << i;

    ImagePtr c(wzImageCreateWithType(2, 2, wzEncodingGray, wzType32F));
    wzImageSetVal(c.get(), 0.1);
    for (int i = 0; i < 4; ++i) ASSERT_EQ(loadElement<float>(c->data + 4 * i), 0.1f);

    ImagePtr d(wzImageCreateWithType(2, 2, wzEncodingGray, wzType64F));
    wzImageSetVal(d.get(), 0.1);
    for (int i = 0; i < 4; ++i) ASSERT_EQ(get(d.get(), i), 0.1);

    for (uint32_t type : {wzType32S, wzType32S24}) {
        ImagePtr e(wzImageCreateWithType(3, 1, wzEncodingGray, type));
        wzImageSetVal(e.get(), -7.9);
        for (int i = 0; i < 3; ++i) ASSERT_EQ(get(e.get(), i), -7.0);
        wzImageSetVal(e.get(), 1e10);
        EXPECT_EQ(get(e.get(), 2), 2147483647.0);
        wzImageSetVal(e.get(), -1e10);
        EXPECT_EQ(get(e.get(), 0), -2147483648.0);
        wzImageSetVal(e.get(), -std::numeric_limits<double>::infinity());
        EXPECT_EQ(get(e.get(), 1), -2147483648.0);
        wzImageSetVal(e.get(), std::nan(""));
        EXPECT_EQ(get(e.get(), 1), 0.0);
    }
}

// Fills cover the whole block whatever roi says, and write nothing for an
// invalid encoding or unknown type.
TEST(ImageAccess, FillsCoverWholeBlockOnly) {
    for (uint32_t type : kTypes) {
        ImagePtr img(wzImageCreateWithType(3, 2, wzEncodingARGB, type));
        const wzRect r{1, 1, 1, 1};
        wzImageSetROI(img.get(), &r);
        const size_t bytes = 3 * 2 * 4 * morven::elementSize(type);
        std::memset(img->data, 0xA5, bytes);
        wzImageSetVal(img.get(), 3.0);
        for (int i = 0; i < 24; ++i) ASSERT_EQ(get(img.get(), i), 3.0) << type << " " << i;
        wzImageSetZero(img.get());
        for (size_t i = 0; i < bytes; ++i) ASSERT_EQ(img->data[i], 0) << type << " " << i;
    }

    // Headers over a guarded buffer: nothing may be written.
    uint8_t buf[64];
    std::memset(buf, 0xA5, sizeof buf);
    ImagePtr bad(wzImageCreateHeaderWithType(2, 2, 7, wzType8U));  // encoding 7
    bad->data = buf;
    wzImageSetVal(bad.get(), 1.0);
    wzImageSetZero(bad.get());
    bad->encoding = wzEncodingGray;
    bad->type = 3;  // unknown type
    wzImageSetVal(bad.get(), 1.0);
    wzImageSetZero(bad.get());
    bad->type = wzType8U;
    bad->width = -2;  // negative element count
    wzImageSetVal(bad.get(), 1.0);
    wzImageSetZero(bad.get());
    for (uint8_t v : buf) ASSERT_EQ(v, 0xA5);
    bad->data = nullptr;
}

TEST(ImageAccess, MinMaxStatusesAndRegion) {
    double mn = 0, mx = 0;
    ImagePtr rgb(wzImageCreate(2, 2, wzEncodingRGB));
    std::memset(rgb->data, 9, 12);
    EXPECT_EQ(wzImageGetMinMaxValues(rgb.get(), &mn, &mx), 1u);
    EXPECT_EQ(mn, 1.7976931348623157e308);
    EXPECT_EQ(mx, -1.7976931348623157e308);

    ImagePtr g(wzImageCreate(4, 3, wzEncodingGray));
    const uint8_t px[12] = {0, 1, 2, 250, 4, 50, 60, 7, 8, 9, 10, 255};
    std::memcpy(g->data, px, 12);
    wzRect empty{1, 1, 0, 2};
    wzImageSetROI(g.get(), &empty);
    mn = mx = 0;
    EXPECT_EQ(wzImageGetMinMaxValues(g.get(), &mn, &mx), 0u);
    EXPECT_EQ(mn, DBL_MAX);
    EXPECT_EQ(mx, -DBL_MAX);

    // Region (1, 1, 2, 2) holds 50, 60, 9, 10; the extremes 0, 250, 255 lie outside.
    const wzRect r{1, 1, 2, 2};
    wzImageSetROI(g.get(), &r);
    EXPECT_EQ(wzImageGetMinMaxValues(g.get(), &mn, &mx), 0u);
    EXPECT_EQ(mn, 9.0);
    EXPECT_EQ(mx, 60.0);

    g->type = 3;
    mn = mx = 0;
    EXPECT_EQ(wzImageGetMinMaxValues(g.get(), &mn, &mx), 1u);
    EXPECT_EQ(mn, DBL_MAX);
    EXPECT_EQ(mx, -DBL_MAX);
    g->type = wzType8U;
}

double minMaxOf(std::initializer_list<float> vals, double *outMax) {
    ImagePtr f(wzImageCreateWithType(static_cast<int32_t>(vals.size()), 1, wzEncodingGray,
                                     wzType32F));
    int i = 0;
    for (float v : vals) storeRaw<float>(f->data + 4 * i++, v);
    double mn = 0;
    EXPECT_EQ(wzImageGetMinMaxValues(f.get(), &mn, outMax), 0u);
    return mn;
}

// The update order: an infinite extreme is pulled back to +-DBL_MAX by the
// next element, and the element that pulls min back is not compared.
TEST(ImageAccess, MinMaxInfinityAndNaN) {
    const float inf = std::numeric_limits<float>::infinity();
    const float nan = std::numeric_limits<float>::quiet_NaN();
    double mx = 0;
    EXPECT_EQ(minMaxOf({inf}, &mx), DBL_MAX);
    EXPECT_EQ(mx, std::numeric_limits<double>::infinity());
    EXPECT_EQ(minMaxOf({inf, 5.0f}, &mx), 5.0);
    EXPECT_EQ(mx, DBL_MAX);
    EXPECT_EQ(minMaxOf({-inf}, &mx), -std::numeric_limits<double>::infinity());
    EXPECT_EQ(mx, -DBL_MAX);
    EXPECT_EQ(minMaxOf({-inf, 5.0f, 3.0f}, &mx), -DBL_MAX);
    EXPECT_EQ(mx, 5.0);
    EXPECT_EQ(minMaxOf({nan, 2.0f, nan, -1.0f, nan}, &mx), -1.0);
    EXPECT_EQ(mx, 2.0);
    EXPECT_EQ(minMaxOf({nan}, &mx), DBL_MAX);
    EXPECT_EQ(mx, -DBL_MAX);
}

TEST(ImageAccess, MinMaxRandomRegions) {
    std::mt19937 rng(11);
    for (uint32_t type : kTypes) {
        for (int k = 0; k < 20; ++k) {
            const int w = std::uniform_int_distribution<int>(1, 13)(rng);
            const int h = std::uniform_int_distribution<int>(1, 9)(rng);
            ImagePtr img(wzImageCreateWithType(w, h, wzEncodingGray, type));
            const bool isSigned = type != wzType8U && type != wzType16U;
            std::uniform_int_distribution<int> val(isSigned ? -30000 : 0,
                                                   type == wzType8U ? 255 : 30000);
            for (int i = 0; i < w * h; ++i) put(img.get(), i, val(rng) / (type >= 20 ? 8.0 : 1.0));
            wzRect r;
            r.x = std::uniform_int_distribution<int>(0, w - 1)(rng);
            r.y = std::uniform_int_distribution<int>(0, h - 1)(rng);
            r.width = std::uniform_int_distribution<int>(1, w - r.x)(rng);
            r.height = std::uniform_int_distribution<int>(1, h - r.y)(rng);
            wzImageSetROI(img.get(), &r);
            double wantMin = DBL_MAX, wantMax = -DBL_MAX;
            for (int y = r.y; y < r.y + r.height; ++y)
                for (int x = r.x; x < r.x + r.width; ++x) {
                    wantMin = std::min(wantMin, get(img.get(), y * w + x));
                    wantMax = std::max(wantMax, get(img.get(), y * w + x));
                }
            double mn, mx;
            ASSERT_EQ(wzImageGetMinMaxValues(img.get(), &mn, &mx), 0u);
            EXPECT_EQ(mn, wantMin);
            EXPECT_EQ(mx, wantMax);
        }
    }
}

TEST(ImageAccess, NonZeroROIWorkedValues) {
    ImagePtr g(wzImageCreate(8, 9, wzEncodingGray));
    std::memset(g->data, 0, 72);
    const wzRect small{0, 0, 1, 1};
    wzImageSetROI(g.get(), &small);  // ignored
    wzRect rect{9, 9, 9, 9};
    uint32_t empty = 7;
    EXPECT_EQ(wzImageGetNonZeroROI(g.get(), &rect, &empty), 0u);
    EXPECT_EQ(empty, 1u);
    EXPECT_EQ(rect.x, 0);
    EXPECT_EQ(rect.y, 0);
    EXPECT_EQ(rect.width, 0);
    EXPECT_EQ(rect.height, 0);

    g->data[2 * 8 + 3] = 1;
    g->data[7 * 8 + 5] = 200;
    EXPECT_EQ(wzImageGetNonZeroROI(g.get(), &rect, &empty), 0u);
    EXPECT_EQ(empty, 0u);
    EXPECT_EQ(rect.x, 3);
    EXPECT_EQ(rect.y, 2);
    EXPECT_EQ(rect.width, 3);
    EXPECT_EQ(rect.height, 6);

    // Non-gray: status 1 and nothing written.
    ImagePtr c(wzImageCreate(2, 2, wzEncodingBGR));
    std::memset(c->data, 1, 12);
    rect = wzRect{9, 9, 9, 9};
    empty = 7;
    EXPECT_EQ(wzImageGetNonZeroROI(c.get(), &rect, &empty), 1u);
    EXPECT_EQ(empty, 7u);
    EXPECT_EQ(rect.x, 9);
    EXPECT_EQ(rect.height, 9);

    // Unknown type: status 1 with the flag set to 1, rect untouched.
    g->type = 5;
    EXPECT_EQ(wzImageGetNonZeroROI(g.get(), &rect, &empty), 1u);
    EXPECT_EQ(empty, 1u);
    EXPECT_EQ(rect.x, 9);
    g->type = wzType8U;

    // Floats: -0.0 is zero, NaN is not.
    ImagePtr f(wzImageCreateWithType(4, 3, wzEncodingGray, wzType32F));
    for (int i = 0; i < 12; ++i) put(f.get(), i, -0.0);
    EXPECT_EQ(wzImageGetNonZeroROI(f.get(), &rect, &empty), 0u);
    EXPECT_EQ(empty, 1u);
    put(f.get(), 1 * 4 + 2, std::nan(""));
    EXPECT_EQ(wzImageGetNonZeroROI(f.get(), &rect, &empty), 0u);
    EXPECT_EQ(empty, 0u);
    EXPECT_EQ(rect.x, 2);
    EXPECT_EQ(rect.y, 1);
    EXPECT_EQ(rect.width, 1);
    EXPECT_EQ(rect.height, 1);
}

TEST(ImageAccess, NonZeroROIRandomCrossCheck) {
    std::mt19937 rng(5);
    for (uint32_t type : kTypes) {
        for (int k = 0; k < 30; ++k) {
            const int w = std::uniform_int_distribution<int>(1, 17)(rng);
            const int h = std::uniform_int_distribution<int>(1, 11)(rng);
            ImagePtr img(wzImageCreateWithType(w, h, wzEncodingGray, type));
            const int hits = std::uniform_int_distribution<int>(0, 4)(rng);
            for (int i = 0; i < w * h; ++i) put(img.get(), i, 0.0);
            int x0 = w, y0 = h, x1 = -1, y1 = -1;
            for (int n = 0; n < hits; ++n) {
                const int x = std::uniform_int_distribution<int>(0, w - 1)(rng);
                const int y = std::uniform_int_distribution<int>(0, h - 1)(rng);
                put(img.get(), y * w + x, 1.0 + n);
                x0 = std::min(x0, x);
                y0 = std::min(y0, y);
                x1 = std::max(x1, x);
                y1 = std::max(y1, y);
            }
            wzRect rect;
            uint32_t empty;
            ASSERT_EQ(wzImageGetNonZeroROI(img.get(), &rect, &empty), 0u);
            ASSERT_EQ(empty, hits == 0 ? 1u : 0u);
            if (hits == 0) continue;
            EXPECT_EQ(rect.x, x0);
            EXPECT_EQ(rect.y, y0);
            EXPECT_EQ(rect.width, x1 - x0 + 1);
            EXPECT_EQ(rect.height, y1 - y0 + 1);
        }
    }
}

TEST(ImageAccess, Invert) {
    ImagePtr a(wzImageCreate(3, 1, wzEncodingGray));
    ImagePtr b(wzImageCreate(3, 1, wzEncodingGray));
    a->data[0] = 0;
    a->data[1] = 1;
    a->data[2] = 255;
    EXPECT_EQ(wzImageInvert(a.get(), b.get()), 0u);
    EXPECT_EQ(b->data[0], 255);
    EXPECT_EQ(b->data[1], 254);
    EXPECT_EQ(b->data[2], 0);
    EXPECT_EQ(wzImageInvert(b.get(), b.get()), 0u);  // in place
    EXPECT_EQ(b->data[0], 0);
    EXPECT_EQ(b->data[1], 1);
    EXPECT_EQ(b->data[2], 255);

    // Only the first width * height bytes: a BGR image keeps two thirds.
    ImagePtr c(wzImageCreate(2, 1, wzEncodingBGR));
    std::memset(c->data, 10, 6);
    EXPECT_EQ(wzImageInvert(c.get(), c.get()), 0u);
    const uint8_t wantC[6] = {245, 245, 10, 10, 10, 10};
    EXPECT_EQ(std::memcmp(c->data, wantC, 6), 0);

    // Mismatches write nothing.
    ImagePtr tall(wzImageCreate(3, 2, wzEncodingGray));
    std::memset(tall->data, 77, 6);
    EXPECT_EQ(wzImageInvert(a.get(), tall.get()), 1u);
    EXPECT_EQ(wzImageInvert(tall.get(), a.get()), 1u);
    ImagePtr wide(wzImageCreate(4, 1, wzEncodingGray));
    std::memset(wide->data, 77, 4);
    EXPECT_EQ(wzImageInvert(a.get(), wide.get()), 1u);
    for (int i = 0; i < 6; ++i) EXPECT_EQ(tall->data[i], 77);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(wide->data[i], 77);

    ImagePtr s16(wzImageCreateWithType(3, 1, wzEncodingGray, wzType16U));
    ImagePtr d16(wzImageCreateWithType(3, 1, wzEncodingGray, wzType16U));
    std::memset(d16->data, 77, 6);
    EXPECT_EQ(wzImageInvert(s16.get(), d16.get()), 1u);
    EXPECT_EQ(wzImageInvert(a.get(), d16.get()), 1u);
    for (int i = 0; i < 6; ++i) EXPECT_EQ(d16->data[i], 77);
}

}  // namespace
