// Shared by the fuzz targets of the command-line tool's decoders
// (tools/io/<format>.cpp, compiled into each target).
#pragma once

#include "core/limits.hpp"
#include "fuzz_support.hpp"
#include "io/codecs.hpp"

namespace fuzz {

// A decoded picture must be consistent, and encoding it as PNG and decoding
// that again must give the same samples (small pictures only, for speed).
inline void checkPicture(const morven::tool::Picture &picture) {
    using namespace morven::tool;
    FUZZ_CHECK(picture.width > 0 && picture.height > 0);
    FUZZ_CHECK(uint64_t(picture.width) <= kMaxSide && uint64_t(picture.height) <= kMaxSide);
    FUZZ_CHECK(uint64_t(picture.width) * uint64_t(picture.height) <= kMaxPixels);
    FUZZ_CHECK(picture.channels >= 1 && picture.channels <= 4);
    FUZZ_CHECK(picture.depth == 8 || picture.depth == 16);
    FUZZ_CHECK((picture.depth == 8 ? picture.samples8.size() : picture.samples16.size()) ==
               picture.sampleCount());
    FUZZ_CHECK(picture.icc.size() <= kMaxEmbeddedBytes);
    if (picture.sampleCount() > (size_t{1} << 16)) return;
    Picture plain = picture;
    plain.icc.clear();  // libpng may refuse a profile that does not fit
    plain.cmyk = false;
    const std::vector<uint8_t> png = encodePng(plain);
    const Picture again = decodePng("round trip", png);
    FUZZ_CHECK(again.width == picture.width && again.height == picture.height &&
               again.channels == picture.channels && again.depth == picture.depth &&
               again.samples8 == picture.samples8 && again.samples16 == picture.samples16);
}

// Runs a decoder on the bytes; a refusal with a reason is the expected
// outcome for most inputs.
template <class Decode>
void decodeAndCheck(Decode decode, const std::vector<uint8_t> &bytes) {
    try {
        checkPicture(decode("fuzz input", bytes));
    } catch (const morven::tool::FileError &) {}
}

}  // namespace fuzz
