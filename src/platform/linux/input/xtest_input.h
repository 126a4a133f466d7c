// The event side of the Linux backend: synthetic keyboard, pointer and wheel
// input through XTest. The operations mirror the event half of `Platform`, so
// the backend forwards to them one for one.
//
// For the backend that owns an XInput:
//   - XInput opens its own X connection on first use; when there is no
//     display or no XTest extension, every event creation returns null.
//   - Text typing may change the keyboard mapping, and waits for, then
//     holds, the keyboard claim (keyboard_claim.h): a text that another
//     bridge keeps waiting is refused with a sentence of its own. The
//     destructor restores the mapping and lets the claim go, so the owner
//     must destroy the XInput before the process exits
//     (a function-local static is destroyed on return from main), and
//     before whatever answers `focusedText`: that restore may read the
//     focused editor.
//   - While the mapping is changed, SIGINT, SIGTERM, SIGHUP, SIGQUIT and
//     SIGPIPE are held back and re-raised once it is restored.
//   - The backend's non-fatal X error handler (x11/errors.h) is installed when
//     the connection opens.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/input/editor_text.h"
#include "platform/linux/input/input_event.h"
#include "platform/platform.h"

namespace quorvel::linux_backend {

class Typist;

// The number of wheel steps for a scroll of `pixels` (sign ignored), where
// one step scrolls `pixelsPerStep`: rounded, at least one.
int wheelSteps(std::int32_t pixels, int pixelsPerStep = kPixelsPerWheelStep);

// What a key event becomes on X: the key's keysym and the modifiers to hold.
// Command becomes Control, the shortcut key of Linux applications, and
// Command + left bracket (back) becomes Alt + Left. Nothing for a virtual
// key the bridge never sends.
struct Chord {
    unsigned long keysym = 0;
    bool control = false;
    bool alt = false;
};
std::optional<Chord> chordFor(std::uint16_t virtualKey, EventFlags flags);

// The refusal of a text while another bridge keeps the keyboard.
inline constexpr char kAnotherBridgeTyping[] =
    "Another bridge is typing on this desktop. Retry when it has finished.";

class XInput {
public:
    // `focusedText` reads the focused editor, to learn that the application
    // has handled the keys typed so far.
    explicit XInput(FocusedText focusedText);
    // Releases anything still held and restores the keyboard mapping.
    ~XInput();
    XInput(const XInput&) = delete;
    XInput& operator=(const XInput&) = delete;

    std::optional<Point> pointerLocation();
    Event createKeyboardEvent(std::uint16_t virtualKey, bool keyDown);
    Event createMouseEvent(MouseEventType, Point location, MouseButton);
    // `pixelsPerStep`: what one wheel step scrolls in the application in front.
    Event createScrollWheelEvent(ScrollUnit, std::uint32_t wheelCount, std::int32_t wheel1,
                                 std::int32_t wheel2, std::int32_t wheel3,
                                 int pixelsPerStep = kPixelsPerWheelStep);
    void setFlags(EventObject&, EventFlags);
    void setUnicodeString(EventObject&, std::span<const char16_t>);
    void setIntegerValueField(EventObject&, EventField, std::int64_t);
    void post(EventTap, EventObject&);
    std::optional<std::string> prepareText(std::string_view utf8);

private:
    struct Connection;
    bool connect();
    void releaseHeld();

    std::unique_ptr<Connection> connection_;
    FocusedText focusedText_;
    bool tried_ = false;
    std::unique_ptr<Typist> typist_;
    std::vector<unsigned char> heldKeys_;  // keycodes, in press order
    bool buttonHeld_ = false;
};

}  // namespace quorvel::linux_backend
