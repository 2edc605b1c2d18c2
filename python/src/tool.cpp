// morven._tool: the command-line tool's own transfer of files (its readers
// and writers, metadata, colour management and per-file pipeline, compiled
// from tools/), for runs over many files in other processes or on other
// machines. morven.dask.transfer_files and `python3 -m morven transfer` use it.
//
// A FileTransfer reads and decodes the reference and the masks once, where
// it is made, and counts the reference's statistics for the sources that
// share its colour profile (gray and colour ones: with no profile on either
// side, every sRGB picture). Pickled, it carries the decoded reference, its
// statistics mask, the statistics counted and the masks: a copy in another
// process counts nothing again for those sources, and converts and counts
// the reference for a source with another profile once per copy.
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "io/files.hpp"
#include "io/metadata.hpp"
#include "process/transfer.hpp"
#include "run/batch.hpp"
#include "run/pipeline.hpp"

namespace py = pybind11;
namespace tool = morven::tool;

namespace {

using Notes = std::vector<std::pair<std::string, std::string>>;

constexpr int kStateVersion = 1;

py::bytes bytesOf(const void *data, size_t size) {
    return py::bytes(static_cast<const char *>(data), size);
}

template <typename T>
std::vector<T> vectorOf(const py::bytes &bytes) {
    const std::string_view view(bytes);
    std::vector<T> v(view.size() / sizeof(T));
    std::memcpy(v.data(), view.data(), v.size() * sizeof(T));
    return v;
}

std::optional<tool::Format> formatNamed(const std::string &name) {
    if (name.empty()) return std::nullopt;
    const auto format = tool::formatForPath("x." + name);
    if (!format)
        throw py::value_error("format must be png, jpg, jpeg, tif, tiff or webp, got '" + name +
                              "'");
    return format;
}

void inRange(const char *name, double value, double low, double high) {
    if (!(value >= low && value <= high))
        throw py::value_error(std::string(name) + " must be between " +
                              py::str(py::float_(low)).cast<std::string>() + " and " +
                              py::str(py::float_(high)).cast<std::string>());
}

// The options of a transfer run, as the tool's command line gives them.
struct Options {
    tool::TransferSettings transfer = tool::defaultTransferSettings();
    tool::RunSettings run;
    std::optional<tool::Format> format;  // batch output format; default: by the output's extension
};

py::tuple stateOf(const tool::MaskFile &m) {
    return py::make_tuple(m.path, bytesOf(m.plane.data(), m.plane.size()), m.width, m.height);
}

tool::MaskFile maskOf(const py::tuple &t) {
    tool::MaskFile m;
    m.path = t[0].cast<std::string>();
    m.plane = vectorOf<uint8_t>(t[1].cast<py::bytes>());
    m.width = t[2].cast<int>();
    m.height = t[3].cast<int>();
    return m;
}

class FileTransfer {
public:
    FileTransfer(const std::string &reference, const std::string &mask,
                 const std::string &sourceMask, const std::string &referenceMask, Options options)
        : options_(std::move(options)), referencePath_(reference) {
        protected_.push_back(reference);
        for (const std::string *m : {&mask, &sourceMask, &referenceMask})
            if (!m->empty()) protected_.push_back(*m);
        py::gil_scoped_release release;
        std::vector<std::string> notes;
        const auto keep = [&](const std::string &file) {
            for (std::string &text : notes) notes_.emplace_back(file, std::move(text));
            notes.clear();
        };
        tool::Picture picture = tool::readPicture(reference, &notes);
        keep(reference);
        tool::MaskFile statsMask = tool::readMaskFile(referenceMask, &notes);
        keep(referenceMask);
        if (!statsMask.empty()) statsMask.checkSize(reference, picture);
        blend_ = tool::readMaskFile(mask, &notes);
        keep(mask);
        sourceMask_ = tool::readMaskFile(sourceMask, &notes);
        keep(sourceMask);
        reference_ = std::make_unique<tool::Reference>(
            std::move(picture), std::move(statsMask.plane), options_.transfer);
        // The targets of gray and colour sources with the reference's own
        // profile and with none (sRGB): only the layout and the profile
        // choose a target. A conversion Little CMS refuses fails later, for
        // the sources that need it, as in the tool.
        const std::vector<uint8_t> own = reference_->picture().icc;
        for (const std::vector<uint8_t> &icc : {own, std::vector<uint8_t>()})
            for (const int channels : {1, 3}) {
                tool::Picture probe;
                probe.channels = channels;
                probe.icc = icc;
                try {
                    reference_->targetFor(probe);
                } catch (const std::runtime_error &) {}
            }
        support_ = tool::makeSupport();
    }

