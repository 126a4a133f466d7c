// The identified foreground window, and the check that an agent's scope
// still names it.
#pragma once

#include <cstdint>

#include "bridge/json.h"
#include "platform/platform.h"

namespace quorvel {

struct Window {
    Application app;         // the frontmost application
    Element root;            // its focused window element
    Rect frame;              // the accessibility frame, not the window server's bounds
    std::string title;       // "AXTitle", "" when there is none
    std::uint32_t windowID;  // the window server's number of the one matching entry

    // The JSON identity of the window, computed afresh on each call (the
    // process identifier is read again from the platform).
    JsonObject scope(Platform&) const;
};

inline constexpr float kMessagingTimeout = 2.0f;
inline constexpr double kFrameTolerance = 2.0;

Window foreground(Platform&);

// Resolves the foreground window again and accepts `scope` only when its
// canonical JSON text is byte-identical to the fresh window's.
Window validate(Platform&, const JsonObject& scope);

}  // namespace quorvel
