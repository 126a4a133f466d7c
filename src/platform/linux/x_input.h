// The event side of the Linux backend: synthetic keyboard, pointer and wheel
// input through XTest. The operations mirror the event half of `Platform`, so
// the backend forwards to them one for one.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "platform/platform.h"

namespace quorvel::linux_backend {

class XInput {
public:
    XInput();
    // Releases anything still held and restores the keyboard mapping.
    ~XInput();
    XInput(const XInput&) = delete;
    XInput& operator=(const XInput&) = delete;

    std::optional<Point> pointerLocation();
    Event createKeyboardEvent(std::uint16_t virtualKey, bool keyDown);
    Event createMouseEvent(MouseEventType, Point location, MouseButton);
    Event createScrollWheelEvent(ScrollUnit, std::uint32_t wheelCount, std::int32_t wheel1,
                                 std::int32_t wheel2, std::int32_t wheel3);
    void setFlags(EventObject&, EventFlags);
    void setUnicodeString(EventObject&, std::span<const char16_t>);
    void setIntegerValueField(EventObject&, EventField, std::int64_t);
    void post(EventTap, EventObject&);
};

}  // namespace quorvel::linux_backend
