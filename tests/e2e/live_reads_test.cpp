// The Linux backend in this process, against the fixture: whatever the tree
// scan prefetches serves that scan only, and the reads that guard input (the
// focused element, the window, an editor's value) always ask the
// application.
#include <gtest/gtest.h>

#include <chrono>
#include <deque>
#include <thread>

#include "accessibility/element.h"
#include "accessibility/window.h"
#include "bridge/failure.h"
#include "input_desktop.h"
#include "platform/platform.h"

namespace quorvel::e2e {
namespace {

// The first element under `root`, breadth-first, whose title is `title`.
Element find(Platform& platform, const Element& root, const std::string& title) {
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

// The foreground window, or a test failure naming why there is none. A
// window that has only just appeared may still be settling into place.
Window front(Platform& platform) {
    for (int attempt = 0;; ++attempt) {
        try {
            return foreground(platform);
        } catch (const Failure& failure) {
            if (attempt == 20) throw std::runtime_error(failure.message());
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}

Element focused(Platform& platform, const Window& window) {
    Element application =
        platform.createApplicationElement(platform.processIdentifier(window.app));
    return element(platform, application, "AXFocusedUIElement");
}

TEST(LiveReads, OnlyTheScanIsServedFromItsPrefetch) {
    Fixture fixture;
    Platform& platform = systemPlatform();
    Window window = front(platform);
    Element status = find(platform, window.root, "Count: 0");
    ASSERT_TRUE(status);

    platform.beginTreeScan(window.root);
    EXPECT_EQ(string(platform, status, "AXTitle"), "Count: 0");
    fixture.command("label Count: 7");
    fixture.command("focus entry");
    fixture.command("entry Grace Hopper");
    // Within the scan, its elements read as they were when it began...
    EXPECT_EQ(string(platform, status, "AXTitle"), "Count: 0");
    // ...but which element has the focus is asked afresh.
    Element editor = focused(platform, window);
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

TEST(LiveReads, FocusMovedBetweenTwoReadsIsSeen) {
    Fixture fixture;
    Platform& platform = systemPlatform();
    Window window = front(platform);
    fixture.command("focus entry");
    Element first = focused(platform, window);
    fixture.command("focus notes");
    Element second = focused(platform, window);
    ASSERT_TRUE(first && second);
    EXPECT_FALSE(platform.equal(first, second));
    EXPECT_EQ(string(platform, second, "AXRole"), "AXTextArea");
    fixture.command("focus entry");
    EXPECT_TRUE(platform.equal(first, focused(platform, window)));
}

// The reads that guard input ask about the windows seen last time along
// with the list of windows; a window that opens or closes in between must
// still be seen at once.
TEST(LiveReads, WindowsOpenedOrClosedBetweenTwoReadsAreSeen) {
    Fixture fixture;
    Platform& platform = systemPlatform();
    Window window = front(platform);
    fixture.command("focus entry");
    Element entry = focused(platform, window);
    ASSERT_TRUE(entry);
    Element application =
        platform.createApplicationElement(platform.processIdentifier(window.app));

    fixture.command("second");
    Element second;
    for (int attempt = 0; attempt < 50 && !second; ++attempt) {
        Element now = element(platform, application, "AXFocusedWindow");
        if (now && !platform.equal(now, window.root)) second = now;
        else std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    ASSERT_TRUE(second) << "the second window never became the focused one";
    Element inSecond = focused(platform, window);
    EXPECT_FALSE(inSecond && platform.equal(inSecond, entry));

    fixture.command("close-second");
    fixture.command("present");
    fixture.command("focus entry");
    Element back;
    for (int attempt = 0; attempt < 50 && !back; ++attempt) {
        Element now = element(platform, application, "AXFocusedWindow");
        if (now && platform.equal(now, window.root)) back = now;
        else std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    ASSERT_TRUE(back) << "the main window never came back in front";
    Element again = focused(platform, window);
    ASSERT_TRUE(again);
    EXPECT_TRUE(platform.equal(again, entry));
}

// The failure message of validating `scope` now; empty when it passes.
std::string validation(Platform& platform, const JsonObject& scope) {
    try {
        validate(platform, scope);
        return "";
    } catch (const Failure& failure) {
        return failure.message();
    }
}

// The window list and the active window are also asked about along with
// what was seen last time: a window moved or retitled between two checks of
// one process must fail the second.
TEST(LiveReads, WindowMovedOrRetitledBetweenTwoChecksIsSeen) {
    const std::string changed = "The foreground window changed. Observe again before sending input.";
    Fixture fixture;
    Platform& platform = systemPlatform();
    for (const char* change : {"move 7 5", "title Renamed"}) {
        JsonObject scope = front(platform).scope(platform);
        ASSERT_EQ(validation(platform, scope), "") << change;
        fixture.command(change);
        std::string message;
        for (int attempt = 0; attempt < 50 && message.empty(); ++attempt) {
            message = validation(platform, scope);
            if (message.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        EXPECT_EQ(message, changed) << change;
    }
}

TEST(LiveReads, OnlyEditorsThatOfferItCanBeSetThroughAccessibility) {
    Fixture fixture;
    Platform& platform = systemPlatform();
    Window window = front(platform);
    struct Case {
        const char* focus;
        bool settable;
    } cases[] = {{"entry", true}, {"notes", true}, {"plain", false}};
    for (const Case& c : cases) {
        fixture.command(std::string("focus ") + c.focus);
        Element editor = focused(platform, window);
        ASSERT_TRUE(editor) << c.focus;
        EXPECT_TRUE(editable(platform, editor)) << c.focus;
        bool settable = !c.settable;
        EXPECT_EQ(platform.isAttributeSettable(editor, "AXValue", settable), kAXErrorSuccess);
        EXPECT_EQ(settable, c.settable) << c.focus;
    }
    fixture.command("focus entry");
    Element entry = focused(platform, window);
    ASSERT_EQ(platform.setAttributeValue(entry, "AXValue", "Set through accessibility"),
              kAXErrorSuccess);
    EXPECT_EQ(editorValue(platform, entry), "Set through accessibility");
}

}  // namespace
}  // namespace quorvel::e2e
