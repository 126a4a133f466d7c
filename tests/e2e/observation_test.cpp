// End-to-end observation: the bridge, run as the agent runs it, describing
// the GTK fixture and a real application in a virtual desktop, and refusing
// what it must refuse.
#include <glib.h>
#include <gtest/gtest.h>
#include <png.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <optional>
#include <regex>
#include <sstream>
#include <thread>

#include "harness.h"
#include "platform/digest.h"
#include "process.h"
#include "unicode/unicode.h"

namespace quorvel::e2e {
namespace {

constexpr char kNoForeground[] = "No foreground application. Unlock the desktop.";
constexpr char kNotUnique[] =
    "The foreground window cannot be identified uniquely. Close overlapping duplicate windows "
    "and observe again.";
constexpr char kNoAccessibility[] =
    "Start the AT-SPI accessibility bus in this desktop session, then retry.";
constexpr char kNoDesktopCapabilities[] =
    R"({"ok":true,"result":{"accessibility":false,"clipboard_free_input":true,)"
    R"("platform":"linux","screen_capture":false,"version":1}})";

class Observation : public ::testing::Test {
protected:
    Fixture fixture;
};

TEST_F(Observation, ContextDescribesTheFixtureWindow) {
    Json result = observe();
    const Json& scope = result["scope"];
    EXPECT_EQ(scope["window"], "Quorvel Fixture");
    EXPECT_EQ(scope["bounds"], windowBounds(scope["window_id"]));

    // The window holds far more than the cap (the scan's order and numbering
    // are the unit tests').
    const Json& nodes = result["nodes"];
    ASSERT_EQ(nodes.size(), 1200u);
    EXPECT_EQ(nodes[0]["role"], "AXWindow");

    struct {
        const char *name, *role, *value;
    } expected[] = {
        {"Name", "AXTextField", "Ada Lovelace"},  {"Plain editor", "AXTextField", "plain text"},
        {"Notes", "AXTextArea", "First line\nSecond line"}, {"Increment", "AXButton", ""},
        {"Reset", "AXButton", ""},  {"Observation Fixture", "AXStaticText", ""},
        {"Count: 0", "AXStaticText", ""},
    };
    for (const auto& e : expected) {
        SCOPED_TRACE(e.name);
        Json record = node(result, e.name, {e.role});
        ASSERT_FALSE(record.is_null());
        bool editable = *e.value != '\0';
        EXPECT_EQ(record["value"], e.value);
        EXPECT_EQ(record["editable"], editable);
        EXPECT_EQ(record["enabled"], true);
        EXPECT_EQ(record["visible"], true);
        EXPECT_TRUE(inside(record["bounds"], scope["bounds"]));
        EXPECT_GT(record["bounds"]["width"].get<double>(), 0);
    }
    const Json& context = result["context"];
    EXPECT_EQ(context["application"], "quorvel-fixture");
    EXPECT_EQ(context["focused_role"], "AXButton");
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
    Json result = observe("observe");
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

// The window's image on request is a PNG of exactly the pixels whose hash
// the same answer reports, at the window's size; the hash stays while the
// window does, and changes with it.
TEST_F(Observation, TheImageIsTheHashedCaptureUntilTheWindowChanges) {
    std::string first;
    for (const char* operation : {"capture", "observe", "capture"}) {
        SCOPED_TRACE(operation);
        Json png = request(operation);
        png["image"] = "png";
        Reply reply = bridge(png);
        ASSERT_TRUE(reply.ok()) << reply.raw.substr(0, 300);
        const Json &result = reply.json["result"], &image = result["image"];
        EXPECT_EQ(image["media_type"], "image/png");
        EXPECT_EQ(result["ocr_blocks"].empty(), operation == std::string("capture"));

        gsize size = 0;
        guchar* file = g_base64_decode(image["data"].get<std::string>().c_str(), &size);
        png_image decoded{};
        decoded.version = PNG_IMAGE_VERSION;
        ASSERT_TRUE(png_image_begin_read_from_memory(&decoded, file, size));
        decoded.format = PNG_FORMAT_BGRA;  // the layout the bridge hashes
        std::vector<std::uint8_t> pixels(PNG_IMAGE_SIZE(decoded));
        ASSERT_TRUE(png_image_finish_read(&decoded, nullptr, pixels.data(), 0, nullptr));
        g_free(file);

        EXPECT_EQ(decoded.width, image["width"].get<unsigned>());
        EXPECT_EQ(decoded.height, image["height"].get<unsigned>());
        EXPECT_EQ(decoded.width, result["scope"]["bounds"]["width"].get<unsigned>());
        EXPECT_EQ(decoded.height, result["scope"]["bounds"]["height"].get<unsigned>());
        EXPECT_EQ(hex(sha256(pixels)), result["screenshot_hash"]);
        if (first.empty()) first = result["screenshot_hash"];
        EXPECT_EQ(result["screenshot_hash"], first);
    }
    fixture.command("label Count: 41");
    Reply changed = askUntil(request("capture"), [&](const Reply& r) {
        return r.ok() && r.json["result"]["screenshot_hash"] != first;
    });
    EXPECT_TRUE(changed.ok()) << changed.raw.substr(0, 300);
    EXPECT_NE(changed.json["result"]["screenshot_hash"], first);
}

TEST_F(Observation, NoWindowOrTwoAlikeInFrontAreRefused) {
    struct {
        const char *change, *error, *undo;
    } cases[] = {{"second", kNotUnique, "close-second"}, {"iconify", kNoForeground, "present"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.change);
        fixture.command(c.change);
        Reply reply = askUntil(request("observe"), [&](const Reply& r) { return r.error() == c.error; });
        EXPECT_EQ(reply.error(), c.error);
        EXPECT_EQ(reply.status, 1);
        fixture.command(c.undo);
        EXPECT_EQ(observeUntil([](const Json& o) { return o.contains("scope"); })["scope"]["window"],
                  "Quorvel Fixture");
    }
}

TEST_F(Observation, AnApplicationThatDoesNotAnswerCostsTheTimeOut) {
    fixture.command("freeze 8");
    auto start = std::chrono::steady_clock::now();
    Reply reply = bridge(request("context"));
    std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    EXPECT_FALSE(reply.ok()) << reply.raw.substr(0, 300);
    EXPECT_EQ(reply.status, 1);
    // One read of the frozen application, at 2 seconds, and some slack.
    EXPECT_LT(took.count(), 5.0);
}

// The processes of D-Bus now running: a bus, or a helper that launches one.
int dbusProcesses() {
    std::istringstream names(shell("ps -eo comm="));
    int count = 0;
    for (std::string name; std::getline(names, name);) count += name.rfind("dbus-", 0) == 0;
    return count;
}

// What each environment lets the bridge find, and that it never starts a
// bus to find it: the whole session; the display alone, whose X root window
// names the accessibility bus (a Wayland display names none, but still
// offers its window images); and no desktop at all, with a session bus
// address that would make libdbus launch one.
TEST_F(Observation, EachEnvironmentFindsWhatItCanAndStartsNothing) {
    std::vector<std::string> session;
    for (char** entry = environ; *entry; ++entry) session.emplace_back(*entry);
    const std::vector<std::string> none{"DBUS_SESSION_BUS_ADDRESS=autolaunch:"};
    struct Case {
        const char* name;
        std::vector<std::string> environment;
        const char* operation;
        std::string answer;  // a part of the answer
    };
    std::vector<Case> cases = {
        {"session", session, "capabilities",
         R"("accessibility":true,"clipboard_free_input":true,"platform":"linux","screen_capture":true)"},
        {"no_desktop", none, "capabilities", kNoDesktopCapabilities},
        {"no_desktop", none, "observe",
         std::string(R"({"ok":false,"error":")") + kNoAccessibility + "\"}"},
    };
    if (onWayland())
        cases.push_back({"display_alone",
                         {std::string("WAYLAND_DISPLAY=") + getenv("WAYLAND_DISPLAY"),
                          std::string("XDG_RUNTIME_DIR=") + getenv("XDG_RUNTIME_DIR")},
                         "capabilities",
                         R"("accessibility":false,"clipboard_free_input":true,"platform":"linux","screen_capture":true)"});
    else
        cases.push_back({"display_alone", {std::string("DISPLAY=") + getenv("DISPLAY")}, "context",
                         R"("window":"Quorvel Fixture")"});
    for (const auto& c : cases) {
        int before = dbusProcesses();
        std::string out = testing::runBridge(request(c.operation).dump(), c.environment).out;
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
        std::this_thread::sleep_for(100ms);
    std::vector<std::string> environment = {
        "WAYLAND_DISPLAY=" + socket, std::string("XDG_RUNTIME_DIR=") + getenv("XDG_RUNTIME_DIR"),
        std::string("DBUS_SESSION_BUS_ADDRESS=") + getenv("DBUS_SESSION_BUS_ADDRESS"),
        "DISPLAY=:0"};
    std::string capabilities = testing::runBridge(request("capabilities").dump(), environment).out;
    testing::ProcessResult observed = testing::runBridge(request("observe").dump(), environment);
    kill(weston, SIGTERM);
    waitpid(weston, nullptr, 0);
    EXPECT_EQ(capabilities, kNoDesktopCapabilities);
    EXPECT_EQ(observed.status, 1);
    EXPECT_EQ(Json::parse(observed.out, nullptr, false).value("error", ""),
              "This Wayland compositor tells no other program which window is in front (it "
              "offers no sway IPC); run the bridge in a sway session, or in an X11 session, then "
              "retry.");
}

// An application from Debian that this project did not write, with
// client-side decorations.
TEST(RealApplication, WidgetFactoryIsObserved) {
    struct Ended {
        pid_t pid;
        ~Ended() { kill(pid, SIGTERM), waitpid(pid, nullptr, 0); }
    } factory{spawn({"gtk3-widget-factory"})};
    Json result = expectSoon("the widget factory", [](const Json& o) {
        return o.contains("context") && o["context"]["application"] == "gtk3-widget-factory";
    }, 30s);
    EXPECT_EQ(result["scope"]["bounds"], windowBounds(result["scope"]["window_id"]));
    EXPECT_EQ(result["scope"]["pid"], factory.pid);
    EXPECT_GT(result["nodes"].size(), 100u);
    for (const char* role : {"AXWindow", "AXButton", "AXCheckBox", "AXTextField", "AXSlider"})
        EXPECT_FALSE(find(result, [&](const Json& n) { return n["role"] == role; }).is_null()) << role;
    EXPECT_GT(observe("observe")["ocr_blocks"].size(), 5u);
}

}  // namespace
}  // namespace quorvel::e2e
