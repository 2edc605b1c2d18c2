// The caller's cancel flag: a 32-bit value another thread may set while a
// filter runs. Read atomically so the write is seen; null never cancels.
#pragma once

#include <cstdint>

namespace morven {

inline bool cancelRequested(const uint32_t *flag) noexcept {
    return flag && __atomic_load_n(flag, __ATOMIC_RELAXED) != 0;
}

}  // namespace morven