    // Runs the tool's pipeline on one file: (written, notes, timings);
    // written is False when the output existed and skip_existing is on.
    py::tuple run(const std::string &input, const std::string &output) {
        std::optional<tool::Format> format = options_.format;
        if (!format) format = tool::formatForPath(output);
        if (!format)
            throw py::value_error("cannot tell the output format of '" + output +
                                  "' (use .png, .jpg, .jpeg, .tif, .tiff or .webp)");
        tool::FileResult result;
        {
            py::gil_scoped_release release;
            const tool::Operation transfer = [this](const std::string &path, tool::Picture &picture,
                                                    std::vector<std::string> &notes) {
                return tool::transferOne(path, picture, *reference_, blend_, sourceMask_,
                                         options_.transfer, support_.get(), notes);
            };
            result = tool::processFile(input, output, *format, transfer, options_.run, protected_);
        }
        py::dict timings;
        timings["decode"] = result.timings.decode;
        timings["library"] = result.timings.library;
        timings["encode"] = result.timings.encode;
        timings["write"] = result.timings.write;
        return py::make_tuple(result.outcome == tool::Outcome::Written, result.notes, timings);
    }

    const Notes &notes() const { return notes_; }

    // The targets made: "colour", "gray", or either followed by the profile
    // the reference was converted into ("colour into sRGB", "gray into a
    // profile of 3144 bytes").
    std::vector<std::string> targetKeys() const {
        std::vector<std::string> keys;
        for (const auto &[key, target] : reference_->targets()) {
            const size_t colon = key.find(':');
            std::string name = key.substr(0, colon);
            if (colon != std::string::npos)
                name +=
                    colon + 1 == key.size()
                        ? " into sRGB"
                        : " into a profile of " + std::to_string(key.size() - colon - 1) + " bytes";
            keys.push_back(name);
        }
        return keys;
    }

    py::tuple state() const {
        const tool::TransferSettings &s = options_.transfer;
        const tool::RunSettings &r = options_.run;
        const py::tuple settings = py::make_tuple(
            s.strength, s.fidelity, s.maxStep, s.contrast, s.highTail, s.lowTail, s.smooth,
            s.smoothThreshold, s.smoothIterations, int(s.space), s.manageColour,
            r.write.encode.quality, r.write.encode.lossless, r.write.strip, r.force, r.skipExisting,
            options_.format ? int(*options_.format) : -1);
        const tool::Picture &p = reference_->picture();
        const py::tuple picture =
            py::make_tuple(p.width, p.height, p.channels, p.depth,
                           bytesOf(p.data(), p.sampleCount() * size_t(p.depth / 8)),
                           bytesOf(p.icc.data(), p.icc.size()));
        const std::vector<uint8_t> &mask = reference_->statsMask();
        py::list targets;
        for (const auto &[key, t] : reference_->targets()) {
            py::object profile8 = py::none(), profile16 = py::none();
            if (t->profile8) profile8 = bytesOf(t->profile8.get(), sizeof(wzImageColorProfile));
            if (t->profile16)
                profile16 = bytesOf(t->profile16.get(), sizeof(wzImageColorProfile16));
            targets.append(
                py::make_tuple(py::bytes(key), int(t->space), profile8, profile16, t->note));
        }
        return py::make_tuple(kStateVersion, settings, referencePath_, picture,
                              bytesOf(mask.data(), mask.size()), targets, stateOf(blend_),
                              stateOf(sourceMask_), protected_, notes_);
    }

