// Walks over blocks of elements that the element-level operations of images
// (image/access.cpp) and volumes (volume/access.cpp) share: filling with one
// value, the extremes of a region and the bounding box of non-zero elements.
#pragma once

#include <cfloat>
#include <cstdint>
#include <cstring>

#include "image/image_internal.hpp"

namespace morven {

// n elements of type T from p set to v.
template <typename T>
void fillElements(uint8_t *p, int64_t n, T v) noexcept {
    if constexpr (sizeof(T) == 1) {
        std::memset(p, v, static_cast<size_t>(n));
    } else {
        for (int64_t i = 0; i < n; ++i, p += sizeof(T)) storeRaw<T>(p, v);
    }
}

// How a walk updates its extremes. Plain: the larger and the smaller value.
// PullBack (images): the update order is part of the result; an infinite
// extreme is pulled back to +-DBL_MAX by the next element, and the element
// that pulls the minimum back is not compared with it.
enum class ExtremeRule { Plain, PullBack };

// The extremes of `rows` rows of `cols` elements of type T from p, each row
// followed by rowGap bytes, folded into mn and mx.
template <typename T, ExtremeRule Rule>
void extremesOfRows(const uint8_t *p, int32_t rows, int32_t cols, ptrdiff_t rowGap, double &mn,
                    double &mx) noexcept {
    for (int32_t y = 0; y < rows; ++y, p += rowGap) {
        for (int32_t x = 0; x < cols; ++x, p += sizeof(T)) {
            const double v = static_cast<double>(loadElement<T>(p));
            if constexpr (Rule == ExtremeRule::Plain) {
                if (v > mx) mx = v;
                if (v < mn) mn = v;
            } else {
                if (v > mx)
                    mx = v;
                else if (mx > DBL_MAX)
                    mx = DBL_MAX;
                if (mn < -DBL_MAX)
                    mn = -DBL_MAX;
                else if (v < mn)
                    mn = v;
            }
        }
    }
}

// The bounding box of the non-zero elements seen, grown row by row.
struct NonZeroBounds {
    int32_t minX = INT32_MAX, minY = INT32_MAX, minZ = INT32_MAX;
    int32_t maxX = -INT32_MAX, maxY = -INT32_MAX, maxZ = -INT32_MAX;
    bool found = false;

    // Row y of plane z: w elements of type T.
    template <typename T>
    void addRow(const uint8_t *row, int32_t w, int32_t y, int32_t z) noexcept {
        int32_t first = 0, last = 0;
        if (!nonZeroSpan<T>(row, w, first, last)) return;
        found = true;
        if (first < minX) minX = first;
        if (last > maxX) maxX = last;
        if (y < minY) minY = y;
        if (y > maxY) maxY = y;
        if (z < minZ) minZ = z;
        if (z > maxZ) maxZ = z;
    }
};

}  // namespace morven
