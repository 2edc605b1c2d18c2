// Allocation failure, operation by operation: each call is run again and
// again with its first, second, third... allocation failing, until a run
// makes fewer allocations than the one chosen to fail. Every failing run must
// report the failure the way the operation's contract says (null, status 1,
// outputs untouched or holding the stages already completed), every other run
// must give the result of a run without failures, and no run may leave a
// block behind: the probe counts the blocks made during the call that are
// still live once the call returned and its results were released.
#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <tuple>
#include <utility>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "alloc_probe.h"
#include "morven/morven.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Doubles = std::vector<double>;

// ---------------------------------------------------------------------------
// The sweep

int totalOperations = 0;
long totalFailurePoints = 0;
struct ReportTotals : ::testing::Environment {
    void TearDown() override {
        std::printf("[  alloc   ] %d operations, %ld failure points\n", totalOperations, totalFailurePoints);
    }
};
const auto *const kReport = ::testing::AddGlobalTestEnvironment(new ReportTotals);
constexpr long kMaxFailurePoints = 100000;

// Allowed number of failure points of an operation.
struct Points {
    long lo = 0, hi = LONG_MAX;
};
Points exactly(long n) { return {n, n}; }
Points atLeast(long n) { return {n, LONG_MAX}; }
const Points kNone = exactly(0), kSome = atLeast(1), kAny{};

// One operation: setup() restores its inputs before each run (outside the
// probe's window), call() runs it, check(result, injected) checks the result
// and releases whatever the call returned.
template <class R>
struct Op {
    std::string name;
    std::function<void()> setup;
    std::function<R()> call;
    std::function<void(R, bool)> check;
    Points points = kAny;
};
using StatusOp = Op<long>;
using PtrOp = Op<void *>;

// Runs op.call() with allocation n failing for n = 1, 2, ... until a run does
// not reach allocation n. Returns the number of failure points, i.e. of
// allocations the successful run made.
template <class R>
long sweep(const Op<R> &op) {
    long n = 1;
    for (;; ++n) {
        if (op.setup) op.setup();
        allocProbeBegin(n);
        R result = op.call();
        allocProbeEnd();
        const bool injected = allocProbeInjected() != 0;
        const std::string run = injected ? "with allocation " + std::to_string(n) + " failing" : "without failure";
        {
            SCOPED_TRACE(op.name + " " + run);
            op.check(result, injected);
        }
        EXPECT_FALSE(allocProbeOverflowed()) << op.name;
        EXPECT_EQ(allocProbeLive(), 0) << op.name << ": blocks left behind by the run " << run;
        if (!injected) {  // the same call makes the same requests every time
            EXPECT_EQ(allocProbeRequests(), n - 1) << op.name;
            break;
        }
        if (n >= kMaxFailurePoints) {
            ADD_FAILURE() << op.name << ": still allocating after " << n << " failure points";
            break;
        }
    }
    std::printf("[  alloc   ] %-58s %4ld failure points\n", op.name.c_str(), n - 1);
    EXPECT_GE(n - 1, op.points.lo) << op.name;
    EXPECT_LE(n - 1, op.points.hi) << op.name;
    ++totalOperations;
    totalFailurePoints += n - 1;
    return n - 1;
}

template <class R>
void sweepAll(const std::vector<Op<R>> &ops) {
    for (const Op<R> &op : ops) sweep(op);
}

// A create or load operation: null on every failure, a record that passes
// check() otherwise; release() frees it.
template <class T, class Make, class Check, class Release>
PtrOp made(std::string name, Make make, Check check, Release release, Points points = kAny) {
    return {std::move(name), {}, [make]() -> void * { return make(); },
            [check, release](void *p, bool injected) {
                T *t = static_cast<T *>(p);
                if (injected) {
                    EXPECT_EQ(t, nullptr);
                    if (t) release(t);
                    return;
                }
                ASSERT_NE(t, nullptr);
                check(t);
                release(t);
            },
            points};
}

template <class T>
std::function<void(T *)> releasedBy(void (*release)(T **)) {
    return [release](T *p) { release(&p); };
}

// A status operation whose output is `before` after a failure and `after`
// otherwise (status 1 and 0); with checkFailed false, only the success's.
template <class Get, class T>
std::function<void(long, bool)> outcome(Get get, T before, T after, bool checkFailed = true) {
    return [=](long status, bool injected) {
        EXPECT_EQ(status, injected ? 1 : 0);
        if (!injected || checkFailed) { EXPECT_EQ(get(), injected ? before : after); }
    };
}
template <class F>
std::function<long()> status(F f) {
    return [f] { return long(f()); };
}

// ---------------------------------------------------------------------------
// Inputs

uint32_t nextRandom(uint32_t &state) {
    state = state * 1664525u + 1013904223u;
    return state >> 8;
}
void fillRandom(uint8_t *p, size_t n, uint32_t seed, int lo = 0, int span = 256) {
    for (size_t i = 0; i < n; ++i) p[i] = uint8_t(lo + int(nextRandom(seed) % uint32_t(span)));
}

// Bytes of an 8-bit image's whole block.
size_t blockBytes(const wzImage *img) {
    return size_t(img->width) * size_t(img->height) * size_t(wzImageGetNChannel(img));
}
Bytes bytesOf(const wzImage *img) { return Bytes(img->data, img->data + blockBytes(img)); }
void restore(wzImage *img, const Bytes &bytes) { std::memcpy(img->data, bytes.data(), bytes.size()); }
std::function<Bytes()> bytesGetter(const wzImage *img) { return [img] { return bytesOf(img); }; }

// New 8-bit image with pseudo-random levels lo .. lo + span - 1.
wzImage *randomImage(int32_t w, int32_t h, uint32_t encoding, uint32_t seed, int lo = 0, int span = 256) {
    wzImage *img = wzImageCreate(w, h, encoding);
    fillRandom(img->data, blockBytes(img), seed, lo, span);
    return img;
}
wzImageColorProfile *profileOf(const wzImage *img) {
    wzImageColorProfile *profile = wzImageColorProfileCreate();
    wzImageFillColorProfile(img, profile);
    return profile;
}

size_t voxelBytes(const wzVolume *v) { return size_t(v->width) * size_t(v->height) * size_t(v->depth); }
wzVolume *randomVolume(int32_t w, int32_t h, int32_t d, uint32_t seed, int lo, int span) {
    wzVolume *v = wzVolumeCreate(w, h, d);
    fillRandom(v->voxels, voxelBytes(v), seed, lo, span);
    return v;
}
Bytes voxelsOf(const wzVolume *v) { return Bytes(v->voxels, v->voxels + voxelBytes(v)); }

