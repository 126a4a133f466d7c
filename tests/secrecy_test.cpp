// Password fields are never read: wherever one stands (deep in the tree,
// focused, or focused outside the observed window) and whatever the request,
// its value, title and description are never asked of the desktop, nothing
// is ever written into it, and none of them reaches the response.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "bridge/envelope.h"
#include "scene.h"

namespace quorvel {
namespace {

using fake::ElementId;
using fake::FakeDesktop;
using fake::StandardScene;

const std::string kSecretValue = "correct-horse-battery";
const std::string kSecretTitle = "vault-title-7731";
const std::string kSecretDescription = "vault-description-0458";
constexpr Point kPasswordAt{250, 130};  // inside the password field and the window

struct SecretScene {
    FakeDesktop desktop;
    StandardScene standard{desktop};
    ElementId editor = 0;
    ElementId password = 0;
};

ElementId addPassword(FakeDesktop& desktop, const std::string& role) {
    ElementId password = desktop.add({{"AXRole", role},
                                      {"AXSubrole", std::string("AXSecureTextField")},
                                      {"AXValue", kSecretValue},
                                      {"AXTitle", kSecretTitle},
                                      {"AXDescription", kSecretDescription},
                                      {"AXEnabled", true},
                                      {"AXEditable", true},
                                      {"AXPosition", Point{200, 120}},
                                      {"AXSize", Size{300, 24}}});
    // Writable if anyone asked, so a write would not fail by itself.
    desktop.elements.at(password).valueSettable = true;
    return password;
}

struct Placement {
    const char* name;
    std::function<void(SecretScene&)> build;
};

// The window holds a label, an editor and a group; the placements add the
// password field to that.
void buildBase(SecretScene& s) {
    s.editor = s.desktop.add({{"AXRole", std::string("AXTextField")},
                              {"AXValue", std::string("hello")},
                              {"AXPosition", Point{200, 60}},
                              {"AXSize", Size{300, 24}}});
    s.desktop.pointer = Point{300, 300};
    s.desktop.recognized = {{{0.1, 0.8, 0.3, 0.1}, {{"Sign in", 0.9f}}}};
}

const std::vector<Placement>& placements() {
    static const std::vector<Placement> all{
        {"deep_in_the_tree",
         [](SecretScene& s) {
             buildBase(s);
             s.password = addPassword(s.desktop, "AXTextField");
             ElementId inner = s.desktop.add({{"AXRole", std::string("AXGroup")}});
             ElementId outer = s.desktop.add({{"AXRole", std::string("AXGroup")}});
             s.desktop.setChildren(inner, {s.password});
             s.desktop.setChildren(outer, {inner});
             s.desktop.setChildren(s.standard.window, {s.editor, outer});
             s.standard.focus(s.editor);
         }},
        {"focused",
         [](SecretScene& s) {
             buildBase(s);
             s.password = addPassword(s.desktop, "AXTextField");
             s.desktop.setChildren(s.standard.window, {s.editor, s.password});
             s.standard.focus(s.password);
         }},
        {"focused_text_area_outside_the_window",
         [](SecretScene& s) {
             buildBase(s);
             s.password = addPassword(s.desktop, "AXTextArea");
             s.desktop.setChildren(s.standard.window, {s.editor});
             s.standard.focus(s.password);
         }},
    };
    return all;
}

std::vector<std::string> requests(const Json& scope) {
    using testing::act;
    const std::string at =
        R"("x":)" + std::to_string(kPasswordAt.x) + R"(,"y":)" + std::to_string(kPasswordAt.y);
    std::vector<std::string> all{
        R"({"version":1,"operation":"capabilities"})",
        R"({"version":1,"operation":"context"})",
        R"({"version":1,"operation":"observe"})",
        R"({"version":1,"operation":"capture"})",
        act(scope, R"({"kind":"click",)" + at + "}"),
        act(scope, R"({"kind":"click","count":2,)" + at + "}"),
        act(scope, R"({"kind":"key","value":"enter"})"),
        act(scope, R"({"kind":"scroll","amount":-300})"),
    };
    // The agent may even guess the secret as the expected value.
    for (const std::string& expected : {std::string("hello"), std::string(""), kSecretValue}) {
        for (const char* replace : {"false", "true"}) {
            std::string fields = R"("value":"typed","replace":)" + std::string(replace) +
                                 R"(,"expected_value":")" + expected + "\"";
            all.push_back(act(scope, R"({"kind":"type",)" + fields + "}"));
            all.push_back(act(scope, R"({"kind":"type_into",)" + at + "," + fields + "}"));
        }
    }
    return all;
}

class Secrecy : public ::testing::TestWithParam<Placement> {};

TEST_P(Secrecy, NoOperationReadsWritesOrRevealsThePasswordField) {
    SecretScene scratch;
    GetParam().build(scratch);
    const Json scope = testing::observedScope(scratch.desktop);

    int succeeded = 0;
    for (const std::string& text : requests(scope)) {
        SCOPED_TRACE(text);
        SecretScene s;
        GetParam().build(s);
        Response response = respond(s.desktop, text);
        succeeded += response.status == 0;

        for (const std::string& attribute : s.desktop.readsOf(s.password)) {
            EXPECT_NE(attribute, "AXValue");
            EXPECT_NE(attribute, "AXTitle");
            EXPECT_NE(attribute, "AXDescription");
        }
        const std::string id = std::to_string(s.password);
        for (const std::string& call : s.desktop.calls) {
            EXPECT_NE(call, "isAttributeSettable " + id + " AXValue");
            EXPECT_NE(call, "setAttributeValue " + id + " AXValue");
        }
        for (const std::string& secret : {kSecretValue, kSecretTitle, kSecretDescription})
            EXPECT_EQ(response.body.find(secret), std::string::npos) << response.body;
    }
    // The observations and the plain actions succeed, so the checks above
    // ran over complete answers, not over early refusals.
    EXPECT_GE(succeeded, 8);
}

INSTANTIATE_TEST_SUITE_P(Placements, Secrecy, ::testing::ValuesIn(placements()),
                         [](const ::testing::TestParamInfo<Placement>& info) {
                             return info.param.name;
                         });

}  // namespace
}  // namespace quorvel
