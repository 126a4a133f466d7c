// How a Wayland client's accessible elements are placed on the screen.
//
// A native Wayland client does not know where its window is, so toolkits
// report every element's extents relative to their own surface: the
// top-level reads (0, 0, surface width, surface height) in GTK 3, GTK 4 and
// Qt alike. The compositor knows where the window is: its geometry (the
// xdg window geometry, without the client's shadows) in the global layout.
// The surface is larger than the geometry when the client draws shadows
// around it (GTK 3 with client-side decorations: 26 pixels left and right,
// 23 above and 29 below for the widget factory), and the geometry then
// begins where the top-level's content does: at the least position of its
// children, whose box is the geometry.
//
// So, with W the compositor's window, T the top-level's extents and C the
// box of its children (when the surface is larger than W):
//   the window's frame     (W.x, W.y) with T's size, or C's when T is larger than W
//   an element at (x, y)   (x, y) + (W.x, W.y) - (origin of T, or of C)
// The frame's position comes from the compositor and can only agree with
// it; its size is the toolkit's own, and the core compares it with the
// compositor's size. An X11 client under Xwayland reports global positions
// already: its top-level is its frame, and nothing moves.
#pragma once

#include <vector>

#include "platform/platform.h"

namespace quorvel::linux_backend::wayland {

struct WindowMapping {
    Rect frame;       // the top-level's frame in the global layout
    Point offset;     // added to every other element's position
};

// `children`: the extents of the top-level's children, asked for only when
// the top-level is larger than the window (see needsChildren); those
// without area (hidden, or not placed) are left out.
WindowMapping mapWindow(const Rect& window, const Rect& topLevel,
                                       const std::vector<Rect>& children, bool relativeExtents);

// Whether the top-level is larger than the compositor's window, so that
// the children must say where the window's content begins.
bool needsChildren(const Rect& window, const Rect& topLevel, bool relativeExtents);

}  // namespace quorvel::linux_backend::wayland
