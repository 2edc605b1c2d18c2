// Volume record and voxel access: layouts and worked numbers, the three kinds
// of volume, type conversion, interpolation against a reference formula,
// fills, extremes, non-zero box, slices and the region copy.
#include <gtest/gtest.h>


#include <cfloat>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "support/volume_fixtures.hpp"
#include "morven/morven.h"
#include "volume/volume_internal.hpp"

namespace {

using Bytes = std::vector<uint8_t>;
using morven_test::SeparatePtr;
using morven_test::VolumeHeaderPtr;
using morven_test::VolumePtr;
struct ImageDeleter {
    void operator()(wzImage *i) const { wzImageRelease(&i); }
};
using ImagePtr = std::unique_ptr<wzImage, ImageDeleter>;

const uint32_t kTypes[] = {wzType8U, wzType32S, wzType16U, wzType32S24, wzType32F, wzType64F};

Bytes bytes(const uint8_t *p, size_t n) { return Bytes(p, p + n); }
bool sameBox(const wzBox &a, const wzBox &b) { return std::memcmp(&a, &b, sizeof a) == 0; }

double val(const wzVolume *v, int x, int y, int z) {
    const wzPoint p{-99, x, y, z};
    return wzVolumeGetVal(v, &p);
}

void put(const wzVolume *v, int x, int y, int z, double value) {
    uint8_t *p = v->planes[z]->data + (size_t(y) * v->width + x) * morven::elementSize(v->type);
    morven::dispatchType(v->type, [&](auto tag) {
        using T = typename decltype(tag)::T;
        morven::storeRaw<T>(p, static_cast<T>(value));
    });
}

// Integers 0..255 for the integer types, fractions in -2..2 for the floats.
void fillRandom(const wzVolume *v, std::mt19937 &rng) {
    std::uniform_real_distribution<double> unit(-2.0, 2.0);
    const bool isFloat = v->type == wzType32F || v->type == wzType64F;
    for (int z = 0; z < v->depth; ++z)
        for (int y = 0; y < v->height; ++y)
            for (int x = 0; x < v->width; ++x)
                put(v, x, y, z, isFloat ? static_cast<float>(unit(rng)) : double(rng() % 256));
}

}  // namespace

