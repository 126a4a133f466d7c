// End-to-end in web pages: each browser of the table started once, on pages
// the test writes itself, observed and operated through one set of checks
// (the other applications' checks among them).
// Every page reports what its own input and change listeners saw in a status
// line of its own ("name: <JSON of the value>"), which proves that the page,
// not only its accessibility tree, received the text.
#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <iostream>
#include <regex>
#include <string>
#include <thread>
#include <tuple>

#include "harness.h"

namespace quorvel::e2e {
namespace {

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
    const char* name;     // for launch-app, and the test's name
    int pixelsPerStep;    // what one wheel step scrolls
    bool flagOffAtStart;  // it notices the accessibility flag turned on while it runs
};

const Browser kBrowsers[] = {
    {"chromium", 120, false},  // it reads the flag only at start
    {"firefox", 114, true},
};

void PrintTo(const Browser& browser, std::ostream* out) { *out << browser.name; }

std::string statusLine(const std::string& field, const std::string& value) {
    return field + ": " + Json(value).dump();
}

// The node with this role whose name starts with `name`, placed on screen.
Json placed(const Json& observation, const std::string& role, const std::string& name) {
    return find(observation, [&](const Json& record) {
        return record["role"] == role && record.value("name", "").rfind(name, 0) == 0 &&
               record["bounds"].is_object() && record["bounds"]["width"] > 0;
    });
}

// The text of the first node whose name or value starts with `prefix`
// (Chromium names a run of text by it, Firefox gives its paragraph the
// text as value); empty when there is none.
std::string textStartingWith(const Json& observation, const std::string& prefix) {
    std::string text;
    find(observation, [&](const Json& record) {
        for (const char* key : {"name", "value"})
            if (record[key].is_string() && record[key].get<std::string>().rfind(prefix, 0) == 0)
                return text = record[key], true;
        return false;
    });
    return text;
}

// A status line (or any text) shown on the page.
std::function<bool(const Json&)> showing(const std::string& text) {
    return [text](const Json& o) { return mentions(o, text); };
}
std::function<bool(const Json&)> focusedOn(const std::string& value) {
    return [value](const Json& o) { return o["context"]["focused_value"] == value; };
}

// Clicks `record`, then waits until the focused value is `value`: the click
// has put the caret there.
void focus(const Json& scope, const Json& record, const std::string& value) {
    ASSERT_FALSE(record.is_null()) << value;
    EXPECT_TRUE(act(scope, clickAt(record)).ok());
    expectSoon("the focus in " + value, focusedOn(value));
}

class WebPages : public ::testing::TestWithParam<Browser> {};

TEST_P(WebPages, AreObservedAndOperatedAsTheirListenersSeeIt) {
    if (onWayland()) GTEST_SKIP() << "browsers are proven on X only so far";
    const Browser& browser = GetParam();
    std::string folder = sessionDirectory("web");
    std::ofstream(folder + "/form.html") << kFormPage;
    std::ofstream(folder + "/article.html") << articlePage();
    setAccessibilityFlag(!browser.flagOffAtStart);
    RunningApplication running(browser.name, folder + "/form.html");

    // Ready once the page is laid out: a browser lists its fields before it
    // places them, and fills the tree in after the title shows.
    const std::string region = "First paragraph\nSecond paragraph";
    Json seen = observeUntil(
        [&](const Json& o) {
            Json editable = editorWith(o, "AXTextArea", region);
            return running.owns(o["scope"]) &&
                   o["scope"]["window"].get<std::string>().find("Web Form") != std::string::npos &&
                   !editable.is_null() && editable["visible"] == true &&
                   !placed(o, "AXTextField", "").is_null();
        },
        120s);
    ASSERT_TRUE(running.owns(seen["scope"])) << values(seen);
    EXPECT_TRUE(accessibilityFlag());

    // Observe: the window's frame; the fields, the region and the frame's
    // input are editors with their text; the password is a secure field
    // without it; controls carry their names; "visible_text" holds the
    // page's text.
    Json page = observe("observe");
    const Json scope = page["scope"];
    EXPECT_EQ(scope["bounds"], windowBounds(scope["window_id"]));
    for (auto [role, value] : {std::pair{"AXTextField", "Ada"}, {"AXTextArea", "Notes text"},
                               {"AXTextArea", region.c_str()}, {"AXTextField", "Inner"}}) {
        Json field = editorWith(page, role, value);
        ASSERT_FALSE(field.is_null()) << role << " " << value << "\n" << values(page);
        EXPECT_EQ(field["actions"], Json({"focus", "type", "replace"})) << value;
        EXPECT_TRUE(inside(field["bounds"], scope["bounds"])) << field.dump();
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

    // "type_into" the textarea, lines of mixed Unicode after the text: the
    // field and the page's listeners have it exactly.
    const std::string added = kMixed + "\n" + kManyDistinct + "second ✓ line", notes = "Notes text" + added;
    Json area = editorWith(page, "AXTextArea", "Notes text");
    focus(scope, area, "Notes text");
    // "type_into" clicks again: after the double-click time, so that it
    // selects nothing, and then types where the caret is, at the end.
    std::this_thread::sleep_for(1s);
    Json into = typing(added, "Notes text");
    into.update({{"kind", "type_into"},
                 {"x", area["bounds"]["x"].get<double>() + area["bounds"]["width"].get<double>() - 8},
                 {"y", area["bounds"]["y"].get<double>() + area["bounds"]["height"].get<double>() - 8}});
    Reply typed = act(scope, into);
    EXPECT_TRUE(typed.ok()) << typed.raw;
    Json after = expectSoon("the notes typed", showing(statusLine("notes", notes)));
    EXPECT_FALSE(editorWith(after, "AXTextArea", notes).is_null()) << values(after);

    // "type" appends to the name field; "replace" then replaces its whole
    // value by select-all and typing, which the page hears as input. The
    // status line is a paragraph of its own, which Firefox may update in
    // its tree a moment after the field.
    focus(scope, editorWith(after, "AXTextField", "Ada"), "Ada");
    const std::string appended = "Ada " + kMixed, replacement = "Replaced ÿ 中 😀";
    EXPECT_TRUE(act(scope, typing(" " + kMixed, "Ada")).ok());
    expectSoon("the name appended", [&](const Json& o) {
        return focusedOn(appended)(o) && mentions(o, statusLine("name", appended));
    });
    EXPECT_TRUE(act(scope, typing(replacement, appended, true)).ok());
    Json replaced = expectSoon("the name replaced", showing(statusLine("name", replacement)));
    EXPECT_FALSE(editorWith(replaced, "AXTextField", replacement).is_null()) << values(replaced);

    // The editable region: an outdated expected value types nothing; the
    // right one types into it, and the page's listener sees the text.
    focus(scope, editorWith(replaced, "AXTextArea", region), region);
    EXPECT_EQ(act(scope, typing("nope", "First paragraph")).error(), kValueChanged);
    EXPECT_TRUE(act(scope, typing(" ✓ ünï 字", region)).ok());
    // An editable region keeps a typed space as a no-break space where a
    // plain one would collapse; the page's own text has it so.
    auto plain = [](const std::string& text) { return std::regex_replace(text, std::regex("\xC2\xA0"), " "); };
    Json edited = expectSoon("the region typed", [&](const Json& o) {
        return plain(textStartingWith(o, "editor: ")).find(" ✓ ünï 字") != std::string::npos;
    });
    std::string regionNow = edited["context"]["focused_value"];
    EXPECT_NE(plain(regionNow).find(" ✓ ünï 字"), std::string::npos) << regionNow;
    EXPECT_EQ(regionNow.find("nope"), std::string::npos) << regionNow;
    EXPECT_FALSE(editorWith(edited, "AXTextArea", regionNow).is_null()) << values(edited);

    // The frame's input takes typing like any other.
    focus(scope, editorWith(edited, "AXTextField", "Inner"), "Inner");
    EXPECT_TRUE(act(scope, typing(" 中文 ñ", "Inner")).ok());
    expectSoon("the frame's input typed", showing(statusLine("inner", "Inner 中文 ñ")));

    // Clicks on a checkbox and a button take effect.
    for (auto [role, name, effect] : {std::tuple{"AXCheckBox", "Agree", "agree: true"},
                                      {"AXButton", "Press me", "presses: 1"}}) {
        Json control = placed(observe(), role, name);
        ASSERT_FALSE(control.is_null()) << name;
        EXPECT_TRUE(act(scope, clickAt(control)).ok());
        expectSoon(effect, showing(effect));
    }

    // The page changes the notes, focused, a moment after the click, title
    // unchanged: typing with the value observed before is refused.
    Json clicked = observe();
    EXPECT_FALSE(editorWith(clicked, "AXTextArea", notes).is_null()) << values(clicked);
    EXPECT_TRUE(act(scope, clickAt(placed(clicked, "AXButton", "Rewrite soon"))).ok());
    Json rewritten = expectSoon("the notes rewritten", focusedOn("Rewritten by the page"));
    EXPECT_EQ(rewritten["scope"], scope);
    EXPECT_EQ(act(scope, typing("lost", notes)).error(), kValueChanged);

    // The page renames itself a moment after the click, the name field
    // focused: the old scope is refused, and nothing is typed.
    EXPECT_TRUE(act(scope, clickAt(placed(rewritten, "AXButton", "Rename soon"))).ok());
    Json renamed = expectSoon("the page renamed", [](const Json& o) {
        return o["scope"]["window"].get<std::string>().find("Web Form renamed") != std::string::npos;
    });
    ASSERT_NE(renamed["scope"], scope);
    EXPECT_EQ(act(scope, typing("lost", replacement)).error(), kWindowChanged);
    EXPECT_EQ(observe()["context"]["focused_value"], replacement);

    // As in any application, another window in front or a moved window
    // makes the scope stale.
    Json form = expectStaleScopesRefused(observe());

    // A click on the link goes to the article; the form's scope is refused
    // there too.
    Json link = placed(form, "AXLink", "Read the article");
    ASSERT_FALSE(link.is_null());
    EXPECT_TRUE(act(form["scope"], clickAt(link)).ok());
    Json article = expectSoon(
        "the article",
        [](const Json& o) {
            return o["scope"]["window"].get<std::string>().find("Long Article") != std::string::npos &&
                   !placed(o, "AXHeading", "Section 1").is_null();
        },
        60s);
    EXPECT_EQ(act(form["scope"], kEscape).error(), kWindowChanged);

    // The first screen of the article is within the 1200 nodes, and the
    // rest of it is not what fills them.
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
    Json scrolled = observeUntil([&](const Json& o) {
        std::string now = textStartingWith(o, "scrolled ");
        if (now.empty() || now == "scrolled 0" || now != last) return last = now, false;
        return true;
    });
    int moved = std::stoi(last.empty() ? "-1" : last.substr(std::string("scrolled ").size()));
    int steps = (kAmount + browser.pixelsPerStep / 2) / browser.pixelsPerStep;
    std::cout << "[ wheel    ] " << browser.name << ": " << kAmount << " px asked, " << steps
              << " steps, " << moved << " px scrolled\n";
    EXPECT_EQ(moved, steps * browser.pixelsPerStep) << values(scrolled);
    EXPECT_NEAR(moved, kAmount, kAmount / 4);
}

INSTANTIATE_TEST_SUITE_P(Browsers, WebPages, ::testing::ValuesIn(kBrowsers),
                         [](const ::testing::TestParamInfo<Browser>& info) {
                             return std::string(info.param.name);
                         });

}  // namespace
}  // namespace quorvel::e2e