wzMatrix *randomMatrix(int32_t rows, int32_t cols, uint32_t seed, double diagonal = 0.0) {
    wzMatrix *m = wzMatrixCreate(rows, cols);
    for (int32_t i = 0; i < rows; ++i)
        for (int32_t j = 0; j < cols; ++j)
            m->rowPtr[i][j] = double(int(nextRandom(seed) % 2001) - 1000) / 256.0 + (i == j ? diagonal : 0.0);
    return m;
}
Doubles elementsOf(const wzMatrix *m) { return Doubles(m->data, m->data + size_t(m->nRows) * size_t(m->nCols)); }
void clear(wzMatrix *m) { std::memset(m->data, 0, sizeof(double) * size_t(m->nRows) * size_t(m->nCols)); }

// A dump made by a save function, as bytes.
template <class Save>
Bytes dumpOf(Save &&save) {
    std::FILE *f = std::tmpfile();
    EXPECT_NE(f, nullptr);
    EXPECT_EQ(save(f), 0u);
    Bytes bytes(size_t(std::max(std::ftell(f), 0L)));
    std::rewind(f);
    EXPECT_EQ(std::fread(bytes.data(), 1, bytes.size(), f), bytes.size());
    std::fclose(f);
    return bytes;
}

// An unbuffered memory stream over a dump: reads allocate nothing.
using DumpStream = std::unique_ptr<std::FILE, int (*)(std::FILE *)>;
DumpStream streamOver(Bytes &bytes) {
    DumpStream f(fmemopen(bytes.data(), bytes.size(), "rb"), std::fclose);
    EXPECT_NE(f, nullptr);
    std::setvbuf(f.get(), nullptr, _IONBF, 0);
    return f;
}
std::FILE *rewound(const DumpStream &f) {
    std::fseek(f.get(), 0, SEEK_SET);
    return f.get();
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
    EXPECT_EQ(allocProbeRequests(), 4);
    EXPECT_EQ(allocProbeLargest(), 64u);
    EXPECT_FALSE(allocProbeInjected());
    EXPECT_EQ(allocProbeLive(), 2);  // b and c
    for (void *p : {b, c}) probeFree(p);
    EXPECT_EQ(allocProbeLive(), 0);

    allocProbeBegin(2);
    void *first = probeMalloc(1), *second = probeCalloc(1, 1), *third = probeMalloc(1);
    allocProbeEnd();
    EXPECT_TRUE(first && !second && third);
    EXPECT_TRUE(allocProbeInjected());
    EXPECT_EQ(allocProbeLive(), 2);
    for (void *p : {first, third}) probeFree(p);
    EXPECT_EQ(allocProbeLive(), 0);

    // The library's own requests go through the probe as well.
    allocProbeBegin(1);
    wzImageColorProfile *profile = wzImageColorProfileCreate();
    allocProbeEnd();
    EXPECT_EQ(profile, nullptr);
    EXPECT_TRUE(allocProbeInjected());
}

// ---------------------------------------------------------------------------
// Create operations

void imageShape(const wzImage *img, int32_t w, int32_t h, uint32_t enc, uint32_t type) {
    EXPECT_EQ(std::make_tuple(img->width, img->height, img->encoding, img->type), std::make_tuple(w, h, enc, type));
    EXPECT_EQ(std::make_pair(img->roi.width, img->roi.height), std::make_pair(w, h));
}

TEST(AllocFailure, ImageCreateOperations) {
    const auto header = releasedBy(wzImageReleaseHeader), release = releasedBy(wzImageRelease);
    wzImage *model = wzImageCreateWithType(6, 9, wzEncodingARGB, wzType16U);
    sweepAll<void *>({
        made<wzImage>("wzImageCreateHeader", [] { return wzImageCreateHeader(7, 5, wzEncodingBGR); },
                      [](wzImage *img) {
                          imageShape(img, 7, 5, wzEncodingBGR, wzType8U);
                          EXPECT_EQ(img->data, nullptr);
                      }, header, exactly(1)),
        made<wzImage>("wzImageCreateHeaderWithType",
                      [] { return wzImageCreateHeaderWithType(7, 5, wzEncodingGray, wzType32F); },
                      [](wzImage *img) { imageShape(img, 7, 5, wzEncodingGray, wzType32F); }, header),
        made<wzImage>("wzImageCreate", [] { return wzImageCreate(7, 5, wzEncodingRGBA); },
                      [](wzImage *img) {
                          imageShape(img, 7, 5, wzEncodingRGBA, wzType8U);
                          ASSERT_NE(img->data, nullptr);
                          std::memset(img->data, 0xA5, 7 * 5 * 4);
                      }, release, exactly(2)),
        made<wzImage>("wzImageCreateWithType",
                      [] { return wzImageCreateWithType(7, 5, wzEncodingBGR, wzType64F); },
                      [](wzImage *img) {
                          imageShape(img, 7, 5, wzEncodingBGR, wzType64F);
                          ASSERT_NE(img->data, nullptr);
                          std::memset(img->data, 0xA5, 7 * 5 * 3 * 8);
                      }, release),
        made<wzImage>("wzImageCreateAs", [model] { return wzImageCreateAs(model); },
                      [](wzImage *img) { imageShape(img, 6, 9, wzEncodingARGB, wzType16U); }, release),
    });
    wzImageRelease(&model);
}

void checkSupport(const wzSelectiveSmoothSupport *s) {
    ASSERT_TRUE(s->absDiff && s->ratio);
    EXPECT_EQ(s->absDiff->rowPtr[3][10], 7.0);
    EXPECT_EQ(s->ratio->rowPtr[6][4], 1.5);
}

