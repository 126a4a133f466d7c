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

Rect scaled(const Rect& r, double s) { return Rect{r.x * s, r.y * s, r.width * s, r.height * s}; }

// The scale that takes `reported` to `target`, if one does within
// kScaleAgreement. The ratio of the sizes is rounded to a multiple of 1/40
// first (it holds 1.25, 1.5, 2 and every eighth and twentieth), since a
// toolkit rounds its logical sizes and the ratio of two rounded sizes is a
// little off, which multiplies across the screen; the ratio itself serves
// for a scale that is no such multiple.
std::optional<double> scaleBetween(const Rect& reported, const Rect& target) {
    if (!(reported.width > 0 && reported.height > 0)) return std::nullopt;
    double ratio = (target.width + target.height) / (reported.width + reported.height);
    if (!(ratio >= kMinScale && ratio <= kMaxScale)) return std::nullopt;
    for (double s : {std::round(ratio * 40) / 40, ratio})
        if (distance(scaled(reported, s), target) < kScaleAgreement) return s;
    return std::nullopt;
}

// The scaled frame of a top-level that meets no window of its process
// unscaled: the scale that makes it meet one window's frame or client
// rectangle most closely.
std::optional<ScreenFrame> scaledFrame(const Rect& reported, std::int64_t pid,
                                       const ClientWindows& clients) {
    std::optional<ScreenFrame> best;
    double nearest = std::numeric_limits<double>::infinity();
    auto consider = [&](const Rect& target, const Insets& growth) {
        std::optional<double> s = scaleBetween(reported, target);
        if (!s) return;
        Rect onScreen = scaled(reported, *s);
        double d = distance(onScreen, target);
        if (d < nearest) {
            nearest = d;
            best = ScreenFrame{grown(onScreen, growth), *s};
        }
    };
    for (const ClientWindow& window : clients.windows) {
        if (!ofProcess(window, pid)) continue;
        consider(framed(window), Insets{});
        if (window.frame != Insets{}) consider(window.client, window.frame);
    }
    return best;
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

std::optional<ScreenFrame> accessibilityFrame(const TopLevelFacts& facts,
                                              const ClientWindows& clients) {
    if (facts.relativeCoordinates) {
        std::optional<Rect> frame = withoutPosition(facts, clients);
        if (!frame) return std::nullopt;
        return ScreenFrame{*frame};
    }
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
    // A scale is looked for only where E meets no window as it is.
    if (std::min(nearestClient, nearestFrame) >= kScaleAgreement)
        if (std::optional<ScreenFrame> frame = scaledFrame(reported, facts.pid, clients))
            return frame;
    if (client && nearestClient < nearestFrame) return ScreenFrame{grown(reported, client->frame)};
    return ScreenFrame{reported};
}

std::string windowTitle(std::string name) {
    if (!name.empty() && name.front() == '*') return name.substr(1);
    if (name.size() >= 2 && name.compare(name.size() - 2, 2, " *") == 0)
        return name.substr(0, name.size() - 2);
    return name;
}

}  // namespace quorvel::linux_backend
