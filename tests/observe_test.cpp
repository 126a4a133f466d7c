// The three observation operations, through the dispatcher and envelope.
#include <gtest/gtest.h>

#include <functional>
#include <ostream>

#include "observation/observe.h"
#include "scene.h"

namespace quorvel {
namespace {

using fake::ElementId;
using fake::FakeDesktop;
using fake::StandardScene;
using testing::errorOf;
using testing::request;

const std::string kChanged = "The foreground window changed. Observe again before sending input.";
const std::string kReadLimit =
    "Native editor exceeds the complete-read limit. Use a scoped browser document reader before "
    "editing.";
const std::string kScreenPermission =
    "Grant Screen Recording access to Quorvel in macOS System Settings, then retry.";
const char* const kOperations[] = {"context", "observe", "capture"};

Json run(FakeDesktop& desktop, const std::string& operation) {
    return request(desktop, R"({"version":1,"operation":")" + operation + "\"}");
}

std::vector<std::string> keysOf(const Json& object) {
    std::vector<std::string> keys;
    for (const auto& [key, value] : object.items()) keys.push_back(key);
    return keys;
}

TEST(Observe, ContextIsExactlyScopeNodesAndContext) {
    FakeDesktop desktop;
    StandardScene scene(desktop);
    ElementId field = desktop.add({{"AXRole", std::string("AXTextField")},
                                   {"AXValue", std::string("draft")}});
    scene.focus(field);
    Response r = respond(desktop, R"({"version":1,"operation":"context"})");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.body,
              R"({"ok":true,"result":{"context":{"application":"Fake Editor","focused_role":"AXTextField",)"
              R"("focused_value":"draft","visible_text":"Document ","window_title":"Document"},)"
              R"("nodes":[{"actions":["click"],"bounds":{"height":600,"width":800,"x":100,"y":50},)"
              R"("editable":false,"enabled":true,"id":"ax-0","name":"Document","parent_id":null,)"
              R"("role":"AXWindow","value":"","visible":true}],)"
              R"("scope":{"bounds":{"height":600,"width":800,"x":100,"y":50},"pid":4242,)"
              R"("window":"Document","window_id":77}}})");
    EXPECT_EQ(desktop.count("preflightScreenCaptureAccess"), 0);
    EXPECT_EQ(desktop.count("createWindowImage"), 0);
}

TEST(Observe, CaptureHashesWithoutRecognition) {
    FakeDesktop desktop;
    StandardScene scene(desktop);
    desktop.recognized = {{Rect{0, 0, 1, 1}, {{"text", 0.5f}}}};
    Json r = run(desktop, "capture");
    EXPECT_EQ(keysOf(r.at("result")),
              (std::vector<std::string>{"context", "nodes", "ocr_blocks", "scope", "screenshot_hash"}));
    EXPECT_EQ(r.at("result").at("ocr_blocks"), Json::array());
    EXPECT_EQ(r.at("result").at("screenshot_hash").get<std::string>().size(), 64u);
    EXPECT_EQ(desktop.count("recognizeText"), 0);
}

TEST(Observe, ObserveRecognisesOneBlockPerObservation) {
    FakeDesktop desktop;
    StandardScene scene(desktop);
    desktop.recognized = {{Rect{0, 0, 1, 1}, {{"one", 0.5f}}},
                          {Rect{0, 0, 1, 1}, {}},
                          {Rect{0, 0, 1, 1}, {{"two", 0.75f}}}};
    Json result = run(desktop, "observe").at("result");
    ASSERT_EQ(result.at("ocr_blocks").size(), 2u);
    EXPECT_EQ(result.at("ocr_blocks")[1].at("text"), "two");
    EXPECT_EQ(result.at("ocr_blocks")[1].at("screenshot_hash"), result.at("screenshot_hash"));
}

TEST(Observe, FocusedElementFillsTheContext) {
    struct Case {
        const char* name;
        std::function<void(StandardScene&)> arrange;
        std::string role;
        std::string value;
    };
    for (const Case& c : {
             Case{"no_focused_element", [](StandardScene&) {}, "", ""},
             Case{"focus_outside_the_window",
                  [](StandardScene& s) {
                      s.focus(s.desktop.add({{"AXRole", std::string("AXButton")}}));
                  },
                  "AXButton", ""},
             Case{"secure_field",
                  [](StandardScene& s) {
                      s.focus(s.desktop.add({{"AXRole", std::string("AXTextField")},
                                             {"AXSubrole", std::string("AXSecureTextField")},
                                             {"AXValue", std::string("hunter2")}}));
                  },
                  "AXTextField", ""},
             Case{"slider",
                  [](StandardScene& s) {
                      s.focus(s.desktop.add({{"AXRole", std::string("AXSlider")}, {"AXValue", 0.5}}));
                  },
                  "AXSlider", ""},
         }) {
        FakeDesktop desktop;
        StandardScene scene(desktop);
        c.arrange(scene);
        Json r = run(desktop, "context");
        ASSERT_TRUE(r.at("ok").get<bool>()) << c.name << ": " << r.dump();
        EXPECT_EQ(r.at("result").at("context").at("focused_role"), c.role) << c.name;
        EXPECT_EQ(r.at("result").at("context").at("focused_value"), c.value) << c.name;
    }
}

