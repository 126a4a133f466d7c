// Clicks and guarded text entry: where a click may land, how text is cut
// into chunks, and the guards in front of typing. The fault matrix covers
// what each failure leaves posted.
#include <gtest/gtest.h>

#include <functional>
#include <limits>

#include "input/input.h"
#include "scene.h"

namespace quorvel {
namespace {

using fake::ElementId;
using fake::FakeDesktop;
using fake::FormScene;
using fake::StandardScene;
using testing::Events;
using testing::failureOf;
using testing::kNoFailure;
using testing::operator+;
using testing::standardScope;
using testing::typed;

TEST(Click, LandsOnlyInsideTheFrameWithACountOfOneOrTwo) {
    constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
    struct Case { const char* name; double x, y; std::int64_t count; bool clicks; };
    // The frame is 100,50 800x600: minimum edges inside, maximum edges outside.
    for (const Case& c : {Case{"inside", 500, 300, 1, true}, Case{"left_edge", 100, 300, 1, true},
                          Case{"top_edge", 500, 50, 2, true}, Case{"right_edge", 900, 300, 1, false},
                          Case{"bottom_edge", 500, 650, 1, false}, Case{"nan_x", kNaN, 300, 1, false},
                          Case{"count_zero", 500, 300, 0, false},
                          Case{"count_three", 500, 300, 3, false}}) {
        SCOPED_TRACE(c.name);
        FakeDesktop desktop;
        StandardScene scene(desktop);
        EXPECT_EQ(failureOf([&] { click(desktop, c.x, c.y, c.count, standardScope()); }),
                  c.clicks ? kNoFailure : msg::kOutside);
        EXPECT_EQ(desktop.posted.size(), c.clicks ? static_cast<size_t>(2 * c.count) : 0u);
    }
}

// Types into the form's focused editor, whose value is "hello".
std::string typeInto(FormScene& s, const std::string& text, bool replace = false,
                     const std::string& expected = "hello") {
    return failureOf([&] { type(s.desktop, text, replace, expected, standardScope()); });
}

TEST(Type, SendsChunksOfAtMost16UnitsWithoutSplittingASurrogatePair) {
    const std::string emoji = "\U0001F600";
    const std::u16string emoji16 = u"\U0001F600";
    struct Case { const char* name; std::string text; std::vector<std::u16string> chunks; };
    for (const Case& c : {
             Case{"sixteen", std::string(16, 'a'), {std::u16string(16, u'a')}},
             Case{"seventeen", std::string(17, 'a'), {std::u16string(16, u'a'), u"a"}},
             Case{"fourteen_and_an_emoji", std::string(14, 'a') + emoji,
                  {std::u16string(14, u'a') + emoji16}},
             Case{"combining_mark_may_be_split", std::string(15, 'a') + "e\u0301",
                  {std::u16string(15, u'a') + u"e", u"\u0301"}},
             Case{"ill_formed_byte_is_a_replacement", "a\xFF" "b", {u"a\uFFFDb"}},
         }) {
        SCOPED_TRACE(c.name);
        FormScene e;
        ASSERT_EQ(typeInto(e, c.text), kNoFailure);
        std::vector<std::u16string> chunks;
        for (size_t i = 0; i < e.desktop.posted.size(); i += 2) {
            const fake::FakeEvent& down = e.desktop.posted[i];
            const fake::FakeEvent& up = e.desktop.posted.at(i + 1);
            EXPECT_TRUE(down.keyDown && !up.keyDown && down.keyCode == 0 && up.keyCode == 0);
            EXPECT_EQ(up.unicode, down.unicode);   // both carry the whole chunk
            EXPECT_FALSE(down.flags || up.flags);  // no flags on text events
            chunks.push_back(down.unicode);
        }
        EXPECT_EQ(chunks, c.chunks);
    }
}

TEST(Type, LengthLimitCountsUtf16UnitsAndComesBeforeTheFocusIsRead) {
    std::string emoji30000;
    for (int i = 0; i < 30000; ++i) emoji30000 += "\U0001F600";
    struct Case { const char* name; std::string text; bool refused; };
    for (const Case& c : {Case{"60001_letters", std::string(60001, 'a'), true},
                          Case{"30000_emoji", emoji30000, false},
                          Case{"30000_emoji_and_a_letter", emoji30000 + "a", true}}) {
        SCOPED_TRACE(c.name);
        FormScene e;
        e.desktop.logCalls = false;  // 60000 units make 7500 events; keep it quick
        EXPECT_EQ(typeInto(e, c.text), c.refused ? msg::kFocusEditor : kNoFailure);
        if (c.refused) {  // before the focus is read: only the validation asked for the application
            EXPECT_EQ(e.desktop.count("createApplicationElement"), 1);
        }
        EXPECT_EQ(e.desktop.posted.size(), c.refused ? 0u : 2 * 3750u);
    }
}

TEST(Type, GuardsRefuseBeforeAnythingIsPosted) {
    struct Case {
        const char* name;
        std::function<void(FormScene&)> arrange;
        std::string expected;
        std::string outcome;
    };
    for (const Case& c : {
             Case{"not_a_text_editor",
                  [](FormScene& s) { s.desktop.set(s.editor, "AXRole", std::string("AXComboBox")); },
                  "hello", msg::kFocusEditor},
             Case{"canonically_equal_value",
                  [](FormScene& s) { s.desktop.set(s.editor, "AXValue", std::string("cafe\u0301")); },
                  "caf\u00E9", kNoFailure},
             Case{"over_long_value",
                  [](FormScene& s) { s.desktop.set(s.editor, "AXValue", std::string(60001, 'o')); },
                  "hello", msg::kReadLimit},
         }) {
        SCOPED_TRACE(c.name);
        FormScene e;
        c.arrange(e);
        EXPECT_EQ(typeInto(e, "!", false, c.expected), c.outcome);
        EXPECT_EQ(e.desktop.postedLog(), c.outcome == kNoFailure ? typed("!") : Events{});
        // The platform hears of the text only once it is going to be typed.
        EXPECT_EQ(e.desktop.prepared,
                  c.outcome == kNoFailure ? std::vector<std::string>{"0 !"} : std::vector<std::string>{});
    }
}

TEST(Type, ReplaceSetsTheValueWhenItCanElseSelectsAllAndTypes) {
    struct Case {
        const char* name;
        AXError queryCode;
        bool settable;
        std::string text;
        Events posted;
        std::vector<std::pair<ElementId, std::string>> set;
        std::vector<std::string> prepared;  // the whole text, before select-all
    };
    const ElementId field = FormScene().editor;
    for (const Case& c : {
             Case{"settable_and_empty", kAXErrorSuccess, true, "", {}, {{field, ""}}, {}},
             Case{"query_fails", kAXErrorFailure, true, "new", testing::kSelectAll + typed("new"), {},
                  {"0 new"}},
             Case{"not_settable_and_empty", kAXErrorSuccess, false, "", testing::kSelectAll, {},
                  {"0 "}},
         }) {
        SCOPED_TRACE(c.name);
        FormScene e;
        e.desktop.elements.at(e.editor).settableCode = c.queryCode;
        e.desktop.elements.at(e.editor).valueSettable = c.settable;
        EXPECT_EQ(typeInto(e, c.text, true), kNoFailure);
        EXPECT_EQ(e.desktop.postedLog(), c.posted);
        EXPECT_EQ(e.desktop.setValues, c.set);
        EXPECT_EQ(e.desktop.prepared, c.prepared);
    }
}

// A backend may refuse to ready its keyboard for a text (another process
// is typing with it): the refusal is its own sentence, and comes before any
// key of the text, select-all included; a text with nothing to post never
// asks.
TEST(Type, AKeyboardThatCannotBeReadiedRefusesBeforeAnyKeyOfTheText) {
    struct Case { const char* name; std::string text; bool replace; std::string outcome; };
    // Typing and replacing by typing are the fault matrix's.
    for (const Case& c : {Case{"clear_by_select_all", "", true, msg::kKeyboardBusy},
                          Case{"nothing_to_post", "", false, kNoFailure}}) {
        SCOPED_TRACE(c.name);
        FormScene e;
        e.desktop.textRefusal = msg::kKeyboardBusy;
        EXPECT_EQ(typeInto(e, c.text, c.replace), c.outcome);
        EXPECT_EQ(e.desktop.postedLog(), Events{});
        EXPECT_EQ(e.desktop.count("prepareText"), c.outcome == kNoFailure ? 0 : 1);
    }
}

}  // namespace
}  // namespace quorvel
