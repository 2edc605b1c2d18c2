#include "compare.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>

#include "process.hpp"

namespace morven::tool {
namespace {

constexpr int kImageHeight = 320;   // height of every scaled picture
constexpr int kMaxImageWidth = 640;  // wider pictures are scaled down further
constexpr int kMinPanelWidth = 256;  // one column per histogram bin at least
constexpr int kChartHeight = 72;
constexpr int kGap = 8;
constexpr int kMargin = 16;

using Rgb = std::array<int, 3>;

// A sample as RGB, alpha composited over white.
Rgb rgbAt(const Picture &p, size_t index) {
    const uint8_t *s = p.pixels.data() + index * size_t(p.channels);
    Rgb c = p.isGray() ? Rgb{s[0], s[0], s[0]} : Rgb{s[0], s[1], s[2]};
    if (p.hasAlpha()) {
        const int a = s[p.channels - 1];
        for (int &v : c) v = (v * a + 255 * (255 - a) + 127) / 255;
    }
    return c;
}

class Canvas {
public:
    Canvas(int width, int height) {
        picture_.width = width;
        picture_.height = height;
        picture_.channels = 3;
        picture_.pixels.assign(size_t(width) * size_t(height) * 3, 255);
    }
    void set(int x, int y, const Rgb &c) {
        uint8_t *p = picture_.pixels.data() + (size_t(y) * size_t(picture_.width) + size_t(x)) * 3;
        for (int i = 0; i < 3; ++i) p[i] = uint8_t(c[i]);
    }
    void fill(int x, int y, int w, int h, const Rgb &c) {
        for (int j = y; j < y + h; ++j)
            for (int i = x; i < x + w; ++i) set(i, j, c);
    }
    // Draws the picture scaled to w x h at (x, y), each target pixel the
    // mean of the source pixels it covers.
    void draw(const Picture &p, int x, int y, int w, int h) {
        for (int ty = 0; ty < h; ++ty) {
            const int64_t y0 = int64_t(ty) * p.height / h;
            const int64_t y1 = std::max(y0 + 1, int64_t(ty + 1) * p.height / h);
            for (int tx = 0; tx < w; ++tx) {
                const int64_t x0 = int64_t(tx) * p.width / w;
                const int64_t x1 = std::max(x0 + 1, int64_t(tx + 1) * p.width / w);
                std::array<int64_t, 3> sum{};
                for (int64_t sy = y0; sy < y1; ++sy)
                    for (int64_t sx = x0; sx < x1; ++sx) {
                        const Rgb c = rgbAt(p, size_t(sy) * size_t(p.width) + size_t(sx));
                        for (int i = 0; i < 3; ++i) sum[i] += c[i];
                    }
                const int64_t n = (y1 - y0) * (x1 - x0);
                set(x + tx, y + ty, {int(sum[0] / n), int(sum[1] / n), int(sum[2] / n)});
            }
        }
    }
    Picture take() { return std::move(picture_); }

private:
    Picture picture_;
};

struct Panel {
    const Picture *picture;
    int imageWidth, imageHeight, width;
};

Panel layout(const Picture &p) {
    double scale = double(kImageHeight) / p.height;
    if (p.width * scale > kMaxImageWidth) scale = double(kMaxImageWidth) / p.width;
    const int w = std::max(1, int(std::lround(p.width * scale)));
    const int h = std::max(1, int(std::lround(p.height * scale)));
    return {&p, w, h, std::max(kMinPanelWidth, w)};
}

void drawHistogram(Canvas &canvas, const float bins[256], int x, int y, int width, const Rgb &colour) {
    canvas.fill(x, y, width, kChartHeight, {236, 236, 236});
    // Full height is the fourth-highest bin: a few spikes (black borders,
    // blown highlights) are clipped instead of flattening everything else.
    float sorted[256];
    std::partial_sort_copy(bins, bins + 256, sorted, sorted + 4, std::greater<float>());
    const float highest = std::max(1.0f, sorted[3]);
    for (int col = 0; col < width; ++col) {
        const int b0 = col * 256 / width;
        const int b1 = std::max(b0 + 1, (col + 1) * 256 / width);
        const float value = *std::max_element(bins + b0, bins + b1);
        const int bar = int(std::lround(std::min(1.0f, value / highest) * (kChartHeight - 2)));
        for (int j = 0; j < bar; ++j) canvas.set(x + col, y + kChartHeight - 1 - j, colour);
    }
}

}  // namespace

Picture composeComparison(const Picture &source, const Picture &reference, const Picture &result) {
    const std::array<Panel, 3> panels{layout(source), layout(reference), layout(result)};
    int width = kMargin;
    for (const Panel &p : panels) width += p.width + kMargin;
    const int height = kMargin + kImageHeight + kGap + 3 * (kChartHeight + kGap) - kGap + kMargin;
    Canvas canvas(width, height);

    static const Rgb kColours[3] = {{200, 40, 40}, {30, 150, 50}, {40, 80, 210}};
    int x = kMargin;
    for (const Panel &p : panels) {
        canvas.draw(*p.picture, x + (p.width - p.imageWidth) / 2,
                    kMargin + (kImageHeight - p.imageHeight) / 2, p.imageWidth, p.imageHeight);
        // bins[0] is red, bins[1] green, bins[2] blue.
        const Profile profile = profileOf(*p.picture);
        int y = kMargin + kImageHeight + kGap;
        for (int c = 0; c < 3; ++c, y += kChartHeight + kGap)
            drawHistogram(canvas, profile->bins[c], x, y, p.width, kColours[c]);
        x += p.width + kMargin;
    }
    return canvas.take();
}

}  // namespace morven::tool
