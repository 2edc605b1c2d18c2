#include "arrays.hpp"

#include <climits>
#include <cstring>
#include <new>

namespace morven::python {

namespace {

std::string shapeText(const py::array &a) {
    std::string s = "(";
    for (py::ssize_t i = 0; i < a.ndim(); ++i) s += (i ? ", " : "") + std::to_string(a.shape(i));
    return s + (a.ndim() == 1 ? ",)" : ")");
}

std::string dtypeText(const py::array &a) { return py::str(a.dtype()).cast<std::string>(); }

py::array asArray(py::handle object, const char *name) {
    if (!py::isinstance<py::array>(object))
        throw py::type_error(
            std::string(name) + " must be a numpy.ndarray, not " +
            py::str(py::type::handle_of(object).attr("__name__")).cast<std::string>());
    return py::reinterpret_borrow<py::array>(object);
}

bool isC(const py::array &a) { return (a.flags() & py::array::c_style) != 0; }

}  // namespace

uint32_t encodingOf(const py::array &a, const std::string &order, const char *name) {
    if (order != "RGB" && order != "BGR" && order != "RGBA" && order != "ARGB")
        throw py::value_error(
            "order must be 'RGB' or 'BGR' ('RGBA' or 'ARGB' for four channels), got '" + order +
            "'");
    if (a.ndim() == 2) return wzEncodingGray;
    const py::ssize_t channels = a.ndim() == 3 ? a.shape(2) : 0;
    if (channels == 3) {
        if (order == "RGB") return wzEncodingRGB;
        if (order == "BGR") return wzEncodingBGR;
        throw py::value_error(std::string(name) + " has 3 channels: order '" + order +
                              "' needs 4 (use 'RGB' or 'BGR')");
    }
    if (channels == 4) {
        if (order == "RGB" || order == "RGBA") return wzEncodingRGBA;
        if (order == "ARGB") return wzEncodingARGB;
        throw py::value_error(std::string(name) +
                              " has 4 channels: BGRA is not a layout of the library; reorder it to "
                              "RGBA (image[..., [2, 1, 0, 3]]) and pass order='RGB'");
    }
    throw py::value_error(std::string(name) +
                          " must have shape (H, W), (H, W, 3) or (H, W, 4), got " + shapeText(a));
}

View &View::operator=(View &&other) noexcept {
    if (this != &other) {
        wzImageReleaseHeader(&header_);
        array_ = std::move(other.array_);
        header_ = other.header_;
        other.header_ = nullptr;
    }
    return *this;
}

View View::image(py::handle object, const char *name, uint32_t encoding, bool writable) {
    py::array a = asArray(object, name);
    uint32_t type;
    if (a.dtype().equal(py::dtype::of<uint8_t>()))
        type = wzType8U;
    else if (a.dtype().equal(py::dtype::of<uint16_t>()))
        type = wzType16U;
    else
        throw py::type_error(std::string(name) + " must be uint8 or uint16, got " + dtypeText(a));
    const int channels = wzGetNChannelFromEncoding(encoding);
    const bool shapeFits = channels == 1 ? a.ndim() == 2 : a.ndim() == 3 && a.shape(2) == channels;
    if (!shapeFits)
        throw py::value_error(std::string(name) + " has shape " + shapeText(a) +
                              (channels == 1
                                   ? ", expected (H, W)"
                                   : ", expected (H, W, " + std::to_string(channels) + ")"));
    if (!isC(a))
        throw py::value_error(
            std::string(name) +
            " must be C-contiguous (numpy.ascontiguousarray makes a copy that is)");
    if (writable && !a.writeable()) throw py::value_error(std::string(name) + " is read-only");
    const py::ssize_t height = a.shape(0), width = a.shape(1);
    if (height < 1 || width < 1)
        throw py::value_error(std::string(name) + " is empty: shape " + shapeText(a));
    // The library walks rows with 32-bit strides.
    if (height > INT32_MAX || width * channels * static_cast<py::ssize_t>(a.itemsize()) > INT32_MAX)
        throw py::value_error(std::string(name) + " is too large for the library: shape " +
                              shapeText(a));
    View view;
    view.header_ = wzImageCreateHeaderWithType(static_cast<int32_t>(width),
                                               static_cast<int32_t>(height), encoding, type);
    if (!view.header_) throw std::bad_alloc();
    view.header_->data = static_cast<uint8_t *>(const_cast<void *>(a.data()));
    view.array_ = std::move(a);
    return view;
}

View View::mask(py::handle object, const char *name, int32_t width, int32_t height) {
    if (object.is_none()) return View();
    py::array a = asArray(object, name);
    if (a.dtype().equal(py::dtype::of<bool>()) && a.ndim() == 2) {
        // A bool mask selects with 255: a full weight in a blend.
        py::array_t<uint8_t> levels({a.shape(0), a.shape(1)});
        const auto source = a.unchecked<bool, 2>();
        auto target = levels.mutable_unchecked<2>();
        for (py::ssize_t y = 0; y < a.shape(0); ++y)
            for (py::ssize_t x = 0; x < a.shape(1); ++x) target(y, x) = source(y, x) ? 255 : 0;
        a = std::move(levels);
    }
    if (!a.dtype().equal(py::dtype::of<uint8_t>()))
        throw py::type_error(std::string(name) + " must be uint8 or bool, got " + dtypeText(a));
    if (a.ndim() != 2 || a.shape(0) != height || a.shape(1) != width)
        throw py::value_error(std::string(name) + " has shape " + shapeText(a) + ", expected (" +
                              std::to_string(height) + ", " + std::to_string(width) + ")");
    if (!isC(a))
        throw py::value_error(
            std::string(name) +
            " must be C-contiguous (numpy.ascontiguousarray makes a copy that is)");
    View view;
    view.header_ = wzImageCreateHeaderWithType(width, height, wzEncodingGray, wzType8U);
    if (!view.header_) throw std::bad_alloc();
    view.header_->data = static_cast<uint8_t *>(const_cast<void *>(a.data()));
    view.array_ = std::move(a);
    return view;
}

View View::rows(const View &whole, int32_t first, int32_t count) {
    const wzImage &w = *whole.header_;
    View view;
    view.header_ = wzImageCreateHeaderWithType(w.width, count, w.encoding, w.type);
    if (!view.header_) throw std::bad_alloc();
    int32_t strides[3];
    wzImageExtractDerivedMembers(&w, strides);
    view.header_->data = w.data + static_cast<ptrdiff_t>(first) * strides[1];
    view.array_ = whole.array_;
    return view;
}

py::array destinationFor(const View &source, py::handle out) {
    const py::array &s = source.array();
    if (out.is_none()) {
        py::array fresh(s.dtype(), std::vector<py::ssize_t>(s.shape(), s.shape() + s.ndim()));
        // The library leaves a fourth channel as it was: a new result takes
        // the source's alpha.
        if (s.ndim() == 3 && s.shape(2) == 4)
            std::memcpy(fresh.mutable_data(), s.data(), s.nbytes());
        return fresh;
    }
    py::array o = asArray(out, "out");
    bool sameShape = o.ndim() == s.ndim();
    for (py::ssize_t i = 0; sameShape && i < s.ndim(); ++i) sameShape = o.shape(i) == s.shape(i);
    if (!sameShape || !o.dtype().equal(s.dtype()))
        throw py::value_error("out must have the source's shape " + shapeText(s) + " and dtype " +
                              dtypeText(s) + ", got " + shapeText(o) + " " + dtypeText(o));
    if (!isC(o)) throw py::value_error("out must be C-contiguous");
    if (!o.writeable()) throw py::value_error("out is read-only");
    if (o.data() != s.data()) {
        // Partly overlapping memory would be read after it was written.
        const auto *a = static_cast<const uint8_t *>(s.data());
        const auto *b = static_cast<const uint8_t *>(o.data());
        if (a < b + o.nbytes() && b < a + s.nbytes())
            throw py::value_error("out overlaps the source without being the source itself");
    }
    return o;
}

void requireSameSize(const View &a, const char *nameA, const View &b, const char *nameB) {
    if (a.width() != b.width() || a.height() != b.height())
        throw py::value_error(std::string(nameA) + " is " + std::to_string(a.height()) + " x " +
                              std::to_string(a.width()) + " but " + nameB + " is " +
                              std::to_string(b.height()) + " x " + std::to_string(b.width()) +
                              " (height x width); they must match");
}

}  // namespace morven::python
