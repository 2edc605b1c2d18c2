// Volume dump files: a 48-byte little-endian header in the layout of
// wzVolume32 (both pointer slots 0), then the planes one after another, one
// element per voxel. The contiguous and the separate-plane forms write the
// same bytes and differ only in where they take the planes from and in the
// kind of volume a load builds.
#include <cstdlib>
#include <cstring>
#include <utility>

#include "common/memory.hpp"
#include "common/stream.hpp"
#include "volume/volume_internal.hpp"

using namespace morven;

namespace {

using VolumeDumpHeader = LE32Record<12>;
static_assert(VolumeDumpHeader::kBytes == 48 && sizeof(wzVolume32) == 48);

// Largest voxel count a dump may describe: the format's 32-bit signed count.
constexpr int64_t kMaxDumpVoxels = INT32_MAX;

// First size of the plane table of a separate-plane load.
constexpr int64_t kInitialPlaneTable = 256;

// A volume whose payload is not one element per voxel cannot be dumped.
bool dumpable(const wzVolume &v) { return volumeChannels(v) == 1; }

bool writeHeader(const wzVolume &v, std::FILE *stream) {
    wzVolume32 r;
    wzVolumeCvtTo32(&v, &r);
    VolumeDumpHeader h;
    h.put(r.type);
    h.put(r.depth);
    h.put(r.width);
    h.put(r.height);
    h.put(r.voxels);
    h.put(r.planes);
    for (int32_t f : {r.roi.x, r.roi.y, r.roi.z, r.roi.width, r.roi.height, r.roi.depth}) h.put(f);
    return h.write(stream);
}

// Writes planes 0 .. depth-1 from their own blocks, one item each.
bool writePlanes(const wzVolume &v, std::FILE *stream) {
    const int64_t bytes = planeBytes(v);
    for (int32_t k = 0; k < v.depth; ++k)
        if (!writeItem(stream, v.planes[k]->data, static_cast<size_t>(bytes))) return false;
    return true;
}

// A header read from the stream, validated before any payload is allocated.
struct LoadedHeader {
    wzVolume32 r;
    int64_t planeBytes;  // elementSize * width * height
};

// Reads and checks the header: a known type, no negative size, and at most
// kMaxDumpVoxels voxels. The voxel count may be 0 here (depth 0 is a valid
// separate-plane dump); each load decides what an empty payload means.
bool readHeader(std::FILE *stream, LoadedHeader &out) {
    VolumeDumpHeader h;
    if (!h.read(stream)) return false;
    wzVolume32 &r = out.r;
    r.type = h.getU32();
    r.depth = h.getI32();
    r.width = h.getI32();
    r.height = h.getI32();
    (void)h.getU32();  // voxels slot
    (void)h.getU32();  // planes slot
    r.voxels = 0;
    r.planes = 0;
    r.roi.x = h.getI32();
    r.roi.y = h.getI32();
    r.roi.z = h.getI32();
    r.roi.width = h.getI32();
    r.roi.height = h.getI32();
    r.roi.depth = h.getI32();
    if (!isKnownType(r.type) || r.width < 0 || r.height < 0 || r.depth < 0) return false;
    const int64_t planeVoxels = int64_t{r.width} * r.height;  // < 2^62: no overflow
    int64_t voxels = 0;
    if (!checkedMul(planeVoxels, r.depth, voxels) || voxels > kMaxDumpVoxels) return false;
    // Even without planes: a plane beyond the voxel count is no volume at all.
    if (planeVoxels > kMaxDumpVoxels) return false;
    out.planeBytes = planeVoxels * elementSize(r.type);
    return true;
}

void applyHeader(const wzVolume32 &r, wzVolume &v) { wzVolumeCvtFrom32(&r, &v); }

}  // namespace

