// Test helpers: what a dump save writes, captured in memory, and what a
// load makes of the first bytes of a dump.
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

// What load(stream) returns for a stream holding exactly the first n bytes.
template <typename Load>
auto loadPrefix(Load load, const Bytes &bytes, size_t n) {
    FILE *f = std::tmpfile();
    EXPECT_TRUE(f && (n == 0 || std::fwrite(bytes.data(), n, 1, f) == 1));
    std::rewind(f);
    auto *made = load(f);
    std::fclose(f);
    return made;
}

}  // namespace morven_test
