// The tool's JPEG decoder on arbitrary bytes.
#include "decode_support.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::vector<uint8_t> bytes(data, data + size);
    try {
        fuzz::checkPicture(morven::tool::decodeJpeg("fuzz.jpg", bytes));
    } catch (const morven::tool::FileError &) {
        // Refused with a reason: the expected outcome for most inputs.
    }
    return 0;
}
