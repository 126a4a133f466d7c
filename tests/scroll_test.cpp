// The scroll action: the clamp, the pointer rule and the refusals.
#include <gtest/gtest.h>

#include <limits>
#include <ostream>

#include "bridge/scroll.h"
#include "scene.h"

namespace quorvel {
namespace {

using fake::FakeDesktop;
using fake::StandardScene;
using testing::failureOf;
using testing::standardScope;

const std::string kPlaceCursor = "Place the cursor inside the observed window before native scrolling.";

TEST(Scroll, ClampsTheAmountToPlusOrMinus2000) {
    struct Case {
        std::int64_t amount;
        std::int32_t delta;
    };
    for (Case c : {Case{0, 0}, Case{1999, 1999}, Case{-1999, -1999}, Case{2000, 2000},
                   Case{-2000, -2000}, Case{2001, 2000}, Case{5000, 2000}, Case{-5000, -2000},
                   Case{std::numeric_limits<std::int64_t>::max(), 2000},
                   Case{std::numeric_limits<std::int64_t>::min(), -2000}}) {
        FakeDesktop desktop;
        StandardScene scene(desktop);
        desktop.pointer = Point{500, 300};
        scroll(desktop, c.amount, standardScope());
        EXPECT_EQ(desktop.postedLog(),
                  std::vector<std::string>{"scroll pixel wheels=1 delta=" + std::to_string(c.delta) +
                                           ",0,0"})
            << c.amount;
        EXPECT_EQ(desktop.unreleased(), "");
    }
}

struct PointerCase {
    const char* name;
    std::optional<Point> pointer;
    bool scrolls;
};

void PrintTo(const PointerCase& c, std::ostream* os) { *os << c.name; }

class ScrollPointer : public ::testing::TestWithParam<PointerCase> {};

TEST_P(ScrollPointer, ScrollsOnlyWithThePointerInsideTheFrame) {
    FakeDesktop desktop;
    StandardScene scene(desktop);  // frame 100,50 800x600
    desktop.pointer = GetParam().pointer;
    EXPECT_EQ(failureOf([&] { scroll(desktop, 10, standardScope()); }),
              GetParam().scrolls ? "<no failure>" : kPlaceCursor);
    EXPECT_EQ(desktop.posted.size(), GetParam().scrolls ? 1u : 0u);
    EXPECT_EQ(desktop.count("pointerLocation"), 1);  // read, never moved
}

INSTANTIATE_TEST_SUITE_P(
    Table, ScrollPointer,
    ::testing::Values(PointerCase{"inside", Point{500, 300}, true},
                      PointerCase{"left_edge", Point{100, 300}, true},
                      PointerCase{"top_edge", Point{500, 50}, true},
                      PointerCase{"right_edge", Point{900, 300}, false},
                      PointerCase{"bottom_edge", Point{500, 650}, false},
                      PointerCase{"outside", Point{20, 20}, false},
                      PointerCase{"unreadable", std::nullopt, false}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Scroll, StaleScopeIsRefusedBeforeThePointerIsRead) {
    FakeDesktop desktop;
    StandardScene scene(desktop);
    desktop.pointer = Point{500, 300};
    scene.moveWindow(1, 0);
    EXPECT_EQ(failureOf([&] { scroll(desktop, 10, standardScope()); }),
              "The foreground window changed. Observe again before sending input.");
    EXPECT_EQ(desktop.count("pointerLocation"), 0);
    EXPECT_TRUE(desktop.posted.empty());
}

TEST(Scroll, EventThatCannotBeCreatedIsRefused) {
    FakeDesktop desktop;
    StandardScene scene(desktop);
    desktop.pointer = Point{500, 300};
    desktop.failEventCreation = {2};  // the pointer read counts as the first event
    EXPECT_EQ(failureOf([&] { scroll(desktop, 10, standardScope()); }), "Unable to create scroll input.");
    EXPECT_TRUE(desktop.posted.empty());
}

TEST(Scroll, ThroughTheDispatcherTheScopeIsValidatedTwice) {
    FakeDesktop desktop;
    StandardScene scene(desktop);
    desktop.pointer = Point{500, 300};
    Response r = respond(desktop, testing::act(standardScope(), R"({"kind":"scroll","amount":5000})"));
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(desktop.count("isProcessTrusted"), 2);
    EXPECT_EQ(desktop.postedLog(), std::vector<std::string>{"scroll pixel wheels=1 delta=2000,0,0"});
}

}  // namespace
}  // namespace quorvel