    static std::unique_ptr<FileTransfer> fromState(const py::tuple &state) {
        if (state.size() != 10 || state[0].cast<int>() != kStateVersion)
            throw py::value_error("not the state of a FileTransfer of this version");
        std::unique_ptr<FileTransfer> f(new FileTransfer());
        const auto s = state[1].cast<py::tuple>();
        tool::TransferSettings &t = f->options_.transfer;
        t.strength = s[0].cast<float>();
        t.fidelity = s[1].cast<float>();
        t.maxStep = s[2].cast<int>();
        t.contrast = s[3].cast<bool>();
        t.highTail = s[4].cast<float>();
        t.lowTail = s[5].cast<float>();
        t.smooth = s[6].cast<bool>();
        t.smoothThreshold = s[7].cast<float>();
        t.smoothIterations = s[8].cast<int>();
        t.space = wzWorkingSpace(s[9].cast<int>());
        t.manageColour = s[10].cast<bool>();
        tool::RunSettings &r = f->options_.run;
        r.write.encode.quality = s[11].cast<int>();
        r.write.encode.lossless = s[12].cast<bool>();
        r.write.strip = s[13].cast<bool>();
        r.force = s[14].cast<bool>();
        r.skipExisting = s[15].cast<bool>();
        r.quiet = true;
        if (s[16].cast<int>() >= 0) f->options_.format = tool::Format(s[16].cast<int>());
        f->referencePath_ = state[2].cast<std::string>();

        const auto p = state[3].cast<py::tuple>();
        tool::Picture picture;
        picture.allocate(p[0].cast<int>(), p[1].cast<int>(), p[2].cast<int>(), p[3].cast<int>());
        const std::string_view samples(p[4].cast<py::bytes>());
        if (samples.size() != picture.sampleCount() * size_t(picture.depth / 8))
            throw py::value_error("the reference's samples do not fit its size");
        std::memcpy(picture.data(), samples.data(), samples.size());
        picture.icc = vectorOf<uint8_t>(p[5].cast<py::bytes>());
        f->reference_ = std::make_unique<tool::Reference>(
            std::move(picture), vectorOf<uint8_t>(state[4].cast<py::bytes>()), t);
        for (const py::handle item : state[5].cast<py::list>()) {
            const auto e = item.cast<py::tuple>();
            auto target = std::make_unique<tool::Target>();
            target->space = wzWorkingSpace(e[1].cast<int>());
            if (!e[2].is_none()) {
                target->profile8.reset(tool::checked(wzImageColorProfileCreate()));
                const std::string_view bytes(e[2].cast<py::bytes>());
                std::memcpy(target->profile8.get(), bytes.data(), sizeof(wzImageColorProfile));
            }
            if (!e[3].is_none()) {
                target->profile16.reset(tool::checked(wzImageColorProfile16Create()));
                const std::string_view bytes(e[3].cast<py::bytes>());
                std::memcpy(target->profile16.get(), bytes.data(), sizeof(wzImageColorProfile16));
            }
            target->note = e[4].cast<std::string>();
            f->reference_->addTarget(e[0].cast<std::string>(), std::move(target));
        }
        f->blend_ = maskOf(state[6].cast<py::tuple>());
        f->sourceMask_ = maskOf(state[7].cast<py::tuple>());
        f->protected_ = state[8].cast<std::vector<std::string>>();
        f->notes_ = state[9].cast<Notes>();
        f->support_ = tool::makeSupport();
        return f;
    }

private:
    FileTransfer() = default;

