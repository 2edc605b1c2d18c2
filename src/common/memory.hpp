// Allocation helpers, the one way the library takes and gives back memory:
// every block comes from allocZeroed, allocArray or allocZeroedArray (malloc
// and calloc underneath) and goes back through free, owned by a FreePtr
// until it is handed out; the release functions of the interface go through
// releaseRecord. A failed allocation is a null pointer, never an exception.
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

// Whether n elements of T can be asked for: n >= 0 and n * sizeof(T) fits.
template <typename T>
constexpr bool arrayFits(int64_t n) noexcept {
    // NOLINTNEXTLINE(bugprone-sizeof-expression): T may be a pointer (row tables)
    return n >= 0 && static_cast<uint64_t>(n) <= SIZE_MAX / sizeof(T);
}

// Uninitialised array of n elements from malloc, or null, also when n is
// negative or n elements would not fit in memory. At least one byte is
// asked for, so that an empty array is still a block whatever the allocator
// does with empty requests.
template <typename T>
FreePtr<T> allocArray(int64_t n) noexcept {
    if (!arrayFits<T>(n)) return nullptr;
    const size_t bytes = static_cast<size_t>(n) * sizeof(T);
    return FreePtr<T>(static_cast<T *>(std::malloc(bytes ? bytes : 1)));
}

// Zero-filled array of n elements (at least one) from calloc, or null.
template <typename T>
FreePtr<T> allocZeroedArray(int64_t n) noexcept {
    if (!arrayFits<T>(n)) return nullptr;
    // NOLINTNEXTLINE(bugprone-sizeof-expression): T may be a pointer (row tables)
    return FreePtr<T>(static_cast<T *>(std::calloc(n > 0 ? static_cast<size_t>(n) : 1, sizeof(T))));
}

// The release functions of the interface: frees what the record at *p owns
// (freeMembers), then the record, and nulls *p; nothing when p or *p is null.
template <typename T, typename F>
void releaseRecord(T **p, F freeMembers) noexcept {
    if (!p || !*p) return;
    freeMembers(**p);
    std::free(*p);
    *p = nullptr;
}

template <typename T>
void releaseRecord(T **p) noexcept {
    releaseRecord(p, [](T &) {});
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
