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
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "scene.h"

namespace quorvel {
namespace {

using fake::ElementId;
using fake::FormScene;
using testing::Events;
using testing::clicks;
using testing::operator+;
using testing::press;
using testing::typed;

struct Scenario {
    const char* name;
    std::string operation;
    // "act": the action as JSON text; an observation: more fields of the request.
    std::string action;
    bool settable = false;
    // What a healthy run must post, and the text it must set, if any.
    Events input = {};
    std::vector<std::string> set = {};
};

// One run of a scenario, with `arm` installing a fault before the request.
// Whatever happens, the scan bracket is closed and every platform object
// released.
struct RunRecord {
    Response response;
    std::vector<std::string> calls;
    Events posted;
    std::vector<std::string> setTexts;
};

RunRecord run(const Scenario& s, const std::function<void(FormScene&)>& arm) {
    std::string text = R"({"version":1,"operation":")" + s.operation + "\"" + s.action + "}";
    if (s.operation == "act") {
        // The scope an observation of the healthy desktop hands out.
        FormScene scratch(s.settable);
        text = testing::act(testing::observedScope(scratch.desktop), s.action);
    }
    FormScene scene(s.settable);
    arm(scene);
    RunRecord r;
    r.response = respond(scene.desktop, text);
    r.calls = scene.desktop.calls;
    r.posted = scene.desktop.postedLog();
    for (const auto& [element, value] : scene.desktop.setValues) r.setTexts.push_back(value);
    EXPECT_EQ(scene.desktop.scanBrackets, 0);
    EXPECT_EQ(scene.desktop.unreleased(), 0);
    return r;
}

std::string operationOf(const std::string& call) { return call.substr(0, call.find(' ')); }

// One resolution of the foreground window, by the index of its steps.
struct Resolution {
    size_t trusted = 0, frontmost = 0, position = 0, windowList = 0, title = 0;
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

