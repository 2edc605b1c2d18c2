// The transfer of a reference's colours onto pictures: the reference's
// statistics in the working space each source is matched in, and the run of
// the library's extended transfer filter on one picture.
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "process/library.hpp"

namespace morven::tool {

// The working space used when --space is not given. Lab: matching lightness
// and the two opponent colour axes separately gives the fewest false colours
// in shadows and neutrals (see docs/colour-spaces.md).
constexpr wzWorkingSpace kDefaultSpace = wzSpaceLab;

const char *spaceName(wzWorkingSpace space);  // "rgb", "luma", "ycbcr", "lab"

struct TransferSettings {
    float strength, fidelity;
    int maxStep;
    bool contrast;
    float highTail, lowTail;
    bool smooth;
    float smoothThreshold;
    int smoothIterations;
    wzWorkingSpace space = kDefaultSpace;
    bool manageColour = true;  // convert the reference into each source's colour space
};
// The library's defaults and kDefaultSpace.
TransferSettings defaultTransferSettings();

// What a source is matched to: the reference's profile, counted in the
// space the source is matched in.
struct Target {
    wzWorkingSpace space = wzSpaceChannels;
    Profile profile8;     // an 8-bit reference matched channel by channel
    Profile16 profile16;  // otherwise
    std::string note;     // said once per source, e.g. that only luminance is matched
};

// The reference of a run. Sources with different colour profiles or
// layouts need different targets; each is made once, on first use, and
// shared by every thread.
class Reference {
public:
    // mask: statistics mask of the reference's size (--reference-mask), or
    // empty; fully transparent pixels are left out as well.
    Reference(Picture picture, const std::vector<uint8_t> &mask, const TransferSettings &settings);
    const Picture &picture() const { return picture_; }
    const Target &targetFor(const Picture &source);

    // Which target a source needs: its layout, and its profile when the
    // reference is converted into it.
    std::string targetKey(const Picture &source) const;
    // The statistics mask (the given one and the opaque pixels); handing it
    // to the constructor again gives the same statistics.
    const std::vector<uint8_t> &statsMask() const { return mask_.plane(); }
    // The targets made so far, and one made elsewhere (a copy of the
    // reference in another process keeps the statistics already counted).
    std::vector<std::pair<std::string, const Target *>> targets();
    void addTarget(std::string key, std::unique_ptr<Target> target);

private:
    Picture picture_;
    MaskImage mask_;
    TransferSettings settings_;
    std::mutex mutex_;
    std::map<std::string, std::unique_ptr<Target>> targets_;
};

// A mask file of a run (--mask, --source-mask, --reference-mask), read once
// as an 8-bit gray plane; empty when not given.
struct MaskFile {
    std::string path;
    std::vector<uint8_t> plane;
    int width = 0, height = 0;
    bool empty() const { return plane.empty(); }
    // Throws FileError naming the mask unless the picture at path has its size.
    void checkSize(const std::string &path, const Picture &picture) const;
};
// Reads a mask (nothing for an empty path); what the reader had to say is
// added to *notes. Throws FileError.
MaskFile readMaskFile(const std::string &path, std::vector<std::string> *notes);

// The transfer of one picture of a run, in place: the masks checked against
// its size, the reference's target for it (with its note), its opaque
// pixels under the source mask counted, the blend mask applied. Returns the
// seconds spent; throws as transferPicture does.
double transferOne(const std::string &path, Picture &picture, Reference &reference,
                   const MaskFile &blend, const MaskFile &sourceMask,
                   const TransferSettings &settings, const wzHistogramTransferSupport *support,
                   std::vector<std::string> &notes);

// The working space a source is matched in: luminance alone when a colour
// source meets a gray reference, and for a gray source in rgb space.
wzWorkingSpace effectiveSpace(bool sourceGray, bool referenceGray, wzWorkingSpace chosen);

// Runs the transfer on the picture in place with the library's extended
// filter. statsMask: pixels of the source that count (may be empty); blend:
// --mask, 255 keeps the result (may be empty). Returns the seconds spent in
// the library; a note is added when nothing could be measured. Throws
// Interrupted or FileError (naming path).
double transferPicture(const std::string &path, Picture &picture, const Target &target,
                       const MaskImage &statsMask, const MaskImage &blend,
                       const TransferSettings &settings, const wzHistogramTransferSupport *support,
                       std::vector<std::string> &notes);

}  // namespace morven::tool
