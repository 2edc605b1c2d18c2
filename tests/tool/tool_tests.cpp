// Runs the `morven` executable as a user would and checks its files, exit
// statuses and messages. Pictures are checked through libpng's simplified
// interface and libjpeg, not through the tool's own decoders.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <jpeglib.h>
#include <png.h>
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
#include <string>
#include <vector>

#include "tool_launcher.h"

extern char **environ;

namespace {

namespace fs = std::filesystem;
const std::string kData = MORVEN_DATA_DIR;
const std::string kChelsea = kData + "/chelsea.png", kCoffee = kData + "/coffee.png";

struct Pic {
    int w = 0, h = 0, c = 0;
    std::vector<uint8_t> px;
};

std::string slurp(const fs::path &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

Pic readPng(const fs::path &path) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&image, path.c_str())) return {};
    image.format &= ~uint32_t(PNG_FORMAT_FLAG_LINEAR | PNG_FORMAT_FLAG_COLORMAP);
    Pic pic{int(image.width), int(image.height), int(PNG_IMAGE_SAMPLE_CHANNELS(image.format)),
            std::vector<uint8_t>(PNG_IMAGE_SIZE(image))};
    return png_image_finish_read(&image, nullptr, pic.px.data(), 0, nullptr) ? pic : Pic{};
}

// 8-bit samples, or each sample v as the 16-bit v * 257 + 100 (which scales,
// rounded, back to v; truncation to the high byte would not); with a colormap,
// a palette picture whose indices are pic.px.
void writePng(const fs::path &path, const Pic &pic, bool sixteen = false, const std::vector<uint8_t> &colormap = {}) {
    static const uint32_t formats[] = {0, PNG_FORMAT_GRAY, PNG_FORMAT_GA, PNG_FORMAT_RGB, PNG_FORMAT_RGBA};
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = pic.w, image.height = pic.h, image.format = formats[pic.c] | (sixteen ? PNG_FORMAT_FLAG_LINEAR : 0);
    if (!colormap.empty()) image.format = PNG_FORMAT_RGB_COLORMAP, image.colormap_entries = colormap.size() / 3;
    std::vector<uint16_t> wide(pic.px.size());
    std::transform(pic.px.begin(), pic.px.end(), wide.begin(),
                   [](uint8_t v) { return uint16_t(std::min(v * 257 + 100, 65535)); });
    ASSERT_TRUE(png_image_write_to_file(&image, path.c_str(), 0, sixteen ? (const void *)wide.data() : pic.px.data(), 0,
                                        colormap.empty() ? nullptr : colormap.data()));
}

Pic readJpeg(const fs::path &path) {
    const std::string bytes = slurp(path);
    jpeg_decompress_struct cinfo;
    jpeg_error_mgr err;
    cinfo.err = jpeg_std_error(&err);
    jpeg_create_decompress(&cinfo);
    jpeg_mem_src(&cinfo, reinterpret_cast<const unsigned char *>(bytes.data()), bytes.size());
    jpeg_read_header(&cinfo, TRUE);
    jpeg_start_decompress(&cinfo);
    Pic pic{int(cinfo.output_width), int(cinfo.output_height), cinfo.output_components, {}};
    pic.px.resize(size_t(pic.w) * pic.h * pic.c);
    for (JSAMPROW row; cinfo.output_scanline < cinfo.output_height; jpeg_read_scanlines(&cinfo, &row, 1))
        row = pic.px.data() + size_t(cinfo.output_scanline) * pic.w * pic.c;
    jpeg_finish_decompress(&cinfo);
    jpeg_destroy_decompress(&cinfo);
    return pic;
}