extern "C" {

MORVEN_API wzStatus wzVolumeDumpSave(const wzVolume *volume, FILE *stream) {
    const wzVolume &v = *volume;
    if (!dumpable(v)) return WZ_STATUS_FAILURE;
    const int64_t plane = planeBytes(v);
    const int64_t bytes = v.depth > 0 ? plane * v.depth : 0;
    // Without a voxels block the planes' own blocks are written instead; a
    // plane without one could not be written, so nothing is.
    if (bytes > 0 && !v.voxels && !planesHaveBlocks(v)) return WZ_STATUS_FAILURE;
    if (!writeHeader(v, stream)) return WZ_STATUS_FAILURE;
    if (bytes <= 0) return WZ_STATUS_FAILURE;  // an empty item counts as not written
    const bool written =
        v.voxels ? writeItem(stream, v.voxels, static_cast<size_t>(bytes)) : writePlanes(v, stream);
    return written ? WZ_STATUS_OK : WZ_STATUS_FAILURE;
}

MORVEN_API wzStatus wzVolumeDumpSaveWithSeparatePlanes(const wzVolume *volume, FILE *stream) {
    const wzVolume &v = *volume;
    if (!dumpable(v)) return WZ_STATUS_FAILURE;
    if (planeBytes(v) > 0 && !planesHaveBlocks(v)) return WZ_STATUS_FAILURE;
    if (!writeHeader(v, stream)) return WZ_STATUS_FAILURE;
    if (v.depth < 1) return WZ_STATUS_OK;
    return writePlanes(v, stream) ? WZ_STATUS_OK : WZ_STATUS_FAILURE;
}

MORVEN_API wzVolume *wzVolumeDumpLoad(FILE *stream) {
    LoadedHeader h;
    if (!readHeader(stream, h)) return nullptr;
    const wzVolume32 &r = h.r;
    const int64_t bytes = h.planeBytes * r.depth;
    if (bytes <= 0) return nullptr;  // a zero-byte payload cannot be read

    FreePtr<uint8_t> block(readPayload(stream, bytes));
    if (!block) return nullptr;

    // Record, plane table and plane headers, released in reverse on failure.
    wzVolume *v =
        wzVolumeCreateHeaderWithTypeAndEncoding(r.width, r.height, r.depth, r.type, wzEncodingGray);
    if (!v) return nullptr;
    v->roi = r.roi;
    wzVolumeAssignData(v, block.release());
    return v;
}

MORVEN_API wzVolume *wzVolumeDumpLoadWithSeparatePlanes(FILE *stream) {
    LoadedHeader h;
    if (!readHeader(stream, h)) return nullptr;
    const wzVolume32 &r = h.r;
    if (r.depth > 0 && h.planeBytes <= 0) return nullptr;  // empty planes cannot be read

    FreePtr<wzVolume> v = allocZeroed<wzVolume>();
    if (!v) return nullptr;
    applyHeader(r, *v);
    // The plane table grows with the planes actually read (doubling from a
    // small start), so a header that claims many planes costs memory only
    // for the data that follows it. Entries beyond the planes read stay null.
    int64_t capacity = r.depth < kInitialPlaneTable ? r.depth : kInitialPlaneTable;
    v->planes = allocZeroedArray<wzImage *>(capacity).release();
    if (!v->planes) return nullptr;
    int32_t made = 0;
    bool ok = true;
    for (int32_t k = 0; k < r.depth && ok; ++k) {
        if (k == capacity) {
            const int64_t grown = capacity * 2 < r.depth ? capacity * 2 : r.depth;
            wzImage **table = allocZeroedArray<wzImage *>(grown).release();
            if (!table) {
                ok = false;
                break;
            }
            std::memcpy(table, v->planes, static_cast<size_t>(capacity) * sizeof(wzImage *));
            std::free(v->planes);
            v->planes = table;
            capacity = grown;
        }
        // The plane enters the table before its read, so a failed read
        // releases it with the others; its block is the payload read.
        v->planes[k] = wzImageCreateHeaderWithType(r.width, r.height, wzEncodingGray, r.type);
        if (!v->planes[k]) {
            ok = false;
            break;
        }
        ++made;
        v->planes[k]->data = readPayload(stream, h.planeBytes);
        ok = v->planes[k]->data != nullptr;
    }
    if (!ok) {
        // Releases exactly the planes made, last to first, then table and record.
        v->depth = made;
        wzVolume *raw = v.release();
        wzVolumeReleaseWithSeparatePlanes(&raw);
        return nullptr;
    }
    return v.release();
}

}  // extern "C"
