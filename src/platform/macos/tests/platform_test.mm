// The backend's answers that need no permission: events built with the
// platform's constants (read back from the events themselves, never posted),
// element comparison, and an image's raw bytes.
#include "platform/macos/backend.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <vector>

namespace quorvel::macos_backend {
namespace {

Platform& platform() { return systemPlatform(); }

TEST(Events, KeyboardEventsCarryKeyDirectionFlagsAndText) {
    Event down = platform().createKeyboardEvent(kVirtualKeyLeftBracket, true);
    Event up = platform().createKeyboardEvent(kVirtualKeyLeftBracket, false);
    ASSERT_TRUE(down && up);
    EXPECT_EQ(CGEventGetType(cgEvent(*down)), kCGEventKeyDown);
    EXPECT_EQ(CGEventGetType(cgEvent(*up)), kCGEventKeyUp);
    EXPECT_EQ(CGEventGetIntegerValueField(cgEvent(*down), kCGKeyboardEventKeycode),
              kVirtualKeyLeftBracket);

    platform().setFlags(*down, kCGEventFlagMaskCommand);
    platform().setFlags(*up, 0);
    EXPECT_EQ(CGEventGetFlags(cgEvent(*down)), ::kCGEventFlagMaskCommand);
    EXPECT_EQ(CGEventGetFlags(cgEvent(*up)), 0u);

    const std::u16string text = u"h\u00e9llo\U0001F600";  // 7 UTF-16 code units
    platform().setUnicodeString(*down, text);
    UniChar read[16];
    UniCharCount length = 0;
    CGEventKeyboardGetUnicodeString(cgEvent(*down), 16, &length, read);
    EXPECT_EQ(std::u16string(read, read + length), text);
}

struct MouseCase {
    const char* name;
    MouseEventType type;
    CGEventType expected;
};

class MouseEvents : public ::testing::TestWithParam<MouseCase> {};

TEST_P(MouseEvents, CarryTypeLocationButtonAndClickState) {
    const MouseCase& c = GetParam();
    Event event = platform().createMouseEvent(c.type, Point{120.5, 48}, MouseButton::Left);
    ASSERT_TRUE(event);
    CGEventRef ref = cgEvent(*event);
    EXPECT_EQ(CGEventGetType(ref), c.expected);
    const CGPoint location = CGEventGetLocation(ref);
    EXPECT_EQ(location.x, 120.5);
    EXPECT_EQ(location.y, 48);
    EXPECT_EQ(CGEventGetIntegerValueField(ref, kCGMouseEventButtonNumber), kCGMouseButtonLeft);
    platform().setIntegerValueField(*event, EventField::MouseClickState, 2);
    EXPECT_EQ(CGEventGetIntegerValueField(ref, kCGMouseEventClickState), 2);
}

INSTANTIATE_TEST_SUITE_P(
    Buttons, MouseEvents,
    ::testing::Values(MouseCase{"down", MouseEventType::LeftMouseDown, kCGEventLeftMouseDown},
                      MouseCase{"up", MouseEventType::LeftMouseUp, kCGEventLeftMouseUp}),
    [](const ::testing::TestParamInfo<MouseCase>& info) { return info.param.name; });

TEST(Events, ScrollWheelEventsKeepUnitAndDelta) {
    Event pixels = platform().createScrollWheelEvent(ScrollUnit::Pixel, 1, -120, 0, 0);
    ASSERT_TRUE(pixels);
    EXPECT_EQ(CGEventGetType(cgEvent(*pixels)), kCGEventScrollWheel);
    // Pixel deltas make a continuous scroll; line deltas do not.
    EXPECT_EQ(CGEventGetIntegerValueField(cgEvent(*pixels), kCGScrollWheelEventIsContinuous), 1);
    EXPECT_EQ(CGEventGetIntegerValueField(cgEvent(*pixels), kCGScrollWheelEventPointDeltaAxis1), -120);

    Event lines = platform().createScrollWheelEvent(ScrollUnit::Line, 1, 3, 0, 0);
    ASSERT_TRUE(lines);
    EXPECT_EQ(CGEventGetIntegerValueField(cgEvent(*lines), kCGScrollWheelEventIsContinuous), 0);
    EXPECT_EQ(CGEventGetIntegerValueField(cgEvent(*lines), kCGScrollWheelEventDeltaAxis1), 3);
}

TEST(Elements, EqualComparesTheElementsNotTheHandles) {
    Element a = platform().createApplicationElement(getpid());
    Element b = platform().createApplicationElement(getpid());
    Element other = platform().createApplicationElement(1);
    ASSERT_TRUE(a && b && other);
    EXPECT_NE(a, b);
    EXPECT_TRUE(platform().equal(a, b));
    EXPECT_FALSE(platform().equal(a, other));
    EXPECT_FALSE(platform().equal(a, nullptr));
}

TEST(Images, RawBytesAreTheDataProvidersBytesWithRowPadding) {
    // 3 x 2 pixels, 4 bytes each, rows padded to 16 bytes.
    std::vector<std::uint8_t> pixels(32);
    for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = static_cast<std::uint8_t>(i * 7);
    CFRef<CFDataRef> data = CFRef<CFDataRef>::adopt(
        CFDataCreate(nullptr, pixels.data(), static_cast<CFIndex>(pixels.size())));
    CFRef<CGDataProviderRef> provider =
        CFRef<CGDataProviderRef>::adopt(CGDataProviderCreateWithCFData(data.get()));
    CFRef<CGColorSpaceRef> space =
        CFRef<CGColorSpaceRef>::adopt(CGColorSpaceCreateWithName(kCGColorSpaceSRGB));
    CFRef<CGImageRef> image = CFRef<CGImageRef>::adopt(
        CGImageCreate(3, 2, 8, 32, 16, space.get(),
                      static_cast<CGBitmapInfo>(kCGImageAlphaPremultipliedLast),
                      provider.get(), nullptr, false, kCGRenderingIntentDefault));
    ASSERT_TRUE(image);

    Image handle = std::make_shared<MacImage>(image);
    auto bytes = platform().copyImageData(handle);
    ASSERT_TRUE(bytes);
    EXPECT_EQ(*bytes, pixels);
    EXPECT_FALSE(platform().copyImageData(nullptr));
}

}  // namespace
}  // namespace quorvel::macos_backend
