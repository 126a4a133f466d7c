// The X side of the read half: the display connection and the window
// manager's view of the windows (EWMH properties).
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/platform.h"

struct _XDisplay;
struct xcb_connection_t;

namespace quorvel::linux_backend {

// The process that owns the client window `window` (its _NET_WM_PID);
// nothing when the window does not say.
std::optional<std::int64_t> processOf(_XDisplay*, unsigned long window);

// The windows from `window` up to the child of the root that holds it (the
// window manager's frame, or the window itself when it is not reparented),
// `window` first; empty when the walk fails (a window vanished).
std::vector<unsigned long> ancestry(_XDisplay*, unsigned long window);

struct ActiveClient {
    std::optional<std::int64_t> pid;
};

// What is added around a client window on each side (_NET_FRAME_EXTENTS,
// the window manager's decorations), or drawn inside it around the window
// proper (_GTK_FRAME_EXTENTS, client-side shadows).
struct Insets {
    long left = 0;
    long right = 0;
    long top = 0;
    long bottom = 0;
    friend bool operator==(const Insets&, const Insets&) = default;
};

// One managed client window, as the X server and the window manager
// describe it.
struct ClientWindow {
    std::uint32_t id = 0;
    std::optional<std::int64_t> pid;  // _NET_WM_PID
    std::int64_t layer = 0;           // 0 for normal windows
    bool viewable = false;
    bool desktop = false;
    Rect client;                      // the client window, root coordinates
    Insets frame;                     // _NET_FRAME_EXTENTS
    std::optional<Insets> shadow;     // _GTK_FRAME_EXTENTS
    std::optional<std::string> name;  // _NET_WM_NAME
};

// The client window with the window manager's frame around it.
Rect framed(const ClientWindow&);

// Every managed client window, front to back, and the active one (0 when
// none is).
struct ClientWindows {
    std::vector<ClientWindow> windows;
    std::uint32_t active = 0;
};

class XDisplay {
public:
    XDisplay() = default;
    ~XDisplay();
    XDisplay(const XDisplay&) = delete;
    XDisplay& operator=(const XDisplay&) = delete;

    // The connection to $DISPLAY, opened on first use; null without one.
    _XDisplay* get();

    // The process of _NET_ACTIVE_WINDOW (its _NET_WM_PID); empty when no
    // window is active.
    std::optional<ActiveClient> activeClient();
    // The managed client windows (_NET_CLIENT_LIST_STACKING) and
    // _NET_ACTIVE_WINDOW; empty when the window manager publishes no list.
    std::optional<ClientWindows> clientWindows();
    // The on-screen windows, front to back; empty when the window manager
    // publishes no list. An entry's number is the client window's id (X ids
    // have 29 bits, so it fits the 32 bits of a window number), its bounds
    // those of the frame around it.
    std::optional<std::vector<WindowListEntry>> windowList(bool onScreenOnly,
                                                           bool excludeDesktop);
    // A text property of the root window (the accessibility bus address).
    std::optional<std::string> rootTextProperty(const char* name);

    static constexpr size_t kAtoms = 13;  // interned once, see display.cpp

private:
    // The display's XCB connection, for questions sent many at a time; null
    // without a display.
    xcb_connection_t* connection();
    std::uint32_t root();
    std::uint32_t atom(int name) const { return (*atoms_)[name]; }

    _XDisplay* display_ = nullptr;
    bool opened_ = false;
    std::optional<std::array<std::uint32_t, kAtoms>> atoms_;
    // What was read last time, to ask about along with the next read.
    std::uint32_t lastActive_ = 0;
    std::vector<std::uint32_t> lastStacking_;
};

}  // namespace quorvel::linux_backend
