// Histogram matching at 16-bit precision (see deep.hpp).
#include "histogram/deep.hpp"

#include <cstring>

#include "common/cancel.hpp"
#include "histogram/match_internal.hpp"
#include "image/extension_support.hpp"
#include "image/image_internal.hpp"

namespace morven::deep {

namespace {

constexpr double kTop = kLevels - 1;

// The levels a bin spans.
inline void binEdges(int size, int k, double &lo, double &hi) noexcept {
    if (size == kLevels) {
        lo = k - 0.5;
        hi = k + 0.5;
        return;
    }
    lo = 257.0 * k - 128.5;
    hi = 257.0 * k + 128.5;
    if (lo < -0.5) lo = -0.5;
    if (hi > kTop + 0.5) hi = kTop + 0.5;
}

double total(Bins b) noexcept {
    double sum = 0.0;
    for (int k = 0; k < b.size; ++k) sum += b.count[k];
    return sum;
}

// Walks the target's cumulative distribution upward: the level at a share q
// (in target counts), for shares that never decrease from call to call.
class TargetWalk {
public:
    explicit TargetWalk(Bins t) noexcept : t_(t) {
        double lo = 0.0;
        for (int k = t.size - 1; k >= 0; --k)
            if (t.count[k] > 0.0) {
                binEdges(t.size, k, lo, tail_);
                break;
            }
    }
    // The level at share q: from above, a share that ends one bin's mass
    // lies at the start of the next occupied bin; from below, at the end of
    // the bin it completes.
    double at(double q, bool fromBelow) noexcept {
        while (j_ < t_.size && (fromBelow ? before_ + t_.count[j_] < q || t_.count[j_] == 0.0
                                          : before_ + t_.count[j_] <= q))
            before_ += t_.count[j_++];
        if (j_ == t_.size) return tail_;
        double lo, hi;
        binEdges(t_.size, j_, lo, hi);
        return lo + (q - before_) / t_.count[j_] * (hi - lo);
    }

private:
    Bins t_;
    int j_ = 0;
    double before_ = 0.0;  // target count below bin j_
    double tail_ = 0.0;    // the top of the highest occupied bin
};

// Curve of the plain match: source level u -> target level at the same
// cumulative share (the source spread evenly over each bin). With edges,
// also where the two ends of bin u go, as offsets from m[u]: the start of
// the bin from above, its end from below.
void matchLevels(Bins s, Bins t, double ratio, double *m, float *lowerOffset,
                 float *upperOffset) noexcept {
    TargetWalk centre(t), lower(t), upper(t);
    int sb = 0;            // source bin of u
    double sBefore = 0.0;  // source count below bin sb
    for (int u = 0; u < kLevels; ++u) {
        const int bin = s.size == kLevels ? u : (u + 128) / 257;
        for (; sb < bin; ++sb) sBefore += s.count[sb];
        double lo, hi;
        binEdges(s.size, bin, lo, hi);
        const double below = sBefore + s.count[bin] * ((u - lo) / (hi - lo));
        m[u] = centre.at(below * ratio, false);
        if (lowerOffset) {
            lowerOffset[u] = static_cast<float>(lower.at(sBefore * ratio, false) - m[u]);
            upperOffset[u] =
                static_cast<float>(upper.at((sBefore + s.count[bin]) * ratio, true) - m[u]);
        }
    }
}

// Bounds the slope to s levels per level: the mean of the curve cut down
// from below (each entry at most s above its left neighbour) and the curve
// pushed up from above (each entry at least its right neighbour less s).
// Both keep the order of the entries, and so does their mean.
void limitSlope(double *m, double *down, double s) noexcept {
    down[0] = m[0];
    for (int i = 1; i < kLevels; ++i) down[i] = m[i] < down[i - 1] + s ? m[i] : down[i - 1] + s;
    for (int i = kLevels - 2; i >= 0; --i) m[i] = m[i] > m[i + 1] - s ? m[i] : m[i + 1] - s;
    for (int i = 0; i < kLevels; ++i) m[i] = 0.5 * (m[i] + down[i]);
}

// The fidelity smoothing of the 8-bit table on the 16-bit scale: a moving
// average of radius r levels (shortened at the ends), made non-decreasing,
// blended in with weight u / 65535 (for a chroma plane, with a weight that
// grows from 0 at neutral to 1 at either end). The window sums come from
// prefix sums of the unsmoothed curve, so the curve can be overwritten as the
// pass goes.
void smoothCurve(double *m, double *prefix, int32_t r, bool chroma) noexcept {
    prefix[0] = 0.0;  // prefix[i] = m[0] + ... + m[i - 1]
    for (int i = 1; i < kLevels; ++i) prefix[i] = prefix[i - 1] + m[i - 1];
    const double all = prefix[kLevels - 1] + m[kLevels - 1];
    double runningMax = 0.0;
    for (int i = 0; i < kLevels; ++i) {
        const int lo = i - r < 0 ? 0 : i - r;
        const int hi = i + r > kLevels - 1 ? kLevels - 1 : i + r;
        const double upper = hi + 1 < kLevels ? prefix[hi + 1] : all;
        const double mean = (upper - prefix[lo]) / (hi - lo + 1);
        runningMax = i == 0 || mean > runningMax ? mean : runningMax;
        const double w =
            chroma ? (i > kTop / 2 ? i - kTop / 2 : kTop / 2 - i) / (kTop / 2) : i / kTop;
        m[i] = m[i] * (1.0 - w) + runningMax * w;
    }
}

}  // namespace

bool buildCurve(Bins source, Bins target, const CurveShape &shape, double *scratch, float *centre,
                float *lower, float *upper) noexcept {
    const double ns = total(source), nt = total(target);
    if (!(ns > 0.0) || !(nt > 0.0)) return false;
    double *m = scratch;
    double *work = scratch + kLevels;
    matchLevels(source, target, nt == ns ? 1.0 : nt / ns, m, lower, upper);
    if (shape.maxStep <= 254) limitSlope(m, work, shape.maxStep < 0 ? 0.0 : shape.maxStep);
    if (shape.fidelity < 1.0f) {
        const int32_t r = smoothingRadius(shape.fidelity) * 257;
        if (r > 0) smoothCurve(m, work, r, shape.chroma);
    }
    const double s = shape.strength < 1.0f ? shape.strength : 1.0;
    const auto clamp = [](double v) {
        return static_cast<float>(v > 0.0 ? (v < kTop ? v : kTop) : 0.0);
    };
    for (int u = 0; u < kLevels; ++u) {
        const double c = s * m[u] + (1.0 - s) * u;
        centre[u] = clamp(c);
        if (lower) {
            // The bin's ends keep their offsets from the centre, blended with
            // the identity's (half a level each way) as the centre is.
            lower[u] = clamp(c + (s * lower[u] - (1.0 - s) * 0.5));
            upper[u] = clamp(c + (s * upper[u] + (1.0 - s) * 0.5));
        }
    }
    return true;
}

wzStatus countLevels(const wzImage &image, const wzImage *mask, int32_t space,
                     const WorkingSpace &ws, double (*bins)[kLevels], float *rowPlanes,
                     const uint32_t *cancel) noexcept {
    const PixelLayout layout = pixelLayout(image);
    const int32_t rows = image.roi.height, cols = image.roi.width;
    const int channels = layout.gray ? 1 : 3;
    const MaskRows maskRows(mask);
    Cursor c = regionCursor(image);
    const size_t n = static_cast<size_t>(cols);
    float *const planes[3] = {rowPlanes, rowPlanes + n, rowPlanes + 2 * n};
    const uint32_t scale = layout.wide ? 1 : 257;
    for (int32_t y = 0; y < rows; ++y, c.p += c.step * cols + c.gap) {
        if (cancelRequested(cancel)) return WZ_STATUS_CANCELLED;
        const uint8_t *selected = maskRows.row(y);
        if (space == wzSpaceChannels) {
            const uint8_t *p = c.p;
            for (int32_t x = 0; x < cols; ++x, p += c.step) {
                if (selected && !selected[x]) continue;
                for (int k = 0; k < channels; ++k) {
                    const uint32_t v =
                        layout.wide ? loadElement<uint16_t>(p + layout.c[k]) : p[layout.c[k]];
                    bins[2 - k][v * scale] += 1.0;
                }
            }
            continue;
        }
        ws.forward(c.p, layout, n, planes);
        for (int k = 0; k < 3; ++k) {  // a gray pixel has the chroma of gray
            double *out = bins[2 - k];
            const float *w = planes[k];
            for (int32_t x = 0; x < cols; ++x) {
                if (selected && !selected[x]) continue;
                const float v = w[x];
                const int32_t level =
                    // NOLINTNEXTLINE(bugprone-incorrect-roundings): non-negative, rounds half up
                    v > 0.0f ? (v < 65535.0f ? static_cast<int32_t>(v + 0.5f) : 65535) : 0;
                out[level] += 1.0;
            }
        }
    }
    if (channels == 1 && space == wzSpaceChannels) {
        std::memcpy(bins[1], bins[2], sizeof bins[2]);
        std::memcpy(bins[0], bins[2], sizeof bins[2]);
    }
    return WZ_STATUS_OK;
}

namespace {

// Curve value at a fractional level: from the nearest level's entry toward
// the end of its bin on the side of u, linearly.
inline float curveAt(const Curve &curve, float u) noexcept {
    u = u > 0.0f ? (u < 65535.0f ? u : 65535.0f) : 0.0f;
    // NOLINTNEXTLINE(bugprone-incorrect-roundings): non-negative, rounds half up
    const int k = static_cast<int>(u + 0.5f);
    const float d = u - static_cast<float>(k);  // -0.5 .. 0.5
    const float c = curve.centre[k];
    return d < 0.0f ? c + (-2.0f * d) * (curve.lower[k] - c)
                    : c + (2.0f * d) * (curve.upper[k] - c);
}

}  // namespace

wzStatus applyCurves(const Curve *const curves[3], int32_t space, const WorkingSpace &ws,
                     const wzImage &source, wzImage &destination, float *rowPlanes,
                     const uint32_t *cancel) noexcept {
    const PixelLayout ls = pixelLayout(source), ld = pixelLayout(destination);
    const int32_t rows = source.roi.height, cols = source.roi.width;
    const int channels = ls.gray ? 1 : 3;
    Cursor s = regionCursor(source), d = regionCursor(destination);
    const size_t n = static_cast<size_t>(cols);
    float *const planes[3] = {rowPlanes, rowPlanes + n, rowPlanes + 2 * n};
    for (int32_t y = 0; y < rows; ++y) {
        if (cancelRequested(cancel)) return WZ_STATUS_CANCELLED;
        if (space == wzSpaceChannels) {
            // 16-bit samples (8-bit ones go through a byte table instead).
            const uint8_t *p = s.p;
            uint8_t *q = d.p;
            for (int32_t x = 0; x < cols; ++x, p += s.step, q += d.step) {
                uint16_t out[3];
                for (int k = 0; k < channels; ++k) {
                    const uint16_t v = loadElement<uint16_t>(p + ls.c[k]);
                    // NOLINTNEXTLINE(bugprone-incorrect-roundings): non-negative, rounds half up
                    out[k] = curves[k] ? static_cast<uint16_t>(curves[k]->centre[v] + 0.5f) : v;
                }
                for (int k = 0; k < channels; ++k) storeRaw<uint16_t>(q + ld.c[k], out[k]);
            }
        } else {
            ws.forward(s.p, ls, n, planes);
            for (int k = 0; k < 3; ++k) {
                if (!curves[k]) continue;
                float *w = planes[k];
                for (size_t x = 0; x < n; ++x) w[x] = curveAt(*curves[k], w[x]);
            }
            ws.inverse(planes, ld, n, d.p);
        }
        s.p += s.step * cols + s.gap;
        d.p += d.step * cols + d.gap;
    }
    return WZ_STATUS_OK;
}

void curvesToTable8(const Curve *const curves[3], uint8_t table[768]) noexcept {
    for (int k = 0; k < 3; ++k)
        for (int v = 0; v < 256; ++v) {
            const float level =
                curves[k] ? curves[k]->centre[257 * v] : static_cast<float>(257 * v);
            // NOLINTNEXTLINE(bugprone-incorrect-roundings): non-negative, rounds half up
            table[256 * k + v] = static_cast<uint8_t>(level / 257.0f + 0.5f);
        }
}

}  // namespace morven::deep
