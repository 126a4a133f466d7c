// The fault matrix: every operation, and "act" with every action kind, is
// run once on a healthy desktop to record the platform calls it makes. Then,
// for every step of that log and every fault that can strike there, the
// request runs again with the fault injected just before that step.
//
// The expected outcome is derived from the recorded log by rules, not listed
// per step: which window resolution, guard or platform call first notices
// the fault decides the message, and the events the healthy run posted
// before that point are exactly the events that must have been posted; none
// may follow. A step that no rule can classify fails the test, so that new
// platform calls in the code get a rule instead of being skipped.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <iostream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "bridge/envelope.h"
#include "scene.h"

namespace quorvel {
namespace {

using fake::ElementId;
using fake::FakeDesktop;
using fake::FakeEvent;
using fake::StandardScene;

const std::string kChanged = "The foreground window changed. Observe again before sending input.";
const std::string kNoBounds = "The foreground window has no accessible bounds.";
const std::string kNotUnique =
    "The foreground window cannot be identified uniquely. Close overlapping duplicate windows "
    "and observe again.";
const std::string kNoApplication = "No foreground application. Unlock the desktop.";
const std::string kFocusEditor =
    "Focus an enabled, writable non-password text editor before typing.";
const std::string kValueChanged = "The editor value changed since observation. Nothing was typed.";
const std::string kRejected = "The editor rejected text replacement; inspect before retrying.";
const std::string kFocusChanged =
    "The focused editor changed during input. Inspect before retrying.";
const std::string kMouseInput = "Unable to create mouse input.";
const std::string kKeyboardInput = "Unable to create keyboard input.";
const std::string kTextInput = "Unable to create text input.";
const std::string kScrollInput = "Unable to create scroll input.";
const std::string kPlaceCursor =
    "Place the cursor inside the observed window before native scrolling.";
const std::string kCaptureFailed = "Screen capture failed.";

// The desktop of every case: the standard window holding a label, the
// focused editor, a second editor with the same value (where focus moves to)
// and a button; and a second application whose window can come to the front.
struct MatrixScene {
    static constexpr std::int32_t kOtherPid = 5151;
    static constexpr Rect kOtherFrame{300, 200, 400, 300};

    explicit MatrixScene(bool settable) : standard(desktop) {
        ElementId label = desktop.add({{"AXRole", std::string("AXStaticText")},
                                       {"AXValue", std::string("Name:")},
                                       {"AXPosition", Point{110, 60}},
                                       {"AXSize", Size{80, 20}}});
        editor = desktop.add({{"AXRole", std::string("AXTextField")},
                              {"AXValue", std::string("hello")},
                              {"AXEnabled", true},
                              {"AXEditable", true},
                              {"AXPosition", Point{200, 60}},
                              {"AXSize", Size{300, 24}}});
        twin = desktop.add({{"AXRole", std::string("AXTextArea")},
                            {"AXValue", std::string("hello")},
                            {"AXPosition", Point{200, 100}},
                            {"AXSize", Size{300, 200}}});
        ElementId button = desktop.add({{"AXRole", std::string("AXButton")},
                                        {"AXTitle", std::string("Save")},
                                        {"AXPosition", Point{600, 500}},
                                        {"AXSize", Size{80, 30}}});
        desktop.elements.at(editor).valueSettable = settable;
        desktop.elements.at(twin).valueSettable = settable;
        desktop.setChildren(standard.window, {label, editor, twin, button});
        standard.focus(editor);
        desktop.pointer = Point{300, 300};
        desktop.recognized = {{{0.1, 0.8, 0.3, 0.1}, {{"Name:", 0.9f}}}};

        ElementId otherApp = desktop.applicationElement(kOtherPid);
        ElementId otherWindow =
            desktop.add({{"AXRole", std::string("AXWindow")},
                         {"AXTitle", std::string("Other")},
                         {"AXPosition", Point{kOtherFrame.x, kOtherFrame.y}},
                         {"AXSize", Size{kOtherFrame.width, kOtherFrame.height}}});
        desktop.set(otherApp, "AXFocusedWindow", desktop.handle(otherWindow));
    }

