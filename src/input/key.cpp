#include "bridge/failure.h"
#include "input/input.h"

namespace quorvel {

void key(Platform& platform, std::uint16_t code, EventFlags flags) {
    // Both events exist before either is posted, so a failure posts nothing.
    Event down = platform.createKeyboardEvent(code, true);
    if (!down) fail("Unable to create keyboard input.");
    Event up = platform.createKeyboardEvent(code, false);
    if (!up) fail("Unable to create keyboard input.");
    platform.setFlags(*down, flags);
    platform.setFlags(*up, flags);
    platform.post(EventTap::HID, *down);
    platform.post(EventTap::HID, *up);
}

}  // namespace quorvel
