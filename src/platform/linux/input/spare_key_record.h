// What a bridge that types leaves on the X server about the spare keycodes
// it has changed, so that the next bridge can give them back if it dies
// before it does (keyboard_claim.h keeps it there). Only the encoding and the
// rule of what to give back live here; no X server is needed.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <vector>

namespace quorvel::linux_backend {

// One key's symbols, as the XKB client map holds them: its key type in each
// group, its group information, its width and its keysyms (0 is NoSymbol).
struct KeyEntry {
    std::array<unsigned char, 4> types{};
    unsigned char groupInfo = 0;
    unsigned char width = 0;
    std::vector<unsigned long> syms;
    bool operator==(const KeyEntry&) const = default;
};

struct RecordedKey {
    unsigned keycode = 0;
    KeyEntry original;  // as the bridge found it
    // The keysyms the key may hold because of the bridge: those it was given
    // last, and those of the change about to be made.
    std::vector<unsigned long> placed;
    bool operator==(const RecordedKey&) const = default;
};

struct SpareKeyRecord {
    long owner = 0;  // the process that wrote it, for whoever reads the property
    std::vector<RecordedKey> keys;
    bool operator==(const SpareKeyRecord&) const = default;
};

// The record as the 32-bit items of a CARDINAL property (Xlib hands them
// over as longs): a format number (1), the owner, then for each key its
// keycode, four key types, group information, width, the number of its
// original keysyms and those keysyms, the number of placed keysyms and those.
std::vector<long> encodeRecord(const SpareKeyRecord&);
// Nothing when the items are not such a record.
std::optional<SpareKeyRecord> decodeRecord(const long* items, size_t count);

// Whether a recorded key that holds `now` is to be given back its original
// entry: it holds something else, and only keysyms the bridge put there. A
// keyboard layout loaded since may use the keycode for a key of its own,
// which is left alone.
bool restoresTo(const RecordedKey&, const KeyEntry& now);

}  // namespace quorvel::linux_backend
