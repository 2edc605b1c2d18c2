// Element-type conversion, range stretching and thresholding over whole
// blocks. Each operation dispatches once on the (source, destination) type
// pair and then runs a tight loop over the flat block with the pair's rule.
#include <cstring>

#include "common/memory.hpp"
#include "image/image_internal.hpp"
#include "kernels/kernels.hpp"

using namespace morven;

namespace {

// Elements to process for rows * columns * channels, in 64 bits. Zero when any
// factor is below 1, and also when the count times the widest element size
// involved could not be the size of any block (so that a corrupt header can
// neither loop backwards nor form out-of-range offsets).
int64_t elementCount(int32_t rows, int32_t columns, int32_t channels, int64_t widest) {
    if (rows < 1 || columns < 1 || channels < 1) return 0;
    int64_t n = 0, bytes = 0;
    if (!checkedMul(int64_t{rows} * columns, channels, n) || !checkedMul(n, widest, bytes) ||
        static_cast<uint64_t>(bytes) > static_cast<uint64_t>(PTRDIFF_MAX))
        return 0;
    return n;
}

int64_t widerSize(uint32_t a, uint32_t b) {
    return elementSize(a) > elementSize(b) ? elementSize(a) : elementSize(b);
}

// The per-element rule of wzImageCvtType for a pair of distinct types.
template <class S, class D>
inline typename D::T convertElement(typename S::T v) {
    using ST = typename S::T;
    using DT = typename D::T;
    constexpr uint32_t s = S::code;
    constexpr uint32_t d = D::code;
    if constexpr (std::is_floating_point_v<DT>) {
        if constexpr (std::is_floating_point_v<ST>) {
            return static_cast<DT>(v);  // widen to double or round to single
        } else {
            // Convert the integer first, then divide in the destination's precision.
            return static_cast<DT>(v) / static_cast<DT>(S::fullScale);
        }
    } else if constexpr (std::is_floating_point_v<ST>) {
        // Product in the source's precision, then the integer store rule.
        return storeInteger<DT>(v * static_cast<ST>(D::fullScale));
    } else {
        // Integer to integer: shifts and bit extractions, wrapping, never saturating.
        // Unsigned intermediates keep shifts of negative values well defined.
        const uint32_t u = static_cast<uint32_t>(v);
        if constexpr (s == wzType8U) {
            return static_cast<DT>(u << (d == wzType32S24 ? 16 : 8));
        } else if constexpr (s == wzType32S) {
            if constexpr (d == wzType8U) return static_cast<DT>(u >> 8);     // bits 8-15
            if constexpr (d == wzType16U) return static_cast<DT>(u);         // bits 0-15
            if constexpr (d == wzType32S24) return static_cast<DT>(u << 8);  // * 256, wrapping
        } else if constexpr (s == wzType16U) {
            if constexpr (d == wzType8U) return static_cast<DT>(u >> 8);
            if constexpr (d == wzType32S) return static_cast<DT>(u);
            if constexpr (d == wzType32S24) return static_cast<DT>(u << 8);
        } else {
            static_assert(s == wzType32S24);
            if constexpr (d == wzType8U) return static_cast<DT>(u >> 16);  // bits 16-23
            if constexpr (d == wzType32S) return static_cast<DT>(v >> 8);  // arithmetic shift
            if constexpr (d == wzType16U) return static_cast<DT>(u >> 8);  // bits 8-23
        }
    }
}

// Converts n elements. A wider destination runs from the last element to the
// first and a narrower one from the first, so that a destination block that
// starts where the source block starts is converted in place: every source
// element is read before any store reaches its bytes.
template <class S, class D>
void convertBlock(const uint8_t *src, uint8_t *dst, int64_t n) {
    using ST = typename S::T;
    using DT = typename D::T;
    constexpr int64_t ss = sizeof(ST);
    constexpr int64_t ds = sizeof(DT);
    if constexpr (ds > ss) {
        const uint8_t *sp = src + n * ss;
        uint8_t *dp = dst + n * ds;
        for (int64_t i = 0; i < n; ++i) {
            sp -= ss;
            dp -= ds;
            storeRaw<DT>(dp, convertElement<S, D>(loadElement<ST>(sp)));
        }
    } else {
        for (int64_t i = 0; i < n; ++i, src += ss, dst += ds)
            storeRaw<DT>(dst, convertElement<S, D>(loadElement<ST>(src)));
    }
}

// The kernel of a pair that has one, else null.
ConvertFn pairKernel(const Kernels &k, uint32_t srcType, uint32_t dstType) {
    if (srcType == wzType8U && dstType == wzType32F) return k.u8ToF32;
    if (srcType == wzType32F && dstType == wzType8U) return k.f32ToU8;
    if (srcType == wzType8U && dstType == wzType16U) return k.u8ToU16;
    if (srcType == wzType16U && dstType == wzType8U) return k.u16ToU8;
    return nullptr;
}

// Calls f(sourceTag, destinationTag) once for a pair of known type codes.
template <typename Fn>
void dispatchPair(uint32_t srcType, uint32_t dstType, Fn &&f) {
    dispatchType(srcType, [&](auto s) { dispatchType(dstType, [&](auto d) { f(s, d); }); });
}

}  // namespace

