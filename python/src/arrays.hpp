// NumPy arrays seen as library images: a wzImage header over the array's own
// memory (no copy), after the checks that turn every argument the library
// would refuse into a Python exception with a clear message.
#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <cstdint>
#include <string>

#include <morven/morven.h>

namespace morven::python {

namespace py = pybind11;

// The encoding of an array of shape (H, W) or (H, W, C) in the given channel
// order ("RGB", "BGR", or for four channels "RGBA", "ARGB"); throws ValueError
// for anything else.
uint32_t encodingOf(const py::array &array, const std::string &order, const char *name);

// A header over an array; the array is kept alive with it.
class View {
public:
    View() = default;
    View(const View &) = delete;
    View &operator=(const View &) = delete;
    View(View &&other) noexcept { *this = std::move(other); }
    View &operator=(View &&other) noexcept;
    ~View() { wzImageReleaseHeader(&header_); }

    wzImage *get() const { return header_; }
    explicit operator bool() const { return header_ != nullptr; }
    const py::array &array() const { return array_; }
    bool wide() const { return header_->type == wzType16U; }
    bool gray() const { return header_->encoding == wzEncodingGray; }
    int32_t width() const { return header_->width; }
    int32_t height() const { return header_->height; }
    int64_t pixels() const { return int64_t{header_->width} * header_->height; }
    const void *data() const { return header_->data; }

    // The image `name` (uint8 or uint16, C-contiguous, of the encoding's
    // shape); `writable` for destinations.
    static View image(py::handle object, const char *name, uint32_t encoding,
                      bool writable = false);
    // An 8-bit gray mask of the given size (a bool mask becomes 0 / 255), or
    // an empty view for None.
    static View mask(py::handle object, const char *name, int32_t width, int32_t height);
    // A header over part of the rows of another view (same memory).
    static View rows(const View &whole, int32_t first, int32_t count);

private:
    py::array array_;
    wzImage *header_ = nullptr;
};

// The destination: `out` checked against the source (same shape and dtype;
// it may be the source itself but no other view of its memory), or a new
// array like the source.
py::array destinationFor(const View &source, py::handle out);

// True when both arrays start at the same address (an in-place call).
inline bool sameMemory(const View &a, const View &b) { return a.data() == b.data(); }

// Throws ValueError unless the two images have the same height and width.
void requireSameSize(const View &a, const char *nameA, const View &b, const char *nameB);

}  // namespace morven::python