// Pixel-wise rebuild of a picture with another channel layout (alpha from
// alpha(i)); colour to gray by the Rec. 601 luma, rounded: an independent
// form of the gray conversion.
Pic relayout(const Pic &p, int channels, uint8_t (*alpha)(size_t) = nullptr) {
    Pic out{p.w, p.h, channels, std::vector<uint8_t>(size_t(p.w) * p.h * channels)};
    for (size_t i = 0; i < size_t(p.w) * p.h; ++i) {
        const uint8_t *s = &p.px[i * p.c];
        uint8_t *d = &out.px[i * channels];
        const uint8_t y = p.c < 3 ? s[0] : uint8_t(std::lround(0.299 * s[0] + 0.587 * s[1] + 0.114 * s[2]));
        for (int k = 0; k < (channels >= 3 ? 3 : 1); ++k) d[k] = channels >= 3 ? s[k] : y;
        if (channels % 2 == 0) d[channels - 1] = alpha(i);
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

int lines(const std::string &s) { return int(std::count(s.begin(), s.end(), '\n')); }

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

    std::string at(const std::string &name) const { return (dir_ / name).string(); }

    // Runs the tool with stdout and stderr in hidden files, sending SIGINT
    // after interruptMs milliseconds when that is not 0.
    Outcome run(const std::vector<std::string> &args, int interruptMs = 0) {
        // A cross build runs the tool through the emulator its tests run under.
        std::vector<char *> argv;
        for (const char *word : kLauncher) argv.push_back(const_cast<char *>(word));
        argv.push_back(const_cast<char *>(MORVEN_TOOL));
        for (const std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, at(".stdout").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_addopen(&actions, 2, at(".stderr").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        pid_t pid = -1;
        EXPECT_EQ(posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ), 0);
        posix_spawn_file_actions_destroy(&actions);
        if (interruptMs) ::usleep(interruptMs * 1000), ::kill(pid, SIGINT);
        int status = 0;
        ::waitpid(pid, &status, 0);
        return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), slurp(at(".stdout")),
                slurp(at(".stderr"))};
    }

    std::vector<std::string> listing(const std::string &folder) const {
        std::vector<std::string> names;
        for (const auto &e : fs::directory_iterator(folder)) names.push_back(e.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

    fs::path dir_;
};

// ---------------------------------------------------------------------------

// Each channel of the result takes on the reference's distribution: the
// distance between their histograms drops to under a fifth and under 3 levels.
TEST_F(Tool, TransfersTheBundledPhotographs) {
    for (const auto &[source, reference] :
         {std::pair{"coffee.png", "chelsea.png"}, {"astronaut.png", "coffee.jpg"}, {"chelsea.png", "astronaut.png"}}) {
        SCOPED_TRACE(std::string(source) + " <- " + reference);
        const Outcome r = run({"transfer", kData + "/" + source, kData + "/" + reference, "-o", at("result.png"),
                               "--compare", at("compare.png"), "--verbose", "--force"});
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_NE(r.err.find("library "), std::string::npos) << r.err;  // --verbose timings
        std::printf("[ timings  ] %s <- %s:\n%s", source, reference, r.err.c_str());
        const Pic in = readPng(kData + "/" + source), out = readPng(at("result.png"));
        const Pic ref = std::string(reference).ends_with(".jpg") ? readJpeg(kData + "/" + reference)
                                                                 : readPng(kData + "/" + reference);
        ASSERT_TRUE(out.w == in.w && out.h == in.h && out.c == 3);
        for (int ch = 0; ch < 3; ++ch) {
            const double before = distance(in, ch, ref, ch), after = distance(out, ch, ref, ch);
            std::printf("[ distance ] channel %d: %.2f levels before, %.2f after\n", ch, before, after);
            EXPECT_LT(after, 0.2 * before);
            EXPECT_LT(after, 3.0);
        }
        const Pic picture = readPng(at("compare.png"));  // three panels with charts
        EXPECT_TRUE(picture.c == 3 && picture.w > 3 * 256 && picture.h > 320) << picture.w << "x" << picture.h;
    }
}

// 16-bit samples and palettes give exactly what their 8-bit RGB equivalents
// give; alpha passes through unchanged and the colours are as without it;
// gray stays gray (through JPEG too) and takes on the reference's luma
// distribution. Under a mask of 0 every stage leaves the source as it was.
// JPEG output drops alpha with a note, which --quiet silences.
TEST_F(Tool, ReadsEveryLayoutAndKeepsAlpha) {
    const Pic rgb = readPng(kChelsea), gray = relayout(rgb, 1);
    const auto alpha = [](size_t i) { return uint8_t(i * 7 % 256); };
    Pic indices{rgb.w, rgb.h, 1, {}}, few{rgb.w, rgb.h, 3, {}};  // 8 colours
    std::vector<uint8_t> colormap;
    for (int n = 0; n < 24; ++n) colormap.push_back(uint8_t(n * 37 % 256));
    for (size_t i = 0; i < rgb.px.size(); i += 3) {
        indices.px.push_back(rgb.px[i] / 32);
        few.px.insert(few.px.end(), &colormap[3 * indices.px.back()], &colormap[3 * indices.px.back() + 3]);
    }
    writePng(at("rgb.png"), rgb);
    writePng(at("rgb16.png"), rgb, true);
    writePng(at("rgba.png"), relayout(rgb, 4, alpha));
    writePng(at("gray.png"), gray);
    writePng(at("ga.png"), relayout(rgb, 2, alpha));
    writePng(at("few.png"), few);
    writePng(at("palette.png"), indices, false, colormap);
    writePng(at("zero.png"), Pic{rgb.w, rgb.h, 1, std::vector<uint8_t>(size_t(rgb.w) * rgb.h)});
    // Input, output, the note expected on stderr (none: stderr stays empty), more options.
    // clang-format off
    const std::vector<std::string> runs[] = {
        {"rgb.png", "rgb.png", ""},         {"rgb16.png", "rgb16.png", "16-bit"}, {"rgba.png", "rgba.png", ""},
        {"gray.png", "gray.png", ""},       {"ga.png", "ga.png", ""},             {"few.png", "few.png", ""},
        {"palette.png", "palette.png", ""}, {"rgba.png", "rgba.jpg", "alpha"},    {"rgba.png", "quiet.jpg", "", "--quiet"},
        {"gray.png", "gray.jpg", ""},       {"out-gray.jpg", "grayjpg.png", ""},
        {"ga.png", "masked.png", "", "--contrast", "--smooth", "--mask", at("zero.png")}};
    // clang-format on
    for (const auto &r : runs) {
        std::vector<std::string> args{"transfer", at(r[0]), kCoffee, "-o", at("out-" + r[1])};
        args.insert(args.end(), r.begin() + 3, r.end());
        const Outcome o = run(args);
        EXPECT_EQ(o.status, 0) << r[1] << ": " << o.err;
        EXPECT_TRUE(o.err.empty() == r[2].empty() && o.err.find(r[2]) != std::string::npos) << r[1] << ": " << o.err;
    }
    const auto out = [&](const std::string &name) { return readPng(at("out-" + name)); };
    const Pic expected = out("rgb.png"), grayOut = out("gray.png"), jpeg = readJpeg(at("out-rgba.jpg"));
    ASSERT_EQ(expected.c, 3);
    EXPECT_EQ(out("rgb16.png").px, expected.px);
    EXPECT_EQ(out("palette.png").px, out("few.png").px);
    EXPECT_EQ(out("rgba.png").px, relayout(expected, 4, alpha).px);
    EXPECT_EQ(out("ga.png").px, relayout(grayOut, 2, alpha).px);
    EXPECT_EQ(out("masked.png").px, readPng(at("ga.png")).px);
    EXPECT_TRUE(grayOut.c == 1 && readJpeg(at("out-gray.jpg")).c == 1 && out("grayjpg.png").c == 1);
    EXPECT_TRUE(jpeg.c == 3 && jpeg.w == rgb.w && jpeg.h == rgb.h);
    const Pic referenceGray = relayout(readPng(kCoffee), 1);
    EXPECT_LT(distance(grayOut, 0, referenceGray, 0), 0.2 * distance(gray, 0, referenceGray, 0));
}

// Every command with its options: each option changes the result, or leaves
// the input as it is where it must. Stretched channels span 0..255 each, the
// levels with no tails clipped span 0..255, equalised channels come close to
// flat, and info prints the size and the mean computed here. Every command
// has its help.
TEST_F(Tool, CommandsAndOptionsTakeEffect) {
    const std::vector<std::string> runs[] = {
        {"transfer", kCoffee, kChelsea, "-o", at("t.png")},
        {"transfer", kCoffee, kChelsea, "-o", at("strength0.png"), "--strength", "0"},
        {"transfer", kCoffee, kChelsea, "-o", at("strength.png"), "--strength", "0.5"},
        {"transfer", kCoffee, kChelsea, "-o", at("fidelity.png"), "--fidelity", "0.2"},
        {"transfer", kCoffee, kChelsea, "-o", at("max-step.png"), "--max-step", "1"},
        {"transfer", kCoffee, kChelsea, "-o", at("contrast.png"), "--contrast"},
        {"transfer", kCoffee, kChelsea, "-o", at("high.png"), "--contrast", "--high-tail", "200"},
        {"transfer", kCoffee, kChelsea, "-o", at("low.png"), "--contrast", "--low-tail", "200"},
        {"transfer", kCoffee, kChelsea, "-o", at("t-smooth.png"), "--smooth"},
        {"smooth", kCoffee, at("t.png"), "-o", at("smooth.png")},
        {"smooth", kCoffee, at("t.png"), "-o", at("smooth0.png"), "--threshold", "0"},
        {"smooth", kCoffee, at("t.png"), "-o", at("smooth3.png"), "--iterations", "3"},
        {"stretch", kChelsea, "-o", at("stretch.png")},
        {"equalize", kChelsea, "-o", at("equal.png")},
        {"contrast", kChelsea, "-o", at("levels.png")},
        {"contrast", kChelsea, "-o", at("high0.png"), "--high-tail", "0"},
        {"contrast", kChelsea, "-o", at("levels0.png"), "--high-tail", "0", "--low-tail", "0"}};
    for (const auto &args : runs) {
        const Outcome r = run(args);
        ASSERT_EQ(r.status, 0) << args[0] << " -> " << args[args.size() > 4 ? 4 : 3] << ": " << r.err;
    }
    const auto pic = [&](const std::string &name) { return readPng(name.starts_with("/") ? name : at(name)); };
    EXPECT_EQ(pic("strength0.png").px, pic(kCoffee).px);
    EXPECT_EQ(pic("smooth0.png").px, pic("t.png").px);
    // The transfer's smoothing is guided by the unprocessed source.
    EXPECT_EQ(pic("t-smooth.png").px, pic("smooth.png").px);
    EXPECT_TRUE(pic("smooth.png").px != pic("t.png").px);
    // clang-format off
    for (const auto &[a, b] : {std::pair{"strength.png", "t.png"}, {"fidelity.png", "t.png"}, {"max-step.png", "t.png"},
                               {"contrast.png", "t.png"}, {"high.png", "contrast.png"}, {"low.png", "contrast.png"},
                               {"smooth3.png", "t.png"}, {"high0.png", "levels.png"}, {"levels0.png", "high0.png"}})
        // clang-format on
        EXPECT_TRUE(pic(a).px != pic(b).px) << a;
    const Pic input = pic(kChelsea), stretched = pic("stretch.png"), levels = pic("levels0.png");
    Pic flat{256, 1, 1, std::vector<uint8_t>(256)};
    for (int v = 0; v < 256; ++v) flat.px[v] = uint8_t(v);
    for (int ch = 0; ch < 3; ++ch) {
        uint8_t lo = 255, hi = 0;
        for (size_t i = ch; i < stretched.px.size(); i += 3)
            lo = std::min(lo, stretched.px[i]), hi = std::max(hi, stretched.px[i]);
        EXPECT_TRUE(lo == 0 && hi == 255) << "channel " << ch << ": " << int(lo) << ".." << int(hi);
        EXPECT_LT(distance(pic("equal.png"), ch, flat, 0), 0.25 * distance(input, ch, flat, 0));
    }
    EXPECT_EQ(*std::min_element(levels.px.begin(), levels.px.end()), 0);
    EXPECT_EQ(*std::max_element(levels.px.begin(), levels.px.end()), 255);

    const Outcome info = run({"info", kChelsea});
    double sum = 0;
    for (size_t i = 0; i < input.px.size(); i += 3) sum += input.px[i];
    char mean[32];
    std::snprintf(mean, sizeof mean, " %.2f ", sum / (input.w * input.h));
    EXPECT_EQ(info.status, 0) << info.err;
    EXPECT_TRUE(info.out.find("451 x 300") != std::string::npos && info.out.find(mean) != std::string::npos)
        << info.out << " lacks " << mean;
    for (const std::string command : {"transfer", "equalize", "stretch", "contrast", "smooth", "info"})
        EXPECT_TRUE(run({command, "--help"}).out.starts_with("usage: morven " + command)) << command;
}

// One failed file does not stop the others; outputs keep their names and
// formats, and exist only where the input was read.
TEST_F(Tool, BatchFinishesTheOthersWhenOneFileFails) {
    fs::create_directory(at("in"));
    for (const char *name : {"coffee.png", "coffee.jpg", "astronaut.png"})
        fs::create_symlink(kData + "/" + name, at("in/") + name);
    std::ofstream(at("in/broken.png")) << "\x89PNG\r\n\x1a\n this is not a picture";
    std::ofstream(at("in/notes.txt")) << "not an image name: skipped";
    const Outcome r = run({"transfer", "--reference", kChelsea, "-o", at("out"), at("in"), "--jobs", "2"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(listing(at("out")), (std::vector<std::string>{"astronaut.png", "coffee.jpg", "coffee.png"}));
    EXPECT_NE(r.err.find("broken.png: corrupt PNG file"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("3 of 4 images"), std::string::npos) << r.err;
    EXPECT_EQ(readJpeg(at("out/coffee.jpg")).w, 600);
    // Again, one job: every output exists now and is kept without --force,
    // and the first refusal does not stop the second file.
    const Outcome again = run({"transfer", "--reference", kChelsea, "-o", at("out"), at("in/coffee.png"),
                               at("in/astronaut.png"), "--quiet", "--jobs", "1"});
    EXPECT_EQ(again.status, 1);
    EXPECT_EQ(lines(again.err), 2) << again.err;
    EXPECT_NE(again.err.find("already exists"), std::string::npos);
}

// Damaged inputs (to transfer and to info) and wrong command lines: exit
// status 1 for a file that cannot be read or written, 2 for a wrong command
// line, always one line naming the reason, and no output. An existing output
// is kept without --force and replaced with it, an input never is, and no
// temporary file remains.
TEST_F(Tool, RefusesBadFilesAndCommandLinesWithOneLine) {
    const std::string png = slurp(kChelsea), jpg = slurp(kData + "/coffee.jpg");
    std::string noise(4096, '\0');
    for (size_t i = 0; i < noise.size(); ++i) noise[i] = char(i * 7919 % 251 + 1);  // no PNG or JPEG signature
    const auto be32 = [](uint32_t v) { return std::string{char(v >> 24), char(v >> 16), char(v >> 8), char(v)}; };
    const auto chunk = [&](const std::string &type, const std::string &data) {
        const std::string body = type + data;
        return be32(uint32_t(data.size())) + body + be32(crc32(0, (const Bytef *)body.data(), uInt(body.size())));
    };
    // A valid PNG header declaring 60000 x 60000 pixels, then a little data.
    const std::string huge = png.substr(0, 8) +
                             chunk("IHDR", be32(60000) + be32(60000) + std::string("\x08\x02\0\0\0", 5)) +
                             chunk("IDAT", std::string("\x78\x9c\x03\0\0\0\0\x01", 8)) + chunk("IEND", "");
    fs::copy_file(kCoffee, at("source.png"));
    std::ofstream(at("taken.png")) << "keep me";
    const std::string source = at("source.png"), x = at("x.png");
    std::vector<std::tuple<std::vector<std::string>, int, std::string>> cases = {
        {{"transfer", source, kChelsea, "-o", x, "--mask", kChelsea}, 1, "mask is 451 x 300"},
        {{"smooth", kChelsea, source, "-o", x}, 1, "451 x 300"},
        {{"transfer", at("missing.png"), kChelsea, "-o", x}, 1, "No such file"},
        {{"transfer", source, kChelsea, "-o", at("no/such/x.png")}, 1, "cannot write into folder"},
        {{"transfer", source, kChelsea, "-o", at("taken.png")}, 1, "--force"},
        {{"transfer", source, kChelsea, "-o", source, "--force"}, 1, "inputs are never overwritten"},
        {{"transfer", source, kChelsea, "-o", at("x.bmp")}, 2, "output format"},
        {{"transfer", source, kChelsea, "-o", x, "--strength", "1.5"}, 2, "--strength"},
        {{"transfer", source, kChelsea, "-o", x, "--smooth-threshold", "0.2"}, 2, "--smooth"},
        {{"transfer", source, kChelsea, "--frobnicate"}, 2, "unknown option"},
        {{"transfer", source, "-o", x}, 2, "SOURCE and REFERENCE"}};
    for (const auto &[name, bytes, reason] :
         {std::tuple<std::string, std::string, std::string>{"empty.png", "", "empty file"},
          {"noise.png", noise, "not a PNG or JPEG"},
          {"cut.png", png.substr(0, png.size() / 2), "truncated PNG"},
          {"cut.jpg", jpg.substr(0, jpg.size() / 2), "truncated JPEG"},
          {"huge.png", huge, "image size 60000 x 60000"},
          {"anim.gif", "GIF89a\x01\0\x01\0", "unsupported format: GIF"}}) {
        std::ofstream(at(name), std::ios::binary) << bytes;
        cases.push_back({{"transfer", at(name), kChelsea, "-o", x}, 1, name + ": " + reason});
        cases.push_back({{"info", at(name)}, 1, name + ": " + reason});  // info reads through the same path
    }
    for (const auto &[args, status, reason] : cases) {
        const Outcome r = run(args);
        EXPECT_EQ(r.status, status) << r.err;
        EXPECT_TRUE(lines(r.err) == 1 && r.err.find(reason) != std::string::npos) << r.err;
    }
    EXPECT_FALSE(fs::exists(x));
    EXPECT_EQ(slurp(at("taken.png")), "keep me");
    EXPECT_EQ(slurp(source), slurp(kCoffee));
    EXPECT_EQ(run({"transfer", source, kChelsea, "-o", at("taken.png"), "--force"}).status, 0);
    EXPECT_EQ(readPng(at("taken.png")).w, 600);
    for (const std::string &name : listing(dir_)) EXPECT_TRUE(name[0] != '.' || name.starts_with(".std")) << name;
}

// Many smoothing passes keep the library busy long enough to interrupt.
TEST_F(Tool, CtrlCStopsWithoutOutput) {
    const Outcome r = run({"transfer", kData + "/astronaut.png", kCoffee, "-o", at("slow.png"), "--smooth",
                           "--smooth-iterations", "100000"},
                          400);
    EXPECT_EQ(r.status, 130) << r.err;
    EXPECT_NE(r.err.find("interrupted"), std::string::npos) << r.err;
    EXPECT_EQ(listing(dir_), (std::vector<std::string>{".stderr", ".stdout"}));
}

}  // namespace
