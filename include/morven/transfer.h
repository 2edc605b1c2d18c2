/**
 * @file
 * @brief The histogram transfer pipeline and the host entry points.
 * @ingroup morven_transfer
 */
/**
 * @defgroup morven_transfer Histogram transfer
 * @brief The transfer pipeline (matching, contrast, selective smoothing and
 *        a mask blend in one call), its parameter records, and the host entry
 *        points on packed BGR buffers.
 *
 * The transfer filter gives an 8-bit image the colour distribution of a
 * reference profile (histogram matching), then optionally stretches its
 * contrast, smooths it selectively against the unprocessed picture, and
 * blends the result back under a mask. The four host entry points run it on
 * packed 8-bit BGR buffers (rows of 3 * width bytes, no padding).
 * @{
 */
#ifndef MORVEN_TRANSFER_H
#define MORVEN_TRANSFER_H

#include "contrast.h"
#include "histogram.h"
#include "smoothing.h"

MORVEN_EXTERN_C_BEGIN

/** Support of the transfer filter. Long-lived, read-only after creation: may
 *  be shared by concurrent calls. */
typedef struct wzHistogramTransferSupport {
    wzSelectiveSmoothSupport *smoothSupport; /**< owned */
} wzHistogramTransferSupport;

/** Flat parameters of the transfer filter. */
typedef struct wzHistogramTransferParams {
    wzImageColorProfile *targetProfile; /**< borrowed, never freed; default null */
    float matchStrength;                /**< default 1.0 */
    float matchFidelity;                /**< default 0.9 */
    int32_t contrastEnabled;            /**< default 0 */
    float contrastHighTail;             /**< per mille; default 9.0 */
    float contrastLowTail;              /**< per mille; default 50.0 */
    int32_t smoothEnabled;              /**< default 0 */
    float smoothThreshold;              /**< fraction of 255; default 0.1 */
    int32_t smoothIterations;           /**< default 2 */
    int32_t matchMaxStep;               /**< default 255 (no limit) */
} wzHistogramTransferParams;

/** The three stages' own parameter records, built for one run. */
typedef struct wzHistogramTransferParamsInner {
    wzHistogramMatchParams *matchParams;     /**< owned */
    int32_t contrastEnabled;                 /**< non-zero: the contrast stage runs */
    wzContrastEnhanceParams *contrastParams; /**< owned */
    int32_t smoothEnabled;                   /**< non-zero: the smoothing stage runs */
    wzSelectiveSmoothParams *smoothParams;   /**< owned */
} wzHistogramTransferParamsInner;

/** New support object holding the selective smoothing tables.
 *  @return the new object (release it with
 *          wzHistogramTransferSupportRelease), or null. */
MORVEN_API wzHistogramTransferSupport *wzHistogramTransferSupportCreate(void);

/** Releases the smoothing tables and the record, sets `*support` to null;
 *  nothing for null.
 *  @param[in,out] support holder of the object. */
MORVEN_API void wzHistogramTransferSupportRelease(wzHistogramTransferSupport **support);

/** New flat parameter record with the defaults listed in
 *  wzHistogramTransferParams.
 *  @return the new record (release it with wzHistogramTransferParamsRelease),
 *          or null. */
MORVEN_API wzHistogramTransferParams *wzHistogramTransferParamsDefault(void);

/** Frees the record (not its target profile), sets `*params` to null; nothing
 *  for null.
 *  @param[in,out] params holder of the record. */
MORVEN_API void wzHistogramTransferParamsRelease(wzHistogramTransferParams **params);

/** New bundle with the three stages' default records.
 *
 *  The two enable flags are left for wzHistogramTransferSetInnerParams.
 *  @return the new bundle (release it with
 *          wzHistogramTransferParamsInnerRelease), or null when any of the
 *          four allocations fails (all of them are freed then). */
MORVEN_API wzHistogramTransferParamsInner *wzHistogramTransferParamsInnerCreate(void);

/** Releases the three records and the bundle, sets `*inner` to null; nothing
 *  for null.
 *  @param[in,out] inner holder of the bundle. */
