// TIFF through libtiff, in memory: the first image of the file, 1 to 16 bits
// per sample, gray (either polarity), palette, RGB, CMYK and YCbCr-in-JPEG,
// with or without alpha, striped or tiled, interleaved or in separate planes,
// with whatever compression libtiff was built with. Written as Deflate with
// horizontal prediction, 8 or 16 bits, unassociated alpha.
//
// Errors reach this code through per-handle handlers (no global state), so
// concurrent decodes keep their messages apart.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>

#include <tiffio.h>

#include "codecs.hpp"
#include "core/limits.hpp"

namespace morven::tool {
namespace {

// A file in memory for libtiff's client interface: read from `in`, or
// written into `out`.
struct MemoryFile {
    Bytes in;
    std::vector<uint8_t> *out = nullptr;
    uint64_t pos = 0;
    char message[256] = {};
};

MemoryFile &fileOf(thandle_t h) { return *static_cast<MemoryFile *>(h); }

tmsize_t readProc(thandle_t h, void *buffer, tmsize_t n) {
    MemoryFile &f = fileOf(h);
    if (n < 0 || f.pos >= f.in.size()) return 0;
    const size_t count = std::min<uint64_t>(uint64_t(n), f.in.size() - f.pos);
    std::memcpy(buffer, f.in.data() + f.pos, count);
    f.pos += count;
    return tmsize_t(count);
}

tmsize_t writeProc(thandle_t h, void *buffer, tmsize_t n) {
    MemoryFile &f = fileOf(h);
    if (!f.out || n < 0) return -1;
    try {
        if (f.pos + uint64_t(n) > f.out->size()) f.out->resize(size_t(f.pos + uint64_t(n)));
    } catch (const std::bad_alloc &) {
        return -1;
    }
    std::memcpy(f.out->data() + f.pos, buffer, size_t(n));
    f.pos += uint64_t(n);
    return n;
}

toff_t seekProc(thandle_t h, toff_t offset, int whence) {
    MemoryFile &f = fileOf(h);
    const uint64_t size = f.out ? f.out->size() : f.in.size();
    switch (whence) {
        case SEEK_SET: f.pos = offset; break;
        case SEEK_CUR: f.pos += offset; break;
        case SEEK_END: f.pos = size + offset; break;
        default: return toff_t(-1);
    }
    return f.pos;
}

int closeProc(thandle_t) { return 0; }
toff_t sizeProc(thandle_t h) { return fileOf(h).out ? fileOf(h).out->size() : fileOf(h).in.size(); }
int mapProc(thandle_t, void **, toff_t *) { return 0; }
void unmapProc(thandle_t, void *, toff_t) {}

int onError(TIFF *, void *user, const char *, const char *format, va_list args) {
    char *message = static_cast<MemoryFile *>(user)->message;
    if (!message[0]) std::vsnprintf(message, sizeof MemoryFile::message, format, args);
    return 1;
}

int onWarning(TIFF *, void *, const char *, const char *, va_list) { return 1; }

struct TiffCloser {
    void operator()(TIFF *tif) const { TIFFClose(tif); }
};
using TiffHandle = std::unique_ptr<TIFF, TiffCloser>;

TiffHandle open(MemoryFile &file, const char *mode) {
    const std::unique_ptr<TIFFOpenOptions, void (*)(TIFFOpenOptions *)> options(
        TIFFOpenOptionsAlloc(), TIFFOpenOptionsFree);
    if (!options) throw std::bad_alloc();
    TIFFOpenOptionsSetErrorHandlerExtR(options.get(), onError, &file);
    TIFFOpenOptionsSetWarningHandlerExtR(options.get(), onWarning, &file);
    // libtiff's own buffers (directories, compressed strips); the pixel
    // buffers are ours and checked below.
    TIFFOpenOptionsSetMaxSingleMemAlloc(options.get(), tmsize_t(1) << 30);
    return TiffHandle(TIFFClientOpenExt("memory", mode, &file, readProc, writeProc, seekProc,
                                        closeProc, sizeProc, mapProc, unmapProc, options.get()));
}

// What the decoder makes of the file's tags.
struct Layout {
    uint32_t width = 0, height = 0;
    uint16_t bits = 1, samples = 1, photometric = 0, planar = PLANARCONFIG_CONTIG;
    int colours = 1;     // samples that carry colour (1, 3, or 4 for CMYK)
    bool alpha = false;  // the sample after the colours is alpha
    bool associated = false;
    bool palette = false;
    bool whiteIsZero = false;
};

[[noreturn]] void refuse(const std::string &path, const std::string &what) {
    throw FileError(path, "unsupported TIFF: " + what);
}

Layout layoutOf(const std::string &path, TIFF *tif) {
    Layout l;
    uint16_t format = SAMPLEFORMAT_UINT, compression = COMPRESSION_NONE;
    if (!TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &l.width) ||
        !TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &l.height))
        throw FileError(path, "corrupt TIFF file: no image size");
    checkDeclaredSize(path, l.width, l.height);
    TIFFGetFieldDefaulted(tif, TIFFTAG_BITSPERSAMPLE, &l.bits);
    TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLESPERPIXEL, &l.samples);
    TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLEFORMAT, &format);
    TIFFGetFieldDefaulted(tif, TIFFTAG_PLANARCONFIG, &l.planar);
    TIFFGetFieldDefaulted(tif, TIFFTAG_COMPRESSION, &compression);
    if (!TIFFGetField(tif, TIFFTAG_PHOTOMETRIC, &l.photometric))
        l.photometric = l.samples >= 3 ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK;
    if (format != SAMPLEFORMAT_UINT && format != SAMPLEFORMAT_VOID)
        refuse(path, "floating-point or signed samples (unsigned 1 to 16 bits are read)");
    if (!TIFFIsCODECConfigured(compression))
        refuse(path, "compression " + std::to_string(compression));

    switch (l.photometric) {
        case PHOTOMETRIC_MINISWHITE: l.whiteIsZero = true; [[fallthrough]];
        case PHOTOMETRIC_MINISBLACK: l.colours = 1; break;
        case PHOTOMETRIC_PALETTE: l.colours = 1, l.palette = true; break;
        case PHOTOMETRIC_RGB: l.colours = 3; break;
        case PHOTOMETRIC_SEPARATED: {
            uint16_t inks = INKSET_CMYK;
            TIFFGetFieldDefaulted(tif, TIFFTAG_INKSET, &inks);
            if (inks != INKSET_CMYK) refuse(path, "separated inks other than CMYK");
            l.colours = 4;
            break;
        }
        case PHOTOMETRIC_YCBCR:
            if (compression != COMPRESSION_JPEG) refuse(path, "YCbCr without JPEG compression");
            // libjpeg converts to RGB while decoding.
            TIFFSetField(tif, TIFFTAG_JPEGCOLORMODE, JPEGCOLORMODE_RGB);
            l.colours = 3;
            break;
        default: refuse(path, "photometric interpretation " + std::to_string(l.photometric));
    }
    if (l.samples < l.colours)
        throw FileError(path, "corrupt TIFF file: too few samples per pixel");
    const bool bitsOk = l.colours == 1 ? (l.bits == 1 || l.bits == 2 || l.bits == 4 ||
                                          l.bits == 8 || (l.bits == 16 && !l.palette))
                                       : (l.bits == 8 || l.bits == 16);
    if (!bitsOk) refuse(path, std::to_string(l.bits) + " bits per sample");
    // Samples beyond colour and alpha are decoded, then dropped: what a file
    // declares may not exceed what the largest accepted picture holds.
    const uint64_t declared = (uint64_t(l.width) * l.samples * l.bits + 7) / 8 * l.height;
    if (declared > kMaxPixels * 8)
        throw FileError(path, std::to_string(l.samples) + " samples of " + std::to_string(l.bits) +
                                  " bits per pixel at " + std::to_string(l.width) + " x " +
                                  std::to_string(l.height) + " are over the limit (" +
                                  describeLimits() + ", four 16-bit samples a pixel)");
    uint16_t extras = 0;
    uint16_t *kinds = nullptr;
    if (l.samples > l.colours && l.colours != 4 && !l.palette &&
        TIFFGetField(tif, TIFFTAG_EXTRASAMPLES, &extras, &kinds) && extras > 0 && kinds) {
        l.alpha = kinds[0] == EXTRASAMPLE_ASSOCALPHA || kinds[0] == EXTRASAMPLE_UNASSALPHA;
        l.associated = kinds[0] == EXTRASAMPLE_ASSOCALPHA;
    }
    return l;
}

