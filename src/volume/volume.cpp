// The volume record: creation and release in its three kinds (header-only,
// contiguous, separate planes), data assignment, size and region of interest,
// the 32-bit-pointer layout, and element-type conversion plane by plane.
#include <cstdlib>

#include "common/memory.hpp"
#include "volume/volume_internal.hpp"

using namespace morven;

namespace {

// Frees the plane headers from the last to the first with the given image
// release, then the plane table.
void freePlanes(wzVolume &v, void (*releasePlane)(wzImage **)) {
    if (!v.planes) return;
    for (int32_t k = v.depth - 1; k >= 0; --k) releasePlane(&v.planes[k]);
    std::free(v.planes);
}

// Frees the volume (planes, table and record), nulling the pointer.
void releaseVolume(wzVolume **v, void (*releasePlane)(wzImage **)) {
    releaseRecord(v, [releasePlane](wzVolume &x) { freePlanes(x, releasePlane); });
}

// Points plane k at block + k * plane size.
void layOutPlanes(wzVolume &v, uint8_t *block) {
    v.voxels = block;
    if (v.depth < 1) return;
    const int64_t size = planeBytes(v);
    for (int32_t k = 0; k < v.depth; ++k) v.planes[k]->data = block ? block + k * size : nullptr;
}

// Contiguous volume: a header and one zeroed block of planeBytes * depth.
wzVolume *createContiguous(int32_t width, int32_t height, int32_t depth, uint32_t type,
                           uint32_t encoding) {
    wzVolume *v = wzVolumeCreateHeaderWithTypeAndEncoding(width, height, depth, type, encoding);
    if (!v) return nullptr;
    int64_t bytes = 0;
    FreePtr<uint8_t> block;
    if (checkedMul(planeBytes(*v), depth, bytes) && static_cast<uint64_t>(bytes) <= PTRDIFF_MAX)
        block = allocZeroedArray<uint8_t>(bytes);  // one byte at least: an empty volume is a volume
    if (!block) {
        releaseVolume(&v, wzImageReleaseHeader);
        return nullptr;
    }
    layOutPlanes(*v, block.release());
    return v;
}

template <typename PlaneFn>
wzStatus forEachPlane(const wzVolume &src, wzVolume &dst, PlaneFn convert) {
    for (int32_t k = 0; k < src.depth; ++k) {
        const wzStatus s = convert(src.planes[k], dst.planes[k]);
        if (s != WZ_STATUS_OK) return s;
    }
    return WZ_STATUS_OK;
}

}  // namespace

namespace morven {

wzVolume *wzVolumeCreateHeaderWithTypeAndEncoding(int32_t width, int32_t height, int32_t depth,
                                                  uint32_t type, uint32_t encoding) {
    if (width < 0 || height < 0 || depth < 0) return nullptr;
    FreePtr<wzVolume> v = allocZeroed<wzVolume>();
    if (!v) return nullptr;
    v->type = type;
    v->depth = depth;
    v->width = width;
    v->height = height;
    v->roi = wzBox{0, 0, 0, width, height, depth};
    // One entry at least, so that a volume without planes is still a volume.
    v->planes = allocZeroedArray<wzImage *>(depth).release();
    if (!v->planes) return nullptr;
    wzVolume *out = v.release();
    for (int32_t k = 0; k < depth; ++k) {
        out->planes[k] = wzImageCreateHeaderWithType(width, height, encoding, type);
        if (!out->planes[k]) {
            // Entries k .. depth-1 are still null: releasing them is a no-op.
            releaseVolume(&out, wzImageReleaseHeader);
            return nullptr;
        }
    }
    return out;
}

}  // namespace morven

