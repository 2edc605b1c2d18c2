// Case registry, memcpy yardsticks and test pictures.
#include "bench.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>

namespace bench {

namespace {

std::vector<Case> &registry() {
    static std::vector<Case> all;
    return all;
}

// Source and destination of the memcpy yardsticks, grown to the largest
// size asked for and kept, so that every copy runs on prefaulted pages.
struct Scratch {
    std::vector<uint8_t> from;
    std::vector<uint8_t> to;
    void reserve(size_t n) {
        if (from.size() < n) {
            from.assign(n, 0x5a);
            to.assign(n, 0);
        }
    }
};

Scratch &scratch() {
    static Scratch s;
    return s;
}

uint32_t xorshift(uint32_t &s) {
    s ^= s << 13;
    s ^= s >> 17;
    s ^= s << 5;
    return s;
}

struct Look {
    float base[3];
    float amplitude[3];
    uint32_t seed;
};

// Row and column waves per channel, cells of 160 pixels with their own level
// offset (hard edges between them) and noise of -8..7 levels.
void paint(std::vector<uint8_t> &px, int32_t w, int32_t h, const Look &look) {
    const float twoPi = 6.2831853f;
    std::vector<float> rowWave(size_t(3) * h), colWave(size_t(3) * w);
    for (int c = 0; c < 3; ++c) {
        for (int32_t y = 0; y < h; ++y)
            rowWave[size_t(c) * h + y] =
                look.amplitude[c] * std::sin(twoPi * (1.5f + c) * float(y) / float(h) + float(c));
        for (int32_t x = 0; x < w; ++x)
            colWave[size_t(c) * w + x] =
                0.7f * look.amplitude[c] *
                std::cos(twoPi * (2.5f + 0.5f * c) * float(x) / float(w) + float(look.seed & 7));
    }
    px.resize(size_t(w) * h * 3);
    uint32_t noise = 0x9e3779b9u ^ look.seed;
    uint8_t *p = px.data();
    for (int32_t y = 0; y < h; ++y) {
        for (int32_t x = 0; x < w; ++x) {
            uint32_t cell =
                (uint32_t(x / 160) * 73856093u) ^ (uint32_t(y / 160) * 19349663u) ^ look.seed;
            cell *= 2654435761u;
            float offset = float(int((cell >> 24) & 63) - 32);
            for (int c = 0; c < 3; ++c) {
                float v = look.base[c] + rowWave[size_t(c) * h + y] + colWave[size_t(c) * w + x] +
                          offset + float(int(xorshift(noise) >> 28) - 8);
                *p++ = uint8_t(std::clamp(v, 0.0f, 255.0f));
            }
        }
    }
}

}  // namespace

void addCase(const Case &c, std::function<void(benchmark::State &)> fn) {
    registry().push_back(c);
    benchmark::RegisterBenchmark(c.key.c_str(), std::move(fn));
}

const std::vector<Case> &cases() { return registry(); }

const Case *findCase(const std::string &key) {
    for (const Case &c : registry())
        if (c.key == key) return &c;
    return nullptr;
}

std::string addMemcpyCase(const std::string &group, const std::string &size, double bytes) {
    Case c;
    c.key = group + "/memcpy";
    c.operation = "memcpy";
    c.size = size;
    c.bytes = bytes;
    c.listed = false;
    const size_t n = size_t(bytes);
    addCase(c, [n](benchmark::State &state) {
        Scratch &s = scratch();
        s.reserve(n);
        for (auto _ : state) {
            std::memcpy(s.to.data(), s.from.data(), n);
            benchmark::DoNotOptimize(s.to.data());
            benchmark::ClobberMemory();
        }
    });
    return c.key;
}

Dimensions dimensionsFor(double megapixels) {
    int32_t height = int32_t(std::lround(std::sqrt(megapixels * 1e6 / 1.5) / 8.0)) * 8;
    if (height < 8) height = 8;
    return {height / 2 * 3, height};
}

std::string sizeLabel(double megapixels) {
    char text[32];
    std::snprintf(text, sizeof text, "%g MP", megapixels);
    return text;
}

std::string sizeKey(double megapixels) {
    char text[32];
    std::snprintf(text, sizeof text, "%gMP", megapixels);
    return text;
}

// The reference of each photograph: another of the bundled ones.
Scene referenceOf(Scene scene) {
    switch (scene) {
        case Scene::Coffee: return Scene::Chelsea;
        case Scene::Chelsea: return Scene::Astronaut;
        case Scene::Astronaut: return Scene::Coffee;
        default: return Scene::Chelsea;
    }
}

const Picture &picture(double megapixels, Scene scene) {
    static std::map<std::pair<double, Scene>, std::unique_ptr<Picture>> made;
    std::unique_ptr<Picture> &slot = made[{megapixels, scene}];
    if (!slot) {
        auto pic = std::make_unique<Picture>();
        const Dimensions d = dimensionsFor(megapixels);
        pic->width = d.width;
        pic->height = d.height;
        if (scene == Scene::Synthetic) {
            paint(pic->source, d.width, d.height, Look{{120, 110, 100}, {50, 45, 40}, 1});
            paint(pic->reference, d.width, d.height, Look{{90, 120, 150}, {30, 50, 60}, 6});
        } else if (!photograph(scene, d.width, d.height, pic->source) ||
                   !photograph(referenceOf(scene), d.width, d.height, pic->reference)) {
            std::fprintf(stderr, "morven_bench: cannot read the %s photograph\n",
                         sceneLabel(scene));
            pic->source.assign(pic->bytes(), 0);
            pic->reference.assign(pic->bytes(), 0);
        }
        // The picture that selective smoothing repairs in the pipeline: the
        // source after a histogram transfer (needs wzMorvenInit, done in main).
        pic->transferred.assign(pic->bytes(), 0);
        if (wzMorvenTransfer(d.width, d.height, pic->source.data(), pic->transferred.data(),
                             d.width, d.height, pic->reference.data(), 0, 255, 1.0f, 9.0f, 50.0f,
                             0.9f) != 0)
            std::fprintf(stderr,
                         "morven_bench: the transfer that prepares the smoothing input "
                         "failed; smoothing runs on a black picture\n");
        slot = std::move(pic);
    }
    return *slot;
}

namespace {
std::vector<Scene> &chosenScenes() {
    static std::vector<Scene> chosen;
    return chosen;
}
}  // namespace

const std::vector<Scene> &scenes() {
    std::vector<Scene> &chosen = chosenScenes();
    if (chosen.empty()) {
        const bool photos = havePhotographs();
        for (Scene s : kScenes)
            if (photos || s == Scene::Synthetic) chosen.push_back(s);
    }
    return chosen;
}

// A comma-separated list of scene labels.
bool setScenes(const char *list) {
    std::vector<Scene> &chosen = chosenScenes();
    chosen.clear();
    std::string rest = list;
    while (!rest.empty()) {
        const size_t comma = rest.find(',');
        const std::string name = rest.substr(0, comma);
        rest = comma == std::string::npos ? "" : rest.substr(comma + 1);
        bool known = false;
        for (Scene s : kScenes)
            if (name == sceneLabel(s)) {
                chosen.push_back(s);
                known = true;
            }
        if (!known) return false;
    }
    return !chosen.empty();
}

Header::Header(int32_t width, int32_t height, uint32_t encoding, uint32_t type, const void *data)
    : image_(wzImageCreateHeaderWithType(width, height, encoding, type)) {
    if (image_) image_->data = static_cast<uint8_t *>(const_cast<void *>(data));
}

Header::~Header() { wzImageReleaseHeader(&image_); }

bool check(benchmark::State &state, uint32_t status, const char *what) {
    if (status == 0) return true;
    std::string message = std::string(what) + " returned " + std::to_string(status);
    state.SkipWithError(message.c_str());
    return false;
}

}  // namespace bench
