// The breadth-first tree scan: records, numbering, labels, cuts, the cap,
// cycles, and which attributes are read at all.
#include <gtest/gtest.h>

#include <ostream>
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

const std::string kReadLimit =
    "Native editor exceeds the complete-read limit. Use a scoped browser document reader before "
    "editing.";

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

TEST(Scan, RootWithNothingReadableGivesTheBareRecord) {
    FakeDesktop desktop;
    StandardScene scene(desktop);
    ElementId bare = desktop.add();
    Window window = foreground(desktop);
    window.root = desktop.handle(bare);
    ScanResult r = scan(desktop, window);
    EXPECT_EQ(writeJson(r.nodes),
              R"([{"actions":["click"],"bounds":null,"editable":false,"enabled":true,"id":"ax-0",)"
              R"("name":"","parent_id":null,"role":"","value":"","visible":false}])");
    EXPECT_EQ(r.text, " ");
}

TEST(Scan, ReadsAnElementsAttributesInTheirOrder) {
    ElementId field = 0;
    Scanned s([&field](FakeDesktop& d, ElementId root) {
        field = d.add({{"AXRole", std::string("AXTextField")}, {"AXValue", std::string("v")},
                       {"AXPosition", Point{110, 60}}, {"AXSize", Size{50, 20}}});
        d.setChildren(root, {field});
    });
    EXPECT_EQ(s.desktop.readsOf(field),
              (std::vector<std::string>{"AXRole", "AXSubrole",                  // role, secure?
                                        "AXSubrole", "AXValue",                 // editorValue
                                        "AXTitle", "AXDescription",             // label
                                        "AXPosition", "AXSize",                 // rect
                                        "AXSubrole", "AXRole", "AXEnabled", "AXEditable",  // editable
                                        "AXEnabled", "AXChildren"}));
}

TEST(Scan, PasswordFieldIsLabelledButNeverRead) {
    ElementId password = 0;
    Scanned s([&password](FakeDesktop& d, ElementId root) {
        password = d.add({{"AXRole", std::string("AXTextField")},
                                    {"AXSubrole", std::string("AXSecureTextField")},
                                    {"AXTitle", std::string("Password")},
                                    {"AXDescription", std::string("secret")},
                                    {"AXValue", std::string("hunter2")},
                                    {"AXPosition", Point{110, 60}},
                                    {"AXSize", Size{50, 20}}});
        d.setChildren(root, {password});
    });
    EXPECT_EQ(s.desktop.readsOf(password),
              (std::vector<std::string>{"AXRole", "AXSubrole", "AXSubrole", "AXPosition", "AXSize",
                                        "AXSubrole", "AXEnabled", "AXChildren"}));
    const Json& n = s.node(1);
    EXPECT_EQ(n.at("name"), "Authentication field");
    EXPECT_EQ(n.at("value"), "");
    EXPECT_EQ(n.at("editable"), false);
    EXPECT_EQ(n.at("actions"), Json::array());
    EXPECT_EQ(s.result.text, "Document  Authentication field ");
}

TEST(Scan, NumbersChildrenBreadthFirstAfterAllChildrenOfTheEarlierElement) {
    std::vector<ElementId> e;
    Scanned s([&e](FakeDesktop& d, ElementId root) {
        for (int i = 0; i < 5; ++i) e.push_back(d.add({{"AXTitle", std::string("e").append(std::to_string(i))}}));
        d.setChildren(root, {e[0], e[1]});
        d.setChildren(e[0], {e[2], e[3]});
        d.setChildren(e[1], {e[4]});
    });
    std::vector<std::string> seen;
    for (const Json& n : s.result.nodes)
        seen.push_back(n.at("id").get<std::string>() + "<" +
                       (n.at("parent_id").is_null() ? "-" : n.at("parent_id").get<std::string>()) +
                       ":" + n.at("name").get<std::string>());
    EXPECT_EQ(seen, (std::vector<std::string>{"ax-0<-:Document", "ax-1<ax-0:e0", "ax-2<ax-0:e1",
                                              "ax-3<ax-1:e2", "ax-4<ax-1:e3", "ax-5<ax-2:e4"}));
    EXPECT_EQ(s.result.text, "Document  e0  e1  e2  e3  e4 ");
}

