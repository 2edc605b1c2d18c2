// Volume dump files: the byte layout, both forms writing the same bytes and
// reading each other's, and refusal of truncated or hostile input without a
// leak (the sanitizer build checks the releases).
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "support/dump_stream.hpp"
#include "support/volume_fixtures.hpp"
#include "morven/morven.h"

namespace {

using namespace morven_test;

using SaveFn = wzStatus (*)(const wzVolume *, FILE *);

Bytes save(SaveFn fn, const wzVolume *v, wzStatus *status) {
    return saveToBytes([fn, v](FILE *f) { return fn(v, f); }, status);
}

// Loads from the first n bytes presented as a stream of exactly that length.
template <typename Load>
auto loadBytes(Load load, const Bytes &bytes, size_t n) {
    FILE *f = std::tmpfile();
    if (n) {
        EXPECT_EQ(std::fwrite(bytes.data(), n, 1, f), 1u);
    }
    std::rewind(f);
    auto *v = load(f);
    std::fclose(f);
    return v;
}

Bytes planesOf(const wzVolume *v, size_t planeBytes) {
    Bytes out;
    for (int k = 0; k < v->depth; ++k)
        out.insert(out.end(), v->planes[k]->data, v->planes[k]->data + planeBytes);
    return out;
}

Bytes header(uint32_t type, int32_t depth, int32_t width, int32_t height) {
    const uint32_t f[12] = {type, uint32_t(depth), uint32_t(width), uint32_t(height), 0, 0, 0, 0, 0,
                            uint32_t(width), uint32_t(height), uint32_t(depth)};
    Bytes b;
    for (uint32_t v : f)
        for (int k = 0; k < 4; ++k) b.push_back(static_cast<uint8_t>(v >> (8 * k)));
    return b;
}

}  // namespace

TEST(VolumeDump, SixtyBytesInBothFormsAndEitherLoad) {
    VolumePtr v(wzVolumeCreate(3, 2, 2));
    for (int i = 0; i < 12; ++i) v->voxels[i] = static_cast<uint8_t>(i * 20 + 1);
    const wzBox box{1, 0, 1, 2, 2, 1};
    wzVolumeSetROI(v.get(), &box);
    wzStatus s1, s2;
    const Bytes a = save(wzVolumeDumpSave, v.get(), &s1);
    const Bytes b = save(wzVolumeDumpSaveWithSeparatePlanes, v.get(), &s2);
    EXPECT_TRUE(s1 == 0 && s2 == 0);
    ASSERT_EQ(a.size(), 60u);
    EXPECT_EQ(a, b);
    Bytes want = header(wzType8U, 2, 3, 2);
    const int32_t roi[6] = {1, 0, 1, 2, 2, 1};
    std::memcpy(&want[24], roi, sizeof roi);  // little-endian host
    want.insert(want.end(), v->voxels, v->voxels + 12);
    EXPECT_EQ(a, want);

    VolumePtr c(loadBytes(wzVolumeDumpLoad, a, a.size()));
    SeparatePtr s(loadBytes(wzVolumeDumpLoadWithSeparatePlanes, a, a.size()));
    ASSERT_TRUE(c && s);
    for (const wzVolume *l : {c.get(), s.get()}) {
        EXPECT_TRUE(l->width == 3 && l->height == 2 && l->depth == 2 && l->type == wzType8U);
        EXPECT_EQ(std::memcmp(&l->roi, &box, sizeof box), 0);
        EXPECT_EQ(planesOf(l, 6), Bytes(v->voxels, v->voxels + 12));
        EXPECT_EQ(l->planes[1]->roi.width, 3);
    }
    EXPECT_EQ(c->planes[1]->data, c->voxels + 6);
    EXPECT_EQ(s->voxels, nullptr);
    // A separate-plane volume saved in the contiguous form: same bytes.
    EXPECT_EQ(save(wzVolumeDumpSave, s.get(), &s1), a);
    EXPECT_EQ(s1, 0u);
}

TEST(VolumeDump, ElementBytesAndRandomRoundTrips) {
    VolumePtr u(wzVolumeCreateWithType(1, 1, 2, wzType16U));
    const uint16_t u16[2] = {0x1234, 0xBEEF};
    std::memcpy(u->voxels, u16, 4);
    wzStatus st;
    Bytes b = save(wzVolumeDumpSave, u.get(), &st);
    EXPECT_EQ(Bytes(b.begin() + 48, b.end()), (Bytes{0x34, 0x12, 0xEF, 0xBE}));
    VolumePtr d(wzVolumeCreateWithType(1, 1, 1, wzType64F));
    const double one = 1.0;
    std::memcpy(d->voxels, &one, 8);
    b = save(wzVolumeDumpSaveWithSeparatePlanes, d.get(), &st);
    EXPECT_EQ(Bytes(b.begin() + 48, b.end()), (Bytes{0, 0, 0, 0, 0, 0, 0xF0, 0x3F}));

    std::mt19937 rng(4);
    const uint32_t types[] = {wzType8U, wzType32S, wzType16U, wzType32S24, wzType32F, wzType64F};
    const size_t sizes[] = {1, 4, 2, 4, 4, 8};
    for (int t = 0; t < 6; ++t) {
        const int w = 1 + rng() % 5, h = 1 + rng() % 5, dep = 1 + rng() % 4;
        SeparatePtr v(wzVolumeCreateWithTypeWithSeparatePlanes(w, h, dep, types[t]));
        const size_t plane = w * h * sizes[t];
        for (int k = 0; k < dep; ++k)
            for (size_t i = 0; i < plane; ++i) v->planes[k]->data[i] = static_cast<uint8_t>(rng());
        const Bytes bytes = save(wzVolumeDumpSaveWithSeparatePlanes, v.get(), &st);
        ASSERT_EQ(st, 0u);
        ASSERT_EQ(bytes.size(), 48 + plane * dep);
        VolumePtr c(loadBytes(wzVolumeDumpLoad, bytes, bytes.size()));
        ASSERT_TRUE(c);
        EXPECT_EQ(c->type, types[t]);
        EXPECT_EQ(planesOf(c.get(), plane), planesOf(v.get(), plane));
        EXPECT_EQ(save(wzVolumeDumpSave, c.get(), &st), bytes);
    }
}