MORVEN_API void wzHistogramTransferParamsInnerRelease(wzHistogramTransferParamsInner **inner);

/** Copies the flat fields into the bundle.
 *
 *  Target profile, strength, fidelity and step limit go to the matching
 *  record, the tails to the contrast record, threshold and passes to the
 *  smoothing record, and the two enable flags to the bundle. Matching mode
 *  and the manual contrast levels keep their defaults.
 *  @param params the flat parameters.
 *  @param[in,out] inner the bundle. */
MORVEN_API void wzHistogramTransferSetInnerParams(const wzHistogramTransferParams *params,
                                                  wzHistogramTransferParamsInner *inner);

/** Runs the pipeline on 8-bit images.
 *
 *  Histogram matching of source into destination (which may be the same
 *  record), then, when enabled, contrast enhancement of the destination in
 *  place and selective smoothing of the destination against the untouched
 *  picture, then, with a mask (8-bit gray), the blend of the untouched picture
 *  with the result (level 255 keeps the result, 0 the untouched pixel). The
 *  untouched picture is a copy of the source made exactly when a mask is
 *  given and either the call is in place or smoothing is enabled; otherwise
 *  it is the source itself. Without a mask in place, smoothing is guided by
 *  the destination as matched.
 *  The destination's region of interest is reset to the whole image on
 *  success. The cancel flag (may be null) is handed to every stage.
 *  Everything the filter made is released on every path.
 *  Choice of this library: the copy holds the whole source picture and takes
 *  the source's region of interest, so that the blend covers the same pixels
 *  as in the source (with a region of the whole image this is a plain copy).
 *  @param params the flat parameters.
 *  @param support the support object (its smoothing tables).
 *  @param source the 8-bit source image.
 *  @param mask blend mask, or null.
 *  @param destination the destination; may be the same record as source.
 *  @param cancel cancel flag handed to every stage, or null.
 *  @return 0; 1 when the bundle or the copy cannot be allocated; otherwise
 *          the first failing stage's status unchanged (2 when cancelled). */
MORVEN_API wzStatus wzHistogramTransferFilter(const wzHistogramTransferParams *params,
                                              const wzHistogramTransferSupport *support,
                                              wzImage *source, const wzImage *mask,
                                              wzImage *destination, const uint32_t *cancel);

/* ------------------------------------------------------------------------ */
/** @name Host entry points
 *  The library's only global state is the support object they share;
 *  wzMorvenInit and wzMorvenDispose must not overlap other calls of these
 *  four functions, which may otherwise run concurrently on distinct buffers.
 *  @{ */

/** Creates the shared support object.
 *
 *  Calling it again without wzMorvenDispose replaces (and leaks) the earlier
 *  object: pair each call with one wzMorvenDispose.
 *  @return 0, or 1 when it cannot be made. */
MORVEN_API wzStatus wzMorvenInit(void);

/** Releases the support object; does nothing when there is none. */
MORVEN_API void wzMorvenDispose(void);

/** Transfers the colour distribution of the reference (any size) onto the
 *  source, written into the destination.
 *
 *  Source and destination share one size; they may be the same buffer. All
 *  three are packed 8-bit BGR buffers. Runs histogram matching with the given
 *  strength, fidelity and maxStep (255 or more: no limit) and, when
 *  enhanceContrast is non-zero, contrast enhancement with the given tails
 *  (per mille); never smoothing, never a mask. Buffers and sizes are not
 *  checked.
 *  These calls cannot be cancelled (they pass no flag): a host that needs
 *  cancellation calls wzHistogramTransferFilter with its own flag.
 *  @param width columns of source and destination.
 *  @param height rows of source and destination.
 *  @param source the picture, packed 8-bit BGR.
 *  @param destination the result, packed 8-bit BGR; may be source.
 *  @param referenceWidth columns of the reference.
 *  @param referenceHeight rows of the reference.
 *  @param reference the reference picture, packed 8-bit BGR.
 *  @param enhanceContrast non-zero: contrast enhancement after matching.
 *  @param maxStep largest step of the matching table; 255 or more: no limit.
 *  @param strength share of the matched value.
 *  @param highTail per mille of pixels clipped at the bright end.
 *  @param lowTail per mille of pixels clipped at the dark end.
 *  @param fidelity below 1 smooths the matching table.
 *  @return 0; 1 without touching any buffer when wzMorvenInit has not run
 *          (or wzMorvenDispose has); 1 when a record cannot be allocated;
 *          otherwise the pipeline's status. */
