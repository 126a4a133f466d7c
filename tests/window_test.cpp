// Foreground window resolution and scope validation.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>

#include "accessibility/window.h"
#include "scene.h"

namespace quorvel {
namespace {

using fake::FakeDesktop;
using fake::StandardScene;
using testing::failureOf;
using testing::kNoFailure;

using I = std::int64_t;
constexpr I kPid = StandardScene::kPid;
constexpr Rect kFrame = StandardScene::kFrame;

Rect shifted(double dx, double dy, double dw, double dh) {
    return Rect{kFrame.x + dx, kFrame.y + dy, kFrame.width + dw, kFrame.height + dh};
}

// Makes the window list exactly `entries`.
std::function<void(StandardScene&)> listOf(std::vector<WindowListEntry> entries) {
    return [entries](StandardScene& s) { s.desktop.windowList = entries; };
}

// Gives the window this size.
std::function<void(StandardScene&)> sized(Size size) {
    return [size](StandardScene& s) { s.desktop.set(s.window, "AXSize", size); };
}

TEST(Foreground, RefusesAWindowItCannotMeasureOrMatchExactlyOnce) {
    struct Case {
        const char* name;
        std::function<void(StandardScene&)> arrange;
        const char* message;
    };
    for (const Case& c : {
             Case{"no_focused_window", [](StandardScene& s) { s.desktop.unset(s.app, "AXFocusedWindow"); },
                  msg::kNoBounds},
             Case{"zero_width", sized({0, 600}), msg::kNoBounds},
             Case{"zero_height", sized({800, 0}), msg::kNoBounds},
             Case{"nan_width", sized({std::nan(""), 600}), msg::kNoBounds},
             Case{"empty_window_list", listOf({}), msg::kNotUnique},
             Case{"pid_as_string", listOf({{std::string("4242"), I{0}, kFrame, I{77}}}), msg::kNotUnique},
             Case{"other_process", listOf({{kPid + 1, I{0}, kFrame, I{77}}}), msg::kNotUnique},
             Case{"layer_missing", listOf({{kPid, {}, kFrame, I{77}}}), msg::kNotUnique},
             Case{"other_layer", listOf({{kPid, I{3}, kFrame, I{77}}}), msg::kNotUnique},
             Case{"no_bounds", listOf({{kPid, I{0}, std::nullopt, I{77}}}), msg::kNotUnique},
             Case{"two_matching_windows",
                  listOf({{kPid, I{0}, kFrame, I{77}}, {kPid, I{0}, shifted(0.5, -0.5, 1, 0), I{78}}}),
                  msg::kNotUnique},
             Case{"number_as_string", listOf({{kPid, I{0}, kFrame, std::string("77")}}), msg::kNotUnique},
             Case{"number_beyond_32_bits", listOf({{kPid, I{0}, kFrame, I{1} << 32}}), msg::kNotUnique},
             Case{"negative_number", listOf({{kPid, I{0}, kFrame, I{-1}}}), msg::kNotUnique},
         }) {
        SCOPED_TRACE(c.name);
        FakeDesktop desktop;
        StandardScene scene(desktop);
        c.arrange(scene);
        EXPECT_EQ(failureOf([&] { foreground(desktop); }), c.message);
        EXPECT_EQ(desktop.unreleased(), 0);
    }
}

TEST(Foreground, AsksTheSourcesInOrderAndReadsTheTitleLast) {
    FakeDesktop desktop;
    StandardScene scene(desktop);
    foreground(desktop);
    std::string app = std::to_string(scene.app), win = std::to_string(scene.window);
    EXPECT_EQ(desktop.calls, (std::vector<std::string>{
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
                             }));
}

// Each edge and size of the window list's bounds against the accessibility
// frame: a difference below 2.0 still matches, exactly 2.0 does not.
TEST(Foreground, ToleranceIsStrictlyBelowTwoPointsPerEdgeAndSize) {
    for (int edge = 0; edge < 4; ++edge) {
        for (double d : {1.9, -1.9, 2.0, -2.0}) {
            FakeDesktop desktop;
            StandardScene scene(desktop);
            (*desktop.windowList)[0].bounds =
                shifted(edge == 0 ? d : 0, edge == 1 ? d : 0, edge == 2 ? d : 0, edge == 3 ? d : 0);
            EXPECT_EQ(failureOf([&] { foreground(desktop); }),
                      std::fabs(d) < 2.0 ? kNoFailure : msg::kNotUnique)
                << "edge " << edge << " off by " << d;
        }
    }
}

TEST(Foreground, MatchesTheOneEntryOfTheApplicationOnLayerZero) {
    FakeDesktop desktop;
    StandardScene scene(desktop);
    // Entries that are no match on their own are the refusals' cases.
    listOf({
        {kPid + 1, I{0}, kFrame, I{2}},                // other application
        {kPid, I{0}, Rect{0, 0, 300, 200}, I{3}},      // other window of it
        {kPid, I{0}, shifted(1.5, -1.5, 1, 1), I{std::numeric_limits<std::uint32_t>::max()}},
    })(scene);
    // The scope carries the accessibility frame, not the window list's bounds.
    EXPECT_EQ(writeJson(foreground(desktop).scope(desktop)),
              R"({"bounds":{"height":600,"width":800,"x":100,"y":50},"pid":4242,)"
              R"("window":"Document","window_id":4294967295})");
}

TEST(Validate, ComparesTheCanonicalBytesOfTheScope) {
    const std::string scope =
        R"({"bounds":{"height":600,"width":800,"x":100,"y":50},"pid":4242,"window":"Document","window_id":77})";
    auto with = [&scope](const std::string& from, const std::string& to) {
        return std::string(scope).replace(scope.find(from), from.size(), to);
    };
    struct Case {
        const char* name;
        std::string scope;  // as the agent sends it
        const char* outcome;
    };
    for (const Case& c : {
             Case{"keys_in_another_order",
                  R"({"window_id":77,"window":"Document","pid":4242,"bounds":{"y":50,"x":100,"width":800,"height":600}})",
                  kNoFailure},
             Case{"numbers_written_as_floats", with(R"("height":600,"width":800)", R"("height":600.0,"width":8e2)"),
                  kNoFailure},
             Case{"extra_key", with(R"("window_id":77)", R"("window_id":77,"app":"x")"), msg::kChanged},
             Case{"missing_key", with(R"(,"window_id":77)", ""), msg::kChanged},
             Case{"pid_as_string", with("4242", R"("4242")"), msg::kChanged},
             Case{"title_in_other_case", with("Document", "document"), msg::kChanged},
             Case{"other_window_number", with(":77", ":78"), msg::kChanged},
         }) {
        SCOPED_TRACE(c.name);
        FakeDesktop desktop;
        StandardScene scene(desktop);
        Json parsed = parseJson(c.scope);
        EXPECT_EQ(failureOf([&] { validate(desktop, parsed.get_ref<const JsonObject&>()); }), c.outcome);
    }
}

}  // namespace
}  // namespace quorvel
