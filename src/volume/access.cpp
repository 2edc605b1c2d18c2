// Voxel-level operations: single reads, trilinear interpolation, fills,
// inversion, extremes over the region of interest, the non-zero bounding box,
// axis-aligned slices and the region copy between volumes. Each operation
// dispatches on the element type once and then walks plane by plane, row by
// row.
#include <cfloat>
#include <cstring>

#include "image/block_walks.hpp"
#include "morven/color.h"
#include "volume/volume_internal.hpp"

using namespace morven;

namespace {

// Element type codes above this one are never supported.
constexpr uint32_t kLastTypeCode = wzType64F;

bool supportedType(uint32_t type) { return type <= kLastTypeCode && isKnownType(type); }

// Bilinear value in one plane: along x in row iy, then (when fy != 0) along x
// in row iy + 1 and along y. Only neighbours with a non-zero fraction are read.
template <typename T>
double planeBilinear(const wzImage &plane, int32_t ix, int32_t iy, double fx, double fy) {
    const int64_t w = plane.width;
    const auto d = [&](int64_t i, int64_t j) { return loadAsDouble<T>(plane.data, j * w + i); };
    double a = d(ix, iy);
    if (fx != 0.0) a = a + fx * (d(int64_t{ix} + 1, iy) - a);
    if (fy != 0.0) {
        double b = d(ix, int64_t{iy} + 1);
        if (fx != 0.0) b = b + fx * (d(int64_t{ix} + 1, int64_t{iy} + 1) - b);
        a = a + fy * (b - a);
    }
    return a;
}

template <typename T>
void fillPlanes(wzVolume &v, T value) {
    const int64_t n = int64_t{v.width} * v.height;
    const int64_t size = n * static_cast<int64_t>(sizeof(T));
    for (int32_t z = 0; z < v.depth; ++z) fillElements<T>(planeVoxels(v, z, size), n, value);
}

// The extremes of the region of interest, plane by plane.
template <typename T>
void minMaxBox(const wzVolume &v, double &outMin, double &outMax) {
    const wzBox &b = v.roi;
    double mn = outMin, mx = outMax;
    const int64_t es = sizeof(T);
    const int64_t size = int64_t{v.width} * v.height * es;
    const int64_t rowGap = int64_t{v.width - b.width} * es;
    for (int32_t z = b.z; z < b.z + b.depth; ++z) {
        const uint8_t *p = planeVoxels(v, z, size) + (int64_t{b.y} * v.width + b.x) * es;
        extremesOfRows<T, ExtremeRule::Plain>(p, b.height, b.width, rowGap, mn, mx);
    }
    outMin = mn;
    outMax = mx;
}

// Bounding box of the non-zero voxels, row by row of every plane.
template <typename T>
bool nonZeroBox(const wzVolume &v, wzBox &box) {
    const int64_t size = planeBytes(v);
    box = wzBox{0, 0, 0, 0, 0, 0};
    if (size == 0) return false;  // empty planes, or a size no block can have
    NonZeroBounds b;
    for (int32_t z = 0; z < v.depth; ++z) {
        const uint8_t *row = planeVoxels(v, z, size);
        for (int32_t y = 0; y < v.height; ++y, row += int64_t{v.width} * int64_t{sizeof(T)})
            b.addRow<T>(row, v.width, y, z);
    }
    if (b.found)
        box = wzBox{
            b.minX, b.minY, b.minZ, b.maxX - b.minX + 1, b.maxY - b.minY + 1, b.maxZ - b.minZ + 1};
    return b.found;
}

// Copies the row (axis 1) or column (axis 0) slice element by element, out
// row by out row, reading each element through its plane's block.
template <typename T>
void copyCrossSlice(const wzVolume &v, int32_t axis, int32_t index, wzImage &out) {
    const int64_t es = sizeof(T);
    const int64_t w = v.width;
    uint8_t *o = out.data;
    if (axis == 1) {  // out (r, c) = voxel (r, index, c)
        for (int32_t r = 0; r < v.width; ++r)
            for (int32_t c = 0; c < v.depth; ++c, o += es)
                storeRaw<T>(o, loadElement<T>(v.planes[c]->data + (int64_t{index} * w + r) * es));
    } else {  // out (r, c) = voxel (index, c, r)
        for (int32_t r = 0; r < v.depth; ++r) {
            const uint8_t *p = v.planes[r]->data + int64_t{index} * es;
            for (int32_t c = 0; c < v.height; ++c, o += es, p += w * es)
                storeRaw<T>(o, loadElement<T>(p));
        }
    }
}

}  // namespace

