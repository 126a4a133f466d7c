// End-to-end across toolkits: real Debian applications, each started on a
// small document that the test writes itself, observed and operated by the
// bridge as an agent would, all through one set of checks. Each runs inside
// the test session's virtual desktop (scripts/desktop), started by
// tests/e2e/launch-app in a process group of its own, which is ended after.
#include <gtest/gtest.h>
// GoogleTest before Xlib, whose None macro would clash with it.
// clang-format off
#include <X11/Xlib.h>
// clang-format on
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cmath>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>
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
    const char* document;  // file name, whose extension chooses what it holds
    const char* title;     // part of the window title once the document shows
    const char* text;      // document text that "visible_text" must hold
    std::vector<Field> fields;  // the editable fields, with their values
    size_t typeInto = 0;        // the field that gets the typed text
    bool lineBreaks = true;     // that field takes a line break
    bool bounds = true;         // its elements have screen bounds
    bool password = false;      // the document holds a password field
    Click click;
    bool flagOffAtStart = false;  // started with the accessibility flag off
    const char* refusal = "";     // what the bridge answers when it cannot observe it
    // NAME=VALUE that sets the toolkit's scale; the application then reports
    // its logical pixels, and everything the bridge answers must still be in
    // screen pixels.
    const char* scale = "";
};

const Application kApplications[] = {
    {"chromium", "form.html", "Form Page", "Form heading",
     {{"AXTextField", "Ada"}, {"AXTextArea", "Notes text"}}, 1, true, true, true,
     {"Press me", "Pressed 1"}},
    // Firefox notices the flag turned on while it runs: the bridge's first
    // observation turns it on.
    {"firefox", "form.html", "Form Page", "Form heading",
     {{"AXTextField", "Ada"}, {"AXTextArea", "Notes text"}}, 1, true, true, true,
     {"Press me", "Pressed 1"}, true},
    {"featherpad", "notes.txt", "notes.txt", "Zebrafinch", {{"AXTextArea", kNotes}}, 0, true,
     true, false, {"New", "", "Untitled"}},
    // GTK 4.8 places nothing on screen: no element bounds, so the text is
    // typed where the caret is, and the click aims at recognised text.
    {"gnome-text-editor", "notes.txt", "notes.txt", "Zebrafinch", {{"AXTextArea", kNotes}}, 0,
     true, false, false, {"Second line", "", "", false, "#"}},
    // It never registers on the accessibility bus.
    {"gtk4-widget-factory", "", "", "", {}, 0, true, false, false, {""}, false,
     kNoAccessibleBounds},
    // A paragraph takes no line break: it would become two paragraphs.
    {"libreoffice", "notes.fodt", "notes.fodt", "Zebrafinch first paragraph.",
     {{"AXTextArea", "Zebrafinch first paragraph."}, {"AXTextArea", "Second paragraph."}}, 0,
     false, true, false, {"Find and Replace", "", "Find and Replace", true}},
    {"mousepad", "notes.txt", "notes.txt", "Zebrafinch", {{"AXTextArea", kNotes}}, 0, true, true,
     false, {"File", "New Window", "", true}},

    // Scaled windows: GTK 3 (the fixture) and Qt 5 (featherpad, at 1 above)
    // at 1, 1.5 and 2. GTK 3 takes whole scales only (GDK_SCALE=1.5 is read
    // as 1), so Qt covers 1.5, and 1.25 beside it.
    {"fixture", "", "Quorvel Fixture", "Observation Fixture",
     {{"AXTextField", "Ada Lovelace"}, {"AXTextArea", "First line\nSecond line"}}, 1, true, true,
     false, {"Increment", "Count: 1"}, false, "", "GDK_SCALE=1"},
    {"fixture", "", "Quorvel Fixture", "Observation Fixture",
     {{"AXTextField", "Ada Lovelace"}, {"AXTextArea", "First line\nSecond line"}}, 1, true, true,
     false, {"Increment", "Count: 1"}, false, "", "GDK_SCALE=2"},
    {"featherpad", "notes.txt", "notes.txt", "Zebrafinch", {{"AXTextArea", kNotes}}, 0, true,
     true, false, {"New", "", "Untitled"}, false, "", "QT_SCALE_FACTOR=1.25"},
    {"featherpad", "notes.txt", "notes.txt", "Zebrafinch", {{"AXTextArea", kNotes}}, 0, true,
     true, false, {"New", "", "Untitled"}, false, "", "QT_SCALE_FACTOR=1.5"},
    {"featherpad", "notes.txt", "notes.txt", "Zebrafinch", {{"AXTextArea", kNotes}}, 0, true,
     true, false, {"New", "", "Untitled"}, false, "", "QT_SCALE_FACTOR=2"},
};

void PrintTo(const Application& app, std::ostream* out) {
    *out << app.name << (*app.scale ? " " : "") << app.scale;
}

// --- The desktop --------------------------------------------------------------

// Asks the window manager to bring the window forward.
void activate(unsigned long window) {
    Display* display = XOpenDisplay(nullptr);
    if (!display) return;
    XEvent event{};
    event.xclient.type = ClientMessage;
    event.xclient.window = window;
    event.xclient.message_type = XInternAtom(display, "_NET_ACTIVE_WINDOW", False);
    event.xclient.format = 32;
    event.xclient.data.l[0] = 2;  // from a pager: honoured at once
    XSendEvent(display, DefaultRootWindow(display), False,
               SubstructureRedirectMask | SubstructureNotifyMask, &event);
    XCloseDisplay(display);
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
    if (onWayland()) GTEST_SKIP() << kOnlyX << "frame window or _NET_ACTIVE_WINDOW to check against";
    const Application& app = GetParam();
    // The documents, written afresh.
    std::string folder = sessionDirectory() + "/documents";
    std::system(("mkdir -p '" + folder + "'").c_str());
    std::string file = folder + "/" + app.document;
    if (*app.document) {
        std::string name = app.document;
        std::ofstream(file) << (name.ends_with(".html")  ? kFormPage
                                : name.ends_with(".fodt") ? kWriterDocument
                                                          : kNotes);
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
        activate(current["window_id"].get<unsigned long>());
        back = observeFor([&](const Json& o) { return o["scope"] == current; });
    }
    EXPECT_EQ(back["scope"], current);
    EXPECT_EQ(act(current, kEscape)["ok"], true);

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
