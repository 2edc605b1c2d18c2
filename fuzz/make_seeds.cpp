// Writes the seed corpora of the fuzz targets: a few tiny inputs per target,
// made with the library's own dump saves and with libpng, libjpeg, libtiff
// and libwebp.
//
//   build-fuzz/make_seeds fuzz/corpus
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <jpeglib.h>
#include <png.h>
#include <tiffio.h>
#include <webp/encode.h>
#include <webp/mux.h>

#include "morven/morven.h"

namespace {

namespace fs = std::filesystem;

fs::path root;

std::FILE *create(const std::string &target, const std::string &name) {
    fs::create_directories(root / target);
    std::FILE *f = std::fopen((root / target / name).c_str(), "wb");
    if (!f) {
        std::perror(name.c_str());
        std::exit(1);
    }
    return f;
}

// Level v of a smooth pattern, 0..255.
uint8_t pattern(int x, int y, int c) { return uint8_t((x * 37 + y * 71 + c * 101) & 0xFF); }

wzImage *image(int32_t w, int32_t h, uint32_t encoding, uint32_t type) {
    wzImage *img = wzImageCreateWithType(w, h, encoding, type);
    const size_t bytes = size_t(w) * h * wzImageGetNChannel(img) *
                         (type == wzType8U    ? 1
                          : type == wzType16U ? 2
                          : type == wzType64F ? 8
                                              : 4);
    for (size_t i = 0; i < bytes; ++i) img->data[i] = pattern(int(i), int(i / 7), 0);
    if (type == wzType32F)
        for (size_t i = 0; i < bytes / 4; ++i) {
            const float v = float(i) / 8.0f;
            std::memcpy(img->data + 4 * i, &v, 4);
        }
    return img;
}

void imageDumps() {
    std::FILE *f = create("image_dump", "gray8_3x2");
    wzImage *a = image(3, 2, wzEncodingGray, wzType8U);
    wzImageDumpSave(a, f);
    std::fclose(f);

    f = create("image_dump", "bgr16_2x2_roi");
    wzImage *b = image(2, 2, wzEncodingBGR, wzType16U);
    const wzRect roi{1, 0, 1, 2};
    wzImageSetROI(b, &roi);
    wzImageSetCOI(b, 2);
    wzImageDumpSave(b, f);
    std::fclose(f);

    f = create("image_dump", "rgba32f_2x1");
    wzImage *c = image(2, 1, wzEncodingRGBA, wzType32F);
    wzImageDumpSave(c, f);
    std::fclose(f);

    f = create("image_dump", "two_dumps");
    wzImage *d = image(1, 2, wzEncodingGray, wzType64F);
    wzImage *e = image(2, 1, wzEncodingGray, wzType32S24);
    wzImageDumpSave(d, f);
    wzImageDumpSave(e, f);
    std::fclose(f);
    for (wzImage **img : {&a, &b, &c, &d, &e}) wzImageRelease(img);
}

void matrixDumps() {
    wzMatrix *a = wzMatrixCreate(2, 3);
    for (int i = 0; i < 6; ++i) a->data[i] = i - 2.5;
    wzMatrix *b = wzMatrixCreate(3, 3);
    const double values[9] = {4, 1, 0, 1, 3, 1, 0, 1, 2};
    std::memcpy(b->data, values, sizeof values);
    wzMatrix *c = wzMatrixCreate(2, 2);
    c->data[0] = NAN;
    c->data[1] = INFINITY;
    c->data[2] = 1e300;
    c->data[3] = -0.0;

    std::FILE *f = create("matrix_dump", "2x3");
    wzMatrixDumpSave(a, f);
    std::fclose(f);
    f = create("matrix_dump", "3x3_then_2x2_extremes");
    wzMatrixDumpSave(b, f);
    wzMatrixDumpSave(c, f);
    std::fclose(f);
    for (wzMatrix **m : {&a, &b, &c}) wzMatrixRelease(m);
}

void volumeDumps() {
    wzVolume *a = wzVolumeCreate(3, 2, 2);
    for (int i = 0; i < 12; ++i) a->voxels[i] = uint8_t(i * 20);
    const wzBox inside{1, 0, 0, 2, 2, 2};
    wzVolumeSetROI(a, &inside);
    std::FILE *f = create("volume_dump", "8u_3x2x2");
    wzVolumeDumpSave(a, f);
    std::fclose(f);

    wzVolume *b = wzVolumeCreateWithType(2, 2, 1, wzType32F);
    for (int i = 0; i < 4; ++i) {
        const float v = 0.25f * float(i);
        std::memcpy(b->voxels + 4 * i, &v, 4);
    }
    f = create("volume_dump", "32f_2x2x1");
    wzVolumeDumpSave(b, f);
    std::fclose(f);

    wzVolume *c = wzVolumeCreateHeaderWithType(5, 4, 0, wzType16U);
    f = create("volume_dump", "16u_depth0");
    wzVolumeDumpSaveWithSeparatePlanes(c, f);
    std::fclose(f);

    wzVolume *d = wzVolumeCreateWithType(1, 1, 3, wzType64F);
    const wzBox outside{0, 0, 1, 1, 1, 5};
    wzVolumeSetROI(d, &outside);
    f = create("volume_dump", "64f_1x1x3_roi_outside");
    wzVolumeDumpSave(d, f);
    std::fclose(f);
    wzVolumeRelease(&a);
    wzVolumeRelease(&b);
    wzVolumeReleaseHeader(&c);
    wzVolumeRelease(&d);
}

// One PNG: colour type, bit depth, interlacing, optional palette and tRNS.
void png(const std::string &name, int w, int h, int colorType, int depth, bool interlaced) {
    std::FILE *f = create("png_decode", name);
    png_structp p = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(p);
    png_init_io(p, f);
    png_set_IHDR(p, info, w, h, depth, colorType,
                 interlaced ? PNG_INTERLACE_ADAM7 : PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    if (colorType == PNG_COLOR_TYPE_PALETTE) {
        png_color palette[4] = {{0, 0, 0}, {255, 0, 0}, {0, 255, 0}, {30, 60, 255}};
        png_set_PLTE(p, info, palette, 4);
        png_byte alpha[2] = {0, 128};
        png_set_tRNS(p, info, alpha, 2, nullptr);
    }
    png_write_info(p, info);
    const int channels = colorType == PNG_COLOR_TYPE_RGB          ? 3
                         : colorType == PNG_COLOR_TYPE_RGB_ALPHA  ? 4
                         : colorType == PNG_COLOR_TYPE_GRAY_ALPHA ? 2
                                                                  : 1;
    const size_t rowBytes = (size_t(w) * channels * depth + 7) / 8;
    std::vector<uint8_t> pixels(rowBytes * h);
    for (int y = 0; y < h; ++y)
        for (size_t i = 0; i < rowBytes; ++i)
            pixels[y * rowBytes + i] = colorType == PNG_COLOR_TYPE_PALETTE
                                           ? uint8_t(((i + y) % 4) << (depth == 8 ? 0 : 6))
                                           : pattern(int(i), y, 0);
    std::vector<png_bytep> rows(h);
    for (int y = 0; y < h; ++y) rows[y] = pixels.data() + y * rowBytes;
    png_write_image(p, rows.data());
    png_write_end(p, nullptr);
    png_destroy_write_struct(&p, &info);
    std::fclose(f);
}

void jpeg(const std::string &name, int w, int h, bool colour, bool progressive) {
    std::FILE *f = create("jpeg_decode", name);
    jpeg_compress_struct c;
    jpeg_error_mgr err;
    c.err = jpeg_std_error(&err);
    jpeg_create_compress(&c);
    jpeg_stdio_dest(&c, f);
    c.image_width = JDIMENSION(w);
    c.image_height = JDIMENSION(h);
    c.input_components = colour ? 3 : 1;
    c.in_color_space = colour ? JCS_RGB : JCS_GRAYSCALE;
    jpeg_set_defaults(&c);
    jpeg_set_quality(&c, 50, TRUE);
    if (progressive) jpeg_simple_progression(&c);
    jpeg_start_compress(&c, TRUE);
    std::vector<uint8_t> row(size_t(w) * c.input_components);
    while (c.next_scanline < c.image_height) {
        for (size_t i = 0; i < row.size(); ++i) row[i] = pattern(int(i), int(c.next_scanline), 1);
        JSAMPROW line = row.data();
        jpeg_write_scanlines(&c, &line, 1);
    }
    jpeg_finish_compress(&c);
    jpeg_destroy_compress(&c);
    std::fclose(f);
}

// One TIFF: bits, samples, photometric, compression, tiled or striped,
// interleaved or in planes.
void tiffSeed(const std::string &name, int w, int h, int bits, int samples, int photometric,
              int compression, bool tiled, bool planes) {
    fs::create_directories(root / "tiff_decode");
    TIFF *t = TIFFOpen((root / "tiff_decode" / name).c_str(), "w");
    TIFFSetField(t, TIFFTAG_IMAGEWIDTH, w);
    TIFFSetField(t, TIFFTAG_IMAGELENGTH, h);
    TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, bits);
    TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, samples);
    TIFFSetField(t, TIFFTAG_PHOTOMETRIC, photometric);
    TIFFSetField(t, TIFFTAG_COMPRESSION, compression);
    TIFFSetField(t, TIFFTAG_PLANARCONFIG, planes ? PLANARCONFIG_SEPARATE : PLANARCONFIG_CONTIG);
    if (photometric == PHOTOMETRIC_PALETTE) {
        std::vector<uint16_t> map(size_t(3) << bits);
        for (size_t i = 0; i < map.size(); ++i) map[i] = uint16_t(i * 4099);
        TIFFSetField(t, TIFFTAG_COLORMAP, map.data(), map.data() + (1 << bits),
                     map.data() + (2 << bits));
    }
    if ((photometric == PHOTOMETRIC_RGB && samples == 4) ||
        (photometric == PHOTOMETRIC_MINISBLACK && samples == 2)) {
        const uint16_t kind = EXTRASAMPLE_UNASSALPHA;
        TIFFSetField(t, TIFFTAG_EXTRASAMPLES, 1, &kind);
    }
    const int perBlock = planes ? 1 : samples;
    const uint32_t bw = tiled ? 16 : uint32_t(w), bh = tiled ? 16 : 2;
    if (tiled)
        TIFFSetField(t, TIFFTAG_TILEWIDTH, bw), TIFFSetField(t, TIFFTAG_TILELENGTH, bh);
    else
        TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, bh);
    const size_t bytes = (size_t(bw) * perBlock * bits + 7) / 8 * bh;
    std::vector<uint8_t> block(bytes);
    for (size_t i = 0; i < bytes; ++i) block[i] = pattern(int(i), int(i / 5), 2);
    for (int plane = 0; plane < (planes ? samples : 1); ++plane)
        for (uint32_t y = 0; y < uint32_t(h); y += bh)
            for (uint32_t x = 0; x < uint32_t(w); x += bw) {
                if (tiled)
                    TIFFWriteEncodedTile(t, TIFFComputeTile(t, x, y, 0, uint16_t(plane)),
                                         block.data(), tmsize_t(bytes));
                else
                    TIFFWriteEncodedStrip(t, TIFFComputeStrip(t, y, uint16_t(plane)), block.data(),
                                          tmsize_t((size_t(bw) * perBlock * bits + 7) / 8 *
                                                   std::min<uint32_t>(bh, h - y)));
            }
    TIFFClose(t);
}

