// Password fields are never read: wherever one stands (deep in the tree,
// focused, or focused outside the observed window) and whatever the request,
// its value, title and description are never asked of the desktop, nothing
// is ever written into it, and none of them reaches the response. The Linux
// backend's half, where a failed role read must not let a request for the
// text through, is tests/linux/secrecy_test.cpp (LinuxSecrecy).
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "scene.h"

namespace quorvel {
namespace {

using fake::FormScene;

struct Placement {
    const char* name;
    std::function<void(FormScene&)> place;  // the form already holds it inside a group
};

std::vector<std::string> requests(const Json& scope) {
    using testing::act;
    const std::string at = R"("x":)" + std::to_string(FormScene::kInPassword.x) + R"(,"y":)" +
                           std::to_string(FormScene::kInPassword.y);
    std::vector<std::string> all{
        R"({"version":1,"operation":"capabilities"})",
        R"({"version":1,"operation":"context"})",
        R"({"version":1,"operation":"observe"})",
        R"({"version":1,"operation":"capture"})",
        act(scope, R"({"kind":"click","count":2,)" + at + "}"),
        act(scope, R"({"kind":"key","value":"enter"})"),
        act(scope, R"({"kind":"scroll","amount":-300})"),
    };
    // The agent may even guess the secret as the expected value.
    for (const std::string expected : {"hello", "", fake::kSecretValue}) {
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
    FormScene scratch;
    GetParam().place(scratch);
    int succeeded = 0;
    for (const std::string& text : requests(testing::observedScope(scratch.desktop))) {
        SCOPED_TRACE(text);
        FormScene s;
        GetParam().place(s);
        Response response = respond(s.desktop, text);
        succeeded += response.status == 0;

        for (const std::string& attribute : s.desktop.readsOf(s.password))
            EXPECT_TRUE(attribute != "AXValue" && attribute != "AXTitle" &&
                        attribute != "AXDescription")
                << attribute;
        const std::string id = std::to_string(s.password);
        for (const std::string& call : s.desktop.calls) {
            EXPECT_NE(call, "isAttributeSettable " + id + " AXValue");
            EXPECT_NE(call, "setAttributeValue " + id + " AXValue");
        }
        for (const char* secret : {fake::kSecretValue, fake::kSecretTitle, fake::kSecretDescription})
            EXPECT_EQ(response.body.find(secret), std::string::npos) << response.body;
    }
    // The observations and the plain actions succeed, so the checks above
    // ran over complete answers, not over early refusals.
    EXPECT_GE(succeeded, 7);
}

INSTANTIATE_TEST_SUITE_P(
    Placements, Secrecy,
    ::testing::Values(
        Placement{"deep_in_the_tree", [](FormScene&) {}},
        Placement{"focused", [](FormScene& s) { s.standard.focus(s.password); }},
        Placement{"focused_text_area_outside_the_window",
                  [](FormScene& s) {
                      s.desktop.set(s.password, "AXRole", std::string("AXTextArea"));
                      s.desktop.setChildren(s.group, {});
                      s.standard.focus(s.password);
                  }}),
    [](const ::testing::TestParamInfo<Placement>& info) { return info.param.name; });

}  // namespace
}  // namespace quorvel
