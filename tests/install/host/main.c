/*
 * Host program for the install test: converts a BGR picture to gray through
 * the installed library and checks every level against the luma formula
 * gray = (8192 + 1868 * blue + 9617 * green + 4899 * red) >> 14.
 */
#include <stdio.h>
#include <string.h>

#include <morven/morven.h>

enum { W = 7, H = 5 };

static unsigned expectedGray(unsigned blue, unsigned green, unsigned red) {
    return (8192u + 1868u * blue + 9617u * green + 4899u * red) >> 14;
}

int main(void) {
    wzImage *bgr = wzImageCreate(W, H, wzEncodingBGR);
    wzImage *gray = wzImageCreateHeader(W, H, wzEncodingGray);
    wzImage *wide = wzImageCreateWithType(W, H, wzEncodingGray, wzType16U);
    uint8_t levels[W * H + 1];
    int failures = 0;
    int x, y;

    if (bgr == NULL || gray == NULL || wide == NULL) {
        fprintf(stderr, "image creation failed\n");
        return 1;
    }
    for (y = 0; y < H; ++y) {
        for (x = 0; x < W; ++x) {
            uint8_t *p = bgr->data + (y * W + x) * 3;
            p[0] = (uint8_t)(x * 37 + y * 11); /* blue */
            p[1] = (uint8_t)(x * 53 + y * 97); /* green */
            p[2] = (uint8_t)(255 - x * y * 9); /* red */
        }
    }
    /* Two corners with known answers: white stays 255, (10, 20, 30) gives 22. */
    memset(bgr->data, 255, 3);
    bgr->data[3 * (W * H - 1) + 0] = 10;
    bgr->data[3 * (W * H - 1) + 1] = 20;
    bgr->data[3 * (W * H - 1) + 2] = 30;

    /* The gray image is a header over our own buffer; one guard byte after it. */
    memset(levels, 0xA5, sizeof levels);
    gray->data = levels;
    if (wzImageCvtColor(bgr, gray) != 0) {
        fprintf(stderr, "wzImageCvtColor failed\n");
        return 1;
    }
    for (y = 0; y < H; ++y) {
        for (x = 0; x < W; ++x) {
            const uint8_t *p = bgr->data + (y * W + x) * 3;
            unsigned want = expectedGray(p[0], p[1], p[2]);
            if (levels[y * W + x] != want) {
                fprintf(stderr, "pixel (%d, %d): gray %u, expected %u\n", x, y,
                        (unsigned)levels[y * W + x], want);
                ++failures;
            }
        }
    }
    if (levels[0] != 255 || levels[W * H - 1] != 22) {
        fprintf(stderr, "corner levels %u and %u, expected 255 and 22\n", (unsigned)levels[0],
                (unsigned)levels[W * H - 1]);
        ++failures;
    }
    if (levels[W * H] != 0xA5) {
        fprintf(stderr, "wrote past the caller's buffer\n");
        ++failures;
    }

    /* Different element types are rejected with status 1. */
    if (wzImageCvtColor(bgr, wide) != 1) {
        fprintf(stderr, "mismatched element types were not rejected\n");
        ++failures;
    }

    wzImageRelease(&bgr);
    wzImageRelease(&wide);
    wzImageReleaseHeader(&gray);
    if (bgr != NULL || wide != NULL || gray != NULL) {
        fprintf(stderr, "release did not clear the caller's pointer\n");
        ++failures;
    }
    if (failures == 0) printf("host: gray conversion through the installed library is correct\n");
    return failures == 0 ? 0 : 1;
}
