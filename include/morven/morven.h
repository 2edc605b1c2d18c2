/**
 * @file
 * @brief Morven: image processing with a flat C interface.
 *
 * The umbrella header: includes every family of the public interface
 * (see the modules: common definitions, images, colour conversion and
 * blending, histograms, contrast enhancement, dense matrices, selective
 * smoothing, histogram transfer, volumes).
 */
#ifndef MORVEN_MORVEN_H
#define MORVEN_MORVEN_H

#include "color.h"
#include "common.h"
#include "contrast.h"
#include "histogram.h"
#include "image.h"
#include "matrix.h"
#include "smoothing.h"
#include "transfer.h"
#include "volume.h"

#endif /* MORVEN_MORVEN_H */
