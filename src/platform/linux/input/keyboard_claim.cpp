#include "platform/linux/input/keyboard_claim.h"

#include <X11/Xatom.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <thread>

namespace quorvel::linux_backend {
namespace {

constexpr char kClaim[] = "_QUORVEL_TYPIST";
constexpr char kRecord[] = "_QUORVEL_SPARE_KEYS";
// How often a bridge that waits for the claim asks again.
constexpr std::chrono::milliseconds kPoll{20};

// The record on the root window; nothing when there is none or it cannot be
// read. `found` tells whether the property exists at all.
std::optional<SpareKeyRecord> readRecord(Display* display, Atom property, bool& found) {
    Atom type = None;
    int format = 0;
    unsigned long count = 0, after = 0;
    unsigned char* data = nullptr;
    found = false;
    if (XGetWindowProperty(display, DefaultRootWindow(display), property, 0, 1L << 20, False,
                           AnyPropertyType, &type, &format, &count, &after, &data) != Success)
        return std::nullopt;
    found = type != None;
    std::optional<SpareKeyRecord> record;
    // Xlib hands 32-bit items over as longs.
    if (type == XA_CARDINAL && format == 32 && after == 0)
        record = decodeRecord(reinterpret_cast<const long*>(data), count);
    if (data) XFree(data);
    return record;
}

// Gives back the keys that the record lists and that still hold only what
// the bridge put there, then deletes the record. Only under the claim: no
// live bridge is changing the keys meanwhile.
void giveBackRecordedKeys(Display* display) {
    Atom property = XInternAtom(display, kRecord, True);
    if (property == None) return;  // no bridge has ever typed on this server
    bool found = false;
    std::optional<SpareKeyRecord> record = readRecord(display, property, found);
    if (!found) return;
    int opcode, event, error, major = XkbMajorVersion, minor = XkbMinorVersion;
    if (record && XkbQueryExtension(display, &opcode, &event, &error, &major, &minor)) {
        if (XkbDescPtr xkb = XkbGetMap(display, XkbKeyTypesMask | XkbKeySymsMask, XkbUseCoreKbd)) {
            std::vector<std::pair<KeyCode, KeyEntry>> keys;
            for (const RecordedKey& key : record->keys) {
                if (key.keycode < xkb->min_key_code || key.keycode > xkb->max_key_code) continue;
                auto keycode = static_cast<KeyCode>(key.keycode);
                if (restoresTo(key, entryOf(xkb, keycode))) keys.emplace_back(keycode, key.original);
            }
            changeKeys(display, xkb, keys);
            XkbFreeKeyboard(xkb, 0, True);
        }
    }
    // A record that cannot be read is of no use to anyone: it goes too.
    XDeleteProperty(display, DefaultRootWindow(display), property);
    XSync(display, False);
}

}  // namespace

KeyEntry entryOf(XkbDescPtr xkb, KeyCode keycode) {
    KeyEntry entry;
    XkbSymMapPtr map = &xkb->map->key_sym_map[keycode];
    std::copy(std::begin(map->kt_index), std::end(map->kt_index), entry.types.begin());
    entry.groupInfo = map->group_info;
    entry.width = map->width;
    KeySym* syms = XkbKeySymsPtr(xkb, keycode);
    entry.syms.assign(syms, syms + XkbKeyNumSyms(xkb, keycode));
    return entry;
}

void changeKeys(Display* display, XkbDescPtr xkb,
                const std::vector<std::pair<KeyCode, KeyEntry>>& keys) {
    KeyCode first = 255, last = 0;
    for (const auto& [keycode, entry] : keys) {
        KeySym* syms = XkbResizeKeySyms(xkb, keycode, static_cast<int>(entry.syms.size()));
        if (!syms) continue;
        std::copy(entry.syms.begin(), entry.syms.end(), syms);
        XkbSymMapPtr map = &xkb->map->key_sym_map[keycode];
        std::copy(entry.types.begin(), entry.types.end(), map->kt_index);
        map->group_info = entry.groupInfo;
        map->width = entry.width;
        first = std::min(first, keycode);
        last = std::max(last, keycode);
    }
    if (first > last) return;
    XkbMapChangesRec changes{};
    changes.changed = XkbKeySymsMask;
    changes.first_key_sym = first;
    changes.num_key_syms = static_cast<unsigned char>(last - first + 1);
    XkbChangeMap(display, xkb, &changes);
}

KeyboardClaim::~KeyboardClaim() { letGo(); }

bool KeyboardClaim::tryTake() {
    Window root = DefaultRootWindow(display_);
    if (window_ == None) {
        // Never mapped: it only stands for this connection as the owner.
        XSetWindowAttributes attributes{};
        attributes.override_redirect = True;
        window_ = XCreateWindow(display_, root, -1, -1, 1, 1, 0, 0, InputOnly, CopyFromParent,
                                CWOverrideRedirect, &attributes);
    }
    Atom selection = XInternAtom(display_, kClaim, False);
    if (XGetSelectionOwner(display_, selection) != None) return false;
    // Setting a selection's owner takes it from whoever holds it, so the
    // question and the change must not be split by another bridge's.
    XGrabServer(display_);
    bool free = XGetSelectionOwner(display_, selection) == None;
    if (free) XSetSelectionOwner(display_, selection, window_, CurrentTime);
    XUngrabServer(display_);
    held_ = free && XGetSelectionOwner(display_, selection) == window_;
    return held_;
}

bool KeyboardClaim::take(std::chrono::milliseconds patience) {
    if (held_) return true;
    auto deadline = std::chrono::steady_clock::now() + patience;
    while (!tryTake()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(kPoll);
    }
    giveBackRecordedKeys(display_);
    return true;
}

void KeyboardClaim::record(const std::vector<RecordedKey>& keys) {
    if (!held_) return;
    std::vector<long> items = encodeRecord(SpareKeyRecord{getpid(), keys});
    // Not flushed here: the change of the keys follows in the same buffer,
    // so the server never sees the change without the record before it.
    XChangeProperty(display_, DefaultRootWindow(display_), XInternAtom(display_, kRecord, False),
                    XA_CARDINAL, 32, PropModeReplace,
                    reinterpret_cast<const unsigned char*>(items.data()),
                    static_cast<int>(items.size()));
}

void KeyboardClaim::restored() {
    if (!held_) return;
    Atom property = XInternAtom(display_, kRecord, True);
    if (property != None) XDeleteProperty(display_, DefaultRootWindow(display_), property);
    // Seen done before anything else happens: a bridge that restores on a
    // termination request dies right after this, and a request still in
    // its socket would reach the server after others had looked.
    XSync(display_, False);
}

void KeyboardClaim::letGo() {
    if (window_ == None) return;
    if (held_) XSetSelectionOwner(display_, XInternAtom(display_, kClaim, False), None, CurrentTime);
    XDestroyWindow(display_, window_);
    XFlush(display_);
    window_ = None;
    held_ = false;
}

void repairAbandonedKeys(Display* display) {
    if (!display) return;
    Atom property = XInternAtom(display, kRecord, True);
    if (property == None) return;
    bool found = false;
    readRecord(display, property, found);  // read again under the claim
    if (!found) return;
    // Held by a live bridge, the record is its own: taking the claim fails
    // at once and changes nothing.
    KeyboardClaim claim(display);
    claim.take(std::chrono::milliseconds(0));
}

}  // namespace quorvel::linux_backend
