// PNG through libpng. libpng reports fatal errors through a callback that
// must not return: it records the message and longjmps back to the one
// function that called setjmp. Everything libpng allocates lives in its own
// structures, destroyed by guards on every path; pixel buffers are allocated
// before any call that could jump, and no C++ object is ever live in a frame
// that a jump skips.
#include <bit>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <new>
#include <stdexcept>

#include <png.h>

#include "codecs.hpp"
#include "core/limits.hpp"

namespace morven::tool {
namespace {

struct PngSource {
    Bytes bytes;
    size_t pos;
    bool truncated;
    char message[256];
};

void pngRead(png_structp png, png_bytep out, size_t count) {
    auto *src = static_cast<PngSource *>(png_get_io_ptr(png));
    if (src->bytes.size() - src->pos < count) {
        src->truncated = true;
        png_error(png, "unexpected end of data");
    }
    std::memcpy(out, src->bytes.data() + src->pos, count);
    src->pos += count;
}

void pngFail(png_structp png, png_const_charp message) {
    auto *buffer = static_cast<char *>(png_get_error_ptr(png));
    std::snprintf(buffer, 256, "%s", message ? message : "unknown error");
    png_longjmp(png, 1);
}

void pngIgnoreWarning(png_structp, png_const_charp) {}

// Runs body with png's error jump pointing here. Returns false when libpng
// reported an error. body may throw (the exception passes through this plain
// frame); it must keep its state outside its own frame.
template <class Body>
bool pngProtected(png_structp png, Body &&body) {
    if (setjmp(png_jmpbuf(png))) return false;
    body();
    return true;
}

constexpr bool kLittleEndian = std::endian::native == std::endian::little;

}  // namespace

Picture decodePng(const std::string &path, Bytes bytes) {
    PngSource src{bytes, 0, false, {}};
    png_structp png =
        png_create_read_struct(PNG_LIBPNG_VER_STRING, src.message, pngFail, pngIgnoreWarning);
    if (!png) throw std::bad_alloc();
    png_infop info = png_create_info_struct(png);
    struct Guard {
        png_structp *png;
        png_infop *info;
        ~Guard() { png_destroy_read_struct(png, info, nullptr); }
    } guard{&png, &info};
    if (!info) throw std::bad_alloc();

    Picture pic;
    pic.format = Format::Png;
    std::vector<png_bytep> rows;
    const bool ok = pngProtected(png, [&] {
        png_set_read_fn(png, &src, pngRead);
        // The size limit below is ours, with its own message.
        png_set_user_limits(png, 0x7fffffffu, 0x7fffffffu);
        // The ICC profile is kept (decompressed at most to this size); the
        // text and other ancillary chunks are skipped unread: libpng would
        // buffer them whole, and metadata is read by io/metadata.cpp.
        png_set_chunk_malloc_max(png, kMaxEmbeddedBytes);
        static constexpr png_byte kSkipped[] = "sPLT\0tEXt\0zTXt\0iTXt\0eXIf\0pCAL\0sCAL";
        png_set_keep_unknown_chunks(png, PNG_HANDLE_CHUNK_NEVER, kSkipped, 7);
        png_read_info(png, info);
        const png_uint_32 width = png_get_image_width(png, info);
        const png_uint_32 height = png_get_image_height(png, info);
        const int depth = png_get_bit_depth(png, info);
        const int type = png_get_color_type(png, info);
        checkDeclaredSize(path, width, height);
        const uint64_t storedBits =
            uint64_t(width) * height * png_get_channels(png, info) * uint64_t(depth);
        checkDeflateCanHold(path, "PNG", storedBits / 8, src.bytes.size());

        pic.fileDepth = depth;
        if (type == PNG_COLOR_TYPE_PALETTE) png_set_palette_to_rgb(png);
        if (type == PNG_COLOR_TYPE_GRAY && depth < 8) png_set_expand_gray_1_2_4_to_8(png);
        if (png_get_valid(png, info, PNG_INFO_tRNS)) png_set_tRNS_to_alpha(png);
        if (depth == 16 && kLittleEndian) png_set_swap(png);
        png_set_interlace_handling(png);
        png_read_update_info(png, info);

        png_charp name = nullptr;
        png_bytep profile = nullptr;
        png_uint_32 profileSize = 0;
        int compression = 0;
        if (png_get_iCCP(png, info, &name, &compression, &profile, &profileSize) && profile &&
            profileSize)
            pic.icc.assign(profile, profile + profileSize);
        png_uint_32 xres = 0, yres = 0;
        int unit = 0;
        // (An unknown unit with square pixels says nothing.)
        if (png_get_pHYs(png, info, &xres, &yres, &unit) && xres && yres &&
            (unit == PNG_RESOLUTION_METER || xres != yres)) {
            const bool metres = unit == PNG_RESOLUTION_METER;
            pic.resolution = {metres ? xres / 100.0 : double(xres),
                              metres ? yres / 100.0 : double(yres),
                              metres ? Resolution::Unit::Centimetre : Resolution::Unit::None};
        }

        const int bits = depth == 16 ? 16 : 8;
        const int channels = png_get_channels(png, info);
        const size_t stride = size_t(width) * size_t(channels) * size_t(bits / 8);
        if (channels < 1 || channels > 4 || png_get_rowbytes(png, info) != stride)
            png_error(png, "unexpected sample layout");
        pic.allocate(int(width), int(height), channels, bits);
        rows.resize(height);
        auto *base = static_cast<png_bytep>(pic.data());
        for (png_uint_32 y = 0; y < height; ++y) rows[y] = base + y * stride;
        png_read_image(png, rows.data());
        // The chunks after the image data are not needed: a file cut short
        // after its last image row still holds the whole picture.
    });
    if (!ok) {
        if (src.truncated) throw FileError(path, "truncated PNG file (the data ends early)");
        throw FileError(path, std::string("corrupt PNG file: ") + src.message);
    }
    return pic;
}

namespace {

struct PngSink {
    std::vector<uint8_t> *out;
    bool outOfMemory;
};

void pngWrite(png_structp png, png_bytep data, size_t count) {
    auto *sink = static_cast<PngSink *>(png_get_io_ptr(png));
    try {
        sink->out->insert(sink->out->end(), data, data + count);
    } catch (...) {
        sink->outOfMemory = true;
    }
    if (sink->outOfMemory) png_error(png, "out of memory");
}

void pngFlush(png_structp) {}

}  // namespace

std::vector<uint8_t> encodePng(const Picture &pic) {
    std::vector<uint8_t> out;
    PngSink sink{&out, false};
    char message[256] = {};
    png_structp png =
        png_create_write_struct(PNG_LIBPNG_VER_STRING, message, pngFail, pngIgnoreWarning);
    if (!png) throw std::bad_alloc();
    png_infop info = png_create_info_struct(png);
    struct Guard {
        png_structp *png;
        png_infop *info;
        ~Guard() { png_destroy_write_struct(png, info); }
    } guard{&png, &info};
    if (!info) throw std::bad_alloc();

    static constexpr int kTypes[] = {PNG_COLOR_TYPE_GRAY, PNG_COLOR_TYPE_GRAY_ALPHA,
                                     PNG_COLOR_TYPE_RGB, PNG_COLOR_TYPE_RGB_ALPHA};
    const size_t stride = size_t(pic.width) * size_t(pic.channels) * size_t(pic.depth / 8);
    std::vector<png_bytep> rows(size_t(pic.height));
    auto *base = static_cast<png_bytep>(const_cast<void *>(pic.data()));
    for (size_t y = 0; y < rows.size(); ++y) rows[y] = base + y * stride;
    out.reserve(pic.sampleCount() / 2);

    const bool ok = pngProtected(png, [&] {
        png_set_write_fn(png, &sink, pngWrite, pngFlush);
        // A profile libpng finds unfit for the picture is left out with a
        // warning instead of failing the write.
        png_set_benign_errors(png, 1);
        png_set_IHDR(png, info, png_uint_32(pic.width), png_uint_32(pic.height), pic.depth,
                     kTypes[pic.channels - 1], PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                     PNG_FILTER_TYPE_DEFAULT);
        if (!pic.icc.empty())
            png_set_iCCP(png, info, "ICC profile", PNG_COMPRESSION_TYPE_BASE, pic.icc.data(),
                         png_uint_32(pic.icc.size()));
        if (pic.resolution.known()) {
            const bool cm = pic.resolution.unit == Resolution::Unit::Centimetre;
            const double perMetre = pic.resolution.unit == Resolution::Unit::Inch ? 100 / 2.54
                                    : cm                                          ? 100
                                                                                  : 1;
            // NOLINTBEGIN(bugprone-incorrect-roundings): resolutions are positive
            png_set_pHYs(png, info, png_uint_32(pic.resolution.x * perMetre + 0.5),
                         png_uint_32(pic.resolution.y * perMetre + 0.5),
                         pic.resolution.unit == Resolution::Unit::None ? PNG_RESOLUTION_UNKNOWN
                                                                       : PNG_RESOLUTION_METER);
            // NOLINTEND(bugprone-incorrect-roundings)
        }
        // Level 6 costs about twice the time of level 3 for a few per cent.
        png_set_compression_level(png, 3);
        png_write_info(png, info);
        if (pic.depth == 16 && kLittleEndian) png_set_swap(png);
        png_write_image(png, rows.data());
        png_write_end(png, nullptr);
    });
    if (!ok) {
        if (sink.outOfMemory) throw std::bad_alloc();
        throw std::runtime_error(std::string("PNG encoder failed: ") + message);
    }
    return out;
}

}  // namespace morven::tool
