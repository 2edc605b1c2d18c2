// Selective smoothing of 8-bit colour images: the interface (parameters and
// the filter) and the choice between the row-pipelined pass (pipeline.cpp)
// and the table-driven one (scalar.cpp). smoothing_internal.hpp maps the
// parts.
#include <cstdlib>

#include "common/memory.hpp"
#include "image/image_internal.hpp"
#include "morven/color.h"
#include "smoothing/smoothing_internal.hpp"

using namespace morven;

namespace {

bool isColour8U(const wzImage &img) {
    return img.type == wzType8U && channelCount(img.encoding) >= 3;
}

}  // namespace

namespace morven {

wzStatus selectiveSmoothWith(const Kernels *kernels, const wzSelectiveSmoothParams *params,
                             const wzSelectiveSmoothSupport *support, const wzImage *guide,
                             const wzImage *input, wzImage *output, const uint32_t *cancel) {
    if (!isColour8U(*guide) || !isColour8U(*input) || !isColour8U(*output)) return WZ_STATUS_ERROR;
    const int32_t w = input->width;
    const int32_t h = input->height;
    if (guide->width != w || guide->height != h || output->width != w || output->height != h)
        return WZ_STATUS_ERROR;

    // The whole images are smoothed: views with the region reset keep the
    // channel moves (which walk regions) inside every block.
    wzImage guideAll = *guide, inputAll = *input, outputAll = *output;
    wzImageResetROI(&guideAll);
    wzImageResetROI(&inputAll);
    wzImageResetROI(&outputAll);

    // Threshold in levels: a single-precision product truncated toward zero.
    const int32_t t = truncSat32(params->threshold * 255.0f);
    // Nothing to smooth (and, below 2 x 2, no neighbour pairs to walk).
    if (t < 1 || params->iterations < 1 || w < 2 || h < 2) {
        wzCopy(&inputAll, &outputAll);
        return WZ_STATUS_OK;
    }
    PairTables tables;
    if (!buildPairTables(*support, t, tables)) return WZ_STATUS_ERROR;
    if (kernels && closedFormHolds(tables, t) && pipelineFits(guideAll, inputAll, outputAll))
        return smoothPipelined(*kernels, t, params->iterations, guideAll, inputAll, outputAll,
                               cancel);
    return smoothWithTables(tables, params->iterations, guideAll, inputAll, outputAll, cancel);
}

}  // namespace morven

extern "C" {

MORVEN_API wzSelectiveSmoothParams *wzSelectiveSmoothParamsDefault(void) {
    FreePtr<wzSelectiveSmoothParams> p = allocZeroed<wzSelectiveSmoothParams>();
    if (!p) return nullptr;
    p->threshold = 0.1f;
    p->iterations = 2;
    return p.release();
}

MORVEN_API void wzSelectiveSmoothParamsRelease(wzSelectiveSmoothParams **params) {
    releaseRecord(params);
}

MORVEN_API wzStatus wzSelectiveSmooth(const wzSelectiveSmoothParams *params,
                                      const wzSelectiveSmoothSupport *support, const wzImage *guide,
                                      const wzImage *input, wzImage *output,
                                      const uint32_t *cancel) {
    return selectiveSmoothWith(&bestKernels(), params, support, guide, input, output, cancel);
}

}  // extern "C"
