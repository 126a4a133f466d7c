// Shared helpers for tests that drive requests against the fake desktop, and
// the sentences the bridge refuses with, as the agent reads them.
#pragma once

#include <string>
#include <vector>

#include "bridge/envelope.h"
#include "bridge/failure.h"
#include "bridge/json.h"
#include "fake/fake_desktop.h"

namespace quorvel::msg {

inline constexpr char kGeneric[] =
    "Native operation failed. Observe the current state before retrying.";
inline constexpr char kInvalidRequest[] = "Invalid request.";
inline constexpr char kProtocol[] = "Unsupported native protocol.";
inline constexpr char kOperation[] = "Invalid native operation.";
inline constexpr char kAction[] = "Unsupported action.";
inline constexpr char kTextFields[] = "Text, expected value and replace flag are required.";
inline constexpr char kKey[] = "Unsupported key.";
inline constexpr char kNoApplication[] = "No foreground application. Unlock the desktop.";
inline constexpr char kNoBounds[] = "The foreground window has no accessible bounds.";
inline constexpr char kNotUnique[] =
    "The foreground window cannot be identified uniquely. Close overlapping duplicate windows "
    "and observe again.";
inline constexpr char kChanged[] =
    "The foreground window changed. Observe again before sending input.";
inline constexpr char kReadLimit[] =
    "Native editor exceeds the complete-read limit. Use a scoped browser document reader before "
    "editing.";
inline constexpr char kCaptureFailed[] = "Screen capture failed.";
inline constexpr char kPlaceCursor[] =
    "Place the cursor inside the observed window before native scrolling.";
inline constexpr char kScrollInput[] = "Unable to create scroll input.";
inline constexpr char kKeyboardInput[] = "Unable to create keyboard input.";
inline constexpr char kOutside[] = "Click lies outside the observed window or has an invalid count.";
inline constexpr char kMouseInput[] = "Unable to create mouse input.";
inline constexpr char kFocusEditor[] =
    "Focus an enabled, writable non-password text editor before typing.";
inline constexpr char kValueChanged[] =
    "The editor value changed since observation. Nothing was typed.";
inline constexpr char kRejected[] = "The editor rejected text replacement; inspect before retrying.";
inline constexpr char kFocusChanged[] =
    "The focused editor changed during input. Inspect before retrying.";
inline constexpr char kTextInput[] = "Unable to create text input.";
inline constexpr char kImageFormat[] = "Unsupported image format. Use \"png\".";
// What a backend says when another process is typing with the keyboard (the
// Linux backend's sentence; the fake says it when told to).
inline constexpr char kKeyboardBusy[] =
    "Another bridge is typing on this desktop. Retry when it has finished.";
// The fake desktop's permission sentences.
inline constexpr char kAccessibility[] =
    "Grant Accessibility access to Quorvel in macOS System Settings, then retry.";
inline constexpr char kScreenRecording[] =
    "Grant Screen Recording access to Quorvel in macOS System Settings, then retry.";

// Every sentence above: a refusal outside this list is a fault (the fuzz
// target checks every answer against it).
inline const std::vector<std::string>& all() {
    static const std::vector<std::string> sentences{
        kGeneric,       kInvalidRequest, kProtocol,     kOperation,      kAction,
        kTextFields,    kKey,            kNoApplication, kNoBounds,      kNotUnique,
        kChanged,       kReadLimit,      kCaptureFailed, kPlaceCursor,   kScrollInput,
        kKeyboardInput, kOutside,        kMouseInput,    kFocusEditor,   kValueChanged,
        kRejected,      kFocusChanged,   kTextInput,     kAccessibility, kScreenRecording,
        kImageFormat,   kKeyboardBusy};
    return sentences;
}

}  // namespace quorvel::msg

namespace quorvel::testing {

inline constexpr char kNoFailure[] = "<no failure>";
inline constexpr char kSuccess[] = "<success>";

// Runs one request in-process and returns the parsed envelope.
inline Json request(fake::FakeDesktop& desktop, const std::string& text) {
    return parseJson(respond(desktop, text).body);
}

// The scope object that an observation of the current desktop returns.
inline Json observedScope(fake::FakeDesktop& desktop) {
    return request(desktop, R"({"version":1,"operation":"context"})").at("result").at("scope");
}

// An "act" request with `scope` and the action given as JSON text.
inline std::string act(const Json& scope, const std::string& action) {
    return R"({"version":1,"operation":"act","scope":)" + writeJson(scope) +
           R"(,"action":)" + action + "}";
}

// The envelope's message, or kSuccess.
inline std::string errorOf(const Json& envelope) {
    return envelope.value("error", std::string(kSuccess));
}

// The scope object of StandardScene as an observation would return it, built
// without asking the desktop, so the fake's call counts start at zero.
inline JsonObject standardScope() {
    const Rect& f = fake::StandardScene::kFrame;
    return JsonObject{
        {"bounds", JsonObject{{"x", f.x}, {"y", f.y}, {"width", f.width}, {"height", f.height}}},
        {"pid", fake::StandardScene::kPid},
        {"window", "Document"},
        {"window_id", fake::StandardScene::kWindowNumber},
    };
}

// The message of the Failure that `f` throws, or kNoFailure.
template <typename F>
std::string failureOf(F&& f) {
    try {
        f();
    } catch (const Failure& failure) {
        return failure.message();
    }
    return kNoFailure;
}

// Posted events as `fake::describe` writes them.
using Events = std::vector<std::string>;

inline Events operator+(Events a, const Events& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// `count` clicks at "x,y": a down and an up per click, with its click state.
inline Events clicks(const std::string& at, int count = 1) {
    Events events;
    for (int n = 1; n <= count; ++n)
        for (const char* edge : {"down", "up"})
            events.push_back("mouse " + std::string(edge) + " click=" + std::to_string(n) +
                             " at " + at);
    return events;
}

// A key press: `code`, then `detail` (" flags=0x0", " text=\"abc\"") on both events.
inline Events press(int code, const std::string& detail) {
    const std::string key = "key " + std::to_string(code);
    return {key + " down" + detail, key + " up" + detail};
}

// One chunk of typed text; `chunk` as `describe` escapes it.
inline Events typed(const std::string& chunk) { return press(0, " text=\"" + chunk + "\""); }

inline const Events kSelectAll = press(0, " flags=0x100000");

}  // namespace quorvel::testing
