// Allocation failure, operation by operation: each call is run again and
// again with its first, second, third... allocation failing, until a run
// makes fewer allocations than the one chosen to fail. Every failing run must
// report the failure the way the operation's contract says (null, or status 1
// with the outputs untouched or holding the stages already completed), every
// other run must give the result of a run without failures, and no run may
// leave a block behind: the probe counts the blocks made during the call that
// are still live once the call returned and its results were released.
#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "alloc_probe.h"
#include "morven/morven.h"
#include "support/dump_stream.hpp"
#include "support/image_fixtures.hpp"

namespace {

using morven_test::blockBytes;
using morven_test::Bytes;

// ---------------------------------------------------------------------------
// The sweep

int totalOperations = 0;
long totalPoints = 0;
struct ReportTotals : ::testing::Environment {
    void TearDown() override {
        std::printf("[  alloc   ] %d operations, %ld failure points\n", totalOperations,
                    totalPoints);
    }
};
const auto *const kReport = ::testing::AddGlobalTestEnvironment(new ReportTotals);

// Allowed number of failure points (the allocations of an unfailed run).
struct Points {
    long lo = 0, hi = LONG_MAX;
};
Points exactly(long n) { return {n, n}; }
Points atLeast(long n) { return {n, LONG_MAX}; }

// One operation: setup() restores its inputs and outputs (outside the
// probe's window), call() runs it and keeps its result, check(injected)
// checks and releases that result, finish(points) checks the whole sweep.
struct Op {
    std::string name;
    std::function<void()> setup, call;
    std::function<void(bool)> check;
    Points points;
    std::function<void(long)> finish = [](long) {};
};

// Runs op with allocation n failing for n = 1, 2, ... until a run does not
// reach allocation n; leaves the inputs as found.
void sweep(const Op &op) {
    long n = 1;
    for (;; ++n) {
        op.setup();
        allocProbeBegin(n);
        op.call();
        allocProbeEnd();
        const bool injected = allocProbe.injected;
        SCOPED_TRACE(op.name + (injected ? " with allocation " + std::to_string(n) + " failing"
                                         : " without failure"));
        op.check(injected);
        EXPECT_FALSE(allocProbe.overflowed);
        EXPECT_EQ(allocProbe.live, 0) << "blocks left behind";
        if (!injected) {  // the same call makes the same requests every time
            EXPECT_EQ(allocProbe.requests, n - 1);
            break;
        }
        ASSERT_LT(n, 100000) << "still allocating";
    }
    op.setup();
    std::printf("[  alloc   ] %-58s %4ld failure points\n", op.name.c_str(), --n);
    EXPECT_TRUE(n >= op.points.lo && n <= op.points.hi)
        << op.name << ": " << n << " failure points";
    op.finish(n);
    ++totalOperations;
    totalPoints += n;
}

void sweepAll(const std::vector<Op> &ops) {
    for (const Op &op : ops) sweep(op);
}

// A create or load operation: null on every failure, else a record that
// passes check().
template <class T>
Op made(std::string name, std::type_identity_t<std::function<T *()>> make, void (*release)(T **),
        std::type_identity_t<std::function<void(T *)>> check, Points points = {}) {
    auto result = std::make_shared<T *>();
    return {std::move(name), [] {}, [=] { *result = make(); },
            [=](bool injected) {
                T *t = *result;
                if (injected)
                    EXPECT_EQ(t, nullptr);
                else if (!t)
                    ADD_FAILURE() << "null without a failure";
                else
                    check(t);
                release(&t);
            },
            points};
}

// The blocks an operation writes, compared and restored as one byte string.
using Span = std::pair<void *, size_t>;
using Spans = std::vector<Span>;
size_t voxelBytes(const wzVolume *v) {
    return size_t(v->width) * size_t(v->height) * size_t(v->depth);
}
Span span(const wzImage *img) { return {img->data, blockBytes(img)}; }
Span span(const wzVolume *v) { return {v->voxels, voxelBytes(v)}; }  // 8-bit volumes
Span span(const wzMatrix *m) {
    return {m->data, sizeof(double) * size_t(m->nRows) * size_t(m->nCols)};
}
Span span(Bytes &b) { return {b.data(), b.size()}; }
Bytes bytesOf(const Spans &spans) {
    Bytes b;
    for (const auto &[p, n] : spans)
        b.insert(b.end(), static_cast<uint8_t *>(p), static_cast<uint8_t *>(p) + n);
    return b;
}
void restore(const Spans &spans, const Bytes &b) {
    size_t at = 0;
    for (const auto &[p, n] : spans) std::memcpy(p, b.data() + (at += n) - n, n);
}

// What a failed run of a status operation leaves in its outputs. Untouched:
// what they held before the call, or what one of the finished stages left
// (each state seen at least once). Unspecified: anything. MayRecover:
// anything on status 1, but exactly one failure point (of an optional
// speed-up) is survived, with status 0 and the unfailed result.
enum class OnFailure { Untouched, Unspecified, MayRecover };

// A status operation writing the blocks `out`, which hold its input in place
// (kept as found) and else start every run as a fill. Status 1 on failure,
// else 0 and the result of an unfailed run (taken here); stages give the
// results of the stages a failure may leave behind.
Op statusOp(std::string name, Spans out, bool inPlace, std::function<long()> call, Points points,
            OnFailure onFailure = OnFailure::Untouched,
            const std::vector<std::function<long()>> &stages = {}) {
    const Bytes before = inPlace ? bytesOf(out) : Bytes(bytesOf(out).size(), 0x3C);
    const auto resultOf = [&](const std::function<long()> &f) {
        restore(out, before);
        EXPECT_EQ(f(), 0) << name;
        return bytesOf(out);
    };
    const Bytes after = resultOf(call);
    EXPECT_NE(after, before) << name << ": a write before a failure would go unseen";
    std::vector<Bytes> failed{before};
    for (const auto &stage : stages) failed.push_back(resultOf(stage));
    restore(out, before);
    struct State {
        long status = 0, recovered = 0;
        std::vector<long> seen;
    };
    const auto st = std::make_shared<State>(State{0, 0, std::vector<long>(failed.size())});
    return {std::move(name),
            [=] { restore(out, before); },
            [=] { st->status = call(); },
            [=](bool injected) {
                const Bytes now = bytesOf(out);
                if (!injected || (onFailure == OnFailure::MayRecover && st->status == 0)) {
                    EXPECT_EQ(st->status, 0);
                    EXPECT_TRUE(now == after) << "not the result of an unfailed run";
                    st->recovered += injected;
                    return;
                }
                EXPECT_EQ(st->status, 1);
                if (onFailure != OnFailure::Untouched) return;
                const auto at = std::find(failed.begin(), failed.end(), now);
                if (at == failed.end())
                    ADD_FAILURE() << "the outputs hold neither the input nor a finished stage";
                else
                    ++st->seen[size_t(at - failed.begin())];
            },
            points,
            [=](long n) {
                EXPECT_EQ(st->recovered, onFailure == OnFailure::MayRecover ? 1 : 0);
                for (size_t i = 0; n > 0 && onFailure == OnFailure::Untouched && i < failed.size();
                     ++i)
                    EXPECT_GT(st->seen[i], 0) << "no failed run left state " << i;
            }};
}

// ---------------------------------------------------------------------------
// Inputs

uint32_t nextRandom(uint32_t &state) {
    state = state * 1664525u + 1013904223u;
    return state >> 8;
}
void fillLevels(uint8_t *p, size_t n, uint32_t seed, int lo = 0, int span = 256) {
    for (size_t i = 0; i < n; ++i) p[i] = uint8_t(lo + int(nextRandom(seed) % uint32_t(span)));
}
// New 8-bit image or volume with pseudo-random levels lo .. lo + span - 1.
wzImage *randomImage(int32_t w, int32_t h, uint32_t encoding, uint32_t seed, int lo = 0,
                     int span = 256) {
    wzImage *img = wzImageCreate(w, h, encoding);
    fillLevels(img->data, blockBytes(img), seed, lo, span);
    return img;
}
wzVolume *randomVolume(int32_t w, int32_t h, int32_t d, uint32_t seed, int lo = 0, int span = 256) {
    wzVolume *v = wzVolumeCreate(w, h, d);
    fillLevels(v->voxels, voxelBytes(v), seed, lo, span);
    return v;
}
wzMatrix *randomMatrix(int32_t rows, int32_t cols, uint32_t seed, double diagonal = 0.0) {
    wzMatrix *m = wzMatrixCreate(rows, cols);
    for (int32_t i = 0; i < rows; ++i)
        for (int32_t j = 0; j < cols; ++j)
            m->rowPtr[i][j] =
                double(int(nextRandom(seed) % 2001) - 1000) / 256.0 + (i == j ? diagonal : 0.0);
    return m;
}
wzImageColorProfile *profileOf(const wzImage *img) {
    wzImageColorProfile *profile = wzImageColorProfileCreate();
    wzImageFillColorProfile(img, profile);
    return profile;
}

// What save(saved, stream) writes.
template <class T>
Bytes dumpOf(const T *saved, wzStatus (*save)(const T *, std::FILE *)) {
    wzStatus status = 1;
    Bytes bytes = morven_test::saveToBytes([=](std::FILE *f) { return save(saved, f); }, &status);
    EXPECT_EQ(status, 0u);
    return bytes;
}
// An unbuffered read stream over bytes (which it keeps): reads allocate nothing.
std::shared_ptr<std::FILE> streamOver(Bytes bytes) {
    auto b = std::make_shared<Bytes>(std::move(bytes));
    std::shared_ptr<std::FILE> f(fmemopen(b->data(), b->size(), "rb"),
                                 [b](std::FILE *s) { std::fclose(s); });
    EXPECT_NE(f, nullptr);
    std::setvbuf(f.get(), nullptr, _IONBF, 0);
    return f;
}
template <class T>
Op loadOp(std::string name, Bytes dump, T *(*load)(std::FILE *), void (*release)(T **),
          std::type_identity_t<std::function<void(T *)>> check, Points points) {
    const auto f = streamOver(std::move(dump));
    return made(
        std::move(name),
        [=] {
            std::rewind(f.get());
            return load(f.get());
        },
        release, check, points);
}

// ---------------------------------------------------------------------------
// The probe itself

void *(*volatile probeMalloc)(size_t) = std::malloc;
void *(*volatile probeCalloc)(size_t, size_t) = std::calloc;
void *(*volatile probeRealloc)(void *, size_t) = std::realloc;
void (*volatile probeFree)(void *) = std::free;

TEST(AllocProbe, CountsRequestsFailsTheChosenOneAndSeesLeftoverBlocks) {
    void *kept = probeMalloc(8);  // made before the window: never counted
    allocProbeBegin(0);
    void *a = probeMalloc(16), *b = probeCalloc(4, 4), *c = probeRealloc(nullptr, 8);
    c = probeRealloc(c, 64);
    probeFree(a);
    probeFree(kept);
    allocProbeEnd();
    EXPECT_EQ(std::make_tuple(allocProbe.requests, allocProbe.largest, allocProbe.injected,
                              allocProbe.live),
              std::make_tuple(4L, size_t{64}, 0, 2L));  // b and c live
    for (void *p : {b, c}) probeFree(p);
    EXPECT_EQ(allocProbe.live, 0);

    allocProbeBegin(2);
    void *first = probeMalloc(1), *second = probeCalloc(1, 1), *third = probeMalloc(1);
    allocProbeEnd();
    EXPECT_TRUE(first && !second && third && allocProbe.injected);
    EXPECT_EQ(allocProbe.live, 2);
    for (void *p : {first, third}) probeFree(p);
    EXPECT_EQ(allocProbe.live, 0);

    // The library's own requests go through the probe as well.
    allocProbeBegin(1);
    wzImageColorProfile *profile = wzImageColorProfileCreate();
    allocProbeEnd();
    EXPECT_TRUE(profile == nullptr && allocProbe.injected);
}

// ---------------------------------------------------------------------------
// Create operations: null on failure

TEST(AllocFailure, CreateOperations) {
    // 7 x 5 images: the record, then the block unless a header.
    const auto image = [](uint32_t encoding, uint32_t type, bool header) {
        return [=](wzImage *img) {
            EXPECT_EQ(std::make_tuple(img->width, img->height, img->roi.width, img->roi.height),
                      std::make_tuple(7, 5, 7, 5));
            EXPECT_EQ(std::make_pair(img->encoding, img->type), std::make_pair(encoding, type));
            EXPECT_EQ(img->data == nullptr, header);
            if (img->data) std::memset(img->data, 0xA5, blockBytes(img));
        };
    };
    const auto support = [](const wzSelectiveSmoothSupport *s) {
        ASSERT_TRUE(s && s->absDiff && s->ratio);
        EXPECT_EQ(std::make_pair(s->absDiff->rowPtr[3][10], s->ratio->rowPtr[6][4]),
                  std::make_pair(7.0, 1.5));
    };
    // Matrices: record, row table, block laid out row after row.
    const auto matrix4 = [](bool identity) {
        return [=](wzMatrix *m) {
            for (int32_t i = 0; i < 16; ++i)
                EXPECT_EQ(m->rowPtr[i / 4][i % 4], identity && i % 5 == 0 ? 1.0 : 0.0);
            for (int32_t i = 0; i < 4; ++i) EXPECT_EQ(m->rowPtr[i], m->data + i * 4);
        };
    };
    wzImage *model = wzImageCreateWithType(7, 5, wzEncodingARGB, wzType16U);
    sweepAll({
        made(
            "wzImageCreateHeader", [] { return wzImageCreateHeader(7, 5, wzEncodingBGR); },
            wzImageReleaseHeader, image(wzEncodingBGR, wzType8U, true), exactly(1)),
        made(
            "wzImageCreateHeaderWithType",
            [] { return wzImageCreateHeaderWithType(7, 5, wzEncodingGray, wzType32F); },
            wzImageReleaseHeader, image(wzEncodingGray, wzType32F, true), exactly(1)),
        made(
            "wzImageCreate", [] { return wzImageCreate(7, 5, wzEncodingRGBA); }, wzImageRelease,
            image(wzEncodingRGBA, wzType8U, false), exactly(2)),
        made(
            "wzImageCreateWithType",
            [] { return wzImageCreateWithType(7, 5, wzEncodingBGR, wzType64F); }, wzImageRelease,
            image(wzEncodingBGR, wzType64F, false), exactly(2)),
        made(
            "wzImageCreateAs", [=] { return wzImageCreateAs(model); }, wzImageRelease,
            image(wzEncodingARGB, wzType16U, false), exactly(2)),
        made("wzImageColorProfileCreate", wzImageColorProfileCreate, wzImageColorProfileRelease,
             [](auto *p) {
                 EXPECT_EQ(std::count(&p->bins[0][0], &p->bins[0][0] + 768, 0.0f), 768);
             }),
        made("wzHistogramMatchParamsDefault", wzHistogramMatchParamsDefault,
             wzHistogramMatchParamsRelease,
             [](auto *p) {
                 EXPECT_TRUE(p->strength == 1.0f && p->maxStep == 255 && !p->targetProfile);
             }),
        made(
            "wzHistogramMatchStatsCreate", wzHistogramMatchStatsCreate,
            wzHistogramMatchStatsRelease,
            [](auto *s) { EXPECT_TRUE(s->profile && s->profile->bins[1][17] == 0.0f); },
            exactly(2)),
        made("wzContrastEnhanceParamsDefault", wzContrastEnhanceParamsDefault,
             wzContrastEnhanceParamsRelease,
             [](auto *p) { EXPECT_TRUE(p->highTail == 9.0f && p->manualHigh == 255); }),
        made("wzContrastEnhanceStatsCreate", wzContrastEnhanceStatsCreate,
             wzContrastEnhanceStatsRelease, [](auto *) {}),
        // The record, then two 256 x 256 matrices.
        made("wzSelectiveSmoothSupportCreate", wzSelectiveSmoothSupportCreate,
             wzSelectiveSmoothSupportRelease, support, exactly(7)),
        made("wzSelectiveSmoothParamsDefault", wzSelectiveSmoothParamsDefault,
             wzSelectiveSmoothParamsRelease, [](auto *p) { EXPECT_EQ(p->iterations, 2); }),
        made(
            "wzHistogramTransferSupportCreate", wzHistogramTransferSupportCreate,
            wzHistogramTransferSupportRelease, [=](auto *s) { support(s->smoothSupport); },
            exactly(8)),
        made("wzHistogramTransferParamsDefault", wzHistogramTransferParamsDefault,
             wzHistogramTransferParamsRelease,
             [](auto *p) { EXPECT_EQ(p->contrastLowTail, 50.0f); }),
        made(
            "wzHistogramTransferParamsInnerCreate", wzHistogramTransferParamsInnerCreate,
            wzHistogramTransferParamsInnerRelease,
            [](auto *in) {
                EXPECT_TRUE(in->matchParams && in->contrastParams &&
                            in->smoothParams->iterations == 2);
            },
            exactly(4)),
        made(
            "wzMatrixCreateHeader", [] { return wzMatrixCreateHeader(4, 3); },
            wzMatrixReleaseHeader,
            [](auto *m) { EXPECT_TRUE(!m->data && m->rowPtr && m->nRows == 4); }, exactly(2)),
        made(
            "wzMatrixCreate", [] { return wzMatrixCreate(4, 4); }, wzMatrixRelease, matrix4(false),
            exactly(3)),
        made(
            "wzMatrixCreateIdentity", [] { return wzMatrixCreateIdentity(4); }, wzMatrixRelease,
            matrix4(true), exactly(3)),
        made(
            "vector", [] { return vector(-2, 5); }, +[](double **v) { free_vector(*v, -2, 5); },
            [](double *v) { std::fill(v - 2, v + 6, 1.0); }),
        made(
            "matrix", [] { return matrix(1, 3, 0, 4); },
            +[](double ***m) { free_matrix(*m, 1, 3, 0, 4); },
            [](double **m) {
                for (int i = 1; i <= 3; ++i) std::fill(m[i], m[i] + 5, double(i));
                EXPECT_EQ(std::make_pair(m[2][0], m[3][4]), std::make_pair(2.0, 3.0));
            },
            exactly(2)),
    });
    wzImageRelease(&model);

    // Volumes of 5 x 4 x 3. Kind 0: record, plane table and a header per
    // plane; 1: also one block under the planes; 2: also a block per plane
    // (each made as an image).
    static constexpr int32_t W = 5, H = 4, D = 3;
    void (*const release[])(wzVolume **) = {wzVolumeReleaseHeader, wzVolumeRelease,
                                            wzVolumeReleaseWithSeparatePlanes};
    const Points points[] = {exactly(2 + D), exactly(3 + D), atLeast(2 + 2 * D)};
    wzVolume *volume = wzVolumeCreateWithType(W, H, D, wzType64F);
    constexpr uint32_t gray = wzEncodingGray;
    const std::tuple<const char *, std::function<wzVolume *()>, uint32_t, uint32_t, int> volumes[] =
        {
            {"wzVolumeCreateHeader", [] { return wzVolumeCreateHeader(W, H, D); }, wzType8U, gray,
             0},
            {"wzVolumeCreateHeaderWithType",
             [] { return wzVolumeCreateHeaderWithType(W, H, D, wzType16U); }, wzType16U, gray, 0},
            {"wzVolumeCreateHeaderWithEncoding",
             [] { return wzVolumeCreateHeaderWithEncoding(W, H, D, wzEncodingBGR); }, wzType8U,
             wzEncodingBGR, 0},
            {"wzVolumeCreateWithType", [] { return wzVolumeCreateWithType(W, H, D, wzType32F); },
             wzType32F, gray, 1},
            {"wzVolumeCreate", [] { return wzVolumeCreate(W, H, D); }, wzType8U, gray, 1},
            {"wzVolumeCreateWithEncoding",
             [] { return wzVolumeCreateWithEncoding(W, H, D, wzEncodingRGBA); }, wzType8U,
             wzEncodingRGBA, 1},
            {"wzVolumeCreateAs", [=] { return wzVolumeCreateAs(volume); }, wzType64F, gray, 1},
            {"wzVolumeCreateWithTypeWithSeparatePlanes",
             [] { return wzVolumeCreateWithTypeWithSeparatePlanes(W, H, D, wzType16U); }, wzType16U,
             gray, 2},
            {"wzVolumeCreateWithSeparatePlanes",
             [] { return wzVolumeCreateWithSeparatePlanes(W, H, D); }, wzType8U, gray, 2},
        };
    for (const auto &[name, make, type, encoding, kind] : volumes) {
        sweep(made(
            name, make, release[kind],
            [type = type, encoding = encoding, kind = kind](wzVolume *v) {
                EXPECT_EQ(std::make_tuple(v->width, v->height, v->depth, v->type),
                          std::make_tuple(W, H, D, type));
                for (int32_t k = 0; k < D; ++k) {
                    ASSERT_TRUE(v->planes && v->planes[k]);
                    const wzImage *plane = v->planes[k];
                    EXPECT_EQ(std::make_tuple(plane->width, plane->height, plane->encoding,
                                              plane->data == nullptr),
                              std::make_tuple(W, H, encoding, kind == 0));
                }
                EXPECT_EQ(v->voxels, kind == 1 ? v->planes[0]->data : nullptr);
                if (kind == 1) {
                    EXPECT_EQ(v->planes[2]->data - v->planes[1]->data,
                              v->planes[1]->data - v->voxels);
                }
            },
            points[kind]));
    }
    wzVolumeRelease(&volume);
}

// ---------------------------------------------------------------------------
// Filters: status 1 on failure

TEST(AllocFailure, ImageFilters) {
    wzImage *reference = randomImage(30, 26, wzEncodingBGR, 1, 70, 120),
            *mask = randomImage(34, 26, wzEncodingGray, 2);
    wzImage *source = randomImage(34, 26, wzEncodingBGR, 3, 20, 120),
            *out = wzImageCreateAs(source);
    // The guide plus small pseudo-random steps: something for smoothing to do.
    wzImage *guide = randomImage(34, 26, wzEncodingBGR, 4, 60, 30), *noisy = wzImageCreateAs(guide);
    uint32_t seed = 5;
    for (size_t i = 0; i < blockBytes(noisy); ++i)
        noisy->data[i] = uint8_t(guide->data[i] + nextRandom(seed) % 40);
    wzImageColorProfile *target = profileOf(reference);
    wzHistogramMatchParams *match = wzHistogramMatchParamsDefault();
    match->targetProfile = target;
    wzContrastEnhanceParams *contrast = wzContrastEnhanceParamsDefault();
    wzSelectiveSmoothParams *smooth = wzSelectiveSmoothParamsDefault();
    smooth->threshold = 0.2f;
    wzHistogramTransferSupport *support = wzHistogramTransferSupportCreate();
    wzHistogramTransferParams *defaults = wzHistogramTransferParamsDefault();
    wzHistogramTransferParams full = *defaults, matchOnly, matchContrast;
    wzHistogramTransferParamsRelease(&defaults);
    full.targetProfile = target;
    full.contrastEnabled = full.smoothEnabled = 1;
    full.smoothThreshold = 0.2f;
    // The stages a transfer failure may leave: matching, then contrast too
    // (nothing is rolled back, and each stage allocates before it writes).
    matchOnly = matchContrast = full;
    matchOnly.contrastEnabled = matchOnly.smoothEnabled = matchContrast.smoothEnabled = 0;
    const auto transfer = [&](const wzHistogramTransferParams *p, const wzImage *m, wzImage *to) {
        return [=] { return long(wzHistogramTransferFilter(p, support, source, m, to, nullptr)); };
    };
    const auto transferOp = [&](std::string how, wzImage *to) {
        return statusOp("wzHistogramTransferFilter (" + how + ", mask, contrast, smoothing)",
                        {span(to)}, to == source, transfer(&full, mask, to), atLeast(3),
                        OnFailure::Untouched,
                        {transfer(&matchOnly, nullptr, to), transfer(&matchContrast, nullptr, to)});
    };
    const Spans in{span(source)}, into{span(out)};
    const wzSelectiveSmoothSupport *smoothing = support->smoothSupport;
    sweepAll({
        // In place with a mask: the copy is the one allocation; into another image: none.
        statusOp(
            "wzHistogramMatchFilter (in place, mask)", in, true,
            [=] { return long(wzHistogramMatchFilter(match, source, mask, source, nullptr)); },
            atLeast(1)),
        statusOp(
            "wzHistogramMatchFilter (into another image, mask)", into, false,
            [=] { return long(wzHistogramMatchFilter(match, source, mask, out, nullptr)); },
            exactly(0)),
        // Statistics and curve, then (in place, mask) the copy's record and block.
        statusOp(
            "wzContrastEnhanceFilter (into another image)", into, false,
            [=] { return long(wzContrastEnhanceFilter(contrast, source, nullptr, out, nullptr)); },
            exactly(2)),
        statusOp(
            "wzContrastEnhanceFilter (in place, mask)", in, true,
            [=] { return long(wzContrastEnhanceFilter(contrast, source, mask, source, nullptr)); },
            exactly(4)),
        // Working storage is made before any output is written.
        statusOp(
            "wzSelectiveSmooth (into another image)", into, false,
            [=] { return long(wzSelectiveSmooth(smooth, smoothing, guide, noisy, out, nullptr)); },
            atLeast(1)),
        statusOp(
            "wzSelectiveSmooth (in place)", {span(noisy)}, true,
            [=] {
                return long(wzSelectiveSmooth(smooth, smoothing, guide, noisy, noisy, nullptr));
            },
            atLeast(1)),
        transferOp("into another image", out),
        transferOp("in place", source),
        // Equalisation and stretch keep everything in automatic storage.
        statusOp(
            "wzHistogramEqualization", into, false,
            [=] { return long(wzHistogramEqualization(source, out)); }, exactly(0)),
        statusOp(
            "wzHistogramStretch", into, false,
            [=] { return long(wzHistogramStretch(source, out)); }, exactly(0)),
    });
    for (wzImage **img : {&reference, &mask, &source, &out, &guide, &noisy}) wzImageRelease(img);
    wzImageColorProfileRelease(&target);
    wzHistogramMatchParamsRelease(&match);
    wzContrastEnhanceParamsRelease(&contrast);
    wzSelectiveSmoothParamsRelease(&smooth);
    wzHistogramTransferSupportRelease(&support);
}

// The extensions: every allocation precedes the first write of its stage,
// so a failure leaves the input, or the stages already finished. Counts of
// points are lower bounds: working memory depends on the space and depth.
TEST(AllocFailure, Extensions) {
    const auto image16 = [](int32_t w, int32_t h, uint32_t encoding, uint32_t seed) {
        wzImage *img = wzImageCreateWithType(w, h, encoding, wzType16U);
        fillLevels(img->data, blockBytes(img), seed);
        return img;
    };
    wzImage *reference = randomImage(30, 26, wzEncodingBGR, 41, 70, 120),
            *source = randomImage(34, 26, wzEncodingBGR, 42, 20, 120);
    wzImage *statsMask = randomImage(34, 26, wzEncodingGray, 43),
            *mask = randomImage(34, 26, wzEncodingGray, 44);
    wzImage *source16 = image16(34, 26, wzEncodingBGR, 45), *out16 = wzImageCreateAs(source16);
    wzImage *guide16 = image16(34, 26, wzEncodingBGR, 46), *noisy16 = wzImageCreateAs(guide16);
    for (size_t i = 0; i < blockBytes(noisy16) / 2;
         ++i)  // the guide plus steps of up to 4096 levels
        reinterpret_cast<uint16_t *>(noisy16->data)[i] =
            uint16_t(reinterpret_cast<uint16_t *>(guide16->data)[i] + i * 2654435761u % 4096);
    wzImageColorProfile *target = profileOf(reference);
    wzImageColorProfile16 *lab = wzImageColorProfile16Create(),
                          *profile = wzImageColorProfile16Create();
    wzImageFillColorProfile16(reference, nullptr, wzSpaceLab, lab);
    const wzHistogramMatchParams match{0.9f, 0.8f, 0, 60, target};
    const wzHistogramMatchOptions inLab{wzSpaceLab, 0, statsMask, lab},
        counted{0, 0, statsMask, nullptr};
    const wzContrastEnhanceParams contrast{9.0f, 30.0f, 0, 255, 0};
    const wzSelectiveSmoothParams smooth{0.05f, 2};
    wzHistogramTransferSupport *support = wzHistogramTransferSupportCreate();
    const wzHistogramTransferParams full{target, 0.9f, 0.8f, 1, 9.0f, 50.0f, 1, 0.2f, 2, 255};
    wzHistogramTransferParams matchOnly = full, matchContrast = full, smooth16 = full;
    wzHistogramMatchCurves *curves = wzHistogramMatchCurvesCreate(),
                           *labCurves = wzHistogramMatchCurvesCreate();
    wzHistogramMatchCurvesCompute(lab, &match, lab, 3, labCurves);
    wzImage *out = wzImageCreateAs(source);
    matchOnly.contrastEnabled = matchOnly.smoothEnabled = matchContrast.smoothEnabled =
        smooth16.contrastEnabled = 0;
    smooth16.smoothThreshold = 0.05f;
    const auto transfer = [&](const wzHistogramTransferParams *p, const wzImage *m, wzImage *from,
                              wzImage *to) {
        return [=] {
            return long(
                wzHistogramTransferFilterWithOptions(p, &counted, support, from, m, to, nullptr));
        };
    };
    sweepAll({
        made(
            "wzImageColorProfile16Create", wzImageColorProfile16Create,
            wzImageColorProfile16Release,
            [](auto *p) {
                EXPECT_EQ(std::count(&p->bins[0][0], &p->bins[0][0] + 3 * 65536, 0.0) + !p->space,
                          3 * 65536 + 1);
            },
            exactly(1)),
        // The profile is replaced whatever the outcome: only the status is checked.
        statusOp(
            "wzImageFillColorProfile16 (Lab)", {Span{profile, sizeof *profile}}, false,
            [=] { return long(wzImageFillColorProfile16(source, statsMask, wzSpaceLab, profile)); },
            atLeast(1), OnFailure::Unspecified),
        statusOp(
            "wzHistogramMatchFilterWithOptions (16-bit, Lab, in place, masks)", {span(source16)},
            true,
            [=] {
                return long(wzHistogramMatchFilterWithOptions(&match, &inLab, source16, mask,
                                                              source16, nullptr));
            },
            atLeast(2)),
        statusOp(
            "wzHistogramEqualizationMasked (16-bit)", {span(out16)}, false,
            [=] { return long(wzHistogramEqualizationMasked(source16, statsMask, out16)); },
            atLeast(1)),
        statusOp(
            "wzHistogramStretchMasked (16-bit)", {span(out16)}, false,
            [=] { return long(wzHistogramStretchMasked(source16, statsMask, out16)); }, exactly(0)),
        statusOp(
            "wzContrastEnhanceFilterMasked (16-bit, in place, masks)", {span(source16)}, true,
            [=] {
                return long(wzContrastEnhanceFilterMasked(&contrast, source16, statsMask, mask,
                                                          source16, nullptr));
            },
            atLeast(2)),
        statusOp("wzHistogramTransferFilterWithOptions (in place, masks, contrast, smoothing)",
                 {span(source)}, true, transfer(&full, mask, source, source), atLeast(3),
                 OnFailure::Untouched,
                 {transfer(&matchContrast, nullptr, source,
                           source)}),  // masked contrast allocates nothing
        statusOp("wzHistogramTransferFilterWithOptions (16-bit, mask, smoothing)", {span(out16)},
                 false, transfer(&smooth16, mask, noisy16, out16), atLeast(2), OnFailure::Untouched,
                 {transfer(&matchOnly, nullptr, noisy16, out16)}),
        statusOp(
            "wzSelectiveSmooth16", {span(out16)}, false,
            [=] { return long(wzSelectiveSmooth16(&smooth, guide16, noisy16, out16, nullptr)); },
            atLeast(1)),
        made(
            "wzHistogramMatchCurvesCreate", wzHistogramMatchCurvesCreate,
            wzHistogramMatchCurvesRelease, [](auto *c) { EXPECT_EQ(c->mapped, 0); }, exactly(1)),
        statusOp(
            "wzHistogramMatchCurvesCompute (Lab)", {Span{curves, sizeof *curves}}, false,
            [=] { return long(wzHistogramMatchCurvesCompute(lab, &match, lab, 3, curves)); },
            exactly(1)),
        statusOp(
            "wzHistogramMatchCurvesApply (Lab)", {span(out)}, false,
            [=] { return long(wzHistogramMatchCurvesApply(labCurves, source, out, nullptr)); },
            atLeast(2)),
    });
    wzHistogramMatchCurvesRelease(&curves);
    wzHistogramMatchCurvesRelease(&labCurves);
    wzImageRelease(&out);
    for (wzImage **img :
         {&reference, &source, &statsMask, &mask, &source16, &out16, &guide16, &noisy16})
        wzImageRelease(img);
    wzImageColorProfileRelease(&target);
    wzImageColorProfile16Release(&lab);
    wzImageColorProfile16Release(&profile);
    wzHistogramTransferSupportRelease(&support);
}

TEST(AllocFailure, VolumeHistogramFilters) {
    wzImage *reference = randomImage(16, 16, wzEncodingGray, 11, 100, 80);
    wzImageColorProfile *target = profileOf(reference);
    wzHistogramMatchParams *params = wzHistogramMatchParamsDefault();
    params->targetProfile = target;
    wzVolume *source = randomVolume(12, 10, 4, 12, 0, 120), *mask = randomVolume(12, 10, 4, 13);
    wzVolume *out = wzVolumeCreateAs(source);
    sweepAll({
        // The temporary volume: record, plane table, plane headers and block.
        statusOp(
            "wzHistogramMatchFilter3D (in place, mask)", {span(source)}, true,
            [=] { return long(wzHistogramMatchFilter3D(params, source, mask, source, nullptr)); },
            exactly(3 + 4)),
        // Equalisation and stretch keep everything in automatic storage.
        statusOp(
            "wzHistogramEqualization3D", {span(out)}, false,
            [=] { return long(wzHistogramEqualization3D(source, out)); }, exactly(0)),
        statusOp(
            "wzHistogramStretch3D", {span(out)}, false,
            [=] { return long(wzHistogramStretch3D(source, out)); }, exactly(0)),
    });
    for (wzVolume **v : {&source, &mask, &out}) wzVolumeRelease(v);
    wzHistogramMatchParamsRelease(&params);
    wzImageColorProfileRelease(&target);
    wzImageRelease(&reference);
}

// ---------------------------------------------------------------------------
// Solvers, singular value decomposition, pseudo-inverse: status 1 on failure

TEST(AllocFailure, SolversDecompositionAndPseudoInverse) {
    wzMatrix *A = randomMatrix(5, 5, 15, 12.0), *B = randomMatrix(5, 2, 16),
             *X = wzMatrixCreate(5, 2);
    wzMatrix *tall = randomMatrix(8, 3, 17, 5.0), *rhs = randomMatrix(8, 2, 18),
             *fit = wzMatrixCreate(3, 2);
    wzMatrix *work1 = wzMatrixCreate(8, 3), *work2 = wzMatrixCreate(3, 3),
             *work3 = wzMatrixCreate(3, 2);
    wzMatrix *S = randomMatrix(6, 4, 19), *U = wzMatrixCreate(6, 4), *W = wzMatrixCreate(4, 1);
    wzMatrix *V = wzMatrixCreate(4, 4);
    std::vector<wzMatrix *> matrices{A, B, X, tall, rhs, fit, work1, work2, work3, S, U, W, V};
    constexpr auto unspecified = OnFailure::Unspecified;
    std::vector<Op> ops{
        // The work matrix: record, row table, block.
        statusOp(
            "wzMatrixSolveLinearSystem (own work matrix)", {span(X)}, false,
            [=] { return long(wzMatrixSolveLinearSystem(A, X, B, nullptr)); }, exactly(3),
            unspecified),
        // Three work matrices and two headers over the first one's block.
        statusOp(
            "wzMatrixLinearSystemLeastSquares (own work matrices)", {span(fit)}, false,
            [=] {
                return long(
                    wzMatrixLinearSystemLeastSquares(tall, fit, rhs, nullptr, nullptr, nullptr));
            },
            exactly(3 * 3 + 2 * 2), unspecified),
        statusOp(
            "wzMatrixLinearSystemLeastSquares (caller's work matrices)", {span(fit)}, false,
            [=] {
                return long(wzMatrixLinearSystemLeastSquares(tall, fit, rhs, work1, work2, work3));
            },
            exactly(2 * 2), unspecified),
        // The decomposition needs its work vector; its transposed working
        // copies only speed it up: without them, the very same results.
        statusOp(
            "wzMatrixSVDDecomposition", {span(U), span(W), span(V)}, false,
            [=] { return long(wzMatrixSVDDecomposition(S, U, W, V)); }, atLeast(1),
            OnFailure::MayRecover),
    };
    // Square, tall and wide (both zero-padded to square): every temporary
    // matrix is needed, only the decomposition's copies may be missing.
    for (const auto &[rows, cols] : {std::pair{4, 4}, {6, 4}, {3, 5}}) {
        wzMatrix *M = randomMatrix(rows, cols, uint32_t(20 + rows), 3.0),
                 *P = wzMatrixCreate(cols, rows);
        matrices.insert(matrices.end(), {M, P});
        ops.push_back(statusOp(
            "wzMatrixPseudoInverse (" + std::to_string(rows) + " x " + std::to_string(cols) + ")",
            {span(P)}, false, [=] { return long(wzMatrixPseudoInverse(M, P)); }, {},
            OnFailure::MayRecover));
    }
    sweepAll(ops);
    for (wzMatrix *m : matrices) wzMatrixRelease(&m);
}

// ---------------------------------------------------------------------------
// Dump loads: null on failure

TEST(AllocFailure, ImageAndMatrixDumpLoads) {
    wzImage *image = wzImageCreateWithType(9, 7, wzEncodingBGR, wzType16U);
    wzImage *big = randomImage(4100, 4100, wzEncodingGray, 27);
    fillLevels(image->data, blockBytes(image), 21);
    const wzRect roi{1, 2, 5, 4};
    wzImageSetROI(image, &roi);
    wzImageSetCOI(image, 2);
    wzMatrix *m = randomMatrix(6, 5, 22), *bigM = randomMatrix(1500, 1500, 28);  // 18 MB of doubles
    const auto imageOp = [](std::string name, const wzImage *saved, Points points) {
        return loadOp(
            name, dumpOf(saved, wzImageDumpSave), wzImageDumpLoad, wzImageRelease,
            [=](wzImage *img) {
                EXPECT_EQ(std::make_tuple(img->width, img->height, img->encoding, img->type,
                                          img->roi.y, img->coi),
                          std::make_tuple(saved->width, saved->height, saved->encoding, saved->type,
                                          saved->roi.y, saved->coi));
                EXPECT_EQ(std::memcmp(img->data, saved->data, blockBytes(saved)), 0);
            },
            points);
    };
    const auto matrixOp = [](std::string name, const wzMatrix *saved, Points points) {
        return loadOp(
            name, dumpOf(saved, wzMatrixDumpSave), wzMatrixDumpLoad, wzMatrixRelease,
            [=](wzMatrix *m) {
                ASSERT_EQ(std::make_pair(m->nRows, m->nCols),
                          std::make_pair(saved->nRows, saved->nCols));
                EXPECT_EQ(bytesOf({span(m)}), bytesOf({span(saved)}));
                EXPECT_EQ(m->rowPtr[m->nRows - 1], m->data + (m->nRows - 1) * m->nCols);
            },
            points);
    };
    sweepAll({
        imageOp("wzImageDumpLoad", image, exactly(2)),  // record and block
        matrixOp("wzMatrixDumpLoad", m, exactly(3)),    // record, block, row table
        // Payloads above 16 MiB are read in pieces into a block that grows:
        // every piece's allocation may fail too.
        imageOp("wzImageDumpLoad (4100 x 4100)", big, atLeast(3)),
        matrixOp("wzMatrixDumpLoad (1500 x 1500)", bigM, atLeast(4)),
    });
    for (wzImage **img : {&image, &big}) wzImageRelease(img);
    for (wzMatrix **mx : {&m, &bigM}) wzMatrixRelease(mx);
}

TEST(AllocFailure, VolumeDumpLoads) {
    wzVolume *small = wzVolumeCreateWithType(7, 5, 4, wzType32F);
    fillLevels(small->voxels, 7 * 5 * 4 * 4, 23);
    const wzBox box{1, 1, 1, 3, 2, 2};
    wzVolumeSetROI(small, &box);
    // A small volume; more planes than the first plane table of a
    // separate-plane load holds; a plane larger than one direct read.
    wzVolume *deep = randomVolume(2, 1, 300, 24), *large = randomVolume(4100, 4100, 1, 25);
    const std::tuple<std::string, const wzVolume *, long> volumes[] = {
        {"7 x 5 x 4, 32F", small, 3}, {"2 x 1 x 300", deep, 300}, {"4100 x 4100 x 1", large, 4}};
    for (const auto &[what, saved, points] : volumes) {
        const Bytes dump = dumpOf(saved, wzVolumeDumpSave);
        const size_t perPlane = (dump.size() - 48) / size_t(saved->depth);
        const auto planes = [&, saved = saved](bool separate) {
            return [&, saved, separate](wzVolume *v) {
                ASSERT_EQ(std::make_tuple(v->width, v->height, v->depth, v->type, v->roi.depth),
                          std::make_tuple(saved->width, saved->height, saved->depth, saved->type,
                                          saved->roi.depth));
                EXPECT_EQ(v->voxels, separate ? nullptr : v->planes[0]->data);
                for (int32_t k = 0; k < v->depth; ++k)
                    ASSERT_EQ(
                        std::memcmp(v->planes[k]->data, dump.data() + 48 + k * perPlane, perPlane),
                        0)
                        << k;
            };
        };
        sweepAll({
            loadOp("wzVolumeDumpLoad (" + what + ")", dump, wzVolumeDumpLoad, wzVolumeRelease,
                   planes(false), atLeast(points)),
            loadOp("wzVolumeDumpLoadWithSeparatePlanes (" + what + ")", dump,
                   wzVolumeDumpLoadWithSeparatePlanes, wzVolumeReleaseWithSeparatePlanes,
                   planes(true), atLeast(points)),
        });
    }
    for (wzVolume **v : {&small, &deep, &large}) wzVolumeRelease(v);
}

// Whether load() makes anything of the stream (released at once).
template <class T, T *(*Load)(std::FILE *), void (*Release)(T **)>
bool loads(std::FILE *f) {
    T *t = Load(f);
    return t ? (Release(&t), true) : false;
}

// A header that claims gigabytes in front of a few bytes of payload costs at
// most one 16 MiB piece, and leaves nothing behind.
TEST(AllocFailure, HostileDumpHeadersCostLittle) {
    const auto header = [](std::initializer_list<uint32_t> words) {
        Bytes b;
        for (uint32_t v : words)
            for (int i = 0; i < 4; ++i) b.push_back(uint8_t(v >> (8 * i)));
        b.resize(b.size() + 4096, 0x5A);
        return b;
    };
    // 64F RGBA image of 1 x 0x1FFFFFFF, 2 x 0x3FFFFFFF matrix, 64F volume of
    // 0x7FFFFFFF x 1 x 1: 16 GiB each.
    const Bytes image =
        header({wzType64F, wzEncodingRGBA, 1u, 0x1FFFFFFFu, 0u, 0u, 0u, 0u, 0u, 0u});
    const Bytes volume = header({wzType64F, 1u, 0x7FFFFFFFu, 1u, 0u, 0u, 0u, 0u, 0u, 1u, 1u, 1u});
    const std::tuple<const char *, Bytes, bool (*)(std::FILE *)> claims[] = {
        {"image", image, loads<wzImage, wzImageDumpLoad, wzImageRelease>},
        {"matrix", header({0u, 0u, 2u, 0x3FFFFFFFu}),
         loads<wzMatrix, wzMatrixDumpLoad, wzMatrixRelease>},
        {"volume", volume, loads<wzVolume, wzVolumeDumpLoad, wzVolumeRelease>},
        {"volume, separate planes", volume,
         loads<wzVolume, wzVolumeDumpLoadWithSeparatePlanes, wzVolumeReleaseWithSeparatePlanes>},
    };
    for (const auto &[what, bytes, load] : claims) {
        const auto stream = streamOver(bytes);
        allocProbeBegin(0);
        const bool loaded = load(stream.get());
        allocProbeEnd();
        EXPECT_TRUE(!loaded && allocProbe.requests > 0 && allocProbe.live == 0) << what;
        EXPECT_LE(allocProbe.largest, size_t{16} << 20) << what;
    }
}

// ---------------------------------------------------------------------------
// Host entry points: status 1 on failure

TEST(AllocFailure, HostEntryPoints) {
    wzMorvenDispose();
    constexpr int32_t W = 24, H = 18, RW = 20, RH = 16;
    Bytes source(W * H * 3), reference(RW * RH * 3), guide(W * H * 3), input(W * H * 3),
        out(W * H * 3);
    fillLevels(source.data(), source.size(), 26, 20, 140);
    fillLevels(reference.data(), reference.size(), 27, 80, 120);
    fillLevels(guide.data(), guide.size(), 28, 70, 30);
    uint32_t seed = 29;
    for (size_t i = 0; i < guide.size(); ++i) input[i] = uint8_t(guide[i] + nextRandom(seed) % 40);
    const auto transfer = [&](int32_t contrast) {
        return [&, contrast] {
            return long(wzMorvenTransfer(W, H, source.data(), out.data(), RW, RH, reference.data(),
                                         contrast, 255, 0.8f, 9.0f, 50.0f, 0.9f));
        };
    };
    const auto smooth = [&] {
        return long(wzMorvenSmooth(W, H, guide.data(), input.data(), out.data(), 2, 0.2f));
    };

    // Init: without support every later call refuses and touches nothing.
    long status = 0;
    sweep({"wzMorvenInit", [] {}, [&] { status = wzMorvenInit(); },
           [&](bool injected) {
               EXPECT_EQ(status, injected ? 1 : 0);
               if (!injected) return wzMorvenDispose();
               const Bytes untouched(out.size(), 0x2D);
               out = untouched;
               EXPECT_EQ(std::make_pair(transfer(1)(), smooth()), std::make_pair(1L, 1L));
               EXPECT_EQ(out, untouched);
           },
           exactly(8)});

    ASSERT_EQ(wzMorvenInit(), 0u);
    sweepAll({
        // The host's headers, profile and parameters, the filter's bundle,
        // then contrast's records, made after matching wrote its result.
        statusOp("wzMorvenTransfer (contrast)", {span(out)}, false, transfer(1),
                 atLeast(4 + 4 + 2 + 1), OnFailure::Untouched, {transfer(0)}),
        // Three headers and the parameter record, then smoothing's own.
        statusOp("wzMorvenSmooth", {span(out)}, false, smooth, atLeast(5)),
    });
    wzMorvenDispose();
}

}  // namespace
