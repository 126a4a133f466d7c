#include "platform/linux/x11/display.h"

#include <X11/Xlib-xcb.h>
#include <X11/Xlib.h>
#include <xcb/xcb.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "platform/linux/x11/errors.h"

namespace quorvel::linux_backend {
namespace {

// The atoms the window list reads, interned together once per process (an
// atom names the same string for the whole life of the server).
enum AtomName {
    kActiveWindow,
    kClientListStacking,
    kWmPid,
    kWmWindowType,
    kWmState,
    kFrameExtents,
    kTypeDesktop,
    kTypeDock,
    kStateAbove,
    kStateBelow,
    kAtomCount
};
static_assert(kAtomCount == XDisplay::kAtoms);
constexpr const char* kAtomNames[kAtomCount] = {
    "_NET_ACTIVE_WINDOW",          "_NET_CLIENT_LIST_STACKING",  "_NET_WM_PID",
    "_NET_WM_WINDOW_TYPE",         "_NET_WM_STATE",              "_NET_FRAME_EXTENTS",
    "_NET_WM_WINDOW_TYPE_DESKTOP", "_NET_WM_WINDOW_TYPE_DOCK",   "_NET_WM_STATE_ABOVE",
    "_NET_WM_STATE_BELOW",
};

struct Free {
    void operator()(void* reply) const { std::free(reply); }
};
template <class T>
using Reply = std::unique_ptr<T, Free>;

// A reply, or null when the request failed (the error is dropped: a window
// that vanished since the list was read is simply left out).
template <class T, class Cookie>
Reply<T> take(T* (*get)(xcb_connection_t*, Cookie, xcb_generic_error_t**),
              xcb_connection_t* connection, Cookie cookie) {
    xcb_generic_error_t* error = nullptr;
    Reply<T> reply(get(connection, cookie, &error));
    std::free(error);
    return reply;
}

// An atom the server already knows; XCB_ATOM_NONE when it does not.
xcb_atom_t existingAtom(xcb_connection_t* connection, const char* name) {
    auto reply = take(xcb_intern_atom_reply, connection,
                      xcb_intern_atom(connection, 1, static_cast<std::uint16_t>(std::strlen(name)),
                                      name));
    return reply ? reply->atom : xcb_atom_t{XCB_ATOM_NONE};
}

xcb_get_property_cookie_t askProperty(xcb_connection_t* connection, xcb_window_t window,
                                      xcb_atom_t property, xcb_atom_t type) {
    return xcb_get_property(connection, 0, window, property, type, 0, 1 << 20);
}

// A property of 32-bit items (CARDINAL, WINDOW, ATOM); nothing when it is
// absent or of another type.
std::optional<std::vector<std::uint32_t>> items(xcb_connection_t* connection,
                                                xcb_get_property_cookie_t cookie,
                                                xcb_atom_t type) {
    auto reply = take(xcb_get_property_reply, connection, cookie);
    if (!reply || reply->type != type || reply->format != 32) return std::nullopt;
    auto* data = static_cast<const std::uint32_t*>(xcb_get_property_value(reply.get()));
    int count = xcb_get_property_value_length(reply.get()) / 4;
    return std::vector<std::uint32_t>(data, data + count);
}

// _NET_WM_PID, the process that owns a client window: asked, and read later,
// so that the question can go out with others.
xcb_get_property_cookie_t askProcess(xcb_connection_t* connection, xcb_window_t window,
                                     xcb_atom_t wmPid) {
    return askProperty(connection, window, wmPid, XCB_ATOM_CARDINAL);
}
std::optional<std::int64_t> process(xcb_connection_t* connection,
                                    xcb_get_property_cookie_t cookie) {
    auto pid = items(connection, cookie, XCB_ATOM_CARDINAL);
    if (!pid || pid->empty()) return std::nullopt;
    return static_cast<std::int64_t>(pid->front());
}

// Layers of the window list. Normal windows are on layer 0, the only one the
// foreground match accepts; the others keep panels, the desktop and windows
// kept above or below out of it.
constexpr std::int64_t kDesktopLayer = -20;
constexpr std::int64_t kBelowLayer = -1;
constexpr std::int64_t kNormalLayer = 0;
constexpr std::int64_t kAboveLayer = 3;
constexpr std::int64_t kDockLayer = 20;

// _NET_FRAME_EXTENTS: what the window manager's frame adds on each side.
struct FrameExtents {
    long left = 0;
    long right = 0;
    long top = 0;
    long bottom = 0;
};


// A client window's bounds with the frame around it, in root coordinates:
// what GTK and the other toolkits report to AT-SPI as a top-level's extents.
Rect framedBounds(int clientX, int clientY, int width, int height, const FrameExtents& frame) {
    return Rect{static_cast<double>(clientX - frame.left), static_cast<double>(clientY - frame.top),
                static_cast<double>(width + frame.left + frame.right),
                static_cast<double>(height + frame.top + frame.bottom)};
}

bool contains(const std::optional<std::vector<std::uint32_t>>& list, xcb_atom_t atom) {
    return list && std::find(list->begin(), list->end(), atom) != list->end();
}

}  // namespace

std::optional<std::int64_t> processOf(Display* display, unsigned long window) {
    xcb_connection_t* c = XGetXCBConnection(display);
    xcb_atom_t wmPid = existingAtom(c, kAtomNames[kWmPid]);
    if (wmPid == XCB_ATOM_NONE) return std::nullopt;
    return process(c, askProcess(c, static_cast<xcb_window_t>(window), wmPid));
}

std::vector<unsigned long> ancestry(Display* display, unsigned long window) {
    xcb_connection_t* c = XGetXCBConnection(display);
    std::vector<unsigned long> chain;
    for (int depth = 0; depth < 64; ++depth) {
        chain.push_back(window);
        auto tree =
            take(xcb_query_tree_reply, c, xcb_query_tree(c, static_cast<xcb_window_t>(window)));
        if (!tree) return {};
        if (tree->parent == tree->root || tree->parent == XCB_WINDOW_NONE) return chain;
        window = tree->parent;
    }
    return {};
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

xcb_connection_t* XDisplay::connection() {
    Display* display = get();
    if (!display) return nullptr;
    if (!atoms_) {
        xcb_connection_t* c = XGetXCBConnection(display);
        xcb_intern_atom_cookie_t cookies[kAtomCount];
        for (int i = 0; i < kAtomCount; ++i)
            cookies[i] = xcb_intern_atom(c, 0, static_cast<std::uint16_t>(std::strlen(kAtomNames[i])),
                                         kAtomNames[i]);
        atoms_.emplace();
        for (int i = 0; i < kAtomCount; ++i) {
            auto reply = take(xcb_intern_atom_reply, c, cookies[i]);
            (*atoms_)[i] = reply ? reply->atom : xcb_atom_t{XCB_ATOM_NONE};
        }
    }
    return XGetXCBConnection(display);
}

xcb_window_t XDisplay::root() { return static_cast<xcb_window_t>(DefaultRootWindow(display_)); }

std::optional<ActiveClient> XDisplay::activeClient() {
    xcb_connection_t* c = connection();
    if (!c) return std::nullopt;
    // The process of the window that was active last time is asked along
    // with the active window: when that is still the one, both answers come
    // from the same round trip.
    auto activeCookie = askProperty(c, root(), atom(kActiveWindow), XCB_ATOM_WINDOW);
    std::optional<xcb_get_property_cookie_t> guessedPid;
    if (lastActive_) guessedPid = askProcess(c, lastActive_, atom(kWmPid));
    auto active = items(c, activeCookie, XCB_ATOM_WINDOW);
    std::optional<std::int64_t> pid;
    if (guessedPid) pid = process(c, *guessedPid);
    if (!active || active->empty() || active->front() == XCB_WINDOW_NONE) return std::nullopt;
    xcb_window_t window = active->front();
    if (window != lastActive_) pid = process(c, askProcess(c, window, atom(kWmPid)));
    lastActive_ = window;
    return ActiveClient{pid};
}

std::optional<std::string> XDisplay::rootTextProperty(const char* name) {
    xcb_connection_t* c = connection();
    if (!c) return std::nullopt;
    xcb_atom_t property = existingAtom(c, name);
    if (property == XCB_ATOM_NONE) return std::nullopt;
    auto reply = take(xcb_get_property_reply, c,
                      xcb_get_property(c, 0, root(), property, XCB_GET_PROPERTY_TYPE_ANY, 0,
                                       1024));
    if (!reply || reply->format != 8) return std::nullopt;
    return std::string(static_cast<const char*>(xcb_get_property_value(reply.get())),
                       static_cast<size_t>(xcb_get_property_value_length(reply.get())));
}

namespace {

// Every question the window list asks about one client window.
struct Questions {
    xcb_window_t client;
    xcb_get_window_attributes_cookie_t attributes;
    xcb_get_geometry_cookie_t geometry;
    xcb_translate_coordinates_cookie_t origin;
    xcb_get_property_cookie_t types, states, pid, frame;
};

}  // namespace

std::optional<std::vector<WindowListEntry>> XDisplay::windowList(bool onScreenOnly,
                                                                 bool excludeDesktop) {
    xcb_connection_t* c = connection();
    if (!c) return std::nullopt;
    // Every question about every window goes out before the first answer is
    // read, and those about the windows listed last time go out with the
    // list itself: one round trip when the list is unchanged, two otherwise.
    auto askAll = [&](const std::vector<std::uint32_t>& stacking) {
        std::vector<Questions> asked;
        asked.reserve(stacking.size());
        // The property runs bottom to top; the list runs front to back.
        for (auto it = stacking.rbegin(); it != stacking.rend(); ++it) {
            xcb_window_t client = *it;
            asked.push_back({client, xcb_get_window_attributes(c, client),
                             xcb_get_geometry(c, client),
                             xcb_translate_coordinates(c, client, root(), 0, 0),
                             askProperty(c, client, atom(kWmWindowType), XCB_ATOM_ATOM),
                             askProperty(c, client, atom(kWmState), XCB_ATOM_ATOM),
                             askProcess(c, client, atom(kWmPid)),
                             askProperty(c, client, atom(kFrameExtents), XCB_ATOM_CARDINAL)});
        }
        return asked;
    };
    auto stackingCookie = askProperty(c, root(), atom(kClientListStacking), XCB_ATOM_WINDOW);
    std::vector<Questions> asked = askAll(lastStacking_);
    auto stacking = items(c, stackingCookie, XCB_ATOM_WINDOW);
    if (!stacking || *stacking != lastStacking_) {
        for (const Questions& q : asked)
            for (unsigned sequence : {q.attributes.sequence, q.geometry.sequence, q.origin.sequence,
                                      q.types.sequence, q.states.sequence, q.pid.sequence,
                                      q.frame.sequence})
                xcb_discard_reply(c, sequence);
        asked.clear();
        if (!stacking) return std::nullopt;
        lastStacking_ = *stacking;
        asked = askAll(*stacking);
    }

    std::vector<WindowListEntry> entries;
    for (const Questions& q : asked) {
        // Every answer is collected, also those of windows left out.
        auto attributes = take(xcb_get_window_attributes_reply, c, q.attributes);
        auto geometry = take(xcb_get_geometry_reply, c, q.geometry);
        auto origin = take(xcb_translate_coordinates_reply, c, q.origin);
        auto types = items(c, q.types, XCB_ATOM_ATOM);
        auto states = items(c, q.states, XCB_ATOM_ATOM);
        auto pid = process(c, q.pid);
        auto frameItems = items(c, q.frame, XCB_ATOM_CARDINAL);
        if (!attributes || !geometry) continue;  // gone since the list was read
        if (onScreenOnly && attributes->map_state != XCB_MAP_STATE_VIEWABLE) continue;
        bool desktop = contains(types, atom(kTypeDesktop));
        if (excludeDesktop && desktop) continue;
        std::int64_t layer = kNormalLayer;
        if (desktop) layer = kDesktopLayer;
        else if (contains(types, atom(kTypeDock))) layer = kDockLayer;
        else if (contains(states, atom(kStateAbove))) layer = kAboveLayer;
        else if (contains(states, atom(kStateBelow))) layer = kBelowLayer;
        if (!origin || !origin->same_screen) continue;

        WindowListEntry entry;
        if (pid) entry.ownerPID = *pid;
        entry.layer = layer;
        entry.number = static_cast<std::int64_t>(q.client);
        FrameExtents frame;
        if (frameItems && frameItems->size() == 4)
            frame = {static_cast<long>((*frameItems)[0]), static_cast<long>((*frameItems)[1]),
                     static_cast<long>((*frameItems)[2]), static_cast<long>((*frameItems)[3])};
        entry.bounds = framedBounds(origin->dst_x, origin->dst_y, geometry->width,
                                    geometry->height, frame);
        entries.push_back(std::move(entry));
    }
    return entries;
}

}  // namespace quorvel::linux_backend
