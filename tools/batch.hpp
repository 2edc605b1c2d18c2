// Transfer of one file, and of many files in parallel.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "process.hpp"

namespace morven::tool {

// What every transfer of one run shares; read-only while files are processed.
struct TransferContext {
    const ReferenceProfiles *reference = nullptr;
    const std::vector<uint8_t> *mask = nullptr;  // gray plane, or null
    int maskWidth = 0, maskHeight = 0;
    std::string maskPath;
    std::vector<std::string> protectedInputs;  // never written over (reference, mask)
    TransferOptions options{};
    const wzHistogramTransferSupport *support = nullptr;
    int quality = 90;
    bool force = false;
    bool quiet = false;
    bool verbose = false;
};

// Reads source, runs the transfer and writes output (format by its
// extension). When original or result is given, it receives a copy of the
// decoded source or the result. Throws FileError, Interrupted, bad_alloc.
Timings transferFile(const std::string &source, const std::string &output,
                     const TransferContext &context, Picture *original = nullptr,
                     Picture *result = nullptr);

struct BatchSettings {
    std::vector<std::string> inputs;  // files and folders
    std::string folder;               // output folder, created when missing
    std::optional<Format> format;     // output format; default: the input's
    int jobs = 1;
};

// Transfers every input into the output folder with `jobs` threads, showing
// a progress bar when stderr is a terminal (unless quiet) and a summary.
// Returns the exit status: 0, 1 when any file failed (the others are still
// processed), 2 for clashing output names, 130 when interrupted.
int runBatch(const BatchSettings &settings, const TransferContext &context);

// Prints "morven: note: <file>: <text>" unless quiet.
void note(const TransferContext &context, const std::string &file, const std::string &text);

}  // namespace morven::tool
