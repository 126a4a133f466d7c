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

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
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

std::vector<std::string> sessionEnvironment() {
    std::vector<std::string> environment;
    for (char** entry = environ; *entry; ++entry) environment.emplace_back(*entry);
    return environment;
}

Display* display() {
    static Display* connection = XOpenDisplay(nullptr);
    if (!connection) throw std::runtime_error("no X display; run inside scripts/desktop");
    return connection;
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
    out_ = out[0];
    signal(SIGPIPE, SIG_IGN);
    if (readLine() != "ready") throw std::runtime_error("fixture not ready");
}

Fixture::~Fixture() {
    close(in_);  // end of input quits the fixture
    close(out_);
    for (int i = 0; i < 50; ++i) {
        if (waitpid(pid_, nullptr, WNOHANG) == pid_) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

std::string Fixture::readLine() {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    for (;;) {
        if (size_t end = buffered_.find('\n'); end != std::string::npos) {
            std::string line = buffered_.substr(0, end);
            buffered_.erase(0, end + 1);
            return line;
        }
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) throw std::runtime_error("fixture did not answer");
        pollfd descriptor{out_, POLLIN, 0};
        if (poll(&descriptor, 1, static_cast<int>(left.count())) <= 0) continue;
        char buffer[4096];
        ssize_t got = read(out_, buffer, sizeof buffer);
        if (got <= 0) throw std::runtime_error("fixture ended");
        buffered_.append(buffer, static_cast<size_t>(got));
    }
}

void Fixture::command(const std::string& line) {
    std::string text = line + "\n";
    if (write(in_, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        throw std::runtime_error("fixture gone");
    std::string answer = readLine();
    if (answer != "ok") throw std::runtime_error("fixture refused " + line + ": " + answer);
}

Reply bridge(const Json& request) {
    testing::ProcessResult result = testing::runBridge(request.dump(), sessionEnvironment());
    return {result.out, Json::parse(result.out, nullptr, false), result.status};
}

std::vector<Reply> bridgesAtOnce(const std::vector<Json>& requests) {
    struct Child {
        pid_t pid;
        int in;
        std::FILE* out;
    };
    std::vector<Child> children;
    for (size_t i = 0; i < requests.size(); ++i) {
        int in[2];
        std::FILE* out = std::tmpfile();
        if (pipe(in) || !out) throw std::runtime_error("pipe");
        children.push_back({spawn({QUORVEL_BRIDGE_BINARY}, in[0], fileno(out)), in[1], out});
        close(in[0]);
    }
    for (size_t i = 0; i < requests.size(); ++i) {
        std::string text = requests[i].dump();
        if (write(children[i].in, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
            throw std::runtime_error("bridge gone");
        close(children[i].in);
    }
    std::vector<Reply> replies;
    for (Child& child : children) {
        int status = 0;
        waitpid(child.pid, &status, 0);
        std::string out;
        std::rewind(child.out);
        char buffer[4096];
        for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, child.out)) > 0;) out.append(buffer, n);
        std::fclose(child.out);
        replies.push_back({out, Json::parse(out, nullptr, false),
                           WIFEXITED(status) ? WEXITSTATUS(status) : -1});
    }
    return replies;
}

pid_t startBridge(const Json& request) {
    int in[2];
    if (pipe(in)) throw std::runtime_error("pipe");
    pid_t pid = spawn({QUORVEL_BRIDGE_BINARY}, in[0]);
    close(in[0]);
    std::string text = request.dump();
    if (write(in[1], text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        throw std::runtime_error("bridge gone");
    close(in[1]);
    return pid;
}

Json observe(const std::string& operation) {
    Reply reply = bridge(request(operation));
    EXPECT_TRUE(reply.ok()) << reply.raw;
    return reply.ok() ? reply.json["result"] : Json::object();
}

Json act(const Json& scope, const Json& action) {
    return bridge(actRequest(scope, action)).json;
}

Reply askUntil(const Json& request, const std::function<bool(const Reply&)>& accept,
               std::chrono::milliseconds limit) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        Reply reply = bridge(request);
        if (accept(reply) || std::chrono::steady_clock::now() > deadline) return reply;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
}

Json observeUntil(const std::function<bool(const Json&)>& accept, std::chrono::milliseconds limit) {
    auto accepted = [&](const Reply& r) { return r.ok() && accept(r.json["result"]); };
    Reply reply = askUntil(request("context"), accepted, limit);
    return reply.ok() ? reply.json["result"] : Json::object();
}

Json node(const Json& observation, const std::string& name, const std::vector<std::string>& roles) {
    for (const Json& record : observation.value("nodes", Json::array())) {
        if (record.value("name", "") != name) continue;
        if (roles.empty()) return record;
        for (const std::string& role : roles)
            if (record.value("role", "") == role) return record;
    }
    return nullptr;
}

Json nodeStartingWith(const Json& observation, const std::string& prefix) {
    for (const Json& record : observation.value("nodes", Json::array()))
        if (record.value("name", "").rfind(prefix, 0) == 0) return record;
    return nullptr;
}

double centerX(const Json& record) {
    return record["bounds"]["x"].get<double>() + record["bounds"]["width"].get<double>() / 2;
}
double centerY(const Json& record) {
    return record["bounds"]["y"].get<double>() + record["bounds"]["height"].get<double>() / 2;
}

// The standard output of a command, run to its end.
static std::string output(const std::string& command) {
    std::string text;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) throw std::runtime_error("popen " + command);
    char buffer[4096];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) text.append(buffer, n);
    pclose(pipe);
    return text;
}

bool onWayland() {
    const char* name = std::getenv("WAYLAND_DISPLAY");
    return name && *name;
}

void movePointer(int x, int y) {
    if (onWayland()) {
        output("swaymsg seat seat0 cursor set " + std::to_string(x) + " " + std::to_string(y));
        return;
    }
    Display* x11 = display();
    XWarpPointer(x11, None, DefaultRootWindow(x11), 0, 0, 0, 0, x, y);
    XSync(x11, False);
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
    Display* x11 = display();
    Window root, child;
    int rootX = -1, rootY = -1, windowX, windowY;
    unsigned int mask;
    XQueryPointer(x11, DefaultRootWindow(x11), &root, &child, &rootX, &rootY, &windowX, &windowY,
                  &mask);
    return {rootX, rootY};
}

Json windowBounds(std::uint32_t windowId) {
    if (onWayland()) {
        // sway's tree: the container's rect and the window's within it.
        std::function<Json(const Json&)> find = [&](const Json& node) -> Json {
            if (node.value("id", std::int64_t{-1}) == std::int64_t{windowId}) {
                const Json &rect = node["rect"], &inner = node["window_rect"];
                return {{"x", rect["x"].get<int>() + inner["x"].get<int>()},
                        {"y", rect["y"].get<int>() + inner["y"].get<int>()},
                        {"width", inner["width"]},
                        {"height", inner["height"]}};
            }
            for (const char* key : {"nodes", "floating_nodes"})
                for (const Json& child : node.value(key, Json::array()))
                    if (Json found = find(child); !found.is_null()) return found;
            return nullptr;
        };
        return find(Json::parse(output("swaymsg -r -t get_tree"), nullptr, false));
    }
    Display* x11 = display();
    ::Window window = windowId, root, parent, *children;
    unsigned int count;
    while (XQueryTree(x11, window, &root, &parent, &children, &count)) {
        if (children) XFree(children);
        if (parent == root) break;
        window = parent;
    }
    XWindowAttributes frame;
    if (!XGetWindowAttributes(x11, window, &frame)) return nullptr;
    int border = 2 * frame.border_width;
    return {{"x", frame.x}, {"y", frame.y}, {"width", frame.width + border},
            {"height", frame.height + border}};
}

void moveWindow(std::uint32_t windowId, int dx, int dy) {
    std::string id = std::to_string(windowId);
    if (onWayland()) {
        output("swaymsg '[con_id=" + id + "]' move " + (dx < 0 ? "left " : "right ") +
               std::to_string(std::abs(dx)) + " px, move " + (dy < 0 ? "up " : "down ") +
               std::to_string(std::abs(dy)) + " px");
        return;
    }
    output("xdotool windowmove --relative " + id + " " + std::to_string(dx) + " " +
           std::to_string(dy));
}

void activateWindow(std::uint32_t windowId) {
    if (onWayland()) {
        output("swaymsg '[con_id=" + std::to_string(windowId) + "]' focus");
        return;
    }
    Display* x11 = display();
    XEvent event{};
    event.xclient.type = ClientMessage;
    event.xclient.window = windowId;
    event.xclient.message_type = XInternAtom(x11, "_NET_ACTIVE_WINDOW", False);
    event.xclient.format = 32;
    event.xclient.data.l[0] = 2;  // from a pager: honoured at once
    XSendEvent(x11, DefaultRootWindow(x11), False,
               SubstructureRedirectMask | SubstructureNotifyMask, &event);
    XSync(x11, False);
}

std::vector<unsigned long> keyboardMapping() {
    Display* x11 = display();
    int first = 0, last = 0, perKeycode = 0;
    XDisplayKeycodes(x11, &first, &last);
    KeySym* rows = XGetKeyboardMapping(x11, static_cast<KeyCode>(first), last - first + 1,
                                       &perKeycode);
    std::vector<unsigned long> mapping(rows, rows + (last - first + 1) * perKeycode);
    XFree(rows);
    return mapping;
}

bool rootHasProperty(const char* name) {
    Display* x11 = display();
    Atom property = XInternAtom(x11, name, True);
    if (property == None) return false;
    Atom type = None;
    int format = 0;
    unsigned long count = 0, after = 0;
    unsigned char* data = nullptr;
    XGetWindowProperty(x11, DefaultRootWindow(x11), property, 0, 0, False, AnyPropertyType, &type,
                       &format, &count, &after, &data);
    if (data) XFree(data);
    return type != None;
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
    static const std::string kPieces[] = {
        "the ", "quick ", "brown ", "fox ", "jumps ", "over ", "lazy ", "dogs ", "and ", "cats ",
        "é", "è", "ç", "ñ", "ö", "ü", "ß", "å", "Ø", "É",
        "α", "β", "γ", "δ", "λ", "μ", "π", "σ", "Ω", "Φ",
        "漢", "字", "日", "本", "語", "中", "文", "東", "京", "書", "雨", "花", "海", "山",
        "😀", "🚀", "🎉", "🌍", "✨", "👍",
    };
    std::mt19937 random(seed);
    std::uniform_int_distribution<size_t> pick(0, std::size(kPieces) - 1);
    std::string text;
    size_t count = 0, column = 0;  // scalar values so far, and on this line
    while (count < length) {
        const std::string& piece = kPieces[pick(random)];
        for (size_t at = 0; at < piece.size() && count < length; ++count) {
            if (column == lineLength) {
                text += '\n';
                column = 0;
                continue;
            }
            size_t size = 1;  // the scalar's lead byte and its continuation bytes
            while (at + size < piece.size() && (piece[at + size] & 0xC0) == 0x80) ++size;
            text.append(piece, at, size);
            at += size;
            ++column;
        }
    }
    return text;
}

// --- Applications -------------------------------------------------------------

std::string sessionDirectory() {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    return runtime ? runtime : "/tmp";
}

std::optional<pid_t> processGroupOf(std::int64_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(stat, line)) return std::nullopt;
    // pid (comm) state ppid pgrp ...; the command may hold spaces.
    size_t end = line.rfind(')');
    if (end == std::string::npos) return std::nullopt;
    std::istringstream fields(line.substr(end + 2));
    std::string state;
    long parent = 0, group = 0;
    fields >> state >> parent >> group;
    return static_cast<pid_t>(group);
}