// Reads every strip or tile and hands each of its samples to put(x, y,
// sample, value).
template <class Put>
void readBlocks(const std::string &path, TIFF *tif, const Layout &l, MemoryFile &file, Put &&put) {
    const bool tiled = TIFFIsTiled(tif);
    uint32_t blockWidth = l.width, blockHeight = 0;
    if (tiled) {
        TIFFGetField(tif, TIFFTAG_TILEWIDTH, &blockWidth);
        TIFFGetField(tif, TIFFTAG_TILELENGTH, &blockHeight);
    } else {
        TIFFGetFieldDefaulted(tif, TIFFTAG_ROWSPERSTRIP, &blockHeight);
        blockHeight = std::min(blockHeight, l.height);
    }
    if (blockWidth == 0 || blockHeight == 0)
        throw FileError(path, "corrupt TIFF file: empty strips or tiles");
    const bool contig = l.planar == PLANARCONFIG_CONTIG || l.samples == 1;
    const uint32_t perBlock = contig ? l.samples : 1;
    const uint64_t rowBytes = (uint64_t(blockWidth) * perBlock * l.bits + 7) / 8;
    const uint64_t blockBytes = rowBytes * blockHeight;
    // A block may be larger than the picture (tiles overhang its edges), but
    // not without bound: a few bytes must not claim gigabytes.
    const uint64_t pictureBytes = uint64_t(l.width) * l.height * l.samples * ((l.bits + 7) / 8);
    if (blockBytes > 2 * pictureBytes + (uint64_t(1) << 24))
        throw FileError(path, "corrupt TIFF file: strips or tiles far larger than the picture");
    std::vector<uint8_t> block(static_cast<size_t>(blockBytes));
    const uint32_t mask = (1u << std::min<int>(l.bits, 16)) - 1;

    const uint16_t planes = contig ? 1 : l.samples;
    for (uint16_t plane = 0; plane < planes; ++plane)
        for (uint32_t by = 0; by < l.height; by += blockHeight)
            for (uint32_t bx = 0; bx < l.width; bx += blockWidth) {
                if (cancelled()) throw Interrupted();
                const tmsize_t got =
                    tiled ? TIFFReadEncodedTile(tif, TIFFComputeTile(tif, bx, by, 0, plane),
                                                block.data(), tmsize_t(blockBytes))
                          : TIFFReadEncodedStrip(tif, TIFFComputeStrip(tif, by, plane),
                                                 block.data(), tmsize_t(blockBytes));
                if (got < 0)
                    throw FileError(path,
                                    std::string("corrupt TIFF file: ") +
                                        (file.message[0] ? file.message : "unreadable image data"));
                const uint32_t rows = std::min(blockHeight, l.height - by);
                const uint32_t columns = std::min(blockWidth, l.width - bx);
                for (uint32_t r = 0; r < rows; ++r) {
                    const uint8_t *row = block.data() + r * rowBytes;
                    for (uint32_t c = 0; c < columns; ++c)
                        for (uint32_t s = 0; s < perBlock; ++s) {
                            const uint64_t k = uint64_t(c) * perBlock + s;
                            uint32_t v;
                            if (l.bits == 16) {
                                uint16_t wide;
                                std::memcpy(&wide, row + 2 * k,
                                            2);  // libtiff swapped it to host order
                                v = wide;
                            } else if (l.bits == 8) {
                                v = row[k];
                            } else {
                                const uint64_t bit = k * l.bits;
                                v = (row[bit / 8] >> (8 - l.bits - bit % 8)) & mask;
                            }
                            put(bx + c, by + r, contig ? s : plane, v);
                        }
                }
            }
}

}  // namespace

