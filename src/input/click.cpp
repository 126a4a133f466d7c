#include <cmath>

#include "accessibility/element.h"
#include "accessibility/window.h"
#include "bridge/failure.h"
#include "input/input.h"

namespace quorvel {
namespace {

constexpr char kUnableToCreateMouseInput[] = "Unable to create mouse input.";

void postButton(Platform& platform, MouseEventType type, Point at, std::int64_t clickState) {
    Event event = platform.createMouseEvent(type, at, MouseButton::Left);
    if (!event) fail(kUnableToCreateMouseInput);
    platform.setIntegerValueField(*event, EventField::MouseClickState, clickState);
    platform.post(EventTap::HID, *event);
}

}  // namespace

void click(Platform& platform, double x, double y, std::int64_t count, const JsonObject& scope) {
    Window window = validate(platform, scope);
    Point at{x, y};
    if (!std::isfinite(x) || !std::isfinite(y) || !containsPoint(window.frame, at) ||
        (count != 1 && count != 2))
        fail("Click lies outside the observed window or has an invalid count.");
    for (std::int64_t n = 1; n <= count; ++n) {
        validate(platform, scope);
        // Each button-down is posted before its button-up is created.
        postButton(platform, MouseEventType::LeftMouseDown, at, n);
        postButton(platform, MouseEventType::LeftMouseUp, at, n);
    }
}

}  // namespace quorvel
