#include "platform/linux/wayland/keyboard.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <thread>

#include "platform/linux/wayland/connection.h"
#include "platform/linux/wayland/protocols.h"

namespace quorvel::linux_backend::wayland {
namespace {

// Without an editor to read, how long the application is given per
// kCharactersInFlight characters: a slow GTK editor digests a thousand in
// one to three seconds.
constexpr std::chrono::milliseconds kBlindPause{1500};

}  // namespace

Keyboard::Keyboard(Connection& connection, FocusedText focusedText,
                   std::function<std::optional<std::int64_t>()> focusedPid)
    : connection_(connection),
      focusedText_(std::move(focusedText)),
      focusedPid_(std::move(focusedPid)) {}

Keyboard::~Keyboard() {
    if (claim_ >= 0) close(claim_);
    if (!keyboard_) return;
    release();
    zwp_virtual_keyboard_v1_destroy(keyboard_);
    connection_.flush();
}

bool Keyboard::available() {
    if (!tried_) {
        tried_ = true;
        const Globals& globals = connection_.globals();
        if (globals.virtualKeyboard && globals.seat)
            keyboard_ = zwp_virtual_keyboard_manager_v1_create_virtual_keyboard(
                globals.virtualKeyboard, globals.seat);
    }
    return keyboard_ && !connection_.failed();
}

void Keyboard::upload(std::vector<Keysym> keysyms) {
    std::string text = keymapText(keysyms);
    // The size given includes the terminating NUL, which the compositor's
    // parser expects to find.
    size_t size = text.size() + 1;
    int fd = memfd_create("quorvel-keymap", MFD_CLOEXEC);
    if (fd < 0) return;
    if (write(fd, text.c_str(), size) == static_cast<ssize_t>(size)) {
        zwp_virtual_keyboard_v1_keymap(keyboard_, WL_KEYBOARD_KEYMAP_FORMAT_XKB_V1, fd,
                                       static_cast<std::uint32_t>(size));
        keymap_ = std::move(keysyms);
        keycodes_.clear();
        for (size_t i = 0; i < keymap_.size(); ++i)
            keycodes_[keymap_[i]] = kFirstKeycode + static_cast<std::uint32_t>(i);
    }
    close(fd);  // libwayland sends a duplicate
}

std::uint32_t Keyboard::keycodeFor(Keysym keysym, std::u32string_view ahead) {
    if (auto found = keycodes_.find(keysym); found != keycodes_.end()) return found->second;
    std::vector<Keysym> plan = keysymsAhead(ahead);
    if (std::find(plan.begin(), plan.end(), keysym) == plan.end()) {
        if (plan.size() == kKeysPerKeymap) plan.pop_back();
        plan.insert(plan.begin(), keysym);
    }
    upload(std::move(plan));
    auto found = keycodes_.find(keysym);
    return found != keycodes_.end() ? found->second : 0;
}

void Keyboard::key(std::uint32_t keycode, bool pressed) {
    zwp_virtual_keyboard_v1_key(keyboard_, eventTime(), keycode - 8,
                                pressed ? WL_KEYBOARD_KEY_STATE_PRESSED
                                        : WL_KEYBOARD_KEY_STATE_RELEASED);
}

void Keyboard::modifiers(std::uint32_t depressed) {
    zwp_virtual_keyboard_v1_modifiers(keyboard_, depressed, 0, 0, 0);
    heldModifiers_ = depressed;
}

void Keyboard::press(Keysym keysym, bool control, bool alt) {
    if (!available()) return;
    release();
    std::uint32_t keycode = keycodeFor(keysym, {});
    if (keycode == 0) return;
    std::uint32_t mask = 0;
    auto hold = [&](bool wanted, std::uint32_t modifierKey, std::uint32_t bit) {
        if (!wanted) return;
        key(modifierKey, true);
        held_.push_back(modifierKey);
        mask |= bit;
        // The compositor takes the state from this request, not from the key.
        modifiers(mask);
    };
    hold(control, controlKeycode(keymap_.size()), kControlMask);
    hold(alt, altKeycode(keymap_.size()), kAltMask);
    key(keycode, true);
    held_.push_back(keycode);
    connection_.flush();
}

void Keyboard::release() {
    if (!keyboard_ || (held_.empty() && heldModifiers_ == 0)) return;
    for (auto keycode = held_.rbegin(); keycode != held_.rend(); ++keycode) key(*keycode, false);
    held_.clear();
    modifiers(0);
    connection_.flush();
}

bool lockWithin(int fd, std::chrono::milliseconds patience) {
    auto deadline = std::chrono::steady_clock::now() + patience;
    for (;;) {
        if (flock(fd, LOCK_EX | LOCK_NB) == 0) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

bool Keyboard::claim(std::chrono::milliseconds patience) {
    if (claim_ >= 0) return true;
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    std::optional<pid_t> compositor = connection_.compositorPid();
    if (!runtime || !*runtime || !compositor) return true;
    std::string path = std::string(runtime) + "/quorvel-typist." + std::to_string(*compositor) + ".lock";
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) return true;
    if (!lockWithin(fd, patience)) {
        close(fd);
        return false;
    }
    claim_ = fd;
    return true;
}

void Keyboard::prepare(std::u32string_view text) {
    prepared_.assign(text);
    preparedAt_ = 0;
    // A text that will have to wait for the application reads where its
    // editor stands before the first key.
    if (text.size() > kCharactersInFlight && !evidenceTried_) {
        evidenceTried_ = true;
        std::optional<std::int64_t> pid = focusedPid_ ? focusedPid_() : std::nullopt;
        if (pid && focusedText_) evidence_ = editorEvidence(focusedText_(*pid));
    }
}

void Keyboard::waitUntilHandled() {
    if (evidence_) {
        evidence_->sent(++batch_);
        evidence_->waitFor(batch_);  // gives up once the editor stops moving
    } else {
        std::this_thread::sleep_for(kBlindPause);
    }
    unconfirmed_ = 0;
}

void Keyboard::type(std::u32string_view text) {
    if (!available()) return;
    release();
    if (unconfirmed_ > 0 && unconfirmed_ + text.size() > kCharactersInFlight) waitUntilHandled();
    for (size_t i = 0; i < text.size(); ++i) {
        char32_t c = text[i];
        // Keymaps are planned from the prepared text while the typing
        // follows it, and from what is left of this text otherwise.
        std::u32string_view ahead = text.substr(i);
        if (preparedAt_ < prepared_.size() && prepared_[preparedAt_] == c) {
            ahead = std::u32string_view(prepared_).substr(preparedAt_);
            ++preparedAt_;
        } else {
            prepared_.clear();
            preparedAt_ = 0;
        }
        std::optional<Keysym> keysym = keysymFor(c);
        if (!keysym) continue;
        std::uint32_t keycode = keycodeFor(*keysym, ahead);
        if (keycode == 0) continue;
        key(keycode, true);
        key(keycode, false);
        if (evidence_) evidence_->typed(c);
        ++unconfirmed_;
    }
    connection_.flush();
}

}  // namespace quorvel::linux_backend::wayland
