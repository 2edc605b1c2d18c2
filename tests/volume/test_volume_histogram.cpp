// Histogram operations on volumes, checked against the image operations run
// plane by plane with one shared table: the volume profile, the look-up over
// a box, the matching filter with and without masks, equalisation, stretch.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "support/volume_fixtures.hpp"
#include "morven/morven.h"

namespace {

using Bytes = std::vector<uint8_t>;
using morven_test::VolumePtr;
struct StatsDeleter {
    void operator()(wzHistogramMatchStats *s) const { wzHistogramMatchStatsRelease(&s); }
};
using StatsPtr = std::unique_ptr<wzHistogramMatchStats, StatsDeleter>;

size_t sizeOf(const wzVolume *v) { return size_t(v->width) * v->height * v->depth; }
Bytes voxels(const wzVolume *v) { return Bytes(v->voxels, v->voxels + sizeOf(v)); }

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

// The volume profile through the image operations: plane 0 retrieved, every
// further plane retrieved and added with wzHistogramMatchStatsUpdate.
StatsPtr planeStats(const wzVolume *v) {
    StatsPtr all(wzHistogramMatchStatsCreate()), one(wzHistogramMatchStatsCreate());
    wzHistogramMatchStatsRetrieve(all.get(), v->planes[0]);
    for (int k = 1; k < v->depth; ++k) {
        wzHistogramMatchStatsRetrieve(one.get(), v->planes[k]);
        wzHistogramMatchStatsUpdate(one.get(), all.get());
    }
    return all;
}

// The table over src's box into dst's box plane by plane with the image
// look-up, then (with a mask) the image blend over the same rectangles.
void applyPlaneByPlane(const uint8_t *table, wzVolume *src, wzVolume *dst, const wzVolume *mask) {
    const wzBox &b = src->roi;
    for (int k = 0; k < b.depth; ++k) {
        wzImage *s = src->planes[b.z + k], *d = dst->planes[dst->roi.z + k];
        const wzRect rs{b.x, b.y, b.width, b.height}, rd{dst->roi.x, dst->roi.y, b.width, b.height};
        wzImageSetROI(s, &rs);
        wzImageSetROI(d, &rd);
        ASSERT_EQ(wzHistogramMatchApply(nullptr, table, s, d, nullptr), 0u);
        if (mask) {
            wzImage *m = mask->planes[mask->roi.z + k];
            const wzRect rm{mask->roi.x, mask->roi.y, b.width, b.height};
            wzImageSetROI(m, &rm);
            ASSERT_EQ(wzAddWeigthedM(s, d, d, m), 0u);
            wzImageResetROI(m);
        }
        wzImageResetROI(s);
        wzImageResetROI(d);
    }
}

}  // namespace

TEST(VolumeHistogram, ProfileCountsEveryPlane) {
    std::mt19937 rng(1);
    VolumePtr one = randomVolume(6, 4, 1, rng);
    StatsPtr a(wzHistogramMatchStatsCreate());
    wzImageColorProfile image;
    ASSERT_EQ(wzHistogramMatchStatsRetrieve3D(a.get(), one.get()), 0u);
    wzImageFillColorProfile(one->planes[0], &image);
    EXPECT_EQ(std::memcmp(a->profile, &image, sizeof image), 0);

    // The volume's box does not restrict the statistics; plane regions do.
    VolumePtr v = randomVolume(5, 4, 3, rng);
    v->roi = wzBox{1, 1, 1, 2, 2, 1};
    v->planes[2]->roi = wzRect{0, 1, 3, 2};
    ASSERT_EQ(wzHistogramMatchStatsRetrieve3D(a.get(), v.get()), 0u);
    EXPECT_EQ(std::memcmp(a->profile, planeStats(v.get())->profile, sizeof image), 0);
    float total = 0;
    for (float b : a->profile->bins[2]) total += b;
    EXPECT_EQ(total, 20.0f + 20.0f + 6.0f);

    VolumePtr none(wzVolumeCreate(5, 4, 0)), wide(wzVolumeCreateWithType(5, 4, 2, wzType16U));
    EXPECT_EQ(wzHistogramMatchStatsRetrieve3D(a.get(), none.get()), 1u);
    EXPECT_EQ(wzHistogramMatchStatsRetrieve3D(a.get(), wide.get()), 1u);
    EXPECT_EQ(a->profile->bins[2][0], 0.0f);
}

