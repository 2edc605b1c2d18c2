#include "support.hpp"

#include <gtest/gtest.h>
#include <jpeglib.h>
#include <lcms2.h>
#include <png.h>
#include <tiffio.h>
#include <webp/decode.h>
#include <webp/demux.h>
#include <webp/encode.h>
#ifdef MORVEN_TOOL_TEST_EXIV2
#include <exiv2/exiv2.hpp>
#endif

#include <bit>
#include <cmath>
#include <cstring>
#include <fstream>
#include <memory>

namespace tooltest {

std::string slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

namespace {

void spill(const std::string &path, const void *data, size_t size) {
    std::ofstream(path, std::ios::binary)
        .write(static_cast<const char *>(data), std::streamsize(size));
}

constexpr bool kLittle = std::endian::native == std::endian::little;

// The samples as bytes in host order, 1 or 2 each, and back.
std::vector<uint8_t> raw(const Pic &p) {
    std::vector<uint8_t> bytes(p.px.size() * (p.depth / 8));
    for (size_t i = 0; i < p.px.size(); ++i)
        if (p.depth == 8)
            bytes[i] = uint8_t(p.px[i]);
        else
            std::memcpy(&bytes[2 * i], &p.px[i], 2);
    return bytes;
}

void append(Pic &p, const uint8_t *bytes, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        uint16_t v = bytes[i];
        if (p.depth == 16) std::memcpy(&v, bytes + 2 * i, 2);
        p.px.push_back(v);
    }
}

}  // namespace

Pic pattern(int w, int h, int c, int depth, unsigned seed) {
    Pic p{w, h, c, depth, std::vector<uint16_t>(size_t(w) * h * c)};
    const double top = depth == 8 ? 255 : 65535;
    uint32_t state = seed * 2654435761u + 1;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int ch = 0; ch < c; ++ch) {
                state = state * 1664525u + 1013904223u;
                const double wave = 0.5 + 0.35 * std::sin(0.11 * x * (ch + 1) + 0.07 * y + seed) +
                                    0.1 * ((state >> 8) / 16777216.0 - 0.5);
                p.at(x, y, ch) = uint16_t(std::clamp(wave, 0.0, 1.0) * top + 0.5);
            }
    const int colours = c <= 2 ? 1 : 3;
    for (int ch = 0; ch < colours; ++ch) p.at(0, 0, ch) = 0, p.at(1, 0, ch) = uint16_t(top);
    if (c % 2 == 0)
        for (size_t i = size_t(c) - 1; i < p.px.size(); i += size_t(c))
            p.px[i] = std::max<uint16_t>(p.px[i], 1);
    return p;
}

Pic oriented(const Pic &p, int o) {
    const bool turned = o >= 5;
    Pic out{turned ? p.h : p.w, turned ? p.w : p.h, p.c, p.depth,
            std::vector<uint16_t>(p.px.size())};
    // Upright pixel (X, Y) shows stored pixel (x, y).
    for (int Y = 0; Y < out.h; ++Y)
        for (int X = 0; X < out.w; ++X) {
            int x = X, y = Y;
            switch (o) {
                case 2: x = p.w - 1 - X; break;
                case 3: x = p.w - 1 - X, y = p.h - 1 - Y; break;
                case 4: y = p.h - 1 - Y; break;
                case 5: x = Y, y = X; break;
                case 6: x = Y, y = p.h - 1 - X; break;
                case 7: x = p.w - 1 - Y, y = p.h - 1 - X; break;
                case 8: x = p.w - 1 - Y, y = X; break;
            }
            for (int ch = 0; ch < p.c; ++ch) out.at(X, Y, ch) = p.at(x, y, ch);
        }
    return out;
}

Pic grayPic(int w, int h, const std::vector<uint8_t> &plane) {
    return Pic{w, h, 1, 8, std::vector<uint16_t>(plane.begin(), plane.end())};
}

Pic crop(const Pic &p, int x0, int y0, int w, int h, int channels) {
    Pic out{w, h, channels, p.depth, std::vector<uint16_t>(size_t(w) * h * channels)};
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int ch = 0; ch < channels; ++ch) out.at(x, y, ch) = p.at(x0 + x, y0 + y, ch);
    return out;
}

// ---------------------------------------------------------------------------
// Writers

