// JPEG through libjpeg-turbo. Fatal errors longjmp back to the one function
// that called setjmp (see png.cpp for the rules this follows).
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include <jerror.h>
#include <jpeglib.h>

#include "codecs.hpp"
#include "core/limits.hpp"

namespace morven::tool {
namespace {

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

}  // namespace

Picture decodeJpeg(const std::string &path, Bytes bytes) {
    JpegError err;
    initJpegError(err);
    jpeg_decompress_struct cinfo;
    std::memset(&cinfo, 0, sizeof cinfo);
    cinfo.err = &err.base;
    JOCTET *profile = nullptr;
    struct Guard {
        jpeg_decompress_struct *cinfo;
        JOCTET **profile;
        ~Guard() {
            jpeg_destroy_decompress(cinfo);  // safe on a half-made struct
            std::free(*profile);
        }
    } guard{&cinfo, &profile};

    Picture pic;
    pic.format = Format::Jpeg;
    unsigned int profileSize = 0;
    const bool ok = jpegProtected(err, [&] {
        jpeg_create_decompress(&cinfo);
        jpeg_mem_src(&cinfo, bytes.data(), static_cast<unsigned long>(bytes.size()));
        jpeg_save_markers(&cinfo, JPEG_APP0 + 2, 0xFFFF);  // ICC profile segments
        if (jpeg_read_header(&cinfo, TRUE) != JPEG_HEADER_OK) ERREXIT(&cinfo, JERR_NO_IMAGE);
        checkDeclaredSize(path, cinfo.image_width, cinfo.image_height);
        if (jpeg_read_icc_profile(&cinfo, &profile, &profileSize) &&
            profileSize <= kMaxEmbeddedBytes)
            pic.icc.assign(profile, profile + profileSize);
        // (No unit with square pixels, the JFIF default, says nothing.)
        if (cinfo.saw_JFIF_marker && cinfo.X_density && cinfo.Y_density &&
            (cinfo.density_unit != 0 || cinfo.X_density != cinfo.Y_density))
            pic.resolution = {double(cinfo.X_density), double(cinfo.Y_density),
                              cinfo.density_unit == 1   ? Resolution::Unit::Inch
                              : cinfo.density_unit == 2 ? Resolution::Unit::Centimetre
                                                        : Resolution::Unit::None};
        if (cinfo.jpeg_color_space == JCS_CMYK || cinfo.jpeg_color_space == JCS_YCCK) {
            cinfo.out_color_space = JCS_CMYK;
            pic.cmyk = true;
            // Adobe applications write inverted CMYK (0 is full ink).
            pic.cmykInverted = cinfo.saw_Adobe_marker;
        } else {
            cinfo.out_color_space = cinfo.num_components == 1 ? JCS_GRAYSCALE : JCS_RGB;
        }
        jpeg_start_decompress(&cinfo);
        pic.allocate(int(cinfo.output_width), int(cinfo.output_height), cinfo.output_components, 8);
        const size_t stride = size_t(pic.width) * size_t(pic.channels);
        while (cinfo.output_scanline < cinfo.output_height) {
            JSAMPROW row = pic.samples8.data() + size_t(cinfo.output_scanline) * stride;
            jpeg_read_scanlines(&cinfo, &row, 1);
        }
        jpeg_finish_decompress(&cinfo);
    });
    if (!ok) {
        if (err.truncated) throw FileError(path, "truncated JPEG file (the data ends early)");
        throw FileError(path, std::string("corrupt JPEG file: ") + err.message);
    }
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
    const int colours = pic.colourChannels();
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
        const Resolution &r = pic.resolution;
        if (r.known() && r.x < 65536 && r.y < 65536) {
            cinfo.density_unit = r.unit == Resolution::Unit::Inch         ? 1
                                 : r.unit == Resolution::Unit::Centimetre ? 2
                                                                          : 0;
            // NOLINTBEGIN(bugprone-incorrect-roundings): resolutions are positive
            cinfo.X_density = UINT16(r.x + 0.5);
            cinfo.Y_density = UINT16(r.y + 0.5);
            // NOLINTEND(bugprone-incorrect-roundings)
        }
        jpeg_start_compress(&cinfo, TRUE);
        if (!pic.icc.empty())
            jpeg_write_icc_profile(&cinfo, pic.icc.data(), unsigned(pic.icc.size()));
        const size_t stride = size_t(pic.width) * size_t(pic.channels);
        while (cinfo.next_scanline < cinfo.image_height) {
            const uint8_t *in = pic.samples8.data() + size_t(cinfo.next_scanline) * stride;
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

}  // namespace morven::tool
