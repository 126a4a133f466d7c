// End-to-end in web pages: each browser of the table started once, on pages
// the test writes itself, observed and operated through one set of checks.
// Every page reports what its own input and change listeners saw in a status
// line of its own ("name: <JSON of the value>"), which proves that the page,
// not only its accessibility tree, received the text.
#include <gtest/gtest.h>

#include <cctype>
#include <chrono>
#include <fstream>
#include <functional>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "harness.h"

namespace quorvel::e2e {
namespace {

constexpr char kSecret[] = "hunter2secret";
constexpr char kValueChanged[] = "The editor value changed since observation. Nothing was typed.";

// The form: every kind of control, an editable region, a same-origin frame
// with an input, and buttons whose script changes the title or a field's
// content a moment after the click (and puts the focus in the field first,
// as an application would).
const char kFormPage[] = R"html(<!doctype html>
<html><head><meta charset="utf-8"><title>Web Form</title>
<style>body { font: 14px sans-serif; margin: 8px } p { margin: 4px 0 }
  textarea { width: 420px; height: 60px } #editor { border: 1px solid #888; padding: 2px 6px }
  iframe { width: 420px; height: 60px; border: 1px solid #888 }</style></head><body>
<h1>Form heading</h1>
<p><label>Name <input id="name" type="text" value="Ada"></label>
<label>Secret <input id="secret" type="password" value="hunter2secret"></label></p>
<p><label>Notes <textarea id="notes">Notes text</textarea></label></p>
<p><label>Colour <select id="colour"><option>Red</option><option selected>Green</option>
  <option>Blue</option></select></label>
<label><input id="agree" type="checkbox"> Agree</label>
<button id="press" type="button">Press me</button>
<button id="rename" type="button">Rename soon</button>
<button id="rewrite" type="button">Rewrite soon</button>
<a id="article" href="article.html">Read the article</a></p>
<div id="editor" contenteditable="true"><p>First paragraph</p><p>Second paragraph</p></div>
<iframe id="frame" title="Inner frame" srcdoc='<!doctype html><meta charset="utf-8">
  <body style="margin:4px"><input id="inner" value="Inner">
  <p id="status-inner">inner: "Inner"</p>
  <script>const i = document.getElementById("inner");
  i.addEventListener("input", () => document.getElementById("status-inner").textContent =
    "inner: " + JSON.stringify(i.value));</script>'></iframe>
<p id="status-name">name: "Ada"</p>
<p id="status-notes">notes: "Notes text"</p>
<p id="status-editor">editor: none</p>
<p id="status-agree">agree: false</p>
<p id="status-press">presses: 0</p>
<script>
const $ = (id) => document.getElementById(id);
const show = (id, text) => { $("status-" + id).textContent = text; };
for (const id of ["name", "notes"])
  for (const type of ["input", "change"])
    $(id).addEventListener(type, () => show(id, id + ": " + JSON.stringify($(id).value)));
$("editor").addEventListener("input", () =>
  show("editor", "editor: " + JSON.stringify($("editor").innerText)));
$("agree").addEventListener("change", () => show("agree", "agree: " + $("agree").checked));
let presses = 0;
$("press").addEventListener("click", () => show("press", "presses: " + ++presses));
$("rename").addEventListener("click", () => {
  $("name").focus();
  setTimeout(() => { document.title = "Web Form renamed"; }, 1000);
});
$("rewrite").addEventListener("click", () => {
  $("notes").focus();
  setTimeout(() => { $("notes").value = "Rewritten by the page"; }, 1000);
});
</script>
</body></html>
)html";

// The long article: 250 sections of a heading, four paragraphs with a span
// each and a list of three, more than 3000 elements; a fixed line shows how
// far it is scrolled.
std::string articlePage() {
    std::string page = R"html(<!doctype html>
<html><head><meta charset="utf-8"><title>Long Article</title>
<style>body { font: 16px serif; margin: 8px 8px 8px 180px }
  #pos { position: fixed; top: 8px; left: 8px; margin: 0 }</style></head><body>
<p id="pos">scrolled 0</p>
<h1>Long article</h1>
)html";
    for (int s = 1; s <= 250; ++s) {
        std::string n = std::to_string(s);
        page += "<section><h2>Section " + n + "</h2>\n";
        for (int p = 1; p <= 4; ++p)
            page += "<p>Para " + n + "." + std::to_string(p) +
                    " says something about the topic, <span>with a span</span> in it.</p>\n";
        page += "<ul><li>Item a</li><li>Item b</li><li>Item c</li></ul></section>\n";
    }
    page += R"html(<script>
addEventListener("scroll", () => {
  document.getElementById("pos").textContent = "scrolled " + Math.round(scrollY);
});
</script></body></html>
)html";
    return page;
}

