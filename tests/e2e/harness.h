// What the end-to-end tests drive: the fixture window, the bridge as a child
// process, and a few direct looks at the window system (the pointer, the
// windows, the X keyboard mapping). Runs inside a virtual desktop
// (scripts/desktop), an X one or, with --wayland, sway.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace quorvel::e2e {

using Json = nlohmann::json;

constexpr char kWindowChanged[] =
    "The foreground window changed. Observe again before sending input.";

// A request with no more than its operation.
inline Json request(const std::string& operation) {
    return {{"version", 1}, {"operation", operation}};
}
inline Json actRequest(const Json& scope, const Json& action) {
    return {{"version", 1}, {"operation", "act"}, {"scope", scope}, {"action", action}};
}

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
    std::string readLine();
    pid_t pid_ = -1;
    int in_ = -1;
    int out_ = -1;
    std::string buffered_;
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
// One bridge per request, all started together: each reads its whole
// request before it does anything, and they are all handed theirs at once.
std::vector<Reply> bridgesAtOnce(const std::vector<Json>& requests);
// The bridge started in the background with `request`; the caller waits for it.
pid_t startBridge(const Json& request);

Json observe(const std::string& operation = "context");  // the result; fails the test if refused
Json act(const Json& scope, const Json& action);           // the whole envelope

// Asks `request` until `accept` holds for the reply, at most `limit` long;
// returns the last reply.
Reply askUntil(const Json& request, const std::function<bool(const Reply&)>& accept,
               std::chrono::milliseconds limit = std::chrono::seconds(15));
// Observes ("context") until `accept` holds for a result; returns the last one.
Json observeUntil(const std::function<bool(const Json&)>& accept,
                  std::chrono::milliseconds limit = std::chrono::seconds(15));

// The first node with this name and one of these roles (any role when
// empty); a null JSON when there is none.
Json node(const Json& observation, const std::string& name,
          const std::vector<std::string>& roles = {});
// The first node whose name starts with `prefix`.
Json nodeStartingWith(const Json& observation, const std::string& prefix);
double centerX(const Json& node);
double centerY(const Json& node);

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
// Moves window `windowId` by dx, dy.
void moveWindow(std::uint32_t windowId, int dx, int dy);
// Asks the window manager to bring window `windowId` forward.
void activateWindow(std::uint32_t windowId);
// Every keycode's keysyms, to compare the X mapping before and after.
std::vector<unsigned long> keyboardMapping();
// Whether the root window has the property `name`.
bool rootHasProperty(const char* name);

// Mixed text: ASCII, accented Latin, Greek, CJK and emoji, lines of at most
// `lineLength` characters, `length` scalar values in all, as UTF-8.
std::string mixedText(size_t length, size_t lineLength, unsigned seed);
// `count` ideographs from U+4E00 on, each once, with a line break after
// every `lineLength`: far more distinct characters than there are spare keys.
std::string ideographs(size_t count, size_t lineLength);


// --- Applications, each started by tests/e2e/launch-app --------------------

// The session's own directory ($XDG_RUNTIME_DIR), for documents and profiles.
std::string sessionDirectory();
// The process group of process `pid`.
std::optional<pid_t> processGroupOf(std::int64_t pid);
// Turns the session's accessibility flag on or off, and reads it.
void setAccessibilityFlag(bool on);
bool accessibilityFlag();
// The process of the active window, as the window manager has it; -1 for
// none.
std::int64_t activeProcess();

// One application started on a file, in a process group of its own, which
// is ended with it.
class RunningApplication {
public:
    // `scale`: NAME=VALUE that sets the toolkit's scale, or nothing.
    RunningApplication(const std::string& name, const std::string& file, std::string scale = "") {
        pid_ = fork();
        if (pid_ == 0) {
            setsid();
            if (!scale.empty()) putenv(scale.data());
            setenv("QUORVEL_FIXTURE", QUORVEL_FIXTURE_BINARY, 1);
            // What the applications print is of no interest here.
            int quiet = open("/dev/null", O_RDWR);
            dup2(quiet, 0);
            dup2(quiet, 1);
            dup2(quiet, 2);
            closefrom(3);
            execl(QUORVEL_LAUNCH_APP, QUORVEL_LAUNCH_APP, name.c_str(), file.c_str(), nullptr);
            _exit(127);
        }
    }
    ~RunningApplication() {
        if (pid_ <= 0) return;
        kill(-pid_, SIGTERM);
        for (int i = 0; i < 50 && kill(-pid_, 0) == 0; ++i) {
            waitpid(pid_, nullptr, WNOHANG);
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        kill(-pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    RunningApplication(const RunningApplication&) = delete;
    RunningApplication& operator=(const RunningApplication&) = delete;

    // Whether the scope names a window of this application.
    bool owns(const Json& scope) const {
        return scope.is_object() && scope["pid"].is_number_integer() &&
               owns(scope["pid"].get<std::int64_t>());
    }
    bool owns(std::int64_t pid) const { return processGroupOf(pid) == pid_; }

private:
    pid_t pid_ = -1;
};


}  // namespace quorvel::e2e