TEST(AllocFailure, ProfileParameterStatisticsAndSupportRecords) {
    sweepAll<void *>({
        made<wzImageColorProfile>("wzImageColorProfileCreate", wzImageColorProfileCreate,
                                  [](wzImageColorProfile *p) {
                                      for (int a = 0; a < 3; ++a)
                                          for (int v = 0; v < 256; ++v) EXPECT_EQ(p->bins[a][v], 0.0f);
                                  }, releasedBy(wzImageColorProfileRelease)),
        made<wzHistogramMatchParams>("wzHistogramMatchParamsDefault", wzHistogramMatchParamsDefault,
                                     [](wzHistogramMatchParams *p) {
                                         EXPECT_EQ(std::make_pair(p->strength, p->maxStep), std::make_pair(1.0f, 255));
                                         EXPECT_EQ(p->targetProfile, nullptr);
                                     }, releasedBy(wzHistogramMatchParamsRelease)),
        made<wzHistogramMatchStats>("wzHistogramMatchStatsCreate", wzHistogramMatchStatsCreate,
                                    [](wzHistogramMatchStats *s) {
                                        ASSERT_NE(s->profile, nullptr);
                                        EXPECT_EQ(s->profile->bins[1][17], 0.0f);
                                    }, releasedBy(wzHistogramMatchStatsRelease), exactly(2)),
        made<wzContrastEnhanceParams>("wzContrastEnhanceParamsDefault", wzContrastEnhanceParamsDefault,
                                      [](wzContrastEnhanceParams *p) {
                                          EXPECT_EQ(p->highTail, 9.0f);
                                          EXPECT_EQ(p->manualHigh, 255);
                                      }, releasedBy(wzContrastEnhanceParamsRelease)),
        made<wzContrastEnhanceStats>("wzContrastEnhanceStatsCreate", wzContrastEnhanceStatsCreate,
                                     [](wzContrastEnhanceStats *) {}, releasedBy(wzContrastEnhanceStatsRelease)),
        // Record, then two matrices of three blocks each.
        made<wzSelectiveSmoothSupport>("wzSelectiveSmoothSupportCreate", wzSelectiveSmoothSupportCreate,
                                       checkSupport, releasedBy(wzSelectiveSmoothSupportRelease), exactly(7)),
        made<wzSelectiveSmoothParams>("wzSelectiveSmoothParamsDefault", wzSelectiveSmoothParamsDefault,
                                      [](wzSelectiveSmoothParams *p) { EXPECT_EQ(p->iterations, 2); },
                                      releasedBy(wzSelectiveSmoothParamsRelease)),
        made<wzHistogramTransferSupport>("wzHistogramTransferSupportCreate", wzHistogramTransferSupportCreate,
                                         [](wzHistogramTransferSupport *s) {
                                             ASSERT_NE(s->smoothSupport, nullptr);
                                             checkSupport(s->smoothSupport);
                                         }, releasedBy(wzHistogramTransferSupportRelease), exactly(8)),
        made<wzHistogramTransferParams>(
            "wzHistogramTransferParamsDefault", wzHistogramTransferParamsDefault,
            [](wzHistogramTransferParams *p) { EXPECT_EQ(p->contrastLowTail, 50.0f); },
            releasedBy(wzHistogramTransferParamsRelease)),
        made<wzHistogramTransferParamsInner>(
            "wzHistogramTransferParamsInnerCreate", wzHistogramTransferParamsInnerCreate,
            [](wzHistogramTransferParamsInner *in) {
                ASSERT_TRUE(in->matchParams && in->contrastParams && in->smoothParams);
                EXPECT_EQ(in->smoothParams->iterations, 2);
            }, releasedBy(wzHistogramTransferParamsInnerRelease), exactly(4)),
    });
}

void rowsLaidOut(const wzMatrix *m) {
    for (int32_t i = 0; i < m->nRows; ++i) EXPECT_EQ(m->rowPtr[i], m->data + i * m->nCols);
}

TEST(AllocFailure, MatrixCreateOperations) {
    const auto release = releasedBy(wzMatrixRelease);
    sweepAll<void *>({
        made<wzMatrix>("wzMatrixCreateHeader", [] { return wzMatrixCreateHeader(4, 3); },
                       [](wzMatrix *m) {
                           EXPECT_EQ(m->data, nullptr);
                           ASSERT_NE(m->rowPtr, nullptr);
                           EXPECT_EQ(m->nRows, 4);
                       }, releasedBy(wzMatrixReleaseHeader), exactly(2)),
        made<wzMatrix>("wzMatrixCreate", [] { return wzMatrixCreate(4, 3); },
                       [](wzMatrix *m) {
                           rowsLaidOut(m);
                           for (int32_t i = 0; i < 12; ++i) EXPECT_EQ(m->data[i], 0.0);
                       }, release, exactly(3)),
        made<wzMatrix>("wzMatrixCreateIdentity", [] { return wzMatrixCreateIdentity(4); },
                       [](wzMatrix *m) {
                           rowsLaidOut(m);
                           for (int32_t i = 0; i < 16; ++i) EXPECT_EQ(m->rowPtr[i / 4][i % 4], i % 5 ? 0.0 : 1.0);
                       }, release),
        made<double>("vector", [] { return vector(-2, 5); },
                     [](double *v) { for (int i = -2; i <= 5; ++i) v[i] = i; },
                     [](double *v) { free_vector(v, -2, 5); }),
        made<double *>("matrix", [] { return matrix(1, 3, 0, 4); },
                       [](double **m) {
                           for (int i = 1; i <= 3; ++i)
                               for (int j = 0; j <= 4; ++j) m[i][j] = i * 10 + j;
                           EXPECT_EQ(m[2][0], 20.0);
                           EXPECT_EQ(m[3][4], 34.0);
                       }, [](double **m) { free_matrix(m, 1, 3, 0, 4); }, exactly(2)),
    });
}

