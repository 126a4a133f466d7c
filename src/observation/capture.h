// The window's image: its SHA-256 fingerprint and, when asked, the text
// recognised in it, mapped into screen points.
#pragma once

#include <string>

#include "accessibility/window.h"
#include "bridge/json.h"

namespace quorvel {

struct CaptureResult {
    std::string hash;   // 64 lower-case hex digits
    JsonArray blocks;   // OCR block records, in recogniser order
};

CaptureResult capture(Platform&, const Window&, bool ocr);

// A recognised box (normalised, lower-left origin) in screen points.
Rect screenRect(const Rect& box, const Rect& frame);

}  // namespace quorvel
