// A rectangle of the screen through the screencopy protocol, in the one raw
// layout the bridge hashes (x11/capture.h).
//
// The compositor copies what its outputs show: the composed screen, so a
// window or menu in front of the rectangle is in the image, as under X11
// without a compositing manager. The image is in the outputs' buffer
// pixels: at a scale of 2, a rectangle of 100 by 50 gives 200 by 100.
#pragma once

#include <cstdint>
#include <optional>

#include "platform/linux/x11/capture.h"
#include "platform/platform.h"

namespace quorvel::linux_backend::wayland {

class Connection;

// `bounds` in the global layout. Parts on no output are opaque black; a
// rectangle across outputs of different scales cannot be put together, and
// gives nothing, as does a compositor that offers no screencopy.
std::optional<Pixels> captureRegion(Connection& connection, const Rect& bounds);

// Copies one frame as the compositor laid it out (32-bit little-endian
// XRGB or ARGB, or XBGR or ABGR when `redFirst`; rows `stride` bytes
// apart, bottom row first when `yInverted`) into `out` at (x, y), with
// opaque alpha.
struct FrameLayout {
    std::uint32_t width = 0, height = 0, stride = 0;
    bool redFirst = false;
    bool yInverted = false;
};
void copyFrame(const std::uint8_t* data, const FrameLayout& layout, Pixels& out, int x, int y);

}  // namespace quorvel::linux_backend::wayland
