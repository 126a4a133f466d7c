// Where the accessibility side and the window system meet: element
// positions in the window list's space.
//
// On X every position is global, and nothing is changed. On Wayland a
// client places its elements relative to its own window, so the focused
// top-level (the one "AXFocusedWindow" found last) is placed where the
// compositor's focused window is (wayland/window_mapping.h), and every
// other element's position moves with it. The top-level is placed only
// when both sources agree that it is that window: the compositor's focused
// window belongs to the process whose accessibility application it is (the
// application is looked up by that process), the top-level is ACTIVE, and
// its accessible name, when it has one, is the window's title. Its size stays the toolkit's
// own, which the core compares with the compositor's. When they do not
// agree, no element of the window has a position.
#pragma once

#include <functional>
#include <optional>
#include <string_view>

#include "platform/linux/atspi/accessibility.h"
#include "platform/linux/wayland/window_mapping.h"
#include "platform/linux/window_system.h"
#include "platform/platform.h"

namespace quorvel::linux_backend {

class WindowPlacement {
public:
    WindowPlacement(Accessibility& accessibility, std::function<WindowSystem&()> windows)
        : accessibility_(accessibility), windows_(std::move(windows)) {}

    // The accessibility side's answer for `attribute` of `element` (`read`
    // asks for it, when it is needed), in the window list's space.
    AttributeRead place(const Element& element, std::string_view attribute,
                        const std::function<AttributeRead()>& read);

private:
    enum class State { Global, Placed, Unplaced };
    void settle();

    Accessibility& accessibility_;
    std::function<WindowSystem&()> windows_;
    Element topLevel_;
    bool stale_ = true;
    State state_ = State::Global;
    wayland::WindowMapping mapping_;
};

}  // namespace quorvel::linux_backend
