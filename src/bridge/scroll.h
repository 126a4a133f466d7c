// The "scroll" action: one pixel scroll at the pointer, only inside the
// window that the scope names. The pointer is never moved.
#pragma once

#include <cstdint>

#include "bridge/json.h"
#include "platform/platform.h"

namespace quorvel {

inline constexpr std::int64_t kMaxScroll = 2000;

void scroll(Platform&, std::int64_t amount, const JsonObject& scope);

}  // namespace quorvel
