// Runs the bridge once per request, as a child process, the way any agent
// does: the request on its standard input, one envelope on its standard
// output. Whatever the child does (crash, hang, print garbage), the caller
// gets an answer back and carries on.
#pragma once

#include <chrono>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace quorvel::mcp {

using Json = nlohmann::json;

struct BridgeAnswer {
    // The bridge's envelope, {"ok":true,"result":...} or {"ok":false,"error":...},
    // when it gave one with the matching exit status.
    std::optional<Json> envelope;
    // Otherwise, a sentence that says what went wrong instead.
    std::string problem;
};

class Bridge {
public:
    virtual ~Bridge() = default;
    virtual BridgeAnswer run(const Json& request) = 0;
};

class ProcessBridge final : public Bridge {
public:
    ProcessBridge(std::string path, std::chrono::milliseconds timeout);
    BridgeAnswer run(const Json& request) override;

private:
    std::string path_;
    std::chrono::milliseconds timeout_;
};

// The bridge installed beside this program's own executable; empty when the
// executable's location cannot be found.
std::string bridgeBesideExecutable();

}  // namespace quorvel::mcp
