// Translation between Core Foundation values and the seam's neutral types.
//
// The core decides what an attribute or a window-list field means; this file
// only says what type the platform handed back, faithfully, so that the core's
// type tests see exactly what the accessibility API and the window server
// reported.
#pragma once

#include "platform/macos/backend.h"

#include <CoreFoundation/CoreFoundation.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/macos/cf_ref.h"

namespace quorvel::macos_backend {

// An attribute value (borrowed, may be null) as a seam value: text as UTF-8,
// a boolean, an integral number as a 64-bit integer and any other number as
// a double, an accessibility element, a point or size wrapped in an AXValue,
// an array made only of elements; anything else is `Other`, null is no value.
Value valueFrom(CFTypeRef value);

// The window server's list (borrowed, may be null) as seam entries; nullopt
// when it is not an array of dictionaries keyed by strings.
std::optional<std::vector<WindowListEntry>> windowListFrom(CFTypeRef list);

// UTF-8 text of a string. UTF-16 that is not well formed (an unpaired
// surrogate) has no UTF-8 form, so each such code unit becomes U+FFFD.
std::string utf8(CFStringRef text);

// A string made from UTF-8 text; null when the text is not valid UTF-8.
CFRef<CFStringRef> cfString(std::string_view utf8Text);

}  // namespace quorvel::macos_backend
