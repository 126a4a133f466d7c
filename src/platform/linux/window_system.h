// The window system through which the Linux backend meets the desktop: the
// X server (x11/ and input/) or a Wayland compositor (wayland/). It answers
// what only the window system knows: which window has the focus, the window
// list, a window's image, the pointer, and synthetic input. Accessibility
// (atspi/) is the same on both; the platform class joins it with one of
// these, chosen when the bridge first needs the desktop.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/input/editor_text.h"
#include "platform/linux/x11/capture.h"
#include "platform/linux/x11/display.h"
#include "platform/platform.h"

namespace quorvel::linux_backend {

// The focused window as the window system places it, for toolkits that
// report element positions relative to their own window (on Wayland) rather
// than on the screen.
struct FocusedWindow {
    std::optional<std::int64_t> pid;
    Rect bounds;        // where the window's content lies, in the window list's space
    std::string title;  // as the window system knows it
    // The client places its elements relative to the window (a native
    // Wayland client), not in global coordinates (an X11 client under
    // Xwayland).
    bool relativeExtents = true;
};

class WindowSystem {
public:
    virtual ~WindowSystem() = default;

    // What the window system cannot do that an observation needs, as the
    // sentence that tells the user what is missing and what to do; nothing
    // when it can tell which window is in front and list the windows.
    virtual std::optional<std::string> windowsUnavailable() = 0;
    // Whether a window's image can be taken, and the sentence for when not.
    virtual bool canCapture() = 0;
    virtual std::string captureUnavailable() const = 0;

    // The accessibility bus address that the display publishes (the X root
    // window's AT_SPI_BUS); nothing where it publishes none.
    virtual std::optional<std::string> publishedBusAddress() = 0;

    // The process of the window that has the keyboard focus: nothing when
    // no window has it, a pid of nothing when the window does not say.
    struct Focus {
        std::optional<std::int64_t> pid;
    };
    virtual std::optional<Focus> focus() = 0;
    // Whether clients report element positions relative to their own
    // windows (Wayland), so that they must be placed with focusedWindow().
    virtual bool windowRelativeExtents() const { return false; }
    // The focused window's placement; nothing when no window has the focus.
    virtual std::optional<FocusedWindow> focusedWindow() { return std::nullopt; }
    // The windows, front to back; nothing when there is no list at all.
    virtual std::optional<std::vector<WindowListEntry>> windowList(bool onScreenOnly,
                                                                   bool excludeDesktop) = 0;
    // The client windows with their frames, names and the active one, for
    // telling which window a top-level is (window_identity.h); nothing where
    // the window system does not list them so.
    virtual std::optional<ClientWindows> clientWindows() { return std::nullopt; }
    // The image of window `windowID` within `bounds`, in the one raw layout.
    virtual std::optional<Pixels> capture(std::uint32_t windowID, const Rect& bounds) = 0;

    // The event half of the seam, one for one.
    virtual std::optional<Point> pointerLocation() = 0;
    virtual Event createKeyboardEvent(std::uint16_t virtualKey, bool keyDown) = 0;
    virtual Event createMouseEvent(MouseEventType, Point location, MouseButton) = 0;
    // `pixelsPerStep`: what one wheel step scrolls in the application in front.
    virtual Event createScrollWheelEvent(ScrollUnit, std::uint32_t wheelCount, std::int32_t wheel1,
                                         std::int32_t wheel2, std::int32_t wheel3,
                                         int pixelsPerStep) = 0;
    virtual void setFlags(EventObject&, EventFlags) = 0;
    virtual void setUnicodeString(EventObject&, std::span<const char16_t>) = 0;
    virtual void setIntegerValueField(EventObject&, EventField, std::int64_t) = 0;
    virtual void post(EventTap, EventObject&) = 0;
    // Nothing, or the sentence that refuses the text before any key of it.
    virtual std::optional<std::string> prepareText(std::string_view utf8) = 0;
};

// The window system of this session, by the platform libraries' own rules:
// a Wayland compositor when WAYLAND_DISPLAY or WAYLAND_SOCKET names one that
// answers (libwayland would otherwise try "wayland-0", which is no evidence
// of a Wayland session), the X server of DISPLAY otherwise. `focusedText`
// reads the focused editor, for typing's evidence that keys were handled.
std::unique_ptr<WindowSystem> openWindowSystem(FocusedText focusedText);

std::unique_ptr<WindowSystem> openX11WindowSystem(FocusedText focusedText);
// Null when no compositor answers.
std::unique_ptr<WindowSystem> openWaylandWindowSystem(FocusedText focusedText);

}  // namespace quorvel::linux_backend
