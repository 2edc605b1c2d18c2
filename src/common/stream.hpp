// Stream helpers of the dump files: whole-item reads and writes on a FILE*
// that the caller opened, and fixed-size records of little-endian 32-bit
// fields (the dump headers). The library never opens, seeks, flushes or
// closes a stream.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "common/memory.hpp"

namespace morven {

// Writes bytes as ONE item of n bytes; true only when the stream reports the
// complete item. A zero-byte item reports failure, as fwrite does.
inline bool writeItem(std::FILE *stream, const void *bytes, size_t n) noexcept {
    return n != 0 && std::fwrite(bytes, n, 1, stream) == 1;
}

// Reads ONE item of n bytes; true only when the complete item arrived. A
// zero-byte item reports failure, as fread does.
inline bool readItem(std::FILE *stream, void *bytes, size_t n) noexcept {
    return n != 0 && std::fread(bytes, n, 1, stream) == 1;
}

// Byte order of the dump files, independent of the host's.
inline void putLE32(uint8_t *p, uint32_t v) noexcept {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
    p[2] = static_cast<uint8_t>(v >> 16);
    p[3] = static_cast<uint8_t>(v >> 24);
}

inline uint32_t getLE32(const uint8_t *p) noexcept {
    return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}

// A record of Fields consecutive little-endian 32-bit fields. Fields are put
// (or taken) in order from the front; a put past the end is ignored and a get
// past the end yields 0, so a miscounted header cannot overrun the buffer.
template <size_t Fields>
class LE32Record {
public:
    static constexpr size_t kBytes = Fields * 4;

    void put(uint32_t v) noexcept {
        if (next_ < Fields) putLE32(bytes_ + 4 * next_++, v);
    }
    void put(int32_t v) noexcept { put(static_cast<uint32_t>(v)); }

    uint32_t getU32() noexcept { return next_ < Fields ? getLE32(bytes_ + 4 * next_++) : 0; }
    int32_t getI32() noexcept { return static_cast<int32_t>(getU32()); }

    // Field i, independent of the running position.
    uint32_t at(size_t i) const noexcept { return i < Fields ? getLE32(bytes_ + 4 * i) : 0; }

    // Restarts the running position (e.g. after reading the bytes in).
    void rewind() noexcept { next_ = 0; }

    bool write(std::FILE *stream) const noexcept { return writeItem(stream, bytes_, kBytes); }
    bool read(std::FILE *stream) noexcept {
        next_ = 0;
        return readItem(stream, bytes_, kBytes);
    }

    const uint8_t *bytes() const noexcept { return bytes_; }

private:
    uint8_t bytes_[kBytes] = {};
    size_t next_ = 0;
};

// Payloads of a dump up to this size are allocated at once and read as one
// item.
constexpr int64_t kDirectRead = int64_t{16} << 20;

// Reads a payload of `bytes` (> 0) bytes into a new block, or null
// with nothing allocated. Up to kDirectRead bytes are allocated at once and
// read as one item. A larger payload is read in pieces into a block that
// doubles as the data arrives (the last size is exactly `bytes`), so a header
// that claims more than the stream holds costs memory only for what is
// there; a complete payload costs at most one extra copy of itself.
inline uint8_t *readPayload(std::FILE *stream, int64_t bytes) noexcept {
    int64_t capacity = bytes < kDirectRead ? bytes : kDirectRead;
    FreePtr<uint8_t> block = allocArray<uint8_t>(capacity);
    int64_t have = 0;
    for (;;) {
        if (!block || !readItem(stream, block.get() + have, static_cast<size_t>(capacity - have)))
            return nullptr;
        have = capacity;
        if (have == bytes) return block.release();
        capacity = capacity * 2 < bytes ? capacity * 2 : bytes;
        FreePtr<uint8_t> grown = allocArray<uint8_t>(capacity);
        if (grown) std::memcpy(grown.get(), block.get(), static_cast<size_t>(have));
        block = std::move(grown);
    }
}

}  // namespace morven
