#include "batch.hpp"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <map>
#include <mutex>
#include <thread>

namespace morven::tool {
namespace {

namespace fs = std::filesystem;

std::string sizeText(int w, int h) { return std::to_string(w) + " x " + std::to_string(h); }

// The files a folder holds that look like images by name, sorted; hidden
// files (temporary outputs among them) are skipped.
std::vector<std::string> imagesIn(const fs::path &folder) {
    std::vector<std::string> files;
    for (const fs::directory_entry &entry : fs::directory_iterator(folder)) {
        const std::string name = entry.path().filename().string();
        if (name.empty() || name[0] == '.' || !entry.is_regular_file()) continue;
        if (formatForPath(name)) files.push_back(entry.path().string());
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::string outputName(const fs::path &input, const std::optional<Format> &format) {
    const auto own = formatForPath(input.string());
    std::string extension = input.extension().string();
    if (format) extension = *format == Format::Png ? ".png" : ".jpg";
    else if (!own) extension = ".png";
    return input.stem().string() + extension;
}

std::string progressBar(size_t done, size_t total, size_t failed) {
    constexpr size_t kWidth = 30;
    const size_t filled = total ? done * kWidth / total : kWidth;
    std::string bar(1, '[');
    bar.append(filled, '#').append(kWidth - filled, '-');
    bar += "] " + std::to_string(done) + "/" + std::to_string(total);
    if (failed) bar += " (" + std::to_string(failed) + " failed)";
    return bar;
}

void reportFailure(const std::string &file, const std::string &reason) {
    printLine("morven: " + file + ": " + reason);
}

}  // namespace

void note(const TransferContext &context, const std::string &file, const std::string &text) {
    if (!context.quiet) printLine("morven: note: " + file + ": " + text);
}

Timings transferFile(const std::string &source, const std::string &output,
                     const TransferContext &context, Picture *original, Picture *result) {
    const auto format = formatForPath(output);
    if (!format) throw FileError(output, "unsupported output format (use .png, .jpg or .jpeg)");
    std::vector<std::string> inputs = context.protectedInputs;
    inputs.push_back(source);
    checkOutputPath(output, inputs, context.force);

    Timings timings;
    Stopwatch clock;
    Picture picture = readPicture(source);
    timings.decode = clock.seconds();
    if (picture.bitDepth == 16) note(context, source, "16-bit samples converted to 8 bits for processing");
    if (context.mask && (picture.width != context.maskWidth || picture.height != context.maskHeight))
        throw FileError(context.maskPath, "the mask is " + sizeText(context.maskWidth, context.maskHeight) +
                                              " but " + source + " is " +
                                              sizeText(picture.width, picture.height));
    if (original) *original = picture;
    if (cancelled()) throw Interrupted();

    timings.library = transferPicture(source, picture, *context.reference, context.mask,
                                      context.options, context.support);

    clock = Stopwatch();
    bool droppedAlpha = false;
    const std::vector<uint8_t> bytes = encodePicture(picture, *format, context.quality, &droppedAlpha);
    timings.encode = clock.seconds();
    if (droppedAlpha) note(context, output, "JPEG has no alpha channel; alpha dropped");

    clock = Stopwatch();
    writeFileAtomically(output, bytes, context.force);
    timings.write = clock.seconds();
    if (context.verbose)
        printLine("morven: " + source + " -> " + output + ": " + describeTimings(timings));
    if (result) *result = std::move(picture);
    return timings;
}

int runBatch(const BatchSettings &settings, const TransferContext &context) {
    struct Item {
        std::string input, output;
    };
    std::vector<Item> items;
    size_t failed = 0;
    std::vector<fs::path> seen;  // a file named twice (or also through its folder) is done once
    const auto add = [&](std::string path) {
        // By name, not by target: two links to one file give two outputs.
        std::error_code error;
        const fs::path normal = fs::absolute(path, error).lexically_normal();
        if (!error && std::find(seen.begin(), seen.end(), normal) != seen.end()) return;
        seen.push_back(normal);
        items.push_back({std::move(path), {}});
    };
    for (const std::string &input : settings.inputs) {
        std::error_code error;
        if (fs::is_directory(input, error)) {
            std::vector<std::string> files;
            try {
                files = imagesIn(input);
            } catch (const fs::filesystem_error &e) {
                reportFailure(input, "cannot list the folder: " + e.code().message());
                ++failed;
                continue;
            }
            if (files.empty()) note(context, input, "no PNG or JPEG files in this folder");
            for (std::string &file : files) add(std::move(file));
        } else {
            add(input);  // a missing file fails when it is read
        }
    }

    std::map<std::string, std::string> claimed;  // output -> input
    for (Item &item : items) {
        item.output = (fs::path(settings.folder) / outputName(item.input, settings.format)).string();
        const auto [it, fresh] = claimed.emplace(item.output, item.input);
        if (!fresh)
            throw UsageError(it->second + " and " + item.input + " would both be written to " +
                             item.output + " (use separate runs)");
    }
    if (items.empty() && failed == 0) {
        printLine("morven: nothing to do: no input images");
        return kExitFailure;
    }

    std::error_code error;
    fs::create_directories(settings.folder, error);
    if (error || !fs::is_directory(settings.folder)) {
        reportFailure(settings.folder, "cannot create the output folder: " +
                                           (error ? error.message() : std::string("not a folder")));
        return kExitFailure;
    }
    checkFolderWritable(settings.folder);  // one message rather than one per file

    const bool showProgress = !context.quiet && ::isatty(STDERR_FILENO);
    std::atomic<size_t> next{0};
    std::mutex mutex;  // guards the counters below
    size_t done = 0, transferred = 0;
    Timings total;
    const Stopwatch clock;
    const auto progress = [&] {
        if (showProgress) setProgressLine(progressBar(done, items.size(), failed));
    };
    progress();

    const auto work = [&] {
        while (!cancelled()) {
            const size_t i = next.fetch_add(1);
            if (i >= items.size()) break;
            bool ok = false;
            Timings timings;
            try {
                timings = transferFile(items[i].input, items[i].output, context);
                ok = true;
            } catch (const Interrupted &) {
                break;
            } catch (const FileError &e) {
                reportFailure(e.file(), e.what());
            } catch (const std::bad_alloc &) {
                reportFailure(items[i].input, "out of memory");
            } catch (const std::exception &e) {
                reportFailure(items[i].input, e.what());
            }
            std::lock_guard lock(mutex);
            ++done;
            if (ok) {
                total += timings;
                ++transferred;
            } else {
                ++failed;
            }
            progress();
        }
    };
    const size_t threads = std::max<size_t>(1, std::min<size_t>(size_t(std::max(1, settings.jobs)), items.size()));
    std::vector<std::jthread> pool;
    for (size_t t = 1; t < threads; ++t) pool.emplace_back(work);
    work();
    pool.clear();  // joins
    if (showProgress) setProgressLine("");

    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%.2f s", clock.seconds());
    if (cancelled()) {
        printLine("morven: interrupted; " + std::to_string(transferred) + " of " +
                  std::to_string(items.size()) + " images were written");
        return kExitInterrupted;
    }
    if (!context.quiet) {
        std::string line = "morven: " + std::to_string(transferred) + " of " + std::to_string(items.size()) +
                           " images transferred into " + settings.folder + " in " + seconds + " with " +
                           std::to_string(threads) + (threads == 1 ? " thread" : " threads");
        if (failed) line += "; " + std::to_string(failed) + " failed";
        printLine(line);
        if (context.verbose) printLine("morven: summed over all images: " + describeTimings(total));
    }
    return failed ? kExitFailure : kExitOk;
}

}  // namespace morven::tool
