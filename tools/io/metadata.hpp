// EXIF, XMP and IPTC through Exiv2: read from a file's bytes, written into
// an encoded output's bytes. Orientation is read here too.
//
// Without Exiv2 (a build that lacks it) nothing is read or written and
// metadataAvailable() is false; the tool says so once per run.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "core/picture.hpp"
#include "io/codecs.hpp"

namespace morven::tool {

bool metadataAvailable();
// Once, before any thread starts: silences the library's own printing and
// prepares its XMP parser for concurrent use.
void initMetadata();

// The metadata of a file, or null when it holds none. A block Exiv2 cannot
// parse is left out and described in *problem.
std::shared_ptr<const EmbeddedMetadata> readMetadata(Bytes file, std::string *problem);

// EXIF orientation (1..8; XMP's tiff:Orientation when EXIF has none), 1 when
// absent or out of range.
int orientationOf(const EmbeddedMetadata &metadata);
// Resolution from EXIF (X/YResolution, ResolutionUnit), unknown when absent.
Resolution resolutionOf(const EmbeddedMetadata &metadata);
// One line per kind of metadata, for `info`: "EXIF: 41 tags (Canon EOS 5D,
// 2024:05:01 10:12:00)", "XMP: 12 properties", "IPTC: 3 datasets".
std::vector<std::string> describeMetadata(const EmbeddedMetadata &metadata);

// Writes the metadata into an encoded file of the given format, as far as
// the format holds it. On the way: the orientation becomes 1 (the pixels
// are upright now), pixel dimensions become the written picture's, X and Y
// resolution follow a turn, the EXIF thumbnail is dropped (it shows the
// unprocessed picture), and the layout tags of a TIFF source are left
// behind. What cannot be written is described in *notes.
void embedMetadata(std::vector<uint8_t> &file, Format format, const EmbeddedMetadata &metadata,
                   const Picture &written, std::vector<std::string> *notes);

}  // namespace morven::tool
