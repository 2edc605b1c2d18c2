#include "library.hpp"

namespace morven::tool {
namespace {

uint32_t encodingOf(int channels) {
    return channels <= 2 ? wzEncodingGray : channels == 3 ? wzEncodingRGB : wzEncodingRGBA;
}

// The first channel of a gray + alpha picture as a gray picture.
Picture grayOf(const Picture &p) {
    Picture plane;
    plane.allocate(p.width, p.height, 1, p.depth);
    for (size_t i = 0; i < p.pixelCount(); ++i) plane.setSample(i, p.sample(2 * i));
    return plane;
}

}  // namespace

Support makeSupport() { return Support(checked(wzHistogramTransferSupportCreate())); }

HeaderImage wrap(int width, int height, uint32_t encoding, int depth, const void *data) {
    HeaderImage header(checked(
        wzImageCreateHeaderWithType(width, height, encoding, depth == 16 ? wzType16U : wzType8U)));
    // Headers only borrow; the library writes through them only when asked to.
    header->data = static_cast<uint8_t *>(const_cast<void *>(data));
    return header;
}

LibraryView::LibraryView(Picture &picture, bool threeChannels) : picture_(picture) {
    const void *data = picture.data();
    if (picture.channels == 2) {
        plane_ = grayOf(picture);
        data = plane_.data();
    }
    header_ =
        wrap(picture.width, picture.height, encodingOf(picture.channels), picture.depth, data);
    if (threeChannels && picture.isGray() && picture.depth == 8) {
        expanded_.reset(checked(wzImageCreate(picture.width, picture.height, wzEncodingBGR)));
        wzImageCvtColor(header_.get(), expanded_.get());
    }
}

void LibraryView::commit() {
    if (expanded_) wzImageExtractChannel(expanded_.get(), header_.get(), 1);
    if (picture_.channels == 2)
        for (size_t i = 0; i < plane_.pixelCount(); ++i)
            picture_.setSample(2 * i, plane_.sample(i));
}

MaskImage::MaskImage(std::vector<uint8_t> plane, int width, int height) : plane_(std::move(plane)) {
    if (!plane_.empty()) header_ = wrap(width, height, wzEncodingGray, 8, plane_.data());
}

std::vector<uint8_t> grayPlane(const Picture &source) {
    const Picture picture = toEightBits(source);
    if (picture.channels == 1) return picture.samples8;
    if (picture.channels == 2) return grayOf(picture).samples8;
    std::vector<uint8_t> plane(picture.pixelCount());
    const HeaderImage colour =
        wrap(picture.width, picture.height, encodingOf(picture.channels), 8, picture.data());
    const HeaderImage gray = wrap(picture.width, picture.height, wzEncodingGray, 8, plane.data());
    wzImageCvtColor(colour.get(), gray.get());
    return plane;
}

std::vector<uint8_t> bothMasks(std::vector<uint8_t> a, const std::vector<uint8_t> &b) {
    if (a.empty()) return b;
    if (b.empty()) return a;
    for (size_t i = 0; i < a.size(); ++i) a[i] = a[i] && b[i] ? 255 : 0;
    return a;
}

Profile profileOf(const Picture &picture, const wzImage *statsMask) {
    Profile profile(checked(wzImageColorProfileCreate()));
    Picture plane;
    if (picture.channels == 2) plane = grayOf(picture);
    const HeaderImage header =
        wrap(picture.width, picture.height, encodingOf(picture.channels), picture.depth,
             picture.channels == 2 ? plane.data() : picture.data());
    wzImageFillColorProfileMasked(header.get(), statsMask, profile.get());
    return profile;
}

Profile16 deepProfileOf(const Picture &picture, const wzImage *statsMask, wzWorkingSpace space) {
    Profile16 profile(checked(wzImageColorProfile16Create()));
    Picture plane;
    if (picture.channels == 2) plane = grayOf(picture);
    const HeaderImage header =
        wrap(picture.width, picture.height, encodingOf(picture.channels), picture.depth,
             picture.channels == 2 ? plane.data() : picture.data());
    if (wzImageFillColorProfile16(header.get(), statsMask, space, profile.get()) != WZ_STATUS_OK)
        throw std::runtime_error("the library could not measure the picture");
    return profile;
}

void checkStatus(const std::string &path, const char *operation, wzStatus status) {
    if (status == WZ_STATUS_OK || status == WZ_STATUS_NO_PIXELS) return;
    if (status == WZ_STATUS_CANCELLED) throw Interrupted();
    throw FileError(path, std::string(operation) + " failed in the library (status " +
                              std::to_string(status) + ")");
}

}  // namespace morven::tool
