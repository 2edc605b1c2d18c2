// WebP through libwebp: still pictures, lossy or lossless, with or without
// alpha, read as 8-bit RGB or RGBA; the ICC profile through the container
// (demux on reading, mux on writing). WebP holds no resolution.
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>

#include <webp/decode.h>
#include <webp/demux.h>
#include <webp/encode.h>
#include <webp/mux.h>

#include "codecs.hpp"
#include "core/limits.hpp"

namespace morven::tool {

Picture decodeWebP(const std::string &path, Bytes bytes) {
    WebPBitstreamFeatures features;
    const VP8StatusCode status = WebPGetFeatures(bytes.data(), bytes.size(), &features);
    if (status == VP8_STATUS_NOT_ENOUGH_DATA)
        throw FileError(path, "truncated WebP file (the data ends early)");
    if (status != VP8_STATUS_OK) throw FileError(path, "corrupt WebP file: unreadable header");
    if (features.has_animation)
        throw FileError(path, "unsupported format: animated WebP (still pictures are read)");
    checkDeclaredSize(path, uint64_t(features.width), uint64_t(features.height));

    Picture pic;
    pic.format = Format::WebP;
    pic.allocate(features.width, features.height, features.has_alpha ? 4 : 3, 8);
    const size_t stride = size_t(pic.width) * size_t(pic.channels);
    const uint8_t *done = features.has_alpha
                              ? WebPDecodeRGBAInto(bytes.data(), bytes.size(), pic.samples8.data(),
                                                   pic.samples8.size(), int(stride))
                              : WebPDecodeRGBInto(bytes.data(), bytes.size(), pic.samples8.data(),
                                                  pic.samples8.size(), int(stride));
    if (!done)
        throw FileError(path, "corrupt or truncated WebP file: the image data cannot be decoded");

    const WebPData data{bytes.data(), bytes.size()};
    const std::unique_ptr<WebPDemuxer, void (*)(WebPDemuxer *)> demux(WebPDemux(&data),
                                                                      WebPDemuxDelete);
    WebPChunkIterator chunk;
    if (demux && (WebPDemuxGetI(demux.get(), WEBP_FF_FORMAT_FLAGS) & ICCP_FLAG) &&
        WebPDemuxGetChunk(demux.get(), "ICCP", 1, &chunk)) {
        if (chunk.chunk.size <= kMaxEmbeddedBytes)
            pic.icc.assign(chunk.chunk.bytes, chunk.chunk.bytes + chunk.chunk.size);
        WebPDemuxReleaseChunkIterator(&chunk);
    }
    return pic;
}

std::vector<uint8_t> encodeWebP(const Picture &pic, const EncodeSettings &settings) {
    WebPConfig config;
    if (!WebPConfigInit(&config))
        throw std::runtime_error("WebP encoder failed: incompatible library");
    config.lossless = settings.lossless ? 1 : 0;
    config.quality = settings.lossless ? 75.0f : float(settings.quality);
    // Keep the colours under fully transparent pixels: alpha passes through
    // unchanged, and so does what it hides.
    config.exact = 1;
    WebPPicture picture;
    if (!WebPPictureInit(&picture))
        throw std::runtime_error("WebP encoder failed: incompatible library");
    picture.use_argb = settings.lossless ? 1 : 0;
    picture.width = pic.width;
    picture.height = pic.height;
    const std::unique_ptr<WebPPicture, void (*)(WebPPicture *)> pictureGuard(&picture,
                                                                             WebPPictureFree);
    const int stride = pic.width * pic.channels;
    const bool imported = pic.channels == 4
                              ? WebPPictureImportRGBA(&picture, pic.samples8.data(), stride)
                              : WebPPictureImportRGB(&picture, pic.samples8.data(), stride);
    if (!imported) throw std::bad_alloc();
    WebPMemoryWriter writer;
    WebPMemoryWriterInit(&writer);
    const std::unique_ptr<WebPMemoryWriter, void (*)(WebPMemoryWriter *)> writerGuard(
        &writer, WebPMemoryWriterClear);
    picture.writer = WebPMemoryWrite;
    picture.custom_ptr = &writer;
    if (!WebPEncode(&config, &picture)) {
        if (picture.error_code == VP8_ENC_ERROR_OUT_OF_MEMORY) throw std::bad_alloc();
        throw std::runtime_error("WebP encoder failed (error " +
                                 std::to_string(int(picture.error_code)) + ")");
    }
    if (pic.icc.empty()) return std::vector<uint8_t>(writer.mem, writer.mem + writer.size);

    // The profile goes into the extended container.
    const WebPData image{writer.mem, writer.size}, icc{pic.icc.data(), pic.icc.size()};
    const std::unique_ptr<WebPMux, void (*)(WebPMux *)> mux(WebPMuxCreate(&image, 0),
                                                            WebPMuxDelete);
    WebPData assembled{nullptr, 0};
    if (!mux || WebPMuxSetChunk(mux.get(), "ICCP", &icc, 0) != WEBP_MUX_OK ||
        WebPMuxAssemble(mux.get(), &assembled) != WEBP_MUX_OK)
        throw std::runtime_error("WebP encoder failed: cannot add the ICC profile");
    std::vector<uint8_t> out(assembled.bytes, assembled.bytes + assembled.size);
    WebPDataClear(&assembled);
    return out;
}

}  // namespace morven::tool
