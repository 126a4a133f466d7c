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
    kGtkFrameExtents,
    kWmName,
    kUtf8String,
    kAtomCount
};
static_assert(kAtomCount == XDisplay::kAtoms);
constexpr const char* kAtomNames[kAtomCount] = {
    "_NET_ACTIVE_WINDOW",          "_NET_CLIENT_LIST_STACKING",  "_NET_WM_PID",
    "_NET_WM_WINDOW_TYPE",         "_NET_WM_STATE",              "_NET_FRAME_EXTENTS",
    "_NET_WM_WINDOW_TYPE_DESKTOP", "_NET_WM_WINDOW_TYPE_DOCK",   "_NET_WM_STATE_ABOVE",
    "_NET_WM_STATE_BELOW",         "_GTK_FRAME_EXTENTS",         "_NET_WM_NAME",
    "UTF8_STRING",
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

// Layers of the window list. Normal windows are on layer 0 (ClientWindow's
// default), the only one the foreground match accepts; the others keep
// panels, the desktop and windows kept above or below out of it.
constexpr std::int64_t kDesktopLayer = -20;
constexpr std::int64_t kBelowLayer = -1;
constexpr std::int64_t kAboveLayer = 3;
constexpr std::int64_t kDockLayer = 20;

// Four CARDINALs, left, right, top, bottom; nothing otherwise.
std::optional<Insets> insets(const std::optional<std::vector<std::uint32_t>>& items) {
    if (!items || items->size() != 4) return std::nullopt;
    return Insets{static_cast<long>((*items)[0]), static_cast<long>((*items)[1]),
                  static_cast<long>((*items)[2]), static_cast<long>((*items)[3])};
}

std::optional<std::string> utf8(xcb_connection_t* connection, xcb_get_property_cookie_t cookie,
                                xcb_atom_t type) {
    auto reply = take(xcb_get_property_reply, connection, cookie);
    if (!reply || reply->type != type || reply->format != 8) return std::nullopt;
    return std::string(static_cast<const char*>(xcb_get_property_value(reply.get())),
                       static_cast<size_t>(xcb_get_property_value_length(reply.get())));
}

bool contains(const std::optional<std::vector<std::uint32_t>>& list, xcb_atom_t atom) {
    return list && std::find(list->begin(), list->end(), atom) != list->end();
}

}  // namespace

Rect framed(const ClientWindow& w) {
    return Rect{w.client.x - w.frame.left, w.client.y - w.frame.top,
                w.client.width + w.frame.left + w.frame.right,
                w.client.height + w.frame.top + w.frame.bottom};
}

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
    xcb_get_property_cookie_t types, states, pid, frame, shadow, name;
};

}  // namespace

std::optional<ClientWindows> XDisplay::clientWindows() {
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
                             askProperty(c, client, atom(kFrameExtents), XCB_ATOM_CARDINAL),
                             askProperty(c, client, atom(kGtkFrameExtents), XCB_ATOM_CARDINAL),
                             askProperty(c, client, atom(kWmName), atom(kUtf8String))});
        }
        return asked;
    };
    auto stackingCookie = askProperty(c, root(), atom(kClientListStacking), XCB_ATOM_WINDOW);
    auto activeCookie = askProperty(c, root(), atom(kActiveWindow), XCB_ATOM_WINDOW);
    std::vector<Questions> asked = askAll(lastStacking_);
    auto stacking = items(c, stackingCookie, XCB_ATOM_WINDOW);
    auto active = items(c, activeCookie, XCB_ATOM_WINDOW);
    if (!stacking || *stacking != lastStacking_) {
        for (const Questions& q : asked)
            for (unsigned sequence :
                 {q.attributes.sequence, q.geometry.sequence, q.origin.sequence, q.types.sequence,
                  q.states.sequence, q.pid.sequence, q.frame.sequence, q.shadow.sequence,
                  q.name.sequence})
                xcb_discard_reply(c, sequence);
        asked.clear();
        if (!stacking) return std::nullopt;
        lastStacking_ = *stacking;
        asked = askAll(*stacking);
    }

    ClientWindows result;
    if (active && !active->empty()) result.active = active->front();
    for (const Questions& q : asked) {
        // Every answer is collected, also those of windows left out.
        auto attributes = take(xcb_get_window_attributes_reply, c, q.attributes);
        auto geometry = take(xcb_get_geometry_reply, c, q.geometry);
        auto origin = take(xcb_translate_coordinates_reply, c, q.origin);
        auto types = items(c, q.types, XCB_ATOM_ATOM);
        auto states = items(c, q.states, XCB_ATOM_ATOM);
        auto pid = process(c, q.pid);
        auto frame = insets(items(c, q.frame, XCB_ATOM_CARDINAL));
        auto shadow = insets(items(c, q.shadow, XCB_ATOM_CARDINAL));
        auto name = utf8(c, q.name, atom(kUtf8String));
        if (!attributes || !geometry) continue;  // gone since the list was read
        if (!origin || !origin->same_screen) continue;
        ClientWindow window;
        window.id = q.client;
        window.pid = pid;
        window.viewable = attributes->map_state == XCB_MAP_STATE_VIEWABLE;
        window.desktop = contains(types, atom(kTypeDesktop));
        if (window.desktop) window.layer = kDesktopLayer;
        else if (contains(types, atom(kTypeDock))) window.layer = kDockLayer;
        else if (contains(states, atom(kStateAbove))) window.layer = kAboveLayer;
        else if (contains(states, atom(kStateBelow))) window.layer = kBelowLayer;
        window.client = Rect{static_cast<double>(origin->dst_x), static_cast<double>(origin->dst_y),
                             static_cast<double>(geometry->width),
                             static_cast<double>(geometry->height)};
        if (frame) window.frame = *frame;
        window.shadow = shadow;
        window.name = std::move(name);
        result.windows.push_back(std::move(window));
    }
    return result;
}

std::optional<std::vector<WindowListEntry>> XDisplay::windowList(bool onScreenOnly,
                                                                 bool excludeDesktop) {
    std::optional<ClientWindows> clients = clientWindows();
    if (!clients) return std::nullopt;
    std::vector<WindowListEntry> entries;
    for (const ClientWindow& window : clients->windows) {
        if (onScreenOnly && !window.viewable) continue;
        if (excludeDesktop && window.desktop) continue;
        WindowListEntry entry;
        if (window.pid) entry.ownerPID = *window.pid;
        entry.layer = window.layer;
        entry.number = static_cast<std::int64_t>(window.id);
        entry.bounds = framed(window);
        entries.push_back(std::move(entry));
    }
    return entries;
}

}  // namespace quorvel::linux_backend
