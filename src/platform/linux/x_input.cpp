// Placeholder until XTest input lands: no event can be created, so every
// input request is refused with its "Unable to create ..." message and
// nothing is ever posted.
#include "platform/linux/x_input.h"

namespace quorvel::linux_backend {

XInput::XInput() = default;
XInput::~XInput() = default;
std::optional<Point> XInput::pointerLocation() { return std::nullopt; }
Event XInput::createKeyboardEvent(std::uint16_t, bool) { return nullptr; }
Event XInput::createMouseEvent(MouseEventType, Point, MouseButton) { return nullptr; }
Event XInput::createScrollWheelEvent(ScrollUnit, std::uint32_t, std::int32_t, std::int32_t,
                                     std::int32_t) {
    return nullptr;
}
void XInput::setFlags(EventObject&, EventFlags) {}
void XInput::setUnicodeString(EventObject&, std::span<const char16_t>) {}
void XInput::setIntegerValueField(EventObject&, EventField, std::int64_t) {}
void XInput::post(EventTap, EventObject&) {}

}  // namespace quorvel::linux_backend
