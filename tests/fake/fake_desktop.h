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
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/platform.h"

namespace quorvel::fake {

using ElementId = int;

// Counts a platform object the fake handed to the core for as long as that
// object lives, so a test can check that the core released everything it
// obtained. A copy is a record of the object, not the object, and does not
// count (the fake keeps copies of posted events, for example).
class LiveToken {
public:
    LiveToken() = default;
    LiveToken(const LiveToken&) {}
    LiveToken& operator=(const LiveToken&) { return *this; }
    ~LiveToken() {
        if (counter_) --*counter_;
    }
    void track(std::shared_ptr<int> counter) {
        counter_ = std::move(counter);
        ++*counter_;
    }

private:
    std::shared_ptr<int> counter_;
};

struct FakeElement final : ElementObject {
    explicit FakeElement(ElementId id) : id(id) {}
    ElementId id;
    LiveToken live;
};

struct FakeApplication final : ApplicationObject {
    std::int32_t pid = 0;
    std::optional<std::string> name;
    LiveToken live;
};

struct FakeImage final : ImageObject {
    std::vector<std::uint8_t> bytes;
    LiveToken live;
};

// An event as the core built it.
struct FakeEvent final : EventObject {
    enum class Kind { Keyboard, Mouse, Scroll } kind = Kind::Keyboard;
    std::uint16_t keyCode = 0;
    bool keyDown = false;
    std::optional<EventFlags> flags;  // unset until setFlags
    std::u16string unicode;
    bool hasUnicode = false;
    MouseEventType mouseType = MouseEventType::LeftMouseDown;
    Point location;
    std::optional<std::int64_t> clickState;
    ScrollUnit scrollUnit = ScrollUnit::Pixel;
    std::uint32_t wheelCount = 0;
    std::int32_t wheel[3] = {0, 0, 0};
    LiveToken live;
};

// One line per event, for exact sequence checks and readable failures:
// "mouse down click=1 at 150,80", "key 33 up flags=0x100000",
// "key 0 down text=\"abc\"" (other than printable ASCII as \uXXXX),
// "scroll pixel wheels=1 delta=2000,0,0".
std::string describe(const FakeEvent&);

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
    // --- What the test scripts ------------------------------------------------
    bool trusted = true;
    bool screenCaptureAllowed = true;
    // The frontmost application; reset() for none.
    std::optional<FakeApplication> frontmost;
    std::map<ElementId, ElementData> elements;
    // nullopt: the window server gives no list at all.
    std::optional<std::vector<WindowListEntry>> windowList = std::vector<WindowListEntry>{};
    // Capture: image bytes (nullopt: no image), and whether the image has data.
    std::optional<std::vector<std::uint8_t>> imageBytes = std::vector<std::uint8_t>{1, 2, 3};
    bool imageHasData = true;
    std::vector<TextObservation> recognized;
    // PNG encoding: the image's size in pixels (nullopt: encoding fails). The
    // "PNG" is the PNG signature followed by the image bytes.
    std::optional<std::pair<std::uint32_t, std::uint32_t>> pngSize = std::pair{800u, 600u};
    std::optional<std::string> recognizerError;
    std::optional<Point> pointer = Point{0, 0};
    // Off: attribute reads are neither logged nor counted and run no hooks
    // (for benchmarks, where the log would cost more than the core).
    bool logCalls = true;
    // Creation of the Nth event (1-based, counted over all kinds, the
    // pointer read included) fails.
    std::set<int> failEventCreation;
    // What readying the keyboard for a text answers: a refusal, or nothing.
    std::optional<std::string> textRefusal;

    // --- What the fake records ------------------------------------------------
    std::vector<std::string> calls;  // e.g. "copyAttributeValue 3 AXRole", "sleep 0.1"
    std::vector<FakeEvent> posted;
    std::vector<std::pair<ElementId, std::string>> setValues;
    // Each text announced before typing, after the number of events posted
    // by then: "0 hello" (also logged in `calls` as "prepareText").
    std::vector<std::string> prepared;
    int scanBrackets = 0;  // open begin/end pairs; 0 when balanced

    // --- Building --------------------------------------------------------------
    ElementId add(std::map<std::string, Value> attributes = {});
    void set(ElementId, const std::string& attribute, Value value,
             AXError code = kAXErrorSuccess);
    void unset(ElementId, const std::string& attribute);
    void setChildren(ElementId parent, const std::vector<ElementId>& children);
    Element handle(ElementId) const;
    // The element that AXUIElementCreateApplication(pid) answers, made on
    // first use.
    ElementId applicationElement(std::int32_t pid);
    // Adds `count` elements below `root`, breadth-first, each with at most
    // `fanout` children, and returns them in breadth-first order. Each has
    // role "AXStaticText", title "Item N" and a small frame inside the
    // standard window.
    std::vector<ElementId> addTree(ElementId root, int count, int fanout);

    // Runs `hook` just before the `nth` (1-based) call of `operation`, the
    // operation named as in `calls` (its first word). The foreground window's
    // resolution starts with "isProcessTrusted", so that counts validations.
    void before(const std::string& operation, int nth, std::function<void()> hook);

