// End-to-end across toolkits: real Debian applications, each started on a
// small document that the test writes itself, observed and operated by the
// bridge as an agent would, all through one set of checks, on X and, where
// proven there, on sway. Each runs inside the test session's virtual desktop
// (scripts/desktop), started by tests/e2e/launch-app in a process group of
// its own, which is ended after.
#include <atspi/atspi.h>
#include <gtest/gtest.h>

#include <cctype>
#include <cmath>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "harness.h"

namespace quorvel::e2e {
namespace {

constexpr char kNoAccessibleBounds[] = "The foreground window has no accessible bounds.";
constexpr char kSecret[] = "hunter2secret";

// The documents. Each names itself in its window's title.
const char kFormPage[] = R"html(<!doctype html>
<html><head><meta charset="utf-8"><title>Form Page</title></head><body>
<h1>Form heading</h1>
<p>A paragraph with a <a href="#out">link</a> in it.</p>
<p><label>Name <input type="text" value="Ada"></label>
<label>Secret <input type="password" value="hunter2secret"></label></p>
<p><label>Notes <textarea rows="4" cols="40">Notes text</textarea></label></p>
<p><button type="button" onclick="document.getElementById('out').textContent =
  'Pressed ' + (++window.presses)">Press me</button></p>
<p id="out">Not pressed yet</p>
<script>window.presses = 0;</script>
</body></html>
)html";
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
    const char* value;
};

// A click that must take effect: on an element named `target`, or, where
// elements have no bounds (GTK 4), at the end of the recognised line of
// text that starts with `target`, followed by typing `typed` there.
struct Click {
    const char* target;
    const char* appears = "";  // a name or value that shows afterwards, not before
    const char* title = "";    // or the window title afterwards
    bool escape = false;       // the effect (a menu, a dialog) is closed with Escape
    const char* typed = "";    // GTK 4: typed where the click put the caret
};

struct Application {
    const char* name;      // for launch-app, and the test's name
    const char* onlyX;     // why it is proven on X only; empty when on sway too
    const char* document;  // file name: a page, a Writer document, or else the first field's text
    const char* title;     // part of the window title once the document shows
    const char* text;      // document text that "visible_text" must hold
    std::vector<Field> fields;  // the editable fields, with their values
    size_t typeInto = 0;        // the field that gets the typed text
    bool lineBreaks = true;     // that field takes a line break
    bool bounds = true;         // its elements have screen bounds
    bool password = false;      // the document holds a password field
    bool scrolls = false;       // the document scrolls under the pointer, by a vertical scroll bar
    Click click;
    bool flagOffAtStart = false;  // started with the accessibility flag off
    const char* refusal = "";     // what the bridge answers when it cannot observe it
    // NAME=VALUE that sets the toolkit's scale; the application then reports
    // its logical pixels, and everything the bridge answers must still be in
    // screen pixels.
    const char* scale = "";
    bool movable = true;  // it opens maximized otherwise, and stays put
};

constexpr char kUnproven[] = "not yet proven under sway";
// A Wayland client's scale is its output's, which the toolkit's variables do not set.
constexpr char kToolkitScale[] = "the toolkit's own scale, which sway sets per output";

