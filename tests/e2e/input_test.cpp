// End-to-end input: the bridge, run as the agent runs it, acting on the GTK
// fixture in a virtual desktop, and every guard in its way.
#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <tuple>

#include "harness.h"

namespace quorvel::e2e {
namespace {

constexpr char kFocusEditor[] = "Focus an enabled, writable non-password text editor before typing.";

Json editorNamed(const Json& observation, const std::string& name) {
    return node(observation, name, {"AXTextField", "AXTextArea"});
}

std::string label(const Json& observation, const std::string& prefix) {
    Json record = find(observation, [&](const Json& n) { return n.value("name", "").rfind(prefix, 0) == 0; });
    return record.is_null() ? std::string("<missing>") : record.value("name", "");
}

// The editor's value once it reads `wanted`, or the last one seen.
std::string settledValue(const std::string& editor, const std::string& wanted) {
    return valueOf(observeUntil([&](const Json& o) { return valueOf(o, editor) == wanted; }), editor);
}

// "type_into" at the centre of `editor`. The tests focus the editor
// beforehand through the fixture: the click then finds it focused however
// long a loaded machine takes to handle the click, which the bridge's fixed
// pause does not wait for.
Reply typeInto(const Json& scope, const Json& editor, const std::string& text, bool replace,
               const std::string& expected) {
    Json action = typing(text, expected, replace);
    action.update({{"kind", "type_into"}, {"x", centerX(editor)}, {"y", centerY(editor)}});
    return act(scope, action);
}

const Json kSucceeded = {{"ok", true},
                         {"result", {{"input_dispatched", true}, {"server_save_verified", false}}}};

class Input : public ::testing::Test {
protected:
    Fixture fixture;  // a fresh window in front for every test
};

struct NotesCase {
    const char* name;
    bool noPing;
    std::string text;
    int times;
};

class NotesTyping : public ::testing::TestWithParam<NotesCase> {
protected:
    Fixture fixture;
};

// Every character of the text arrives in the text view, in order, each time
// it is typed.
TEST_P(NotesTyping, EveryCharacterArrivesInOrder) {
    const NotesCase& c = GetParam();
    if (c.noPing && onWayland()) GTEST_SKIP() << kOnlyX << "window manager's ping";
    if (c.noPing) fixture.command("no-ping");
    fixture.command("notes ");
    fixture.command("focus notes");
    Json scope = observe()["scope"];
    std::string expected;
    for (int i = 0; i < c.times; ++i) {
        EXPECT_EQ(act(scope, typing(c.text, expected)).json, kSucceeded);
        expected += c.text;
        ASSERT_EQ(settledValue("Notes", expected), expected) << "typing " << i + 1;
    }
}

// Without the window manager's ping, the focused editor itself, read over
// AT-SPI, shows when a keycode may be remapped again. With more distinct
// characters than the spare keys hold at once, each key is given another
// character only after the application has handled its earlier use.
INSTANTIATE_TEST_SUITE_P(
    Texts, NotesTyping,
    ::testing::Values(NotesCase{"mixed_twice_in_a_row", false, mixedText(240, 40, 7), 2},
                      NotesCase{"mixed_without_pings", true, mixedText(240, 40, 11), 1},
                      NotesCase{"more_distinct_than_spare_keys", false, ideographs(700, 50), 1}),
    [](const auto& info) { return std::string(info.param.name); });

// Characters come out right whatever the layout: on a German one Y and Z
// swap places and brackets need AltGr; on a Russian one no Latin letter has
// a key, so even select-all borrows a keycode for its A. Each layout types
// into the entry, replaces its value through accessibility, and replaces
// the text of an editor whose value cannot be set (select-all, then
// typing); the keyboard mapping is restored once the bridge ends.
class Layouts : public ::testing::TestWithParam<const char*> {
protected:
    void SetUp() override {
        // The bridge's Wayland keyboard has a keymap of its own for every
        // text (tests/linux/wayland_test.cpp): the user's layout never
        // takes part.
        if (onWayland()) GTEST_SKIP() << kOnlyX << "shared keyboard layout to switch";
        ASSERT_EQ(std::system((std::string("setxkbmap -layout ") + GetParam()).c_str()), 0);
        fixture.emplace();
    }
    void TearDown() override {
        if (!fixture) return;
        fixture.reset();
        std::system("setxkbmap -layout us");
    }
    std::optional<Fixture> fixture;
};

TEST_P(Layouts, TypeAndReplaceComeOutExactly) {
    std::vector<unsigned long> mapping = keyboardMapping();
    fixture->command("focus entry");
    Json seen = observe();
    Json entry = editorNamed(seen, "Name");
    const std::string appended = "Ada Lovelace [yz] Zoë, Привет, αβγ 漢字 😀";
    EXPECT_EQ(typeInto(seen["scope"], entry, appended.substr(12), false, "Ada Lovelace").json, kSucceeded);
    EXPECT_EQ(keyboardMapping(), mapping);
    EXPECT_EQ(settledValue("Name", appended), appended);

    EXPECT_EQ(typeInto(seen["scope"], entry, "Grace Hopper", true, appended).json, kSucceeded);
    EXPECT_EQ(settledValue("Name", "Grace Hopper"), "Grace Hopper");

    const std::string replacement = "Quickly, jumpy wizards vex a box: äöü {} Ωμέγα ñ 漢字 😀";
    fixture->command("focus plain");
    EXPECT_EQ(typeInto(seen["scope"], editorNamed(seen, "Plain editor"), replacement, true, "plain text").json,
              kSucceeded);
    EXPECT_EQ(settledValue("Plain editor", replacement), replacement);
    EXPECT_EQ(keyboardMapping(), mapping);
}

INSTANTIATE_TEST_SUITE_P(Keyboard, Layouts, ::testing::Values("us", "de", "ru"),
                         [](const auto& info) { return std::string(info.param); });

// The password field, focused and holding text: its own label, no value and
// no actions, typing into it refused (bridge() checks that no answer holds
// its text).
TEST_F(Input, PasswordEntryIsRefusedAndItsTextNeverShows) {
    fixture.command(std::string("password ") + kSecret + "-secret");
    fixture.command("focus password");
    observe("observe");
    observe("capture");
    Json seen = observe();
    Json password = node(seen, "Authentication field", {"AXTextField"});
    ASSERT_FALSE(password.is_null()) << values(seen);
    EXPECT_EQ(std::tuple(password["value"], password["editable"], password["actions"]),
              std::tuple("", false, Json::array()));
    EXPECT_EQ(seen["context"]["focused_value"], "");
    EXPECT_EQ(typeInto(seen["scope"], password, "typed", false, "").error(), kFocusEditor);
    EXPECT_EQ(label(observe(), "Last key:"), "Last key: none");
}

TEST_F(Input, ADoubleClickCountsAsOne) {
    Json seen = observe();
    EXPECT_EQ(act(seen["scope"], clickAt(node(seen, "Click target"), 2)).json, kSucceeded);
    expectSoon("a double click", [](const Json& o) { return label(o, "Last click:") == "Last click: double"; });
}

TEST_F(Input, NamedKeysReachTheApplicationAndBackIsAltLeft) {
    struct {
        const char *name, *label;
    } keys[] = {{"escape", "Last key: Escape"},
                {"tab", "Last key: Tab"},
                {"enter", "Last key: Return"},
                {"navigate_back", "Last key: Alt+Left"}};
    Json scope = observe()["scope"];
    for (const auto& key : keys) {
        EXPECT_EQ(act(scope, {{"kind", "key"}, {"value", key.name}}).json, kSucceeded) << key.name;
        expectSoon(key.label, [&](const Json& o) { return label(o, "Last key:") == key.label; });
    }
}

}  // namespace
}  // namespace quorvel::e2e
