// How the backend maps what each toolkit reports to one meaning, checked
// without a desktop: a top-level's frame and title, the children that make
// "AXChildren", and the roles and values of text. The end-to-end tests run
// the same rules against the real applications.
#include <gtest/gtest.h>

#include <atspi/atspi-constants.h>

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/atspi/child_filter.h"
#include "platform/linux/window_identity.h"
#include "scripted_facts.h"

namespace quorvel::linux_backend {
namespace {

std::string number(double v) {
    char out[32];
    std::snprintf(out, sizeof out, "%g", v);
    return out;
}

std::string text(const std::optional<ScreenFrame>& f) {
    if (!f) return "none";
    const Rect& r = f->frame;
    std::string rect = number(r.x) + "," + number(r.y) + " " + number(r.width) + "x" +
                       number(r.height);
    return f->scale == 1 ? rect : rect + " @" + number(f->scale);
}

// One window of process 7: client rectangle C, window manager frame insets.
ClientWindow window(std::uint32_t id, Rect client, Insets frame, const char* name = "Doc",
                    std::int64_t pid = 7) {
    ClientWindow w;
    w.id = id;
    w.pid = pid;
    w.viewable = true;
    w.client = client;
    w.frame = frame;
    w.name = name;
    return w;
}

const Insets kDecorated{1, 1, 20, 5};  // openbox: left, right, top, bottom

TEST(WindowIdentity, EveryToolkitsFrameIsTheWholeWindow) {
    const ClientWindow decorated = window(11, {640, 307, 640, 480}, kDecorated);  // F = 639,287 642x505
    struct {
        const char* name;
        std::optional<Extents> extents;
        std::vector<ClientWindow> windows;
        std::string frame;
    } cases[] = {
        // GTK 3 and LibreOffice report the frame, which stays as it is; Qt
        // and Firefox the client area, which grows by that window's
        // decorations (the end-to-end applications prove both), also when
        // it is a little off.
        {"client_area_off_by_one", Extents{641, 307, 640, 480}, {decorated}, "640,287 642x505"},
        // The nearest window decides, not the first.
        {"second_window",
         Extents{100, 120, 400, 300},
         {decorated, window(13, {100, 120, 400, 300}, kDecorated)},
         "99,100 402x325"},
        // A rectangle of no window of the process is reported unchanged; the
        // match then refuses it.
        {"no_window", Extents{5, 5, 50, 50}, {decorated}, "5,5 50x50"},
        {"other_process", Extents{640, 307, 640, 480},
         {window(11, {640, 307, 640, 480}, kDecorated, "Doc", 8)}, "640,307 640x480"},
        {"no_extents", std::nullopt, {decorated}, "none"},
    };
    for (const auto& c : cases) {
        TopLevelFacts facts{c.extents, "Doc", true, 7, false};
        EXPECT_EQ(text(accessibilityFrame(facts, {c.windows, c.windows.front().id})), c.frame)
            << c.name;
    }
}

// GTK 4 gives no position: the frame comes from X only when both sides
// agree on everything else.
TEST(WindowIdentity, AWindowWithoutPositionNeedsEveryPieceOfEvidence) {
    const ClientWindow editor = window(21, {610, 280, 700, 520}, {}, "notes.txt - Text Editor");
    const ClientWindow other = window(22, {0, 0, 300, 200}, {}, "Preferences");
    const Extents inside{0, 0, 690, 510};
    const char* title = "notes.txt - Text Editor";
    struct {
        const char* name;
        std::optional<Extents> extents;
        const char* title;
        bool active;
        std::int64_t pid;
        std::vector<ClientWindow> windows;
        std::uint32_t active_window;
        std::string frame;
    } cases[] = {
        {"agreeing", inside, title, true, 7, {other, editor}, 21, "610,280 700x520"},
        {"decorated", inside, title, true, 7,
         {window(21, {610, 280, 700, 520}, kDecorated, title)}, 21, "609,260 702x545"},
        {"no_extents_at_all", std::nullopt, title, true, 7, {editor}, 21, "610,280 700x520"},
        {"not_active", inside, title, false, 7, {editor}, 21, "none"},
        {"another_window_in_front", inside, title, true, 7, {other, editor}, 22, "none"},
        {"name_of_no_window", inside, "draft - Text Editor", true, 7, {editor}, 21, "none"},
        {"two_windows_of_that_name", inside, title, true, 7,
         {editor, window(23, {0, 0, 700, 520}, {}, title)}, 21, "none"},
        {"another_process", inside, title, true, 8, {editor}, 21, "none"},
        {"larger_than_its_window", Extents{0, 0, 702, 510}, title, true, 7, {editor}, 21, "none"},
        {"far_smaller", Extents{0, 0, 500, 510}, title, true, 7, {editor}, 21, "none"},
        {"unnamed", inside, "", true, 7, {window(21, {610, 280, 700, 520}, {}, "")}, 21, "none"},
    };
    for (const auto& c : cases) {
        TopLevelFacts facts{c.extents, c.title, c.active, c.pid, true};
        EXPECT_EQ(text(accessibilityFrame(facts, {c.windows, c.active_window})), c.frame) << c.name;
    }
}

// A toolkit that scales its windows reports its logical pixels: the scale
// is taken only where it makes AT-SPI's rectangle meet X's as closely as an
// unscaled one must. The first case is what Qt 5 (featherpad,
// QT_SCALE_FACTOR) reported under openbox; the end-to-end applications
// prove GTK 3's frame at 2.
TEST(WindowIdentity, AScaleIsTakenOnlyWhereItMakesBothSidesAgree) {
    const ClientWindow undecorated = window(31, {100, 100, 800, 600}, {});
    struct {
        const char* name;
        Extents extents;
        std::vector<ClientWindow> windows;
        std::string frame;
    } cases[] = {
        {"qt_client_area_at_1.25", {418, 188, 700, 500},
         {window(11, {522, 235, 875, 625}, kDecorated)}, "521.5,215 877x650 @1.25"},
        {"below_one", {125, 125, 1000, 750}, {undecorated}, "100,100 800x600 @0.8"},
        // A scale that is no multiple of 1/40 is the ratio itself.
        {"a_third_more", {100, 100, 700, 500}, {window(11, {133, 133, 931, 665}, {})},
         "133,133 931x665 @1.33"},
        {"just_within", {50, 50, 400, 300}, {window(31, {101.9, 100, 800, 600}, {})},
         "100,100 800x600 @2"},
        // The window it meets decides, not the first of the process.
        {"second_window", {50, 50, 400, 300}, {window(11, {0, 0, 300, 200}, {}), undecorated},
         "100,100 800x600 @2"},
        // A window met unscaled is never scaled, even when another window
        // would agree at some scale.
        {"unscaled_first", {50, 50, 400, 300},
         {window(11, {50, 50, 400, 300}, {}), undecorated}, "50,50 400x300"},
        // Refused: E stays as it is, and the match refuses it.
        {"just_outside", {51, 50, 400, 300}, {undecorated}, "51,50 400x300"},
        {"other_shape", {50, 50, 400, 400}, {undecorated}, "50,50 400x400"},
        {"beyond_the_largest_scale", {20, 20, 160, 120}, {undecorated}, "20,20 160x120"},
        {"other_process", {50, 50, 400, 300}, {window(31, {100, 100, 800, 600}, {}, "Doc", 8)},
         "50,50 400x300"},
        {"no_area", {50, 50, 0, 0}, {undecorated}, "50,50 0x0"},
    };
    for (const auto& c : cases) {
        TopLevelFacts facts{c.extents, "Doc", true, 7, false};
        EXPECT_EQ(text(accessibilityFrame(facts, {c.windows, c.windows.front().id})), c.frame)
            << c.name;
    }
}

TEST(WindowIdentity, OnlyTheUnsavedChangesMarkerLeavesTheTitle) {
    struct { const char* name; const char* title; } cases[] = {
        {"*Untitled 1 - Mousepad", "Untitled 1 - Mousepad"},
        {"notes.txt *", "notes.txt"},
        {"**double", "*double"},
        {"*", ""},
        {"a * b", "a * b"},
        {"notes.txt*", "notes.txt*"},
    };
    for (const auto& c : cases) EXPECT_EQ(windowTitle(c.name), c.title) << c.name;
}

// What a toolkit shows is kept: every end-to-end row sees that. These are
// what it does not show, and the readings that leave it unknown.
TEST(ChildRule, KeepsWhatTheToolkitShows) {
    const StateBits visible = states({ATSPI_STATE_VISIBLE});
    const Extents area{0, 46, 690, 464}, empty{0, 46, 0, 0};
    struct {
        const char* name;
        ChildRule rule;
        std::optional<StateBits> states;
        std::optional<Extents> extents;
        bool kept;
    } cases[] = {
        {"closed_menu_item", ChildRule::Showing, visible, std::nullopt, false},
        {"hidden_qt_widget", ChildRule::Showing, StateBits{0}, std::nullopt, false},
        {"states_unreadable", ChildRule::Showing, std::nullopt, std::nullopt, true},
        {"gtk4_hidden_page", ChildRule::VisibleWithArea, visible, empty, false},
        {"gtk4_not_visible", ChildRule::VisibleWithArea, StateBits{0}, area, false},
        {"gtk4_no_component", ChildRule::VisibleWithArea, visible, std::nullopt, true},
        {"focus_search", ChildRule::All, StateBits{0}, empty, true},
    };
    for (const auto& c : cases) EXPECT_EQ(keepsChild(c.rule, c.states, c.extents), c.kept) << c.name;
}

// An attribute read as text, any failure as "error".
std::string read(ScriptedFacts& facts, const char* attribute) {
    std::string got = outcome(readAttribute(facts, attribute));
    return got.starts_with("error") ? "error" : got;
}

// Word processors and web pages put their text in paragraphs; browsers'
// text areas are entries of several lines.
TEST(TextRoles, ParagraphsAndEntriesCarryTheirText) {
    const std::vector<std::string> text{kTextInterface}, none{};
    const StateBits editable =
        states({ATSPI_STATE_EDITABLE, ATSPI_STATE_FOCUSABLE, ATSPI_STATE_MULTI_LINE});
    // Inside a web page's editable region: editable, but no focus of its own.
    const StateBits inRegion = states({ATSPI_STATE_EDITABLE, ATSPI_STATE_MULTI_LINE});
    const std::string object = "\xEF\xBF\xBC", padding = "\xEF\xBB\xBF";
    struct {
        const char* name;
        int role;
        StateBits states;
        std::optional<std::vector<std::string>> interfaces;
        std::string text;
        std::string axRole, value;
        int textAsked;
        std::optional<std::vector<EmbeddedObject>> embedded = std::nullopt;
        int embeddedAsked = 0;
    } cases[] = {
        {"paragraph_in_editable_region", ATSPI_ROLE_PARAGRAPH, inRegion, text, "In " + object,
         "AXStaticText", "In ", 1},
        {"region_blocks_unreadable", ATSPI_ROLE_SECTION, editable, text, object + object,
         "AXTextArea", "", 1, std::nullopt, 1},
        {"section_in_region", ATSPI_ROLE_SECTION, inRegion, text, "Line", "AXGroup", "error", 0},
        {"plain_section", ATSPI_ROLE_SECTION, 0, text, "Body", "AXGroup", "error", 0},
        {"static_paragraph", ATSPI_ROLE_PARAGRAPH, 0, text, "See " + object + " here", "AXStaticText",
         "See  here", 1},
        {"paragraph_without_text", ATSPI_ROLE_PARAGRAPH, editable, none, "", "paragraph", "error", 0},
        {"interfaces_unreadable", ATSPI_ROLE_PARAGRAPH, editable, std::nullopt, "", "paragraph",
         "error", 0},
        {"editable_document_text", ATSPI_ROLE_DOCUMENT_TEXT, editable, text, "Doc", "AXTextArea",
         "Doc", 1},
        {"document_text_without_text", ATSPI_ROLE_DOCUMENT_TEXT, editable, none, "", "document text",
         "error", 0},
        {"read_only_document_text", ATSPI_ROLE_DOCUMENT_TEXT, 0, text, "Long", "document text",
         "error", 0},
        {"padding_of_its_own", ATSPI_ROLE_ENTRY, editable, std::nullopt, "a" + padding + "b",
         "AXTextArea", "a" + padding + "b", 1},
    };
    for (const auto& c : cases) {
        ScriptedFacts facts;
        facts.roleValue = c.role;
        facts.statesValue = c.states;
        facts.interfacesValue = c.interfaces;
        facts.textValue = c.text;
        facts.embedded = c.embedded;
        EXPECT_EQ(read(facts, "AXRole"), c.axRole) << c.name;
        EXPECT_EQ(read(facts, "AXValue"), c.value) << c.name;
        EXPECT_EQ(facts.times("text"), c.textAsked) << c.name;
        EXPECT_EQ(facts.times("embedded"), c.embeddedAsked) << c.name;
    }
}

// A web page's editable region lists one U+FFFC per block; its value is
// the blocks' text, a line each, with any text of its own where it stands.
TEST(EmbeddedText, BlocksTakeLinesOfTheirOwnAndInlineObjectsStayInPlace) {
    const std::string o = "\xEF\xBF\xBC";
    const int p = ATSPI_ROLE_PARAGRAPH, link = ATSPI_ROLE_LINK, list = ATSPI_ROLE_LIST;
    struct {
        const char* name;
        std::string text;
        std::vector<EmbeddedObject> objects;
        std::string value;
    } cases[] = {
        {"empty_paragraph_between", o + o + o, {{p, "One"}, {p, ""}, {p, "Three"}},
         "One\n\nThree"},
        {"text_before_a_block", "Lead" + o + "tail", {{p, "Block"}}, "Lead\nBlock\ntail"},
        {"link_in_a_line", "See " + o + " here", {{link, "the link"}}, "See the link here"},
        {"inline_after_a_block", o + o, {{p, "One"}, {link, "two"}}, "One\ntwo"},
        {"line_break_of_its_own", o + "\nNext", {{p, "One"}}, "One\nNext"},
        {"multi_line_block", o + o, {{list, "a\nb"}, {p, "c"}}, "a\nb\nc"},
        {"more_characters_than_objects", o + o, {{p, "Only"}}, "Only"},
        {"no_objects", "plain" + o, {}, "plain"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(withEmbeddedText(c.text, c.objects), c.value) << c.name;
}

}  // namespace
}  // namespace quorvel::linux_backend
