// Histogram operations on volumes: the volume profile (every plane, each over
// its own plane roi), the table look-up over the volume's region of interest,
// and the volume forms of the matching filter, equalisation and stretch. The
// tables come from the image forms' computation (wzHistogramMatchAddParamsCompute)
// and the stretch rule; only the walks differ.
#include <cstring>

#include "common/cancel.hpp"
#include "common/memory.hpp"
#include "morven/color.h"
#include "volume/volume_internal.hpp"

using namespace morven;

namespace {

// An 8-bit one-channel volume with voxels to walk: what the look-up serves.
bool lookUpUsable(const wzVolume &v) { return v.type == wzType8U && elementLevelUsable(v); }

// A source the volume operations can gather from (through the plane headers)
// and look up: usable, with at least one plane, every plane with a block.
bool sourceUsable(const wzVolume &v) {
    return v.depth >= 1 && v.planes && planesHaveBlocks(v) && lookUpUsable(v);
}

// The volume profile: plane 0's profile, then each further plane's added
// entry by entry in entry order. The fills' statuses are not examined.
void volumeProfile(const wzVolume &v, wzImageColorProfile &out) {
    wzImageColorProfileReset(&out);
    wzImageFillColorProfile(v.planes[0], &out);
    wzImageColorProfile scratch;
    for (int32_t k = 1; k < v.depth; ++k) {
        wzImageFillColorProfile(v.planes[k], &scratch);
        float *into = &out.bins[0][0];
        const float *from = &scratch.bins[0][0];
        for (int i = 0; i < 768; ++i) into[i] += from[i];
    }
}

// The region rectangle (x, y, width, height) of a volume box with the given
// extents, as a plane roi.
wzRect planeRect(const wzBox &b, int32_t width, int32_t height) {
    return wzRect{b.x, b.y, width, height};
}

// Sets a plane's roi for the length of a blend and restores it afterwards.
class PlaneRoi {
public:
    PlaneRoi(wzImage *plane, const wzRect &r) : plane_(plane), keep_(plane->roi) {
        wzImageSetROI(plane_, &r);
    }
    ~PlaneRoi() { wzImageSetROI(plane_, &keep_); }
    PlaneRoi(const PlaneRoi &) = delete;
    PlaneRoi &operator=(const PlaneRoi &) = delete;

private:
    wzImage *plane_;
    wzRect keep_;
};

// wzAddWeigthedM(a plane, b plane, b plane, mask plane) for planes
// za + k, zb + k, zm + k, k = 0 .. depth-1, each plane's roi set to its
// volume's region rectangle for the blend (so that the blend covers exactly
// the voxels the look-up wrote) and restored after. Stops at the first
// non-zero status.
wzStatus blendPlanes(const wzVolume &a, const wzBox &ba, wzVolume &b, const wzBox &bb,
                     const wzVolume &mask, int32_t width, int32_t height, int32_t depth) {
    const wzBox &bm = mask.roi;
    wzStatus status = WZ_STATUS_OK;
    for (int32_t k = 0; k < depth && status == WZ_STATUS_OK; ++k) {
        wzImage *pa = a.planes[ba.z + k];
        wzImage *pb = b.planes[bb.z + k];
        wzImage *pm = mask.planes[bm.z + k];
        // Destroyed in reverse order: a plane set twice gets its own roi back.
        const PlaneRoi ra(pa, planeRect(ba, width, height));
        const PlaneRoi rb(pb, planeRect(bb, width, height));
        const PlaneRoi rm(pm, planeRect(bm, width, height));
        status = wzAddWeigthedM(pa, pb, pb, pm);
    }
    return status;
}

// Checks a mask for the blend of a region of the given extents: 8-bit,
// one-channel, with voxels, and its region (own origin, those extents) inside.
bool maskFits(const wzVolume &mask, int32_t width, int32_t height, int32_t depth) {
    const wzBox &b = mask.roi;
    if (!lookUpUsable(mask)) return false;
    if (depth < 1) return true;
    return boxInside(mask, b.x, b.y, b.z, width > 0 ? width : 0, height > 0 ? height : 0, depth);
}

}  // namespace

