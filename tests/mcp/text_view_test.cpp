// The text view of an observation, and the ids it hands out.
#include <gtest/gtest.h>

#include "mcp/text_view.h"
#include "stub_bridge.h"

namespace quorvel::mcp {
namespace {

using testing::formObservation;

TEST(TextView, ListsWhatCanBeActedOnOrReadWithCentres) {
    EXPECT_EQ(textView(formObservation(), 3),
              "Window \"Form\" of Editor at (100,50) 800x600, observation 3\n"
              "Focused: AXTextField value=\"Ada\"\n"
              "3:ax-0 AXWindow \"Form\" @(500,350)\n"
              "3:ax-2 AXTextField \"Name\" value=\"Ada\" editable @(350,73)\n"
              "3:ax-3 AXTextField \"Authentication field\" @(350,112)\n"
              "3:ax-4 AXButton \"Save\" @(641,515)\n"
              "3:ax-5 AXList \"Rows\" @(700,375)\n"  // the middle of the part in the window
              "Text \"Total: 12\" @(750,410)\n"
              "5 of 8 nodes shown; the others are off screen or have no name, value or editor.");
}

TEST(TextView, QuotesAndCutsLongTextAndShowsDisabledNodes) {
    Json result = formObservation();
    Json& editor = result["nodes"][2];
    editor["name"] = "Say \"hi\"\nthen go";
    editor["value"] = std::string(99, 'x') + "e\u0301" + "yz";  // the 100th character is two scalars
    editor["enabled"] = false;
    result["context"]["focused_role"] = "";
    std::string view = textView(result, 1);
    EXPECT_NE(view.find("Focused: nothing\n"), std::string::npos) << view;
    EXPECT_NE(view.find("1:ax-2 AXTextField \"Say \\\"hi\\\"\\nthen go\" value=\"" + std::string(99, 'x') +
                        "e\u0301\u2026\" editable disabled @(350,73)\n"),
              std::string::npos)
        << view;
}

TEST(TextView, IdsCarryTheObservationNumber) {
    EXPECT_EQ(viewId(12, "ax-7"), "12:ax-7");
    std::optional<ViewId> id = parseViewId("12:ax-7");
    ASSERT_TRUE(id);
    EXPECT_EQ(id->observation, 12);
    EXPECT_EQ(id->nodeId, "ax-7");
    for (const char* malformed : {"ax-7", "12:", ":ax-7", "12:ax-", "12:bx-7", "-1:ax-7", "12:ax-7x",
                                  "1 2:ax-7", "1234567890:ax-1", "12:ax-1234567890", ""})
        EXPECT_FALSE(parseViewId(malformed)) << malformed;
}

}  // namespace
}  // namespace quorvel::mcp
