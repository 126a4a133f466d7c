// What the end-to-end tests drive: the fixture window, the bridge as a child
// process, applications started by launch-app, and a few direct looks at the
// window system (the pointer, the windows, the X keyboard mapping). Runs
// inside a virtual desktop (scripts/desktop), an X one or, with --wayland,
// sway.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace quorvel::e2e {

using Json = nlohmann::json;
using namespace std::chrono_literals;

constexpr char kWindowChanged[] =
    "The foreground window changed. Observe again before sending input.";
constexpr char kValueChanged[] = "The editor value changed since observation. Nothing was typed.";
// Every password in the tests' windows starts with this. No answer of the
// bridge may ever hold it: bridge() and bridgesAtOnce() check every one.
constexpr char kSecret[] = "hunter2";

inline Json request(const std::string& operation) {
    return {{"version", 1}, {"operation", operation}};
}
inline Json actRequest(const Json& scope, const Json& action) {
    return {{"version", 1}, {"operation", "act"}, {"scope", scope}, {"action", action}};
}
inline Json typing(const std::string& text, const std::string& expected, bool replace = false) {
    return {{"kind", "type"}, {"value", text}, {"replace", replace}, {"expected_value", expected}};
}
inline const Json kEscape = {{"kind", "key"}, {"value", "escape"}};

// Starts `argv` (looked up on PATH) with standard input from `in` and output
// to `out`, the null device where one is -1; standard error is discarded.
pid_t spawn(const std::vector<std::string>& argv, int in = -1, int out = -1);

// The GTK fixture, started with its command pipe (see fixture.c).
class Fixture {
public:
    Fixture();
    ~Fixture();
    Fixture(const Fixture&) = delete;
    Fixture& operator=(const Fixture&) = delete;
    // Sends one command and waits for its "ok".
    void command(const std::string& line);

private:
    pid_t pid_ = -1;
    int in_ = -1;
    std::FILE* out_ = nullptr;
};

struct Reply {
    std::string raw;  // standard output, byte for byte
    Json json;
    int status = -1;
    bool ok() const { return status == 0 && json.value("ok", false); }
    std::string error() const { return json.value("error", std::string()); }
};

// One bridge run with `request` on its standard input, in this session.
Reply bridge(const Json& request);
Reply act(const Json& scope, const Json& action);
// One bridge per request, all started together: each reads its whole
// request before it does anything, and they are all handed theirs at once.
std::vector<Reply> bridgesAtOnce(const std::vector<Json>& requests);
// The bridge started in the background with `request`, its output to `out`
// (none when -1); the caller waits for it.
pid_t startBridge(const Json& request, int out = -1);

// The result of `operation`; fails the test if refused.
Json observe(const std::string& operation = "context");
// Asks `request` until `accept` holds for the reply, at most `limit` long;
// returns the last reply.
Reply askUntil(const Json& request, const std::function<bool(const Reply&)>& accept,
               std::chrono::milliseconds limit = 15s);
// Observes until `accept` holds for a result; returns the last one.
Json observeUntil(const std::function<bool(const Json&)>& accept,
                  std::chrono::milliseconds limit = 15s, const std::string& operation = "context");
// The same, and a test failure saying what was awaited if it never came.
Json expectSoon(const std::string& what, const std::function<bool(const Json&)>& accept,
                std::chrono::milliseconds limit = 15s, const std::string& operation = "context");

// The first node for which `test` holds; a null JSON when there is none.
Json find(const Json& observation, const std::function<bool(const Json&)>& test);
// The first node with this name and one of these roles (any when empty).
Json node(const Json& observation, const std::string& name,
          const std::vector<std::string>& roles = {});
// The editable node of `role` whose value is `value`.
Json editorWith(const Json& observation, const std::string& role, const std::string& value);
// The value of the editor named `editor`; "<missing>" when there is none.
std::string valueOf(const Json& observation, const std::string& editor);
// Whether some node's name or value holds `text`.
bool mentions(const Json& observation, const std::string& text);
// Every node's role and value, for failure messages.
std::string values(const Json& observation);
double centerX(const Json& node);
double centerY(const Json& node);
Json clickAt(const Json& node, int count = 1);
// Whether bounds `inner` lie within bounds `outer`.
bool inside(const Json& inner, const Json& outer);

// The stale scopes of the window `seen` observed: refused with another
// window in front, accepted once its own window is back, and (when
// `movable`) refused once the window has moved, nothing typed into the
// focused editor. Returns the last observation.
Json expectStaleScopesRefused(const Json& seen, bool movable = true);

// The standard output of a shell command, run to its end.
std::string shell(const std::string& command);

// Whether the session is a Wayland one (sway), not X.
bool onWayland();
// The reason a test that only X has is skipped under Wayland.
inline constexpr char kOnlyX[] = "only X has this; Wayland has no ";

// The window system as the tests see it, by its own tools (X requests, or
// swaymsg and a pointer probe under sway).
void movePointer(int x, int y);
std::pair<int, int> pointerPosition();
// The bounds of window `windowId` as the window system has them: under X
// the window manager's frame around the client window, under sway the
// window's geometry in its tree.
Json windowBounds(std::uint32_t windowId);
void moveWindow(std::uint32_t windowId, int dx, int dy);
// Asks the window manager to bring window `windowId` forward.
void activateWindow(std::uint32_t windowId);
// Every keycode's keysyms, to compare the X mapping before and after.
std::vector<unsigned long> keyboardMapping();
bool rootHasProperty(const char* name);

// Mixed text: ASCII, accented Latin, Greek, CJK and emoji, lines of at most
// `lineLength` characters, `length` scalar values in all, as UTF-8.
std::string mixedText(size_t length, size_t lineLength, unsigned seed);
// `count` ideographs from U+4E00 on, each once, with a line break after
// every `lineLength`: far more distinct characters than there are spare keys.
std::string ideographs(size_t count, size_t lineLength);

// --- Applications, each started by tests/e2e/launch-app --------------------

// A directory of the session's own ($XDG_RUNTIME_DIR), made if need be.
std::string sessionDirectory(const std::string& name);
// Turns the session's accessibility flag on or off, and reads it.
void setAccessibilityFlag(bool on);
bool accessibilityFlag();
// The process of the active X window; -1 for none.
std::int64_t activeProcess();

// One application started on a file, in a process group of its own, which
// is ended with it.
class RunningApplication {
public:
    // `scale`: NAME=VALUE that sets the toolkit's scale, or nothing.
    RunningApplication(const std::string& name, const std::string& file,
                       const std::string& scale = "");
    ~RunningApplication();
    RunningApplication(const RunningApplication&) = delete;
    RunningApplication& operator=(const RunningApplication&) = delete;
    // Whether the scope (or the process) is of this application.
    bool owns(const Json& scope) const;
    bool owns(std::int64_t pid) const;

private:
    pid_t pid_ = -1;
};

}  // namespace quorvel::e2e