Picture decodeTiff(const std::string &path, Bytes bytes) {
    MemoryFile file;
    file.in = bytes;
    const TiffHandle tif = open(file, "rm");
    if (!tif)
        throw FileError(path, std::string("corrupt TIFF file: ") +
                                  (file.message[0] ? file.message : "unreadable"));
    const Layout l = layoutOf(path, tif.get());

    Picture pic;
    pic.format = Format::Tiff;
    pic.fileDepth = l.bits;
    const int bits = l.bits == 16 ? 16 : 8;
    const int channels = l.colours + (l.alpha ? 1 : 0);
    pic.allocate(int(l.width), int(l.height), channels, bits);
    pic.cmyk = l.colours == 4;
    // 1, 2 and 4-bit levels are spread over 0..255; palette indices are kept.
    const uint32_t top = (1u << l.bits) - 1;
    const bool spread = l.bits < 8 && !l.palette;
    readBlocks(path, tif.get(), l, file, [&](uint32_t x, uint32_t y, uint32_t sample, uint32_t v) {
        if (sample >= uint32_t(channels)) return;
        pic.setSample((size_t(y) * l.width + x) * size_t(channels) + sample,
                      spread ? v * 255 / top : v);
    });

    const uint32_t max = pic.maxValue();
    if (l.whiteIsZero)
        for (size_t i = 0; i < pic.sampleCount(); i += size_t(channels))
            pic.setSample(i, max - pic.sample(i));
    if (l.associated)
        for (size_t i = 0; i < pic.sampleCount(); i += size_t(channels)) {
            const uint32_t a = pic.sample(i + size_t(channels) - 1);
            for (int c = 0; c < l.colours && a > 0; ++c)
                pic.setSample(i + size_t(c),
                              std::min(max, (pic.sample(i + size_t(c)) * max + a / 2) / a));
        }
    if (l.palette) {
        uint16_t *red = nullptr, *green = nullptr, *blue = nullptr;
        if (!TIFFGetField(tif.get(), TIFFTAG_COLORMAP, &red, &green, &blue) || !red || !green ||
            !blue)
            throw FileError(path, "corrupt TIFF file: palette picture without a palette");
        const size_t entries = size_t(1) << l.bits;
        // Some writers put 8-bit values in the 16-bit palette.
        bool eightBit = true;
        for (size_t i = 0; i < entries; ++i)
            eightBit &= red[i] < 256 && green[i] < 256 && blue[i] < 256;
        const auto level = [&](uint16_t v) { return uint8_t(eightBit ? v : (v + 128u) / 257u); };
        Picture rgb = pic;
        rgb.allocate(pic.width, pic.height, 3, 8);
        for (size_t i = 0; i < pic.pixelCount(); ++i) {
            const uint8_t index = pic.samples8[i];
            rgb.samples8[3 * i] = level(red[index]);
            rgb.samples8[3 * i + 1] = level(green[index]);
            rgb.samples8[3 * i + 2] = level(blue[index]);
        }
        pic = std::move(rgb);
    }

    uint32_t iccSize = 0;
    void *icc = nullptr;
    if (TIFFGetField(tif.get(), TIFFTAG_ICCPROFILE, &iccSize, &icc) && icc && iccSize &&
        iccSize <= kMaxEmbeddedBytes)
        pic.icc.assign(static_cast<uint8_t *>(icc), static_cast<uint8_t *>(icc) + iccSize);
    float xres = 0, yres = 0;
    uint16_t unit = RESUNIT_INCH;
    if (TIFFGetField(tif.get(), TIFFTAG_XRESOLUTION, &xres) &&
        TIFFGetField(tif.get(), TIFFTAG_YRESOLUTION, &yres) && xres > 0 && yres > 0) {
        TIFFGetFieldDefaulted(tif.get(), TIFFTAG_RESOLUTIONUNIT, &unit);
        pic.resolution = {xres, yres,
                          unit == RESUNIT_INCH         ? Resolution::Unit::Inch
                          : unit == RESUNIT_CENTIMETER ? Resolution::Unit::Centimetre
                                                       : Resolution::Unit::None};
    }
    return pic;
}

