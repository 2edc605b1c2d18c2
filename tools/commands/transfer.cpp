// morven transfer: the colours of a reference onto one picture, or onto many
// in parallel.
#include <cstdio>
#include <filesystem>
#include <thread>

#include "command.hpp"
#include "compare/compare.hpp"
#include "io/files.hpp"
#include "process/transfer.hpp"
#include "run/batch.hpp"

namespace morven::tool {
namespace {

struct TransferOptions {
    std::vector<std::string> files;
    TransferSettings settings = defaultTransferSettings();
    bool ignoreProfiles = false;
    std::string space = spaceName(kDefaultSpace);
    std::string mask, sourceMask, referenceMask, compare, reference, format;
    int jobs = int(std::max(1u, std::thread::hardware_concurrency()));
    OutputOptions out;
};

MaskFile readMask(const std::string &path, const RunSettings &settings) {
    std::vector<std::string> notes;
    MaskFile mask = readMaskFile(path, &notes);
    printNotes(settings, path, notes);
    return mask;
}

// Checks the command line; returns the output format of a batch (none:
// each input's own).
std::optional<Format> checkArguments(const TransferOptions &o, const Options &given, bool batch) {
    if (o.out.output.empty()) throw UsageError(batch ? "missing -o FOLDER" : "missing -o OUTPUT");
    std::optional<Format> batchFormat;
    if (batch) {
        if (o.files.empty()) throw UsageError("expected at least one INPUT file or folder");
        if (!o.compare.empty())
            throw UsageError("--compare works on a single source, not with --reference");
        if (!o.format.empty()) batchFormat = outputFormat("x." + o.format, "--format");
        return batchFormat;
    }
    if (o.files.size() != 2)
        throw UsageError("expected SOURCE and REFERENCE, got " + std::to_string(o.files.size()) +
                         " argument" + (o.files.size() == 1 ? "" : "s"));
    for (const char *name : {"--format", "--jobs"})
        if (given.given(name))
            throw UsageError(std::string(name) + " is for batch runs (with --reference)");
    outputFormat(o.out.output);
    if (!o.compare.empty() && o.compare == o.out.output)
        throw UsageError("--compare and -o name the same file");
    if (!o.compare.empty()) outputFormat(o.compare, "--compare");
    return batchFormat;
}

// Refuses early, before any decoding, when the outputs of a single transfer
// cannot be written; false when the output exists and is to be skipped.
bool checkSingleOutputs(const TransferOptions &o, const RunSettings &settings,
                        const std::vector<std::string> &protectedInputs) {
    std::error_code error;
    if (settings.skipExisting && std::filesystem::exists(o.out.output, error)) {
        printNotes(settings, o.out.output, {"already exists; skipped"});
        return false;
    }
    std::vector<std::string> inputs = protectedInputs;
    inputs.push_back(o.files[0]);
    checkOutputPath(o.out.output, inputs, settings.force);
    if (!o.compare.empty()) checkOutputPath(o.compare, inputs, settings.force);
    return true;
}

void printReferenceTimes(const std::string &referencePath, const Timings &setup) {
    char text[96];
    std::snprintf(text, sizeof text, ": decode %.1f ms, library %.1f ms", setup.decode * 1e3,
                  setup.library * 1e3);
    printLine("morven: reference " + referencePath + text);
}

// Source, reference and result side by side, written without metadata.
void writeComparison(const TransferOptions &o, const RunSettings &settings, Reference &reference,
                     const Picture &before, const Picture &after) {
    const ComparePanel panels[3] = {
        {&before, "source"},
        {&reference.picture(), "reference"},
        {&after, std::string("result (") + spaceName(reference.targetFor(before).space) + ")"}};
    WriteSettings plain = settings.write;
    plain.strip = true;
    const std::vector<uint8_t> bytes = encodePicture(
        composeComparison(panels, o.settings.manageColour), outputFormat(o.compare), plain);
    writeFileAtomically(o.compare, bytes, settings.force);
}

int run(TransferOptions &o, const Options &given) {
    TransferSettings &s = o.settings;
    s.manageColour = !o.ignoreProfiles;
    for (const wzWorkingSpace space : {wzSpaceChannels, wzSpaceLuma, wzSpaceYCbCr, wzSpaceLab})
        if (o.space == spaceName(space)) s.space = space;
    const bool batch = !o.reference.empty();
    const RunSettings settings = o.out.settings();
    const std::optional<Format> batchFormat = checkArguments(o, given, batch);
    const std::string referencePath = batch ? o.reference : o.files[1];
    std::vector<std::string> protectedInputs{referencePath};
    for (const std::string *m : {&o.mask, &o.sourceMask, &o.referenceMask})
        if (!m->empty()) protectedInputs.push_back(*m);
    if (!batch && !checkSingleOutputs(o, settings, protectedInputs)) return kExitOk;

    Timings setup;
    Stopwatch clock;
    std::vector<std::string> notes;
    Picture referencePicture = readPicture(referencePath, &notes);
    printNotes(settings, referencePath, notes);
    MaskFile referenceMask = readMask(o.referenceMask, settings);
    if (!referenceMask.empty()) referenceMask.checkSize(referencePath, referencePicture);
    const MaskFile blendMask = readMask(o.mask, settings),
                   sourceMask = readMask(o.sourceMask, settings);
    setup.decode = clock.seconds();
    clock = Stopwatch();
    Reference reference(std::move(referencePicture), referenceMask.plane, s);
    const Support support = makeSupport();
    setup.library = clock.seconds();
    if (settings.verbose) printReferenceTimes(referencePath, setup);

    const Operation transfer = [&](const std::string &path, Picture &picture,
                                   std::vector<std::string> &notes) {
        return transferOne(path, picture, reference, blendMask, sourceMask, s, support.get(),
                           notes);
    };

    if (batch) {
        BatchSettings b{o.files, o.out.output, batchFormat, o.jobs, "transferred"};
        return runBatch(b, transfer, settings, protectedInputs);
    }
    Picture before, after;
    const bool compare = !o.compare.empty();
    const FileResult result =
        processFile(o.files[0], o.out.output, outputFormat(o.out.output), transfer, settings,
                    protectedInputs, compare ? &before : nullptr, compare ? &after : nullptr);
    if (compare && result.outcome == Outcome::Written)
        writeComparison(o, settings, reference, before, after);
    return kExitOk;
}

void declare(Options &options, TransferOptions &o) {
    const TransferSettings d = defaultTransferSettings();
    TransferSettings &s = o.settings;
    options.arguments("FILES", o.files,
                      "SOURCE REFERENCE, or with --reference the INPUT files and folders", false);
    options.number("--strength", s.strength, 0, 1, "X",
                   "share of the matched value, 0 to 1 (default " + shown(d.strength) + ")");
    options.number(
        "--fidelity", s.fidelity, 0, 1, "X",
        "below 1 smooths the matching curve, 0 to 1 (default " + shown(d.fidelity) + ")");
    options.number("--max-step", s.maxStep, 0, 255, "N",
                   "largest step of the matching curve, 0 to 255; 255 is no limit (default " +
                       std::to_string(d.maxStep) + ")");
    options.flag("--contrast", s.contrast, "stretch the contrast after matching");
    options.number("--high-tail", s.highTail, 0, 1000, "P",
                   "with --contrast: per mille of pixels clipped at the bright end (default " +
                       shown(d.highTail) + ")");
    options.number(
        "--low-tail", s.lowTail, 0, 1000, "P",
        "with --contrast: per mille clipped at the dark end (default " + shown(d.lowTail) + ")");
    options.flag("--smooth", s.smooth, "smooth the result selectively against the source");
    options.number("--smooth-threshold", s.smoothThreshold, 0, 1, "X",
                   "with --smooth: largest source step smoothed, fraction of full scale (default " +
                       shown(d.smoothThreshold) + ")");
    options.number(
        "--smooth-iterations", s.smoothIterations, 0, 100000, "N",
        "with --smooth: passes per channel (default " + std::to_string(d.smoothIterations) + ")");
    for (const char *option : {"--high-tail", "--low-tail"}) options.needs(option, "--contrast");
    for (const char *option : {"--smooth-threshold", "--smooth-iterations"})
        options.needs(option, "--smooth");
    options.choice(
        "--space", o.space, {"rgb", "luma", "ycbcr", "lab"}, "SPACE",
        std::string(
            "working space: rgb (each channel), luma (lightness only), ycbcr or lab; default ") +
            spaceName(kDefaultSpace) +
            ": fewest false colours in shadows and neutrals; see docs/colour-spaces.md");
    options.flag("--ignore-profiles", o.ignoreProfiles,
                 "no colour management: match the stored values as they are");
    options.text("--mask", o.mask, "MASK",
                 "gray picture of the source's size: 255 keeps the result, 0 the source");
    options.text("--source-mask", o.sourceMask, "FILE",
                 "gray picture of the source's size: only pixels where it is not black count in "
                 "the statistics");
    options.text("--reference-mask", o.referenceMask, "FILE",
                 "gray picture of the reference's size: only pixels where it is not black count");
    options.text("--compare", o.compare, "FILE",
                 "also write source, reference and result side by side with histograms");
    options.text("--reference", o.reference, "REF",
                 "batch mode: the reference for every INPUT; -o names a folder");
    options.number("-j,--jobs", o.jobs, 1, 1024, "N",
                   "batch mode: parallel jobs (default: the number of processors)");
    options.choice("--format", o.format, {"png", "jpg", "jpeg", "tif", "tiff", "webp"},
                   "png|jpeg|tiff|webp", "batch mode: output format (default: each input's own)");
    declareOutputOptions(options, o.out,
                         "file to write (.png, .jpg, .tif, .webp); with --reference, a folder");
}

}  // namespace

Command transferCommand() {
    auto o = std::make_shared<TransferOptions>();
    return {"transfer",
            "give pictures the colours of a reference (one, or many in parallel)",
            "morven transfer SOURCE REFERENCE -o OUTPUT [options]\n"
            "       morven transfer --reference REFERENCE -o FOLDER INPUT... [options]",
            "Gives SOURCE the colour distribution of REFERENCE (histogram matching in a\n"
            "working space), optionally followed by a contrast stretch and selective\n"
            "smoothing, optionally blended back under a mask. REFERENCE is first\n"
            "converted into SOURCE's colour space (its ICC profile; none is sRGB), so\n"
            "colours that look alike match alike. A colour SOURCE with a gray REFERENCE\n"
            "has its luminance matched only. With --reference, every INPUT (files, or\n"
            "folders whose PNG, JPEG, TIFF and WebP files are taken) is transferred into\n"
            "FOLDER in parallel, keeping its name; one failed file does not stop the\n"
            "others.",
            [o](Options &options) { declare(options, *o); },
            [o](const Options &given) { return run(*o, given); }};
}

}  // namespace morven::tool
