// Reading and writing PNG and JPEG files.
//
// Every picture is held as 8-bit interleaved samples, rows packed: 1 channel
// (gray), 2 (gray, alpha), 3 (red, green, blue) or 4 (red, green, blue,
// alpha). 16-bit PNG samples are scaled to 8 bits when read.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace morven::tool {

// Largest picture accepted, checked on the declared size before any pixel
// memory is allocated: each side at most 65535 pixels and at most 2^28
// pixels in all (1 GiB of RGBA samples).
constexpr uint32_t kMaxSide = 65535;
constexpr uint64_t kMaxPixels = uint64_t{1} << 28;
// Largest file read into memory.
constexpr uint64_t kMaxFileBytes = uint64_t{1} << 31;

enum class Format { Png, Jpeg };

struct Picture {
    int width = 0;
    int height = 0;
    int channels = 0;  // 1 gray, 2 gray + alpha, 3 RGB, 4 RGBA
    std::vector<uint8_t> pixels;
    Format format = Format::Png;  // the format it was read from
    int bitDepth = 8;             // bits per sample in the file

    bool hasAlpha() const { return channels == 2 || channels == 4; }
    bool isGray() const { return channels <= 2; }
    size_t sampleCount() const { return size_t(width) * size_t(height) * size_t(channels); }
};

const char *formatName(Format format);
// "gray", "gray+alpha", "RGB" or "RGBA".
const char *layoutName(int channels);

// The output format chosen by a file name's extension (.png, .jpg, .jpeg,
// any case), or nothing for another extension.
std::optional<Format> formatForPath(const std::string &path);

// Reads and decodes a PNG or JPEG file (the format is found from its first
// bytes, not its name). Throws FileError with a one-line reason.
Picture readPicture(const std::string &path);

// Encodes a picture into memory. JPEG keeps gray or colour and drops any
// alpha channel (*droppedAlpha is set then); quality is 1..100.
std::vector<uint8_t> encodePicture(const Picture &picture, Format format, int quality,
                                   bool *droppedAlpha);

// Writes bytes to path through a temporary file in the same folder that is
// renamed over the target at the end, so the target is either absent, its old
// self, or complete. Without overwrite an existing target is left alone and
// an error raised. The cancel flag is checked before the rename: an
// interrupted write leaves nothing behind. Throws FileError or Interrupted.
void writeFileAtomically(const std::string &path, std::span<const uint8_t> bytes,
                         bool overwrite);

// Fails with FileError when the output may not be written: it exists and
// overwrite is off, it is a folder, it is one of the inputs (never
// overwritten), or its folder does not exist or is not writable.
void checkOutputPath(const std::string &output, const std::vector<std::string> &inputs,
                     bool overwrite);

// Fails with FileError unless a file can be created in the folder (tried
// with a temporary file, removed at once).
void checkFolderWritable(const std::string &folder);

// Reads the process umask once, before threads start (files are created
// with 0666 & ~umask like any other program's).
void initFileCreationMask();

}  // namespace morven::tool
