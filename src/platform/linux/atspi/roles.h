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

// The role name for an AT-SPI role (an AtspiRole value). Some roles need
// the element's states, and whether it offers the Text interface (`hasText`):
// - plain text and entries: single-line text is a text field, the rest a text
//   area (an entry is a text field unless it takes several lines);
// - a paragraph with text is a text area when it is an editor (editable and
//   focusable: a paragraph of a word processor's document), else static text
//   (also the paragraphs inside a web page's editable region, which take
//   no focus of their own); document text with text of its own is a text
//   area when editable;
// - a section with text that is an editor is a web page's editable region
//   (contenteditable): a text area.
// Roles without an equivalent keep their AT-SPI name ("viewport").
std::string axRole(int atspiRole, StateBits states, bool hasText);
bool roleNeedsStates(int atspiRole);
bool roleNeedsInterfaces(int atspiRole);

// "AXSecureTextField" for password text; nothing for every other role.
std::optional<std::string> axSubrole(int atspiRole);

// Whether the element's value is the Text interface's whole text: text
// fields and areas, and static paragraphs. Never password text.
bool valueIsText(int atspiRole, StateBits states, bool hasText);
// Whether the text stands for a static paragraph, whose children (links,
// images) are elements of their own: the characters that stand for them are
// left out of its value.
bool valueIsStaticText(int atspiRole, StateBits states);
// Whether the text is an editable web region's: one U+FFFC for each block
// it holds, whose text makes the region's value (embeddedText).
bool valueHoldsEmbeddedText(int atspiRole, StateBits states);
// Whether an object of this role starts a line of its own in the text that
// holds it.
bool isBlockRole(int atspiRole);
bool isPasswordRole(int atspiRole);

}  // namespace quorvel::linux_backend
