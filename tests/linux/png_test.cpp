// PNG encoding of a captured image: what libpng writes decodes to exactly
// the captured pixels, with every filter and strategy the encoder may use.
#include <gtest/gtest.h>

#include "platform/linux/png_encoder.h"

namespace quorvel::linux_backend {
namespace {

// A small image whose channels all differ, so a swapped channel or row shows.
Pixels sample(int width, int height) {
    Pixels p{width, height, {}};
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            p.bgra.insert(p.bgra.end(), {static_cast<std::uint8_t>(x * 40), static_cast<std::uint8_t>(y * 70),
                                         static_cast<std::uint8_t>(200 - x - y), 255});
    return p;
}

// The PNG decoded into the capture's layout.
std::vector<std::uint8_t> decode(const EncodedImage& png, png_uint_32& width, png_uint_32& height) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_memory(&image, png.bytes.data(), png.bytes.size())) return {};
    image.format = PNG_FORMAT_BGRA;
    std::vector<std::uint8_t> out(PNG_IMAGE_SIZE(image));
    if (!png_image_finish_read(&image, nullptr, out.data(), 0, nullptr)) return {};
    width = image.width;
    height = image.height;
    return out;
}

TEST(PngEncoder, DecodesToTheCapturedPixels) {
    for (const PngSettings& settings :
         {PngSettings{}, PngSettings{1, PNG_FILTER_SUB, Z_DEFAULT_STRATEGY},
          PngSettings{1, PNG_FILTER_SUB, Z_RLE}, PngSettings{6, PNG_ALL_FILTERS, Z_FILTERED}}) {
        SCOPED_TRACE(settings.filters);
        Pixels pixels = sample(5, 3);
        std::optional<EncodedImage> png = encodePng(pixels, settings);
        ASSERT_TRUE(png);
        EXPECT_EQ(png->width, 5u);
        EXPECT_EQ(png->height, 3u);
        png_uint_32 width = 0, height = 0;
        EXPECT_EQ(decode(*png, width, height), pixels.bgra);
        EXPECT_EQ(width, 5u);
        EXPECT_EQ(height, 3u);
    }
}

TEST(PngEncoder, RefusesAnEmptyOrShortImage) {
    EXPECT_FALSE(encodePng(Pixels{0, 0, {}}));
    Pixels shorter = sample(4, 4);
    shorter.bgra.pop_back();
    EXPECT_FALSE(encodePng(shorter));
}

}  // namespace
}  // namespace quorvel::linux_backend