TEST(VolumeRecord, ContiguousAndHeaderLayouts) {
    VolumePtr v(wzVolumeCreateWithType(4, 3, 2, wzType16U));
    ASSERT_TRUE(v);
    EXPECT_EQ(bytes(v->voxels, 48), Bytes(48, 0));
    EXPECT_EQ(v->planes[0]->data, v->voxels);
    EXPECT_EQ(v->planes[1]->data, v->voxels + 24);
    for (const wzImage *p : {v->planes[0], v->planes[1]})
        EXPECT_TRUE(p->type == wzType16U && p->encoding == wzEncodingGray && p->height == 3 &&
                    p->width == 4 && p->roi.width == 4 && p->roi.height == 3);
    VolumePtr bgr(wzVolumeCreateWithEncoding(4, 3, 2, wzEncodingBGR));
    EXPECT_EQ(bytes(bgr->voxels, 72), Bytes(72, 0));
    EXPECT_EQ(bgr->planes[1]->data - bgr->planes[0]->data, 36);
    const wzSize3D size = wzVolumeSize(bgr.get());
    EXPECT_TRUE(size.width == 4 && size.height == 3 && size.depth == 2);
    const wzBox box{1, 1, 0, 2, 2, 1};
    wzVolumeSetROI(bgr.get(), &box);
    EXPECT_TRUE(sameBox(bgr->roi, box));
    EXPECT_EQ(bgr->planes[0]->roi.x, 0);  // plane regions untouched
    wzVolumeResetROI(bgr.get());
    EXPECT_TRUE(sameBox(bgr->roi, wzBox{0, 0, 0, 4, 3, 2}));
    VolumePtr as(wzVolumeCreateAs(bgr.get()));
    EXPECT_EQ(as->planes[0]->encoding, wzEncodingGray);
    EXPECT_EQ(as->planes[1]->data - as->voxels, 12);

    // A header over the caller's block: planes laid out, block kept on release.
    Bytes block(3 * 2 * 4 * 3, 7);
    wzVolume *h = wzVolumeCreateHeaderWithEncoding(2, 4, 3, wzEncodingRGB);
    EXPECT_EQ(h->planes[2]->data, nullptr);
    wzVolumeAssignData(h, block.data());
    for (int k = 0; k < 3; ++k) EXPECT_EQ(h->planes[k]->data, block.data() + 24 * k);
    wzVolumeReleaseHeader(&h);
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(block, Bytes(72, 7));

    SeparatePtr s(wzVolumeCreateWithTypeWithSeparatePlanes(5, 2, 3, wzType64F));
    EXPECT_EQ(s->voxels, nullptr);
    for (int k = 0; k < 3; ++k) std::memset(s->planes[k]->data, k, 80);  // 80 bytes each
    EXPECT_NE(s->planes[0]->data, s->planes[1]->data);

    EXPECT_EQ(wzVolumeCreateWithEncoding(2, 2, 2, 5), nullptr);
    EXPECT_EQ(wzVolumeCreateHeaderWithEncoding(2, 2, 2, 5), nullptr);
    EXPECT_EQ(wzVolumeCreate(-1, 2, 2), nullptr);
    EXPECT_EQ(wzVolumeCreateWithSeparatePlanes(2, 2, INT32_MIN), nullptr);
    EXPECT_EQ(wzVolumeCreateHeader(2, -3, 2), nullptr);
    VolumePtr empty(wzVolumeCreate(3, 3, 0));
    EXPECT_TRUE(empty && empty->depth == 0);
    wzVolume *none = nullptr;
    wzVolumeRelease(&none);
    wzVolumeReleaseWithSeparatePlanes(&none);
    wzVolumeRelease(nullptr);
}

// Allocation failure part-way through a constructor: in a child process with
// a small address-space limit the volume is refused, and everything it made
// is given back (the same amount can be allocated again right after).
TEST(VolumeRecord, Layout32AndTypeConversion) {
    static_assert(sizeof(wzVolume32) == 48 && offsetof(wzVolume32, roi) == 24);
    static_assert(offsetof(wzVolume, width) == 8 && offsetof(wzVolume, height) == 12 &&
                  offsetof(wzVolume, roi) == 32 && sizeof(wzVolume) == 56);
    VolumePtr v(wzVolumeCreateWithType(4, 3, 2, wzType8U));
    const wzBox box{1, 2, 1, 3, 1, 1};
    wzVolumeSetROI(v.get(), &box);
    wzVolume32 r;
    wzVolume back;
    std::memset(&r, 0xAB, sizeof r);
    std::memset(&back, 0xCD, sizeof back);
    wzVolumeCvtTo32(v.get(), &r);
    const wzVolume32 want32{wzType8U, 2, 4, 3, 0, 0, box};
    EXPECT_EQ(std::memcmp(&r, &want32, sizeof r), 0);
    wzVolumeCvtFrom32(&r, &back);
    EXPECT_TRUE(back.voxels == nullptr && back.planes == nullptr && back.width == 4 && back.height == 3);
    EXPECT_TRUE(sameBox(back.roi, box));

    std::mt19937 rng(11);
    fillRandom(v.get(), rng);
    VolumePtr f(wzVolumeCreateWithType(4, 3, 2, wzType32F)), g(wzVolumeCreateWithType(4, 3, 2, wzType16U));
    ASSERT_EQ(wzVolumeCvtType(v.get(), f.get()), 0u);
    ASSERT_EQ(wzVolumeCvtTypeGivenRange(v.get(), g.get(), 0.0, 255.0), 0u);
    for (int i = 0; i < 24; ++i) {
        const double e = val(v.get(), i % 4, i / 4 % 3, i / 12);
        EXPECT_EQ(val(f.get(), i % 4, i / 4 % 3, i / 12), float(e) / 255.0f);
        EXPECT_EQ(val(g.get(), i % 4, i / 4 % 3, i / 12), std::trunc(e / 255.0 * 65535.0));
    }
    // Depth mismatch: 1 and nothing written. A failing plane stops the walk.
    VolumePtr three(wzVolumeCreate(2, 2, 3)), four(wzVolumeCreate(2, 2, 4));
    std::memset(four->voxels, 9, 16);
    EXPECT_EQ(wzVolumeCvtTypeGivenRange(three.get(), four.get(), 0.0, 1.0), 1u);
    EXPECT_EQ(wzVolumeCvtType(four.get(), three.get()), 1u);  // fewer planes in dst
    EXPECT_EQ(bytes(four->voxels, 16), Bytes(16, 9));
    three->planes[1]->encoding = wzEncodingBGR;
    EXPECT_EQ(wzVolumeCvtType(three.get(), four.get()), 1u);
    EXPECT_EQ(four->voxels[0], 0);  // plane 0 converted, plane 2 not
    EXPECT_EQ(four->voxels[8], 9);
}

