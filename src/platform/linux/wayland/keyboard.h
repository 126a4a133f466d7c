// Keys and text through the virtual keyboard protocol.
//
// The bridge's own keyboard uploads a keymap that holds exactly the
// characters it is about to type (keymap.h), so any text goes out as
// itself, whatever the user's layout. The compositor forwards the keymap to
// the focused application on the same ordered connection as the keys that
// follow, so typing needs no wait after a change of keymap: a text with
// more distinct characters than one keymap holds simply switches keymaps
// on the way.
//
// Flow: an application that cannot keep up with its socket is disconnected
// by the compositor, so at most kCharactersInFlight characters go out
// before the focused editor shows, over AT-SPI, that the application has
// handled them (handled_evidence.h); every such wait is bounded.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/linux/input/editor_text.h"
#include "platform/linux/input/handled_evidence.h"
#include "platform/linux/wayland/keymap.h"

struct zwp_virtual_keyboard_v1;

namespace quorvel::linux_backend::wayland {

class Connection;

// Characters sent but not yet shown handled. One character is a press and
// a release for the application, some fifty bytes; a slow GTK application
// survived 3000 at once and was disconnected at 5000.
inline constexpr size_t kCharactersInFlight = 1000;

// Locks the open file `fd` for itself, waiting at most `patience` while
// another open file of it holds the lock; false when it stayed the other's.
// The kernel lets go of the lock when the file is closed, however the
// process ends.
bool lockWithin(int fd, std::chrono::milliseconds patience);

class Keyboard {
public:
    // `focusedText` and `focusedPid` find the editor whose text shows that
    // keys were handled.
    Keyboard(Connection& connection, FocusedText focusedText,
             std::function<std::optional<std::int64_t>()> focusedPid);
    // Releases whatever is held; the compositor drops the keyboard when the
    // connection ends.
    ~Keyboard();
    Keyboard(const Keyboard&) = delete;
    Keyboard& operator=(const Keyboard&) = delete;

    // Creates the keyboard on first use; false when the compositor offers
    // no virtual keyboards (or has no seat).
    bool available();

    // Takes the typing claim of this compositor's session, waiting at most
    // `patience` for another bridge to let go of it; false when it stayed
    // the other's. Two bridges typing at once would interleave their keys
    // in the one focused editor. The claim is a lock on a file in the
    // session's runtime directory, which the kernel lets go of when the
    // process ends, however it ends; without a runtime directory there is
    // no one to share with, and no claim.
    bool claim(std::chrono::milliseconds patience);
    // The text about to be typed, chunk by chunk: keymaps are planned from it.
    void prepare(std::u32string_view text);
    // Presses and releases the key of every character, in order; a
    // character without a keysym (a control character) is skipped.
    void type(std::u32string_view text);
    // Presses `keysym` with the modifiers held; `release` lets go of all.
    void press(Keysym keysym, bool control, bool alt);
    void release();

private:
    // Makes the current keymap hold `keysym`, planning a new one from
    // `ahead` (which starts with the character) when it does not.
    std::uint32_t keycodeFor(Keysym keysym, std::u32string_view ahead);
    void upload(std::vector<Keysym> keysyms);
    void key(std::uint32_t keycode, bool pressed);
    void modifiers(std::uint32_t depressed);
    void waitUntilHandled();

    Connection& connection_;
    FocusedText focusedText_;
    std::function<std::optional<std::int64_t>()> focusedPid_;
    zwp_virtual_keyboard_v1* keyboard_ = nullptr;
    bool tried_ = false;
    int claim_ = -1;  // the locked file, while the claim is held

    std::vector<Keysym> keymap_;  // the keymap in force, by keycode from kFirstKeycode
    std::unordered_map<Keysym, std::uint32_t> keycodes_;
    std::u32string prepared_;  // the prepared text not typed yet, from `preparedAt_`
    size_t preparedAt_ = 0;

    std::vector<std::uint32_t> held_;  // keycodes pressed and not released, in order
    std::uint32_t heldModifiers_ = 0;

    std::unique_ptr<HandledEvidence> evidence_;
    bool evidenceTried_ = false;
    size_t unconfirmed_ = 0;  // characters sent since the application last caught up
    HandledEvidence::Batch batch_ = 0;
};

}  // namespace quorvel::linux_backend::wayland