TEST(Scan, StopsAt1200AndNeverReadsWhatDoesNotFit) {
    std::vector<ElementId> tree;
    Scanned s([&tree](FakeDesktop& d, ElementId root) { tree = d.addTree(root, 5000, 4); });
    ASSERT_EQ(s.result.nodes.size(), 1200u);
    for (size_t i = 0; i < s.result.nodes.size(); ++i) {
        ASSERT_EQ(s.node(i).at("id"), "ax-" + std::to_string(i));
        if (i > 0) {
            ASSERT_EQ(s.node(i).at("name"), "Item " + std::to_string(i - 1));
        }
    }
    // The root and the first 1199 elements are visited; element 298 (ax-299)
    // fills the list with 3 of its 4 children and is the last whose children
    // are read.
    EXPECT_EQ(s.node(1199).at("parent_id"), "ax-299");
    EXPECT_TRUE(s.desktop.wasRead(tree[298], "AXChildren"));
    EXPECT_FALSE(s.desktop.wasRead(tree[299], "AXChildren"));
    std::set<std::string> readFrom;  // "copyAttributeValue <element>"
    for (const std::string& call : s.desktop.calls)
        readFrom.insert(call.substr(0, call.rfind(' ')));
    for (size_t i = 1199; i < tree.size(); ++i)
        ASSERT_EQ(readFrom.count("copyAttributeValue " + std::to_string(tree[i])), 0u) << "element " << i;
    EXPECT_EQ(readFrom.count("copyAttributeValue " + std::to_string(tree[1198])), 1u);
    EXPECT_EQ(s.desktop.count("copyAttributeValue"), 4 /* foreground */ + 1200 * 11 + 300);
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

struct LabelCase {
    const char* name;
    std::map<std::string, Value> attributes;
    std::string label;
};

void PrintTo(const LabelCase& c, std::ostream* os) { *os << c.name; }

class Label : public ::testing::TestWithParam<LabelCase> {};

TEST_P(Label, TitleComesBeforeDescription) {
    Scanned s([this](FakeDesktop& d, ElementId root) {
        d.setChildren(root, {d.add(GetParam().attributes)});
    });
    EXPECT_EQ(s.node(1).at("name"), GetParam().label);
}

INSTANTIATE_TEST_SUITE_P(
    Table, Label,
    ::testing::Values(
        LabelCase{"title", {{"AXTitle", std::string("T")}, {"AXDescription", std::string("D")}}, "T"},
        LabelCase{"empty_title", {{"AXTitle", std::string()}, {"AXDescription", std::string("D")}}, "D"},
        LabelCase{"no_title", {{"AXDescription", std::string("D")}}, "D"},
        LabelCase{"title_not_text", {{"AXTitle", std::int64_t{3}}, {"AXDescription", std::string("D")}},
                  "D"},
        LabelCase{"neither", {{"AXRole", std::string("AXGroup")}}, ""},
        LabelCase{"secure_field", {{"AXSubrole", std::string("AXSecureTextField")},
                                   {"AXTitle", std::string("T")}},
                  "Authentication field"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Scan, NameIsCutAt500CharactersButTheTextKeepsTheWholeLabel) {
    std::string label;
    for (int i = 0; i < 600; ++i) label += "e\u0301";  // 600 characters, 1200 code points
    std::string kept;
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
    EXPECT_EQ(s.result.text.size(), expected.size());
    EXPECT_TRUE(s.result.text == expected);
    EXPECT_EQ(s.node(1).at("value"), value);  // values are not cut
}

TEST(Scan, OneOverLongValueFailsTheWholeScan) {
    FakeDesktop desktop;
    StandardScene scene(desktop);
    std::vector<ElementId> tree = desktop.addTree(scene.window, 50, 3);
    desktop.set(tree[40], "AXValue", std::string(60001, 'x'));
    EXPECT_EQ(failureOf([&] { scan(desktop, foreground(desktop)); }), kReadLimit);
    EXPECT_FALSE(desktop.wasRead(tree[41], "AXRole"));  // stops at once
    EXPECT_EQ(desktop.scanBrackets, 0);
    EXPECT_EQ(desktop.unreleased(), "");
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
        ElementId hidden = d.add({{"AXTitle", std::string("under the hidden one")}});
        d.setChildren(root, {outside, touching, flat, editor});
        d.setChildren(outside, {hidden});
    });
    auto fields = [&s](size_t i) {
        JsonObject n = s.node(i).get<JsonObject>();
        n.erase("id");
        n.erase("parent_id");
        n.erase("name");
        n.erase("value");
        return writeJson(n);
    };
    EXPECT_EQ(fields(1), R"({"actions":["click"],"bounds":{"height":10,"width":10,"x":2000,"y":2000},)"
                         R"("editable":false,"enabled":false,"role":"","visible":false})");
    // Touching edges and a zero width do not intersect the window.
    EXPECT_EQ(s.node(2).at("visible"), false);
    EXPECT_EQ(s.node(2).at("enabled"), true);
    EXPECT_EQ(s.node(3).at("visible"), false);
    EXPECT_EQ(fields(4),
              R"({"actions":["focus","type","replace"],"bounds":{"height":20,"width":100,"x":150.5,)"
              R"("y":80.25},"editable":true,"enabled":true,"role":"AXTextArea","visible":true})");
    // An invisible element's children are still visited.
    EXPECT_EQ(s.node(5).at("name"), "under the hidden one");
    EXPECT_EQ(s.node(5).at("parent_id"), "ax-1");
}

TEST(Scan, ChildrenThatAreNotAListOfElementsAddNothing) {
    for (AttributeRead children : {AttributeRead{kAXErrorSuccess, Other{}},
                                   AttributeRead{kAXErrorSuccess, std::string("kids")},
                                   AttributeRead{kAXErrorFailure, ElementList{}}}) {
        FakeDesktop desktop;
        StandardScene scene(desktop);
        ElementId kid = desktop.add();
        if (std::holds_alternative<ElementList>(children.value))
            children.value = ElementList{desktop.handle(kid)};
        desktop.set(scene.window, "AXChildren", children.value, children.code);
        EXPECT_EQ(scan(desktop, foreground(desktop)).nodes.size(), 1u);
        EXPECT_EQ(desktop.unreleased(), "");
    }
}

TEST(Scan, ReleasesEveryElementAndClosesTheBracket) {
    FakeDesktop desktop;
    StandardScene scene(desktop);
    desktop.addTree(scene.window, 300, 5);
    {
        Window window = foreground(desktop);
        ScanResult r = scan(desktop, window);
        EXPECT_EQ(r.nodes.size(), 301u);
    }
    EXPECT_EQ(desktop.scanBrackets, 0);
    EXPECT_EQ(desktop.unreleased(), "");
}

}  // namespace
}  // namespace quorvel
