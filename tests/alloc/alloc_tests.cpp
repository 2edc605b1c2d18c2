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
    --n;
    EXPECT_TRUE(n >= op.points.lo && n <= op.points.hi)
        << op.name << ": " << n << " failure points";
    op.finish(n);
}

void sweepAll(const std::vector<Op> &ops) {
    for (const Op &op : ops) sweep(op);
}

// A record as bytes, with what its pointers lead to in place of the
// pointers: equal for records that hold the same things.
void describe(Bytes &b, const void *p, size_t n) {
    b.insert(b.end(), static_cast<const uint8_t *>(p), static_cast<const uint8_t *>(p) + n);
}
template <class T>  // records without pointers (or with null ones only)
void describe(Bytes &b, const T &t) {
    describe(b, &t, sizeof t);
}
void describe(Bytes &b, const wzImage &img, bool blocks) {  // blocks: their contents too
    describe(b, std::make_tuple(img.type, img.encoding, img.height, img.width, img.roi, img.coi));
    b.push_back(img.data != nullptr);
    if (img.data && blocks) describe(b, img.data, blockBytes(&img));
}
void describe(Bytes &b, const wzMatrix &m) {  // the layout of the rows too
    describe(b, std::make_pair(m.nRows, m.nCols));
    for (int32_t i = 0; i < m.nRows; ++i) {
        describe(b, m.data ? m.rowPtr[i] - m.data : m.rowPtr[i] != nullptr);
        if (m.data) describe(b, m.rowPtr[i], sizeof(double) * size_t(m.nCols));
    }
}
// Without blocks, the planes' places in the block instead.
void describe(Bytes &b, const wzVolume &v, bool blocks) {
    describe(b, std::make_tuple(v.type, v.depth, v.width, v.height, v.roi));
    for (int32_t k = 0; k < v.depth; ++k) {
        describe(b, *v.planes[k], blocks);
        if (!blocks) describe(b, v.voxels ? v.planes[k]->data - v.voxels : -1);
    }
}
void describe(Bytes &b, const wzHistogramMatchStats &s) { describe(b, *s.profile); }
void describe(Bytes &b, const wzSelectiveSmoothSupport &s) {
    describe(b, *s.absDiff);
    describe(b, *s.ratio);
}
void describe(Bytes &b, const wzHistogramTransferSupport &s) { describe(b, *s.smoothSupport); }
void describe(Bytes &b, const wzHistogramTransferParamsInner &p) {
    describe(b, *p.matchParams);
    describe(b, *p.contrastParams);
    describe(b, *p.smoothParams);
    describe(b, std::make_pair(p.contrastEnabled, p.smoothEnabled));
}
template <class T>
Bytes deep(const T *t, bool blocks) {
    Bytes b;
    if constexpr (std::is_same_v<T, wzImage> || std::is_same_v<T, wzVolume>)
        describe(b, *t, blocks);
    else
        describe(b, *t);
    return b;
}

