// Runs the `morven` executable as a user would and checks its files, exit
// statuses and messages. Pictures are checked through libpng's simplified
// interface and libjpeg, not through the tool's own decoders.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <jpeglib.h>
#include <png.h>

#include "tool_launcher.h"

extern char **environ;

namespace {

namespace fs = std::filesystem;
const std::string kData = MORVEN_DATA_DIR;

struct Pic {
    int w = 0, h = 0, c = 0;
    std::vector<uint8_t> px;
};

Pic readPng(const fs::path &path) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    Pic pic;
    if (!png_image_begin_read_from_file(&image, path.c_str())) return pic;
    image.format &= ~uint32_t(PNG_FORMAT_FLAG_LINEAR | PNG_FORMAT_FLAG_COLORMAP);
    pic.px.resize(PNG_IMAGE_SIZE(image));
    if (!png_image_finish_read(&image, nullptr, pic.px.data(), 0, nullptr)) return Pic{};
    pic.w = int(image.width), pic.h = int(image.height), pic.c = int(PNG_IMAGE_SAMPLE_CHANNELS(image.format));
    return pic;
}

void writePng(const fs::path &path, const Pic &pic, bool sixteen = false) {
    static const uint32_t formats[] = {0, PNG_FORMAT_GRAY, PNG_FORMAT_GA, PNG_FORMAT_RGB, PNG_FORMAT_RGBA};
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = pic.w, image.height = pic.h, image.format = formats[pic.c];
    std::vector<uint16_t> wide(pic.px.begin(), pic.px.end());
    for (uint16_t &v : wide) v = uint16_t(v * 257);  // 8-bit v as 16-bit
    if (sixteen) image.format |= PNG_FORMAT_FLAG_LINEAR;
    ASSERT_TRUE(png_image_write_to_file(&image, path.c_str(), 0,
                                        sixteen ? static_cast<const void *>(wide.data()) : pic.px.data(), 0, nullptr));
}

Pic readJpeg(const fs::path &path) {
    jpeg_decompress_struct cinfo;
    jpeg_error_mgr err;
    cinfo.err = jpeg_std_error(&err);
    FILE *file = std::fopen(path.c_str(), "rb");
    if (!file) return {};
    jpeg_create_decompress(&cinfo);
    jpeg_stdio_src(&cinfo, file);
    jpeg_read_header(&cinfo, TRUE);
    jpeg_start_decompress(&cinfo);
    Pic pic{int(cinfo.output_width), int(cinfo.output_height), cinfo.output_components, {}};
    pic.px.resize(size_t(pic.w) * pic.h * pic.c);
    while (cinfo.output_scanline < cinfo.output_height) {
        JSAMPROW row = pic.px.data() + size_t(cinfo.output_scanline) * pic.w * pic.c;
        jpeg_read_scanlines(&cinfo, &row, 1);
    }
    jpeg_finish_decompress(&cinfo);
    jpeg_destroy_decompress(&cinfo);
    std::fclose(file);
    return pic;
}

void writeJpeg(const fs::path &path, const Pic &pic, bool progressive) {
    jpeg_compress_struct cinfo;
    jpeg_error_mgr err;
    cinfo.err = jpeg_std_error(&err);
    FILE *file = std::fopen(path.c_str(), "wb");
    ASSERT_TRUE(file);
    jpeg_create_compress(&cinfo);
    jpeg_stdio_dest(&cinfo, file);
    cinfo.image_width = pic.w, cinfo.image_height = pic.h, cinfo.input_components = pic.c;
    cinfo.in_color_space = pic.c == 1 ? JCS_GRAYSCALE : JCS_RGB;
    jpeg_set_defaults(&cinfo);
    if (progressive) jpeg_simple_progression(&cinfo);
    jpeg_start_compress(&cinfo, TRUE);
    while (cinfo.next_scanline < cinfo.image_height) {
        JSAMPROW row = const_cast<JSAMPROW>(pic.px.data()) + size_t(cinfo.next_scanline) * pic.w * pic.c;
        jpeg_write_scanlines(&cinfo, &row, 1);
    }
    jpeg_finish_compress(&cinfo);
    jpeg_destroy_compress(&cinfo);
    std::fclose(file);
}

