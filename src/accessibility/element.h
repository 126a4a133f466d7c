// Typed reads of accessibility attributes with fixed fallbacks. Callers never
// see a platform result code: an attribute that cannot be read behaves like
// one that is absent. Only `editorValue` throws.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "bridge/json.h"
#include "platform/platform.h"

namespace quorvel {

// Editor text longer than this, in UTF-16 code units, is refused rather than
// read in part.
inline constexpr size_t kCompleteReadLimit = 60000;

// The raw value, or none (std::monostate) when the read failed.
Value attr(Platform&, const Element&, std::string_view name);
// The attribute as text; "" when absent, unreadable or not text.
std::string string(Platform&, const Element&, std::string_view name);
// The attribute as an element; null when absent, unreadable or not one.
Element element(Platform&, const Element&, std::string_view name);
// The frame from "AXPosition" and "AXSize", exactly as read.
std::optional<Rect> rect(Platform&, const Element&);
// The JSON form of a rectangle, standardised.
JsonObject bounds(const Rect&);
// Whether the element is a password field.
bool secure(Platform&, const Element&);
// The editor's whole text; "" for a password field, which is never read.
std::string editorValue(Platform&, const Element&);
// Whether the element is an enabled, writable, non-password text editor.
bool editable(Platform&, const Element&);

// Rectangle rules of the platform's geometry functions.
double minX(const Rect&);
double minY(const Rect&);
double maxX(const Rect&);
double maxY(const Rect&);
double width(const Rect&);
double height(const Rect&);
// Minimum edges inside, maximum edges outside.
bool containsPoint(const Rect&, Point);
// Empty rectangles intersect nothing; touching edges do not intersect.
bool intersects(const Rect&, const Rect&);

}  // namespace quorvel
