#include "harness.h"

// GoogleTest before Xlib, whose None macro would clash with it.
#include <gtest/gtest.h>
// clang-format off
#include <X11/Xlib.h>
// clang-format on
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <thread>

#include "platform/linux/wayland/connection.h"
#include "platform/linux/wayland/pointer.h"
#include "process.h"
#include "unicode/unicode.h"

extern char** environ;

namespace quorvel::e2e {
namespace {

Display* display() {
    static Display* connection = XOpenDisplay(nullptr);
    if (!connection) throw std::runtime_error("no X display; run inside scripts/desktop");
    return connection;
}

}  // namespace

std::string shell(const std::string& command) {
    std::string text;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) throw std::runtime_error("popen " + command);
    char buffer[4096];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) text.append(buffer, n);
    pclose(pipe);
    return text;
}

namespace {

Reply checked(const std::string& out, int status) {
    EXPECT_EQ(out.find(kSecret), std::string::npos) << out.substr(0, 300);
    return {out, Json::parse(out, nullptr, false), status};
}

// The fixture answers each command with one line.
std::string readLine(std::FILE* out) {
    pollfd descriptor{fileno(out), POLLIN, 0};
    char line[256];
    if (poll(&descriptor, 1, 30000) <= 0 || !std::fgets(line, sizeof line, out))
        throw std::runtime_error("the fixture did not answer");
    return std::string(line, std::strcspn(line, "\n"));
}

}  // namespace

pid_t spawn(const std::vector<std::string>& argv, int in, int out) {
    pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("fork");
    if (pid == 0) {
        int quiet = open("/dev/null", O_RDWR);
        dup2(in >= 0 ? in : quiet, 0);
        dup2(out >= 0 ? out : quiet, 1);
        dup2(quiet, 2);
        // The child must not hold the other ends of our pipes: the fixture
        // and the bridge only see the end of their input once we close it.
        closefrom(3);
        std::vector<char*> arguments;
        for (const std::string& argument : argv)
            arguments.push_back(const_cast<char*>(argument.c_str()));
        arguments.push_back(nullptr);
        execvp(arguments[0], arguments.data());
        _exit(127);
    }
    return pid;
}

Fixture::Fixture() {
    int in[2], out[2];
    if (pipe(in) || pipe(out)) throw std::runtime_error("pipe");
    pid_ = spawn({QUORVEL_FIXTURE_BINARY}, in[0], out[1]);
    close(in[0]);
    close(out[1]);
    in_ = in[1];
    out_ = fdopen(out[0], "r");
    signal(SIGPIPE, SIG_IGN);
    if (readLine(out_) != "ready") throw std::runtime_error("fixture not ready");
}

Fixture::~Fixture() {
    close(in_);  // end of input quits the fixture
    std::fclose(out_);
    for (int i = 0; i < 50; ++i, std::this_thread::sleep_for(100ms))
        if (waitpid(pid_, nullptr, WNOHANG) == pid_) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

void Fixture::command(const std::string& line) {
    std::string text = line + "\n";
    if (write(in_, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        throw std::runtime_error("fixture gone");
    if (std::string answer = readLine(out_); answer != "ok")
        throw std::runtime_error("fixture refused " + line + ": " + answer);
}

Reply bridge(const Json& request) {
    std::vector<std::string> environment;
    for (char** entry = environ; *entry; ++entry) environment.emplace_back(*entry);
    testing::ProcessResult result = testing::runBridge(request.dump(), environment);
    return checked(result.out, result.status);
}

Reply act(const Json& scope, const Json& action) { return bridge(actRequest(scope, action)); }

pid_t startBridge(const Json& request, int out) {
    int in[2];
    if (pipe(in)) throw std::runtime_error("pipe");
    pid_t pid = spawn({QUORVEL_BRIDGE_BINARY}, in[0], out);
    close(in[0]);
    std::string text = request.dump();
    if (write(in[1], text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        throw std::runtime_error("bridge gone");
    close(in[1]);
    return pid;
}

std::vector<Reply> bridgesAtOnce(const std::vector<Json>& requests) {
    std::vector<std::pair<pid_t, std::FILE*>> children;
    for (const Json& request : requests) {
        std::FILE* out = std::tmpfile();
        children.emplace_back(startBridge(request, fileno(out)), out);
    }
    std::vector<Reply> replies;
    for (auto [pid, out] : children) {
        int status = 0;
        waitpid(pid, &status, 0);
        std::string text;
        std::rewind(out);
        char buffer[4096];
        for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, out)) > 0;) text.append(buffer, n);
        std::fclose(out);
        replies.push_back(checked(text, WIFEXITED(status) ? WEXITSTATUS(status) : -1));
    }
    return replies;
}

Json observe(const std::string& operation) {
    Reply reply = bridge(request(operation));
    EXPECT_TRUE(reply.ok()) << reply.raw.substr(0, 300);
    return reply.ok() ? reply.json["result"] : Json::object();
}

Reply askUntil(const Json& request, const std::function<bool(const Reply&)>& accept,
               std::chrono::milliseconds limit) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        Reply reply = bridge(request);
        if (accept(reply) || std::chrono::steady_clock::now() > deadline) return reply;
        std::this_thread::sleep_for(200ms);
    }
}

