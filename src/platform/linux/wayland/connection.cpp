#include "platform/linux/wayland/connection.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/linux/wayland/protocols.h"

namespace quorvel::linux_backend::wayland {
namespace {

using Clock = std::chrono::steady_clock;

template <class T>
T* bind(wl_registry* registry, std::uint32_t name, const wl_interface& interface,
        std::uint32_t offered, std::uint32_t wanted) {
    return static_cast<T*>(wl_registry_bind(registry, name, &interface, std::min(offered, wanted)));
}

// wl_output: its position (logical on every compositor we know), mode and
// scale; xdg-output, where offered, replaces the first two by the exact
// logical box.
void outputGeometry(void* data, wl_output*, std::int32_t x, std::int32_t y, std::int32_t,
                    std::int32_t, std::int32_t, const char*, const char*, std::int32_t transform) {
    auto* output = static_cast<Output*>(data);
    output->logical.x = x;
    output->logical.y = y;
    output->transform = transform;
}
void outputMode(void* data, wl_output*, std::uint32_t flags, std::int32_t width,
                std::int32_t height, std::int32_t) {
    auto* output = static_cast<Output*>(data);
    if (!(flags & WL_OUTPUT_MODE_CURRENT)) return;
    output->modeWidth = width;
    output->modeHeight = height;
}
void outputDone(void*, wl_output*) {}
void outputScale(void* data, wl_output*, std::int32_t scale) {
    static_cast<Output*>(data)->scale = scale > 0 ? scale : 1;
}
void outputName(void*, wl_output*, const char*) {}
void outputDescription(void*, wl_output*, const char*) {}
const wl_output_listener kOutputListener = {outputGeometry, outputMode,  outputDone,
                                            outputScale,    outputName, outputDescription};

void xdgPosition(void* data, zxdg_output_v1*, std::int32_t x, std::int32_t y) {
    auto* output = static_cast<Output*>(data);
    output->logical.x = x;
    output->logical.y = y;
}
void xdgSize(void* data, zxdg_output_v1*, std::int32_t width, std::int32_t height) {
    auto* output = static_cast<Output*>(data);
    output->logical.width = width;
    output->logical.height = height;
}
void xdgDone(void*, zxdg_output_v1*) {}
void xdgName(void*, zxdg_output_v1*, const char*) {}
void xdgDescription(void*, zxdg_output_v1*, const char*) {}
const zxdg_output_v1_listener kXdgOutputListener = {xdgPosition, xdgSize, xdgDone, xdgName,
                                                    xdgDescription};

void seatCapabilities(void* data, wl_seat*, std::uint32_t capabilities) {
    static_cast<Globals*>(data)->seatCapabilities = capabilities;
}
void seatName(void*, wl_seat*, const char*) {}
const wl_seat_listener kSeatListener = {seatCapabilities, seatName};

}  // namespace

void Connection::global(void* data, wl_registry* registry, std::uint32_t name,
                        const char* interface, std::uint32_t version) {
    auto* self = static_cast<Connection*>(data);
    Globals& g = self->globals_;
    auto is = [&](const wl_interface& candidate) { return std::strcmp(interface, candidate.name) == 0; };
    if (is(wl_shm_interface) && !g.shm) {
        g.shm = bind<wl_shm>(registry, name, wl_shm_interface, version, 1);
    } else if (is(wl_seat_interface) && !g.seat) {
        // The first seat: the one a desktop session has.
        g.seat = bind<wl_seat>(registry, name, wl_seat_interface, version, 7);
        wl_seat_add_listener(g.seat, &kSeatListener, &g);
    } else if (is(wl_compositor_interface) && !g.compositor) {
        g.compositor = bind<wl_compositor>(registry, name, wl_compositor_interface, version, 4);
    } else if (is(zxdg_output_manager_v1_interface) && !g.xdgOutputManager) {
        g.xdgOutputManager =
            bind<zxdg_output_manager_v1>(registry, name, zxdg_output_manager_v1_interface, version, 3);
    } else if (is(zwlr_screencopy_manager_v1_interface) && !g.screencopy) {
        g.screencopy = bind<zwlr_screencopy_manager_v1>(
            registry, name, zwlr_screencopy_manager_v1_interface, version, 3);
    } else if (is(zwp_virtual_keyboard_manager_v1_interface) && !g.virtualKeyboard) {
        g.virtualKeyboard = bind<zwp_virtual_keyboard_manager_v1>(
            registry, name, zwp_virtual_keyboard_manager_v1_interface, version, 1);
    } else if (is(zwlr_virtual_pointer_manager_v1_interface) && !g.virtualPointer) {
        g.virtualPointer = bind<zwlr_virtual_pointer_manager_v1>(
            registry, name, zwlr_virtual_pointer_manager_v1_interface, version, 2);
    } else if (is(zwlr_layer_shell_v1_interface) && !g.layerShell) {
        g.layerShell =
            bind<zwlr_layer_shell_v1>(registry, name, zwlr_layer_shell_v1_interface, version, 3);
    } else if (is(wp_viewporter_interface) && !g.viewporter) {
        g.viewporter = bind<wp_viewporter>(registry, name, wp_viewporter_interface, version, 1);
    } else if (is(wl_output_interface)) {
        auto output = std::make_unique<Output>();
        output->name = name;
        output->output = bind<wl_output>(registry, name, wl_output_interface, version, 3);
        wl_output_add_listener(output->output, &kOutputListener, output.get());
        self->outputs_.push_back(std::move(output));
    }
}

std::unique_ptr<Connection> Connection::open() {
    wl_display* display = wl_display_connect(nullptr);
    if (!display) return nullptr;
    std::unique_ptr<Connection> connection(new Connection(display));
    static const wl_registry_listener kRegistryListener = {global, globalRemove};
    connection->registry_ = wl_display_get_registry(display);
    wl_registry_add_listener(connection->registry_, &kRegistryListener, connection.get());
    // The globals, then what the outputs and the seat say about themselves.
    if (!connection->roundtrip()) return nullptr;
    std::vector<zxdg_output_v1*> xdgOutputs;
    if (connection->globals_.xdgOutputManager)
        for (const auto& output : connection->outputs_) {
            zxdg_output_v1* xdg = zxdg_output_manager_v1_get_xdg_output(
                connection->globals_.xdgOutputManager, output->output);
            zxdg_output_v1_add_listener(xdg, &kXdgOutputListener, output.get());
            xdgOutputs.push_back(xdg);
        }
    bool answered = connection->roundtrip();
    for (zxdg_output_v1* xdg : xdgOutputs) zxdg_output_v1_destroy(xdg);
    if (!answered) return nullptr;
    for (const auto& output : connection->outputs_) {
        // Without xdg-output the logical size is the mode over the scale.
        if (output->logical.width <= 0) output->logical.width = output->modeWidth / output->scale;
        if (output->logical.height <= 0) output->logical.height = output->modeHeight / output->scale;
    }
    return connection;
}

Connection::~Connection() {
    Globals& g = globals_;
    for (const auto& output : outputs_) wl_output_destroy(output->output);
    if (g.viewporter) wp_viewporter_destroy(g.viewporter);
    if (g.layerShell) zwlr_layer_shell_v1_destroy(g.layerShell);
    if (g.virtualPointer) zwlr_virtual_pointer_manager_v1_destroy(g.virtualPointer);
    if (g.virtualKeyboard) zwp_virtual_keyboard_manager_v1_destroy(g.virtualKeyboard);
    if (g.screencopy) zwlr_screencopy_manager_v1_destroy(g.screencopy);
    if (g.xdgOutputManager) zxdg_output_manager_v1_destroy(g.xdgOutputManager);
    if (g.compositor) wl_compositor_destroy(g.compositor);
    if (g.seat) wl_seat_destroy(g.seat);
    if (g.shm) wl_shm_destroy(g.shm);
    if (registry_) wl_registry_destroy(registry_);
    // The compositor must have read everything before the connection ends:
    // it drops a client whose socket has hung up without reading what is
    // still in it, and with it the last keys and clicks.
    roundtrip();
    wl_display_disconnect(display_);
}

Rect Connection::layout() const {
    if (outputs_.empty()) return {};
    double left = outputs_.front()->logical.x, top = outputs_.front()->logical.y;
    double right = left, bottom = top;
    for (const auto& output : outputs_) {
        const Rect& r = output->logical;
        left = std::min(left, r.x);
        top = std::min(top, r.y);
        right = std::max(right, r.x + r.width);
        bottom = std::max(bottom, r.y + r.height);
    }
    return {left, top, right - left, bottom - top};
}

std::optional<pid_t> Connection::compositorPid() const {
    ucred credentials{};
    socklen_t length = sizeof credentials;
    if (getsockopt(wl_display_get_fd(display_), SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0 ||
        credentials.pid <= 0)
        return std::nullopt;
    return credentials.pid;
}

bool Connection::failed() const { return wl_display_get_error(display_) != 0; }

bool Connection::flush() {
    auto deadline = Clock::now() + kPatience;
    while (wl_display_flush(display_) < 0) {
        if (errno != EAGAIN || Clock::now() > deadline) return false;
        pollfd descriptor{wl_display_get_fd(display_), POLLOUT, 0};
        poll(&descriptor, 1, 100);
    }
    return !failed();
}

bool Connection::dispatchUntil(const std::function<bool()>& done, std::chrono::milliseconds limit) {
    auto deadline = Clock::now() + limit;
    for (;;) {
        if (wl_display_dispatch_pending(display_) < 0) return false;
        if (done()) return true;
        if (!flush()) return false;
        if (wl_display_prepare_read(display_) != 0) continue;  // events already queued
        auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd descriptor{wl_display_get_fd(display_), POLLIN, 0};
        if (left.count() <= 0 || poll(&descriptor, 1, static_cast<int>(left.count())) <= 0) {
            wl_display_cancel_read(display_);
            if (left.count() <= 0) return false;
            continue;  // interrupted: try again within the time left
        }
        if (wl_display_read_events(display_) < 0) return false;
    }
}

bool Connection::roundtrip(std::chrono::milliseconds limit) {
    bool done = false;
    wl_callback* callback = wl_display_sync(display_);
    static const wl_callback_listener kListener = {
        [](void* data, wl_callback*, std::uint32_t) { *static_cast<bool*>(data) = true; }};
    wl_callback_add_listener(callback, &kListener, &done);
    bool answered = dispatchUntil([&] { return done; }, limit);
    wl_callback_destroy(callback);
    return answered;
}

}  // namespace quorvel::linux_backend::wayland
