// The one error type: every refusal of the bridge is a thrown `Failure`
// whose message reaches the agent verbatim.
#pragma once

#include <string>

namespace quorvel {

class Failure {
public:
    explicit Failure(std::string message) : message_(std::move(message)) {}
    const std::string& message() const noexcept { return message_; }

private:
    std::string message_;
};

[[noreturn]] inline void fail(std::string message) { throw Failure(std::move(message)); }

}  // namespace quorvel