TEST(VolumeAccess, WorkedReadsFillsAndInversion) {
    VolumePtr s(wzVolumeCreateWithType(2, 2, 2, wzType32S)), u(wzVolumeCreateWithType(3, 1, 1, wzType16U));
    put(s.get(), 1, 0, 1, -5);
    put(u.get(), 2, 0, 0, 65535);
    EXPECT_TRUE(val(s.get(), 1, 0, 1) == -5.0 && val(u.get(), 2, 0, 0) == 65535.0);
    VolumePtr v(wzVolumeCreate(3, 2, 2));
    put(v.get(), 1, 0, 0, 10);
    put(v.get(), 2, 0, 0, 20);
    put(v.get(), 1, 1, 1, 100);
    const double a[3] = {1.5, 0, 0}, b[3] = {1, 1, 0.25}, c[3] = {1, 1, 1};
    EXPECT_EQ(wzVolumeGetInterpolatedVal(v.get(), a), 15.0);
    EXPECT_EQ(wzVolumeGetInterpolatedVal(v.get(), b), 25.0);
    EXPECT_EQ(wzVolumeGetInterpolatedValPerPlane(v.get(), c), 100.0);

    wzVolumeSetVal(v.get(), 300.7);
    EXPECT_EQ(bytes(v->voxels, 12), Bytes(12, 44));
    wzVolumeSetVal(v.get(), -1.5);
    EXPECT_EQ(bytes(v->voxels, 12), Bytes(12, 255));
    wzVolumeSetVal(u.get(), 70000.0);
    EXPECT_EQ(val(u.get(), 0, 0, 0), 4464.0);
    SeparatePtr f(wzVolumeCreateWithTypeWithSeparatePlanes(2, 2, 3, wzType32F));
    wzVolumeSetVal(f.get(), 0.1);  // each plane's own block
    EXPECT_EQ(val(f.get(), 1, 1, 2), double(0.1f));
    wzVolumeSetZero(f.get());
    u->type = 99;
    EXPECT_TRUE(val(f.get(), 1, 1, 2) == 0.0 && val(u.get(), 2, 0, 0) == 0.0);

    // Multi-channel: element operations decline, SetZero clears every channel.
    VolumePtr bgr(wzVolumeCreateWithEncoding(2, 2, 2, wzEncodingBGR));
    std::memset(bgr->voxels, 5, 24);
    wzVolumeSetVal(bgr.get(), 1.0);
    EXPECT_EQ(val(bgr.get(), 0, 0, 0), 0.0);
    EXPECT_EQ(wzVolumeInvert(bgr.get(), bgr.get()), 1u);
    EXPECT_EQ(bytes(bgr->voxels, 24), Bytes(24, 5));
    wzVolumeSetZero(bgr.get());
    EXPECT_EQ(bytes(bgr->voxels, 24), Bytes(24, 0));

    put(v.get(), 0, 0, 0, 0);
    put(v.get(), 2, 1, 1, 200);
    VolumePtr out(wzVolumeCreate(3, 2, 2)), shallow(wzVolumeCreate(3, 2, 1));
    ASSERT_EQ(wzVolumeInvert(v.get(), out.get()), 0u);
    EXPECT_TRUE(val(out.get(), 0, 0, 0) == 255.0 && val(out.get(), 2, 1, 1) == 55.0);
    ASSERT_EQ(wzVolumeInvert(out.get(), out.get()), 0u);  // in place, back again
    EXPECT_EQ(bytes(out->voxels, 12), bytes(v->voxels, 12));
    EXPECT_EQ(wzVolumeInvert(v.get(), shallow.get()), 1u);
    EXPECT_EQ(wzVolumeInvert(u.get(), u.get()), 1u);  // not 8-bit
}

