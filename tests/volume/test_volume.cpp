// Volumes: the record in its three kinds, type conversion, and voxel reads,
// fills, inversion, interpolation, extremes, the non-zero box, slices and the
// region copy against plain voxel loops on random volumes of every type; dump
// files (exact bytes for every type in both forms, either load reading them
// back, refusal of truncated or hostile input without a leak); the histogram
// operations against a profile counted voxel by voxel and a table looked up
// over the box, blended with a mask by the documented single-precision
// formula.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>

#include "morven/morven.h"
#include "support/dump_stream.hpp"
#include "support/image_fixtures.hpp"
#include "support/volume_fixtures.hpp"

namespace {

using namespace morven_test;

Bytes bytes(const uint8_t *p, size_t n) { return Bytes(p, p + n); }
bool sameBox(const wzBox &a, const wzBox &b) { return std::memcmp(&a, &b, sizeof a) == 0; }

double val(const wzVolume *v, int x, int y, int z) {
    const wzPoint p{-99, x, y, z};
    return wzVolumeGetVal(v, &p);
}

uint8_t *element(const wzVolume *v, int x, int y, int z) {
    return v->planes[z]->data + (size_t(y) * v->width + x) * typeSize(v->type);
}
void put(const wzVolume *v, int x, int y, int z, double value) {
    storeValue(v->type, element(v, x, y, z), value);
}

// Integers 0..255 for the integer types, fractions in -2..2 for the floats.
void fillRandom(const wzVolume *v, std::mt19937 &rng) {
    std::uniform_real_distribution<double> unit(-2.0, 2.0);
    const bool isFloat = v->type == wzType32F || v->type == wzType64F;
    for (int z = 0; z < v->depth; ++z)
        for (int y = 0; y < v->height; ++y)
            for (int x = 0; x < v->width; ++x)
                put(v, x, y, z, isFloat ? float(unit(rng)) : double(rng() % 256));
}

// A random box inside w x h x d.
wzBox randomBox(int w, int h, int d, std::mt19937 &rng) {
    const int x = rng() % w, y = rng() % h, z = rng() % d;
    return {x, y, z, 1 + int(rng() % (w - x)), 1 + int(rng() % (h - y)), 1 + int(rng() % (d - z))};
}

// 8-bit contiguous volumes.
size_t sizeOf(const wzVolume *v) { return size_t(v->width) * v->height * v->depth; }
Bytes voxels(const wzVolume *v) { return bytes(v->voxels, sizeOf(v)); }
uint8_t &at(const wzVolume *v, int x, int y, int z) {
    return v->voxels[(size_t(z) * v->height + y) * v->width + x];
}

VolumePtr randomVolume(int w, int h, int d, std::mt19937 &rng, int lo = 0, int hi = 255) {
    VolumePtr v(wzVolumeCreate(w, h, d));
    for (size_t i = 0; i < sizeOf(v.get()); ++i) v->voxels[i] = uint8_t(lo + rng() % (hi - lo + 1));
    return v;
}

VolumePtr copyOf(const wzVolume *v) {
    VolumePtr c(wzVolumeCreateAs(v));
    std::memcpy(c->voxels, v->voxels, sizeOf(v));
    c->roi = v->roi;
    return c;
}

// ---------------------------------------------------------------------------
// Record and voxel access

// Every constructor: sizes, type and region of the volume, plane headers of
// its type and encoding (one channel for wzVolumeCreateAs); headers without
// blocks, one zeroed block with planes one plane size apart (channels
// included), or a block per plane. Headers over a caller's block (kept on
// release), refused encodings and negative sizes, null releases. (The
// region setters are exercised by the access and dump tests.)
TEST(VolumeRecord, KindsLayoutsAndRefusals) {
    VolumePtr model(wzVolumeCreateWithType(4, 3, 2, wzType16U)),
        bgr(wzVolumeCreateWithEncoding(4, 3, 2, wzEncodingBGR));
    constexpr uint32_t gray = wzEncodingGray;
    const struct {
        wzVolume *v;
        uint32_t type, encoding;
        int kind;  // 0 header, 1 contiguous, 2 separate planes
    } made[] = {
        {wzVolumeCreateHeader(4, 3, 2), wzType8U, gray, 0},
        {wzVolumeCreateHeaderWithType(4, 3, 2, wzType32F), wzType32F, gray, 0},
        {wzVolumeCreateHeaderWithEncoding(4, 3, 2, wzEncodingRGB), wzType8U, wzEncodingRGB, 0},
        {wzVolumeCreate(4, 3, 2), wzType8U, gray, 1},
        {wzVolumeCreateWithType(4, 3, 2, wzType64F), wzType64F, gray, 1},
        {wzVolumeCreateWithEncoding(4, 3, 2, wzEncodingBGR), wzType8U, wzEncodingBGR, 1},
        {wzVolumeCreateAs(model.get()), wzType16U, gray, 1},
        {wzVolumeCreateAs(bgr.get()), wzType8U, gray, 1},
        {wzVolumeCreateWithSeparatePlanes(4, 3, 2), wzType8U, gray, 2},
        {wzVolumeCreateWithTypeWithSeparatePlanes(4, 3, 2, wzType32S), wzType32S, gray, 2},
    };
    void (*const release[])(wzVolume **) = {wzVolumeReleaseHeader, wzVolumeRelease,
                                            wzVolumeReleaseWithSeparatePlanes};
    for (auto [v, type, encoding, kind] : made) {
        ASSERT_TRUE(v);
        const size_t plane = 12 * typeSize(type) * size_t(wzGetNChannelFromEncoding(encoding));
        const wzSize3D size = wzVolumeSize(v);
        EXPECT_TRUE(v->width == 4 && v->height == 3 && v->depth == 2 && v->type == type);
        EXPECT_TRUE(sameBox(v->roi, {0, 0, 0, size.width, size.height, size.depth}));
        for (const wzImage *p : {v->planes[0], v->planes[1]})
            EXPECT_TRUE(p->width == 4 && p->height == 3 && p->type == type &&
                        p->encoding == encoding && p->roi.width == 4 && p->roi.height == 3 &&
                        (p->data == nullptr) == (kind == 0));
        EXPECT_EQ(v->voxels, kind == 1 ? v->planes[0]->data : nullptr) << kind;
        if (kind == 1) {
            EXPECT_EQ(v->planes[1]->data, v->voxels + plane);
            EXPECT_EQ(bytes(v->voxels, 2 * plane), Bytes(2 * plane, 0));
        }
        release[kind](&v);
    }
    VolumePtr empty(wzVolumeCreate(3, 3, 0));
    ASSERT_TRUE(empty && empty->depth == 0);

    Bytes block(72, 7);
    wzVolume *h = wzVolumeCreateHeaderWithEncoding(2, 4, 3, wzEncodingRGB);
    wzVolumeAssignData(h, block.data());
    for (int k = 0; k < 3; ++k) EXPECT_EQ(h->planes[k]->data, block.data() + 24 * k);
    wzVolumeReleaseHeader(&h);
    EXPECT_TRUE(h == nullptr && block == Bytes(72, 7));

    EXPECT_TRUE(wzVolumeCreateWithEncoding(2, 2, 2, 5) == nullptr &&
                wzVolumeCreateHeaderWithEncoding(2, 2, 2, 5) == nullptr);
    EXPECT_TRUE(wzVolumeCreate(-1, 2, 2) == nullptr &&
                wzVolumeCreateWithSeparatePlanes(2, 2, INT32_MIN) == nullptr);
    EXPECT_EQ(wzVolumeCreateHeader(2, -3, 2), nullptr);
    wzVolume *none = nullptr;
    wzVolumeReleaseWithSeparatePlanes(&none);
    wzVolumeRelease(nullptr);
}

// The record layouts and the conversion from 32-bit slots (pointers null;
// the other direction writes the dump header, checked byte for byte by the
// dump tests); type conversion plane by plane against the scale rules; a
// depth mismatch (1, nothing written), a failing plane stops the walk.
TEST(VolumeRecord, LayoutsAndTypeConversion) {
    static_assert(sizeof(wzVolume32) == 48 && offsetof(wzVolume32, roi) == 24);
    static_assert(offsetof(wzVolume, width) == 8 && offsetof(wzVolume, height) == 12 &&
                  offsetof(wzVolume, roi) == 32 && sizeof(wzVolume) == 56);
    const wzBox box{1, 2, 1, 3, 1, 1};
    const wzVolume32 r{wzType8U, 2, 4, 3, 0xAB, 0xCD, box};
    const wzVolume want{wzType8U, 2, 4, 3, nullptr, nullptr, box};
    wzVolume back;
    std::memset(&back, 0xCD, sizeof back);
    wzVolumeCvtFrom32(&r, &back);
    EXPECT_EQ(std::memcmp(&back, &want, sizeof back), 0);

    VolumePtr v(wzVolumeCreateWithType(4, 3, 2, wzType8U));
    std::mt19937 rng(11);
    fillRandom(v.get(), rng);
    VolumePtr f(wzVolumeCreateWithType(4, 3, 2, wzType32F)),
        g(wzVolumeCreateWithType(4, 3, 2, wzType16U));
    ASSERT_EQ(
        wzVolumeCvtType(v.get(), f.get()) | wzVolumeCvtTypeGivenRange(v.get(), g.get(), 0.0, 255.0),
        0u);
    for (int i = 0; i < 24; ++i)
        EXPECT_TRUE(loadValue(wzType32F, f->voxels + 4 * i) == float(v->voxels[i]) / 255.0f &&
                    loadValue(wzType16U, g->voxels + 2 * i) ==
                        std::trunc(v->voxels[i] / 255.0 * 65535.0))
            << i;
    VolumePtr three(wzVolumeCreate(2, 2, 3)), four(wzVolumeCreate(2, 2, 4));
    std::memset(four->voxels, 9, 16);
    EXPECT_EQ(wzVolumeCvtTypeGivenRange(three.get(), four.get(), 0.0, 1.0), 1u);
    EXPECT_EQ(wzVolumeCvtType(four.get(), three.get()), 1u);  // fewer planes in dst
    EXPECT_EQ(bytes(four->voxels, 16), Bytes(16, 9));
    three->planes[1]->encoding = wzEncodingBGR;
    EXPECT_EQ(wzVolumeCvtType(three.get(), four.get()), 1u);
    EXPECT_TRUE(four->voxels[0] == 0 && four->voxels[8] == 9);  // plane 0 converted, plane 2 not
}

// For every type, on separate-plane volumes of random sizes (each plane a
// block of exactly its size, so the sanitizers catch a read past any edge),
// against plain loops over the elements: reads; fills (values wrapped to the
// type as a plain store does) and zeroing; trilinear interpolation (the
// eight-corner weighted sum, on and off the grid, far faces included);
// extremes over random boxes (an empty box gives the initial values, one
// past an edge 1); every slice of every axis (an index past the end
// refused); the bounding box of a few non-zero voxels, where -0.0 is zero
// and NaN non-zero (and skipped by the extremes).
TEST(VolumeAccess, RandomCrossChecks) {
    std::mt19937 rng(5);
    for (int trial = 0; trial < 18; ++trial) {
        const uint32_t type = kAllTypes[trial % 6];
        const bool isFloat = type == wzType32F || type == wzType64F;
        const int W = 2 + rng() % 5, H = 2 + rng() % 5, D = 2 + rng() % 3;
        SeparatePtr v(wzVolumeCreateWithTypeWithSeparatePlanes(W, H, D, type));
        const double fill = std::uniform_real_distribution<double>(-70000.0, 70000.0)(rng);
        uint8_t stored[8];
        storeValue(type, stored, fill);
        wzVolumeSetVal(v.get(), fill);
        for (int i = 0; i < W * H * D; ++i)
            ASSERT_EQ(val(v.get(), i % W, i / W % H, i / W / H), loadValue(type, stored)) << type;

        fillRandom(v.get(), rng);
        for (int i = 0; i < 10; ++i) {
            const int x = rng() % W, y = rng() % H, z = rng() % D;
            EXPECT_EQ(val(v.get(), x, y, z), loadValue(type, element(v.get(), x, y, z)));
        }
        auto coord = [&](int n) {  // some on the grid, the far faces included
            const double c = std::uniform_real_distribution<double>(0, n - 1)(rng);
            return rng() % 3 ? c : std::floor(c + 0.5);
        };
        for (int i = 0; i < 100; ++i) {
            const double p[3] = {coord(W), coord(H), coord(D)};
            const int q[3] = {int(p[0]), int(p[1]), int(p[2])};
            double ref = 0.0;
            for (int corner = 0; corner < 8; ++corner) {
                const int c[3] = {corner & 1, corner >> 1 & 1, corner >> 2 & 1};
                double w = 1.0;
                for (int k = 0; k < 3; ++k) w *= c[k] ? p[k] - q[k] : 1.0 - (p[k] - q[k]);
                if (w != 0.0) ref += w * val(v.get(), q[0] + c[0], q[1] + c[1], q[2] + c[2]);
            }
            EXPECT_NEAR(wzVolumeGetInterpolatedVal(v.get(), p), ref, 1e-9 * (1 + std::fabs(ref)))
                << type;
            EXPECT_EQ(wzVolumeGetInterpolatedValPerPlane(v.get(), p),
                      wzVolumeGetInterpolatedVal(v.get(), p));
        }
        double mn, mx;
        for (int t = 0; t < 10; ++t) {
            const wzBox b = randomBox(W, H, D, rng);
            wzVolumeSetROI(v.get(), &b);
            double lo = DBL_MAX, hi = -DBL_MAX;
            for (int k = b.z; k < b.z + b.depth; ++k)
                for (int j = b.y; j < b.y + b.height; ++j)
                    for (int i = b.x; i < b.x + b.width; ++i)
                        lo = std::fmin(lo, val(v.get(), i, j, k)),
                        hi = std::fmax(hi, val(v.get(), i, j, k));
            ASSERT_EQ(wzVolumeGetMinMaxValues(v.get(), &mn, &mx), 0u);
            EXPECT_TRUE(mn == lo && mx == hi) << type;
        }
        v->roi = wzBox{0, 0, 0, W, 0, D};
        EXPECT_TRUE(wzVolumeGetMinMaxValues(v.get(), &mn, &mx) == 0 && mn == DBL_MAX &&
                    mx == -DBL_MAX);
        v->roi = wzBox{1, 0, 0, W, 1, 1};
        EXPECT_EQ(wzVolumeGetMinMaxValues(v.get(), &mn, &mx), 1u);
        wzVolumeResetROI(v.get());

        const int slices[3][3] = {{H, D, W}, {D, W, H}, {W, H, D}};  // image width, height; count
        for (int axis = 0; axis < 3; ++axis) {
            ImagePtr out = makeImage(slices[axis][0], slices[axis][1], wzEncodingGray, type);
            for (int index = 0; index < slices[axis][2]; ++index) {
                ASSERT_EQ(wzVolumeGetSlice(v.get(), axis, index, out.get()), 0u);
                for (int r = 0; r < out->height; ++r)
                    for (int c = 0; c < out->width; ++c) {
                        const wzPoint p{0, c, r, 0};
                        const int xyz[3][3] = {
                            {index, c, r}, {r, index, c}, {c, r, index}};  // per axis
                        const int *q = xyz[axis];
                        ASSERT_EQ(wzImageGetVal(out.get(), &p), val(v.get(), q[0], q[1], q[2]))
                            << type << " " << axis;
                    }
            }
            EXPECT_EQ(wzVolumeGetSlice(v.get(), axis, slices[axis][2], out.get()), 1u);
        }

        wzVolumeSetZero(v.get());
        wzBox nz;
        int32_t empty = 0;
        ASSERT_TRUE(wzVolumeGetNonZeroROI(v.get(), &nz, &empty) == 0 && empty == 1);
        if (isFloat) put(v.get(), int(rng() % W), int(rng() % H), int(rng() % D), -0.0);
        int lo[3] = {99, 99, 99}, hi[3] = {-1, -1, -1};
        for (int n = 0; n < 3; ++n) {
            const int p[3] = {int(rng() % W), int(rng() % H), int(rng() % D)};
            put(v.get(), p[0], p[1], p[2], isFloat && n == 0 ? NAN : 7);
            for (int k = 0; k < 3; ++k)
                lo[k] = std::min(lo[k], p[k]), hi[k] = std::max(hi[k], p[k]);
        }
        ASSERT_TRUE(wzVolumeGetNonZeroROI(v.get(), &nz, &empty) == 0 && empty == 0);
        EXPECT_TRUE(sameBox(
            nz, {lo[0], lo[1], lo[2], hi[0] - lo[0] + 1, hi[1] - lo[1] + 1, hi[2] - lo[2] + 1}));
        ASSERT_EQ(wzVolumeGetMinMaxValues(v.get(), &mn, &mx), 0u);
        EXPECT_TRUE(mn == 0.0 && mx == 7.0) << type;
    }
}

// Inversion in and out of place against 255 - v, and what it and the other
// element-level operations decline: sizes or types that differ, 16-bit or
// multi-channel volumes (whose zeroing clears every channel), unknown types.
// Slices refuse an image of another size, encoding or type, and an axis out
// of range.
TEST(VolumeAccess, InversionAndRefusals) {
    std::mt19937 rng(3);
    VolumePtr v = randomVolume(3, 2, 2, rng), out(wzVolumeCreate(3, 2, 2));
    ASSERT_EQ(wzVolumeInvert(v.get(), out.get()), 0u);
    for (size_t i = 0; i < 12; ++i) EXPECT_EQ(out->voxels[i], 255 - v->voxels[i]);
    ASSERT_EQ(wzVolumeInvert(out.get(), out.get()), 0u);  // in place, back again
    EXPECT_EQ(voxels(out.get()), voxels(v.get()));
    VolumePtr shallow(wzVolumeCreate(3, 2, 1)), u(wzVolumeCreateWithType(3, 2, 2, wzType16U));
    VolumePtr bgr(wzVolumeCreateWithEncoding(2, 2, 2, wzEncodingBGR));
    std::memset(bgr->voxels, 5, 24);
    wzVolumeSetVal(bgr.get(), 1.0);
    EXPECT_TRUE(wzVolumeInvert(v.get(), shallow.get()) == 1 &&
                wzVolumeInvert(u.get(), u.get()) == 1 && wzVolumeInvert(bgr.get(), bgr.get()) == 1);
    EXPECT_TRUE(val(bgr.get(), 0, 0, 0) == 0.0 && bytes(bgr->voxels, 24) == Bytes(24, 5));
    wzVolumeSetZero(bgr.get());
    EXPECT_EQ(bytes(bgr->voxels, 24), Bytes(24, 0));
    double mn, mx;
    wzBox nz;
    int32_t empty = 0;
    u->type = 31;
    EXPECT_TRUE(val(u.get(), 1, 1, 1) == 0.0 && wzVolumeGetMinMaxValues(u.get(), &mn, &mx) == 1 &&
                wzVolumeGetNonZeroROI(u.get(), &nz, &empty) == 1 && empty == 1);

    ImagePtr wrong = makeImage(4, 2, wzEncodingGray), rgb = makeImage(2, 3, wzEncodingRGB),
             wide = makeImage(3, 2, wzEncodingGray, wzType16U);
    EXPECT_TRUE(wzVolumeGetSlice(v.get(), 1, 1, wrong.get()) == 1 &&
                wzVolumeGetSlice(v.get(), 1, 0, rgb.get()) == 1);
    EXPECT_TRUE(wzVolumeGetSlice(v.get(), 3, 0, wrong.get()) == 1 &&
                wzVolumeGetSlice(v.get(), 2, 0, wide.get()) == 1);
}

// A box into a deeper or off-edge destination box is refused unwritten; the
// copy converts gray into the three colour channels inside the box only and
// leaves every plane's own region as it was.
TEST(VolumeAccess, Copy3D) {
    std::mt19937 rng(21);
    VolumePtr src = randomVolume(5, 4, 3, rng),
              dst(wzVolumeCreateWithEncoding(6, 6, 4, wzEncodingBGR));
    const wzRect own{1, 1, 2, 2};
    for (int k = 0; k < 4; ++k) wzImageSetROI(dst->planes[k], &own);
    src->roi = wzBox{1, 1, 1, 3, 2, 2};
    dst->roi = wzBox{2, 3, 0, 3, 2, 3};  // deeper
    EXPECT_EQ(wzCopy3D(src.get(), dst.get()), 1u);
    dst->roi = wzBox{4, 3, 0, 3, 2, 2};  // past the right edge
    EXPECT_EQ(wzCopy3D(src.get(), dst.get()), 1u);
    EXPECT_EQ(bytes(dst->voxels, 432), Bytes(432, 0));
    dst->roi = wzBox{2, 3, 0, 3, 2, 2};
    ASSERT_EQ(wzCopy3D(src.get(), dst.get()), 0u);
    for (int k = 0; k < 4; ++k)
        EXPECT_TRUE(std::memcmp(&dst->planes[k]->roi, &own, sizeof own) == 0);
    for (int k = 0; k < 3; ++k) EXPECT_EQ(src->planes[k]->roi.width, 5);
    for (int z = 0; z < 4; ++z)
        for (int y = 0; y < 6; ++y)
            for (int x = 0; x < 6; ++x) {
                const bool in = z < 2 && y >= 3 && y < 5 && x >= 2 && x < 5;
                const uint8_t want = in ? at(src.get(), x - 1, y - 2, z + 1) : 0;
                for (int c = 0; c < 3; ++c)
                    ASSERT_EQ(dst->planes[z]->data[(y * 6 + x) * 3 + c], want);
            }
}

// ---------------------------------------------------------------------------
// Dump files

using SaveFn = wzStatus (*)(const wzVolume *, FILE *);

Bytes save(SaveFn fn, const wzVolume *v, wzStatus *status) {
    return saveToBytes([fn, v](FILE *f) { return fn(v, f); }, status);
}

// True when both loads refuse the first n bytes (whatever they made is released).
bool bothRefuse(const Bytes &b, size_t n) {
    VolumePtr c(loadPrefix(wzVolumeDumpLoad, b, n));
    SeparatePtr s(loadPrefix(wzVolumeDumpLoadWithSeparatePlanes, b, n));
    return !c && !s;
}

Bytes planesOf(const wzVolume *v, size_t planeBytes) {
    Bytes out;
    for (int k = 0; k < v->depth; ++k)
        out.insert(out.end(), v->planes[k]->data, v->planes[k]->data + planeBytes);
    return out;
}

// The 48-byte header, little-endian: type, depth, width, height, two zero
// pointer slots, the region of interest.
Bytes header(uint32_t type, int32_t depth, int32_t width, int32_t height, const wzBox &r) {
    const int32_t f[12] = {int32_t(type), depth, width, height,  0,        0,
                           r.x,           r.y,   r.z,   r.width, r.height, r.depth};
    Bytes b;
    for (int32_t v : f)
        for (int k = 0; k < 4; ++k) b.push_back(static_cast<uint8_t>(uint32_t(v) >> (8 * k)));
    return b;
}

// For every type, both forms of both kinds of volume write the header and
// then the planes in order; both loads read that back (sizes, type, region,
// voxels, plane headers) into their own kind of volume, and refuse every
// proper prefix, releasing what they made (planes already read included).
TEST(VolumeDump, ExactBytesRoundTripsAndPrefixes) {
    std::mt19937 rng(4);
    for (uint32_t type : kAllTypes) {
        const int w = 1 + rng() % 5, h = 1 + rng() % 5, d = 2 + rng() % 3;
        const size_t plane = w * h * typeSize(type);
        SeparatePtr v(wzVolumeCreateWithTypeWithSeparatePlanes(w, h, d, type));
        for (int k = 0; k < d; ++k)
            for (size_t i = 0; i < plane; ++i) v->planes[k]->data[i] = static_cast<uint8_t>(rng());
        const wzBox box{int(rng() % w), 0, 1, 1, h, d - 1};
        wzVolumeSetROI(v.get(), &box);
        Bytes want = header(type, d, w, h, box);
        const Bytes payload = planesOf(v.get(), plane);
        want.insert(want.end(), payload.begin(), payload.end());
        wzStatus s1 = 1, s2 = 1;
        EXPECT_EQ(save(wzVolumeDumpSave, v.get(), &s1), want) << type;
        EXPECT_EQ(save(wzVolumeDumpSaveWithSeparatePlanes, v.get(), &s2), want);
        EXPECT_EQ(s1 | s2, 0u);

        VolumePtr c(loadPrefix(wzVolumeDumpLoad, want, want.size()));
        SeparatePtr s(loadPrefix(wzVolumeDumpLoadWithSeparatePlanes, want, want.size()));
        ASSERT_TRUE(c && s);
        for (const wzVolume *l : {c.get(), s.get()}) {
            EXPECT_TRUE(l->width == w && l->height == h && l->depth == d && l->type == type);
            EXPECT_TRUE(std::memcmp(&l->roi, &box, sizeof box) == 0 &&
                        planesOf(l, plane) == payload);
            EXPECT_TRUE(l->planes[d - 1]->roi.width == w && l->planes[d - 1]->type == type);
        }
        EXPECT_TRUE(c->planes[d - 1]->data == c->voxels + (d - 1) * plane && s->voxels == nullptr);
        EXPECT_EQ(save(wzVolumeDumpSave, c.get(), &s1), want);  // from the voxels block
        for (size_t n = 0; n < want.size(); ++n)
            EXPECT_TRUE(bothRefuse(want, n)) << type << " cut at " << n;
    }
}

// Depth 0: the separate form writes the header and succeeds (and loads as a
// volume without planes), the contiguous form writes it and fails; a
// multi-channel volume writes nothing. Headers from an untrusted stream load
// as null in both forms: negative sizes, products beyond the 32-bit voxel
// count (some wrapping to small positive values in 32 bits), one plane beyond
// it even at depth 0, unknown types, planes that never arrive.
TEST(VolumeDump, EmptyMultiChannelAndHostileHeaders) {
    VolumePtr flat(wzVolumeCreate(3, 2, 0)),
        bgr(wzVolumeCreateWithEncoding(2, 2, 2, wzEncodingBGR));
    wzStatus st;
    Bytes b = save(wzVolumeDumpSaveWithSeparatePlanes, flat.get(), &st);
    EXPECT_TRUE(st == 0 && b.size() == 48);
    SeparatePtr none(loadPrefix(wzVolumeDumpLoadWithSeparatePlanes, b, b.size()));
    EXPECT_TRUE(none && none->depth == 0 && none->width == 3);
    EXPECT_EQ(loadPrefix(wzVolumeDumpLoad, b, b.size()), nullptr);
    EXPECT_EQ(save(wzVolumeDumpSave, flat.get(), &st), b);
    EXPECT_EQ(st, 0xFFFFFFFFu);
    for (SaveFn fn : {wzVolumeDumpSave, wzVolumeDumpSaveWithSeparatePlanes}) {
        EXPECT_TRUE(save(fn, bgr.get(), &st).empty());
        EXPECT_EQ(st, 0xFFFFFFFFu);
    }

    // Type, depth, width, height (M the largest 32-bit size, G 2^30).
    constexpr int32_t M = INT32_MAX, G = 1 << 30, H = 65536;
    const int32_t cases[][4] = {
        {wzType8U, -1, 2, 2},         {wzType8U, 2, -2, 2}, {wzType8U, 2, 2, -M - 1},
        {wzType8U, 1, 0, 5},          {7, 1, 2, 2},         {wzType8U, H, H, 2},
        {wzType64F, 4, H, H + 1},     {wzType8U, 3, G, G},  {wzType16U, M, 2, 1},
        {wzType32F, 2, M, M},         {wzType8U, 0, H, H},  {wzType8U, M, 1, 1},
        {wzType32F, 1000000, 1000, 2}};
    for (const auto &c : cases) {
        Bytes h = header(uint32_t(c[0]), c[1], c[2], c[3], wzBox{});
        h.resize(h.size() + 16, 0x5A);  // a little payload, never enough
        EXPECT_TRUE(bothRefuse(h, h.size())) << c[0] << " " << c[1] << " " << c[2] << " " << c[3];
    }
}

// Payloads beyond the direct-read size (16 MiB) are read in growing pieces:
// one cut short anywhere loads as null. (Complete ones load intact in both
// forms: AllocFailure.DumpLoads, 4100 x 4100 x 1.)
TEST(VolumeDump, LargePayloadsCutShort) {
    VolumePtr v(wzVolumeCreateWithType(2100, 2100, 1, wzType32F));  // 17.6 MB, one plane
    wzStatus st;
    const Bytes b = save(wzVolumeDumpSave, v.get(), &st);
    ASSERT_EQ(b.size(), 48 + size_t(2100) * 2100 * 4);
    for (size_t cut : {size_t(48 + (16 << 20)), size_t(48 + (16 << 20) + 1), b.size() - 1})
        EXPECT_TRUE(bothRefuse(b, cut)) << cut;
}

// ---------------------------------------------------------------------------
// Histogram operations

struct StatsDeleter {
    void operator()(wzHistogramMatchStats *s) const { wzHistogramMatchStatsRelease(&s); }
};
using StatsPtr = std::unique_ptr<wzHistogramMatchStats, StatsDeleter>;

// Voxels counted over each plane's own region, the same counts in all three
// arrays (gray planes).
StatsPtr counted(const wzVolume *v) {
    StatsPtr s(wzHistogramMatchStatsCreate());
    std::memset(s->profile->bins, 0, sizeof s->profile->bins);
    for (int z = 0; z < v->depth; ++z) {
        const wzRect &r = v->planes[z]->roi;
        for (int y = r.y; y < r.y + r.height; ++y)
            for (int x = r.x; x < r.x + r.width; ++x)
                for (auto &bins : s->profile->bins) bins[at(v, x, y, z)] += 1.0f;
    }
    return s;
}

// dst with table[src voxel] over src's box written into dst's box, blended
// (with a mask, from the mask's own box origin) as (1 - w) * original +
// w * matched, w = level / 255, in single precision and truncated.
VolumePtr lookedUp(const uint8_t *table, const wzVolume *src, const wzVolume *dst,
                   const wzVolume *mask) {
    VolumePtr want = copyOf(dst);
    const wzBox &b = src->roi, &d = dst->roi;
    for (int z = 0; z < b.depth; ++z)
        for (int y = 0; y < b.height; ++y)
            for (int x = 0; x < b.width; ++x) {
                const uint8_t orig = at(src, b.x + x, b.y + y, b.z + z), matched = table[orig];
                const float w =
                    mask ? at(mask, mask->roi.x + x, mask->roi.y + y, mask->roi.z + z) / 255.0f
                         : 1.0f;
                at(want.get(), d.x + x, d.y + y, d.z + z) =
                    uint8_t((1.0f - w) * orig + w * matched);
            }
    return want;
}

// Over random boxes, with plane regions that restrict the profile only: the
// profile counted voxel by voxel (a top entry in the last plane too); the
// matching filter with and without a random mask into another volume at
// another box origin (the source untouched) and in place (planes get their
// own regions back); equalisation (the table from the normalised profile
// matched to the flat one) and stretch (lowest to highest level spread by the
// float rule, the highest and above to 255), looked up box to box.
TEST(VolumeHistogram, RandomAgainstReference) {
    std::mt19937 rng(7);
    wzImageColorProfile flat;
    wzImageColorProfileForEqualization(&flat);
    const wzHistogramMatchParams equalize{1.0f, 1.0f, 0, 256, &flat};
    for (int trial = 0; trial < 12; ++trial) {
        VolumePtr src = randomVolume(7, 5, 4, rng, 30, 200), other = randomVolume(7, 5, 4, rng);
        if (trial == 0) at(src.get(), 3, 2, 3) = 255;  // inside any plane region below
        const int restricted = int(rng() % 4);
        src->planes[restricted]->roi = wzRect{int(rng() % 3), int(rng() % 2), 4, 3};
        wzImageColorProfile target;
        wzImageFillColorProfile(other->planes[1], &target);
        wzHistogramMatchParams params{1.0f, 0.9f, 0, 255, &target};
        if (trial % 3 == 1) params = {0.7f, 0.8f, 1, 20, &target};
        src->roi = trial < 2 ? wzBox{0, 0, 0, 7, 5, 4} : randomBox(7, 5, 4, rng);
        const wzBox &b = src->roi;
        VolumePtr mask = randomVolume(9, 6, 5, rng), dst = randomVolume(7, 5, 4, rng),
                  srcCopy = copyOf(src.get());
        mask->roi =
            wzBox{int(rng() % 3), int(rng() % 2), int(rng() % 2), b.width, b.height, b.depth};
        dst->roi = wzBox{0, 0, 4 - b.depth, b.width, b.height, b.depth};
        const wzVolume *m = trial % 2 ? mask.get() : nullptr;

        StatsPtr stats = counted(src.get()), got(wzHistogramMatchStatsCreate());
        ASSERT_EQ(wzHistogramMatchStatsRetrieve3D(got.get(), src.get()), 0u);
        EXPECT_EQ(std::memcmp(got->profile->bins, stats->profile->bins, sizeof flat.bins), 0);
        uint8_t table[768], eq[768], st[768] = {};
        wzHistogramMatchAddParamsCompute(stats.get(), &params, table);
        const float *bins = stats->profile->bins[2];
        int lo = 0, hi = 255;
        while (bins[lo] == 0.0f) ++lo;
        while (bins[hi] == 0.0f) --hi;
        for (int i = lo; i < 256; ++i)
            st[i] = i >= hi ? 255 : uint8_t(255.0f / float(hi - lo) * float(i - lo));
        wzImageColorProfileNormalize(stats->profile);
        wzHistogramMatchAddParamsCompute(stats.get(), &equalize, eq);

        const VolumePtr want = lookedUp(table, src.get(), dst.get(), m),
                        wantIn = lookedUp(table, src.get(), src.get(), m);
        for (const auto &[op, look] :
             {std::pair{+wzHistogramEqualization3D, +eq}, std::pair{+wzHistogramStretch3D, +st}}) {
            VolumePtr out = copyOf(dst.get());
            ASSERT_EQ(op(src.get(), out.get()), 0u);
            EXPECT_EQ(voxels(out.get()),
                      voxels(lookedUp(look, src.get(), dst.get(), nullptr).get()))
                << trial;
        }
        ASSERT_EQ(wzHistogramMatchFilter3D(&params, src.get(), m, dst.get(), nullptr), 0u);
        EXPECT_EQ(voxels(dst.get()), voxels(want.get())) << trial;
        EXPECT_EQ(voxels(src.get()), voxels(srcCopy.get()));
        ASSERT_EQ(wzHistogramMatchFilter3D(&params, src.get(), m, src.get(), nullptr), 0u);
        EXPECT_EQ(voxels(src.get()), voxels(wantIn.get())) << trial;
        for (int k = 0; k < 4; ++k) EXPECT_EQ(src->planes[k]->roi.width, k == restricted ? 4 : 7);
    }
}

// Cancellation before the first row: 2 and nothing written, in place and
// masked too (the temporary volume is released); empty boxes return 0.
// Refused before writing: a box past an edge, a mask too shallow for the
// box, volumes that are not 8-bit one-channel, a source without planes.
// Separate-plane volumes are looked up through their planes.
TEST(VolumeHistogram, CancellationAndRefusals) {
    std::mt19937 rng(8);
    VolumePtr src = randomVolume(6, 5, 3, rng), v = copyOf(src.get()), dst(wzVolumeCreate(6, 5, 3));
    VolumePtr mask = randomVolume(6, 5, 3, rng), shallow(wzVolumeCreate(6, 5, 2));
    wzImageColorProfile flat;
    wzImageColorProfileForEqualization(&flat);
    const wzHistogramMatchParams params{1.0f, 0.9f, 0, 255, &flat};
    const uint32_t set = 1;
    uint8_t table[768];
    for (int i = 0; i < 768; ++i) table[i] = uint8_t(255 - i);
    EXPECT_EQ(wzHistogramMatchApplyGray3D(nullptr, table, src.get(), dst.get(), &set), 2u);
    EXPECT_EQ(wzHistogramMatchFilter3D(&params, v.get(), mask.get(), v.get(), &set), 2u);
    for (const wzBox box : {wzBox{0, 0, 0, 6, 5, 0}, wzBox{0, 0, 1, 6, 0, 2}}) {
        v->roi = dst->roi = box;
        EXPECT_EQ(wzHistogramMatchApplyGray3D(nullptr, table, v.get(), dst.get(), &set), 0u);
    }
    v->roi = wzBox{1, 0, 0, 6, 5, 3};
    dst->roi = wzBox{0, 0, 0, 6, 5, 3};
    EXPECT_EQ(wzHistogramMatchApplyGray3D(nullptr, table, dst.get(), v.get(), nullptr), 1u);
    EXPECT_EQ(wzHistogramMatchFilter3D(&params, dst.get(), shallow.get(), dst.get(), nullptr), 1u);
    VolumePtr wide(wzVolumeCreateWithType(6, 5, 3, wzType16U)), none(wzVolumeCreate(6, 5, 0));
    VolumePtr bgr(wzVolumeCreateWithEncoding(6, 5, 3, wzEncodingBGR));
    EXPECT_EQ(wzHistogramMatchApplyGray3D(nullptr, table, src.get(), wide.get(), nullptr), 1u);
    for (wzVolume *bad : {wide.get(), bgr.get(), none.get()})
        EXPECT_TRUE(wzHistogramEqualization3D(bad, bad) == 1 &&
                    wzHistogramStretch3D(bad, bad) == 1 &&
                    wzHistogramMatchFilter3D(&params, bad, nullptr, bad, nullptr) == 1);
    EXPECT_EQ(voxels(dst.get()), Bytes(90, 0));
    EXPECT_EQ(voxels(v.get()), voxels(src.get()));
    StatsPtr a(wzHistogramMatchStatsCreate());
    for (wzVolume *bad : {none.get(), wide.get()}) {  // 1 and an all-zero profile
        ASSERT_EQ(wzHistogramMatchStatsRetrieve3D(a.get(), src.get()), 0u);
        EXPECT_EQ(wzHistogramMatchStatsRetrieve3D(a.get(), bad), 1u);
        EXPECT_EQ(std::memcmp(a->profile->bins, counted(none.get())->profile->bins,
                              sizeof a->profile->bins),
                  0);
    }

    SeparatePtr sep(wzVolumeCreateWithSeparatePlanes(6, 5, 3));
    for (int k = 0; k < 3; ++k) std::memset(sep->planes[k]->data, 9, 30);
    EXPECT_EQ(wzHistogramMatchApplyGray3D(nullptr, table, sep.get(), sep.get(), nullptr), 0u);
    EXPECT_EQ(sep->planes[2]->data[29], 246);
}

// A single level: equalisation takes it to 255, stretch copies it box to box
// and returns 1; an empty profile gives 1 and writes nothing.
TEST(VolumeHistogram, SingleLevelAndEmptyProfile) {
    VolumePtr same(wzVolumeCreate(3, 3, 2)), dst(wzVolumeCreate(3, 3, 2));
    wzVolumeSetVal(same.get(), 77);
    same->roi = dst->roi = wzBox{1, 1, 0, 2, 2, 2};
    ASSERT_EQ(wzHistogramStretch3D(same.get(), dst.get()), 1u);
    EXPECT_TRUE(dst->voxels[4] == 77 && dst->voxels[0] == 0);
    ASSERT_EQ(wzHistogramEqualization3D(same.get(), dst.get()), 0u);
    EXPECT_TRUE(dst->voxels[4] == 255 && dst->voxels[0] == 0);
    for (int k = 0; k < 2; ++k) same->planes[k]->roi.width = 0;
    wzVolumeSetZero(dst.get());
    EXPECT_EQ(wzHistogramStretch3D(same.get(), dst.get()), 1u);
    EXPECT_EQ(voxels(dst.get()), Bytes(18, 0));
}

}  // namespace