// Pixel-wise rebuild of a picture with another channel layout.
Pic relayout(const Pic &p, int channels, uint8_t (*alpha)(size_t) = nullptr) {
    Pic out{p.w, p.h, channels, std::vector<uint8_t>(size_t(p.w) * p.h * channels)};
    for (size_t i = 0; i < size_t(p.w) * p.h; ++i) {
        const uint8_t *s = &p.px[i * p.c];
        uint8_t *d = &out.px[i * channels];
        // Rec. 601 luma, rounded: an independent form of the gray conversion.
        const uint8_t y = uint8_t(std::lround(0.299 * s[0] + 0.587 * s[1] + 0.114 * s[2]));
        for (int k = 0; k < (channels >= 3 ? 3 : 1); ++k) d[k] = channels >= 3 ? s[k] : y;
        if (channels == 2 || channels == 4) d[channels - 1] = alpha(i);
    }
    return out;
}

// Earth mover's distance between the histograms of channel ca of a and cb
// of b, in levels: the sum over v of |CDF_a(v) - CDF_b(v)|.
double distance(const Pic &a, int ca, const Pic &b, int cb) {
    std::vector<double> ha(256), hb(256);
    for (size_t i = ca; i < a.px.size(); i += a.c) ha[a.px[i]] += 1.0 / (double(a.w) * a.h);
    for (size_t i = cb; i < b.px.size(); i += b.c) hb[b.px[i]] += 1.0 / (double(b.w) * b.h);
    double fa = 0, fb = 0, d = 0;
    for (int v = 0; v < 255; ++v) d += std::fabs((fa += ha[v]) - (fb += hb[v]));
    return d;
}

struct Outcome {
    int status;
    std::string out, err;
};

class Tool : public ::testing::Test {
protected:
    void SetUp() override {
        std::string name = (fs::temp_directory_path() / "morven-tool-XXXXXX").string();
        ASSERT_TRUE(::mkdtemp(name.data()));
        dir_ = name;
    }
    void TearDown() override { fs::remove_all(dir_); }

    fs::path at(const std::string &name) const { return dir_ / name; }

