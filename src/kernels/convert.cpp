// Element-type conversions with vector forms: 8U <-> 32F and 8U <-> 16U by
// the rule of wzImageCvtType. The plain loops; the vector forms are in
// convert_x86.cpp and convert_neon.cpp.
//
// Widening walks from the last element to the first and narrowing from the
// first (as the element loop of wzImageCvtType does), so that a destination
// starting where the source starts converts in place.
#include <cstring>

#include "kernels/variants.hpp"

namespace morven::kernels {
namespace {

template <typename T>
T load(const uint8_t *p) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}
template <typename T>
void store(uint8_t *p, T v) {
    std::memcpy(p, &v, sizeof v);
}

// Truncation toward zero saturated to 32 bits (NaN gives 0), low byte kept.
uint8_t lowByteOfTruncation(float v) {
    if (v != v) return 0;
    if (v >= 2147483648.0f) return 0xFF;  // INT32_MAX
    if (v <= -2147483648.0f) return 0;    // INT32_MIN
    return static_cast<uint8_t>(static_cast<uint32_t>(static_cast<int32_t>(v)));
}

}  // namespace

void u8ToF32Plain(const uint8_t *src, uint8_t *dst, int64_t n) {
    for (int64_t i = n - 1; i >= 0; --i)
        store<float>(dst + 4 * i, static_cast<float>(src[i]) / 255.0f);
}

void f32ToU8Plain(const uint8_t *src, uint8_t *dst, int64_t n) {
    for (int64_t i = 0; i < n; ++i) dst[i] = lowByteOfTruncation(load<float>(src + 4 * i) * 255.0f);
}

void u8ToU16Plain(const uint8_t *src, uint8_t *dst, int64_t n) {
    for (int64_t i = n - 1; i >= 0; --i)
        store<uint16_t>(dst + 2 * i, static_cast<uint16_t>(src[i] << 8));
}

void u16ToU8Plain(const uint8_t *src, uint8_t *dst, int64_t n) {
    for (int64_t i = 0; i < n; ++i) dst[i] = static_cast<uint8_t>(load<uint16_t>(src + 2 * i) >> 8);
}

}  // namespace morven::kernels