extern "C" {

MORVEN_API wzVolume *wzVolumeCreateHeader(int32_t width, int32_t height, int32_t depth) {
    return wzVolumeCreateHeaderWithTypeAndEncoding(width, height, depth, wzType8U, wzEncodingGray);
}

MORVEN_API wzVolume *wzVolumeCreateHeaderWithType(int32_t width, int32_t height, int32_t depth,
                                                  uint32_t type) {
    return wzVolumeCreateHeaderWithTypeAndEncoding(width, height, depth, type, wzEncodingGray);
}

MORVEN_API wzVolume *wzVolumeCreateHeaderWithEncoding(int32_t width, int32_t height, int32_t depth,
                                                      uint32_t encoding) {
    if (!isValidEncoding(encoding)) return nullptr;
    return wzVolumeCreateHeaderWithTypeAndEncoding(width, height, depth, wzType8U, encoding);
}

MORVEN_API void wzVolumeAssignData(wzVolume *volume, void *block) {
    layOutPlanes(*volume, static_cast<uint8_t *>(block));
}

MORVEN_API wzVolume *wzVolumeCreateWithType(int32_t width, int32_t height, int32_t depth,
                                            uint32_t type) {
    return createContiguous(width, height, depth, type, wzEncodingGray);
}

MORVEN_API wzVolume *wzVolumeCreate(int32_t width, int32_t height, int32_t depth) {
    return createContiguous(width, height, depth, wzType8U, wzEncodingGray);
}

MORVEN_API wzVolume *wzVolumeCreateWithEncoding(int32_t width, int32_t height, int32_t depth,
                                                uint32_t encoding) {
    if (!isValidEncoding(encoding)) return nullptr;
    return createContiguous(width, height, depth, wzType8U, encoding);
}

MORVEN_API wzVolume *wzVolumeCreateAs(const wzVolume *model) {
    return createContiguous(model->width, model->height, model->depth, model->type, wzEncodingGray);
}

MORVEN_API wzVolume *wzVolumeCreateWithTypeWithSeparatePlanes(int32_t width, int32_t height,
                                                              int32_t depth, uint32_t type) {
    wzVolume *v =
        wzVolumeCreateHeaderWithTypeAndEncoding(width, height, depth, type, wzEncodingGray);
    if (!v) return nullptr;
    for (int32_t k = 0; k < depth; ++k) {
        wzImage *plane = wzImageCreateWithType(width, height, wzEncodingGray, type);
        if (!plane) {
            // Planes before k own blocks, the rest are bare headers (null data):
            // wzImageRelease frees exactly what each holds.
            releaseVolume(&v, wzImageRelease);
            return nullptr;
        }
        v->planes[k]->data = plane->data;
        wzImageReleaseHeader(&plane);
    }
    return v;
}

MORVEN_API wzVolume *wzVolumeCreateWithSeparatePlanes(int32_t width, int32_t height,
                                                      int32_t depth) {
    return wzVolumeCreateWithTypeWithSeparatePlanes(width, height, depth, wzType8U);
}

MORVEN_API void wzVolumeReleaseHeader(wzVolume **volume) {
    releaseVolume(volume, wzImageReleaseHeader);
}

MORVEN_API void wzVolumeRelease(wzVolume **volume) {
    releaseRecord(volume, [](wzVolume &v) {
        std::free(v.voxels);
        freePlanes(v, wzImageReleaseHeader);
    });
}

MORVEN_API void wzVolumeReleaseWithSeparatePlanes(wzVolume **volume) {
    releaseVolume(volume, wzImageRelease);
}

MORVEN_API wzSize3D wzVolumeSize(const wzVolume *volume) {
    return wzSize3D{volume->width, volume->height, volume->depth};
}

MORVEN_API void wzVolumeSetROI(wzVolume *volume, const wzBox *box) { volume->roi = *box; }

MORVEN_API void wzVolumeResetROI(wzVolume *volume) {
    volume->roi = wzBox{0, 0, 0, volume->width, volume->height, volume->depth};
}

MORVEN_API void wzVolumeCvtTo32(const wzVolume *volume, wzVolume32 *out) {
    out->type = volume->type;
    out->depth = volume->depth;
    out->width = volume->width;
    out->height = volume->height;
    out->voxels = 0;
    out->planes = 0;
    out->roi = volume->roi;
}

MORVEN_API void wzVolumeCvtFrom32(const wzVolume32 *in, wzVolume *out) {
    out->type = in->type;
    out->depth = in->depth;
    out->width = in->width;
    out->height = in->height;
    out->voxels = nullptr;
    out->planes = nullptr;
    out->roi = in->roi;
}

MORVEN_API wzStatus wzVolumeCvtType(const wzVolume *src, wzVolume *dst) {
    if (dst->depth < src->depth) return WZ_STATUS_ERROR;
    return forEachPlane(*src, *dst,
                        [](const wzImage *s, wzImage *d) { return wzImageCvtType(s, d); });
}

MORVEN_API wzStatus wzVolumeCvtTypeGivenRange(const wzVolume *src, wzVolume *dst, double low,
                                              double high) {
    if (src->depth != dst->depth) return WZ_STATUS_ERROR;
    return forEachPlane(*src, *dst, [low, high](const wzImage *s, wzImage *d) {
        return wzImageCvtTypeGivenRange(s, d, low, high);
    });
}

}  // extern "C"
