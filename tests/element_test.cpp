// Typed accessibility reads: every fallback, the password-field rule, the
// complete-read limit and the order of the editable test.
#include <gtest/gtest.h>

#include <tuple>

#include "accessibility/element.h"
#include "scene.h"

namespace quorvel {
namespace {

using fake::Attribute;
using fake::ElementId;
using fake::FakeDesktop;
using testing::failureOf;
using testing::kNoFailure;

using Reads = std::vector<std::string>;

// A value of another type, or one handed back with an error code, reads as
// the fallback: no text, no element.
TEST(Read, ReadsGiveTheTypedValueOrTheirFixedFallback) {
    struct Case {
        const char* name;
        std::optional<Attribute> attribute;  // nullopt: the element has no such attribute
        bool isText;                         // `string` gives "text"
    };
    for (const Case& c : {
             Case{"text", Attribute{kAXErrorSuccess, std::string("text")}, true},
             Case{"absent", std::nullopt, false},
             Case{"number_where_text_expected", Attribute{kAXErrorSuccess, std::int64_t{5}}, false},
             Case{"array_where_element_expected", Attribute{kAXErrorSuccess, ElementList{}}, false},
             Case{"error_with_text_handed_back", Attribute{kAXErrorCannotComplete, std::string("text")},
                  false},
         }) {
        SCOPED_TRACE(c.name);
        FakeDesktop desktop;
        ElementId el = desktop.add();
        if (c.attribute) {
            Value value = c.attribute->value;
            if (std::holds_alternative<ElementList>(value)) value = ElementList{desktop.handle(el)};
            desktop.set(el, "AXThing", value, c.attribute->code);
        }
        Element handle = desktop.handle(el);
        EXPECT_EQ(string(desktop, handle, "AXThing"), c.isText ? "text" : "");
        EXPECT_FALSE(element(desktop, handle, "AXThing"));
        EXPECT_EQ(std::holds_alternative<std::monostate>(attr(desktop, handle, "AXThing")),
                  !c.attribute || c.attribute->code != kAXErrorSuccess ||
                      std::holds_alternative<std::monostate>(c.attribute->value));
        EXPECT_EQ(desktop.unreleased(), 0);
    }
}

TEST(RectRead, NeedsAPointAndASizeAndKeepsThemAsRead) {
    struct Case {
        const char* name;
        std::map<std::string, Attribute> attributes;
        std::optional<Rect> rect;
    };
    for (const Case& c : {
             Case{"negative_size_unchanged", {{"AXPosition", {0, Point{10, 20}}}, {"AXSize", {0, Size{-3, -4}}}},
                  Rect{10, 20, -3, -4}},
             Case{"no_size", {{"AXPosition", {0, Point{1, 2}}}}, std::nullopt},
             Case{"no_position", {{"AXSize", {0, Size{3, 4}}}}, std::nullopt},
             Case{"swapped_types", {{"AXPosition", {0, Size{1, 2}}}, {"AXSize", {0, Point{3, 4}}}}, std::nullopt},
         }) {
        SCOPED_TRACE(c.name);
        FakeDesktop desktop;
        ElementId el = desktop.add();
        for (const auto& [name, a] : c.attributes) desktop.set(el, name, a.value, a.code);
        std::optional<Rect> r = rect(desktop, desktop.handle(el));
        ASSERT_EQ(r.has_value(), c.rect.has_value());
        if (r) {
            EXPECT_EQ(std::tie(r->x, r->y, r->width, r->height),
                      std::tie(c.rect->x, c.rect->y, c.rect->width, c.rect->height));
        }
    }
}

TEST(Bounds, StandardisesTheRectangleWithoutRounding) {
    EXPECT_EQ(writeJson(bounds(Rect{100, 50, -30.5, 20.25})),
              R"({"height":20.25,"width":30.5,"x":69.5,"y":50})");
    EXPECT_EQ(writeJson(bounds(Rect{0.1, 100.5, 7, -0.5})),
              R"({"height":0.5,"width":7,"x":0.1,"y":100})");
}

TEST(EditorValue, CompleteReadLimitCountsUtf16Units) {
    const std::string emoji = "\U0001F600";  // two UTF-16 units
    std::string emoji30000, euro60000;
    for (int i = 0; i < 30000; ++i) emoji30000 += emoji;
    for (int i = 0; i < 60000; ++i) euro60000 += "\u20AC";  // three UTF-8 bytes each
    struct Case { const char* name; std::string value; bool refused; };
    for (const Case& c : {Case{"60000_ascii", std::string(60000, 'a'), false},
                          Case{"60001_ascii", std::string(60001, 'a'), true},
                          Case{"30001_emoji", emoji30000 + emoji, true},
                          Case{"60000_bmp_letters", euro60000, false}}) {
        FakeDesktop desktop;
        ElementId el = desktop.add({{"AXValue", c.value}});
        std::string got;
        EXPECT_EQ(failureOf([&] { got = editorValue(desktop, desktop.handle(el)); }),
                  c.refused ? msg::kReadLimit : kNoFailure)
            << c.name;
        EXPECT_TRUE(got == (c.refused ? "" : c.value)) << c.name;  // whole, never truncated
    }
}

TEST(Editable, DecidesByTheFirstRuleThatApplies) {
    auto text = [](const char* s) { return Attribute{kAXErrorSuccess, std::string(s)}; };
    auto flag = [](bool b) { return Attribute{kAXErrorSuccess, b}; };
    const Reads all{"AXSubrole", "AXRole", "AXEnabled", "AXEditable"};
    struct Case {
        const char* name;
        std::map<std::string, Attribute> attributes;
        bool editable;
        Reads reads;  // in order, before it decides
    };
    for (const Case& c : {
             Case{"password_decided_before_role",
                  {{"AXRole", text("AXTextField")}, {"AXSubrole", text("AXSecureTextField")},
                   {"AXEditable", flag(true)}},
                  false, {"AXSubrole"}},
             // Only the exact subrole marks a password field.
             Case{"subrole_with_a_trailing_space",
                  {{"AXRole", text("AXTextField")}, {"AXSubrole", text("AXSecureTextField ")}}, true, all},
             Case{"combo_box_even_when_editable",
                  {{"AXRole", text("AXComboBox")}, {"AXEditable", flag(true)}}, false,
                  {"AXSubrole", "AXRole"}},
             Case{"role_in_other_case", {{"AXRole", text("axtextfield")}}, false, {"AXSubrole", "AXRole"}},
             Case{"disabled_text_area",
                  {{"AXRole", text("AXTextArea")}, {"AXEnabled", flag(false)}, {"AXEditable", flag(true)}},
                  false, {"AXSubrole", "AXRole", "AXEnabled"}},
             Case{"enabled_but_not_editable",
                  {{"AXRole", text("AXTextArea")}, {"AXEnabled", flag(true)}, {"AXEditable", flag(false)}},
                  false, all},
             Case{"text_field_without_either_flag", {{"AXRole", text("AXTextField")}}, true, all},
             Case{"flags_not_booleans",
                  {{"AXRole", text("AXTextField")}, {"AXEnabled", {0, std::int64_t{0}}},
                   {"AXEditable", text("no")}},
                  true, all},
             Case{"false_flags_with_an_error_are_unread",
                  {{"AXRole", text("AXTextArea")}, {"AXEnabled", {kAXErrorFailure, false}},
                   {"AXEditable", {kAXErrorFailure, false}}},
                  true, all},
         }) {
        FakeDesktop desktop;
        ElementId el = desktop.add();
        for (const auto& [name, a] : c.attributes) desktop.set(el, name, a.value, a.code);
        EXPECT_EQ(editable(desktop, desktop.handle(el)), c.editable) << c.name;
        EXPECT_EQ(desktop.readsOf(el), c.reads) << c.name;
    }
}

}  // namespace
}  // namespace quorvel
