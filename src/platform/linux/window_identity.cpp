#include "platform/linux/window_identity.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace quorvel::linux_backend {
namespace {

Rect rectOf(const Extents& e) {
    return Rect{static_cast<double>(e.x), static_cast<double>(e.y), static_cast<double>(e.width),
                static_cast<double>(e.height)};
}

// How far apart two rectangles are: the largest difference of origin or size.
double distance(const Rect& a, const Rect& b) {
    return std::max({std::fabs(a.x - b.x), std::fabs(a.y - b.y), std::fabs(a.width - b.width),
                     std::fabs(a.height - b.height)});
}

bool ofProcess(const ClientWindow& window, std::int64_t pid) {
    return window.viewable && window.pid && *window.pid == pid;
}

Rect grown(const Rect& r, const Insets& by) {
    return Rect{r.x - by.left, r.y - by.top, r.width + by.left + by.right,
                r.height + by.top + by.bottom};
}

// The top-level fits in the client window, within the client-side margins.
bool fitsWithinMargins(double inner, double outer) {
    return inner > 0 && inner <= outer && outer - inner <= 2 * kMaxClientSideMargin;
}

std::optional<Rect> withoutPosition(const TopLevelFacts& facts, const ClientWindows& clients) {
    if (!facts.active || facts.name.empty()) return std::nullopt;
    const ClientWindow* named = nullptr;
    for (const ClientWindow& window : clients.windows) {
        if (!ofProcess(window, facts.pid) || window.name != facts.name) continue;
        if (named) return std::nullopt;  // two windows of that name: no telling which
        named = &window;
    }
    if (!named || named->id != clients.active) return std::nullopt;
    if (facts.extents && !(fitsWithinMargins(facts.extents->width, named->client.width) &&
                           fitsWithinMargins(facts.extents->height, named->client.height)))
        return std::nullopt;
    return framed(*named);
}

}  // namespace

std::optional<Rect> accessibilityFrame(const TopLevelFacts& facts, const ClientWindows& clients) {
    if (facts.relativeCoordinates) return withoutPosition(facts, clients);
    if (!facts.extents) return std::nullopt;
    Rect reported = rectOf(*facts.extents);

    // The nearest client rectangle and the nearest frame among the process's
    // windows; a window without decorations has C = F and says nothing.
    double nearestFrame = std::numeric_limits<double>::infinity();
    double nearestClient = nearestFrame;
    const ClientWindow* client = nullptr;
    for (const ClientWindow& window : clients.windows) {
        if (!ofProcess(window, facts.pid)) continue;
        nearestFrame = std::min(nearestFrame, distance(reported, framed(window)));
        if (window.frame == Insets{}) continue;
        double d = distance(reported, window.client);
        if (d < nearestClient) {
            nearestClient = d;
            client = &window;
        }
    }
    if (client && nearestClient < nearestFrame) return grown(reported, client->frame);
    return reported;
}

std::string windowTitle(std::string name) {
    if (!name.empty() && name.front() == '*') return name.substr(1);
    if (name.size() >= 2 && name.compare(name.size() - 2, 2, " *") == 0)
        return name.substr(0, name.size() - 2);
    return name;
}

}  // namespace quorvel::linux_backend
