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

std::optional<SpareKeys::Lease> SpareKeys::lease(Keysym keysym, Batch batch, Batch confirmed) {
    for (Slot& slot : slots_) {
        if (slot.keysym == keysym) {
            slot.lastUse = batch;
            return Lease{slot.keycode, slot.level, false};
        }
    }
    // An empty slot first, so that characters put there ahead of their use
    // stay; then the least recently used.
    auto order = [](const Slot& slot) { return std::pair(slot.keysym != 0, slot.lastUse); };
    Slot* pick = nullptr;
    for (Slot& slot : slots_) {
        if (slot.lastUse > confirmed) continue;  // still awaited
        if (!pick || order(slot) < order(*pick)) pick = &slot;
    }
    if (!pick) return std::nullopt;
    pick->keysym = keysym;
    pick->lastUse = batch;
    return Lease{pick->keycode, pick->level, true};
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

SpareKeys::Batch SpareKeys::oldestAwaited(Batch confirmed) const {
    Batch oldest = 0;
    for (const Slot& slot : slots_)
        if (slot.lastUse > confirmed && (oldest == 0 || slot.lastUse < oldest))
            oldest = slot.lastUse;
    return oldest;
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
