#include <optional>
#include <string>

#include "accessibility/element.h"
#include "accessibility/window.h"
#include "bridge/failure.h"
#include "input/input.h"
#include "unicode/unicode.h"

namespace quorvel {
namespace {

constexpr char kFocusEditor[] =
    "Focus an enabled, writable non-password text editor before typing.";
constexpr char kValueChanged[] = "The editor value changed since observation. Nothing was typed.";
constexpr char kReplacementRejected[] =
    "The editor rejected text replacement; inspect before retrying.";
constexpr char kFocusChanged[] = "The focused editor changed during input. Inspect before retrying.";
constexpr char kUnableToCreateTextInput[] = "Unable to create text input.";
constexpr char kValueAttribute[] = "AXValue";

Element focusedElement(Platform& platform, std::int32_t pid) {
    Element appElement = platform.createApplicationElement(pid);
    return element(platform, appElement, "AXFocusedUIElement");
}

// Delivers one chunk, after checking again that the scope names the
// foreground window and that focus is still on the editor.
void send(Platform& platform, const std::u16string& chunk, const JsonObject& scope,
          std::int32_t pid, const Element& editor) {
    validate(platform, scope);
    Element now = focusedElement(platform, pid);
    if (!now || !platform.equal(now, editor)) fail(kFocusChanged);
    Event down = platform.createKeyboardEvent(0, true);
    if (!down) fail(kUnableToCreateTextInput);
    Event up = platform.createKeyboardEvent(0, false);
    if (!up) fail(kUnableToCreateTextInput);
    platform.setUnicodeString(*down, chunk);
    platform.setUnicodeString(*up, chunk);
    platform.post(EventTap::HID, *down);
    platform.post(EventTap::HID, *up);
}

}  // namespace

void type(Platform& platform, const std::string& text, bool replace, const std::string& expected,
          const JsonObject& scope) {
    Window window = validate(platform, scope);
    if (utf16Length(text) > kLongestText) fail(kFocusEditor);
    // The application's own process identifier, read once: every later focus
    // check asks the same application.
    std::int32_t pid = platform.processIdentifier(window.app);
    Element editor = focusedElement(platform, pid);
    if (!editor || !editable(platform, editor)) fail(kFocusEditor);
    if (!canonicallyEqual(editorValue(platform, editor), expected)) fail(kValueChanged);

    if (replace) {
        bool settable = false;
        AXError code = platform.isAttributeSettable(editor, kValueAttribute, settable);
        if (code == kAXErrorSuccess && settable) {
            if (platform.setAttributeValue(editor, kValueAttribute, text) != kAXErrorSuccess)
                fail(kReplacementRejected);
            return;
        }
    }
    // The keyboard is readied, or the text refused, before anything of it is
    // posted, select-all included. Nothing to post needs no keyboard.
    if (replace || !text.empty())
        if (std::optional<std::string> refusal = platform.prepareText(text)) fail(*refusal);
    // The typed text replaces the selection.
    if (replace) key(platform, kVirtualKeyA, kCGEventFlagMaskCommand);

    std::u16string chunk;
    chunk.reserve(kLongestChunk);
    for (char32_t cp : scalars(text)) {
        if (chunk.size() + utf16Units(cp) > kLongestChunk) {
            send(platform, chunk, scope, pid, editor);
            chunk.clear();
        }
        appendUtf16(chunk, cp);
    }
    if (!chunk.empty()) send(platform, chunk, scope, pid, editor);
}

}  // namespace quorvel
