// The window's image on request, from the real capture: the PNG decodes to
// exactly the pixels whose hash the same answer reports.
#include <gtest/gtest.h>
#include <png.h>

#include <string>
#include <vector>

#include "harness.h"
#include "platform/digest.h"
#include "unicode/unicode.h"

namespace quorvel::e2e {
namespace {

std::vector<std::uint8_t> fromBase64(const std::string& text) {
    static const std::string alphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::vector<std::uint8_t> bytes;
    std::uint32_t bits = 0;
    int count = 0;
    for (char c : text) {
        if (c == '=') break;
        size_t value = alphabet.find(c);
        if (value == std::string::npos) return {};
        bits = bits << 6 | static_cast<std::uint32_t>(value);
        if ((count += 6) >= 8) {
            count -= 8;
            bytes.push_back(static_cast<std::uint8_t>(bits >> count));
        }
    }
    return bytes;
}

TEST(WindowPng, IsTheHashedCaptureAtTheWindowsSize) {
    Fixture fixture;
    for (const char* operation : {"capture", "observe"}) {
        SCOPED_TRACE(operation);
        Json request = e2e::request(operation);
        request["image"] = "png";
        Reply reply = bridge(request);
        ASSERT_TRUE(reply.ok()) << reply.raw.substr(0, 300);
        const Json& result = reply.json["result"];
        const Json& image = result["image"];
        EXPECT_EQ(image["media_type"], "image/png");

        std::vector<std::uint8_t> file = fromBase64(image["data"].get<std::string>());
        png_image png{};
        png.version = PNG_IMAGE_VERSION;
        ASSERT_TRUE(png_image_begin_read_from_memory(&png, file.data(), file.size()));
        png.format = PNG_FORMAT_BGRA;  // the layout the bridge hashes
        std::vector<std::uint8_t> pixels(PNG_IMAGE_SIZE(png));
        ASSERT_TRUE(png_image_finish_read(&png, nullptr, pixels.data(), 0, nullptr));

        EXPECT_EQ(png.width, image["width"].get<unsigned>());
        EXPECT_EQ(png.height, image["height"].get<unsigned>());
        EXPECT_EQ(png.width, result["scope"]["bounds"]["width"].get<unsigned>());
        EXPECT_EQ(png.height, result["scope"]["bounds"]["height"].get<unsigned>());
        EXPECT_EQ(hex(sha256(pixels)), result["screenshot_hash"]);
    }
}

}  // namespace
}  // namespace quorvel::e2e
