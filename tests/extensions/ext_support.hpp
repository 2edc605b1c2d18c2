// Helpers of the extension tests: 8- and 16-bit samples, masks, deep
// profiles.
#pragma once

#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "morven/morven.h"
#include "support/image_fixtures.hpp"

namespace ext {

using namespace morven_test;
using Bytes = std::vector<uint8_t>;

inline int colours(const wzImage *img) { return img->encoding == wzEncodingGray ? 1 : 3; }
inline int full(const wzImage *img) { return img->type == wzType16U ? 65535 : 255; }

// Channel c (1..4) of pixel (x, y), 8- or 16-bit.
inline int get(const wzImage *img, int x, int y, int c = 1) {
    return img->type == wzType16U ? loadRaw<uint16_t>(at(img, x, y, c)) : *at(img, x, y, c);
}
inline void put(wzImage *img, int x, int y, int c, int v) {
    storeValue(img->type, at(img, x, y, c), v);
}

inline ImagePtr randomImage(int w, int h, uint32_t enc, uint32_t type, std::mt19937 &rng) {
    ImagePtr img = makeImage(w, h, enc, type);
    fillRandom(img.get(), rng);
    return img;
}
// A gray 8-bit mask: each level 0 with probability 1 - share, else a random
// non-zero level (every one of them selects).
inline ImagePtr randomMask(int w, int h, std::mt19937 &rng, double share) {
    ImagePtr m = makeImage(w, h, wzEncodingGray);
    for (size_t i = 0; i < blockBytes(m.get()); ++i)
        m->data[i] = rng() % 1000 < share * 1000 ? uint8_t(1 + rng() % 255) : 0;
    return m;
}
inline ImagePtr filledMask(int w, int h, uint8_t level) {
    ImagePtr m = makeImage(w, h, wzEncodingGray);
    std::memset(m->data, level, blockBytes(m.get()));
    return m;
}
inline ImagePtr clone(const wzImage *img) {
    ImagePtr c = makeImage(img->width, img->height, img->encoding, img->type);
    std::memcpy(c->data, img->data, blockBytes(img));
    c->roi = img->roi;
    return c;
}

struct SupportDeleter {
    void operator()(wzHistogramTransferSupport *s) const { wzHistogramTransferSupportRelease(&s); }
};
using SupportPtr = std::unique_ptr<wzHistogramTransferSupport, SupportDeleter>;
struct Profile16Deleter {
    void operator()(wzImageColorProfile16 *p) const { wzImageColorProfile16Release(&p); }
};
using Profile16Ptr = std::unique_ptr<wzImageColorProfile16, Profile16Deleter>;

// The deep profile of an image's region in a space (null on failure).
inline Profile16Ptr profile16(const wzImage *img, int32_t space, const wzImage *mask = nullptr) {
    Profile16Ptr p(wzImageColorProfile16Create());
    if (p && wzImageFillColorProfile16(img, mask, space, p.get()) != 0) p.reset();
    return p;
}

}  // namespace ext
