// The dispatcher: protocol checks, the capabilities report, the key table,
// and how "act" requests are decoded.
#include <gtest/gtest.h>

#include <algorithm>

#include "bridge/dispatch.h"
#include "scene.h"

namespace quorvel {
namespace {

using fake::FakeDesktop;
using fake::StandardScene;
using testing::errorOf;
using testing::request;

TEST(Dispatch, RefusesWithItsMessageAndPostsNothing) {
    struct Case {
        const char* name;
        std::string request;  // $SCOPE stands for the observed scope
        const char* message;
    };
    const std::string act = R"({"version":1,"operation":"act","scope":$SCOPE,"action":)";
    for (const Case& c : {
             Case{"no_version", R"({"operation":"capabilities"})", msg::kProtocol},
             Case{"version_2", R"({"version":2,"operation":"capabilities"})", msg::kProtocol},
             Case{"version_as_string", R"({"version":"1","operation":"capabilities"})", msg::kProtocol},
             Case{"version_fraction", R"({"version":1.5,"operation":"capabilities"})", msg::kProtocol},
             Case{"operation_not_string", R"({"version":1,"operation":5})", msg::kProtocol},
             Case{"version_checked_first", R"({"version":3,"operation":"nonsense"})", msg::kProtocol},
             Case{"unknown_operation", R"({"version":1,"operation":"nonsense"})", msg::kOperation},
             Case{"act_without_scope", R"({"version":1,"operation":"act","action":{"kind":"key","value":"tab"}})",
                  msg::kOperation},
             Case{"act_without_action", R"({"version":1,"operation":"act","scope":$SCOPE})", msg::kOperation},
             Case{"act_kind_missing", act + R"({"value":"tab"}})", msg::kOperation},
             Case{"act_kind_not_string", act + R"({"kind":1}})", msg::kOperation},
             Case{"unknown_kind", act + R"({"kind":"drag"}})", msg::kAction},
             Case{"unknown_kind_with_stale_scope",
                  R"({"version":1,"operation":"act","scope":{"pid":1},"action":{"kind":"drag"}})",
                  msg::kChanged},
             Case{"key_in_other_case", act + R"({"kind":"key","value":"Escape"}})", msg::kKey},
             Case{"key_value_missing", act + R"({"kind":"key"}})", msg::kKey},
             Case{"type_into_without_replace",
                  act + R"({"kind":"type_into","x":150,"y":80,"value":"a","expected_value":""}})",
                  msg::kTextFields},
             Case{"type_replace_not_boolean",
                  act + R"({"kind":"type","value":"a","replace":0,"expected_value":""}})", msg::kTextFields},
             Case{"type_without_expected", act + R"({"kind":"type","value":"a","replace":false}})",
                  msg::kTextFields},
             Case{"type_value_not_string",
                  act + R"({"kind":"type","value":1,"replace":false,"expected_value":""}})", msg::kTextFields},
             Case{"click_without_coordinates", act + R"({"kind":"click"}})", msg::kOutside},
             Case{"type_into_outside_window",
                  act + R"({"kind":"type_into","x":5,"y":5,"value":"a","replace":false,"expected_value":""}})",
                  msg::kOutside},
         }) {
        FakeDesktop desktop;
        StandardScene scene(desktop);
        std::string text = c.request;
        for (size_t at; (at = text.find("$SCOPE")) != std::string::npos;)
            text.replace(at, 6, writeJson(testing::standardScope()));
        EXPECT_EQ(errorOf(request(desktop, text)), c.message) << c.name;
        EXPECT_TRUE(desktop.posted.empty()) << c.name;
    }
}

TEST(Dispatch, CapabilitiesNeedNoWindowAndAskAccessibilityFirst) {
    FakeDesktop desktop;  // no application at all
    desktop.screenCaptureAllowed = false;
    Response r = respond(desktop, R"({"version":1.0,"operation":"capabilities","scope":7})");
    EXPECT_EQ(r.body, R"({"ok":true,"result":{"accessibility":true,"clipboard_free_input":true,)"
                      R"("platform":"fake","screen_capture":false,"version":1}})");
    EXPECT_EQ(desktop.calls,
              (std::vector<std::string>{"isProcessTrusted", "preflightScreenCaptureAccess"}));
}

TEST(Dispatch, ActAnswersWithTheFixedResult) {
    FakeDesktop desktop;
    StandardScene scene(desktop);
    Response r = respond(desktop, testing::act(testing::standardScope(), R"({"kind":"key","value":"escape"})"));
    EXPECT_EQ(r.body, R"({"ok":true,"result":{"input_dispatched":true,"server_save_verified":false}})");
    EXPECT_EQ(r.status, 0);
}

TEST(Dispatch, KeyNamesMapToTheirCodesAndFlags) {
    struct Case {
        const char* name;
        std::uint16_t code;
        EventFlags flags;
    };
    for (Case c : {Case{"escape", kVirtualKeyEscape, 0}, Case{"enter", kVirtualKeyReturn, 0},
                   Case{"tab", kVirtualKeyTab, 0},
                   Case{"navigate_back", kVirtualKeyLeftBracket, kCGEventFlagMaskCommand}}) {
        std::optional<KeyChord> chord = keyNamed(c.name);
        ASSERT_TRUE(chord.has_value()) << c.name;
        EXPECT_EQ(chord->code, c.code) << c.name;
        EXPECT_EQ(chord->flags, c.flags) << c.name;
    }
}

TEST(Dispatch, TypeIntoPausesATenthOfASecondBetweenTheClickAndTheTyping) {
    fake::FormScene scene;
    Json r = request(scene.desktop, testing::act(testing::standardScope(),
                                                 R"({"kind":"type_into","x":210,"y":70,"value":"new",)"
                                                 R"("replace":false,"expected_value":"hello"})"));
    ASSERT_EQ(errorOf(r), testing::kSuccess);
    const std::vector<std::string>& calls = scene.desktop.calls;
    EXPECT_EQ(std::count_if(calls.begin(), calls.end(), [](auto& c) { return c.starts_with("sleep"); }), 1);
    auto sleep = std::find(calls.begin(), calls.end(), "sleep 0.1");
    auto lastMouse = std::find(calls.rbegin(), calls.rend(), "createMouseEvent 2");
    auto firstKey = std::find_if(calls.begin(), calls.end(), [](const std::string& c) {
        return c.starts_with("createKeyboardEvent");
    });
    EXPECT_TRUE(lastMouse.base() < sleep && sleep < firstKey);
    EXPECT_EQ(std::count(lastMouse.base(), sleep, "post 0"), 1);  // the click's last event
}

}  // namespace
}  // namespace quorvel
