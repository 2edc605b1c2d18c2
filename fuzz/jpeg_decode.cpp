// The tool's JPEG decoder on arbitrary bytes.
#include "decode_support.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::decodeAndCheck(morven::tool::decodeJpeg, std::vector<uint8_t>(data, data + size));
    return 0;
}
