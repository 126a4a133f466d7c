// Foreground window resolution and scope validation.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <ostream>

#include "accessibility/element.h"
#include "accessibility/window.h"
#include "scene.h"

namespace quorvel {
namespace {

using fake::ElementId;
using fake::FakeDesktop;
using fake::StandardScene;
using testing::failureOf;
using testing::standardScope;

const std::string kPermission =
    "Grant Accessibility access to Quorvel in macOS System Settings, then retry.";
const std::string kNoApplication = "No foreground application. Unlock the desktop.";
const std::string kNoBounds = "The foreground window has no accessible bounds.";
const std::string kNotUnique =
    "The foreground window cannot be identified uniquely. Close overlapping duplicate windows and "
    "observe again.";
const std::string kChanged = "The foreground window changed. Observe again before sending input.";

constexpr std::int64_t kPid = StandardScene::kPid;
constexpr Rect kFrame = StandardScene::kFrame;

WindowListEntry entry(Value pid, Value layer, std::optional<Rect> bounds, Value number) {
    return WindowListEntry{std::move(pid), std::move(layer), bounds, std::move(number)};
}

Rect shifted(double dx, double dy, double dw, double dh) {
    return Rect{kFrame.x + dx, kFrame.y + dy, kFrame.width + dw, kFrame.height + dh};
}

struct Situation {
    const char* name;
    std::function<void(StandardScene&)> arrange;
    std::string message;
};

void PrintTo(const Situation& s, std::ostream* os) { *os << s.name; }

class ForegroundRefusal : public ::testing::TestWithParam<Situation> {};

TEST_P(ForegroundRefusal, ThrowsItsMessageAndReleasesWhatItTook) {
    FakeDesktop desktop;
    StandardScene scene(desktop);
    GetParam().arrange(scene);
    EXPECT_EQ(failureOf([&] { foreground(desktop); }), GetParam().message);
    EXPECT_EQ(desktop.unreleased(), "");
}

void setList(StandardScene& s, std::vector<WindowListEntry> list) { s.desktop.windowList = list; }

INSTANTIATE_TEST_SUITE_P(
    Table, ForegroundRefusal,
    ::testing::Values(
        Situation{"no_permission", [](StandardScene& s) { s.desktop.trusted = false; },
                  kPermission},
        Situation{"no_application", [](StandardScene& s) { s.desktop.frontmost.reset(); },
                  kNoApplication},
        Situation{"no_focused_window",
                  [](StandardScene& s) { s.desktop.unset(s.app, "AXFocusedWindow"); }, kNoBounds},
        Situation{"focused_window_read_fails",
                  [](StandardScene& s) {
                      s.desktop.set(s.app, "AXFocusedWindow", s.desktop.handle(s.window),
                                    kAXErrorCannotComplete);
                  },
                  kNoBounds},
        Situation{"focused_window_is_an_array",
                  [](StandardScene& s) {
                      s.desktop.set(s.app, "AXFocusedWindow", ElementList{s.desktop.handle(s.window)});
                  },
                  kNoBounds},
        Situation{"no_size", [](StandardScene& s) { s.desktop.unset(s.window, "AXSize"); },
                  kNoBounds},
        Situation{"no_position", [](StandardScene& s) { s.desktop.unset(s.window, "AXPosition"); },
                  kNoBounds},
        Situation{"zero_width",
                  [](StandardScene& s) { s.desktop.set(s.window, "AXSize", Size{0, 600}); },
                  kNoBounds},
        Situation{"zero_height",
                  [](StandardScene& s) { s.desktop.set(s.window, "AXSize", Size{800, 0}); },
                  kNoBounds},
        Situation{"nan_width",
                  [](StandardScene& s) {
                      s.desktop.set(s.window, "AXSize",
                                    Size{std::numeric_limits<double>::quiet_NaN(), 600});
                  },
                  kNoBounds},
        Situation{"no_window_list", [](StandardScene& s) { s.desktop.windowList.reset(); },
                  kNotUnique},
        Situation{"empty_window_list", [](StandardScene& s) { setList(s, {}); }, kNotUnique},
        Situation{"pid_as_string",
                  [](StandardScene& s) {
                      setList(s, {entry(std::string("4242"), std::int64_t{0}, kFrame, std::int64_t{77})});
                  },
                  kNotUnique},
        Situation{"pid_missing",
                  [](StandardScene& s) { setList(s, {entry({}, std::int64_t{0}, kFrame, std::int64_t{77})}); },
                  kNotUnique},
        Situation{"other_process",
                  [](StandardScene& s) {
                      setList(s, {entry(kPid + 1, std::int64_t{0}, kFrame, std::int64_t{77})});
                  },
                  kNotUnique},
        Situation{"layer_missing",
                  [](StandardScene& s) { setList(s, {entry(kPid, {}, kFrame, std::int64_t{77})}); },
                  kNotUnique},
        Situation{"only_on_another_layer",
                  [](StandardScene& s) { setList(s, {entry(kPid, std::int64_t{3}, kFrame, std::int64_t{77})}); },
                  kNotUnique},
        Situation{"no_bounds",
                  [](StandardScene& s) {
                      setList(s, {entry(kPid, std::int64_t{0}, std::nullopt, std::int64_t{77})});
                  },
                  kNotUnique},
        Situation{"two_same_sized_windows",
                  [](StandardScene& s) {
                      s.desktop.windowList->push_back(
                          entry(kPid, std::int64_t{0}, shifted(0.5, -0.5, 1, 0), std::int64_t{78}));
                  },
                  kNotUnique},
        Situation{"number_missing",
                  [](StandardScene& s) { setList(s, {entry(kPid, std::int64_t{0}, kFrame, {})}); },
                  kNotUnique},
        Situation{"number_as_string",
                  [](StandardScene& s) {
                      setList(s, {entry(kPid, std::int64_t{0}, kFrame, std::string("77"))});
                  },
                  kNotUnique},
        Situation{"number_beyond_32_bits",
                  [](StandardScene& s) {
                      setList(s, {entry(kPid, std::int64_t{0}, kFrame, std::int64_t{1} << 32)});
                  },
                  kNotUnique},
        Situation{"negative_number",
                  [](StandardScene& s) { setList(s, {entry(kPid, std::int64_t{0}, kFrame, std::int64_t{-1})}); },
                  kNotUnique}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Foreground, AsksForPermissionBeforeAnythingElse) {
    FakeDesktop desktop;  // no application, no window: the permission still comes first
    desktop.trusted = false;
    EXPECT_EQ(failureOf([&] { foreground(desktop); }), kPermission);
    EXPECT_EQ(desktop.calls, std::vector<std::string>{"isProcessTrusted"});
}

TEST(Foreground, AsksTheSourcesInOrderAndReadsTheTitleLast) {
    FakeDesktop desktop;
    StandardScene scene(desktop);
    foreground(desktop);
    std::string app = std::to_string(scene.app), win = std::to_string(scene.window);
    std::vector<std::string> expected{
        "isProcessTrusted",
        "frontmostApplication",
        "processIdentifier",
        "createApplicationElement 4242",
        "setMessagingTimeout " + app + " 2",
        "copyAttributeValue " + app + " AXFocusedWindow",
        "copyAttributeValue " + win + " AXPosition",
        "copyAttributeValue " + win + " AXSize",
        "copyWindowInfo 17 0",
        "copyAttributeValue " + win + " AXTitle",
    };
    EXPECT_EQ(desktop.calls, expected);
}

TEST(Foreground, TitleIsNotReadWhenTheWindowIsAmbiguous) {
    FakeDesktop desktop;
    StandardScene scene(desktop);
    desktop.windowList->push_back(entry(kPid, std::int64_t{0}, kFrame, std::int64_t{78}));
    EXPECT_EQ(failureOf([&] { foreground(desktop); }), kNotUnique);
    EXPECT_FALSE(desktop.wasRead(scene.window, "AXTitle"));
}

// Each edge and size of the window list's bounds against the accessibility
// frame: a difference below 2.0 still matches, exactly 2.0 does not.
TEST(Foreground, ToleranceIsStrictlyBelowTwoPointsPerEdgeAndSize) {
    const std::vector<std::function<Rect(double)>> edges{
        [](double d) { return shifted(d, 0, 0, 0); },
        [](double d) { return shifted(0, d, 0, 0); },
        [](double d) { return shifted(0, 0, d, 0); },
        [](double d) { return shifted(0, 0, 0, d); },
    };
    for (size_t i = 0; i < edges.size(); ++i) {
        for (double d : {1.9, -1.9, 2.0, -2.0}) {
            FakeDesktop desktop;
            StandardScene scene(desktop);
            desktop.windowList = std::vector<WindowListEntry>{
                entry(kPid, std::int64_t{0}, edges[i](d), std::int64_t{77})};
            bool matches = std::fabs(d) < 2.0;
            EXPECT_EQ(failureOf([&] { foreground(desktop); }), matches ? "<no failure>" : kNotUnique)
                << "edge " << i << " off by " << d;
        }
    }
}

TEST(Foreground, MatchesTheOneEntryOfTheApplicationOnLayerZero) {
    FakeDesktop desktop;
    StandardScene scene(desktop);
    desktop.windowList = std::vector<WindowListEntry>{
        entry(kPid, std::int64_t{25}, kFrame, std::int64_t{1}),            // same size, other layer
        entry(kPid + 1, std::int64_t{0}, kFrame, std::int64_t{2}),         // other application
        entry(kPid, std::int64_t{0}, Rect{0, 0, 300, 200}, std::int64_t{3}),  // other window of it
        entry(std::string("x"), std::int64_t{0}, kFrame, std::int64_t{4}),  // malformed
        entry(kPid, std::int64_t{0}, shifted(1.5, -1.5, 1, 1),
              std::int64_t{std::numeric_limits<std::uint32_t>::max()}),
    };
    Window w = foreground(desktop);
    EXPECT_EQ(w.windowID, std::numeric_limits<std::uint32_t>::max());
    // The scope carries the accessibility frame, not the window list's bounds.
    EXPECT_EQ(writeJson(w.scope(desktop)),
              R"({"bounds":{"height":600,"width":800,"x":100,"y":50},"pid":4242,)"
              R"("window":"Document","window_id":4294967295})");
}

TEST(Foreground, WindowWithoutTitleHasAnEmptyOne) {
    for (bool asNumber : {false, true}) {
        FakeDesktop desktop;
        StandardScene scene(desktop);
        if (asNumber)
            desktop.set(scene.window, "AXTitle", std::int64_t{7});
        else
            desktop.unset(scene.window, "AXTitle");
        Window w = foreground(desktop);
        EXPECT_EQ(w.title, "");
        EXPECT_EQ(w.scope(desktop).at("window"), "");
    }
}

TEST(Foreground, KeepsItsElementsOnlyAsLongAsTheWindowLives) {
    FakeDesktop desktop;
    StandardScene scene(desktop);
    {
        Window w = foreground(desktop);
        EXPECT_EQ(desktop.unreleased(), "1 element, 1 application");  // root and app
        Window copy = w;
        EXPECT_EQ(desktop.unreleased(), "1 element, 1 application");  // shared, not new
    }
    EXPECT_EQ(desktop.unreleased(), "");
}

// --- validate -----------------------------------------------------------------

TEST(Validate, UnchangedScopePassesAndGivesTheSameWindow) {
    FakeDesktop desktop;
    StandardScene scene(desktop);
    Window observed = foreground(desktop);
    Json echoed = parseJson(writeJson(observed.scope(desktop)));
    Window fresh = validate(desktop, echoed.get_ref<const JsonObject&>());
    EXPECT_EQ(desktop.pidOf(fresh.app), desktop.pidOf(observed.app));
    EXPECT_EQ(desktop.idOf(fresh.root), desktop.idOf(observed.root));
    EXPECT_EQ(writeJson(bounds(fresh.frame)), writeJson(bounds(observed.frame)));
    EXPECT_EQ(fresh.title, observed.title);
    EXPECT_EQ(fresh.windowID, observed.windowID);
}

struct ScopeCase {
    const char* name;
    std::function<void(StandardScene&)> change;  // the desktop after the observation
    std::string scope;                           // the scope as the agent sends it
    std::string message;
};

void PrintTo(const ScopeCase& c, std::ostream* os) { *os << c.name; }

class ValidateScope : public ::testing::TestWithParam<ScopeCase> {};

TEST_P(ValidateScope, ComparesTheCanonicalBytes) {
    FakeDesktop desktop;
    StandardScene scene(desktop);
    GetParam().change(scene);
    Json scope = parseJson(GetParam().scope);
    EXPECT_EQ(failureOf([&] { validate(desktop, scope.get_ref<const JsonObject&>()); }),
              GetParam().message);
    EXPECT_EQ(desktop.unreleased(), "");
}

const char kScope[] =
    R"({"bounds":{"height":600,"width":800,"x":100,"y":50},"pid":4242,"window":"Document","window_id":77})";
void unchanged(StandardScene&) {}

INSTANTIATE_TEST_SUITE_P(
    Table, ValidateScope,
    ::testing::Values(
        ScopeCase{"unchanged", unchanged, kScope, "<no failure>"},
        ScopeCase{"keys_in_another_order", unchanged,
                  R"({"window_id":77,"window":"Document","pid":4242,)"
                  R"("bounds":{"y":50,"x":100,"width":800,"height":600}})",
                  "<no failure>"},
        ScopeCase{"numbers_written_as_floats", unchanged,
                  R"({"bounds":{"height":600.0,"width":8e2,"x":100,"y":50},"pid":4242,)"
                  R"("window":"Document","window_id":77})",
                  "<no failure>"},
        ScopeCase{"moved_by_one_point", [](StandardScene& s) { s.moveWindow(1, 0); }, kScope,
                  kChanged},
        ScopeCase{"moved_by_half_a_point", [](StandardScene& s) { s.moveWindow(0, 0.5); }, kScope,
                  kChanged},
        ScopeCase{"retitled", [](StandardScene& s) { s.retitle("Document 2"); }, kScope, kChanged},
        ScopeCase{"extra_key", unchanged,
                  R"({"bounds":{"height":600,"width":800,"x":100,"y":50},"pid":4242,)"
                  R"("window":"Document","window_id":77,"app":"x"})",
                  kChanged},
        ScopeCase{"missing_key", unchanged,
                  R"({"bounds":{"height":600,"width":800,"x":100,"y":50},"pid":4242,"window":"Document"})",
                  kChanged},
        ScopeCase{"pid_as_string", unchanged,
                  R"({"bounds":{"height":600,"width":800,"x":100,"y":50},"pid":"4242",)"
                  R"("window":"Document","window_id":77})",
                  kChanged},
        ScopeCase{"title_in_other_case", unchanged,
                  R"({"bounds":{"height":600,"width":800,"x":100,"y":50},"pid":4242,)"
                  R"("window":"document","window_id":77})",
                  kChanged},
        ScopeCase{"other_window_number",
                  [](StandardScene& s) {
                      std::get<std::int64_t>((*s.desktop.windowList)[0].number) = 78;
                  },
                  kScope, kChanged},
        ScopeCase{"permission_revoked", [](StandardScene& s) { s.desktop.trusted = false; }, kScope,
                  kPermission},
        ScopeCase{"duplicate_window_appeared",
                  [](StandardScene& s) {
                      s.desktop.windowList->push_back(
                          entry(kPid, std::int64_t{0}, kFrame, std::int64_t{78}));
                  },
                  kScope, kNotUnique}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Validate, AScopeThatCannotBeWrittenCountsAsChanged) {
    FakeDesktop desktop;
    StandardScene scene(desktop);
    JsonObject scope = standardScope();
    scope["bounds"]["x"] = std::numeric_limits<double>::quiet_NaN();
    EXPECT_EQ(failureOf([&] { validate(desktop, scope); }), kChanged);
}

TEST(Validate, ScopeWithFractionsSurvivesTheRoundTripThroughTheAgent) {
    FakeDesktop desktop;
    StandardScene scene(desktop);
    const Rect frame{100.5, 0.1, 640.25, 480.75};
    desktop.set(scene.window, "AXPosition", Point{frame.x, frame.y});
    desktop.set(scene.window, "AXSize", Size{frame.width, frame.height});
    (*desktop.windowList)[0].bounds = frame;
    std::string written = writeJson(foreground(desktop).scope(desktop));
    EXPECT_EQ(written, R"({"bounds":{"height":480.75,"width":640.25,"x":100.5,"y":0.1},)"
                       R"("pid":4242,"window":"Document","window_id":77})");
    Json parsed = parseJson(written);
    EXPECT_EQ(writeJson(parsed), written);
    EXPECT_EQ(failureOf([&] { validate(desktop, parsed.get_ref<const JsonObject&>()); }),
              "<no failure>");
}

}  // namespace
}  // namespace quorvel
