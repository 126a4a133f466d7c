#include "mcp/server.h"

#include <algorithm>

#ifndef QUORVEL_VERSION
#define QUORVEL_VERSION "0"
#endif

namespace quorvel::mcp {
namespace {

// Told to the client at initialisation, for the model that uses the tools.
constexpr char kInstructions[] =
    "Operates the frontmost desktop window. Call observe first: it lists the window's nodes with "
    "ids such as 3:ax-12, which belong to that observation only. Input goes only to the window "
    "last observed; when it has changed, moved or lost the front, input is refused and you "
    "observe again. Text is typed only while the editor holds the value that was observed.";

struct RpcError {
    int code;
    std::string message;
};

std::string written(const Json& message) {
    return message.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string errorReply(const Json& id, int code, const std::string& message) {
    return written({{"jsonrpc", "2.0"}, {"id", id}, {"error", {{"code", code}, {"message", message}}}});
}

const Json& member(const Json& object, const char* key) {
    static const Json none;
    auto it = object.find(key);
    return it != object.end() ? *it : none;
}

// MCP request ids are strings or integers, never null.
bool validId(const Json& id) { return id.is_string() || id.is_number_integer(); }

}  // namespace

const std::vector<std::string>& supportedProtocolVersions() {
    static const std::vector<std::string> versions{"2025-11-25", "2025-06-18", "2025-03-26",
                                                   "2024-11-05", "2024-10-07"};
    return versions;
}

std::string oversizedMessageReply() {
    return errorReply(nullptr, kParseError, "Parse error: the message is too long.");
}

std::optional<std::string> Server::handle(std::string_view line) {
    const Json message = Json::parse(line, nullptr, false);
    if (message.is_discarded()) return errorReply(nullptr, kParseError, "Parse error");
    if (message.is_array())
        return errorReply(nullptr, kInvalidRequest, "Invalid Request: batches are not supported.");
    if (!message.is_object()) return errorReply(nullptr, kInvalidRequest, "Invalid Request");

    const Json& id = member(message, "id");
    const Json& method = member(message, "method");
    const bool hasId = message.contains("id");
    if (method.is_null() && hasId && (message.contains("result") || message.contains("error")))
        return std::nullopt;  // a response; this server sends no requests to answer
    if (member(message, "jsonrpc") != "2.0" || !method.is_string())
        return errorReply(validId(id) ? id : Json(), kInvalidRequest, "Invalid Request");
    if (!hasId) return std::nullopt;  // a notification: nothing to answer
    if (!validId(id))
        return errorReply(nullptr, kInvalidRequest, "Invalid Request: the id must be a string or an integer.");

    const Json& params = member(message, "params");
    if (!params.is_null() && !params.is_object())
        return errorReply(id, kInvalidParams, "Invalid params: expected an object.");
    try {
        Json result = dispatch(method.get<std::string>(), params.is_null() ? Json::object() : params);
        return written({{"jsonrpc", "2.0"}, {"id", id}, {"result", std::move(result)}});
    } catch (const RpcError& error) {
        return errorReply(id, error.code, error.message);
    } catch (const std::exception&) {
        return errorReply(id, kInternalError, "Internal error");
    }
}

Json Server::dispatch(const std::string& method, const Json& params) {
    if (method == "initialize") {
        const Json& asked = member(params, "protocolVersion");
        if (!asked.is_string())
            throw RpcError{kInvalidParams, "Invalid params: protocolVersion must be a string."};
        const auto& supported = supportedProtocolVersions();
        const bool known = std::find(supported.begin(), supported.end(), asked) != supported.end();
        return {{"protocolVersion", known ? asked.get<std::string>() : supported.front()},
                {"capabilities", {{"tools", {{"listChanged", false}}}}},
                {"serverInfo",
                 {{"name", "quorvel-mcp"}, {"title", "Quorvel desktop bridge"}, {"version", QUORVEL_VERSION}}},
                {"instructions", kInstructions}};
    }
    if (method == "ping") return Json::object();
    if (method == "tools/list") return {{"tools", Tools::definitions()}};
    if (method == "tools/call") {
        const Json& name = member(params, "name");
        const Json& arguments = member(params, "arguments");
        if (!name.is_string()) throw RpcError{kInvalidParams, "Invalid params: name must be a string."};
        if (!arguments.is_null() && !arguments.is_object())
            throw RpcError{kInvalidParams, "Invalid params: arguments must be an object."};
        try {
            return tools_.call(name.get<std::string>(), arguments.is_null() ? Json::object() : arguments);
        } catch (const UnknownTool& unknown) {
            throw RpcError{kInvalidParams, unknown.what()};
        }
    }
    throw RpcError{kMethodNotFound, "Method not found: " + method};
}

}  // namespace quorvel::mcp