// A create or load operation: null on every failure, else a record like
// `like` (what the blocks hold included), or like what make() gives outside
// the probe's window (new image blocks are not initialised: not compared), or
// with a use, one that use() accepts.
template <class T>
Op made(std::string name, void (*release)(T **), Points points,
        std::type_identity_t<std::function<T *()>> make,
        std::type_identity_t<std::function<void(T *)>> use = nullptr, const T *like = nullptr) {
    T *model = use || like ? nullptr : make();
    const bool blocks = like != nullptr;
    const Bytes want = like ? deep(like, true) : model ? deep(model, false) : Bytes{};
    EXPECT_TRUE(use || like || model) << name;
    release(&model);
    auto result = std::make_shared<T *>();
    return {std::move(name), [] {}, [=] { *result = make(); },
            [=](bool injected) {
                T *t = *result;
                if (injected)
                    EXPECT_EQ(t, nullptr);
                else if (!t)
                    ADD_FAILURE() << "null without a failure";
                else if (use)
                    use(t);
                else
                    EXPECT_TRUE(deep(t, blocks) == want) << "not the result of an unfailed run";
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
    for (const auto &[p, n] : spans) describe(b, p, n);
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

using Call = std::function<long()>;

// A status operation writing the blocks `out`, which hold its input in place
// (kept as found) and else start every run as a fill. Status 1 on failure,
// else 0 and the result of an unfailed run (taken here); stages give the
// results of the stages a failure may leave behind.
Op statusOp(std::string name, Spans out, bool inPlace, Points points, Call call,
            OnFailure onFailure = OnFailure::Untouched, const std::vector<Call> &stages = {}) {
    const Bytes before = inPlace ? bytesOf(out) : Bytes(bytesOf(out).size(), 0x3C);
    const auto resultOf = [&](const Call &f) {
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
// New image or volume with pseudo-random bytes lo .. lo + span - 1.
wzImage *randomImage(int32_t w, int32_t h, uint32_t encoding, uint32_t seed, int lo = 0,
                     int span = 256, uint32_t type = wzType8U) {
    wzImage *img = wzImageCreateWithType(w, h, encoding, type);
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
Op loadOp(std::string name, const T *saved, wzStatus (*save)(const T *, std::FILE *),
          T *(*load)(std::FILE *), void (*release)(T **), Points points) {
    wzStatus status = 1;
    const auto f =
        streamOver(morven_test::saveToBytes([=](std::FILE *s) { return save(saved, s); }, &status));
    EXPECT_EQ(status, 0u) << name;
    const auto loaded = [=] {
        std::rewind(f.get());
        return load(f.get());
    };
    return made<T>(std::move(name), release, points, loaded, nullptr, saved);
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
}

// ---------------------------------------------------------------------------
// Create operations: null on failure

TEST(AllocFailure, CreateOperations) {
    // The other image and volume constructors forward to these with fixed
    // arguments: the same allocations.
    constexpr int32_t W = 5, H = 4, D = 3;
    sweepAll({
        // Images: the record, then the block unless a header.
        made("wzImageCreateHeaderWithType", wzImageReleaseHeader, exactly(1),
             [] { return wzImageCreateHeaderWithType(7, 5, wzEncodingGray, wzType32F); }),
        made("wzImageCreateWithType", wzImageRelease, exactly(2),
             [] { return wzImageCreateWithType(7, 5, wzEncodingBGR, wzType64F); }),
        made("wzImageColorProfileCreate", wzImageColorProfileRelease, {},
             wzImageColorProfileCreate),
        made("wzHistogramMatchParamsDefault", wzHistogramMatchParamsRelease, {},
             wzHistogramMatchParamsDefault),
        made("wzHistogramMatchStatsCreate", wzHistogramMatchStatsRelease, exactly(2),
             wzHistogramMatchStatsCreate),
        made("wzContrastEnhanceParamsDefault", wzContrastEnhanceParamsRelease, {},
             wzContrastEnhanceParamsDefault),
        made("wzContrastEnhanceStatsCreate", wzContrastEnhanceStatsRelease, {},
             wzContrastEnhanceStatsCreate),
        // The record, then two 256 x 256 matrices.
        made("wzSelectiveSmoothSupportCreate", wzSelectiveSmoothSupportRelease, exactly(7),
             wzSelectiveSmoothSupportCreate),
        made("wzSelectiveSmoothParamsDefault", wzSelectiveSmoothParamsRelease, {},
             wzSelectiveSmoothParamsDefault),
        made("wzHistogramTransferSupportCreate", wzHistogramTransferSupportRelease, exactly(8),
             wzHistogramTransferSupportCreate),
        made("wzHistogramTransferParamsDefault", wzHistogramTransferParamsRelease, {},
             wzHistogramTransferParamsDefault),
        made("wzHistogramTransferParamsInnerCreate", wzHistogramTransferParamsInnerRelease,
             exactly(4), wzHistogramTransferParamsInnerCreate),
        made("wzImageColorProfile16Create", wzImageColorProfile16Release, exactly(1),
             wzImageColorProfile16Create),
        made("wzHistogramMatchCurvesCreate", wzHistogramMatchCurvesRelease, exactly(1),
             wzHistogramMatchCurvesCreate),
        // Matrices: record, row table, block.
        made("wzMatrixCreateHeader", wzMatrixReleaseHeader, exactly(2),
             [] { return wzMatrixCreateHeader(4, 3); }),
        made("wzMatrixCreate", wzMatrixRelease, exactly(3), [] { return wzMatrixCreate(4, 3); }),
        made("wzMatrixCreateIdentity", wzMatrixRelease, exactly(3),
             [] { return wzMatrixCreateIdentity(4); }),
        made<double>(
            "vector", +[](double **v) { free_vector(*v, -2, 5); }, exactly(1),
            [] { return vector(-2, 5); }, [](double *v) { std::fill(v - 2, v + 6, 1.0); }),
        made<double *>(
            "matrix", +[](double ***m) { free_matrix(*m, 1, 3, 0, 4); }, exactly(2),
            [] { return matrix(1, 3, 0, 4); },
            [](double **m) {
                for (int i = 1; i <= 3; ++i) std::fill(m[i], m[i] + 5, double(i));
                EXPECT_EQ(std::make_pair(m[2][0], m[3][4]), std::make_pair(2.0, 3.0));
            }),
        // Volumes: the record, the plane table and a header per plane; then
        // one block under the planes, or one per plane (made as an image).
        made("wzVolumeCreateHeaderWithEncoding", wzVolumeReleaseHeader, exactly(2 + D),
             [] { return wzVolumeCreateHeaderWithEncoding(W, H, D, wzEncodingBGR); }),
        made("wzVolumeCreateWithEncoding", wzVolumeRelease, exactly(3 + D),
             [] { return wzVolumeCreateWithEncoding(W, H, D, wzEncodingRGBA); }),
        made("wzVolumeCreateWithTypeWithSeparatePlanes", wzVolumeReleaseWithSeparatePlanes,
             atLeast(2 + 2 * D),
             [] { return wzVolumeCreateWithTypeWithSeparatePlanes(W, H, D, wzType16U); }),
    });
}

// ---------------------------------------------------------------------------
// Filters: status 1 on failure

// Every allocation precedes the first write of its stage, so a failure
// leaves the input, or the stages already finished (a transfer rolls nothing
// back). Counts of points are lower bounds where working memory depends on
// the space and depth.
TEST(AllocFailure, ImageFilters) {
    wzImage *reference = randomImage(30, 26, wzEncodingBGR, 1, 70, 120),
            *mask = randomImage(34, 26, wzEncodingGray, 2);
    wzImage *source = randomImage(34, 26, wzEncodingBGR, 3, 20, 120),
            *out = wzImageCreateAs(source), *statsMask = randomImage(34, 26, wzEncodingGray, 4);
    wzImage *source16 = randomImage(34, 26, wzEncodingBGR, 5, 0, 256, wzType16U),
            *out16 = wzImageCreateAs(source16);
    // Guides plus small pseudo-random steps: something for smoothing to do.
    wzImage *guide = randomImage(34, 26, wzEncodingBGR, 6, 60, 30), *noisy = wzImageCreateAs(guide);
    wzImage *guide16 = randomImage(34, 26, wzEncodingBGR, 7, 0, 256, wzType16U),
            *noisy16 = wzImageCreateAs(guide16);
    uint32_t seed = 8;
    for (size_t i = 0; i < blockBytes(noisy); ++i)
        noisy->data[i] = uint8_t(guide->data[i] + nextRandom(seed) % 40);
    for (size_t i = 0; i < blockBytes(noisy16) / 2; ++i)  // steps of up to 4096 levels
        reinterpret_cast<uint16_t *>(noisy16->data)[i] =
            uint16_t(reinterpret_cast<uint16_t *>(guide16->data)[i] + i * 2654435761u % 4096);
    wzImageColorProfile *target = profileOf(reference);
    wzImageColorProfile16 *lab = wzImageColorProfile16Create(),
                          *profile = wzImageColorProfile16Create();
    wzImageFillColorProfile16(reference, nullptr, wzSpaceLab, lab);
    const wzHistogramMatchParams match{1.0f, 0.9f, 0, 255, target},
        match16{0.9f, 0.8f, 0, 60, target};
    const wzHistogramMatchOptions inLab{wzSpaceLab, 0, statsMask, lab},
        counted{0, 0, statsMask, nullptr};
    const wzContrastEnhanceParams contrast{9.0f, 4.0f, 0, 255, 0},
        contrast16{9.0f, 30.0f, 0, 255, 0};
    const wzSelectiveSmoothParams smooth{0.2f, 2}, smooth16{0.05f, 2};
    wzHistogramTransferSupport *support = wzHistogramTransferSupportCreate();
    const wzSelectiveSmoothSupport *smoothing = support->smoothSupport;
    // A full transfer, and the stages a failure may leave: matching, then
    // contrast too.
    const wzHistogramTransferParams full{target, 1.0f, 0.9f, 1, 9.0f, 50.0f, 1, 0.2f, 2, 255};
    wzHistogramTransferParams matchOnly = full, matchContrast = full, smoothOnly16 = full;
    matchOnly.contrastEnabled = matchOnly.smoothEnabled = matchContrast.smoothEnabled =
        smoothOnly16.contrastEnabled = 0;
    smoothOnly16.smoothThreshold = 0.05f;
    wzHistogramMatchCurves *curves = wzHistogramMatchCurvesCreate(),
                           *labCurves = wzHistogramMatchCurvesCreate();
    wzHistogramMatchCurvesCompute(lab, &match16, lab, 3, labCurves);
    const auto transfer = [&](const wzHistogramTransferParams *p, const wzImage *m, wzImage *to) {
        return [=] { return wzHistogramTransferFilter(p, support, source, m, to, nullptr); };
    };
    const auto transferOp = [&](std::string how, wzImage *to) {
        return statusOp("wzHistogramTransferFilter (" + how + ", mask, contrast, smoothing)",
                        {span(to)}, to == source, atLeast(3), transfer(&full, mask, to),
                        OnFailure::Untouched,
                        {transfer(&matchOnly, nullptr, to), transfer(&matchContrast, nullptr, to)});
    };
    const auto withOptions = [&](const wzHistogramTransferParams *p, const wzImage *m,
                                 wzImage *from, wzImage *to) {
        return [=] {
            return wzHistogramTransferFilterWithOptions(p, &counted, support, from, m, to, nullptr);
        };
    };
    const Spans in{span(source)}, into{span(out)}, in16{span(source16)}, into16{span(out16)};
    sweepAll({
        // In place with a mask: the copy is the one allocation.
        statusOp("wzHistogramMatchFilter (in place, mask)", in, true, atLeast(1),
                 [&] { return wzHistogramMatchFilter(&match, source, mask, source, nullptr); }),
        // Statistics and curve, then (in place, mask) the copy's record and block.
        statusOp("wzContrastEnhanceFilter (into another image)", into, false, exactly(2),
                 [&] { return wzContrastEnhanceFilter(&contrast, source, nullptr, out, nullptr); }),
        statusOp("wzContrastEnhanceFilter (in place, mask)", in, true, exactly(4),
                 [&] { return wzContrastEnhanceFilter(&contrast, source, mask, source, nullptr); }),
        // Working storage is made before any output is written.
        statusOp("wzSelectiveSmooth (into another image)", into, false, atLeast(1),
                 [&] { return wzSelectiveSmooth(&smooth, smoothing, guide, noisy, out, nullptr); }),
        statusOp(
            "wzSelectiveSmooth (in place)", {span(noisy)}, true, atLeast(1),
            [&] { return wzSelectiveSmooth(&smooth, smoothing, guide, noisy, noisy, nullptr); }),
        transferOp("into another image", out),
        transferOp("in place", source),
        // The profile is replaced whatever the outcome: only the status is checked.
        statusOp(
            "wzImageFillColorProfile16 (Lab)", {Span{profile, sizeof *profile}}, false, atLeast(1),
            [=] { return wzImageFillColorProfile16(source, statsMask, wzSpaceLab, profile); },
            OnFailure::Unspecified),
        statusOp("wzHistogramMatchFilterWithOptions (16-bit, Lab, in place, masks)", in16, true,
                 atLeast(2),
                 [&] {
                     return wzHistogramMatchFilterWithOptions(&match16, &inLab, source16, mask,
                                                              source16, nullptr);
                 }),
        statusOp("wzHistogramEqualizationMasked (16-bit)", into16, false, atLeast(1),
                 [=] { return wzHistogramEqualizationMasked(source16, statsMask, out16); }),
        statusOp("wzContrastEnhanceFilterMasked (16-bit, in place, masks)", in16, true, atLeast(2),
                 [&] {
                     return wzContrastEnhanceFilterMasked(&contrast16, source16, statsMask, mask,
                                                          source16, nullptr);
                 }),
        // Masked contrast allocates nothing.
        statusOp("wzHistogramTransferFilterWithOptions (in place, masks, contrast, smoothing)", in,
                 true, atLeast(3), withOptions(&full, mask, source, source), OnFailure::Untouched,
                 {withOptions(&matchContrast, nullptr, source, source)}),
        statusOp("wzHistogramTransferFilterWithOptions (16-bit, mask, smoothing)", into16, false,
                 atLeast(2), withOptions(&smoothOnly16, mask, noisy16, out16), OnFailure::Untouched,
                 {withOptions(&matchOnly, nullptr, noisy16, out16)}),
        statusOp("wzSelectiveSmooth16", into16, false, atLeast(1),
                 [&] { return wzSelectiveSmooth16(&smooth16, guide16, noisy16, out16, nullptr); }),
        statusOp("wzHistogramMatchCurvesCompute (Lab)", {Span{curves, sizeof *curves}}, false,
                 exactly(1),
                 [&] { return wzHistogramMatchCurvesCompute(lab, &match16, lab, 3, curves); }),
        statusOp("wzHistogramMatchCurvesApply (Lab)", into, false, atLeast(2),
                 [=] { return wzHistogramMatchCurvesApply(labCurves, source, out, nullptr); }),
    });
    for (wzHistogramMatchCurves **c : {&curves, &labCurves}) wzHistogramMatchCurvesRelease(c);
    for (wzImage **img : {&reference, &mask, &source, &out, &statsMask, &source16, &out16, &guide,
                          &noisy, &guide16, &noisy16})
        wzImageRelease(img);
    wzImageColorProfileRelease(&target);
    for (wzImageColorProfile16 **p : {&lab, &profile}) wzImageColorProfile16Release(p);
    wzHistogramTransferSupportRelease(&support);
}

TEST(AllocFailure, VolumeHistogramFilters) {
    wzImage *reference = randomImage(16, 16, wzEncodingGray, 11, 100, 80);
    wzImageColorProfile *target = profileOf(reference);
    const wzHistogramMatchParams params{1.0f, 0.9f, 0, 255, target};
    wzVolume *source = randomVolume(12, 10, 4, 12, 0, 120), *mask = randomVolume(12, 10, 4, 13);
    // The temporary volume: record, plane table, plane headers and block.
    sweep(
        statusOp("wzHistogramMatchFilter3D (in place, mask)", {span(source)}, true, exactly(3 + 4),
                 [&] { return wzHistogramMatchFilter3D(&params, source, mask, source, nullptr); }));
    for (wzVolume **v : {&source, &mask}) wzVolumeRelease(v);
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
            "wzMatrixSolveLinearSystem (own work matrix)", {span(X)}, false, exactly(3),
            [=] { return wzMatrixSolveLinearSystem(A, X, B, nullptr); }, unspecified),
        // Three work matrices and two headers over the first one's block.
        statusOp(
            "wzMatrixLinearSystemLeastSquares (own work matrices)", {span(fit)}, false,
            exactly(3 * 3 + 2 * 2),
            [=] {
                return wzMatrixLinearSystemLeastSquares(tall, fit, rhs, nullptr, nullptr, nullptr);
            },
            unspecified),
        statusOp(
            "wzMatrixLinearSystemLeastSquares (caller's work matrices)", {span(fit)}, false,
            exactly(2 * 2),
            [=] { return wzMatrixLinearSystemLeastSquares(tall, fit, rhs, work1, work2, work3); },
            unspecified),
        // The decomposition needs its work vector; its transposed working
        // copies only speed it up: without them, the very same results.
        statusOp(
            "wzMatrixSVDDecomposition", {span(U), span(W), span(V)}, false, atLeast(1),
            [=] { return wzMatrixSVDDecomposition(S, U, W, V); }, OnFailure::MayRecover),
    };
    // Square, tall and wide (both zero-padded to square): every temporary
    // matrix is needed, only the decomposition's copies may be missing.
    for (const auto &[rows, cols] : {std::pair{4, 4}, {6, 4}, {3, 5}}) {
        wzMatrix *M = randomMatrix(rows, cols, uint32_t(20 + rows), 3.0),
                 *P = wzMatrixCreate(cols, rows);
        matrices.insert(matrices.end(), {M, P});
        ops.push_back(statusOp(
            "wzMatrixPseudoInverse (" + std::to_string(rows) + " x " + std::to_string(cols) + ")",
            {span(P)}, false, {}, [=] { return wzMatrixPseudoInverse(M, P); },
            OnFailure::MayRecover));
    }
    sweepAll(ops);
    for (wzMatrix *m : matrices) wzMatrixRelease(&m);
}

// ---------------------------------------------------------------------------
// Dump loads: null on failure

// Image, matrix and volume dumps (both volume loads), small and large:
// payloads above 16 MiB are read in pieces into a block that grows, and
// every piece's allocation may fail too; a separate-plane load grows its
// plane table past its first size (256 planes).
TEST(AllocFailure, DumpLoads) {
    wzImage *image = randomImage(9, 7, wzEncodingBGR, 21, 0, 256, wzType16U),
            *big = randomImage(4100, 4100, wzEncodingGray, 27);
    const wzRect roi{1, 2, 5, 4};
    wzImageSetROI(image, &roi);
    wzImageSetCOI(image, 2);
    wzMatrix *m = randomMatrix(6, 5, 22), *bigM = randomMatrix(1500, 1500, 28);  // 18 MB
    wzVolume *small = wzVolumeCreateWithType(7, 5, 4, wzType32F);
    fillLevels(small->voxels, 7 * 5 * 4 * 4, 23);
    const wzBox box{1, 1, 1, 3, 2, 2};
    wzVolumeSetROI(small, &box);
    wzVolume *deep = randomVolume(2, 1, 300, 24), *large = randomVolume(4100, 4100, 1, 25);
    std::vector<Op> ops{
        loadOp("wzImageDumpLoad", image, wzImageDumpSave, wzImageDumpLoad, wzImageRelease,
               exactly(2)),  // record and block
        loadOp("wzImageDumpLoad (4100 x 4100)", big, wzImageDumpSave, wzImageDumpLoad,
               wzImageRelease, atLeast(3)),
        loadOp("wzMatrixDumpLoad", m, wzMatrixDumpSave, wzMatrixDumpLoad, wzMatrixRelease,
               exactly(3)),  // record, block, row table
        loadOp("wzMatrixDumpLoad (1500 x 1500)", bigM, wzMatrixDumpSave, wzMatrixDumpLoad,
               wzMatrixRelease, atLeast(4)),
    };
    const std::tuple<std::string, const wzVolume *, long> volumes[] = {
        {"7 x 5 x 4, 32F", small, 3}, {"2 x 1 x 300", deep, 300}, {"4100 x 4100 x 1", large, 4}};
    for (const auto &[what, saved, points] : volumes) {
        ops.push_back(loadOp("wzVolumeDumpLoad (" + what + ")", saved, wzVolumeDumpSave,
                             wzVolumeDumpLoad, wzVolumeRelease, atLeast(points)));
        ops.push_back(loadOp("wzVolumeDumpLoadWithSeparatePlanes (" + what + ")", saved,
                             wzVolumeDumpSave, wzVolumeDumpLoadWithSeparatePlanes,
                             wzVolumeReleaseWithSeparatePlanes, atLeast(points)));
    }
    sweepAll(ops);
    for (wzImage **img : {&image, &big}) wzImageRelease(img);
    for (wzMatrix **mx : {&m, &bigM}) wzMatrixRelease(mx);
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
            return wzMorvenTransfer(W, H, source.data(), out.data(), RW, RH, reference.data(),
                                    contrast, 255, 0.8f, 9.0f, 50.0f, 0.9f);
        };
    };
    const auto smooth = [&] {
        return wzMorvenSmooth(W, H, guide.data(), input.data(), out.data(), 2, 0.2f);
    };

    // Init: without support every later call refuses and touches nothing.
    long status = 0;
    sweep({"wzMorvenInit", [] {}, [&] { status = wzMorvenInit(); },
           [&](bool injected) {
               EXPECT_EQ(status, injected ? 1 : 0);
               if (!injected) return wzMorvenDispose();
               const Bytes untouched(out.size(), 0x2D);
               out = untouched;
               EXPECT_EQ(std::make_pair(transfer(1)(), smooth()), std::make_pair(1u, 1u));
               EXPECT_EQ(out, untouched);
           },
           exactly(8)});

    ASSERT_EQ(wzMorvenInit(), 0u);
    sweepAll({
        // The host's headers, profile and parameters, the filter's bundle,
        // then contrast's records, made after matching wrote its result.
        statusOp("wzMorvenTransfer (contrast)", {span(out)}, false, atLeast(4 + 4 + 2 + 1),
                 transfer(1), OnFailure::Untouched, {transfer(0)}),
        // Three headers and the parameter record, then smoothing's own.
        statusOp("wzMorvenSmooth", {span(out)}, false, atLeast(5), smooth),
    });
    wzMorvenDispose();
}

}  // namespace
