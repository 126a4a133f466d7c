// The macOS backend: each seam operation is answered by the one platform call
// it stands for, with the platform's own constants.
#include "platform/macos/backend.h"  // first: see there

#import <AppKit/AppKit.h>

#include "platform/macos/cf_value.h"

namespace quorvel {
namespace macos_backend {
namespace {

class MacApplication final : public ApplicationObject {
public:
    explicit MacApplication(NSRunningApplication* application) : application_(application) {}
    NSRunningApplication* get() const { return application_; }

private:
    NSRunningApplication* application_;  // strong
};

NSRunningApplication* runningApplication(const Application& application) {
    auto* mac = dynamic_cast<const MacApplication*>(application.get());
    return mac ? mac->get() : nil;
}

Event wrapEvent(CGEventRef created) {
    if (!created) return nullptr;
    return std::make_unique<MacEvent>(CFRef<CGEventRef>::adopt(created));
}

class MacPlatform final : public Platform {
public:
    std::string name() const override { return "macos"; }
    std::string accessibilityPermissionMessage() const override {
        return "Grant Accessibility access to Quorvel in macOS System Settings, then retry.";
    }
    std::string screenCapturePermissionMessage() const override {
        return "Grant Screen Recording access to Quorvel in macOS System Settings, then retry.";
    }

    bool isProcessTrusted() override { return AXIsProcessTrusted(); }
    bool preflightScreenCaptureAccess() override { return CGPreflightScreenCaptureAccess(); }

    Application frontmostApplication() override {
        @autoreleasepool {
            // The workspace keeps its answer until the main run loop turns,
            // and this process never runs it. One pass that does not wait
            // takes in whatever change of the active application has arrived
            // since the last read, so that a second identification within
            // the same request sees the desktop as it is now.
            CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0, false);
            NSRunningApplication* application = [[NSWorkspace sharedWorkspace] frontmostApplication];
            if (!application) return nullptr;
            return std::make_shared<MacApplication>(application);
        }
    }
    std::int32_t processIdentifier(const Application& application) override {
        NSRunningApplication* running = runningApplication(application);
        return running ? running.processIdentifier : -1;
    }
    std::optional<std::string> localizedName(const Application& application) override {
        @autoreleasepool {
            NSString* name = runningApplication(application).localizedName;
            if (!name) return std::nullopt;
            return utf8((__bridge CFStringRef)name);
        }
    }

    Element createApplicationElement(std::int32_t pid) override {
        return wrapElement(CFRef<AXUIElementRef>::adopt(AXUIElementCreateApplication(pid)));
    }
    void setMessagingTimeout(const Element& element, float seconds) override {
        if (AXUIElementRef ref = axElement(element)) AXUIElementSetMessagingTimeout(ref, seconds);
    }
    AttributeRead copyAttributeValue(const Element& element, std::string_view attribute) override {
        AXUIElementRef ref = axElement(element);
        CFRef<CFStringRef> name = cfString(attribute);
        if (!ref || !name) return {::kAXErrorIllegalArgument, {}};
        CFRef<CFTypeRef> value;
        const ::AXError code = AXUIElementCopyAttributeValue(ref, name.get(), value.out());
        // The value is translated whatever the code says (the API may hand
        // one back with a failure) and released when `value` goes.
        return {code, valueFrom(value.get())};
    }
    quorvel::AXError isAttributeSettable(const Element& element, std::string_view attribute,
                                         bool& settable) override {
        settable = false;
        AXUIElementRef ref = axElement(element);
        CFRef<CFStringRef> name = cfString(attribute);
        if (!ref || !name) return ::kAXErrorIllegalArgument;
        Boolean flag = false;
        const ::AXError code = AXUIElementIsAttributeSettable(ref, name.get(), &flag);
        settable = flag;
        return code;
    }
    quorvel::AXError setAttributeValue(const Element& element, std::string_view attribute,
                                       const std::string& text) override {
        AXUIElementRef ref = axElement(element);
        CFRef<CFStringRef> name = cfString(attribute);
        CFRef<CFStringRef> value = cfString(text);
        if (!ref || !name || !value) return ::kAXErrorIllegalArgument;
        return AXUIElementSetAttributeValue(ref, name.get(), value.get());
    }
    // Chromium-based browsers and Electron applications expose their web
    // content only to a client that sets "AXManualAccessibility" on their
    // application element. It is set on the application of the window about
    // to be scanned, the frontmost one, before anything of it is read; any
    // other application answers that it has no such attribute.
    void beginTreeScan(const Element& root) override {
        AXUIElementRef window = axElement(root);
        pid_t pid = 0;
        if (!window || AXUIElementGetPid(window, &pid) != ::kAXErrorSuccess) return;
        CFRef<AXUIElementRef> application =
            CFRef<AXUIElementRef>::adopt(AXUIElementCreateApplication(pid));
        if (application)
            AXUIElementSetAttributeValue(application.get(), CFSTR("AXManualAccessibility"),
                                         kCFBooleanTrue);
    }
    bool equal(const Element& a, const Element& b) override {
        AXUIElementRef left = axElement(a);
        AXUIElementRef right = axElement(b);
        return left && right && CFEqual(left, right);
    }

