// Typing any character with XTest, whatever the keyboard layout.
//
// A character that the layout types (at its first or Shift level, in the
// active group) is typed with its own key. Any other character is put on a
// level of a spare keycode (one that the mapping leaves empty) and typed
// with that, with Shift for the second level. The
// mapping stays changed until the process ends, so repeated characters cost
// nothing, and is restored by `restore()`: before that, and before a spare
// keycode gets another character, the application must have handled every
// event that used the keycode (see handled_evidence.h).
//
// Every change of the mapping makes each client reload its keymap, which
// costs a large application milliseconds, so the keycodes that one text
// event needs are remapped together, in one request.
//
// The mapping is changed only under the keyboard claim (keyboard_claim.h),
// which a text takes before its keys are looked up and keeps until the
// process ends: two bridges never type at once, and every change is written
// down on the server before it is made.
#pragma once

#include <X11/XKBlib.h>
#include <X11/Xlib.h>

#include <memory>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/linux/input/handled_evidence.h"
#include "platform/linux/input/keyboard_claim.h"
#include "platform/linux/input/spare_keys.h"

namespace quorvel::linux_backend {

// The keysym that types a character: Return for a line break, Tab for a
// tab, the character's own keysym otherwise; NoSymbol for none.
KeySym keysymForCharacter(char32_t c);

struct KeyStroke {
    KeyCode keycode = 0;
    bool shift = false;
};

class Typist {
public:
    // `focusedText` reads the focused editor for the typing evidence.
    Typist(Display* display, FocusedText focusedText);
    // Restores the mapping.
    ~Typist();
    Typist(const Typist&) = delete;
    Typist& operator=(const Typist&) = delete;

    // Takes the keyboard claim, then gives spare keycodes to the characters
    // of `text` that the layout cannot type, as many as are free, in one
    // change of the mapping: each change makes every client reload its
    // keymap (the window manager re-grabs its key bindings), which costs far
    // more than the typing. False, with nothing changed, when another bridge
    // kept the claim for as long as a text waits for it.
    bool prepare(std::u32string_view text);
    // Presses and releases the key of every character, in order. A character
    // that has no keysym, or finds no key, is skipped.
    void type(std::u32string_view text);

    // The key that produces `keysym`, borrowing a spare keycode if needed
    // (call `flush()` before pressing it; a key press that borrows takes the
    // claim first); nothing when there is none.
    std::optional<KeyStroke> strokeFor(KeySym keysym);
    // The layout's own key for `keysym` (modifier keys are never borrowed).
    std::optional<KeyStroke> layoutStroke(KeySym keysym);
    KeyCode shiftKeycode();
    // Sends the pending mapping changes, then the queued key presses.
    void flush();
    // Marks the end of a group of key events that used spare keycodes.
    void endBatch();

    // Waits for the application to handle the events that used spare
    // keycodes, then gives them back their original (empty) mapping and
    // deletes the record of them.
    void restore();
    // Key events were sent outside `type` (a named key).
    void keysSent() { keysSinceWait_ = true; }
    // Waits for the application to handle every key sent so far. Chromium
    // crashes when the client that sent a key has left the accessibility
    // bus by the time it handles that key, so no key is left unhandled when
    // the process ends.
    void settle();
    // Restores at once and lets a held termination signal act.
    void honourTermination();

private:
    void load();
    void reassign(KeySym keysym);
    HandledEvidence::Batch confirmed();
    void waitFor(HandledEvidence::Batch batch);

    Display* display_;
    FocusedText focusedText_;
    bool loaded_ = false;
    XkbDescPtr xkb_ = nullptr;  // the client map, kept in step with our changes
    std::unordered_map<KeySym, KeyStroke> layout_;
    KeyCode shift_ = 0;
    std::unordered_map<KeyCode, KeyEntry> original_;  // spare keycodes as found
    KeyboardClaim claim_;
    std::vector<RecordedKey> recorded_;  // what the claim's record says
    SpareKeys spare_{{}};
    std::vector<KeyCode> remaps_;  // keycodes whose new keysyms are not sent yet
    // The characters of the prepared text that need spare keycodes, in
    // order, and how many of them have been typed.
    std::vector<KeySym> ahead_;
    size_t aheadAt_ = 0;
    std::vector<KeyStroke> queued_;                   // not pressed yet
    std::unique_ptr<HandledEvidence> evidence_;
    HandledEvidence::Batch batch_ = 1;    // the batch being sent
    HandledEvidence::Batch assumed_ = 0;  // taken as handled after a wait gave up
    bool batchUsedSpare_ = false;
    // The focused editor, read before a character beyond the BMP is typed
    // (see type()), and the keys sent since it was last read.
    std::unique_ptr<HandledEvidence> order_;
    HandledEvidence::Batch orderBatch_ = 0;
    bool keysSinceWait_ = false;
};

}  // namespace quorvel::linux_backend