TEST(AllocFailure, VolumeCreateOperations) {
    static constexpr int32_t W = 5, H = 4, D = 3;
    // Shape, plus voxels 0: none, 1: one block under the planes, 2: a block per plane.
    const auto shape = [](uint32_t type, uint32_t encoding, int voxels) {
        return [=](wzVolume *v) {
            EXPECT_EQ(std::make_tuple(v->width, v->height, v->depth, v->type), std::make_tuple(W, H, D, type));
            ASSERT_NE(v->planes, nullptr);
            for (int32_t k = 0; k < D; ++k) {
                ASSERT_NE(v->planes[k], nullptr);
                const wzImage *plane = v->planes[k];
                EXPECT_EQ(std::make_tuple(plane->width, plane->height, plane->encoding), std::make_tuple(W, H, encoding));
                EXPECT_TRUE(voxels != 2 || v->planes[k]->data != nullptr);
            }
            EXPECT_TRUE(voxels != 2 || v->voxels == nullptr);
            if (voxels != 1) return;
            ASSERT_NE(v->voxels, nullptr);
            EXPECT_EQ(v->planes[D - 1]->data, v->voxels + (D - 1) * (v->planes[1]->data - v->voxels));
        };
    };
    const auto header = releasedBy(wzVolumeReleaseHeader), release = releasedBy(wzVolumeRelease),
               separate = releasedBy(wzVolumeReleaseWithSeparatePlanes);
    wzVolume *model = wzVolumeCreateWithType(W, H, D, wzType64F);
    sweepAll<void *>({
        // Record, plane table, one header per plane ...
        made<wzVolume>("wzVolumeCreateHeader", [] { return wzVolumeCreateHeader(W, H, D); },
                       shape(wzType8U, wzEncodingGray, 0), header, exactly(2 + D)),
        made<wzVolume>("wzVolumeCreateHeaderWithType", [] { return wzVolumeCreateHeaderWithType(W, H, D, wzType16U); },
                       shape(wzType16U, wzEncodingGray, 0), header),
        made<wzVolume>("wzVolumeCreateHeaderWithEncoding",
                       [] { return wzVolumeCreateHeaderWithEncoding(W, H, D, wzEncodingBGR); },
                       shape(wzType8U, wzEncodingBGR, 0), header),
        // ... and the voxel block.
        made<wzVolume>("wzVolumeCreateWithType", [] { return wzVolumeCreateWithType(W, H, D, wzType32F); },
                       shape(wzType32F, wzEncodingGray, 1), release, exactly(3 + D)),
        made<wzVolume>("wzVolumeCreate", [] { return wzVolumeCreate(W, H, D); },
                       shape(wzType8U, wzEncodingGray, 1), release),
        made<wzVolume>("wzVolumeCreateWithEncoding", [] { return wzVolumeCreateWithEncoding(W, H, D, wzEncodingRGBA); },
                       shape(wzType8U, wzEncodingRGBA, 1), release),
        made<wzVolume>("wzVolumeCreateAs", [model] { return wzVolumeCreateAs(model); },
                       shape(wzType64F, wzEncodingGray, 1), release),
        // Record, plane table, then a header and a block per plane (at least).
        made<wzVolume>("wzVolumeCreateWithTypeWithSeparatePlanes",
                       [] { return wzVolumeCreateWithTypeWithSeparatePlanes(W, H, D, wzType16U); },
                       shape(wzType16U, wzEncodingGray, 2), separate, atLeast(2 + 2 * D)),
        made<wzVolume>("wzVolumeCreateWithSeparatePlanes", [] { return wzVolumeCreateWithSeparatePlanes(W, H, D); },
                       shape(wzType8U, wzEncodingGray, 2), separate),
    });
    wzVolumeRelease(&model);
}

// ---------------------------------------------------------------------------
// Filters: status 1 on allocation failure

TEST(AllocFailure, HistogramMatchFilter) {
    wzImage *reference = randomImage(30, 20, wzEncodingBGR, 1, 90, 100);
    wzImageColorProfile *target = profileOf(reference);
    wzHistogramMatchParams *params = wzHistogramMatchParamsDefault();
    params->targetProfile = target;
    wzImage *source = randomImage(40, 30, wzEncodingBGR, 2, 0, 160);
    wzImage *mask = randomImage(40, 30, wzEncodingGray, 3);
    wzImage *destination = wzImageCreateAs(source), *expected = wzImageCreateAs(source);
    const Bytes original = bytesOf(source);
    restore(expected, original);
    ASSERT_EQ(wzHistogramMatchFilter(params, expected, mask, expected, nullptr), 0u);
    const Bytes inPlace = bytesOf(expected);
    ASSERT_NE(inPlace, original);
    ASSERT_EQ(wzHistogramMatchFilter(params, source, mask, expected, nullptr), 0u);
    const Bytes masked = bytesOf(expected);
    sweepAll<long>({
        // In place with a mask: the one path that allocates (the copy).
        {"wzHistogramMatchFilter (in place, mask)", [=] { restore(source, original); },
         status([=] { return wzHistogramMatchFilter(params, source, mask, source, nullptr); }),
         outcome(bytesGetter(source), original, inPlace), kSome},
        // Into another image: nothing to allocate.
        {"wzHistogramMatchFilter (into another image, mask)",
         [=] {
             restore(source, original);
             std::memset(destination->data, 7, blockBytes(destination));
         },
         status([=] { return wzHistogramMatchFilter(params, source, mask, destination, nullptr); }),
         outcome(bytesGetter(destination), masked, masked), kNone},
    });
    for (wzImage **img : {&destination, &expected, &mask, &source, &reference}) wzImageRelease(img);
    wzHistogramMatchParamsRelease(&params);
    wzImageColorProfileRelease(&target);
}

TEST(AllocFailure, ContrastEnhanceFilter) {
    wzContrastEnhanceParams *params = wzContrastEnhanceParamsDefault();
    wzImage *source = randomImage(36, 28, wzEncodingRGBA, 4, 40, 150);
    wzImage *mask = randomImage(36, 28, wzEncodingGray, 5);
    wzImage *destination = wzImageCreateAs(source), *expected = wzImageCreateAs(source);
    const Bytes original = bytesOf(source), untouched(blockBytes(destination), 0x3C);
    restore(expected, untouched);  // alpha is left as it was
    ASSERT_EQ(wzContrastEnhanceFilter(params, source, nullptr, expected, nullptr), 0u);
    const Bytes enhanced = bytesOf(expected);
    restore(expected, original);
    ASSERT_EQ(wzContrastEnhanceFilter(params, expected, mask, expected, nullptr), 0u);
    const Bytes blended = bytesOf(expected);
    sweepAll<long>({
        {"wzContrastEnhanceFilter (into another image)", [=] { restore(destination, untouched); },
         status([=] { return wzContrastEnhanceFilter(params, source, nullptr, destination, nullptr); }),
         outcome(bytesGetter(destination), untouched, enhanced), exactly(2)},  // statistics, curve
        {"wzContrastEnhanceFilter (in place, mask)", [=] { restore(source, original); },
         status([=] { return wzContrastEnhanceFilter(params, source, mask, source, nullptr); }),
         outcome(bytesGetter(source), original, blended), exactly(4)},  // ... and the copy
    });
    for (wzImage **img : {&expected, &destination, &mask, &source}) wzImageRelease(img);
    wzContrastEnhanceParamsRelease(&params);
}

