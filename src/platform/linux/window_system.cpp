#include "platform/linux/window_system.h"

#include <cstdlib>

namespace quorvel::linux_backend {

std::unique_ptr<WindowSystem> openWindowSystem(FocusedText focusedText) {
    auto named = [](const char* variable) {
        const char* value = std::getenv(variable);
        return value && *value;
    };
    if (named("WAYLAND_SOCKET") || named("WAYLAND_DISPLAY"))
        if (auto wayland = openWaylandWindowSystem(focusedText)) return wayland;
    return openX11WindowSystem(std::move(focusedText));
}

}  // namespace quorvel::linux_backend
