// PNG through libpng and JPEG through libjpeg(-turbo), decoded from memory and
// encoded into memory. Both libraries report fatal errors through a callback
// that must not return: here it records the message and longjmps back to the
// one function that called setjmp. Everything those libraries allocate lives
// in their own structures, destroyed by guards on every path; the pixel
// buffers are allocated by the caller's vector before any library call that
// could jump, and no C++ object is ever live in a frame that a jump skips.
#include "image_io.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>

#include <jpeglib.h>
#include <jerror.h>
#include <png.h>

#include "common.hpp"

namespace morven::tool {
namespace {

namespace fs = std::filesystem;

std::string errnoText(int error) { return std::error_code(error, std::generic_category()).message(); }

std::string quoted(const std::string &s) { return "'" + s + "'"; }

void checkDeclaredSize(const std::string &path, uint64_t width, uint64_t height) {
    if (width == 0 || height == 0)
        throw FileError(path, "corrupt image: it declares a size of " + std::to_string(width) +
                                  " x " + std::to_string(height));
    if (width > kMaxSide || height > kMaxSide || width * height > kMaxPixels)
        throw FileError(path, "image size " + std::to_string(width) + " x " +
                                  std::to_string(height) +
                                  " is over the limit (65535 pixels per side, 2^28 pixels in all)");
}

// ---------------------------------------------------------------------------
// Files

struct FdGuard {
    int fd;
    ~FdGuard() {
        if (fd >= 0) ::close(fd);
    }
};

std::vector<uint8_t> readFileBytes(const std::string &path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) throw FileError(path, "cannot open: " + errnoText(errno));
    FdGuard guard{fd};
    struct stat st {};
    if (::fstat(fd, &st) != 0) throw FileError(path, "cannot read: " + errnoText(errno));
    if (S_ISDIR(st.st_mode)) throw FileError(path, "is a folder, not an image");
    if (S_ISREG(st.st_mode) && uint64_t(st.st_size) > kMaxFileBytes)
        throw FileError(path, "file too large (over 2 GiB)");