    void bringOtherWindowToFront() {
        desktop.frontmost = fake::FakeApplication{};
        desktop.frontmost->pid = kOtherPid;
        desktop.frontmost->name = "Other";
        desktop.windowList->insert(desktop.windowList->begin(),
                                   WindowListEntry{std::int64_t{kOtherPid}, std::int64_t{0},
                                                   kOtherFrame, std::int64_t{88}});
    }

    FakeDesktop desktop;
    StandardScene standard;
    ElementId editor = 0;
    ElementId twin = 0;
};

struct Scenario {
    const char* name;
    std::string operation;
    std::string action;  // JSON text, for "act"
    bool settable = false;
    // What a healthy run must post, and the text it must set, if any.
    std::vector<FakeEvent> input = {};
    std::vector<std::string> set = {};
};

// Events as the rules of each input say they are built.
std::vector<FakeEvent> clicks(double x, double y, int count) {
    std::vector<FakeEvent> events;
    for (int n = 1; n <= count; ++n) {
        for (MouseEventType type : {MouseEventType::LeftMouseDown, MouseEventType::LeftMouseUp}) {
            FakeEvent e;
            e.kind = FakeEvent::Kind::Mouse;
            e.mouseType = type;
            e.location = {x, y};
            e.clickState = n;
            events.push_back(e);
        }
    }
    return events;
}

std::vector<FakeEvent> keyPress(std::uint16_t code, EventFlags flags) {
    std::vector<FakeEvent> events;
    for (bool down : {true, false}) {
        FakeEvent e;
        e.keyCode = code;
        e.keyDown = down;
        e.flags = flags;
        events.push_back(e);
    }
    return events;
}

std::vector<FakeEvent> typed(const std::vector<std::u16string>& chunks) {
    std::vector<FakeEvent> events;
    for (const std::u16string& chunk : chunks) {
        for (bool down : {true, false}) {
            FakeEvent e;
            e.keyDown = down;
            e.unicode = chunk;
            e.hasUnicode = true;
            events.push_back(e);
        }
    }
    return events;
}

std::vector<FakeEvent> scrolled(std::int32_t delta) {
    FakeEvent e;
    e.kind = FakeEvent::Kind::Scroll;
    e.wheelCount = 1;
    e.wheel[0] = delta;
    return {e};
}

template <typename... Lists>
std::vector<FakeEvent> concat(Lists... lists) {
    std::vector<FakeEvent> all;
    (all.insert(all.end(), lists.begin(), lists.end()), ...);
    return all;
}

// One run of a scenario, with `arm` installing a fault before the request.
struct RunRecord {
    Response response;
    std::vector<std::string> calls;
    std::vector<FakeEvent> posted;
    std::vector<std::string> setTexts;
    int scanBrackets = 0;
    std::string unreleased;
};

std::string requestText(const Scenario& s) {
    if (s.operation != "act") return R"({"version":1,"operation":")" + s.operation + "\"}";
    // The scope an observation of the healthy desktop hands out.
    MatrixScene scratch(s.settable);
    return testing::act(testing::observedScope(scratch.desktop), s.action);
}

RunRecord run(const Scenario& s, const std::function<void(MatrixScene&)>& arm) {
    std::string text = requestText(s);
    MatrixScene scene(s.settable);
    arm(scene);
    RunRecord r;
    r.response = respond(scene.desktop, text);
    r.calls = scene.desktop.calls;
    r.posted = scene.desktop.posted;
    for (const auto& [element, value] : scene.desktop.setValues) r.setTexts.push_back(value);
    r.scanBrackets = scene.desktop.scanBrackets;
    r.unreleased = scene.desktop.unreleased();
    return r;
}

std::vector<std::string> describeEvents(const std::vector<FakeEvent>& events, size_t count) {
    std::vector<std::string> out;
    for (size_t i = 0; i < count && i < events.size(); ++i)
        out.push_back(fake::describe(events[i]));
    return out;
}

std::string operationOf(const std::string& call) { return call.substr(0, call.find(' ')); }

// One resolution of the foreground window, by the index of its steps.
struct Resolution {
    size_t trusted = 0, frontmost = 0, focusedWindow = 0, position = 0, windowList = 0, title = 0;
    // False only for the resolution that an observation starts from; every
    // other one is compared with a scope.
    bool checking = true;
};

// The structure of a healthy run's log that the rules need.
struct Log {
    std::vector<std::string> calls;
    bool observation = false;
    std::vector<Resolution> resolutions;
    std::optional<size_t> scanBegin, scanEnd;
    std::vector<size_t> focusReads;        // the application's "AXFocusedUIElement", in "act"
    std::optional<size_t> guardValueRead;  // the typing guard's read of the editor's value
    ElementId app = 0, window = 0;

