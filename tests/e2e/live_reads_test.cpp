// The Linux backend in this process, against the fixture: whatever the tree
// scan prefetches serves that scan only, and the reads that guard input (the
// focused element, the window, an editor's value) always ask the
// application.
#include <gtest/gtest.h>

#include <chrono>
#include <deque>
#include <optional>
#include <thread>

#include "accessibility/element.h"
#include "accessibility/window.h"
#include "bridge/failure.h"
#include "harness.h"
#include "platform/platform.h"

namespace quorvel::e2e {
namespace {

// Reads until the answer is truthy, for at most five seconds; returns the
// last answer.
template <typename Read>
auto until(Read read) {
    auto answer = read();
    for (int attempt = 0; attempt < 50 && !answer; ++attempt) {
        std::this_thread::sleep_for(100ms);
        answer = read();
    }
    return answer;
}

// The first element under `root`, breadth-first, whose title is `title`.
Element titled(Platform& platform, const Element& root, const std::string& title) {
    std::deque<Element> queue{root};
    for (int visited = 0; !queue.empty() && visited < 3000; ++visited) {
        Element element = queue.front();
        queue.pop_front();
        if (string(platform, element, "AXTitle") == title) return element;
        Value children = attr(platform, element, "AXChildren");
        if (auto* list = std::get_if<ElementList>(&children))
            queue.insert(queue.end(), list->begin(), list->end());
    }
    return nullptr;
}

// The failure message of validating `scope` now; none when it passes.
std::optional<std::string> validation(Platform& platform, const JsonObject& scope) {
    try {
        validate(platform, scope);
        return std::nullopt;
    } catch (const Failure& failure) {
        return failure.message();
    }
}

class LiveReads : public ::testing::Test {
protected:
    // The foreground window, or a test failure naming why there is none. A
    // window that has only just appeared may still be settling into place.
    Window front() {
        for (int attempt = 0;; ++attempt) {
            try {
                return foreground(platform);
            } catch (const Failure& failure) {
                if (attempt == 20) throw std::runtime_error(failure.message());
            }
            std::this_thread::sleep_for(100ms);
        }
    }
    Element focused(const Window& window, const char* attribute = "AXFocusedUIElement") {
        return element(platform, platform.createApplicationElement(platform.processIdentifier(window.app)),
                       attribute);
    }

    Fixture fixture;
    Platform& platform = systemPlatform();
};

TEST_F(LiveReads, OnlyTheScanIsServedFromItsPrefetch) {
    Window window = front();
    Element status = titled(platform, window.root, "Count: 0");
    ASSERT_TRUE(status);

    platform.beginTreeScan(window.root);
    EXPECT_EQ(string(platform, status, "AXTitle"), "Count: 0");
    fixture.command("label Count: 7");
    fixture.command("focus entry");
    fixture.command("entry Grace Hopper");
    // Within the scan, its elements read as they were when it began...
    EXPECT_EQ(string(platform, status, "AXTitle"), "Count: 0");
    // ...but which element has the focus is asked afresh.
    Element editor = focused(window);
    ASSERT_TRUE(editor);
    EXPECT_EQ(string(platform, editor, "AXRole"), "AXTextField");
    EXPECT_EQ(string(platform, editor, "AXTitle"), "Name");
    platform.endTreeScan();

    // Once the scan ends, nothing of it remains: the editor's value, which
    // guards typing, is the application's current one.
    EXPECT_EQ(editorValue(platform, editor), "Grace Hopper");
    EXPECT_EQ(string(platform, status, "AXTitle"), "Count: 7");
    fixture.command("label Count: 8");
    EXPECT_EQ(string(platform, status, "AXTitle"), "Count: 8");
    // A new scan prefetches afresh.
    platform.beginTreeScan(window.root);
    EXPECT_EQ(string(platform, status, "AXTitle"), "Count: 8");
    platform.endTreeScan();
}

// The reads that guard input ask about the windows seen last time along
// with the list of windows; a window that opens or closes in between must
// still be seen at once.
TEST_F(LiveReads, WindowsOpenedOrClosedBetweenTwoReadsAreSeen) {
    Window window = front();
    fixture.command("focus entry");
    Element entry = focused(window);
    ASSERT_TRUE(entry);

    fixture.command("second");
    // Whether the application's focused window is the main one, once it is
    // (or is not, when `main` is false).
    auto inFront = [&](bool main) {
        return until([&] {
            Element now = focused(window, "AXFocusedWindow");
            return now && platform.equal(now, window.root) == main;
        });
    };
    ASSERT_TRUE(inFront(false)) << "the second window never became the focused one";
    Element inSecond = focused(window);
    EXPECT_FALSE(inSecond && platform.equal(inSecond, entry));

    fixture.command("close-second");
    fixture.command("present");
    fixture.command("focus entry");
    ASSERT_TRUE(inFront(true)) << "the main window never came back in front";
    Element again = focused(window);
    ASSERT_TRUE(again);
    EXPECT_TRUE(platform.equal(again, entry));
}

// The window list and the active window are also asked about along with
// what was seen last time: a window moved or retitled between two checks of
// one process must fail the second. While the window moves, the window list
// and accessibility may briefly disagree; the check must settle on a change.
TEST_F(LiveReads, WindowMovedOrRetitledBetweenTwoChecksIsSeen) {
    for (const char* change : {"move 7 5", "title Renamed"}) {
        JsonObject scope = front().scope(platform);
        ASSERT_EQ(validation(platform, scope), std::nullopt) << change;
        fixture.command(change);
        EXPECT_EQ(until([&] {
                      std::optional<std::string> failure = validation(platform, scope);
                      return failure == kWindowChanged ? failure : std::nullopt;
                  }),
                  kWindowChanged)
            << change;
    }
}

}  // namespace
}  // namespace quorvel::e2e