// Mixed Unicode: accented Latin, Greek, CJK, emoji beyond the BMP,
// punctuation.
const std::string kMixed = "Grüße, café — Ελληνικά 漢字テスト 😀🚀 done";
// Far more distinct characters that no layout has than a keyboard has spare
// keycodes for, twice over: keycodes get new characters while the text is
// typed, and the first ones come back for the second round.
const std::string kManyDistinct = [] {
    std::string round =
        "αβγδεζηθικλμνξοπρστυφχψω абвгдежзийклмнопрстуфхцчшщъыьэюя "
        "漢字日本語中文東京書雨花海山川木林森火水金土月星空風雪春夏秋冬 😀🚀🎉🌍✨👍🍕🐍\n";
    return round + round;
}();

struct Browser {
    const char* name;   // for launch-app, and the test's name
    int pixelsPerStep;  // what one wheel step scrolls
};

const Browser kBrowsers[] = {
    {"chromium", 120},
    {"firefox", 114},
};

void PrintTo(const Browser& browser, std::ostream* out) { *out << browser.name; }

std::string statusLine(const std::string& field, const std::string& value) {
    return field + ": " + Json(value).dump();
}

// --- Reading observations -----------------------------------------------------

std::vector<Json> nodesOf(const Json& observation) {
    std::vector<Json> nodes;
    for (const Json& record : observation.value("nodes", Json::array())) nodes.push_back(record);
    return nodes;
}

// The editable node of `role` whose value is `value`.
Json editor(const Json& observation, const std::string& role, const std::string& value) {
    for (const Json& record : nodesOf(observation))
        if (record["editable"] == true && record["role"] == role && record["value"] == value)
            return record;
    return nullptr;
}

// The node with this role whose name starts with `name`, placed on screen.
Json placed(const Json& observation, const std::string& role, const std::string& name) {
    for (const Json& record : nodesOf(observation))
        if (record["role"] == role && record.value("name", "").rfind(name, 0) == 0 &&
            record["bounds"].is_object() && record["bounds"]["width"] > 0)
            return record;
    return nullptr;
}

// Whether any node's name or value is exactly `text`, or, for a status line,
// holds it.
bool shows(const Json& observation, const std::string& text) {
    for (const Json& record : nodesOf(observation))
        if (record.value("name", "") == text || record.value("value", "") == text) return true;
    return false;
}

// The text of the first node whose name or value starts with `prefix`
// (Chromium names a run of text by it, Firefox gives its paragraph the
// text as value); empty when there is none.
std::string textStartingWith(const Json& observation, const std::string& prefix) {
    for (const Json& record : nodesOf(observation))
        for (const char* key : {"name", "value"})
            if (record[key].is_string() && record[key].get<std::string>().rfind(prefix, 0) == 0)
                return record[key];
    return "";
}

std::string values(const Json& observation) {
    std::string all;
    for (const Json& record : nodesOf(observation))
        if (record.contains("value") && record["value"].is_string() && record["value"] != "")
            all += record.value("role", "") + " " + record["value"].dump() + "\n";
    return all;
}

Json clickAt(const Json& record) {
    return {{"kind", "click"}, {"x", centerX(record)}, {"y", centerY(record)}};
}
Json typing(const std::string& text, const std::string& expected, bool replace = false) {
    return {{"kind", "type"}, {"value", text}, {"replace", replace}, {"expected_value", expected}};
}

// --- The checks ---------------------------------------------------------------

class WebPages : public ::testing::TestWithParam<Browser> {
protected:
    std::vector<std::string> answers;  // every answer, to look for the password in

    Reply ask(const Json& request) {
        Reply reply = bridge(request);
        answers.push_back(reply.raw);
        return reply;
    }
    Reply act(const Json& scope, const Json& action) { return ask(actRequest(scope, action)); }
    Json observeFor(const std::function<bool(const Json&)>& accept,
                    std::chrono::seconds limit = std::chrono::seconds(15),
                    const char* operation = "context") {
        Reply reply = askUntil(
            request(operation), [&](const Reply& r) { return r.ok() && accept(r.json["result"]); },
            limit);
        answers.push_back(reply.raw);
        return reply.ok() ? reply.json["result"] : Json::object();
    }
    // Clicks `record`, then waits until the focused value is `value`: the
    // click has put the caret there.
    Json focus(const Json& scope, const Json& record, const std::string& value) {
        EXPECT_TRUE(act(scope, clickAt(record)).ok());
        return observeFor([&](const Json& o) { return o["context"]["focused_value"] == value; });
    }
};

