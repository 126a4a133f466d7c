// The bridge as a process: exact bytes on standard output, the exit status,
// and silence on standard error.
#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "bridge/envelope.h"
#include "bridge/json.h"
#include "fake/fake_desktop.h"
#include "process.h"

namespace quorvel {
namespace {

using testing::runBridge;

const std::string kGeneric =
    R"({"ok":false,"error":"Native operation failed. Observe the current state before retrying."})";
const std::string kInvalid = R"({"ok":false,"error":"Invalid request."})";
const std::string kCapabilities = R"({"version":1,"operation":"capabilities"})";

struct ProcessCase {
    const char* name;
    std::string input;
    std::string out;
    int status;
};

void PrintTo(const ProcessCase& c, std::ostream* os) { *os << c.name; }

class BridgeProcess : public ::testing::TestWithParam<ProcessCase> {};

TEST_P(BridgeProcess, AnswersWithOneEnvelopeAndTheMatchingStatus) {
    const ProcessCase& c = GetParam();
    testing::ProcessResult r = runBridge(c.input);
    EXPECT_EQ(r.out, c.out);
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.err, "");
}

std::string padded(const std::string& request, size_t size) {
    return request + std::string(size - request.size(), ' ');
}

std::string nested(size_t depth) {
    return R"({"version":1,"operation":"capabilities","deep":)" + std::string(depth, '[') +
           std::string(depth, ']') + "}";
}

INSTANTIATE_TEST_SUITE_P(
    Envelope, BridgeProcess,
    ::testing::Values(
        ProcessCase{"capabilities_without_desktop", kCapabilities,
                    R"({"ok":true,"result":{"accessibility":false,"clipboard_free_input":true,)"
                    R"("platform":"linux","screen_capture":false,"version":1}})",
                    0},
        ProcessCase{"exactly_the_limit", padded(kCapabilities, 256000),
                    R"({"ok":true,"result":{"accessibility":false,"clipboard_free_input":true,)"
                    R"("platform":"linux","screen_capture":false,"version":1}})",
                    0},
        ProcessCase{"one_byte_over_the_limit", padded(kCapabilities, 256001), kInvalid, 1},
        ProcessCase{"empty_input", "", kGeneric, 1},
        ProcessCase{"top_level_array", "[]", kInvalid, 1},
        ProcessCase{"top_level_object", "{}",
                    R"({"ok":false,"error":"Unsupported native protocol."})", 1},
        ProcessCase{"bare_number", "1", kGeneric, 1},
        ProcessCase{"bare_string", "\"capabilities\"", kGeneric, 1},
        ProcessCase{"malformed", "{\"version\":1,", kGeneric, 1},
        ProcessCase{"invalid_utf8_in_a_string",
                    "{\"version\":1,\"operation\":\"capabilit\xff\"}", kGeneric, 1},
        ProcessCase{"balanced_deep_nesting", nested(120000),
                    R"({"ok":true,"result":{"accessibility":false,"clipboard_free_input":true,)"
                    R"("platform":"linux","screen_capture":false,"version":1}})",
                    0},
        ProcessCase{"unclosed_brackets", std::string(250000, '['), kGeneric, 1},
        ProcessCase{"observation_without_desktop", R"({"version":1,"operation":"observe"})",
                    R"({"ok":false,"error":"Start the AT-SPI accessibility bus in this desktop )"
                    R"(session, then retry."})",
                    1}),
    [](const ::testing::TestParamInfo<ProcessCase>& info) { return info.param.name; });

TEST(Envelope, ActResultIsExactlyTheSeventyFiveBytes) {
    fake::FakeDesktop desktop;
    fake::StandardScene scene(desktop);
    Response scope = respond(desktop, R"({"version":1,"operation":"context"})");
    ASSERT_EQ(scope.status, 0) << scope.body;
    std::string scopeText = writeJson(parseJson(scope.body)["result"]["scope"]);
    Response r = respond(desktop, R"({"version":1,"operation":"act","scope":)" + scopeText +
                                      R"(,"action":{"kind":"key","value":"escape"}})");
    EXPECT_EQ(r.body, R"({"ok":true,"result":{"input_dispatched":true,"server_save_verified":false}})");
    EXPECT_EQ(r.body.size(), 75u);
    EXPECT_EQ(r.status, 0);
}

TEST(Envelope, FailuresFromDeepInsideReachTheAgentVerbatim) {
    fake::FakeDesktop desktop;
    fake::StandardScene scene(desktop);
    desktop.trusted = false;
    Response r = respond(desktop, R"({"version":1,"operation":"context"})");
    EXPECT_EQ(r.body, R"({"ok":false,"error":"Grant Accessibility access to Quorvel in macOS )"
                      R"(System Settings, then retry."})");
    EXPECT_EQ(r.status, 1);
}

TEST(Envelope, OtherErrorsGetTheGenericMessage) {
    fake::FakeDesktop desktop;
    fake::StandardScene scene(desktop);
    desktop.recognizerError = "recogniser exploded: internal detail";
    Response r = respond(desktop, R"({"version":1,"operation":"observe"})");
    EXPECT_EQ(r.body, kGeneric);
    EXPECT_EQ(r.status, 1);
}

}  // namespace
}  // namespace quorvel
