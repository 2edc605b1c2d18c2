// The command-line tool's decoders, reached from the fuzz targets: they live
// in an unnamed namespace of tools/image_io.cpp, so that file is compiled as
// part of the target's own translation unit.
#pragma once

#include "image_io.cpp"

#include "fuzz_support.hpp"

namespace fuzz {

// A decoded picture must be consistent, and encoding it as PNG and decoding
// that again must give the same samples (small pictures only, for speed).
inline void checkPicture(const morven::tool::Picture &picture) {
    using namespace morven::tool;
    FUZZ_CHECK(picture.width > 0 && picture.height > 0);
    FUZZ_CHECK(uint64_t(picture.width) <= kMaxSide && uint64_t(picture.height) <= kMaxSide);
    FUZZ_CHECK(picture.channels >= 1 && picture.channels <= 4);
    FUZZ_CHECK(picture.pixels.size() == picture.sampleCount());
    if (picture.sampleCount() > (size_t{1} << 16)) return;
    const std::vector<uint8_t> png = encodePicture(picture, Format::Png, 90, nullptr);
    const Picture again = decodePng("round trip", png);
    FUZZ_CHECK(again.width == picture.width && again.height == picture.height &&
               again.channels == picture.channels && again.pixels == picture.pixels);
}

}  // namespace fuzz
