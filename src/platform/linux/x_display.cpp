#include "platform/linux/x_display.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>

#include <algorithm>

#include "platform/linux/x_errors.h"

namespace quorvel::linux_backend {
namespace {

// One property as a list of 32-bit items (CARDINAL, WINDOW, ATOM), which
// Xlib hands back in longs.
std::optional<std::vector<unsigned long>> longProperty(Display* display, ::Window window,
                                                       const char* name, Atom type) {
    Atom property = XInternAtom(display, name, True);
    if (property == None) return std::nullopt;
    Atom actualType = None;
    int format = 0;
    unsigned long count = 0, remaining = 0;
    unsigned char* data = nullptr;
    XErrorTrap trap(display);
    int status = XGetWindowProperty(display, window, property, 0, 1 << 20, False, type,
                                    &actualType, &format, &count, &remaining, &data);
    if (trap.failed() || status != Success || actualType != type || format != 32 || !data) {
        if (data) XFree(data);
        return std::nullopt;
    }
    auto* items = reinterpret_cast<unsigned long*>(data);
    std::vector<unsigned long> values(items, items + count);
    XFree(data);
    return values;
}

bool hasAtom(Display* display, const std::vector<unsigned long>& atoms, const char* name) {
    Atom atom = XInternAtom(display, name, True);
    return atom != None && std::find(atoms.begin(), atoms.end(), atom) != atoms.end();
}

}  // namespace

Rect framedBounds(int clientX, int clientY, int width, int height, const FrameExtents& frame) {
    return Rect{static_cast<double>(clientX - frame.left), static_cast<double>(clientY - frame.top),
                static_cast<double>(width + frame.left + frame.right),
                static_cast<double>(height + frame.top + frame.bottom)};
}

XDisplay::~XDisplay() {
    if (display_) XCloseDisplay(display_);
}

Display* XDisplay::get() {
    if (!opened_) {
        opened_ = true;
        installErrorHandler();
        display_ = XOpenDisplay(nullptr);
    }
    return display_;
}

std::optional<XWindowId> XDisplay::activeWindow() {
    Display* display = get();
    if (!display) return std::nullopt;
    auto active =
        longProperty(display, DefaultRootWindow(display), "_NET_ACTIVE_WINDOW", XA_WINDOW);
    if (!active || active->empty() || active->front() == None) return std::nullopt;
    return active->front();
}

std::optional<std::int64_t> XDisplay::windowPid(XWindowId window) {
    Display* display = get();
    if (!display) return std::nullopt;
    auto pid = longProperty(display, window, "_NET_WM_PID", XA_CARDINAL);
    if (!pid || pid->empty()) return std::nullopt;
    return static_cast<std::int64_t>(pid->front());
}

std::optional<std::string> XDisplay::rootTextProperty(const char* name) {
    Display* display = get();
    if (!display) return std::nullopt;
    Atom property = XInternAtom(display, name, True);
    if (property == None) return std::nullopt;
    Atom actualType = None;
    int format = 0;
    unsigned long count = 0, remaining = 0;
    unsigned char* data = nullptr;
    XErrorTrap trap(display);
    int status = XGetWindowProperty(display, DefaultRootWindow(display), property, 0, 4096, False,
                                    AnyPropertyType, &actualType, &format, &count, &remaining,
                                    &data);
    std::optional<std::string> text;
    if (!trap.failed() && status == Success && format == 8 && data)
        text.emplace(reinterpret_cast<char*>(data), count);
    if (data) XFree(data);
    return text;
}

std::optional<std::vector<WindowListEntry>> XDisplay::windowList(bool onScreenOnly,
                                                                 bool excludeDesktop) {
    Display* display = get();
    if (!display) return std::nullopt;
    ::Window root = DefaultRootWindow(display);
    auto stacking = longProperty(display, root, "_NET_CLIENT_LIST_STACKING", XA_WINDOW);
    if (!stacking) return std::nullopt;

    std::vector<WindowListEntry> entries;
    // The property runs bottom to top; the list runs front to back.
    for (auto it = stacking->rbegin(); it != stacking->rend(); ++it) {
        ::Window client = *it;
        XWindowAttributes attributes;
        {
            XErrorTrap trap(display);
            Status got = XGetWindowAttributes(display, client, &attributes);
            if (trap.failed() || !got) continue;  // gone since the list was read
        }
        if (onScreenOnly && attributes.map_state != IsViewable) continue;

        std::vector<unsigned long> types =
            longProperty(display, client, "_NET_WM_WINDOW_TYPE", XA_ATOM).value_or(
                std::vector<unsigned long>{});
        std::vector<unsigned long> states =
            longProperty(display, client, "_NET_WM_STATE", XA_ATOM).value_or(
                std::vector<unsigned long>{});
        bool desktop = hasAtom(display, types, "_NET_WM_WINDOW_TYPE_DESKTOP");
        if (excludeDesktop && desktop) continue;
        std::int64_t layer = kNormalLayer;
        if (desktop) layer = kDesktopLayer;
        else if (hasAtom(display, types, "_NET_WM_WINDOW_TYPE_DOCK")) layer = kDockLayer;
        else if (hasAtom(display, states, "_NET_WM_STATE_ABOVE")) layer = kAboveLayer;
        else if (hasAtom(display, states, "_NET_WM_STATE_BELOW")) layer = kBelowLayer;

        WindowListEntry entry;
        if (std::optional<std::int64_t> pid = windowPid(client)) entry.ownerPID = *pid;
        entry.layer = layer;
        entry.number = static_cast<std::int64_t>(client);

        int x = 0, y = 0;
        ::Window child = None;
        XErrorTrap trap(display);
        Bool translated = XTranslateCoordinates(display, client, root, 0, 0, &x, &y, &child);
        if (trap.failed() || !translated) continue;
        FrameExtents frame;
        if (auto extents = longProperty(display, client, "_NET_FRAME_EXTENTS", XA_CARDINAL);
            extents && extents->size() == 4) {
            frame = {static_cast<long>((*extents)[0]), static_cast<long>((*extents)[1]),
                     static_cast<long>((*extents)[2]), static_cast<long>((*extents)[3])};
        }
        entry.bounds = framedBounds(x, y, attributes.width, attributes.height, frame);
        entries.push_back(std::move(entry));
    }
    return entries;
}

}  // namespace quorvel::linux_backend
