#include "platform/linux/input/xtest_input.h"

#include <X11/Xlib.h>
#include <X11/extensions/XTest.h>
#include <X11/keysym.h>

#include <cmath>
#include <cstdlib>
#include <string>

#include "platform/linux/x11/errors.h"
#include "platform/linux/input/typist.h"
#include "unicode/unicode.h"

namespace quorvel::linux_backend {
namespace {

struct VirtualKey {
    std::uint16_t code;
    KeySym keysym;
};
// The virtual keys the bridge sends (the key-name table and select-all).
constexpr VirtualKey kVirtualKeys[] = {
    {kVirtualKeyA, XK_a},          {kVirtualKeyLeftBracket, XK_bracketleft},
    {kVirtualKeyReturn, XK_Return}, {kVirtualKeyTab, XK_Tab},
    {kVirtualKeyEscape, XK_Escape},
};

constexpr unsigned kLeftButton = 1;
constexpr unsigned kWheelUp = 4;
constexpr unsigned kWheelDown = 5;

}  // namespace

struct XInput::Connection {
    Display* display = nullptr;
};

int wheelSteps(std::int32_t pixels, int pixelsPerStep) {
    if (pixels == 0) return 0;
    long step = std::max(1, pixelsPerStep);
    long magnitude = std::labs(static_cast<long>(pixels));
    return static_cast<int>(std::max(1L, (magnitude + step / 2) / step));
}

std::optional<Chord> chordFor(std::uint16_t virtualKey, EventFlags flags) {
    const VirtualKey* key = nullptr;
    for (const VirtualKey& candidate : kVirtualKeys)
        if (candidate.code == virtualKey) key = &candidate;
    if (!key) return std::nullopt;
    bool command = (flags & kCGEventFlagMaskCommand) != 0;
    if (command && virtualKey == kVirtualKeyLeftBracket) return Chord{XK_Left, false, true};
    return Chord{key->keysym, command, false};
}

XInput::XInput(FocusedText focusedText)
    : connection_(std::make_unique<Connection>()), focusedText_(std::move(focusedText)) {}

XInput::~XInput() {
    if (!connection_->display) return;
    releaseHeld();
    if (buttonHeld_) XTestFakeButtonEvent(connection_->display, kLeftButton, False, CurrentTime);
    typist_.reset();
    XCloseDisplay(connection_->display);
}

bool XInput::connect() {
    if (!tried_) {
        tried_ = true;
        Display* display = XOpenDisplay(nullptr);
        int event, error, major, minor;
        if (display && XTestQueryExtension(display, &event, &error, &major, &minor)) {
            // A refused request must not end the process, as Xlib's default
            // handler would.
            installErrorHandler();
            connection_->display = display;
            typist_ = std::make_unique<Typist>(display, focusedText_);
        } else if (display) {
            XCloseDisplay(display);
        }
    }
    return connection_->display != nullptr;
}

void XInput::releaseHeld() {
    Display* display = connection_->display;
    for (auto key = heldKeys_.rbegin(); key != heldKeys_.rend(); ++key)
        XTestFakeKeyEvent(display, *key, False, CurrentTime);
    heldKeys_.clear();
}

std::optional<Point> XInput::pointerLocation() {
    if (!connect()) return std::nullopt;
    Display* display = connection_->display;
    Window root = DefaultRootWindow(display), rootReturn, child;
    int rootX, rootY, x, y;
    unsigned int mask;
    if (!XQueryPointer(display, root, &rootReturn, &child, &rootX, &rootY, &x, &y, &mask))
        return std::nullopt;
    return Point{static_cast<double>(rootX), static_cast<double>(rootY)};
}

Event XInput::createKeyboardEvent(std::uint16_t virtualKey, bool keyDown) {
    if (!connect() || !chordFor(virtualKey, 0)) return nullptr;
    return keyEvent(virtualKey, keyDown);
}

Event XInput::createMouseEvent(MouseEventType type, Point location, MouseButton button) {
    if (!connect() || button != MouseButton::Left) return nullptr;
    return mouseEvent(type, location);
}

Event XInput::createScrollWheelEvent(ScrollUnit unit, std::uint32_t wheelCount, std::int32_t wheel1,
                                     std::int32_t, std::int32_t, int pixelsPerStep) {
    // The core scrolls by pixels only.
    if (!connect() || unit != ScrollUnit::Pixel || wheelCount < 1) return nullptr;
    return scrollEvent(wheel1, pixelsPerStep);
}

void XInput::setFlags(EventObject& event, EventFlags flags) { setEventFlags(event, flags); }

void XInput::setUnicodeString(EventObject& event, std::span<const char16_t> text) {
    setEventText(event, text);
}

// X has no click-state field: a toolkit counts a press that follows another
// on the same spot within its double-click time as a double click, which is
// what the second click of a double click is.
void XInput::setIntegerValueField(EventObject&, EventField, std::int64_t) {}

std::optional<std::string> XInput::prepareText(std::string_view utf8) {
    // Without a display the text events cannot be made either, which the
    // core reports as such.
    if (!connect()) return std::nullopt;
    typist_->honourTermination();
    if (!typist_->prepare(scalars(utf8)))
        return kAnotherBridgeTyping;
    return std::nullopt;
}

void XInput::post(EventTap, EventObject& object) {
    InputEvent* event = ours(object);
    if (!event || !connect()) return;
    Display* display = connection_->display;
    typist_->honourTermination();

    switch (event->kind) {
    case InputEvent::Kind::Key: {
        releaseHeld();
        if (event->hasText) {
            // The key-down carries the characters; its key-up adds nothing.
            if (event->down) typist_->type(event->text);
            break;
        }
        if (!event->down) break;
        std::optional<Chord> chord = chordFor(event->virtualKey, event->flags);
        if (!chord) break;
        // Every key is found before any is pressed, so a key that cannot be
        // had leaves nothing held.
        std::vector<KeyCode> keys;
        bool complete = true;
        auto add = [&](bool wanted, KeySym modifier) {
            if (!wanted) return;
            std::optional<KeyStroke> stroke = typist_->layoutStroke(modifier);
            if (stroke) keys.push_back(stroke->keycode);
            else complete = false;
        };
        add(chord->control, XK_Control_L);
        add(chord->alt, XK_Alt_L);
        std::optional<KeyStroke> main = typist_->strokeFor(chord->keysym);
        if (!main) complete = false;
        if (main && main->shift) {
            if (KeyCode shift = typist_->shiftKeycode()) keys.push_back(shift);
            else complete = false;
        }
        if (!complete) {
            typist_->endBatch();
            break;
        }
        keys.push_back(main->keycode);
        typist_->flush();  // a borrowed key gets its keysym first
        for (KeyCode key : keys) {
            XTestFakeKeyEvent(display, key, True, CurrentTime);
            heldKeys_.push_back(key);
        }
        typist_->keysSent();
        typist_->endBatch();
        break;
    }
    case InputEvent::Kind::Mouse: {
        // The pointer goes to the point first, so the press lands in the
        // window under it, as a real click would.
        XTestFakeMotionEvent(display, DefaultScreen(display), static_cast<int>(std::floor(event->at.x)),
                             static_cast<int>(std::floor(event->at.y)), CurrentTime);
        XTestFakeButtonEvent(display, kLeftButton, event->down ? True : False, CurrentTime);
        buttonHeld_ = event->down;
        break;
    }
    case InputEvent::Kind::Scroll: {
        // Positive amounts scroll toward the top of the content, as the
        // wheel turned away from the user does.
        int steps = wheelSteps(event->wheel, event->pixelsPerStep);
        unsigned button = event->wheel > 0 ? kWheelUp : kWheelDown;
        for (int i = 0; i < steps; ++i) {
            XTestFakeButtonEvent(display, button, True, CurrentTime);
            XTestFakeButtonEvent(display, button, False, CurrentTime);
        }
        break;
    }
    }
    XFlush(display);
}

}  // namespace quorvel::linux_backend
