// End-to-end observation: the bridge, run as the agent runs it, describing
// the GTK fixture and a real application in a virtual desktop, and refusing
// what it must refuse.
#include <gtest/gtest.h>
// GoogleTest before Xlib, whose None macro would clash with it.
// clang-format off
#include <X11/Xlib.h>
// clang-format on
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <regex>
#include <set>
#include <thread>

#include "input_desktop.h"
#include "process.h"

extern char** environ;

namespace quorvel::e2e {
namespace {

constexpr char kWindowChanged[] =
    "The foreground window changed. Observe again before sending input.";
constexpr char kNoForeground[] = "No foreground application. Unlock the desktop.";
constexpr char kNotUnique[] =
    "The foreground window cannot be identified uniquely. Close overlapping duplicate windows "
    "and observe again.";
constexpr char kNoAccessibility[] =
    "Start the AT-SPI accessibility bus in this desktop session, then retry.";

Json request(const std::string& operation) { return {{"version", 1}, {"operation", operation}}; }

// The start of an answer, for failure messages.
std::string brief(const Reply& reply) {
    return "status " + std::to_string(reply.status) + ": " + reply.raw.substr(0, 300);
}

// The window manager's frame of a client window, as the X server has it:
// the child of the root that holds the client.
struct Geometry {
    int x = 0, y = 0, width = 0, height = 0;
};

Geometry frameOf(unsigned long client) {
    Display* display = XOpenDisplay(nullptr);
    if (!display) throw std::runtime_error("no X display");
    ::Window window = client, root = None, parent = None, *children = nullptr;
    unsigned int count = 0;
    for (;;) {
        if (!XQueryTree(display, window, &root, &parent, &children, &count)) break;
        if (children) XFree(children);
        if (parent == root) break;
        window = parent;
    }
    XWindowAttributes attributes;
    XGetWindowAttributes(display, window, &attributes);
    XCloseDisplay(display);
    int border = attributes.border_width;
    return {attributes.x, attributes.y, attributes.width + 2 * border,
            attributes.height + 2 * border};
}

void expectScopeIsTheFrame(const Json& scope) {
    Geometry frame = frameOf(scope["window_id"].get<unsigned long>());
    EXPECT_EQ(scope["bounds"]["x"].get<double>(), frame.x);
    EXPECT_EQ(scope["bounds"]["y"].get<double>(), frame.y);
    EXPECT_EQ(scope["bounds"]["width"].get<double>(), frame.width);
    EXPECT_EQ(scope["bounds"]["height"].get<double>(), frame.height);
}

bool inside(const Json& inner, const Json& outer) {
    double x = inner["x"], y = inner["y"], w = inner["width"], h = inner["height"];
    double X = outer["x"], Y = outer["y"], W = outer["width"], H = outer["height"];
    return x >= X && y >= Y && x + w <= X + W && y + h <= Y + H;
}

// Asks until the bridge answers with `error`, at most `limit` long.
Reply refusedUntil(const Json& message, const std::string& error,
                   std::chrono::seconds limit = std::chrono::seconds(15)) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        Reply reply = bridge(message);
        if (reply.error() == error || std::chrono::steady_clock::now() > deadline) return reply;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
}

class Observation : public ::testing::Test {
protected:
    Fixture fixture;
};

TEST_F(Observation, CapabilitiesAreTrueInTheSession) {
    Reply reply = bridge(request("capabilities"));
    ASSERT_TRUE(reply.ok()) << brief(reply);
    EXPECT_EQ(reply.json["result"]["platform"], "linux");
    EXPECT_EQ(reply.json["result"]["accessibility"], true);
    EXPECT_EQ(reply.json["result"]["screen_capture"], true);
}

TEST_F(Observation, ContextDescribesTheFixtureWindow) {
    fixture.command("password hunter2");
    Reply reply = bridge(request("context"));
    ASSERT_TRUE(reply.ok()) << brief(reply);
    const Json& result = reply.json["result"];
    EXPECT_EQ(result.size(), 3u);  // scope, nodes, context
    const Json& scope = result["scope"];
    EXPECT_EQ(scope["window"], "Quorvel Fixture");
    expectScopeIsTheFrame(scope);

    // The window holds far more than the cap: the scan stops at 1200, in
    // breadth-first order, every parent before its children.
    const Json& nodes = result["nodes"];
    ASSERT_EQ(nodes.size(), 1200u);
    std::set<std::string> seen;
    for (size_t i = 0; i < nodes.size(); ++i) {
        EXPECT_EQ(nodes[i]["id"], "ax-" + std::to_string(i));
        if (i > 0) {
            EXPECT_TRUE(seen.count(nodes[i]["parent_id"].get<std::string>())) << i;
        }
        seen.insert(nodes[i]["id"].get<std::string>());
    }
    EXPECT_EQ(nodes[0]["role"], "AXWindow");
    EXPECT_EQ(nodes[0]["name"], "Quorvel Fixture");
    EXPECT_EQ(nodes[0]["bounds"], scope["bounds"]);

    struct Expected {
        const char* name;
        const char* role;
        const char* value;
        bool editable;
    } expected[] = {
        {"Name", "AXTextField", "Ada Lovelace", true},
        {"Plain editor", "AXTextField", "plain text", true},
        {"Notes", "AXTextArea", "First line\nSecond line", true},
        {"Increment", "AXButton", "", false},
        {"Reset", "AXButton", "", false},
        {"Observation Fixture", "AXStaticText", "", false},
        {"Count: 0", "AXStaticText", "", false},
    };
    for (const Expected& e : expected) {
        Json record = node(result, e.name, {e.role});
        ASSERT_FALSE(record.is_null()) << e.name;
        EXPECT_EQ(record["value"], e.value) << e.name;
        EXPECT_EQ(record["editable"], e.editable) << e.name;
        EXPECT_EQ(record["enabled"], true) << e.name;
        EXPECT_EQ(record["visible"], true) << e.name;
        EXPECT_TRUE(inside(record["bounds"], scope["bounds"])) << e.name;
        EXPECT_GT(record["bounds"]["width"].get<double>(), 0) << e.name;
        EXPECT_EQ(record["actions"],
                  e.editable ? Json({"focus", "type", "replace"}) : Json({"click"}))
            << e.name;
    }
    // Labels sit left of their fields, in the same row.
    Json label = node(result, "Name", {"AXStaticText"});
    Json field = node(result, "Name", {"AXTextField"});
    EXPECT_LT(label["bounds"]["x"].get<double>(), field["bounds"]["x"].get<double>());
    EXPECT_EQ(label["bounds"]["y"], field["bounds"]["y"]);

    // The password field: its own label, no value and no actions, though
    // text was put into it; the text appears nowhere in the answer.
    Json password = node(result, "Authentication field");
    ASSERT_FALSE(password.is_null());
    EXPECT_EQ(password["role"], "AXTextField");
    EXPECT_EQ(password["value"], "");
    EXPECT_EQ(password["editable"], false);
    EXPECT_EQ(password["actions"], Json::array());
    EXPECT_EQ(reply.raw.find("hunter2"), std::string::npos);

    const Json& context = result["context"];
    EXPECT_EQ(context["application"], "quorvel-fixture");
    EXPECT_EQ(context["window_title"], "Quorvel Fixture");
    EXPECT_EQ(context["focused_role"], "AXButton");
    EXPECT_EQ(context["focused_value"], "");
    std::string text = context["visible_text"];
    for (const char* known : {"Observation Fixture", "Ada Lovelace", "Count: 0", "Row 1 "})
        EXPECT_NE(text.find(known), std::string::npos) << known;
}

TEST_F(Observation, FocusedEditorAndItsValueAreReported) {
    fixture.command("focus notes");
    Json result = observe("context");
    EXPECT_EQ(result["context"]["focused_role"], "AXTextArea");
    EXPECT_EQ(result["context"]["focused_value"], "First line\nSecond line");
    fixture.command("focus password");
    fixture.command("password hunter2");
    result = observe("context");
    EXPECT_EQ(result["context"]["focused_role"], "AXTextField");
    EXPECT_EQ(result["context"]["focused_value"], "");
}

TEST_F(Observation, ObserveRecognisesTheWindowsText) {
    Reply reply = bridge(request("observe"));
    ASSERT_TRUE(reply.ok()) << brief(reply);
    const Json& result = reply.json["result"];
    std::string hash = result["screenshot_hash"];
    EXPECT_TRUE(std::regex_match(hash, std::regex("[0-9a-f]{64}"))) << hash;
    const Json& blocks = result["ocr_blocks"];
    ASSERT_FALSE(blocks.empty());
    Json heading = nullptr;
    for (const Json& block : blocks) {
        EXPECT_EQ(block["screenshot_hash"], hash);
        EXPECT_GE(block["confidence"].get<double>(), 0.0);
        EXPECT_LE(block["confidence"].get<double>(), 1.0);
        EXPECT_TRUE(inside(block["bounds"], result["scope"]["bounds"])) << block.dump();
        if (block["text"] == "Observation Fixture") heading = block;
    }
    ASSERT_FALSE(heading.is_null()) << blocks.dump().substr(0, 2000);
    // The recognised heading lies where accessibility puts its label.
    Json label = node(result, "Observation Fixture", {"AXStaticText"});
    EXPECT_TRUE(inside(heading["bounds"], label["bounds"]))
        << heading["bounds"].dump() << " in " << label["bounds"].dump();
}

TEST_F(Observation, CaptureHashIsStableUntilTheWindowChanges) {
    Json first = observe("capture");
    Json second = observe("capture");
    EXPECT_EQ(first["ocr_blocks"], Json::array());
    EXPECT_EQ(first.count("screenshot_hash"), 1u);
    EXPECT_EQ(first["screenshot_hash"], second["screenshot_hash"]);

    fixture.command("label Count: 41");
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    Json changed = observe("capture");
    while (changed["screenshot_hash"] == first["screenshot_hash"] &&
           std::chrono::steady_clock::now() < deadline)
        changed = observe("capture");
    EXPECT_NE(changed["screenshot_hash"], first["screenshot_hash"]);
}

TEST_F(Observation, ScopeValidatesUntilTheWindowMoves) {
    Json seen = observe("context");
    EXPECT_TRUE(actReply(seen["scope"], {{"kind", "key"}, {"value", "escape"}}).ok());

    fixture.command("move 3 0");
    Json moved = observeUntil([&](const Json& o) { return o["scope"] != seen["scope"]; });
    EXPECT_EQ(moved["scope"]["bounds"]["x"].get<double>(),
              seen["scope"]["bounds"]["x"].get<double>() + 3);
    expectScopeIsTheFrame(moved["scope"]);
    EXPECT_EQ(actReply(seen["scope"], {{"kind", "key"}, {"value", "escape"}}).error(),
              kWindowChanged);
    EXPECT_TRUE(actReply(moved["scope"], {{"kind", "key"}, {"value", "escape"}}).ok());
}

TEST_F(Observation, ScopeValidatesUntilTheWindowIsRetitled) {
    Json seen = observe("context");
    fixture.command("title Quorvel Fixture, renamed");
    Json renamed = observeUntil([&](const Json& o) { return o["scope"] != seen["scope"]; });
    EXPECT_EQ(renamed["scope"]["window"], "Quorvel Fixture, renamed");
    EXPECT_EQ(renamed["scope"]["bounds"], seen["scope"]["bounds"]);
    EXPECT_EQ(actReply(seen["scope"], {{"kind", "key"}, {"value", "escape"}}).error(),
              kWindowChanged);
}

TEST_F(Observation, NoWindowInFrontIsRefused) {
    fixture.command("iconify");
    Reply reply = refusedUntil(request("context"), kNoForeground);
    EXPECT_EQ(reply.error(), kNoForeground);
    EXPECT_EQ(reply.status, 1);
}

TEST_F(Observation, TwoSameSizedWindowsOfOneApplicationAreRefused) {
    fixture.command("second");
    Reply reply = refusedUntil(request("observe"), kNotUnique);
    EXPECT_EQ(reply.error(), kNotUnique);
    fixture.command("close-second");
    Json back = observeUntil([](const Json& o) { return o.contains("scope"); });
    EXPECT_EQ(back["scope"]["window"], "Quorvel Fixture");
}

TEST_F(Observation, AnApplicationThatDoesNotAnswerCostsTheTimeOut) {
    fixture.command("freeze 8");
    auto start = std::chrono::steady_clock::now();
    Reply reply = bridge(request("context"));
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_FALSE(reply.ok()) << brief(reply);
    EXPECT_EQ(reply.status, 1);
    // One read of the frozen application, at 2 seconds, and some slack.
    EXPECT_LT(seconds, 5.0);
}

// The processes of D-Bus now running: a bus, or a helper that launches one.
int dbusProcesses() {
    int count = 0;
    FILE* ps = popen("ps -eo comm=", "r");
    char line[256];
    while (ps && fgets(line, sizeof line, ps))
        if (std::string(line).rfind("dbus-", 0) == 0) ++count;
    if (ps) pclose(ps);
    return count;
}

TEST_F(Observation, TheBusIsFoundFromTheDisplayAlone) {
    // No session bus: the accessibility bus's address is on the root window.
    const char* display = getenv("DISPLAY");
    ASSERT_TRUE(display);
    int before = dbusProcesses();
    testing::ProcessResult observed = testing::runBridge(
        request("context").dump(), {std::string("DISPLAY=") + display});
    EXPECT_EQ(observed.status, 0) << observed.out.substr(0, 300);
    EXPECT_EQ(Json::parse(observed.out)["result"]["scope"]["window"], "Quorvel Fixture");
    EXPECT_EQ(dbusProcesses(), before);
}

TEST_F(Observation, WithoutADesktopNothingIsStartedAndObservationIsRefused) {
    // An address that would make libdbus launch a session bus, and no display.
    std::vector<std::string> environment{"DBUS_SESSION_BUS_ADDRESS=autolaunch:"};
    int before = dbusProcesses();
    testing::ProcessResult capabilities =
        testing::runBridge(request("capabilities").dump(), environment);
    EXPECT_EQ(capabilities.out,
              R"({"ok":true,"result":{"accessibility":false,"clipboard_free_input":true,)"
              R"("platform":"linux","screen_capture":false,"version":1}})");
    testing::ProcessResult observed = testing::runBridge(request("observe").dump(), environment);
    EXPECT_EQ(observed.out, std::string(R"({"ok":false,"error":")") + kNoAccessibility + "\"}");
    EXPECT_EQ(observed.status, 1);
    EXPECT_EQ(dbusProcesses(), before);
}

// An application from Debian that this project did not write.
class RealApplication : public ::testing::Test {
protected:
    void SetUp() override {
        pid_ = fork();
        if (pid_ == 0) {
            int quiet = open("/dev/null", O_RDWR);
            dup2(quiet, 0);
            dup2(quiet, 1);
            dup2(quiet, 2);
            execlp("gtk3-widget-factory", "gtk3-widget-factory", static_cast<char*>(nullptr));
            _exit(127);
        }
    }
    void TearDown() override {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }
    pid_t pid_ = -1;
};

TEST_F(RealApplication, WidgetFactoryIsObserved) {
    Json result = observeUntil([](const Json& o) {
        return o.contains("context") && o["context"]["application"] == "gtk3-widget-factory";
    }, std::chrono::seconds(30));
    ASSERT_EQ(result["context"]["application"], "gtk3-widget-factory")
        << result.dump().substr(0, 300);
    expectScopeIsTheFrame(result["scope"]);
    EXPECT_EQ(result["scope"]["pid"], pid_);
    const Json& nodes = result["nodes"];
    EXPECT_GT(nodes.size(), 100u);
    std::set<std::string> roles;
    for (const Json& record : nodes) roles.insert(record["role"].get<std::string>());
    for (const char* role : {"AXWindow", "AXButton", "AXCheckBox", "AXTextField", "AXSlider"})
        EXPECT_TRUE(roles.count(role)) << role;

    Reply observed = bridge(request("observe"));
    ASSERT_TRUE(observed.ok()) << brief(observed);
    EXPECT_GT(observed.json["result"]["ocr_blocks"].size(), 5u);
}

}  // namespace
}  // namespace quorvel::e2e
