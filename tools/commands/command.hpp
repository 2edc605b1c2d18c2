// The commands of the tool, one file each, and what they share. A command
// declares its options through Options (parsed by CLI11 in commands/cli.cpp,
// the one file that includes it: the library is large and compiled once)
// and runs once they are parsed.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "run/pipeline.hpp"

namespace morven::tool {

// The options of one command. Names are CLI11's: "-o,--output", "--strength";
// a value is written into `to` when given, which otherwise keeps its default.
class Options {
public:
    virtual ~Options() = default;
    // Positional arguments, in order.
    virtual void arguments(const std::string &name, std::vector<std::string> &to,
                           const std::string &help, bool required) = 0;
    virtual void flag(const std::string &names, bool &to, const std::string &help) = 0;
    virtual void text(const std::string &names, std::string &to, const std::string &valueName,
                      const std::string &help) = 0;
    virtual void number(const std::string &names, float &to, double low, double high,
                        const std::string &valueName, const std::string &help) = 0;
    virtual void number(const std::string &names, int &to, int low, int high,
                        const std::string &valueName, const std::string &help) = 0;
    // One of the given words (any case; `to` receives it in lower case).
    virtual void choice(const std::string &names, std::string &to,
                        const std::vector<std::string> &words, const std::string &valueName,
                        const std::string &help) = 0;
    // The option is refused without the other one, or with it.
    virtual void needs(const std::string &option, const std::string &other) = 0;
    virtual void excludes(const std::string &option, const std::string &other) = 0;
    // After parsing: whether the option was given.
    virtual bool given(const std::string &option) const = 0;
};

struct Command {
    std::string name;
    std::string summary;  // one line, for `morven --help`
    std::string usage;    // "morven transfer SOURCE REFERENCE -o OUTPUT [options]"
    std::string details;  // the paragraph after the options
    std::function<void(Options &)> declare;
    std::function<int(const Options &)> run;  // returns the exit status
};

Command transferCommand();
Command equalizeCommand();
Command stretchCommand();
Command contrastCommand();
Command smoothCommand();
Command infoCommand();

// Parses the command line, runs the command and returns the exit status.
int runCommandLine(int argc, char **argv, const std::vector<Command> &commands);

// The options of every command that writes pictures.
struct OutputOptions {
    std::string output;
    int quality = 90;
    bool lossless = false, strip = false, force = false, skipExisting = false, quiet = false,
         verbose = false;
    RunSettings settings() const;
};
void declareOutputOptions(Options &options, OutputOptions &to, const std::string &outputHelp);

// What the inputs and outputs can be, the limits and the exit statuses: the
// closing paragraph of every command's help.
std::string formatsHelp();

// The format named by an output's extension; throws UsageError otherwise.
Format outputFormat(const std::string &path, const char *what = "output");

// A number as the help shows it: 0.9, 50.
std::string shown(double value);

// Runs one picture through the pipeline into options.output and reports
// a skipped output. Returns the exit status.
int runOne(const std::string &input, const OutputOptions &options, const Operation &operation,
           const std::vector<std::string> &protectedInputs = {});

}  // namespace morven::tool
