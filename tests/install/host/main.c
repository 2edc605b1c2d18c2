/*
 * Host program for the install test: converts a BGR picture to gray through
 * the installed library and checks every level against the luma formula
 * gray = (8192 + 1868 * blue + 9617 * green + 4899 * red) >> 14.
 */
#include <stdio.h>
#include <string.h>

#include <morven/morven.h>

enum { W = 7, H = 5 };

static int failures = 0;

static void check(int ok, const char *what) {
    if (!ok) {
        fprintf(stderr, "%s\n", what);
        ++failures;
    }
}

int main(void) {
    wzImage *bgr = wzImageCreate(W, H, wzEncodingBGR);
    wzImage *gray = wzImageCreateHeader(W, H, wzEncodingGray);
    uint8_t levels[W * H + 1];
    int i;

    if (bgr == NULL || gray == NULL) {
        fprintf(stderr, "image creation failed\n");
        return 1;
    }
    for (i = 0; i < W * H; ++i) {
        uint8_t *p = bgr->data + i * 3;
        p[0] = (uint8_t)(i % W * 37 + i / W * 11);   /* blue */
        p[1] = (uint8_t)(i % W * 53 + i / W * 97);   /* green */
        p[2] = (uint8_t)(255 - i % W * (i / W) * 9); /* red */
    }

    /* The gray image is a header over our own buffer; one guard byte after it. */
    memset(levels, 0xA5, sizeof levels);
    gray->data = levels;
    check(wzImageCvtColor(bgr, gray) == 0, "wzImageCvtColor failed");
    for (i = 0; i < W * H; ++i) {
        const uint8_t *p = bgr->data + i * 3;
        unsigned want = (8192u + 1868u * p[0] + 9617u * p[1] + 4899u * p[2]) >> 14;
        if (levels[i] != want)
            fprintf(stderr, "pixel %d: gray %u, expected %u\n", i, (unsigned)levels[i], want);
        failures += levels[i] != want;
    }
    check(levels[W * H] == 0xA5, "wrote past the caller's buffer");

    wzImageRelease(&bgr);
    wzImageReleaseHeader(&gray);
    if (failures == 0) printf("host: gray conversion through the installed library is correct\n");
    return failures == 0 ? 0 : 1;
}
