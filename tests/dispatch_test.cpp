#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>

#include "bridge/dispatch.h"
#include "scene.h"

namespace quorvel {
namespace {

using fake::FakeDesktop;
using fake::FakeEvent;
using fake::StandardScene;
using testing::act;
using testing::errorOf;
using testing::observedScope;
using testing::request;

struct Refusal {
    const char* name;
    std::string request;
    std::string message;
};

void PrintTo(const Refusal& r, std::ostream* os) { *os << r.name; }

class DispatchRefusal : public ::testing::TestWithParam<Refusal> {};

TEST_P(DispatchRefusal, RefusesWithItsMessageAndPostsNothing) {
    FakeDesktop desktop;
    StandardScene scene(desktop);
    Json scope = observedScope(desktop);
    std::string text = GetParam().request;
    for (size_t at; (at = text.find("$SCOPE")) != std::string::npos;)
        text.replace(at, 6, writeJson(scope));
    desktop.posted.clear();
    EXPECT_EQ(errorOf(request(desktop, text)), GetParam().message);
    EXPECT_TRUE(desktop.posted.empty());
}

const std::string kProtocol = "Unsupported native protocol.";
const std::string kOperation = "Invalid native operation.";
const std::string kTextFields = "Text, expected value and replace flag are required.";

INSTANTIATE_TEST_SUITE_P(
    Table, DispatchRefusal,
    ::testing::Values(
        Refusal{"no_version", R"({"operation":"capabilities"})", kProtocol},
        Refusal{"version_2", R"({"version":2,"operation":"capabilities"})", kProtocol},
        Refusal{"version_as_string", R"({"version":"1","operation":"capabilities"})", kProtocol},
        Refusal{"version_as_boolean", R"({"version":true,"operation":"capabilities"})", kProtocol},
        Refusal{"version_fraction", R"({"version":1.5,"operation":"capabilities"})", kProtocol},
        Refusal{"no_operation", R"({"version":1})", kProtocol},
        Refusal{"operation_not_string", R"({"version":1,"operation":5})", kProtocol},
        Refusal{"version_checked_before_operation", R"({"version":3,"operation":"nonsense"})",
                kProtocol},
        Refusal{"unknown_operation", R"({"version":1,"operation":"nonsense"})", kOperation},
        Refusal{"operation_in_capitals", R"({"version":1,"operation":"ACT"})", kOperation},
        Refusal{"act_without_scope",
                R"({"version":1,"operation":"act","action":{"kind":"key","value":"tab"}})",
                kOperation},
        Refusal{"act_scope_array",
                R"({"version":1,"operation":"act","scope":[],"action":{"kind":"key"}})",
                kOperation},
        Refusal{"act_without_action", R"({"version":1,"operation":"act","scope":$SCOPE})",
                kOperation},
        Refusal{"act_kind_missing",
                R"({"version":1,"operation":"act","scope":$SCOPE,"action":{"value":"tab"}})",
                kOperation},
        Refusal{"act_kind_not_string",
                R"({"version":1,"operation":"act","scope":$SCOPE,"action":{"kind":1}})",
                kOperation},
        Refusal{"unknown_kind_with_valid_scope",
                R"({"version":1,"operation":"act","scope":$SCOPE,"action":{"kind":"drag"}})",
                "Unsupported action."},
        Refusal{"unknown_kind_with_stale_scope",
                R"({"version":1,"operation":"act","scope":{"pid":1},"action":{"kind":"drag"}})",
                "The foreground window changed. Observe again before sending input."},
        Refusal{"key_in_other_case",
                R"({"version":1,"operation":"act","scope":$SCOPE,"action":{"kind":"key","value":"Escape"}})",
                "Unsupported key."},
        Refusal{"key_not_in_table",
                R"({"version":1,"operation":"act","scope":$SCOPE,"action":{"kind":"key","value":"space"}})",
                "Unsupported key."},
        Refusal{"key_value_missing",
                R"({"version":1,"operation":"act","scope":$SCOPE,"action":{"kind":"key"}})",
                "Unsupported key."},
        Refusal{"type_into_without_replace",
                R"({"version":1,"operation":"act","scope":$SCOPE,"action":{"kind":"type_into","x":150,"y":80,"value":"a","expected_value":""}})",
                kTextFields},
        Refusal{"type_replace_not_boolean",
                R"({"version":1,"operation":"act","scope":$SCOPE,"action":{"kind":"type","value":"a","replace":0,"expected_value":""}})",
                kTextFields},
        Refusal{"type_without_expected",
                R"({"version":1,"operation":"act","scope":$SCOPE,"action":{"kind":"type","value":"a","replace":false}})",
                kTextFields},
        Refusal{"type_value_not_string",
                R"({"version":1,"operation":"act","scope":$SCOPE,"action":{"kind":"type","value":1,"replace":false,"expected_value":""}})",
                kTextFields},
        Refusal{"click_without_coordinates",
                R"({"version":1,"operation":"act","scope":$SCOPE,"action":{"kind":"click"}})",
                "Click lies outside the observed window or has an invalid count."},
        Refusal{"type_into_outside_window",
                R"({"version":1,"operation":"act","scope":$SCOPE,"action":{"kind":"type_into","x":5,"y":5,"value":"a","replace":false,"expected_value":""}})",
                "Click lies outside the observed window or has an invalid count."}),
    [](const ::testing::TestParamInfo<Refusal>& info) { return info.param.name; });

TEST(Dispatch, CapabilitiesNeedNoWindowAndAskAccessibilityFirst) {
    FakeDesktop desktop;  // no application at all
    desktop.trusted = true;
    desktop.screenCaptureAllowed = false;
    Response r = respond(desktop, R"({"version":1,"operation":"capabilities","scope":7})");
    EXPECT_EQ(r.body, R"({"ok":true,"result":{"accessibility":true,"clipboard_free_input":true,)"
                      R"("platform":"fake","screen_capture":false,"version":1}})");
    EXPECT_EQ(desktop.calls,
              (std::vector<std::string>{"isProcessTrusted", "preflightScreenCaptureAccess"}));
}

TEST(Dispatch, VersionGivenAsIntegralFloatIsAccepted) {
    FakeDesktop desktop;
    EXPECT_EQ(respond(desktop, R"({"version":1.0,"operation":"capabilities"})").status, 0);
}

TEST(Dispatch, ObservationOperationsReachObserve) {
    for (const char* op : {"context", "observe", "capture"}) {
        FakeDesktop desktop;
        StandardScene scene(desktop);
        Json r = request(desktop, std::string(R"({"version":1,"operation":")") + op + "\"}");
        EXPECT_TRUE(r.at("ok").get<bool>()) << op << ": " << r.dump();
    }
}

TEST(Dispatch, KeyNamesMapToTheirCodesAndFlags) {
    struct Case {
        const char* name;
        std::uint16_t code;
        EventFlags flags;
    };
    for (Case c : {Case{"escape", 53, 0}, Case{"enter", 36, 0}, Case{"tab", 48, 0},
                   Case{"navigate_back", 33, kCGEventFlagMaskCommand}}) {
        FakeDesktop desktop;
        StandardScene scene(desktop);
        Json scope = observedScope(desktop);
        Json r = request(desktop, act(scope, std::string(R"({"kind":"key","value":")") + c.name +
                                                 "\"}"));
        ASSERT_TRUE(r.at("ok").get<bool>()) << r.dump();
        ASSERT_EQ(desktop.posted.size(), 2u) << c.name;
        EXPECT_TRUE(desktop.posted[0].keyDown);
        EXPECT_FALSE(desktop.posted[1].keyDown);
        for (const FakeEvent& e : desktop.posted) {
            EXPECT_EQ(e.keyCode, c.code) << c.name;
            EXPECT_EQ(e.flags, c.flags) << c.name;
        }
    }
}

TEST(Dispatch, ClickCountDefaultsToOneWhenAbsentOrNotAnInteger) {
    for (const char* count : {"", R"(,"count":"2")", R"(,"count":1.5)", R"(,"count":null)"}) {
        FakeDesktop desktop;
        StandardScene scene(desktop);
        Json scope = observedScope(desktop);
        Json r = request(desktop,
                         act(scope, std::string(R"({"kind":"click","x":150,"y":80)") + count + "}"));
        ASSERT_TRUE(r.at("ok").get<bool>()) << count << r.dump();
        EXPECT_EQ(desktop.posted.size(), 2u) << count;
    }
}

TEST(Dispatch, TypeIntoClicksOncePausesThenTypes) {
    FakeDesktop desktop;
    StandardScene scene(desktop);
    fake::ElementId field = desktop.add({{"AXRole", std::string("AXTextField")},
                                         {"AXValue", std::string("old")}});
    scene.focus(field);
    Json scope = observedScope(desktop);
    Json r = request(desktop, act(scope, R"({"kind":"type_into","x":150,"y":80,"value":"new",)"
                                         R"("replace":false,"expected_value":"old"})"));
    ASSERT_TRUE(r.at("ok").get<bool>()) << r.dump();
    ASSERT_EQ(desktop.posted.size(), 4u);
    EXPECT_EQ(desktop.posted[0].kind, FakeEvent::Kind::Mouse);
    EXPECT_EQ(desktop.posted[1].kind, FakeEvent::Kind::Mouse);
    EXPECT_EQ(desktop.posted[2].unicode, u"new");
    EXPECT_EQ(desktop.sleeps, std::vector<double>{0.1});
    // The pause comes after the click's last post and before any key event.
    auto index = [&](auto pred) {
        return std::find_if(desktop.calls.begin(), desktop.calls.end(), pred) -
               desktop.calls.begin();
    };
    auto sleepAt = index([](const std::string& c) { return c == "sleep"; });
    auto firstKey = index([](const std::string& c) { return c.rfind("createKeyboardEvent", 0) == 0; });
    auto secondPost = std::find(desktop.calls.begin() + index([](const std::string& c) {
                                    return c == "post 0";
                                }) + 1,
                                desktop.calls.end(), "post 0") -
                      desktop.calls.begin();
    EXPECT_LT(secondPost, sleepAt);
    EXPECT_LT(sleepAt, firstKey);
}

TEST(Dispatch, ScrollAmountDefaultsToZero) {
    for (const char* amount : {"", R"(,"amount":"9")", R"(,"amount":2.5)"}) {
        FakeDesktop desktop;
        StandardScene scene(desktop);
        desktop.pointer = Point{150, 80};
        Json scope = observedScope(desktop);
        Json r = request(desktop, act(scope, std::string(R"({"kind":"scroll")") + amount + "}"));
        ASSERT_TRUE(r.at("ok").get<bool>()) << r.dump();
        ASSERT_EQ(desktop.posted.size(), 1u);
        EXPECT_EQ(desktop.posted[0].wheel[0], 0) << amount;
    }
}

}  // namespace
}  // namespace quorvel
