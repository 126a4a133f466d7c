// One window's image, in the one raw layout the bridge hashes.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "platform/platform.h"

struct _XDisplay;
struct _XImage;

namespace quorvel::linux_backend {

// The raw layout: 8-bit blue, green, red, alpha in that byte order, alpha
// always 255, rows of exactly width * 4 bytes with no padding, top row first.
// The same pixels always give the same bytes, whatever the X server's own
// layout, so equal images give equal hashes.
struct Pixels {
    int width = 0;
    int height = 0;
    std::vector<std::uint8_t> bgra;
};

// The image of the client window `window` with its frame, cut to
// `screenBounds` (root coordinates). It is read from the frame window itself,
// so the desktop around it never shows. Under a compositing manager the
// window's contents are complete; without one they are what the screen
// shows: a part beyond the screen's edge cannot be read, and a window kept
// in front of it (a menu, a tooltip) shows in it. Areas of `screenBounds`
// that cannot be read are opaque black. Empty when the window cannot be
// read at all.
std::optional<Pixels> captureWindow(_XDisplay*, unsigned long window, const Rect& screenBounds);

// Copies a rectangle of an X image into `out` at (x, y), converting to the
// raw layout.
void copyToBgra(const _XImage& image, Pixels& out, int x, int y);

}  // namespace quorvel::linux_backend