void morven::convertElements(const Kernels &kernels, uint32_t srcType, uint32_t dstType,
                             const uint8_t *src, uint8_t *dst, int64_t n) {
    // The vector walk equals the element loop when neither can read a byte
    // that the conversion has already written: disjoint blocks, or a
    // destination that starts at or after the source when widening (the
    // walk runs backwards) and at or before it when narrowing.
    const int64_t ss = elementSize(srcType), ds = elementSize(dstType);
    const bool ordered = ds > ss ? atOrBefore(src, dst) : atOrBefore(dst, src);
    const bool vectorSafe =
        ordered || disjoint(src, static_cast<size_t>(n * ss), dst, static_cast<size_t>(n * ds));
    if (const ConvertFn f = pairKernel(vectorSafe ? kernels : plainKernels(), srcType, dstType)) {
        f(src, dst, n);
        return;
    }
    dispatchPair(srcType, dstType, [&](auto s, auto d) {
        using S = decltype(s);
        using D = decltype(d);
        if constexpr (S::code != D::code) convertBlock<S, D>(src, dst, n);
    });
}

extern "C" {

MORVEN_API wzStatus wzImageCvtType(const wzImage *src, wzImage *dst) {
    if (src->encoding != dst->encoding) return WZ_STATUS_ERROR;
    const int64_t n = elementCount(src->height, src->width, channelCount(src->encoding),
                                   widerSize(src->type, dst->type));
    if (n < 1) return WZ_STATUS_OK;
    if (src->type == dst->type) {
        // The blocks may be one and the same. An unknown type copies nothing.
        if (isKnownType(src->type))
            std::memmove(dst->data, src->data, static_cast<size_t>(n * elementSize(src->type)));
        return WZ_STATUS_OK;
    }
    convertElements(bestKernels(), src->type, dst->type, src->data, dst->data, n);
    return WZ_STATUS_OK;
}

MORVEN_API wzStatus wzImageCvtTypeGivenRange(const wzImage *src, wzImage *dst, double low,
                                             double high) {
    if (src->width != dst->width || !(high > low) || src->height != dst->height ||
        !isKnownType(src->type) || !isKnownType(dst->type))
        return WZ_STATUS_ERROR;
    const int32_t channels = channelCount(src->encoding);
    if (channelCount(dst->encoding) < channels) return WZ_STATUS_ERROR;
    const int64_t n =
        elementCount(src->height, src->width, channels, widerSize(src->type, dst->type));
    if (n < 1) return WZ_STATUS_OK;
    const double span = high - low;
    dispatchPair(src->type, dst->type, [&](auto s, auto d) {
        using ST = typename decltype(s)::T;
        using DT = typename decltype(d)::T;
        const uint8_t *sp = src->data;
        uint8_t *dp = dst->data;
        if constexpr (std::is_floating_point_v<DT>) {
            for (int64_t i = 0; i < n; ++i, sp += sizeof(ST), dp += sizeof(DT)) {
                double t = (static_cast<double>(loadElement<ST>(sp)) - low) / span;
                t = t < 0.0 ? 0.0 : (t > 1.0 ? 1.0 : t);
                storeRaw<DT>(dp, static_cast<DT>(t));
            }
        } else {
            constexpr double fs = decltype(d)::fullScale;
            for (int64_t i = 0; i < n; ++i, sp += sizeof(ST), dp += sizeof(DT)) {
                double r = (static_cast<double>(loadElement<ST>(sp)) - low) / span * fs;
                r = r < 0.0 ? 0.0 : (r > fs ? fs : r);
                storeRaw<DT>(dp, storeInteger<DT>(r));
            }
        }
    });
    return WZ_STATUS_OK;
}

MORVEN_API wzStatus wzImageThreshold(const wzImage *src, wzImage *dst, double low, double high) {
    if (src->width != dst->width || src->height != dst->height || !isKnownType(src->type) ||
        !isKnownType(dst->type))
        return WZ_STATUS_ERROR;
    const int64_t n = elementCount(dst->height, dst->width, 1, widerSize(src->type, dst->type));
    if (n < 1) return WZ_STATUS_OK;
    dispatchPair(src->type, dst->type, [&](auto s, auto d) {
        using S = decltype(s);
        using D = decltype(d);
        using ST = typename S::T;
        using DT = typename D::T;
        constexpr double white = D::fullScale;
        constexpr double ratio = D::fullScale / S::fullScale;
        const uint8_t *sp = src->data;
        uint8_t *dp = dst->data;
        for (int64_t i = 0; i < n; ++i, sp += sizeof(ST), dp += sizeof(DT)) {
            const double v = static_cast<double>(loadElement<ST>(sp));
            const double r = v > high ? white : (v < low ? 0.0 : v * ratio);
            storeRaw<DT>(dp, storeElement<DT>(r));
        }
    });
    return WZ_STATUS_OK;
}

}  // extern "C"
