// Allocation helpers: every block comes from malloc/calloc and goes back
// through free, and owning pointers release it on every path.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

namespace morven {

struct FreeDeleter {
    void operator()(void *p) const noexcept { std::free(p); }
};

template <typename T>
using FreePtr = std::unique_ptr<T, FreeDeleter>;

// Zero-filled single object from calloc, or null.
template <typename T>
FreePtr<T> allocZeroed() noexcept {
    return FreePtr<T>(static_cast<T *>(std::calloc(1, sizeof(T))));
}

// Uninitialised array of n elements from malloc (at least one byte), or null,
// also when n is negative or n elements would not fit in memory.
template <typename T>
FreePtr<T> allocArray(int64_t n) noexcept {
    if (n < 0 || static_cast<uint64_t>(n) > SIZE_MAX / sizeof(T)) return nullptr;
    const size_t bytes = static_cast<size_t>(n) * sizeof(T);
    return FreePtr<T>(static_cast<T *>(std::malloc(bytes ? bytes : 1)));
}

// Multiplies non-negative 64-bit sizes; false when a factor is negative or the
// product does not fit in a signed 64-bit value.
inline bool checkedMul(int64_t a, int64_t b, int64_t &out) noexcept {
    if (a < 0 || b < 0) return false;
    return !__builtin_mul_overflow(a, b, &out);
}

// Runs a callable when the scope ends, unless dismissed.
template <typename F>
class ScopeGuard {
public:
    explicit ScopeGuard(F f) noexcept : f_(std::move(f)) {}
    ScopeGuard(const ScopeGuard &) = delete;
    ScopeGuard &operator=(const ScopeGuard &) = delete;
    ~ScopeGuard() {
        if (active_) f_();
    }
    void dismiss() noexcept { active_ = false; }

private:
    F f_;
    bool active_ = true;
};

}  // namespace morven
