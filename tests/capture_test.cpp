// Window capture: the pixel hash, text recognition and the mapping of
// recognised boxes into screen points.
#include <gtest/gtest.h>

#include "accessibility/window.h"
#include "observation/capture.h"
#include "scene.h"

namespace quorvel {
namespace {

using fake::FakeDesktop;
using fake::StandardScene;

TEST(Capture, HashIsTheLowerCaseHexDigestOfExactlyThePixelBytes) {
    // Digests from sha256sum over the same bytes.
    for (const auto& [bytes, digest] : std::vector<std::pair<std::vector<std::uint8_t>, std::string>>{
             {{'a', 'b', 'c'}, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
             {{0x17, 0x00}, "009bcd40e9707180cd0f5b0a16f497a82ece54d6fe538d5861b47c49ffd91773"}}) {
        FakeDesktop desktop;
        StandardScene scene(desktop);
        desktop.imageBytes = bytes;
        EXPECT_EQ(capture(desktop, foreground(desktop), false).hash, digest);
    }
}

TEST(Capture, TakesOneImageOfTheWindowAloneAndNeverRecognisesUnasked) {
    FakeDesktop desktop;
    StandardScene scene(desktop);
    desktop.recognized = {{Rect{0, 0, 1, 1}, {{"never", 1.0f}}}};
    Window window = foreground(desktop);
    desktop.calls.clear();
    EXPECT_EQ(capture(desktop, window, false).blocks, JsonArray{});
    EXPECT_EQ(desktop.calls, (std::vector<std::string>{"preflightScreenCaptureAccess",
                                                       "createWindowImage 100,50,800,600 8 77 9",
                                                       "copyImageData"}));
}

TEST(Capture, RecognisedBlocksKeepTheirOrderAndAllCarryTheHash) {
    FakeDesktop desktop;
    StandardScene scene(desktop);
    desktop.recognized = {
        {Rect{0.5, 0.5, 0.25, 0.25}, {{"second half", 0.25f}, {"runner-up", 0.9f}}},
        {Rect{0, 0, 1, 1}, {}},                     // no candidate: skipped
        {Rect{0, 0.9, 0.1, 0.1}, {{"", 0.125f}}},   // empty text is kept
        {Rect{0, 0, 0.5, 0.5}, {{" Ünïcode ", 1.0f}}},
    };
    CaptureResult r = capture(desktop, foreground(desktop), true);
    EXPECT_EQ(desktop.count("createWindowImage"), 1);  // the same image, not a second capture
    ASSERT_EQ(r.blocks.size(), 3u);
    // The frame is 100,50 800x600; y grows downwards on screen, upwards in the box.
    EXPECT_EQ(writeJson(r.blocks[0]),
              R"({"bounds":{"height":150,"width":200,"x":500,"y":200},"confidence":0.25,)"
              R"("screenshot_hash":")" + r.hash + R"(","text":"second half"})");
    EXPECT_EQ(r.blocks[1].at("text"), "");
    EXPECT_EQ(r.blocks[2].at("text"), " Ünïcode ");
    for (const Json& block : r.blocks) EXPECT_EQ(block.at("screenshot_hash"), r.hash);
}

}  // namespace
}  // namespace quorvel