    std::vector<uint8_t> bytes;
    bytes.resize(S_ISREG(st.st_mode) ? size_t(st.st_size) : size_t{1} << 16);
    size_t used = 0;
    for (;;) {
        if (used == bytes.size()) {
            if (bytes.size() >= kMaxFileBytes) throw FileError(path, "file too large (over 2 GiB)");
            bytes.resize(std::max<size_t>(bytes.size() * 2, 1 << 16));
        }
        const ssize_t n = ::read(fd, bytes.data() + used, bytes.size() - used);
        if (n < 0) {
            if (errno == EINTR) continue;
            throw FileError(path, "cannot read: " + errnoText(errno));
        }
        if (n == 0) break;
        used += size_t(n);
    }
    bytes.resize(used);
    return bytes;
}

// ---------------------------------------------------------------------------
// PNG

struct PngSource {
    const uint8_t *data;
    size_t size;
    size_t pos;
    bool truncated;
    char message[256];
};

void pngRead(png_structp png, png_bytep out, size_t count) {
    auto *src = static_cast<PngSource *>(png_get_io_ptr(png));
    if (src->size - src->pos < count) {
        src->truncated = true;
        png_error(png, "unexpected end of data");
    }
    std::memcpy(out, src->data + src->pos, count);
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

Picture decodePng(const std::string &path, const std::vector<uint8_t> &bytes) {
    PngSource src{bytes.data(), bytes.size(), 0, false, {}};
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, src.message, pngFail,
                                             pngIgnoreWarning);
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
        // libpng buffers these ancillary chunks whole, at the size their
        // header claims (up to 2 GiB from a file of a few bytes); none of them
        // affects the pixels, so they are skipped unread.
        static constexpr png_byte kSkipped[] = "iCCP\0sPLT\0tEXt\0zTXt\0iTXt\0eXIf\0pCAL\0sCAL";
        png_set_keep_unknown_chunks(png, PNG_HANDLE_CHUNK_NEVER, kSkipped, 8);
        png_read_info(png, info);
        const png_uint_32 width = png_get_image_width(png, info);
        const png_uint_32 height = png_get_image_height(png, info);
        const int depth = png_get_bit_depth(png, info);
        const int type = png_get_color_type(png, info);
        checkDeclaredSize(path, width, height);

        pic.bitDepth = type == PNG_COLOR_TYPE_PALETTE ? 8 : depth;
        if (type == PNG_COLOR_TYPE_PALETTE) png_set_palette_to_rgb(png);
        if (type == PNG_COLOR_TYPE_GRAY && depth < 8) png_set_expand_gray_1_2_4_to_8(png);
        if (png_get_valid(png, info, PNG_INFO_tRNS)) png_set_tRNS_to_alpha(png);
        if (depth == 16) png_set_scale_16(png);
        png_set_interlace_handling(png);
        png_read_update_info(png, info);

        pic.width = int(width);
        pic.height = int(height);
        pic.channels = png_get_channels(png, info);
        const size_t stride = size_t(width) * size_t(pic.channels);
        if (pic.channels < 1 || pic.channels > 4 || png_get_rowbytes(png, info) != stride)
            png_error(png, "unexpected sample layout");
        pic.pixels.resize(stride * height);
        rows.resize(height);
        for (png_uint_32 y = 0; y < height; ++y) rows[y] = pic.pixels.data() + y * stride;
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
    const size_t stride = size_t(pic.width) * size_t(pic.channels);
    std::vector<png_bytep> rows(size_t(pic.height));
    for (size_t y = 0; y < rows.size(); ++y)
        rows[y] = const_cast<png_bytep>(pic.pixels.data() + y * stride);
    out.reserve(pic.sampleCount() / 2);

    const bool ok = pngProtected(png, [&] {
        png_set_write_fn(png, &sink, pngWrite, pngFlush);
        png_set_IHDR(png, info, png_uint_32(pic.width), png_uint_32(pic.height), 8,
                     kTypes[pic.channels - 1], PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                     PNG_FILTER_TYPE_DEFAULT);
        // Level 6 costs about twice the time of level 3 for a few per cent.
        png_set_compression_level(png, 3);
        png_write_info(png, info);
        png_write_image(png, rows.data());
        png_write_end(png, nullptr);
    });
    if (!ok) {
        if (sink.outOfMemory) throw std::bad_alloc();
        throw std::runtime_error(std::string("PNG encoder failed: ") + message);
    }
    return out;
}

// ---------------------------------------------------------------------------
// JPEG

struct JpegError {
    jpeg_error_mgr base;
    std::jmp_buf jump;
    bool truncated;
    char message[JMSG_LENGTH_MAX];
};

[[noreturn]] void jpegFail(j_common_ptr cinfo) {
    auto *err = reinterpret_cast<JpegError *>(cinfo->err);
    (*cinfo->err->format_message)(cinfo, err->message);
    std::longjmp(err->jump, 1);
}

// Warnings are corrupt data that the decoder papers over (premature end,
// damaged entropy-coded segments): treated as errors, so a damaged file is
// refused rather than written out with gray patches. Stray bytes between
// markers, common in files from cameras, are let through. Trace messages
// (level >= 0) are ignored.
void jpegMessage(j_common_ptr cinfo, int level) {
    if (level >= 0) return;
    auto *err = reinterpret_cast<JpegError *>(cinfo->err);
    if (cinfo->err->msg_code == JWRN_EXTRANEOUS_DATA) return;
    if (cinfo->err->msg_code == JWRN_JPEG_EOF) err->truncated = true;
    jpegFail(cinfo);
}

void initJpegError(JpegError &err) {
    jpeg_std_error(&err.base);
    err.base.error_exit = jpegFail;
    err.base.emit_message = jpegMessage;
    err.truncated = false;
    err.message[0] = '\0';
}

template <class Body>
bool jpegProtected(JpegError &err, Body &&body) {
    if (setjmp(err.jump)) return false;
    body();
    return true;
}

Picture decodeJpeg(const std::string &path, const std::vector<uint8_t> &bytes) {
    JpegError err;
    initJpegError(err);
    jpeg_decompress_struct cinfo;
    std::memset(&cinfo, 0, sizeof cinfo);
    cinfo.err = &err.base;
    struct Guard {
        jpeg_decompress_struct *cinfo;
        ~Guard() { jpeg_destroy_decompress(cinfo); }  // safe on a half-made struct
    } guard{&cinfo};

    Picture pic;
    pic.format = Format::Jpeg;
    bool cmyk = false;
    const bool ok = jpegProtected(err, [&] {
        jpeg_create_decompress(&cinfo);
        jpeg_mem_src(&cinfo, const_cast<unsigned char *>(bytes.data()),
                     static_cast<unsigned long>(bytes.size()));
        if (jpeg_read_header(&cinfo, TRUE) != JPEG_HEADER_OK)
            ERREXIT(&cinfo, JERR_NO_IMAGE);
        checkDeclaredSize(path, cinfo.image_width, cinfo.image_height);
        if (cinfo.jpeg_color_space == JCS_CMYK || cinfo.jpeg_color_space == JCS_YCCK) {
            cmyk = true;
            return;
        }
        cinfo.out_color_space = cinfo.num_components == 1 ? JCS_GRAYSCALE : JCS_RGB;
        jpeg_start_decompress(&cinfo);
        pic.width = int(cinfo.output_width);
        pic.height = int(cinfo.output_height);
        pic.channels = cinfo.output_components;
        const size_t stride = size_t(pic.width) * size_t(pic.channels);
        pic.pixels.resize(stride * size_t(pic.height));
        while (cinfo.output_scanline < cinfo.output_height) {
            JSAMPROW row = pic.pixels.data() + size_t(cinfo.output_scanline) * stride;
            jpeg_read_scanlines(&cinfo, &row, 1);
        }
        jpeg_finish_decompress(&cinfo);
    });
    if (!ok) {
        if (err.truncated) throw FileError(path, "truncated JPEG file (the data ends early)");
        throw FileError(path, std::string("corrupt JPEG file: ") + err.message);
    }
    if (cmyk) throw FileError(path, "unsupported format: CMYK JPEG (gray and colour JPEG are)");
    return pic;
}

std::vector<uint8_t> encodeJpeg(const Picture &pic, int quality) {
    JpegError err;
    initJpegError(err);
    jpeg_compress_struct cinfo;
    std::memset(&cinfo, 0, sizeof cinfo);
    cinfo.err = &err.base;
    unsigned char *buffer = nullptr;
    unsigned long size = 0;
    struct Guard {
        jpeg_compress_struct *cinfo;
        unsigned char **buffer;
        ~Guard() {
            jpeg_destroy_compress(cinfo);
            std::free(*buffer);
        }
    } guard{&cinfo, &buffer};

    // Alpha is dropped row by row through this buffer.
    const int colours = pic.isGray() ? 1 : 3;
    std::vector<uint8_t> row(pic.hasAlpha() ? size_t(pic.width) * size_t(colours) : 0);
    const bool ok = jpegProtected(err, [&] {
        jpeg_create_compress(&cinfo);
        jpeg_mem_dest(&cinfo, &buffer, &size);
        cinfo.image_width = JDIMENSION(pic.width);
        cinfo.image_height = JDIMENSION(pic.height);
        cinfo.input_components = colours;
        cinfo.in_color_space = colours == 1 ? JCS_GRAYSCALE : JCS_RGB;
        jpeg_set_defaults(&cinfo);
        jpeg_set_quality(&cinfo, quality, TRUE);
        cinfo.optimize_coding = TRUE;
        jpeg_start_compress(&cinfo, TRUE);
        const size_t stride = size_t(pic.width) * size_t(pic.channels);
        while (cinfo.next_scanline < cinfo.image_height) {
            const uint8_t *in = pic.pixels.data() + size_t(cinfo.next_scanline) * stride;
            JSAMPROW line = const_cast<JSAMPROW>(in);
            if (pic.hasAlpha()) {
                for (int x = 0; x < pic.width; ++x)
                    for (int c = 0; c < colours; ++c)
                        row[size_t(x) * colours + c] = in[size_t(x) * pic.channels + c];
                line = row.data();
            }
            jpeg_write_scanlines(&cinfo, &line, 1);
        }
        jpeg_finish_compress(&cinfo);
    });
    if (!ok) throw std::runtime_error(std::string("JPEG encoder failed: ") + err.message);
    return std::vector<uint8_t>(buffer, buffer + size);
}

mode_t g_creationMask = 022;

}  // namespace

