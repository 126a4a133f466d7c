// sway's IPC: which window has the focus and where every window is. No
// Wayland protocol tells an ordinary client either (the foreign-toplevel
// protocol gives no process, no geometry and no stacking), so on Wayland
// the window list comes from the compositor's own IPC, which sway offers.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/platform.h"

namespace quorvel::linux_backend::wayland {

// One window (a view: a container with a client) of sway's tree.
struct SwayWindow {
    std::int64_t id = 0;  // sway's container id: never reused in a session, fits 32 bits
    std::optional<std::int64_t> pid;
    // The client's window in global layout coordinates: the container's
    // rect plus the window's rect within it, which leaves out sway's title
    // bar and border and the client's own shadows (the xdg window geometry).
    Rect bounds;
    std::string title;
    bool focused = false;
    bool visible = false;  // on a workspace that an output shows, and not hidden behind a tab
    bool xwayland = false;  // an X11 client, whose elements report global positions
};

// The windows of a GET_TREE reply, front to back: on each output's visible
// workspace a fullscreen window first, then the floating windows from the
// top (the last in sway's list is drawn last), then the tiled ones, which
// never overlap, most recently focused first; hidden windows (other
// workspaces, the scratchpad, tabs behind others) after them all. Nothing
// when the reply is not a tree.
std::optional<std::vector<SwayWindow>> parseTree(std::string_view json);

class SwayIpc {
public:
    // The IPC socket of the sway whose process is `compositor`: $SWAYSOCK
    // when it is that sway's, else sway-ipc.UID.PID.sock in
    // $XDG_RUNTIME_DIR, where sway puts it. A socket whose peer is another
    // process is never used, so the window list always comes from the
    // compositor that the Wayland connection reached.
    explicit SwayIpc(pid_t compositor);
    ~SwayIpc();
    SwayIpc(const SwayIpc&) = delete;
    SwayIpc& operator=(const SwayIpc&) = delete;

    bool connected() const { return socket_ >= 0; }
    // The window tree (GET_TREE); nothing when sway does not answer.
    std::optional<std::string> tree();

private:
    std::optional<std::string> ask(std::uint32_t type);
    int socket_ = -1;
};

}  // namespace quorvel::linux_backend::wayland
