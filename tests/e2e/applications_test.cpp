// End-to-end across toolkits: real Debian applications, each started on a
// small document that the test writes itself, observed and operated by the
// bridge as an agent would, all through one set of checks, on X and, where
// proven there, on sway. Each runs inside the test session's virtual desktop
// (scripts/desktop), started by tests/e2e/launch-app in a process group of
// its own, which is ended after. The browsers have a table of their own
// (web_test.cpp).
#include <atspi/atspi.h>
#include <gtest/gtest.h>

#include <cctype>
#include <cmath>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "harness.h"

namespace quorvel::e2e {
namespace {

const char kNotes[] = "Zebrafinch notes\nSecond line of the notes";
// Notes long enough to scroll.
const std::string kLongNotes = [] {
    std::string text = kNotes;
    for (int line = 3; line <= 300; ++line) text += "\nLine " + std::to_string(line);
    return text;
}();
const char kWriterDocument[] = R"(<?xml version="1.0" encoding="UTF-8"?>
<office:document xmlns:office="urn:oasis:names:tc:opendocument:xmlns:office:1.0"
  xmlns:text="urn:oasis:names:tc:opendocument:xmlns:text:1.0" office:version="1.2"
  office:mimetype="application/vnd.oasis.opendocument.text">
<office:body><office:text>
<text:p>Zebrafinch first paragraph.</text:p>
<text:p>Second paragraph.</text:p>
</office:text></office:body></office:document>
)";

// Mixed Unicode: accented Latin, CJK, emoji (beyond the BMP), punctuation.
const std::string kMixed = "Grüße, café — 漢字テスト 😀🚀 done";
const std::string kSecondLine = "\nsecond ✓ line";

struct Field {
    const char* role;
    std::string value;
};

// A click that must take effect: on an element whose name starts with
// `target`, or, where elements have no bounds (GTK 4), at the end of the
// recognised line of text that starts with `target`, followed by typing
// `typed` there.
struct Click {
    const char* target;
    const char* appears = "";  // a name or value that shows afterwards, not before
    const char* title = "";    // or the window title afterwards
    bool escape = false;       // the effect (a menu, a dialog) is closed with Escape
    const char* typed = "";    // GTK 4: typed where the click put the caret
};

struct Application {
    const char* name;  // for launch-app, and the test's name
    // NAME=VALUE that sets the toolkit's scale; the application then reports
    // its logical pixels, and everything the bridge answers must still be in
    // screen pixels.
    const char* scale = "";
    const char* onlyX = "";  // why it is proven on X only; empty when on sway too
    // The document: a Writer document, or else a text file of the first
    // field's value; none for the fixture.
    const char* document = "notes.txt";
    const char* title = "notes.txt";  // part of the window title once the document shows
    const char* text = "Zebrafinch";  // document text that "visible_text" must hold
    std::vector<Field> fields = {{"AXTextArea", kNotes}};  // the editable fields, with their values
    size_t typeInto = 0;      // the field that gets the typed text
    bool lineBreaks = true;   // that field takes a line break
    bool bounds = true;       // its elements have screen bounds
    bool scrolls = false;     // the document scrolls under the pointer, by a vertical scroll bar
    bool movable = true;      // it opens maximized otherwise, and stays put
    Click click = {""};
    const char* refusal = "";  // what the bridge answers when it cannot observe it
};

constexpr char kUnproven[] = "not yet proven under sway";
// A Wayland client's scale is its output's, which the toolkit's variables do not set.
constexpr char kToolkitScale[] = "the toolkit's own scale, which sway sets per output";
const std::vector<Field> kFixtureFields = {{"AXTextField", "Ada Lovelace"},
                                           {"AXTextArea", "First line\nSecond line"}};

const Application kApplications[] = {
    {.name = "featherpad", .fields = {{"AXTextArea", kLongNotes}}, .scrolls = true,
     .click = {"New", "", "Untitled"}},
    // GTK 4.8 places nothing on screen: no element bounds, so the text is
    // typed where the caret is, and the click aims at recognised text.
    {.name = "gnome-text-editor", .onlyX = kUnproven, .bounds = false,
     .click = {.target = "Second line", .typed = "#"}},
    // It never registers on the accessibility bus.
    {.name = "gtk4-widget-factory", .onlyX = "it is awaited in front through X's active window",
     .refusal = "The foreground window has no accessible bounds."},
    // A paragraph takes no line break: it would become two paragraphs.
    {.name = "libreoffice", .onlyX = kUnproven, .document = "notes.fodt", .title = "notes.fodt",
     .text = "Zebrafinch first paragraph.",
     .fields = {{"AXTextArea", "Zebrafinch first paragraph."}, {"AXTextArea", "Second paragraph."}},
     .lineBreaks = false, .movable = false, .click = {"Find and Replace", "", "Find and Replace", true}},
    {.name = "mousepad", .fields = {{"AXTextArea", kLongNotes}}, .scrolls = true,
     .click = {"File", "New Window", "", true}},

    // Scaled windows: GTK 3 (the fixture) and Qt 5 (featherpad, at 1 above)
    // at 1, 1.5 and 2. GTK 3 takes whole scales only (GDK_SCALE=1.5 is read
    // as 1), so Qt covers 1.5, and 1.25 beside it.
    {.name = "fixture", .scale = "GDK_SCALE=1", .onlyX = kToolkitScale, .document = "",
     .title = "Quorvel Fixture", .text = "Observation Fixture", .fields = kFixtureFields,
     .typeInto = 1, .click = {"Increment", "Count: 1"}},
    {.name = "fixture", .scale = "GDK_SCALE=2", .onlyX = kToolkitScale, .document = "",
     .title = "Quorvel Fixture", .text = "Observation Fixture", .fields = kFixtureFields,
     .typeInto = 1, .click = {"Increment", "Count: 1"}},
    {.name = "featherpad", .scale = "QT_SCALE_FACTOR=1.25", .onlyX = kToolkitScale,
     .click = {"New", "", "Untitled"}},
    {.name = "featherpad", .scale = "QT_SCALE_FACTOR=1.5", .onlyX = kToolkitScale,
     .click = {"New", "", "Untitled"}},
    {.name = "featherpad", .scale = "QT_SCALE_FACTOR=2", .onlyX = kToolkitScale,
     .click = {"New", "", "Untitled"}},
};

void PrintTo(const Application& app, std::ostream* out) { *out << app.name << " " << app.scale; }

// The position of the first vertical scroll bar in process `pid`'s active
// window, as the application reports it over AT-SPI (libatspi, not the
// bridge); nothing when there is none.
std::optional<double> scrollPosition(pid_t pid) {
    atspi_init();
    std::optional<double> found;
    std::function<void(AtspiAccessible*, int)> visit = [&](AtspiAccessible* node, int depth) {
        if (!node || found || depth > 30) return;
        bool bar = atspi_accessible_get_role(node, nullptr) == ATSPI_ROLE_SCROLL_BAR;
        if (depth == 0 || bar) {
            AtspiStateSet* states = atspi_accessible_get_state_set(node);
            auto has = [&](AtspiStateType state) { return atspi_state_set_contains(states, state); };
            bool active = has(ATSPI_STATE_ACTIVE), vertical = has(ATSPI_STATE_VERTICAL),
                 horizontal = has(ATSPI_STATE_HORIZONTAL);
            g_object_unref(states);
            if (depth == 0 && !active) return;  // the active window only
            // GTK says which way a scroll bar goes; Qt does not, and its shape says.
            if (bar && !vertical && !horizontal) {
                AtspiComponent* component = atspi_accessible_get_component_iface(node);
                AtspiRect* box = component ? atspi_component_get_extents(
                                                 component, ATSPI_COORD_TYPE_SCREEN, nullptr)
                                           : nullptr;
                vertical = box && box->height > box->width;
                g_free(box);
                if (component) g_object_unref(component);
            }
            AtspiValue* value = bar && vertical ? atspi_accessible_get_value_iface(node) : nullptr;
            if (value) found = atspi_value_get_current_value(value, nullptr);
            if (value) g_object_unref(value);
        }
        for (int i = 0; i < atspi_accessible_get_child_count(node, nullptr) && !found; ++i) {
            AtspiAccessible* child = atspi_accessible_get_child_at_index(node, i, nullptr);
            visit(child, depth + 1);
            if (child) g_object_unref(child);
        }
    };
    AtspiAccessible* desktop = atspi_get_desktop(0);
    for (int i = 0; i < atspi_accessible_get_child_count(desktop, nullptr) && !found; ++i) {
        AtspiAccessible* app = atspi_accessible_get_child_at_index(desktop, i, nullptr);
        if (app && static_cast<pid_t>(atspi_accessible_get_process_id(app, nullptr)) == pid)
            for (int w = 0; w < atspi_accessible_get_child_count(app, nullptr) && !found; ++w) {
                AtspiAccessible* window = atspi_accessible_get_child_at_index(app, w, nullptr);
                visit(window, 0);
                if (window) g_object_unref(window);
            }
        if (app) g_object_unref(app);
    }
    g_object_unref(desktop);
    return found;
}

// Whether a field of `role` holds `before` with `typed` inserted somewhere,
// whole and in order.
bool holdsTyped(const Json& observation, const std::string& role, const std::string& before,
                const std::string& typed) {
    return !find(observation, [&](const Json& record) {
                if (record["role"] != role) return false;
                std::string value = record["value"];
                size_t at = value.find(typed);
                return at != std::string::npos && value.size() == before.size() + typed.size() &&
                       value.substr(0, at) + value.substr(at + typed.size()) == before;
            }).is_null();
}

// The recognised line of text that starts with `prefix`; null when none.
Json recognised(const Json& observation, const std::string& prefix) {
    for (const Json& block : observation.value("ocr_blocks", Json::array()))
        if (block["text"].get<std::string>().rfind(prefix, 0) == 0) return block;
    return nullptr;
}

class Applications : public ::testing::TestWithParam<Application> {};

TEST_P(Applications, AreObservedAndOperated) {
    const Application& app = GetParam();
    if (onWayland() && *app.onlyX) GTEST_SKIP() << "proven on X only: " << app.onlyX;
    std::string file = sessionDirectory("documents") + "/" + app.document;
    if (*app.document)
        std::ofstream(file) << (file.ends_with(".fodt") ? kWriterDocument : app.fields[0].value);
    RunningApplication running(app.name, file, app.scale);

    if (*app.refusal) {
        // Once its window is in front, the bridge refuses it cleanly.
        for (int i = 0; i < 300 && !running.owns(activeProcess()); ++i)
            std::this_thread::sleep_for(200ms);
        ASSERT_TRUE(running.owns(activeProcess()));
        Reply reply = bridge(request("observe"));
        EXPECT_EQ(reply.error(), app.refusal) << reply.raw.substr(0, 300);
        EXPECT_EQ(reply.status, 1);
        return;
    }

    // Ready once its window shows the document and its first field, laid out.
    const Field& first = app.fields.front();
    Json seen = observeUntil(
        [&](const Json& o) {
            Json field = editorWith(o, first.role, first.value);
            return running.owns(o["scope"]) && !field.is_null() &&
                   (!app.bounds || field["visible"] == true) &&
                   o["scope"]["window"].get<std::string>().find(app.title) != std::string::npos;
        },
        120s);
    ASSERT_TRUE(running.owns(seen["scope"])) << seen.dump().substr(0, 500);

    // "observe" finds the fields with their values and the document's text,
    // all in the window's screen space.
    Json result = observe("observe");
    const Json scope = result["scope"];
    // Logical pixels are whole numbers: a scaled window's frame is off by
    // less than the scale, as the window list's match allows.
    Json frame = windowBounds(scope["window_id"]);
    for (const char* key : {"x", "y", "width", "height"})
        EXPECT_LT(std::fabs(scope["bounds"][key].get<double>() - frame[key].get<double>()),
                  *app.scale ? 2 : 0.01)
            << key << " " << scope["bounds"].dump() << " " << frame.dump();
    std::string visibleText = result["context"]["visible_text"];
    EXPECT_NE(visibleText.find(app.text), std::string::npos) << visibleText.substr(0, 500);
    for (const Field& field : app.fields) {
        Json record = editorWith(result, field.role, field.value);
        ASSERT_FALSE(record.is_null()) << field.role << " " << field.value;
        EXPECT_EQ(record["actions"], Json({"focus", "type", "replace"}));
        EXPECT_TRUE(app.bounds ? inside(record["bounds"], scope["bounds"])
                               : record["bounds"].is_null())
            << record.dump();
    }

    // Mixed Unicode typed into a field arrives exactly: the value is the old
    // one with the text inserted where the caret was.
    const Field& target = app.fields[app.typeInto];
    std::string typed = kMixed + (app.lineBreaks ? kSecondLine : "");
    Json editor = editorWith(result, target.role, target.value);
    Json action = typing(typed, target.value);
    if (app.bounds) {
        // Clicked first, and typed into once it has the focus: the pause of
        // "type_into" does not wait for a loaded machine. Its own click
        // comes after the double-click time, so it selects nothing.
        EXPECT_TRUE(act(scope, clickAt(editor)).ok());
        observeUntil([&](const Json& o) { return o["context"]["focused_value"] == target.value; });
        std::this_thread::sleep_for(1s);
        action.update({{"kind", "type_into"}, {"x", centerX(editor)}, {"y", centerY(editor)}});
    }
    Reply typedReply = act(scope, action);
    EXPECT_TRUE(typedReply.ok()) << typedReply.raw;
    Json after = expectSoon("the typed text in " + target.value.substr(0, 20), [&](const Json& o) {
        return holdsTyped(o, target.role, target.value, typed);
    });

    // A scroll with the pointer over the document moves it, as its scroll
    // bar says, both ways, and leaves the pointer where it was.
    if (app.scrolls) {
        std::int64_t pid = after["scope"]["pid"];
        int x = static_cast<int>(centerX(editor)), y = static_cast<int>(centerY(editor));
        movePointer(x, y);
        // The position before and after, once it has moved and stayed put
        // (a toolkit may animate the scroll).
        auto scroll = [&](int amount) {
            std::optional<double> before = scrollPosition(pid), last = before, now = before;
            EXPECT_TRUE(act(after["scope"], {{"kind", "scroll"}, {"amount", amount}}).ok());
            for (int i = 0; i < 50 && (now == before || now != last); ++i) {
                std::this_thread::sleep_for(100ms);
                last = std::exchange(now, scrollPosition(pid));
            }
            return std::make_pair(before.value_or(-1), now.value_or(-1));
        };
        auto [top, down] = scroll(-600);
        ASSERT_GE(top, 0) << "no vertical scroll bar";
        EXPECT_GT(down, top);
        EXPECT_LT(scroll(200).second, down);
        EXPECT_EQ(pointerPosition(), std::make_pair(x, y));
    }

    // A scope is refused while another window is in front or once its
    // window has moved, and nothing is typed.
    Json before = expectStaleScopesRefused(after, app.movable);

    // A click takes effect.
    if (app.bounds) {
        Json button = find(before, [&](const Json& record) {
            return record.value("name", "").rfind(app.click.target, 0) == 0 && record["bounds"].is_object();
        });
        ASSERT_FALSE(button.is_null()) << app.click.target << " in " << before.dump().substr(0, 2000);
        EXPECT_FALSE(*app.click.appears && mentions(before, app.click.appears));
        EXPECT_TRUE(act(before["scope"], clickAt(button)).ok());
        Json effect = expectSoon(std::string("the effect of ") + app.click.target, [&](const Json& o) {
            return *app.click.appears ? mentions(o, app.click.appears)
                                      : o["scope"]["window"] == app.click.title;
        });
        if (app.click.escape) {
            EXPECT_TRUE(act(effect["scope"], kEscape).ok());
        }
    } else {
        // Where elements have no bounds the agent aims at recognised text:
        // a click at the end of a line puts the caret there.
        Json text = expectSoon(
            app.click.target, [&](const Json& o) { return !recognised(o, app.click.target).is_null(); },
            15s, "observe");
        Json line = recognised(text, app.click.target)["bounds"];
        ASSERT_TRUE(line.is_object());
        double x = line["x"].get<double>() + line["width"].get<double>() + 30;
        double y = line["y"].get<double>() + line["height"].get<double>() / 2;
        EXPECT_TRUE(act(text["scope"], {{"kind", "click"}, {"x", x}, {"y", y}}).ok());
        observe();
        Reply more = act(text["scope"], typing(app.click.typed, text["context"]["focused_value"]));
        EXPECT_TRUE(more.ok()) << more.raw;
        std::string lineEnd = std::string("Second line of the notes") + app.click.typed;
        expectSoon(lineEnd, [&](const Json& o) {
            return o["context"]["focused_value"].get<std::string>().find(lineEnd) != std::string::npos;
        });
    }
}

INSTANTIATE_TEST_SUITE_P(Toolkits, Applications, ::testing::ValuesIn(kApplications),
                         [](const ::testing::TestParamInfo<Application>& info) {
                             std::string name = info.param.name;
                             if (*info.param.scale) name += std::string("_") + info.param.scale;
                             for (char& c : name)
                                 if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
                             return name;
                         });

// "capabilities" reads the flag; an observation turns it on.
TEST(AccessibilityFlag, IsTurnedOnByObservationsOnly) {
    setAccessibilityFlag(false);
    EXPECT_TRUE(bridge(request("capabilities")).ok());
    EXPECT_FALSE(accessibilityFlag());
    bridge(request("context"));
    EXPECT_TRUE(accessibilityFlag());
}

}  // namespace
}  // namespace quorvel::e2e
