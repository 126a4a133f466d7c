// End-to-end input: the bridge, run as the agent runs it, acting on the GTK
// fixture in a virtual desktop through XTest, and every guard in its way.
#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>

#include "harness.h"

namespace quorvel::e2e {
namespace {

constexpr char kFocusEditor[] = "Focus an enabled, writable non-password text editor before typing.";
constexpr char kValueChanged[] = "The editor value changed since observation. Nothing was typed.";

const std::vector<std::string> kEditorRoles = {"AXTextField", "AXTextArea"};

std::string valueOf(const Json& observation, const std::string& editor) {
    Json record = node(observation, editor, kEditorRoles);
    return record.is_null() ? std::string("<missing>") : record.value("value", "");
}

std::string labelStartingWith(const Json& observation, const std::string& prefix) {
    Json record = nodeStartingWith(observation, prefix);
    return record.is_null() ? std::string("<missing>") : record.value("name", "");
}

// The editor's value once it reads `wanted`, or the last one seen.
std::string settledValue(const std::string& editor, const std::string& wanted) {
    return valueOf(observeUntil([&](const Json& o) { return valueOf(o, editor) == wanted; }), editor);
}

// The label starting with `prefix` once `accept` holds for it, or the last one seen.
std::string settledLabel(const std::string& prefix,
                         const std::function<bool(const std::string&)>& accept) {
    Json seen = observeUntil([&](const Json& o) { return accept(labelStartingWith(o, prefix)); });
    return labelStartingWith(seen, prefix);
}

Json typeInto(const Json& scope, const Json& editor, const std::string& text, bool replace,
              const std::string& expected) {
    return act(scope, {{"kind", "type_into"},
                       {"x", centerX(editor)},
                       {"y", centerY(editor)},
                       {"value", text},
                       {"replace", replace},
                       {"expected_value", expected}});
}

Json typeText(const std::string& text, const std::string& expected) {
    return {{"kind", "type"}, {"value", text}, {"replace", false}, {"expected_value", expected}};
}

Json succeeded() { return {{"ok", true}, {"result", {{"input_dispatched", true}, {"server_save_verified", false}}}}; }
Json refused(const std::string& message) { return {{"ok", false}, {"error", message}}; }

// The editor a "type_into" aims at is focused beforehand through the
// fixture: the click of "type_into" then finds it focused however long a
// loaded machine takes to handle the click, which the bridge's fixed pause
// does not wait for.
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
        EXPECT_EQ(act(scope, typeText(c.text, expected)), succeeded());
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
    Json entry = node(seen, "Name", kEditorRoles);
    ASSERT_EQ(valueOf(seen, "Name"), "Ada Lovelace");
    const std::string added = " [yz] Zoë, Привет, αβγ 漢字 😀", appended = "Ada Lovelace" + added;
    EXPECT_EQ(typeInto(seen["scope"], entry, added, false, "Ada Lovelace"), succeeded());
    EXPECT_EQ(keyboardMapping(), mapping);
    EXPECT_EQ(settledValue("Name", appended), appended);

    EXPECT_EQ(typeInto(seen["scope"], entry, "Grace Hopper", true, appended), succeeded());
    EXPECT_EQ(settledValue("Name", "Grace Hopper"), "Grace Hopper");