TEST(AllocFailure, SelectiveSmooth) {
    wzSelectiveSmoothSupport *support = wzSelectiveSmoothSupportCreate();
    wzSelectiveSmoothParams *params = wzSelectiveSmoothParamsDefault();
    params->threshold = 0.2f;
    wzImage *guide = randomImage(32, 24, wzEncodingBGR, 6, 60, 30);
    // The guide plus small pseudo-random steps: something for smoothing to do.
    wzImage *input = wzImageCreateAs(guide);
    uint32_t seed = 7;
    for (size_t i = 0; i < blockBytes(input); ++i)
        input->data[i] = uint8_t(std::min(255, int(guide->data[i]) + int(nextRandom(seed) % 40)));
    wzImage *output = wzImageCreateAs(input), *expected = wzImageCreateAs(input);
    const Bytes original = bytesOf(input), untouched(blockBytes(output), 0x11);
    ASSERT_EQ(wzSelectiveSmooth(params, support, guide, input, expected, nullptr), 0u);
    const Bytes smoothed = bytesOf(expected);
    ASSERT_NE(smoothed, original);
    sweepAll<long>({
        // Working storage is made before any output is written.
        {"wzSelectiveSmooth (into another image)", [=] { restore(output, untouched); },
         status([=] { return wzSelectiveSmooth(params, support, guide, input, output, nullptr); }),
         outcome(bytesGetter(output), untouched, smoothed), kSome},
        {"wzSelectiveSmooth (in place)", [=] { restore(input, original); },
         status([=] { return wzSelectiveSmooth(params, support, guide, input, input, nullptr); }),
         outcome(bytesGetter(input), original, smoothed)},
    });
    for (wzImage **img : {&expected, &output, &input, &guide}) wzImageRelease(img);
    wzSelectiveSmoothParamsRelease(&params);
    wzSelectiveSmoothSupportRelease(&support);
}

TEST(AllocFailure, HistogramTransferFilter) {
    wzHistogramTransferSupport *support = wzHistogramTransferSupportCreate();
    wzImage *reference = randomImage(30, 26, wzEncodingBGR, 8, 70, 120);
    wzImageColorProfile *target = profileOf(reference);
    wzImage *source = randomImage(34, 26, wzEncodingBGR, 9, 20, 120);
    wzImage *mask = randomImage(34, 26, wzEncodingGray, 10);
    wzImage *destination = wzImageCreateAs(source), *scratch = wzImageCreateAs(source);
    const Bytes original = bytesOf(source), untouched(blockBytes(destination), 0x6B);
    wzHistogramTransferParams *full = wzHistogramTransferParamsDefault();
    full->targetProfile = target;
    full->contrastEnabled = 1;
    full->smoothEnabled = 1;
    full->smoothThreshold = 0.2f;
    // The stages a failure may leave behind: matching only, then matching and
    // contrast (nothing is rolled back, and each stage allocates before it
    // writes).
    wzHistogramTransferParams matchOnly = *full, matchContrast = *full;
    matchOnly.contrastEnabled = matchOnly.smoothEnabled = matchContrast.smoothEnabled = 0;
    const auto run = [&](const wzHistogramTransferParams *p, const wzImage *m, bool inPlace) {
        restore(scratch, original);
        wzImage *out = inPlace ? scratch : wzImageCreateAs(source);
        EXPECT_EQ(wzHistogramTransferFilter(p, support, scratch, m, out, nullptr), 0u);
        const Bytes bytes = bytesOf(out);
        if (!inPlace) wzImageRelease(&out);
        return bytes;
    };
    for (const bool inPlace : {false, true}) {
        const Bytes done = run(full, mask, inPlace), stage1 = run(&matchOnly, nullptr, inPlace),
                    stage2 = run(&matchContrast, nullptr, inPlace);
        const Bytes before = inPlace ? original : untouched;
        wzImage *out = inPlace ? source : destination;
        int stages[3] = {0, 0, 0};  // at start, after matching, after contrast
        const long points = sweep(StatusOp{
            std::string("wzHistogramTransferFilter (") + (inPlace ? "in place" : "into another image") +
                ", mask, contrast, smoothing)",
            [&] {
                restore(source, original);
                restore(destination, untouched);
            },
            status([&] { return wzHistogramTransferFilter(full, support, source, mask, out, nullptr); }),
            [&](long status, bool injected) {
                const Bytes now = bytesOf(out);
                EXPECT_EQ(status, injected ? 1 : 0);
                if (!injected) {
                    EXPECT_EQ(now, done);
                } else if (now == before || now == stage1 || now == stage2) {
                    ++stages[now == before ? 0 : now == stage1 ? 1 : 2];
                } else {
                    ADD_FAILURE() << "the destination holds neither the input nor a finished stage";
                }
            }});
        // Bundle and copy before matching, contrast records before contrast,
        // smoothing's working images before smoothing.
        EXPECT_EQ(stages[0] + stages[1] + stages[2], points);
        for (int s : stages) EXPECT_GT(s, 0);
    }
    for (wzImage **img : {&scratch, &destination, &mask, &source, &reference}) wzImageRelease(img);
    wzHistogramTransferParamsRelease(&full);
    wzImageColorProfileRelease(&target);
    wzHistogramTransferSupportRelease(&support);
}

TEST(AllocFailure, VolumeHistogramFilters) {
    wzImage *reference = randomImage(16, 16, wzEncodingGray, 11, 100, 80);
    wzImageColorProfile *target = profileOf(reference);
    wzHistogramMatchParams *params = wzHistogramMatchParamsDefault();
    params->targetProfile = target;
    wzVolume *source = randomVolume(12, 10, 4, 12, 0, 120);
    wzVolume *mask = randomVolume(12, 10, 4, 13, 0, 256);
    wzVolume *expected = wzVolumeCreateAs(source), *destination = wzVolumeCreateAs(source);
    const Bytes original = voxelsOf(source);
    std::memcpy(expected->voxels, original.data(), original.size());
    ASSERT_EQ(wzHistogramMatchFilter3D(params, expected, mask, expected, nullptr), 0u);
    const Bytes matched = voxelsOf(expected);
    ASSERT_EQ(wzHistogramEqualization3D(source, expected), 0u);
    const Bytes equalized = voxelsOf(expected);
    ASSERT_EQ(wzHistogramStretch3D(source, expected), 0u);
    const Bytes stretched = voxelsOf(expected);
    const auto voxels = [](const wzVolume *v) { return [v] { return voxelsOf(v); }; };
    const auto restoreSource = [=] { std::memcpy(source->voxels, original.data(), original.size()); };
    sweepAll<long>({
        // The temporary volume: record, plane table, plane headers and block.
        {"wzHistogramMatchFilter3D (in place, mask)", restoreSource,
         status([=] { return wzHistogramMatchFilter3D(params, source, mask, source, nullptr); }),
         outcome(voxels(source), original, matched), exactly(3 + 4)},
        // Equalisation and stretch keep everything in automatic storage.
        {"wzHistogramEqualization3D", restoreSource, status([=] { return wzHistogramEqualization3D(source, destination); }),
         outcome(voxels(destination), equalized, equalized), kNone},
        {"wzHistogramStretch3D", restoreSource, status([=] { return wzHistogramStretch3D(source, destination); }),
         outcome(voxels(destination), stretched, stretched), kNone},
    });
    for (wzVolume **v : {&destination, &expected, &mask, &source}) wzVolumeRelease(v);
    wzHistogramMatchParamsRelease(&params);
    wzImageColorProfileRelease(&target);
    wzImageRelease(&reference);
}

