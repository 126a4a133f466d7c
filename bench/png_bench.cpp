// What it costs to encode a 1280x800 window image as PNG in the Linux
// backend, with the settings it uses and the alternatives it was chosen from.
//
// The image is synthetic unless QUORVEL_BENCH_IMAGE names a PNG (a window
// saved by quorvel-window-image, for one): a light window with a title bar,
// framed entries and buttons, and lines of antialiased glyph-like marks, the
// kind of content a window of text and controls has. Each run reports the
// encoded size as a counter beside the time.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <random>
#include <stdexcept>
#include <string>

#include "platform/linux/png_encoder.h"

namespace quorvel::linux_backend {
namespace {

constexpr int kWidth = 1280;
constexpr int kHeight = 800;

struct Canvas {
    Pixels pixels{kWidth, kHeight, std::vector<std::uint8_t>(size_t{kWidth} * kHeight * 4, 255)};
    void fill(int x0, int y0, int w, int h, std::uint8_t b, std::uint8_t g, std::uint8_t r) {
        for (int y = std::max(0, y0); y < std::min(kHeight, y0 + h); ++y)
            for (int x = std::max(0, x0); x < std::min(kWidth, x0 + w); ++x) {
                std::uint8_t* p = &pixels.bgra[(static_cast<size_t>(y) * kWidth + x) * 4];
                p[0] = b, p[1] = g, p[2] = r, p[3] = 255;
            }
    }
    void frame(int x, int y, int w, int h, std::uint8_t grey) {
        fill(x, y, w, 1, grey, grey, grey);
        fill(x, y + h - 1, w, 1, grey, grey, grey);
        fill(x, y, 1, h, grey, grey, grey);
        fill(x + w - 1, y, 1, h, grey, grey, grey);
    }
    // A word of `letters` glyph-like marks, 7 by 12 pixels each, in shades
    // of the text colour as antialiasing leaves them.
    void word(int x, int y, int letters, std::mt19937& random) {
        std::uniform_int_distribution<int> coin(0, 5);
        for (int l = 0; l < letters; ++l)
            for (int dy = 0; dy < 12; ++dy)
                for (int dx = 0; dx < 6; ++dx) {
                    int pick = coin(random);
                    if (pick > 2) continue;
                    std::uint8_t grey = pick == 0 ? 40 : pick == 1 ? 120 : 190;
                    fill(x + l * 7 + dx, y + dy, 1, 1, grey, grey, grey);
                }
    }
    void text(int x, int y, int width, std::mt19937& random) {
        std::uniform_int_distribution<int> length(2, 9);
        for (int at = x; at < x + width - 70;) {
            int letters = length(random);
            word(at, y, letters, random);
            at += letters * 7 + 5;
        }
    }
};

Pixels syntheticWindow() {
    Canvas c;
    std::mt19937 random(7);
    c.fill(0, 0, kWidth, kHeight, 0xf4, 0xf5, 0xf6);   // window background
    c.fill(0, 0, kWidth, 37, 0xd8, 0xdc, 0xde);        // title bar
    c.text(540, 12, 260, random);
    for (int row = 0; row < 6; ++row) {                 // a form: label, entry, button
        int y = 60 + row * 44;
        c.text(20, y + 8, 160, random);
        c.fill(200, y, 600, 32, 255, 255, 255);
        c.frame(200, y, 600, 32, 0xc0);
        c.text(208, y + 10, 300, random);
        c.fill(820, y, 110, 32, 0xe8, 0xe8, 0xe8);
        c.frame(820, y, 110, 32, 0xb0);
        c.text(835, y + 10, 100, random);
    }
    c.fill(20, 340, 1240, 440, 255, 255, 255);         // a text view full of lines
    c.frame(20, 340, 1240, 440, 0xc0);
    for (int y = 350; y < 760; y += 20) c.text(30, y, 1200, random);
    return c.pixels;
}

Pixels decodeFile(const char* path) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&image, path)) throw std::runtime_error(image.message);
    image.format = PNG_FORMAT_BGRA;
    Pixels p{static_cast<int>(image.width), static_cast<int>(image.height),
             std::vector<std::uint8_t>(PNG_IMAGE_SIZE(image))};
    if (!png_image_finish_read(&image, nullptr, p.bgra.data(), 0, nullptr))
        throw std::runtime_error(image.message);
    return p;
}

const Pixels& window() {
    static const Pixels pixels = [] {
        const char* path = std::getenv("QUORVEL_BENCH_IMAGE");
        return path && *path ? decodeFile(path) : syntheticWindow();
    }();
    return pixels;
}

void encode(benchmark::State& state, PngSettings settings) {
    const Pixels& pixels = window();
    size_t size = 0;
    for (auto _ : state) {
        std::optional<EncodedImage> png = encodePng(pixels, settings);
        if (!png) {
            state.SkipWithError("encoding failed");
            return;
        }
        size = png->bytes.size();
        benchmark::DoNotOptimize(png->bytes.data());
    }
    state.counters["png_kib"] = static_cast<double>(size) / 1024;
    state.counters["pixels"] = static_cast<double>(pixels.width) * pixels.height;
}

// What the backend uses, then the alternatives.
BENCHMARK_CAPTURE(encode, used, PngSettings{})->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(encode, level1_sub, PngSettings{1, PNG_FILTER_SUB, Z_DEFAULT_STRATEGY})
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(encode, level1_up, PngSettings{1, PNG_FILTER_UP, Z_DEFAULT_STRATEGY})
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(encode, rle_sub, PngSettings{1, PNG_FILTER_SUB, Z_RLE})->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(encode, libpng_default, PngSettings{6, PNG_ALL_FILTERS, Z_FILTERED})
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace quorvel::linux_backend