const Application kApplications[] = {
    {"chromium", kUnproven, "form.html", "Form Page", "Form heading",
     {{"AXTextField", "Ada"}, {"AXTextArea", "Notes text"}}, 1, true, true, true, false,
     {"Press me", "Pressed 1"}},
    // Firefox notices the flag turned on while it runs: the bridge's first
    // observation turns it on.
    {"firefox", kUnproven, "form.html", "Form Page", "Form heading",
     {{"AXTextField", "Ada"}, {"AXTextArea", "Notes text"}}, 1, true, true, true, false,
     {"Press me", "Pressed 1"}, true},
    {"featherpad", "", "notes.txt", "notes.txt", "Zebrafinch",
     {{"AXTextArea", kLongNotes.c_str()}}, 0, true, true, false, true, {"New", "", "Untitled"}},
    // GTK 4.8 places nothing on screen: no element bounds, so the text is
    // typed where the caret is, and the click aims at recognised text.
    {"gnome-text-editor", kUnproven, "notes.txt", "notes.txt", "Zebrafinch",
     {{"AXTextArea", kNotes}}, 0, true, false, false, false, {"Second line", "", "", false, "#"}},
    // It never registers on the accessibility bus.
    {"gtk4-widget-factory", "it is awaited in front through X's active window", "", "", "", {},
     0, true, false, false, false, {""}, false, kNoAccessibleBounds},
    // A paragraph takes no line break: it would become two paragraphs.
    {"libreoffice", kUnproven, "notes.fodt", "notes.fodt", "Zebrafinch first paragraph.",
     {{"AXTextArea", "Zebrafinch first paragraph."}, {"AXTextArea", "Second paragraph."}}, 0,
     false, true, false, false, {"Find and Replace", "", "Find and Replace", true}, false, "", "",
     false},
    {"mousepad", "", "notes.txt", "notes.txt", "Zebrafinch", {{"AXTextArea", kLongNotes.c_str()}},
     0, true, true, false, true, {"File", "New Window", "", true}},

    // Scaled windows: GTK 3 (the fixture) and Qt 5 (featherpad, at 1 above)
    // at 1, 1.5 and 2. GTK 3 takes whole scales only (GDK_SCALE=1.5 is read
    // as 1), so Qt covers 1.5, and 1.25 beside it.
    {"fixture", kToolkitScale, "", "Quorvel Fixture", "Observation Fixture",
     {{"AXTextField", "Ada Lovelace"}, {"AXTextArea", "First line\nSecond line"}}, 1, true, true,
     false, false, {"Increment", "Count: 1"}, false, "", "GDK_SCALE=1"},
    {"fixture", kToolkitScale, "", "Quorvel Fixture", "Observation Fixture",
     {{"AXTextField", "Ada Lovelace"}, {"AXTextArea", "First line\nSecond line"}}, 1, true, true,
     false, false, {"Increment", "Count: 1"}, false, "", "GDK_SCALE=2"},
    {"featherpad", kToolkitScale, "notes.txt", "notes.txt", "Zebrafinch", {{"AXTextArea", kNotes}},
     0, true, true, false, false, {"New", "", "Untitled"}, false, "", "QT_SCALE_FACTOR=1.25"},
    {"featherpad", kToolkitScale, "notes.txt", "notes.txt", "Zebrafinch", {{"AXTextArea", kNotes}},
     0, true, true, false, false, {"New", "", "Untitled"}, false, "", "QT_SCALE_FACTOR=1.5"},
    {"featherpad", kToolkitScale, "notes.txt", "notes.txt", "Zebrafinch", {{"AXTextArea", kNotes}},
     0, true, true, false, false, {"New", "", "Untitled"}, false, "", "QT_SCALE_FACTOR=2"},
};

void PrintTo(const Application& app, std::ostream* out) {
    *out << app.name << (*app.scale ? " " : "") << app.scale;
}

// --- The desktop --------------------------------------------------------------

// The position of the first vertical scroll bar in process `pid`'s active
// window, as the application reports it over AT-SPI (libatspi, not the
// bridge); nothing when there is none.
std::optional<double> scrollPosition(pid_t pid) {
    atspi_init();
    std::optional<double> found;
    AtspiAccessible* desktop = atspi_get_desktop(0);
    std::function<void(AtspiAccessible*, int)> visit = [&](AtspiAccessible* node, int depth) {
        if (!node || found || depth > 30) return;
        if (atspi_accessible_get_role(node, nullptr) == ATSPI_ROLE_SCROLL_BAR) {
            // GTK says which way a scroll bar goes; Qt does not, and its shape says.
            AtspiStateSet* states = atspi_accessible_get_state_set(node);
            bool vertical = atspi_state_set_contains(states, ATSPI_STATE_VERTICAL);
            if (!vertical && !atspi_state_set_contains(states, ATSPI_STATE_HORIZONTAL))
                if (AtspiComponent* component = atspi_accessible_get_component_iface(node)) {
                    AtspiRect* box = atspi_component_get_extents(component, ATSPI_COORD_TYPE_SCREEN,
                                                                 nullptr);
                    vertical = box && box->height > box->width;
                    if (box) g_free(box);
                    g_object_unref(component);
                }
            g_object_unref(states);
            AtspiValue* value = atspi_accessible_get_value_iface(node);
            if (vertical && value) found = atspi_value_get_current_value(value, nullptr);
            if (value) g_object_unref(value);
        }
        int count = atspi_accessible_get_child_count(node, nullptr);
        for (int i = 0; i < count && !found; ++i) {
            AtspiAccessible* child = atspi_accessible_get_child_at_index(node, i, nullptr);
            visit(child, depth + 1);
            if (child) g_object_unref(child);
        }
    };
    int apps = atspi_accessible_get_child_count(desktop, nullptr);
    for (int i = 0; i < apps && !found; ++i) {
        AtspiAccessible* app = atspi_accessible_get_child_at_index(desktop, i, nullptr);
        if (app && static_cast<pid_t>(atspi_accessible_get_process_id(app, nullptr)) == pid)
            for (int w = 0; w < atspi_accessible_get_child_count(app, nullptr) && !found; ++w) {
                AtspiAccessible* window = atspi_accessible_get_child_at_index(app, w, nullptr);
                AtspiStateSet* states = window ? atspi_accessible_get_state_set(window) : nullptr;
                if (states && atspi_state_set_contains(states, ATSPI_STATE_ACTIVE)) visit(window, 0);
                if (states) g_object_unref(states);
                if (window) g_object_unref(window);
            }
        if (app) g_object_unref(app);
    }
    g_object_unref(desktop);
    return found;
}

