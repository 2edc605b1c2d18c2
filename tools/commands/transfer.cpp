// morven transfer: the colours of a reference onto one picture, or onto many
// in parallel.
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
    std::string mask, sourceMask, referenceMask, compare, reference, format;
    int jobs = int(std::max(1u, std::thread::hardware_concurrency()));
    OutputOptions out;
};

std::vector<uint8_t> readMask(const std::string &path, const RunSettings &settings, int *width, int *height) {
    std::vector<std::string> notes;
    const Picture mask = readPicture(path, &notes);
    printNotes(settings, path, notes);
    *width = mask.width;
    *height = mask.height;
    return grayPlane(mask);
}

void checkSize(const std::string &maskPath, int maskWidth, int maskHeight, const std::string &path,
               const Picture &picture) {
    if (maskWidth != picture.width || maskHeight != picture.height)
        throw FileError(maskPath, "the mask is " + std::to_string(maskWidth) + " x " + std::to_string(maskHeight) +
                                      " but " + path + " is " + std::to_string(picture.width) + " x " +
                                      std::to_string(picture.height));
}

int run(TransferOptions &o, const CLI::App &app) {
    TransferSettings &s = o.settings;
    s.manageColour = !o.ignoreProfiles;
    const bool batch = !o.reference.empty();
    const RunSettings settings = o.out.settings();
    if (o.out.output.empty()) throw UsageError(batch ? "missing -o FOLDER" : "missing -o OUTPUT");

    std::string referencePath = o.reference;
    std::optional<Format> batchFormat;
    if (batch) {
        if (o.files.empty()) throw UsageError("expected at least one INPUT file or folder");
        if (!o.compare.empty()) throw UsageError("--compare works on a single source, not with --reference");
        if (!o.format.empty()) batchFormat = outputFormat("x." + o.format, "--format");
    } else {
        if (o.files.size() != 2)
            throw UsageError("expected SOURCE and REFERENCE, got " + std::to_string(o.files.size()) + " argument" +
                             (o.files.size() == 1 ? "" : "s"));
        for (const char *name : {"--format", "--jobs"})
            if (app.count(name)) throw UsageError(std::string(name) + " is for batch runs (with --reference)");
        referencePath = o.files[1];
        outputFormat(o.out.output);
        if (!o.compare.empty() && o.compare == o.out.output) throw UsageError("--compare and -o name the same file");
        if (!o.compare.empty()) outputFormat(o.compare, "--compare");
    }
    std::vector<std::string> protectedInputs{referencePath};
    for (const std::string *m : {&o.mask, &o.sourceMask, &o.referenceMask})
        if (!m->empty()) protectedInputs.push_back(*m);
    if (!batch) {
        // Refuse early, before any decoding, when the outputs cannot be written.
        std::error_code error;
        if (settings.skipExisting && std::filesystem::exists(o.out.output, error)) {
            printNotes(settings, o.out.output, {"already exists; skipped"});
            return kExitOk;
        }
        std::vector<std::string> inputs = protectedInputs;
        inputs.push_back(o.files[0]);
        checkOutputPath(o.out.output, inputs, settings.force);
        if (!o.compare.empty()) checkOutputPath(o.compare, inputs, settings.force);
    }

    Timings setup;
    Stopwatch clock;
    std::vector<std::string> notes;
    Picture referencePicture = readPicture(referencePath, &notes);
    printNotes(settings, referencePath, notes);
    std::vector<uint8_t> referenceMask, blendMask, sourceMask;
    int w = 0, h = 0, blendWidth = 0, blendHeight = 0, sourceWidth = 0, sourceHeight = 0;
    if (!o.referenceMask.empty()) {
        referenceMask = readMask(o.referenceMask, settings, &w, &h);
        checkSize(o.referenceMask, w, h, referencePath, referencePicture);
    }
    if (!o.mask.empty()) blendMask = readMask(o.mask, settings, &blendWidth, &blendHeight);
    if (!o.sourceMask.empty()) sourceMask = readMask(o.sourceMask, settings, &sourceWidth, &sourceHeight);
    setup.decode = clock.seconds();
    clock = Stopwatch();
    Reference reference(std::move(referencePicture), std::move(referenceMask), s);
    const Support support = makeSupport();
    setup.library = clock.seconds();
    if (settings.verbose) {
        char text[96];
        std::snprintf(text, sizeof text, ": decode %.1f ms, library %.1f ms", setup.decode * 1e3, setup.library * 1e3);
        printLine("morven: reference " + referencePath + text);
    }

    const Operation transfer = [&](const std::string &path, Picture &picture, std::vector<std::string> &notes) {
        if (!blendMask.empty()) checkSize(o.mask, blendWidth, blendHeight, path, picture);
        if (!sourceMask.empty()) checkSize(o.sourceMask, sourceWidth, sourceHeight, path, picture);
        const Stopwatch setupClock;
        const Target &target = reference.targetFor(picture);
        if (!target.note.empty()) notes.push_back(target.note);
        const MaskImage stats(bothMasks(opaqueMask(picture), sourceMask), picture.width, picture.height);
        const MaskImage blend(blendMask, picture.width, picture.height);
        return setupClock.seconds() +
               transferPicture(path, picture, target, stats, blend, s, support.get(), notes);
    };

    if (batch) {
        BatchSettings b{o.files, o.out.output, batchFormat, o.jobs, "transferred"};
        return runBatch(b, transfer, settings, protectedInputs);
    }
    Picture before, after;
    const bool compare = !o.compare.empty();
    const FileResult result = processFile(o.files[0], o.out.output, outputFormat(o.out.output), transfer, settings,
                                          protectedInputs, compare ? &before : nullptr, compare ? &after : nullptr);
    if (compare && result.outcome == Outcome::Written) {
        const ComparePanel panels[3] = {{&before, "source"},
                                        {&reference.picture(), "reference"},
                                        {&after, std::string("result (") + spaceName(s.space) + ")"}};
        WriteSettings plain = settings.write;
        plain.strip = true;
        const std::vector<uint8_t> bytes =
            encodePicture(composeComparison(panels, s.manageColour), outputFormat(o.compare), plain);
        writeFileAtomically(o.compare, bytes, settings.force);
    }
    return kExitOk;
}

}  // namespace