TEST(Observe, ApplicationWithoutNameGivesAnEmptyOne) {
    FakeDesktop desktop;
    StandardScene scene(desktop);
    desktop.frontmost->name.reset();
    EXPECT_EQ(run(desktop, "context").at("result").at("context").at("application"), "");
}

TEST(Observe, OverLongFocusedValueFailsEveryOperation) {
    for (const char* op : kOperations) {
        FakeDesktop desktop;
        StandardScene scene(desktop);
        scene.focus(desktop.add({{"AXValue", std::string(60001, 'x')}}));  // not in the tree
        EXPECT_EQ(errorOf(run(desktop, op)), kReadLimit) << op;
        EXPECT_EQ(desktop.count("createWindowImage"), 0) << op;
        EXPECT_EQ(desktop.unreleased(), "") << op;
    }
}

TEST(Observe, ScanRunsBeforeTheCaptureIsAttempted) {
    FakeDesktop desktop;
    StandardScene scene(desktop);
    desktop.screenCaptureAllowed = false;
    EXPECT_EQ(errorOf(run(desktop, "context")), "<success>");  // context needs no capture
    EXPECT_EQ(errorOf(run(desktop, "capture")), kScreenPermission);
    desktop.setChildren(scene.window, {desktop.add({{"AXValue", std::string(60001, 'x')}})});
    EXPECT_EQ(errorOf(run(desktop, "observe")), kReadLimit);  // the scan's failure comes first
}

TEST(Observe, RecogniserErrorGivesTheGenericMessage) {
    FakeDesktop desktop;
    StandardScene scene(desktop);
    desktop.recognizerError = "no language data";
    EXPECT_EQ(errorOf(run(desktop, "observe")),
              "Native operation failed. Observe the current state before retrying.");
    EXPECT_EQ(errorOf(run(desktop, "capture")), "<success>");
}

struct Change {
    const char* name;
    std::function<void(StandardScene&)> apply;
};

void PrintTo(const Change& c, std::ostream* os) { *os << c.name; }

class ChangedBeforeTheFinalCheck : public ::testing::TestWithParam<Change> {};

// The second foreground resolution is the final check of the observation.
TEST_P(ChangedBeforeTheFinalCheck, FailsEveryOperationWithoutAnObservation) {
    for (const char* op : kOperations) {
        FakeDesktop desktop;
        StandardScene scene(desktop);
        desktop.beforeForeground(2, [&] { GetParam().apply(scene); });
        Response r = respond(desktop, R"({"version":1,"operation":")" + std::string(op) + "\"}");
        EXPECT_EQ(r.body, R"({"ok":false,"error":")" + kChanged + R"("})") << op;
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(desktop.count("isProcessTrusted"), 2) << op;
        EXPECT_EQ(desktop.unreleased(), "") << op;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Table, ChangedBeforeTheFinalCheck,
    ::testing::Values(
        Change{"moved", [](StandardScene& s) { s.moveWindow(0, 1); }},
        Change{"retitled", [](StandardScene& s) { s.retitle("Other"); }},
        Change{"resized",
               [](StandardScene& s) {
                   s.desktop.set(s.window, "AXSize", Size{801, 600});
                   (*s.desktop.windowList)[0].bounds->width = 801;
               }},
        Change{"replaced_by_another_window_of_the_application",
               [](StandardScene& s) {
                   ElementId other = s.desktop.add({{"AXTitle", std::string("Document")},
                                                    {"AXPosition", Point{100, 50}},
                                                    {"AXSize", Size{800, 600}}});
                   s.desktop.set(s.app, "AXFocusedWindow", s.desktop.handle(other));
                   (*s.desktop.windowList)[0].number = std::int64_t{78};
               }},
        Change{"another_application_in_front",
               [](StandardScene& s) {
                   s.desktop.frontmost->pid = 5151;
                   ElementId app = s.desktop.applicationElement(5151);
                   ElementId other = s.desktop.add({{"AXTitle", std::string("Document")},
                                                    {"AXPosition", Point{100, 50}},
                                                    {"AXSize", Size{800, 600}}});
                   s.desktop.set(app, "AXFocusedWindow", s.desktop.handle(other));
                   (*s.desktop.windowList)[0].ownerPID = std::int64_t{5151};
               }}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace quorvel
