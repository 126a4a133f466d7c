#include "platform/linux/input/typist.h"

#include <X11/extensions/XTest.h>
#include <X11/keysym.h>
#include <xkbcommon/xkbcommon.h>

#include <algorithm>
#include <chrono>

#include "platform/linux/input/deferred_termination.h"

namespace quorvel::linux_backend {
namespace {

// At most this many batches may be sent but not yet handled: it keeps the
// application's backlog, and so every later wait, short.
constexpr HandledEvidence::Batch kBatchesInFlight = 4;

// How long a text waits for another bridge to finish typing. Agents send
// tool calls in parallel; a bridge types a thousand mixed characters in well
// under a second, so this covers texts of several thousand. A longer one
// may take minutes, and then a prompt refusal, which the agent can retry,
// serves better than a bridge that sits waiting while its harness's own
// time-out runs.
constexpr std::chrono::seconds kClaimPatience{5};

}  // namespace

KeySym keysymForCharacter(char32_t c) {
    // Applications insert a line break for Return, not for Linefeed.
    if (c == U'\n' || c == U'\r') return XK_Return;
    if (c == U'\t') return XK_Tab;
    return xkb_utf32_to_keysym(c);
}

Typist::Typist(Display* display, FocusedText focusedText)
    : display_(display), focusedText_(std::move(focusedText)), claim_(display) {}

Typist::~Typist() {
    settle();
    restore();
    if (xkb_) XkbFreeKeyboard(xkb_, 0, True);
}

void Typist::load() {
    if (loaded_) return;
    loaded_ = true;
    // Read under the claim (a text), the mapping holds no other bridge's
    // characters. Read without it (a key press), it may hold those of one
    // that is typing; a key press looks up only keys that layouts have of
    // their own, and borrows a keycode, under the claim, only when a layout
    // lacks one.
    int opcode, event, error, major = XkbMajorVersion, minor = XkbMinorVersion;
    if (!XkbQueryExtension(display_, &opcode, &event, &error, &major, &minor)) return;
    xkb_ = XkbGetMap(display_, XkbKeyTypesMask | XkbKeySymsMask, XkbUseCoreKbd);
    if (!xkb_) return;
    XkbStateRec state{};
    XkbGetState(display_, XkbUseCoreKbd, &state);

    std::vector<bool> modifier(256, false);
    if (XModifierKeymap* modifiers = XGetModifierMapping(display_)) {
        for (int i = 0; i < 8 * modifiers->max_keypermod; ++i)
            if (KeyCode keycode = modifiers->modifiermap[i]) modifier[keycode] = true;
        for (int i = 0; i < modifiers->max_keypermod && !shift_; ++i)
            shift_ = modifiers->modifiermap[ShiftMapIndex * modifiers->max_keypermod + i];
        XFreeModifiermap(modifiers);
    }

    std::vector<SpareKeys::Keycode> spare;
    for (int keycode = xkb_->min_key_code; keycode <= xkb_->max_key_code; ++keycode) {
        if (XkbKeyNumSyms(xkb_, keycode) != 0 || modifier[keycode]) continue;
        auto spareKeycode = static_cast<KeyCode>(keycode);
        original_.emplace(spareKeycode, entryOf(xkb_, spareKeycode));
        spare.push_back(spareKeycode);
    }
    spare_ = SpareKeys(std::move(spare), shift_ ? 2 : 1);

    // What each key types now: its first and Shift levels in the active
    // group, with the locked modifiers (Caps Lock, Num Lock) applied, as the
    // application will translate it. Unshifted keys are preferred.
    for (bool shifted : {false, true}) {
        if (shifted && !shift_) break;
        unsigned int mods = state.locked_mods | (shifted ? ShiftMask : 0);
        for (int keycode = xkb_->min_key_code; keycode <= xkb_->max_key_code; ++keycode) {
            KeySym keysym = NoSymbol;
            unsigned int consumed = 0;
            if (XkbKeyNumSyms(xkb_, keycode) == 0 ||
                !XkbTranslateKeyCode(xkb_, static_cast<KeyCode>(keycode),
                                     XkbBuildCoreState(mods, state.group), &consumed, &keysym) ||
                keysym == NoSymbol)
                continue;
            layout_.try_emplace(keysym, KeyStroke{static_cast<KeyCode>(keycode), shifted});
        }
    }
}

KeyCode Typist::shiftKeycode() {
    load();
    return shift_;
}

std::optional<KeyStroke> Typist::layoutStroke(KeySym keysym) {
    load();
    if (auto found = layout_.find(keysym); found != layout_.end()) return found->second;
    return std::nullopt;
}

HandledEvidence::Batch Typist::confirmed() {
    return std::max(evidence_ ? evidence_->confirmed() : 0, assumed_);
}

void Typist::waitFor(HandledEvidence::Batch batch) {
    if (!evidence_ || batch == 0 || confirmed() >= batch) return;
    // A wait that gives up (a stuck application, or a termination request)
    // lets typing go on rather than stall the request.
    if (!evidence_->waitFor(batch)) assumed_ = std::max(assumed_, batch);
}

std::optional<KeyStroke> Typist::strokeFor(KeySym keysym) {
    if (keysym == NoSymbol) return std::nullopt;
    if (auto stroke = layoutStroke(keysym)) return stroke;
    if (!spare_.available() || !claim_.take(kClaimPatience)) return std::nullopt;
    if (!evidence_) evidence_ = focusedApplicationEvidence(display_, focusedText_);

    auto lease = spare_.lease(keysym, batch_);
    if (!lease) {
        reassign(keysym);
        lease = spare_.lease(keysym, batch_);
        if (!lease) return std::nullopt;
    }
    auto keycode = static_cast<KeyCode>(lease->keycode);
    if (lease->remap && std::find(remaps_.begin(), remaps_.end(), keycode) == remaps_.end())
        remaps_.push_back(keycode);
    batchUsedSpare_ = true;
    return KeyStroke{keycode, lease->level == 1};
}

void Typist::reassign(KeySym keysym) {
    // Every slot holds a character. Once the application has handled every
    // key sent so far, no slot serves an unhandled event, and the characters
    // the text needs next all move in at once: a browser reloads a changed
    // mapping at a cost, and falls behind, typing keys with the mapping
    // before, when changes come one after another.
    flush();
    endBatch();
    waitFor(batch_ - 1);
    std::vector<SpareKeys::Keysym> wanted{keysym};
    for (size_t i = aheadAt_; i < ahead_.size(); ++i)
        if (std::find(wanted.begin(), wanted.end(), ahead_[i]) == wanted.end())
            wanted.push_back(ahead_[i]);
    for (SpareKeys::Keycode keycode : spare_.reassign(wanted, confirmed()))
        remaps_.push_back(static_cast<KeyCode>(keycode));
    if (remaps_.empty()) return;
    flush();
    // The keys that use the new mapping follow only once the application
    // has taken in the change: its answer to a ping sent after it.
    batchUsedSpare_ = true;
    endBatch();
    waitFor(batch_ - 1);
}

void Typist::flush() {
    if (!remaps_.empty()) {
        deferred_termination::hold();
        std::vector<std::pair<KeyCode, KeyEntry>> keys;
        for (KeyCode keycode : remaps_) {
            std::vector<SpareKeys::Keysym> levels = spare_.levels(keycode);
            KeyEntry entry;
            entry.groupInfo = XkbSetNumGroups(0, 1);
            if (levels.size() > 1 && levels[1] != 0) {
                // Shift reaches the second level whatever Caps Lock says.
                entry.types[0] = XkbTwoLevelIndex;
                entry.width = 2;
                entry.syms = {levels[0], levels[1]};
            } else {
                entry.types[0] = XkbOneLevelIndex;
                entry.width = 1;
                entry.syms = {levels[0]};
            }
            keys.emplace_back(keycode, std::move(entry));
        }
        // Written down first: a bridge killed from here on leaves the
        // record for the next one to give the keys back.
        for (const auto& change : keys) {
            KeyCode keycode = change.first;
            auto known = std::find_if(recorded_.begin(), recorded_.end(),
                                      [&](const RecordedKey& key) { return key.keycode == keycode; });
            if (known == recorded_.end())
                known = recorded_.insert(recorded_.end(), RecordedKey{keycode, original_[keycode], {}});
            // What it holds until the change arrives, and after.
            known->placed = entryOf(xkb_, keycode).syms;
            known->placed.insert(known->placed.end(), change.second.syms.begin(),
                                 change.second.syms.end());
        }
        claim_.record(recorded_);
        changeKeys(display_, xkb_, keys);
        remaps_.clear();
    }
    if (!queued_.empty()) keysSinceWait_ = true;
    for (const KeyStroke& stroke : queued_) {
        if (stroke.shift) XTestFakeKeyEvent(display_, shift_, True, CurrentTime);
        XTestFakeKeyEvent(display_, stroke.keycode, True, CurrentTime);
        XTestFakeKeyEvent(display_, stroke.keycode, False, CurrentTime);
        if (stroke.shift) XTestFakeKeyEvent(display_, shift_, False, CurrentTime);
    }
    queued_.clear();
    // Out of our buffer, so that whatever waits next waits for the
    // application, not for us.
    XFlush(display_);
}

void Typist::endBatch() {
    if (!batchUsedSpare_) return;
    evidence_->sent(batch_);
    ++batch_;
    batchUsedSpare_ = false;
}

bool Typist::prepare(std::u32string_view text) {
    if (!claim_.take(kClaimPatience)) return false;
    load();
    if (!order_ && std::any_of(text.begin(), text.end(), [](char32_t c) { return c > 0xFFFF; }))
        order_ = keyOrderEvidence(display_, focusedText_);
    ahead_.clear();
    aheadAt_ = 0;
    for (char32_t c : text) {
        KeySym keysym = keysymForCharacter(c);
        if (keysym == NoSymbol || layoutStroke(keysym)) continue;
        ahead_.push_back(keysym);
    }
    for (KeySym keysym : ahead_) {
        std::optional<SpareKeys::Lease> lease = spare_.reserve(keysym);
        if (!lease) break;  // no empty slot left: the rest moves in as room is made
        auto keycode = static_cast<KeyCode>(lease->keycode);
        if (lease->remap && std::find(remaps_.begin(), remaps_.end(), keycode) == remaps_.end())
            remaps_.push_back(keycode);
    }
    flush();
    return true;
}

void Typist::type(std::u32string_view text) {
    honourTermination();
    load();
    if (evidence_ && batch_ > kBatchesInFlight + 1) waitFor(batch_ - 1 - kBatchesInFlight);
    for (char32_t c : text) {
        KeySym keysym = keysymForCharacter(c);
        if (keysym == NoSymbol) continue;
        // LibreOffice inserts a character beyond the BMP (two UTF-16 units
        // from its input method) as soon as its key arrives, ahead of
        // earlier keys it has not handled yet; so in any application not
        // known to keep the order of keys (browsers do) such a key waits
        // until the application has handled every key before it.
        // The application answering a ping is not enough: its key events
        // may still wait in its own queue. The editor must show them.
        if (c > 0xFFFF && order_ && (keysSinceWait_ || !queued_.empty())) {
            flush();
            order_->sent(++orderBatch_);
            order_->waitFor(orderBatch_);
            keysSinceWait_ = false;
        }
        std::optional<KeyStroke> stroke = strokeFor(keysym);
        if (aheadAt_ < ahead_.size() && ahead_[aheadAt_] == keysym) ++aheadAt_;
        if (!stroke) continue;
        if (order_) order_->typed(c);
        queued_.push_back(*stroke);
        if (evidence_) evidence_->typed(c);
    }
    flush();
    endBatch();
}

void Typist::settle() {
    flush();
    if (!keysSinceWait_) return;
    if (!evidence_) evidence_ = focusedApplicationEvidence(display_, focusedText_);
    batchUsedSpare_ = true;
    endBatch();
    waitFor(batch_ - 1);
    keysSinceWait_ = false;
}

void Typist::restore() {
    std::vector<SpareKeys::Keycode> lent = spare_.lent();
    if (!lent.empty()) {
        flush();
        endBatch();
        waitFor(spare_.newestUse());
        std::vector<std::pair<KeyCode, KeyEntry>> keys;
        for (SpareKeys::Keycode keycode : lent)
            keys.emplace_back(static_cast<KeyCode>(keycode), original_[static_cast<KeyCode>(keycode)]);
        changeKeys(display_, xkb_, keys);
        XSync(display_, False);
        claim_.restored();
        recorded_.clear();
        std::vector<SpareKeys::Keycode> all;
        for (const auto& [keycode, entry] : original_) all.push_back(keycode);
        spare_ = SpareKeys(std::move(all));
    }
    deferred_termination::release();
}

void Typist::honourTermination() {
    if (deferred_termination::pending()) restore();
}

}  // namespace quorvel::linux_backend