MORVEN_API wzStatus wzMorvenTransfer(int32_t width, int32_t height, const uint8_t *source,
                                     uint8_t *destination, int32_t referenceWidth,
                                     int32_t referenceHeight, const uint8_t *reference,
                                     int32_t enhanceContrast, int32_t maxStep, float strength,
                                     float highTail, float lowTail, float fidelity);

/** Selective smoothing of input against guide into output, all packed 8-bit
 *  BGR buffers of one size, with the given passes per channel and threshold.
 *  @param width columns of every buffer.
 *  @param height rows of every buffer.
 *  @param guide the unprocessed picture.
 *  @param input the processed picture.
 *  @param output the result; may be the same buffer as input.
 *  @param iterations passes per channel.
 *  @param threshold fraction of 255.
 *  @return 0 (a threshold below 1/255 or no passes copies input to output);
 *          1 without touching any buffer when there is no support object; 1
 *          when a record or working image cannot be allocated. */
MORVEN_API wzStatus wzMorvenSmooth(int32_t width, int32_t height, const uint8_t *guide,
                                   const uint8_t *input, uint8_t *output, int32_t iterations,
                                   float threshold);

/** @} */

/* ======================================================================== */
/* Extensions                                                               */
/* ======================================================================== */

/** @name Extensions: statistics masks, 16-bit images, working colour spaces
 *  @{ */

/** The transfer filter with statistics masks, 16-bit images and working
 *  colour spaces.
 *
 *  Runs the stages of wzHistogramTransferFilter in the same order with the
 *  same copies: matching by wzHistogramMatchFilterWithOptions (options
 *  choose the space, the source's statistics mask and a deep target),
 *  contrast by wzContrastEnhanceFilterMasked with the same statistics mask
 *  (so excluded pixels count in no statistics), selective smoothing
 *  (wzSelectiveSmooth; wzSelectiveSmooth16 for 16-bit images,
 *  wzSelectiveSmoothGray for 8-bit gray ones), and the
 *  blend under `mask`. With null options, or an
 *  all-zero record, on 8-bit images the result is that of
 *  wzHistogramTransferFilter bit for bit (which refuses to smooth gray
 *  pictures, where this filter smooths them).
 *
 *  @param params the flat parameters; targetProfile is the 8-bit target
 *         used when options->targetProfile16 is null.
 *  @param options matching options, or null for the defaults.
 *  @param support the support object (its smoothing tables).
 *  @param source source image, 8-bit or 16-bit (wzType16U).
 *  @param mask blend mask (8-bit gray), or null.
 *  @param destination destination of the source's type and layout; may be
 *         the source.
 *  @param cancel cancel flag handed to every stage, or null.
 *  @return 0; 1 for rejected arguments (see
 *          wzHistogramMatchFilterWithOptions; also a 16-bit destination of
 *          another layout, and a statistics
 *          mask with contrast on a source whose region is not the whole
 *          image) or an allocation failure; 2 when cancelled;
 *          WZ_STATUS_NO_PIXELS when there was nothing to measure (the
 *          destination holds the source unchanged); otherwise the first
 *          failing stage's status. The destination's region of interest is
 *          reset to the whole image on success. */
MORVEN_API wzStatus wzHistogramTransferFilterWithOptions(const wzHistogramTransferParams *params,
                                                         const wzHistogramMatchOptions *options,
                                                         const wzHistogramTransferSupport *support,
                                                         wzImage *source, const wzImage *mask,
                                                         wzImage *destination,
                                                         const uint32_t *cancel);

/** @} */

MORVEN_EXTERN_C_END

/** @} */

#endif /* MORVEN_TRANSFER_H */
