#include "batch.hpp"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <map>
#include <mutex>
#include <thread>

#include "io/files.hpp"

namespace morven::tool {
namespace {

namespace fs = std::filesystem;

struct Listing {
    std::vector<std::string> pictures;
    std::vector<std::string> others;  // names only
};

// The files of a folder, sorted: pictures by their extension, and the
// others. Hidden files (temporary outputs among them) are passed over.
Listing listFolder(const fs::path &folder) {
    Listing listing;
    for (const fs::directory_entry &entry : fs::directory_iterator(folder)) {
        const std::string name = entry.path().filename().string();
        if (name.empty() || name[0] == '.' || !entry.is_regular_file()) continue;
        if (formatForPath(name))
            listing.pictures.push_back(entry.path().string());
        else
            listing.others.push_back(name);
    }
    std::sort(listing.pictures.begin(), listing.pictures.end());
    std::sort(listing.others.begin(), listing.others.end());
    return listing;
}

std::string outputName(const fs::path &input, const std::optional<Format> &format) {
    const auto own = formatForPath(input.string());
    if (!format && own) return input.filename().string();
    return input.stem().string() + formatExtension(format ? *format : Format::Png);
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

std::string plural(size_t n, const char *one, const char *many) {
    return std::to_string(n) + " " + (n == 1 ? one : many);
}

}  // namespace

BatchPlan planBatch(const BatchSettings &batch) {
    BatchPlan plan;
    std::vector<fs::path> seen;  // a file named twice (or also through its folder) is done once
    const auto add = [&](std::string path) {
        // By name, not by target: two links to one file give two outputs.
        std::error_code error;
        const fs::path normal = fs::absolute(path, error).lexically_normal();
        if (!error && std::find(seen.begin(), seen.end(), normal) != seen.end()) return;
        seen.push_back(normal);
        plan.items.push_back({std::move(path), {}});
    };
    for (const std::string &input : batch.inputs) {
        std::error_code error;
        if (!fs::is_directory(input, error)) {
            add(input);  // a missing file fails when it is read
            continue;
        }
        Listing listing;
        try {
            listing = listFolder(input);
        } catch (const fs::filesystem_error &e) {
            plan.messages.push_back({true, input, "cannot list the folder: " + e.code().message()});
            continue;
        }
        if (!listing.others.empty()) {
            std::string names;
            for (size_t i = 0; i < listing.others.size() && i < 3; ++i)
                names += (i ? ", " : "") + listing.others[i];
            if (listing.others.size() > 3) names += ", ...";
            plan.messages.push_back({false, input,
                                     plural(listing.others.size(), "file", "files") +
                                         " of other kinds left out (" + names +
                                         "); PNG, JPEG, TIFF and WebP files are taken"});
        }
        if (listing.pictures.empty())
            plan.messages.push_back(
                {false, input, "no PNG, JPEG, TIFF or WebP files in this folder"});
        for (std::string &file : listing.pictures) add(std::move(file));
    }

    std::map<std::string, std::string> claimed;  // output -> input
    for (BatchPlan::Item &item : plan.items) {
        item.output = (fs::path(batch.folder) / outputName(item.input, batch.format)).string();
        const auto [it, fresh] = claimed.emplace(item.output, item.input);
        if (!fresh && plan.clash.empty())
            plan.clash = it->second + " and " + item.input + " would both be written to " +
                         item.output + " (use separate runs)";
    }
    return plan;
}

namespace {

// What a batch did so far; guarded by the caller's mutex while it runs.
struct BatchCounts {
    size_t done = 0, written = 0, skipped = 0, failed = 0;
    Timings total;

