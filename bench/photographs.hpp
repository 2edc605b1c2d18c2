// The pictures the image benchmarks run on: synthetic ones (bench.hpp) and
// the bundled photographs scaled up (photographs.cpp).
#pragma once

#include <cstdint>
#include <vector>

namespace bench {

enum class Scene {
    Synthetic,    // waves, flat cells with hard edges, a little noise
    Coffee,       // data/images/coffee.png
    Chelsea,      // data/images/chelsea.png
    Astronaut,    // data/images/astronaut.png
    NoisyCoffee,  // coffee.png with sensor noise added after scaling
};

constexpr Scene kScenes[] = {Scene::Synthetic, Scene::Coffee, Scene::Chelsea, Scene::Astronaut,
                             Scene::NoisyCoffee};

const char *sceneLabel(Scene scene);

// The photograph of a scene, cut to 3:2 around its centre and scaled to
// width x height by bicubic interpolation, as packed BGR; false for the
// synthetic scene or when the file cannot be read (or libpng is missing).
bool photograph(Scene scene, int32_t width, int32_t height, std::vector<uint8_t> &px);

// Whether photograph() can read the bundled files.
bool havePhotographs();

}  // namespace bench
