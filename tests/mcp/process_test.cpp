// The bridge as a child process, played by small shell scripts: an answer,
// garbage, a crash, a hang, a bridge that is not there. And the server
// itself as a process, which outlives a crashing bridge. (That it finds the
// bridge beside itself, the end-to-end and package tests show.)
#include <gtest/gtest.h>

#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "mcp/bridge_runner.h"
#include "process.h"

namespace quorvel::mcp {
namespace {

namespace fs = std::filesystem;

class Scripts : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/quorvel-mcp-test.XXXXXX";
        ASSERT_TRUE(mkdtemp(pattern));
        dir_ = pattern;
    }
    void TearDown() override { fs::remove_all(dir_); }

    // An executable shell script with this body; its path.
    std::string script(const std::string& name, const std::string& body) {
        fs::path path = dir_ / name;
        std::ofstream(path) << "#!/bin/sh\n" << body << "\n";
        chmod(path.c_str(), 0755);
        return path;
    }
    std::string read(const std::string& name) {
        std::stringstream text;
        text << std::ifstream(dir_ / name).rdbuf();
        return text.str();
    }
    fs::path dir_;
};

constexpr char kRetry[] = " Observe the current state before retrying.";

TEST_F(Scripts, PassesTheRequestAndTakesTheEnvelope) {
    std::string answer = R"({"ok":true,"result":{"input_dispatched":true,"server_save_verified":false}})";
    ProcessBridge bridge(script("bridge", "cat > " + (dir_ / "request").string() + "; printf '%s' '" + answer + "'"),
                         std::chrono::seconds(20));
    Json request = {{"version", 1}, {"operation", "capabilities"}, {"text", "ünï\ncode"}};
    BridgeAnswer got = bridge.run(request);
    ASSERT_TRUE(got.envelope) << got.problem;
    EXPECT_EQ(*got.envelope, Json::parse(answer));
    EXPECT_EQ(read("request"), request.dump());
}

TEST_F(Scripts, AnythingButAnEnvelopeWithItsStatusIsAProblem) {
    struct Case {
        const char* body;
        std::string problem;  // empty: the envelope is taken
    };
    for (const Case& c : {
             Case{R"(cat >/dev/null; printf '{"ok":false,"error":"Unsupported key."}'; exit 1)", ""},
             Case{R"(cat >/dev/null; printf '{"ok":true,"result":{}}'; exit 1)",
                  std::string("The bridge gave no valid answer (exit status 1).") + kRetry},
             Case{R"(cat >/dev/null; printf 'Segmentation fault'; exit 0)",
                  std::string("The bridge gave no valid answer (exit status 0).") + kRetry},
             Case{R"(cat >/dev/null; printf '{"ok":false}'; exit 1)",
                  std::string("The bridge gave no valid answer (exit status 1).") + kRetry},
             Case{"cat >/dev/null; kill -SEGV $$",
                  std::string("The bridge ended on signal 11 without an answer.") + kRetry},
             Case{"exec sleep 30", std::string("The bridge did not answer within 0.5 seconds and was stopped.") + kRetry},
             // One that will not go on SIGTERM is killed.
             Case{"trap '' TERM; while :; do sleep 1; done",
                  std::string("The bridge did not answer within 0.5 seconds and was stopped.") + kRetry},
             // One that answers without reading its input must not take this
             // process down with SIGPIPE.
             Case{R"(printf '{"ok":true,"result":{}}')", ""},
         }) {
        SCOPED_TRACE(c.body);
        ProcessBridge bridge(script("bridge", c.body), std::chrono::milliseconds(500));
        BridgeAnswer got = bridge.run({{"text", std::string(1 << 20, 'x')}});
        EXPECT_EQ(got.problem, c.problem);
        EXPECT_EQ(got.envelope.has_value(), c.problem.empty());
    }
}

TEST_F(Scripts, ABridgeThatIsNotThereIsAProblem) {
    std::string missing = (dir_ / "missing").string();
    ProcessBridge bridge(missing, std::chrono::seconds(5));
    EXPECT_EQ(bridge.run({{"version", 1}}).problem,
              "The bridge could not be started from " + missing + ": No such file or directory.");
}

TEST_F(Scripts, TheServerOutlivesACrashingBridge) {
    std::string crash = script("crash", "cat >/dev/null; kill -SEGV $$");
    ::quorvel::testing::ProcessResult server = ::quorvel::testing::runProcess(
        {QUORVEL_MCP_BINARY, "--bridge", crash},
        R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-11-25","capabilities":{},"clientInfo":{"name":"t","version":"1"}}})"
        "\n"
        R"({"jsonrpc":"2.0","method":"notifications/initialized"})"
        "\n"
        R"({"jsonrpc":"2.0","id":2,"method":"tools/call","params":{"name":"observe","arguments":{}}})"
        "\r\n\n"
        R"({"jsonrpc":"2.0","id":3,"method":"ping"})",  // the last line without its newline
        {"PATH=/usr/bin:/bin"});
    std::istringstream lines(server.out);
    std::vector<Json> replies;
    for (std::string line; std::getline(lines, line);) replies.push_back(Json::parse(line));
    ASSERT_EQ(replies.size(), 3u) << server.out;
    EXPECT_EQ(replies[0]["result"]["protocolVersion"], "2025-11-25");
    EXPECT_EQ(replies[1]["result"]["isError"], true);
    EXPECT_EQ(replies[1]["result"]["content"][0]["text"],
              std::string("The bridge ended on signal 11 without an answer.") + kRetry);
    EXPECT_EQ(replies[2], Json::parse(R"({"jsonrpc":"2.0","id":3,"result":{}})"));
    EXPECT_EQ(server.status, 0);
}

}  // namespace
}  // namespace quorvel::mcp
