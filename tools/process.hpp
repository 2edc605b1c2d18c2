// The image operations of the tool, run through the library's C interface.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <morven/morven.h>

#include "common.hpp"
#include "image_io.hpp"

namespace morven::tool {

// Owners of library records.
struct ImageDeleter {
    void operator()(wzImage *p) const { wzImageRelease(&p); }
};
struct HeaderDeleter {
    void operator()(wzImage *p) const { wzImageReleaseHeader(&p); }
};
struct ProfileDeleter {
    void operator()(wzImageColorProfile *p) const { wzImageColorProfileRelease(&p); }
};
struct SupportDeleter {
    void operator()(wzHistogramTransferSupport *p) const { wzHistogramTransferSupportRelease(&p); }
};
using OwnedImage = std::unique_ptr<wzImage, ImageDeleter>;
using HeaderImage = std::unique_ptr<wzImage, HeaderDeleter>;
using Profile = std::unique_ptr<wzImageColorProfile, ProfileDeleter>;
using Support = std::unique_ptr<wzHistogramTransferSupport, SupportDeleter>;

// Throws std::bad_alloc when the library cannot make the record.
Support makeSupport();

// The colour channels of a picture as one 8-bit library image, worked on in
// place: gray, RGB or RGBA headers over the picture's own samples (the
// library leaves channel 4, alpha, as it was); gray + alpha goes through a
// separate gray plane. With threeChannels, a gray picture is widened to three
// equal channels (selective smoothing needs three) and narrowed back by
// commit(). Call commit() once the library is done.
class LibraryView {
public:
    LibraryView(Picture &picture, bool threeChannels = false);
    wzImage *get() const { return expanded_ ? expanded_.get() : header_.get(); }
    void commit();

private:
    Picture &picture_;
    std::vector<uint8_t> plane_;
    HeaderImage header_;
    OwnedImage expanded_;
};

// The profile of a picture's colour channels (alpha ignored).
Profile profileOf(const Picture &picture);

// The reference's profile as it is, and the profile of its gray conversion,
// which gray sources are matched to.
struct ReferenceProfiles {
    Profile colour;
    Profile gray;
};
ReferenceProfiles makeReferenceProfiles(const Picture &reference);

// A mask as one gray plane: colour masks through the library's gray
// conversion, alpha ignored.
std::vector<uint8_t> maskPlane(const Picture &mask);

struct TransferOptions {
    float strength, fidelity;
    int maxStep;
    bool contrast;
    float highTail, lowTail;
    bool smooth;
    float smoothThreshold;
    int smoothIterations;
};
// The library's own defaults.
TransferOptions defaultTransferOptions();

// Runs the transfer filter on the picture, writing the result over it (with
// smoothing on, from a copy of the original, which then guides the smoothing),
// with an optional mask of the picture's size, under the cancel flag. Returns the seconds spent in the
// library. Throws Interrupted when cancelled, FileError (naming path) when
// the library refuses.
double transferPicture(const std::string &path, Picture &picture,
                       const ReferenceProfiles &reference, const std::vector<uint8_t> *mask,
                       const TransferOptions &options, const wzHistogramTransferSupport *support);

// Throws FileError (naming path) on a non-zero library status, Interrupted
// on status 2.
void checkStatus(const std::string &path, const char *operation, wzStatus status);

}  // namespace morven::tool