    Log(const std::vector<std::string>& log, bool isObservation, const MatrixScene& scene)
        : calls(log),
          observation(isObservation),
          app(scene.standard.app),
          window(scene.standard.window) {
        const std::string editorValue =
            "copyAttributeValue " + std::to_string(scene.editor) + " AXValue";
        const std::string appRead = "copyAttributeValue " + std::to_string(app) + " ";
        const std::string windowRead = "copyAttributeValue " + std::to_string(window) + " ";
        for (size_t i = 0; i < calls.size(); ++i) {
            const std::string& c = calls[i];
            if (c == "isProcessTrusted") {
                Resolution r;
                r.trusted = i;
                r.checking = !(observation && resolutions.empty());
                // The steps of one resolution, each the first after its start.
                for (size_t j = i + 1; j < calls.size() && calls[j] != "isProcessTrusted"; ++j) {
                    const std::string& d = calls[j];
                    if (!r.frontmost && d == "frontmostApplication") r.frontmost = j;
                    if (!r.focusedWindow && d == appRead + "AXFocusedWindow") r.focusedWindow = j;
                    if (!r.position && d == windowRead + "AXPosition") r.position = j;
                    if (!r.windowList && operationOf(d) == "copyWindowInfo") r.windowList = j;
                    if (r.windowList && !r.title && d == windowRead + "AXTitle") r.title = j;
                }
                resolutions.push_back(r);
            }
            if (operationOf(c) == "beginTreeScan") scanBegin = i;
            if (c == "endTreeScan") scanEnd = i;
            if (!observation && c == appRead + "AXFocusedUIElement") focusReads.push_back(i);
            if (!focusReads.empty() && !guardValueRead && c == editorValue) guardValueRead = i;
        }
    }

