// A wlroots compositor as the window system: sway's IPC for the focused
// window and the window list, screencopy for window images, the virtual
// keyboard and pointer protocols for input, and a layer-shell overlay for
// the pointer's position. Each is asked for only when first needed; a
// compositor without one (GNOME's or KDE's) leaves that part unavailable and
// says so.
#include <algorithm>
#include <memory>

#include "platform/linux/input/input_event.h"
#include "platform/linux/input/xtest_input.h"
#include "platform/linux/wayland/connection.h"
#include "platform/linux/wayland/keyboard.h"
#include "platform/linux/wayland/pointer.h"
#include "platform/linux/wayland/screencopy.h"
#include "platform/linux/wayland/sway_ipc.h"
#include "platform/linux/window_system.h"
#include "unicode/unicode.h"

namespace quorvel::linux_backend {
namespace {

using wayland::Connection;
using wayland::SwayWindow;

// How long a text waits for another bridge to finish typing, as on X.
constexpr std::chrono::seconds kClaimPatience{5};

class WaylandWindowSystem final : public WindowSystem {
public:
    WaylandWindowSystem(std::unique_ptr<Connection> connection, FocusedText focusedText)
        : connection_(std::move(connection)),
          keyboard_(*connection_, std::move(focusedText),
                    [this]() -> std::optional<std::int64_t> {
                        std::optional<Focus> now = focus();
                        return now ? now->pid : std::nullopt;
                    }),
          pointer_(*connection_) {}

    std::optional<std::string> windowsUnavailable() override {
        if (sway().connected()) return std::nullopt;
        return "This Wayland compositor tells no other program which window is in front "
               "(it offers no sway IPC); run the bridge in a sway session, or in an X11 "
               "session, then retry.";
    }
    bool canCapture() override {
        const wayland::Globals& g = connection_->globals();
        return g.screencopy && g.shm && !connection_->outputs().empty();
    }
    std::string captureUnavailable() const override {
        return "This Wayland compositor lets no other program copy the screen (it offers no "
               "wlr-screencopy); run the bridge in a sway session, or in an X11 session, then "
               "retry.";
    }
    // Wayland publishes no accessibility bus: the session bus names it.
    std::optional<std::string> publishedBusAddress() override { return std::nullopt; }

    std::optional<Focus> focus() override {
        std::optional<SwayWindow> window = focused();
        if (!window) return std::nullopt;
        return Focus{window->pid};
    }
    bool windowRelativeExtents() const override { return true; }
    std::optional<FocusedWindow> focusedWindow() override {
        std::optional<SwayWindow> window = focused();
        if (!window) return std::nullopt;
        return FocusedWindow{window->pid, window->bounds, window->title, !window->xwayland};
    }
    std::optional<std::vector<WindowListEntry>> windowList(bool onScreenOnly, bool) override {
        std::optional<std::vector<SwayWindow>> windows = tree();
        if (!windows) return std::nullopt;
        std::vector<WindowListEntry> list;
        for (const SwayWindow& window : *windows) {
            if (onScreenOnly && !window.visible) continue;
            WindowListEntry entry;
            if (window.pid) entry.ownerPID = *window.pid;
            // Views are all ordinary windows; panels and backgrounds are
            // layer surfaces, which the tree does not hold.
            entry.layer = std::int64_t{0};
            entry.bounds = window.bounds;
            entry.number = window.id;
            list.push_back(std::move(entry));
        }
        return list;
    }
    std::optional<Pixels> capture(std::uint32_t, const Rect& bounds) override {
        return wayland::captureRegion(*connection_, bounds);
    }

