// Window capture: the pixel hash, text recognition and the mapping of
// recognised boxes into screen points.
#include <gtest/gtest.h>

#include <ostream>
#include <stdexcept>

#include "accessibility/window.h"
#include "observation/capture.h"
#include "scene.h"

namespace quorvel {
namespace {

using fake::FakeDesktop;
using fake::StandardScene;
using testing::failureOf;

const std::string kScreenPermission =
    "Grant Screen Recording access to Quorvel in macOS System Settings, then retry.";

struct HashCase {
    const char* name;
    std::vector<std::uint8_t> bytes;
    const char* digest;  // from sha256sum over the same bytes
};

void PrintTo(const HashCase& c, std::ostream* os) { *os << c.name; }

class Hash : public ::testing::TestWithParam<HashCase> {};

TEST_P(Hash, IsTheLowerCaseHexDigestOfExactlyThePixelBytes) {
    FakeDesktop desktop;
    StandardScene scene(desktop);
    desktop.imageBytes = GetParam().bytes;
    EXPECT_EQ(capture(desktop, foreground(desktop), false).hash, GetParam().digest);
}

std::vector<std::uint8_t> everyByteFourTimes() {
    std::vector<std::uint8_t> b;
    for (int i = 0; i < 1024; ++i) b.push_back(static_cast<std::uint8_t>(i % 256));
    return b;
}

INSTANTIATE_TEST_SUITE_P(
    Table, Hash,
    ::testing::Values(
        HashCase{"abc", {'a', 'b', 'c'},
                 "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        HashCase{"empty", {}, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
        HashCase{"leading_zero_byte", {0x17, 0x00},
                 "009bcd40e9707180cd0f5b0a16f497a82ece54d6fe538d5861b47c49ffd91773"},
        HashCase{"every_byte_value", everyByteFourTimes(),
                 "785b0751fc2c53dc14a4ce3d800e69ef9ce1009eb327ccf458afe09c242c26c9"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Capture, TakesOneImageOfTheWindowAloneAndNeverRecognisesUnasked) {
    FakeDesktop desktop;
    StandardScene scene(desktop);
    desktop.recognized = {{Rect{0, 0, 1, 1}, {{"never", 1.0f}}}};
    Window window = foreground(desktop);
    desktop.calls.clear();
    CaptureResult r = capture(desktop, window, false);
    EXPECT_EQ(r.blocks, JsonArray{});
    EXPECT_EQ(desktop.calls,
              (std::vector<std::string>{"preflightScreenCaptureAccess",
                                        "createWindowImage 100,50,800,600 8 77 9",
                                        "copyImageData"}));
}

TEST(Capture, RefusesWithoutPermissionBeforeAnyCapture) {
    FakeDesktop desktop;
    StandardScene scene(desktop);
    desktop.screenCaptureAllowed = false;
    EXPECT_EQ(failureOf([&] { capture(desktop, foreground(desktop), true); }), kScreenPermission);
    EXPECT_EQ(desktop.count("createWindowImage"), 0);
}

TEST(Capture, FailsWithoutImageOrPixelData) {
    for (bool hasImage : {false, true}) {
        FakeDesktop desktop;
        StandardScene scene(desktop);
        if (hasImage)
            desktop.imageHasData = false;
        else
            desktop.imageBytes.reset();
        EXPECT_EQ(failureOf([&] { capture(desktop, foreground(desktop), true); }),
                  "Screen capture failed.");
        EXPECT_EQ(desktop.count("recognizeText"), 0);
        EXPECT_EQ(desktop.unreleased(), "");
    }
}

TEST(Capture, RecognisedBlocksKeepTheirOrderAndAllCarryTheHash) {
    FakeDesktop desktop;
    StandardScene scene(desktop);
    desktop.recognized = {
        {Rect{0.5, 0.5, 0.25, 0.25}, {{"second half", 0.25f}, {"runner-up", 0.9f}}},
        {Rect{0, 0, 1, 1}, {}},  // no candidate: skipped
        {Rect{0, 0.9, 0.1, 0.1}, {{"", 0.125f}}},  // empty text is kept
        {Rect{0, 0, 0.5, 0.5}, {{" Ünïcode ", 1.0f}}},
    };
    CaptureResult r = capture(desktop, foreground(desktop), true);
    EXPECT_EQ(desktop.count("recognizeText"), 1);
    EXPECT_EQ(desktop.count("createWindowImage"), 1);  // the same image, not a second capture
    ASSERT_EQ(r.blocks.size(), 3u);
    EXPECT_EQ(writeJson(r.blocks[0]),
              R"({"bounds":{"height":150,"width":200,"x":500,"y":200},"confidence":0.25,)"
              R"("screenshot_hash":")" + r.hash + R"(","text":"second half"})");
    EXPECT_EQ(r.blocks[1].at("text"), "");
    EXPECT_EQ(r.blocks[2].at("text"), " Ünïcode ");
    for (const Json& block : r.blocks) EXPECT_EQ(block.at("screenshot_hash"), r.hash);
}

TEST(Capture, RecogniserErrorPassesOnAsItIs) {
    FakeDesktop desktop;
    StandardScene scene(desktop);
    desktop.recognizerError = "recogniser exploded";
    Window window = foreground(desktop);
    try {
        capture(desktop, window, true);
        ADD_FAILURE() << "no error";
    } catch (const Failure& f) {
        ADD_FAILURE() << "became a Failure: " << f.message();
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "recogniser exploded");
    }
}

struct MappingCase {
    const char* name;
    Rect box;  // normalised, lower-left origin
    Rect screen;
};

void PrintTo(const MappingCase& c, std::ostream* os) { *os << c.name; }

class Mapping : public ::testing::TestWithParam<MappingCase> {};

TEST_P(Mapping, MapsTheNormalisedBoxIntoScreenPoints) {
    // Frame (100, 50, 800, 600): y grows downwards on screen, upwards in the box.
    Rect r = screenRect(GetParam().box, StandardScene::kFrame);
    EXPECT_DOUBLE_EQ(r.x, GetParam().screen.x);
    EXPECT_DOUBLE_EQ(r.y, GetParam().screen.y);
    EXPECT_DOUBLE_EQ(r.width, GetParam().screen.width);
    EXPECT_DOUBLE_EQ(r.height, GetParam().screen.height);
}

INSTANTIATE_TEST_SUITE_P(
    Table, Mapping,
    ::testing::Values(MappingCase{"whole_image", {0, 0, 1, 1}, {100, 50, 800, 600}},
                      MappingCase{"top_left", {0, 0.9, 0.1, 0.1}, {100, 50, 80, 60}},
                      MappingCase{"bottom_right", {0.9, 0, 0.1, 0.1}, {820, 590, 80, 60}},
                      // maxY 0.3 < 0.5: the lower half of the window on screen.
                      MappingCase{"lower_half", {0.25, 0.1, 0.5, 0.2}, {300, 470, 400, 120}},
                      MappingCase{"fractional", {0.125, 0.5, 0.001, 0.25}, {200, 200, 0.8, 150}}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace quorvel
