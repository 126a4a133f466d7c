#include "bridge/scroll.h"

#include <algorithm>

#include "accessibility/element.h"
#include "accessibility/window.h"
#include "bridge/failure.h"

namespace quorvel {

void scroll(Platform& platform, std::int64_t amount, const JsonObject& scope) {
    constexpr char kPlaceCursor[] =
        "Place the cursor inside the observed window before native scrolling.";
    Window window = validate(platform, scope);
    std::optional<Point> pointer = platform.pointerLocation();
    if (!pointer || !containsPoint(window.frame, *pointer)) fail(kPlaceCursor);
    auto delta = static_cast<std::int32_t>(std::clamp(amount, -kMaxScroll, kMaxScroll));
    Event event = platform.createScrollWheelEvent(ScrollUnit::Pixel, 1, delta, 0, 0);
    if (!event) fail("Unable to create scroll input.");
    platform.post(EventTap::HID, *event);
}

}  // namespace quorvel
