// One typist at a time, and nothing left behind by one that dies.
//
// The keyboard mapping belongs to the whole desktop, so bridges that type at
// once would lend the same spare keycodes to different characters and undo
// each other's changes. A bridge therefore changes the mapping only while it
// holds the claim: ownership of the selection _QUORVEL_TYPIST, taken only
// when nobody holds it (under a brief server grab: taking a selection
// otherwise takes it from its owner). The X server ends the ownership itself
// when the owner's connection closes, however its process ended, SIGKILL
// included.
//
// Before each change of the spare keycodes the holder writes down, in the
// root window's property _QUORVEL_SPARE_KEYS (spare_key_record.h), what they
// held before it and what it is putting there, and it deletes the record
// once they are restored. A record found while nobody holds the claim is
// therefore one that a dead bridge left, and whoever takes the claim next
// gives its keys back first.
#pragma once

#include <X11/XKBlib.h>
#include <X11/Xlib.h>

#include <chrono>
#include <utility>
#include <vector>

#include "platform/linux/input/spare_key_record.h"

namespace quorvel::linux_backend {

// A key's entry as `xkb` holds it.
KeyEntry entryOf(XkbDescPtr xkb, KeyCode keycode);
// Gives the keys their entries, in `xkb` and on the server, in one request
// for the whole range of keycodes (the keys in between are sent back as
// they are): every client reloads its keymap once per change, not per key.
void changeKeys(Display*, XkbDescPtr xkb, const std::vector<std::pair<KeyCode, KeyEntry>>& keys);

class KeyboardClaim {
public:
    explicit KeyboardClaim(Display* display) : display_(display) {}
    // Lets go of the claim.
    ~KeyboardClaim();
    KeyboardClaim(const KeyboardClaim&) = delete;
    KeyboardClaim& operator=(const KeyboardClaim&) = delete;

    // Takes the claim, waiting at most `patience` for another bridge to let
    // go of it, then gives back the keys of a record that a dead bridge
    // left. False when the claim stayed another's throughout.
    bool take(std::chrono::milliseconds patience);
    bool held() const { return held_; }

    // Writes down the keys changed so far, before they are changed. Only the
    // holder writes.
    void record(const std::vector<RecordedKey>& keys);
    // The keys are back as they were found: the record goes.
    void restored();

private:
    bool tryTake();
    void letGo();

    Display* display_;
    Window window_ = None;  // the selection's owner while held
    bool held_ = false;
};

// Gives back the keys of a record that a bridge which died while typing left,
// if there is one and nobody holds the claim. Costs an atom lookup and a
// property read when there is nothing to do.
void repairAbandonedKeys(Display*);

}  // namespace quorvel::linux_backend
