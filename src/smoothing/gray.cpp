// Selective smoothing of 8-bit gray pictures through the three-channel
// filter: the gray level goes into every channel of working images, and one
// channel comes back.
#include "common/memory.hpp"
#include "morven/color.h"
#include "morven/smoothing.h"

using namespace morven;

namespace {

bool isGray8(const wzImage &img, const wzImage &model) {
    return img.type == wzType8U && img.encoding == wzEncodingGray && img.width == model.width &&
           img.height == model.height;
}

// A whole-picture view of an image (the filter ignores regions).
wzImage whole(const wzImage &img) {
    wzImage view = img;
    wzImageResetROI(&view);
    return view;
}

}  // namespace

extern "C" {

MORVEN_API wzStatus wzSelectiveSmoothGray(const wzSelectiveSmoothParams *params,
                                          const wzSelectiveSmoothSupport *support,
                                          const wzImage *guide, const wzImage *input,
                                          wzImage *output, const uint32_t *cancel) {
    if (!isGray8(*input, *input) || input->width < 0 || input->height < 0 ||
        !isGray8(*guide, *input) || !isGray8(*output, *input))
        return WZ_STATUS_ERROR;
    wzImage *g3 = wzImageCreate(input->width, input->height, wzEncodingBGR);
    wzImage *x3 = wzImageCreate(input->width, input->height, wzEncodingBGR);
    ScopeGuard release([&] {
        wzImageRelease(&g3);
        wzImageRelease(&x3);
    });
    if (!g3 || !x3) return WZ_STATUS_ERROR;
    const wzImage g = whole(*guide), x = whole(*input);
    wzImage out = whole(*output);
    wzImageCvtColor(&g, g3);
    wzImageCvtColor(&x, x3);
    const wzStatus status = wzSelectiveSmooth(params, support, g3, x3, x3, cancel);
    if (status == WZ_STATUS_OK || status == WZ_STATUS_CANCELLED) {
        // Cancelled, channel 1 holds either its finished or its first values.
        if (status == WZ_STATUS_OK)
            wzImageExtractChannel(x3, &out, 1);
        else if (input != output)
            wzCopy(&x, &out);
    }
    return status;
}

}  // extern "C"
