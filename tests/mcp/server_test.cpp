// JSON-RPC 2.0 as the MCP stdio transport carries it: what each message gets
// back, if anything.
#include <gtest/gtest.h>

#include "mcp/server.h"
#include "stub_bridge.h"

namespace quorvel::mcp {
namespace {

using testing::ScriptedBridge;

struct Exchange {
    const char* name;
    std::string message;
    // The whole reply; empty when there must be none.
    std::string reply;
};

TEST(Server, AnswersEachMessageAsJsonRpcSays) {
    auto err = [](int code, const std::string& message, const std::string& id) {
        return R"({"error":{"code":)" + std::to_string(code) + R"(,"message":")" + message +
               R"("},"id":)" + id + R"(,"jsonrpc":"2.0"})";
    };
    for (const Exchange& e : {
             Exchange{"parse_error", "{\"jsonrpc\":", err(-32700, "Parse error", "null")},
             Exchange{"batch", R"([{"jsonrpc":"2.0","id":1,"method":"ping"}])",
                      err(-32600, "Invalid Request: batches are not supported.", "null")},
             Exchange{"scalar", "5", err(-32600, "Invalid Request", "null")},
             Exchange{"no_version", R"({"id":1,"method":"ping"})",
                      err(-32600, "Invalid Request", "1")},
             Exchange{"old_version", R"({"jsonrpc":"1.0","id":"a","method":"ping"})",
                      err(-32600, "Invalid Request", R"("a")")},
             Exchange{"method_not_string", R"({"jsonrpc":"2.0","id":1,"method":7})",
                      err(-32600, "Invalid Request", "1")},
             Exchange{"null_id", R"({"jsonrpc":"2.0","id":null,"method":"ping"})",
                      err(-32600, "Invalid Request: the id must be a string or an integer.", "null")},
             Exchange{"notification", R"({"jsonrpc":"2.0","method":"notifications/initialized"})", ""},
             Exchange{"unknown_notification", R"({"jsonrpc":"2.0","method":"notifications/cancelled","params":{"requestId":4}})", ""},
             Exchange{"response_from_client", R"({"jsonrpc":"2.0","id":9,"result":{}})", ""},
             Exchange{"ping", R"({"jsonrpc":"2.0","id":"p-1","method":"ping"})", R"({"id":"p-1","jsonrpc":"2.0","result":{}})"},
             Exchange{"unknown_method", R"({"jsonrpc":"2.0","id":2,"method":"resources/list"})",
                      err(-32601, "Method not found: resources/list", "2")},
             Exchange{"params_array", R"({"jsonrpc":"2.0","id":3,"method":"ping","params":[]})",
                      err(-32602, "Invalid params: expected an object.", "3")},
             Exchange{"initialize_without_version", R"({"jsonrpc":"2.0","id":4,"method":"initialize","params":{}})",
                      err(-32602, "Invalid params: protocolVersion must be a string.", "4")},
             Exchange{"call_without_name", R"({"jsonrpc":"2.0","id":5,"method":"tools/call","params":{}})",
                      err(-32602, "Invalid params: name must be a string.", "5")},
             Exchange{"call_arguments_array", R"({"jsonrpc":"2.0","id":6,"method":"tools/call","params":{"name":"observe","arguments":[]}})",
                      err(-32602, "Invalid params: arguments must be an object.", "6")},
             Exchange{"unknown_tool", R"({"jsonrpc":"2.0","id":7,"method":"tools/call","params":{"name":"drag"}})",
                      err(-32602, "Unknown tool: drag", "7")},
             Exchange{"tool_refusal", R"({"jsonrpc":"2.0","id":8,"method":"tools/call","params":{"name":"scroll","arguments":{"amount":5}}})",
                      R"({"id":8,"jsonrpc":"2.0","result":{"content":[{"text":"Observe the window first: input goes only to an observed window.","type":"text"}],"isError":true}})"},
         }) {
        ScriptedBridge bridge;
        Server server(bridge);
        std::optional<std::string> reply = server.handle(e.message);
        EXPECT_EQ(reply.value_or(""), e.reply) << e.name;
        EXPECT_EQ(bridge.requests.size(), 0u) << e.name;
    }
}

TEST(Server, NegotiatesTheProtocolVersion) {
    ScriptedBridge bridge;
    Server server(bridge);
    auto negotiated = [&](const std::string& asked) {
        Json reply = Json::parse(*server.handle(
            R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":")" + asked +
            R"(","capabilities":{},"clientInfo":{"name":"test","version":"1"}}})"));
        EXPECT_EQ(reply["result"]["capabilities"], Json::parse(R"({"tools":{"listChanged":false}})"));
        EXPECT_EQ(reply["result"]["serverInfo"]["name"], "quorvel-mcp");
        return reply["result"]["protocolVersion"].get<std::string>();
    };
    for (const std::string& version : supportedProtocolVersions()) EXPECT_EQ(negotiated(version), version);
    EXPECT_EQ(supportedProtocolVersions().front(), "2025-11-25");
    EXPECT_EQ(negotiated("2099-01-01"), "2025-11-25");
}

TEST(Server, ListsTheToolsAndCallsThem) {
    ScriptedBridge bridge;
    Server server(bridge);
    Json list = Json::parse(*server.handle(R"({"jsonrpc":"2.0","id":1,"method":"tools/list","params":{}})"));
    EXPECT_EQ(list["result"]["tools"], Tools::definitions());

    bridge.answers.push_back(testing::succeeded(testing::formObservation()));
    Json call = Json::parse(*server.handle(
        R"({"jsonrpc":"2.0","id":2,"method":"tools/call","params":{"name":"observe","arguments":{"image":false}}})"));
    EXPECT_EQ(call["id"], 2);
    EXPECT_EQ(call["result"]["content"][0]["type"], "text");
    EXPECT_FALSE(call["result"].contains("isError"));
    EXPECT_EQ(bridge.requests.size(), 1u);
}

}  // namespace
}  // namespace quorvel::mcp
