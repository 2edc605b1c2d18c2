// The tool's side of the library's C interface: owners of its records,
// pictures seen as library images, masks and colour profiles.
#pragma once

#include <memory>
#include <new>
#include <string>
#include <vector>

#include <morven/morven.h>

#include "core/common.hpp"
#include "core/picture.hpp"

namespace morven::tool {

template <class T>
T *checked(T *p) {
    if (!p) throw std::bad_alloc();
    return p;
}

struct ImageDeleter {
    void operator()(wzImage *p) const { wzImageRelease(&p); }
};
struct HeaderDeleter {
    void operator()(wzImage *p) const { wzImageReleaseHeader(&p); }
};
struct ProfileDeleter {
    void operator()(wzImageColorProfile *p) const { wzImageColorProfileRelease(&p); }
};
struct Profile16Deleter {
    void operator()(wzImageColorProfile16 *p) const { wzImageColorProfile16Release(&p); }
};
struct SupportDeleter {
    void operator()(wzHistogramTransferSupport *p) const { wzHistogramTransferSupportRelease(&p); }
};
using OwnedImage = std::unique_ptr<wzImage, ImageDeleter>;
using HeaderImage = std::unique_ptr<wzImage, HeaderDeleter>;
using Profile = std::unique_ptr<wzImageColorProfile, ProfileDeleter>;
using Profile16 = std::unique_ptr<wzImageColorProfile16, Profile16Deleter>;
using Support = std::unique_ptr<wzHistogramTransferSupport, SupportDeleter>;

Support makeSupport();

// A library header over samples the caller keeps (8-bit or 16-bit).
HeaderImage wrap(int width, int height, uint32_t encoding, int depth, const void *data);

// The colour channels of a picture as one library image, worked on in
// place: gray, RGB or RGBA headers over the picture's own samples (the
// library leaves channel 4, alpha, as it was); gray + alpha goes through a
// separate gray plane. With threeChannels, an 8-bit gray picture is widened
// to three equal channels (8-bit selective smoothing needs three) and
// narrowed back. Call commit() once the library is done.
class LibraryView {
public:
    explicit LibraryView(Picture &picture, bool threeChannels = false);
    wzImage *get() const { return expanded_ ? expanded_.get() : header_.get(); }
    void commit();

private:
    Picture &picture_;
    Picture plane_;
    HeaderImage header_;
    OwnedImage expanded_;
};

// An 8-bit gray plane (statistics or blend mask) with its library header;
// empty() when there is no plane (every pixel counts).
class MaskImage {
public:
    MaskImage() = default;
    MaskImage(std::vector<uint8_t> plane, int width, int height);
    bool empty() const { return plane_.empty(); }
    const wzImage *get() const { return header_.get(); }
    const std::vector<uint8_t> &plane() const { return plane_; }

private:
    std::vector<uint8_t> plane_;
    HeaderImage header_;
};

// A picture as one 8-bit gray plane: colour through the library's gray
// conversion, 16-bit samples to the nearest 8-bit level, alpha ignored.
std::vector<uint8_t> grayPlane(const Picture &picture);
// Pixels counted where both planes are non-zero; an empty plane counts
// everywhere.
std::vector<uint8_t> bothMasks(std::vector<uint8_t> a, const std::vector<uint8_t> &b);

// The 8-bit profile of a picture's colour channels under a statistics mask
// (null: all pixels).
Profile profileOf(const Picture &picture, const wzImage *statsMask = nullptr);
// The deep profile of a picture's colour channels in a working space.
Profile16 deepProfileOf(const Picture &picture, const wzImage *statsMask, wzWorkingSpace space);

// Throws FileError (naming path) on a library status other than 0 and
// WZ_STATUS_NO_PIXELS, Interrupted on status 2.
void checkStatus(const std::string &path, const char *operation, wzStatus status);

}  // namespace morven::tool
