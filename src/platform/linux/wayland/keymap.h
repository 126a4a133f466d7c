// The keymaps a virtual keyboard types with. Each holds exactly the
// characters about to be typed, one key each at its only level, so any
// character goes out as itself without borrowing a key of the user's
// layout, plus Control and Alt for the few chords the bridge presses.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace quorvel::linux_backend::wayland {

using Keysym = std::uint32_t;

// The first keycode (XKB numbering; the key event carries it less 8, the
// evdev code) and how many character keys one keymap holds: 240 keys and
// the two modifiers stay within keycode 255, the most an X11 client under
// Xwayland can see.
inline constexpr std::uint32_t kFirstKeycode = 9;
inline constexpr size_t kKeysPerKeymap = 240;

// The modifiers' masks in the keymap's order of real modifiers, for the
// virtual keyboard's modifiers request: the compositor does not derive them
// from the modifier keys of a virtual keyboard.
inline constexpr std::uint32_t kControlMask = 1u << 2;
inline constexpr std::uint32_t kAltMask = 1u << 3;

// The keysym that types a character: Return for a line break, Tab for a
// tab, the character's own keysym otherwise; nothing for other control
// characters.
std::optional<Keysym> keysymFor(char32_t c);

// A complete keymap in XKB's text format, with no includes, so neither the
// compositor nor an application reads any XKB data to compile it:
// `keysyms[i]` on keycode kFirstKeycode + i, each of type ONE_LEVEL (so an
// upper-case letter on its own is not taken for the shifted level of its
// lower case), then Control_L and Alt_L with their modifiers. No key
// repeats: an application that falls behind cannot turn a press into
// several characters, and GTK under Wayland handles a key without repeat
// in a fraction of the time (its typing into the fixture went from 1.2 s a
// thousand characters to about half a second).
std::string keymapText(const std::vector<Keysym>& keysyms);

// The keycodes of the two modifier keys of a keymap of `count` characters.
inline std::uint32_t controlKeycode(size_t count) { return kFirstKeycode + static_cast<std::uint32_t>(count); }
inline std::uint32_t altKeycode(size_t count) { return controlKeycode(count) + 1; }

// The distinct keysyms of `text` from its start, in order of appearance,
// at most kKeysPerKeymap of them: the keymap for typing it on from there.
std::vector<Keysym> keysymsAhead(std::u32string_view text);

}  // namespace quorvel::linux_backend::wayland