// One WebP, lossy or lossless, with alpha or without, optionally in the
// extended container with a (meaningless) ICC chunk.
void webpSeed(const std::string &name, int w, int h, bool alpha, bool lossless, bool icc) {
    const int c = alpha ? 4 : 3;
    std::vector<uint8_t> px(size_t(w) * h * c);
    for (size_t i = 0; i < px.size(); ++i)
        px[i] = pattern(int(i % size_t(w * c)), int(i / size_t(w * c)), 3);
    uint8_t *out = nullptr;
    size_t size = alpha ? (lossless ? WebPEncodeLosslessRGBA(px.data(), w, h, w * c, &out)
                                    : WebPEncodeRGBA(px.data(), w, h, w * c, 40, &out))
                        : (lossless ? WebPEncodeLosslessRGB(px.data(), w, h, w * c, &out)
                                    : WebPEncodeRGB(px.data(), w, h, w * c, 40, &out));
    WebPData assembled{out, size};
    if (icc) {
        const uint8_t profile[16] = {0, 0, 0, 16, 'l', 'c', 'm', 's'};
        const WebPData image{out, size}, chunk{profile, sizeof profile};
        WebPMux *mux = WebPMuxCreate(&image, 1);
        WebPMuxSetChunk(mux, "ICCP", &chunk, 1);
        WebPMuxAssemble(mux, &assembled);
        WebPMuxDelete(mux);
    }
    std::FILE *f = create("webp_decode", name);
    std::fwrite(assembled.bytes, 1, assembled.size, f);
    std::fclose(f);
    if (icc) WebPDataClear(&assembled);
    WebPFree(out);
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: make_seeds CORPUS_DIR\n");
        return 2;
    }
    root = argv[1];
    imageDumps();
    matrixDumps();
    volumeDumps();
    png("gray8_4x3.png", 4, 3, PNG_COLOR_TYPE_GRAY, 8, false);
    png("gray1_9x2.png", 9, 2, PNG_COLOR_TYPE_GRAY, 1, false);
    png("gray16_3x2.png", 3, 2, PNG_COLOR_TYPE_GRAY, 16, false);
    png("gray_alpha_2x2.png", 2, 2, PNG_COLOR_TYPE_GRAY_ALPHA, 8, false);
    png("palette_trns_4x4.png", 4, 4, PNG_COLOR_TYPE_PALETTE, 2, false);
    png("rgb_interlaced_5x5.png", 5, 5, PNG_COLOR_TYPE_RGB, 8, true);
    png("rgba16_3x3.png", 3, 3, PNG_COLOR_TYPE_RGB_ALPHA, 16, false);
    jpeg("gray_8x8.jpg", 8, 8, false, false);
    jpeg("rgb_16x16.jpg", 16, 16, true, false);
    jpeg("rgb_progressive_24x8.jpg", 24, 8, true, true);
    tiffSeed("gray8_none_5x3.tif", 5, 3, 8, 1, PHOTOMETRIC_MINISBLACK, COMPRESSION_NONE, false,
             false);
    tiffSeed("white1_packbits_9x4.tif", 9, 4, 1, 1, PHOTOMETRIC_MINISWHITE, COMPRESSION_PACKBITS,
             false, false);
    tiffSeed("palette4_lzw_6x3.tif", 6, 3, 4, 1, PHOTOMETRIC_PALETTE, COMPRESSION_LZW, false,
             false);
    tiffSeed("rgb16_lzw_tiled_20x18.tif", 20, 18, 16, 3, PHOTOMETRIC_RGB, COMPRESSION_LZW, true,
             false);
    tiffSeed("rgba8_deflate_planes_4x4.tif", 4, 4, 8, 4, PHOTOMETRIC_RGB, COMPRESSION_ADOBE_DEFLATE,
             false, true);
    tiffSeed("cmyk8_none_3x3.tif", 3, 3, 8, 4, PHOTOMETRIC_SEPARATED, COMPRESSION_NONE, false,
             false);
    webpSeed("rgb_lossy_8x6.webp", 8, 6, false, false, false);
    webpSeed("rgba_lossless_5x4.webp", 5, 4, true, true, false);
    webpSeed("rgba_lossy_icc_6x6.webp", 6, 6, true, false, true);
    return 0;
}