    Log(const std::vector<std::string>& log, bool isObservation) : calls(log), observation(isObservation) {
        const FormScene scene;  // element ids are the same in every scene
        const std::string editorValue =
            "copyAttributeValue " + std::to_string(scene.editor) + " AXValue";
        const std::string appRead = "copyAttributeValue " + std::to_string(scene.standard.app) + " ";
        const std::string windowRead =
            "copyAttributeValue " + std::to_string(scene.standard.window) + " ";
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
        return std::count_if(calls.begin(), calls.begin() + std::min(k, calls.size()),
                             [](const std::string& c) { return operationOf(c) == "post"; });
    }
    // The first step at or after `from` that `pred` holds for; the end if none.
    template <typename Pred>
    size_t next(size_t from, Pred pred) const {
        return std::find_if(calls.begin() + from, calls.end(), pred) - calls.begin();
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
        return refused(msg::kChanged, r.*sensor);
    }
    return success();
}

// The fault of one accessibility read, by where the read happens.
Outcome readFails(const Log& log, size_t k) {
    const std::string& call = log.calls[k];
    std::string attribute = call.substr(call.rfind(' ') + 1);
    if (const Resolution* r = log.resolutionHolding(k)) {
        if (attribute == "AXFocusedWindow" || attribute == "AXPosition" || attribute == "AXSize")
            return refused(msg::kNoBounds, k);
        if (attribute == "AXTitle") {
            // An empty title makes this resolution's scope differ from the
            // one it is compared with, or, for an observation's starting
            // resolution, from the one of its final check.
            if (r->checking) return refused(msg::kChanged, k);
            for (const Resolution& later : log.resolutions)
                if (later.checking && later.trusted > k) return refused(msg::kChanged, later.title);
        }
        return unclassified("identity read of " + attribute);
    }
    // Every other read of an observation has a fallback.
    if (log.inScan(k) || log.observation) return success();
    if (log.focusReads.empty() || k < log.focusReads.front())
        return unclassified("read before the typing guards");
    if (attribute == "AXFocusedUIElement")
        return refused(k == log.focusReads.front() ? msg::kFocusEditor : msg::kFocusChanged, k);
    if (attribute == "AXRole") return refused(msg::kFocusEditor, k);
    if (attribute == "AXValue") return refused(msg::kValueChanged, k);  // "" is not the expected value
    if (attribute == "AXSubrole" || attribute == "AXEnabled" || attribute == "AXEditable")
        return success();  // their fallbacks are what the editor says anyway
    return unclassified("guard read of " + attribute);
}

Outcome eventCreationFails(const Log& log, size_t k) {
    const std::string op = operationOf(log.calls[k]);
    if (op == "createMouseEvent") return refused(msg::kMouseInput, k);
    if (op == "createScrollWheelEvent") return refused(msg::kScrollInput, k);
    if (op == "pointerLocation") return refused(msg::kPlaceCursor, k);
    // A keyboard event carries either a key press (flags) or typed text.
    for (size_t i = k + 1; i < log.calls.size(); ++i) {
        std::string next = operationOf(log.calls[i]);
        if (next == "setFlags") return refused(msg::kKeyboardInput, k);
        if (next == "setUnicodeString") return refused(msg::kTextInput, k);
    }
    return unclassified("keyboard event that is neither key press nor text");
}

struct Fault {
    const char* name;
    // Whether the fault can strike just before this step.
    std::function<bool(const std::string& call)> applies;
    // Installs the fault as the hook before step k (the nth call of its
    // operation; `creations` counts event creations up to it).
    std::function<void(FormScene&, const std::string& call, int nth, int creations)> inject;
    std::function<Outcome(const Log&, size_t k)> expect;
};

bool isEventCreation(const std::string& op) {
    return op == "createMouseEvent" || op == "createKeyboardEvent" ||
           op == "createScrollWheelEvent" || op == "pointerLocation";
}

// A fault noticed at its own step with one fixed message.
Fault fixed(const char* name, const char* op, std::function<void(FormScene&)> change,
            std::string message) {
    return {name, [op](const std::string& call) { return operationOf(call) == op; },
            [change](FormScene& s, const std::string&, int, int) { change(s); },
            [message](const Log&, size_t k) { return refused(message, k); }};
}

// A change of the desktop that can happen before any step.
Fault anywhere(const char* name, std::function<void(FormScene&)> change,
               std::function<Outcome(const Log&, size_t)> expect) {
    return {name, [](const std::string&) { return true; },
            [change](FormScene& s, const std::string&, int, int) { change(s); }, expect};
}

std::vector<Fault> faults() {
    auto sensedAt = [](size_t Resolution::*sensor) {
        return [sensor](const Log& log, size_t k) { return sensedByResolution(log, k, sensor); };
    };
    return {
        anywhere("window moved", [](FormScene& s) { s.standard.moveWindow(1, 0); },
                 sensedAt(&Resolution::position)),
        anywhere("window retitled", [](FormScene& s) { s.standard.retitle("Renamed"); },
                 sensedAt(&Resolution::title)),
        anywhere("another window in front", [](FormScene& s) { s.bringOtherWindowToFront(); },
                 sensedAt(&Resolution::frontmost)),
        anywhere("focus moved", [](FormScene& s) { s.standard.focus(s.twin); },
                 [](const Log& log, size_t k) {
                     // The typing guards take whatever is focused when they start
                     // (the twin holds the same value); later focus checks must
                     // notice.
                     for (size_t i = 1; i < log.focusReads.size(); ++i)
                         if (log.focusReads[i] >= k && log.focusReads.front() < k)
                             return refused(msg::kFocusChanged, log.focusReads[i]);
                     return success();
                 }),
        anywhere("editor value changed",
                 [](FormScene& s) { s.desktop.set(s.editor, "AXValue", std::string("changed")); },
                 [](const Log& log, size_t k) {
                     // Only the typing guard compares the value; an observation
                     // reports whatever it reads.
                     if (log.guardValueRead && *log.guardValueRead >= k)
                         return refused(msg::kValueChanged, *log.guardValueRead);
                     return success();
                 }),
        {"attribute read fails",
         [](const std::string& call) { return operationOf(call) == "copyAttributeValue"; },
         [](FormScene& s, const std::string& call, int nth, int) {
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
         [](FormScene& s, const std::string&, int, int creations) {
             s.desktop.failEventCreation.insert(creations);
         },
         eventCreationFails},
        fixed("recogniser error", "recognizeText",
              [](FormScene& s) { s.desktop.recognizerError = "recogniser crashed"; }, msg::kGeneric),
        fixed("window list unavailable", "copyWindowInfo",
              [](FormScene& s) { s.desktop.windowList.reset(); }, msg::kNotUnique),
        fixed("accessibility revoked", "isProcessTrusted",
              [](FormScene& s) { s.desktop.trusted = false; }, msg::kAccessibility),
        fixed("no application in front", "frontmostApplication",
              [](FormScene& s) { s.desktop.frontmost.reset(); }, msg::kNoApplication),
        fixed("screen capture revoked", "preflightScreenCaptureAccess",
              [](FormScene& s) { s.desktop.screenCaptureAllowed = false; }, msg::kScreenRecording),
        fixed("window image missing", "createWindowImage",
              [](FormScene& s) { s.desktop.imageBytes.reset(); }, msg::kCaptureFailed),
        fixed("image data missing", "copyImageData",
              [](FormScene& s) { s.desktop.imageHasData = false; }, msg::kCaptureFailed),
        fixed("image not encodable", "encodePng", [](FormScene& s) { s.desktop.pngSize.reset(); },
              msg::kCaptureFailed),
        fixed("pointer outside the window", "pointerLocation",
              [](FormScene& s) { s.desktop.pointer = Point{20, 20}; }, msg::kPlaceCursor),
        fixed("keyboard in another typist's use", "prepareText",
              [](FormScene& s) { s.desktop.textRefusal = msg::kKeyboardBusy; }, msg::kKeyboardBusy),
        fixed("replacement rejected", "setAttributeValue",
              [](FormScene& s) { s.desktop.elements.at(s.editor).setCode = kAXErrorCannotComplete; },
              msg::kRejected),
    };
}

// 15 letters and a character above U+FFFF: the surrogate pair may not share
// the first chunk, so the text goes out as chunks of 15 and 12 units.
const std::string kTyped = "fifteen letters\xF0\x9F\x98\x80 then more";
const Events kTypedChunks =
    typed("fifteen letters") + typed("\\ud83d\\ude00 then more");

std::vector<Scenario> scenarios() {
    const std::string text = R"("value":")" + kTyped + R"(","expected_value":"hello")";
    const std::string type = R"({"kind":"type","replace":)";
    return {
        {"context", "context", ""},
        {"observe", "observe", ""},
        {"capture", "capture", ""},
        {"observe_png", "observe", R"(,"image":"png")"},
        {"click", "act", R"({"kind":"click","x":300,"y":200})", false, clicks("300,200")},
        {"double_click", "act", R"({"kind":"click","x":300,"y":200,"count":2})", false,
         clicks("300,200", 2)},
        {"type", "act", type + "false," + text + "}", false, kTypedChunks},
        {"replace_settable", "act", type + "true," + text + "}", true, {}, {kTyped}},
        {"replace_unsettable", "act", type + "true," + text + "}", false,
         testing::kSelectAll + kTypedChunks},
        {"type_into", "act", R"({"kind":"type_into","x":210,"y":70,"replace":false,)" + text + "}",
         false, clicks("210,70") + kTypedChunks},
        {"key", "act", R"({"kind":"key","value":"navigate_back"})", false,
         press(33, " flags=0x100000")},
        {"scroll", "act", R"({"kind":"scroll","amount":120})", false,
         {"scroll pixel wheels=1 delta=120,0,0"}},
    };
}

void PrintTo(const Scenario& s, std::ostream* os) { *os << s.name; }

class FaultMatrix : public ::testing::TestWithParam<Scenario> {};

TEST_P(FaultMatrix, EveryFaultAtEveryStepEndsAsTheFirstCheckThatSeesItRequires) {
    const Scenario& scenario = GetParam();
    RunRecord healthy = run(scenario, [](FormScene&) {});
    ASSERT_EQ(healthy.response.status, 0) << healthy.response.body;
    // Every expectation below is measured against the healthy run.
    ASSERT_EQ(healthy.posted, scenario.input);
    ASSERT_EQ(healthy.setTexts, scenario.set);
    Log log(healthy.calls, scenario.operation != "act");
    ASSERT_FALSE(log.resolutions.empty());

    const std::vector<Fault> allFaults = faults();
    int cases = 0;
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
            RunRecord faulty = run(scenario, [&](FormScene& s) {
                s.desktop.before(op, nth, [&s, &fault, &call, nth, creations] {
                    fault.inject(s, call, nth, creations);
                });
            });
            ++cases;

            EXPECT_EQ(testing::errorOf(parseJson(faulty.response.body)),
                      want.message.value_or(testing::kSuccess));
            EXPECT_EQ(faulty.response.status, want.message ? 1 : 0);
            EXPECT_EQ(faulty.setTexts, want.message ? std::vector<std::string>{} : healthy.setTexts);
            size_t expectedPosts = want.message ? log.postsBefore(want.at) : healthy.posted.size();
            EXPECT_EQ(faulty.posted, Events(healthy.posted.begin(),
                                            healthy.posted.begin() + expectedPosts));
        }
    }
    std::cout << "[ fault matrix ] " << scenario.name << ": " << healthy.calls.size() << " steps, "
              << cases << " cases\n";
    EXPECT_GT(cases, 0);
}