    Options options_;
    std::string referencePath_;
    std::unique_ptr<tool::Reference> reference_;
    tool::MaskFile blend_, sourceMask_;
    std::vector<std::string> protected_;  // never written over
    Notes notes_;                         // what reading the reference and the masks said
    tool::Support support_;
};

std::unique_ptr<FileTransfer> makeTransfer(
    const std::string &reference, const std::string &mask, const std::string &sourceMask,
    const std::string &referenceMask, const std::string &space, bool ignoreProfiles,
    double strength, double fidelity, int maxStep, bool contrast, double lowTail, double highTail,
    bool smooth, double smoothThreshold, int smoothIterations, int quality, bool lossless,
    bool strip, bool force, bool skipExisting, const std::string &format) {
    // The ranges of the tool's command line.
    inRange("strength", strength, 0, 1);
    inRange("fidelity", fidelity, 0, 1);
    inRange("max_step", maxStep, 0, 255);
    inRange("low_tail", lowTail, 0, 1000);
    inRange("high_tail", highTail, 0, 1000);
    inRange("smooth_threshold", smoothThreshold, 0, 1);
    inRange("smooth_iterations", smoothIterations, 0, 100000);
    inRange("quality", quality, 1, 100);
    if (force && skipExisting) throw py::value_error("force and skip_existing exclude each other");
    Options o;
    tool::TransferSettings &t = o.transfer;
    bool known = false;
    for (const wzWorkingSpace s : {wzSpaceChannels, wzSpaceLuma, wzSpaceYCbCr, wzSpaceLab})
        if (space == tool::spaceName(s)) {
            t.space = s;
            known = true;
        }
    if (!known) throw py::value_error("space must be rgb, luma, ycbcr or lab, got '" + space + "'");
    t.manageColour = !ignoreProfiles;
    t.strength = float(strength);
    t.fidelity = float(fidelity);
    t.maxStep = maxStep;
    t.contrast = contrast;
    t.lowTail = float(lowTail);
    t.highTail = float(highTail);
    t.smooth = smooth;
    t.smoothThreshold = float(smoothThreshold);
    t.smoothIterations = smoothIterations;
    o.run.write.encode.quality = quality;
    o.run.write.encode.lossless = lossless;
    o.run.write.strip = strip;
    o.run.force = force;
    o.run.skipExisting = skipExisting;
    o.run.quiet = true;  // notes are returned, not printed
    o.format = formatNamed(format);
    return std::make_unique<FileTransfer>(reference, mask, sourceMask, referenceMask, std::move(o));
}

// The files of a batch and their outputs, as the tool finds them: (items,
// messages, clash); see tool::planBatch.
py::tuple planBatch(const std::vector<std::string> &inputs, const std::string &folder,
                    const std::string &format) {
    tool::BatchSettings batch;
    batch.inputs = inputs;
    batch.folder = folder;
    batch.format = formatNamed(format);
    const tool::BatchPlan plan = tool::planBatch(batch);
    py::list items, messages;
    for (const auto &item : plan.items) items.append(py::make_tuple(item.input, item.output));
    for (const auto &m : plan.messages) messages.append(py::make_tuple(m.failure, m.file, m.text));
    return py::make_tuple(items, messages, plan.clash);
}

}  // namespace

PYBIND11_MODULE(_tool, m) {
    m.doc() =
        "The morven command-line tool's transfer of files (the compiled half of "
        "morven.dask.transfer_files)";
    tool::initFileCreationMask();
    tool::initMetadata();

    // The tool's FileError as morven.FileError(file, reason).
    py::register_exception_translator([](std::exception_ptr p) {
        try {
            if (p) std::rethrow_exception(p);
        } catch (const tool::FileError &e) {
            const py::object type = py::module_::import("morven").attr("FileError");
            PyErr_SetObject(type.ptr(), type(e.file(), e.what()).ptr());
        } catch (const tool::Interrupted &) {
            PyErr_SetNone(PyExc_KeyboardInterrupt);
        }
    });

    const tool::TransferSettings d = tool::defaultTransferSettings();
    py::dict defaults;
    defaults["space"] = tool::spaceName(tool::kDefaultSpace);
    defaults["strength"] = d.strength;
    defaults["fidelity"] = d.fidelity;
    defaults["max_step"] = d.maxStep;
    defaults["contrast"] = d.contrast;
    defaults["low_tail"] = d.lowTail;
    defaults["high_tail"] = d.highTail;
    defaults["smooth"] = d.smooth;
    defaults["smooth_threshold"] = d.smoothThreshold;
    defaults["smooth_iterations"] = d.smoothIterations;
    defaults["quality"] = tool::EncodeSettings{}.quality;
    m.attr("DEFAULTS") = defaults;
    m.attr("WITH_METADATA") = tool::metadataAvailable();

    using namespace py::literals;
    py::class_<FileTransfer>(m, "FileTransfer")
        .def(py::init(&makeTransfer), "reference"_a, "mask"_a, "source_mask"_a, "reference_mask"_a,
             "space"_a, "ignore_profiles"_a, "strength"_a, "fidelity"_a, "max_step"_a, "contrast"_a,
             "low_tail"_a, "high_tail"_a, "smooth"_a, "smooth_threshold"_a, "smooth_iterations"_a,
             "quality"_a, "lossless"_a, "strip"_a, "force"_a, "skip_existing"_a, "format"_a)
        .def("run", &FileTransfer::run, "input"_a, "output"_a)
        .def_property_readonly("notes", &FileTransfer::notes)
        .def_property_readonly("target_keys", &FileTransfer::targetKeys)
        .def(py::pickle([](const FileTransfer &f) { return f.state(); },
                        [](const py::tuple &state) { return FileTransfer::fromState(state); }));
    m.def("plan_batch", &planBatch, "inputs"_a, "folder"_a, "format"_a);
    m.def("prepare_folder", [](const std::string &folder) {
        py::gil_scoped_release release;
        tool::prepareFolder(folder);
    });
}