// The filter equals the image operations plane by plane with one table, in
// every path: separate destination or in place, with or without a random
// mask, over random boxes (the blend aligned with the box).
TEST(VolumeHistogram, FilterMatchesPlaneByPlane) {
    std::mt19937 rng(7);
    for (int trial = 0; trial < 12; ++trial) {
        VolumePtr src = randomVolume(7, 5, 4, rng, 30, 200), other = randomVolume(7, 5, 4, rng);
        wzImageColorProfile target;
        wzImageFillColorProfile(other->planes[1], &target);
        wzHistogramMatchParams params{1.0f, 0.9f, 0, 255, &target};
        if (trial % 3 == 1) params = {0.7f, 0.8f, 1, 20, &target};
        const int x = rng() % 7, y = rng() % 5, z = rng() % 4;
        src->roi = trial < 2 ? wzBox{0, 0, 0, 7, 5, 4}
                             : wzBox{x, y, z, 1 + int(rng() % (7 - x)), 1 + int(rng() % (5 - y)),
                                     1 + int(rng() % (4 - z))};
        const wzBox &b = src->roi;
        VolumePtr mask = randomVolume(9, 6, 5, rng);
        mask->roi = wzBox{int(rng() % 3), int(rng() % 2), int(rng() % 2), b.width, b.height, b.depth};
        const wzVolume *m = trial % 2 ? mask.get() : nullptr;
        uint8_t table[768];
        wzHistogramMatchAddParamsCompute(planeStats(src.get()).get(), &params, table);

        // Into another volume at another box origin.
        VolumePtr dst = randomVolume(7, 5, 4, rng);
        dst->roi = wzBox{0, 0, 4 - b.depth, b.width, b.height, b.depth};
        VolumePtr want = copyOf(dst.get()), srcCopy = copyOf(src.get());
        applyPlaneByPlane(table, srcCopy.get(), want.get(), m);
        ASSERT_EQ(wzHistogramMatchFilter3D(&params, src.get(), m, dst.get(), nullptr), 0u);
        EXPECT_EQ(voxels(dst.get()), voxels(want.get())) << trial;
        EXPECT_EQ(voxels(src.get()), voxels(srcCopy.get()));

        // In place: as a separate destination that held the source.
        VolumePtr inPlace = copyOf(src.get()), wantIn = copyOf(src.get());
        applyPlaneByPlane(table, srcCopy.get(), wantIn.get(), m);
        ASSERT_EQ(wzHistogramMatchFilter3D(&params, inPlace.get(), m, inPlace.get(), nullptr), 0u);
        EXPECT_EQ(voxels(inPlace.get()), voxels(wantIn.get())) << trial;
        for (int k = 0; k < 4; ++k) EXPECT_EQ(inPlace->planes[k]->roi.width, 7);
    }
}

TEST(VolumeHistogram, MasksCancellationAndRefusals) {
    std::mt19937 rng(8);
    VolumePtr src = randomVolume(6, 5, 3, rng, 0, 120), mask(wzVolumeCreate(6, 5, 3));
    wzImageColorProfile flat;
    wzImageColorProfileForEqualization(&flat);
    const wzHistogramMatchParams params{1.0f, 0.9f, 0, 255, &flat};
    VolumePtr plain = copyOf(src.get());
    ASSERT_EQ(wzHistogramMatchFilter3D(&params, plain.get(), nullptr, plain.get(), nullptr), 0u);
    ASSERT_NE(voxels(plain.get()), voxels(src.get()));
    for (uint8_t level : {255, 0}) {  // full weight: matched; zero: unchanged
        wzVolumeSetVal(mask.get(), level);
        VolumePtr v = copyOf(src.get()), dst(wzVolumeCreate(6, 5, 3));
        ASSERT_EQ(wzHistogramMatchFilter3D(&params, v.get(), mask.get(), v.get(), nullptr), 0u);
        ASSERT_EQ(wzHistogramMatchFilter3D(&params, src.get(), mask.get(), dst.get(), nullptr), 0u);
        EXPECT_EQ(voxels(v.get()), voxels(level ? plain.get() : src.get()));
        EXPECT_EQ(voxels(dst.get()), voxels(level ? plain.get() : src.get()));
    }

    // Cancellation before the first row: 2 and nothing written, in place and
    // masked too (the temporary volume is released). Empty boxes return 0.
    const uint32_t set = 1;
    uint8_t table[768];
    for (int i = 0; i < 768; ++i) table[i] = uint8_t(255 - i);
    VolumePtr v = copyOf(src.get()), dst(wzVolumeCreate(6, 5, 3));
    EXPECT_EQ(wzHistogramMatchApplyGray3D(nullptr, table, src.get(), dst.get(), &set), 2u);
    EXPECT_EQ(wzHistogramMatchFilter3D(&params, v.get(), mask.get(), v.get(), &set), 2u);
    for (const wzBox box : {wzBox{0, 0, 0, 6, 5, 0}, wzBox{0, 0, 1, 6, 0, 2}}) {
        v->roi = dst->roi = box;
        EXPECT_EQ(wzHistogramMatchApplyGray3D(nullptr, table, v.get(), dst.get(), &set), 0u);
    }
    EXPECT_EQ(voxels(dst.get()), Bytes(90, 0));
    EXPECT_EQ(voxels(v.get()), voxels(src.get()));

    // Refused before writing: a box past an edge, a mask too shallow for the
    // box, volumes that are not 8-bit one-channel, a source without planes.
    v->roi = wzBox{1, 0, 0, 6, 5, 3};
    dst->roi = wzBox{0, 0, 0, 6, 5, 3};
    EXPECT_EQ(wzHistogramMatchApplyGray3D(nullptr, table, dst.get(), v.get(), nullptr), 1u);
    VolumePtr shallow(wzVolumeCreate(6, 5, 2));
    EXPECT_EQ(wzHistogramMatchFilter3D(&params, dst.get(), shallow.get(), dst.get(), nullptr), 1u);
    VolumePtr wide(wzVolumeCreateWithType(6, 5, 3, wzType16U)), none(wzVolumeCreate(6, 5, 0));
    VolumePtr bgr(wzVolumeCreateWithEncoding(6, 5, 3, wzEncodingBGR));
    EXPECT_EQ(wzHistogramMatchApplyGray3D(nullptr, table, src.get(), wide.get(), nullptr), 1u);
    for (wzVolume *bad : {wide.get(), bgr.get(), none.get()}) {
        EXPECT_EQ(wzHistogramEqualization3D(bad, bad), 1u);
        EXPECT_EQ(wzHistogramStretch3D(bad, bad), 1u);
        EXPECT_EQ(wzHistogramMatchFilter3D(&params, bad, nullptr, bad, nullptr), 1u);
    }
    EXPECT_EQ(voxels(dst.get()), Bytes(90, 0));
    EXPECT_EQ(voxels(v.get()), voxels(src.get()));

    // Separate-plane volumes have voxels too.
    wzVolume *sep = wzVolumeCreateWithSeparatePlanes(6, 5, 3);
    for (int k = 0; k < 3; ++k) std::memset(sep->planes[k]->data, 9, 30);
    EXPECT_EQ(wzHistogramMatchApplyGray3D(nullptr, table, sep, sep, nullptr), 0u);
    EXPECT_EQ(sep->planes[2]->data[29], 246);
    wzVolumeReleaseWithSeparatePlanes(&sep);
}

