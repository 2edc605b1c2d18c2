// Small helpers shared by the fuzz targets: streams over the input bytes and
// over a growing output buffer, and a check that stops the run with a crash
// (which libFuzzer records with its input) when a property does not hold.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#define FUZZ_CHECK(condition)                                                                  \
    do {                                                                                       \
        if (!(condition)) {                                                                    \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                                      \
        }                                                                                      \
    } while (0)

namespace fuzz {

// A read-only stream over the fuzzer's bytes (null for an empty input, which
// fmemopen refuses).
inline std::FILE *openInput(const uint8_t *data, size_t size) {
    if (size == 0) return nullptr;
    return fmemopen(const_cast<uint8_t *>(data), size, "rb");
}

// A stream that collects what is written into a malloc'ed buffer.
class Output {
public:
    Output() : stream_(open_memstream(&bytes_, &size_)) { FUZZ_CHECK(stream_ != nullptr); }
    ~Output() {
        if (stream_) std::fclose(stream_);
        std::free(bytes_);
    }
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;

    std::FILE *stream() { return stream_; }
    // Closes the stream; bytes() and size() then hold everything written.
    void finish() {
        std::fclose(stream_);
        stream_ = nullptr;
    }
    const uint8_t *bytes() const { return reinterpret_cast<const uint8_t *>(bytes_); }
    size_t size() const { return size_; }

private:
    char *bytes_ = nullptr;
    size_t size_ = 0;
    std::FILE *stream_;
};

// Saving what was loaded must give back the bytes that were read, except the
// header's pointer slots [slotBegin, slotEnd), which a save writes as zeros.
inline void checkRoundTrip(const uint8_t *read, size_t readSize, const Output &saved,
                           size_t slotBegin, size_t slotEnd) {
    FUZZ_CHECK(saved.size() == readSize);
    for (size_t i = 0; i < readSize; ++i) {
        if (i >= slotBegin && i < slotEnd)
            FUZZ_CHECK(saved.bytes()[i] == 0);
        else
            FUZZ_CHECK(saved.bytes()[i] == read[i]);
    }
}

}  // namespace fuzz
