#include "accessibility/window.h"

#include <cmath>
#include <limits>

#include "accessibility/element.h"
#include "bridge/failure.h"

namespace quorvel {
namespace {

constexpr char kNoForegroundApplication[] = "No foreground application. Unlock the desktop.";
constexpr char kNoAccessibleBounds[] = "The foreground window has no accessible bounds.";
constexpr char kNotUnique[] =
    "The foreground window cannot be identified uniquely. Close overlapping duplicate windows "
    "and observe again.";
constexpr char kWindowChanged[] =
    "The foreground window changed. Observe again before sending input.";

constexpr std::uint32_t kWindowListOptions =
    kCGWindowListOptionOnScreenOnly | kCGWindowListExcludeDesktopElements;

std::optional<std::int64_t> integer(const Value& v) {
    if (auto* i = std::get_if<std::int64_t>(&v)) return *i;
    return std::nullopt;
}

bool near(double a, double b) { return std::fabs(a - b) < kFrameTolerance; }  // NaN fails

bool matches(const WindowListEntry& entry, std::int32_t pid, const Rect& frame) {
    std::optional<std::int64_t> owner = integer(entry.ownerPID);
    if (!owner || *owner != pid) return false;
    std::optional<std::int64_t> layer = integer(entry.layer);
    if (!layer || *layer != 0) return false;
    if (!entry.bounds) return false;
    const Rect& b = *entry.bounds;
    return near(minX(b), minX(frame)) && near(minY(b), minY(frame)) &&
           near(width(b), width(frame)) && near(height(b), height(frame));
}

}  // namespace

JsonObject Window::scope(Platform& platform) const {
    return JsonObject{
        {"pid", static_cast<std::int64_t>(platform.processIdentifier(app))},
        {"window", title},
        {"window_id", windowID},
        {"bounds", bounds(frame)},
    };
}

Window foreground(Platform& platform) {
    if (!platform.isProcessTrusted()) fail(platform.accessibilityPermissionMessage());
    Application app = platform.frontmostApplication();
    if (!app) fail(kNoForegroundApplication);
    std::int32_t pid = platform.processIdentifier(app);
    Element appElement = platform.createApplicationElement(pid);
    platform.setMessagingTimeout(appElement, kMessagingTimeout);

    Element focused = element(platform, appElement, "AXFocusedWindow");
    if (!focused) fail(kNoAccessibleBounds);
    std::optional<Rect> frame = rect(platform, focused);
    if (!frame || !(width(*frame) > 0) || !(height(*frame) > 0)) fail(kNoAccessibleBounds);

    std::optional<std::vector<WindowListEntry>> list =
        platform.copyWindowInfo(kWindowListOptions, kNullWindowID);
    const WindowListEntry* match = nullptr;
    int matchCount = 0;
    if (list) {
        for (const WindowListEntry& entry : *list) {
            if (!matches(entry, pid, *frame)) continue;
            match = &entry;
            ++matchCount;
        }
    }
    if (matchCount != 1) fail(kNotUnique);
    std::optional<std::int64_t> number = integer(match->number);
    if (!number || *number < 0 || *number > std::numeric_limits<std::uint32_t>::max())
        fail(kNotUnique);

    std::string title = string(platform, focused, "AXTitle");
    return Window{std::move(app),
                  std::move(focused),
                  *frame,
                  std::move(title),
                  static_cast<std::uint32_t>(*number)};
}

Window validate(Platform& platform, const JsonObject& scope) {
    Window current = foreground(platform);
    std::string fresh, given;
    try {
        fresh = writeJson(current.scope(platform));
        given = writeJson(scope);
    } catch (const JsonWriteError&) {
        fail(kWindowChanged);
    }
    if (fresh != given) fail(kWindowChanged);
    return current;
}

}  // namespace quorvel
