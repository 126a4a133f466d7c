// The three observation operations: "context", "observe" and "capture".
#pragma once

#include <string>

#include "bridge/json.h"
#include "platform/platform.h"

namespace quorvel {

JsonObject observe(Platform&, const std::string& operation);

}  // namespace quorvel
