#include "platform/linux/window_system.h"

namespace quorvel::linux_backend {

std::unique_ptr<WindowSystem> openWindowSystem(FocusedText focusedText) {
    return openX11WindowSystem(std::move(focusedText));
}

}  // namespace quorvel::linux_backend
