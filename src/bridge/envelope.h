// The life of one request: input bytes in, one response envelope and an
// exit status out.
#pragma once

#include <string>
#include <string_view>

#include "platform/platform.h"

namespace quorvel {

inline constexpr size_t kRequestSizeLimit = 256000;
inline constexpr char kGenericMessage[] =
    "Native operation failed. Observe the current state before retrying.";
inline constexpr char kInvalidRequestMessage[] = "Invalid request.";

struct Response {
    std::string body;  // exactly the bytes for standard output
    int status = 1;    // 0 after a success envelope, 1 after a failure
};

// Maps the whole of standard input to the response. Never throws.
Response respond(Platform& platform, std::string_view input);

}  // namespace quorvel
