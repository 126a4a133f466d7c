// The window's image: its SHA-256 fingerprint and, when asked, the text
// recognised in it, mapped into screen points.
#pragma once

#include <optional>
#include <string>

#include "accessibility/window.h"
#include "bridge/json.h"

namespace quorvel {

struct CaptureResult {
    std::string hash;   // 64 lower-case hex digits
    JsonArray blocks;   // OCR block records, in recogniser order
    // When asked for: the same image as PNG, {"media_type", "data" (base64),
    // "width", "height"}.
    std::optional<JsonObject> image;
};

CaptureResult capture(Platform&, const Window&, bool ocr, bool image = false);

// A recognised box (normalised, lower-left origin) in screen points.
Rect screenRect(const Rect& box, const Rect& frame);

}  // namespace quorvel
