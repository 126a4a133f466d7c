// The Linux desktop: AT-SPI2 for accessibility and Tesseract for text
// recognition, with a window system (window_system.h) for the foreground
// window, the window list, window images and input: the X server, or a
// Wayland compositor. The window system is chosen when the desktop is first
// needed, and this class forwards to it one for one. What a top-level's
// frame and title mean on X, and the scale of an application that scales
// its windows, are decided where both sides meet (window_identity.h);
// where clients place their elements relative to their own windows, the
// positions meet the window list in WindowPlacement.
#include <atspi/atspi-constants.h>

#include <chrono>
#include <map>
#include <string>
#include <thread>
#include <variant>

#include "platform/linux/atspi/accessibility.h"
#include "platform/linux/atspi/accessible_element.h"
#include "platform/linux/atspi/bus.h"
#include "platform/linux/png_encoder.h"
#include "platform/linux/text_recognition.h"
#include "platform/linux/window_identity.h"
#include "platform/linux/window_placement.h"
#include "platform/linux/window_system.h"
#include "platform/platform.h"

namespace quorvel {
namespace linux_backend {
namespace {

class CapturedImage final : public ImageObject {
public:
    explicit CapturedImage(Pixels pixels) : pixels(std::move(pixels)) {}
    Pixels pixels;
};

// The focused editor of a process, read for the typing evidence with the
// accessibility side's own calls.
class AccessibleEditorText final : public EditorText {
public:
    AccessibleEditorText(Accessibility& accessibility, ObjectRef text, bool keepsKeyOrder)
        : accessibility_(accessibility), text_(std::move(text)), keepsKeyOrder_(keepsKeyOrder) {}
    std::optional<int> caret() override { return accessibility_.caretOffset(text_); }
    std::optional<std::string> text(int start, int end) override {
        return accessibility_.text(text_, start, end);
    }
    bool keepsKeyOrder() override { return keepsKeyOrder_; }

private:
    Accessibility& accessibility_;
    ObjectRef text_;
    bool keepsKeyOrder_;
};

class LinuxPlatform final : public Platform {
public:
    LinuxPlatform()
        : accessibility_([this] { return windows().publishedBusAddress(); }),
          placement_(accessibility_, [this]() -> WindowSystem& { return windows(); }) {}
    ~LinuxPlatform() override {
        if (flagTurner_.joinable()) flagTurner_.join();
    }

    std::string name() const override { return "linux"; }
    // The window system's sentence when it cannot list the windows (no AT-SPI
    // would help then), the accessibility bus's otherwise.
    std::string accessibilityPermissionMessage() const override {
        if (windowsUnavailable_) return *windowsUnavailable_;
        return "Start the AT-SPI accessibility bus in this desktop session, then retry.";
    }
    std::string screenCapturePermissionMessage() const override { return captureUnavailable_; }

    bool isProcessTrusted() override {
        windowsUnavailable_ = windows().windowsUnavailable();
        return !windowsUnavailable_ && accessibility_.reachable();
    }
    bool preflightScreenCaptureAccess() override {
        captureUnavailable_ = windows().captureUnavailable();
        return windows().canCapture();
    }

    Application frontmostApplication() override {
        // Every observation and every input asks this first ("capabilities"
        // never does): as an assistive technology, the bridge turns the
        // session's accessibility flag on when it finds it off. Nothing in
        // this request waits for that (an application exposes its tree only
        // later, if at all), so it is asked beside the request's own work,
        // which it would otherwise delay by a session-bus connection.
        if (!flagTurner_.joinable())
            flagTurner_ = std::thread([] { turnOnAccessibility(kFlagTimeoutMs); });
        // A new identification of the foreground: every frame is read again.
        framed_.clear();
        std::optional<WindowSystem::Focus> active = windows().focus();
        if (!active) return nullptr;
        // A window without a process id cannot be tied to an application on
        // the accessibility bus; it is still a foreground window.
        std::int64_t pid = active->pid.value_or(-1);
        if (pid > INT32_MAX) pid = -1;
        return accessibility_.application(static_cast<std::int32_t>(pid));
    }
    std::int32_t processIdentifier(const Application& app) override {
        auto* handle = dynamic_cast<const ApplicationHandle*>(app.get());
        return handle ? handle->pid() : -1;
    }
    std::optional<std::string> localizedName(const Application& app) override {
        return accessibility_.applicationName(app);
    }

