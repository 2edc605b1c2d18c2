// The tool's TIFF decoder on arbitrary bytes: directories, strips and tiles,
// every compression libtiff was built with.
#include "decode_support.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::decodeAndCheck(morven::tool::decodeTiff, std::vector<uint8_t>(data, data + size));
    return 0;
}
