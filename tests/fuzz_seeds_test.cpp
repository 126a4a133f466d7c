// The fuzz target's seed corpus stays useful only while every seed is a
// request that succeeds against the fuzz desktop and the seeds together
// cover every operation and action kind.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "scene.h"

namespace quorvel {
namespace {

TEST(FuzzSeeds, EverySeedSucceedsAndTogetherTheyCoverTheProtocol) {
    std::set<std::string> operations, kinds;
    const auto corpus = std::filesystem::path(__FILE__).parent_path().parent_path() / "fuzz/corpus";
    for (const auto& entry : std::filesystem::directory_iterator(corpus)) {
        std::stringstream text;
        text << std::ifstream(entry.path(), std::ios::binary).rdbuf();
        SCOPED_TRACE(entry.path().filename().string());
        for (bool settable : {true, false}) {
            fake::FormScene scene(settable);
            Response response = respond(scene.desktop, text.str());
            EXPECT_EQ(response.status, 0) << response.body;
        }
        Json request = parseJson(text.str());
        operations.insert(request.at("operation").get<std::string>());
        if (request.contains("action")) kinds.insert(request["action"].at("kind").get<std::string>());
    }
    EXPECT_EQ(operations,
              (std::set<std::string>{"act", "capabilities", "capture", "context", "observe"}));
    EXPECT_EQ(kinds, (std::set<std::string>{"click", "key", "scroll", "type", "type_into"}));
}

}  // namespace
}  // namespace quorvel