void writePng(const std::string &path, const Pic &p, const std::vector<uint8_t> &icc) {
    static const int types[] = {0, PNG_COLOR_TYPE_GRAY, PNG_COLOR_TYPE_GRAY_ALPHA,
                                PNG_COLOR_TYPE_RGB, PNG_COLOR_TYPE_RGB_ALPHA};
    FILE *f = std::fopen(path.c_str(), "wb");
    ASSERT_TRUE(f);
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    png_init_io(png, f);
    png_set_IHDR(png, info, p.w, p.h, p.depth, types[p.c], PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    if (!icc.empty()) png_set_iCCP(png, info, "icc", 0, icc.data(), png_uint_32(icc.size()));
    png_write_info(png, info);
    if (p.depth == 16 && kLittle) png_set_swap(png);
    const std::vector<uint8_t> bytes = raw(p);
    for (int y = 0; y < p.h; ++y) png_write_row(png, &bytes[bytes.size() / p.h * y]);
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    std::fclose(f);
}

void writeJpeg(const std::string &path, const Pic &p, const std::vector<uint8_t> &icc, bool cmyk) {
    jpeg_compress_struct c;
    jpeg_error_mgr err;
    c.err = jpeg_std_error(&err);
    jpeg_create_compress(&c);
    unsigned char *buffer = nullptr;
    unsigned long size = 0;
    jpeg_mem_dest(&c, &buffer, &size);
    c.image_width = p.w, c.image_height = p.h, c.input_components = p.c;
    c.in_color_space = cmyk ? JCS_CMYK : p.c == 1 ? JCS_GRAYSCALE : JCS_RGB;
    jpeg_set_defaults(&c);
    jpeg_set_quality(&c, 95, TRUE);
    jpeg_start_compress(&c, TRUE);
    if (!icc.empty()) jpeg_write_icc_profile(&c, icc.data(), unsigned(icc.size()));
    std::vector<uint8_t> bytes = raw(p);
    if (cmyk)
        for (uint8_t &v : bytes) v = uint8_t(255 - v);  // Adobe CMYK is stored inverted
    while (c.next_scanline < c.image_height) {
        JSAMPROW line = &bytes[size_t(c.next_scanline) * p.w * p.c];
        jpeg_write_scanlines(&c, &line, 1);
    }
    jpeg_finish_compress(&c);
    jpeg_destroy_compress(&c);
    spill(path, buffer, size);
    std::free(buffer);
}

void writeTiff(const std::string &path, const Pic &p, uint16_t compression, bool tiled, bool planes,
               const std::vector<uint8_t> &icc) {
    TIFF *t = TIFFOpen(path.c_str(), "w");
    ASSERT_TRUE(t);
    TIFFSetField(t, TIFFTAG_IMAGEWIDTH, uint32_t(p.w));
    TIFFSetField(t, TIFFTAG_IMAGELENGTH, uint32_t(p.h));
    TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, uint16_t(p.depth));
    TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, uint16_t(p.c));
    TIFFSetField(t, TIFFTAG_PHOTOMETRIC, p.c <= 2 ? PHOTOMETRIC_MINISBLACK : PHOTOMETRIC_RGB);
    TIFFSetField(t, TIFFTAG_PLANARCONFIG, planes ? PLANARCONFIG_SEPARATE : PLANARCONFIG_CONTIG);
    TIFFSetField(t, TIFFTAG_COMPRESSION, compression);
    if (p.c % 2 == 0) {
        const uint16_t kind = EXTRASAMPLE_UNASSALPHA;
        TIFFSetField(t, TIFFTAG_EXTRASAMPLES, uint16_t(1), &kind);
    }
    if (!icc.empty()) TIFFSetField(t, TIFFTAG_ICCPROFILE, uint32_t(icc.size()), icc.data());
    const std::vector<uint8_t> bytes = raw(p);  // libtiff takes host order
    const size_t size = p.depth / 8, perBlock = planes ? 1 : p.c;
    const uint32_t bw = tiled ? 16 : uint32_t(p.w), bh = tiled ? 16 : 3;
    if (tiled)
        TIFFSetField(t, TIFFTAG_TILEWIDTH, bw), TIFFSetField(t, TIFFTAG_TILELENGTH, bh);
    else
        TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, bh);
    // Blocks of one plane (or of all samples), zero beyond the picture's edges.
    for (int plane = 0; plane < (planes ? p.c : 1); ++plane)
        for (uint32_t by = 0; by < uint32_t(p.h); by += bh)
            for (uint32_t bx = 0; bx < uint32_t(p.w); bx += bw) {
                std::vector<uint8_t> block(bw * bh * perBlock * size);
                for (uint32_t y = by; y < std::min<uint32_t>(by + bh, p.h); ++y)
                    for (uint32_t x = bx; x < std::min<uint32_t>(bx + bw, p.w); ++x)
                        for (size_t s = 0; s < perBlock; ++s)
                            std::memcpy(&block[(((y - by) * bw + x - bx) * perBlock + s) * size],
                                        &bytes[((y * p.w + x) * p.c + (planes ? plane : s)) * size],
                                        size);
                if (tiled)
                    TIFFWriteTile(t, block.data(), bx, by, 0, uint16_t(plane));
                else
                    TIFFWriteEncodedStrip(
                        t, TIFFComputeStrip(t, by, uint16_t(plane)), block.data(),
                        tmsize_t(std::min<uint32_t>(bh, p.h - by)) * bw * perBlock * size);
            }
    TIFFClose(t);
}

