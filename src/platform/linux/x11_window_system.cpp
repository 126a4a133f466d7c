// The X server as the window system: the window manager's EWMH properties
// for the focused window and the window list, Composite for window images,
// XTest for input. Element positions are global on X, so nothing is mapped.
#include "platform/linux/input/keyboard_claim.h"
#include "platform/linux/input/xtest_input.h"
#include "platform/linux/window_system.h"
#include "platform/linux/x11/capture.h"
#include "platform/linux/x11/display.h"

namespace quorvel::linux_backend {
namespace {

class X11WindowSystem final : public WindowSystem {
public:
    explicit X11WindowSystem(FocusedText focusedText) : input_(std::move(focusedText)) {}

    // Without a display there is no focused window, which the core reports
    // as such; the accessibility side alone decides "accessibility".
    std::optional<std::string> windowsUnavailable() override { return std::nullopt; }
    bool canCapture() override { return display().get() != nullptr; }
    std::string captureUnavailable() const override {
        return "Open an X display that this process can read, then retry.";
    }
    std::optional<std::string> publishedBusAddress() override {
        return display().rootTextProperty("AT_SPI_BUS");
    }

    std::optional<Focus> focus() override {
        std::optional<ActiveClient> active = display().activeClient();
        if (!active) return std::nullopt;
        return Focus{active->pid};
    }
    std::optional<std::vector<WindowListEntry>> windowList(bool onScreenOnly,
                                                           bool excludeDesktop) override {
        return display().windowList(onScreenOnly, excludeDesktop);
    }
    std::optional<ClientWindows> clientWindows() override { return display().clientWindows(); }
    std::optional<Pixels> capture(std::uint32_t windowID, const Rect& bounds) override {
        return captureWindow(display().get(), windowID, bounds);
    }

    std::optional<Point> pointerLocation() override { return input_.pointerLocation(); }
    Event createKeyboardEvent(std::uint16_t virtualKey, bool keyDown) override {
        return input_.createKeyboardEvent(virtualKey, keyDown);
    }
    Event createMouseEvent(MouseEventType type, Point location, MouseButton button) override {
        return input_.createMouseEvent(type, location, button);
    }
    Event createScrollWheelEvent(ScrollUnit unit, std::uint32_t wheelCount, std::int32_t wheel1,
                                 std::int32_t wheel2, std::int32_t wheel3,
                                 int pixelsPerStep) override {
        return input_.createScrollWheelEvent(unit, wheelCount, wheel1, wheel2, wheel3,
                                             pixelsPerStep);
    }
    void setFlags(EventObject& event, EventFlags flags) override { input_.setFlags(event, flags); }
    void setUnicodeString(EventObject& event, std::span<const char16_t> text) override {
        input_.setUnicodeString(event, text);
    }
    void setIntegerValueField(EventObject& event, EventField field, std::int64_t value) override {
        input_.setIntegerValueField(event, field, value);
    }
    void post(EventTap tap, EventObject& event) override { input_.post(tap, event); }
    std::optional<std::string> prepareText(std::string_view text) override {
        return input_.prepareText(text);
    }

private:
    // The display. The first request that reaches it first gives back the
    // spare keycodes that a bridge killed while typing left changed, before
    // anything is read or typed (keyboard_claim.h).
    XDisplay& display() {
        if (!keyboardChecked_) {
            keyboardChecked_ = true;
            repairAbandonedKeys(display_.get());
        }
        return display_;
    }

    // The input has a connection of its own; it is destroyed first, and
    // restores the keyboard mapping then.
    XDisplay display_;
    XInput input_;
    bool keyboardChecked_ = false;
};

}  // namespace

std::unique_ptr<WindowSystem> openX11WindowSystem(FocusedText focusedText) {
    return std::make_unique<X11WindowSystem>(std::move(focusedText));
}

}  // namespace quorvel::linux_backend
