// End-to-end input: the bridge, run as the agent runs it, acting on the GTK
// fixture in a virtual desktop through XTest, and every guard in its way.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <cstdlib>
#include <optional>
#include <thread>

#include "input_desktop.h"

namespace quorvel::e2e {
namespace {

constexpr char kFocusEditor[] = "Focus an enabled, writable non-password text editor before typing.";
constexpr char kValueChanged[] = "The editor value changed since observation. Nothing was typed.";
constexpr char kWindowChanged[] = "The foreground window changed. Observe again before sending input.";
constexpr char kOutsideClick[] = "Click lies outside the observed window or has an invalid count.";
constexpr char kPlaceCursor[] = "Place the cursor inside the observed window before native scrolling.";

const std::vector<std::string> kEditorRoles = {"AXTextField", "AXTextArea"};

std::string valueOf(const Json& observation, const std::string& editor) {
    Json record = node(observation, editor, kEditorRoles);
    return record.is_null() ? std::string("<missing>") : record.value("value", "");
}

std::string labelStartingWith(const Json& observation, const std::string& prefix) {
    Json record = nodeStartingWith(observation, prefix);
    return record.is_null() ? std::string("<missing>") : record.value("name", "");
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

TEST_F(Input, TypeIntoTheEntryAppendsThenReplacesThroughItsValue) {
    fixture.command("focus entry");
    Json seen = observe();
    Json entry = node(seen, "Name", kEditorRoles);
    ASSERT_EQ(entry.value("value", ""), "Ada Lovelace");

    EXPECT_EQ(typeInto(seen["scope"], entry, " Byron", false, "Ada Lovelace"), succeeded());
    Json after = observeUntil([](const Json& o) { return valueOf(o, "Name") == "Ada Lovelace Byron"; });
    EXPECT_EQ(valueOf(after, "Name"), "Ada Lovelace Byron");

    EXPECT_EQ(typeInto(after["scope"], entry, "Grace Hopper", true, "Ada Lovelace Byron"), succeeded());
    after = observeUntil([](const Json& o) { return valueOf(o, "Name") == "Grace Hopper"; });
    EXPECT_EQ(valueOf(after, "Name"), "Grace Hopper");
}

TEST_F(Input, ReplacingInAnEditorThatCannotBeSetSelectsAllAndTypes) {
    fixture.command("focus plain");
    Json seen = observe();
    Json plain = node(seen, "Plain editor", kEditorRoles);
    ASSERT_EQ(plain.value("value", ""), "plain text");
    const std::string text = "fresh ñ 漢字 😀";
    EXPECT_EQ(typeInto(seen["scope"], plain, text, true, "plain text"), succeeded());
    Json after = observeUntil([&](const Json& o) { return valueOf(o, "Plain editor") == text; });
    EXPECT_EQ(valueOf(after, "Plain editor"), text);
}

TEST_F(Input, MixedUnicodeTextArrivesWholeAndInOrderTwiceInARow) {
    fixture.command("notes ");
    fixture.command("focus notes");
    const std::string text = mixedText(240, 40, 7);
    Json seen = observe();
    ASSERT_EQ(valueOf(seen, "Notes"), "");
    Json typeText = {{"kind", "type"}, {"value", text}, {"replace", false}, {"expected_value", ""}};
    EXPECT_EQ(act(seen["scope"], typeText), succeeded());
    Json after = observeUntil([&](const Json& o) { return valueOf(o, "Notes") == text; });
    ASSERT_EQ(valueOf(after, "Notes"), text);

    typeText["expected_value"] = text;
    EXPECT_EQ(act(after["scope"], typeText), succeeded());
    after = observeUntil([&](const Json& o) { return valueOf(o, "Notes") == text + text; });
    EXPECT_EQ(valueOf(after, "Notes"), text + text);
}

// Without the window manager's ping, the focused editor itself, read over
// AT-SPI, shows when a keycode may be remapped again.
TEST_F(Input, MixedTextArrivesWholeFromAnApplicationThatIgnoresPings) {
    fixture.command("no-ping");
    fixture.command("notes ");
    fixture.command("focus notes");
    const std::string text = mixedText(240, 40, 11);
    Json seen = observe();
    EXPECT_EQ(act(seen["scope"], {{"kind", "type"}, {"value", text}, {"replace", false}, {"expected_value", ""}}),
              succeeded());
    Json after = observeUntil([&](const Json& o) { return valueOf(o, "Notes") == text; });
    EXPECT_EQ(valueOf(after, "Notes"), text);
}

// More distinct characters than the spare keys hold at once: each key is
// given another character only after the application has handled its
// earlier use.
TEST_F(Input, MoreDistinctCharactersThanSpareKeysArriveWhole) {
    fixture.command("notes ");
    fixture.command("focus notes");
    std::string text;
    for (char32_t c = 0x4E00; c < 0x4E00 + 700; ++c) {
        text += static_cast<char>(0xE0 | (c >> 12));
        text += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        text += static_cast<char>(0x80 | (c & 0x3F));
        if (c % 50 == 49) text += '\n';
    }
    Json seen = observe();
    EXPECT_EQ(act(seen["scope"], {{"kind", "type"}, {"value", text}, {"replace", false}, {"expected_value", ""}}),
              succeeded());
    Json after = observeUntil([&](const Json& o) { return valueOf(o, "Notes") == text; });
    EXPECT_EQ(valueOf(after, "Notes"), text);
}

TEST_F(Input, StaleExpectedValueTypesNothing) {
    fixture.command("focus entry");
    Json seen = observe();
    Json entry = node(seen, "Name", kEditorRoles);
    fixture.command("entry Changed elsewhere");
    EXPECT_EQ(typeInto(seen["scope"], entry, "typed", false, "Ada Lovelace"), refused(kValueChanged));
    Json after = observe();
    EXPECT_EQ(valueOf(after, "Name"), "Changed elsewhere");
    EXPECT_EQ(labelStartingWith(after, "Last key:"), "Last key: none");
}

TEST_F(Input, PasswordEntryIsRefusedAndItsTextNeverShows) {
    const std::string secret = "hunter2-secret";
    fixture.command("password " + secret);
    std::vector<Reply> replies;
    for (const char* operation : {"context", "observe", "capture"})
        replies.push_back(bridge({{"version", 1}, {"operation", operation}}));
    Json seen = replies[0].json["result"];
    Json password;
    for (const Json& record : seen["nodes"])
        if (record["role"] == "AXTextField" && record["name"] != "Name" &&
            record["name"] != "Plain editor")
            password = record;
    ASSERT_FALSE(password.is_null()) << replies[0].raw;
    EXPECT_FALSE(password.value("editable", true));

    Reply typed = actReply(seen["scope"], {{"kind", "type_into"},
                                           {"x", centerX(password)},
                                           {"y", centerY(password)},
                                           {"value", "typed"},
                                           {"replace", false},
                                           {"expected_value", ""}});
    EXPECT_EQ(typed.json, refused(kFocusEditor));
    replies.push_back(typed);
    replies.push_back(bridge({{"version", 1}, {"operation", "context"}}));
    for (const Reply& reply : replies) {
        EXPECT_TRUE(reply.status == 0 || reply.status == 1);
        EXPECT_EQ(reply.raw.find("hunter2"), std::string::npos) << reply.raw;
    }
    EXPECT_EQ(labelStartingWith(replies.back().json["result"], "Last key:"), "Last key: none");
}

TEST_F(Input, ClicksPressButtonsDoubleClicksCountAsOneAndOutsideIsRefused) {
    Json seen = observe();
    Json increment = node(seen, "Increment", {"AXButton"});
    Json scope = seen["scope"];
    EXPECT_EQ(act(scope, {{"kind", "click"}, {"x", centerX(increment)}, {"y", centerY(increment)}}),
              succeeded());
    Json after = observeUntil([](const Json& o) { return labelStartingWith(o, "Count:") == "Count: 1"; });
    EXPECT_EQ(labelStartingWith(after, "Count:"), "Count: 1");

    Json target = node(seen, "Click target");
    EXPECT_EQ(act(scope, {{"kind", "click"}, {"x", centerX(target)}, {"y", centerY(target)}, {"count", 2}}),
              succeeded());
    after = observeUntil([](const Json& o) {
        return labelStartingWith(o, "Last click:").rfind("Last click: double", 0) == 0;
    });
    EXPECT_EQ(labelStartingWith(after, "Last click:").rfind("Last click: double", 0), 0u)
        << labelStartingWith(after, "Last click:");

    double outside = scope["bounds"]["x"].get<double>() + scope["bounds"]["width"].get<double>() + 5;
    EXPECT_EQ(act(scope, {{"kind", "click"}, {"x", outside}, {"y", centerY(increment)}}),
              refused(kOutsideClick));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(labelStartingWith(observe(), "Count:"), "Count: 1");
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
        Json after = observeUntil([&](const Json& o) { return labelStartingWith(o, "Last key:") == key.label; });
        EXPECT_EQ(labelStartingWith(after, "Last key:"), key.label);
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

    EXPECT_EQ(act(scope, {{"kind", "scroll"}, {"amount", -600}}), succeeded());
    Json after = observeUntil([](const Json& o) { return labelStartingWith(o, "Scroll:") != "Scroll: 0"; });
    std::string down = labelStartingWith(after, "Scroll:");
    ASSERT_NE(down, "Scroll: 0");
    int scrolled = std::atoi(down.c_str() + 8);
    EXPECT_GT(scrolled, 0);

    EXPECT_EQ(act(scope, {{"kind", "scroll"}, {"amount", 200}}), succeeded());
    after = observeUntil([&](const Json& o) { return labelStartingWith(o, "Scroll:") != down; });
    EXPECT_LT(std::atoi(labelStartingWith(after, "Scroll:").c_str() + 8), scrolled);

    EXPECT_EQ(pointerPosition(), std::make_pair(x, y));

    std::string before = labelStartingWith(after, "Scroll:");
    movePointer(5, 5);
    EXPECT_EQ(act(scope, {{"kind", "scroll"}, {"amount", -600}}), refused(kPlaceCursor));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(labelStartingWith(observe(), "Scroll:"), before);
}

TEST_F(Input, WindowMovedSinceObservationTypesNothing) {
    Json seen = observe();
    Json entry = node(seen, "Name", kEditorRoles);
    fixture.command("move 30 20");
    Json moved = observeUntil([&](const Json& o) { return o["scope"] != seen["scope"]; });
    ASSERT_NE(moved["scope"], seen["scope"]);
    EXPECT_EQ(typeInto(seen["scope"], entry, "typed", false, "Ada Lovelace"), refused(kWindowChanged));
    Json after = observe();
    EXPECT_EQ(valueOf(after, "Name"), "Ada Lovelace");
    EXPECT_EQ(labelStartingWith(after, "Last key:"), "Last key: none");
}

TEST_F(Input, KeyboardMappingIsRestoredOnceTheBridgeEnds) {
    std::vector<unsigned long> mapping = keyboardMapping();
    fixture.command("focus entry");
    Json seen = observe();
    Json entry = node(seen, "Name", kEditorRoles);
    const std::string text = " ñ 漢字 αβγ 😀";
    EXPECT_EQ(typeInto(seen["scope"], entry, text, false, "Ada Lovelace"), succeeded());
    EXPECT_EQ(keyboardMapping(), mapping);
    Json after = observeUntil([&](const Json& o) { return valueOf(o, "Name") == "Ada Lovelace" + text; });
    EXPECT_EQ(valueOf(after, "Name"), "Ada Lovelace" + text);
}

TEST_F(Input, KeyboardMappingIsRestoredWhenTerminatedWhileTyping) {
    std::vector<unsigned long> mapping = keyboardMapping();
    fixture.command("notes ");
    fixture.command("focus notes");
    Json seen = observe();
    std::string text;
    for (char32_t c = 0x4E00; text.size() < 3 * 1500; ++c) {
        text += static_cast<char>(0xE0 | (c >> 12));
        text += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        text += static_cast<char>(0x80 | (c & 0x3F));
        if (text.size() % 120 == 0) text += '\n';
    }
    Running running = startBridge({{"version", 1},
                                   {"operation", "act"},
                                   {"scope", seen["scope"]},
                                   {"action", {{"kind", "type"}, {"value", text}, {"replace", false}, {"expected_value", ""}}}});
    // Terminate it only once it has changed the mapping.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (keyboardMapping() == mapping && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_NE(keyboardMapping(), mapping) << "the bridge never changed the mapping";
    kill(running.pid, SIGTERM);
    int status = finish(running);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << status;
    EXPECT_EQ(keyboardMapping(), mapping);
}

// Characters come out right whatever the layout: on a German one Y and Z
// swap places and brackets need AltGr; on a Russian one no Latin letter has
// a key, so even select-all borrows a keycode for its A.
class Layouts : public ::testing::TestWithParam<const char*> {
protected:
    void SetUp() override {
        ASSERT_EQ(std::system((std::string("setxkbmap -layout ") + GetParam()).c_str()), 0);
        fixture.emplace();
    }
    void TearDown() override {
        fixture.reset();
        std::system("setxkbmap -layout us");
    }
    std::optional<Fixture> fixture;
};

TEST_P(Layouts, TypeAndReplaceComeOutExactly) {
    std::vector<unsigned long> mapping = keyboardMapping();
    fixture->command("focus entry");
    Json seen = observe();
    const std::string appended = " [yz] Zoë, Привет, 漢字 😀";
    EXPECT_EQ(typeInto(seen["scope"], node(seen, "Name", kEditorRoles), appended, false, "Ada Lovelace"),
              succeeded());
    Json after = observeUntil([&](const Json& o) { return valueOf(o, "Name") == "Ada Lovelace" + appended; });
    EXPECT_EQ(valueOf(after, "Name"), "Ada Lovelace" + appended);

    const std::string replacement = "Quickly, jumpy wizards vex a box: äöü {} Ωμέγα";
    fixture->command("focus plain");
    EXPECT_EQ(typeInto(after["scope"], node(after, "Plain editor", kEditorRoles), replacement, true,
                       "plain text"),
              succeeded());
    after = observeUntil([&](const Json& o) { return valueOf(o, "Plain editor") == replacement; });
    EXPECT_EQ(valueOf(after, "Plain editor"), replacement);
    EXPECT_EQ(keyboardMapping(), mapping);
}

INSTANTIATE_TEST_SUITE_P(Keyboard, Layouts, ::testing::Values("de", "ru"),
                         [](const auto& info) { return std::string(info.param); });

}  // namespace
}  // namespace quorvel::e2e
