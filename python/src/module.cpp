// morven._morven: the library's filters on NumPy arrays.
//
// The public Python functions (morven/__init__.py) parse keywords, strings
// and references and call these. Each function here checks its arrays and
// numbers, wraps the arrays in image headers (no copy) and runs the library
// without the GIL. The per-piece functions (counts, tables, curves and their
// application) are what morven.dask runs on the chunks of a large picture.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include <morven/morven.h>

#include "arrays.hpp"
#include "run.hpp"

namespace py = pybind11;
using namespace morven::python;

namespace {

constexpr int kBins16 = WZ_PROFILE16_BINS;
// A float bin grown by 1.0f stops at 2^24.
constexpr double kFloatLimit = 16777216.0;

wzHistogramTransferSupport *transferSupport = nullptr;

template <typename T>
struct Freed {
    void operator()(T *p) const { std::free(p); }
};
template <typename T>
using Owned = std::unique_ptr<T, Freed<T>>;

template <typename T>
Owned<T> allocate() {
    auto *p = static_cast<T *>(std::calloc(1, sizeof(T)));
    if (!p) throw std::bad_alloc();
    return Owned<T>(p);
}

float finite(double value, const char *name) {
    if (!std::isfinite(value))
        throw py::value_error(std::string(name) + " must be a finite number");
    return static_cast<float>(value);
}

int32_t passes(int64_t value, const char *name) {
    if (value < 0 || value > 1000000)
        throw py::value_error(std::string(name) + " must be between 0 and 1000000, got " +
                              std::to_string(value));
    return static_cast<int32_t>(value);
}

// Status 1 after our own checks can only be an allocation failure; 2 only
// follows a signal handler's exception, which runReleased has raised.
void checkStatus(wzStatus status, const char *what) {
    if (status == WZ_STATUS_OK || status == WZ_STATUS_NO_PIXELS) return;
    const std::string message = std::string(what) +
                                ": the library could not allocate its working memory (status " +
                                std::to_string(status) + ")";
    PyErr_SetString(PyExc_MemoryError, message.c_str());
    throw py::error_already_set();
}

View imageOf(py::handle object, const char *name, const std::string &order) {
    if (!py::isinstance<py::array>(object))
        return View::image(object, name, wzEncodingGray);  // raises
    return View::image(object, name,
                       encodingOf(py::reinterpret_borrow<py::array>(object), order, name));
}

// The destination view: the source's own header for an in-place call, so
// that the library sees one image.
struct Destination {
    py::array array;
    View own;
    wzImage *header;
};

Destination destinationOf(const View &source, py::handle out) {
    Destination d;
    d.array = destinationFor(source, out);
    if (d.array.data() == source.data()) {
        d.header = source.get();
    } else {
        d.own = View::image(d.array, "out", source.get()->encoding, true);
        d.header = d.own.get();
    }
    return d;
}

py::array copyOf(const py::array &a) {
    py::array copy(a.dtype(), std::vector<py::ssize_t>(a.shape(), a.shape() + a.ndim()));
    std::memcpy(copy.mutable_data(), a.data(), a.nbytes());
    return copy;
}

// Profiles cross the boundary as (3, 256) float32 or (3, 65536) float64
// arrays in the library's row order (bins[0] first).
void readProfile8(py::handle object, wzImageColorProfile &profile) {
    const auto a = py::array_t<float, py::array::c_style | py::array::forcecast>::ensure(object);
    if (!a || a.ndim() != 2 || a.shape(0) != 3 || a.shape(1) != 256)
        throw py::value_error("an 8-bit profile must have shape (3, 256)");
    std::memcpy(profile.bins, a.data(), sizeof profile.bins);
}

void readProfile16(py::handle object, int32_t space, wzImageColorProfile16 &profile) {
    const auto a = py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(object);
    if (!a || a.ndim() != 2 || a.shape(0) != 3 || a.shape(1) != kBins16)
        throw py::value_error("a deep profile must have shape (3, 65536)");
    profile.space = space;
    std::memcpy(profile.bins, a.data(), sizeof profile.bins);
}

py::array_t<float> profile8Array(const wzImageColorProfile &profile) {
    py::array_t<float> a({3, 256});
    std::memcpy(a.mutable_data(), profile.bins, sizeof profile.bins);
    return a;
}

py::array_t<double> profile16Array(const wzImageColorProfile16 &profile) {
    py::array_t<double> a({3, kBins16});
    std::memcpy(a.mutable_data(), profile.bins, sizeof profile.bins);
    return a;
}

int32_t spaceCode(int32_t space) {
    if (space < wzSpaceChannels || space > wzSpaceLab)
        throw py::value_error("unknown working space");
    return space;
}

wzHistogramMatchParams matchParams(double strength, double fidelity, int64_t maxStep,
                                   wzImageColorProfile *target) {
    if (maxStep < INT32_MIN || maxStep > INT32_MAX)
        throw py::value_error("max_step is out of range");
    return wzHistogramMatchParams{finite(strength, "strength"), finite(fidelity, "fidelity"), 0,
                                  static_cast<int32_t>(maxStep), target};
}

// ---------------------------------------------------------------------------
// Whole-picture filters

py::tuple transfer(py::handle source, py::handle out, py::handle target8, py::handle target16,
                   int32_t space, double strength, double fidelity, int64_t maxStep, bool contrast,
                   double lowTail, double highTail, bool smooth, double smoothThreshold,
                   int64_t smoothIterations, py::handle mask, py::handle sourceMask,
                   const std::string &order) {
    View src = imageOf(source, "source", order);
    const View blend = View::mask(mask, "mask", src.width(), src.height());
    const View stats = View::mask(sourceMask, "source_mask", src.width(), src.height());
    if (contrast && !src.wide() && !stats && src.pixels() > INT32_MAX)
        throw py::value_error(
            "contrast: the library counts the pixels of an 8-bit picture in 32 bits; "
            "this one has 2^31 or more");
    wzImageColorProfile profile8;
    Owned<wzImageColorProfile16> profile16;
    if (!target16.is_none()) {
        profile16 = allocate<wzImageColorProfile16>();
        readProfile16(target16, spaceCode(space), *profile16);
    } else {
        readProfile8(target8, profile8);
    }
    wzHistogramTransferParams params{};
    params.targetProfile = target16.is_none() ? &profile8 : nullptr;
    const wzHistogramMatchParams match = matchParams(strength, fidelity, maxStep, nullptr);
    params.matchStrength = match.strength;
    params.matchFidelity = match.fidelity;
    params.matchMaxStep = match.maxStep;
    params.contrastEnabled = contrast;
    params.contrastLowTail = finite(lowTail, "low_tail");
    params.contrastHighTail = finite(highTail, "high_tail");
    params.smoothEnabled = smooth;
    params.smoothThreshold = finite(smoothThreshold, "smooth_threshold");
    params.smoothIterations = passes(smoothIterations, "smooth_iterations");
    const wzHistogramMatchOptions options{spaceCode(space), 0, stats.get(), profile16.get()};

    Destination dst = destinationOf(src, out);
    // In place, the library would guide smoothing by the matched picture
    // itself: it gets the unprocessed one from a copy.
    View guide;
    if (smooth && dst.header == src.get()) {
        guide = View::image(copyOf(src.array()), "source", src.get()->encoding);
        dst.own = std::move(src);
        dst.header = dst.own.get();
        src = std::move(guide);
    }
    const int64_t work =
        src.pixels() * (2 + (contrast ? 2 : 0) + (smooth ? 3 * params.smoothIterations : 0));
    const wzStatus status = runReleased(
        [&](const uint32_t *cancel) {
            return wzHistogramTransferFilterWithOptions(&params, &options, transferSupport,
                                                        src.get(), blend.get(), dst.header, cancel);
        },
        work);
    checkStatus(status, "transfer");
    return py::make_tuple(dst.array, status);
}

py::array_t<float> profile8(py::handle image, py::handle mask, const std::string &order) {
    const View img = imageOf(image, "image", order);
    const View stats = View::mask(mask, "mask", img.width(), img.height());
    wzImageColorProfile profile;
    runReleased(
        [&](const uint32_t *) {
            return wzImageFillColorProfileMasked(img.get(), stats.get(), &profile);
        },
        img.pixels());
    return profile8Array(profile);
}

py::array_t<double> profile16(py::handle image, py::handle mask, const std::string &order,
                              int32_t space) {
    const View img = imageOf(image, "image", order);
    const View stats = View::mask(mask, "mask", img.width(), img.height());
    auto profile = allocate<wzImageColorProfile16>();
    const wzStatus status = runReleased(
        [&](const uint32_t *) {
            return wzImageFillColorProfile16(img.get(), stats.get(), spaceCode(space),
                                             profile.get());
        },
        img.pixels());
    checkStatus(status, "profile");
    return profile16Array(*profile);
}

py::tuple equalize(py::handle image, py::handle mask, py::handle out, const std::string &order) {
    const View src = imageOf(image, "image", order);
    const View stats = View::mask(mask, "mask", src.width(), src.height());
    Destination dst = destinationOf(src, out);
    const wzStatus status = runReleased(
        [&](const uint32_t *) {
            return wzHistogramEqualizationMasked(src.get(), stats.get(), dst.header);
        },
        src.pixels());
    checkStatus(status, "equalize");
    return py::make_tuple(dst.array, status);
}

py::tuple stretch(py::handle image, py::handle mask, py::handle out, const std::string &order) {
    const View src = imageOf(image, "image", order);
    const View stats = View::mask(mask, "mask", src.width(), src.height());
    Destination dst = destinationOf(src, out);
    // Status 1 here means every channel holds a single value: copied as it is.
    const wzStatus status = runReleased(
        [&](const uint32_t *) {
            return wzHistogramStretchMasked(src.get(), stats.get(), dst.header);
        },
        src.pixels());
    return py::make_tuple(dst.array, status);
}

py::tuple contrastFilter(py::handle image, double lowTail, double highTail, py::handle mask,
                         py::handle out, const std::string &order) {
    const View src = imageOf(image, "image", order);
    const View stats = View::mask(mask, "mask", src.width(), src.height());
    if (!src.wide() && !stats && src.pixels() > INT32_MAX)
        throw py::value_error(
            "contrast: the library counts the pixels of an 8-bit picture in 32 bits; "
            "this one has 2^31 or more");
    const wzContrastEnhanceParams params{finite(highTail, "high_tail"), finite(lowTail, "low_tail"),
                                         0, 255, 0};
    Destination dst = destinationOf(src, out);
    const wzStatus status = runReleased(
        [&](const uint32_t *cancel) {
            return wzContrastEnhanceFilterMasked(&params, src.get(), stats.get(), nullptr,
                                                 dst.header, cancel);
        },
        2 * src.pixels());
    checkStatus(status, "contrast");
    return py::make_tuple(dst.array, status);
}

py::array smoothFilter(py::handle image, py::handle guideObject, py::handle out, double threshold,
                       int64_t iterations, const std::string &order) {
    const View src = imageOf(image, "image", order);
    const View guide = imageOf(guideObject, "guide", order);
    requireSameSize(src, "image", guide, "guide");
    if (guide.get()->encoding != src.get()->encoding || guide.wide() != src.wide())
        throw py::value_error("guide must have the image's dtype and number of channels");
    const wzSelectiveSmoothParams params{finite(threshold, "threshold"),
                                         passes(iterations, "iterations")};
    Destination dst = destinationOf(src, out);
    if (dst.array.data() == guide.data() && guide.data() != src.data())
        throw py::value_error("out must not be the guide");
    const wzStatus status = runReleased(
        [&](const uint32_t *cancel) {
            if (src.wide())
                return wzSelectiveSmooth16(&params, guide.get(), src.get(), dst.header, cancel);
            if (src.gray())
                return wzSelectiveSmoothGray(&params, transferSupport->smoothSupport, guide.get(),
                                             src.get(), dst.header, cancel);
            return wzSelectiveSmooth(&params, transferSupport->smoothSupport, guide.get(),
                                     src.get(), dst.header, cancel);
        },
        3 * src.pixels() * (params.iterations + 1));
    checkStatus(status, "smooth");
    return dst.array;
}

// Histogram matching at 16-bit precision, unsmoothed and unlimited: every
// level goes to the point of the reference's distribution at its own
// cumulative share. Image and reference are both gray or both colour.
py::array matchPlanes(py::handle image, py::handle reference, py::handle out,
                      const std::string &order) {
    const View src = imageOf(image, "image", order);
    const View ref = imageOf(reference, "reference", order);
    Destination dst = destinationOf(src, out);
    auto source16 = allocate<wzImageColorProfile16>();
    auto curves = Owned<wzHistogramMatchCurves>(wzHistogramMatchCurvesCreate());
    if (!curves) throw std::bad_alloc();
    Owned<wzImageColorProfile16> target16;
    wzImageColorProfile target8;
    if (ref.wide()) target16 = allocate<wzImageColorProfile16>();
    const wzHistogramMatchParams params{1.0f, 1.0f, 0, 255, &target8};
    const wzStatus status = runReleased(
        [&](const uint32_t *cancel) {
            if (ref.wide())
                wzImageFillColorProfile16(ref.get(), nullptr, wzSpaceChannels, target16.get());
            else
                wzImageFillColorProfileMasked(ref.get(), nullptr, &target8);
            wzStatus s =
                wzImageFillColorProfile16(src.get(), nullptr, wzSpaceChannels, source16.get());
            if (s == WZ_STATUS_OK)
                s = wzHistogramMatchCurvesCompute(source16.get(), &params, target16.get(),
                                                  src.gray() ? 1 : 3, curves.get());
            if (s == WZ_STATUS_OK)
                s = wzHistogramMatchCurvesApply(curves.get(), src.get(), dst.header, cancel);
            return s;
        },
        3 * src.pixels());
    checkStatus(status, "match_histograms");
    return dst.array;
}

// ---------------------------------------------------------------------------
// Pieces of the filters, for pictures processed chunk by chunk

// Exact 8-bit profile counts: the library's float profile of pieces small
// enough that no bin can reach 2^24, summed in doubles.
py::array_t<double> counts8(py::handle image, py::handle mask, const std::string &order) {
    const View img = imageOf(image, "image", order);
    const View stats = View::mask(mask, "mask", img.width(), img.height());
    py::array_t<double> counts({3, 256});
    double *sum = counts.mutable_data();
    std::fill(sum, sum + 768, 0.0);
    runReleased(
        [&](const uint32_t *) {
            constexpr int64_t kPiece = (int64_t{1} << 24) - 1;
            const int32_t w = img.width(), h = img.height();
            const int32_t cols = static_cast<int32_t>(std::min<int64_t>(w, kPiece));
            const int32_t rows = static_cast<int32_t>(std::max<int64_t>(1, kPiece / cols));
            wzImageColorProfile piece;
            for (int32_t y = 0; y < h; y += rows)
                for (int32_t x = 0; x < w; x += cols) {
                    const wzRect r{x, y, std::min(cols, w - x), std::min(rows, h - y)};
                    wzImageSetROI(img.get(), &r);
                    if (stats) wzImageSetROI(stats.get(), &r);
                    wzImageFillColorProfileMasked(img.get(), stats.get(), &piece);
                    for (int a = 0; a < 3; ++a)
                        for (int v = 0; v < 256; ++v) sum[a * 256 + v] += piece.bins[a][v];
                }
            wzImageResetROI(img.get());
            if (stats) wzImageResetROI(stats.get());
            return WZ_STATUS_OK;
        },
        img.pixels());
    return counts;
}

// The 8-bit matching table from exact counts (saturated as one call's float
// profile is), or status WZ_STATUS_NO_PIXELS when either side is empty.
py::tuple matchTable(py::handle counts, py::handle target, double strength, double fidelity,
                     int64_t maxStep) {
    const auto c = py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(counts);
    if (!c || c.size() != 768) throw py::value_error("counts must have shape (3, 256)");
    wzImageColorProfile profile, target8;
    readProfile8(target, target8);
    for (int a = 0; a < 3; ++a)
        for (int v = 0; v < 256; ++v) {
            const double n = c.data()[a * 256 + v];
            profile.bins[a][v] = static_cast<float>(n < kFloatLimit ? n : kFloatLimit);
        }
    const auto total = [](const wzImageColorProfile &p) {
        float sum = 0.0f;
        for (float v : p.bins[2]) sum += v;
        return sum;
    };
    py::array_t<uint8_t> table(768);
    if (!(total(profile) > 0.0f) || !(total(target8) > 0.0f))
        return py::make_tuple(WZ_STATUS_NO_PIXELS, table);
    const wzHistogramMatchParams params = matchParams(strength, fidelity, maxStep, &target8);
    const wzHistogramMatchStats stats{&profile};
    wzHistogramMatchAddParamsCompute(&stats, &params, table.mutable_data());
    return py::make_tuple(WZ_STATUS_OK, table);
}

py::array applyTable(py::handle table, py::handle image, py::handle out, const std::string &order) {
    const auto t = py::array_t<uint8_t, py::array::c_style | py::array::forcecast>::ensure(table);
    if (!t || t.size() != 768) throw py::value_error("a matching table has 768 entries");
    const View src = imageOf(image, "image", order);
    if (src.wide()) throw py::type_error("a matching table applies to uint8 images");
    Destination dst = destinationOf(src, out);
    const wzStatus status = runReleased(
        [&](const uint32_t *cancel) {
            return wzHistogramMatchApply(nullptr, t.data(), src.get(), dst.header, cancel);
        },
        src.pixels());
    checkStatus(status, "matching table");
    return dst.array;
}

// Curves travel as the bytes of the library's record.
py::tuple matchCurves(py::handle source, int32_t space, py::handle target8, py::handle target16,
                      double strength, double fidelity, int64_t maxStep, int32_t channels) {
    auto from = allocate<wzImageColorProfile16>();
    readProfile16(source, spaceCode(space), *from);
    wzImageColorProfile profile8;
    Owned<wzImageColorProfile16> to;
    if (!target16.is_none()) {
        to = allocate<wzImageColorProfile16>();
        readProfile16(target16, space, *to);
    } else {
        readProfile8(target8, profile8);
    }
    if (channels != 1 && channels != 3) throw py::value_error("channels must be 1 or 3");
    const wzHistogramMatchParams params = matchParams(strength, fidelity, maxStep, &profile8);
    py::array_t<uint8_t> bytes(static_cast<py::ssize_t>(sizeof(wzHistogramMatchCurves)));
    auto *curves = reinterpret_cast<wzHistogramMatchCurves *>(bytes.mutable_data());
    wzStatus status;
    {
        py::gil_scoped_release release;
        status = wzHistogramMatchCurvesCompute(from.get(), &params, to.get(), channels, curves);
    }
    checkStatus(status, "matching curves");
    return py::make_tuple(status, bytes);
}

py::array applyCurves(py::handle curvesObject, py::handle image, py::handle out,
                      const std::string &order) {
    const auto bytes =
        py::array_t<uint8_t, py::array::c_style | py::array::forcecast>::ensure(curvesObject);
    if (!bytes || static_cast<size_t>(bytes.size()) != sizeof(wzHistogramMatchCurves))
        throw py::value_error("not a curves record");
    // Realigned when the array's memory is not.
    Owned<wzHistogramMatchCurves> aligned;
    const auto *curves = reinterpret_cast<const wzHistogramMatchCurves *>(bytes.data());
    if (reinterpret_cast<uintptr_t>(bytes.data()) % alignof(wzHistogramMatchCurves) != 0) {
        aligned = allocate<wzHistogramMatchCurves>();
        std::memcpy(aligned.get(), bytes.data(), sizeof(wzHistogramMatchCurves));
        curves = aligned.get();
    }
    if (curves->space < wzSpaceChannels || curves->space > wzSpaceLab)
        throw py::value_error("not a curves record");
    const View src = imageOf(image, "image", order);
    Destination dst = destinationOf(src, out);
    const wzStatus status = runReleased(
        [&](const uint32_t *cancel) {
            return wzHistogramMatchCurvesApply(curves, src.get(), dst.header, cancel);
        },
        2 * src.pixels());
    checkStatus(status, "matching curves");
    return dst.array;
}

// Brightness counts at 16-bit resolution (an 8-bit level b at 257 b), then
// the number of pixels counted: 65537 exact doubles.
py::array_t<double> contrastCounts(py::handle image, py::handle mask, const std::string &order) {
    const View img = imageOf(image, "image", order);
    const View stats = View::mask(mask, "mask", img.width(), img.height());
    auto record = allocate<wzContrastEnhanceStats16>();
    const wzStatus status = runReleased(
        [&](const uint32_t *cancel) {
            return wzContrastEnhanceStatsRetrieve16(record.get(), img.get(), stats.get(), cancel);
        },
        img.pixels());
    checkStatus(status, "contrast statistics");
    py::array_t<double> counts(kBins16 + 1);
    std::memcpy(counts.mutable_data(), record->hist, sizeof record->hist);
    counts.mutable_data()[kBins16] = record->total;
    return counts;
}

// The tone curve of the whole picture from summed counts: 256 bytes for
// 8-bit pictures (bins saturated at 2^24 as one call's are), 65536 levels
// for 16-bit ones; status WZ_STATUS_NO_PIXELS when nothing was counted.
py::tuple contrastCurve(py::handle countsObject, bool wide, double lowTail, double highTail) {
    const auto c =
        py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(countsObject);
    if (!c || c.size() != kBins16 + 1)
        throw py::value_error("contrast counts must have 65537 entries");
    const wzContrastEnhanceParams params{finite(highTail, "high_tail"), finite(lowTail, "low_tail"),
                                         0, 255, 0};
    const double total = c.data()[kBins16];
    const wzStatus status = total > 0.0 ? WZ_STATUS_OK : WZ_STATUS_NO_PIXELS;
    if (wide) {
        auto stats = allocate<wzContrastEnhanceStats16>();
        std::memcpy(stats->hist, c.data(), sizeof stats->hist);
        stats->total = total;
        py::array_t<uint16_t> curve(kBins16);
        wzContrastEnhanceAddParamsCompute16(stats.get(), &params, curve.mutable_data());
        return py::make_tuple(status, curve);
    }
    wzContrastEnhanceStats stats;
    for (int b = 0; b < 256; ++b) {
        const double n = c.data()[257 * b];
        stats.hist[b] = static_cast<float>(n < kFloatLimit ? n : kFloatLimit);
    }
    stats.total = static_cast<float>(static_cast<int64_t>(total));
    py::array_t<uint8_t> curve(256);
    wzContrastEnhanceAddParamsCompute(&stats, &params, curve.mutable_data());
    return py::make_tuple(status, curve);
}

py::array applyContrast(py::handle curveObject, py::handle image, py::handle out,
                        const std::string &order) {
    const View src = imageOf(image, "image", order);
    const auto curve = py::array::ensure(curveObject);
    const py::ssize_t entries = src.wide() ? kBins16 : 256;
    if (!curve || curve.size() != entries || curve.itemsize() != (src.wide() ? 2 : 1) ||
        !(curve.flags() & py::array::c_style))
        throw py::value_error("the tone curve does not fit the image's dtype");
    Destination dst = destinationOf(src, out);
    const wzStatus status = runReleased(
        [&](const uint32_t *cancel) {
            return src.wide()
                       ? wzContrastEnhanceApply16(static_cast<const uint16_t *>(curve.data()),
                                                  src.get(), dst.header, cancel)
                       : wzContrastEnhanceApply(static_cast<const uint8_t *>(curve.data()),
                                                src.get(), dst.header, cancel);
        },
        src.pixels());
    checkStatus(status, "contrast curve");
    return dst.array;
}

// out = untouched where the mask is 0, processed where it is 255, weighted
// in between.
py::array blend(py::handle untouchedObject, py::handle processedObject, py::handle mask,
                py::handle out, const std::string &order) {
    const View untouched = imageOf(untouchedObject, "untouched", order);
    const View processed = imageOf(processedObject, "processed", order);
    requireSameSize(untouched, "untouched", processed, "processed");
    if (untouched.wide() != processed.wide() ||
        untouched.get()->encoding != processed.get()->encoding)
        throw py::value_error("untouched and processed must have one dtype and layout");
    const View weights = View::mask(mask, "mask", untouched.width(), untouched.height());
    if (!weights) throw py::value_error("blend needs a mask");
    Destination dst = destinationOf(processed, out);
    const wzStatus status = runReleased(
        [&](const uint32_t *) {
            return untouched.wide() ? wzAddWeigthedM16(untouched.get(), processed.get(), dst.header,
                                                       weights.get())
                                    : wzAddWeigthedM(untouched.get(), processed.get(), dst.header,
                                                     weights.get());
        },
        untouched.pixels());
    checkStatus(status, "blend");
    return dst.array;
}

}  // namespace