bool inside(const Json& inner, const Json& outer) {
    double x = inner["x"], y = inner["y"], w = inner["width"], h = inner["height"];
    double X = outer["x"], Y = outer["y"], W = outer["width"], H = outer["height"];
    return x >= X && y >= Y && x + w <= X + W && y + h <= Y + H;
}

// --- Reading observations -----------------------------------------------------

Json editableField(const Json& observation, const std::string& role, const std::string& value) {
    for (const Json& record : observation.value("nodes", Json::array()))
        if (record["editable"] == true && record["role"] == role && record["value"] == value)
            return record;
    return nullptr;
}

// The value of the field of `role` that holds `before` with `typed`
// inserted somewhere, whole and in order; empty when there is none.
std::optional<std::string> withTyped(const Json& observation, const std::string& role,
                                     const std::string& before, const std::string& typed) {
    for (const Json& record : observation.value("nodes", Json::array())) {
        if (record["role"] != role) continue;
        std::string value = record["value"];
        size_t at = value.find(typed);
        if (at != std::string::npos && value.size() == before.size() + typed.size() &&
            value.substr(0, at) + value.substr(at + typed.size()) == before)
            return value;
    }
    return std::nullopt;
}

// The values of every element of `role`, for failure messages.
std::string valuesOf(const Json& observation, const std::string& role) {
    Json values = Json::array();
    for (const Json& record : observation.value("nodes", Json::array()))
        if (record["role"] == role) values.push_back(record["value"]);
    return values.dump();
}

std::string namesOf(const Json& observation) {
    std::string names;
    for (const Json& record : observation.value("nodes", Json::array()))
        names += record.value("role", "") + " '" + record.value("name", "") + "', ";
    return names;
}

bool mentions(const Json& observation, const std::string& text) {
    for (const Json& record : observation.value("nodes", Json::array()))
        if (record.value("name", "").find(text) != std::string::npos ||
            record.value("value", "").find(text) != std::string::npos)
            return true;
    return false;
}

Json named(const Json& observation, const std::string& name) {
    for (const Json& record : observation.value("nodes", Json::array()))
        if (record.value("name", "").rfind(name, 0) == 0 && record["bounds"].is_object())
            return record;
    return nullptr;
}

Json clickAt(double x, double y) { return {{"kind", "click"}, {"x", x}, {"y", y}}; }
const Json kEscape = {{"kind", "key"}, {"value", "escape"}};

// --- The checks ---------------------------------------------------------------

class Applications : public ::testing::TestWithParam<Application> {
protected:
    // Every answer of the bridge, to look for the password in.
    std::vector<std::string> answers;

    Reply ask(const Json& request) {
        Reply reply = bridge(request);
        answers.push_back(reply.raw);
        return reply;
    }
    // Observes until `accept` holds, at most `limit`; the last result.
    Json observeFor(const std::function<bool(const Json&)>& accept,
                    std::chrono::seconds limit = std::chrono::seconds(15),
                    const char* operation = "context") {
        Reply reply = askUntil(
            request(operation),
            [&](const Reply& r) { return r.ok() && accept(r.json["result"]); }, limit);
        answers.push_back(reply.raw);
        return reply.ok() ? reply.json["result"] : Json::object();
    }
};

