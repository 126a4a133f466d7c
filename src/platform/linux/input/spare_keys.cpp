#include "platform/linux/input/spare_keys.h"

#include <algorithm>
#include <utility>

namespace quorvel::linux_backend {

SpareKeys::SpareKeys(std::vector<Keycode> keycodes, int levels) : levels_(levels) {
    // Every keycode's plain level comes before any Shift level, so that
    // plain keys, which need no Shift press, are lent first.
    for (int level = 0; level < levels; ++level)
        for (Keycode keycode : keycodes) slots_.push_back({keycode, level});
}

std::optional<SpareKeys::Lease> SpareKeys::lease(Keysym keysym, Batch batch) {
    for (Slot& slot : slots_) {
        if (slot.keysym == keysym) {
            slot.lastUse = batch;
            return Lease{slot.keycode, slot.level, false};
        }
    }
    for (Slot& slot : slots_) {
        if (slot.keysym != 0) continue;
        slot.keysym = keysym;
        slot.lastUse = batch;
        return Lease{slot.keycode, slot.level, true};
    }
    return std::nullopt;
}

std::vector<SpareKeys::Keycode> SpareKeys::reassign(const std::vector<Keysym>& wanted,
                                                    Batch confirmed) {
    // Only as many characters as there are slots count as needed soon: a
    // slot whose character is needed only after them is free.
    auto soon = wanted.begin() + static_cast<std::ptrdiff_t>(std::min(wanted.size(), slots_.size()));
    auto isWanted = [&](Keysym keysym) {
        return keysym != 0 && std::find(wanted.begin(), soon, keysym) != soon;
    };
    // Empty slots first, then the least recently used.
    std::vector<Slot*> free;
    for (Slot& slot : slots_)
        if (slot.lastUse <= confirmed && !isWanted(slot.keysym)) free.push_back(&slot);
    std::stable_sort(free.begin(), free.end(), [](const Slot* a, const Slot* b) {
        return std::pair(a->keysym != 0, a->lastUse) < std::pair(b->keysym != 0, b->lastUse);
    });
    std::vector<Keycode> changed;
    auto next = free.begin();
    for (auto keysym = wanted.begin(); keysym != soon; ++keysym) {
        if (next == free.end()) break;
        bool held = std::any_of(slots_.begin(), slots_.end(),
                                [&](const Slot& slot) { return slot.keysym == *keysym; });
        if (held || *keysym == 0) continue;
        Slot& slot = **next++;
        slot.keysym = *keysym;
        slot.lastUse = 0;  // awaits nothing until it is used
        if (std::find(changed.begin(), changed.end(), slot.keycode) == changed.end())
            changed.push_back(slot.keycode);
    }
    return changed;
}

std::optional<SpareKeys::Lease> SpareKeys::reserve(Keysym keysym) {
    for (const Slot& slot : slots_)
        if (slot.keysym == keysym) return Lease{slot.keycode, slot.level, false};
    for (Slot& slot : slots_) {
        if (slot.keysym != 0) continue;
        slot.keysym = keysym;
        return Lease{slot.keycode, slot.level, true};
    }
    return std::nullopt;
}

SpareKeys::Batch SpareKeys::newestUse() const {
    Batch newest = 0;
    for (const Slot& slot : slots_) newest = std::max(newest, slot.lastUse);
    return newest;
}

std::vector<SpareKeys::Keycode> SpareKeys::lent() const {
    std::vector<Keycode> keycodes;
    for (const Slot& slot : slots_)
        if (slot.keysym != 0 &&
            std::find(keycodes.begin(), keycodes.end(), slot.keycode) == keycodes.end())
            keycodes.push_back(slot.keycode);
    return keycodes;
}

std::vector<SpareKeys::Keysym> SpareKeys::levels(Keycode keycode) const {
    std::vector<Keysym> keysyms(static_cast<size_t>(levels_), 0);
    for (const Slot& slot : slots_)
        if (slot.keycode == keycode) keysyms[static_cast<size_t>(slot.level)] = slot.keysym;
    return keysyms;
}

}  // namespace quorvel::linux_backend