Json observeUntil(const std::function<bool(const Json&)>& accept, std::chrono::milliseconds limit,
                  const std::string& operation) {
    auto accepted = [&](const Reply& r) { return r.ok() && accept(r.json["result"]); };
    Reply reply = askUntil(request(operation), accepted, limit);
    return reply.ok() ? reply.json["result"] : Json::object();
}

Json expectSoon(const std::string& what, const std::function<bool(const Json&)>& accept,
                std::chrono::milliseconds limit, const std::string& operation) {
    Json seen = observeUntil(accept, limit, operation);
    EXPECT_TRUE(accept(seen)) << "never seen: " << what << "\n" << values(seen);
    return seen;
}

Json find(const Json& observation, const std::function<bool(const Json&)>& test) {
    for (const Json& record : observation.value("nodes", Json::array()))
        if (test(record)) return record;
    return nullptr;
}

Json node(const Json& observation, const std::string& name, const std::vector<std::string>& roles) {
    return find(observation, [&](const Json& record) {
        return record.value("name", "") == name &&
               (roles.empty() ||
                std::find(roles.begin(), roles.end(), record.value("role", "")) != roles.end());
    });
}

Json editorWith(const Json& observation, const std::string& role, const std::string& value) {
    return find(observation, [&](const Json& record) {
        return record["editable"] == true && record["role"] == role && record["value"] == value;
    });
}

bool mentions(const Json& observation, const std::string& text) {
    return !find(observation, [&](const Json& record) {
                return record.value("name", "").find(text) != std::string::npos ||
                       record.value("value", "").find(text) != std::string::npos;
            }).is_null();
}

std::string valueOf(const Json& observation, const std::string& editor) {
    Json record = node(observation, editor, {"AXTextField", "AXTextArea"});
    return record.is_null() ? std::string("<missing>") : record.value("value", "");
}

std::string values(const Json& observation) {
    std::string all = observation.value("scope", Json()).dump() + "\n";
    for (const Json& record : observation.value("nodes", Json::array()))
        if (record["value"].is_string() && record["value"] != "")
            all += record.value("role", "") + " " + record["value"].dump().substr(0, 200) + "\n";
    return all;
}

double centerX(const Json& record) {
    return record["bounds"]["x"].get<double>() + record["bounds"]["width"].get<double>() / 2;
}
double centerY(const Json& record) {
    return record["bounds"]["y"].get<double>() + record["bounds"]["height"].get<double>() / 2;
}
Json clickAt(const Json& record, int count) {
    return {{"kind", "click"}, {"x", centerX(record)}, {"y", centerY(record)}, {"count", count}};
}

bool inside(const Json& inner, const Json& outer) {
    double x = inner["x"], y = inner["y"], w = inner["width"], h = inner["height"];
    double X = outer["x"], Y = outer["y"], W = outer["width"], H = outer["height"];
    return x >= X && y >= Y && x + w <= X + W && y + h <= Y + H;
}

