// Synthetic input: key presses, left clicks and guarded text entry. Every
// event is posted at the HID level with no pause between events, and
// nothing posted is ever undone.
#pragma once

#include <cstdint>
#include <string>

#include "bridge/json.h"
#include "platform/platform.h"

namespace quorvel {

inline constexpr size_t kLongestText = 60000;  // UTF-16 code units
inline constexpr size_t kLongestChunk = 16;    // UTF-16 code units

// One key press and release with exactly `flags` on both events.
void key(Platform&, std::uint16_t code, EventFlags flags = 0);

// A single or double left click inside the window that `scope` names.
void click(Platform&, double x, double y, std::int64_t count, const JsonObject& scope);

// Types `text` into the focused editor, or replaces its value, behind the
// scope, focus and expected-value guards.
void type(Platform&, const std::string& text, bool replace, const std::string& expected,
          const JsonObject& scope);

}  // namespace quorvel
