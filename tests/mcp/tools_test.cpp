// The tools against a scripted bridge: which bridge request each call makes,
// what the last observation lends to input, and what is refused before the
// bridge runs at all.
#include <gtest/gtest.h>

#include "mcp/tools.h"
#include "stub_bridge.h"

namespace quorvel::mcp {
namespace {

using testing::formObservation;
using testing::refused;
using testing::ScriptedBridge;
using testing::succeeded;

const Json kDone = {{"input_dispatched", true}, {"server_save_verified", false}};

std::string textOf(const Json& result) { return result.at("content").at(0).at("text").get<std::string>(); }
bool isError(const Json& result) { return result.value("isError", false); }

Json act(const Json& action) {
    return {{"version", 1}, {"operation", "act"}, {"scope", formObservation()["scope"]}, {"action", action}};
}

struct Session {
    ScriptedBridge bridge;
    Tools tools{bridge};
    // One successful observation of the form, numbered 1.
    void observe() {
        bridge.answers.push_back(succeeded(formObservation()));
        ASSERT_FALSE(isError(tools.call("observe", Json::object())));
        bridge.requests.clear();
    }
};

TEST(Tools, ObserveRunsTheBridgesObserveAndReturnsTheViewAndImage) {
    Session s;
    s.bridge.answers.push_back(succeeded(formObservation()));
    Json result = s.tools.call("observe", Json::object());
    EXPECT_EQ(s.bridge.requests, std::vector<Json>{Json::parse(R"({"version":1,"operation":"observe","image":"png"})")});
    ASSERT_EQ(result["content"].size(), 2u);
    EXPECT_TRUE(textOf(result).starts_with("Window \"Form\" of Editor at (100,50) 800x600, observation 1\n"));
    EXPECT_EQ(result["content"][1], Json({{"type", "image"}, {"data", "iVBORw0KGgo="}, {"mimeType", "image/png"}}));
    EXPECT_FALSE(isError(result));

    s.bridge.answers.push_back(succeeded(formObservation()));
    result = s.tools.call("observe", {{"image", false}});
    EXPECT_EQ(s.bridge.requests.back(), Json::parse(R"({"version":1,"operation":"observe"})"));
    EXPECT_EQ(result["content"].size(), 1u);
    EXPECT_NE(textOf(result).find(", observation 2\n"), std::string::npos);
}

// Each input tool, as the agent calls it after one observation, and the one
// bridge request it must make: the last observation's scope, the node's
// centre, the node's observed value as the expected one.
TEST(Tools, InputCallsCarryTheLastObservation) {
    struct Case { const char* tool; Json arguments; Json action; std::string done; };
    for (const Case& c : {
             Case{"click", {{"id", "1:ax-4"}}, {{"kind", "click"}, {"x", 640.5}, {"y", 515}, {"count", 1}},
                  "Clicked 1:ax-4 at (640.5,515). Observe to see the effect."},
             Case{"click", {{"x", 120}, {"y", 80.5}, {"double", true}},
                  {{"kind", "click"}, {"x", 120}, {"y", 80.5}, {"count", 2}},
                  "Double-clicked at (120,80.5). Observe to see the effect."},
             Case{"type_text", {{"id", "1:ax-2"}, {"text", "Lovelace ✓"}, {"replace", false}},
                  {{"kind", "type_into"}, {"x", 350}, {"y", 72.5}, {"value", "Lovelace ✓"},
                   {"replace", false}, {"expected_value", "Ada"}},
                  "Typed 10 characters into 1:ax-2."},
             Case{"type_text", {{"text", "Grace"}, {"replace", true}},
                  {{"kind", "type"}, {"value", "Grace"}, {"replace", true}, {"expected_value", "Ada"}},
                  "Replaced the value of the focused editor."},
             Case{"press_key", {{"key", "navigate_back"}}, {{"kind", "key"}, {"value", "navigate_back"}},
                  "Pressed navigate_back."},
             Case{"scroll", {{"amount", -240}}, {{"kind", "scroll"}, {"amount", -240}}, "Scrolled by -240 pixels."},
         }) {
        SCOPED_TRACE(::testing::Message() << c.tool << " " << c.arguments.dump());
        Session s;
        s.observe();
        s.bridge.answers.push_back(succeeded(kDone));
        Json result = s.tools.call(c.tool, c.arguments);
        EXPECT_EQ(s.bridge.requests, std::vector<Json>{act(c.action)});
        EXPECT_FALSE(isError(result));
        EXPECT_EQ(textOf(result), c.done);
    }
}

TEST(Tools, TheBridgesRefusalComesBackUnchangedAsAToolErrorAndKeepsTheLastObservation) {
    Session s;
    s.observe();
    for (const BridgeAnswer& answer :
         {refused(testing::kWindowChanged), refused("Unsupported key."),
          BridgeAnswer{std::nullopt, "The bridge ended on signal 11 without an answer. Observe the "
                                     "current state before retrying."}}) {
        s.bridge.answers.push_back(answer);
        Json result = s.tools.call("press_key", {{"key", "Enter"}});
        EXPECT_TRUE(isError(result));
        EXPECT_EQ(textOf(result), answer.envelope ? answer.envelope->at("error").get<std::string>() : answer.problem);
    }
    // Nor does a failed or malformed observation.
    s.bridge.answers.push_back(refused("No foreground application. Unlock the desktop."));
    EXPECT_EQ(textOf(s.tools.call("observe", Json::object())), "No foreground application. Unlock the desktop.");
    s.bridge.answers.push_back(succeeded(Json::object()));
    EXPECT_EQ(textOf(s.tools.call("observe", Json::object())),
              "The bridge's observation has no scope or nodes. Observe again.");
    // None of it cost the observation: its ids still work.
    s.bridge.answers.push_back(succeeded(kDone));
    EXPECT_FALSE(isError(s.tools.call("click", {{"id", "1:ax-4"}})));
}

// Calls refused by the server itself: the bridge never runs.
TEST(Tools, RefusesBeforeAnythingRuns) {
    struct Case {
        const char* tool;
        Json arguments;
        std::string sentence;
        bool observed = true;  // after one observation (numbered 1), or before any
    };
    const std::string observeFirst = "Observe the window first: input goes only to an observed window.";
    auto unknown = [](const char* id) {
        return "Unknown node id \"" + std::string(id) + "\". Node ids look like 3:ax-12 and come from the last observation.";
    };
    const std::string needsTarget = "click needs a node id, or x and y.";
    for (const Case& c : {
             Case{"click", {{"id", "1:ax-4"}}, observeFirst, false},
             Case{"type_text", {{"text", "x"}, {"replace", false}}, observeFirst, false},
             Case{"press_key", {{"key", "tab"}}, observeFirst, false},
             Case{"scroll", {{"amount", 10}}, observeFirst, false},
             Case{"click", {{"id", "2:ax-4"}}, unknown("2:ax-4")},
             Case{"click", {{"id", "ax-4"}}, unknown("ax-4")},
             Case{"click", {{"id", "1:ax-99"}}, "Node 1:ax-99 is not in the last observation."},
             Case{"click", {{"id", "1:ax-7"}}, "Node 1:ax-7 has no part inside the window to click."},
             Case{"click", {{"id", "1:ax-6"}}, "Node 1:ax-6 has no part inside the window to click."},
             Case{"click", Json::object(), needsTarget},
             Case{"click", {{"x", 5}}, needsTarget},
             Case{"click", {{"id", 4}}, needsTarget},
             Case{"click", {{"id", "1:ax-4"}, {"double", "yes"}}, "click takes \"double\" as true or false."},
             Case{"type_text", {{"id", "1:ax-4"}, {"text", "x"}, {"replace", false}}, "Node 1:ax-4 is not an editable text field."},
             Case{"type_text", {{"id", "1:ax-3"}, {"text", "x"}, {"replace", true}}, "Node 1:ax-3 is not an editable text field."},
             Case{"type_text", {{"id", "1:ax-2"}, {"text", "x"}},
                  "type_text needs \"text\" (a string) and \"replace\" (true or false), and takes \"id\" as a string."},
             Case{"press_key", {{"key", 13}}, "press_key needs \"key\": escape, enter, tab or navigate_back."},
             Case{"scroll", {{"amount", "10"}}, "scroll needs \"amount\", a whole number of pixels."},
             Case{"scroll", {{"amount", 1.5}}, "scroll needs \"amount\", a whole number of pixels."},
             Case{"observe", {{"image", "png"}}, "observe takes \"image\" as true or false."},
         }) {
        SCOPED_TRACE(::testing::Message() << c.tool << " " << c.arguments.dump());
        Session s;
        if (c.observed) s.observe();
        Json result = s.tools.call(c.tool, c.arguments);
        EXPECT_TRUE(isError(result));
        EXPECT_EQ(textOf(result), c.sentence);
        EXPECT_EQ(s.bridge.requests, std::vector<Json>{});
    }
}

TEST(Tools, IdsOfAnEarlierObservationAreRefused) {
    Session s;
    s.observe();
    s.bridge.answers.push_back(succeeded(formObservation("Grace")));
    s.tools.call("observe", Json::object());
    s.bridge.requests.clear();
    for (const char* tool : {"click", "type_text"}) {
        Json result = s.tools.call(tool, {{"id", "1:ax-2"}, {"text", "x"}, {"replace", false}});
        EXPECT_EQ(textOf(result), "Node 1:ax-2 is from an earlier observation. Observe again.");
    }
    EXPECT_EQ(s.bridge.requests, std::vector<Json>{});
    // The new observation's ids lend its values.
    s.bridge.answers.push_back(succeeded(kDone));
    s.tools.call("type_text", {{"id", "2:ax-2"}, {"text", "x"}, {"replace", false}});
    EXPECT_EQ(s.bridge.requests.at(0)["action"]["expected_value"], "Grace");
}

}  // namespace
}  // namespace quorvel::mcp