    Element createApplicationElement(std::int32_t pid) override {
        return accessibility_.applicationElement(pid);
    }
    void setMessagingTimeout(const Element&, float seconds) override {
        accessibility_.setTimeout(seconds);
    }
    AttributeRead copyAttributeValue(const Element& element, std::string_view attribute) override {
        auto* object = dynamic_cast<const AccessibleElement*>(element.get());
        bool topLevel = object && object->topLevel();
        if (topLevel && attribute == "AXTitle") {
            const Framed* framed = knownFrame(*object);
            if (framed && framed->name) return {kAXErrorSuccess, windowTitle(*framed->name)};
            AttributeRead read = accessibility_.read(element, attribute);
            if (auto* name = std::get_if<std::string>(&read.value))
                *name = windowTitle(std::move(*name));
            return read;
        }
        if (windows().windowRelativeExtents())
            return placement_.place(element, attribute,
                                    [&] { return accessibility_.read(element, attribute); });
        if (topLevel && (attribute == "AXPosition" || attribute == "AXSize"))
            return frameAttribute(framedOnce(element, *object).frame, attribute);
        AttributeRead read = accessibility_.read(element, attribute);
        if (object && (attribute == "AXPosition" || attribute == "AXSize"))
            toScreen(read.value, scaleOf(*object));
        return read;
    }
    AXError isAttributeSettable(const Element& element, std::string_view attribute,
                                bool& settable) override {
        return accessibility_.isSettable(element, attribute, settable);
    }
    AXError setAttributeValue(const Element& element, std::string_view attribute,
                              const std::string& text) override {
        return accessibility_.setText(element, attribute, text);
    }
    bool equal(const Element& a, const Element& b) override { return accessibility_.equal(a, b); }
    void beginTreeScan(const Element& root) override { accessibility_.beginTreeScan(root); }
    void endTreeScan() override { accessibility_.endTreeScan(); }

    std::optional<std::vector<WindowListEntry>> copyWindowInfo(std::uint32_t options,
                                                               std::uint32_t) override {
        return windows().windowList((options & kCGWindowListOptionOnScreenOnly) != 0,
                                    (options & kCGWindowListExcludeDesktopElements) != 0);
    }
    Image createWindowImage(const Rect& screenBounds, std::uint32_t, std::uint32_t windowID,
                            std::uint32_t) override {
        std::optional<Pixels> pixels = windows().capture(windowID, screenBounds);
        if (!pixels) return nullptr;
        return std::make_shared<CapturedImage>(std::move(*pixels));
    }
    std::optional<std::vector<std::uint8_t>> copyImageData(const Image& image) override {
        auto* captured = dynamic_cast<const CapturedImage*>(image.get());
        if (!captured || captured->pixels.bgra.empty()) return std::nullopt;
        return captured->pixels.bgra;
    }
    std::vector<TextObservation> recognizeText(const Image& image) override {
        auto* captured = dynamic_cast<const CapturedImage*>(image.get());
        if (!captured) return {};
        return recognizer_.recognize(captured->pixels);
    }
    std::optional<EncodedImage> encodePng(const Image& image) override {
        auto* captured = dynamic_cast<const CapturedImage*>(image.get());
        if (!captured) return std::nullopt;
        return linux_backend::encodePng(captured->pixels);
    }

    std::optional<Point> pointerLocation() override { return windows().pointerLocation(); }
    Event createKeyboardEvent(std::uint16_t virtualKey, bool keyDown) override {
        return windows().createKeyboardEvent(virtualKey, keyDown);
    }
    Event createMouseEvent(MouseEventType type, Point location, MouseButton button) override {
        return windows().createMouseEvent(type, location, button);
    }
    Event createScrollWheelEvent(ScrollUnit unit, std::uint32_t wheelCount, std::int32_t wheel1,
                                 std::int32_t wheel2, std::int32_t wheel3) override {
        // The wheel goes to the window in front, as the core has just
        // validated.
        std::optional<WindowSystem::Focus> focus = windows().focus();
        int step = accessibility_.pixelsPerWheelStep(focus ? focus->pid.value_or(-1) : -1);
        return windows().createScrollWheelEvent(unit, wheelCount, wheel1, wheel2, wheel3, step);
    }
    void setFlags(EventObject& event, EventFlags flags) override {
        windows().setFlags(event, flags);
    }
    void setUnicodeString(EventObject& event, std::span<const char16_t> text) override {
        windows().setUnicodeString(event, text);
    }
    void setIntegerValueField(EventObject& event, EventField field, std::int64_t value) override {
        windows().setIntegerValueField(event, field, value);
    }
    void post(EventTap tap, EventObject& event) override { windows().post(tap, event); }
    std::optional<std::string> prepareText(std::string_view text) override {
        return windows().prepareText(text);
    }

