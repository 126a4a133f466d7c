// A backend that honestly reports no desktop: nothing is trusted, nothing can
// be captured and no application is in front. Every other question gets the
// platform's "cannot" answer.
#include "platform/platform.h"

namespace quorvel {
namespace {

class NoDesktop final : public Platform {
public:
    std::string name() const override { return "linux"; }
    std::string accessibilityPermissionMessage() const override {
        return "Start the AT-SPI accessibility bus in this desktop session, then retry.";
    }
    std::string screenCapturePermissionMessage() const override {
        return "Open an X display that this process can read, then retry.";
    }
    bool isProcessTrusted() override { return false; }
    bool preflightScreenCaptureAccess() override { return false; }
    Application frontmostApplication() override { return nullptr; }
    std::int32_t processIdentifier(const Application&) override { return -1; }
    std::optional<std::string> localizedName(const Application&) override { return std::nullopt; }
    Element createApplicationElement(std::int32_t) override { return nullptr; }
    void setMessagingTimeout(const Element&, float) override {}
    AttributeRead copyAttributeValue(const Element&, std::string_view) override {
        return {kAXErrorCannotComplete, {}};
    }
    AXError isAttributeSettable(const Element&, std::string_view, bool&) override {
        return kAXErrorCannotComplete;
    }
    AXError setAttributeValue(const Element&, std::string_view, const std::string&) override {
        return kAXErrorCannotComplete;
    }
    bool equal(const Element& a, const Element& b) override { return a && a == b; }
    std::optional<std::vector<WindowListEntry>> copyWindowInfo(std::uint32_t,
                                                               std::uint32_t) override {
        return std::nullopt;
    }
    Image createWindowImage(const Rect&, std::uint32_t, std::uint32_t, std::uint32_t) override {
        return nullptr;
    }
    std::optional<std::vector<std::uint8_t>> copyImageData(const Image&) override {
        return std::nullopt;
    }
    std::vector<TextObservation> recognizeText(const Image&) override { return {}; }
    std::optional<Point> pointerLocation() override { return std::nullopt; }
    Event createKeyboardEvent(std::uint16_t, bool) override { return nullptr; }
    Event createMouseEvent(MouseEventType, Point, MouseButton) override { return nullptr; }
    Event createScrollWheelEvent(ScrollUnit, std::uint32_t, std::int32_t, std::int32_t,
                                 std::int32_t) override {
        return nullptr;
    }
    void setFlags(EventObject&, EventFlags) override {}
    void setUnicodeString(EventObject&, std::span<const char16_t>) override {}
    void setIntegerValueField(EventObject&, EventField, std::int64_t) override {}
    void post(EventTap, EventObject&) override {}
    void sleep(double) override {}
};

}  // namespace

Platform& systemPlatform() {
    static NoDesktop platform;
    return platform;
}

}  // namespace quorvel
