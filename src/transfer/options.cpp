// The extended transfer filter: the stages of the core pipeline with
// statistics masks, 16-bit pictures and working colour spaces.
#include "common/memory.hpp"
#include "image/extension_support.hpp"
#include "morven/color.h"
#include "morven/transfer.h"

using namespace morven;

extern "C" {

MORVEN_API wzStatus wzHistogramTransferFilterWithOptions(const wzHistogramTransferParams *params,
                                                         const wzHistogramMatchOptions *options,
                                                         const wzHistogramTransferSupport *support,
                                                         wzImage *source, const wzImage *mask,
                                                         wzImage *destination,
                                                         const uint32_t *cancel) {
    const wzHistogramMatchOptions defaults{};
    const wzHistogramMatchOptions &o = options ? *options : defaults;
    const bool wide = source->type == wzType16U;
    if (source->type != wzType8U && !wide) return WZ_STATUS_ERROR;
    if (wide && destination->encoding != source->encoding) return WZ_STATUS_ERROR;
    // Contrast measures whole pictures: the statistics mask must cover one.
    if (o.statsMask && params->contrastEnabled &&
        (source->roi.x != 0 || source->roi.y != 0 || source->roi.width != source->width ||
         source->roi.height != source->height || destination->width != source->width ||
         destination->height != source->height))
        return WZ_STATUS_ERROR;

    // The untouched picture must survive the stages when a mask blends it
    // back and the stages would overwrite it, or when it guides smoothing.
    const bool needCopy = mask && (destination == source || params->smoothEnabled);
    wzImage *copy = nullptr;
    ScopeGuard releaseCopy([&] { wzImageRelease(&copy); });
    if (needCopy) {
        copy = copyWithRegion(*source, source->type);
        if (!copy) return WZ_STATUS_ERROR;
    }
    const wzImage *untouched = copy ? copy : source;

    const wzHistogramMatchParams match{params->matchStrength, params->matchFidelity, 0,
                                       params->matchMaxStep, params->targetProfile};
    wzStatus status =
        wzHistogramMatchFilterWithOptions(&match, &o, source, nullptr, destination, cancel);
    if (status != WZ_STATUS_OK) return status;
    if (params->contrastEnabled) {
        const wzContrastEnhanceParams contrast{params->contrastHighTail, params->contrastLowTail, 0,
                                               255, 0};
        status = wzContrastEnhanceFilterMasked(&contrast, destination, o.statsMask, nullptr,
                                               destination, cancel);
        if (status != WZ_STATUS_OK) return status;
    }
    if (params->smoothEnabled) {
        const wzSelectiveSmoothParams smooth{params->smoothThreshold, params->smoothIterations};
        if (wide)
            status = wzSelectiveSmooth16(&smooth, untouched, destination, destination, cancel);
        else if (source->encoding == wzEncodingGray)
            status = wzSelectiveSmoothGray(&smooth, support->smoothSupport, untouched, destination,
                                           destination, cancel);
        else
            status = wzSelectiveSmooth(&smooth, support->smoothSupport, untouched, destination,
                                       destination, cancel);
        if (status != WZ_STATUS_OK) return status;
    }
    if (mask) {
        status = blendMaskedAny(*untouched, *destination, *destination, *mask);
        if (status != WZ_STATUS_OK) return status;
    }
    wzImageResetROI(destination);
    return WZ_STATUS_OK;
}

}  // extern "C"