// Trilinear interpolation against the eight-corner weighted sum, on a header
// volume over a block of exactly the volume's size, so that a read past the
// last column, row or plane is caught by the address sanitizer.
TEST(VolumeAccess, InterpolationMatchesReferenceAndStaysInside) {
    std::mt19937 rng(5);
    const int W = 4, H = 3, D = 3;
    for (uint32_t type : kTypes) {
        Bytes block(W * H * D * morven::elementSize(type));
        VolumeHeaderPtr v(wzVolumeCreateHeaderWithType(W, H, D, type));
        wzVolumeAssignData(v.get(), block.data());
        fillRandom(v.get(), rng);
        std::uniform_real_distribution<double> ux(0, W - 1), uy(0, H - 1), uz(0, D - 1);
        for (int i = 0; i < 200; ++i) {
            double p[3] = {ux(rng), uy(rng), uz(rng)};
            for (double &c : p)  // some on the grid, the far faces included
                if (rng() % 3 == 0) c = std::floor(c + 0.5);
            const int q[3] = {int(p[0]), int(p[1]), int(p[2])};
            double ref = 0.0;
            for (int corner = 0; corner < 8; ++corner) {
                const int d[3] = {corner & 1, corner >> 1 & 1, corner >> 2 & 1};
                double w = 1.0;
                for (int k = 0; k < 3; ++k) w *= d[k] ? p[k] - q[k] : 1.0 - (p[k] - q[k]);
                if (w != 0.0) ref += w * val(v.get(), q[0] + d[0], q[1] + d[1], q[2] + d[2]);
            }
            EXPECT_NEAR(wzVolumeGetInterpolatedVal(v.get(), p), ref, 1e-9 * (1 + std::fabs(ref)))
                << type << " at " << p[0] << ", " << p[1] << ", " << p[2];
        }
    }
}