void writeWebP(const std::string &path, const Pic &p, bool lossless) {
    const std::vector<uint8_t> px = raw(p);
    uint8_t *out = nullptr;
    const int stride = p.w * p.c;
    const auto rgba = p.c == 4;
    const size_t size =
        lossless ? (rgba ? WebPEncodeLosslessRGBA : WebPEncodeLosslessRGB)(px.data(), p.w, p.h,
                                                                           stride, &out)
                 : (rgba ? WebPEncodeRGBA : WebPEncodeRGB)(px.data(), p.w, p.h, stride, 90, &out);
    spill(path, out, size);
    WebPFree(out);
}

// ---------------------------------------------------------------------------
// Readers

namespace {

Pic readPng(const std::string &path, std::vector<uint8_t> &icc) {
    FILE *f = std::fopen(path.c_str(), "rb");
    if (!f) return {};
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    png_init_io(png, f);
    png_read_png(png, info, PNG_TRANSFORM_EXPAND | (kLittle ? PNG_TRANSFORM_SWAP_ENDIAN : 0),
                 nullptr);
    Pic p{int(png_get_image_width(png, info)),
          int(png_get_image_height(png, info)),
          png_get_channels(png, info),
          png_get_bit_depth(png, info),
          {}};
    png_bytepp rows = png_get_rows(png, info);
    for (int y = 0; y < p.h; ++y) append(p, rows[y], size_t(p.w) * p.c);
    png_charp name;
    png_bytep profile;
    png_uint_32 size;
    int compression;
    if (png_get_iCCP(png, info, &name, &compression, &profile, &size))
        icc.assign(profile, profile + size);
    png_destroy_read_struct(&png, &info, nullptr);
    std::fclose(f);
    return p;
}

Pic readJpeg(const std::string &path, std::vector<uint8_t> &icc) {
    const std::string bytes = slurp(path);
    jpeg_decompress_struct c;
    jpeg_error_mgr err;
    c.err = jpeg_std_error(&err);
    jpeg_create_decompress(&c);
    jpeg_mem_src(&c, reinterpret_cast<const unsigned char *>(bytes.data()), bytes.size());
    jpeg_save_markers(&c, JPEG_APP0 + 2, 0xFFFF);
    jpeg_read_header(&c, TRUE);
    JOCTET *profile = nullptr;
    unsigned size = 0;
    if (jpeg_read_icc_profile(&c, &profile, &size)) icc.assign(profile, profile + size);
    std::free(profile);
    jpeg_start_decompress(&c);
    Pic p{int(c.output_width), int(c.output_height), c.output_components, 8, {}};
    std::vector<uint8_t> row(size_t(p.w) * p.c);
    while (c.output_scanline < c.output_height) {
        JSAMPROW line = row.data();
        jpeg_read_scanlines(&c, &line, 1);
        append(p, line, row.size());
    }
    jpeg_finish_decompress(&c);
    jpeg_destroy_decompress(&c);
    return p;
}

Pic readTiff(const std::string &path, std::vector<uint8_t> &icc) {
    TIFF *t = TIFFOpen(path.c_str(), "r");
    if (!t) return {};
    uint32_t w = 0, h = 0;
    uint16_t bits = 8, spp = 1;
    TIFFGetField(t, TIFFTAG_IMAGEWIDTH, &w);
    TIFFGetField(t, TIFFTAG_IMAGELENGTH, &h);
    TIFFGetFieldDefaulted(t, TIFFTAG_BITSPERSAMPLE, &bits);
    TIFFGetFieldDefaulted(t, TIFFTAG_SAMPLESPERPIXEL, &spp);
    Pic p{int(w), int(h), spp, bits, {}};
    std::vector<uint8_t> row(size_t(TIFFScanlineSize(t)));
    for (uint32_t y = 0; y < h; ++y)
        TIFFReadScanline(t, row.data(), y, 0), append(p, row.data(), size_t(w) * spp);
    uint32_t size = 0;
    void *profile = nullptr;
    if (TIFFGetField(t, TIFFTAG_ICCPROFILE, &size, &profile))
        icc.assign(static_cast<uint8_t *>(profile), static_cast<uint8_t *>(profile) + size);
    TIFFClose(t);
    return p;
}

Pic readWebP(const std::string &path, std::vector<uint8_t> &icc) {
    const std::string bytes = slurp(path);
    const auto *data = reinterpret_cast<const uint8_t *>(bytes.data());
    WebPBitstreamFeatures features;
    if (WebPGetFeatures(data, bytes.size(), &features) != VP8_STATUS_OK) return {};
    Pic p{features.width, features.height, features.has_alpha ? 4 : 3, 8, {}};
    int w, h;
    uint8_t *px = features.has_alpha ? WebPDecodeRGBA(data, bytes.size(), &w, &h)
                                     : WebPDecodeRGB(data, bytes.size(), &w, &h);
    p.px.assign(px, px + size_t(w) * h * p.c);
    WebPFree(px);
    const WebPData whole{data, bytes.size()};
    WebPDemuxer *demux = WebPDemux(&whole);
    WebPChunkIterator chunk;
    if (demux && WebPDemuxGetChunk(demux, "ICCP", 1, &chunk)) {
        icc.assign(chunk.chunk.bytes, chunk.chunk.bytes + chunk.chunk.size);
        WebPDemuxReleaseChunkIterator(&chunk);
    }
    WebPDemuxDelete(demux);
    return p;
}

Pic readAny(const std::string &path, std::vector<uint8_t> &icc) {
    const std::string head = slurp(path).substr(0, 12);
    if (head.starts_with("\x89PNG")) return readPng(path, icc);
    if (head.starts_with("\xFF\xD8")) return readJpeg(path, icc);
    if (head.starts_with("II") || head.starts_with("MM")) return readTiff(path, icc);
    if (head.starts_with("RIFF")) return readWebP(path, icc);
    return {};
}

}  // namespace

