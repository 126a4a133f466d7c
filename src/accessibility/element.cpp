#include "accessibility/element.h"

#include <cmath>

#include "bridge/failure.h"
#include "unicode/unicode.h"

namespace quorvel {

Value attr(Platform& platform, const Element& el, std::string_view name) {
    AttributeRead read = platform.copyAttributeValue(el, name);
    if (read.code != kAXErrorSuccess) return {};  // a value handed back is dropped here
    return std::move(read.value);
}

std::string string(Platform& platform, const Element& el, std::string_view name) {
    Value v = attr(platform, el, name);
    if (auto* text = std::get_if<std::string>(&v)) return std::move(*text);
    return {};
}

Element element(Platform& platform, const Element& el, std::string_view name) {
    Value v = attr(platform, el, name);
    if (auto* e = std::get_if<Element>(&v)) return std::move(*e);
    return nullptr;
}

std::optional<Rect> rect(Platform& platform, const Element& el) {
    Value position = attr(platform, el, "AXPosition");
    if (std::holds_alternative<std::monostate>(position)) return std::nullopt;
    Value size = attr(platform, el, "AXSize");
    if (std::holds_alternative<std::monostate>(size)) return std::nullopt;
    auto* p = std::get_if<Point>(&position);
    auto* s = std::get_if<Size>(&size);
    if (!p || !s) return std::nullopt;
    return Rect{p->x, p->y, s->width, s->height};
}

double minX(const Rect& r) { return r.width < 0 ? r.x + r.width : r.x; }
double minY(const Rect& r) { return r.height < 0 ? r.y + r.height : r.y; }
double width(const Rect& r) { return std::fabs(r.width); }
double height(const Rect& r) { return std::fabs(r.height); }
double maxX(const Rect& r) { return minX(r) + width(r); }
double maxY(const Rect& r) { return minY(r) + height(r); }

bool containsPoint(const Rect& r, Point p) {
    return p.x >= minX(r) && p.x < maxX(r) && p.y >= minY(r) && p.y < maxY(r);
}

bool intersects(const Rect& a, const Rect& b) {
    if (width(a) == 0 || height(a) == 0 || width(b) == 0 || height(b) == 0) return false;
    return minX(a) < maxX(b) && minX(b) < maxX(a) && minY(a) < maxY(b) && minY(b) < maxY(a);
}

JsonObject bounds(const Rect& r) {
    // Built in place: every node record carries one, and an initializer list
    // would copy each entry again.
    JsonObject b;
    b.emplace("x", minX(r));
    b.emplace("y", minY(r));
    b.emplace("width", width(r));
    b.emplace("height", height(r));
    return b;
}

bool secure(Platform& platform, const Element& el) {
    return string(platform, el, "AXSubrole") == "AXSecureTextField";
}

std::string editorValue(Platform& platform, const Element& el) {
    if (secure(platform, el)) return {};
    std::string text = string(platform, el, "AXValue");
    if (utf16Length(text) > kCompleteReadLimit)
        fail("Native editor exceeds the complete-read limit. Use a scoped browser document "
             "reader before editing.");
    return text;
}

bool editable(Platform& platform, const Element& el) {
    if (secure(platform, el)) return false;
    std::string role = string(platform, el, "AXRole");
    if (role != "AXTextField" && role != "AXTextArea") return false;
    Value enabled = attr(platform, el, "AXEnabled");
    if (auto* b = std::get_if<bool>(&enabled); b && !*b) return false;
    Value editableFlag = attr(platform, el, "AXEditable");
    if (auto* b = std::get_if<bool>(&editableFlag)) return *b;
    return true;
}

}  // namespace quorvel
