// Shared pieces of the benchmark binary: the case registry that the table
// reporter reads, the test pictures and a few helpers.
#pragma once

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <type_traits>
#include <vector>

#include "morven/morven.h"
#include "photographs.hpp"

namespace bench {

// A comparison of one measured case with another case of the same run.
struct Yardstick {
    std::string key;        // benchmark name of the yardstick case
    double maxRatio = 0.0;  // target: time / yardstick time <= maxRatio; 0 for none
};

// What the reporter needs to know about one registered benchmark.
struct Case {
    std::string key;         // benchmark name, "<operation>/<size>/<code>"
    std::string operation;   // what the table shows, e.g. "wzImageCvtColor BGR>gray"
    std::string size;        // e.g. "24 MP", "512x512"
    std::string picture;     // the picture it runs on ("" when none)
    double bytes = 0.0;      // bytes per iteration for MB/s (0: not shown)
    double flops = 0.0;      // floating-point operations per iteration (0: not shown)
    double minGflops = 0.0;  // target on the throughput itself; 0 for none
    bool listed = true;      // false for the memcpy yardsticks (shown as yardsticks only)
    std::vector<Yardstick> yardsticks;
};

// Registers fn as benchmark c.key and remembers c for the reporter.
void addCase(const Case &c, std::function<void(benchmark::State &)> fn);
const std::vector<Case> &cases();
const Case *findCase(const std::string &key);

// Registers "<group>/memcpy": a memcpy of `bytes` bytes between two
// prefaulted buffers. Returns its key.
std::string addMemcpyCase(const std::string &group, const std::string &size, double bytes);

// Image sizes: megapixels to a 3:2 picture whose height is a multiple of 8
// (0.25 -> 612x408, 1 -> 1224x816, 4 -> 2448x1632, 24 -> 6000x4000).
struct Dimensions {
    int32_t width;
    int32_t height;
};
Dimensions dimensionsFor(double megapixels);
std::string sizeLabel(double megapixels);  // "0.25 MP"
std::string sizeKey(double megapixels);    // "0.25MP"

// Deterministic 8-bit BGR test pictures of one size and scene, made once and
// kept. The synthetic scene: smooth gradients, large flat cells with hard
// edges and a little noise, so that histograms are spread and smoothing sees
// both flat areas and edges. A photograph's reference is another photograph.
struct Picture {
    int32_t width = 0;
    int32_t height = 0;
    std::vector<uint8_t> source;       // the picture to process
    std::vector<uint8_t> reference;    // another colour distribution
    std::vector<uint8_t> transferred;  // source after wzMorvenTransfer to reference
    size_t pixels() const { return size_t(width) * size_t(height); }
    size_t bytes() const { return pixels() * 3; }
};
const Picture &picture(double megapixels, Scene scene = Scene::Synthetic);

// The scenes the image benchmarks run on (--pictures, default all of them
// when the photographs can be read, else the synthetic one).
const std::vector<Scene> &scenes();
bool setScenes(const char *list);

// A borrowed-block image header released on scope exit.
class Header {
public:
    Header(int32_t width, int32_t height, uint32_t encoding, uint32_t type, const void *data);
    ~Header();
    Header(const Header &) = delete;
    Header &operator=(const Header &) = delete;
    wzImage *get() const { return image_; }
    explicit operator bool() const { return image_ != nullptr; }

private:
    wzImage *image_;
};

// Marks the state as failed when status is not 0; returns true on success.
bool check(benchmark::State &state, uint32_t status, const char *what);

// The timed loop: runs `call` once per iteration and keeps `live` (the
// output) observable. A call that returns a library status stops the loop
// and fails the case, named `what`, when the status is not 0.
template <class Call>
void timeCalls(benchmark::State &state, const void *live, Call call, const char *what = "") {
    for (auto _ : state) {
        if constexpr (std::is_void_v<std::invoke_result_t<Call &>>) {
            call();
        } else if (!check(state, uint32_t(call()), what)) {
            break;
        }
        benchmark::DoNotOptimize(live);
        benchmark::ClobberMemory();
    }
}

void registerImageBenchmarks(const std::vector<double> &megapixels);
void registerMatrixBenchmarks();

}  // namespace bench
