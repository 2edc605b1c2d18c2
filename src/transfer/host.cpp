// Host entry points: the narrow interface over packed 8-bit BGR buffers, and
// the library's only global state. Nothing can interrupt a host call, so the
// calls pass no cancel flag.
#include "common/memory.hpp"
#include "morven/transfer.h"

using namespace morven;

namespace {

// The one support object, created by wzMorvenInit and released by
// wzMorvenDispose; only read in between.
wzHistogramTransferSupport *support = nullptr;

// A header over a host buffer (the buffer stays the host's).
wzImage *wrapBGR(int32_t width, int32_t height, const uint8_t *pixels) {
    wzImage *header = wzImageCreateHeader(width, height, wzEncodingBGR);
    if (header) header->data = const_cast<uint8_t *>(pixels);
    return header;
}

}  // namespace

extern "C" {

MORVEN_API wzStatus wzMorvenInit(void) {
    support = wzHistogramTransferSupportCreate();
    return support ? WZ_STATUS_OK : WZ_STATUS_ERROR;
}

MORVEN_API void wzMorvenDispose(void) { wzHistogramTransferSupportRelease(&support); }

MORVEN_API wzStatus wzMorvenTransfer(int32_t width, int32_t height, const uint8_t *source,
                                     uint8_t *destination, int32_t referenceWidth,
                                     int32_t referenceHeight, const uint8_t *reference,
                                     int32_t enhanceContrast, int32_t maxStep, float strength,
                                     float highTail, float lowTail, float fidelity) {
    if (!support) return WZ_STATUS_ERROR;
    wzImage *ref = wrapBGR(referenceWidth, referenceHeight, reference);
    if (!ref) return WZ_STATUS_ERROR;
    wzImageColorProfile *profile = nullptr;
    wzImage *src = nullptr;
    wzImage *dst = nullptr;
    wzHistogramTransferParams *params = nullptr;
    ScopeGuard release([&] {
        wzImageColorProfileRelease(&profile);
        wzImageReleaseHeader(&src);
        wzImageReleaseHeader(&dst);
        wzImageReleaseHeader(&ref);
        wzHistogramTransferParamsRelease(&params);
    });

    profile = wzImageColorProfileCreate();
    if (!profile) return WZ_STATUS_ERROR;
    wzImageFillColorProfile(ref, profile);
    src = wrapBGR(width, height, source);
    dst = wrapBGR(width, height, destination);
    params = wzHistogramTransferParamsDefault();
    if (!src || !dst || !params) return WZ_STATUS_ERROR;

    params->targetProfile = profile;
    params->matchStrength = strength;
    params->matchFidelity = fidelity;
    params->contrastEnabled = enhanceContrast;
    params->contrastHighTail = highTail;
    params->contrastLowTail = lowTail;
    params->matchMaxStep = maxStep;
    params->smoothEnabled = 0;
    return wzHistogramTransferFilter(params, support, src, nullptr, dst, nullptr);
}

MORVEN_API wzStatus wzMorvenSmooth(int32_t width, int32_t height, const uint8_t *guide,
                                   const uint8_t *input, uint8_t *output, int32_t iterations,
                                   float threshold) {
    if (!support) return WZ_STATUS_ERROR;
    wzImage *in = nullptr;
    wzImage *gd = nullptr;
    wzImage *out = nullptr;
    wzSelectiveSmoothParams *params = nullptr;
    ScopeGuard release([&] {
        wzImageReleaseHeader(&in);
        wzImageReleaseHeader(&out);
        wzImageReleaseHeader(&gd);
        wzSelectiveSmoothParamsRelease(&params);
    });
    if (!(in = wrapBGR(width, height, input)) || !(gd = wrapBGR(width, height, guide)) ||
        !(out = wrapBGR(width, height, output)))
        return WZ_STATUS_ERROR;
    params = wzSelectiveSmoothParamsDefault();
    if (!params) return WZ_STATUS_ERROR;
    params->threshold = threshold;
    params->iterations = iterations;
    return wzSelectiveSmooth(params, support->smoothSupport, gd, in, out, nullptr);
}

}  // extern "C"
