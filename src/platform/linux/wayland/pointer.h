// Clicks and wheel steps through the virtual pointer protocol, and where
// the pointer is.
#pragma once

#include <optional>

#include "platform/platform.h"

struct zwlr_virtual_pointer_v1;

namespace quorvel::linux_backend::wayland {

class Connection;

class Pointer {
public:
    explicit Pointer(Connection& connection) : connection_(connection) {}
    // Lets go of a button still held.
    ~Pointer();
    Pointer(const Pointer&) = delete;
    Pointer& operator=(const Pointer&) = delete;

    // Creates the pointer on first use; false when the compositor offers no
    // virtual pointers (or has no seat, or no outputs to point at).
    bool available();
    // Absolute motion to a point of the global layout.
    void moveTo(Point point);
    void button(bool pressed);
    // `steps` wheel steps: each one detent of a mouse wheel, as the
    // compositor reports it (discrete 1, value 10, which GTK scrolls by as
    // much as one X11 wheel click and Qt by its lines per step). Toward the
    // top of the content when `up`.
    void wheel(int steps, bool up);

private:
    Connection& connection_;
    zwlr_virtual_pointer_v1* pointer_ = nullptr;
    bool tried_ = false;
    bool pressed_ = false;
};

// Where the pointer is, in the global layout. Wayland tells no client where
// the pointer is unless it is over one of the client's surfaces, so a
// transparent overlay is put over every output for a moment (nothing is
// drawn, and nothing is clicked or typed in that moment) and the pointer's
// entry into it is read. Nothing when the compositor offers no overlays (layer shell) or the
// seat has no pointer. The window under the pointer sees the pointer leave
// and come back; the compositor only gives it the pointer again once the
// pointer moves, so whoever scrolls next moves it to this very place.
std::optional<Point> locatePointer(Connection& connection);

}  // namespace quorvel::linux_backend::wayland
