// Image dump loads on arbitrary bytes: every dump that loads is saved again
// and must give back the bytes it was read from (the reserved word excepted),
// and the whole-block operations run on it. Dumps may follow one another.
#include "fuzz_support.hpp"
#include "morven/morven.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::FILE *in = fuzz::openInput(data, size);
    if (!in) return 0;
    for (int dump = 0; dump < 4; ++dump) {
        const long start = std::ftell(in);
        wzImage *image = wzImageDumpLoad(in);
        if (!image) break;
        const long end = std::ftell(in);

        fuzz::Output saved;
        FUZZ_CHECK(wzImageDumpSave(image, saved.stream()) == 0);
        saved.finish();
        fuzz::checkRoundTrip(data + start, size_t(end - start), saved, 16, 20);

        // Whole-block operations (regions are not checked against the image
        // size on purpose, so region-aware ones are left out).
        wzImage *wide =
            wzImageCreateWithType(image->width, image->height, image->encoding, wzType64F);
        FUZZ_CHECK(wide != nullptr);
        FUZZ_CHECK(wzImageCvtType(image, wide) == 0);
        wzImage *back = wzImageCreateAs(image);
        FUZZ_CHECK(back != nullptr);
        FUZZ_CHECK(wzImageCvtType(wide, back) == 0);
        if (image->encoding == wzEncodingGray) {
            wzRect box;
            uint32_t empty = 0;
            FUZZ_CHECK(wzImageGetNonZeroROI(image, &box, &empty) == 0);
            if (!empty)
                FUZZ_CHECK(box.x >= 0 && box.x + box.width <= image->width && box.y >= 0 &&
                           box.y + box.height <= image->height);
        }
        wzImageRelease(&back);
        wzImageRelease(&wide);
        wzImageRelease(&image);
    }
    std::fclose(in);
    return 0;
}
