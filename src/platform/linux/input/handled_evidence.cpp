#include "platform/linux/input/handled_evidence.h"

#include <X11/Xutil.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "platform/linux/input/deferred_termination.h"
#include "platform/linux/x11/display.h"
#include "unicode/unicode.h"

namespace quorvel::linux_backend {
namespace {

using Clock = std::chrono::steady_clock;

// How long one wait for a ping answer may take. Typing keeps at most a few
// batches in flight, so an application that takes longer is stuck.
constexpr std::chrono::milliseconds kPingPatience{5000};
// How long the editor may show no progress before its wait gives up.
constexpr std::chrono::milliseconds kEditorPatience{750};
constexpr std::chrono::milliseconds kPause{60};

// Marks our pings, so that answers to the window manager's own pings, or to
// another bridge's, are never taken for ours.
constexpr long kPingMark = 0x51564c;

class PingEvidence final : public HandledEvidence {
public:
    PingEvidence(Display* display, Window window)
        : display_(display),
          window_(window),
          protocols_(XInternAtom(display, "WM_PROTOCOLS", False)),
          ping_(XInternAtom(display, "_NET_WM_PING", False)) {
        // The application answers on the root window, to whoever listens for
        // substructure notifications there (GTK), or structure notifications
        // (Qt 5).
        XWindowAttributes attributes;
        long mask = SubstructureNotifyMask | StructureNotifyMask;
        if (XGetWindowAttributes(display, DefaultRootWindow(display), &attributes))
            mask |= attributes.your_event_mask;
        XSelectInput(display, DefaultRootWindow(display), mask);
    }

    void sent(Batch batch) override {
        XEvent event{};
        event.xclient.type = ClientMessage;
        event.xclient.window = window_;
        event.xclient.message_type = protocols_;
        event.xclient.format = 32;
        event.xclient.data.l[0] = static_cast<long>(ping_);
        event.xclient.data.l[1] = static_cast<long>(batch);
        event.xclient.data.l[2] = static_cast<long>(window_);
        event.xclient.data.l[3] = kPingMark;
        event.xclient.data.l[4] = getpid();
        XSendEvent(display_, window_, False, NoEventMask, &event);
        XFlush(display_);
    }

    Batch confirmed() override {
        drain();
        return confirmed_;
    }

    bool waitFor(Batch batch) override {
        auto deadline = Clock::now() + kPingPatience;
        for (;;) {
            drain();
            if (confirmed_ >= batch) return true;
            if (deferred_termination::pending()) return false;
            auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
            if (left.count() <= 0) return false;
            pollfd descriptor{ConnectionNumber(display_), POLLIN, 0};
            poll(&descriptor, 1, static_cast<int>(std::min<long long>(left.count(), 100)));
        }
    }


private:
    // Reads every event that has arrived; only our answers matter.
    void drain() {
        while (XEventsQueued(display_, QueuedAfterReading) > 0) {
            XEvent event;
            XNextEvent(display_, &event);
            if (event.type != ClientMessage || event.xclient.message_type != protocols_ ||
                static_cast<Atom>(event.xclient.data.l[0]) != ping_ ||
                static_cast<Window>(event.xclient.data.l[2]) != window_ ||
                event.xclient.data.l[3] != kPingMark || event.xclient.data.l[4] != getpid())
                continue;
            confirmed_ = std::max(confirmed_, static_cast<Batch>(event.xclient.data.l[1]));
        }
    }

    Display* display_;
    Window window_;
    Atom protocols_;
    Atom ping_;
    Batch confirmed_ = 0;
};

class EditorEvidence final : public HandledEvidence {
public:
    explicit EditorEvidence(std::unique_ptr<EditorText> editor) : editor_(std::move(editor)) {
        baseline_ = caret();
    }

    void typed(char32_t c) override {
        ++typedCount_;
        recent_.push_back(c);
        if (recent_.size() > kCompared) recent_.erase(0, 1);
    }
    void sent(Batch batch) override { sent_ = batch; }
    Batch confirmed() override { return confirmed_; }

