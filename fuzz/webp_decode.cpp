// The tool's WebP decoder on arbitrary bytes: lossy, lossless, alpha and the
// extended container with its ICC chunk.
#include "decode_support.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::decodeAndCheck(morven::tool::decodeWebP, std::vector<uint8_t>(data, data + size));
    return 0;
}
