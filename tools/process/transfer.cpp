#include "transfer.hpp"

#include <optional>

#include "colour/colour.hpp"
#include "io/picture_io.hpp"

namespace morven::tool {

const char *spaceName(wzWorkingSpace space) {
    switch (space) {
        case wzSpaceChannels: return "rgb";
        case wzSpaceLuma: return "luma";
        case wzSpaceYCbCr: return "ycbcr";
        case wzSpaceLab: return "lab";
    }
    return "?";
}

TransferSettings defaultTransferSettings() {
    wzHistogramTransferParams *p = checked(wzHistogramTransferParamsDefault());
    const TransferSettings settings{
        p->matchStrength,        p->matchFidelity,    p->matchMaxStep,
        p->contrastEnabled != 0, p->contrastHighTail, p->contrastLowTail,
        p->smoothEnabled != 0,   p->smoothThreshold,  p->smoothIterations};
    wzHistogramTransferParamsRelease(&p);
    return settings;
}

wzWorkingSpace effectiveSpace(bool sourceGray, bool referenceGray, wzWorkingSpace chosen) {
    if (!sourceGray && referenceGray) return wzSpaceLuma;
    if (sourceGray && !referenceGray && chosen == wzSpaceChannels) return wzSpaceLuma;
    return chosen;
}

Reference::Reference(Picture picture, const std::vector<uint8_t> &mask,
                     const TransferSettings &settings)
    : picture_(std::move(picture)), settings_(settings) {
    const int w = picture_.width, h = picture_.height;
    mask_ = MaskImage(bothMasks(opaqueMask(picture_), mask), w, h);
}

std::string Reference::targetKey(const Picture &source) const {
    // A source without a profile (sRGB) and one with the reference's own
    // profile need different targets when the reference has a profile.
    std::string key(source.isGray() ? "gray" : "colour");
    if (settings_.manageColour && source.icc != picture_.icc) {
        key += ':';
        key.append(source.icc.begin(), source.icc.end());
    }
    return key;
}

std::vector<std::pair<std::string, const Target *>> Reference::targets() {
    const std::lock_guard lock(mutex_);
    std::vector<std::pair<std::string, const Target *>> made;
    for (const auto &[key, target] : targets_) made.emplace_back(key, target.get());
    return made;
}

void Reference::addTarget(std::string key, std::unique_ptr<Target> target) {
    const std::lock_guard lock(mutex_);
    targets_.emplace(std::move(key), std::move(target));
}

const Target &Reference::targetFor(const Picture &source) {
    const bool convert = settings_.manageColour && source.icc != picture_.icc;
    std::string key = targetKey(source);
    const std::lock_guard lock(mutex_);
    if (const auto it = targets_.find(key); it != targets_.end()) return *it->second;

    auto target = std::make_unique<Target>();
    // The reference as the source's colour space shows it: the same colours
    // in a viewer then give the same values to match.
    std::optional<Picture> converted;
    if (convert) converted = convertColours(picture_, source.icc);
    const Picture &reference = converted ? *converted : picture_;
    target->space = effectiveSpace(source.isGray(), picture_.isGray(), settings_.space);
    if (!source.isGray() && picture_.isGray())
        target->note = "the reference is gray: only luminance is matched (working space luma)";
    if (target->space == wzSpaceChannels && reference.depth == 8)
        target->profile8 = profileOf(reference, mask_.get());
    else
        target->profile16 = deepProfileOf(reference, mask_.get(), target->space);
    return *targets_.emplace(std::move(key), std::move(target)).first->second;
}

void MaskFile::checkSize(const std::string &picturePath, const Picture &picture) const {
    if (width != picture.width || height != picture.height)
        throw FileError(path, "the mask is " + std::to_string(width) + " x " +
                                  std::to_string(height) + " but " + picturePath + " is " +
                                  std::to_string(picture.width) + " x " +
                                  std::to_string(picture.height));
}

MaskFile readMaskFile(const std::string &path, std::vector<std::string> *notes) {
    MaskFile mask;
    if (path.empty()) return mask;
    const Picture picture = readPicture(path, notes);
    mask.path = path;
    mask.width = picture.width;
    mask.height = picture.height;
    mask.plane = grayPlane(picture);
    return mask;
}

double transferOne(const std::string &path, Picture &picture, Reference &reference,
                   const MaskFile &blend, const MaskFile &sourceMask,
                   const TransferSettings &settings, const wzHistogramTransferSupport *support,
                   std::vector<std::string> &notes) {
    if (!blend.empty()) blend.checkSize(path, picture);
    if (!sourceMask.empty()) sourceMask.checkSize(path, picture);
    const Stopwatch setupClock;
    const Target &target = reference.targetFor(picture);
    if (!target.note.empty()) notes.push_back(target.note);
    const MaskImage stats(bothMasks(opaqueMask(picture), sourceMask.plane), picture.width,
                          picture.height);
    const MaskImage weights(blend.plane, picture.width, picture.height);
    return setupClock.seconds() +
           transferPicture(path, picture, target, stats, weights, settings, support, notes);
}

namespace {

struct TransferParams {
    std::unique_ptr<wzHistogramTransferParams, void (*)(wzHistogramTransferParams *)> p{
        checked(wzHistogramTransferParamsDefault()),
        [](wzHistogramTransferParams *q) { wzHistogramTransferParamsRelease(&q); }};
};

}  // namespace

double transferPicture(const std::string &path, Picture &picture, const Target &target,
                       const MaskImage &statsMask, const MaskImage &blend,
                       const TransferSettings &settings, const wzHistogramTransferSupport *support,
                       std::vector<std::string> &notes) {
    // One parameter record per call: concurrent calls must not share one.
    TransferParams record;
    wzHistogramTransferParams *params = record.p.get();
    params->targetProfile = target.profile8.get();
    params->matchStrength = settings.strength;
    params->matchFidelity = settings.fidelity;
    params->matchMaxStep = settings.maxStep;
    params->contrastEnabled = settings.contrast ? 1 : 0;
    params->contrastHighTail = settings.highTail;
    params->contrastLowTail = settings.lowTail;
    params->smoothEnabled = settings.smooth ? 1 : 0;
    params->smoothThreshold = settings.smoothThreshold;
    params->smoothIterations = settings.smoothIterations;
    wzHistogramMatchOptions options{};
    options.space = target.space;
    options.statsMask = statsMask.get();
    options.targetProfile16 = target.profile16.get();

    // The library smooths 8-bit pictures in three channels only: an 8-bit
    // gray picture is matched on its own and smoothed as three equal
    // channels, then blended under the mask here.
    const bool graySmoothing = settings.smooth && picture.isGray() && picture.depth == 8;
    if (graySmoothing) params->smoothEnabled = 0;

    // Smoothing repairs the matched picture against the unprocessed one. In
    // place and without a mask the library would guide it by the matched
    // picture itself, which changes nothing, so then the source is a copy.
    std::optional<Picture> original;
    std::optional<LibraryView> source;
    if (settings.smooth) {
        original.emplace(picture);
        source.emplace(*original, graySmoothing);
    }
    LibraryView view(picture);
    const Stopwatch clock;
    wzStatus status = wzHistogramTransferFilterWithOptions(
        params, &options, support, source && !graySmoothing ? source->get() : view.get(),
        graySmoothing ? nullptr : blend.get(), view.get(), cancelFlag());
    checkStatus(path, "the transfer", status);
    if (status == WZ_STATUS_NO_PIXELS) {
        notes.push_back(
            "no pixel of the source or the reference counts (all transparent or masked out); "
            "written unchanged");
        return clock.seconds();
    }
    view.commit();
    if (graySmoothing) {
        struct SmoothDeleter {
            void operator()(wzSelectiveSmoothParams *p) const {
                wzSelectiveSmoothParamsRelease(&p);
            }
        };
        const std::unique_ptr<wzSelectiveSmoothParams, SmoothDeleter> smooth(
            checked(wzSelectiveSmoothParamsDefault()));
        smooth->threshold = settings.smoothThreshold;
        smooth->iterations = settings.smoothIterations;
        LibraryView wide(picture, true);
        checkStatus(path, "selective smoothing",
                    wzSelectiveSmooth(smooth.get(), support->smoothSupport, source->get(),
                                      wide.get(), wide.get(), cancelFlag()));
        wide.commit();
        if (!blend.empty()) {
            LibraryView before(*original), after(picture);
            checkStatus(path, "the blend",
                        wzAddWeigthedM(before.get(), after.get(), after.get(), blend.get()));
            after.commit();
        }
    }
    return clock.seconds();
}

}  // namespace morven::tool