PYBIND11_MODULE(_morven, m) {
    m.doc() = "Morven's filters on NumPy arrays (the compiled half of the morven package)";
    rememberMainThread();
    transferSupport = wzHistogramTransferSupportCreate();
    if (!transferSupport) throw std::bad_alloc();
    // Released with the module (read-only meanwhile, shared by every thread).
    m.add_object("_support", py::capsule(transferSupport, [](void *p) {
                     auto *s = static_cast<wzHistogramTransferSupport *>(p);
                     wzHistogramTransferSupportRelease(&s);
                 }));

    m.attr("VERSION") = MORVEN_VERSION_STRING;
    m.def(
        "library_version", [] { return std::string(wzMorvenVersionString()); },
        "The version of the library that is running.");
    m.attr("NO_PIXELS") = WZ_STATUS_NO_PIXELS;

    using namespace py::literals;
    m.def("transfer", &transfer, "source"_a, "out"_a, "target8"_a, "target16"_a, "space"_a,
          "strength"_a, "fidelity"_a, "max_step"_a, "contrast"_a, "low_tail"_a, "high_tail"_a,
          "smooth"_a, "smooth_threshold"_a, "smooth_iterations"_a, "mask"_a, "source_mask"_a,
          "order"_a);
    m.def("profile8", &profile8, "image"_a, "mask"_a, "order"_a);
    m.def("profile16", &profile16, "image"_a, "mask"_a, "order"_a, "space"_a);
    m.def("equalize", &equalize, "image"_a, "mask"_a, "out"_a, "order"_a);
    m.def("stretch", &stretch, "image"_a, "mask"_a, "out"_a, "order"_a);
    m.def("contrast", &contrastFilter, "image"_a, "low_tail"_a, "high_tail"_a, "mask"_a, "out"_a,
          "order"_a);
    m.def("smooth", &smoothFilter, "image"_a, "guide"_a, "out"_a, "threshold"_a, "iterations"_a,
          "order"_a);
    m.def("match_planes", &matchPlanes, "image"_a, "reference"_a, "out"_a, "order"_a);
    m.def("counts8", &counts8, "image"_a, "mask"_a, "order"_a);
    m.def("match_table", &matchTable, "counts"_a, "target"_a, "strength"_a, "fidelity"_a,
          "max_step"_a);
    m.def("apply_table", &applyTable, "table"_a, "image"_a, "out"_a, "order"_a);
    m.def("match_curves", &matchCurves, "source"_a, "space"_a, "target8"_a, "target16"_a,
          "strength"_a, "fidelity"_a, "max_step"_a, "channels"_a);
    m.def("apply_curves", &applyCurves, "curves"_a, "image"_a, "out"_a, "order"_a);
    m.def("contrast_counts", &contrastCounts, "image"_a, "mask"_a, "order"_a);
    m.def("contrast_curve", &contrastCurve, "counts"_a, "wide"_a, "low_tail"_a, "high_tail"_a);
    m.def("apply_contrast", &applyContrast, "curve"_a, "image"_a, "out"_a, "order"_a);
    m.def("blend", &blend, "untouched"_a, "processed"_a, "mask"_a, "out"_a, "order"_a);
}
