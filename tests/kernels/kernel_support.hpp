// Helpers of the kernel tests: blocks fenced by inaccessible pages, the
// instruction sets this processor runs, and image headers over blocks.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "common/cpu.hpp"
#include "morven/morven.h"

namespace kernel_test {

// `size` bytes between two PROT_NONE pages, flush against the upper one (or
// the lower one with atStart): a read or write past either end faults.
class GuardedBlock {
public:
    explicit GuardedBlock(size_t size, bool atStart = false) {
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        const size_t span = (size + page - 1) / page * page;
        total_ = span + 2 * page;
        void *p = mmap(nullptr, total_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (p == MAP_FAILED) return;
        base_ = static_cast<uint8_t *>(p);
        mprotect(base_, page, PROT_NONE);
        mprotect(base_ + page + span, page, PROT_NONE);
        data = atStart ? base_ + page : base_ + page + span - size;
    }
    ~GuardedBlock() {
        if (base_) munmap(base_, total_);
    }
    GuardedBlock(const GuardedBlock &) = delete;
    GuardedBlock &operator=(const GuardedBlock &) = delete;

    uint8_t *data = nullptr;

private:
    uint8_t *base_ = nullptr;
    size_t total_ = 0;
};

// Every instruction set this processor runs, the portable loop first.
inline std::vector<morven::Isa> availableIsas() {
    std::vector<morven::Isa> out;
    for (morven::Isa isa : {morven::Isa::Portable, morven::Isa::Avx2, morven::Isa::Avx512})
        if (morven::isaAvailable(isa)) out.push_back(isa);
    return out;
}

inline std::string isaName(morven::Isa isa) {
    switch (isa) {
        case morven::Isa::Portable: return "portable";
        case morven::Isa::Avx2: return "avx2";
        case morven::Isa::Avx512: return "avx512";
    }
    return "?";
}

inline void fillBytes(uint8_t *p, size_t n, std::mt19937 &rng) {
    for (size_t i = 0; i < n; ++i) p[i] = static_cast<uint8_t>(rng());
}

// A header of the given 8-bit layout over `data`, with its region of
// interest set.
struct Header {
    Header(int32_t width, int32_t height, uint32_t encoding, uint8_t *data, wzRect roi) {
        img = wzImageCreateHeader(width, height, encoding);
        img->data = data;
        wzImageSetROI(img, &roi);
    }
    ~Header() { wzImageReleaseHeader(&img); }
    Header(const Header &) = delete;
    Header &operator=(const Header &) = delete;
    wzImage *img;
};

inline int offsetOf(uint32_t encoding, int channel) {
    return wzGetChannelOffsetFromEncoding(encoding, channel);
}

inline size_t blockSize(int32_t width, int32_t height, uint32_t encoding) {
    return static_cast<size_t>(width) * static_cast<size_t>(height) *
           static_cast<size_t>(wzGetNChannelFromEncoding(encoding));
}

// A random region of a width x height image, never empty.
inline wzRect randomRegion(int32_t width, int32_t height, std::mt19937 &rng) {
    wzRect r;
    r.x = static_cast<int32_t>(rng() % static_cast<uint32_t>(width));
    r.y = static_cast<int32_t>(rng() % static_cast<uint32_t>(height));
    r.width = 1 + static_cast<int32_t>(rng() % static_cast<uint32_t>(width - r.x));
    r.height = 1 + static_cast<int32_t>(rng() % static_cast<uint32_t>(height - r.y));
    return r;
}

// Widths 1 to 67, then a few wide rows that reach the vector main loops.
inline std::vector<size_t> awkwardLengths() {
    std::vector<size_t> out;
    for (size_t n = 1; n <= 67; ++n) out.push_back(n);
    for (size_t n : {127, 128, 129, 191, 192, 193, 255, 256, 257, 1000, 4099}) out.push_back(n);
    return out;
}

constexpr uint32_t kEncodings[] = {wzEncodingGray, wzEncodingBGR, wzEncodingRGB, wzEncodingARGB,
                                   wzEncodingRGBA};

}  // namespace kernel_test
