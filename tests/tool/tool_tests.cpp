// Runs the `morven` executable as a user would and checks its files, exit
// statuses and messages. Pictures are made and read here through the codec
// libraries directly, and every processed result is compared byte for byte
// with the library called directly with the same parameters, so that an
// option wired to the wrong parameter fails.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <tiffio.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include "support.hpp"
#include "tool_launcher.h"

extern char **environ;

namespace {

using namespace tooltest;
namespace fs = std::filesystem;
using Args = std::vector<std::string>;

bool has(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
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
    Outcome run(const Args &args, int interruptMs = 0) {
        // A cross build runs the tool through the emulator its tests run under.
        std::vector<char *> argv;
        for (const char *word : kLauncher) argv.push_back(const_cast<char *>(word));
        argv.push_back(const_cast<char *>(MORVEN_TOOL));
        for (const std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, at(".stdout").c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_addopen(&actions, 2, at(".stderr").c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0644);
        pid_t pid = -1;
        EXPECT_EQ(posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ), 0);
        posix_spawn_file_actions_destroy(&actions);
        if (interruptMs) ::usleep(interruptMs * 1000), ::kill(pid, SIGINT);
        int status = 0;
        ::waitpid(pid, &status, 0);
        return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status),
                slurp(at(".stdout")), slurp(at(".stderr"))};
    }

    // Runs the tool and expects success.
    Outcome ok(const Args &args) {
        Outcome r = run(args);
        EXPECT_EQ(r.status, 0) << args[0] << " " << (args.size() > 1 ? args[1] : "") << ": "
                               << r.err;
        return r;
    }

    // Runs the tool with "-o out.png --force" added, expecting success, and
    // reads that output; the messages go to *err when asked for.
    Pic output(Args args, std::string *err = nullptr) {
        args.insert(args.end(), {"-o", at("out.png"), "--force"});
        const Outcome r = ok(args);
        if (err) *err = r.err;
        return readPic(at("out.png"));
    }

    std::vector<std::string> listing(const std::string &folder) const {
        std::vector<std::string> names;
        for (const auto &e : fs::directory_iterator(folder))
            names.push_back(e.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

    fs::path dir_;
};

// A pattern written as PNG; returned as written.
Pic png(const std::string &path, int w, int h, int c, int depth, unsigned seed,
        const std::vector<uint8_t> &icc = {}) {
    const Pic p = pattern(w, h, c, depth, seed);
    writePng(path, p, icc);
    return p;
}

// ---------------------------------------------------------------------------
// 1. Orientation: every EXIF orientation is undone on reading, the output
// says orientation 1, and info names what it did.

TEST_F(Tool, TurnsEveryOrientationUpright) {
    if (!kHaveExiv2) GTEST_SKIP() << "the tool was built without Exiv2";
    const Pic stored = pattern(24, 16, 3, 8, 1);
    for (int o = 1; o <= 8; ++o) {
        SCOPED_TRACE("orientation " + std::to_string(o));
        const std::string in = at("o.jpg"), out = at(std::to_string(o) + ".png");
        writeJpeg(in, stored);
        addMetadata(in,
                    {{"Exif.Image.Orientation", std::to_string(o)}, {"Exif.Image.Make", "Phone"}});
        ok({"stretch", in, "-o", out});
        const Pic upright = oriented(readPic(in), o);
        EXPECT_EQ(readPic(out), libraryFilter("stretch", upright));
        EXPECT_EQ(metadataOf(out)["Exif.Image.Orientation"], "1");
        const Outcome info = ok({"info", in});
        EXPECT_EQ(has(info.out, "orientation: EXIF " + std::to_string(o)), o != 1) << info.out;
        EXPECT_TRUE(has(info.out, std::to_string(upright.w) + " x " + std::to_string(upright.h)))
            << info.out;
    }
}

// ---------------------------------------------------------------------------
// 2. Metadata: EXIF, XMP, IPTC, the ICC profile and the resolution of the
// source reach every format that holds them; nothing of the reference's
// does; --strip drops everything.

TEST_F(Tool, KeepsTheSourcesMetadataWhereTheFormatHoldsIt) {
    if (!kHaveExiv2) GTEST_SKIP() << "the tool was built without Exiv2";
    const std::vector<uint8_t> adobe = adobeProfile();
    writeJpeg(at("src.jpg"), pattern(32, 20, 3, 8, 2), adobe);
    addMetadata(at("src.jpg"), {{"Exif.Image.Make", "Camera"},
                                {"Exif.Image.Artist", "Ann Author"},
                                {"Exif.Photo.DateTimeOriginal", "2024:05:01 10:12:00"},
                                {"Exif.Image.XResolution", "300/1"},
                                {"Exif.Image.YResolution", "300/1"},
                                {"Exif.Image.ResolutionUnit", "2"},
                                {"Xmp.dc.rights", "(c) Ann"},
                                {"Iptc.Application2.Byline", "Ann"}});
    writePng(at("ref.png"), pattern(20, 20, 3, 8, 3));
    addMetadata(at("ref.png"), {{"Exif.Image.Make", "ReferenceCam"}});
    // Output, then whether it keeps XMP, IPTC and the resolution (WebP has
    // no IPTC and no resolution field outside EXIF).
    for (const auto &[name, xmp, iptc] : {std::tuple{"out.jpg", true, true},
                                          {"out.png", true, true},
                                          {"out.tif", true, true},
                                          {"out.webp", true, false}}) {
        SCOPED_TRACE(name);
        const Outcome r = ok({"transfer", at("src.jpg"), at("ref.png"), "-o", at(name)});
        auto m = metadataOf(at(name));
        EXPECT_EQ(m["Exif.Image.Make"], "Camera");
        EXPECT_EQ(m["Exif.Image.Artist"], "Ann Author");
        EXPECT_EQ(m["Exif.Photo.DateTimeOriginal"], "2024:05:01 10:12:00");
        const std::string x = m["Exif.Image.XResolution"];
        EXPECT_EQ(std::stod(x.substr(0, x.find('/'))) / std::stod(x.substr(x.find('/') + 1)), 300)
            << x;
        EXPECT_EQ(has(m["Xmp.dc.rights"], "(c) Ann"), xmp);
        EXPECT_EQ(m["Iptc.Application2.Byline"] == "Ann", iptc);
        EXPECT_EQ(has(r.err, "IPTC not kept"), !iptc) << r.err;
        EXPECT_EQ(iccOf(at(name)), adobe);
    }
    ok({"transfer", at("src.jpg"), at("ref.png"), "-o", at("bare.jpg"), "--strip"});
    const auto bare = metadataOf(at("bare.jpg"));
    EXPECT_TRUE(std::none_of(bare.begin(), bare.end(), [](const auto &kv) {
        return kv.first.starts_with("Xmp") || kv.first.starts_with("Iptc") || has(kv.second, "Ann");
    }));
    EXPECT_TRUE(iccOf(at("bare.jpg")).empty());
}

// ---------------------------------------------------------------------------
// 3. Colour management: the reference is converted into the source's space
// before matching and the output carries the source's profile; CMYK is
// converted through its profile or refused without one.

TEST_F(Tool, ConvertsTheReferenceIntoTheSourcesColourSpace) {
    const std::vector<uint8_t> p3 = p3Profile(), adobe = adobeProfile();
    png(at("p3.png"), 30, 20, 3, 8, 4, p3);
    const Pic plain = png(at("plain.png"), 30, 20, 3, 8, 5);
    const Pic adobeRef = png(at("adobe.png"), 25, 25, 3, 8, 6, adobe);
    Transfer t;
    // Source, reference, extra options, the reference as the library sees it,
    // the profile the output carries.
    for (const auto &[source, reference, extra, seen, icc] :
         {std::tuple{"p3.png", "plain.png", "", convert(plain, {}, p3), p3},
          {"p3.png", "plain.png", "--ignore-profiles", plain, p3},
          {"plain.png", "adobe.png", "", convert(adobeRef, adobe, {}), std::vector<uint8_t>{}},
          {"p3.png", "adobe.png", "", convert(adobeRef, adobe, p3), p3}}) {
        SCOPED_TRACE(std::string(source) + " <- " + reference + " " + extra);
        Args args{"transfer", at(source), at(reference)};
        if (*extra) args.push_back(extra);
        EXPECT_EQ(output(args), libraryTransfer(readPic(at(source)), seen, t));
        EXPECT_EQ(iccOf(at("out.png")), icc);
    }
    // In one batch, in either order, a source without a profile and one with
    // the reference's own each match the reference as their space shows it.
    png(at("adobe-source.png"), 30, 20, 3, 8, 9, adobe);
    for (const Args &order : {Args{at("plain.png"), at("adobe-source.png")},
                              Args{at("adobe-source.png"), at("plain.png")}}) {
        fs::remove_all(at("batch"));
        ok({"transfer", "--reference", at("adobe.png"), "-o", at("batch"), order[0], order[1], "-j",
            "1"});
        EXPECT_EQ(readPic(at("batch/plain.png")),
                  libraryTransfer(readPic(at("plain.png")), convert(adobeRef, adobe, {}), t));
        EXPECT_EQ(readPic(at("batch/adobe-source.png")),
                  libraryTransfer(readPic(at("adobe-source.png")), adobeRef, t));
    }

    // CMYK JPEG: through its profile into sRGB, or refused without one.
    const std::vector<uint8_t> cmyk = cmykProfile();
    const Pic ink = pattern(16, 12, 4, 8, 7);
    writeJpeg(at("cmyk.jpg"), ink, cmyk, true);
    writeJpeg(at("bare-cmyk.jpg"), ink, {}, true);
    ok({"stretch", at("cmyk.jpg"), "-o", at("cmyk.png")});
    Pic decoded = readPic(at("cmyk.jpg"));
    for (uint16_t &v : decoded.px) v = uint16_t(255 - v);  // Adobe's inverted ink
    EXPECT_EQ(readPic(at("cmyk.png")), libraryFilter("stretch", cmykToSrgb(decoded, cmyk)));
    const Outcome refused = run({"stretch", at("bare-cmyk.jpg"), "-o", at("x.png")});
    EXPECT_EQ(refused.status, 1);
    EXPECT_TRUE(has(refused.err, "CMYK picture without an ICC profile")) << refused.err;
}

// ---------------------------------------------------------------------------
// 4. Transparency and masks: pixels of alpha 0 and pixels a mask leaves out
// count nowhere. A reference whose left half is transparent pure green
// gives what its right half alone gives; alpha passes through.

TEST_F(Tool, TransparentAndMaskedPixelsCountNowhere) {
    Pic reference = pattern(40, 20, 4, 8, 8);
    std::vector<uint8_t> rightHalf(40 * 20, 0);
    for (int y = 0; y < 20; ++y)
        for (int x = 0; x < 40; ++x) {
            if (x >= 20)
                rightHalf[y * 40 + x] = 255, reference.at(x, y, 3) = 255;
            else
                reference.at(x, y, 0) = 0, reference.at(x, y, 1) = 255, reference.at(x, y, 2) = 0,
                                   reference.at(x, y, 3) = 0;
        }
    writePng(at("ref.png"), reference);
    writePng(at("opaque.png"), crop(reference, 0, 0, 40, 20, 3));
    writePng(at("right.png"), crop(reference, 20, 0, 20, 20, 3));
    writePng(at("half.png"), grayPic(40, 20, rightHalf));
    Pic source = pattern(30, 18, 4, 8, 9);
    for (int x = 0; x < 30; x += 3) source.at(x, 5, 3) = 0;
    writePng(at("src.png"), source);
    std::vector<uint8_t> sourceMask(30 * 18);
    for (size_t i = 0; i < sourceMask.size(); ++i) sourceMask[i] = i % 7 ? 200 : 0;
    writePng(at("smask.png"), grayPic(30, 18, sourceMask));

    const Pic right = readPic(at("right.png"));
    Transfer withSourceMask;
    withSourceMask.statsMask = sourceMask;
    for (const auto &[reference, extra, expected] :
         {std::tuple{"ref.png", Args{}, libraryTransfer(source, right, {})},
          {"opaque.png", Args{"--reference-mask", at("half.png")},
           libraryTransfer(source, right, {})},
          {"right.png", Args{"--source-mask", at("smask.png")},
           libraryTransfer(source, right, withSourceMask)}}) {
        SCOPED_TRACE(std::string(reference) + (extra.empty() ? "" : " " + extra[0]));
        Args args{"transfer", at("src.png"), at(reference)};
        args.insert(args.end(), extra.begin(), extra.end());
        const Pic out = output(args);
        EXPECT_EQ(out, expected);
        for (size_t i = 3; i < out.px.size(); i += 4)
            ASSERT_EQ(out.px[i], source.px[i]);  // alpha untouched
    }
}

// ---------------------------------------------------------------------------
// 5. 16 bits: PNG and TIFF keep them, JPEG and WebP say they do not, and
// every command works on 8- and 16-bit pictures as the library does, its
// options reaching the parameters they name.

TEST_F(Tool, KeepsSixteenBitsEndToEnd) {
    const Pic deep = png(at("deep.png"), 28, 20, 3, 16, 10);
    writeTiff(at("deep.tif"), deep, COMPRESSION_LZW, false, false);
    const Pic ref = png(at("ref.png"), 20, 20, 3, 8, 11);
    const Pic matched = libraryTransfer(deep, ref, {});
    for (const char *in : {"deep.png", "deep.tif"})
        for (const char *out : {"out.png", "out.tif"}) {
            SCOPED_TRACE(std::string(in) + " -> " + out);
            const Outcome r = ok({"transfer", at(in), at("ref.png"), "-o", at(out), "--force"});
            EXPECT_EQ(readPic(at(out)), matched);
            EXPECT_TRUE(r.err.empty()) << r.err;
        }
    for (const char *out : {"out.jpg", "out.webp"}) {
        const Outcome r =
            ok({"transfer", at("deep.png"), at("ref.png"), "-o", at(out), "--lossless"});
        EXPECT_TRUE(has(r.err, "holds 8 bits per sample")) << r.err;
        EXPECT_EQ(readPic(at(out)).depth, 8);
    }
    Pic nearest = matched;  // what lossless WebP holds: the nearest 8-bit levels
    nearest.depth = 8;
    for (uint16_t &v : nearest.px) v = uint16_t((v + 128) / 257);
    EXPECT_EQ(readPic(at("out.webp")), nearest);
    const Pic other = png(at("deep2.png"), 28, 20, 3, 16, 12),
              ref2 = png(at("ref2.png"), 20, 20, 3, 8, 20);
    for (const auto &[args, expected] :
         {std::pair{Args{"equalize", at("deep.png")}, libraryFilter("equalize", deep)},
          {Args{"stretch", at("deep.png")}, libraryFilter("stretch", deep)},
          {Args{"contrast", at("deep.png"), "--high-tail", "30", "--low-tail", "3"},
           libraryFilter("contrast", deep, 30, 3)},
          {Args{"contrast", at("ref.png"), "--high-tail", "120"},
           libraryFilter("contrast", ref, 120, 4)},
          {Args{"contrast", at("ref.png"), "--low-tail", "40"},
           libraryFilter("contrast", ref, 9, 40)},
          {Args{"smooth", at("deep.png"), at("deep2.png"), "--threshold", "0.3"},
           librarySmooth(deep, other, 0.3f, 2)},
          {Args{"smooth", at("ref.png"), at("ref2.png"), "--threshold", "0.5", "--iterations", "4"},
           librarySmooth(ref, ref2, 0.5f, 4)}}) {
        SCOPED_TRACE(args[0] + " " + args.back());
        EXPECT_EQ(output(args), expected);
    }
    const Outcome info = ok({"info", at("deep.png")});
    EXPECT_TRUE(has(info.out, "16 bits per sample") && has(info.out, " 65535 ")) << info.out;
}

// ---------------------------------------------------------------------------
// 6. TIFF and WebP: read in their common variants (a stretch of a picture
// spanning the whole scale gives it back unchanged), written lossless where
// asked, and chosen by content on reading.

TEST_F(Tool, ReadsAndWritesTiffAndWebP) {
    // Bits, channels, compression, tiled, separate planes.
    for (const auto &[bits, channels, compression, tiled, planes] :
         {std::tuple{8, 1, COMPRESSION_NONE, false, false},
          {8, 2, COMPRESSION_LZW, true, false},
          {8, 3, COMPRESSION_ADOBE_DEFLATE, false, true},
          {8, 4, COMPRESSION_LZW, false, false},
          {16, 1, COMPRESSION_ADOBE_DEFLATE, true, false},
          {16, 3, COMPRESSION_NONE, true, true},
          {16, 4, COMPRESSION_ADOBE_DEFLATE, false, false}}) {
        SCOPED_TRACE(std::to_string(bits) + " bits, " + std::to_string(channels) +
                     " channels, compression " + std::to_string(compression) +
                     (tiled ? ", tiled" : "") + (planes ? ", planes" : ""));
        const Pic p = pattern(37, 21, channels, bits, unsigned(channels * 10 + bits));
        writeTiff(at("in.tif"), p, uint16_t(compression), tiled, planes);
        EXPECT_EQ(output({"stretch", at("in.tif")}), p);
    }
    for (const auto &[channels, lossless] :
         {std::pair{3, true}, {4, true}, {3, false}, {4, false}}) {
        SCOPED_TRACE(std::to_string(channels) + (lossless ? " lossless" : " lossy"));
        writeWebP(at("in.webp"), pattern(33, 17, channels, 8, 13), lossless);
        EXPECT_EQ(output({"stretch", at("in.webp")}),
                  libraryFilter("stretch", readPic(at("in.webp"))));
    }
    // Written: lossless WebP and TIFF (Deflate unless told) hold the result
    // exactly; lossy WebP is lossy, and smaller at a lower quality.
    const Pic source = png(at("src.png"), 40, 30, 4, 8, 14),
              ref = png(at("ref.png"), 20, 20, 3, 8, 15);
    const Pic expected = libraryTransfer(source, ref, {});
    for (const auto &[out, extra] : {std::pair{"out.webp", "--lossless"}, {"out.tif", "-q"}}) {
        ok({"transfer", at("src.png"), at("ref.png"), "-o", at(out), extra});
        EXPECT_EQ(readPic(at(out)), expected) << out;
    }
    EXPECT_TRUE(has(slurp(at("out.webp")), "VP8L"));                       // lossless WebP
    EXPECT_EQ(tiffCompression(at("out.tif")), COMPRESSION_ADOBE_DEFLATE);  // the default
    ok({"transfer", at("src.png"), at("ref.png"), "-o", at("lzw.tif"), "--tiff-compression",
        "lzw"});
    EXPECT_EQ(tiffCompression(at("lzw.tif")), COMPRESSION_LZW);
    ok({"transfer", at("src.png"), at("ref.png"), "-o", at("q10.webp"), "--quality", "10"});
    ok({"transfer", at("src.png"), at("ref.png"), "-o", at("q95.webp"), "--quality", "95"});
    EXPECT_FALSE(has(slurp(at("q10.webp")), "VP8L"));
    EXPECT_LT(fs::file_size(at("q10.webp")), fs::file_size(at("q95.webp")));
    // By content: a TIFF named .png is read as TIFF.
    fs::copy_file(at("out.tif"), at("tiff-named.png"));
    EXPECT_TRUE(has(ok({"info", at("tiff-named.png")}).out, ": TIFF, 40 x 30"));
}

// ---------------------------------------------------------------------------
// 7. Working spaces and options: each run is compared with the library
// called with the parameter it names changed; lab is the default; a colour
// source with a gray reference matches luminance only, and says so.

TEST_F(Tool, SpacesAndOptionsReachTheLibraryAsNamed) {
    const Pic source = png(at("src.png"), 36, 28, 3, 8, 20),
              ref = png(at("ref.png"), 30, 22, 3, 8, 21),
              grayRef = png(at("gray.png"), 26, 20, 1, 8, 18),
              graySource = png(at("gsrc.png"), 30, 24, 1, 8, 19);
    std::vector<uint8_t> blend(36 * 28);
    for (size_t i = 0; i < blend.size(); ++i) blend[i] = uint8_t(i * 37 % 256);
    writePng(at("blend.png"), grayPic(36, 28, blend));
    const auto with = [](wzWorkingSpace space, auto change) {
        Transfer t;
        t.space = space;
        change(t);
        return t;
    };
    const auto in = [&](wzWorkingSpace space) { return with(space, [](Transfer &) {}); };
    const auto rgb = [&](auto change) { return with(wzSpaceChannels, change); };
    // Gray source or not, reference, options (BLEND: the blend mask), the
    // library's parameters; options apart from --space are tried in rgb.
    // clang-format off
    const std::vector<std::tuple<bool, const char *, Args, Transfer>> cases{
        {false, "ref.png", {}, in(wzSpaceLab)},
        {false, "ref.png", {"--space", "lab"}, in(wzSpaceLab)},
        {false, "ref.png", {"--space", "luma"}, in(wzSpaceLuma)},
        {false, "ref.png", {"--space", "ycbcr"}, in(wzSpaceYCbCr)},
        {false, "gray.png", {"--space", "lab"}, in(wzSpaceLuma)},
        {true, "ref.png", {"--space", "rgb"}, in(wzSpaceLuma)},
        {true, "ref.png", {"--space", "lab"}, in(wzSpaceLab)},
        {false, "ref.png", {"--space", "rgb"}, in(wzSpaceChannels)},
        {false, "ref.png", {"--space", "rgb", "--strength", "0.4"}, rgb([](Transfer &t) { t.strength = 0.4f; })},
        {false, "ref.png", {"--space", "rgb", "--fidelity", "0.3"}, rgb([](Transfer &t) { t.fidelity = 0.3f; })},
        {false, "ref.png", {"--space", "rgb", "--max-step", "3"}, rgb([](Transfer &t) { t.maxStep = 3; })},
        {false, "ref.png", {"--space", "rgb", "--contrast"}, rgb([](Transfer &t) { t.contrast = true; })},
        {false, "ref.png", {"--space", "rgb", "--contrast", "--high-tail", "120", "--low-tail", "7"},
         rgb([](Transfer &t) { t.contrast = true, t.highTail = 120, t.lowTail = 7; })},
        {false, "ref.png", {"--space", "rgb", "--smooth", "--smooth-threshold", "0.3", "--smooth-iterations", "5"},
         rgb([](Transfer &t) { t.smooth = true, t.threshold = 0.3f, t.iterations = 5; })},
        {false, "ref.png", {"--space", "rgb", "--mask", "BLEND"}, rgb([&](Transfer &t) { t.blendMask = blend; })}};
    // clang-format on
    for (const auto &[gray, reference, extra, t] : cases) {
        SCOPED_TRACE(std::string(reference) + (gray ? " (gray source)" : "") +
                     (extra.empty() ? "" : " " + extra.back()));
        Args args{"transfer", at(gray ? "gsrc.png" : "src.png"), at(reference)};
        for (const std::string &a : extra) args.push_back(a == "BLEND" ? at("blend.png") : a);
        std::string err;
        const bool grayRefUsed = reference == std::string("gray.png");
        EXPECT_EQ(output(args, &err),
                  libraryTransfer(gray ? graySource : source, grayRefUsed ? grayRef : ref, t));
        EXPECT_EQ(has(err, "only luminance is matched"), !gray && grayRefUsed) << err;
    }
}

// ---------------------------------------------------------------------------
// 8. Batch: one failed file does not stop the others; other kinds of files
// are counted in one note; existing outputs are skipped on request; a
// missing output folder is made, in batch and single runs alike.

TEST_F(Tool, BatchRunsSkipAndCount) {
    fs::create_directory(at("in"));
    png(at("in/a.png"), 20, 16, 3, 8, 22);
    writeTiff(at("in/b.tif"), pattern(20, 16, 3, 16, 23), COMPRESSION_LZW, false, false);
    writeWebP(at("in/c.webp"), pattern(20, 16, 4, 8, 24), true);
    std::ofstream(at("in/broken.png")) << "\x89PNG\r\n\x1a\n this is not a picture";
    std::ofstream(at("in/notes.txt")) << "not a picture";
    std::ofstream(at("in/anim.gif")) << "GIF89a";
    png(at("ref.png"), 20, 20, 3, 8, 25);
    const Args batch{"transfer",    "--reference", at("ref.png"), "-o",
                     at("out/new"), at("in"),      "--jobs",      "2"};
    const Outcome first = run(batch);
    EXPECT_EQ(first.status, 1);
    EXPECT_EQ(listing(at("out/new")), (Args{"a.png", "b.tif", "c.webp"}));
    EXPECT_TRUE(has(first.err, "broken.png: corrupt PNG file")) << first.err;
    EXPECT_TRUE(has(first.err, "2 files of other kinds left out (anim.gif, notes.txt)"))
        << first.err;
    EXPECT_TRUE(has(first.err, "3 of 4 images transferred")) << first.err;
    EXPECT_EQ(readPic(at("out/new/b.tif")).depth, 16);

    fs::remove(at("in/broken.png"));
    const Outcome again = run({"transfer", "--reference", at("ref.png"), "-o", at("out/new"),
                               at("in"), "--skip-existing"});
    EXPECT_EQ(again.status, 0) << again.err;
    EXPECT_TRUE(has(again.err, "0 of 3 images transferred") && has(again.err, "3 skipped"))
        << again.err;
    const Outcome refused =
        run({"transfer", "--reference", at("ref.png"), "-o", at("out/new"), at("in/a.png"), "-q"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_TRUE(has(refused.err, "already exists") && lines(refused.err) == 1) << refused.err;

    ok({"transfer", at("in/a.png"), at("ref.png"), "-o", at("made/here/a.png")});
    EXPECT_TRUE(fs::exists(at("made/here/a.png")));
    const Outcome skipped = ok({"transfer", at("in/a.png"), at("ref.png"), "-o",
                                at("made/here/a.png"), "--skip-existing"});
    EXPECT_TRUE(has(skipped.err, "skipped")) << skipped.err;
}

// ---------------------------------------------------------------------------
// 9. The comparison picture titles its panels and draws a gray picture's
// histogram as one gray chart.

TEST_F(Tool, ComparisonPictureIsLabelled) {
    png(at("gray.png"), 60, 40, 1, 8, 26);
    png(at("ref.png"), 60, 40, 3, 8, 27);
    ok({"transfer", at("gray.png"), at("ref.png"), "-o", at("out.png"), "--compare",
        at("cmp.png")});
    const Pic cmp = readPic(at("cmp.png"));
    ASSERT_EQ(cmp.c, 3);
    // Per third of the picture: dark title pixels in the top rows, and
    // reddish histogram bars (none under the gray source).
    for (int panel = 0; panel < 3; ++panel) {
        int ink = 0, red = 0;
        for (int y = 0; y < cmp.h; ++y)
            for (int x = panel * cmp.w / 3; x < (panel + 1) * cmp.w / 3; ++x) {
                const int r = cmp.at(x, y, 0), g = cmp.at(x, y, 1), b = cmp.at(x, y, 2);
                ink += y < 40 && r < 80 && g < 80 && b < 80;
                red += y > cmp.h / 2 && r > g + 100 && r > b + 100;
            }
        EXPECT_GT(ink, 20) << "panel " << panel;
        EXPECT_EQ(red > 0, panel == 1) << "panel " << panel;  // the result of a gray source is gray
    }
}

// ---------------------------------------------------------------------------
// Damaged inputs and wrong command lines: exit status 1 for a file that
// cannot be read or written, 2 for a wrong command line, always one line
// naming the reason, and no output. An existing output is kept without
// --force and replaced with it, an input never is, and no temporary file
// remains.

TEST_F(Tool, RefusesBadFilesAndCommandLinesWithOneLine) {
    png(at("source.png"), 30, 20, 3, 8, 28);
    png(at("other.png"), 20, 20, 3, 8, 29);
    const std::string source = at("source.png"), other = at("other.png"), x = at("x.png");
    writeTiff(at("tiff.tif"), pattern(30, 20, 3, 8, 30), COMPRESSION_LZW, false, false);
    writeWebP(at("webp.webp"), pattern(30, 20, 3, 8, 31), false);
    writeTiff(at("huge.tif"), Pic{70000, 20, 1, 8, std::vector<uint16_t>(70000 * 20)},
              COMPRESSION_LZW, false, false);
    const std::string tiff = slurp(at("tiff.tif")), webp = slurp(at("webp.webp")),
                      pngBytes = slurp(source), huge = slurp(at("huge.tif"));
    std::ofstream(at("taken.png")) << "keep me";
    // A TIFF header declaring 65535 8-bit samples a pixel on 16384 x 16384 pixels.
    std::string deep("II*\0\x08\0\0\0", 8);
    const auto put = [&](uint32_t v, int n) {
        for (int i = 0; i < n; ++i) deep += char(v >> 8 * i);
    };
    put(7, 2);
    for (auto [tag, value] : {std::pair{256u, 16384u},
                              {257u, 16384u},
                              {258u, 8u},
                              {262u, 1u},
                              {273u, 8u},
                              {277u, 65535u},
                              {279u, 1u}})
        put(tag, 2), put(4, 2), put(1, 4), put(value, 4);
    put(0, 4);
    std::vector<std::tuple<Args, int, std::string>> cases = {
        {{"transfer", source, other, "-o", x, "--mask", other}, 1, "mask is 20 x 20"},
        {{"smooth", other, source, "-o", x}, 1, "20 x 20"},
        {{"transfer", at("missing.png"), other, "-o", x}, 1, "No such file"},
        {{"transfer", source, other, "-o", at("taken.png")}, 1, "--force"},
        {{"transfer", source, other, "-o", source, "--force"}, 1, "inputs are never overwritten"},
        {{"transfer", source, other, "-o", at("x.bmp")}, 2, "output format"},
        {{"transfer", source, other, "-o", x, "--strength", "1.5"}, 2, "--strength"},
        {{"transfer", source, other, "-o", x, "--space", "hsv"}, 2, "--space"},
        {{"transfer", source, other, "-o", x, "--smooth-threshold", "0.2"}, 2, "--smooth"},
        {{"transfer", source, other, "-o", x, "--force", "--skip-existing"}, 2, "--skip-existing"},
        {{"transfer", source, other, "-o", x, "--compare", x},
         2,
         "--compare and -o name the same file"},
        {{"transfer", source, other, "--frobnicate"}, 2, "--frobnicate"},
        {{"transfer", source, "-o", x}, 2, "SOURCE and REFERENCE"}};
    for (const auto &[name, bytes, reason] :
         {std::tuple<std::string, std::string, std::string>{"empty.png", "", "empty file"},
          {"noise.png", std::string(300, '\x17'), "not a PNG, JPEG, TIFF or WebP"},
          {"cut.png", pngBytes.substr(0, pngBytes.size() / 2), "truncated PNG"},
          {"cut.tif", tiff.substr(0, tiff.size() / 3), "corrupt TIFF"},
          {"cut.webp", webp.substr(0, webp.size() / 2), "corrupt or truncated WebP"},
          {"huge.tif", huge, "image size 70000 x 20 is over the limit"},
          {"deep.tif", deep, "65535 samples of 8 bits per pixel at 16384 x 16384 are over"},
          {"anim.gif", "GIF89a\x01\0\x01\0", "unsupported format: GIF"}}) {
        std::ofstream(at(name), std::ios::binary) << bytes;
        cases.push_back({{"transfer", at(name), other, "-o", x}, 1, name + ": " + reason});
        cases.push_back(
            {{"info", at(name)}, 1, name + ": " + reason});  // info reads through the same path
    }
    for (const auto &[args, status, reason] : cases) {
        const Outcome r = run(args);
        EXPECT_EQ(r.status, status) << r.err;
        EXPECT_TRUE(lines(r.err) == 1 && has(r.err, reason)) << args[1] << ": " << r.err;
    }
    EXPECT_FALSE(fs::exists(x));
    EXPECT_EQ(slurp(at("taken.png")), "keep me");
    ok({"transfer", source, other, "-o", at("taken.png"), "--force"});
    EXPECT_EQ(readPic(at("taken.png")).w, 30);
    for (const std::string &name : listing(dir_.string()))
        EXPECT_TRUE(name[0] != '.' || name.starts_with(".std")) << name;
    for (const std::string command :
         {"transfer", "equalize", "stretch", "contrast", "smooth", "info"})
        EXPECT_TRUE(ok({command, "--help"}).out.starts_with("usage: morven " + command)) << command;
}

// Many smoothing passes keep the library busy long enough to interrupt.
TEST_F(Tool, CtrlCStopsWithoutOutput) {
    png(at("big.png"), 600, 400, 3, 8, 32);
    png(at("ref.png"), 20, 20, 3, 8, 33);
    const Outcome r = run({"transfer", at("big.png"), at("ref.png"), "-o", at("slow.png"),
                           "--smooth", "--smooth-iterations", "100000"},
                          400);
    EXPECT_EQ(r.status, 130) << r.err;
    EXPECT_TRUE(has(r.err, "interrupted")) << r.err;
    EXPECT_FALSE(fs::exists(at("slow.png")));
}

}  // namespace
