#include "platform/linux/wayland/sway_ipc.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>

#include "platform/linux/wayland/connection.h"

namespace quorvel::linux_backend::wayland {
namespace {

using Json = nlohmann::json;

constexpr char kMagic[] = {'i', '3', '-', 'i', 'p', 'c'};
constexpr std::uint32_t kGetTree = 4;
constexpr size_t kHeader = sizeof kMagic + 8;
// A tree of a few hundred windows is a few hundred kilobytes.
constexpr std::uint32_t kLongestReply = 64u << 20;

bool whole(int socket, void* data, size_t size, bool writing) {
    auto* bytes = static_cast<char*>(data);
    while (size > 0) {
        ssize_t done = writing ? send(socket, bytes, size, MSG_NOSIGNAL) : recv(socket, bytes, size, 0);
        if (done <= 0) return false;
        bytes += done;
        size -= static_cast<size_t>(done);
    }
    return true;
}

int connectTo(const std::string& path, pid_t compositor) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) return -1;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    ucred peer{};
    socklen_t length = sizeof peer;
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0 || peer.pid != compositor) {
        close(fd);
        return -1;
    }
    // A stuck compositor costs the usual patience, not the request.
    auto patience = std::chrono::duration_cast<std::chrono::microseconds>(kPatience).count();
    timeval limit{static_cast<time_t>(patience / 1000000),
                  static_cast<suseconds_t>(patience % 1000000)};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    return fd;
}

double number(const Json& object, const char* key) {
    auto found = object.find(key);
    return found != object.end() && found->is_number() ? found->get<double>() : 0;
}

struct Collected {
    const Json* node;
    bool fullscreen;
};

bool isView(const Json& node) {
    auto type = node.find("type");
    auto pid = node.find("pid");
    return type != node.end() && type->is_string() &&
           (*type == "con" || *type == "floating_con") && pid != node.end() &&
           pid->is_number_integer();
}

// The children of `node` in the order of its focus list (most recently
// focused first), the rest after them.
std::vector<const Json*> byFocus(const Json& node) {
    std::vector<const Json*> ordered;
    auto children = node.find("nodes");
    if (children == node.end() || !children->is_array()) return ordered;
    if (auto focus = node.find("focus"); focus != node.end() && focus->is_array())
        for (const Json& id : *focus)
            for (const Json& child : *children)
                if (child.is_object() && child.contains("id") && child["id"] == id)
                    ordered.push_back(&child);
    for (const Json& child : *children)
        if (child.is_object() && std::find(ordered.begin(), ordered.end(), &child) == ordered.end())
            ordered.push_back(&child);
    return ordered;
}

// The views under `node`, top first: floating children (the last drawn
// first), then tiled children in the order of their last focus.
void collect(const Json& node, bool fullscreen, std::vector<Collected>& out) {
    std::string type = node.value("type", "");
    // Workspaces report a fullscreen mode of their own; only a container's counts.
    if ((type == "con" || type == "floating_con") && number(node, "fullscreen_mode") != 0)
        fullscreen = true;
    if (isView(node)) out.push_back({&node, fullscreen});
    if (auto floating = node.find("floating_nodes"); floating != node.end() && floating->is_array())
        for (auto child = floating->rbegin(); child != floating->rend(); ++child)
            if (child->is_object()) collect(*child, fullscreen, out);
    for (const Json* child : byFocus(node)) collect(*child, fullscreen, out);
}

SwayWindow windowOf(const Collected& collected) {
    const Json& node = *collected.node;
    SwayWindow window;
    window.id = node.value("id", std::int64_t{0});
    window.pid = node["pid"].get<std::int64_t>();
    const Json& rect = node.contains("rect") ? node["rect"] : Json::object();
    const Json& inner = node.contains("window_rect") ? node["window_rect"] : Json::object();
    window.bounds = {number(rect, "x") + number(inner, "x"), number(rect, "y") + number(inner, "y"),
                     number(inner, "width"), number(inner, "height")};
    if (auto name = node.find("name"); name != node.end() && name->is_string())
        window.title = name->get<std::string>();
    window.focused = node.value("focused", false);
    window.visible = node.value("visible", false);
    window.xwayland = node.value("shell", "") == "xwayland";
    return window;
}

}  // namespace

std::optional<std::vector<SwayWindow>> parseTree(std::string_view text) try {
    Json root = Json::parse(text, nullptr, false);
    if (root.is_discarded() || !root.is_object() || root.value("type", "") != "root")
        return std::nullopt;
    // Outputs (most recently focused first), each with its workspaces: the
    // one it shows first.
    std::vector<Collected> views;
    for (const Json* output : byFocus(root)) {
        if (!output->is_object()) continue;
        std::string shown = output->value("current_workspace", std::string());
        std::vector<const Json*> workspaces = byFocus(*output);
        std::stable_partition(workspaces.begin(), workspaces.end(), [&](const Json* workspace) {
            return workspace->is_object() && workspace->value("name", "") == shown;
        });
        for (const Json* workspace : workspaces) {
            if (!workspace->is_object()) continue;
            std::vector<Collected> here;
            collect(*workspace, false, here);
            // A fullscreen window covers everything else on its workspace.
            std::stable_partition(here.begin(), here.end(),
                                  [](const Collected& c) { return c.fullscreen; });
            views.insert(views.end(), here.begin(), here.end());
        }
    }
    std::vector<SwayWindow> windows;
    for (const Collected& view : views) windows.push_back(windowOf(view));
    std::stable_partition(windows.begin(), windows.end(),
                          [](const SwayWindow& w) { return w.visible; });
    return windows;
} catch (const Json::exception&) {
    return std::nullopt;  // a field of an unexpected type
}

SwayIpc::SwayIpc(pid_t compositor) {
    if (const char* named = std::getenv("SWAYSOCK")) socket_ = connectTo(named, compositor);
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (socket_ < 0 && runtime)
        socket_ = connectTo(std::string(runtime) + "/sway-ipc." + std::to_string(getuid()) + "." +
                                std::to_string(compositor) + ".sock",
                            compositor);
}

SwayIpc::~SwayIpc() {
    if (socket_ >= 0) close(socket_);
}

std::optional<std::string> SwayIpc::ask(std::uint32_t type) {
    if (socket_ < 0) return std::nullopt;
    char header[kHeader];
    std::uint32_t length = 0;
    std::memcpy(header, kMagic, sizeof kMagic);
    std::memcpy(header + sizeof kMagic, &length, 4);
    std::memcpy(header + sizeof kMagic + 4, &type, 4);
    std::uint32_t replyType = 0;
    if (!whole(socket_, header, kHeader, true) || !whole(socket_, header, kHeader, false) ||
        std::memcmp(header, kMagic, sizeof kMagic) != 0) {
        close(socket_);
        socket_ = -1;
        return std::nullopt;
    }
    std::memcpy(&length, header + sizeof kMagic, 4);
    std::memcpy(&replyType, header + sizeof kMagic + 4, 4);
    std::string payload(length <= kLongestReply ? length : 0, '\0');
    if (length > kLongestReply || replyType != type ||
        !whole(socket_, payload.data(), payload.size(), false)) {
        // Out of step with the socket: it is not asked again.
        close(socket_);
        socket_ = -1;
        return std::nullopt;
    }
    return payload;
}

std::optional<std::string> SwayIpc::tree() { return ask(kGetTree); }

}  // namespace quorvel::linux_backend::wayland
