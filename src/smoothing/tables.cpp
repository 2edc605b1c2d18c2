// The tables of selective smoothing: the support object with its difference
// and ratio matrices, and the per-call integer view of them that the passes
// read (smoothing_internal.hpp).
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "common/memory.hpp"
#include "morven/matrix.h"
#include "smoothing/smoothing_internal.hpp"

using namespace morven;

namespace morven {

bool buildPairTables(const wzSelectiveSmoothSupport &support, int32_t t, PairTables &out) {
    const wzMatrix *ad = support.absDiff;
    const wzMatrix *ra = support.ratio;
    if (!ad || !ra || ad->nRows < kLevels || ad->nCols < kLevels || ra->nRows < kLevels ||
        ra->nCols < kLevels)
        return false;
    const int32_t cap = t < kLevels ? t : kLevels;
    for (int32_t i = 0; i < kLevels; ++i) {
        const double *row = ad->rowPtr[i];
        for (int32_t j = 0; j < kLevels; ++j) {
            const double v = row[j];
            if (!(v >= 0.0 && v < 256.0)) return false;
            const auto d = static_cast<uint8_t>(static_cast<int32_t>(v));
            uint8_t &slot = out.valueDiff[i - j + kLevels - 1];
            // Row 0 and column 0 set every diagonal first; the rest must agree.
            if (i == 0 || j == 0)
                slot = d;
            else if (slot != d)
                return false;
        }
    }
    for (int32_t k = 0; k < 2 * kLevels - 1; ++k)
        out.guideDiff[k] = static_cast<uint8_t>(out.valueDiff[k] < cap ? out.valueDiff[k] : cap);
    out.accept = allocArray<uint8_t>(int64_t{cap + 1} * kLevels);
    if (!out.accept) return false;
    uint8_t *accept = out.accept.get();
    for (int32_t d = 0; d <= cap; ++d) {
        uint8_t *dst = accept + d * kLevels;
        if (d == cap) {  // d >= t
            std::memset(dst, 0, kLevels);
            continue;
        }
        const double *row = ra->rowPtr[d];
        dst[0] = 0;
        for (int32_t e = 1; e < kLevels; ++e) dst[e] = row[e] < 0.5 ? 1 : 0;
    }
    return true;
}

bool closedFormHolds(const PairTables &tables, int32_t t) {
    for (int32_t k = 0; k < 2 * kLevels - 1; ++k)
        if (tables.valueDiff[k] != std::abs(k - (kLevels - 1))) return false;
    const uint8_t *accept = tables.accept.get();
    const int32_t cap = t < kLevels ? t : kLevels;
    for (int32_t d = 0; d < cap; ++d)
        for (int32_t e = 0; e < kLevels; ++e)
            if (accept[d * kLevels + e] != (e > 2 * d ? 1 : 0)) return false;
    return true;
}

}  // namespace morven

extern "C" {

MORVEN_API wzSelectiveSmoothSupport *wzSelectiveSmoothSupportCreate(void) {
    FreePtr<wzSelectiveSmoothSupport> s = allocZeroed<wzSelectiveSmoothSupport>();
    if (!s) return nullptr;
    s->absDiff = wzMatrixCreate(kLevels, kLevels);
    if (!s->absDiff) return nullptr;
    for (int32_t i = 0; i < kLevels; ++i) {
        double *row = s->absDiff->rowPtr[i];
        for (int32_t j = 0; j < kLevels; ++j) row[j] = static_cast<double>(std::abs(i - j));
    }
    s->ratio = wzMatrixCreate(kLevels, kLevels);
    if (!s->ratio) {
        wzMatrixRelease(&s->absDiff);
        return nullptr;
    }
    // Column 0 keeps the zero of creation: a / 0 is never formed.
    for (int32_t a = 0; a < kLevels; ++a) {
        double *row = s->ratio->rowPtr[a];
        for (int32_t b = 1; b < kLevels; ++b)
            row[b] = static_cast<double>(std::fabs(static_cast<float>(a) / static_cast<float>(b)));
    }
    return s.release();
}

MORVEN_API void wzSelectiveSmoothSupportRelease(wzSelectiveSmoothSupport **support) {
    releaseRecord(support, [](wzSelectiveSmoothSupport &s) {
        wzMatrixRelease(&s.absDiff);
        wzMatrixRelease(&s.ratio);
    });
}

}  // extern "C"
