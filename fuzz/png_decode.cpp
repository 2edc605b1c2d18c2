// The tool's PNG decoder on arbitrary bytes. Chunk checksums are recomputed
// before decoding, so that mutations reach the chunk contents instead of
// being refused at the first checksum.
#include <zlib.h>

#include "decode_support.hpp"

namespace {

void fixChunkChecksums(std::vector<uint8_t> &bytes) {
    size_t at = 8;  // after the signature
    while (at + 12 <= bytes.size()) {
        const uint32_t length = uint32_t(bytes[at]) << 24 | uint32_t(bytes[at + 1]) << 16 |
                                uint32_t(bytes[at + 2]) << 8 | bytes[at + 3];
        if (length > bytes.size() - at - 12) break;
        const uint8_t *typeAndData = bytes.data() + at + 4;
        const uint32_t crc = uint32_t(crc32(0, typeAndData, 4 + length));
        uint8_t *out = bytes.data() + at + 8 + length;
        out[0] = uint8_t(crc >> 24);
        out[1] = uint8_t(crc >> 16);
        out[2] = uint8_t(crc >> 8);
        out[3] = uint8_t(crc);
        at += 12 + size_t(length);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::vector<uint8_t> bytes(data, data + size);
    fixChunkChecksums(bytes);
    fuzz::decodeAndCheck(morven::tool::decodePng, bytes);
    return 0;
}
