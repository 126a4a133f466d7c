// The server's tools: observe, click, type_text, press_key and scroll. Each
// call runs the bridge once with the bridge's own request; between calls the
// tools keep the last observation's scope and nodes, which every input
// request carries or refers to.
#pragma once

#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "mcp/bridge_runner.h"

namespace quorvel::mcp {

using Json = nlohmann::json;

// A call that names no tool of this server (a protocol error, not a tool's).
class UnknownTool : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class Tools {
public:
    explicit Tools(Bridge& bridge) : bridge_(bridge) {}

    // The definitions for "tools/list", each with its input's JSON Schema.
    static const Json& definitions();

    // The result of "tools/call": {"content": [...]} and, when the tool
    // refused or the bridge did, "isError": true with one sentence. Throws
    // UnknownTool.
    Json call(const std::string& name, const Json& arguments);

private:
    Json observe(const Json& arguments);
    Json click(const Json& arguments);
    Json typeText(const Json& arguments);
    Json pressKey(const Json& arguments);
    Json scroll(const Json& arguments);

    // Runs one "act" with the last observation's scope; the result of a
    // completed action is `done`.
    Json act(const Json& action, const std::string& done);
    // The node a view id names in the last observation, or the sentence
    // that refuses the id.
    const Json* node(const std::string& id, std::string& refusal) const;

    Bridge& bridge_;
    int observation_ = 0;  // how many observations succeeded; the last one's number
    Json scope_;           // null until the first observation
    std::map<std::string, Json> nodes_;  // by the bridge's id
    std::string focusedValue_;
};

}  // namespace quorvel::mcp