    const std::string replacement = "Quickly, jumpy wizards vex a box: äöü {} Ωμέγα ñ 漢字 😀";
    fixture->command("focus plain");
    EXPECT_EQ(typeInto(seen["scope"], node(seen, "Plain editor", kEditorRoles), replacement, true,
                       "plain text"),
              succeeded());
    EXPECT_EQ(settledValue("Plain editor", replacement), replacement);
    EXPECT_EQ(keyboardMapping(), mapping);
}

INSTANTIATE_TEST_SUITE_P(Keyboard, Layouts, ::testing::Values("us", "de", "ru"),
                         [](const auto& info) { return std::string(info.param); });

// An observation made stale by a changed value or a moved window: refused,
// and nothing is typed.
TEST_F(Input, AStaleObservationTypesNothing) {
    struct {
        const char* change;
        const char* error;
    } changes[] = {{"entry Changed elsewhere", kValueChanged}, {"move 30 20", kWindowChanged}};
    fixture.command("focus entry");
    for (const auto& c : changes) {
        SCOPED_TRACE(c.change);
        Json seen = observe();
        std::string value = valueOf(seen, "Name");
        fixture.command(c.change);
        observeUntil([&](const Json& o) {
            return o["scope"] != seen["scope"] || valueOf(o, "Name") != value;
        });
        EXPECT_EQ(typeInto(seen["scope"], node(seen, "Name", kEditorRoles), "typed", false, value),
                  refused(c.error));
        Json after = observe();
        EXPECT_EQ(valueOf(after, "Name"), "Changed elsewhere");
        EXPECT_EQ(labelStartingWith(after, "Last key:"), "Last key: none");
    }
}

// The password field, focused and holding text: its own label, no value and
// no actions, typing into it refused, and its text nowhere in any answer.
TEST_F(Input, PasswordEntryIsRefusedAndItsTextNeverShows) {
    fixture.command("password hunter2-secret");
    fixture.command("focus password");
    std::vector<Reply> replies;
    for (const char* operation : {"context", "observe", "capture"})
        replies.push_back(bridge(request(operation)));
    Json seen = replies[0].json["result"];
    Json password = node(seen, "Authentication field");
    ASSERT_FALSE(password.is_null()) << replies[0].raw;
    EXPECT_EQ(password["role"], "AXTextField");
    EXPECT_EQ(password["value"], "");
    EXPECT_EQ(password["editable"], false);
    EXPECT_EQ(password["actions"], Json::array());
    EXPECT_EQ(seen["context"]["focused_role"], "AXTextField");
    EXPECT_EQ(seen["context"]["focused_value"], "");

    Json typing = {{"kind", "type_into"}, {"x", centerX(password)}, {"y", centerY(password)},
                   {"value", "typed"},    {"replace", false},      {"expected_value", ""}};
    replies.push_back(bridge(actRequest(seen["scope"], typing)));
    EXPECT_EQ(replies.back().json, refused(kFocusEditor));
    replies.push_back(bridge(request("context")));
    for (const Reply& reply : replies) {
        EXPECT_TRUE(reply.status == 0 || reply.status == 1);
        EXPECT_EQ(reply.raw.find("hunter2"), std::string::npos) << reply.raw;
    }
    EXPECT_EQ(labelStartingWith(replies.back().json["result"], "Last key:"), "Last key: none");
}

TEST_F(Input, ClicksPressButtonsAndDoubleClicksCountAsOne) {
    Json seen = observe();
    Json increment = node(seen, "Increment", {"AXButton"});
    Json scope = seen["scope"];
    EXPECT_EQ(act(scope, {{"kind", "click"}, {"x", centerX(increment)}, {"y", centerY(increment)}}),
              succeeded());
    EXPECT_EQ(settledLabel("Count:", [](const std::string& l) { return l == "Count: 1"; }), "Count: 1");

    Json target = node(seen, "Click target");
    EXPECT_EQ(act(scope, {{"kind", "click"}, {"x", centerX(target)}, {"y", centerY(target)}, {"count", 2}}),
              succeeded());
    auto isDouble = [](const std::string& l) { return l.rfind("Last click: double", 0) == 0; };
    EXPECT_PRED1(isDouble, settledLabel("Last click:", isDouble));
}

TEST_F(Input, NamedKeysReachTheApplicationAndBackIsAltLeft) {
    struct {
        const char* name;
        const char* label;
    } keys[] = {{"escape", "Last key: Escape"},
                {"tab", "Last key: Tab"},
                {"enter", "Last key: Return"},
                {"navigate_back", "Last key: Alt+Left"}};
    Json scope = observe()["scope"];
    for (const auto& key : keys) {
        EXPECT_EQ(act(scope, {{"kind", "key"}, {"value", key.name}}), succeeded()) << key.name;
        EXPECT_EQ(settledLabel("Last key:", [&](const std::string& l) { return l == key.label; }), key.label);
    }
}

TEST_F(Input, ScrollMovesTheListUnderThePointerAndNeverThePointer) {
    Json seen = observe();
    Json rows = node(seen, "Rows");
    ASSERT_FALSE(rows.is_null());
    Json scope = seen["scope"];
    // The visible part of the list: its left edge, inside the window.
    int x = static_cast<int>(rows["bounds"]["x"].get<double>()) + 40;
    int y = static_cast<int>(scope["bounds"]["y"].get<double>() + scope["bounds"]["height"].get<double>() / 2);
    movePointer(x, y);
    auto offset = [](const std::string& label) { return std::atoi(label.c_str() + 8); };  // "Scroll: N"

    EXPECT_EQ(act(scope, {{"kind", "scroll"}, {"amount", -600}}), succeeded());
    std::string down = settledLabel("Scroll:", [](const std::string& l) { return l != "Scroll: 0"; });
    ASSERT_GT(offset(down), 0) << down;

    EXPECT_EQ(act(scope, {{"kind", "scroll"}, {"amount", 200}}), succeeded());
    std::string up = settledLabel("Scroll:", [&](const std::string& l) { return l != down; });
    EXPECT_LT(offset(up), offset(down));
    EXPECT_EQ(pointerPosition(), std::make_pair(x, y));
}

}  // namespace
}  // namespace quorvel::e2e
