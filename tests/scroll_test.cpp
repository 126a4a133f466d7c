// The scroll action's pointer rule. The clamp and the defaults of the amount
// are decoded requests (bad_input_test); the scope check is the fault
// matrix's.
#include <gtest/gtest.h>

#include "bridge/scroll.h"
#include "scene.h"

namespace quorvel {
namespace {

using fake::FakeDesktop;
using fake::StandardScene;
using testing::failureOf;
using testing::standardScope;

TEST(Scroll, ScrollsOnlyWithThePointerInsideTheFrameAndNeverMovesIt) {
    struct Case { const char* name; std::optional<Point> pointer; bool scrolls; };
    // The frame is 100,50 800x600.
    for (const Case& c : {Case{"inside", Point{500, 300}, true}, Case{"top_left", Point{100, 50}, true},
                          Case{"right_edge", Point{900, 300}, false},
                          Case{"bottom_edge", Point{500, 650}, false},
                          Case{"outside", Point{20, 20}, false}}) {
        FakeDesktop desktop;
        StandardScene scene(desktop);
        desktop.pointer = c.pointer;
        EXPECT_EQ(failureOf([&] { scroll(desktop, -7, standardScope()); }),
                  c.scrolls ? testing::kNoFailure : msg::kPlaceCursor)
            << c.name;
        EXPECT_EQ(desktop.postedLog(), c.scrolls ? testing::Events{"scroll pixel wheels=1 delta=-7,0,0"}
                                                 : testing::Events{})
            << c.name;
        EXPECT_EQ(desktop.count("pointerLocation"), 1) << c.name;
    }
}

}  // namespace
}  // namespace quorvel