TEST(VolumeAccess, MinMaxOverBoxAndNonZeroBox) {
    std::mt19937 rng(3);
    for (uint32_t type : kTypes) {
        VolumePtr v(wzVolumeCreateWithType(6, 5, 4, type));
        fillRandom(v.get(), rng);
        for (int trial = 0; trial < 20; ++trial) {
            const int x = rng() % 6, y = rng() % 5, z = rng() % 4;
            const wzBox b{x, y, z, 1 + int(rng() % (6 - x)), 1 + int(rng() % (5 - y)), 1 + int(rng() % (4 - z))};
            wzVolumeSetROI(v.get(), &b);
            double lo = DBL_MAX, hi = -DBL_MAX, mn, mx;
            for (int k = z; k < z + b.depth; ++k)
                for (int j = y; j < y + b.height; ++j)
                    for (int i = x; i < x + b.width; ++i)
                        lo = std::fmin(lo, val(v.get(), i, j, k)), hi = std::fmax(hi, val(v.get(), i, j, k));
            ASSERT_EQ(wzVolumeGetMinMaxValues(v.get(), &mn, &mx), 0u);
            EXPECT_TRUE(mn == lo && mx == hi) << type;
        }
        // A few random non-zero voxels against their bounding box.
        wzVolumeSetZero(v.get());
        wzBox nz;
        int32_t empty = 0;
        ASSERT_TRUE(wzVolumeGetNonZeroROI(v.get(), &nz, &empty) == 0 && empty == 1);
        int lo[3] = {99, 99, 99}, hi[3] = {-1, -1, -1};
        for (int n = 0; n < 3; ++n) {
            const int p[3] = {int(rng() % 6), int(rng() % 5), int(rng() % 4)};
            put(v.get(), p[0], p[1], p[2], 7);
            for (int k = 0; k < 3; ++k) lo[k] = std::min(lo[k], p[k]), hi[k] = std::max(hi[k], p[k]);
        }
        ASSERT_TRUE(wzVolumeGetNonZeroROI(v.get(), &nz, &empty) == 0 && empty == 0);
        EXPECT_TRUE(sameBox(nz, {lo[0], lo[1], lo[2], hi[0] - lo[0] + 1, hi[1] - lo[1] + 1, hi[2] - lo[2] + 1}));
    }
    // -0.0 is zero, NaN non-zero (and skipped by min/max); a single voxel.
    VolumePtr d(wzVolumeCreateWithType(4, 5, 3, wzType64F));
    put(d.get(), 0, 0, 0, -0.0);
    put(d.get(), 2, 3, 1, NAN);
    put(d.get(), 3, 4, 2, -2.5);
    wzBox nz;
    int32_t empty = 1;
    double mn = 0, mx = 0;
    ASSERT_TRUE(wzVolumeGetNonZeroROI(d.get(), &nz, &empty) == 0 && sameBox(nz, {2, 3, 1, 2, 2, 2}));
    ASSERT_TRUE(wzVolumeGetMinMaxValues(d.get(), &mn, &mx) == 0 && mn == -2.5 && mx == 0.0);
    put(d.get(), 3, 4, 2, 0.0);
    ASSERT_TRUE(wzVolumeGetNonZeroROI(d.get(), &nz, &empty) == 0 && sameBox(nz, {2, 3, 1, 1, 1, 1}));
    // Empty box: 0 with the initial values; box outside or unknown type: 1.
    d->roi = wzBox{0, 0, 0, 4, 0, 3};
    EXPECT_TRUE(wzVolumeGetMinMaxValues(d.get(), &mn, &mx) == 0 && mn == DBL_MAX && mx == -DBL_MAX);
    d->roi = wzBox{2, 0, 0, 3, 1, 1};
    EXPECT_EQ(wzVolumeGetMinMaxValues(d.get(), &mn, &mx), 1u);
    d->type = 31;
    EXPECT_EQ(wzVolumeGetMinMaxValues(d.get(), &mn, &mx), 1u);
    EXPECT_TRUE(wzVolumeGetNonZeroROI(d.get(), &nz, &empty) == 1 && empty == 1);
}