const char *tiffCompressionName(TiffCompression compression) {
    switch (compression) {
        case TiffCompression::None: return "none";
        case TiffCompression::Lzw: return "lzw";
        case TiffCompression::Deflate: break;
    }
    return "deflate";
}

TiffCompression tiffCompressionNamed(const std::string &name) {
    for (const TiffCompression c :
         {TiffCompression::None, TiffCompression::Lzw, TiffCompression::Deflate})
        if (name == tiffCompressionName(c)) return c;
    throw std::invalid_argument("TIFF compression must be none, lzw or deflate, got '" + name +
                                "'");
}

std::vector<uint8_t> encodeTiff(const Picture &pic, TiffCompression compression) {
    std::vector<uint8_t> out;
    MemoryFile file;
    file.out = &out;
    {
        const TiffHandle tif = open(file, "w");
        if (!tif) throw std::runtime_error(std::string("TIFF encoder failed: ") + file.message);
        TIFF *t = tif.get();
        TIFFSetField(t, TIFFTAG_IMAGEWIDTH, uint32_t(pic.width));
        TIFFSetField(t, TIFFTAG_IMAGELENGTH, uint32_t(pic.height));
        TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, uint16_t(pic.depth));
        TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, uint16_t(pic.channels));
        TIFFSetField(t, TIFFTAG_PHOTOMETRIC,
                     pic.isGray() ? PHOTOMETRIC_MINISBLACK : PHOTOMETRIC_RGB);
        TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
        if (pic.hasAlpha()) {
            const uint16_t kind = EXTRASAMPLE_UNASSALPHA;
            TIFFSetField(t, TIFFTAG_EXTRASAMPLES, uint16_t(1), &kind);
        }
        // Both lossless coders with horizontal prediction, which suits photographs.
        if (compression == TiffCompression::None) {
            TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_NONE);
        } else {
            TIFFSetField(
                t, TIFFTAG_COMPRESSION,
                compression == TiffCompression::Lzw ? COMPRESSION_LZW : COMPRESSION_ADOBE_DEFLATE);
            TIFFSetField(t, TIFFTAG_PREDICTOR, PREDICTOR_HORIZONTAL);
        }
        TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(t, 0));
        if (!pic.icc.empty())
            TIFFSetField(t, TIFFTAG_ICCPROFILE, uint32_t(pic.icc.size()), pic.icc.data());
        if (pic.resolution.known()) {
            TIFFSetField(t, TIFFTAG_XRESOLUTION, float(pic.resolution.x));
            TIFFSetField(t, TIFFTAG_YRESOLUTION, float(pic.resolution.y));
            TIFFSetField(t, TIFFTAG_RESOLUTIONUNIT,
                         pic.resolution.unit == Resolution::Unit::Inch         ? RESUNIT_INCH
                         : pic.resolution.unit == Resolution::Unit::Centimetre ? RESUNIT_CENTIMETER
                                                                               : RESUNIT_NONE);
        }
        // libtiff may change a row while encoding it (prediction): each is
        // copied first.
        const size_t rowBytes = size_t(pic.width) * size_t(pic.channels) * size_t(pic.depth / 8);
        std::vector<uint8_t> row(rowBytes);
        const auto *base = static_cast<const uint8_t *>(pic.data());
        for (int y = 0; y < pic.height; ++y) {
            std::memcpy(row.data(), base + size_t(y) * rowBytes, rowBytes);
            if (TIFFWriteScanline(t, row.data(), uint32_t(y), 0) < 0)
                throw std::runtime_error(std::string("TIFF encoder failed: ") + file.message);
        }
        if (!TIFFWriteDirectory(t))
            throw std::runtime_error(std::string("TIFF encoder failed: ") + file.message);
    }  // closing flushes
    if (file.message[0])
        throw std::runtime_error(std::string("TIFF encoder failed: ") + file.message);
    return out;
}

}  // namespace morven::tool