Json expectStaleScopesRefused(const Json& seen, bool movable) {
    const Json scope = seen["scope"];
    {
        Fixture inFront;
        EXPECT_EQ(act(scope, kEscape).error(), kWindowChanged);
    }
    auto same = [&](const Json& o) { return o["scope"] == scope; };
    Json back = observeUntil(same, 5s);
    if (!same(back)) {
        activateWindow(scope["window_id"]);
        back = expectSoon("the window back in front", same);
    }
    EXPECT_TRUE(act(scope, kEscape).ok());
    if (!movable) return back;
    const Json focused = back["context"]["focused_value"];
    moveWindow(scope["window_id"], 24, 16);
    observeUntil([&](const Json& o) { return !same(o); });
    EXPECT_EQ(act(scope, typing("stale", focused)).error(), kWindowChanged);
    Json after = observe();
    EXPECT_EQ(after["context"]["focused_value"], focused);
    return after;
}

bool onWayland() {
    const char* name = std::getenv("WAYLAND_DISPLAY");
    return name && *name;
}

void movePointer(int x, int y) {
    if (onWayland()) {
        shell("swaymsg seat seat0 cursor set " + std::to_string(x) + " " + std::to_string(y));
        return;
    }
    shell("xdotool mousemove " + std::to_string(x) + " " + std::to_string(y));
}

std::pair<int, int> pointerPosition() {
    if (onWayland()) {
        // No Wayland request says where the pointer is: the pointer's entry
        // into an overlay says it.
        namespace wayland = linux_backend::wayland;
        auto connection = wayland::Connection::open();
        std::optional<Point> at = connection ? wayland::locatePointer(*connection) : std::nullopt;
        if (!at) return {-1, -1};
        return {static_cast<int>(at->x), static_cast<int>(at->y)};
    }
    int x = -1, y = -1;
    std::sscanf(shell("xdotool getmouselocation").c_str(), "x:%d y:%d", &x, &y);
    return {x, y};
}

Json windowBounds(std::uint32_t windowId) {
    if (onWayland()) {
        // sway's tree: the container's rect and the window's within it.
        std::function<Json(const Json&)> search = [&](const Json& node) -> Json {
            if (node.value("id", std::int64_t{-1}) == std::int64_t{windowId}) {
                const Json &rect = node["rect"], &inner = node["window_rect"];
                return {{"x", rect["x"].get<int>() + inner["x"].get<int>()},
                        {"y", rect["y"].get<int>() + inner["y"].get<int>()},
                        {"width", inner["width"]},
                        {"height", inner["height"]}};
            }
            for (const char* key : {"nodes", "floating_nodes"})
                for (const Json& child : node.value(key, Json::array()))
                    if (Json found = search(child); !found.is_null()) return found;
            return nullptr;
        };
        return search(Json::parse(shell("swaymsg -r -t get_tree"), nullptr, false));
    }
    ::Window window = windowId, root, parent, *children;
    unsigned int count;
    while (XQueryTree(display(), window, &root, &parent, &children, &count)) {
        if (children) XFree(children);
        if (parent == root) break;
        window = parent;
    }
    XWindowAttributes frame;
    if (!XGetWindowAttributes(display(), window, &frame)) return nullptr;
    int border = 2 * frame.border_width;
    return {{"x", frame.x}, {"y", frame.y}, {"width", frame.width + border},
            {"height", frame.height + border}};
}

void moveWindow(std::uint32_t windowId, int dx, int dy) {
    std::string id = std::to_string(windowId);
    if (onWayland()) {
        shell("swaymsg '[con_id=" + id + "]' move " + (dx < 0 ? "left " : "right ") +
               std::to_string(std::abs(dx)) + " px, move " + (dy < 0 ? "up " : "down ") +
               std::to_string(std::abs(dy)) + " px");
    } else {
        shell("xdotool windowmove --relative " + id + " " + std::to_string(dx) + " " +
               std::to_string(dy));
    }
}

void activateWindow(std::uint32_t windowId) {
    std::string id = std::to_string(windowId);
    shell(onWayland() ? "swaymsg '[con_id=" + id + "]' focus" : "xdotool windowactivate " + id);
}

std::vector<unsigned long> keyboardMapping() {
    int first = 0, last = 0, perKeycode = 0;
    XDisplayKeycodes(display(), &first, &last);
    KeySym* rows = XGetKeyboardMapping(display(), static_cast<KeyCode>(first), last - first + 1,
                                       &perKeycode);
    std::vector<unsigned long> mapping(rows, rows + (last - first + 1) * perKeycode);
    XFree(rows);
    return mapping;
}

