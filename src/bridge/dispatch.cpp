#include "bridge/dispatch.h"

#include <array>
#include <cmath>
#include <limits>
#include <string>

#include "accessibility/window.h"
#include "bridge/failure.h"
#include "bridge/scroll.h"
#include "input/input.h"
#include "observation/observe.h"

namespace quorvel {
namespace {

constexpr char kUnsupportedProtocol[] = "Unsupported native protocol.";
constexpr char kInvalidOperation[] = "Invalid native operation.";
constexpr char kUnsupportedAction[] = "Unsupported action.";
constexpr char kTextFieldsRequired[] = "Text, expected value and replace flag are required.";
constexpr char kUnsupportedKey[] = "Unsupported key.";
constexpr char kUnsupportedImage[] = "Unsupported image format. Use \"png\".";
constexpr double kTypeIntoPause = 0.1;

const Json* field(const JsonObject& object, const char* key) {
    auto it = object.find(key);
    return it == object.end() ? nullptr : &it->second;
}

const std::string* stringField(const JsonObject& object, const char* key) {
    const Json* v = field(object, key);
    return v && v->is_string() ? &v->get_ref<const std::string&>() : nullptr;
}

const JsonObject* objectField(const JsonObject& object, const char* key) {
    const Json* v = field(object, key);
    return v && v->is_object() ? &v->get_ref<const JsonObject&>() : nullptr;
}

// An integer field accepts any JSON number whose value is a whole number
// that fits a signed 64-bit integer (so 2.0 counts as 2, 2.5 does not).
std::optional<std::int64_t> integerField(const JsonObject& object, const char* key) {
    const Json* v = field(object, key);
    if (!v) return std::nullopt;
    if (v->is_number_integer() && !v->is_number_unsigned()) return v->get<std::int64_t>();
    if (v->is_number_unsigned()) {
        std::uint64_t u = v->get<std::uint64_t>();
        if (u <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
            return static_cast<std::int64_t>(u);
        return std::nullopt;
    }
    if (v->is_number_float()) {
        double d = v->get<double>();
        // -2^63 is exact as a double; 2^63 is the first value out of range.
        if (d == std::trunc(d) && d >= -9223372036854775808.0 && d < 9223372036854775808.0)
            return static_cast<std::int64_t>(d);
    }
    return std::nullopt;
}

double coordinateField(const JsonObject& object, const char* key) {
    const Json* v = field(object, key);
    if (v && v->is_number()) return v->get<double>();
    return std::numeric_limits<double>::quiet_NaN();
}

// Whether an observation that captures the window also returns its image:
// "image": "png", the one format there is. Any other value is refused before
// anything is captured. "context" captures nothing and ignores the key, as
// it ignores every key it does not read.
bool imageRequested(const JsonObject& request, const std::string& operation) {
    if (operation == "context") return false;
    const Json* format = field(request, "image");
    if (!format) return false;
    if (format->is_string() && format->get_ref<const std::string&>() == "png") return true;
    fail(kUnsupportedImage);
}

JsonObject capabilities(Platform& platform) {
    // The accessibility question is asked before the screen-capture one.
    bool accessibility = platform.isProcessTrusted();
    bool screenCapture = platform.preflightScreenCaptureAccess();
    return JsonObject{
        {"version", kProtocolVersion},
        {"platform", platform.name()},
        {"accessibility", accessibility},
        {"screen_capture", screenCapture},
        {"clipboard_free_input", true},
    };
}

JsonObject actResult() {
    return JsonObject{{"input_dispatched", true}, {"server_save_verified", false}};
}

void act(Platform& platform, const JsonObject& request) {
    const JsonObject* scope = objectField(request, "scope");
    if (!scope) fail(kInvalidOperation);
    const JsonObject* action = objectField(request, "action");
    if (!action) fail(kInvalidOperation);
    const std::string* kind = stringField(*action, "kind");
    if (!kind) fail(kInvalidOperation);

    // The scope is checked before the kind, so an unknown kind is reported
    // only while the agent's view of the desktop is still current.
    validate(platform, *scope);

    if (*kind == "click") {
        click(platform, coordinateField(*action, "x"), coordinateField(*action, "y"),
              integerField(*action, "count").value_or(1), *scope);
    } else if (*kind == "type" || *kind == "type_into") {
        const std::string* value = stringField(*action, "value");
        const Json* replace = field(*action, "replace");
        const std::string* expected = stringField(*action, "expected_value");
        if (!value || !replace || !replace->is_boolean() || !expected) fail(kTextFieldsRequired);
        if (*kind == "type_into") {
            click(platform, coordinateField(*action, "x"), coordinateField(*action, "y"), 1,
                  *scope);
            platform.sleep(kTypeIntoPause);
        }
        type(platform, *value, replace->get<bool>(), *expected, *scope);
    } else if (*kind == "key") {
        const std::string* name = stringField(*action, "value");
        std::optional<KeyChord> chord = name ? keyNamed(*name) : std::nullopt;
        if (!chord) fail(kUnsupportedKey);
        key(platform, chord->code, chord->flags);
    } else if (*kind == "scroll") {
        scroll(platform, integerField(*action, "amount").value_or(0), *scope);
    } else {
        fail(kUnsupportedAction);
    }
}

}  // namespace

std::optional<KeyChord> keyNamed(std::string_view name) {
    struct Entry {
        std::string_view name;
        KeyChord chord;
    };
    static constexpr std::array<Entry, 4> kKeys{{
        {"escape", {kVirtualKeyEscape, 0}},
        {"enter", {kVirtualKeyReturn, 0}},
        {"tab", {kVirtualKeyTab, 0}},
        {"navigate_back", {kVirtualKeyLeftBracket, kCGEventFlagMaskCommand}},
    }};
    for (const Entry& e : kKeys)
        if (e.name == name) return e.chord;
    return std::nullopt;
}

JsonObject dispatch(Platform& platform, const JsonObject& request) {
    std::optional<std::int64_t> version = integerField(request, "version");
    if (!version || *version != kProtocolVersion) fail(kUnsupportedProtocol);
    const std::string* operation = stringField(request, "operation");
    if (!operation) fail(kUnsupportedProtocol);

    if (*operation == "capabilities") return capabilities(platform);
    for (const char* name : {"context", "observe", "capture"})
        if (*operation == name)
            return observe(platform, *operation, imageRequested(request, *operation));
    if (*operation != "act") fail(kInvalidOperation);
    act(platform, request);
    return actResult();
}

}  // namespace quorvel
