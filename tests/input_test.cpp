// Key presses, clicks and guarded text entry: the exact events posted, and
// exactly what was posted before each refusal.
#include <gtest/gtest.h>

#include <functional>
#include <ostream>

#include "input/input.h"
#include "scene.h"

namespace quorvel {
namespace {

using fake::ElementId;
using fake::FakeDesktop;
using fake::StandardScene;
using testing::failureOf;
using testing::standardScope;

using Log = std::vector<std::string>;

const std::string kChanged = "The foreground window changed. Observe again before sending input.";
const std::string kOutside = "Click lies outside the observed window or has an invalid count.";
const std::string kNoMouse = "Unable to create mouse input.";
const std::string kNoKeyboard = "Unable to create keyboard input.";
const std::string kNoText = "Unable to create text input.";
const std::string kFocusEditor = "Focus an enabled, writable non-password text editor before typing.";
const std::string kValueChanged = "The editor value changed since observation. Nothing was typed.";
const std::string kRejected = "The editor rejected text replacement; inspect before retrying.";
const std::string kFocusChanged = "The focused editor changed during input. Inspect before retrying.";
const std::string kReadLimit =
    "Native editor exceeds the complete-read limit. Use a scoped browser document reader before "
    "editing.";

const std::string kDown1 = "mouse down click=1 at 150,80";
const std::string kUp1 = "mouse up click=1 at 150,80";
const std::string kDown2 = "mouse down click=2 at 150,80";
const std::string kUp2 = "mouse up click=2 at 150,80";
const std::string kSelectAllDown = "key 0 down flags=0x100000";
const std::string kSelectAllUp = "key 0 up flags=0x100000";

Log typed(const std::string& chunk) {
    return {"key 0 down text=\"" + chunk + "\"", "key 0 up text=\"" + chunk + "\""};
}
Log operator+(Log a, const Log& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// --- key ----------------------------------------------------------------------

TEST(Key, PostsDownThenUpWithTheFlagsSetOnBoth) {
    struct Case {
        std::uint16_t code;
        EventFlags flags;
        Log posted;
    };
    for (const Case& c : {Case{53, 0, {"key 53 down flags=0x0", "key 53 up flags=0x0"}},
                          Case{0, kCGEventFlagMaskCommand, {kSelectAllDown, kSelectAllUp}},
                          Case{33, kCGEventFlagMaskCommand,
                               {"key 33 down flags=0x100000", "key 33 up flags=0x100000"}}}) {
        FakeDesktop desktop;
        key(desktop, c.code, c.flags);
        EXPECT_EQ(desktop.postedLog(), c.posted);
        EXPECT_EQ(desktop.unreleased(), "");
    }
}

TEST(Key, CreatesBothEventsBeforePostingEither) {
    for (int failing : {1, 2}) {
        FakeDesktop desktop;
        desktop.failEventCreation = {failing};
        EXPECT_EQ(failureOf([&] { key(desktop, 36); }), kNoKeyboard);
        EXPECT_EQ(desktop.postedLog(), Log{}) << "event " << failing;
        EXPECT_EQ(desktop.unreleased(), "");
    }
    FakeDesktop desktop;
    key(desktop, 36);
    EXPECT_EQ(desktop.calls, (Log{"createKeyboardEvent 36 down", "createKeyboardEvent 36 up",
                                  "setFlags 0", "setFlags 0", "post 0", "post 0"}));
}

TEST(Key, NavigateBackThroughTheDispatcherIsCommandLeftBracket) {
    FakeDesktop desktop;
    StandardScene scene(desktop);
    Json r = testing::request(
        desktop, testing::act(standardScope(), R"({"kind":"key","value":"navigate_back"})"));
    EXPECT_EQ(r.dump(), R"({"ok":true,"result":{"input_dispatched":true,"server_save_verified":false}})");
    EXPECT_EQ(desktop.postedLog(), (Log{"key 33 down flags=0x100000", "key 33 up flags=0x100000"}));
}

// --- click --------------------------------------------------------------------

TEST(Click, SingleAndDoubleClicksValidateBeforeEachClick) {
    for (std::int64_t count : {1, 2}) {
        FakeDesktop desktop;
        StandardScene scene(desktop);
        click(desktop, 150, 80, count, standardScope());
        Log expected = count == 1 ? Log{kDown1, kUp1} : Log{kDown1, kUp1, kDown2, kUp2};
        EXPECT_EQ(desktop.postedLog(), expected);
        EXPECT_EQ(desktop.count("isProcessTrusted"), count + 1);
        EXPECT_EQ(desktop.unreleased(), "");
    }
}

TEST(Click, PostsEachDownBeforeItsUpIsCreated) {
    FakeDesktop desktop;
    StandardScene scene(desktop);
    click(desktop, 150, 80, 1, standardScope());
    Log events;
    for (const std::string& c : desktop.calls)
        if (c.rfind("createMouseEvent", 0) == 0 || c.rfind("post", 0) == 0 ||
            c.rfind("setIntegerValueField", 0) == 0)
            events.push_back(c);
    EXPECT_EQ(events, (Log{"createMouseEvent 1", "setIntegerValueField 1 1", "post 0",
                           "createMouseEvent 2", "setIntegerValueField 1 1", "post 0"}));
}

struct Geometry {
    const char* name;
    double x, y;
    std::int64_t count;
    bool clicks;
};

void PrintTo(const Geometry& g, std::ostream* os) { *os << g.name; }

class ClickGeometry : public ::testing::TestWithParam<Geometry> {};

TEST_P(ClickGeometry, MinimumEdgesInsideMaximumEdgesOutside) {
    FakeDesktop desktop;
    StandardScene scene(desktop);  // frame 100,50 800x600
    const Geometry& g = GetParam();
    std::string failure = failureOf([&] { click(desktop, g.x, g.y, g.count, standardScope()); });
    EXPECT_EQ(failure, g.clicks ? "<no failure>" : kOutside);
    if (!g.clicks) {
        EXPECT_EQ(desktop.postedLog(), Log{});
        EXPECT_EQ(desktop.count("isProcessTrusted"), 1);  // refused before any click
    }
}

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

INSTANTIATE_TEST_SUITE_P(
    Table, ClickGeometry,
    ::testing::Values(Geometry{"inside", 500, 300, 1, true},
                      Geometry{"left_edge", 100, 300, 1, true},
                      Geometry{"top_edge", 500, 50, 2, true},
                      Geometry{"top_left_corner", 100, 50, 1, true},
                      Geometry{"just_inside_right_edge", 899.999, 649.999, 1, true},
                      Geometry{"right_edge", 900, 300, 1, false},
                      Geometry{"bottom_edge", 500, 650, 1, false},
                      Geometry{"left_of_window", 99.5, 300, 1, false},
                      Geometry{"nan_x", kNaN, 300, 1, false},
                      Geometry{"nan_y", 500, kNaN, 1, false},
                      Geometry{"infinite_y", 500, kInf, 1, false},
                      Geometry{"count_zero", 500, 300, 0, false},
                      Geometry{"count_negative", 500, 300, -1, false},
                      Geometry{"count_three", 500, 300, 3, false}),
    [](const auto& info) { return std::string(info.param.name); });

struct ClickFault {
    const char* name;
    std::function<void(StandardScene&)> arrange;
    std::string message;
    Log posted;  // what stays posted
};

void PrintTo(const ClickFault& f, std::ostream* os) { *os << f.name; }

class DoubleClickFault : public ::testing::TestWithParam<ClickFault> {};

TEST_P(DoubleClickFault, LeavesExactlyTheEarlierEventsPosted) {
    FakeDesktop desktop;
    StandardScene scene(desktop);
    GetParam().arrange(scene);
    EXPECT_EQ(failureOf([&] { click(desktop, 150, 80, 2, standardScope()); }), GetParam().message);
    EXPECT_EQ(desktop.postedLog(), GetParam().posted);
    EXPECT_EQ(desktop.unreleased(), "");
}

auto changeBeforeValidation(int nth) {
    return [nth](StandardScene& s) { s.desktop.beforeForeground(nth, [&s] { s.moveWindow(1, 0); }); };
}
auto failEvent(int nth) {
    return [nth](StandardScene& s) { s.desktop.failEventCreation = {nth}; };
}

INSTANTIATE_TEST_SUITE_P(
    Table, DoubleClickFault,
    ::testing::Values(
        ClickFault{"first_validation", changeBeforeValidation(1), kChanged, {}},
        ClickFault{"validation_before_first_click", changeBeforeValidation(2), kChanged, {}},
        ClickFault{"validation_before_second_click", changeBeforeValidation(3), kChanged,
                   {kDown1, kUp1}},
        ClickFault{"first_down", failEvent(1), kNoMouse, {}},
        ClickFault{"first_up", failEvent(2), kNoMouse, {kDown1}},
        ClickFault{"second_down", failEvent(3), kNoMouse, {kDown1, kUp1}},
        ClickFault{"second_up", failEvent(4), kNoMouse, {kDown1, kUp1, kDown2}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Click, GeometryUsesTheFrameOfTheFirstValidation) {
    // The window moves after the first validation: the next validation
    // refuses, so the point is never judged against the moved frame.
    FakeDesktop desktop;
    StandardScene scene(desktop);
    desktop.beforeForeground(2, [&] { scene.moveWindow(-60, 0); });
    EXPECT_EQ(failureOf([&] { click(desktop, 850, 80, 1, standardScope()); }), kChanged);
}

// --- type ---------------------------------------------------------------------

// A standard window whose application's focused element is a text field.
struct Editor {
    FakeDesktop desktop;
    StandardScene scene{desktop};
    ElementId field = desktop.add({{"AXRole", std::string("AXTextField")},
                                   {"AXValue", std::string("old")}});
    Editor() { scene.focus(field); }

    std::string type(const std::string& text, bool replace = false,
                     const std::string& expected = "old") {
        return failureOf([&] { quorvel::type(desktop, text, replace, expected, standardScope()); });
    }
};

struct ChunkCase {
    const char* name;
    std::string text;
    std::vector<std::u16string> chunks;
};

void PrintTo(const ChunkCase& c, std::ostream* os) { *os << c.name; }

class Chunking : public ::testing::TestWithParam<ChunkCase> {};

TEST_P(Chunking, SendsAtMost16UnitsWithoutSplittingASurrogatePair) {
    Editor e;
    ASSERT_EQ(e.type(GetParam().text), "<no failure>");
    std::vector<std::u16string> chunks;
    for (size_t i = 0; i < e.desktop.posted.size(); i += 2) {
        const fake::FakeEvent& down = e.desktop.posted[i];
        const fake::FakeEvent& up = e.desktop.posted.at(i + 1);
        EXPECT_TRUE(down.keyDown && !up.keyDown);
        EXPECT_EQ(down.keyCode, 0);
        EXPECT_EQ(up.unicode, down.unicode);  // both carry the whole chunk
        EXPECT_FALSE(down.flags || up.flags);  // no flags on text events
        chunks.push_back(down.unicode);
    }
    EXPECT_EQ(chunks, GetParam().chunks);
    // One validation for the guards, then one before every chunk.
    EXPECT_EQ(e.desktop.count("isProcessTrusted"), 1 + static_cast<int>(chunks.size()));
    EXPECT_EQ(e.desktop.unreleased(), "");
}

const std::string kEmoji = "\U0001F600";
const std::u16string kEmoji16 = u"\U0001F600";

INSTANTIATE_TEST_SUITE_P(
    Table, Chunking,
    ::testing::Values(
        ChunkCase{"empty", "", {}},
        ChunkCase{"sixteen", std::string(16, 'a'), {std::u16string(16, u'a')}},
        ChunkCase{"seventeen", std::string(17, 'a'), {std::u16string(16, u'a'), u"a"}},
        ChunkCase{"thirty_two", std::string(32, 'b'), {std::u16string(16, u'b'), std::u16string(16, u'b')}},
        ChunkCase{"fifteen_and_an_emoji", std::string(15, 'a') + kEmoji,
                  {std::u16string(15, u'a'), kEmoji16}},
        ChunkCase{"fourteen_and_an_emoji", std::string(14, 'a') + kEmoji,
                  {std::u16string(14, u'a') + kEmoji16}},
        ChunkCase{"combining_mark_may_be_split", std::string(15, 'a') + "e\u0301",
                  {std::u16string(15, u'a') + u"e", u"\u0301"}},
        ChunkCase{"ill_formed_byte_is_a_replacement", "a\xFF" "b", {u"a\uFFFDb"}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Type, LengthGuardCountsUtf16UnitsBeforeFocusIsRead) {
    std::string emoji30000;
    for (int i = 0; i < 30000; ++i) emoji30000 += kEmoji;
    struct Case {
        const char* name;
        std::string text;
        bool refused;
    };
    for (const Case& c : {Case{"60000_letters", std::string(60000, 'a'), false},
                          Case{"60001_letters", std::string(60001, 'a'), true},
                          Case{"30000_emoji", emoji30000, false},
                          Case{"30000_emoji_and_a_letter", emoji30000 + "a", true}}) {
        Editor e;
        e.desktop.logCalls = false;  // 60000 letters make 7500 events; keep it quick
        e.desktop.set(e.field, "AXValue", std::string());
        EXPECT_EQ(e.type(c.text, false, ""), c.refused ? kFocusEditor : "<no failure>") << c.name;
        if (c.refused) {
            EXPECT_EQ(e.desktop.count("createApplicationElement"), 1) << c.name;  // only the validation's
            EXPECT_TRUE(e.desktop.posted.empty());
        } else {
            EXPECT_EQ(e.desktop.posted.size(), 2 * 3750u) << c.name;
        }
    }
}

TEST(Type, StaleScopeIsRefusedBeforeTheLengthGuard) {
    Editor e;
    e.scene.retitle("Other");
    EXPECT_EQ(e.type(std::string(60001, 'a')), kChanged);
}

struct GuardCase {
    const char* name;
    std::function<void(Editor&)> arrange;
    std::string expected;
    std::string message;
};

void PrintTo(const GuardCase& c, std::ostream* os) { *os << c.name; }

class TypeGuard : public ::testing::TestWithParam<GuardCase> {};

TEST_P(TypeGuard, RefusesBeforeAnythingIsPosted) {
    Editor e;
    GetParam().arrange(e);
    EXPECT_EQ(e.type("new", false, GetParam().expected), GetParam().message);
    EXPECT_EQ(e.desktop.postedLog(), Log{});
    EXPECT_EQ(e.desktop.unreleased(), "");
}

INSTANTIATE_TEST_SUITE_P(
    Table, TypeGuard,
    ::testing::Values(
        GuardCase{"no_focused_element", [](Editor& e) { e.scene.focus(0); }, "old", kFocusEditor},
        GuardCase{"secure_field",
                  [](Editor& e) { e.desktop.set(e.field, "AXSubrole", std::string("AXSecureTextField")); },
                  "old", kFocusEditor},
        GuardCase{"disabled_text_area",
                  [](Editor& e) {
                      e.desktop.set(e.field, "AXRole", std::string("AXTextArea"));
                      e.desktop.set(e.field, "AXEnabled", false);
                  },
                  "old", kFocusEditor},
        GuardCase{"combo_box_marked_editable",
                  [](Editor& e) {
                      e.desktop.set(e.field, "AXRole", std::string("AXComboBox"));
                      e.desktop.set(e.field, "AXEditable", true);
                  },
                  "old", kFocusEditor},
        GuardCase{"value_differs_in_case", [](Editor&) {}, "Old", kValueChanged},
        GuardCase{"value_differs_in_white_space", [](Editor&) {}, "old ", kValueChanged},
        GuardCase{"over_long_value",
                  [](Editor& e) { e.desktop.set(e.field, "AXValue", std::string(60001, 'o')); }, "old",
                  kReadLimit}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Type, SecureFieldValueIsNeverRead) {
    Editor e;
    e.desktop.set(e.field, "AXSubrole", std::string("AXSecureTextField"));
    EXPECT_EQ(e.type("x"), kFocusEditor);
    EXPECT_FALSE(e.desktop.wasRead(e.field, "AXValue"));
}

TEST(Type, ExpectedValueComparesUnderCanonicalEquivalence) {
    Editor e;
    e.desktop.set(e.field, "AXValue", std::string("cafe\u0301"));
    EXPECT_EQ(e.type("!", false, "caf\u00E9"), "<no failure>");
    EXPECT_EQ(e.desktop.postedLog(), typed("!"));
}

TEST(Type, FocusMovingBeforeTheThirdChunkStopsThere) {
    for (bool lost : {false, true}) {
        Editor e;
        ElementId other = e.desktop.add({{"AXRole", std::string("AXTextField")}});
        // Validations: 1 for the guards, then 2, 3, 4 before chunks 1, 2, 3.
        e.desktop.beforeForeground(4, [&] { e.scene.focus(lost ? 0 : other); });
        EXPECT_EQ(e.type(std::string(40, 'a')), kFocusChanged);
        EXPECT_EQ(e.desktop.postedLog(), typed(std::string(16, 'a')) + typed(std::string(16, 'a')));
        EXPECT_EQ(e.desktop.unreleased(), "");
    }
}

TEST(Type, WindowChangingBeforeAChunkStopsThere) {
    Editor e;
    e.desktop.beforeForeground(3, [&] { e.scene.moveWindow(0, 1); });
    EXPECT_EQ(e.type(std::string(20, 'a')), kChanged);
    EXPECT_EQ(e.desktop.postedLog(), typed(std::string(16, 'a')));
}

TEST(Type, ChunkEventsThatCannotBeCreatedStopTyping) {
    // Events 1 and 2 carry the first chunk; 3 and 4 the second.
    for (int failing : {3, 4}) {
        Editor e;
        e.desktop.failEventCreation = {failing};
        EXPECT_EQ(e.type(std::string(20, 'a')), kNoText);
        EXPECT_EQ(e.desktop.postedLog(), typed(std::string(16, 'a'))) << "event " << failing;
        EXPECT_EQ(e.desktop.unreleased(), "");
    }
}

TEST(Type, ReplaceSetsASettableValueInOneStep) {
    Editor e;
    e.desktop.elements.at(e.field).valueSettable = true;
    EXPECT_EQ(e.type("new text", true), "<no failure>");
    EXPECT_EQ(e.desktop.setValues, (std::vector<std::pair<ElementId, std::string>>{{e.field, "new text"}}));
    EXPECT_EQ(e.desktop.postedLog(), Log{});
    EXPECT_EQ(e.desktop.count("isProcessTrusted"), 1);  // nothing is checked after the set
}

TEST(Type, ReplaceThatTheEditorRejectsPostsNothing) {
    Editor e;
    e.desktop.elements.at(e.field).valueSettable = true;
    e.desktop.elements.at(e.field).setCode = kAXErrorCannotComplete;
    EXPECT_EQ(e.type("new", true), kRejected);
    EXPECT_EQ(e.desktop.postedLog(), Log{});
}

TEST(Type, ReplaceWithoutASettableValueSelectsAllThenTypes) {
    struct Case {
        const char* name;
        AXError queryCode;
        bool settable;
        std::string text;
        Log posted;
    };
    for (const Case& c : {
             Case{"not_settable", kAXErrorSuccess, false, "new",
                  Log{kSelectAllDown, kSelectAllUp} + typed("new")},
             Case{"query_fails", kAXErrorFailure, true, "new",
                  Log{kSelectAllDown, kSelectAllUp} + typed("new")},
             Case{"empty_text", kAXErrorSuccess, false, "", Log{kSelectAllDown, kSelectAllUp}},
         }) {
        Editor e;
        e.desktop.elements.at(e.field).settableCode = c.queryCode;
        e.desktop.elements.at(e.field).valueSettable = c.settable;
        EXPECT_EQ(e.type(c.text, true), "<no failure>") << c.name;
        EXPECT_EQ(e.desktop.postedLog(), c.posted) << c.name;
        EXPECT_TRUE(e.desktop.setValues.empty()) << c.name;
    }
}

TEST(Type, ReplaceWithAnEmptyTextClearsASettableValue) {
    Editor e;
    e.desktop.elements.at(e.field).valueSettable = true;
    EXPECT_EQ(e.type("", true), "<no failure>");
    EXPECT_EQ(e.desktop.setValues, (std::vector<std::pair<ElementId, std::string>>{{e.field, ""}}));
}

TEST(Type, SelectAllThatCannotBeCreatedPostsNothing) {
    for (int failing : {1, 2}) {
        Editor e;
        e.desktop.failEventCreation = {failing};
        EXPECT_EQ(e.type("new", true), kNoKeyboard);
        EXPECT_EQ(e.desktop.postedLog(), Log{});
    }
}

TEST(Type, ChunkAfterSelectAllFailingLeavesTheSelectAllPosted) {
    Editor e;
    e.desktop.beforeForeground(2, [&] { e.scene.retitle("Other"); });
    EXPECT_EQ(e.type("new", true), kChanged);
    EXPECT_EQ(e.desktop.postedLog(), (Log{kSelectAllDown, kSelectAllUp}));
}

TEST(Type, AllKindsAnswerThroughTheDispatcher) {
    Editor e;
    e.desktop.pointer = Point{150, 80};
    for (const char* action : {
             R"({"kind":"click","x":150,"y":80,"count":2})",
             R"({"kind":"type","value":"x","replace":false,"expected_value":"old"})",
             R"({"kind":"type_into","x":150,"y":80,"value":"y","replace":false,"expected_value":"old"})",
             R"({"kind":"key","value":"enter"})",
             R"({"kind":"scroll","amount":-3})",
         }) {
        Response r = respond(e.desktop, testing::act(standardScope(), action));
        EXPECT_EQ(r.body, R"({"ok":true,"result":{"input_dispatched":true,"server_save_verified":false}})")
            << action;
        EXPECT_EQ(e.desktop.unreleased(), "") << action;
    }
    EXPECT_EQ(e.desktop.postedLog(),
              (Log{kDown1, kUp1, kDown2, kUp2} + typed("x") + Log{kDown1, kUp1} + typed("y") +
               Log{"key 36 down flags=0x0", "key 36 up flags=0x0", "scroll pixel wheels=1 delta=-3,0,0"}));
}

}  // namespace
}  // namespace quorvel
