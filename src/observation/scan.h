// The breadth-first walk of a window's accessibility tree into node records
// and the window's collected text.
#pragma once

#include <string>

#include "accessibility/window.h"
#include "bridge/json.h"

namespace quorvel {

inline constexpr size_t kMaxNameLength = 500;     // grapheme clusters
inline constexpr size_t kMaxTextLength = 60000;   // grapheme clusters

struct ScanResult {
    JsonArray nodes;
    std::string text;
};

ScanResult scan(Platform&, const Window&);

}  // namespace quorvel