    std::optional<Point> pointerLocation() override {
        probed_ = wayland::locatePointer(*connection_);
        return probed_;
    }
    Event createKeyboardEvent(std::uint16_t virtualKey, bool keyDown) override {
        if (!keyboard_.available() || !chordFor(virtualKey, 0)) return nullptr;
        return keyEvent(virtualKey, keyDown);
    }
    Event createMouseEvent(MouseEventType type, Point location, MouseButton button) override {
        if (!pointer_.available() || button != MouseButton::Left) return nullptr;
        return mouseEvent(type, location);
    }
    Event createScrollWheelEvent(ScrollUnit unit, std::uint32_t wheelCount, std::int32_t wheel1,
                                 std::int32_t, std::int32_t, int pixelsPerStep) override {
        if (!pointer_.available() || unit != ScrollUnit::Pixel || wheelCount < 1) return nullptr;
        return scrollEvent(wheel1, pixelsPerStep);
    }
    void setFlags(EventObject& event, EventFlags flags) override { setEventFlags(event, flags); }
    void setUnicodeString(EventObject& event, std::span<const char16_t> text) override {
        setEventText(event, text);
    }
    // Toolkits count a second press on the same spot within their
    // double-click time as a double click, as on X.
    void setIntegerValueField(EventObject&, EventField, std::int64_t) override {}
    std::optional<std::string> prepareText(std::string_view utf8) override {
        // Without a keyboard the text events cannot be made, which the core
        // reports as such.
        if (!keyboard_.available()) return std::nullopt;
        if (!keyboard_.claim(kClaimPatience)) return kAnotherBridgeTyping;
        keyboard_.prepare(scalars(utf8));
        return std::nullopt;
    }

    void post(EventTap, EventObject& object) override {
        InputEvent* event = ours(object);
        if (!event) return;
        switch (event->kind) {
        case InputEvent::Kind::Key:
            if (event->hasText) {
                // The key-down carries the characters; its key-up adds nothing.
                if (event->down) keyboard_.type(event->text);
            } else if (!event->down) {
                keyboard_.release();
            } else if (std::optional<Chord> chord = chordFor(event->virtualKey, event->flags)) {
                keyboard_.press(static_cast<wayland::Keysym>(chord->keysym), chord->control,
                                chord->alt);
            }
            break;
        case InputEvent::Kind::Mouse:
            // The pointer goes to the point first, so the press lands in
            // the window under it, as a real click would.
            pointer_.moveTo(event->at);
            pointer_.button(event->down);
            break;
        case InputEvent::Kind::Scroll:
            // The overlay that found the pointer took it from the window
            // below; motion to the very same place gives it back.
            if (probed_) pointer_.moveTo(*probed_);
            // Positive amounts scroll toward the top of the content.
            pointer_.wheel(wheelSteps(event->wheel, event->pixelsPerStep), event->wheel > 0);
            break;
        }
    }

private:
    wayland::SwayIpc& sway() {
        if (!sway_) {
            std::optional<pid_t> compositor = connection_->compositorPid();
            sway_ = std::make_unique<wayland::SwayIpc>(compositor.value_or(-1));
        }
        return *sway_;
    }
    std::optional<std::vector<SwayWindow>> tree() {
        std::optional<std::string> json = sway().tree();
        if (!json) return std::nullopt;
        return wayland::parseTree(*json);
    }
    std::optional<SwayWindow> focused() {
        std::optional<std::vector<SwayWindow>> windows = tree();
        if (!windows) return std::nullopt;
        auto found = std::find_if(windows->begin(), windows->end(),
                                  [](const SwayWindow& w) { return w.focused; });
        if (found == windows->end()) return std::nullopt;
        return *found;
    }

    // The devices go before the connection they live on.
    std::unique_ptr<Connection> connection_;
    std::unique_ptr<wayland::SwayIpc> sway_;
    wayland::Keyboard keyboard_;
    wayland::Pointer pointer_;
    std::optional<Point> probed_;
};

}  // namespace

std::unique_ptr<WindowSystem> openWaylandWindowSystem(FocusedText focusedText) {
    std::unique_ptr<Connection> connection = Connection::open();
    if (!connection) return nullptr;
    return std::make_unique<WaylandWindowSystem>(std::move(connection), std::move(focusedText));
}

}  // namespace quorvel::linux_backend