extern "C" {

MORVEN_API wzStatus wzHistogramMatchStatsRetrieve3D(wzHistogramMatchStats *stats,
                                                    const wzVolume *volume) {
    const wzVolume &v = *volume;
    if (v.depth < 1 || !v.planes || !planesHaveBlocks(v) || v.type != wzType8U) {
        wzImageColorProfileReset(stats->profile);
        return WZ_STATUS_ERROR;
    }
    volumeProfile(v, *stats->profile);
    return WZ_STATUS_OK;
}

MORVEN_API wzStatus wzHistogramMatchApplyGray3D(const void *, const uint8_t table[768],
                                                const wzVolume *source, wzVolume *destination,
                                                const uint32_t *cancel) {
    const wzVolume &s = *source;
    wzVolume &d = *destination;
    const wzBox &bs = s.roi;
    const wzBox &bd = d.roi;
    if (bs.depth < 1 || bs.height < 1) return WZ_STATUS_OK;
    if (!lookUpUsable(s) || !lookUpUsable(d)) return WZ_STATUS_ERROR;
    if (bd.width != bs.width || bd.height != bs.height || bd.depth != bs.depth)
        return WZ_STATUS_ERROR;
    const int32_t cols = bs.width > 0 ? bs.width : 0;
    if (!boxInside(s, bs.x, bs.y, bs.z, cols, bs.height, bs.depth) ||
        !boxInside(d, bd.x, bd.y, bd.z, cols, bs.height, bs.depth))
        return WZ_STATUS_ERROR;

    // Plane by plane from each plane's region origin; within a plane, rows
    // are width apart. Equivalent to the walk over one contiguous block with
    // row and plane skips, and serves separate-plane volumes too.
    const int64_t sPlane = int64_t{s.width} * s.height;
    const int64_t dPlane = int64_t{d.width} * d.height;
    for (int32_t k = 0; k < bs.depth; ++k) {
        const uint8_t *sp = planeVoxels(s, bs.z + k, sPlane) + int64_t{bs.y} * s.width + bs.x;
        uint8_t *dp = planeVoxels(d, bd.z + k, dPlane) + int64_t{bd.y} * d.width + bd.x;
        for (int32_t y = 0; y < bs.height; ++y, sp += s.width, dp += d.width) {
            if (cancelRequested(cancel)) return WZ_STATUS_CANCELLED;
            for (int32_t x = 0; x < cols; ++x) dp[x] = table[sp[x]];
        }
    }
    return WZ_STATUS_OK;
}

MORVEN_API wzStatus wzHistogramMatchFilter3D(const wzHistogramMatchParams *params, wzVolume *source,
                                             const wzVolume *mask, wzVolume *destination,
                                             const uint32_t *cancel) {
    wzVolume &s = *source;
    const wzBox &bs = s.roi;
    if (!sourceUsable(s) || !lookUpUsable(*destination)) return WZ_STATUS_ERROR;
    if (mask && !maskFits(*mask, bs.width, bs.height, bs.depth)) return WZ_STATUS_ERROR;

    wzImageColorProfile profile;
    volumeProfile(s, profile);
    const wzHistogramMatchStats stats{&profile};
    uint8_t table[768];
    wzHistogramMatchAddParamsCompute(&stats, params, table);

    if (mask && source == destination) {
        // The look-up checks the regions, but the copy comes first: check here.
        if (bs.depth >= 1 && bs.height >= 1 &&
            !boxInside(s, bs.x, bs.y, bs.z, bs.width > 0 ? bs.width : 0, bs.height, bs.depth))
            return WZ_STATUS_ERROR;
        wzVolume *copy = wzVolumeCreate(bs.width, bs.height, bs.depth);
        if (!copy) return WZ_STATUS_ERROR;
        ScopeGuard release([&] { wzVolumeRelease(&copy); });
        wzCopy3D(source, copy);
        const wzStatus status = wzHistogramMatchApplyGray3D(nullptr, table, copy, source, cancel);
        if (status != WZ_STATUS_OK) return status;
        return blendPlanes(*copy, copy->roi, s, bs, *mask, bs.width, bs.height, copy->depth);
    }
    const wzStatus status =
        wzHistogramMatchApplyGray3D(nullptr, table, source, destination, cancel);
    if (status != WZ_STATUS_OK || !mask) return status;
    return blendPlanes(s, bs, *destination, destination->roi, *mask, bs.width, bs.height, bs.depth);
}

MORVEN_API wzStatus wzHistogramEqualization3D(const wzVolume *source, wzVolume *destination) {
    if (!sourceUsable(*source) || !lookUpUsable(*destination)) return WZ_STATUS_ERROR;
    wzImageColorProfile flat, profile;
    wzImageColorProfileForEqualization(&flat);
    volumeProfile(*source, profile);
    wzImageColorProfileNormalize(&profile);
    const wzHistogramMatchParams params{1.0f, 1.0f, 0, 256, &flat};
    const wzHistogramMatchStats stats{&profile};
    uint8_t table[768];
    wzHistogramMatchAddParamsCompute(&stats, &params, table);
    // 0, or 1 for regions the look-up refuses (it takes no cancel flag).
    return wzHistogramMatchApplyGray3D(nullptr, table, source, destination, nullptr);
}

MORVEN_API wzStatus wzHistogramStretch3D(const wzVolume *source, wzVolume *destination) {
    if (!sourceUsable(*source) || !lookUpUsable(*destination)) return WZ_STATUS_ERROR;
    wzImageColorProfile profile;
    volumeProfile(*source, profile);
    const float *bins = profile.bins[2];
    int lo = 0, hi = 255;
    while (lo < 256 && bins[lo] == 0.0f) ++lo;
    while (hi >= 0 && bins[hi] == 0.0f) --hi;
    if (lo > hi) return WZ_STATUS_ERROR;  // no voxel counted: nothing to stretch
    if (lo == hi) {
        wzCopy3D(source, destination);
        return WZ_STATUS_ERROR;
    }
    uint8_t table[768];
    std::memset(table, 0, sizeof table);
    const float scale = 255.0f / static_cast<float>(hi - lo);
    for (int i = lo; i < hi; ++i)
        table[i] = static_cast<uint8_t>(scale * static_cast<float>(i - lo));
    for (int i = hi; i < 256; ++i) table[i] = 255;
    // 0, or 1 for regions the look-up refuses (it takes no cancel flag).
    return wzHistogramMatchApplyGray3D(nullptr, table, source, destination, nullptr);
}

}  // extern "C"