Command addTransferCommand(CLI::App &root) {
    auto o = std::make_shared<TransferOptions>();
    const TransferSettings &d = o->settings;
    CLI::App *app = root.add_subcommand("transfer", "give pictures the colours of a reference (one, or many in parallel)");
    describeCommand(*app,
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
                    "others.");
    app->add_option("FILES", o->files, "SOURCE REFERENCE, or with --reference the INPUT files and folders")
        ->type_name("");
    const auto range = [](double low, double high) { return CLI::Range(low, high).description(""); };
    app->add_option("--strength", o->settings.strength, "share of the matched value, 0 to 1 (default " + shown(d.strength) + ")")
        ->type_name("X")->check(range(0, 1));
    app->add_option("--fidelity", o->settings.fidelity,
                    "below 1 smooths the matching curve, 0 to 1 (default " + shown(d.fidelity) + ")")
        ->type_name("X")->check(range(0, 1));
    app->add_option("--max-step", o->settings.maxStep,
                    "largest step of the matching curve, 0 to 255; 255 is no limit (default " +
                        std::to_string(d.maxStep) + ")")
        ->type_name("N")->check(range(0, 255));
    CLI::Option *contrast = app->add_flag("--contrast", o->settings.contrast, "stretch the contrast after matching");
    app->add_option("--high-tail", o->settings.highTail,
                    "with --contrast: per mille of pixels clipped at the bright end (default " + shown(d.highTail) + ")")
        ->type_name("P")->check(range(0, 1000))->needs(contrast);
    app->add_option("--low-tail", o->settings.lowTail,
                    "with --contrast: per mille clipped at the dark end (default " + shown(d.lowTail) + ")")
        ->type_name("P")->check(range(0, 1000))->needs(contrast);
    CLI::Option *smooth = app->add_flag("--smooth", o->settings.smooth, "smooth the result selectively against the source");
    app->add_option("--smooth-threshold", o->settings.smoothThreshold,
                    "with --smooth: largest source step smoothed, fraction of full scale (default " +
                        shown(d.smoothThreshold) + ")")
        ->type_name("X")->check(range(0, 1))->needs(smooth);
    app->add_option("--smooth-iterations", o->settings.smoothIterations,
                    "with --smooth: passes per channel (default " + std::to_string(d.smoothIterations) + ")")
        ->type_name("N")->check(range(0, 100000))->needs(smooth);
    const std::map<std::string, wzWorkingSpace> spaces{
        {"rgb", wzSpaceChannels}, {"luma", wzSpaceLuma}, {"ycbcr", wzSpaceYCbCr}, {"lab", wzSpaceLab}};
    app->add_option("--space", o->settings.space,
                    std::string("working space: rgb (each channel), luma (lightness only), ycbcr or lab; default ") +
                        spaceName(kDefaultSpace) +
                        ": fewest false colours in shadows and neutrals; see docs/colour-spaces.md")
        ->type_name("SPACE")
        ->transform(CLI::CheckedTransformer(spaces, CLI::ignore_case).description(""));
    app->add_flag("--ignore-profiles", o->ignoreProfiles,
                  "no colour management: match the stored values as they are");
    app->add_option("--mask", o->mask, "gray picture of the source's size: 255 keeps the result, 0 the source")
        ->type_name("MASK");
    app->add_option("--source-mask", o->sourceMask,
                    "gray picture of the source's size: only pixels where it is not black count in the statistics")
        ->type_name("FILE");
    app->add_option("--reference-mask", o->referenceMask,
                    "gray picture of the reference's size: only pixels where it is not black count")
        ->type_name("FILE");
    app->add_option("--compare", o->compare, "also write source, reference and result side by side with histograms")
        ->type_name("FILE");
    app->add_option("--reference", o->reference, "batch mode: the reference for every INPUT; -o names a folder")
        ->type_name("REF");
    app->add_option("-j,--jobs", o->jobs, "batch mode: parallel jobs (default: the number of processors)")
        ->type_name("N")->check(range(1, 1024));
    app->add_option("--format", o->format, "batch mode: output format (default: each input's own)")
        ->type_name("png|jpeg|tiff|webp")
        ->check(CLI::IsMember({"png", "jpg", "jpeg", "tif", "tiff", "webp"}).description(""));
    addOutputOptions(*app, o->out, "file to write (.png, .jpg, .tif, .webp); with --reference, a folder");
    return {app, [o, app] { return run(*o, *app); }};
}

}  // namespace morven::tool
