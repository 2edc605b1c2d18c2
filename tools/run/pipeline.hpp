// The one path every picture takes, alone or in a batch: read, process,
// encode, write. Commands differ only in the operation they hand it.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "core/common.hpp"
#include "core/picture.hpp"
#include "io/picture_io.hpp"

namespace morven::tool {

struct RunSettings {
    WriteSettings write;
    bool force = false;         // replace existing outputs
    bool skipExisting = false;  // leave existing outputs alone, reported as skipped
    bool quiet = false;         // no notes, no summary
    bool verbose = false;       // timings
};

// What a command does to one picture, in place. Adds what the user should
// know to notes; returns the seconds spent in the library.
using Operation = std::function<double(const std::string &path, Picture &picture,
                                       std::vector<std::string> &notes)>;

enum class Outcome { Written, Skipped };

struct FileResult {
    Outcome outcome = Outcome::Written;
    Timings timings;
    std::vector<std::pair<std::string, std::string>> notes;  // (file, text), printed or not
};

// Reads input, runs the operation and writes output in the given format.
// protectedInputs (reference, masks) are never written over. When before or
// after is given it receives the picture as read or as written (before
// encoding). Throws FileError, Interrupted, std::bad_alloc.
FileResult processFile(const std::string &input, const std::string &output, Format format,
                       const Operation &operation, const RunSettings &settings,
                       const std::vector<std::string> &protectedInputs, Picture *before = nullptr,
                       Picture *after = nullptr);

// Prints "morven: note: <file>: <text>" for each note unless quiet.
void printNotes(const RunSettings &settings, const std::string &file,
                const std::vector<std::string> &notes);

}  // namespace morven::tool
