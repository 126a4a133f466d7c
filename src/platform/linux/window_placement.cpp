#include "platform/linux/window_placement.h"

#include "platform/linux/window_identity.h"

#include <vector>

namespace quorvel::linux_backend {
namespace {

// The element's extents as the toolkit reports them.
std::optional<Rect> extentsOf(Accessibility& accessibility, const Element& element) {
    AttributeRead position = accessibility.read(element, "AXPosition");
    AttributeRead size = accessibility.read(element, "AXSize");
    auto* point = std::get_if<Point>(&position.value);
    auto* extent = std::get_if<Size>(&size.value);
    if (position.code != kAXErrorSuccess || size.code != kAXErrorSuccess || !point || !extent)
        return std::nullopt;
    return Rect{point->x, point->y, extent->width, extent->height};
}

}  // namespace

void WindowPlacement::settle() {
    stale_ = false;
    state_ = State::Global;
    WindowSystem& windows = windows_();
    if (!windows.windowRelativeExtents()) return;
    state_ = State::Unplaced;
    std::optional<FocusedWindow> window = windows.focusedWindow();
    if (!window || !topLevel_) return;
    if (!window->relativeExtents) {
        state_ = State::Global;  // an X11 client under Xwayland
        return;
    }
    std::optional<Accessibility::TopLevel> facts = accessibility_.topLevel(topLevel_);
    // A toolkit that names no window (GTK 3 with a header bar) says nothing
    // against it; a name of another window does. The unsaved-changes marker
    // is no part of a name: the toolkit and the compositor learn of it at
    // different moments, the first key typed into a new document away.
    if (!facts || !facts->extents ||
        (facts->name && !facts->name->empty() &&
         windowTitle(*facts->name) != windowTitle(window->title)))
        return;
    const Extents& e = *facts->extents;
    Rect topLevel{static_cast<double>(e.x), static_cast<double>(e.y),
                  static_cast<double>(e.width), static_cast<double>(e.height)};
    std::vector<Rect> children;
    if (wayland::needsChildren(window->bounds, topLevel, true)) {
        AttributeRead list = accessibility_.read(topLevel_, "AXChildren");
        if (auto* elements = std::get_if<ElementList>(&list.value))
            for (const Element& child : *elements)
                if (std::optional<Rect> extents = extentsOf(accessibility_, child))
                    children.push_back(*extents);
    }
    mapping_ = wayland::mapWindow(window->bounds, topLevel, children, true);
    state_ = State::Placed;
}

AttributeRead WindowPlacement::place(const Element& element, std::string_view attribute,
                                     const std::function<AttributeRead()>& read) {
    if (attribute == "AXFocusedWindow") {
        AttributeRead found = read();
        auto* window = std::get_if<Element>(&found.value);
        topLevel_ = found.code == kAXErrorSuccess && window ? *window : nullptr;
        stale_ = true;
        return found;
    }
    bool position = attribute == "AXPosition";
    if (!position && attribute != "AXSize") return read();
    if (stale_) settle();
    if (state_ == State::Global) return read();
    if (state_ == State::Unplaced) return {kAXErrorNoValue, {}};
    if (topLevel_ && accessibility_.equal(element, topLevel_)) {
        const Rect& frame = mapping_.frame;
        if (position) return {kAXErrorSuccess, Point{frame.x, frame.y}};
        return {kAXErrorSuccess, Size{frame.width, frame.height}};
    }
    AttributeRead answer = read();
    if (auto* point = std::get_if<Point>(&answer.value); position && point)
        *point = {point->x + mapping_.offset.x, point->y + mapping_.offset.y};
    return answer;
}

}  // namespace quorvel::linux_backend
