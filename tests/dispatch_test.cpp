// The dispatcher: protocol checks, the capabilities report, and how "act"
// requests are decoded.
#include <gtest/gtest.h>

#include "scene.h"

namespace quorvel {
namespace {

using fake::FakeDesktop;
using fake::StandardScene;
using testing::errorOf;

TEST(Dispatch, RefusesWithItsMessageAndPostsNothing) {
    // $SCOPE stands for the observed scope.
    const std::string act = R"({"version":1,"operation":"act","scope":$SCOPE,"action":)";
    const std::string capabilities = R"(,"operation":"capabilities"})";
    const std::string typeInto = act + R"({"kind":"type_into","value":"a","expected_value":"",)";
    for (const auto& [request, message] : std::vector<std::pair<std::string, const char*>>{
             {R"({"operation":"capabilities"})", msg::kProtocol},
             {R"({"version":"1")" + capabilities, msg::kProtocol},
             {R"({"version":1,"operation":5})", msg::kProtocol},
             {R"({"version":3,"operation":"nonsense"})", msg::kProtocol},  // the version first
             {R"({"version":1,"operation":"nonsense"})", msg::kOperation},
             {R"({"version":1,"operation":"act","action":{"kind":"key","value":"tab"}})", msg::kOperation},
             {R"({"version":1,"operation":"act","scope":$SCOPE})", msg::kOperation},
             {act + R"({"value":"tab"}})", msg::kOperation},
             {act + R"({"kind":1}})", msg::kOperation},
             {act + R"({"kind":"drag"}})", msg::kAction},
             {R"({"version":1,"operation":"act","scope":{"pid":1},"action":{"kind":"drag"}})", msg::kChanged},
             {act + R"({"kind":"key","value":"Escape"}})", msg::kKey},
             {act + R"({"kind":"key"}})", msg::kKey},
             {typeInto + R"("x":150,"y":80}})", msg::kTextFields},  // no "replace"
             {act + R"({"kind":"type","value":"a","replace":0,"expected_value":""}})", msg::kTextFields},
             {act + R"({"kind":"type","value":"a","replace":false}})", msg::kTextFields},
             {act + R"({"kind":"type","value":1,"replace":false,"expected_value":""}})", msg::kTextFields},
             {act + R"({"kind":"click"}})", msg::kOutside},
             {typeInto + R"("x":5,"y":5,"replace":false}})", msg::kOutside},
         }) {
        FakeDesktop desktop;
        StandardScene scene(desktop);
        std::string text = request;
        for (size_t at; (at = text.find("$SCOPE")) != std::string::npos;)
            text.replace(at, 6, writeJson(testing::standardScope()));
        EXPECT_EQ(errorOf(testing::request(desktop, text)), message) << text;
        EXPECT_TRUE(desktop.posted.empty()) << text;
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

}  // namespace
}  // namespace quorvel
