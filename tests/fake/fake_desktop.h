// A scripted, in-memory desktop for unit tests.
//
// Elements, applications and windows are built from plain data; every
// attribute can carry any result code and any value type. The fake records
// every platform call (`calls`) and every posted event (`posted`), and runs
// hooks before the Nth call of an operation, so a test can change the
// desktop between two steps of one request.
#pragma once

#include <functional>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/platform.h"

namespace quorvel::fake {

using ElementId = int;

struct FakeElement final : ElementObject {
    explicit FakeElement(ElementId id) : id(id) {}
    ElementId id;
};

struct FakeApplication final : ApplicationObject {
    std::int32_t pid = 0;
    std::optional<std::string> name;
};

struct FakeImage final : ImageObject {
    std::vector<std::uint8_t> bytes;
};

// An event as the core built it.
struct FakeEvent final : EventObject {
    enum class Kind { Keyboard, Mouse, Scroll } kind = Kind::Keyboard;
    std::uint16_t keyCode = 0;
    bool keyDown = false;
    std::optional<EventFlags> flags;   // unset until setFlags
    std::u16string unicode;
    bool hasUnicode = false;
    MouseEventType mouseType = MouseEventType::LeftMouseDown;
    Point location;
    MouseButton button = MouseButton::Left;
    std::optional<std::int64_t> clickState;
    ScrollUnit scrollUnit = ScrollUnit::Pixel;
    std::uint32_t wheelCount = 0;
    std::int32_t wheel[3] = {0, 0, 0};
};

// One attribute as the fake answers it.
struct Attribute {
    AXError code = kAXErrorSuccess;
    Value value;
};

struct ElementData {
    std::map<std::string, Attribute, std::less<>> attributes;
    AXError settableCode = kAXErrorSuccess;
    bool valueSettable = false;
    AXError setCode = kAXErrorSuccess;
};

class FakeDesktop final : public Platform {
public:
    FakeDesktop();

    // --- What the test scripts ------------------------------------------------
    std::string platformName = "fake";
    bool trusted = true;
    bool screenCaptureAllowed = true;

    // The frontmost application; reset() for none.
    std::optional<FakeApplication> frontmost;

    std::map<ElementId, ElementData> elements;
    // AXUIElementCreateApplication(pid) answers this element for the pid
    // (made on first use when absent).
    std::map<std::int32_t, ElementId> applicationElements;

    // nullopt: the window server gives no list at all.
    std::optional<std::vector<WindowListEntry>> windowList = std::vector<WindowListEntry>{};

    // Capture: image bytes (nullopt: no image), and whether the image has data.
    std::optional<std::vector<std::uint8_t>> imageBytes = std::vector<std::uint8_t>{1, 2, 3};
    bool imageHasData = true;
    std::vector<TextObservation> recognized;
    std::optional<std::string> recognizerError;

    std::optional<Point> pointer = Point{0, 0};
    // Creation of the Nth event (1-based, counted over all kinds) fails.
    std::set<int> failEventCreation;

    // --- What the fake records ------------------------------------------------
    std::vector<std::string> calls;  // e.g. "copyAttributeValue 3 AXRole"
    std::vector<FakeEvent> posted;
    std::vector<double> sleeps;
    std::vector<std::pair<ElementId, std::string>> setValues;
    int eventsCreated = 0;
    int scanBrackets = 0;  // open begin/end pairs; 0 when balanced

    // --- Building --------------------------------------------------------------
    ElementId add(std::map<std::string, Value> attributes = {});
    void set(ElementId, const std::string& attribute, Value value,
             AXError code = kAXErrorSuccess);
    void unset(ElementId, const std::string& attribute);
    void setChildren(ElementId parent, const std::vector<ElementId>& children);
    Element handle(ElementId) const;
    ElementId applicationElement(std::int32_t pid);

    // Runs `hook` just before the `nth` (1-based) call of `operation`, the
    // operation named as in `calls` (its first word).
    void before(const std::string& operation, int nth, std::function<void()> hook);
    // How many calls of `operation` were made, and whether `needle` was read.
    int count(const std::string& operation) const;
    bool wasRead(ElementId, const std::string& attribute) const;

    // --- Platform --------------------------------------------------------------
    std::string name() const override { return platformName; }
    std::string accessibilityPermissionMessage() const override;
    std::string screenCapturePermissionMessage() const override;
    bool isProcessTrusted() override;
    bool preflightScreenCaptureAccess() override;
    Application frontmostApplication() override;
    std::int32_t processIdentifier(const Application&) override;
    std::optional<std::string> localizedName(const Application&) override;
    Element createApplicationElement(std::int32_t pid) override;
    void setMessagingTimeout(const Element&, float seconds) override;
    AttributeRead copyAttributeValue(const Element&, std::string_view attribute) override;
    AXError isAttributeSettable(const Element&, std::string_view, bool& settable) override;
    AXError setAttributeValue(const Element&, std::string_view, const std::string&) override;
    bool equal(const Element&, const Element&) override;
    void beginTreeScan(const Element&) override;
    void endTreeScan() override;
    std::optional<std::vector<WindowListEntry>> copyWindowInfo(std::uint32_t options,
                                                               std::uint32_t relative) override;
    Image createWindowImage(const Rect&, std::uint32_t listOption, std::uint32_t windowID,
                            std::uint32_t imageOption) override;
    std::optional<std::vector<std::uint8_t>> copyImageData(const Image&) override;
    std::vector<TextObservation> recognizeText(const Image&) override;
    std::optional<Point> pointerLocation() override;
    Event createKeyboardEvent(std::uint16_t virtualKey, bool keyDown) override;
    Event createMouseEvent(MouseEventType, Point, MouseButton) override;
    Event createScrollWheelEvent(ScrollUnit, std::uint32_t, std::int32_t, std::int32_t,
                                 std::int32_t) override;
    void setFlags(EventObject&, EventFlags) override;
    void setUnicodeString(EventObject&, std::span<const char16_t>) override;
    void setIntegerValueField(EventObject&, EventField, std::int64_t) override;
    void post(EventTap, EventObject&) override;
    void sleep(double seconds) override;

private:
    void record(std::string call);
    Event newEvent(FakeEvent event);
    static ElementId idOf(const Element&);

    ElementId nextId_ = 1;
    std::map<std::string, int> callCounts_;
    std::map<std::pair<std::string, int>, std::vector<std::function<void()>>> hooks_;
};

// A desktop with one application in front and one window that both sources
// agree on: the common starting point of tests.
struct StandardScene {
    static constexpr std::int32_t kPid = 4242;
    static constexpr std::uint32_t kWindowNumber = 77;
    static constexpr Rect kFrame{100, 50, 800, 600};

    explicit StandardScene(FakeDesktop& desktop);

    // Moves or retitles the window in both sources, as a real move would.
    void moveWindow(double dx, double dy);
    void retitle(const std::string& title);
    // Makes `element` the application's focused element (0: none).
    void focus(ElementId element);

    FakeDesktop& desktop;
    ElementId app;     // the application element
    ElementId window;  // the focused window element, root of the tree
};

}  // namespace quorvel::fake
