// Allocation failure, operation by operation: each call is run again and
// again with its first, second, third... allocation failing, until a run
// makes fewer allocations than the one chosen to fail. Every failing run must
// report the failure the way the operation's contract says (null, status 1,
// outputs untouched or holding the stages already completed), every other run
// must give the result of a run without failures, and no run may leave a
// block behind: the probe counts the blocks made during the call that are
// still live once the call returned and its results were released.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "alloc_probe.h"
#include "morven/morven.h"

namespace {

using Bytes = std::vector<uint8_t>;

// ---------------------------------------------------------------------------
// The sweep

struct Totals {
    int operations = 0;
    long failurePoints = 0;
};
Totals totals;

class ReportTotals : public ::testing::Environment {
public:
    void TearDown() override {
        std::printf("[  alloc   ] %d operations, %ld failure points\n", totals.operations,
                    totals.failurePoints);
    }
};
const auto *const kReport = ::testing::AddGlobalTestEnvironment(new ReportTotals);

constexpr long kMaxFailurePoints = 100000;

// Runs call() with allocation n failing for n = 1, 2, ... until a run does
// not reach allocation n. prepare() runs before each call (outside the
// probe's window) to restore the inputs; verify(result, injected) checks the
// result and releases whatever the call returned. Returns the number of
// failure points, i.e. of allocations the successful run made.
template <class Prepare, class Call, class Verify>
long sweep(const std::string &op, Prepare &&prepare, Call &&call, Verify &&verify) {
    long n = 1;
    for (;; ++n) {
        prepare();
        allocProbeBegin(n);
        auto result = call();
        allocProbeEnd();
        const bool injected = allocProbeInjected() != 0;
        const long requests = allocProbeRequests();
        {
            SCOPED_TRACE(op + (injected ? " with allocation " + std::to_string(n) + " failing"
                                        : " without failure"));
            verify(result, injected);
        }
        EXPECT_FALSE(allocProbeOverflowed()) << op;
        EXPECT_EQ(allocProbeLive(), 0)
            << op << ": blocks left behind by the run "
            << (injected ? "with allocation " + std::to_string(n) + " failing" : "without failure");
        if (!injected) {
            // The same call makes the same requests every time.
            EXPECT_EQ(requests, n - 1) << op;
            break;
        }
        if (n >= kMaxFailurePoints) {
            ADD_FAILURE() << op << ": still allocating after " << n << " failure points";
            break;
        }
    }
    std::printf("[  alloc   ] %-58s %4ld failure points\n", op.c_str(), n - 1);
    ++totals.operations;
    totals.failurePoints += n - 1;
    return n - 1;
}

// A create operation: null on every failure, a usable record otherwise.
template <class Create, class Check, class Release>
long sweepCreate(const std::string &op, Create &&create, Check &&check, Release &&release) {
    return sweep(
        op, [] {}, create,
        [&](auto *made, bool injected) {
            if (injected) {
                EXPECT_EQ(made, nullptr);
                if (made) release(made);
                return;
            }
            ASSERT_NE(made, nullptr);
            check(made);
            release(made);
        });
}

// ---------------------------------------------------------------------------
// Inputs

uint32_t nextRandom(uint32_t &state) {
    state = state * 1664525u + 1013904223u;
    return state >> 8;
}

// Bytes of an 8-bit image's whole block.
size_t blockBytes(const wzImage *img) {
    return size_t(img->width) * size_t(img->height) * size_t(wzImageGetNChannel(img));
}

Bytes bytesOf(const wzImage *img) { return Bytes(img->data, img->data + blockBytes(img)); }

void restore(wzImage *img, const Bytes &bytes) { std::memcpy(img->data, bytes.data(), bytes.size()); }

// New 8-bit image with pseudo-random levels lo .. lo + span - 1.
wzImage *randomImage(int32_t w, int32_t h, uint32_t encoding, uint32_t seed, int lo = 0,
                     int span = 256) {
    wzImage *img = wzImageCreate(w, h, encoding);
    for (size_t i = 0; i < blockBytes(img); ++i)
        img->data[i] = uint8_t(lo + int(nextRandom(seed) % uint32_t(span)));
    return img;
}

// The guide plus small pseudo-random steps: something for smoothing to do.
wzImage *noisyCopy(const wzImage *guide, uint32_t seed) {
    wzImage *img = wzImageCreateAs(guide);
    for (size_t i = 0; i < blockBytes(img); ++i)
        img->data[i] = uint8_t(std::min(255, int(guide->data[i]) + int(nextRandom(seed) % 40)));
    return img;
}

wzImageColorProfile *profileOf(const wzImage *img) {
    wzImageColorProfile *profile = wzImageColorProfileCreate();
    wzImageFillColorProfile(img, profile);
    return profile;
}

wzVolume *randomVolume(int32_t w, int32_t h, int32_t d, uint32_t seed, int lo, int span) {
    wzVolume *v = wzVolumeCreate(w, h, d);
    for (size_t i = 0; i < size_t(w) * size_t(h) * size_t(d); ++i)
        v->voxels[i] = uint8_t(lo + int(nextRandom(seed) % uint32_t(span)));
    return v;
}

Bytes voxelsOf(const wzVolume *v) {
    return Bytes(v->voxels, v->voxels + size_t(v->width) * size_t(v->height) * size_t(v->depth));
}

wzMatrix *randomMatrix(int32_t rows, int32_t cols, uint32_t seed, double diagonal = 0.0) {
    wzMatrix *m = wzMatrixCreate(rows, cols);
    for (int32_t i = 0; i < rows; ++i)
        for (int32_t j = 0; j < cols; ++j)
            m->rowPtr[i][j] = double(int(nextRandom(seed) % 2001) - 1000) / 256.0 +
                              (i == j ? diagonal : 0.0);
    return m;
}

std::vector<double> elementsOf(const wzMatrix *m) {
    return std::vector<double>(m->data, m->data + size_t(m->nRows) * size_t(m->nCols));
}

void clear(wzMatrix *m) {
    std::memset(m->data, 0, sizeof(double) * size_t(m->nRows) * size_t(m->nCols));
}

// A dump made by a save function, as bytes.
template <class Save>
Bytes dumpOf(Save &&save) {
    std::FILE *f = std::tmpfile();
    EXPECT_NE(f, nullptr);
    EXPECT_EQ(save(f), 0u);
    const long size = std::ftell(f);
    Bytes bytes(size_t(size > 0 ? size : 0));
    std::rewind(f);
    EXPECT_EQ(std::fread(bytes.data(), 1, bytes.size(), f), bytes.size());
    std::fclose(f);
    return bytes;
}

// An unbuffered memory stream over a dump: reads allocate nothing.
class DumpStream {
public:
    explicit DumpStream(Bytes &bytes) : f_(fmemopen(bytes.data(), bytes.size(), "rb")) {
        EXPECT_NE(f_, nullptr);
        std::setvbuf(f_, nullptr, _IONBF, 0);
    }
    ~DumpStream() { std::fclose(f_); }
    DumpStream(const DumpStream &) = delete;
    DumpStream &operator=(const DumpStream &) = delete;
    std::FILE *rewound() {
        std::fseek(f_, 0, SEEK_SET);
        return f_;
    }
    std::FILE *get() const { return f_; }

private:
    std::FILE *f_;
};

// ---------------------------------------------------------------------------
// The probe itself

void *(*volatile probeMalloc)(size_t) = std::malloc;
void *(*volatile probeCalloc)(size_t, size_t) = std::calloc;
void *(*volatile probeRealloc)(void *, size_t) = std::realloc;
void (*volatile probeFree)(void *) = std::free;

TEST(AllocProbe, CountsRequestsFailsTheChosenOneAndSeesLeftoverBlocks) {
    void *kept = probeMalloc(8);  // made before the window: never counted
    allocProbeBegin(0);
    void *a = probeMalloc(16);
    void *b = probeCalloc(4, 4);
    void *c = probeRealloc(nullptr, 8);
    c = probeRealloc(c, 64);
    probeFree(a);
    probeFree(kept);
    allocProbeEnd();
    EXPECT_EQ(allocProbeRequests(), 4);
    EXPECT_EQ(allocProbeLargest(), 64u);
    EXPECT_FALSE(allocProbeInjected());
    EXPECT_EQ(allocProbeLive(), 2);  // b and c
    probeFree(b);
    probeFree(c);
    EXPECT_EQ(allocProbeLive(), 0);

    allocProbeBegin(2);
    void *first = probeMalloc(1);
    void *second = probeCalloc(1, 1);
    void *third = probeMalloc(1);
    allocProbeEnd();
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(second, nullptr);
    EXPECT_NE(third, nullptr);
    EXPECT_TRUE(allocProbeInjected());
    EXPECT_EQ(allocProbeLive(), 2);
    probeFree(first);
    probeFree(third);
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

TEST(AllocFailure, ImageCreateOperations) {
    const auto releaseHeader = [](wzImage *img) { wzImageReleaseHeader(&img); };
    const auto release = [](wzImage *img) { wzImageRelease(&img); };
    const auto shape = [](const wzImage *img, int32_t w, int32_t h, uint32_t enc, uint32_t type) {
        EXPECT_EQ(img->width, w);
        EXPECT_EQ(img->height, h);
        EXPECT_EQ(img->encoding, enc);
        EXPECT_EQ(img->type, type);
        EXPECT_EQ(img->roi.width, w);
        EXPECT_EQ(img->roi.height, h);
    };
    EXPECT_EQ(sweepCreate(
                  "wzImageCreateHeader", [] { return wzImageCreateHeader(7, 5, wzEncodingBGR); },
                  [&](wzImage *img) {
                      shape(img, 7, 5, wzEncodingBGR, wzType8U);
                      EXPECT_EQ(img->data, nullptr);
                  },
                  releaseHeader),
              1);
    sweepCreate(
        "wzImageCreateHeaderWithType",
        [] { return wzImageCreateHeaderWithType(7, 5, wzEncodingGray, wzType32F); },
        [&](wzImage *img) { shape(img, 7, 5, wzEncodingGray, wzType32F); }, releaseHeader);
    EXPECT_EQ(sweepCreate(
                  "wzImageCreate", [] { return wzImageCreate(7, 5, wzEncodingRGBA); },
                  [&](wzImage *img) {
                      shape(img, 7, 5, wzEncodingRGBA, wzType8U);
                      ASSERT_NE(img->data, nullptr);
                      std::memset(img->data, 0xA5, 7 * 5 * 4);
                  },
                  release),
              2);
    sweepCreate(
        "wzImageCreateWithType", [] { return wzImageCreateWithType(7, 5, wzEncodingBGR, wzType64F); },
        [&](wzImage *img) {
            shape(img, 7, 5, wzEncodingBGR, wzType64F);
            ASSERT_NE(img->data, nullptr);
            std::memset(img->data, 0xA5, 7 * 5 * 3 * 8);
        },
        release);
    wzImage *model = wzImageCreateWithType(6, 9, wzEncodingARGB, wzType16U);
    sweepCreate(
        "wzImageCreateAs", [&] { return wzImageCreateAs(model); },
        [&](wzImage *img) { shape(img, 6, 9, wzEncodingARGB, wzType16U); }, release);
    wzImageRelease(&model);
}

TEST(AllocFailure, ProfileParameterStatisticsAndSupportRecords) {
    sweepCreate(
        "wzImageColorProfileCreate", [] { return wzImageColorProfileCreate(); },
        [](wzImageColorProfile *p) {
            for (int a = 0; a < 3; ++a)
                for (int v = 0; v < 256; ++v) EXPECT_EQ(p->bins[a][v], 0.0f);
        },
        [](wzImageColorProfile *p) { wzImageColorProfileRelease(&p); });
    sweepCreate(
        "wzHistogramMatchParamsDefault", [] { return wzHistogramMatchParamsDefault(); },
        [](wzHistogramMatchParams *p) {
            EXPECT_EQ(p->strength, 1.0f);
            EXPECT_EQ(p->maxStep, 255);
            EXPECT_EQ(p->targetProfile, nullptr);
        },
        [](wzHistogramMatchParams *p) { wzHistogramMatchParamsRelease(&p); });
    EXPECT_EQ(sweepCreate(
                  "wzHistogramMatchStatsCreate", [] { return wzHistogramMatchStatsCreate(); },
                  [](wzHistogramMatchStats *s) {
                      ASSERT_NE(s->profile, nullptr);
                      EXPECT_EQ(s->profile->bins[1][17], 0.0f);
                  },
                  [](wzHistogramMatchStats *s) { wzHistogramMatchStatsRelease(&s); }),
              2);
    sweepCreate(
        "wzContrastEnhanceParamsDefault", [] { return wzContrastEnhanceParamsDefault(); },
        [](wzContrastEnhanceParams *p) {
            EXPECT_EQ(p->highTail, 9.0f);
            EXPECT_EQ(p->manualHigh, 255);
        },
        [](wzContrastEnhanceParams *p) { wzContrastEnhanceParamsRelease(&p); });
    sweepCreate(
        "wzContrastEnhanceStatsCreate", [] { return wzContrastEnhanceStatsCreate(); },
        [](wzContrastEnhanceStats *) {},
        [](wzContrastEnhanceStats *s) { wzContrastEnhanceStatsRelease(&s); });
    const auto checkSupport = [](const wzSelectiveSmoothSupport *s) {
        ASSERT_NE(s->absDiff, nullptr);
        ASSERT_NE(s->ratio, nullptr);
        EXPECT_EQ(s->absDiff->rowPtr[3][10], 7.0);
        EXPECT_EQ(s->ratio->rowPtr[6][4], 1.5);
    };
    // Record, then two matrices of three blocks each.
    EXPECT_EQ(sweepCreate(
                  "wzSelectiveSmoothSupportCreate", [] { return wzSelectiveSmoothSupportCreate(); },
                  checkSupport,
                  [](wzSelectiveSmoothSupport *s) { wzSelectiveSmoothSupportRelease(&s); }),
              7);
    sweepCreate(
        "wzSelectiveSmoothParamsDefault", [] { return wzSelectiveSmoothParamsDefault(); },
        [](wzSelectiveSmoothParams *p) { EXPECT_EQ(p->iterations, 2); },
        [](wzSelectiveSmoothParams *p) { wzSelectiveSmoothParamsRelease(&p); });
    EXPECT_EQ(sweepCreate(
                  "wzHistogramTransferSupportCreate",
                  [] { return wzHistogramTransferSupportCreate(); },
                  [&](wzHistogramTransferSupport *s) {
                      ASSERT_NE(s->smoothSupport, nullptr);
                      checkSupport(s->smoothSupport);
                  },
                  [](wzHistogramTransferSupport *s) { wzHistogramTransferSupportRelease(&s); }),
              8);
    sweepCreate(
        "wzHistogramTransferParamsDefault", [] { return wzHistogramTransferParamsDefault(); },
        [](wzHistogramTransferParams *p) { EXPECT_EQ(p->contrastLowTail, 50.0f); },
        [](wzHistogramTransferParams *p) { wzHistogramTransferParamsRelease(&p); });
    EXPECT_EQ(sweepCreate(
                  "wzHistogramTransferParamsInnerCreate",
                  [] { return wzHistogramTransferParamsInnerCreate(); },
                  [](wzHistogramTransferParamsInner *in) {
                      ASSERT_NE(in->matchParams, nullptr);
                      ASSERT_NE(in->contrastParams, nullptr);
                      ASSERT_NE(in->smoothParams, nullptr);
                      EXPECT_EQ(in->smoothParams->iterations, 2);
                  },
                  [](wzHistogramTransferParamsInner *in) { wzHistogramTransferParamsInnerRelease(&in); }),
              4);
}

TEST(AllocFailure, MatrixCreateOperations) {
    const auto rowsLaidOut = [](const wzMatrix *m) {
        for (int32_t i = 0; i < m->nRows; ++i) EXPECT_EQ(m->rowPtr[i], m->data + i * m->nCols);
    };
    EXPECT_EQ(sweepCreate(
                  "wzMatrixCreateHeader", [] { return wzMatrixCreateHeader(4, 3); },
                  [](wzMatrix *m) {
                      EXPECT_EQ(m->data, nullptr);
                      ASSERT_NE(m->rowPtr, nullptr);
                      EXPECT_EQ(m->nRows, 4);
                  },
                  [](wzMatrix *m) { wzMatrixReleaseHeader(&m); }),
              2);
    EXPECT_EQ(sweepCreate(
                  "wzMatrixCreate", [] { return wzMatrixCreate(4, 3); },
                  [&](wzMatrix *m) {
                      rowsLaidOut(m);
                      for (int32_t i = 0; i < 12; ++i) EXPECT_EQ(m->data[i], 0.0);
                  },
                  [](wzMatrix *m) { wzMatrixRelease(&m); }),
              3);
    sweepCreate(
        "wzMatrixCreateIdentity", [] { return wzMatrixCreateIdentity(4); },
        [&](wzMatrix *m) {
            rowsLaidOut(m);
            for (int32_t i = 0; i < 4; ++i)
                for (int32_t j = 0; j < 4; ++j) EXPECT_EQ(m->rowPtr[i][j], i == j ? 1.0 : 0.0);
        },
        [](wzMatrix *m) { wzMatrixRelease(&m); });
    sweepCreate(
        "vector", [] { return vector(-2, 5); },
        [](double *v) {
            for (int i = -2; i <= 5; ++i) v[i] = i;
        },
        [](double *v) { free_vector(v, -2, 5); });
    EXPECT_EQ(sweepCreate(
                  "matrix", [] { return matrix(1, 3, 0, 4); },
                  [](double **m) {
                      for (int i = 1; i <= 3; ++i)
                          for (int j = 0; j <= 4; ++j) m[i][j] = i * 10 + j;
                      EXPECT_EQ(m[2][0], 20.0);
                      EXPECT_EQ(m[3][4], 34.0);
                  },
                  [](double **m) { free_matrix(m, 1, 3, 0, 4); }),
              2);
}

TEST(AllocFailure, VolumeCreateOperations) {
    static constexpr int32_t W = 5, H = 4, D = 3;
    const auto shape = [](const wzVolume *v, uint32_t type, uint32_t encoding) {
        EXPECT_EQ(v->width, W);
        EXPECT_EQ(v->height, H);
        EXPECT_EQ(v->depth, D);
        EXPECT_EQ(v->type, type);
        ASSERT_NE(v->planes, nullptr);
        for (int32_t k = 0; k < D; ++k) {
            ASSERT_NE(v->planes[k], nullptr);
            EXPECT_EQ(v->planes[k]->width, W);
            EXPECT_EQ(v->planes[k]->height, H);
            EXPECT_EQ(v->planes[k]->encoding, encoding);
        }
    };
    const auto releaseHeader = [](wzVolume *v) { wzVolumeReleaseHeader(&v); };
    const auto release = [](wzVolume *v) { wzVolumeRelease(&v); };
    const auto releaseSeparate = [](wzVolume *v) { wzVolumeReleaseWithSeparatePlanes(&v); };
    const auto contiguous = [&](uint32_t type, uint32_t encoding) {
        return [&shape, type, encoding](wzVolume *v) {
            shape(v, type, encoding);
            ASSERT_NE(v->voxels, nullptr);
            EXPECT_EQ(v->planes[D - 1]->data, v->voxels + (D - 1) * (v->planes[1]->data - v->voxels));
        };
    };
    const auto separate = [&](uint32_t type) {
        return [&shape, type](wzVolume *v) {
            shape(v, type, wzEncodingGray);
            EXPECT_EQ(v->voxels, nullptr);
            for (int32_t k = 0; k < D; ++k) EXPECT_NE(v->planes[k]->data, nullptr);
        };
    };
    // Record, plane table, one header per plane.
    EXPECT_EQ(sweepCreate(
                  "wzVolumeCreateHeader", [] { return wzVolumeCreateHeader(W, H, D); },
                  [&](wzVolume *v) { shape(v, wzType8U, wzEncodingGray); }, releaseHeader),
              2 + D);
    sweepCreate(
        "wzVolumeCreateHeaderWithType", [] { return wzVolumeCreateHeaderWithType(W, H, D, wzType16U); },
        [&](wzVolume *v) { shape(v, wzType16U, wzEncodingGray); }, releaseHeader);
    sweepCreate(
        "wzVolumeCreateHeaderWithEncoding",
        [] { return wzVolumeCreateHeaderWithEncoding(W, H, D, wzEncodingBGR); },
        [&](wzVolume *v) { shape(v, wzType8U, wzEncodingBGR); }, releaseHeader);
    // ... and the voxel block.
    EXPECT_EQ(sweepCreate("wzVolumeCreateWithType",
                          [] { return wzVolumeCreateWithType(W, H, D, wzType32F); },
                          contiguous(wzType32F, wzEncodingGray), release),
              3 + D);
    sweepCreate("wzVolumeCreate", [] { return wzVolumeCreate(W, H, D); },
                contiguous(wzType8U, wzEncodingGray), release);
    sweepCreate("wzVolumeCreateWithEncoding",
                [] { return wzVolumeCreateWithEncoding(W, H, D, wzEncodingRGBA); },
                contiguous(wzType8U, wzEncodingRGBA), release);
    wzVolume *model = wzVolumeCreateWithType(W, H, D, wzType64F);
    sweepCreate("wzVolumeCreateAs", [&] { return wzVolumeCreateAs(model); },
                contiguous(wzType64F, wzEncodingGray), release);
    wzVolumeRelease(&model);
    // Record, plane table, then a header and a block per plane (at least).
    EXPECT_GE(sweepCreate("wzVolumeCreateWithTypeWithSeparatePlanes",
                          [] { return wzVolumeCreateWithTypeWithSeparatePlanes(W, H, D, wzType16U); },
                          separate(wzType16U), releaseSeparate),
              2 + 2 * D);
    sweepCreate("wzVolumeCreateWithSeparatePlanes",
                [] { return wzVolumeCreateWithSeparatePlanes(W, H, D); }, separate(wzType8U),
                releaseSeparate);
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
    const Bytes original = bytesOf(source);

    // In place with a mask: the one path that allocates (the copy).
    wzImage *expected = wzImageCreateAs(source);
    restore(expected, original);
    ASSERT_EQ(wzHistogramMatchFilter(params, expected, mask, expected, nullptr), 0u);
    const Bytes inPlace = bytesOf(expected);
    ASSERT_NE(inPlace, original);
    EXPECT_GT(sweep(
                  "wzHistogramMatchFilter (in place, mask)", [&] { restore(source, original); },
                  [&] { return wzHistogramMatchFilter(params, source, mask, source, nullptr); },
                  [&](wzStatus status, bool injected) {
                      EXPECT_EQ(status, injected ? 1u : 0u);
                      EXPECT_EQ(bytesOf(source), injected ? original : inPlace);
                  }),
              0);

    // Into another image: nothing to allocate.
    wzImage *destination = wzImageCreateAs(source);
    ASSERT_EQ(wzHistogramMatchFilter(params, source, mask, expected, nullptr), 0u);
    const Bytes masked = bytesOf(expected);
    EXPECT_EQ(sweep(
                  "wzHistogramMatchFilter (into another image, mask)",
                  [&] { std::memset(destination->data, 7, blockBytes(destination)); },
                  [&] { return wzHistogramMatchFilter(params, source, mask, destination, nullptr); },
                  [&](wzStatus status, bool) {
                      EXPECT_EQ(status, 0u);
                      EXPECT_EQ(bytesOf(destination), masked);
                  }),
              0);

    wzImageRelease(&destination);
    wzImageRelease(&expected);
    wzImageRelease(&mask);
    wzImageRelease(&source);
    wzHistogramMatchParamsRelease(&params);
    wzImageColorProfileRelease(&target);
    wzImageRelease(&reference);
}

TEST(AllocFailure, ContrastEnhanceFilter) {
    wzContrastEnhanceParams *params = wzContrastEnhanceParamsDefault();
    wzImage *source = randomImage(36, 28, wzEncodingRGBA, 4, 40, 150);
    wzImage *mask = randomImage(36, 28, wzEncodingGray, 5);
    wzImage *destination = wzImageCreateAs(source);
    const Bytes original = bytesOf(source);
    const Bytes untouched(blockBytes(destination), 0x3C);

    wzImage *expected = wzImageCreateAs(source);
    restore(expected, untouched);  // alpha is left as it was
    ASSERT_EQ(wzContrastEnhanceFilter(params, source, nullptr, expected, nullptr), 0u);
    const Bytes enhanced = bytesOf(expected);
    EXPECT_EQ(sweep(
                  "wzContrastEnhanceFilter (into another image)",
                  [&] { restore(destination, untouched); },
                  [&] { return wzContrastEnhanceFilter(params, source, nullptr, destination, nullptr); },
                  [&](wzStatus status, bool injected) {
                      EXPECT_EQ(status, injected ? 1u : 0u);
                      EXPECT_EQ(bytesOf(destination), injected ? untouched : enhanced);
                  }),
              2);  // statistics record and curve

    restore(expected, original);
    ASSERT_EQ(wzContrastEnhanceFilter(params, expected, mask, expected, nullptr), 0u);
    const Bytes blended = bytesOf(expected);
    EXPECT_EQ(sweep(
                  "wzContrastEnhanceFilter (in place, mask)", [&] { restore(source, original); },
                  [&] { return wzContrastEnhanceFilter(params, source, mask, source, nullptr); },
                  [&](wzStatus status, bool injected) {
                      EXPECT_EQ(status, injected ? 1u : 0u);
                      EXPECT_EQ(bytesOf(source), injected ? original : blended);
                  }),
              4);  // ... and the copy's record and block

    wzImageRelease(&expected);
    wzImageRelease(&destination);
    wzImageRelease(&mask);
    wzImageRelease(&source);
    wzContrastEnhanceParamsRelease(&params);
}

TEST(AllocFailure, SelectiveSmooth) {
    wzSelectiveSmoothSupport *support = wzSelectiveSmoothSupportCreate();
    wzSelectiveSmoothParams *params = wzSelectiveSmoothParamsDefault();
    params->threshold = 0.2f;
    wzImage *guide = randomImage(32, 24, wzEncodingBGR, 6, 60, 30);
    wzImage *input = noisyCopy(guide, 7);
    wzImage *output = wzImageCreateAs(input);
    const Bytes original = bytesOf(input);
    const Bytes untouched(blockBytes(output), 0x11);

    wzImage *expected = wzImageCreateAs(input);
    ASSERT_EQ(wzSelectiveSmooth(params, support, guide, input, expected, nullptr), 0u);
    const Bytes smoothed = bytesOf(expected);
    ASSERT_NE(smoothed, original);
    // Working storage is made before any output is written.
    EXPECT_GT(sweep(
                  "wzSelectiveSmooth (into another image)", [&] { restore(output, untouched); },
                  [&] { return wzSelectiveSmooth(params, support, guide, input, output, nullptr); },
                  [&](wzStatus status, bool injected) {
                      EXPECT_EQ(status, injected ? 1u : 0u);
                      EXPECT_EQ(bytesOf(output), injected ? untouched : smoothed);
                  }),
              0);
    sweep(
        "wzSelectiveSmooth (in place)", [&] { restore(input, original); },
        [&] { return wzSelectiveSmooth(params, support, guide, input, input, nullptr); },
        [&](wzStatus status, bool injected) {
            EXPECT_EQ(status, injected ? 1u : 0u);
            EXPECT_EQ(bytesOf(input), injected ? original : smoothed);
        });

    wzImageRelease(&expected);
    wzImageRelease(&output);
    wzImageRelease(&input);
    wzImageRelease(&guide);
    wzSelectiveSmoothParamsRelease(&params);
    wzSelectiveSmoothSupportRelease(&support);
}

TEST(AllocFailure, HistogramTransferFilter) {
    wzHistogramTransferSupport *support = wzHistogramTransferSupportCreate();
    wzImage *reference = randomImage(30, 26, wzEncodingBGR, 8, 70, 120);
    wzImageColorProfile *target = profileOf(reference);
    wzImage *source = randomImage(34, 26, wzEncodingBGR, 9, 20, 120);
    wzImage *mask = randomImage(34, 26, wzEncodingGray, 10);
    wzImage *destination = wzImageCreateAs(source);
    const Bytes original = bytesOf(source);
    const Bytes untouched(blockBytes(destination), 0x6B);

    wzHistogramTransferParams *full = wzHistogramTransferParamsDefault();
    full->targetProfile = target;
    full->contrastEnabled = 1;
    full->smoothEnabled = 1;
    full->smoothThreshold = 0.2f;
    // The stages a failure may leave behind: matching only, then matching and
    // contrast (nothing is rolled back, and each stage allocates before it
    // writes).
    wzHistogramTransferParams matchOnly = *full, matchContrast = *full;
    matchOnly.contrastEnabled = 0;
    matchOnly.smoothEnabled = 0;
    matchContrast.smoothEnabled = 0;

    wzImage *scratch = wzImageCreateAs(source);
    const auto run = [&](const wzHistogramTransferParams *p, const wzImage *m, bool inPlace) {
        restore(scratch, original);
        wzImage *out = inPlace ? scratch : wzImageCreateAs(source);
        EXPECT_EQ(wzHistogramTransferFilter(p, support, scratch, m, out, nullptr), 0u);
        const Bytes bytes = bytesOf(out);
        if (!inPlace) wzImageRelease(&out);
        return bytes;
    };

    for (const bool inPlace : {false, true}) {
        const Bytes done = run(full, mask, inPlace);
        const Bytes stage1 = run(&matchOnly, nullptr, inPlace);
        const Bytes stage2 = run(&matchContrast, nullptr, inPlace);
        const Bytes before = inPlace ? original : untouched;
        wzImage *out = inPlace ? source : destination;
        int atStart = 0, afterMatching = 0, afterContrast = 0;
        const long points = sweep(
            std::string("wzHistogramTransferFilter (") + (inPlace ? "in place" : "into another image") +
                ", mask, contrast, smoothing)",
            [&] {
                restore(source, original);
                restore(destination, untouched);
            },
            [&] { return wzHistogramTransferFilter(full, support, source, mask, out, nullptr); },
            [&](wzStatus status, bool injected) {
                const Bytes now = bytesOf(out);
                if (!injected) {
                    EXPECT_EQ(status, 0u);
                    EXPECT_EQ(now, done);
                    return;
                }
                EXPECT_EQ(status, 1u);
                if (now == before)
                    ++atStart;
                else if (now == stage1)
                    ++afterMatching;
                else if (now == stage2)
                    ++afterContrast;
                else
                    ADD_FAILURE() << "the destination holds neither the input nor a finished stage";
            });
        // Bundle and copy before matching, contrast records before contrast,
        // smoothing's working images before smoothing.
        EXPECT_EQ(atStart + afterMatching + afterContrast, points);
        EXPECT_GT(atStart, 0);
        EXPECT_GT(afterMatching, 0);
        EXPECT_GT(afterContrast, 0);
    }

    wzImageRelease(&scratch);
    wzHistogramTransferParamsRelease(&full);
    wzImageRelease(&destination);
    wzImageRelease(&mask);
    wzImageRelease(&source);
    wzImageColorProfileRelease(&target);
    wzImageRelease(&reference);
    wzHistogramTransferSupportRelease(&support);
}

TEST(AllocFailure, VolumeHistogramFilters) {
    wzImage *reference = randomImage(16, 16, wzEncodingGray, 11, 100, 80);
    wzImageColorProfile *target = profileOf(reference);
    wzHistogramMatchParams *params = wzHistogramMatchParamsDefault();
    params->targetProfile = target;
    wzVolume *source = randomVolume(12, 10, 4, 12, 0, 120);
    wzVolume *mask = randomVolume(12, 10, 4, 13, 0, 256);
    const Bytes original = voxelsOf(source);

    wzVolume *expected = wzVolumeCreateAs(source);
    std::memcpy(expected->voxels, original.data(), original.size());
    ASSERT_EQ(wzHistogramMatchFilter3D(params, expected, mask, expected, nullptr), 0u);
    const Bytes matched = voxelsOf(expected);
    // The temporary volume: record, plane table, plane headers and block.
    EXPECT_EQ(sweep(
                  "wzHistogramMatchFilter3D (in place, mask)",
                  [&] { std::memcpy(source->voxels, original.data(), original.size()); },
                  [&] { return wzHistogramMatchFilter3D(params, source, mask, source, nullptr); },
                  [&](wzStatus status, bool injected) {
                      EXPECT_EQ(status, injected ? 1u : 0u);
                      EXPECT_EQ(voxelsOf(source), injected ? original : matched);
                  }),
              3 + 4);

    // Equalisation and stretch keep everything in automatic storage.
    wzVolume *destination = wzVolumeCreateAs(source);
    ASSERT_EQ(wzHistogramEqualization3D(source, expected), 0u);
    const Bytes equalized = voxelsOf(expected);
    EXPECT_EQ(sweep(
                  "wzHistogramEqualization3D", [] {},
                  [&] { return wzHistogramEqualization3D(source, destination); },
                  [&](wzStatus status, bool) {
                      EXPECT_EQ(status, 0u);
                      EXPECT_EQ(voxelsOf(destination), equalized);
                  }),
              0);
    ASSERT_EQ(wzHistogramStretch3D(source, expected), 0u);
    const Bytes stretched = voxelsOf(expected);
    EXPECT_EQ(sweep(
                  "wzHistogramStretch3D", [] {}, [&] { return wzHistogramStretch3D(source, destination); },
                  [&](wzStatus status, bool) {
                      EXPECT_EQ(status, 0u);
                      EXPECT_EQ(voxelsOf(destination), stretched);
                  }),
              0);

    wzVolumeRelease(&destination);
    wzVolumeRelease(&expected);
    wzVolumeRelease(&mask);
    wzVolumeRelease(&source);
    wzHistogramMatchParamsRelease(&params);
    wzImageColorProfileRelease(&target);
    wzImageRelease(&reference);
}

TEST(AllocFailure, EqualisationAndStretchAllocateNothing) {
    wzImage *source = randomImage(20, 15, wzEncodingBGR, 14, 30, 100);
    wzImage *destination = wzImageCreateAs(source);
    wzImage *expected = wzImageCreateAs(source);
    ASSERT_EQ(wzHistogramEqualization(source, expected), 0u);
    Bytes want = bytesOf(expected);
    EXPECT_EQ(sweep(
                  "wzHistogramEqualization", [] {},
                  [&] { return wzHistogramEqualization(source, destination); },
                  [&](wzStatus status, bool) {
                      EXPECT_EQ(status, 0u);
                      EXPECT_EQ(bytesOf(destination), want);
                  }),
              0);
    ASSERT_EQ(wzHistogramStretch(source, expected), 0u);
    want = bytesOf(expected);
    EXPECT_EQ(sweep(
                  "wzHistogramStretch", [] {}, [&] { return wzHistogramStretch(source, destination); },
                  [&](wzStatus status, bool) {
                      EXPECT_EQ(status, 0u);
                      EXPECT_EQ(bytesOf(destination), want);
                  }),
              0);
    wzImageRelease(&expected);
    wzImageRelease(&destination);
    wzImageRelease(&source);
}

// ---------------------------------------------------------------------------
// Solvers, singular value decomposition, pseudo-inverse

TEST(AllocFailure, LinearSolvers) {
    wzMatrix *A = randomMatrix(5, 5, 15, 12.0);
    wzMatrix *B = randomMatrix(5, 2, 16);
    wzMatrix *X = wzMatrixCreate(5, 2);
    ASSERT_EQ(wzMatrixSolveLinearSystem(A, X, B, nullptr), 0u);
    const std::vector<double> solution = elementsOf(X);
    // The work matrix: record, row table, block.
    EXPECT_EQ(sweep(
                  "wzMatrixSolveLinearSystem (own work matrix)", [&] { clear(X); },
                  [&] { return wzMatrixSolveLinearSystem(A, X, B, nullptr); },
                  [&](wzStatus status, bool injected) {
                      EXPECT_EQ(status, injected ? 1u : 0u);
                      if (!injected) {
                          EXPECT_EQ(elementsOf(X), solution);
                      }
                  }),
              3);

    wzMatrix *tall = randomMatrix(8, 3, 17, 5.0);
    wzMatrix *rhs = randomMatrix(8, 2, 18);
    wzMatrix *fit = wzMatrixCreate(3, 2);
    ASSERT_EQ(wzMatrixLinearSystemLeastSquares(tall, fit, rhs, nullptr, nullptr, nullptr), 0u);
    const std::vector<double> fitted = elementsOf(fit);
    // Three work matrices and two headers over the first one's block.
    EXPECT_EQ(sweep(
                  "wzMatrixLinearSystemLeastSquares (own work matrices)", [&] { clear(fit); },
                  [&] { return wzMatrixLinearSystemLeastSquares(tall, fit, rhs, nullptr, nullptr, nullptr); },
                  [&](wzStatus status, bool injected) {
                      EXPECT_EQ(status, injected ? 1u : 0u);
                      if (!injected) {
                          EXPECT_EQ(elementsOf(fit), fitted);
                      }
                  }),
              3 * 3 + 2 * 2);
    wzMatrix *work1 = wzMatrixCreate(8, 3), *work2 = wzMatrixCreate(3, 3), *work3 = wzMatrixCreate(3, 2);
    EXPECT_EQ(sweep(
                  "wzMatrixLinearSystemLeastSquares (caller's work matrices)", [&] { clear(fit); },
                  [&] { return wzMatrixLinearSystemLeastSquares(tall, fit, rhs, work1, work2, work3); },
                  [&](wzStatus status, bool injected) {
                      EXPECT_EQ(status, injected ? 1u : 0u);
                      if (!injected) {
                          EXPECT_EQ(elementsOf(fit), fitted);
                      }
                  }),
              2 * 2);

    for (wzMatrix **m : {&A, &B, &X, &tall, &rhs, &fit, &work1, &work2, &work3}) wzMatrixRelease(m);
}

TEST(AllocFailure, SingularValueDecompositionAndPseudoInverse) {
    // The decomposition needs its work vector (status 1 without it); its
    // transposed working copies only speed it up, so without them it still
    // succeeds with the very same results.
    wzMatrix *A = randomMatrix(6, 4, 19);
    wzMatrix *U = wzMatrixCreate(6, 4), *W = wzMatrixCreate(4, 1), *V = wzMatrixCreate(4, 4);
    ASSERT_EQ(wzMatrixSVDDecomposition(A, U, W, V), 0);
    const std::vector<double> u = elementsOf(U), w = elementsOf(W), v = elementsOf(V);
    int refused = 0;
    EXPECT_GE(sweep(
                  "wzMatrixSVDDecomposition",
                  [&] {
                      clear(U);
                      clear(W);
                      clear(V);
                  },
                  [&] { return wzMatrixSVDDecomposition(A, U, W, V); },
                  [&](int32_t status, bool injected) {
                      if (injected && status == 1) {
                          ++refused;
                          return;
                      }
                      EXPECT_EQ(status, 0);
                      EXPECT_EQ(elementsOf(U), u);
                      EXPECT_EQ(elementsOf(W), w);
                      EXPECT_EQ(elementsOf(V), v);
                  }),
              1);
    EXPECT_EQ(refused, 1);

    // Square, tall (zero columns padded) and wide (zero rows padded).
    const struct {
        int32_t rows, cols;
    } shapes[] = {{4, 4}, {6, 4}, {3, 5}};
    uint32_t seed = 20;
    for (const auto &s : shapes) {
        wzMatrix *M = randomMatrix(s.rows, s.cols, seed++, 3.0);
        wzMatrix *P = wzMatrixCreate(s.cols, s.rows);
        ASSERT_EQ(wzMatrixPseudoInverse(M, P), 0u);
        const std::vector<double> inverse = elementsOf(P);
        int failed = 0;
        const long points = sweep(
            "wzMatrixPseudoInverse (" + std::to_string(s.rows) + " x " + std::to_string(s.cols) + ")",
            [&] { clear(P); }, [&] { return wzMatrixPseudoInverse(M, P); },
            [&](wzStatus status, bool injected) {
                if (injected && status == 1) {
                    ++failed;
                    return;
                }
                EXPECT_EQ(status, 0u);
                EXPECT_EQ(elementsOf(P), inverse);
            });
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

TEST(AllocFailure, ImageAndMatrixDumpLoads) {
    wzImage *image = wzImageCreateWithType(9, 7, wzEncodingBGR, wzType16U);
    uint32_t seed = 21;
    for (size_t i = 0; i < 9 * 7 * 3 * 2; ++i) image->data[i] = uint8_t(nextRandom(seed));
    const wzRect roi{1, 2, 5, 4};
    wzImageSetROI(image, &roi);
    wzImageSetCOI(image, 2);
    Bytes imageDump = dumpOf([&](std::FILE *f) { return wzImageDumpSave(image, f); });
    DumpStream imageStream(imageDump);
    EXPECT_EQ(sweep(
                  "wzImageDumpLoad", [] {}, [&] { return wzImageDumpLoad(imageStream.rewound()); },
                  [&](wzImage *loaded, bool injected) {
                      if (injected) {
                          EXPECT_EQ(loaded, nullptr);
                          if (loaded) wzImageRelease(&loaded);
                          return;
                      }
                      ASSERT_NE(loaded, nullptr);
                      EXPECT_EQ(loaded->type, wzType16U);
                      EXPECT_EQ(loaded->roi.height, 4);
                      EXPECT_EQ(loaded->coi, 2);
                      EXPECT_EQ(std::memcmp(loaded->data, image->data, 9 * 7 * 3 * 2), 0);
                      wzImageRelease(&loaded);
                  }),
              2);  // record and block
    wzImageRelease(&image);

    wzMatrix *m = randomMatrix(6, 5, 22);
    Bytes matrixDump = dumpOf([&](std::FILE *f) { return wzMatrixDumpSave(m, f); });
    DumpStream matrixStream(matrixDump);
    EXPECT_EQ(sweep(
                  "wzMatrixDumpLoad", [] {}, [&] { return wzMatrixDumpLoad(matrixStream.rewound()); },
                  [&](wzMatrix *loaded, bool injected) {
                      if (injected) {
                          EXPECT_EQ(loaded, nullptr);
                          if (loaded) wzMatrixRelease(&loaded);
                          return;
                      }
                      ASSERT_NE(loaded, nullptr);
                      EXPECT_EQ(loaded->nRows, 6);
                      EXPECT_EQ(elementsOf(loaded), elementsOf(m));
                      EXPECT_EQ(loaded->rowPtr[5], loaded->data + 25);
                      wzMatrixRelease(&loaded);
                  }),
              3);  // record, block, row table
    wzMatrixRelease(&m);
}

// Payloads above 16 MiB are read in pieces into a block that grows: every
// piece's allocation may fail too.
TEST(AllocFailure, LargeImageAndMatrixDumpLoads) {
    wzImage *image = wzImageCreate(4100, 4100, wzEncodingGray);
    uint32_t seed = 27;
    for (size_t i = 0; i < blockBytes(image); ++i) image->data[i] = uint8_t(nextRandom(seed));
    Bytes imageDump = dumpOf([&](std::FILE *f) { return wzImageDumpSave(image, f); });
    DumpStream imageStream(imageDump);
    EXPECT_GT(sweep(
                  "wzImageDumpLoad (4100 x 4100)", [] {},
                  [&] { return wzImageDumpLoad(imageStream.rewound()); },
                  [&](wzImage *loaded, bool injected) {
                      if (injected) {
                          EXPECT_EQ(loaded, nullptr);
                          if (loaded) wzImageRelease(&loaded);
                          return;
                      }
                      ASSERT_NE(loaded, nullptr);
                      EXPECT_EQ(std::memcmp(loaded->data, image->data, blockBytes(image)), 0);
                      wzImageRelease(&loaded);
                  }),
              2);
    wzImageRelease(&image);

    wzMatrix *m = randomMatrix(1500, 1500, 28);  // 18 MB of doubles
    Bytes matrixDump = dumpOf([&](std::FILE *f) { return wzMatrixDumpSave(m, f); });
    DumpStream matrixStream(matrixDump);
    EXPECT_GT(sweep(
                  "wzMatrixDumpLoad (1500 x 1500)", [] {},
                  [&] { return wzMatrixDumpLoad(matrixStream.rewound()); },
                  [&](wzMatrix *loaded, bool injected) {
                      if (injected) {
                          EXPECT_EQ(loaded, nullptr);
                          if (loaded) wzMatrixRelease(&loaded);
                          return;
                      }
                      ASSERT_NE(loaded, nullptr);
                      EXPECT_EQ(std::memcmp(loaded->data, m->data, sizeof(double) * 1500 * 1500), 0);
                      wzMatrixRelease(&loaded);
                  }),
              3);
    wzMatrixRelease(&m);
}

// A header that claims gigabytes in front of a few bytes of payload costs at
// most one 16 MiB piece, and leaves nothing behind.
TEST(AllocFailure, HostileDumpHeadersCostLittle) {
    constexpr size_t kPiece = size_t{16} << 20;
    const auto le32 = [](Bytes &b, uint32_t v) {
        for (int i = 0; i < 4; ++i) b.push_back(uint8_t(v >> (8 * i)));
    };
    struct Claim {
        const char *what;
        Bytes header;
        std::function<bool(std::FILE *)> load;  // true when something loaded
    };
    std::vector<Claim> claims;
    {
        Bytes h;  // 64F RGBA, 1 x 0x1FFFFFFF: 16 GiB
        for (uint32_t v : {uint32_t{wzType64F}, uint32_t{wzEncodingRGBA}, 1u, 0x1FFFFFFFu, 0u, 0u, 0u,
                           0u, 0u, 0u})
            le32(h, v);
        claims.push_back({"image", h, [](std::FILE *f) {
                              wzImage *img = wzImageDumpLoad(f);
                              const bool loaded = img != nullptr;
                              wzImageRelease(&img);
                              return loaded;
                          }});
    }
    {
        Bytes h;  // 2 x 0x3FFFFFFF doubles: 16 GiB
        for (uint32_t v : {0u, 0u, 2u, 0x3FFFFFFFu}) le32(h, v);
        claims.push_back({"matrix", h, [](std::FILE *f) {
                              wzMatrix *m = wzMatrixDumpLoad(f);
                              const bool loaded = m != nullptr;
                              wzMatrixRelease(&m);
                              return loaded;
                          }});
    }
    for (const bool separate : {false, true}) {
        Bytes h;  // 64F, 0x7FFFFFFF x 1 x 1: 16 GiB
        for (uint32_t v : {uint32_t{wzType64F}, 1u, 0x7FFFFFFFu, 1u, 0u, 0u, 0u, 0u, 0u, 1u, 1u, 1u})
            le32(h, v);
        claims.push_back({separate ? "volume, separate planes" : "volume", h, [separate](std::FILE *f) {
                              wzVolume *v = separate ? wzVolumeDumpLoadWithSeparatePlanes(f)
                                                     : wzVolumeDumpLoad(f);
                              const bool loaded = v != nullptr;
                              if (separate)
                                  wzVolumeReleaseWithSeparatePlanes(&v);
                              else
                                  wzVolumeRelease(&v);
                              return loaded;
                          }});
    }
    for (Claim &c : claims) {
        SCOPED_TRACE(c.what);
        c.header.resize(c.header.size() + 4096, 0x5A);
        DumpStream stream(c.header);
        allocProbeBegin(0);
        const bool loaded = c.load(stream.rewound());
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
    DumpStream stream(dump);
    const size_t bytes = dump.size() - 48;
    const size_t perPlane = bytes / size_t(saved->depth);
    const auto samePlanes = [&](const wzVolume *v) {
        EXPECT_EQ(v->width, saved->width);
        EXPECT_EQ(v->height, saved->height);
        ASSERT_EQ(v->depth, saved->depth);
        EXPECT_EQ(v->type, saved->type);
        EXPECT_EQ(v->roi.depth, saved->roi.depth);
        for (int32_t k = 0; k < v->depth; ++k)
            ASSERT_EQ(std::memcmp(v->planes[k]->data, dump.data() + 48 + k * perPlane, perPlane), 0)
                << "plane " << k;
    };
    EXPECT_GE(sweep(
                  "wzVolumeDumpLoad (" + what + ")", [] {},
                  [&] { return wzVolumeDumpLoad(stream.rewound()); },
                  [&](wzVolume *loaded, bool injected) {
                      if (injected) {
                          EXPECT_EQ(loaded, nullptr);
                          if (loaded) wzVolumeRelease(&loaded);
                          return;
                      }
                      ASSERT_NE(loaded, nullptr);
                      samePlanes(loaded);
                      EXPECT_EQ(loaded->voxels, loaded->planes[0]->data);
                      wzVolumeRelease(&loaded);
                  }),
              minPoints);
    EXPECT_GE(sweep(
                  "wzVolumeDumpLoadWithSeparatePlanes (" + what + ")", [] {},
                  [&] { return wzVolumeDumpLoadWithSeparatePlanes(stream.rewound()); },
                  [&](wzVolume *loaded, bool injected) {
                      if (injected) {
                          EXPECT_EQ(loaded, nullptr);
                          if (loaded) wzVolumeReleaseWithSeparatePlanes(&loaded);
                          return;
                      }
                      ASSERT_NE(loaded, nullptr);
                      samePlanes(loaded);
                      EXPECT_EQ(loaded->voxels, nullptr);
                      wzVolumeReleaseWithSeparatePlanes(&loaded);
                  }),
              minPoints);
}

TEST(AllocFailure, VolumeDumpLoads) {
    // A small volume.
    wzVolume *small = wzVolumeCreateWithType(7, 5, 4, wzType32F);
    uint32_t seed = 23;
    for (size_t i = 0; i < 7 * 5 * 4 * 4; ++i) small->voxels[i] = uint8_t(nextRandom(seed));
    const wzBox box{1, 1, 1, 3, 2, 2};
    wzVolumeSetROI(small, &box);
    sweepVolumeLoads("7 x 5 x 4, 32F", small, 3);
    wzVolumeRelease(&small);

    // More planes than the first plane table of a separate-plane load holds.
    wzVolume *deep = randomVolume(2, 1, 300, 24, 0, 256);
    sweepVolumeLoads("2 x 1 x 300", deep, 300);
    wzVolumeRelease(&deep);

    // A plane larger than one direct read: read in pieces into a growing block.
    wzVolume *large = randomVolume(4100, 4100, 1, 25, 0, 256);
    sweepVolumeLoads("4100 x 4100 x 1", large, 4);
    wzVolumeRelease(&large);
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

    // Init: without support every later call refuses and touches nothing.
    EXPECT_EQ(sweep(
                  "wzMorvenInit", [] {}, [] { return wzMorvenInit(); },
                  [&](wzStatus status, bool injected) {
                      if (!injected) {
                          EXPECT_EQ(status, 0u);
                          wzMorvenDispose();
                          return;
                      }
                      EXPECT_EQ(status, 1u);
                      out = untouched;
                      EXPECT_EQ(wzMorvenTransfer(W, H, source.data(), out.data(), RW, RH,
                                                 reference.data(), 1, 255, 1.0f, 9.0f, 50.0f, 0.9f),
                                1u);
                      EXPECT_EQ(wzMorvenSmooth(W, H, guide.data(), input.data(), out.data(), 2, 0.2f), 1u);
                      EXPECT_EQ(out, untouched);
                  }),
              8);

    ASSERT_EQ(wzMorvenInit(), 0u);
    const auto transfer = [&](int32_t contrast) {
        return wzMorvenTransfer(W, H, source.data(), out.data(), RW, RH, reference.data(), contrast,
                                255, 0.8f, 9.0f, 50.0f, 0.9f);
    };
    out = untouched;
    ASSERT_EQ(transfer(0), 0u);
    const Bytes matched = out;
    out = untouched;
    ASSERT_EQ(transfer(1), 0u);
    const Bytes enhanced = out;
    ASSERT_NE(matched, enhanced);
    EXPECT_GT(sweep(
                  "wzMorvenTransfer (contrast)", [&] { out = untouched; }, [&] { return transfer(1); },
                  [&](wzStatus status, bool injected) {
                      EXPECT_EQ(status, injected ? 1u : 0u);
                      if (!injected) {
                          EXPECT_EQ(out, enhanced);
                      } else {  // contrast's records are made after matching wrote its result
                          EXPECT_TRUE(out == untouched || out == matched);
                      }
                  }),
              4 + 4 + 2);

    Bytes expected(W * H * 3);
    ASSERT_EQ(wzMorvenSmooth(W, H, guide.data(), input.data(), expected.data(), 2, 0.2f), 0u);
    ASSERT_NE(expected, input);
    EXPECT_GT(sweep(
                  "wzMorvenSmooth", [&] { out = untouched; },
                  [&] { return wzMorvenSmooth(W, H, guide.data(), input.data(), out.data(), 2, 0.2f); },
                  [&](wzStatus status, bool injected) {
                      EXPECT_EQ(status, injected ? 1u : 0u);
                      EXPECT_EQ(out, injected ? untouched : expected);
                  }),
              4);  // three headers and the parameter record, then smoothing's own
    wzMorvenDispose();
}

}  // namespace