TEST(AllocFailure, EqualisationAndStretchAllocateNothing) {
    wzImage *source = randomImage(20, 15, wzEncodingBGR, 14, 30, 100);
    wzImage *destination = wzImageCreateAs(source), *expected = wzImageCreateAs(source);
    ASSERT_EQ(wzHistogramEqualization(source, expected), 0u);
    const Bytes equalized = bytesOf(expected);
    ASSERT_EQ(wzHistogramStretch(source, expected), 0u);
    const Bytes stretched = bytesOf(expected);
    sweepAll<long>({
        {"wzHistogramEqualization", {}, status([=] { return wzHistogramEqualization(source, destination); }),
         outcome(bytesGetter(destination), equalized, equalized), kNone},
        {"wzHistogramStretch", {}, status([=] { return wzHistogramStretch(source, destination); }),
         outcome(bytesGetter(destination), stretched, stretched), kNone},
    });
    for (wzImage **img : {&expected, &destination, &source}) wzImageRelease(img);
}

// ---------------------------------------------------------------------------
// Solvers, singular value decomposition, pseudo-inverse

TEST(AllocFailure, LinearSolvers) {
    wzMatrix *A = randomMatrix(5, 5, 15, 12.0), *B = randomMatrix(5, 2, 16), *X = wzMatrixCreate(5, 2);
    ASSERT_EQ(wzMatrixSolveLinearSystem(A, X, B, nullptr), 0u);
    wzMatrix *tall = randomMatrix(8, 3, 17, 5.0), *rhs = randomMatrix(8, 2, 18), *fit = wzMatrixCreate(3, 2);
    ASSERT_EQ(wzMatrixLinearSystemLeastSquares(tall, fit, rhs, nullptr, nullptr, nullptr), 0u);
    wzMatrix *work1 = wzMatrixCreate(8, 3), *work2 = wzMatrixCreate(3, 3), *work3 = wzMatrixCreate(3, 2);
    const auto elements = [](const wzMatrix *m) { return [m] { return elementsOf(m); }; };
    sweepAll<long>({
        // The work matrix: record, row table, block.
        {"wzMatrixSolveLinearSystem (own work matrix)", [=] { clear(X); },
         status([=] { return wzMatrixSolveLinearSystem(A, X, B, nullptr); }),
         outcome(elements(X), Doubles{}, elementsOf(X), false), exactly(3)},
        // Three work matrices and two headers over the first one's block.
        {"wzMatrixLinearSystemLeastSquares (own work matrices)", [=] { clear(fit); },
         status([=] { return wzMatrixLinearSystemLeastSquares(tall, fit, rhs, nullptr, nullptr, nullptr); }),
         outcome(elements(fit), Doubles{}, elementsOf(fit), false), exactly(3 * 3 + 2 * 2)},
        {"wzMatrixLinearSystemLeastSquares (caller's work matrices)", [=] { clear(fit); },
         status([=] { return wzMatrixLinearSystemLeastSquares(tall, fit, rhs, work1, work2, work3); }),
         outcome(elements(fit), Doubles{}, elementsOf(fit), false), exactly(2 * 2)},
    });
    for (wzMatrix **m : {&A, &B, &X, &tall, &rhs, &fit, &work1, &work2, &work3}) wzMatrixRelease(m);
}

// Sweeps op where a failure may refuse with status 1 or succeed with the
// result of an unfailed run (same(): output bit-identical); returns the
// number of refusals and the number of failure points.
std::pair<int, long> refusedOrSame(std::string name, std::function<void()> setup,
                                   std::function<long()> call, std::function<bool()> same,
                                   Points points = kAny) {
    int refused = 0;
    const long n = sweep(StatusOp{std::move(name), std::move(setup), std::move(call),
                                  [&](long status, bool injected) {
                                      if (injected && status == 1) {
                                          ++refused;
                                          return;
                                      }
                                      EXPECT_EQ(status, 0);
                                      EXPECT_TRUE(same());
                                  },
                                  points});
    return {refused, n};
}

TEST(AllocFailure, SingularValueDecompositionAndPseudoInverse) {
    // The decomposition needs its work vector (status 1 without it); its
    // transposed working copies only speed it up, so without them it still
    // succeeds with the very same results.
    wzMatrix *A = randomMatrix(6, 4, 19);
    wzMatrix *U = wzMatrixCreate(6, 4), *W = wzMatrixCreate(4, 1), *V = wzMatrixCreate(4, 4);
    ASSERT_EQ(wzMatrixSVDDecomposition(A, U, W, V), 0);
    const Doubles u = elementsOf(U), w = elementsOf(W), v = elementsOf(V);
    EXPECT_EQ(refusedOrSame(
                  "wzMatrixSVDDecomposition",
                  [&] {
                      for (wzMatrix *m : {U, W, V}) clear(m);
                  },
                  status([&] { return wzMatrixSVDDecomposition(A, U, W, V); }),
                  [&] { return elementsOf(U) == u && elementsOf(W) == w && elementsOf(V) == v; },
                  atLeast(1))
                  .first,
              1);

    // Square, tall (zero columns padded) and wide (zero rows padded).
    const int32_t shapes[][2] = {{4, 4}, {6, 4}, {3, 5}};
    uint32_t seed = 20;
    for (const auto &s : shapes) {
        wzMatrix *M = randomMatrix(s[0], s[1], seed++, 3.0), *P = wzMatrixCreate(s[1], s[0]);
        ASSERT_EQ(wzMatrixPseudoInverse(M, P), 0u);
        const Doubles inverse = elementsOf(P);
        const auto [failed, points] = refusedOrSame(
            "wzMatrixPseudoInverse (" + std::to_string(s[0]) + " x " + std::to_string(s[1]) + ")",
            [&] { clear(P); }, status([&] { return wzMatrixPseudoInverse(M, P); }),
            [&] { return elementsOf(P) == inverse; });
        // Every temporary matrix is needed; only the decomposition's
        // transposed copies may be missing.
        EXPECT_EQ(failed, points - 1);
        wzMatrixRelease(&P);
        wzMatrixRelease(&M);
    }
    for (wzMatrix **m : {&A, &U, &W, &V}) wzMatrixRelease(m);
}

