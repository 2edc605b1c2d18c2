// Single-element access and whole-image statistics. These operations see the
// block as one channel: positions index elements, not pixels. Every operation
// dispatches on the element type once and then runs a tight typed loop.
#include <cfloat>
#include <cstring>

#include "image/block_walks.hpp"
#include "image/image_internal.hpp"

using namespace morven;

namespace {

// Element count of the whole block (height * width * channels); 0 when that
// is not positive or the encoding is invalid, so nothing is touched.
int64_t fillCount(const wzImage &img) {
    if (!isValidEncoding(img.encoding)) return 0;
    const int64_t n = blockElements(img);
    return n > 0 ? n : 0;
}

template <typename T>
double bilinear(const uint8_t *data, int64_t b, int64_t width, double fx, double fy) {
    const auto e = [data](int64_t i) { return loadAsDouble<T>(data, i); };
    const double p00 = e(b);
    // Only the neighbours that a non-zero fraction needs are read, so integral
    // positions on the last row or column stay inside the block.
    if (fx != 0.0 && fy != 0.0) {
        const double top = p00 + fx * (e(b + 1) - p00);
        const double below = e(b + width);
        const double bottom = below + fx * (e(b + width + 1) - below);
        return top + fy * (bottom - top);
    }
    if (fx != 0.0) return p00 + fx * (e(b + 1) - p00);
    if (fy != 0.0) return p00 + fy * (e(b + width) - p00);
    return p00;
}

// The extremes of the region of a gray image.
template <typename T>
void minMaxRegion(const wzImage &img, double &outMin, double &outMax) {
    const Cursor c = regionCursor(img, sizeof(T));
    double mn = outMin, mx = outMax;
    extremesOfRows<T, ExtremeRule::PullBack>(c.p, img.roi.height, img.roi.width, c.gap, mn, mx);
    outMin = mn;
    outMax = mx;
}

// Bounding box of the non-zero elements of the whole gray block.
template <typename T>
bool nonZeroBox(const wzImage &img, wzRect &box) {
    const ptrdiff_t rowBytes =
        static_cast<ptrdiff_t>(img.width) * static_cast<ptrdiff_t>(sizeof(T));
    NonZeroBounds b;
    const uint8_t *row = img.data;
    for (int32_t y = 0; y < img.height; ++y, row += rowBytes) b.addRow<T>(row, img.width, y, 0);
    box = b.found ? wzRect{b.minX, b.minY, b.maxX - b.minX + 1, b.maxY - b.minY + 1}
                  : wzRect{0, 0, 0, 0};
    return b.found;
}

}  // namespace

extern "C" {

MORVEN_API double wzImageGetVal(const wzImage *image, const wzPoint *p) {
    const int64_t i = int64_t{p->y} * image->width + p->x;
    double v = 0.0;
    dispatchType(image->type, [&](auto tag) {
        using T = typename decltype(tag)::T;
        v = loadAsDouble<T>(image->data, i);
    });
    return v;
}

MORVEN_API double wzImageGetInterpolatedVal(const wzImage *image, const double pos[2]) {
    const double x = pos[0], y = pos[1];
    const int32_t xi = truncSat32(x);
    const int32_t yi = truncSat32(y);
    const double fx = x - xi;
    const double fy = y - yi;
    const int64_t b = int64_t{yi} * image->width + xi;
    double v = 0.0;
    dispatchType(image->type, [&](auto tag) {
        using T = typename decltype(tag)::T;
        v = bilinear<T>(image->data, b, image->width, fx, fy);
    });
    return v;
}

MORVEN_API void wzImageSetVal(wzImage *image, double value) {
    const int64_t n = fillCount(*image);
    if (n == 0) return;
    dispatchType(image->type, [&](auto tag) {
        using T = typename decltype(tag)::T;
        fillElements<T>(image->data, n, storeElement<T>(value));
    });
}

MORVEN_API void wzImageSetZero(wzImage *image) {
    const int64_t n = fillCount(*image) * elementSize(image->type);
    if (n > 0) std::memset(image->data, 0, static_cast<size_t>(n));
}

MORVEN_API wzStatus wzImageGetMinMaxValues(const wzImage *image, double *min, double *max) {
    *min = DBL_MAX;
    *max = -DBL_MAX;
    if (image->encoding != wzEncodingGray || !isKnownType(image->type)) return WZ_STATUS_ERROR;
    if (image->roi.height < 1 || image->roi.width < 1) return WZ_STATUS_OK;
    dispatchType(image->type, [&](auto tag) {
        using T = typename decltype(tag)::T;
        minMaxRegion<T>(*image, *min, *max);
    });
    return WZ_STATUS_OK;
}

MORVEN_API wzStatus wzImageGetNonZeroROI(const wzImage *image, wzRect *rect, uint32_t *empty) {
    if (image->encoding != wzEncodingGray) return WZ_STATUS_ERROR;
    *empty = 1;
    wzRect box{};
    bool found = false;
    if (!dispatchType(image->type, [&](auto tag) {
            using T = typename decltype(tag)::T;
            found = nonZeroBox<T>(*image, box);
        }))
        return WZ_STATUS_ERROR;
    if (found) *empty = 0;
    *rect = box;
    return WZ_STATUS_OK;
}

MORVEN_API wzStatus wzImageInvert(const wzImage *src, wzImage *dst) {
    if (src->width != dst->width || src->height != dst->height || src->type != dst->type ||
        src->type != wzType8U)
        return WZ_STATUS_ERROR;
    const int64_t n = int64_t{src->width} * src->height;
    // Element by element, so src and dst may share the block.
    const uint8_t *s = src->data;
    uint8_t *d = dst->data;
    for (int64_t i = 0; i < n; ++i) d[i] = static_cast<uint8_t>(~s[i]);
    return WZ_STATUS_OK;
}

}  // extern "C"