    const Resolution* resolutionHolding(size_t k) const {
        for (const Resolution& r : resolutions)
            if (k >= r.trusted && k <= r.title) return &r;
        return nullptr;
    }
    bool inScan(size_t k) const { return scanBegin && scanEnd && k > *scanBegin && k < *scanEnd; }
    size_t postsBefore(size_t k) const {
        size_t n = 0;
        for (size_t i = 0; i < k && i < calls.size(); ++i) n += operationOf(calls[i]) == "post";
        return n;
    }
};

// What a case must end in: success, or a message noticed at a step (no
// event posted from that step on).
struct Outcome {
    std::optional<std::string> message;
    size_t at = SIZE_MAX;
    std::optional<std::string> noRule;  // the step could not be classified
};

Outcome success() { return {}; }
Outcome refused(std::string message, size_t at) { return {std::move(message), at, {}}; }
Outcome unclassified(std::string why) { return {{}, SIZE_MAX, std::move(why)}; }

// A change of the desktop that one step of every resolution senses. The
// first resolution at or after the fault that senses it decides: an
// observation's starting resolution then describes the changed desktop
// throughout, any other one no longer matches its scope.
Outcome sensedByResolution(const Log& log, size_t k, size_t Resolution::*sensor) {
    for (const Resolution& r : log.resolutions) {
        if (r.*sensor < k) continue;
        if (!r.checking) return success();
        return refused(kChanged, r.*sensor);
    }
    return success();
}

// The fault of one accessibility read, by where the read happens.
Outcome readFails(const Log& log, size_t k) {
    const std::string& call = log.calls[k];
    std::string attribute = call.substr(call.rfind(' ') + 1);
    if (const Resolution* r = log.resolutionHolding(k)) {
        if (attribute == "AXFocusedWindow" || attribute == "AXPosition" || attribute == "AXSize")
            return refused(kNoBounds, k);
        if (attribute == "AXTitle") {
            // An empty title makes this resolution's scope differ from the
            // one it is compared with, or, for an observation's starting
            // resolution, from the one of its final check.
            if (r->checking) return refused(kChanged, k);
            for (const Resolution& later : log.resolutions)
                if (later.checking && later.trusted > k) return refused(kChanged, later.title);
        }
        return unclassified("identity read of " + attribute);
    }
    // Every other read of an observation has a fallback.
    if (log.inScan(k) || log.observation) return success();
    if (log.focusReads.empty() || k < log.focusReads.front())
        return unclassified("read before the typing guards");
    if (attribute == "AXFocusedUIElement")
        return refused(k == log.focusReads.front() ? kFocusEditor : kFocusChanged, k);
    if (attribute == "AXRole") return refused(kFocusEditor, k);
    if (attribute == "AXValue") return refused(kValueChanged, k);  // "" is not the expected value
    if (attribute == "AXSubrole" || attribute == "AXEnabled" || attribute == "AXEditable")
        return success();  // their fallbacks are what the editor says anyway
    return unclassified("guard read of " + attribute);
}

Outcome eventCreationFails(const Log& log, size_t k) {
    const std::string op = operationOf(log.calls[k]);
    if (op == "createMouseEvent") return refused(kMouseInput, k);
    if (op == "createScrollWheelEvent") return refused(kScrollInput, k);
    if (op == "pointerLocation") return refused(kPlaceCursor, k);
    // A keyboard event carries either a key press (flags) or typed text.
    for (size_t i = k + 1; i < log.calls.size(); ++i) {
        std::string next = operationOf(log.calls[i]);
        if (next == "setFlags") return refused(kKeyboardInput, k);
        if (next == "setUnicodeString") return refused(kTextInput, k);
    }
    return unclassified("keyboard event that is neither key press nor text");
}

struct Fault {
    const char* name;
    // Whether the fault can strike just before this step.
    std::function<bool(const std::string& call)> applies;
    // Installs the fault as the hook before step k (the nth call of its
    // operation; `creations` counts event creations up to it).
    std::function<void(MatrixScene&, const std::string& call, int nth, int creations)> inject;
    std::function<Outcome(const Log&, size_t k)> expect;
};

bool isEventCreation(const std::string& op) {
    return op == "createMouseEvent" || op == "createKeyboardEvent" ||
           op == "createScrollWheelEvent" || op == "pointerLocation";
}

std::vector<Fault> faults() {
    auto always = [](const std::string&) { return true; };
    auto at = [](std::string op) {
        return [op](const std::string& call) { return operationOf(call) == op; };
    };
    return {
        {"window moved", always,
         [](MatrixScene& s, const std::string&, int, int) { s.standard.moveWindow(1, 0); },
         [](const Log& log, size_t k) {
             return sensedByResolution(log, k, &Resolution::position);
         }},
        {"window retitled", always,
         [](MatrixScene& s, const std::string&, int, int) { s.standard.retitle("Renamed"); },
         [](const Log& log, size_t k) { return sensedByResolution(log, k, &Resolution::title); }},
        {"another window in front", always,
         [](MatrixScene& s, const std::string&, int, int) { s.bringOtherWindowToFront(); },
         [](const Log& log, size_t k) {
             return sensedByResolution(log, k, &Resolution::frontmost);
         }},
        {"focus moved", always,
         [](MatrixScene& s, const std::string&, int, int) { s.standard.focus(s.twin); },
         [](const Log& log, size_t k) {
             // The typing guards take whatever is focused when they start (the
             // twin holds the same value); later focus checks must notice.
             for (size_t i = 1; i < log.focusReads.size(); ++i)
                 if (log.focusReads[i] >= k && log.focusReads.front() < k)
                     return refused(kFocusChanged, log.focusReads[i]);
             return success();
         }},
        {"editor value changed", always,
         [](MatrixScene& s, const std::string&, int, int) {
             s.desktop.set(s.editor, "AXValue", std::string("changed"));
         },
         [](const Log& log, size_t k) {
             // Only the typing guard compares the value; an observation
             // reports whatever it reads.
             if (log.guardValueRead && *log.guardValueRead >= k)
                 return refused(kValueChanged, *log.guardValueRead);
             return success();
         }},
        {"attribute read fails", at("copyAttributeValue"),
         [](MatrixScene& s, const std::string& call, int nth, int) {
             // Only this one read fails: the attribute is restored before the
             // next read of any attribute.
             std::istringstream words(call);
             std::string op, attribute;
             ElementId element = 0;
             words >> op >> element >> attribute;
             auto& attributes = s.desktop.elements.at(element).attributes;
             std::optional<fake::Attribute> saved;
             if (auto it = attributes.find(attribute); it != attributes.end()) saved = it->second;
             attributes[attribute] = {kAXErrorCannotComplete, saved ? saved->value : Value{}};
             s.desktop.before("copyAttributeValue", nth + 1, [&attributes, attribute, saved] {
                 if (saved)
                     attributes[attribute] = *saved;
                 else
                     attributes.erase(attribute);
             });
         },
         readFails},
        {"event creation fails",
         [](const std::string& call) { return isEventCreation(operationOf(call)); },
         [](MatrixScene& s, const std::string&, int, int creations) {
             s.desktop.failEventCreation.insert(creations);
         },
         eventCreationFails},
        {"recogniser error", at("recognizeText"),
         [](MatrixScene& s, const std::string&, int, int) {
             s.desktop.recognizerError = "recogniser crashed";
         },
         [](const Log&, size_t k) { return refused(kGenericMessage, k); }},
        {"window list unavailable", at("copyWindowInfo"),
         [](MatrixScene& s, const std::string&, int, int) { s.desktop.windowList.reset(); },
         [](const Log&, size_t k) { return refused(kNotUnique, k); }},
        {"accessibility revoked", at("isProcessTrusted"),
         [](MatrixScene& s, const std::string&, int, int) { s.desktop.trusted = false; },
         [](const Log&, size_t k) {
             return refused(FakeDesktop().accessibilityPermissionMessage(), k);
         }},
        {"no application in front", at("frontmostApplication"),
         [](MatrixScene& s, const std::string&, int, int) { s.desktop.frontmost.reset(); },
         [](const Log&, size_t k) { return refused(kNoApplication, k); }},
        {"screen capture revoked", at("preflightScreenCaptureAccess"),
         [](MatrixScene& s, const std::string&, int, int) {
             s.desktop.screenCaptureAllowed = false;
         },
         [](const Log&, size_t k) {
             return refused(FakeDesktop().screenCapturePermissionMessage(), k);
         }},
        {"window image missing", at("createWindowImage"),
         [](MatrixScene& s, const std::string&, int, int) { s.desktop.imageBytes.reset(); },
         [](const Log&, size_t k) { return refused(kCaptureFailed, k); }},
        {"image data missing", at("copyImageData"),
         [](MatrixScene& s, const std::string&, int, int) { s.desktop.imageHasData = false; },
         [](const Log&, size_t k) { return refused(kCaptureFailed, k); }},
        {"replacement rejected", at("setAttributeValue"),
         [](MatrixScene& s, const std::string&, int, int) {
             s.desktop.elements.at(s.editor).setCode = kAXErrorCannotComplete;
         },
         [](const Log&, size_t k) { return refused(kRejected, k); }},
    };
}

// 15 letters and a character above U+FFFF: the surrogate pair may not share
// the first chunk, so the text goes out as chunks of 15 and 12 units.
const std::string kTyped = "fifteen letters\xF0\x9F\x98\x80 then more";
const std::vector<std::u16string> kTypedChunks{u"fifteen letters", u"\U0001F600 then more"};

std::vector<Scenario> scenarios() {
    const std::string text = R"("value":")" + kTyped + R"(","expected_value":"hello")";
    const auto selectAll = keyPress(0, kCGEventFlagMaskCommand);
    return {
        {"context", "context", ""},
        {"observe", "observe", ""},
        {"capture", "capture", ""},
        {"click", "act", R"({"kind":"click","x":300,"y":200})", false, clicks(300, 200, 1)},
        {"double_click", "act", R"({"kind":"click","x":300,"y":200,"count":2})", false,
         clicks(300, 200, 2)},
        {"type", "act", R"({"kind":"type","replace":false,)" + text + "}", false,
         typed(kTypedChunks)},
        {"replace_settable",
         "act",
         R"({"kind":"type","replace":true,)" + text + "}",
         true,
         {},
         {kTyped}},
        {"replace_unsettable", "act", R"({"kind":"type","replace":true,)" + text + "}", false,
         concat(selectAll, typed(kTypedChunks))},
        {"type_into", "act", R"({"kind":"type_into","x":210,"y":70,"replace":false,)" + text + "}",
         false, concat(clicks(210, 70, 1), typed(kTypedChunks))},
        {"key", "act", R"({"kind":"key","value":"navigate_back"})", false,
         keyPress(33, kCGEventFlagMaskCommand)},
        {"scroll", "act", R"({"kind":"scroll","amount":120})", false, scrolled(120)},
    };
}

class FaultMatrix : public ::testing::TestWithParam<Scenario> {};

TEST_P(FaultMatrix, EveryFaultAtEveryStepEndsAsTheFirstCheckThatSeesItRequires) {
    const Scenario& scenario = GetParam();
    RunRecord healthy = run(scenario, [](MatrixScene&) {});
    ASSERT_EQ(healthy.response.status, 0) << healthy.response.body;
    // Every expectation below is measured against the healthy run.
    ASSERT_EQ(describeEvents(healthy.posted, SIZE_MAX), describeEvents(scenario.input, SIZE_MAX));
    ASSERT_EQ(healthy.setTexts, scenario.set);
    Log log(healthy.calls, scenario.operation != "act", MatrixScene(scenario.settable));
    ASSERT_FALSE(log.resolutions.empty());

    const std::vector<Fault> allFaults = faults();
    int cases = 0;
    std::map<std::string, int> counts;
    for (size_t k = 0; k < healthy.calls.size(); ++k) {
        const std::string& call = healthy.calls[k];
        const std::string op = operationOf(call);
        int nth = 0, creations = 0;
        for (size_t i = 0; i <= k; ++i) {
            nth += operationOf(healthy.calls[i]) == op;
            creations += isEventCreation(operationOf(healthy.calls[i]));
        }
        for (const Fault& fault : allFaults) {
            if (!fault.applies(call)) continue;
            SCOPED_TRACE("fault \"" + std::string(fault.name) + "\" before step " +
                         std::to_string(k) + ": " + call);
            Outcome want = fault.expect(log, k);
            if (want.noRule) {
                ADD_FAILURE() << "no rule for this step: " << *want.noRule;
                continue;
            }
            RunRecord faulty = run(scenario, [&](MatrixScene& s) {
                s.desktop.before(op, nth, [&s, &fault, &call, nth, creations] {
                    fault.inject(s, call, nth, creations);
                });
            });
            ++cases;
            ++counts[fault.name];

            Json envelope = parseJson(faulty.response.body);
            if (want.message) {
                EXPECT_EQ(testing::errorOf(envelope), *want.message);
                EXPECT_EQ(faulty.response.status, 1);
                EXPECT_TRUE(faulty.setTexts.empty());
            } else {
                EXPECT_EQ(faulty.response.status, 0) << faulty.response.body;
                EXPECT_EQ(faulty.setTexts, healthy.setTexts);
            }
            size_t expectedPosts = want.message ? log.postsBefore(want.at) : healthy.posted.size();
            EXPECT_EQ(describeEvents(faulty.posted, SIZE_MAX),
                      describeEvents(healthy.posted, expectedPosts));
            EXPECT_EQ(faulty.scanBrackets, 0);
            EXPECT_EQ(faulty.unreleased, "");
        }
    }
    std::cout << "[ fault matrix ] " << scenario.name << ": " << healthy.calls.size() << " steps, "
              << cases << " cases (";
    for (const auto& [name, n] : counts) std::cout << name << " " << n << "; ";
    std::cout << ")\n";
    RecordProperty("cases", cases);
    EXPECT_GT(cases, 0);
}

// The fault cases take the places of the checks from the log, so where the
// checks stand is a rule of its own: in "act" nothing happens before the
// scope is validated; every click, key press, chunk of text and scroll is
// created after a resolution of the window with no input posted since; each
// chunk also after a fresh read and comparison of the focused element; typing
// reads the editor's value before anything is typed; an observation ends
// with a check of its window.
TEST_P(FaultMatrix, ChecksStandWhereTheRulesPutThem) {
    const Scenario& scenario = GetParam();
    RunRecord healthy = run(scenario, [](MatrixScene&) {});
    MatrixScene scene(scenario.settable);
    Log log(healthy.calls, scenario.operation != "act", scene);
    const std::vector<std::string>& calls = log.calls;
    ASSERT_FALSE(log.resolutions.empty());

    if (!log.observation) {
        EXPECT_EQ(calls.front(), "isProcessTrusted");
    }
    for (size_t k = 0; k < calls.size(); ++k) {
        const std::string op = operationOf(calls[k]);
        bool startsInput = calls[k] == "createMouseEvent 1" || op == "createScrollWheelEvent" ||
                           (op == "createKeyboardEvent" && calls[k].ends_with(" down"));
        if (!startsInput) continue;
        SCOPED_TRACE("input created at step " + std::to_string(k) + ": " + calls[k]);
        const Resolution* last = nullptr;
        for (const Resolution& r : log.resolutions)
            if (r.title < k) last = &r;
        ASSERT_NE(last, nullptr);
        EXPECT_EQ(log.postsBefore(k), log.postsBefore(last->title));
        bool isText = false;
        for (size_t i = k + 1; op == "createKeyboardEvent" && i < calls.size(); ++i) {
            std::string next = operationOf(calls[i]);
            if (next == "setFlags") break;
            if (next == "setUnicodeString") {
                isText = true;
                break;
            }
        }
        if (!isText) continue;
        bool focusRead = false, compared = false;
        for (size_t i = last->title; i < k; ++i) {
            focusRead = focusRead || std::find(log.focusReads.begin(), log.focusReads.end(), i) !=
                                         log.focusReads.end();
            compared = compared || (focusRead && calls[i] == "equal");
        }
        EXPECT_TRUE(compared) << "no focus check before this chunk";
    }
    if (scenario.action.find(R"("kind":"type)") != std::string::npos) {
        ASSERT_TRUE(log.guardValueRead.has_value());
        for (size_t i = 0; i < *log.guardValueRead; ++i)
            EXPECT_NE(operationOf(calls[i]), "setAttributeValue");
        EXPECT_EQ(log.postsBefore(*log.guardValueRead),
                  scenario.action.find("type_into") != std::string::npos ? 2u : 0u);
    }
    if (log.observation) {
        const Resolution& final = log.resolutions.back();
        EXPECT_TRUE(final.checking);
        ASSERT_TRUE(log.scanEnd.has_value());
        EXPECT_GT(final.trusted, *log.scanEnd);
        for (size_t i = final.trusted; i < calls.size(); ++i) {
            std::string op = operationOf(calls[i]);
            EXPECT_TRUE(op != "copyImageData" && op != "recognizeText")
                << "capture after the final check";
        }
        for (size_t i = final.title + 1; i < calls.size(); ++i)
            EXPECT_EQ(operationOf(calls[i]), "processIdentifier") << "after the final check";
    }
}

INSTANTIATE_TEST_SUITE_P(Operations, FaultMatrix, ::testing::ValuesIn(scenarios()),
                         [](const ::testing::TestParamInfo<Scenario>& info) {
                             return info.param.name;
                         });

}  // namespace
}  // namespace quorvel
