// Saves the foreground window's image, exactly as the bridge captures and
// hashes it, as a PNG file; or times that capture.
//
//   quorvel-window-image png FILE      write the image
//   quorvel-window-image time COUNT    capture COUNT times, print the median
//                                      milliseconds of one capture
//
// The demo uses the first to show what the bridge saw, the observation
// benchmark both: the PNG feeds the command-line recogniser it is compared
// with, and the timing measures the capture on its own, without the scan.
#include <png.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "accessibility/window.h"
#include "bridge/failure.h"
#include "observation/capture.h"
#include "platform/platform.h"

namespace {

bool writePng(const char* path, int width, int height, const std::vector<std::uint8_t>& bgra) {
    FILE* file = std::fopen(path, "wb");
    if (!file) return false;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!png || !info || setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        std::fclose(file);
        return false;
    }
    png_init_io(png, file);
    png_set_IHDR(png, info, width, height, 8, PNG_COLOR_TYPE_RGB_ALPHA, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    png_set_bgr(png);  // the capture's byte order is blue, green, red, alpha
    for (int y = 0; y < height; ++y)
        png_write_row(png, const_cast<png_bytep>(bgra.data() + static_cast<size_t>(y) * width * 4));
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    return std::fclose(file) == 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3 || (std::strcmp(argv[1], "png") && std::strcmp(argv[1], "time"))) {
        std::fprintf(stderr, "usage: %s png FILE | time COUNT\n", argv[0]);
        return 2;
    }
    quorvel::Platform& platform = quorvel::systemPlatform();
    try {
        quorvel::Window window = quorvel::foreground(platform);
        if (!std::strcmp(argv[1], "time")) {
            int count = std::max(1, std::atoi(argv[2]));
            std::vector<double> times;
            for (int i = 0; i < count; ++i) {
                auto start = std::chrono::steady_clock::now();
                quorvel::capture(platform, window, false);
                times.push_back(std::chrono::duration<double, std::milli>(
                                    std::chrono::steady_clock::now() - start)
                                    .count());
            }
            std::sort(times.begin(), times.end());
            std::printf("%.2f\n", times[times.size() / 2]);
            return 0;
        }
        quorvel::Image image = platform.createWindowImage(
            window.frame, quorvel::kCGWindowListOptionIncludingWindow, window.windowID, 0);
        auto bytes = image ? platform.copyImageData(image) : std::nullopt;
        int width = static_cast<int>(window.frame.width + 0.5);
        int height = static_cast<int>(window.frame.height + 0.5);
        if (!bytes || bytes->size() != static_cast<size_t>(width) * height * 4) {
            std::fprintf(stderr, "the window could not be captured\n");
            return 1;
        }
        if (!writePng(argv[2], width, height, *bytes)) {
            std::fprintf(stderr, "cannot write %s\n", argv[2]);
            return 1;
        }
        std::printf("%s %dx%d\n", argv[2], width, height);
        return 0;
    } catch (const quorvel::Failure& failure) {
        std::fprintf(stderr, "%s\n", failure.message().c_str());
        return 1;
    }
}
