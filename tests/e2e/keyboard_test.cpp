// End-to-end: the keyboard mapping that typing borrows spare keycodes from
// is never left changed, however a bridge ends, and never shared by two
// bridges at once.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <iostream>
#include <thread>

#include "harness.h"

namespace quorvel::e2e {
namespace {

constexpr char kRecord[] = "_QUORVEL_SPARE_KEYS";
constexpr char kKeyboardBusy[] =
    "Another bridge is typing on this desktop. Retry when it has finished.";

struct Ending {
    const char* name;
    int signal;
    std::string text;
    bool restoresItself;  // before it dies
};

void PrintTo(const Ending& ending, std::ostream* os) { *os << ending.name; }

class EndedWhileTyping : public ::testing::TestWithParam<Ending> {
protected:
    Fixture fixture;
};

// A bridge that is terminated restores the mapping itself; one that is
// killed cannot, and the next bridge run, even one that only observes,
// restores it from the record the killed one left on the server. With more
// distinct characters than spare keys, keys are reassigned while typing, so
// the kill finds them holding whatever they were given last.
TEST_P(EndedWhileTyping, TheMappingIsAsFoundOnceTheNextBridgeHasRun) {
    if (onWayland()) GTEST_SKIP() << kOnlyX << "shared keyboard mapping to borrow keys from";
    const Ending& ending = GetParam();
    std::vector<unsigned long> mapping = keyboardMapping();
    ASSERT_FALSE(rootHasProperty(kRecord));
    fixture.command("notes ");
    fixture.command("focus notes");
    pid_t typist = startBridge(actRequest(observe()["scope"], typing(ending.text, "")));
    // It is ended only in the middle of its text, with the mapping changed.
    for (int i = 0; i < 1000 && (keyboardMapping() == mapping || !rootHasProperty(kRecord)); ++i)
        std::this_thread::sleep_for(10ms);
    ASSERT_NE(keyboardMapping(), mapping) << "the bridge never changed the mapping";
    std::this_thread::sleep_for(200ms);
    kill(typist, ending.signal);
    int status = 0;
    waitpid(typist, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == ending.signal) << status;
    EXPECT_EQ(keyboardMapping() == mapping, ending.restoresItself);
    EXPECT_EQ(rootHasProperty(kRecord), !ending.restoresItself);

    observe("context");
    EXPECT_EQ(keyboardMapping(), mapping);
    EXPECT_FALSE(rootHasProperty(kRecord));
}

INSTANTIATE_TEST_SUITE_P(
    Signals, EndedWhileTyping,
    ::testing::Values(Ending{"terminated", SIGTERM, mixedText(3000, 60, 5), true},
                      Ending{"killed", SIGKILL, mixedText(3000, 60, 5), false},
                      Ending{"killed_while_keys_are_reassigned", SIGKILL, ideographs(1500, 40), false}),
    [](const auto& info) { return std::string(info.param.name); });

// Two bridges handed different texts at the same moment type into the one
// focused editor (two editors cannot both have the focus): one of them waits
// for the other to finish, so each text arrives whole and exactly, one after
// the other. A bridge may instead be refused before it types anything: the
// keyboard stayed the other's too long, or the other's text reached the
// editor before its own guard read the value. Never is a character wrong.
// Under X the texts borrow spare keys of the shared mapping; on Wayland
// each bridge has a keyboard of its own, and only the claim keeps them from
// typing into the editor at once.
TEST(TwoBridges, TypingAtOnceTakeTurnsAndNeverMixTheirCharacters) {
    Fixture fixture;
    std::vector<unsigned long> mapping = onWayland() ? std::vector<unsigned long>{} : keyboardMapping();
    fixture.command("focus notes");
    int bothTyped = 0;
    for (unsigned round = 0; round < 20; ++round) {
        SCOPED_TRACE("round " + std::to_string(round + 1));
        fixture.command("notes ");
        Json seen = observeUntil([](const Json& o) { return valueOf(o, "Notes").empty(); });
        ASSERT_EQ(valueOf(seen, "Notes"), "");
        // Different characters in each text, so that each needs spare keys
        // of its own.
        const std::string texts[] = {mixedText(40, 100, 2 * round + 1), mixedText(40, 100, 2 * round + 2)};
        std::vector<Reply> replies = bridgesAtOnce({actRequest(seen["scope"], typing(texts[0], "")),
                                                    actRequest(seen["scope"], typing(texts[1], ""))});
        for (const Reply& reply : replies)
            EXPECT_TRUE(reply.ok() || reply.error() == kKeyboardBusy || reply.error() == kValueChanged)
                << reply.raw;
        bool both = replies[0].ok() && replies[1].ok();
        bothTyped += both;
        // What the editor may hold now.
        std::vector<std::string> possible = {replies[0].ok() ? texts[0] : replies[1].ok() ? texts[1] : ""};
        if (both) possible = {texts[0] + texts[1], texts[1] + texts[0]};
        auto isPossible = [&](const std::string& value) {
            return std::find(possible.begin(), possible.end(), value) != possible.end();
        };
        std::string value =
            valueOf(observeUntil([&](const Json& o) { return isPossible(valueOf(o, "Notes")); }), "Notes");
        EXPECT_PRED1(isPossible, value);
    }
    std::cout << "[ two bridges ] both typed in " << bothTyped << " of 20 rounds\n";
    // The rounds where both typed are the ones where the keyboard was taken
    // in turn.
    EXPECT_GT(bothTyped, 0);
    if (!onWayland()) {
        EXPECT_EQ(keyboardMapping(), mapping);
        EXPECT_FALSE(rootHasProperty(kRecord));
    }
}

}  // namespace
}  // namespace quorvel::e2e
