// Volume dump loads on arbitrary bytes, both forms on the same input: they
// must agree (the contiguous form refuses only what has no payload), each
// loaded volume saves back to the bytes read (pointer slots excepted), and
// the volume operations that check their regions run on it whatever region
// of interest the dump carried.
#include "fuzz_support.hpp"
#include "morven/morven.h"

namespace {

bool boxInside(const wzBox &b, const wzVolume &v) {
    return b.x >= 0 && b.y >= 0 && b.z >= 0 && b.width >= 0 && b.height >= 0 && b.depth >= 0 &&
           int64_t{b.x} + b.width <= v.width && int64_t{b.y} + b.height <= v.height &&
           int64_t{b.z} + b.depth <= v.depth;
}

void exercise(wzVolume *v) {
    double low = 0.0, high = 0.0;
    const wzStatus extremes = wzVolumeGetMinMaxValues(v, &low, &high);
    FUZZ_CHECK(extremes == 0 || extremes == 1);
    wzBox box{};
    int32_t empty = 0;
    FUZZ_CHECK(wzVolumeGetNonZeroROI(v, &box, &empty) == 0);
    if (!empty) FUZZ_CHECK(boxInside(box, *v) && box.width > 0 && box.height > 0 && box.depth > 0);
    if (v->depth < 1) return;

    wzVolume *wide = wzVolumeCreateWithType(v->width, v->height, v->depth, wzType64F);
    FUZZ_CHECK(wide != nullptr);
    FUZZ_CHECK(wzVolumeCvtType(v, wide) == 0);
    wzVolumeRelease(&wide);

    wzVolume *copy = wzVolumeCreateAs(v);
    FUZZ_CHECK(copy != nullptr);
    copy->roi = v->roi;
    const wzStatus copied = wzCopy3D(v, copy);
    FUZZ_CHECK(copied == 0 || copied == 1);
    if (v->type == wzType8U) {
        const wzStatus equalized = wzHistogramEqualization3D(v, copy);
        FUZZ_CHECK(equalized == 0 || equalized == 1);
        const wzStatus stretched = wzHistogramStretch3D(copy, copy);
        FUZZ_CHECK(stretched == 0 || stretched == 1);
    }
    wzVolumeRelease(&copy);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::FILE *in = fuzz::openInput(data, size);
    if (!in) return 0;
    wzVolume *contiguous = wzVolumeDumpLoad(in);
    const long contiguousEnd = std::ftell(in);
    std::rewind(in);
    wzVolume *separate = wzVolumeDumpLoadWithSeparatePlanes(in);
    const long separateEnd = std::ftell(in);
    std::fclose(in);

    if (contiguous) {
        FUZZ_CHECK(separate != nullptr && separateEnd == contiguousEnd);
        FUZZ_CHECK(contiguous->depth == separate->depth);
        fuzz::Output saved;
        FUZZ_CHECK(wzVolumeDumpSave(contiguous, saved.stream()) == 0);
        saved.finish();
        fuzz::checkRoundTrip(data, size_t(contiguousEnd), saved, 16, 24);
        exercise(contiguous);
        wzVolumeRelease(&contiguous);
    }
    if (separate) {
        FUZZ_CHECK(separate->voxels == nullptr);
        fuzz::Output saved;
        FUZZ_CHECK(wzVolumeDumpSaveWithSeparatePlanes(separate, saved.stream()) == 0);
        saved.finish();
        fuzz::checkRoundTrip(data, size_t(separateEnd), saved, 16, 24);
        // The contiguous form also saves from separate planes, to the same bytes.
        if (separate->depth > 0) {
            fuzz::Output again;
            FUZZ_CHECK(wzVolumeDumpSave(separate, again.stream()) == 0);
            again.finish();
            fuzz::checkRoundTrip(data, size_t(separateEnd), again, 16, 24);
        }
        exercise(separate);
        wzVolumeReleaseWithSeparatePlanes(&separate);
    }
    return 0;
}
