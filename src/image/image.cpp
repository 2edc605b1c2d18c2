// The image record: creation, release and the constant-time queries.
#include <cstdlib>

#include "common/memory.hpp"
#include "image/image_internal.hpp"
#include "morven/color.h"

using namespace morven;

namespace {

wzImage *newHeader(int32_t width, int32_t height, uint32_t encoding, uint32_t type) {
    FreePtr<wzImage> img = allocZeroed<wzImage>();
    if (!img) return nullptr;
    img->type = type;
    img->encoding = encoding;
    img->height = height;
    img->width = width;
    img->roi = wzRect{0, 0, width, height};
    return img.release();
}

}  // namespace

extern "C" {

MORVEN_API wzImage *wzImageCreateHeader(int32_t width, int32_t height, uint32_t encoding) {
    return newHeader(width, height, encoding, wzType8U);
}

MORVEN_API wzImage *wzImageCreateHeaderWithType(int32_t width, int32_t height, uint32_t encoding,
                                                uint32_t type) {
    return newHeader(width, height, encoding, type);
}

MORVEN_API wzImage *wzImageCreateWithType(int32_t width, int32_t height, uint32_t encoding,
                                          uint32_t type) {
    if (!isValidEncoding(encoding)) return nullptr;
    int64_t bytes = 0;
    if (!checkedMul(int64_t{width} * channelCount(encoding) * elementSize(type), height, bytes) ||
        width < 0 || static_cast<uint64_t>(bytes) > PTRDIFF_MAX)
        return nullptr;
    FreePtr<wzImage> img(newHeader(width, height, encoding, type));
    if (!img) return nullptr;
    // One byte at least, so that an empty image is still an image.
    img->data = allocArray<uint8_t>(bytes).release();
    if (!img->data) return nullptr;
    return img.release();
}

MORVEN_API wzImage *wzImageCreate(int32_t width, int32_t height, uint32_t encoding) {
    return wzImageCreateWithType(width, height, encoding, wzType8U);
}

MORVEN_API wzImage *wzImageCreateAs(const wzImage *model) {
    return wzImageCreateWithType(model->width, model->height, model->encoding, model->type);
}

MORVEN_API void wzImageReleaseHeader(wzImage **image) { releaseRecord(image); }

MORVEN_API void wzImageRelease(wzImage **image) {
    releaseRecord(image, [](wzImage &i) { std::free(i.data); });
}

MORVEN_API wzSize wzImageSize(const wzImage *image) { return wzSize{image->width, image->height}; }

MORVEN_API uint32_t wzImageGetEncoding(const wzImage *image) { return image->encoding; }

MORVEN_API int32_t wzImageGetNChannel(const wzImage *image) {
    return channelCount(image->encoding);
}

MORVEN_API int32_t wzGetNChannelFromEncoding(uint32_t encoding) { return channelCount(encoding); }

MORVEN_API int32_t wzGetChannelOffsetFromEncoding(uint32_t encoding, int32_t channel) {
    return channelOffset(encoding, channel);
}

MORVEN_API int32_t wzImageGetChannelOffset(const wzImage *image, int32_t channel) {
    return channelOffset(image->encoding, channel) * elementSize(image->type);
}

MORVEN_API uint32_t wzImageHaveUncompatibleEncodings(const wzImage *a, const wzImage *b) {
    if (!isValidEncoding(a->encoding) || !isValidEncoding(b->encoding)) return 1;
    return (a->encoding == wzEncodingGray) == (b->encoding == wzEncodingGray) ? 0 : 1;
}

MORVEN_API void wzImageSetROI(wzImage *image, const wzRect *rect) { image->roi = *rect; }

MORVEN_API void wzImageResetROI(wzImage *image) {
    image->roi = wzRect{0, 0, image->width, image->height};
}

MORVEN_API void wzImageSetCOI(wzImage *image, int32_t channel) { image->coi = channel; }

MORVEN_API void wzImageResetCOI(wzImage *image) { image->coi = 0; }

MORVEN_API void wzImageExtractDerivedMembers(const wzImage *image, int32_t out[3]) {
    // 32-bit products, wrapping as unsigned so that absurd sizes stay defined.
    const uint32_t ps = static_cast<uint32_t>(channelCount(image->encoding)) *
                        static_cast<uint32_t>(elementSize(image->type));
    out[0] = static_cast<int32_t>(ps);
    out[1] = static_cast<int32_t>(static_cast<uint32_t>(image->width) * ps);
    out[2] = static_cast<int32_t>(
        (static_cast<uint32_t>(image->width) - static_cast<uint32_t>(image->roi.width)) * ps);
}

}  // extern "C"

wzImage *morven::copyWithRegion(const wzImage &source, uint32_t type) noexcept {
    wzImage *copy = wzImageCreateWithType(source.width, source.height, source.encoding, type);
    if (!copy) return nullptr;
    wzImage whole = source;
    wzImageResetROI(&whole);
    wzCopy(&whole, copy);
    wzImageSetROI(copy, &source.roi);
    return copy;
}