    // The editor is read until it shows all the text typed so far; the wait
    // gives up only when nothing has moved for a while.
    bool waitFor(Batch batch) override {
        if (confirmed_ >= batch) return true;
        auto lastMove = Clock::now();
        int lastCaret = caret();
        for (;;) {
            int now = caret();
            if (now >= 0 && showsTyped(now)) {
                confirmed_ = sent_;
                return true;
            }
            if (now != lastCaret) {
                lastCaret = now;
                lastMove = Clock::now();
            }
            if (deferred_termination::pending() || Clock::now() - lastMove > kEditorPatience)
                return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }


private:
    static constexpr size_t kCompared = 16;

    int caret() { return editor_->caret().value_or(-1); }

    // The caret has left where it stood before typing, and the characters
    // just before it are the ones typed last.
    bool showsTyped(int caretOffset) {
        if (typedCount_ == 0) return true;
        if (caretOffset == baseline_) return false;
        int count = static_cast<int>(recent_.size());
        if (caretOffset < count) return false;
        std::optional<std::string> before = editor_->text(caretOffset - count, caretOffset);
        return before && *before == utf8(recent_);
    }

    std::unique_ptr<EditorText> editor_;
    int baseline_ = -1;
    size_t typedCount_ = 0;
    std::u32string recent_;
    Batch sent_ = 0;
    Batch confirmed_ = 0;
};

class PauseEvidence final : public HandledEvidence {
public:
    void sent(Batch batch) override { sent_ = batch; }
    Batch confirmed() override { return confirmed_; }
    bool waitFor(Batch batch) override {
        if (confirmed_ < batch) {
            std::this_thread::sleep_for(kPause);
            confirmed_ = sent_;
        }
        return true;
    }

private:
    Batch sent_ = 0;
    Batch confirmed_ = 0;
};

bool answersPings(Display* display, Window window) {
    Atom* protocols = nullptr;
    int count = 0;
    if (!XGetWMProtocols(display, window, &protocols, &count)) return false;
    Atom ping = XInternAtom(display, "_NET_WM_PING", False);
    bool found = std::find(protocols, protocols + count, ping) != protocols + count;
    XFree(protocols);
    return found;
}

// The top-level window of the client that holds the keyboard focus: the
// focus window or its nearest ancestor that carries WM_PROTOCOLS.
Window focusedClient(Display* display) {
    Window focus = None;
    int revert = 0;
    XGetInputFocus(display, &focus, &revert);
    if (focus == None || focus == PointerRoot || focus == DefaultRootWindow(display)) return None;
    for (Window window : ancestry(display, focus)) {
        Atom* protocols = nullptr;
        int count = 0;
        if (XGetWMProtocols(display, window, &protocols, &count)) {
            XFree(protocols);
            return window;
        }
    }
    return None;
}

// Evidence from the application that owns `window`, when it answers pings;
// null otherwise.
std::unique_ptr<HandledEvidence> pingEvidence(Display* display, Window window) {
    if (window == None || !answersPings(display, window)) return nullptr;
    return std::make_unique<PingEvidence>(display, window);
}

std::unique_ptr<HandledEvidence> pauseEvidence() { return std::make_unique<PauseEvidence>(); }

std::unique_ptr<EditorText> focusedEditor(Display* display, const FocusedText& focusedText) {
    Window client = focusedClient(display);
    std::optional<std::int64_t> pid;
    if (client != None) pid = processOf(display, client);
    if (!pid || !focusedText) return nullptr;
    return focusedText(*pid);
}

}  // namespace

std::unique_ptr<HandledEvidence> editorEvidence(std::unique_ptr<EditorText> editor) {
    if (!editor) return nullptr;
    return std::make_unique<EditorEvidence>(std::move(editor));
}

std::unique_ptr<HandledEvidence> focusedEditorEvidence(Display* display,
                                                       const FocusedText& focusedText) {
    return editorEvidence(focusedEditor(display, focusedText));
}

std::unique_ptr<HandledEvidence> keyOrderEvidence(Display* display,
                                                  const FocusedText& focusedText) {
    std::unique_ptr<EditorText> editor = focusedEditor(display, focusedText);
    if (editor && editor->keepsKeyOrder()) return nullptr;
    return editorEvidence(std::move(editor));
}

std::unique_ptr<HandledEvidence> focusedApplicationEvidence(Display* display,
                                                            const FocusedText& focusedText) {
    if (auto ping = pingEvidence(display, focusedClient(display))) return ping;
    if (auto editor = focusedEditorEvidence(display, focusedText)) return editor;
    return pauseEvidence();
}

}  // namespace quorvel::linux_backend
