// The row-pipelined pass of selective smoothing, with the row kernels of a
// kernel table (kernels/smooth*.cpp compute one row of one pass).
//
// Passes are row-pipelined instead of running over whole planes: level k
// holds the values after k passes, and row r of level k is made as soon as
// rows r - 1 .. r + 1 of level k - 1 exist. Each level keeps three rows of
// values x and of u = x - g in rings, the guide keeps levels + 1 rows, and a
// row of the output is written as soon as the last level has made it. So a
// call touches a few rows per level besides the images themselves, instead
// of image-sized working planes, whose first touch alone costs about as much
// as the whole pass. Up to kMaxLevels passes, the three channels advance
// side by side over one read of each image row; more passes go channel after
// channel through a plane, kMaxLevels at a time.
//
// The cancel flag is read at the step where the passes start to make their
// first row, before any row of the output is written: a flag set then ends
// the call with nothing written (with more than kMaxLevels passes, the
// channels finished before stay written).
#include <algorithm>
#include <cstring>
#include <utility>

#include "common/cancel.hpp"
#include "image/image_internal.hpp"
#include "smoothing/smoothing_internal.hpp"

using namespace morven;

namespace {

constexpr int32_t kMaxLevels = 8;

// One channel of an 8-bit image (or a plane): element (i, y) at
// data[y * rowStep + i * pixelStep + offset]. Sources are only read.
struct ChannelRows {
    uint8_t *data;
    ptrdiff_t offset, pixelStep, rowStep;
};

ChannelRows channelRows(const wzImage &img, int32_t channel) {
    const ptrdiff_t step = pixelStride(img);
    return {img.data, channelOffset(img.encoding, channel), step, step * img.width};
}

// The rows of one channel's pipeline, each pointer at element 0 of a row
// with kSmoothPad guard elements either side.
struct Pipeline {
    uint8_t *g[kMaxLevels + 1];         // guide ring
    uint8_t *x[kMaxLevels + 1][3];      // values after k passes, ring of 3
    int16_t *u[kMaxLevels + 1][3];      // their x - g
    uint8_t *masks[kMaxLevels + 1][2];  // pair masks of levels 1.., current and previous row
};

struct Run {
    const Kernels &k;
    int32_t w, h;
    uint8_t tc;       // min(t, 128): no pair with d >= 128 passes e > 2d
    size_t rowBytes;  // bytes of one guarded byte row
};

void readRow(const Run &run, const ChannelRows &v, int32_t y, uint8_t *dst) {
    const uint8_t *px = v.data + y * v.rowStep;
    if (v.pixelStep == 1)
        std::memcpy(dst, px + v.offset, static_cast<size_t>(run.w));
    else
        run.k.readChannel(px, static_cast<int32_t>(v.pixelStep), v.offset, dst, run.w);
}

void writeRow(const Run &run, const ChannelRows &v, int32_t y, const uint8_t *src) {
    uint8_t *px = v.data + y * v.rowStep;
    if (v.pixelStep == 1)
        std::memcpy(px + v.offset, src, static_cast<size_t>(run.w));
    else
        run.k.writeChannel(src, px, static_cast<int32_t>(v.pixelStep), v.offset, run.w);
}

void prefetchRow(const ChannelRows &v, int32_t y, int32_t w) {
    const uint8_t *px = v.data + y * v.rowStep;
    const ptrdiff_t bytes = w * v.pixelStep;
    for (ptrdiff_t b = 0; b < bytes; b += 64) __builtin_prefetch(px + b);
}

// Rows of a pipeline of `levels` levels, in 64-byte aligned rows.
// NOLINTNEXTLINE(bugprone-misplaced-widening-cast): levels is at most kMaxLevels
size_t pipelineRows(int32_t levels) { return static_cast<size_t>(10 * (levels + 1) + 8 * levels); }

void carvePipeline(const Run &run, int32_t levels, uint8_t *&at, Pipeline &p) {
    auto take = [&](size_t rows) {
        uint8_t *row = at + kSmoothPad;
        at += rows * run.rowBytes;
        return row;
    };
    for (int32_t k = 0; k <= levels; ++k) {
        p.g[k] = take(1);
        for (int32_t s = 0; s < 3; ++s) {
            p.x[k][s] = take(1);
            p.u[k][s] =
                reinterpret_cast<int16_t *>(take(2)) + kSmoothPad / 2;  // kSmoothPad elements in
        }
        if (k > 0) {
            p.masks[k][0] = take(4);
            p.masks[k][1] = take(4);
        }
    }
}

// Before a run: no previous row of masks.
void resetPipeline(const Run &run, Pipeline &p, int32_t levels) {
    for (int32_t k = 1; k <= levels; ++k)
        std::memset(p.masks[k][1] - kSmoothPad, 0, 4 * run.rowBytes);
}

// The job that makes row r of level k (1 <= k <= levels) from level k - 1.
SmoothRow rowJob(const Run &run, const Pipeline &p, int32_t levels, int32_t k, int32_t r) {
    const bool last = r + 1 == run.h;
    const int32_t ring = levels + 1;
    SmoothRow j;
    j.gB = p.g[r % ring];
    j.gC = last ? nullptr : p.g[(r + 1) % ring];
    j.xB = p.x[k - 1][r % 3];
    j.xC = last ? j.xB : p.x[k - 1][(r + 1) % 3];
    j.uB = p.u[k - 1][r % 3];
    j.uA = r > 0 ? p.u[k - 1][(r + 2) % 3] : j.uB;
    j.uC = last ? j.uB : p.u[k - 1][(r + 1) % 3];
    j.prevMasks = p.masks[k][1];
    j.curMasks = p.masks[k][0];
    j.maskStride = static_cast<ptrdiff_t>(run.rowBytes);
    j.xOut = p.x[k][r % 3];
    j.uOut = k < levels ? p.u[k][r % 3] : nullptr;
    j.w = run.w;
    j.tc = run.tc;
    return j;
}

// Step s of a run of `levels` passes from src to dst: reads row s, makes row
// s - k of each level k, writes row s - levels. Row s of the source is read
// before row s - levels of the destination is written, so the destination
// may be the source itself.
void pipelineStep(const Run &run, Pipeline &p, int32_t levels, const ChannelRows &guide,
                  const ChannelRows &src, const ChannelRows &dst, int32_t s) {
    const int32_t w = run.w, h = run.h;
    // The next source rows are fetched while this step computes, instead of
    // stalling the next step's reads.
    if (s + 1 < h) {
        prefetchRow(guide, s + 1, w);
        prefetchRow(src, s + 1, w);
    }
    if (s < h) {
        uint8_t *g = p.g[s % (levels + 1)], *x = p.x[0][s % 3];
        int16_t *u = p.u[0][s % 3];
        readRow(run, guide, s, g);
        readRow(run, src, s, x);
        for (int32_t i = 0; i < w; ++i) u[i] = static_cast<int16_t>(x[i] - g[i]);
    }
    for (int32_t k = 1; k <= levels; ++k) {
        const int32_t r = s - k;
        if (r < 0 || r >= h) continue;
        run.k.smoothRow(rowJob(run, p, levels, k, r));
        std::swap(p.masks[k][0], p.masks[k][1]);
    }
    const int32_t r = s - levels;
    if (r >= 0 && r < h) writeRow(run, dst, r, p.x[levels][r % 3]);
}

// `levels` passes over `count` channels side by side, channel c from src[c]
// to dst[c] guided by guide[c]. Pass k makes its first row at step k, before
// any row of dst is written (at steps levels and on): the flag is read there.
wzStatus runLevels(const Run &run, Pipeline *pipes, int32_t count, int32_t levels,
                   const ChannelRows *guide, const ChannelRows *src, const ChannelRows *dst,
                   const uint32_t *cancel) {
    for (int32_t c = 0; c < count; ++c) resetPipeline(run, pipes[c], levels);
    for (int32_t s = 0; s < run.h + levels; ++s) {
        if (s >= 1 && s <= levels && cancelRequested(cancel)) return WZ_STATUS_CANCELLED;
        for (int32_t c = 0; c < count; ++c)
            pipelineStep(run, pipes[c], levels, guide[c], src[c], dst[c], s);
    }
    return WZ_STATUS_OK;
}

// Whether `img` may be read row by row while `out` is written: the same
// block with the same layout, or no common byte.
bool rowSafe(const wzImage &img, const wzImage &out) {
    const auto a = reinterpret_cast<uintptr_t>(img.data), b = reinterpret_cast<uintptr_t>(out.data);
    if (a == b) return img.encoding == out.encoding;
    const auto na = static_cast<uintptr_t>(blockElements(img)),
               nb = static_cast<uintptr_t>(blockElements(out));
    return a + na <= b || b + nb <= a;
}

// Channel after channel through a plane, kMaxLevels passes at a time. Only
// the last run of a channel writes the output, so a cancellation leaves the
// channel in progress untouched.
wzStatus smoothThroughPlane(const Run &run, Pipeline &pipe, uint8_t *plane, int32_t passes,
                            const wzImage &guide, const wzImage &input, const wzImage &output,
                            const uint32_t *cancel) {
    const ChannelRows planeRows{plane, 0, 1, run.w};
    for (int32_t c = 1; c <= 3; ++c) {
        const ChannelRows gv = channelRows(guide, c), ov = channelRows(output, c);
        ChannelRows src = channelRows(input, c);
        for (int32_t done = 0; done < passes;) {
            const int32_t n = std::min(passes - done, kMaxLevels);
            const ChannelRows &dst = done + n == passes ? ov : planeRows;
            const wzStatus status = runLevels(run, &pipe, 1, n, &gv, &src, &dst, cancel);
            if (status != WZ_STATUS_OK) return status;
            src = planeRows;
            done += n;
        }
    }
    return WZ_STATUS_OK;
}

}  // namespace

