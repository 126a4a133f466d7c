// A captured image without a desktop: the raw pixel layout that is hashed,
// whatever the server's format, and the PNG encoder's refusal of pixels that
// do not fill the image. (The end-to-end capture decodes the PNGs it gets.)
#include <gtest/gtest.h>

// clang-format off
#include <X11/Xlib.h>
#include <X11/Xutil.h>
// clang-format on

#include <vector>

#include "platform/linux/png_encoder.h"
#include "platform/linux/x11/capture.h"

namespace quorvel::linux_backend {
namespace {

TEST(PixelLayout, EveryServerFormatComesOutAsRowsOfFourBytesAPixelWithOpaqueAlpha) {
    struct {
        const char* label;
        std::vector<std::uint8_t> data;  // as the server lays it out, little-endian
        int width, height, bitsPerPixel, bytesPerLine;
        int canvasWidth, canvasHeight, x, y;  // where the image lands
        std::vector<std::uint8_t> bgra;       // the whole canvas afterwards
    } cases[] = {
        // Rows padded to 12 bytes, with junk in the padding and in the
        // unused fourth byte of each pixel.
        {"32 bits, padded rows",
         {1, 2, 3, 77, 4, 5, 6, 88, 9, 9, 9, 9, 7, 8, 9, 66, 10, 11, 12, 55, 9, 9, 9, 9},
         2, 2, 32, 12, 2, 2, 0, 0,
         {1, 2, 3, 255, 4, 5, 6, 255, 7, 8, 9, 255, 10, 11, 12, 255}},
        // 5-6-5: full red, full green, full blue, white.
        {"16 bits", {0x00, 0xf8, 0xe0, 0x07, 0x1f, 0x00, 0xff, 0xff}, 4, 1, 16, 8, 4, 1, 0, 0,
         {0, 0, 255, 255, 0, 255, 0, 255, 255, 0, 0, 255, 255, 255, 255, 255}},
        {"a part at its offset", {10, 20, 30, 0}, 1, 1, 32, 4, 2, 2, 1, 1,
         {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 10, 20, 30, 255}},
    };
    for (auto& c : cases) {
        bool wide = c.bitsPerPixel == 32;
        XImage image{.width = c.width, .height = c.height, .xoffset = 0, .format = ZPixmap,
                     .data = reinterpret_cast<char*>(c.data.data()), .byte_order = LSBFirst,
                     .bitmap_unit = 32, .bitmap_bit_order = LSBFirst, .bitmap_pad = 32,
                     .depth = wide ? 24 : 16, .bytes_per_line = c.bytesPerLine,
                     .bits_per_pixel = c.bitsPerPixel, .red_mask = wide ? 0xff0000ul : 0xf800ul,
                     .green_mask = wide ? 0xff00ul : 0x07e0ul,
                     .blue_mask = wide ? 0xfful : 0x001ful, .obdata = nullptr, .f = {}};
        XInitImage(&image);
        Pixels pixels;
        pixels.width = c.canvasWidth;
        pixels.height = c.canvasHeight;
        pixels.bgra.assign(static_cast<size_t>(c.canvasWidth) * c.canvasHeight * 4, 0);
        copyToBgra(image, pixels, c.x, c.y);
        EXPECT_EQ(pixels.bgra, c.bgra) << c.label;
    }
}

TEST(PngEncoder, RefusesAnEmptyOrShortImage) {
    EXPECT_FALSE(encodePng(Pixels{0, 0, {}}));
    EXPECT_FALSE(encodePng(Pixels{4, 4, std::vector<std::uint8_t>(4 * 4 * 4 - 1, 255)}));
    EXPECT_TRUE(encodePng(Pixels{4, 4, std::vector<std::uint8_t>(4 * 4 * 4, 255)}));
}

}  // namespace
}  // namespace quorvel::linux_backend