bool rootHasProperty(const char* name) {
    return shell(std::string("xprop -root ") + name).find("not found") == std::string::npos;
}

std::string ideographs(size_t count, size_t lineLength) {
    std::string text;
    for (char32_t c = 0x4E00; c < 0x4E00 + count; ++c) {
        appendUtf8(text, c);
        if ((c - 0x4E00) % lineLength == lineLength - 1) text += '\n';
    }
    return text;
}

std::string mixedText(size_t length, size_t lineLength, unsigned seed) {
    // Words of ASCII, and single characters of the other scripts.
    static const std::u32string kPieces[] = {
        U"the ", U"quick ", U"brown ", U"fox ", U"jumps ", U"over ", U"lazy ", U"dogs ", U"and ", U"cats ",
        U"é", U"è", U"ç", U"ñ", U"ö", U"ü", U"ß", U"å", U"Ø", U"É",
        U"α", U"β", U"γ", U"δ", U"λ", U"μ", U"π", U"σ", U"Ω", U"Φ",
        U"漢", U"字", U"日", U"本", U"語", U"中", U"文", U"東", U"京", U"書", U"雨", U"花", U"海", U"山",
        U"😀", U"🚀", U"🎉", U"🌍", U"✨", U"👍",
    };
    std::mt19937 random(seed);
    std::uniform_int_distribution<size_t> pick(0, std::size(kPieces) - 1);
    std::u32string text;  // the line breaks count among the `length`
    for (size_t column = 0; text.size() < length;)
        for (char32_t c : kPieces[pick(random)]) {
            if (column == lineLength && text.size() < length) text += U'\n', column = 0;
            if (text.size() < length) text += c, ++column;
        }
    std::string utf8;
    for (char32_t c : text) appendUtf8(utf8, c);
    return utf8;
}

std::string sessionDirectory(const std::string& name) {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    std::string directory = std::string(runtime ? runtime : "/tmp") + "/" + name;
    std::filesystem::create_directories(directory);
    return directory;
}

void setAccessibilityFlag(bool on) {
    shell(std::string("dbus-send --session --print-reply --dest=org.a11y.Bus /org/a11y/bus "
                       "org.freedesktop.DBus.Properties.Set string:org.a11y.Status "
                       "string:IsEnabled variant:boolean:") +
           (on ? "true" : "false"));
}

bool accessibilityFlag() {
    return shell("dbus-send --session --print-reply --dest=org.a11y.Bus /org/a11y/bus "
                  "org.freedesktop.DBus.Properties.Get string:org.a11y.Status string:IsEnabled")
               .find("boolean true") != std::string::npos;
}

std::int64_t activeProcess() {
    std::string pid = shell("xdotool getactivewindow getwindowpid 2>/dev/null");
    return pid.empty() ? -1 : std::stoll(pid);
}

RunningApplication::RunningApplication(const std::string& name, const std::string& file,
                                       const std::string& scale) {
    // setsid(1) makes it the leader of a process group of its own, and env
    // sets its variables; both run it in their own place.
    std::vector<std::string> argv = {"setsid", "env", "QUORVEL_FIXTURE=" QUORVEL_FIXTURE_BINARY};
    if (!scale.empty()) argv.push_back(scale);
    argv.insert(argv.end(), {QUORVEL_LAUNCH_APP, name, file});
    pid_ = spawn(argv);
}

RunningApplication::~RunningApplication() {
    kill(-pid_, SIGTERM);
    for (int i = 0; i < 50 && kill(-pid_, 0) == 0; ++i) {
        waitpid(pid_, nullptr, WNOHANG);
        std::this_thread::sleep_for(100ms);
    }
    kill(-pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

bool RunningApplication::owns(const Json& scope) const {
    return scope.is_object() && scope["pid"].is_number_integer() && owns(scope["pid"].get<std::int64_t>());
}

// Whether process `pid` is in this application's process group.
bool RunningApplication::owns(std::int64_t pid) const {
    std::string group = shell("ps -o pgid= -p " + std::to_string(pid));
    return group.find_first_of("0123456789") != std::string::npos && std::stoll(group) == pid_;
}

}  // namespace quorvel::e2e