TEST(VolumeHistogram, EqualizationAndStretch) {
    std::mt19937 rng(5);
    // Equalisation: the shared table from the summed, normalised profile.
    VolumePtr v = randomVolume(6, 4, 3, rng, 40, 90);
    for (size_t i = 0; i < sizeOf(v.get()); i += 3) v->voxels[i] = 60;  // skewed
    v->roi = wzBox{1, 0, 1, 4, 3, 2};
    wzImageColorProfile flat;
    wzImageColorProfileForEqualization(&flat);
    StatsPtr stats = planeStats(v.get());
    wzImageColorProfileNormalize(stats->profile);
    const wzHistogramMatchParams params{1.0f, 1.0f, 0, 256, &flat};
    uint8_t table[768];
    wzHistogramMatchAddParamsCompute(stats.get(), &params, table);
    VolumePtr want = copyOf(v.get()), in = copyOf(v.get());
    applyPlaneByPlane(table, in.get(), want.get(), nullptr);
    ASSERT_EQ(wzHistogramEqualization3D(v.get(), v.get()), 0u);
    EXPECT_EQ(voxels(v.get()), voxels(want.get()));
    VolumePtr same(wzVolumeCreate(3, 3, 2));
    wzVolumeSetVal(same.get(), 77);
    ASSERT_EQ(wzHistogramEqualization3D(same.get(), same.get()), 0u);
    EXPECT_EQ(voxels(same.get()), Bytes(18, 255));

    // Stretch of 50..100 spread over the planes: 50 -> 0, 75 -> 127,
    // 99 -> 249, 100 -> 255, the rest by the float rule.
    VolumePtr s(wzVolumeCreate(51, 1, 3)), out(wzVolumeCreate(51, 1, 3));
    for (int i = 0; i < 153; ++i) s->voxels[i] = uint8_t(50 + (i * 7) % 51);
    ASSERT_EQ(wzHistogramStretch3D(s.get(), out.get()), 0u);
    const uint8_t worked[4][2] = {{50, 0}, {75, 127}, {99, 249}, {100, 255}};
    for (int i = 0; i < 153; ++i) {
        const int value = s->voxels[i];
        EXPECT_EQ(out->voxels[i], value == 100 ? 255 : uint8_t(255.0f / 50.0f * float(value - 50)));
        for (const auto &w : worked) EXPECT_TRUE(value != w[0] || out->voxels[i] == w[1]) << value;
    }
    // A single value is copied box to box with 1; an empty profile gives 1
    // and writes nothing.
    VolumePtr dst(wzVolumeCreate(3, 3, 2));
    same->roi = dst->roi = wzBox{1, 1, 0, 2, 2, 2};
    ASSERT_EQ(wzHistogramStretch3D(same.get(), dst.get()), 1u);
    EXPECT_TRUE(dst->voxels[4] == 255 && dst->voxels[0] == 0);
    for (int k = 0; k < 2; ++k) same->planes[k]->roi.width = 0;
    wzVolumeSetZero(dst.get());
    EXPECT_EQ(wzHistogramStretch3D(same.get(), dst.get()), 1u);
    EXPECT_EQ(voxels(dst.get()), Bytes(18, 0));
}