Pic readPic(const std::string &path) {
    std::vector<uint8_t> icc;
    return readAny(path, icc);
}

std::vector<uint8_t> iccOf(const std::string &path) {
    std::vector<uint8_t> icc;
    readAny(path, icc);
    return icc;
}

uint16_t tiffCompression(const std::string &path) {
    TIFF *t = TIFFOpen(path.c_str(), "r");
    uint16_t compression = 0;
    if (t) TIFFGetField(t, TIFFTAG_COMPRESSION, &compression), TIFFClose(t);
    return compression;
}

// ---------------------------------------------------------------------------
// Metadata

#ifdef MORVEN_TOOL_TEST_EXIV2
void addMetadata(const std::string &path, const std::map<std::string, std::string> &values) {
    auto image = Exiv2::ImageFactory::open(path);
    image->readMetadata();
    for (const auto &[key, value] : values) {
        if (key.starts_with("Exif."))
            image->exifData()[key] = value;
        else if (key.starts_with("Xmp."))
            image->xmpData()[key] = value;
        else
            image->iptcData()[key] = value;
    }
    image->writeMetadata();
}

std::map<std::string, std::string> metadataOf(const std::string &path) {
    auto image = Exiv2::ImageFactory::open(path);
    image->readMetadata();
    std::map<std::string, std::string> values;
    for (const auto &d : image->exifData()) values[d.key()] = d.toString();
    for (const auto &d : image->xmpData()) values[d.key()] = d.toString();
    for (const auto &d : image->iptcData()) values[d.key()] = d.toString();
    return values;
}
#else
void addMetadata(const std::string &, const std::map<std::string, std::string> &) {}
std::map<std::string, std::string> metadataOf(const std::string &) { return {}; }
#endif

