// One connection to a Wayland compositor: the globals the bridge binds, the
// outputs' places in the global layout, the compositor's process, and
// waiting for events with a bound on how long.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "platform/platform.h"

struct wl_compositor;
struct wl_display;
struct wl_output;
struct wl_registry;
struct wl_seat;
struct wl_shm;
struct wp_viewporter;
struct zwlr_layer_shell_v1;
struct zwlr_screencopy_manager_v1;
struct zwlr_virtual_pointer_manager_v1;
struct zwp_virtual_keyboard_manager_v1;
struct zxdg_output_manager_v1;

namespace quorvel::linux_backend::wayland {

// How long any one wait for the compositor may take. It answers a request
// in well under a millisecond; a compositor that takes this long is stuck.
inline constexpr std::chrono::milliseconds kPatience{2000};

struct Output {
    wl_output* output = nullptr;
    std::uint32_t name = 0;  // the registry's name of the global
    Rect logical;            // its place in the global layout, in logical pixels
    std::int32_t scale = 1;
    std::int32_t modeWidth = 0, modeHeight = 0;  // its current mode, in buffer pixels
    std::int32_t transform = 0;
};

struct Globals {
    wl_shm* shm = nullptr;
    wl_seat* seat = nullptr;
    std::uint32_t seatCapabilities = 0;  // WL_SEAT_CAPABILITY_*
    wl_compositor* compositor = nullptr;
    zxdg_output_manager_v1* xdgOutputManager = nullptr;
    zwlr_screencopy_manager_v1* screencopy = nullptr;
    zwp_virtual_keyboard_manager_v1* virtualKeyboard = nullptr;
    zwlr_virtual_pointer_manager_v1* virtualPointer = nullptr;
    zwlr_layer_shell_v1* layerShell = nullptr;
    wp_viewporter* viewporter = nullptr;
};

class Connection {
public:
    // Connects by libwayland's own rules (WAYLAND_SOCKET, then
    // WAYLAND_DISPLAY) and reads the globals and the outputs; null when no
    // compositor answers.
    static std::unique_ptr<Connection> open();
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    wl_display* display() const { return display_; }
    const Globals& globals() const { return globals_; }
    const std::vector<std::unique_ptr<Output>>& outputs() const { return outputs_; }
    // The bounding box of every output: the space of absolute pointer motion.
    Rect layout() const;
    // The compositor's process, from the connection's peer credentials.
    std::optional<pid_t> compositorPid() const;

    // Sends everything queued, waiting while the socket is full; false once
    // the connection has failed (the compositor ended it, or a protocol
    // error).
    bool flush();
    // Dispatches events until `done` holds; false when the time ran out or
    // the connection failed first.
    bool dispatchUntil(const std::function<bool()>& done,
                       std::chrono::milliseconds limit = kPatience);
    // Waits until the compositor has handled every request sent so far.
    bool roundtrip(std::chrono::milliseconds limit = kPatience);
    bool failed() const;

private:
    explicit Connection(wl_display* display) : display_(display) {}
    static void global(void* data, wl_registry*, std::uint32_t name, const char* interface,
                       std::uint32_t version);
    static void globalRemove(void*, wl_registry*, std::uint32_t) {}

    wl_display* display_;
    wl_registry* registry_ = nullptr;
    Globals globals_;
    std::vector<std::unique_ptr<Output>> outputs_;
};

// The time the virtual devices stamp on their events: milliseconds of a
// clock that never goes back, as the protocols ask.
inline std::uint32_t eventTime() {
    using namespace std::chrono;
    return static_cast<std::uint32_t>(
        duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

}  // namespace quorvel::linux_backend::wayland
