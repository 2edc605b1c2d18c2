#include "compare.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>

#include "colour/colour.hpp"
#include "compare/font.hpp"
#include "process/library.hpp"

namespace morven::tool {
namespace {

constexpr int kImageHeight = 320;    // height of every scaled picture
constexpr int kMaxImageWidth = 640;  // wider pictures are scaled down further
constexpr int kMinPanelWidth = 288;  // room for a chart of 256 columns and its labels
constexpr int kChartHeight = 72;
constexpr int kGap = 8;
constexpr int kMargin = 16;
constexpr int kTitleScale = 2;
constexpr int kLabelScale = 1;
constexpr int kTitleHeight = kGlyphHeight * kTitleScale + kGap;
constexpr int kAxisLabels =
    kGlyphHeight * kLabelScale + 6;  // ticks and level numbers under a chart
constexpr int kChartBlock = kChartHeight + kAxisLabels + kGap;

using Rgb = std::array<uint8_t, 3>;
constexpr Rgb kInk{40, 40, 40};
constexpr Rgb kAxis{90, 90, 90};
constexpr Rgb kChartBackground{238, 238, 238};

class Canvas {
public:
    Canvas(int width, int height) {
        picture_.allocate(width, height, 3, 8), fill(0, 0, width, height, {255, 255, 255});
    }
    void set(int x, int y, const Rgb &c) {
        uint8_t *p =
            picture_.samples8.data() + (size_t(y) * size_t(picture_.width) + size_t(x)) * 3;
        std::copy(c.begin(), c.end(), p);
    }
    void fill(int x, int y, int w, int h, const Rgb &c) {
        for (int j = y; j < y + h; ++j)
            for (int i = x; i < x + w; ++i) set(i, j, c);
    }
    void text(int x, int y, const std::string &s, int scale, const Rgb &c) {
        drawText(picture_, x, y, s, scale, c);
    }
    // Draws an 8-bit picture scaled to w x h at (x, y), each target pixel the
    // mean of the source pixels it covers, alpha composited over white.
    void draw(const Picture &p, int x, int y, int w, int h) {
        const size_t c = size_t(p.channels);
        for (int ty = 0; ty < h; ++ty) {
            const int64_t y0 = int64_t(ty) * p.height / h;
            const int64_t y1 = std::max(y0 + 1, int64_t(ty + 1) * p.height / h);
            for (int tx = 0; tx < w; ++tx) {
                const int64_t x0 = int64_t(tx) * p.width / w;
                const int64_t x1 = std::max(x0 + 1, int64_t(tx + 1) * p.width / w);
                std::array<int64_t, 3> sum{};
                for (int64_t sy = y0; sy < y1; ++sy)
                    for (int64_t sx = x0; sx < x1; ++sx) {
                        const uint8_t *s =
                            p.samples8.data() + (size_t(sy) * size_t(p.width) + size_t(sx)) * c;
                        const int a = p.hasAlpha() ? s[c - 1] : 255;
                        for (int i = 0; i < 3; ++i) {
                            const int v = s[p.isGray() ? 0 : i];
                            sum[size_t(i)] += (v * a + 255 * (255 - a) + 127) / 255;
                        }
                    }
                const int64_t n = (y1 - y0) * (x1 - x0);
                set(x + tx, y + ty,
                    {uint8_t(sum[0] / n), uint8_t(sum[1] / n), uint8_t(sum[2] / n)});
            }
        }
    }
    Picture take() { return std::move(picture_); }

private:
    Picture picture_;
};

struct Layout {
    Picture shown;  // 8-bit, sRGB
    int imageWidth, imageHeight, width;
    uint32_t maxValue;  // of the picture as given: the axis runs to it
};

Layout layout(const Picture &p, bool manageColour) {
    Layout l;
    l.maxValue = p.maxValue();
    l.shown = toEightBits(manageColour && !p.icc.empty() ? convertColours(p, {}) : p);
    double scale = double(kImageHeight) / p.height;
    if (p.width * scale > kMaxImageWidth) scale = double(kMaxImageWidth) / p.width;
    l.imageWidth = std::max(1, int(std::lround(p.width * scale)));
    l.imageHeight = std::max(1, int(std::lround(p.height * scale)));
    l.width = std::max(kMinPanelWidth, l.imageWidth);
    return l;
}

// A histogram chart at (x, y): background, bars, the two axes, ticks at
// every quarter of the levels with the ends and the middle numbered, and
// the channel's name in its top-left corner.
void drawChart(Canvas &canvas, const float bins[256], int x, int y, int width, const Rgb &colour,
               const std::string &name, uint32_t maxValue) {
    canvas.fill(x, y, width, kChartHeight, kChartBackground);
    // Full height is the fourth-highest bin: a few spikes (black borders,
    // blown highlights) are clipped instead of flattening everything else.
    float sorted[4];
    std::partial_sort_copy(bins, bins + 256, sorted, sorted + 4, std::greater<float>());
    const float highest = std::max(1.0f, sorted[3]);
    for (int col = 0; col < width; ++col) {
        const int b0 = col * 256 / width;
        const int b1 = std::max(b0 + 1, (col + 1) * 256 / width);
        const float value = *std::max_element(bins + b0, bins + b1);
        const int bar = int(std::lround(std::min(1.0f, value / highest) * (kChartHeight - 2)));
        for (int j = 0; j < bar; ++j) canvas.set(x + col, y + kChartHeight - 1 - j, colour);
    }
    canvas.fill(x, y, 1, kChartHeight, kAxis);
    canvas.fill(x, y + kChartHeight - 1, width, 1, kAxis);
    for (int q = 0; q <= 4; ++q) {
        const int tx = x + std::min(width - 1, q * width / 4);
        canvas.fill(tx, y + kChartHeight, 1, 3, kAxis);
        if (q % 2) continue;
        const std::string level =
            std::to_string(q == 4 ? maxValue : uint32_t(q) * (maxValue + 1) / 4);
        const int w = textWidth(level, kLabelScale) - kLabelScale;
        const int lx = q == 0 ? x : q == 4 ? x + width - w : tx - w / 2;
        canvas.text(lx, y + kChartHeight + 5, level, kLabelScale, kInk);
    }
    // The name on a patch of background, over any bar.
    canvas.fill(x + 2, y + 1, textWidth(name, kLabelScale) + 3, kGlyphHeight * kLabelScale + 4,
                kChartBackground);
    canvas.text(x + 4, y + 3, name, kLabelScale, kInk);
}

}  // namespace

Picture composeComparison(const ComparePanel (&panels)[3], bool manageColour) {
    std::array<Layout, 3> layouts;
    for (size_t i = 0; i < 3; ++i) layouts[i] = layout(*panels[i].picture, manageColour);
    int width = kMargin;
    for (const Layout &l : layouts) width += l.width + kMargin;
    const int height =
        kMargin + kTitleHeight + kImageHeight + kGap + 3 * kChartBlock - kGap + kMargin;
    Canvas canvas(width, height);

    static const Rgb kColours[3] = {{200, 40, 40}, {30, 150, 50}, {40, 80, 210}};
    static const char *const kNames[3] = {"red", "green", "blue"};
    int x = kMargin;
    for (size_t i = 0; i < 3; ++i) {
        const Layout &l = layouts[i];
        const std::string &title = panels[i].title;
        canvas.text(x + (l.width - textWidth(title, kTitleScale)) / 2, kMargin, title, kTitleScale,
                    kInk);
        const int top = kMargin + kTitleHeight;
        canvas.draw(l.shown, x + (l.width - l.imageWidth) / 2,
                    top + (kImageHeight - l.imageHeight) / 2, l.imageWidth, l.imageHeight);
        // bins[0] is red, bins[1] green, bins[2] blue (and gray).
        const MaskImage visible(opaqueMask(l.shown), l.shown.width, l.shown.height);
        const Profile profile = profileOf(l.shown, visible.get());
        int y = top + kImageHeight + kGap;
        if (l.shown.isGray()) {
            drawChart(canvas, profile->bins[2], x, y, l.width, {110, 110, 110}, "gray", l.maxValue);
        } else {
            for (int c = 0; c < 3; ++c, y += kChartBlock)
                drawChart(canvas, profile->bins[c], x, y, l.width, kColours[c], kNames[c],
                          l.maxValue);
        }
        x += l.width + kMargin;
    }
    return canvas.take();
}

}  // namespace morven::tool
