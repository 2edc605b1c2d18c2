#include "metadata.hpp"

#include <algorithm>
#include <iterator>
#include <mutex>
#include <string_view>

#include <exiv2/exiv2.hpp>
#include <exiv2/webpimage.hpp>

namespace morven::tool {

struct EmbeddedMetadata {
    Exiv2::ExifData exif;
    Exiv2::XmpData xmp;
    Exiv2::IptcData iptc;
};

namespace {

std::mutex g_xmpLock;

void lockXmp(void *, bool lock) {
    if (lock)
        g_xmpLock.lock();
    else
        g_xmpLock.unlock();
}

// Tags of a TIFF's first directory that describe its own layout, colour
// profile or embedded blocks: true of the source file only, never carried.
constexpr std::string_view kLayoutTags[]{"NewSubfileType",
                                         "SubfileType",
                                         "ImageWidth",
                                         "ImageLength",
                                         "BitsPerSample",
                                         "Compression",
                                         "PhotometricInterpretation",
                                         "FillOrder",
                                         "StripOffsets",
                                         "SamplesPerPixel",
                                         "RowsPerStrip",
                                         "StripByteCounts",
                                         "PlanarConfiguration",
                                         "Predictor",
                                         "ColorMap",
                                         "TileWidth",
                                         "TileLength",
                                         "TileOffsets",
                                         "TileByteCounts",
                                         "SubIFDs",
                                         "InkSet",
                                         "ExtraSamples",
                                         "SampleFormat",
                                         "JPEGTables",
                                         "JPEGProc",
                                         "JPEGInterchangeFormat",
                                         "JPEGInterchangeFormatLength",
                                         "YCbCrCoefficients",
                                         "YCbCrSubSampling",
                                         "YCbCrPositioning",
                                         "ReferenceBlackWhite",
                                         "InterColorProfile",
                                         "XMLPacket",
                                         "IPTCNAA",
                                         "ImageResources",
                                         "Orientation"};

// Tags carried into the output: the main directory less its layout tags,
// the EXIF, GPS and maker note directories; not the thumbnail, nor the
// directories of a TIFF's other images.
bool carried(const Exiv2::Exifdatum &datum) {
    const std::string group = datum.groupName();
    if (group == "Image")
        return std::find(std::begin(kLayoutTags), std::end(kLayoutTags), datum.tagName()) ==
               std::end(kLayoutTags);
    return !group.starts_with("Thumbnail") && !group.starts_with("SubImage") &&
           !group.starts_with("SubThumb") && !(group.starts_with("Image") && group.size() > 5);
}

int exivType(Format format) {
    switch (format) {
        case Format::Png: return Exiv2::ImageType::png;
        case Format::Jpeg: return Exiv2::ImageType::jpeg;
        case Format::Tiff: return Exiv2::ImageType::tiff;
        case Format::WebP: return Exiv2::ImageType::webp;
    }
    return Exiv2::ImageType::none;
}

bool writable(Format format, Exiv2::MetadataId id) {
    const Exiv2::AccessMode mode = Exiv2::ImageFactory::checkMode(exivType(format), id);
    return mode == Exiv2::amWrite || mode == Exiv2::amReadWrite;
}

// The value of an EXIF tag as text, empty when absent.
std::string text(const Exiv2::ExifData &exif, const char *key) {
    const auto it = exif.findKey(Exiv2::ExifKey(key));
    return it == exif.end() ? std::string() : it->toString();
}

std::string counted(size_t n, const char *one, const char *many) {
    return std::to_string(n) + " " + (n == 1 ? one : many);
}

}  // namespace

bool metadataAvailable() { return true; }

void initMetadata() {
    Exiv2::LogMsg::setLevel(Exiv2::LogMsg::mute);
    Exiv2::XmpParser::initialize(lockXmp, nullptr);
}

std::shared_ptr<const EmbeddedMetadata> readMetadata(Bytes file, std::string *problem) {
    try {
        const auto image = Exiv2::ImageFactory::open(file.data(), long(file.size()));
        if (!image.get()) return nullptr;
        image->readMetadata();
        auto metadata = std::make_shared<EmbeddedMetadata>();
        // A TIFF's own layout tags are no metadata; its orientation is.
        for (const Exiv2::Exifdatum &datum : image->exifData())
            if (carried(datum) || datum.key() == "Exif.Image.Orientation")
                metadata->exif.add(datum);
        metadata->xmp = image->xmpData();
        metadata->iptc = image->iptcData();
        if (metadata->exif.empty() && metadata->xmp.empty() && metadata->iptc.empty())
            return nullptr;
        return metadata;
    } catch (const std::exception &e) {
        if (problem) *problem = std::string("metadata not read (") + e.what() + ")";
        return nullptr;
    }
}

int orientationOf(const EmbeddedMetadata &metadata) {
    long value = 1;
    const auto exif = metadata.exif.findKey(Exiv2::ExifKey("Exif.Image.Orientation"));
    if (exif != metadata.exif.end() && exif->count() > 0) {
        value = exif->toLong();
    } else {
        const auto xmp = metadata.xmp.findKey(Exiv2::XmpKey("Xmp.tiff.Orientation"));
        if (xmp != metadata.xmp.end() && xmp->count() > 0) value = xmp->toLong();
    }
    return value >= 1 && value <= 8 ? int(value) : 1;
}

Resolution resolutionOf(const EmbeddedMetadata &metadata) {
    const auto &exif = metadata.exif;
    const auto x = exif.findKey(Exiv2::ExifKey("Exif.Image.XResolution"));
    const auto y = exif.findKey(Exiv2::ExifKey("Exif.Image.YResolution"));
    if (x == exif.end() || y == exif.end() || x->count() == 0 || y->count() == 0) return {};
    const auto unit = exif.findKey(Exiv2::ExifKey("Exif.Image.ResolutionUnit"));
    const long u = unit != exif.end() && unit->count() > 0 ? unit->toLong() : 2;
    Resolution r{x->toFloat(), y->toFloat(),
                 u == 2   ? Resolution::Unit::Inch
                 : u == 3 ? Resolution::Unit::Centimetre
                          : Resolution::Unit::None};
    return r.known() ? r : Resolution{};
}

std::vector<std::string> describeMetadata(const EmbeddedMetadata &metadata) {
    std::vector<std::string> lines;
    if (!metadata.exif.empty()) {
        std::string details;
        for (const char *key :
             {"Exif.Image.Make", "Exif.Image.Model", "Exif.Photo.DateTimeOriginal",
              "Exif.Image.Artist", "Exif.Image.Copyright"}) {
            const std::string value = text(metadata.exif, key);
            if (!value.empty()) details += (details.empty() ? "" : ", ") + value;
        }
        lines.push_back("EXIF: " + counted(metadata.exif.count(), "tag", "tags") +
                        (details.empty() ? "" : " (" + details + ")"));
    }
    if (!metadata.xmp.empty())
        lines.push_back("XMP: " + counted(metadata.xmp.count(), "property", "properties"));
    if (!metadata.iptc.empty())
        lines.push_back("IPTC: " + counted(metadata.iptc.count(), "dataset", "datasets"));
    return lines;
}

void embedMetadata(std::vector<uint8_t> &file, Format format, const EmbeddedMetadata &metadata,
                   const Picture &written, std::vector<std::string> *notes) {
    const auto note = [&](const std::string &text) {
        if (notes) notes->push_back(text);
    };
    const bool exif = !metadata.exif.empty() && writable(format, Exiv2::mdExif);
    const bool xmp = !metadata.xmp.empty() && writable(format, Exiv2::mdXmp);
    const bool iptc = !metadata.iptc.empty() && writable(format, Exiv2::mdIptc);
    for (const auto &[present, kept, name] : {std::tuple{!metadata.exif.empty(), exif, "EXIF"},
                                              {!metadata.xmp.empty(), xmp, "XMP"},
                                              {!metadata.iptc.empty(), iptc, "IPTC"}})
        if (present && !kept)
            note(std::string(name) + " not kept: " + formatName(format) + " cannot hold it");
    if (!exif && !xmp && !iptc) return;
    try {
        const auto image = Exiv2::ImageFactory::open(file.data(), long(file.size()));
        image->readMetadata();  // the output's own tags (a TIFF's layout) stay
        if (exif) {
            Exiv2::ExifData &out = image->exifData();
            for (const Exiv2::Exifdatum &datum : metadata.exif)
                if (carried(datum)) out[datum.key()].setValue(&datum.value());
            Exiv2::ExifThumb(out).erase();
            out["Exif.Image.Orientation"] = uint16_t(1);
            // The pixel size, where the camera recorded it, is the written one.
            for (const auto &[key, value] : {std::pair{"Exif.Photo.PixelXDimension", written.width},
                                             {"Exif.Photo.PixelYDimension", written.height}})
                if (out.findKey(Exiv2::ExifKey(key)) != out.end()) out[key] = uint32_t(value);
            // Resolution travels with the picture (the encoders wrote it into
            // the container); EXIF's copy is made to agree.
            if (written.resolution.known() &&
                metadata.exif.findKey(Exiv2::ExifKey("Exif.Image.XResolution")) !=
                    metadata.exif.end()) {
                const auto rational = [](double v) {
                    // NOLINTNEXTLINE(bugprone-incorrect-roundings): resolutions are positive
                    return Exiv2::URational(uint32_t(v * 100 + 0.5), 100);
                };
                out["Exif.Image.XResolution"] = rational(written.resolution.x);
                out["Exif.Image.YResolution"] = rational(written.resolution.y);
                out["Exif.Image.ResolutionUnit"] =
                    uint16_t(written.resolution.unit == Resolution::Unit::Centimetre ? 3
                             : written.resolution.unit == Resolution::Unit::Inch     ? 2
                                                                                     : 1);
            }
        }
        if (xmp) {
            Exiv2::XmpData copy = metadata.xmp;
            for (const char *key : {"Xmp.tiff.Orientation"})
                if (copy.findKey(Exiv2::XmpKey(key)) != copy.end()) copy[key] = "1";
            for (const auto &[key, value] : {std::pair{"Xmp.exif.PixelXDimension", written.width},
                                             {"Xmp.exif.PixelYDimension", written.height},
                                             {"Xmp.tiff.ImageWidth", written.width},
                                             {"Xmp.tiff.ImageLength", written.height}})
                if (copy.findKey(Exiv2::XmpKey(key)) != copy.end())
                    copy[key] = std::to_string(value);
            image->setXmpData(copy);
        }
        if (iptc) image->setIptcData(metadata.iptc);
        image->writeMetadata();
        Exiv2::BasicIo &io = image->io();
        io.seek(0, Exiv2::BasicIo::beg);
        const Exiv2::DataBuf bytes = io.read(long(io.size()));
        file.assign(bytes.pData_, bytes.pData_ + bytes.size_);
    } catch (const std::exception &e) {
        note(std::string("metadata not kept (") + e.what() + ")");
    }
}

}  // namespace morven::tool