void setAccessibilityFlag(bool on) {
    pid_t pid = spawn({"dbus-send", "--session", "--print-reply", "--dest=org.a11y.Bus",
                       "/org/a11y/bus", "org.freedesktop.DBus.Properties.Set",
                       "string:org.a11y.Status", "string:IsEnabled",
                       std::string("variant:boolean:") + (on ? "true" : "false")});
    waitpid(pid, nullptr, 0);
}

bool accessibilityFlag() {
    FILE* reply = popen("dbus-send --session --print-reply --dest=org.a11y.Bus /org/a11y/bus "
                        "org.freedesktop.DBus.Properties.Get string:org.a11y.Status "
                        "string:IsEnabled",
                        "r");
    std::string text;
    char buffer[256];
    while (reply && fgets(buffer, sizeof buffer, reply)) text += buffer;
    if (reply) pclose(reply);
    return text.find("boolean true") != std::string::npos;
}

// The process of the active window, as the window manager has it; -1 for
// none.
std::int64_t activeProcess() {
    // The active window may be gone already (the last application's):
    // Xlib's default handler would end the test on that error.
    XSetErrorHandler([](Display*, XErrorEvent*) { return 0; });
    Display* display = XOpenDisplay(nullptr);
    if (!display) return -1;
    auto property = [&](::Window window, const char* name) -> long {
        Atom type;
        int format;
        unsigned long count, after;
        unsigned char* data = nullptr;
        long value = -1;
        if (XGetWindowProperty(display, window, XInternAtom(display, name, False), 0, 1, False,
                               AnyPropertyType, &type, &format, &count, &after, &data) == Success &&
            data && count == 1 && format == 32)
            value = *reinterpret_cast<long*>(data);
        if (data) XFree(data);
        return value;
    };
    long active = property(DefaultRootWindow(display), "_NET_ACTIVE_WINDOW");
    long pid = active > 0 ? property(static_cast<::Window>(active), "_NET_WM_PID") : -1;
    XCloseDisplay(display);
    return pid;
}


}  // namespace quorvel::e2e
