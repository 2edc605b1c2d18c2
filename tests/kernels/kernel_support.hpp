// Helpers of the kernel tests: blocks fenced by inaccessible pages, the
// instruction sets this processor runs, and two drivers that hold a kernel
// (every variant of a row kernel, or an image operation) against a plain
// per-item rule.
#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <new>
#include <string>
#include <vector>

#include "kernels/kernels.hpp"
#include "support/image_fixtures.hpp"

namespace kernel_test {

using namespace morven_test;
using morven::Isa;
using Bytes = std::vector<uint8_t>;
using Shifts = std::vector<size_t>;

// `size` bytes (or a copy of `init`) between two PROT_NONE pages, flush
// against the upper one (or the lower one with atStart): a read or write
// past either end faults.
struct GuardedBlock {
    explicit GuardedBlock(size_t size, bool atStart = false) {
        const size_t page = size_t(sysconf(_SC_PAGESIZE)), span = (size + page - 1) / page * page;
        total = span + 2 * page;
        base = static_cast<uint8_t *>(
            mmap(nullptr, total, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        if (base == MAP_FAILED ||
            (span && mprotect(base + page, span, PROT_READ | PROT_WRITE) != 0))
            throw std::bad_alloc();
        data = base + page + (atStart ? 0 : span - size);
    }
    explicit GuardedBlock(const Bytes &init) : GuardedBlock(init.size()) {
        std::copy(init.begin(), init.end(), data);
    }
    ~GuardedBlock() { munmap(base, total); }
    GuardedBlock(const GuardedBlock &) = delete;
    uint8_t *base, *data;
    size_t total;
};

// Every instruction set this processor runs, the portable loop first.
inline std::vector<Isa> availableIsas(bool vectorOnly = false) {
    std::vector<Isa> out;
    for (Isa isa : {Isa::Portable, Isa::Avx2, Isa::Avx512, Isa::Neon})
        if (morven::isaAvailable(isa) && !(vectorOnly && isa == Isa::Portable)) out.push_back(isa);
    return out;
}
inline std::string isaName(Isa isa) {
    const char *names[] = {"portable", "avx2", "avx512", "neon"};
    return names[int(isa)];
}
inline const morven::Kernels &kernels(Isa isa) { return morven::kernelsFor(isa); }

inline void fillBytes(uint8_t *p, size_t n, std::mt19937 &rng) {
    for (size_t i = 0; i < n; ++i) p[i] = static_cast<uint8_t>(rng());
}
inline Bytes bytesAt(const uint8_t *p, size_t n) { return Bytes(p, p + n); }
inline int offsetOf(uint32_t enc, int channel) {
    return wzGetChannelOffsetFromEncoding(enc, channel);
}
inline size_t channels(uint32_t enc) { return size_t(wzGetNChannelFromEncoding(enc)); }
inline size_t blockSize(int32_t w, int32_t h, uint32_t enc) {
    return size_t(w) * size_t(h) * channels(enc);
}

// The largest of channels 1-3 of the pixel at p.
inline uint8_t brightnessOf(uint32_t enc, const uint8_t *p) {
    return std::max({p[offsetOf(enc, 1)], p[offsetOf(enc, 2)], p[offsetOf(enc, 3)]});
}

// An 8-bit header over `data` with its region of interest set.
inline HeaderPtr header(int32_t w, int32_t h, uint32_t enc, uint8_t *data, wzRect roi) {
    HeaderPtr p = wrapHeader(w, h, enc, data);
    wzImageSetROI(p.get(), &roi);
    return p;
}

// A random region of a width x height image, never empty.
inline wzRect randomRegion(int32_t width, int32_t height, std::mt19937 &rng) {
    wzRect r{int32_t(rng() % uint32_t(width)), int32_t(rng() % uint32_t(height)), 0, 0};
    r.width = 1 + int32_t(rng() % uint32_t(width - r.x));
    r.height = 1 + int32_t(rng() % uint32_t(height - r.y));
    return r;
}

// A row kernel over items (pixels or elements) and its rule.
struct RowKernel {
    size_t srcUnit, dstUnit;  // bytes per item of the two rows
    size_t inPlaceUnit;       // bytes per item of one block used as both rows; 0: not allowed
    std::function<void(Isa, const uint8_t *, uint8_t *, size_t)> run;
    // Writes the expected row over `dst`, which holds the row's prior bytes.
    std::function<void(const uint8_t *src, uint8_t *dst, size_t n)> rule;
    std::function<void(uint8_t *, size_t, std::mt19937 &)>
        fill;  // n source items; null: random bytes
};

// Every variant on rows of 0 to 67 items and a few wide ones that reach the
// vector main loops, each row flush against a guard page (alternating ends),
// then in place: the rows must hold the rule's bytes and a separate source
// must be left alone. A fault is a read or write past a row.
inline void checkRowKernel(const RowKernel &k, std::mt19937 &rng, const std::string &what) {
    std::vector<size_t> lengths{127, 128, 129, 191, 192, 193, 255, 256, 257, 1000, 4099};
    for (size_t n = 0; n <= 67; ++n) lengths.push_back(n);
    for (Isa isa : availableIsas())
        for (size_t n : lengths)
            for (bool inPlace : {false, true}) {
                if (inPlace && k.inPlaceUnit == 0) continue;
                SCOPED_TRACE(what + " " + isaName(isa) + " n " + std::to_string(n) +
                             (inPlace ? " in place" : ""));
                const size_t srcBytes = n * (inPlace ? k.inPlaceUnit : k.srcUnit),
                             dstBytes = n * k.dstUnit;
                GuardedBlock src(srcBytes, (n + inPlace) % 2 == 0), dst(dstBytes, n % 3 == 0);
                fillBytes(src.data, srcBytes, rng);
                fillBytes(dst.data, dstBytes, rng);
                if (k.fill) k.fill(src.data, n, rng);
                const Bytes s0 = bytesAt(src.data, n * k.srcUnit);
                uint8_t *out = inPlace ? src.data : dst.data;
                Bytes expect = bytesAt(out, inPlace ? srcBytes : dstBytes);
                k.rule(s0.data(), expect.data(), n);
                k.run(isa, src.data, out, n);
                ASSERT_EQ(bytesAt(out, expect.size()), expect);
                ASSERT_TRUE(inPlace || bytesAt(src.data, s0.size()) == s0) << "source changed";
            }
}

// f(source pixel, destination pixel) over the source region, the
// destination in step from its own region origin, row by row.
template <class F>
void forRegions(const wzImage &s, const uint8_t *sData, const wzImage &d, uint8_t *dData, F f) {
    for (int y = 0; y < s.roi.height; ++y)
        for (int x = 0; x < s.roi.width; ++x)
            f(sData + (size_t(s.roi.y + y) * s.width + s.roi.x + x) * channels(s.encoding),
              dData + (size_t(d.roi.y + y) * d.width + d.roi.x + x) * channels(d.encoding));
}

// `op` (status 0) on 8-bit headers over guarded blocks against forRegions
// with `pixel` on plain copies, for random sizes: separate blocks (random
// regions when `regions`, the destination up to `wider` pixels wider), then
// one block with the destination header `shift` bytes after the source's,
// for each of `shifts` (there the pixel order decides the result).
template <class Op, class Pixel>
void checkImageOp(uint32_t se, uint32_t de, bool regions, int wider, const Shifts &shifts,
                  std::mt19937 &rng, Op op, Pixel pixel) {
    for (int round = 0; round < 12; ++round) {
        SCOPED_TRACE(std::to_string(se) + " -> " + std::to_string(de) + " round " +
                     std::to_string(round));
        const int32_t w = 1 + int32_t(rng() % 90), h = 1 + int32_t(rng() % 4),
                      dw = w + int32_t(rng() % (wider + 1));
        const wzRect sroi = regions ? randomRegion(w, h, rng) : wzRect{0, 0, w, h};
        wzRect droi{0, 0, sroi.width, sroi.height};
        if (regions) {
            droi.x = int32_t(rng() % uint32_t(dw - sroi.width + 1));
            droi.y = int32_t(rng() % uint32_t(h - sroi.height + 1));
        }
        const size_t sBytes = blockSize(w, h, se), dBytes = blockSize(dw, h, de);
        GuardedBlock sb(sBytes), db(dBytes);
        fillBytes(sb.data, sBytes, rng);
        fillBytes(db.data, dBytes, rng);
        HeaderPtr s = header(w, h, se, sb.data, sroi), d = header(dw, h, de, db.data, droi);
        Bytes expect = bytesAt(db.data, dBytes);
        forRegions(*s, sb.data, *d, expect.data(), pixel);
        ASSERT_EQ(op(s.get(), d.get()), 0u);
        ASSERT_EQ(bytesAt(db.data, dBytes), expect);
        for (size_t shift : shifts) {
            const size_t bytes = std::max(sBytes, blockSize(w, h, de)) + shift;
            GuardedBlock b(bytes);
            fillBytes(b.data, bytes, rng);
            expect = bytesAt(b.data, bytes);
            HeaderPtr s1 = header(w, h, se, b.data, sroi),
                      d1 = header(w, h, de, b.data + shift, sroi);
            forRegions(*s1, expect.data(), *d1, expect.data() + shift, pixel);
            ASSERT_EQ(op(s1.get(), d1.get()), 0u);
            ASSERT_EQ(bytesAt(b.data, bytes), expect) << "shift " << shift;
        }
    }
}

}  // namespace kernel_test