TEST_P(WebPages, AreObservedAndOperatedAsTheirListenersSeeIt) {
    if (onWayland()) GTEST_SKIP() << "browsers are proven on X only so far";
    const Browser& browser = GetParam();
    std::string folder = sessionDirectory() + "/web";
    std::system(("mkdir -p '" + folder + "'").c_str());
    std::ofstream(folder + "/form.html") << kFormPage;
    std::ofstream(folder + "/article.html") << articlePage();
    setAccessibilityFlag(true);
    RunningApplication running(browser.name, folder + "/form.html");

    // Ready once the page is laid out: a browser lists its fields before it
    // places them, and fills the tree in after the title shows.
    Json seen = observeFor(
        [&](const Json& o) {
            Json region = editor(o, "AXTextArea", "First paragraph\nSecond paragraph");
            return running.owns(o["scope"]) &&
                   o["scope"]["window"].get<std::string>().find("Web Form") != std::string::npos &&
                   !region.is_null() && region["visible"] == true &&
                   !placed(o, "AXTextField", "").is_null();
        },
        std::chrono::seconds(120));
    ASSERT_TRUE(running.owns(seen["scope"])) << values(seen);

    // Observe: the fields, the region and the frame's input are editors with
    // their text; the password is a secure field without it; controls carry
    // their names; "visible_text" holds the page's text.
    Reply observed = ask(request("observe"));
    ASSERT_TRUE(observed.ok()) << observed.raw.substr(0, 300);
    Json page = observed.json["result"];
    for (auto [role, value] : {std::pair{"AXTextField", "Ada"}, {"AXTextArea", "Notes text"},
                               {"AXTextArea", "First paragraph\nSecond paragraph"},
                               {"AXTextField", "Inner"}}) {
        Json field = editor(page, role, value);
        ASSERT_FALSE(field.is_null()) << role << " " << value << "\n" << values(page);
        EXPECT_EQ(field["actions"], Json({"focus", "type", "replace"})) << value;
    }
    Json secret = node(page, "Authentication field", {"AXTextField"});
    ASSERT_FALSE(secret.is_null());
    EXPECT_EQ(secret["value"], "");
    EXPECT_EQ(secret["actions"], Json::array());
    for (auto [role, name] : {std::pair{"AXButton", "Press me"}, {"AXLink", "Read the article"},
                              {"AXCheckBox", "Agree"}})
        EXPECT_FALSE(placed(page, role, name).is_null()) << role << " " << name;
    std::string visible = page["context"]["visible_text"];
    for (const char* text : {"Form heading", "Second paragraph", "presses: 0"})
        EXPECT_NE(visible.find(text), std::string::npos) << text << " in " << visible.substr(0, 400);
    const Json& scope = page["scope"];

    // "type_into" the textarea, lines of mixed Unicode after the text: the
    // field and the page's listeners have it exactly.
    std::string notes = "Notes text" + kMixed + "\n" + kManyDistinct + "second ✓ line";
    Json area = editor(page, "AXTextArea", "Notes text");
    focus(scope, area, "Notes text");
    // "type_into" clicks again: after the double-click time, so that it
    // selects nothing, and then types where the caret is, at the end.
    std::this_thread::sleep_for(std::chrono::seconds(1));
    Json into = typing(kMixed + "\n" + kManyDistinct + "second ✓ line", "Notes text");
    into["kind"] = "type_into";
    into["x"] = area["bounds"]["x"].get<double>() + area["bounds"]["width"].get<double>() - 8;
    into["y"] = area["bounds"]["y"].get<double>() + area["bounds"]["height"].get<double>() - 8;
    Reply typed = act(scope, into);
    EXPECT_TRUE(typed.ok()) << typed.raw;
    Json after = observeFor([&](const Json& o) {
        return shows(o, statusLine("notes", notes));
    });
    EXPECT_FALSE(editor(after, "AXTextArea", notes).is_null()) << values(after);
    EXPECT_TRUE(shows(after, statusLine("notes", notes))) << values(after);

    // "type" appends to the name field; "replace" then replaces its whole
    // value by select-all and typing, which the page hears as input.
    Json name = editor(after, "AXTextField", "Ada");
    ASSERT_FALSE(name.is_null()) << values(after);
    focus(scope, name, "Ada");
    // The click put the caret after the short text.
    const std::string appended = "Ada " + kMixed;
    Reply more = act(scope, typing(" " + kMixed, "Ada"));
    EXPECT_TRUE(more.ok()) << more.raw;
    // The status line is a paragraph of its own, which Firefox may update
    // in its tree a moment after the field.
    Json appendedSeen = observeFor([&](const Json& o) {
        return o["context"]["focused_value"] == appended &&
               shows(o, statusLine("name", appended));
    });
    EXPECT_EQ(appendedSeen["context"]["focused_value"], appended);
    EXPECT_TRUE(shows(appendedSeen, statusLine("name", appended)))
        << values(appendedSeen);
    const std::string replacement = "Replaced ÿ 中 😀";
    Reply replaced = act(scope, typing(replacement, appended, true));
    EXPECT_TRUE(replaced.ok()) << replaced.raw;
    Json afterReplace = observeFor([&](const Json& o) {
        return shows(o, statusLine("name", replacement));
    });
    EXPECT_FALSE(editor(afterReplace, "AXTextField", replacement).is_null())
        << values(afterReplace);
    EXPECT_TRUE(shows(afterReplace, statusLine("name", replacement)))
        << values(afterReplace);

    // The editable region: an outdated expected value types nothing; the
    // right one types into it, and the page's listener sees the text.
    const std::string region = "First paragraph\nSecond paragraph";
    Json editable = editor(afterReplace, "AXTextArea", region);
    ASSERT_FALSE(editable.is_null()) << values(afterReplace);
    focus(scope, editable, region);
    Reply stale = act(scope, typing("nope", "First paragraph"));
    EXPECT_EQ(stale.error(), kValueChanged) << stale.raw;
    Reply added = act(scope, typing(" ✓ ünï 字", region));
    EXPECT_TRUE(added.ok()) << added.raw;
    Json edited = observeFor([](const Json& o) {
        return o["context"]["focused_value"].get<std::string>().find(" ✓ ünï 字") !=
               std::string::npos;
    });
    std::string regionNow = edited["context"]["focused_value"];
    EXPECT_EQ(regionNow.find("nope"), std::string::npos) << regionNow;
    EXPECT_FALSE(editor(edited, "AXTextArea", regionNow).is_null()) << values(edited);
    // An editable region keeps a typed space as a no-break space where a
    // plain one would collapse; the page's own text has it so.
    std::string editorStatus;
    for (const Json& record : nodesOf(edited))
        if (record.value("value", "").rfind("editor: ", 0) == 0) editorStatus = record["value"];
    for (size_t at; (at = editorStatus.find("\xC2\xA0")) != std::string::npos;)
        editorStatus.replace(at, 2, " ");
    EXPECT_NE(editorStatus.find(" ✓ ünï 字"), std::string::npos) << editorStatus;

    // The frame's input takes typing like any other.
    Json inner = editor(edited, "AXTextField", "Inner");
    ASSERT_FALSE(inner.is_null()) << values(edited);
    focus(scope, inner, "Inner");
    EXPECT_TRUE(act(scope, typing(" 中文 ñ", "Inner")).ok());
    Json framed = observeFor(
        [&](const Json& o) { return shows(o, statusLine("inner", "Inner 中文 ñ")); });
    EXPECT_TRUE(shows(framed, statusLine("inner", "Inner 中文 ñ"))) << values(framed);

    // Clicks on a checkbox and a button take effect.
    Json agree = placed(framed, "AXCheckBox", "Agree");
    ASSERT_FALSE(agree.is_null());
    EXPECT_TRUE(act(scope, clickAt(agree)).ok());
    Json checked = observeFor([](const Json& o) { return shows(o, "agree: true"); });
    EXPECT_TRUE(shows(checked, "agree: true")) << agree.dump() << "\n" << values(checked);
    Json press = placed(framed, "AXButton", "Press me");
    ASSERT_FALSE(press.is_null());
    EXPECT_TRUE(act(scope, clickAt(press)).ok());
    Json clicked = observeFor([](const Json& o) { return shows(o, "presses: 1"); });
    EXPECT_TRUE(shows(clicked, "presses: 1")) << values(clicked);

    // The page changes the notes, focused, a moment after the click, title
    // unchanged: typing with the value observed before is refused.
    Json notesBefore = editor(clicked, "AXTextArea", notes);
    ASSERT_FALSE(notesBefore.is_null()) << values(clicked);
    EXPECT_TRUE(act(scope, clickAt(placed(clicked, "AXButton", "Rewrite soon"))).ok());
    Json rewritten = observeFor([](const Json& o) {
        return o["context"]["focused_value"] == "Rewritten by the page";
    });
    EXPECT_EQ(rewritten["scope"], scope);
    Reply late = act(scope, typing("lost", notes));
    EXPECT_EQ(late.error(), kValueChanged) << late.raw;

    // The page renames itself a moment after the click, the name field
    // focused: the old scope is refused, and nothing is typed.
    Json nameNow = editor(rewritten, "AXTextField", replacement);
    ASSERT_FALSE(nameNow.is_null()) << values(rewritten);
    EXPECT_TRUE(act(scope, clickAt(placed(rewritten, "AXButton", "Rename soon"))).ok());
    Json renamed = observeFor([](const Json& o) {
        return o["scope"]["window"].get<std::string>().find("Web Form renamed") !=
               std::string::npos;
    });
    ASSERT_NE(renamed["scope"], scope);
    Reply outdated = act(scope, typing("lost", replacement));
    EXPECT_FALSE(outdated.ok());
    EXPECT_EQ(outdated.error(), kWindowChanged) << outdated.raw;
    Json unchanged = observeFor([](const Json&) { return true; });
    EXPECT_EQ(unchanged["context"]["focused_value"], replacement);

    // A click on the link goes to the article; the form's scope is refused
    // there too.
    Json link = placed(unchanged, "AXLink", "Read the article");
    ASSERT_FALSE(link.is_null());
    const Json formScope = unchanged["scope"];
    EXPECT_TRUE(act(formScope, clickAt(link)).ok());
    Json article = observeFor(
        [](const Json& o) {
            return o["scope"]["window"].get<std::string>().find("Long Article") !=
                       std::string::npos &&
                   !placed(o, "AXHeading", "Section 1").is_null();
        },
        std::chrono::seconds(60));
    EXPECT_EQ(act(formScope, {{"kind", "key"}, {"value", "escape"}}).error(), kWindowChanged);

    // The first screen of the article is within the 1200 nodes, and the
    // rest of it is not what fills them.
    ASSERT_FALSE(placed(article, "AXHeading", "Section 1").is_null()) << values(article);
    EXPECT_LE(article["nodes"].size(), 1200u);
    EXPECT_NE(article["context"]["visible_text"].get<std::string>().find("Para 1.1"),
              std::string::npos);
    EXPECT_TRUE(node(article, "Section 250").is_null());

    // A scroll with the pointer over the article moves it by about the
    // amount asked for.
    const Json& frame = article["scope"]["bounds"];
    movePointer(static_cast<int>(frame["x"].get<double>() + frame["width"].get<double>() / 2),
                static_cast<int>(frame["y"].get<double>() + frame["height"].get<double>() / 2));
    constexpr int kAmount = 480;
    EXPECT_TRUE(act(article["scope"], {{"kind", "scroll"}, {"amount", -kAmount}}).ok());
    // Smooth scrolling animates for a moment: the position is read once it
    // has stayed put.
    std::string last;
    Json scrolled = observeFor([&](const Json& o) {
        std::string now = textStartingWith(o, "scrolled ");
        if (now.empty() || now == "scrolled 0" || now != last) return last = now, false;
        return true;
    });
    std::string where = last.empty() ? "scrolled -1" : last;
    int moved = std::stoi(where.substr(std::string("scrolled ").size()));
    int steps = (kAmount + browser.pixelsPerStep / 2) / browser.pixelsPerStep;
    std::cout << "[ wheel    ] " << browser.name << ": " << kAmount << " px asked, " << steps
              << " steps, " << moved << " px scrolled\n";
    EXPECT_EQ(moved, steps * browser.pixelsPerStep) << values(scrolled);
    EXPECT_NEAR(moved, kAmount, kAmount / 4);

    for (const std::string& answer : answers)
        EXPECT_EQ(answer.find(kSecret), std::string::npos) << answer.substr(0, 300);
}

INSTANTIATE_TEST_SUITE_P(Browsers, WebPages, ::testing::ValuesIn(kBrowsers),
                         [](const ::testing::TestParamInfo<Browser>& info) {
                             return std::string(info.param.name);
                         });

}  // namespace
}  // namespace quorvel::e2e
