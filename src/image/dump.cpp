// Image dump files: a 40-byte little-endian header that repeats the record's
// fields (type, encoding, height, width, a zero word where the data pointer
// was, roi x, y, width, height, coi), then the whole block as it lies in
// memory, whatever the region of interest.
#include <cstdlib>

#include "common/memory.hpp"
#include "common/stream.hpp"
#include "image/image_internal.hpp"

using namespace morven;

namespace {

using ImageDumpHeader = LE32Record<10>;
static_assert(ImageDumpHeader::kBytes == 40);

// Payload bytes of an image about to be saved: 0 (nothing to write) for a
// negative or zero dimension or an unknown type.
int64_t savedPayloadBytes(const wzImage &img) {
    if (img.height < 0 || img.width < 0) return 0;
    return int64_t{img.height} * img.width * channelCount(img.encoding) * elementSize(img.type);
}

}  // namespace

extern "C" {

MORVEN_API wzStatus wzImageDumpSave(const wzImage *image, FILE *stream) {
    // An invalid encoding has no block size: refuse before writing anything.
    if (!isValidEncoding(image->encoding)) return WZ_STATUS_FAILURE;

    ImageDumpHeader header;
    header.put(image->type);
    header.put(image->encoding);
    header.put(image->height);
    header.put(image->width);
    header.put(uint32_t{0});
    header.put(image->roi.x);
    header.put(image->roi.y);
    header.put(image->roi.width);
    header.put(image->roi.height);
    header.put(image->coi);
    if (!header.write(stream)) return WZ_STATUS_FAILURE;

    // One item of the whole block; an empty block reports no item written.
    const int64_t bytes = savedPayloadBytes(*image);
    if (!writeItem(stream, image->data, static_cast<size_t>(bytes))) return WZ_STATUS_FAILURE;
    return WZ_STATUS_OK;
}

MORVEN_API wzImage *wzImageDumpLoad(FILE *stream) {
    FreePtr<wzImage> img = allocZeroed<wzImage>();
    if (!img) return nullptr;

    ImageDumpHeader header;
    if (!header.read(stream)) return nullptr;
    img->type = header.getU32();
    img->encoding = header.getU32();
    img->height = header.getI32();
    img->width = header.getI32();
    (void)header.getU32();  // reserved
    img->roi.x = header.getI32();
    img->roi.y = header.getI32();
    img->roi.width = header.getI32();
    img->roi.height = header.getI32();
    img->coi = header.getI32();

    // Refuse what has no payload or no sane payload size before allocating:
    // an invalid encoding, an unknown type (element size 0), a negative size
    // (two of them would make a positive count, but no image has them), and
    // an element count beyond 32 bits (the pixel count is checked first, so
    // that the count itself cannot overflow).
    if (!isValidEncoding(img->encoding) || !isKnownType(img->type)) return nullptr;
    if (img->height < 0 || img->width < 0 || int64_t{img->height} * img->width > INT32_MAX)
        return nullptr;
    const int64_t elements = blockElements(*img);
    if (elements <= 0 || elements > INT32_MAX) return nullptr;
    const int64_t bytes = elements * elementSize(img->type);

    // Memory follows the data that arrives: a header cannot make the load
    // allocate far more than the stream holds.
    img->data = readPayload(stream, bytes);
    if (!img->data) return nullptr;
    return img.release();
}

}  // extern "C"
