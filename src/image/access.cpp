// Single-element access and whole-image statistics. These operations see the
// block as one channel: positions index elements, not pixels. Every operation
// dispatches on the element type once and then runs a tight typed loop.
#include <cfloat>
#include <cstring>

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

template <typename T>
void fillBlock(uint8_t *p, int64_t n, T v) {
    if constexpr (sizeof(T) == 1) {
        std::memset(p, v, static_cast<size_t>(n));
    } else {
        for (int64_t i = 0; i < n; ++i, p += sizeof(T)) storeRaw<T>(p, v);
    }
}

// The min/max walk over the region of a gray image. The update order is part
// of the result: an infinite extreme is pulled back to +-DBL_MAX by the next
// element, and the element that pulls min back is not compared with it.
template <typename T>
void minMaxRegion(const wzImage &img, double &outMin, double &outMax) {
    const Cursor c = regionCursor(img, sizeof(T));
    const uint8_t *p = c.p;
    double mn = outMin, mx = outMax;
    for (int32_t y = 0; y < img.roi.height; ++y, p += c.gap) {
        for (int32_t x = 0; x < img.roi.width; ++x, p += sizeof(T)) {
            const double v = static_cast<double>(loadElement<T>(p));
            if (v > mx)
                mx = v;
            else if (mx > DBL_MAX)
                mx = DBL_MAX;
            if (mn < -DBL_MAX)
                mn = -DBL_MAX;
            else if (v < mn)
                mn = v;
        }
    }
    outMin = mn;
    outMax = mx;
}

// Bounding box of the non-zero elements of the whole gray block.
template <typename T>
bool nonZeroBox(const wzImage &img, wzRect &box) {
    const int32_t w = img.width;
    const ptrdiff_t rowBytes = static_cast<ptrdiff_t>(w) * static_cast<ptrdiff_t>(sizeof(T));
    const uint8_t *row = img.data;
    int32_t minX = 0, maxX = 0, minY = 0, maxY = 0;
    bool found = false;
    for (int32_t y = 0; y < img.height; ++y, row += rowBytes) {
        int32_t first = 0, last = 0;
        if (!nonZeroSpan<T>(row, w, first, last)) continue;
        if (!found) {
            found = true;
            minX = first;
            maxX = last;
            minY = y;
        } else {
            if (first < minX) minX = first;
            if (last > maxX) maxX = last;
        }
        maxY = y;
    }
    box = found ? wzRect{minX, minY, maxX - minX + 1, maxY - minY + 1} : wzRect{0, 0, 0, 0};
    return found;
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
        fillBlock<T>(image->data, n, storeElement<T>(value));
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