    std::optional<std::vector<WindowListEntry>> copyWindowInfo(
        std::uint32_t options, std::uint32_t relativeToWindow) override {
        CFRef<CFArrayRef> list =
            CFRef<CFArrayRef>::adopt(CGWindowListCopyWindowInfo(options, relativeToWindow));
        return windowListFrom(list.get());
    }
    Image createWindowImage(const Rect& screenBounds, std::uint32_t listOption,
                            std::uint32_t windowID, std::uint32_t imageOption) override {
        CFRef<CGImageRef> image = macos_backend::createWindowImage(
            CGRectMake(screenBounds.x, screenBounds.y, screenBounds.width, screenBounds.height),
            listOption, windowID, imageOption);
        if (!image) return nullptr;
        return std::make_shared<MacImage>(std::move(image));
    }
    std::optional<std::vector<std::uint8_t>> copyImageData(const Image& image) override {
        CGImageRef ref = cgImage(image);
        if (!ref) return std::nullopt;
        return macos_backend::copyImageData(ref);
    }
    std::vector<TextObservation> recognizeText(const Image& image) override {
        CGImageRef ref = cgImage(image);
        if (!ref) return {};
        return macos_backend::recognizeText(ref);
    }
    std::optional<EncodedImage> encodePng(const Image& image) override {
        CGImageRef ref = cgImage(image);
        if (!ref) return std::nullopt;
        return macos_backend::encodePng(ref);
    }

    std::optional<Point> pointerLocation() override {
        CFRef<CGEventRef> event = CFRef<CGEventRef>::adopt(CGEventCreate(nullptr));
        if (!event) return std::nullopt;
        const CGPoint location = CGEventGetLocation(event.get());
        return Point{location.x, location.y};
    }
    Event createKeyboardEvent(std::uint16_t virtualKey, bool keyDown) override {
        return wrapEvent(CGEventCreateKeyboardEvent(nullptr, virtualKey, keyDown));
    }
    Event createMouseEvent(MouseEventType type, Point location, MouseButton button) override {
        CGEventType cgType;
        switch (type) {
            case MouseEventType::LeftMouseDown: cgType = kCGEventLeftMouseDown; break;
            case MouseEventType::LeftMouseUp: cgType = kCGEventLeftMouseUp; break;
            default: return nullptr;
        }
        CGMouseButton cgButton;
        switch (button) {
            case MouseButton::Left: cgButton = kCGMouseButtonLeft; break;
            default: return nullptr;
        }
        return wrapEvent(
            CGEventCreateMouseEvent(nullptr, cgType, CGPointMake(location.x, location.y), cgButton));
    }
    Event createScrollWheelEvent(ScrollUnit unit, std::uint32_t wheelCount, std::int32_t wheel1,
                                 std::int32_t wheel2, std::int32_t wheel3) override {
        CGScrollEventUnit cgUnit;
        switch (unit) {
            case ScrollUnit::Pixel: cgUnit = kCGScrollEventUnitPixel; break;
            case ScrollUnit::Line: cgUnit = kCGScrollEventUnitLine; break;
            default: return nullptr;
        }
        return wrapEvent(
            CGEventCreateScrollWheelEvent2(nullptr, cgUnit, wheelCount, wheel1, wheel2, wheel3));
    }
    void setFlags(EventObject& event, EventFlags flags) override {
        if (CGEventRef ref = cgEvent(event)) CGEventSetFlags(ref, static_cast<CGEventFlags>(flags));
    }
    void setUnicodeString(EventObject& event, std::span<const char16_t> text) override {
        CGEventRef ref = cgEvent(event);
        if (!ref) return;
        const std::vector<UniChar> units(text.begin(), text.end());
        CGEventKeyboardSetUnicodeString(ref, units.size(), units.data());
    }
    void setIntegerValueField(EventObject& event, EventField field, std::int64_t value) override {
        CGEventRef ref = cgEvent(event);
        if (!ref) return;
        switch (field) {
            case EventField::MouseClickState:
                CGEventSetIntegerValueField(ref, kCGMouseEventClickState, value);
                break;
            default:
                break;
        }
    }
    void post(EventTap tap, EventObject& event) override {
        CGEventRef ref = cgEvent(event);
        if (!ref) return;
        switch (tap) {
            case EventTap::HID: CGEventPost(kCGHIDEventTap, ref); break;
            default: break;
        }
    }

    void sleep(double seconds) override { [NSThread sleepForTimeInterval:seconds]; }
};

}  // namespace

AXUIElementRef axElement(const Element& element) {
    auto* mac = dynamic_cast<const MacElement*>(element.get());
    return mac ? mac->get() : nullptr;
}

CGImageRef cgImage(const Image& image) {
    auto* mac = dynamic_cast<const MacImage*>(image.get());
    return mac ? mac->get() : nullptr;
}

CGEventRef cgEvent(EventObject& event) {
    auto* mac = dynamic_cast<MacEvent*>(&event);
    return mac ? mac->get() : nullptr;
}

Element wrapElement(CFRef<AXUIElementRef> element) {
    if (!element) return nullptr;
    return std::make_shared<MacElement>(std::move(element));
}

}  // namespace macos_backend

Platform& systemPlatform() {
    static macos_backend::MacPlatform platform;
    return platform;
}

}  // namespace quorvel
