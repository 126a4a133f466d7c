#include "platform/linux/x_input_spare.h"

#include <algorithm>

namespace quorvel::linux_backend {

SpareKeys::SpareKeys(std::vector<Keycode> keycodes) {
    for (Keycode keycode : keycodes) slots_.push_back({keycode});
}

std::optional<SpareKeys::Lease> SpareKeys::lease(Keysym keysym, Batch batch, Batch confirmed) {
    for (Slot& slot : slots_) {
        if (slot.keysym == keysym) {
            slot.lastUse = batch;
            return Lease{slot.keycode, false};
        }
    }
    Slot* pick = nullptr;
    for (Slot& slot : slots_) {
        if (slot.lastUse > confirmed) continue;  // still awaited
        if (!pick || slot.lastUse < pick->lastUse) pick = &slot;
    }
    if (!pick) return std::nullopt;
    pick->keysym = keysym;
    pick->lastUse = batch;
    return Lease{pick->keycode, true};
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
        if (slot.keysym != 0) keycodes.push_back(slot.keycode);
    return keycodes;
}

}  // namespace quorvel::linux_backend
