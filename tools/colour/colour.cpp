#include "colour.hpp"

#include <memory>
#include <stdexcept>

#include <lcms2.h>

#include "core/common.hpp"

namespace morven::tool {
namespace {

struct ProfileCloser {
    void operator()(void *p) const { cmsCloseProfile(p); }
};
struct TransformDeleter {
    void operator()(void *t) const { cmsDeleteTransform(t); }
};
using Profile = std::unique_ptr<void, ProfileCloser>;
using Transform = std::unique_ptr<void, TransformDeleter>;

// Gray with the sRGB tone curve and the D50 white of ICC profiles.
Profile srgbGray() {
    const cmsFloat64Number parameters[5] = {2.4, 1 / 1.055, 0.055 / 1.055, 1 / 12.92, 0.04045};
    cmsToneCurve *curve = cmsBuildParametricToneCurve(nullptr, 4, parameters);
    if (!curve) throw std::bad_alloc();
    Profile profile(cmsCreateGrayProfile(cmsD50_xyY(), curve));
    cmsFreeToneCurve(curve);
    if (!profile) throw std::bad_alloc();
    return profile;
}

Profile open(const std::vector<uint8_t> &icc, bool gray) {
    if (icc.empty()) return gray ? srgbGray() : Profile(cmsCreate_sRGBProfile());
    Profile profile(cmsOpenProfileFromMem(icc.data(), cmsUInt32Number(icc.size())));
    if (!profile) throw std::runtime_error("unreadable ICC profile");
    return profile;
}

cmsUInt32Number pixelFormat(int channels, int depth) {
    const int bytes = depth / 8;
    switch (channels) {
        case 1: return COLORSPACE_SH(PT_GRAY) | CHANNELS_SH(1) | BYTES_SH(bytes);
        case 2: return COLORSPACE_SH(PT_GRAY) | EXTRA_SH(1) | CHANNELS_SH(1) | BYTES_SH(bytes);
        case 3: return COLORSPACE_SH(PT_RGB) | CHANNELS_SH(3) | BYTES_SH(bytes);
        default: return COLORSPACE_SH(PT_RGB) | EXTRA_SH(1) | CHANNELS_SH(3) | BYTES_SH(bytes);
    }
}

}  // namespace

ProfileKind profileKind(const std::vector<uint8_t> &icc) {
    if (icc.empty()) return ProfileKind::Unreadable;
    const Profile profile(cmsOpenProfileFromMem(icc.data(), cmsUInt32Number(icc.size())));
    if (!profile) return ProfileKind::Unreadable;
    switch (cmsGetColorSpace(profile.get())) {
        case cmsSigGrayData: return ProfileKind::Gray;
        case cmsSigRgbData: return ProfileKind::Rgb;
        case cmsSigCmykData: return ProfileKind::Cmyk;
        default: return ProfileKind::Other;
    }
}

std::string profileDescription(const std::vector<uint8_t> &icc) {
    if (icc.empty()) return "sRGB (assumed)";
    const Profile profile(cmsOpenProfileFromMem(icc.data(), cmsUInt32Number(icc.size())));
    if (!profile) return "unreadable ICC profile";
    char text[256] = {};
    cmsGetProfileInfoASCII(profile.get(), cmsInfoDescription, "en", "US", text, sizeof text);
    return text[0] ? text : "ICC profile without a description";
}

bool profileFits(const Picture &picture) {
    if (picture.icc.empty()) return true;
    return profileKind(picture.icc) == (picture.isGray() ? ProfileKind::Gray : ProfileKind::Rgb);
}

Picture convertColours(const Picture &picture, const std::vector<uint8_t> &targetIcc) {
    const Profile from = open(picture.icc, picture.isGray());
    const Profile to = open(targetIcc, picture.isGray());
    const cmsColorSpaceSignature space = cmsGetColorSpace(to.get());
    if (space != cmsSigGrayData && space != cmsSigRgbData)
        throw std::runtime_error("the target ICC profile is neither gray nor RGB");
    const int channels = (space == cmsSigGrayData ? 1 : 3) + (picture.hasAlpha() ? 1 : 0);
    const Transform transform(
        cmsCreateTransform(from.get(), pixelFormat(picture.channels, picture.depth), to.get(),
                           pixelFormat(channels, 16), INTENT_RELATIVE_COLORIMETRIC,
                           cmsFLAGS_COPY_ALPHA | cmsFLAGS_NOCACHE));
    if (!transform)
        throw std::runtime_error("Little CMS cannot convert between these ICC profiles");
    Picture out = picture;
    out.allocate(picture.width, picture.height, channels, 16);
    out.icc = targetIcc;
    // Row by row: cancellation is checked in between.
    const size_t inRow =
        size_t(picture.width) * size_t(picture.channels) * size_t(picture.depth / 8);
    const size_t outRow = size_t(picture.width) * size_t(channels);
    for (int y = 0; y < picture.height; ++y) {
        if (cancelled()) throw Interrupted();
        cmsDoTransform(transform.get(),
                       static_cast<const uint8_t *>(picture.data()) + size_t(y) * inRow,
                       out.samples16.data() + size_t(y) * outRow, cmsUInt32Number(picture.width));
    }
    return out;
}

void convertCmykToRgb(Picture &picture, const std::string &path) {
    if (picture.icc.empty())
        throw FileError(path,
                        "CMYK picture without an ICC profile: its colours are unknown (convert it "
                        "to RGB first)");
    if (profileKind(picture.icc) != ProfileKind::Cmyk)
        throw FileError(path, "CMYK picture whose ICC profile is not a usable CMYK profile");
    const Profile from = open(picture.icc, false);
    const Profile to(cmsCreate_sRGBProfile());
    const int bytes = picture.depth / 8;
    const cmsUInt32Number in = COLORSPACE_SH(PT_CMYK) | CHANNELS_SH(4) | BYTES_SH(bytes) |
                               FLAVOR_SH(picture.cmykInverted ? 1 : 0);
    const Transform transform(cmsCreateTransform(
        from.get(), in, to.get(), pixelFormat(3, picture.depth), INTENT_RELATIVE_COLORIMETRIC,
        cmsFLAGS_BLACKPOINTCOMPENSATION | cmsFLAGS_NOCACHE));
    if (!transform) throw FileError(path, "its CMYK ICC profile cannot be used for conversion");
    Picture rgb = picture;
    rgb.allocate(picture.width, picture.height, 3, picture.depth);
    cmsDoTransform(transform.get(), picture.data(), rgb.data(),
                   cmsUInt32Number(picture.pixelCount()));
    rgb.cmyk = rgb.cmykInverted = false;
    rgb.icc.clear();
    picture = std::move(rgb);
}

}  // namespace morven::tool
