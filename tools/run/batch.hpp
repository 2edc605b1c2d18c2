// Many pictures through the pipeline in parallel.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "run/pipeline.hpp"

namespace morven::tool {

struct BatchSettings {
    std::vector<std::string> inputs;  // files and folders
    std::string folder;               // output folder, created when missing
    std::optional<Format> format;     // output format; default: the input's own
    int jobs = 1;
    std::string verb = "processed";  // for the summary: "12 of 12 images transferred"
};

// What a batch is to do, found before anything runs: every file once, with
// the output it is written to, and what listing the folders had to say, in
// order (notes, and folders that could not be listed, which count as failed).
struct BatchPlan {
    struct Item {
        std::string input, output;
    };
    struct Message {
        bool failure;
        std::string file, text;
    };
    std::vector<Item> items;
    std::vector<Message> messages;
    std::string clash;  // when not empty: two inputs would be written to one output
};
BatchPlan planBatch(const BatchSettings &batch);

// Runs the operation on every input (folders: the picture files they hold,
// by extension; other files are counted in one note) into the output
// folder with `jobs` threads, showing a progress bar when stderr is a
// terminal (unless quiet) and a summary. Returns the exit status: 0, 1 when
// any file failed (the others are still processed), 2 for clashing output
// names, 130 when interrupted.
int runBatch(const BatchSettings &batch, const Operation &operation, const RunSettings &settings,
             const std::vector<std::string> &protectedInputs);

}  // namespace morven::tool
