// Test helper: what a dump save writes, captured in memory.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <gtest/gtest.h>

#include "morven/common.h"

namespace morven_test {

using Bytes = std::vector<uint8_t>;

// Runs save(stream) on an in-memory stream and returns the bytes it wrote;
// the save's status goes to *status.
template <typename Save>
Bytes saveToBytes(Save save, wzStatus *status) {
    char *buf = nullptr;
    size_t len = 0;
    FILE *f = open_memstream(&buf, &len);
    EXPECT_NE(f, nullptr);
    *status = save(f);
    std::fclose(f);
    Bytes out(buf, buf + len);
    std::free(buf);
    return out;
}

}  // namespace morven_test
