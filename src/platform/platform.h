// The seam between the platform-independent core and a desktop backend.
//
// Every question the core asks of the desktop goes through `Platform`: one
// virtual operation per platform service the core uses, in neutral C++ types.
// Backends translate; they never apply the core's rules (fallbacks,
// tolerances, guards, ordering). Failures come back as result codes, empty
// optionals or null handles; the only exception allowed to cross this seam is
// the text recogniser's own error from `recognizeText`.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace quorvel {

struct Point {
    double x = 0;
    double y = 0;
};

struct Size {
    double width = 0;
    double height = 0;
};

// A rectangle as the platform reports it: origin and size, not standardised
// (the size may be negative or zero).
struct Rect {
    double x = 0;
    double y = 0;
    double width = 0;
    double height = 0;
};

// Backends derive from these to hold their platform objects. Handles are
// shared: the platform object is released when the last owner lets go.
class ElementObject {
public:
    virtual ~ElementObject() = default;
};
class ApplicationObject {
public:
    virtual ~ApplicationObject() = default;
};
class ImageObject {
public:
    virtual ~ImageObject() = default;
};
class EventObject {
public:
    virtual ~EventObject() = default;
};

using Element = std::shared_ptr<const ElementObject>;
using Application = std::shared_ptr<const ApplicationObject>;
using Image = std::shared_ptr<const ImageObject>;
using Event = std::unique_ptr<EventObject>;

// An attribute value as the accessibility service hands it back, typed but
// not interpreted. `Other` stands for any type the core never accepts (a
// range, a dictionary, an array that is not made only of elements, ...).
struct Other {
    friend bool operator==(const Other&, const Other&) = default;
};
using ElementList = std::vector<Element>;
using Value = std::variant<std::monostate,  // no value
                           std::string,     // text (UTF-8)
                           bool,            // boolean
                           std::int64_t,    // integral number
                           double,          // floating-point number
                           Element,         // accessibility element
                           Point,           // point value
                           Size,            // size value
                           ElementList,     // array of elements
                           Other>;

// Result codes of accessibility calls: 0 is success, anything else a failure.
using AXError = int;
inline constexpr AXError kAXErrorSuccess = 0;
inline constexpr AXError kAXErrorFailure = -25200;
inline constexpr AXError kAXErrorAttributeUnsupported = -25205;
inline constexpr AXError kAXErrorNoValue = -25212;
inline constexpr AXError kAXErrorCannotComplete = -25204;

struct AttributeRead {
    AXError code = kAXErrorNoValue;
    Value value;  // may be set even when `code` reports a failure
};

// One entry of the on-screen window list, each field as the window server
// gave it: a field that was absent is std::monostate, one of another type
// holds that type. `bounds` is set only when the entry's bounds could be
// turned into a rectangle.
struct WindowListEntry {
    Value ownerPID;
    Value layer;
    std::optional<Rect> bounds;
    Value number;
};

// Window list options and image options, with the window server's values.
inline constexpr std::uint32_t kCGWindowListOptionOnScreenOnly = 1;
inline constexpr std::uint32_t kCGWindowListOptionIncludingWindow = 8;
inline constexpr std::uint32_t kCGWindowListExcludeDesktopElements = 16;
inline constexpr std::uint32_t kNullWindowID = 0;  // no reference window
inline constexpr std::uint32_t kCGWindowImageBoundsIgnoreFraming = 1;
inline constexpr std::uint32_t kCGWindowImageBestResolution = 8;

struct RecognizedText {
    std::string string;
    float confidence = 0;
};

// A window image as the bytes of a PNG file, with its size in pixels.
struct EncodedImage {
    std::vector<std::uint8_t> bytes;
    std::uint32_t width = 0;
    std::uint32_t height = 0;
};

struct TextObservation {
    // Normalised to the image: 0..1, origin at the lower-left, y upwards.
    Rect boundingBox;
    // The recogniser's best candidates, best first; may be empty.
    std::vector<RecognizedText> topCandidates;
};

// Event constants, with the values of the macOS event system; other
// backends map them to their own input model.
using EventFlags = std::uint64_t;
inline constexpr EventFlags kCGEventFlagMaskCommand = 0x00100000;
// The keys the bridge presses, as macOS virtual key codes (kVK_ANSI_A, ...).
inline constexpr std::uint16_t kVirtualKeyA = 0;
inline constexpr std::uint16_t kVirtualKeyLeftBracket = 33;
inline constexpr std::uint16_t kVirtualKeyReturn = 36;
inline constexpr std::uint16_t kVirtualKeyTab = 48;
inline constexpr std::uint16_t kVirtualKeyEscape = 53;

enum class MouseEventType : std::uint32_t { LeftMouseDown = 1, LeftMouseUp = 2 };
enum class MouseButton : std::uint32_t { Left = 0 };
enum class ScrollUnit : std::uint32_t { Pixel = 0, Line = 1 };
enum class EventField : std::uint32_t { MouseClickState = 1 };
enum class EventTap : std::uint32_t { HID = 0 };