// ---------------------------------------------------------------------------

const char *formatName(Format format) { return format == Format::Png ? "PNG" : "JPEG"; }

const char *layoutName(int channels) {
    static const char *const names[] = {"?", "gray", "gray+alpha", "RGB", "RGBA"};
    return names[channels >= 1 && channels <= 4 ? channels : 0];
}

std::optional<Format> formatForPath(const std::string &path) {
    std::string ext = fs::path(path).extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    if (ext == ".png") return Format::Png;
    if (ext == ".jpg" || ext == ".jpeg") return Format::Jpeg;
    return std::nullopt;
}

Picture readPicture(const std::string &path) {
    const std::vector<uint8_t> bytes = readFileBytes(path);
    const auto starts = [&](std::string_view magic, size_t at = 0) {
        return bytes.size() >= at + magic.size() &&
               std::memcmp(bytes.data() + at, magic.data(), magic.size()) == 0;
    };
    if (bytes.empty()) throw FileError(path, "empty file");
    static constexpr uint8_t kPng[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    if (std::memcmp(bytes.data(), kPng, std::min(bytes.size(), sizeof kPng)) == 0) {
        if (bytes.size() <= sizeof kPng) throw FileError(path, "truncated PNG file (the data ends early)");
        return decodePng(path, bytes);
    }
    if (starts("\xFF\xD8\xFF")) return decodeJpeg(path, bytes);
    const char *other = starts("GIF8")                                   ? "GIF"
                        : starts("BM")                                   ? "BMP"
                        : starts("II*\0") || starts(std::string_view("MM\0*", 4)) ? "TIFF"
                        : starts("RIFF") && starts("WEBP", 8)           ? "WebP"
                                                                         : nullptr;
    if (other) throw FileError(path, std::string("unsupported format: ") + other + " (PNG and JPEG are)");
    throw FileError(path, "not a PNG or JPEG image");
}

std::vector<uint8_t> encodePicture(const Picture &picture, Format format, int quality,
                                   bool *droppedAlpha) {
    if (droppedAlpha) *droppedAlpha = format == Format::Jpeg && picture.hasAlpha();
    return format == Format::Png ? encodePng(picture) : encodeJpeg(picture, quality);
}

void initFileCreationMask() {
    g_creationMask = ::umask(022);
    ::umask(g_creationMask);
}

void writeFileAtomically(const std::string &path, std::span<const uint8_t> bytes,
                         bool overwrite) {
    const fs::path target(path);
    const fs::path folder = target.has_parent_path() ? target.parent_path() : fs::path(".");
    std::string hidden = target.filename().string();
    hidden.insert(0, 1, '.');
    hidden += ".XXXXXX";
    std::string name = (folder / hidden).string();
    const int fd = ::mkostemp(name.data(), O_CLOEXEC);
    if (fd < 0)
        throw FileError(path, "cannot create a file in folder " + quoted(folder.string()) + ": " +
                                  errnoText(errno));
    bool kept = false;
    FdGuard file{fd};
    struct Remove {
        const std::string &name;
        const bool &kept;
        ~Remove() {
            if (!kept) ::unlink(name.c_str());
        }
    } remove{name, kept};

    const auto fail = [&](const char *what, int error) {
        throw FileError(path, std::string(what) + ": " + errnoText(error));
    };
    ::fchmod(fd, 0666 & ~g_creationMask);
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            fail("cannot write", errno);
        }
        done += size_t(n);
    }
    if (::fsync(fd) != 0 && errno != EINVAL) fail("cannot write", errno);
    file.fd = -1;
    if (::close(fd) != 0) fail("cannot write", errno);
    if (cancelled()) throw Interrupted();

    if (overwrite) {
        if (::rename(name.c_str(), path.c_str()) != 0) fail("cannot write", errno);
    } else if (::renameat2(AT_FDCWD, name.c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE) != 0) {
        if (errno == EEXIST) throw FileError(path, "already exists (use --force to overwrite it)");
        if (errno != EINVAL && errno != ENOSYS) fail("cannot write", errno);
        // A file system without the no-replace rename: a hard link refuses to
        // replace too.
        if (::link(name.c_str(), path.c_str()) != 0) {
            if (errno == EEXIST) throw FileError(path, "already exists (use --force to overwrite it)");
            fail("cannot write", errno);
        }
        ::unlink(name.c_str());
    }
    kept = true;
}