    void sleep(double seconds) override {
        if (seconds > 0) std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    }

private:
    // The window system of this session, opened on first use.
    WindowSystem& windows() {
        if (!windows_) {
            windows_ = openWindowSystem([this](std::int64_t pid) -> std::unique_ptr<EditorText> {
                std::optional<ObjectRef> text = accessibility_.focusedText(pid);
                if (!text) return nullptr;
                return std::make_unique<AccessibleEditorText>(
                    accessibility_, std::move(*text), accessibility_.isBrowser(pid));
            });
            accessibility_.setWindowRelativePlacement(windows_->windowRelativeExtents());
        }
        return *windows_;
    }

    static constexpr int kFlagTimeoutMs = 1000;

    // A top-level's frame: the whole window, as the window list has it
    // (window_identity.h), from both sides read afresh; an error code when
    // there is none. The scale found with it becomes its application's. With
    // it, the name the top-level gave in the same reading.
    using Frame = std::variant<Rect, AXError>;
    struct Framed {
        Frame frame;
        std::optional<std::string> name;
    };
    Framed frame(const Element& element) {
        std::optional<Accessibility::TopLevel> top = accessibility_.topLevel(element);
        std::optional<ClientWindows> clients = windows().clientWindows();
        if (!top || !clients) return {kAXErrorCannotComplete, std::nullopt};
        TopLevelFacts facts;
        facts.extents = top->extents;
        facts.name = top->name.value_or("");
        facts.active = top->states && hasState(*top->states, ATSPI_STATE_ACTIVE);
        facts.pid = top->pid.value_or(-1);
        facts.relativeCoordinates = top->relativeCoordinates;
        std::optional<ScreenFrame> screen = accessibilityFrame(facts, *clients);
        if (!screen) return {kAXErrorNoValue, top->name};
        if (auto* object = dynamic_cast<const AccessibleElement*>(element.get()))
            scales_[object->ref().bus] = screen->scale;
        return {screen->frame, top->name};
    }
    // A top-level is framed once per identification of the foreground: its
    // position, its size, its title and the scan's frame are then all of
    // one reading, as they must be to describe one window.
    static std::string frameKey(const AccessibleElement& element) {
        return element.ref().bus + '\n' + element.ref().path;
    }
    const Framed* knownFrame(const AccessibleElement& element) const {
        auto known = framed_.find(frameKey(element));
        return known == framed_.end() ? nullptr : &known->second;
    }
    const Framed& framedOnce(const Element& element, const AccessibleElement& object) {
        if (const Framed* known = knownFrame(object)) return *known;
        return framed_[frameKey(object)] = frame(element);
    }
    // The scale of the element's application, as its window's frame last
    // found it: every request frames the foreground window before it reads
    // anything inside it. An application whose window was not framed is
    // taken as unscaled.
    double scaleOf(const AccessibleElement& element) const {
        auto known = scales_.find(element.ref().bus);
        return known == scales_.end() ? 1 : known->second;
    }
    static void toScreen(Value& value, double scale) {
        if (auto* point = std::get_if<Point>(&value))
            *point = Point{point->x * scale, point->y * scale};
        if (auto* size = std::get_if<Size>(&value))
            *size = Size{size->width * scale, size->height * scale};
    }
    static AttributeRead frameAttribute(const Frame& frame, std::string_view attribute) {
        const Rect* rect = std::get_if<Rect>(&frame);
        if (!rect) return {std::get<AXError>(frame), {}};
        if (attribute == "AXPosition") return {kAXErrorSuccess, Point{rect->x, rect->y}};
        return {kAXErrorSuccess, Size{rect->width, rect->height}};
    }

    // The accessibility side outlives the window system, whose typing
    // evidence reads the focused editor through it (also while the X
    // keyboard mapping is restored at the end).
    Accessibility accessibility_;
    WindowPlacement placement_;
    TextRecognizer recognizer_;
    std::unique_ptr<WindowSystem> windows_;
    // The sentences for what is missing, as last found.
    std::optional<std::string> windowsUnavailable_;
    std::string captureUnavailable_;
    // Joined before the process ends.
    std::thread flagTurner_;
    // The scale of each application whose window was framed, by bus name.
    std::map<std::string, double> scales_;
    // The top-levels framed in the current identification, by frameKey.
    std::map<std::string, Framed> framed_;
};

}  // namespace
}  // namespace linux_backend

Platform& systemPlatform() {
    static linux_backend::LinuxPlatform platform;
    return platform;
}

}  // namespace quorvel