// The most elements one tree scan visits, and so the most node records one
// observation holds.
inline constexpr size_t kMaxNodes = 1200;

class Platform {
public:
    virtual ~Platform() = default;

    // --- Identity of the backend -------------------------------------------
    // The capabilities report's "platform" ("macos", "linux").
    virtual std::string name() const = 0;
    // The sentence that tells the user how to grant accessibility access,
    // and the one for screen capture, in this platform's own terms.
    virtual std::string accessibilityPermissionMessage() const = 0;
    virtual std::string screenCapturePermissionMessage() const = 0;

    // --- Permissions ---------------------------------------------------------
    virtual bool isProcessTrusted() = 0;            // AXIsProcessTrusted
    virtual bool preflightScreenCaptureAccess() = 0;  // CGPreflightScreenCaptureAccess

    // --- Applications --------------------------------------------------------
    virtual Application frontmostApplication() = 0;  // null when there is none
    virtual std::int32_t processIdentifier(const Application&) = 0;
    virtual std::optional<std::string> localizedName(const Application&) = 0;

    // --- Accessibility -------------------------------------------------------
    virtual Element createApplicationElement(std::int32_t pid) = 0;
    // The result code is ignored by the core, so none is returned.
    virtual void setMessagingTimeout(const Element&, float seconds) = 0;
    virtual AttributeRead copyAttributeValue(const Element&, std::string_view attribute) = 0;
    virtual AXError isAttributeSettable(const Element&, std::string_view attribute,
                                        bool& settable) = 0;
    virtual AXError setAttributeValue(const Element&, std::string_view attribute,
                                      const std::string& text) = 0;
    virtual bool equal(const Element&, const Element&) = 0;  // CFEqual

    // Bracket one tree scan, which visits at most kMaxNodes elements of
    // `root`'s tree, breadth-first. Between the two calls every read serves
    // that scan, so a backend may prefetch or cache for it; whatever it keeps
    // must be dropped at the end, because every other read must be live.
    virtual void beginTreeScan(const Element& root) { (void)root; }
    virtual void endTreeScan() {}

    // --- Window server -------------------------------------------------------
    // Front to back; nullopt when the list cannot be had at all.
    virtual std::optional<std::vector<WindowListEntry>> copyWindowInfo(
        std::uint32_t options, std::uint32_t relativeToWindow) = 0;
    // One window's image; null when it cannot be made.
    virtual Image createWindowImage(const Rect& screenBounds, std::uint32_t listOption,
                                    std::uint32_t windowID, std::uint32_t imageOption) = 0;
    // The image's raw pixel bytes in the backend's fixed layout; nullopt
    // when the image has no data provider or no data.
    virtual std::optional<std::vector<std::uint8_t>> copyImageData(const Image&) = 0;
    // Text recognition at the accurate level, synchronously, on that image.
    // Throws the recogniser's own error (any std::exception) on failure.
    virtual std::vector<TextObservation> recognizeText(const Image&) = 0;
    // The same image encoded as PNG, favouring speed over size; nullopt when
    // it cannot be encoded, or the backend has no encoder.
    virtual std::optional<EncodedImage> encodePng(const Image&) { return std::nullopt; }

    // --- Events --------------------------------------------------------------
    // The pointer's current location (an event created with no source, read
    // and released); nullopt when no event can be created.
    virtual std::optional<Point> pointerLocation() = 0;
    // Creation returns null when the platform can't make the event.
    virtual Event createKeyboardEvent(std::uint16_t virtualKey, bool keyDown) = 0;
    virtual Event createMouseEvent(MouseEventType, Point location, MouseButton) = 0;
    virtual Event createScrollWheelEvent(ScrollUnit, std::uint32_t wheelCount,
                                         std::int32_t wheel1, std::int32_t wheel2,
                                         std::int32_t wheel3) = 0;
    virtual void setFlags(EventObject&, EventFlags) = 0;
    virtual void setUnicodeString(EventObject&, std::span<const char16_t>) = 0;
    virtual void setIntegerValueField(EventObject&, EventField, std::int64_t) = 0;
    virtual void post(EventTap, EventObject&) = 0;
    // `text` (UTF-8) is about to be posted, chunk by chunk, as Unicode
    // keyboard events, after a select-all key press when it replaces the
    // editor's value; nothing has been posted for it yet. A backend that
    // must ready its keyboard for the characters (one that remaps keys) may
    // do it here for all of them at once. Nothing is typed. Nothing when the
    // keyboard is ready; otherwise the sentence that refuses the text (the
    // keyboard is another process's to change just now), and then nothing
    // is posted.
    virtual std::optional<std::string> prepareText(std::string_view text) {
        (void)text;
        return std::nullopt;
    }

    // --- Time ----------------------------------------------------------------
    virtual void sleep(double seconds) = 0;
};

// The backend this build was made with, constructed on first use.
Platform& systemPlatform();

}  // namespace quorvel
