#include "platform/linux/wayland/window_mapping.h"

#include <algorithm>

namespace quorvel::linux_backend::wayland {

bool needsChildren(const Rect& window, const Rect& topLevel, bool relativeExtents) {
    return relativeExtents && (topLevel.width > window.width || topLevel.height > window.height);
}

WindowMapping mapWindow(const Rect& window, const Rect& topLevel, const std::vector<Rect>& children,
                        bool relativeExtents) {
    if (!relativeExtents) return {topLevel, {0, 0}};
    Rect content = topLevel;
    if (needsChildren(window, topLevel, relativeExtents)) {
        bool any = false;
        double left = 0, top = 0, right = 0, bottom = 0;
        for (const Rect& child : children) {
            if (!(child.width > 0) || !(child.height > 0)) continue;
            left = any ? std::min(left, child.x) : child.x;
            top = any ? std::min(top, child.y) : child.y;
            right = any ? std::max(right, child.x + child.width) : child.x + child.width;
            bottom = any ? std::max(bottom, child.y + child.height) : child.y + child.height;
            any = true;
        }
        // Without children that say where the content is, the top-level
        // stands for itself, and its size disagrees with the window's.
        if (any) content = {left, top, right - left, bottom - top};
    }
    return {{window.x, window.y, content.width, content.height},
            {window.x - content.x, window.y - content.y}};
}

}  // namespace quorvel::linux_backend::wayland
