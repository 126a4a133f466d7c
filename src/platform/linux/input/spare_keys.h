// The spare keycodes of the keyboard mapping, lent to characters that the
// layout cannot type.
//
// An application translates a keycode into a character when it handles the
// key event, with the mapping it holds at that moment. So a keycode may be
// given a new character only once the application has handled every event
// that used it under the old one. Input goes out in numbered batches; the
// caller learns which batches the application has handled ("confirmed") and
// a keycode whose last use lies in an unconfirmed batch is never lent again.
//
// A keycode has two levels (plain and with Shift), each lent on its own:
// giving one level a new keysym leaves the other's unchanged, so events that
// used the other level still translate as they did.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

namespace quorvel::linux_backend {

class SpareKeys {
public:
    using Keycode = unsigned;
    using Keysym = unsigned long;  // X keysyms; 0 is NoSymbol
    using Batch = std::uint64_t;   // batch numbers start at 1

    // `levels` is 1, or 2 when a Shift key can reach the second level.
    explicit SpareKeys(std::vector<Keycode> keycodes, int levels = 1);

    struct Lease {
        Keycode keycode;
        int level;   // 0 plain, 1 with Shift
        bool remap;  // the keycode must be given `keysym` before it is pressed
    };
    // The keycode that types `keysym` in `batch`: the slot that holds it, or
    // else an empty one. Nothing when every slot holds another character:
    // then `reassign` makes room.
    std::optional<Lease> lease(Keysym keysym, Batch batch);
    // Makes room for the characters that the text needs next, `wanted`
    // (distinct, in order of need), in one change of the mapping: of the
    // first as many as there are slots, those held keep their slots, and
    // the rest go to the other slots whose uses are all confirmed (empty
    // ones, then the least recently used), as far as they go.
    // The keycodes whose keysyms changed.
    std::vector<Keycode> reassign(const std::vector<Keysym>& wanted, Batch confirmed);
    // Puts `keysym` on an empty slot ahead of its use, unless a slot holds
    // it already. Nothing when every slot holds a character. A reserved slot
    // counts as unused: it awaits nothing.
    std::optional<Lease> reserve(Keysym keysym);

    // The newest batch that used any keycode (0 when none was ever lent).
    Batch newestUse() const;
    // The keycodes that hold a character now, so that they can be restored.
    std::vector<Keycode> lent() const;
    // What a keycode's levels hold now (0 for an empty level).
    std::vector<Keysym> levels(Keycode keycode) const;
    bool available() const { return !slots_.empty(); }

private:
    struct Slot {
        Keycode keycode;
        int level = 0;
        Keysym keysym = 0;
        Batch lastUse = 0;
    };
    std::vector<Slot> slots_;
    int levels_ = 1;
};

}  // namespace quorvel::linux_backend
