// Internal helpers of the volume subsystem: the unexported header
// constructor, plane sizes and the voxel storage of each plane, shared by the
// volume operations and the volume histogram operations.
#pragma once

#include <cstdint>

#include "common/memory.hpp"
#include "image/image_internal.hpp"
#include "morven/volume.h"

namespace morven {

// Header-only volume: record, plane table and depth plane headers of the
// given type and encoding (not checked), voxels null, roi the whole volume.
// Null after releasing everything when an allocation fails; null for a
// negative size.
wzVolume *wzVolumeCreateHeaderWithTypeAndEncoding(int32_t width, int32_t height, int32_t depth,
                                                  uint32_t type, uint32_t encoding);

// Channel count of a volume: that of plane 0, 1 when there is no plane 0.
// -1 for an invalid encoding.
inline int32_t volumeChannels(const wzVolume &v) noexcept {
    if (v.depth < 1 || !v.planes || !v.planes[0]) return 1;
    return channelCount(v.planes[0]->encoding);
}

// Bytes of one plane, width * elementSize * height * channels, in 64 bits;
// 0 for negative sizes, an invalid encoding, or a size no block can have.
inline int64_t planeBytes(const wzVolume &v) noexcept {
    const int32_t ch = volumeChannels(v);
    if (v.width < 0 || v.height < 0 || ch < 1) return 0;
    int64_t bytes = 0;
    if (!checkedMul(int64_t{v.width} * v.height, int64_t{elementSize(v.type)} * ch, bytes))
        return 0;
    return bytes;
}

// The element block of plane z: inside voxels when the volume has that block,
// else the plane's own block.
inline uint8_t *planeVoxels(const wzVolume &v, int32_t z, int64_t bytesPerPlane) noexcept {
    return v.voxels ? v.voxels + z * bytesPerPlane : v.planes[z]->data;
}

// True when every plane header has a block (what the operations that go
// through the plane headers read).
inline bool planesHaveBlocks(const wzVolume &v) noexcept {
    if (v.depth < 1) return true;
    if (!v.planes) return false;
    for (int32_t z = 0; z < v.depth; ++z)
        if (!v.planes[z] || !v.planes[z]->data) return false;
    return true;
}

// True when every plane has voxels to walk: the volume has a voxels block, or
// (separate-plane volumes) every plane header has a block of its own.
inline bool hasVoxels(const wzVolume &v) noexcept { return v.voxels || planesHaveBlocks(v); }

// True when the element-level operations serve the volume: one channel per
// plane and voxels to walk (the element type is checked by each operation).
inline bool elementLevelUsable(const wzVolume &v) noexcept {
    return volumeChannels(v) == 1 && hasVoxels(v);
}

// True when the box of the given extents at (x, y, z) lies inside the volume
// (extents assumed >= 0).
inline bool boxInside(const wzVolume &v, int32_t x, int32_t y, int32_t z, int32_t w, int32_t h,
                      int32_t d) noexcept {
    return x >= 0 && y >= 0 && z >= 0 && w >= 0 && h >= 0 && d >= 0 && int64_t{x} + w <= v.width &&
           int64_t{y} + h <= v.height && int64_t{z} + d <= v.depth;
}

}  // namespace morven
