// The breadth-first tree scan: records, numbering, labels, cuts, the cap,
// cycles, and which elements are read at all.
#include <gtest/gtest.h>

#include <set>

#include "accessibility/window.h"
#include "observation/scan.h"
#include "scene.h"

namespace quorvel {
namespace {

using fake::ElementId;
using fake::FakeDesktop;
using fake::StandardScene;
using testing::failureOf;

// A scan of the standard window after `arrange` has built its tree.
struct Scanned {
    FakeDesktop desktop;
    StandardScene scene{desktop};
    ScanResult result;

    template <typename Arrange>
    explicit Scanned(Arrange arrange) {
        arrange(desktop, scene.window);
        result = scan(desktop, foreground(desktop));
    }
    const Json& node(size_t i) const { return result.nodes.at(i); }
};

TEST(Scan, StopsAt1200AndNeverReadsWhatDoesNotFit) {
    std::vector<ElementId> tree;
    Scanned s([&tree](FakeDesktop& d, ElementId root) { tree = d.addTree(root, 5000, 4); });
    ASSERT_EQ(s.result.nodes.size(), 1200u);
    for (size_t i = 1; i < s.result.nodes.size(); ++i)
        ASSERT_EQ(s.node(i).at("name"), "Item " + std::to_string(i - 1));
    // The root and the first 1199 elements are visited; element 298 (ax-299)
    // fills the list with 3 of its 4 children and is the last whose children
    // are read.
    EXPECT_EQ(s.node(1199).at("parent_id"), "ax-299");
    EXPECT_TRUE(s.desktop.wasRead(tree[298], "AXChildren"));
    EXPECT_FALSE(s.desktop.wasRead(tree[299], "AXChildren"));
    std::set<std::string> readFrom;  // "copyAttributeValue <element>"
    for (const std::string& call : s.desktop.calls) readFrom.insert(call.substr(0, call.rfind(' ')));
    for (size_t i = 1199; i < tree.size(); ++i)
        ASSERT_EQ(readFrom.count("copyAttributeValue " + std::to_string(tree[i])), 0u) << i;
}

TEST(Scan, CycleIsVisitedAgainUnderNewIdsUntilTheCap) {
    Scanned s([](FakeDesktop& d, ElementId root) {
        ElementId child = d.add({{"AXTitle", std::string("child")}});
        d.setChildren(root, {child});
        d.setChildren(child, {root});  // lists its own ancestor
    });
    ASSERT_EQ(s.result.nodes.size(), 1200u);
    EXPECT_EQ(s.node(2).at("name"), "Document");
    EXPECT_EQ(s.node(2).at("parent_id"), "ax-1");
    EXPECT_EQ(s.node(1199).at("name"), "child");
    EXPECT_EQ(s.node(1199).at("parent_id"), "ax-1198");
}

TEST(Scan, NameIsTheTitleElseTheDescription) {
    struct Case { const char* name; std::map<std::string, Value> attributes; std::string label; };
    for (const Case& c : {
             Case{"title", {{"AXTitle", std::string("T")}, {"AXDescription", std::string("D")}}, "T"},
             Case{"empty_title", {{"AXTitle", std::string()}, {"AXDescription", std::string("D")}}, "D"},
             Case{"title_not_text", {{"AXTitle", std::int64_t{3}}, {"AXDescription", std::string("D")}}, "D"},
             Case{"neither", {{"AXRole", std::string("AXGroup")}}, ""},
             Case{"password_field",
                  {{"AXSubrole", std::string("AXSecureTextField")}, {"AXTitle", std::string("T")}},
                  "Authentication field"},
         }) {
        Scanned s([&c](FakeDesktop& d, ElementId root) { d.setChildren(root, {d.add(c.attributes)}); });
        EXPECT_EQ(s.node(1).at("name"), c.label) << c.name;
    }
}

TEST(Scan, NameIsCutAt500CharactersButTheTextKeepsTheWholeLabel) {
    std::string label, kept;
    for (int i = 0; i < 600; ++i) label += "e\u0301";  // 600 characters, 1200 code points
    for (int i = 0; i < 500; ++i) kept += "e\u0301";
    Scanned s([&label](FakeDesktop& d, ElementId root) { d.set(root, "AXTitle", label); });
    EXPECT_EQ(s.node(0).at("name"), kept);
    EXPECT_EQ(s.result.text, label + " ");
}

TEST(Scan, CollectedTextIsCutAt60000Characters) {
    // Two values of 30000 two-code-point characters (60000 UTF-16 units each,
    // so `editorValue` still reads them) joined with the root's empty label
    // and value and the first child's empty label: 60005 characters before
    // the cut.
    std::string value;
    for (int i = 0; i < 30000; ++i) value += "e\u0301";
    Scanned s([&value](FakeDesktop& d, ElementId root) {
        d.set(root, "AXTitle", std::string());
        d.setChildren(root, {d.add({{"AXValue", value}}), d.add({{"AXValue", value}})});
    });
    std::string expected = "   " + value + "  ";
    for (int i = 0; i < 29995; ++i) expected += "e\u0301";
    EXPECT_TRUE(s.result.text == expected);
    EXPECT_EQ(s.node(1).at("value"), value);  // values are not cut
}

TEST(Scan, OneOverLongValueFailsTheWholeScanAndClosesTheBracket) {
    FakeDesktop desktop;
    StandardScene scene(desktop);
    std::vector<ElementId> tree = desktop.addTree(scene.window, 50, 3);
    desktop.set(tree[40], "AXValue", std::string(60001, 'x'));
    EXPECT_EQ(failureOf([&] { scan(desktop, foreground(desktop)); }), msg::kReadLimit);
    EXPECT_FALSE(desktop.wasRead(tree[41], "AXRole"));  // stops at once
    EXPECT_EQ(desktop.scanBrackets, 0);
    EXPECT_EQ(desktop.unreleased(), 0);
}

TEST(Scan, RecordFieldsFallBackOneByOne) {
    Scanned s([](FakeDesktop& d, ElementId root) {
        ElementId outside = d.add({{"AXRole", std::int64_t{1}},  // role not text
                                   {"AXPosition", Point{2000, 2000}},
                                   {"AXSize", Size{10, 10}},
                                   {"AXEnabled", false}});
        ElementId touching = d.add({{"AXPosition", Point{900, 50}}, {"AXSize", Size{10, 10}},
                                    {"AXEnabled", std::int64_t{0}}});
        ElementId flat = d.add({{"AXPosition", Point{200, 200}}, {"AXSize", Size{0, 10}}});
        ElementId editor = d.add({{"AXRole", std::string("AXTextArea")},
                                  {"AXPosition", Point{150.5, 80.25}},
                                  {"AXSize", Size{100, 20}}});
        d.set(editor, "AXEnabled", false, kAXErrorCannotComplete);
        ElementId password = d.add({{"AXRole", std::string("AXTextField")},
                                    {"AXSubrole", std::string("AXSecureTextField")},
                                    {"AXValue", std::string("hunter2")}});
        ElementId hidden = d.add({{"AXTitle", std::string("under the hidden one")}});
        d.setChildren(root, {outside, touching, flat, editor, password});
        d.setChildren(outside, {hidden});
    });
    auto fields = [&s](size_t i) {
        JsonObject n = s.node(i).get<JsonObject>();
        for (const char* key : {"id", "parent_id", "name"}) n.erase(key);
        return writeJson(n);
    };
    EXPECT_EQ(fields(1), R"({"actions":["click"],"bounds":{"height":10,"width":10,"x":2000,"y":2000},)"
                         R"("editable":false,"enabled":false,"role":"","value":"","visible":false})");
    // Touching edges and a zero width do not intersect the window.
    EXPECT_EQ(s.node(2).at("visible"), false);
    EXPECT_EQ(s.node(2).at("enabled"), true);
    EXPECT_EQ(s.node(3).at("visible"), false);
    EXPECT_EQ(fields(4),
              R"({"actions":["focus","type","replace"],"bounds":{"height":20,"width":100,"x":150.5,)"
              R"("y":80.25},"editable":true,"enabled":true,"role":"AXTextArea","value":"","visible":true})");
    EXPECT_EQ(fields(5), R"({"actions":[],"bounds":null,"editable":false,"enabled":true,)"
                         R"("role":"AXTextField","value":"","visible":false})");
    // An invisible element's children are still visited.
    EXPECT_EQ(s.node(6).at("name"), "under the hidden one");
    EXPECT_EQ(s.node(6).at("parent_id"), "ax-1");
}

}  // namespace
}  // namespace quorvel