TEST(VolumeAccess, Slices) {
    // Axis 1 of a 4 x 3 x 2 volume is 2 wide and 4 high; its element
    // (row 3, column 1) is voxel (3, index, 1).
    VolumePtr v(wzVolumeCreate(4, 3, 2));
    put(v.get(), 3, 2, 1, 77);
    ImagePtr row(wzImageCreate(2, 4, wzEncodingGray)), wrong(wzImageCreate(4, 2, wzEncodingGray));
    ImagePtr rgb(wzImageCreate(2, 4, wzEncodingRGB));
    ASSERT_EQ(wzVolumeGetSlice(v.get(), 1, 2, row.get()), 0u);
    EXPECT_EQ(row->data[3 * 2 + 1], 77);
    EXPECT_EQ(wzVolumeGetSlice(v.get(), 1, 2, wrong.get()), 1u);
    EXPECT_EQ(wzVolumeGetSlice(v.get(), 1, 3, row.get()), 1u);
    EXPECT_EQ(wzVolumeGetSlice(v.get(), 3, 0, row.get()), 1u);
    EXPECT_EQ(wzVolumeGetSlice(v.get(), 1, 0, rgb.get()), 1u);

    // Every axis and type against the voxel reads, on separate planes.
    std::mt19937 rng(9);
    const int shapes[3][3] = {{4, 3, 5}, {3, 5, 4}, {5, 4, 3}};  // out width, height; count
    for (uint32_t type : kTypes) {
        SeparatePtr s(wzVolumeCreateWithTypeWithSeparatePlanes(5, 4, 3, type));
        fillRandom(s.get(), rng);
        for (int axis = 0; axis < 3; ++axis) {
            ImagePtr out(wzImageCreateWithType(shapes[axis][0], shapes[axis][1], wzEncodingGray, type));
            for (int index = 0; index < shapes[axis][2]; ++index) {
                ASSERT_EQ(wzVolumeGetSlice(s.get(), axis, index, out.get()), 0u);
                for (int r = 0; r < out->height; ++r)
                    for (int c = 0; c < out->width; ++c) {
                        const wzPoint p{0, c, r, 0};
                        const double want = axis == 2   ? val(s.get(), c, r, index)
                                            : axis == 1 ? val(s.get(), r, index, c)
                                                        : val(s.get(), index, c, r);
                        ASSERT_EQ(wzImageGetVal(out.get(), &p), want) << type << " axis " << axis;
                    }
            }
        }
        ImagePtr other(wzImageCreateWithType(5, 4, wzEncodingGray, type == wzType8U ? wzType16U : wzType8U));
        EXPECT_EQ(wzVolumeGetSlice(s.get(), 2, 0, other.get()), 1u);
    }
}

TEST(VolumeAccess, Copy3D) {
    std::mt19937 rng(21);
    VolumePtr src(wzVolumeCreate(5, 4, 3)), dst(wzVolumeCreateWithEncoding(6, 6, 4, wzEncodingBGR));
    fillRandom(src.get(), rng);
    const wzRect own{1, 1, 2, 2};
    for (int k = 0; k < 4; ++k) wzImageSetROI(dst->planes[k], &own);
    src->roi = wzBox{1, 1, 1, 3, 2, 2};
    dst->roi = wzBox{2, 3, 0, 3, 2, 3};  // deeper
    EXPECT_EQ(wzCopy3D(src.get(), dst.get()), 1u);
    EXPECT_EQ(bytes(dst->voxels, 432), Bytes(432, 0));
    dst->roi = wzBox{4, 3, 0, 3, 2, 2};  // past the right edge
    EXPECT_EQ(wzCopy3D(src.get(), dst.get()), 1u);
    dst->roi = wzBox{2, 3, 0, 3, 2, 2};
    ASSERT_EQ(wzCopy3D(src.get(), dst.get()), 0u);
    for (int k = 0; k < 4; ++k) EXPECT_TRUE(std::memcmp(&dst->planes[k]->roi, &own, sizeof own) == 0);
    for (int k = 0; k < 3; ++k) EXPECT_EQ(src->planes[k]->roi.width, 5);
    // The gray level fills channels 1-3 inside the box; outside stays zero.
    for (int z = 0; z < 4; ++z)
        for (int y = 0; y < 6; ++y)
            for (int x = 0; x < 6; ++x) {
                const bool in = z < 2 && y >= 3 && y < 5 && x >= 2 && x < 5;
                const uint8_t want = in ? uint8_t(val(src.get(), x - 1, y - 2, z + 1)) : 0;
                for (int c = 0; c < 3; ++c) ASSERT_EQ(dst->planes[z]->data[(y * 6 + x) * 3 + c], want);
            }
}
