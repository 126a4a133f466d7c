// End-to-end observation: the bridge, run as the agent runs it, describing
// the GTK fixture and a real application in a virtual desktop, and refusing
// what it must refuse.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>
#include <sys/wait.h>

#include <cstdio>
#include <optional>
#include <regex>
#include <set>
#include <thread>

#include "harness.h"
#include "process.h"

namespace quorvel::e2e {
namespace {

constexpr char kNoForeground[] = "No foreground application. Unlock the desktop.";
constexpr char kNotUnique[] =
    "The foreground window cannot be identified uniquely. Close overlapping duplicate windows "
    "and observe again.";
constexpr char kNoAccessibility[] =
    "Start the AT-SPI accessibility bus in this desktop session, then retry.";

// The start of an answer, for failure messages.
std::string brief(const Reply& reply) {
    return "status " + std::to_string(reply.status) + ": " + reply.raw.substr(0, 300);
}

// The scope's bounds are the window's as the window system has them: under
// X the window manager's frame of its client window, under sway the
// window's geometry.
void expectScopeIsTheFrame(const Json& scope) {
    EXPECT_EQ(scope["bounds"], windowBounds(scope["window_id"].get<std::uint32_t>()));
}

bool inside(const Json& inner, const Json& outer) {
    double x = inner["x"], y = inner["y"], w = inner["width"], h = inner["height"];
    double X = outer["x"], Y = outer["y"], W = outer["width"], H = outer["height"];
    return x >= X && y >= Y && x + w <= X + W && y + h <= Y + H;
}

class Observation : public ::testing::Test {
protected:
    Fixture fixture;
};

TEST_F(Observation, ContextDescribesTheFixtureWindow) {
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
    const Json& context = result["context"];
    EXPECT_EQ(context["application"], "quorvel-fixture");
    EXPECT_EQ(context["window_title"], "Quorvel Fixture");
    EXPECT_EQ(context["focused_role"], "AXButton");
    EXPECT_EQ(context["focused_value"], "");
    std::string text = context["visible_text"];
    for (const char* known : {"Observation Fixture", "Ada Lovelace", "Count: 0", "Row 1 "})
        EXPECT_NE(text.find(known), std::string::npos) << known;

    // A focused editor's value is reported.
    fixture.command("focus notes");
    Json now = observe()["context"];
    EXPECT_EQ(now["focused_role"], "AXTextArea");
    EXPECT_EQ(now["focused_value"], "First line\nSecond line");
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
    Reply changed = askUntil(request("capture"), [&](const Reply& r) {
        return r.ok() && r.json["result"]["screenshot_hash"] != first["screenshot_hash"];
    }, std::chrono::seconds(10));
    ASSERT_TRUE(changed.ok()) << brief(changed);
    EXPECT_NE(changed.json["result"]["screenshot_hash"], first["screenshot_hash"]);
}

// A scope passes validation while its window is unchanged, and fails once
// the window has moved by a few pixels or been retitled; the new scope
// passes again.
TEST_F(Observation, ScopeValidatesUntilTheWindowMovesOrIsRetitled) {
    const Json escape = {{"kind", "key"}, {"value", "escape"}};
    struct {
        const char* change;
        double dx;
        const char* title;
    } changes[] = {{"move 3 0", 3, "Quorvel Fixture"},
                   {"title Quorvel Fixture, renamed", 0, "Quorvel Fixture, renamed"}};
    for (const auto& c : changes) {
        SCOPED_TRACE(c.change);
        Json seen = observe()["scope"];
        EXPECT_EQ(act(seen, escape)["ok"], true);
        fixture.command(c.change);
        Json now = observeUntil([&](const Json& o) { return o["scope"] != seen; })["scope"];
        EXPECT_EQ(now["window"], c.title);
        Json bounds = seen["bounds"];
        bounds["x"] = bounds["x"].get<double>() + c.dx;
        EXPECT_EQ(now["bounds"], bounds);
        expectScopeIsTheFrame(now);
        EXPECT_EQ(act(seen, escape)["error"], kWindowChanged);
        EXPECT_EQ(act(now, escape)["ok"], true);
    }
}

TEST_F(Observation, NoWindowOrTwoAlikeInFrontAreRefused) {
    struct {
        const char* change;
        const char* error;
        const char* undo;
    } cases[] = {{"second", kNotUnique, "close-second"}, {"iconify", kNoForeground, "present"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.change);
        fixture.command(c.change);
        Reply reply = askUntil(request("observe"), [&](const Reply& r) { return r.error() == c.error; });
        EXPECT_EQ(reply.error(), c.error);
        EXPECT_EQ(reply.status, 1);
        fixture.command(c.undo);
        Json back = observeUntil([](const Json& o) { return o.contains("scope"); });
        EXPECT_EQ(back["scope"]["window"], "Quorvel Fixture");
    }
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

// What each environment lets the bridge find, and that it never starts a
// bus to find it: the whole session; the display alone, whose X root window
// names the accessibility bus (a Wayland display names none, but still
// offers its window images); and no desktop at all, with a session bus
// address that would make libdbus launch one.
TEST_F(Observation, EachEnvironmentFindsWhatItCanAndStartsNothing) {
    const std::vector<std::string> none{"DBUS_SESSION_BUS_ADDRESS=autolaunch:"};
    struct Case {
        const char* name;
        std::optional<std::vector<std::string>> environment;  // nullopt: this session's
        const char* operation;
        std::string answer;  // a part of the answer
    };
    std::vector<Case> cases = {
        {"session", std::nullopt, "capabilities",
         R"("accessibility":true,"clipboard_free_input":true,"platform":"linux","screen_capture":true)"},
        {"no_desktop", none, "capabilities",
         R"({"ok":true,"result":{"accessibility":false,"clipboard_free_input":true,)"
         R"("platform":"linux","screen_capture":false,"version":1}})"},
        {"no_desktop", none, "observe", std::string(R"({"ok":false,"error":")") + kNoAccessibility + "\"}"},
    };
    if (onWayland()) {
        std::vector<std::string> display{std::string("WAYLAND_DISPLAY=") + getenv("WAYLAND_DISPLAY"),
                                         std::string("XDG_RUNTIME_DIR=") + getenv("XDG_RUNTIME_DIR")};
        cases.push_back({"display_alone", display, "capabilities",
                         R"("accessibility":false,"clipboard_free_input":true,"platform":"linux","screen_capture":true)"});
    } else {
        cases.push_back({"display_alone",
                         std::vector<std::string>{std::string("DISPLAY=") + getenv("DISPLAY")},
                         "context", R"("window":"Quorvel Fixture")"});
    }
    for (const auto& c : cases) {
        int before = dbusProcesses();
        std::string text = request(c.operation).dump();
        std::string out = c.environment ? testing::runBridge(text, *c.environment).out
                                        : bridge(request(c.operation)).raw;
        EXPECT_NE(out.find(c.answer), std::string::npos) << c.name << ": " << out.substr(0, 300);
        EXPECT_EQ(dbusProcesses(), before) << c.name;
    }
}

// A Wayland compositor that offers other programs neither a window list nor
// screen capture (Weston, as GNOME's and KDE's do not either): the bridge
// takes the Wayland session for what it is, even with an X display beside
// it (Xwayland's, there), says what it cannot do, and tells the user what
// to do instead.
TEST(LesserCompositor, IsReportedTruthfullyAndRefusedWithWhatToDo) {
    std::string socket = "quorvel-weston-" + std::to_string(getpid());
    pid_t weston = spawn({"weston", "--backend=headless-backend.so", "--socket=" + socket,
                          "--idle-time=0"});
    std::string path = std::string(getenv("XDG_RUNTIME_DIR")) + "/" + socket;
    for (int i = 0; i < 100 && access(path.c_str(), F_OK) != 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    std::vector<std::string> environment = {
        "WAYLAND_DISPLAY=" + socket, std::string("XDG_RUNTIME_DIR=") + getenv("XDG_RUNTIME_DIR"),
        std::string("DBUS_SESSION_BUS_ADDRESS=") + getenv("DBUS_SESSION_BUS_ADDRESS"),
        "DISPLAY=:0"};
    std::string capabilities = testing::runBridge(request("capabilities").dump(), environment).out;
    testing::ProcessResult observed = testing::runBridge(request("observe").dump(), environment);
    kill(weston, SIGTERM);
    waitpid(weston, nullptr, 0);
    EXPECT_EQ(capabilities,
              R"({"ok":true,"result":{"accessibility":false,"clipboard_free_input":true,)"
              R"("platform":"linux","screen_capture":false,"version":1}})");
    EXPECT_EQ(observed.status, 1);
    EXPECT_EQ(Json::parse(observed.out, nullptr, false).value("error", ""),
              "This Wayland compositor tells no other program which window is in front (it "
              "offers no sway IPC); run the bridge in a sway session, or in an X11 session, then "
              "retry.");
}

// An application from Debian that this project did not write.
class RealApplication : public ::testing::Test {
protected:
    void TearDown() override {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }
    pid_t pid_ = spawn({"gtk3-widget-factory"});
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