extern "C" {

MORVEN_API double wzVolumeGetVal(const wzVolume *volume, const wzPoint *p) {
    if (volumeChannels(*volume) != 1) return 0.0;
    const int64_t i = int64_t{p->y} * volume->width + p->x;
    double v = 0.0;
    dispatchType(volume->type, [&](auto tag) {
        using T = typename decltype(tag)::T;
        v = loadAsDouble<T>(volume->planes[p->z]->data, i);
    });
    return v;
}

MORVEN_API double wzVolumeGetInterpolatedVal(const wzVolume *volume, const double pos[3]) {
    if (!supportedType(volume->type) || volumeChannels(*volume) != 1) return 0.0;
    const int32_t ix = truncSat32(pos[0]), iy = truncSat32(pos[1]), iz = truncSat32(pos[2]);
    const double fx = pos[0] - ix, fy = pos[1] - iy, fz = pos[2] - iz;
    double v = 0.0;
    dispatchType(volume->type, [&](auto tag) {
        using T = typename decltype(tag)::T;
        const double a = planeBilinear<T>(*volume->planes[iz], ix, iy, fx, fy);
        if (fz == 0.0) {
            v = a;
            return;
        }
        const double c = planeBilinear<T>(*volume->planes[iz + 1], ix, iy, fx, fy);
        v = a + fz * (c - a);
    });
    return v;
}

MORVEN_API double wzVolumeGetInterpolatedValPerPlane(const wzVolume *volume, const double pos[3]) {
    return wzVolumeGetInterpolatedVal(volume, pos);
}

MORVEN_API void wzVolumeSetVal(wzVolume *volume, double value) {
    if (!supportedType(volume->type) || !elementLevelUsable(*volume)) return;
    if (volume->width < 1 || volume->height < 1) return;
    dispatchType(volume->type, [&](auto tag) {
        using T = typename decltype(tag)::T;
        fillPlanes<T>(*volume, storeElement<T>(value));
    });
}

MORVEN_API void wzVolumeSetZero(wzVolume *volume) {
    const int64_t size = planeBytes(*volume);
    if (size <= 0 || volume->depth < 1 || !hasVoxels(*volume)) return;
    if (volume->voxels) {
        std::memset(volume->voxels, 0, static_cast<size_t>(size * volume->depth));
        return;
    }
    for (int32_t z = 0; z < volume->depth; ++z)
        std::memset(volume->planes[z]->data, 0, static_cast<size_t>(size));
}

MORVEN_API wzStatus wzVolumeInvert(const wzVolume *src, wzVolume *dst) {
    if (dst->width != src->width || dst->height != src->height || dst->depth != src->depth ||
        dst->type != src->type || src->type != wzType8U)
        return WZ_STATUS_ERROR;
    if (!elementLevelUsable(*src) || !elementLevelUsable(*dst)) return WZ_STATUS_ERROR;
    if (src->width < 1 || src->height < 1) return WZ_STATUS_OK;
    const int64_t n = int64_t{src->width} * src->height;
    // Byte by byte, so that dst may be src.
    for (int32_t z = 0; z < src->depth; ++z) {
        const uint8_t *s = planeVoxels(*src, z, n);
        uint8_t *d = planeVoxels(*dst, z, n);
        for (int64_t i = 0; i < n; ++i) d[i] = static_cast<uint8_t>(~s[i]);
    }
    return WZ_STATUS_OK;
}

MORVEN_API wzStatus wzVolumeGetMinMaxValues(const wzVolume *volume, double *min, double *max) {
    *min = DBL_MAX;
    *max = -DBL_MAX;
    if (!supportedType(volume->type) || !elementLevelUsable(*volume)) return WZ_STATUS_ERROR;
    const wzBox &b = volume->roi;
    if (b.depth < 1 || b.height < 1 || b.width < 1) return WZ_STATUS_OK;
    if (!boxInside(*volume, b.x, b.y, b.z, b.width, b.height, b.depth)) return WZ_STATUS_ERROR;
    dispatchType(volume->type, [&](auto tag) {
        using T = typename decltype(tag)::T;
        minMaxBox<T>(*volume, *min, *max);
    });
    return WZ_STATUS_OK;
}

MORVEN_API wzStatus wzVolumeGetNonZeroROI(const wzVolume *volume, wzBox *box, int32_t *empty) {
    *empty = 1;
    if (!supportedType(volume->type) || !elementLevelUsable(*volume)) return WZ_STATUS_ERROR;
    wzBox found{};
    bool any = false;
    dispatchType(volume->type, [&](auto tag) {
        using T = typename decltype(tag)::T;
        any = nonZeroBox<T>(*volume, found);
    });
    if (any) *empty = 0;
    *box = found;
    return WZ_STATUS_OK;
}

MORVEN_API wzStatus wzVolumeGetSlice(const wzVolume *volume, int32_t axis, int32_t index,
                                     wzImage *out) {
    if (out->encoding != wzEncodingGray || out->type != volume->type) return WZ_STATUS_ERROR;
    const wzVolume &v = *volume;
    int32_t outWidth = 0, outHeight = 0, count = 0;
    switch (axis) {
        case 2: outWidth = v.width, outHeight = v.height, count = v.depth; break;
        case 1: outWidth = v.depth, outHeight = v.width, count = v.height; break;
        case 0: outWidth = v.height, outHeight = v.depth, count = v.width; break;
        default: return WZ_STATUS_ERROR;
    }
    if (index < 0 || index >= count || out->width != outWidth || out->height != outHeight)
        return WZ_STATUS_ERROR;
    if (!supportedType(v.type) || volumeChannels(v) != 1) return WZ_STATUS_ERROR;
    const int64_t elements = int64_t{outWidth} * outHeight;
    if (elements <= 0) return WZ_STATUS_OK;
    if (!out->data) return WZ_STATUS_ERROR;
    if (axis == 2) {
        if (!v.planes[index]->data) return WZ_STATUS_ERROR;
        std::memcpy(out->data, v.planes[index]->data,
                    static_cast<size_t>(elements * elementSize(v.type)));
        return WZ_STATUS_OK;
    }
    if (!planesHaveBlocks(v)) return WZ_STATUS_ERROR;
    dispatchType(v.type, [&](auto tag) {
        using T = typename decltype(tag)::T;
        copyCrossSlice<T>(v, axis, index, *out);
    });
    return WZ_STATUS_OK;
}

MORVEN_API wzStatus wzCopy3D(const wzVolume *src, wzVolume *dst) {
    const wzBox &bs = src->roi;
    const wzBox &bd = dst->roi;
    if (bs.depth != bd.depth || bs.height != bd.height || bs.width != bd.width)
        return WZ_STATUS_ERROR;
    if (bs.depth < 1) return WZ_STATUS_OK;
    // Only the planes are checked against the volumes when a plane is empty.
    const int32_t w = bs.width > 0 ? bs.width : 0;
    const int32_t h = bs.height > 0 ? bs.height : 0;
    if (!boxInside(*src, bs.x, bs.y, bs.z, w, h, bs.depth) ||
        !boxInside(*dst, bd.x, bd.y, bd.z, w, h, bd.depth) || !planesHaveBlocks(*src) ||
        !planesHaveBlocks(*dst))
        return WZ_STATUS_ERROR;
    const wzRect rs{bs.x, bs.y, bs.width, bs.height};
    const wzRect rd{bd.x, bd.y, bd.width, bd.height};
    for (int32_t k = 0; k < bs.depth; ++k) {
        wzImage *sp = src->planes[bs.z + k];
        wzImage *dp = dst->planes[bd.z + k];
        const wzRect keepS = sp->roi, keepD = dp->roi;
        wzImageSetROI(sp, &rs);
        wzImageSetROI(dp, &rd);
        const wzStatus s = wzImageCvtColor(sp, dp);
        if (s != WZ_STATUS_OK) return s;
        // Reverse order, so a plane that is both source and destination gets
        // its own roi back.
        wzImageSetROI(dp, &keepD);
        wzImageSetROI(sp, &keepS);
    }
    return WZ_STATUS_OK;
}

}  // extern "C"