// The fault cases take the places of the checks from the log, so where the
// checks stand is a rule of its own: in "act" nothing happens before the
// scope is validated; every click, key press, chunk of text and scroll is
// created after a resolution of the window with no input posted since; each
// chunk also after a fresh read and comparison of the focused element; typing
// reads the editor's value before anything is typed; an observation ends
// with a check of its window. The same goes for the order of events: a key
// press or chunk has both its events made before either is posted, so a
// failure posts neither; a click's down is posted before its up is made.
TEST_P(FaultMatrix, ChecksStandWhereTheRulesPutThem) {
    const Scenario& scenario = GetParam();
    Log log(run(scenario, [](FormScene&) {}).calls, scenario.operation != "act");
    const std::vector<std::string>& calls = log.calls;
    ASSERT_FALSE(log.resolutions.empty());
    auto is = [](const std::string& call) {
        return [call](const std::string& c) { return c == call; };
    };
    auto isPost = [](const std::string& c) { return operationOf(c) == "post"; };

    if (!log.observation) {
        EXPECT_EQ(calls.front(), "isProcessTrusted");
    }
    for (size_t k = 0; k < calls.size(); ++k) {
        const std::string op = operationOf(calls[k]);
        bool keyDown = op == "createKeyboardEvent" && calls[k].ends_with(" down");
        if (keyDown) {
            EXPECT_LT(log.next(k, is(calls[k].substr(0, calls[k].size() - 4) + "up")),
                      log.next(k, isPost))
                << "key event posted before its pair was made, at step " << k;
        }
        if (calls[k] == "createMouseEvent 1") {
            EXPECT_LT(log.next(k, isPost), log.next(k, is("createMouseEvent 2")))
                << "mouse up made before the down was posted, at step " << k;
        }
        if (!keyDown && calls[k] != "createMouseEvent 1" && op != "createScrollWheelEvent") continue;

        SCOPED_TRACE("input created at step " + std::to_string(k) + ": " + calls[k]);
        const Resolution* last = nullptr;
        for (const Resolution& r : log.resolutions)
            if (r.title < k) last = &r;
        ASSERT_NE(last, nullptr);
        EXPECT_EQ(log.postsBefore(k), log.postsBefore(last->title));
        size_t detail = log.next(k, [](const std::string& c) {
            return c.starts_with("setFlags") || c.starts_with("setUnicodeString");
        });
        if (!keyDown || detail == calls.size() || !calls[detail].starts_with("setUnicodeString"))
            continue;  // not a chunk of text
        bool focusRead = false, compared = false;
        for (size_t i = last->title; i < k; ++i) {
            focusRead = focusRead || std::count(log.focusReads.begin(), log.focusReads.end(), i);
            compared = compared || (focusRead && calls[i] == "equal");
        }
        EXPECT_TRUE(compared) << "no focus check before this chunk";
    }
    if (scenario.action.find(R"("kind":"type)") != std::string::npos) {
        ASSERT_TRUE(log.guardValueRead.has_value());
        EXPECT_GE(log.next(0, [](const std::string& c) { return c.starts_with("setAttributeValue"); }),
                  *log.guardValueRead);
        EXPECT_EQ(log.postsBefore(*log.guardValueRead),
                  scenario.action.find("type_into") != std::string::npos ? 2u : 0u);
        // The keyboard is readied after the guards and before any key of the
        // text, select-all included.
        size_t prepared = log.next(0, is("prepareText"));
        EXPECT_EQ(prepared == calls.size(), !scenario.set.empty()) << "set in one step, or typed";
        EXPECT_GT(prepared, *log.guardValueRead);
        EXPECT_EQ(log.postsBefore(prepared), log.postsBefore(*log.guardValueRead));
    }
    // Only "type_into" pauses: a tenth of a second, once, between its click,
    // all posted, and the text.
    auto isPause = [](const std::string& c) { return c.starts_with("sleep"); };
    size_t pause = log.next(0, isPause);
    EXPECT_EQ(pause < calls.size(), scenario.action.find("type_into") != std::string::npos);
    if (pause < calls.size()) {
        EXPECT_EQ(calls[pause], "sleep 0.1");
        EXPECT_EQ(log.postsBefore(pause), 2u);
        EXPECT_LT(pause, log.next(0, [](const std::string& c) {
                      return c.starts_with("createKeyboardEvent");
                  }));
        EXPECT_EQ(log.next(pause + 1, isPause), calls.size()) << "a second pause";
    }
    if (log.observation) {
        const Resolution& final = log.resolutions.back();
        EXPECT_TRUE(final.checking);
        ASSERT_TRUE(log.scanEnd.has_value());
        EXPECT_GT(final.trusted, *log.scanEnd);
        for (size_t i = final.trusted; i < calls.size(); ++i)
            EXPECT_TRUE(calls[i] != "copyImageData" && calls[i] != "encodePng" &&
                        calls[i] != "recognizeText")
                << "capture after the final check";
        for (size_t i = final.title + 1; i < calls.size(); ++i)
            EXPECT_EQ(calls[i], "processIdentifier") << "after the final check";
    }
}

INSTANTIATE_TEST_SUITE_P(Operations, FaultMatrix, ::testing::ValuesIn(scenarios()),
                         [](const ::testing::TestParamInfo<Scenario>& info) {
                             return info.param.name;
                         });

}  // namespace
}  // namespace quorvel
