// The histogram transfer pipeline: matching, optional contrast and selective
// smoothing, optional mask blend, with the records it needs.
#include <cstdlib>

#include "common/memory.hpp"
#include "contrast/contrast_internal.hpp"
#include "histogram/match_internal.hpp"
#include "image/image_internal.hpp"
#include "kernels/count.hpp"
#include "morven/color.h"
#include "morven/transfer.h"

using namespace morven;

namespace {

// Whether matching source into destination writes every pixel of the
// destination block, row after row: whole 8-bit images of one size (the
// source's region all of it), a colour destination.
bool matchWritesWholeColour(const wzImage &source, const wzImage &destination) {
    const wzRect &r = source.roi;
    return source.type == wzType8U && destination.type == wzType8U &&
           isValidEncoding(source.encoding) && channelCount(destination.encoding) >= 3 &&
           r.x == 0 && r.y == 0 && r.width == source.width && r.height == source.height &&
           destination.roi.x == 0 && destination.roi.y == 0 && destination.width == source.width &&
           destination.height == source.height;
}

}  // namespace

extern "C" {

MORVEN_API wzHistogramTransferSupport *wzHistogramTransferSupportCreate(void) {
    FreePtr<wzHistogramTransferSupport> support = allocZeroed<wzHistogramTransferSupport>();
    if (!support) return nullptr;
    support->smoothSupport = wzSelectiveSmoothSupportCreate();
    if (!support->smoothSupport) return nullptr;
    return support.release();
}

MORVEN_API void wzHistogramTransferSupportRelease(wzHistogramTransferSupport **support) {
    releaseRecord(support, [](wzHistogramTransferSupport &s) {
        wzSelectiveSmoothSupportRelease(&s.smoothSupport);
    });
}

MORVEN_API wzHistogramTransferParams *wzHistogramTransferParamsDefault(void) {
    FreePtr<wzHistogramTransferParams> p = allocZeroed<wzHistogramTransferParams>();
    if (!p) return nullptr;
    p->targetProfile = nullptr;
    p->matchStrength = 1.0f;
    p->matchFidelity = 0.9f;
    p->contrastEnabled = 0;
    p->contrastHighTail = 9.0f;
    p->contrastLowTail = 50.0f;
    p->smoothEnabled = 0;
    p->smoothThreshold = 0.1f;
    p->smoothIterations = 2;
    p->matchMaxStep = 255;
    return p.release();
}

MORVEN_API void wzHistogramTransferParamsRelease(wzHistogramTransferParams **params) {
    releaseRecord(params);
}

MORVEN_API wzHistogramTransferParamsInner *wzHistogramTransferParamsInnerCreate(void) {
    // All four attempts are made; any failure releases all of them.
    FreePtr<wzHistogramTransferParamsInner> inner = allocZeroed<wzHistogramTransferParamsInner>();
    wzHistogramMatchParams *match = wzHistogramMatchParamsDefault();
    wzContrastEnhanceParams *contrast = wzContrastEnhanceParamsDefault();
    wzSelectiveSmoothParams *smooth = wzSelectiveSmoothParamsDefault();
    if (!inner || !match || !contrast || !smooth) {
        wzHistogramMatchParamsRelease(&match);
        wzContrastEnhanceParamsRelease(&contrast);
        wzSelectiveSmoothParamsRelease(&smooth);
        return nullptr;
    }
    inner->matchParams = match;
    inner->contrastParams = contrast;
    inner->smoothParams = smooth;
    return inner.release();
}

MORVEN_API void wzHistogramTransferParamsInnerRelease(wzHistogramTransferParamsInner **inner) {
    releaseRecord(inner, [](wzHistogramTransferParamsInner &i) {
        wzContrastEnhanceParamsRelease(&i.contrastParams);
        wzSelectiveSmoothParamsRelease(&i.smoothParams);
        wzHistogramMatchParamsRelease(&i.matchParams);
    });
}

MORVEN_API void wzHistogramTransferSetInnerParams(const wzHistogramTransferParams *params,
                                                  wzHistogramTransferParamsInner *inner) {
    inner->matchParams->targetProfile = params->targetProfile;
    inner->matchParams->strength = params->matchStrength;
    inner->matchParams->fidelity = params->matchFidelity;
    inner->matchParams->maxStep = params->matchMaxStep;
    inner->contrastEnabled = params->contrastEnabled;
    inner->contrastParams->highTail = params->contrastHighTail;
    inner->contrastParams->lowTail = params->contrastLowTail;
    inner->smoothEnabled = params->smoothEnabled;
    inner->smoothParams->threshold = params->smoothThreshold;
    inner->smoothParams->iterations = params->smoothIterations;
}

MORVEN_API wzStatus wzHistogramTransferFilter(const wzHistogramTransferParams *params,
                                              const wzHistogramTransferSupport *support,
                                              wzImage *source, const wzImage *mask,
                                              wzImage *destination, const uint32_t *cancel) {
    // The untouched picture must survive the stages only when a mask blends
    // it back and the stages would overwrite it, or when it guides smoothing.
    const bool needCopy = mask && (destination == source || params->smoothEnabled);

    wzHistogramTransferParamsInner *inner = wzHistogramTransferParamsInnerCreate();
    if (!inner) return WZ_STATUS_ERROR;
    ScopeGuard releaseInner([&] { wzHistogramTransferParamsInnerRelease(&inner); });
    wzHistogramTransferSetInnerParams(params, inner);

    wzImage *copy = nullptr;
    ScopeGuard releaseCopy([&] { wzImageRelease(&copy); });
    if (needCopy) {
        copy = copyWithRegion(*source, wzType8U);
        if (!copy) return WZ_STATUS_ERROR;
    }
    const wzImage *untouched = copy ? copy : source;

    // When matching writes every destination pixel, the brightness that
    // contrast's statistics need is counted as the rows are written, rather
    // than in a second pass over the destination.
    const bool counted = inner->contrastEnabled && matchWritesWholeColour(*source, *destination);
    ByteCounter brightness;
    wzStatus status =
        counted ? matchFilterCounting(inner->matchParams, source, destination, brightness, cancel)
                : wzHistogramMatchFilter(inner->matchParams, source, nullptr, destination, cancel);
    if (status != WZ_STATUS_OK) return status;
    if (inner->contrastEnabled) {
        status = counted
                     ? contrastFilterCounted(inner->contrastParams, brightness, destination, cancel)
                     : wzContrastEnhanceFilter(inner->contrastParams, destination, nullptr,
                                               destination, cancel);
        if (status != WZ_STATUS_OK) return status;
    }
    if (inner->smoothEnabled) {
        status = wzSelectiveSmooth(inner->smoothParams, support->smoothSupport, untouched,
                                   destination, destination, cancel);
        if (status != WZ_STATUS_OK) return status;
    }
    wzHistogramTransferParamsInnerRelease(&inner);
    if (mask) {
        status = wzAddWeigthedM(untouched, destination, destination, mask);
        if (status != WZ_STATUS_OK) return status;
    }
    wzImageRelease(&copy);
    wzImageResetROI(destination);
    return WZ_STATUS_OK;
}

}  // extern "C"