    void add(const std::optional<FileResult> &result) {
        ++done;
        if (!result) {
            ++failed;
        } else if (result->outcome == Outcome::Skipped) {
            ++skipped;
        } else {
            total += result->timings;
            ++written;
        }
    }
};

// Prints the planning messages; returns how many of them are failures.
size_t reportPlanMessages(const BatchPlan &plan, const RunSettings &settings) {
    size_t failed = 0;
    for (const BatchPlan::Message &message : plan.messages) {
        if (message.failure) {
            reportFailure(message.file, message.text);
            ++failed;
        } else if (!settings.quiet) {
            printLine("morven: note: " + message.file + ": " + message.text);
        }
    }
    return failed;
}

// One file of the batch; its failure is reported and gives no result.
// Interrupted passes through.
std::optional<FileResult> processItem(const BatchPlan::Item &item, const BatchSettings &batch,
                                      const Operation &operation, const RunSettings &settings,
                                      const std::vector<std::string> &protectedInputs) {
    try {
        const Format format = batch.format ? *batch.format : *formatForPath(item.output);
        return processFile(item.input, item.output, format, operation, settings, protectedInputs);
    } catch (const Interrupted &) {
        throw;
    } catch (const FileError &e) {
        reportFailure(e.file(), e.what());
    } catch (const std::bad_alloc &) {
        reportFailure(item.input, "out of memory");
    } catch (const std::exception &e) {
        reportFailure(item.input, e.what());
    }
    return std::nullopt;
}

// The closing line (or the interruption's); returns the exit status.
int reportBatch(const BatchSettings &batch, const RunSettings &settings, const BatchCounts &counts,
                size_t items, size_t threads, double elapsed) {
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%.2f s", elapsed);
    if (cancelled()) {
        printLine("morven: interrupted; " + std::to_string(counts.written) + " of " +
                  std::to_string(items) + " images were written");
        return kExitInterrupted;
    }
    if (!settings.quiet) {
        std::string line = "morven: " + std::to_string(counts.written) + " of " +
                           std::to_string(items) + " images " + batch.verb + " into " +
                           batch.folder + " in " + seconds + " with " +
                           plural(threads, "thread", "threads");
        if (counts.skipped)
            line += "; " + std::to_string(counts.skipped) + " skipped (already there)";
        if (counts.failed) line += "; " + std::to_string(counts.failed) + " failed";
        printLine(line);
        if (settings.verbose)
            printLine("morven: summed over all images: " + describeTimings(counts.total));
    }
    return counts.failed ? kExitFailure : kExitOk;
}

}  // namespace

int runBatch(const BatchSettings &batch, const Operation &operation, const RunSettings &settings,
             const std::vector<std::string> &protectedInputs) {
    BatchPlan plan = planBatch(batch);
    BatchCounts counts;
    counts.failed = reportPlanMessages(plan, settings);
    if (!plan.clash.empty()) throw UsageError(plan.clash);
    const std::vector<BatchPlan::Item> &items = plan.items;
    if (items.empty() && counts.failed == 0) {
        printLine("morven: nothing to do: no input images");
        return kExitFailure;
    }
    try {
        prepareFolder(batch.folder);  // one message rather than one per file
    } catch (const FileError &e) {
        reportFailure(e.file(), e.what());
        return kExitFailure;
    }

    const bool showProgress = !settings.quiet && ::isatty(STDERR_FILENO);
    std::atomic<size_t> next{0};
    std::mutex mutex;  // guards counts
    const Stopwatch clock;
    const auto progress = [&] {
        if (showProgress) setProgressLine(progressBar(counts.done, items.size(), counts.failed));
    };
    progress();

    const auto work = [&] {
        while (!cancelled()) {
            const size_t i = next.fetch_add(1);
            if (i >= items.size()) break;
            std::optional<FileResult> result;
            try {
                result = processItem(items[i], batch, operation, settings, protectedInputs);
            } catch (const Interrupted &) {
                break;
            }
            std::lock_guard lock(mutex);
            counts.add(result);
            progress();
        }
    };
    const size_t threads =
        std::max<size_t>(1, std::min<size_t>(size_t(std::max(1, batch.jobs)), items.size()));
    std::vector<std::jthread> pool;
    for (size_t t = 1; t < threads; ++t) pool.emplace_back(work);
    work();
    pool.clear();  // joins
    if (showProgress) setProgressLine("");
    return reportBatch(batch, settings, counts, items.size(), threads, clock.seconds());
}

}  // namespace morven::tool