    // --- Inspecting --------------------------------------------------------------
    int count(const std::string& operation) const;
    bool wasRead(ElementId, const std::string& attribute) const;
    // The attributes read from one element, in order.
    std::vector<std::string> readsOf(ElementId) const;
    // `posted`, one `describe` line per event.
    std::vector<std::string> postedLog() const;
    // How many platform objects (elements, applications, images, events)
    // the core was handed and has not released yet.
    int unreleased() const { return *live_; }
    static ElementId idOf(const Element&);

    // --- Platform --------------------------------------------------------------
    std::string name() const override { return "fake"; }
    std::string accessibilityPermissionMessage() const override {
        return "Grant Accessibility access to Quorvel in macOS System Settings, then retry.";
    }
    std::string screenCapturePermissionMessage() const override {
        return "Grant Screen Recording access to Quorvel in macOS System Settings, then retry.";
    }
    bool isProcessTrusted() override { record("isProcessTrusted"); return trusted; }
    bool preflightScreenCaptureAccess() override {
        record("preflightScreenCaptureAccess");
        return screenCaptureAllowed;
    }
    Application frontmostApplication() override;
    std::int32_t processIdentifier(const Application& app) override {
        record("processIdentifier");
        return dynamic_cast<const FakeApplication&>(*app).pid;
    }
    std::optional<std::string> localizedName(const Application& app) override {
        record("localizedName");
        return dynamic_cast<const FakeApplication&>(*app).name;
    }
    Element createApplicationElement(std::int32_t pid) override;
    void setMessagingTimeout(const Element&, float seconds) override;
    AttributeRead copyAttributeValue(const Element&, std::string_view attribute) override;
    AXError isAttributeSettable(const Element&, std::string_view, bool& settable) override;
    AXError setAttributeValue(const Element&, std::string_view, const std::string&) override;
    bool equal(const Element& a, const Element& b) override { record("equal"); return idOf(a) == idOf(b); }
    void beginTreeScan(const Element& root) override {
        record("beginTreeScan " + std::to_string(idOf(root)));
        ++scanBrackets;
    }
    void endTreeScan() override {
        record("endTreeScan");
        --scanBrackets;
    }
    std::optional<std::vector<WindowListEntry>> copyWindowInfo(std::uint32_t options,
                                                               std::uint32_t relative) override;
    Image createWindowImage(const Rect&, std::uint32_t listOption, std::uint32_t windowID,
                            std::uint32_t imageOption) override;
    std::optional<std::vector<std::uint8_t>> copyImageData(const Image&) override;
    std::vector<TextObservation> recognizeText(const Image&) override;
    std::optional<EncodedImage> encodePng(const Image&) override;
    std::optional<Point> pointerLocation() override;
    Event createKeyboardEvent(std::uint16_t virtualKey, bool keyDown) override;
    Event createMouseEvent(MouseEventType, Point, MouseButton) override;
    Event createScrollWheelEvent(ScrollUnit, std::uint32_t, std::int32_t, std::int32_t,
                                 std::int32_t) override;
    void setFlags(EventObject&, EventFlags) override;
    void setUnicodeString(EventObject&, std::span<const char16_t>) override;
    void setIntegerValueField(EventObject&, EventField, std::int64_t) override;
    void post(EventTap, EventObject&) override;
    std::optional<std::string> prepareText(std::string_view text) override {
        record("prepareText");
        prepared.push_back(std::to_string(posted.size()) + " " + std::string(text));
        return textRefusal;
    }
    void sleep(double seconds) override;

private:
    void record(std::string call);
    Event newEvent(FakeEvent event);
    bool eventCreationFails() { return failEventCreation.count(++eventsCreated_) != 0; }
    // A fresh handle for the core, counted while it lives.
    Element issue(ElementId) const;
    Value issue(const Value&) const;

    std::shared_ptr<int> live_ = std::make_shared<int>(0);

    ElementId nextId_ = 1;
    int eventsCreated_ = 0;
    std::map<std::int32_t, ElementId> applicationElements_;
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

// What the form's password field holds; none of it may ever leave the bridge.
inline constexpr char kSecretValue[] = "correct-horse-battery";
inline constexpr char kSecretTitle[] = "vault-title-7731";
inline constexpr char kSecretDescription[] = "vault-description-0458";

// The standard window holding a form: a label, the focused editor (value
// "hello"), a second editor with the same value (somewhere for focus to go),
// and a group of a password field, a button and a slider. A second
// application stands ready to bring its window to the front.
struct FormScene {
    static constexpr std::int32_t kOtherPid = 5151;
    static constexpr Rect kOtherFrame{300, 200, 400, 300};
    static constexpr Point kInPassword{250, 330};

    // `settable`: whether the editors' values can be set in one step.
    explicit FormScene(bool settable = false);
    void bringOtherWindowToFront();

    FakeDesktop desktop;
    StandardScene standard{desktop};
    ElementId editor = 0;
    ElementId twin = 0;
    ElementId group = 0;
    ElementId password = 0;
};

}  // namespace quorvel::fake
