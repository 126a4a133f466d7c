// The window's image on request: "image": "png" on "observe" and "capture".
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "bridge/base64.h"
#include "scene.h"

namespace quorvel {
namespace {

using fake::FormScene;

std::string observation(const std::string& operation, const std::string& extra = "") {
    return R"({"version":1,"operation":")" + operation + "\"" + extra + "}";
}

TEST(Base64, EncodesTheStandardAlphabetWithPadding) {
    // RFC 4648, section 10: the prefixes of "foobar".
    const char* expected[] = {"", "Zg==", "Zm8=", "Zm9v", "Zm9vYg==", "Zm9vYmE=", "Zm9vYmFy"};
    for (size_t n = 0; n < std::size(expected); ++n)
        EXPECT_EQ(base64({reinterpret_cast<const std::uint8_t*>("foobar"), n}), expected[n]) << n;
    // The last two letters of the alphabet, and bytes above 127.
    EXPECT_EQ(base64(std::vector<std::uint8_t>{0xfb, 0xff, 0xbf, 0x00}), "+/+/AA==");
}

// Asking for the image changes nothing else: the same desktop answers with
// the same bytes apart from the "image" key, with the same platform calls
// apart from the one encoding of the image that was hashed.
TEST(WindowImage, AddsOnlyTheImageOfTheHashedCapture) {
    for (const std::string operation : {"observe", "capture"}) {
        SCOPED_TRACE(operation);
        FormScene plain, asked;
        plain.desktop.imageBytes = asked.desktop.imageBytes = std::vector<std::uint8_t>{7, 0, 255};
        Response without = respond(plain.desktop, observation(operation));
        Response with = respond(asked.desktop, observation(operation, R"(,"image":"png")"));
        ASSERT_EQ(with.status, 0) << with.body;

        Json result = parseJson(with.body).at("result");
        EXPECT_EQ(result.at("image"),
                  Json({{"media_type", "image/png"},
                        {"data", "iVBORw0KGgoHAP8="},  // the fake's PNG: signature, then 7 0 255
                        {"width", 800},
                        {"height", 600}}));
        result.erase("image");
        EXPECT_EQ(writeJson(Json{{"ok", true}, {"result", result}}), without.body);

        std::vector<std::string> calls = asked.desktop.calls;
        auto encoded = std::find(calls.begin(), calls.end(), "encodePng");
        ASSERT_NE(encoded, calls.end());
        EXPECT_EQ(*(encoded - 1), "copyImageData");
        calls.erase(encoded);
        EXPECT_EQ(calls, plain.desktop.calls);
        EXPECT_EQ(plain.desktop.count("encodePng"), 0);
        EXPECT_EQ(asked.desktop.unreleased(), 0);
    }
}

TEST(WindowImage, OtherFormatsAreRefusedBeforeAnythingIsAsked) {
    for (const std::string operation : {"observe", "capture"}) {
        for (const char* format : {R"("jpeg")", R"("PNG")", R"("")", "null", "1", "true", "[]",
                                   R"({"format":"png"})"}) {
            SCOPED_TRACE(operation + " " + format);
            FormScene scene;
            Json reply = testing::request(scene.desktop,
                                          observation(operation, R"(,"image":)" + std::string(format)));
            EXPECT_EQ(testing::errorOf(reply), msg::kImageFormat);
            EXPECT_EQ(scene.desktop.calls, std::vector<std::string>{});
        }
    }
    // The protocol checks still come first.
    FormScene scene;
    EXPECT_EQ(testing::errorOf(testing::request(
                  scene.desktop, R"({"version":2,"operation":"observe","image":"gif"})")),
              msg::kProtocol);
}

TEST(WindowImage, ContextIgnoresTheKeyLikeAnyOther) {
    for (const char* format : {R"("png")", R"("jpeg")", "null"}) {
        FormScene plain, asked;
        Response with =
            respond(asked.desktop, observation("context", R"(,"image":)" + std::string(format)));
        EXPECT_EQ(with.body, respond(plain.desktop, observation("context")).body) << format;
        EXPECT_EQ(asked.desktop.calls, plain.desktop.calls) << format;
    }
}

}  // namespace
}  // namespace quorvel