// ---------------------------------------------------------------------------
// Dump loads

// Loads of a dump by load(), checked by check() and freed by release().
template <class T, class Load, class Check>
PtrOp loadOp(std::string name, const DumpStream &stream, Load load, Check check, void (*release)(T **),
             Points points) {
    return made<T>(std::move(name), [&stream, load] { return load(rewound(stream)); }, check,
                   releasedBy(release), points);
}

TEST(AllocFailure, ImageAndMatrixDumpLoads) {
    wzImage *image = wzImageCreateWithType(9, 7, wzEncodingBGR, wzType16U);
    fillRandom(image->data, 9 * 7 * 3 * 2, 21);
    const wzRect roi{1, 2, 5, 4};
    wzImageSetROI(image, &roi);
    wzImageSetCOI(image, 2);
    Bytes imageDump = dumpOf([&](std::FILE *f) { return wzImageDumpSave(image, f); });
    wzMatrix *m = randomMatrix(6, 5, 22);
    Bytes matrixDump = dumpOf([&](std::FILE *f) { return wzMatrixDumpSave(m, f); });
    const DumpStream imageStream = streamOver(imageDump), matrixStream = streamOver(matrixDump);
    sweepAll<void *>({
        loadOp<wzImage>(
            "wzImageDumpLoad", imageStream, wzImageDumpLoad,
            [&](wzImage *loaded) {
                EXPECT_EQ(loaded->type, wzType16U);
                EXPECT_EQ(loaded->roi.height, 4);
                EXPECT_EQ(loaded->coi, 2);
                EXPECT_EQ(std::memcmp(loaded->data, image->data, 9 * 7 * 3 * 2), 0);
            },
            wzImageRelease, exactly(2)),  // record and block
        loadOp<wzMatrix>(
            "wzMatrixDumpLoad", matrixStream, wzMatrixDumpLoad,
            [&](wzMatrix *loaded) {
                EXPECT_EQ(loaded->nRows, 6);
                EXPECT_EQ(elementsOf(loaded), elementsOf(m));
                EXPECT_EQ(loaded->rowPtr[5], loaded->data + 25);
            },
            wzMatrixRelease, exactly(3)),  // record, block, row table
    });
    wzImageRelease(&image);
    wzMatrixRelease(&m);
}

// Payloads above 16 MiB are read in pieces into a block that grows: every
// piece's allocation may fail too.
TEST(AllocFailure, LargeImageAndMatrixDumpLoads) {
    wzImage *image = wzImageCreate(4100, 4100, wzEncodingGray);
    fillRandom(image->data, blockBytes(image), 27);
    Bytes imageDump = dumpOf([&](std::FILE *f) { return wzImageDumpSave(image, f); });
    wzMatrix *m = randomMatrix(1500, 1500, 28);  // 18 MB of doubles
    Bytes matrixDump = dumpOf([&](std::FILE *f) { return wzMatrixDumpSave(m, f); });
    const DumpStream imageStream = streamOver(imageDump), matrixStream = streamOver(matrixDump);
    sweepAll<void *>({
        loadOp<wzImage>(
            "wzImageDumpLoad (4100 x 4100)", imageStream, wzImageDumpLoad,
            [&](wzImage *loaded) {
                EXPECT_EQ(std::memcmp(loaded->data, image->data, blockBytes(image)), 0);
            },
            wzImageRelease, atLeast(3)),
        loadOp<wzMatrix>(
            "wzMatrixDumpLoad (1500 x 1500)", matrixStream, wzMatrixDumpLoad,
            [&](wzMatrix *loaded) {
                EXPECT_EQ(std::memcmp(loaded->data, m->data, sizeof(double) * 1500 * 1500), 0);
            },
            wzMatrixRelease, atLeast(4)),
    });
    wzImageRelease(&image);
    wzMatrixRelease(&m);
}

// A header that claims gigabytes in front of a few bytes of payload costs at
// most one 16 MiB piece, and leaves nothing behind.
template <class T>
std::function<bool(std::FILE *)> loadsSomething(T *(*load)(std::FILE *), void (*release)(T **)) {
    return [load, release](std::FILE *f) {
        T *t = load(f);
        const bool loaded = t != nullptr;
        release(&t);
        return loaded;
    };
}

TEST(AllocFailure, HostileDumpHeadersCostLittle) {
    constexpr size_t kPiece = size_t{16} << 20;
    const auto header = [](std::initializer_list<uint32_t> words) {
        Bytes b;
        for (uint32_t v : words)
            for (int i = 0; i < 4; ++i) b.push_back(uint8_t(v >> (8 * i)));
        return b;
    };
    // 64F RGBA image of 1 x 0x1FFFFFFF, 2 x 0x3FFFFFFF matrix, 64F volume of
    // 0x7FFFFFFF x 1 x 1: 16 GiB each.
    const Bytes image = header({wzType64F, wzEncodingRGBA, 1u, 0x1FFFFFFFu, 0u, 0u, 0u, 0u, 0u, 0u});
    const Bytes volume = header({wzType64F, 1u, 0x7FFFFFFFu, 1u, 0u, 0u, 0u, 0u, 0u, 1u, 1u, 1u});
    const struct {
        const char *what;
        Bytes header;
        std::function<bool(std::FILE *)> load;  // true when something loaded
    } claims[] = {
        {"image", image, loadsSomething(wzImageDumpLoad, wzImageRelease)},
        {"matrix", header({0u, 0u, 2u, 0x3FFFFFFFu}), loadsSomething(wzMatrixDumpLoad, wzMatrixRelease)},
        {"volume", volume, loadsSomething(wzVolumeDumpLoad, wzVolumeRelease)},
        {"volume, separate planes", volume,
         loadsSomething(wzVolumeDumpLoadWithSeparatePlanes, wzVolumeReleaseWithSeparatePlanes)},
    };
    for (const auto &c : claims) {
        SCOPED_TRACE(c.what);
        Bytes bytes = c.header;
        bytes.resize(bytes.size() + 4096, 0x5A);
        const DumpStream stream = streamOver(bytes);
        allocProbeBegin(0);
        const bool loaded = c.load(rewound(stream));
        allocProbeEnd();
        EXPECT_FALSE(loaded);
        EXPECT_GT(allocProbeRequests(), 0);
        EXPECT_LE(allocProbeLargest(), kPiece);
        EXPECT_EQ(allocProbeLive(), 0);
    }
}

