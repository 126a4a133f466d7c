// Typed accessibility reads: every fallback, the password-field rule, the
// complete-read limit and the order of the editable test.
#include <gtest/gtest.h>

#include <ostream>

#include "accessibility/element.h"
#include "scene.h"

namespace quorvel {
namespace {

using fake::Attribute;
using fake::ElementId;
using fake::FakeDesktop;
using testing::failureOf;

const std::string kReadLimit =
    "Native editor exceeds the complete-read limit. Use a scoped browser document reader before "
    "editing.";

// One way an attribute can come back from the platform.
struct Reading {
    const char* name;
    bool present;  // false: the attribute does not exist at all
    AXError code;
    Value value;
    bool isText;     // `string` gives "text"
    bool isElement;  // `element` gives an element
};

void PrintTo(const Reading& r, std::ostream* os) { *os << r.name; }

class Fallback : public ::testing::TestWithParam<Reading> {};

TEST_P(Fallback, ReadsGiveTheTypedValueOrTheirFixedFallback) {
    FakeDesktop desktop;
    ElementId other = desktop.add();
    const Reading& r = GetParam();
    // An element in the value is handed out fresh, so the release check
    // below covers values that the platform handed back with an error too.
    Value value = r.value;
    if (std::holds_alternative<Element>(value)) value = desktop.handle(other);
    if (std::holds_alternative<ElementList>(value)) value = ElementList{desktop.handle(other)};
    ElementId el = desktop.add();
    if (r.present) desktop.set(el, "AXThing", value, r.code);

    Element handle = desktop.handle(el);
    EXPECT_EQ(string(desktop, handle, "AXThing"), r.isText ? "text" : "");
    EXPECT_EQ(element(desktop, handle, "AXThing") != nullptr, r.isElement);
    EXPECT_EQ(std::holds_alternative<std::monostate>(attr(desktop, handle, "AXThing")),
              !r.present || r.code != kAXErrorSuccess ||
                  std::holds_alternative<std::monostate>(r.value));
    EXPECT_EQ(desktop.unreleased(), "");
}

INSTANTIATE_TEST_SUITE_P(
    Table, Fallback,
    ::testing::Values(
        Reading{"text", true, kAXErrorSuccess, std::string("text"), true, false},
        Reading{"element", true, kAXErrorSuccess, Element{}, false, true},
        Reading{"absent", false, kAXErrorSuccess, {}, false, false},
        Reading{"success_without_value", true, kAXErrorSuccess, std::monostate{}, false, false},
        Reading{"number_where_text_expected", true, kAXErrorSuccess, std::int64_t{5}, false, false},
        Reading{"float", true, kAXErrorSuccess, 0.5, false, false},
        Reading{"boolean", true, kAXErrorSuccess, true, false, false},
        Reading{"array_where_element_expected", true, kAXErrorSuccess, ElementList{}, false, false},
        Reading{"unknown_type", true, kAXErrorSuccess, Other{}, false, false},
        Reading{"error_with_text_handed_back", true, kAXErrorCannotComplete, std::string("text"),
                false, false},
        Reading{"error_with_element_handed_back", true, kAXErrorFailure, Element{}, false, false},
        Reading{"error_without_value", true, kAXErrorNoValue, std::monostate{}, false, false}),
    [](const auto& info) { return std::string(info.param.name); });

struct RectCase {
    const char* name;
    std::map<std::string, Attribute> attributes;
    std::optional<Rect> rect;
    std::vector<std::string> reads;
};

void PrintTo(const RectCase& c, std::ostream* os) { *os << c.name; }

class RectRead : public ::testing::TestWithParam<RectCase> {};

TEST_P(RectRead, NeedsAPointAndASizeAndKeepsThemAsRead) {
    FakeDesktop desktop;
    ElementId el = desktop.add();
    for (const auto& [name, a] : GetParam().attributes) desktop.set(el, name, a.value, a.code);
    std::optional<Rect> r = rect(desktop, desktop.handle(el));
    ASSERT_EQ(r.has_value(), GetParam().rect.has_value());
    if (r) {
        EXPECT_EQ(r->x, GetParam().rect->x);
        EXPECT_EQ(r->y, GetParam().rect->y);
        EXPECT_EQ(r->width, GetParam().rect->width);
        EXPECT_EQ(r->height, GetParam().rect->height);
    }
    EXPECT_EQ(desktop.readsOf(el), GetParam().reads);
}

const std::vector<std::string> kBoth{"AXPosition", "AXSize"};
const std::vector<std::string> kPositionOnly{"AXPosition"};

INSTANTIATE_TEST_SUITE_P(
    Table, RectRead,
    ::testing::Values(
        RectCase{"both", {{"AXPosition", {0, Point{1, 2}}}, {"AXSize", {0, Size{3, 4}}}},
                 Rect{1, 2, 3, 4}, kBoth},
        RectCase{"zero_size", {{"AXPosition", {0, Point{1, 2}}}, {"AXSize", {0, Size{0, 0}}}},
                 Rect{1, 2, 0, 0}, kBoth},
        RectCase{"negative_size_unchanged",
                 {{"AXPosition", {0, Point{10, 20}}}, {"AXSize", {0, Size{-3, -4}}}},
                 Rect{10, 20, -3, -4}, kBoth},
        RectCase{"no_size", {{"AXPosition", {0, Point{1, 2}}}}, std::nullopt, kBoth},
        RectCase{"no_position_size_not_read", {{"AXSize", {0, Size{3, 4}}}}, std::nullopt,
                 kPositionOnly},
        RectCase{"position_error", {{"AXPosition", {kAXErrorFailure, Point{1, 2}}},
                                    {"AXSize", {0, Size{3, 4}}}},
                 std::nullopt, kPositionOnly},
        RectCase{"size_error", {{"AXPosition", {0, Point{1, 2}}},
                                {"AXSize", {kAXErrorCannotComplete, Size{3, 4}}}},
                 std::nullopt, kBoth},
        RectCase{"swapped_types", {{"AXPosition", {0, Size{1, 2}}}, {"AXSize", {0, Point{3, 4}}}},
                 std::nullopt, kBoth},
        RectCase{"position_as_text",
                 {{"AXPosition", {0, std::string("1,2")}}, {"AXSize", {0, Size{3, 4}}}},
                 std::nullopt, kBoth}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Bounds, StandardisesTheRectangleWithoutRounding) {
    EXPECT_EQ(writeJson(bounds(Rect{100, 50, -30.5, 20.25})),
              R"({"height":20.25,"width":30.5,"x":69.5,"y":50})");
    EXPECT_EQ(writeJson(bounds(Rect{0.1, 100.5, 7, -0.5})),
              R"({"height":0.5,"width":7,"x":0.1,"y":100})");
}

TEST(Secure, OnlyTheExactSubroleMarksAPasswordField) {
    struct Case {
        std::optional<Value> subrole;
        bool secure;
    };
    for (const Case& c : {Case{std::nullopt, false}, Case{std::string("AXSecureTextField"), true},
                          Case{std::string("axsecuretextfield"), false},
                          Case{std::string("AXSecureTextField "), false},
                          Case{std::string("AXSearchField"), false}, Case{std::int64_t{1}, false}}) {
        FakeDesktop desktop;
        ElementId el = desktop.add();
        if (c.subrole) desktop.set(el, "AXSubrole", *c.subrole);
        EXPECT_EQ(secure(desktop, desktop.handle(el)), c.secure)
            << (c.subrole && std::holds_alternative<std::string>(*c.subrole)
                    ? std::get<std::string>(*c.subrole)
                    : "<no text>");
    }
}

TEST(EditorValue, NeverReadsAPasswordField) {
    FakeDesktop desktop;
    ElementId el = desktop.add({{"AXSubrole", std::string("AXSecureTextField")},
                                {"AXValue", std::string("hunter2")}});
    EXPECT_EQ(editorValue(desktop, desktop.handle(el)), "");
    EXPECT_FALSE(desktop.wasRead(el, "AXValue"));
}

TEST(EditorValue, NonTextOrMissingValuesAreEmpty) {
    FakeDesktop desktop;
    ElementId slider = desktop.add({{"AXValue", 0.5}});
    ElementId none = desktop.add();
    ElementId failing = desktop.add();
    desktop.set(failing, "AXValue", std::string("partial"), kAXErrorCannotComplete);
    EXPECT_EQ(editorValue(desktop, desktop.handle(slider)), "");
    EXPECT_EQ(editorValue(desktop, desktop.handle(none)), "");
    EXPECT_EQ(editorValue(desktop, desktop.handle(failing)), "");
}

TEST(EditorValue, CompleteReadLimitCountsUtf16Units) {
    const std::string emoji = "\U0001F600";  // two UTF-16 units
    struct Case {
        const char* name;
        std::string value;
        bool refused;
    };
    std::string emoji30000;
    for (int i = 0; i < 30000; ++i) emoji30000 += emoji;
    for (const Case& c : {
             Case{"60000_ascii", std::string(60000, 'a'), false},
             Case{"60001_ascii", std::string(60001, 'a'), true},
             Case{"30000_emoji", emoji30000, false},
             Case{"30001_emoji", emoji30000 + emoji, true},
             Case{"59999_ascii_and_an_emoji", std::string(59999, 'a') + emoji, true},
             Case{"59998_ascii_and_an_emoji", std::string(59998, 'a') + emoji, false},
             // 60000 code points of three UTF-8 bytes each: bytes are not the measure.
             Case{"60000_bmp_letters", [] {
                      std::string s;
                      for (int i = 0; i < 60000; ++i) s += "\u20AC";
                      return s;
                  }(),
                  false},
         }) {
        FakeDesktop desktop;
        ElementId el = desktop.add({{"AXValue", c.value}});
        std::string got;
        std::string failure = failureOf([&] { got = editorValue(desktop, desktop.handle(el)); });
        if (c.refused) {
            EXPECT_EQ(failure, kReadLimit) << c.name;
        } else {
            EXPECT_EQ(failure, "<no failure>") << c.name;
            EXPECT_EQ(got, c.value) << c.name;  // returned whole, never truncated
        }
    }
}

struct EditableCase {
    const char* name;
    std::map<std::string, Attribute> attributes;
    bool editable;
    std::vector<std::string> reads;  // what the test reads, in order, before it decides
};

void PrintTo(const EditableCase& c, std::ostream* os) { *os << c.name; }

class EditableTest : public ::testing::TestWithParam<EditableCase> {};

TEST_P(EditableTest, DecidesByTheFirstRuleThatApplies) {
    FakeDesktop desktop;
    ElementId el = desktop.add();
    for (const auto& [name, a] : GetParam().attributes) desktop.set(el, name, a.value, a.code);
    EXPECT_EQ(editable(desktop, desktop.handle(el)), GetParam().editable);
    EXPECT_EQ(desktop.readsOf(el), GetParam().reads);
}

Attribute text(const char* s) { return {kAXErrorSuccess, std::string(s)}; }
Attribute flag(bool b) { return {kAXErrorSuccess, b}; }
const std::vector<std::string> kAllReads{"AXSubrole", "AXRole", "AXEnabled", "AXEditable"};

INSTANTIATE_TEST_SUITE_P(
    Table, EditableTest,
    ::testing::Values(
        EditableCase{"secure_field_decided_before_role",
                     {{"AXRole", text("AXTextField")}, {"AXSubrole", text("AXSecureTextField")},
                      {"AXEditable", flag(true)}},
                     false, {"AXSubrole"}},
        EditableCase{"combo_box_even_when_editable",
                     {{"AXRole", text("AXComboBox")}, {"AXEditable", flag(true)}},
                     false, {"AXSubrole", "AXRole"}},
        EditableCase{"button", {{"AXRole", text("AXButton")}}, false, {"AXSubrole", "AXRole"}},
        EditableCase{"role_in_other_case", {{"AXRole", text("axtextfield")}}, false,
                     {"AXSubrole", "AXRole"}},
        EditableCase{"disabled_text_area",
                     {{"AXRole", text("AXTextArea")}, {"AXEnabled", flag(false)},
                      {"AXEditable", flag(true)}},
                     false, {"AXSubrole", "AXRole", "AXEnabled"}},
        EditableCase{"enabled_but_not_editable",
                     {{"AXRole", text("AXTextArea")}, {"AXEnabled", flag(true)},
                      {"AXEditable", flag(false)}},
                     false, kAllReads},
        EditableCase{"text_field_without_either_flag", {{"AXRole", text("AXTextField")}}, true,
                     kAllReads},
        EditableCase{"editable_not_a_boolean",
                     {{"AXRole", text("AXTextField")}, {"AXEditable", text("no")}}, true,
                     kAllReads},
        EditableCase{"enabled_not_a_boolean",
                     {{"AXRole", text("AXTextField")}, {"AXEnabled", {0, std::int64_t{0}}}}, true,
                     kAllReads},
        EditableCase{"enabled_false_with_an_error_is_unread",
                     {{"AXRole", text("AXTextField")}, {"AXEnabled", {kAXErrorFailure, false}}},
                     true, kAllReads},
        EditableCase{"editable_false_with_an_error_is_unread",
                     {{"AXRole", text("AXTextArea")}, {"AXEditable", {kAXErrorFailure, false}}},
                     true, kAllReads}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace quorvel
