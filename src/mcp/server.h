// The MCP server's message handling: JSON-RPC 2.0 over the stdio transport,
// one JSON message per line. It answers "initialize" (with protocol version
// negotiation), "ping", "tools/list" and "tools/call", ignores
// notifications and the client's responses, and serves requests one at a
// time in the order they arrive.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "mcp/bridge_runner.h"
#include "mcp/tools.h"

namespace quorvel::mcp {

// JSON-RPC error codes.
inline constexpr int kParseError = -32700;
inline constexpr int kInvalidRequest = -32600;
inline constexpr int kMethodNotFound = -32601;
inline constexpr int kInvalidParams = -32602;
inline constexpr int kInternalError = -32603;

// The protocol versions this server speaks, newest first; a client asking
// for another is answered with the newest.
const std::vector<std::string>& supportedProtocolVersions();

class Server {
public:
    explicit Server(Bridge& bridge) : tools_(bridge) {}

    // One message in; the line to send back, if any (none for
    // notifications and responses).
    std::optional<std::string> handle(std::string_view message);

private:
    Json dispatch(const std::string& method, const Json& params);

    Tools tools_;
};

// The answer to a line that was too long to read: a parse error.
std::string oversizedMessageReply();

}  // namespace quorvel::mcp
