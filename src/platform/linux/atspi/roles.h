// AT-SPI roles in the accessibility vocabulary the agent sees on every
// platform ("AXButton", "AXTextField", ...).
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace quorvel::linux_backend {

// A set of AT-SPI states, bit n standing for AtspiStateType n (the layout of
// the two 32-bit words that GetState answers, low word first).
using StateBits = std::uint64_t;

inline bool hasState(StateBits states, int state) {
    return state >= 0 && state < 64 && (states >> state & 1u) != 0;
}

// The role name for an AT-SPI role (an AtspiRole value). Plain text objects
// need their states: single-line text is a text field, the rest a text area.
// Roles without an equivalent keep their AT-SPI name ("viewport").
std::string axRole(int atspiRole, StateBits states);

// "AXSecureTextField" for password text; nothing for every other role.
std::optional<std::string> axSubrole(int atspiRole);

// Roles whose value is the Text interface's whole text. Password text is one
// of them, but its text is never requested.
bool isTextRole(int atspiRole);
bool isPasswordRole(int atspiRole);

}  // namespace quorvel::linux_backend
