#include "pipeline.hpp"

#include <filesystem>

#include "io/files.hpp"

namespace morven::tool {

void printNotes(const RunSettings &settings, const std::string &file,
                const std::vector<std::string> &notes) {
    if (settings.quiet) return;
    const std::string prefix = "morven: note: " + file + ": ";
    for (const std::string &text : notes) printLine(prefix + text);
}

FileResult processFile(const std::string &input, const std::string &output, Format format,
                       const Operation &operation, const RunSettings &settings,
                       const std::vector<std::string> &protectedInputs, Picture *before,
                       Picture *after) {
    FileResult result;
    std::error_code error;
    if (settings.skipExisting && std::filesystem::exists(output, error)) {
        result.outcome = Outcome::Skipped;
        return result;
    }
    std::vector<std::string> inputs = protectedInputs;
    inputs.push_back(input);
    checkOutputPath(output, inputs, settings.force);

    std::vector<std::string> notes;
    const auto say = [&](const std::string &file) {
        printNotes(settings, file, notes);
        for (std::string &text : notes) result.notes.emplace_back(file, std::move(text));
        notes.clear();
    };
    Stopwatch clock;
    Picture picture = readPicture(input, &notes);
    result.timings.decode = clock.seconds();
    say(input);
    if (before) *before = picture;
    if (cancelled()) throw Interrupted();

    result.timings.library = operation(input, picture, notes);
    say(input);

    clock = Stopwatch();
    const std::vector<uint8_t> bytes = encodePicture(picture, format, settings.write, &notes);
    result.timings.encode = clock.seconds();
    say(output);

    clock = Stopwatch();
    writeFileAtomically(output, bytes, settings.force);
    result.timings.write = clock.seconds();
    if (settings.verbose)
        printLine("morven: " + input + " -> " + output + ": " + describeTimings(result.timings));
    if (after) *after = std::move(picture);
    return result;
}

}  // namespace morven::tool