// ---------------------------------------------------------------------------
// Colour

namespace {

std::vector<uint8_t> saved(cmsHPROFILE profile) {
    // (Asked for its size first, Little CMS answers 0 for a profile with a
    // table; a buffer large enough is given instead.)
    std::vector<uint8_t> bytes(1 << 20);
    cmsIOHANDLER *io =
        cmsOpenIOhandlerFromMem(nullptr, bytes.data(), cmsUInt32Number(bytes.size()), "w");
    bytes.resize(cmsSaveProfileToIOhandler(profile, io));
    cmsCloseIOhandler(io);
    cmsCloseProfile(profile);
    return bytes;
}

cmsToneCurve *srgbCurve() {
    const cmsFloat64Number srgb[5] = {2.4, 1 / 1.055, 0.055 / 1.055, 1 / 12.92, 0.04045};
    return cmsBuildParametricToneCurve(nullptr, 4, srgb);
}

std::vector<uint8_t> rgbProfile(const cmsCIExyYTRIPLE &primaries, const char *name) {
    cmsToneCurve *curve = srgbCurve();
    cmsToneCurve *curves[3] = {curve, curve, curve};
    cmsCIExyY d65;
    cmsWhitePointFromTemp(&d65, 6504);
    cmsHPROFILE profile = cmsCreateRGBProfile(&d65, &primaries, curves);
    cmsMLU *description = cmsMLUalloc(nullptr, 1);
    cmsMLUsetASCII(description, "en", "US", name);
    cmsWriteTag(profile, cmsSigProfileDescriptionTag, description);
    cmsMLUfree(description);
    cmsFreeToneCurve(curve);
    return saved(profile);
}

cmsHPROFILE open(const std::vector<uint8_t> &icc, bool gray) {
    if (!icc.empty()) return cmsOpenProfileFromMem(icc.data(), cmsUInt32Number(icc.size()));
    if (!gray) return cmsCreate_sRGBProfile();
    cmsToneCurve *curve = srgbCurve();
    cmsHPROFILE profile = cmsCreateGrayProfile(cmsD50_xyY(), curve);
    cmsFreeToneCurve(curve);
    return profile;
}

cmsUInt32Number format(int c, int depth, bool cmyk = false) {
    const cmsUInt32Number bytes = BYTES_SH(depth / 8);
    if (cmyk) return COLORSPACE_SH(PT_CMYK) | CHANNELS_SH(4) | bytes;
    return (c <= 2 ? COLORSPACE_SH(PT_GRAY) | CHANNELS_SH(1)
                   : COLORSPACE_SH(PT_RGB) | CHANNELS_SH(3)) |
           EXTRA_SH(c % 2 == 0 ? 1 : 0) | bytes;
}

// p converted from profile a to b (both closed here) into outChannels of outDepth bits.
Pic run(cmsHPROFILE a, cmsHPROFILE b, const Pic &p, cmsUInt32Number in, int outChannels,
        int outDepth, cmsUInt32Number flags) {
    cmsHTRANSFORM t = cmsCreateTransform(a, in, b, format(outChannels, outDepth),
                                         INTENT_RELATIVE_COLORIMETRIC, flags | cmsFLAGS_NOCACHE);
    cmsCloseProfile(a);
    cmsCloseProfile(b);
    const size_t n = size_t(p.w) * p.h * outChannels;
    std::vector<uint8_t> out(n * (outDepth / 8));
    cmsDoTransform(t, raw(p).data(), out.data(), cmsUInt32Number(p.w * p.h));
    cmsDeleteTransform(t);
    Pic result{p.w, p.h, outChannels, outDepth, {}};
    append(result, out.data(), n);
    return result;
}

// CMYK ink to Lab: each ink takes away its share of red, green or blue,
// black of all three; the result is taken as sRGB.
cmsInt32Number inkModel(const cmsUInt16Number in[], cmsUInt16Number out[], void *) {
    const double k = in[3] / 65535.0;
    double rgb[3];
    for (int i = 0; i < 3; ++i) rgb[i] = (1 - in[i] / 65535.0) * (1 - k);
    cmsHPROFILE srgb = cmsCreate_sRGBProfile(), lab = cmsCreateLab4Profile(nullptr);
    cmsHTRANSFORM t =
        cmsCreateTransform(srgb, TYPE_RGB_DBL, lab, TYPE_Lab_DBL, INTENT_RELATIVE_COLORIMETRIC, 0);
    cmsCIELab value;
    cmsDoTransform(t, rgb, &value, 1);
    cmsDeleteTransform(t);
    cmsCloseProfile(srgb);
    cmsCloseProfile(lab);
    cmsFloat2LabEncoded(out, &value);
    return TRUE;
}

}  // namespace