TEST(VolumeDump, EmptyAndMultiChannelVolumes) {
    // Depth 0: the separate form writes the header and succeeds, the
    // contiguous form writes it and fails (an empty payload).
    VolumePtr flat(wzVolumeCreate(3, 2, 0));
    wzStatus st;
    Bytes b = save(wzVolumeDumpSaveWithSeparatePlanes, flat.get(), &st);
    EXPECT_TRUE(st == 0 && b.size() == 48);
    SeparatePtr none(loadBytes(wzVolumeDumpLoadWithSeparatePlanes, b, b.size()));
    EXPECT_TRUE(none && none->depth == 0);
    EXPECT_EQ(loadBytes(wzVolumeDumpLoad, b, b.size()), nullptr);
    b = save(wzVolumeDumpSave, flat.get(), &st);
    EXPECT_TRUE(st == 0xFFFFFFFFu && b.size() == 48);

    VolumePtr bgr(wzVolumeCreateWithEncoding(2, 2, 2, wzEncodingBGR));
    for (SaveFn fn : {wzVolumeDumpSave, wzVolumeDumpSaveWithSeparatePlanes}) {
        EXPECT_TRUE(save(fn, bgr.get(), &st).empty());
        EXPECT_EQ(st, 0xFFFFFFFFu);
    }
}

// Every proper prefix of a dump loads as null in both forms, releasing what
// was made (planes already read included).
TEST(VolumeDump, TruncationAtEveryByte) {
    VolumePtr v(wzVolumeCreateWithType(3, 2, 3, wzType16U));
    for (int i = 0; i < 36; ++i) v->voxels[i] = static_cast<uint8_t>(i + 1);
    wzStatus st;
    const Bytes b = save(wzVolumeDumpSave, v.get(), &st);
    ASSERT_EQ(b.size(), 48u + 36u);
    for (size_t n = 0; n < b.size(); ++n) {
        EXPECT_EQ(loadBytes(wzVolumeDumpLoad, b, n), nullptr) << n;
        EXPECT_EQ(loadBytes(wzVolumeDumpLoadWithSeparatePlanes, b, n), nullptr) << n;
    }
}

// Headers from an untrusted stream: negative sizes, products beyond the
// 32-bit voxel count (including ones that wrap to small positive values in
// 32 bits), unknown types and planes that are never sent.
TEST(VolumeDump, HostileHeaders) {
    struct Case {
        uint32_t type;
        int32_t depth, width, height;
    } const cases[] = {
        {wzType8U, -1, 2, 2},          {wzType8U, 2, -2, 2},        {wzType8U, 2, 2, INT32_MIN},
        {wzType8U, 1, 0, 5},           {7, 1, 2, 2},                {wzType8U, 65536, 65536, 2},
        {wzType64F, 4, 65536, 65537},  {wzType8U, 3, 1 << 30, 1 << 30},
        {wzType16U, INT32_MAX, 2, 1},  {wzType32F, 2, INT32_MAX, INT32_MAX},
        {wzType8U, INT32_MAX, 1, 1},  // allowed count, but no plane follows
        {wzType32F, 1000000, 1000, 2},
    };
    for (const Case &c : cases) {
        Bytes b = header(c.type, c.depth, c.width, c.height);
        b.resize(b.size() + 16, 0x5A);  // a little payload, never enough
        EXPECT_EQ(loadBytes(wzVolumeDumpLoad, b, b.size()), nullptr) << c.depth << " " << c.width;
        EXPECT_EQ(loadBytes(wzVolumeDumpLoadWithSeparatePlanes, b, b.size()), nullptr) << c.depth;
    }
}

// Payloads beyond the direct-read size are read in growing pieces: a
// complete one loads intact, one cut short anywhere loads as null.
TEST(VolumeDump, LargePayloadsReadInPieces) {
    VolumePtr v(wzVolumeCreateWithType(2100, 2100, 1, wzType32F));  // 17.6 MB, one plane
    const size_t n = size_t(2100) * 2100 * 4;
    for (size_t i = 0; i < n; ++i) v->voxels[i] = static_cast<uint8_t>(i * 7 + (i >> 12));
    wzStatus st;
    const Bytes b = save(wzVolumeDumpSave, v.get(), &st);
    ASSERT_EQ(b.size(), 48 + n);
    VolumePtr c(loadBytes(wzVolumeDumpLoad, b, b.size()));
    SeparatePtr s(loadBytes(wzVolumeDumpLoadWithSeparatePlanes, b, b.size()));
    ASSERT_TRUE(c && s);
    EXPECT_EQ(std::memcmp(c->voxels, v->voxels, n), 0);
    EXPECT_EQ(std::memcmp(s->planes[0]->data, v->voxels, n), 0);
    for (size_t cut : {size_t(48 + (16 << 20)), size_t(48 + (16 << 20) + 1), b.size() - 1}) {
        EXPECT_EQ(loadBytes(wzVolumeDumpLoad, b, cut), nullptr) << cut;
        EXPECT_EQ(loadBytes(wzVolumeDumpLoadWithSeparatePlanes, b, cut), nullptr) << cut;
    }
}
