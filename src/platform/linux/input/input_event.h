// The event objects the core builds and posts, as both window systems (X
// and Wayland) make them: what the core asked for, kept until it is posted.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "platform/platform.h"
#include "unicode/unicode.h"

namespace quorvel::linux_backend {

// One step of the wheel scrolls GTK and most toolkits by a few lines, about
// 50 pixels.
constexpr int kPixelsPerWheelStep = 50;

struct InputEvent final : EventObject {
    enum class Kind { Key, Mouse, Scroll } kind;
    explicit InputEvent(Kind k) : kind(k) {}
    // Key events; a text event carries its characters in `text`.
    std::uint16_t virtualKey = 0;
    bool down = false;
    EventFlags flags = 0;
    bool hasText = false;
    std::u32string text;
    // Mouse events.
    Point at;
    // Scroll events: pixels, and what one step scrolls.
    std::int32_t wheel = 0;
    int pixelsPerStep = kPixelsPerWheelStep;
};

inline InputEvent* ours(EventObject& event) { return dynamic_cast<InputEvent*>(&event); }

inline Event keyEvent(std::uint16_t virtualKey, bool down) {
    auto event = std::make_unique<InputEvent>(InputEvent::Kind::Key);
    event->virtualKey = virtualKey;
    event->down = down;
    return event;
}

inline Event mouseEvent(MouseEventType type, Point location) {
    auto event = std::make_unique<InputEvent>(InputEvent::Kind::Mouse);
    event->down = type == MouseEventType::LeftMouseDown;
    event->at = location;
    return event;
}

inline Event scrollEvent(std::int32_t pixels, int pixelsPerStep) {
    auto event = std::make_unique<InputEvent>(InputEvent::Kind::Scroll);
    event->wheel = pixels;
    event->pixelsPerStep = pixelsPerStep;
    return event;
}

inline void setEventFlags(EventObject& event, EventFlags flags) {
    if (InputEvent* input = ours(event)) input->flags = flags;
}

inline void setEventText(EventObject& event, std::span<const char16_t> text) {
    if (InputEvent* input = ours(event); input && input->kind == InputEvent::Kind::Key) {
        input->hasText = true;
        input->text = scalars(std::u16string_view(text.data(), text.size()));
    }
}

}  // namespace quorvel::linux_backend