    // Starts the tool with stdout and stderr in files; returns its pid.
    pid_t start(const std::vector<std::string> &args) {
        // A cross build runs the tool through the emulator its tests run under.
        std::vector<char *> argv;
        for (const char *word : kLauncher) argv.push_back(const_cast<char *>(word));
        argv.push_back(const_cast<char *>(MORVEN_TOOL));
        for (const std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, (dir_ / ".stdout").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_addopen(&actions, 2, (dir_ / ".stderr").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        pid_t pid = -1;
        EXPECT_EQ(posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ), 0);
        posix_spawn_file_actions_destroy(&actions);
        return pid;
    }
    Outcome finish(pid_t pid) {
        int status = 0;
        ::waitpid(pid, &status, 0);
        const auto slurp = [](const fs::path &p) {
            std::ifstream in(p);
            return std::string(std::istreambuf_iterator<char>(in), {});
        };
        return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), slurp(dir_ / ".stdout"),
                slurp(dir_ / ".stderr")};
    }
    Outcome run(const std::vector<std::string> &args) { return finish(start(args)); }

    // Visible files of the folder (the tool's temporary files are hidden,
    // and so are the captured streams).
    std::vector<std::string> listing(const fs::path &folder) const {
        std::vector<std::string> names;
        for (const auto &e : fs::directory_iterator(folder)) names.push_back(e.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

    fs::path dir_;
};

int lines(const std::string &s) { return int(std::count(s.begin(), s.end(), '\n')); }

// ---------------------------------------------------------------------------

TEST_F(Tool, TransfersTheBundledPhotographs) {
    struct Case {
        std::string source, reference;
    };
    for (const Case &c : {Case{"coffee.png", "chelsea.png"}, Case{"astronaut.png", "coffee.jpg"},
                          Case{"chelsea.png", "astronaut.png"}}) {
        SCOPED_TRACE(c.source + " <- " + c.reference);
        const fs::path out = at("result.png"), compare = at("compare.png");
        const Outcome r = run({"transfer", kData + "/" + c.source, kData + "/" + c.reference, "-o", out,
                           "--compare", compare, "--verbose", "--force"});
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_NE(r.err.find("library "), std::string::npos) << r.err;  // --verbose timings
        std::cout << "[ timings  ] " << c.source << " <- " << c.reference << ":\n" << r.err;

        const Pic source = readPng(kData + "/" + c.source), result = readPng(out);
        const Pic reference = c.reference.ends_with(".jpg") ? readJpeg(kData + "/" + c.reference)
                                                            : readPng(kData + "/" + c.reference);
        ASSERT_EQ(result.w, source.w);
        ASSERT_EQ(result.h, source.h);
        ASSERT_EQ(result.c, 3);
        for (int ch = 0; ch < 3; ++ch) {
            const double before = distance(source, ch, reference, ch), after = distance(result, ch, reference, ch);
            std::printf("[ distance ] channel %d: %.2f levels before, %.2f after\n", ch, before, after);
            EXPECT_LT(after, 0.2 * before);
            EXPECT_LT(after, 3.0);
        }
        const Pic picture = readPng(compare);  // three panels with charts
        EXPECT_EQ(picture.c, 3);
        EXPECT_GT(picture.w, 3 * 256);
        EXPECT_GT(picture.h, 320);
    }
}

TEST_F(Tool, ReadsEveryLayoutAndKeepsAlpha) {
    const Pic rgb = readPng(kData + "/chelsea.png");
    const fs::path reference = kData + "/coffee.png";
    const auto alphaRamp = [](size_t i) { return uint8_t(i * 7 % 256); };
    const auto transfer = [&](const fs::path &in, const std::string &outName) {
        const Outcome r = run({"transfer", in, reference, "-o", at(outName)});
        EXPECT_EQ(r.status, 0) << r.err;
        return r;
    };

    // The 8-bit RGB result every equivalent input must give exactly.
    writePng(at("rgb.png"), rgb);
    transfer(at("rgb.png"), "rgb-out.png");
    const Pic expected = readPng(at("rgb-out.png"));
    ASSERT_EQ(expected.c, 3);

    writePng(at("rgb16.png"), rgb, true);  // 16-bit samples v * 257
    EXPECT_NE(transfer(at("rgb16.png"), "rgb16-out.png").err.find("16-bit"), std::string::npos);
    EXPECT_EQ(readPng(at("rgb16-out.png")).px, expected.px);

    // RGBA and gray + alpha: colours as without alpha, alpha unchanged.
    writePng(at("rgba.png"), relayout(rgb, 4, alphaRamp));
    transfer(at("rgba.png"), "rgba-out.png");
    const Pic rgba = readPng(at("rgba-out.png"));
    ASSERT_EQ(rgba.c, 4);
    EXPECT_EQ(relayout(rgba, 3).px, expected.px);
    EXPECT_EQ(rgba.px, relayout(expected, 4, alphaRamp).px);

    const Pic gray = relayout(rgb, 1);
    writePng(at("gray.png"), gray);
    writePng(at("ga.png"), relayout(rgb, 2, alphaRamp));
    // Every stage on, under a mask of 0: the source comes back unchanged.
    writePng(at("zero.png"), Pic{rgb.w, rgb.h, 1, std::vector<uint8_t>(size_t(rgb.w) * rgb.h)});
    for (const char *name : {"rgba.png", "ga.png"}) {
        const Outcome r = run({"transfer", at(name), reference, "-o", at("masked.png"), "--force", "--contrast",
                               "--smooth", "--mask", at("zero.png")});
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(readPng(at("masked.png")).px, readPng(at(name)).px) << name;
    }
    transfer(at("gray.png"), "gray-out.png");
    transfer(at("ga.png"), "ga-out.png");
    const Pic grayOut = readPng(at("gray-out.png")), gaOut = readPng(at("ga-out.png"));
    ASSERT_EQ(grayOut.c, 1);
    ASSERT_EQ(gaOut.c, 2);
    for (size_t i = 0; i < grayOut.px.size(); ++i) {
        ASSERT_EQ(gaOut.px[2 * i], grayOut.px[i]);
        ASSERT_EQ(gaOut.px[2 * i + 1], alphaRamp(i));
    }
    // A gray source takes on the distribution of the reference's luma.
    const Pic referenceGray = relayout(readPng(reference), 1);
    EXPECT_LT(distance(grayOut, 0, referenceGray, 0), 0.2 * distance(gray, 0, referenceGray, 0));

    // Palette: 64 colours (2 bits per channel), against the same as RGB.
    Pic few = rgb;
    std::vector<uint8_t> indices, colormap;
    for (size_t i = 0; i < few.px.size(); i += 3) {
        for (int k = 0; k < 3; ++k) few.px[i + k] &= 0xC0;
        indices.push_back(uint8_t(few.px[i] / 64 * 16 + few.px[i + 1] / 64 * 4 + few.px[i + 2] / 64));
    }
    for (int n = 0; n < 64; ++n)
        for (int shift : {4, 2, 0}) colormap.push_back(uint8_t((n >> shift & 3) * 64));
    writePng(at("few.png"), few);
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = few.w, image.height = few.h, image.format = PNG_FORMAT_RGB_COLORMAP, image.colormap_entries = 64;
    ASSERT_TRUE(png_image_write_to_file(&image, at("palette.png").c_str(), 0, indices.data(), 0, colormap.data()));
    transfer(at("few.png"), "few-out.png");
    transfer(at("palette.png"), "palette-out.png");
    EXPECT_EQ(readPng(at("palette-out.png")).px, readPng(at("few-out.png")).px);

    // JPEG in: progressive decodes as baseline does; gray stays gray. JPEG
    // out from RGBA: alpha dropped with a note.
    writeJpeg(at("base.jpg"), rgb, false);
    writeJpeg(at("prog.jpg"), rgb, true);
    writeJpeg(at("gray.jpg"), gray, true);
    transfer(at("base.jpg"), "base-out.png");
    transfer(at("prog.jpg"), "prog-out.png");
    transfer(at("gray.jpg"), "grayjpg-out.png");
    EXPECT_EQ(readPng(at("prog-out.png")).px, readPng(at("base-out.png")).px);
    EXPECT_EQ(readPng(at("grayjpg-out.png")).c, 1);
    EXPECT_NE(transfer(at("rgba.png"), "rgba-out.jpg").err.find("alpha"), std::string::npos);
    const Pic jpeg = readJpeg(at("rgba-out.jpg"));
    EXPECT_EQ(jpeg.c, 3);
    EXPECT_EQ(jpeg.w, rgb.w);
}

TEST_F(Tool, RunsEverySubcommand) {
    const std::string chelsea = kData + "/chelsea.png", coffee = kData + "/coffee.png";
    const Pic input = readPng(chelsea);

    ASSERT_EQ(run({"stretch", chelsea, "-o", at("stretch.png")}).status, 0);
    const Pic stretched = readPng(at("stretch.png"));
    for (int ch = 0; ch < 3; ++ch) {
        uint8_t lo = 255, hi = 0;
        for (size_t i = ch; i < stretched.px.size(); i += 3) lo = std::min(lo, stretched.px[i]), hi = std::max(hi, stretched.px[i]);
        EXPECT_EQ(lo, 0);
        EXPECT_EQ(hi, 255);
    }

    // Equalised: each channel's distribution close to the flat one.
    ASSERT_EQ(run({"equalize", chelsea, "-o", at("equal.png")}).status, 0);
    Pic flat{256, 1, 1, {}};
    for (int v = 0; v < 256; ++v) flat.px.push_back(uint8_t(v));
    const Pic equalised = readPng(at("equal.png"));
    for (int ch = 0; ch < 3; ++ch) EXPECT_LT(distance(equalised, ch, flat, 0), 0.25 * distance(input, ch, flat, 0));

    // Contrast: with no tail clipped, the brightest channel value reaches 255.
    ASSERT_EQ(run({"contrast", chelsea, "-o", at("contrast.png"), "--high-tail", "0", "--low-tail", "0"}).status, 0);
    const Pic contrasted = readPng(at("contrast.png"));
    EXPECT_EQ(*std::max_element(contrasted.px.begin(), contrasted.px.end()), 255);
    EXPECT_EQ(*std::min_element(contrasted.px.begin(), contrasted.px.end()), 0);

    // Smooth: a threshold of 0 smooths nothing; the default changes pixels.
    ASSERT_EQ(run({"transfer", coffee, chelsea, "-o", at("t.png")}).status, 0);
    ASSERT_EQ(run({"smooth", coffee, at("t.png"), "-o", at("same.png"), "--threshold", "0"}).status, 0);
    EXPECT_EQ(readPng(at("same.png")).px, readPng(at("t.png")).px);
    ASSERT_EQ(run({"smooth", coffee, at("t.png"), "-o", at("smooth.png"), "--iterations", "3"}).status, 0);
    EXPECT_NE(readPng(at("smooth.png")).px, readPng(at("t.png")).px);
    const Outcome mismatch = run({"smooth", chelsea, at("t.png"), "-o", at("bad.png")});
    EXPECT_EQ(mismatch.status, 1);
    EXPECT_NE(mismatch.err.find("451 x 300"), std::string::npos) << mismatch.err;

    // Info: the mean of the red channel, computed here.
    const Outcome info = run({"info", chelsea});
    ASSERT_EQ(info.status, 0) << info.err;
    double sum = 0;
    for (size_t i = 0; i < input.px.size(); i += 3) sum += input.px[i];
    char mean[32];
    std::snprintf(mean, sizeof mean, "%.2f", sum / (input.w * input.h));
    EXPECT_NE(info.out.find("451 x 300"), std::string::npos) << info.out;
    EXPECT_NE(info.out.find(mean), std::string::npos) << info.out << " lacks " << mean;

    for (const char *command : {"transfer", "equalize", "stretch", "contrast", "smooth", "info"}) {
        const Outcome help = run({command, "--help"});
        EXPECT_EQ(help.status, 0);
        EXPECT_EQ(help.out.rfind("usage: morven " + std::string(command), 0), 0u) << help.out;
    }
}

TEST_F(Tool, BatchFinishesTheOthersWhenOneFileFails) {
    fs::create_directory(at("in"));
    for (const char *name : {"coffee.png", "coffee.jpg", "astronaut.png"})
        fs::create_symlink(kData + "/" + name, at("in") / name);
    std::ofstream(at("in/broken.png")) << "\x89PNG\r\n\x1a\n this is not a picture";
    std::ofstream(at("in/notes.txt")) << "not an image name: skipped";

    const Outcome r = run({"transfer", "--reference", kData + "/chelsea.png", "-o", at("out"), at("in"), "--jobs", "2"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(listing(at("out")), (std::vector<std::string>{"astronaut.png", "coffee.jpg", "coffee.png"}));
    EXPECT_NE(r.err.find("broken.png: corrupt PNG file"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("3 of 4 images"), std::string::npos) << r.err;
    EXPECT_EQ(readJpeg(at("out/coffee.jpg")).w, 600);

    // Again: every output exists now and is kept without --force.
    const Outcome again = run({"transfer", "--reference", kData + "/chelsea.png", "-o", at("out"), at("in/coffee.png"),
                           at("in/astronaut.png"), "--quiet"});
    EXPECT_EQ(again.status, 1);
    EXPECT_EQ(lines(again.err), 2) << again.err;
    EXPECT_NE(again.err.find("already exists"), std::string::npos);
}

TEST_F(Tool, RefusesBadFilesWithOneLine) {
    const std::string reference = kData + "/chelsea.png";
    std::ifstream png(kData + "/chelsea.png", std::ios::binary), jpg(kData + "/coffee.jpg", std::ios::binary);
    const std::string pngBytes(std::istreambuf_iterator<char>(png), {}), jpgBytes(std::istreambuf_iterator<char>(jpg), {});
    std::mt19937 random(7);
    std::string noise(4096, '\0');
    for (char &c : noise) c = char(random() % 251 + 1);  // never a PNG or JPEG signature

    // A valid PNG header declaring 60000 x 60000 pixels, then a little data.
    const auto chunk = [](const std::string &type, const std::string &data) {
        std::string c(4, '\0');
        for (int i = 0; i < 4; ++i) c[i] = char(data.size() >> (24 - 8 * i));
        const std::string body = type + data;
        const uLong crc = crc32(0, reinterpret_cast<const Bytef *>(body.data()), uInt(body.size()));
        c += body;
        for (int i = 0; i < 4; ++i) c += char(crc >> (24 - 8 * i));
        return c;
    };
    const std::string huge = pngBytes.substr(0, 8) +
                             chunk("IHDR", std::string("\0\0\xea\x60\0\0\xea\x60\x08\x02\0\0\0", 13)) +
                             chunk("IDAT", std::string("\x78\x9c\x03\0\0\0\0\x01", 8)) + chunk("IEND", "");

    struct Bad {
        std::string name, bytes, reason;
    };
    for (const Bad &bad : {Bad{"empty.png", "", "empty file"}, Bad{"noise.png", noise, "not a PNG or JPEG"},
                           Bad{"cut.png", pngBytes.substr(0, pngBytes.size() / 2), "truncated PNG"},
                           Bad{"cut.jpg", jpgBytes.substr(0, jpgBytes.size() / 2), "truncated JPEG"},
                           Bad{"huge.png", huge, "60000 x 60000"}, Bad{"anim.gif", "GIF89a\x01\0\x01\0", "GIF"}}) {
        SCOPED_TRACE(bad.name);
        std::ofstream(at(bad.name), std::ios::binary) << bad.bytes;
        const Outcome r = run({"transfer", at(bad.name), reference, "-o", at("out.png")});
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(lines(r.err), 1) << r.err;
        EXPECT_EQ(r.err.rfind("morven: " + at(bad.name).string() + ": ", 0), 0u) << r.err;
        EXPECT_NE(r.err.find(bad.reason), std::string::npos) << r.err;
        EXPECT_FALSE(fs::exists(at("out.png")));
        const Outcome info = run({"info", at(bad.name)});  // info reads through the same path
        EXPECT_EQ(info.status, 1);
        EXPECT_EQ(lines(info.err), 1) << info.err;
    }

    struct Wrong {
        std::vector<std::string> args;
        int status;
        std::string reason;
    };
    const std::string source = kData + "/coffee.png";
    std::ofstream(at("taken.png")) << "keep me";
    for (const Wrong &w : {Wrong{{source, reference, "-o", at("x.png"), "--mask", reference}, 1, "mask is 451 x 300"},
                           Wrong{{at("missing.png"), reference, "-o", at("x.png")}, 1, "No such file"},
                           Wrong{{source, reference, "-o", at("no/such/x.png")}, 1, "cannot write into folder"},
                           Wrong{{source, reference, "-o", at("taken.png")}, 1, "--force"},
                           Wrong{{source, reference, "-o", source, "--force"}, 1, "inputs are never overwritten"},
                           Wrong{{source, reference, "-o", at("x.bmp")}, 2, "output format"},
                           Wrong{{source, reference, "-o", at("x.png"), "--strength", "1.5"}, 2, "--strength"},
                           Wrong{{source, reference, "-o", at("x.png"), "--smooth-threshold", "0.2"}, 2, "--smooth"},
                           Wrong{{source, reference, "--frobnicate"}, 2, "unknown option"},
                           Wrong{{source, "-o", at("x.png")}, 2, "SOURCE and REFERENCE"}}) {
        std::vector<std::string> args{"transfer"};
        args.insert(args.end(), w.args.begin(), w.args.end());
        const Outcome r = run(args);
        EXPECT_EQ(r.status, w.status) << r.err;
        EXPECT_EQ(lines(r.err), 1) << r.err;
        EXPECT_NE(r.err.find(w.reason), std::string::npos) << r.err;
    }
    std::ifstream kept(at("taken.png"));
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(kept), {}), "keep me");
    EXPECT_EQ(run({"transfer", source, reference, "-o", at("taken.png"), "--force"}).status, 0);
    EXPECT_EQ(readPng(at("taken.png")).w, 600);
    // Nothing but the inputs and the one forced output remains: no temporaries.
    for (const std::string &name : listing(dir_)) EXPECT_TRUE(name[0] != '.' || name.starts_with(".std")) << name;
}

TEST_F(Tool, CtrlCStopsWithoutOutput) {
    // Many smoothing passes keep the library busy long enough to interrupt.
    const pid_t pid = start({"transfer", kData + "/astronaut.png", kData + "/coffee.png", "-o", at("slow.png"),
                             "--smooth", "--smooth-iterations", "100000"});
    ::usleep(400 * 1000);
    ::kill(pid, SIGINT);
    const Outcome r = finish(pid);
    EXPECT_EQ(r.status, 130) << r.err;
    EXPECT_NE(r.err.find("interrupted"), std::string::npos) << r.err;
    EXPECT_EQ(listing(dir_), (std::vector<std::string>{".stderr", ".stdout"}));
}

}  // namespace
