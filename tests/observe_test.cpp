// The three observation operations, through the dispatcher and envelope.
#include <gtest/gtest.h>

#include <functional>

#include "scene.h"

namespace quorvel {
namespace {

using fake::FakeDesktop;
using fake::StandardScene;
using testing::errorOf;

Json run(FakeDesktop& desktop, const std::string& operation) {
    return testing::request(desktop, R"({"version":1,"operation":")" + operation + "\"}");
}

TEST(Observe, ContextIsExactlyScopeNodesAndContext) {
    FakeDesktop desktop;
    StandardScene scene(desktop);
    scene.focus(desktop.add({{"AXRole", std::string("AXTextField")}, {"AXValue", std::string("draft")}}));
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

TEST(Observe, CaptureHashesAndOnlyObserveRecognisesText) {
    for (const std::string operation : {"capture", "observe"}) {
        FakeDesktop desktop;
        StandardScene scene(desktop);
        desktop.recognized = {{Rect{0, 0, 1, 1}, {{"text", 0.5f}}}};
        Json result = run(desktop, operation).at("result");
        std::vector<std::string> keys;
        for (const auto& [key, value] : result.items()) keys.push_back(key);
        EXPECT_EQ(keys, (std::vector<std::string>{"context", "nodes", "ocr_blocks", "scope", "screenshot_hash"}));
        EXPECT_EQ(result.at("screenshot_hash").get<std::string>().size(), 64u);
        EXPECT_EQ(result.at("ocr_blocks").size(), operation == "observe" ? 1u : 0u);
        EXPECT_EQ(desktop.count("recognizeText"), operation == "observe" ? 1 : 0);
    }
}

TEST(Observe, FocusedElementFillsTheContext) {
    struct Case {
        const char* name;
        std::function<void(StandardScene&)> arrange;
        std::string role, value, application;
    };
    for (const Case& c : {
             Case{"no_focused_element_nor_application_name",
                  [](StandardScene& s) { s.desktop.frontmost->name.reset(); }, "", "", ""},
             Case{"focus_outside_the_window",
                  [](StandardScene& s) { s.focus(s.desktop.add({{"AXRole", std::string("AXButton")}})); },
                  "AXButton", "", "Fake Editor"},
         }) {
        FakeDesktop desktop;
        StandardScene scene(desktop);
        c.arrange(scene);
        Json context = run(desktop, "context").at("result").at("context");
        EXPECT_EQ(context.at("focused_role"), c.role) << c.name;
        EXPECT_EQ(context.at("focused_value"), c.value) << c.name;
        EXPECT_EQ(context.at("application"), c.application) << c.name;
    }
}

TEST(Observe, OverLongFocusedValueFailsEveryOperation) {
    for (const char* op : {"context", "observe", "capture"}) {
        FakeDesktop desktop;
        StandardScene scene(desktop);
        scene.focus(desktop.add({{"AXValue", std::string(60001, 'x')}}));  // not in the tree
        EXPECT_EQ(errorOf(run(desktop, op)), msg::kReadLimit) << op;
        EXPECT_EQ(desktop.count("createWindowImage"), 0) << op;
        EXPECT_EQ(desktop.unreleased(), 0) << op;
    }
}

}  // namespace
}  // namespace quorvel
