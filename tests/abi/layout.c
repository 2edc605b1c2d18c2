/*
 * Layout of the public records, enum values and status codes as a C99 host
 * compiles them, and a check that the shared library writes the image record
 * at the offsets this compiler expects.
 */
#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include "morven/morven.h"

static int failures = 0;

static void expect(const char *what, unsigned long actual, unsigned long expected) {
    if (actual != expected) {
        fprintf(stderr, "FAIL %s: %lu, expected %lu\n", what, actual, expected);
        ++failures;
    }
}

#define EXPECT_SIZE(T, n) expect("sizeof(" #T ")", (unsigned long)sizeof(T), (n))
#define EXPECT_OFFSET(T, f, n) \
    expect("offsetof(" #T ", " #f ")", (unsigned long)offsetof(T, f), (n))
#define EXPECT_VALUE(name, n) expect(#name, (unsigned long)(name), (n))

int main(void) {
    wzImage *header;
    wzSize size;

    /* Scalar types of the interface. */
    EXPECT_SIZE(wzStatus, 4);
    EXPECT_SIZE(wzImageType, 4);
    EXPECT_SIZE(wzImageEncoding, 4);

    /* wzRect, wzSize, wzPoint: plain 32-bit fields in declaration order. */
    EXPECT_SIZE(wzRect, 16);
    EXPECT_OFFSET(wzRect, x, 0);
    EXPECT_OFFSET(wzRect, y, 4);
    EXPECT_OFFSET(wzRect, width, 8);
    EXPECT_OFFSET(wzRect, height, 12);
    EXPECT_SIZE(wzSize, 8);
    EXPECT_OFFSET(wzSize, width, 0);
    EXPECT_OFFSET(wzSize, height, 4);
    EXPECT_SIZE(wzPoint, 16);
    EXPECT_OFFSET(wzPoint, reserved, 0);
    EXPECT_OFFSET(wzPoint, x, 4);
    EXPECT_OFFSET(wzPoint, y, 8);
    EXPECT_OFFSET(wzPoint, z, 12);

    /* wzImage: height before width, then the block pointer. */
    EXPECT_OFFSET(wzImage, type, 0);
    EXPECT_OFFSET(wzImage, encoding, 4);
    EXPECT_OFFSET(wzImage, height, 8);
    EXPECT_OFFSET(wzImage, width, 12);
    EXPECT_OFFSET(wzImage, data, 16);
    EXPECT_OFFSET(wzImage, roi, 16 + sizeof(void *));
    EXPECT_OFFSET(wzImage, coi, 32 + sizeof(void *));
    EXPECT_SIZE(wzImage, 32 + 2 * sizeof(void *));

    /* Element types and encodings. */
    EXPECT_VALUE(wzType8U, 0);
    EXPECT_VALUE(wzType32S, 10);
    EXPECT_VALUE(wzType16U, 12);
    EXPECT_VALUE(wzType32S24, 15);
    EXPECT_VALUE(wzType32F, 20);
    EXPECT_VALUE(wzType64F, 30);
    EXPECT_VALUE(wzEncodingGray, 0);
    EXPECT_VALUE(wzEncodingBGR, 1);
    EXPECT_VALUE(wzEncodingRGB, 2);
    EXPECT_VALUE(wzEncodingARGB, 3);
    EXPECT_VALUE(wzEncodingRGBA, 4);

    /* Statuses. */
    EXPECT_VALUE(WZ_STATUS_OK, 0);
    EXPECT_VALUE(WZ_STATUS_ERROR, 1);
    EXPECT_VALUE(WZ_STATUS_CANCELLED, 2);
    EXPECT_VALUE(WZ_STATUS_FAILURE, 0xFFFFFFFFul);

    /* Extensions: the extra status, the working spaces, the deep profile
     * (two 32-bit fields, then three arrays of 65536 doubles) and the
     * matching options (two 32-bit fields, then two pointers). */
    EXPECT_VALUE(WZ_STATUS_NO_PIXELS, 3);
    EXPECT_SIZE(wzWorkingSpace, 4);
    EXPECT_VALUE(wzSpaceChannels, 0);
    EXPECT_VALUE(wzSpaceLuma, 1);
    EXPECT_VALUE(wzSpaceYCbCr, 2);
    EXPECT_VALUE(wzSpaceLab, 3);
    EXPECT_VALUE(WZ_PROFILE16_BINS, 65536);
    EXPECT_OFFSET(wzImageColorProfile16, space, 0);
    EXPECT_OFFSET(wzImageColorProfile16, reserved, 4);
    EXPECT_OFFSET(wzImageColorProfile16, bins, 8);
    EXPECT_SIZE(wzImageColorProfile16, 8 + 3 * 65536 * 8);
    EXPECT_OFFSET(wzHistogramMatchOptions, space, 0);
    EXPECT_OFFSET(wzHistogramMatchOptions, reserved, 4);
    EXPECT_OFFSET(wzHistogramMatchOptions, statsMask, 8);
    EXPECT_OFFSET(wzHistogramMatchOptions, targetProfile16, 8 + sizeof(void *));
    EXPECT_SIZE(wzHistogramMatchOptions, 8 + 2 * sizeof(void *));

    /* The version the library reports is the one of these headers. */
    expect("wzMorvenVersionNumber()", (unsigned long)wzMorvenVersionNumber(),
           MORVEN_VERSION_NUMBER);
    expect("wzMorvenVersionString() is MORVEN_VERSION_STRING",
           strcmp(wzMorvenVersionString(), MORVEN_VERSION_STRING) == 0, 1);

    /* The gray table is an array of 768 32-bit entries. */
    EXPECT_SIZE(wz_toGray_tab, 768 * 4);

    /* The library (compiled as C++) fills the record where C reads it. */
    header = wzImageCreateHeaderWithType(640, 480, wzEncodingRGBA, wzType16U);
    if (header == NULL) {
        fprintf(stderr, "FAIL wzImageCreateHeaderWithType returned null\n");
        return 1;
    }
    expect("type field", header->type, wzType16U);
    expect("encoding field", header->encoding, wzEncodingRGBA);
    expect("height field", (unsigned long)header->height, 480);
    expect("width field", (unsigned long)header->width, 640);
    expect("roi.width field", (unsigned long)header->roi.width, 640);
    expect("roi.height field", (unsigned long)header->roi.height, 480);
    expect("data is null", header->data == NULL, 1);
    wzImageSetCOI(header, 3); /* the one field the creation leaves unchecked */
    expect("coi after set", (unsigned long)header->coi, 3);
    size = wzImageSize(header); /* returned by value: width first */
    expect("wzImageSize width", (unsigned long)size.width, 640);
    expect("wzImageSize height", (unsigned long)size.height, 480);
    wzImageReleaseHeader(&header);

    if (failures == 0) printf("layout: all checks passed\n");
    return failures == 0 ? 0 : 1;
}
