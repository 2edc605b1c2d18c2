// Real photographs for the benchmarks: the bundled PNG files, cut to 3:2
// around their centre and scaled to the benchmark size by bicubic
// interpolation, and one of them with the noise of a camera sensor added.
//
// Photographs differ from the synthetic pictures where speed is concerned:
// they hold long runs of nearly equal samples (skies, tables, walls), and
// neutral areas where blue, green and red are close to one another.
#include "photographs.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>

#ifdef MORVEN_BENCH_HAVE_PNG
#include <png.h>
#endif

namespace bench {

namespace {

struct Bgr {
    int32_t width = 0, height = 0;
    std::vector<uint8_t> px;
};

#ifdef MORVEN_BENCH_HAVE_PNG
bool readPng(const std::string &path, Bgr &out) {
    png_image image;
    std::memset(&image, 0, sizeof image);
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&image, path.c_str())) return false;
    image.format = PNG_FORMAT_BGR;
    out.width = int32_t(image.width);
    out.height = int32_t(image.height);
    out.px.resize(PNG_IMAGE_SIZE(image));
    if (!png_image_finish_read(&image, nullptr, out.px.data(), 0, nullptr)) {
        png_image_free(&image);
        return false;
    }
    return true;
}
#else
bool readPng(const std::string &, Bgr &) { return false; }
#endif

// The largest 3:2 window around the centre.
Bgr cropTo3x2(const Bgr &in) {
    int32_t w = in.width, h = in.height;
    if (int64_t(w) * 2 > int64_t(h) * 3)
        w = h * 3 / 2;
    else
        h = w * 2 / 3;
    const int32_t x0 = (in.width - w) / 2, y0 = (in.height - h) / 2;
    Bgr out{w, h, std::vector<uint8_t>(size_t(w) * h * 3)};
    for (int32_t y = 0; y < h; ++y)
        std::memcpy(&out.px[size_t(y) * w * 3], &in.px[(size_t(y0 + y) * in.width + x0) * 3],
                    size_t(w) * 3);
    return out;
}

// Cubic convolution weights (a = -0.5) of the four samples around t, whose
// fraction is f.
void cubicWeights(double f, double w[4]) {
    const double a = -0.5;
    auto near = [a](double x) { return ((a + 2.0) * x - (a + 3.0)) * x * x + 1.0; };
    auto far = [a](double x) { return ((a * x - 5.0 * a) * x + 8.0 * a) * x - 4.0 * a; };
    w[0] = far(1.0 + f);
    w[1] = near(f);
    w[2] = near(1.0 - f);
    w[3] = far(2.0 - f);
}

// Separable bicubic scaling to width x height, edges repeated.
Bgr scaleBicubic(const Bgr &in, int32_t width, int32_t height) {
    struct Tap {
        int32_t i[4];
        double w[4];
    };
    auto taps = [](int32_t from, int32_t to) {
        std::vector<Tap> t(static_cast<size_t>(to));
        const double ratio = double(from) / to;
        for (int32_t k = 0; k < to; ++k) {
            const double pos = (k + 0.5) * ratio - 0.5;
            const double base = std::floor(pos);
            cubicWeights(pos - base, t[size_t(k)].w);
            for (int j = 0; j < 4; ++j)
                t[size_t(k)].i[j] = std::clamp(int32_t(base) - 1 + j, 0, from - 1);
        }
        return t;
    };
    const std::vector<Tap> tx = taps(in.width, width), ty = taps(in.height, height);
    // Along x first, into rows of doubles of the source height.
    std::vector<double> mid(size_t(width) * in.height * 3);
    for (int32_t y = 0; y < in.height; ++y)
        for (int32_t x = 0; x < width; ++x)
            for (int c = 0; c < 3; ++c) {
                double s = 0.0;
                for (int j = 0; j < 4; ++j)
                    s += tx[size_t(x)].w[j] *
                         in.px[(size_t(y) * in.width + tx[size_t(x)].i[j]) * 3 + c];
                mid[(size_t(y) * width + x) * 3 + c] = s;
            }
    Bgr out{width, height, std::vector<uint8_t>(size_t(width) * height * 3)};
    for (int32_t y = 0; y < height; ++y)
        for (size_t k = 0; k < size_t(width) * 3; ++k) {
            double s = 0.0;
            for (int j = 0; j < 4; ++j)
                s += ty[size_t(y)].w[j] * mid[size_t(ty[size_t(y)].i[j]) * width * 3 + k];
            out.px[size_t(y) * width * 3 + k] = uint8_t(std::clamp(std::lround(s), 0L, 255L));
        }
    return out;
}

// Sensor noise: photon noise whose variance grows with the level, plus a
// constant read noise, independent per sample (a sensor of the picture's
// own resolution), from a fixed seed.
void addSensorNoise(std::vector<uint8_t> &px, uint64_t seed) {
    const double gain = 0.5, read = 2.0;  // levels
    auto uniform = [&seed] {
        seed = seed * 6364136223846793005ull + 1442695040888963407ull;
        return (double(seed >> 11) + 0.5) / 9007199254740992.0;
    };
    for (uint8_t &v : px) {
        const double gauss =
            std::sqrt(-2.0 * std::log(uniform())) * std::cos(6.283185307179586 * uniform());
        const double sigma = std::sqrt(gain * v + read * read);
        v = uint8_t(std::clamp(std::lround(v + sigma * gauss), 0L, 255L));
    }
}

}  // namespace

const char *sceneLabel(Scene scene) {
    switch (scene) {
        case Scene::Synthetic: return "synthetic";
        case Scene::Coffee: return "coffee";
        case Scene::Chelsea: return "chelsea";
        case Scene::Astronaut: return "astronaut";
        case Scene::NoisyCoffee: return "coffee+noise";
    }
    return "";
}

bool photograph(Scene scene, int32_t width, int32_t height, std::vector<uint8_t> &px) {
    const char *file = scene == Scene::Chelsea     ? "chelsea.png"
                       : scene == Scene::Astronaut ? "astronaut.png"
                                                   : "coffee.png";
#ifdef MORVEN_BENCH_DATA_DIR
    const std::string path = std::string(MORVEN_BENCH_DATA_DIR) + "/" + file;
#else
    const std::string path = file;
#endif
    Bgr read;
    if (scene == Scene::Synthetic || !readPng(path, read)) return false;
    px = std::move(scaleBicubic(cropTo3x2(read), width, height).px);
    if (scene == Scene::NoisyCoffee) addSensorNoise(px, 0x5eed);
    return true;
}

bool havePhotographs() {
    std::vector<uint8_t> px;
    return photograph(Scene::Coffee, 6, 4, px);
}

}  // namespace bench
