// Evidence that the focused application has handled the key events sent to
// it so far, so that a keycode they used can be remapped or restored.
//
// Three sources, best first:
//   - the window manager's ping (_NET_WM_PING): the application answers it
//     from the same event loop, in the same order, in which it translates
//     key events, so its answer proves that every earlier key event has been
//     translated with the mapping in force when it arrived;
//   - the focused editor, read live over AT-SPI with the accessibility
//     side's own calls (handed in as `FocusedText`): its caret has moved and
//     the text before the caret ends with the characters typed last;
//   - neither: a short fixed pause, the one guess left.
// Every wait is bounded; a wait that gives up lets typing go on.
#pragma once

#include <cstdint>
#include <memory>

#include "platform/linux/input/editor_text.h"

struct _XDisplay;

namespace quorvel::linux_backend {

class HandledEvidence {
public:
    using Batch = std::uint64_t;
    virtual ~HandledEvidence() = default;
    // One character was typed (the editor's text is checked against them).
    virtual void typed(char32_t) {}
    // Every key event of `batch` has been sent.
    virtual void sent(Batch batch) = 0;
    // The newest batch known to be handled, without waiting.
    virtual Batch confirmed() = 0;
    // Waits until `batch` has been handled; false when the wait gave up.
    virtual bool waitFor(Batch batch) = 0;
};

// The best evidence for the application that owns the keyboard focus.
std::unique_ptr<HandledEvidence> focusedApplicationEvidence(_XDisplay*, const FocusedText&);
// Evidence from the focused editor alone, that the characters typed so far
// have reached the text, not only the application; null without one.
std::unique_ptr<HandledEvidence> focusedEditorEvidence(_XDisplay*, const FocusedText&);
// The same, for an application that may insert a character beyond the BMP
// ahead of earlier keys it has not handled yet; null for one that keeps the
// order of its keys.
std::unique_ptr<HandledEvidence> keyOrderEvidence(_XDisplay*, const FocusedText&);

// The editor's evidence alone (what a window system without pings has);
// null without an editor.
std::unique_ptr<HandledEvidence> editorEvidence(std::unique_ptr<EditorText> editor);

}  // namespace quorvel::linux_backend
