// The operation dispatcher: protocol checks, the capabilities report, and
// the decoding of "act" requests into calls of the input operations.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "bridge/json.h"
#include "platform/platform.h"

namespace quorvel {

inline constexpr std::int64_t kProtocolVersion = 1;

struct KeyChord {
    std::uint16_t code;
    EventFlags flags;
};

// The named keys an agent may press; nullopt for any other name.
std::optional<KeyChord> keyNamed(std::string_view name);

JsonObject dispatch(Platform& platform, const JsonObject& request);

}  // namespace quorvel