namespace morven {

bool pipelineFits(const wzImage &guide, const wzImage &input, const wzImage &output) {
    return input.width < INT32_MAX - 256 && input.height < INT32_MAX - 2 * kMaxLevels &&
           rowSafe(guide, output) && rowSafe(input, output);
}

wzStatus smoothPipelined(const Kernels &kernels, int32_t t, int32_t passes, const wzImage &guide,
                         const wzImage &input, const wzImage &output, const uint32_t *cancel) {
    const int32_t w = input.width, h = input.height;
    const int32_t levels = std::min(passes, kMaxLevels);
    const size_t rounded = (static_cast<size_t>(w) + 63) & ~static_cast<size_t>(63);
    const Run run{kernels, w, h, static_cast<uint8_t>(std::min(t, 128)), rounded + 2 * kSmoothPad};
    const bool sideBySide = passes <= kMaxLevels;
    const int32_t pipes = sideBySide ? 3 : 1;
    // Zeroed: the guard elements of the mask rows must read as no pair.
    FreePtr<uint8_t> block = allocZeroedArray<uint8_t>(
        static_cast<int64_t>(pipes * pipelineRows(levels) * run.rowBytes + 64));
    FreePtr<uint8_t> plane = sideBySide ? nullptr : allocArray<uint8_t>(int64_t{w} * h);
    if (!block || (!sideBySide && !plane)) return WZ_STATUS_ERROR;
    uint8_t *at = block.get() + (-reinterpret_cast<uintptr_t>(block.get()) & 63);
    Pipeline pl[3];
    for (int32_t c = 0; c < pipes; ++c) carvePipeline(run, levels, at, pl[c]);
    if (!sideBySide)
        return smoothThroughPlane(run, pl[0], plane.get(), passes, guide, input, output, cancel);
    ChannelRows gv[3], xv[3], ov[3];
    for (int32_t c = 0; c < 3; ++c) {
        gv[c] = channelRows(guide, c + 1);
        xv[c] = channelRows(input, c + 1);
        ov[c] = channelRows(output, c + 1);
    }
    return runLevels(run, pl, 3, levels, gv, xv, ov, cancel);
}

}  // namespace morven
