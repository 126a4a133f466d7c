// The three observation operations: "context", "observe" and "capture".
#pragma once

#include <string>

#include "bridge/json.h"
#include "platform/platform.h"

namespace quorvel {

// `image`: an "observe" or "capture" also returns the window's image as
// PNG under "image".
JsonObject observe(Platform&, const std::string& operation, bool image = false);

}  // namespace quorvel