// Loads one volume dump with both load forms and compares every voxel.
void sweepVolumeLoads(const std::string &what, const wzVolume *saved, long minPoints) {
    Bytes dump = dumpOf([&](std::FILE *f) { return wzVolumeDumpSave(saved, f); });
    const DumpStream stream = streamOver(dump);
    const size_t perPlane = (dump.size() - 48) / size_t(saved->depth);
    const auto samePlanes = [&](const wzVolume *v, bool separate) {
        ASSERT_EQ(std::make_tuple(v->width, v->height, v->depth, v->type, v->roi.depth),
                  std::make_tuple(saved->width, saved->height, saved->depth, saved->type, saved->roi.depth));
        EXPECT_EQ(v->voxels, separate ? nullptr : v->planes[0]->data);
        for (int32_t k = 0; k < v->depth; ++k)
            ASSERT_EQ(std::memcmp(v->planes[k]->data, dump.data() + 48 + k * perPlane, perPlane), 0)
                << "plane " << k;
    };
    sweepAll<void *>({
        loadOp<wzVolume>("wzVolumeDumpLoad (" + what + ")", stream, wzVolumeDumpLoad,
                         [&](wzVolume *v) { samePlanes(v, false); }, wzVolumeRelease, atLeast(minPoints)),
        loadOp<wzVolume>("wzVolumeDumpLoadWithSeparatePlanes (" + what + ")", stream,
                         wzVolumeDumpLoadWithSeparatePlanes, [&](wzVolume *v) { samePlanes(v, true); },
                         wzVolumeReleaseWithSeparatePlanes, atLeast(minPoints)),
    });
}

TEST(AllocFailure, VolumeDumpLoads) {
    // A small volume.
    wzVolume *small = wzVolumeCreateWithType(7, 5, 4, wzType32F);
    fillRandom(small->voxels, 7 * 5 * 4 * 4, 23);
    const wzBox box{1, 1, 1, 3, 2, 2};
    wzVolumeSetROI(small, &box);
    sweepVolumeLoads("7 x 5 x 4, 32F", small, 3);
    // More planes than the first plane table of a separate-plane load holds.
    wzVolume *deep = randomVolume(2, 1, 300, 24, 0, 256);
    sweepVolumeLoads("2 x 1 x 300", deep, 300);
    // A plane larger than one direct read: read in pieces into a growing block.
    wzVolume *large = randomVolume(4100, 4100, 1, 25, 0, 256);
    sweepVolumeLoads("4100 x 4100 x 1", large, 4);
    for (wzVolume **v : {&small, &deep, &large}) wzVolumeRelease(v);
}

// ---------------------------------------------------------------------------
// Host entry points

TEST(AllocFailure, HostEntryPoints) {
    wzMorvenDispose();
    constexpr int32_t W = 24, H = 18, RW = 20, RH = 16;
    uint32_t seed = 26;
    Bytes source(W * H * 3), reference(RW * RH * 3), guide(W * H * 3), input(W * H * 3);
    for (auto &b : source) b = uint8_t(20 + nextRandom(seed) % 140);
    for (auto &b : reference) b = uint8_t(80 + nextRandom(seed) % 120);
    for (size_t i = 0; i < guide.size(); ++i) {
        guide[i] = uint8_t(70 + nextRandom(seed) % 30);
        input[i] = uint8_t(guide[i] + nextRandom(seed) % 40);
    }
    const Bytes untouched(W * H * 3, 0x2D);
    Bytes out = untouched;
    const auto transfer = [&](int32_t contrast, float strength) {
        return wzMorvenTransfer(W, H, source.data(), out.data(), RW, RH, reference.data(), contrast,
                                255, strength, 9.0f, 50.0f, 0.9f);
    };
    const auto smooth = [&](uint8_t *to) {
        return wzMorvenSmooth(W, H, guide.data(), input.data(), to, 2, 0.2f);
    };
    const auto reset = [&] { out = untouched; };

    // Init: without support every later call refuses and touches nothing.
    sweep(StatusOp{"wzMorvenInit", {}, status(wzMorvenInit),
                   [&](long status, bool injected) {
                       EXPECT_EQ(status, injected ? 1 : 0);
                       if (!injected) {
                           wzMorvenDispose();
                           return;
                       }
                       reset();
                       EXPECT_EQ(transfer(1, 1.0f), 1u);
                       EXPECT_EQ(smooth(out.data()), 1u);
                       EXPECT_EQ(out, untouched);
                   },
                   exactly(8)});

    ASSERT_EQ(wzMorvenInit(), 0u);
    reset();
    ASSERT_EQ(transfer(0, 0.8f), 0u);
    const Bytes matched = out;
    reset();
    ASSERT_EQ(transfer(1, 0.8f), 0u);
    const Bytes enhanced = out;
    ASSERT_NE(matched, enhanced);
    Bytes expected(W * H * 3);
    ASSERT_EQ(smooth(expected.data()), 0u);
    ASSERT_NE(expected, input);
    const auto output = [&] { return out; };
    sweepAll<long>({
        {"wzMorvenTransfer (contrast)", reset, status([&] { return transfer(1, 0.8f); }),
         [&](long status, bool injected) {
             EXPECT_EQ(status, injected ? 1 : 0);
             // Contrast's records are made after matching wrote its result.
             EXPECT_TRUE(injected ? out == untouched || out == matched : out == enhanced);
         },
         atLeast(4 + 4 + 2 + 1)},
        // Three headers and the parameter record, then smoothing's own.
        {"wzMorvenSmooth", reset, status([&] { return smooth(out.data()); }),
         outcome(output, untouched, expected), atLeast(5)},
    });
    wzMorvenDispose();
}

}  // namespace