void checkFolderWritable(const std::string &folder) {
    std::string name = (fs::path(folder) / ".morven-probe.XXXXXX").string();
    const int fd = ::mkostemp(name.data(), O_CLOEXEC);
    if (fd < 0) throw FileError(folder, "cannot write into this folder: " + errnoText(errno));
    ::close(fd);
    ::unlink(name.c_str());
}

void checkOutputPath(const std::string &output, const std::vector<std::string> &inputs,
                     bool overwrite) {
    struct stat out {};
    if (::stat(output.c_str(), &out) == 0) {
        if (S_ISDIR(out.st_mode)) throw FileError(output, "is a folder; give a file name to write");
        for (const std::string &input : inputs) {
            struct stat in {};
            if (::stat(input.c_str(), &in) == 0 && in.st_dev == out.st_dev && in.st_ino == out.st_ino)
                throw FileError(output, "is also an input file; inputs are never overwritten");
        }
        if (!overwrite) throw FileError(output, "already exists (use --force to overwrite it)");
    }
    const fs::path target(output);
    const std::string folder = target.has_parent_path() ? target.parent_path().string() : ".";
    struct stat dir {};
    if (::stat(folder.c_str(), &dir) != 0)
        throw FileError(output, "cannot write into folder " + quoted(folder) + ": " + errnoText(errno));
    if (!S_ISDIR(dir.st_mode)) throw FileError(output, quoted(folder) + " is not a folder");
    if (::access(folder.c_str(), W_OK | X_OK) != 0)
        throw FileError(output, "cannot write into folder " + quoted(folder) + ": " + errnoText(errno));
}

}  // namespace morven::tool