std::vector<uint8_t> p3Profile() {
    return rgbProfile({{0.680, 0.320, 1}, {0.265, 0.690, 1}, {0.150, 0.060, 1}},
                      "Display P3 (test)");
}
std::vector<uint8_t> adobeProfile() {
    return rgbProfile({{0.640, 0.330, 1}, {0.210, 0.710, 1}, {0.150, 0.060, 1}},
                      "Adobe RGB (test)");
}

std::vector<uint8_t> cmykProfile() {
    cmsHPROFILE profile = cmsCreateProfilePlaceholder(nullptr);
    cmsSetProfileVersion(profile, 2.1);  // a lone table is a v2 lut16
    cmsSetDeviceClass(profile, cmsSigOutputClass);
    cmsSetColorSpace(profile, cmsSigCmykData);
    cmsSetPCS(profile, cmsSigLabData);
    cmsPipeline *pipeline = cmsPipelineAlloc(nullptr, 4, 3);
    cmsStage *clut = cmsStageAllocCLut16bit(nullptr, 5, 4, 3, nullptr);
    cmsStageSampleCLut16bit(clut, inkModel, nullptr, 0);
    cmsPipelineInsertStage(pipeline, cmsAT_BEGIN, clut);
    cmsWriteTag(profile, cmsSigAToB0Tag, pipeline);
    cmsWriteTag(profile, cmsSigMediaWhitePointTag, cmsD50_XYZ());
    cmsPipelineFree(pipeline);
    return saved(profile);
}

Pic convert(const Pic &p, const std::vector<uint8_t> &from, const std::vector<uint8_t> &to) {
    cmsHPROFILE a = open(from, p.c <= 2), b = open(to, p.c <= 2);
    const int colours = cmsGetColorSpace(b) == cmsSigGrayData ? 1 : 3;
    return run(a, b, p, format(p.c, p.depth), colours + (p.c % 2 == 0 ? 1 : 0), 16,
               cmsFLAGS_COPY_ALPHA);
}

Pic cmykToSrgb(const Pic &ink, const std::vector<uint8_t> &profile) {
    return run(open(profile, false), cmsCreate_sRGBProfile(), ink, format(4, 8, true), 3, 8,
               cmsFLAGS_BLACKPOINTCOMPENSATION);
}

// ---------------------------------------------------------------------------
// The library

namespace {

struct ImageDeleter {
    void operator()(wzImage *p) const { wzImageRelease(&p); }
};
using Image = std::unique_ptr<wzImage, ImageDeleter>;

Image image(const Pic &p) {
    static const uint32_t encodings[] = {0, wzEncodingGray, 0, wzEncodingRGB, wzEncodingRGBA};
    Image img(wzImageCreateWithType(p.w, p.h, encodings[p.c], p.depth == 8 ? wzType8U : wzType16U));
    const std::vector<uint8_t> bytes = raw(p);
    std::memcpy(img->data, bytes.data(), bytes.size());
    return img;
}

Pic pic(const wzImage *img, const Pic &like) {
    Pic out{like.w, like.h, like.c, like.depth, {}};
    append(out, img->data, like.px.size());
    return out;
}

Image mask(const std::vector<uint8_t> &plane, int w, int h) {
    if (plane.empty()) return nullptr;
    Image img(wzImageCreate(w, h, wzEncodingGray));
    std::memcpy(img->data, plane.data(), plane.size());
    return img;
}

std::vector<uint8_t> both(std::vector<uint8_t> a, const std::vector<uint8_t> &b) {
    if (a.empty()) return b;
    for (size_t i = 0; i < b.size(); ++i) a[i] = a[i] && b[i] ? 255 : 0;
    return a;
}

}  // namespace

