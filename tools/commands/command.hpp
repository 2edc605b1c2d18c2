// The commands of the tool, one file each, and what they share: the output
// options, the help text on formats, and the run of one picture through the
// pipeline. Options are parsed by CLI11.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "run/pipeline.hpp"

namespace morven::tool {

struct Command {
    CLI::App *app;
    std::function<int()> run;  // after parsing; returns the exit status
};

Command addTransferCommand(CLI::App &root);
Command addEqualizeCommand(CLI::App &root);
Command addStretchCommand(CLI::App &root);
Command addContrastCommand(CLI::App &root);
Command addSmoothCommand(CLI::App &root);
Command addInfoCommand(CLI::App &root);

// The options of every command that writes pictures.
struct OutputOptions {
    std::string output;
    int quality = 90;
    bool lossless = false, strip = false, force = false, skipExisting = false, quiet = false, verbose = false;
    RunSettings settings() const;
};
void addOutputOptions(CLI::App &app, OutputOptions &options, const std::string &outputHelp);

// The help of a command: its usage lines (shown first), then the one-line
// summary given to add_subcommand (also shown in `morven --help`), the
// options, and details followed by what the inputs and outputs can be, the
// limits and the exit statuses.
void describeCommand(CLI::App &app, const std::string &usage, const std::string &details);
// The help layout of the tool, set on the top-level app.
std::shared_ptr<CLI::FormatterBase> helpFormatter();

// The format named by an output's extension; throws UsageError otherwise.
Format outputFormat(const std::string &path, const char *what = "output");

// A number as the help shows it: 0.9, 50.
std::string shown(double value);

// Runs one picture through the pipeline into options.output and reports
// a skipped output. Returns the exit status.
int runOne(const std::string &input, const OutputOptions &options, const Operation &operation,
           const std::vector<std::string> &protectedInputs = {});

}  // namespace morven::tool
