#include "platform/linux/wayland/pointer.h"

#include <linux/input-event-codes.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <vector>

#include "platform/linux/wayland/connection.h"
#include "platform/linux/wayland/protocols.h"

namespace quorvel::linux_backend::wayland {
namespace {

// Absolute motion is given as a fraction of an integer extent: hundredths
// of a pixel keep points between pixel centres where they are.
constexpr double kUnitsPerPixel = 100;
// The value of one wheel step, in the units of wl_pointer.axis: GTK
// scrolls by it (10 is as far as one X11 wheel click), Qt by the step.
constexpr double kWheelStepValue = 10;
// How long the pointer probe waits for the pointer to enter its overlay.
constexpr std::chrono::milliseconds kProbePatience{500};

}  // namespace

Pointer::~Pointer() {
    if (!pointer_) return;
    if (pressed_) button(false);
    zwlr_virtual_pointer_v1_destroy(pointer_);
    connection_.flush();
}

bool Pointer::available() {
    if (!tried_) {
        tried_ = true;
        const Globals& globals = connection_.globals();
        if (globals.virtualPointer && globals.seat && !connection_.outputs().empty())
            pointer_ = zwlr_virtual_pointer_manager_v1_create_virtual_pointer(
                globals.virtualPointer, globals.seat);
    }
    return pointer_ && !connection_.failed();
}

void Pointer::moveTo(Point point) {
    if (!available()) return;
    // A pointer bound to no output moves over the whole layout.
    Rect layout = connection_.layout();
    auto extent = [](double size) { return static_cast<std::uint32_t>(std::lround(size * kUnitsPerPixel)); };
    auto along = [&](double value, double origin, double size) {
        double units = std::round((value - origin) * kUnitsPerPixel);
        return static_cast<std::uint32_t>(std::clamp(units, 0.0, size * kUnitsPerPixel));
    };
    zwlr_virtual_pointer_v1_motion_absolute(pointer_, eventTime(),
                                            along(point.x, layout.x, layout.width),
                                            along(point.y, layout.y, layout.height),
                                            extent(layout.width), extent(layout.height));
    zwlr_virtual_pointer_v1_frame(pointer_);
    connection_.flush();
}

void Pointer::button(bool pressed) {
    if (!available()) return;
    zwlr_virtual_pointer_v1_button(pointer_, eventTime(), BTN_LEFT,
                                   pressed ? WL_POINTER_BUTTON_STATE_PRESSED
                                           : WL_POINTER_BUTTON_STATE_RELEASED);
    zwlr_virtual_pointer_v1_frame(pointer_);
    pressed_ = pressed;
    connection_.flush();
}

void Pointer::wheel(int steps, bool up) {
    if (!available()) return;
    // The vertical axis grows toward the bottom of the content.
    int direction = up ? -1 : 1;
    for (int i = 0; i < steps; ++i) {
        zwlr_virtual_pointer_v1_axis_source(pointer_, WL_POINTER_AXIS_SOURCE_WHEEL);
        zwlr_virtual_pointer_v1_axis_discrete(pointer_, eventTime(),
                                              WL_POINTER_AXIS_VERTICAL_SCROLL,
                                              wl_fixed_from_double(direction * kWheelStepValue),
                                              direction);
        zwlr_virtual_pointer_v1_frame(pointer_);
    }
    connection_.flush();
}

namespace {

struct Probe {
    const Output* output = nullptr;
    wl_surface* surface = nullptr;
    zwlr_layer_surface_v1* layer = nullptr;
    std::uint32_t width = 0, height = 0;
};

struct ProbeState {
    std::vector<Probe> probes;
    std::optional<Point> found;
};

void layerConfigure(void* data, zwlr_layer_surface_v1* layer, std::uint32_t serial,
                    std::uint32_t width, std::uint32_t height) {
    auto* probe = static_cast<Probe*>(data);
    probe->width = width;
    probe->height = height;
    zwlr_layer_surface_v1_ack_configure(layer, serial);
}
void layerClosed(void*, zwlr_layer_surface_v1*) {}
const zwlr_layer_surface_v1_listener kLayerListener = {layerConfigure, layerClosed};

void pointerEnter(void* data, wl_pointer*, std::uint32_t, wl_surface* surface, wl_fixed_t x,
                  wl_fixed_t y) {
    auto* state = static_cast<ProbeState*>(data);
    for (const Probe& probe : state->probes)
        if (probe.surface == surface)
            state->found = Point{probe.output->logical.x + wl_fixed_to_double(x),
                                 probe.output->logical.y + wl_fixed_to_double(y)};
}
void pointerLeave(void*, wl_pointer*, std::uint32_t, wl_surface*) {}
void pointerMotion(void*, wl_pointer*, std::uint32_t, wl_fixed_t, wl_fixed_t) {}
void pointerButton(void*, wl_pointer*, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t) {}
void pointerAxis(void*, wl_pointer*, std::uint32_t, std::uint32_t, wl_fixed_t) {}
void pointerFrame(void*, wl_pointer*) {}
void pointerAxisSource(void*, wl_pointer*, std::uint32_t) {}
void pointerAxisStop(void*, wl_pointer*, std::uint32_t, std::uint32_t) {}
void pointerAxisDiscrete(void*, wl_pointer*, std::uint32_t, std::int32_t) {}
void pointerAxisValue120(void*, wl_pointer*, std::uint32_t, std::int32_t) {}
const wl_pointer_listener kPointerListener = {
    pointerEnter,      pointerLeave,    pointerMotion,       pointerButton,
    pointerAxis,       pointerFrame,    pointerAxisSource,   pointerAxisStop,
    pointerAxisDiscrete, pointerAxisValue120};

// One fully transparent pixel, which each output's viewport stretches over
// the whole output.
wl_buffer* transparentPixel(wl_shm* shm) {
    int fd = memfd_create("quorvel-pointer-probe", MFD_CLOEXEC);
    if (fd < 0) return nullptr;
    wl_buffer* buffer = nullptr;
    if (ftruncate(fd, 4) == 0) {
        wl_shm_pool* pool = wl_shm_create_pool(shm, fd, 4);
        buffer = wl_shm_pool_create_buffer(pool, 0, 1, 1, 4, WL_SHM_FORMAT_ARGB8888);
        wl_shm_pool_destroy(pool);
    }
    close(fd);
    return buffer;
}

}  // namespace

std::optional<Point> locatePointer(Connection& connection) {
    const Globals& g = connection.globals();
    if (!g.compositor || !g.layerShell || !g.viewporter || !g.shm || !g.seat ||
        !(g.seatCapabilities & WL_SEAT_CAPABILITY_POINTER) || connection.outputs().empty())
        return std::nullopt;
    wl_buffer* pixel = transparentPixel(g.shm);
    if (!pixel) return std::nullopt;
    ProbeState state;
    wl_pointer* pointer = wl_seat_get_pointer(g.seat);
    wl_pointer_add_listener(pointer, &kPointerListener, &state);
    state.probes.resize(connection.outputs().size());
    for (size_t i = 0; i < state.probes.size(); ++i) {
        Probe& probe = state.probes[i];
        probe.output = connection.outputs()[i].get();
        probe.surface = wl_compositor_create_surface(g.compositor);
        probe.layer = zwlr_layer_shell_v1_get_layer_surface(g.layerShell, probe.surface,
                                                            probe.output->output,
                                                            ZWLR_LAYER_SHELL_V1_LAYER_OVERLAY,
                                                            "quorvel-pointer-probe");
        zwlr_layer_surface_v1_add_listener(probe.layer, &kLayerListener, &probe);
        zwlr_layer_surface_v1_set_anchor(probe.layer, ZWLR_LAYER_SURFACE_V1_ANCHOR_TOP |
                                                          ZWLR_LAYER_SURFACE_V1_ANCHOR_BOTTOM |
                                                          ZWLR_LAYER_SURFACE_V1_ANCHOR_LEFT |
                                                          ZWLR_LAYER_SURFACE_V1_ANCHOR_RIGHT);
        zwlr_layer_surface_v1_set_size(probe.layer, 0, 0);
        zwlr_layer_surface_v1_set_exclusive_zone(probe.layer, -1);
        wl_surface_commit(probe.surface);
    }
    std::vector<wp_viewport*> viewports;
    if (connection.roundtrip()) {  // every overlay configured
        for (Probe& probe : state.probes) {
            wp_viewport* viewport = wp_viewporter_get_viewport(g.viewporter, probe.surface);
            wp_viewport_set_destination(viewport, static_cast<std::int32_t>(probe.width),
                                        static_cast<std::int32_t>(probe.height));
            viewports.push_back(viewport);
            wl_surface_attach(probe.surface, pixel, 0, 0);
            wl_surface_commit(probe.surface);
        }
        connection.dispatchUntil([&] { return state.found.has_value(); }, kProbePatience);
    }
    for (wp_viewport* viewport : viewports) wp_viewport_destroy(viewport);
    for (Probe& probe : state.probes) {
        zwlr_layer_surface_v1_destroy(probe.layer);
        wl_surface_destroy(probe.surface);
    }
    if (wl_pointer_get_version(pointer) >= WL_POINTER_RELEASE_SINCE_VERSION)
        wl_pointer_release(pointer);
    else
        wl_pointer_destroy(pointer);
    wl_buffer_destroy(pixel);
    connection.roundtrip();
    return state.found;
}

}  // namespace quorvel::linux_backend::wayland