std::vector<uint8_t> opaque(const Pic &p) {
    if (p.c % 2) return {};
    std::vector<uint8_t> m(size_t(p.w) * p.h);
    bool hidden = false;
    for (size_t i = 0; i < m.size(); ++i) m[i] = p.px[i * p.c + p.c - 1] ? 255 : 0, hidden |= !m[i];
    return hidden ? m : std::vector<uint8_t>{};
}

Pic libraryTransfer(const Pic &source, const Pic &reference, const Transfer &t) {
    const Image ref = image(reference);
    const Image refMask = mask(both(opaque(reference), t.referenceMask), reference.w, reference.h);
    const Image stats = mask(both(opaque(source), t.statsMask), source.w, source.h);
    const Image blend = mask(t.blendMask, source.w, source.h);
    wzImageColorProfile profile8{};
    std::unique_ptr<wzImageColorProfile16, void (*)(wzImageColorProfile16 *)> profile16(
        wzImageColorProfile16Create(),
        [](wzImageColorProfile16 *p) { wzImageColorProfile16Release(&p); });
    const bool eightBit = t.space == wzSpaceChannels && reference.depth == 8;
    if (eightBit)
        wzImageFillColorProfileMasked(ref.get(), refMask.get(), &profile8);
    else
        wzImageFillColorProfile16(ref.get(), refMask.get(), t.space, profile16.get());
    wzHistogramTransferParams *params = wzHistogramTransferParamsDefault();
    params->targetProfile = &profile8;
    params->matchStrength = t.strength, params->matchFidelity = t.fidelity,
    params->matchMaxStep = t.maxStep;
    params->contrastEnabled = t.contrast, params->contrastHighTail = t.highTail,
    params->contrastLowTail = t.lowTail;
    params->smoothEnabled = t.smooth, params->smoothThreshold = t.threshold,
    params->smoothIterations = t.iterations;
    wzHistogramMatchOptions options{};
    options.space = t.space;
    options.statsMask = stats.get();
    options.targetProfile16 = eightBit ? nullptr : profile16.get();
    wzHistogramTransferSupport *support = wzHistogramTransferSupportCreate();
    const Image src = image(source), dst = image(source);
    const wzStatus status = wzHistogramTransferFilterWithOptions(
        params, &options, support, src.get(), blend.get(), dst.get(), nullptr);
    EXPECT_TRUE(status == WZ_STATUS_OK || status == WZ_STATUS_NO_PIXELS) << status;
    wzHistogramTransferSupportRelease(&support);
    wzHistogramTransferParamsRelease(&params);
    return pic(dst.get(), source);
}

Pic libraryFilter(const std::string &command, const Pic &p, float highTail, float lowTail) {
    const Image img = image(p), m = mask(opaque(p), p.w, p.h);
    wzContrastEnhanceParams *params = wzContrastEnhanceParamsDefault();
    params->highTail = highTail, params->lowTail = lowTail;
    EXPECT_EQ(command == "equalize"  ? wzHistogramEqualizationMasked(img.get(), m.get(), img.get())
              : command == "stretch" ? wzHistogramStretchMasked(img.get(), m.get(), img.get())
                                     : wzContrastEnhanceFilterMasked(params, img.get(), m.get(),
                                                                     nullptr, img.get(), nullptr),
              WZ_STATUS_OK);
    wzContrastEnhanceParamsRelease(&params);
    return pic(img.get(), p);
}

Pic librarySmooth(const Pic &guide, const Pic &input, float threshold, int iterations) {
    const Image g = image(guide), img = image(input);
    wzSelectiveSmoothParams *params = wzSelectiveSmoothParamsDefault();
    params->threshold = threshold, params->iterations = iterations;
    wzSelectiveSmoothSupport *support = wzSelectiveSmoothSupportCreate();
    EXPECT_EQ(input.depth == 8
                  ? wzSelectiveSmooth(params, support, g.get(), img.get(), img.get(), nullptr)
                  : wzSelectiveSmooth16(params, g.get(), img.get(), img.get(), nullptr),
              WZ_STATUS_OK);
    wzSelectiveSmoothSupportRelease(&support);
    wzSelectiveSmoothParamsRelease(&params);
    return pic(img.get(), input);
}

}  // namespace tooltest