TEST_P(Applications, AreObservedAndOperated) {
    const Application& app = GetParam();
    if (onWayland() && *app.onlyX) GTEST_SKIP() << "proven on X only: " << app.onlyX;
    // The documents, written afresh.
    std::string folder = sessionDirectory() + "/documents";
    std::system(("mkdir -p '" + folder + "'").c_str());
    std::string file = folder + "/" + app.document;
    if (*app.document) {
        std::string name = app.document;
        std::ofstream(file) << (name.ends_with(".html")  ? kFormPage
                                : name.ends_with(".fodt") ? kWriterDocument
                                                          : app.fields.front().value);
    }
    if (app.flagOffAtStart) setAccessibilityFlag(false);
    RunningApplication running(app.name, file, app.scale);

    if (*app.refusal) {
        // Once its window is in front, the bridge refuses it cleanly.
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (!running.owns(activeProcess()) && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
        ASSERT_TRUE(running.owns(activeProcess()));
        Reply reply = ask(request("observe"));
        EXPECT_EQ(reply.error(), app.refusal) << reply.raw.substr(0, 300);
        EXPECT_EQ(reply.status, 1);
        return;
    }

    // Ready once its window shows the document and its fields, laid out:
    // a browser lists a field before it has placed it, off screen.
    Json seen = observeFor(
        [&](const Json& o) {
            if (!running.owns(o["scope"]) ||
                o["scope"]["window"].get<std::string>().find(app.title) == std::string::npos)
                return false;
            Json field = editableField(o, app.fields.front().role, app.fields.front().value);
            return !field.is_null() && (!app.bounds || field["visible"] == true);
        },
        std::chrono::seconds(120));
    ASSERT_TRUE(running.owns(seen["scope"])) << seen.dump().substr(0, 500);
    if (app.flagOffAtStart) {
        EXPECT_TRUE(accessibilityFlag());
    }

    // "observe" finds the fields with their values and the document's text,
    // all in the window's screen space.
    Reply observed = ask(request("observe"));
    ASSERT_TRUE(observed.ok()) << observed.raw.substr(0, 300);
    const Json& result = observed.json["result"];
    const Json& scope = result["scope"];
    if (*app.scale) {
        // Logical pixels are whole numbers: a scaled window's frame is off
        // by less than the scale, as the window list's match allows.
        Json frame = windowBounds(scope["window_id"]);
        for (const char* key : {"x", "y", "width", "height"})
            EXPECT_LT(std::fabs(scope["bounds"][key].get<double>() - frame[key].get<double>()), 2)
                << key << " " << scope["bounds"].dump() << " " << frame.dump();
    } else {
        EXPECT_EQ(scope["bounds"], windowBounds(scope["window_id"]));
    }
    EXPECT_EQ(result["nodes"][0]["bounds"], scope["bounds"]);
    std::string visibleText = result["context"]["visible_text"];
    EXPECT_NE(visibleText.find(app.text), std::string::npos) << visibleText.substr(0, 500);
    for (const Field& field : app.fields) {
        Json record = editableField(result, field.role, field.value);
        ASSERT_FALSE(record.is_null()) << field.role << " " << field.value;
        EXPECT_EQ(record["actions"], Json({"focus", "type", "replace"}));
        if (app.bounds) {
            EXPECT_TRUE(inside(record["bounds"], scope["bounds"])) << record.dump();
        } else {
            EXPECT_TRUE(record["bounds"].is_null()) << record.dump();
        }
    }
    if (app.password) {
        Json secret = node(result, "Authentication field", {"AXTextField"});
        ASSERT_FALSE(secret.is_null());
        EXPECT_EQ(secret["value"], "");
        EXPECT_EQ(secret["actions"], Json::array());
    }

    // Mixed Unicode typed into a field arrives exactly: the value is the old
    // one with the text inserted where the caret was.
    const Field& target = app.fields[app.typeInto];
    std::string typed = kMixed + (app.lineBreaks ? kSecondLine : "");
    Json editor = editableField(result, target.role, target.value);
    Json typing = {{"kind", "type"}, {"value", typed}, {"replace", false},
                   {"expected_value", target.value}};
    if (app.bounds) {
        // Clicked first, and typed into once it has the focus: the pause of
        // "type_into" does not wait for a loaded machine. Its own click
        // comes after the double-click time, so it selects nothing.
        EXPECT_EQ(act(scope, clickAt(centerX(editor), centerY(editor)))["ok"], true);
        observeFor([&](const Json& o) { return o["context"]["focused_value"] == target.value; });
        std::this_thread::sleep_for(std::chrono::seconds(1));
        typing["kind"] = "type_into";
        typing["x"] = centerX(editor);
        typing["y"] = centerY(editor);
    }
    Reply typedReply = ask(actRequest(scope, typing));
    EXPECT_TRUE(typedReply.ok()) << typedReply.raw;
    Json after = observeFor(
        [&](const Json& o) { return withTyped(o, target.role, target.value, typed).has_value(); });
    EXPECT_TRUE(withTyped(after, target.role, target.value, typed)) << valuesOf(after, target.role);

    // A scope is refused while another window is in front, and passes again
    // once its own window is back, unchanged.
    Json current = after["scope"];
    {
        Fixture inFront;
        EXPECT_EQ(act(current, kEscape)["error"], kWindowChanged);
    }
    Json back = observeFor([&](const Json& o) { return o["scope"] == current; },
                           std::chrono::seconds(5));
    if (back["scope"] != current) {
        activateWindow(current["window_id"]);
        back = observeFor([&](const Json& o) { return o["scope"] == current; });
    }
    EXPECT_EQ(back["scope"], current);
    EXPECT_EQ(act(current, kEscape)["ok"], true);

    // A scroll with the pointer over the document moves it, as its scroll
    // bar says, and leaves the pointer where it was.
    if (app.scrolls) {
        std::int64_t pid = current["pid"];
        std::optional<double> before = scrollPosition(pid);
        ASSERT_TRUE(before) << "no vertical scroll bar";
        int x = static_cast<int>(centerX(editor)), y = static_cast<int>(centerY(editor));
        movePointer(x, y);
        EXPECT_EQ(act(current, {{"kind", "scroll"}, {"amount", -600}})["ok"], true);
        std::optional<double> moved = before;
        for (int i = 0; i < 50 && moved == before; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            moved = scrollPosition(pid);
        }
        EXPECT_GT(moved.value_or(0), *before);
        EXPECT_EQ(pointerPosition(), std::make_pair(x, y));
    }

    // Nor is anything typed once the window has moved since it was observed.
    if (app.movable) {
        moveWindow(current["window_id"], 24, 16);
        observeFor([&](const Json& o) { return o["scope"] != current; });
        EXPECT_EQ(act(current, {{"kind", "type"}, {"value", "stale"}, {"replace", false},
                                {"expected_value", back["context"]["focused_value"]}})["error"],
                  kWindowChanged);
        EXPECT_EQ(observeFor([](const Json&) { return true; })["context"]["focused_value"],
                  back["context"]["focused_value"]);
    }

    // A click takes effect.
    if (app.bounds) {
        Json before = observeFor([](const Json&) { return true; });
        Json button = named(before, app.click.target);
        ASSERT_FALSE(button.is_null()) << app.click.target << " in " << namesOf(before) << answers.back().substr(0, 300);
        EXPECT_FALSE(*app.click.appears && mentions(before, app.click.appears));
        EXPECT_EQ(act(before["scope"], clickAt(centerX(button), centerY(button)))["ok"], true);
        Json effect = observeFor([&](const Json& o) {
            return *app.click.appears ? mentions(o, app.click.appears)
                                      : o["scope"]["window"] == app.click.title;
        });
        if (*app.click.appears) {
            EXPECT_TRUE(mentions(effect, app.click.appears));
        } else {
            EXPECT_EQ(effect["scope"]["window"], app.click.title);
        }
        if (app.click.escape) {
            EXPECT_EQ(act(effect["scope"], kEscape)["ok"], true);
        }
    } else {
        // Where elements have no bounds the agent aims at recognised text:
        // a click at the end of a line puts the caret there.
        Json recognised = observeFor(
            [&](const Json& o) {
                for (const Json& block : o.value("ocr_blocks", Json::array()))
                    if (block["text"].get<std::string>().rfind(app.click.target, 0) == 0) return true;
                return false;
            },
            std::chrono::seconds(15), "observe");
        Json line = nullptr;
        for (const Json& block : recognised.value("ocr_blocks", Json::array()))
            if (block["text"].get<std::string>().rfind(app.click.target, 0) == 0) line = block;
        ASSERT_FALSE(line.is_null());
        const Json& bounds = line["bounds"];
        double x = bounds["x"].get<double>() + bounds["width"].get<double>() + 30;
        double y = bounds["y"].get<double>() + bounds["height"].get<double>() / 2;
        EXPECT_EQ(act(recognised["scope"], clickAt(x, y))["ok"], true);
        std::string value = recognised["context"]["focused_value"];
        observeFor([](const Json&) { return true; });
        Reply more = ask(actRequest(recognised["scope"],
                                    {{"kind", "type"}, {"value", app.click.typed}, {"replace", false},
                                     {"expected_value", value}}));
        EXPECT_TRUE(more.ok()) << more.raw;
        std::string lineEnd = std::string("Second line of the notes") + app.click.typed;
        Json done = observeFor([&](const Json& o) {
            return o["context"]["focused_value"].get<std::string>().find(lineEnd) != std::string::npos;
        });
        EXPECT_NE(done["context"]["focused_value"].get<std::string>().find(lineEnd),
                  std::string::npos)
            << done["context"].dump();
    }

    if (app.password) {
        for (const std::string& answer : answers)
            EXPECT_EQ(answer.find(kSecret), std::string::npos) << answer.substr(0, 300);
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
