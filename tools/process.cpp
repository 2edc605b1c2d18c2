#include "process.hpp"

#include <new>
#include <optional>

namespace morven::tool {
namespace {

template <class T>
T *checked(T *p) {
    if (!p) throw std::bad_alloc();
    return p;
}

HeaderImage wrap(int width, int height, uint32_t encoding, const uint8_t *data) {
    HeaderImage header(checked(wzImageCreateHeader(width, height, encoding)));
    // Headers only borrow; the library writes through them only when asked to.
    header->data = const_cast<uint8_t *>(data);
    return header;
}

uint32_t encodingOf(int channels) {
    return channels <= 2 ? wzEncodingGray : channels == 3 ? wzEncodingRGB : wzEncodingRGBA;
}

// The gray samples of a gray + alpha picture.
std::vector<uint8_t> grayOf(const Picture &p) {
    std::vector<uint8_t> plane(size_t(p.width) * size_t(p.height));
    for (size_t i = 0; i < plane.size(); ++i) plane[i] = p.pixels[2 * i];
    return plane;
}

}  // namespace

Support makeSupport() { return Support(checked(wzHistogramTransferSupportCreate())); }

LibraryView::LibraryView(Picture &picture, bool threeChannels) : picture_(picture) {
    const uint8_t *data = picture.pixels.data();
    if (picture.channels == 2) {
        plane_ = grayOf(picture);
        data = plane_.data();
    }
    header_ = wrap(picture.width, picture.height, encodingOf(picture.channels), data);
    if (threeChannels && picture.isGray()) {
        expanded_.reset(checked(wzImageCreate(picture.width, picture.height, wzEncodingBGR)));
        wzImageCvtColor(header_.get(), expanded_.get());
    }
}

void LibraryView::commit() {
    if (expanded_) wzImageExtractChannel(expanded_.get(), header_.get(), 1);
    if (picture_.channels == 2)
        for (size_t i = 0; i < plane_.size(); ++i) picture_.pixels[2 * i] = plane_[i];
}

Profile profileOf(const Picture &picture) {
    Profile profile(checked(wzImageColorProfileCreate()));
    std::vector<uint8_t> plane;
    if (picture.channels == 2) plane = grayOf(picture);
    const HeaderImage header = wrap(picture.width, picture.height, encodingOf(picture.channels),
                                    picture.channels == 2 ? plane.data() : picture.pixels.data());
    wzImageFillColorProfile(header.get(), profile.get());
    return profile;
}

ReferenceProfiles makeReferenceProfiles(const Picture &reference) {
    ReferenceProfiles profiles;
    profiles.colour = profileOf(reference);
    profiles.gray.reset(checked(wzImageColorProfileCreate()));
    if (reference.isGray()) {
        *profiles.gray = *profiles.colour;
    } else {
        const HeaderImage colour = wrap(reference.width, reference.height,
                                        encodingOf(reference.channels), reference.pixels.data());
        const OwnedImage gray(checked(wzImageCreate(reference.width, reference.height, wzEncodingGray)));
        wzImageCvtColor(colour.get(), gray.get());
        wzImageFillColorProfile(gray.get(), profiles.gray.get());
    }
    return profiles;
}

std::vector<uint8_t> maskPlane(const Picture &mask) {
    if (mask.channels == 1) return mask.pixels;
    if (mask.channels == 2) return grayOf(mask);
    std::vector<uint8_t> plane(size_t(mask.width) * size_t(mask.height));
    const HeaderImage colour = wrap(mask.width, mask.height, encodingOf(mask.channels), mask.pixels.data());
    const HeaderImage gray = wrap(mask.width, mask.height, wzEncodingGray, plane.data());
    wzImageCvtColor(colour.get(), gray.get());
    return plane;
}

TransferOptions defaultTransferOptions() {
    wzHistogramTransferParams *p = checked(wzHistogramTransferParamsDefault());
    const TransferOptions options{p->matchStrength,    p->matchFidelity,  p->matchMaxStep,
                                  p->contrastEnabled != 0, p->contrastHighTail, p->contrastLowTail,
                                  p->smoothEnabled != 0, p->smoothThreshold, p->smoothIterations};
    wzHistogramTransferParamsRelease(&p);
    return options;
}

void checkStatus(const std::string &path, const char *operation, wzStatus status) {
    if (status == WZ_STATUS_OK) return;
    if (status == WZ_STATUS_CANCELLED) throw Interrupted();
    throw FileError(path, std::string(operation) + " failed in the library (status " +
                              std::to_string(status) + ")");
}

double transferPicture(const std::string &path, Picture &picture,
                       const ReferenceProfiles &reference, const std::vector<uint8_t> *mask,
                       const TransferOptions &options, const wzHistogramTransferSupport *support) {
    struct ParamsDeleter {
        void operator()(wzHistogramTransferParams *p) const { wzHistogramTransferParamsRelease(&p); }
    };
    // One parameter record per call: concurrent calls must not share one.
    const std::unique_ptr<wzHistogramTransferParams, ParamsDeleter> params(
        checked(wzHistogramTransferParamsDefault()));
    // A gray picture takes on the distribution of the reference's gray
    // conversion; the library only reads the profile.
    params->targetProfile = picture.isGray() ? reference.gray.get() : reference.colour.get();
    params->matchStrength = options.strength;
    params->matchFidelity = options.fidelity;
    params->matchMaxStep = options.maxStep;
    params->contrastEnabled = options.contrast ? 1 : 0;
    params->contrastHighTail = options.highTail;
    params->contrastLowTail = options.lowTail;
    params->smoothEnabled = options.smooth ? 1 : 0;
    params->smoothThreshold = options.smoothThreshold;
    params->smoothIterations = options.smoothIterations;

    LibraryView view(picture, options.smooth);
    // Smoothing repairs the matched picture against the unprocessed one. In
    // place and without a mask the library would guide it by the matched
    // picture itself, which changes nothing, so then the source is a copy.
    std::optional<Picture> original;
    std::optional<LibraryView> source;
    if (options.smooth) {
        original.emplace(picture);
        source.emplace(*original, true);
    }
    HeaderImage maskHeader;
    if (mask) maskHeader = wrap(picture.width, picture.height, wzEncodingGray, mask->data());

    const Stopwatch clock;
    const wzStatus status = wzHistogramTransferFilter(params.get(), support, source ? source->get() : view.get(),
                                                      maskHeader.get(), view.get(), cancelFlag());
    const double seconds = clock.seconds();
    checkStatus(path, "the transfer", status);
    view.commit();
    return seconds;
}

}  // namespace morven::tool
