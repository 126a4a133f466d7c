#include "platform/macos/cf_value.h"

#include <algorithm>

#include "unicode/unicode.h"

namespace quorvel::macos_backend {
namespace {

Value numberFrom(CFNumberRef number) {
    if (!CFNumberIsFloatType(number)) {
        std::int64_t integral = 0;
        // Refused only when the value does not fit in 64 bits; it then goes
        // out as a double like any other number the core cannot take as an
        // integer.
        if (CFNumberGetValue(number, kCFNumberSInt64Type, &integral)) return integral;
    }
    double real = 0;
    CFNumberGetValue(number, kCFNumberDoubleType, &real);
    return real;
}

Value axValueFrom(AXValueRef value) {
    switch (AXValueGetType(value)) {
        case kAXValueTypeCGPoint: {
            CGPoint point;
            if (AXValueGetValue(value, kAXValueTypeCGPoint, &point)) return Point{point.x, point.y};
            break;
        }
        case kAXValueTypeCGSize: {
            CGSize size;
            if (AXValueGetValue(value, kAXValueTypeCGSize, &size))
                return Size{size.width, size.height};
            break;
        }
        default:
            break;
    }
    return Other{};
}

// Only an array made entirely of elements is a list of elements (an empty one
// included); anything mixed is a type the core never accepts.
Value arrayFrom(CFArrayRef array) {
    const CFIndex count = CFArrayGetCount(array);
    ElementList elements;
    elements.reserve(static_cast<size_t>(count));
    for (CFIndex i = 0; i < count; ++i) {
        CFTypeRef item = CFArrayGetValueAtIndex(array, i);
        if (!item || CFGetTypeID(item) != AXUIElementGetTypeID()) return Other{};
        // The array only lends its items; each handle keeps its own reference.
        elements.push_back(
            wrapElement(CFRef<AXUIElementRef>::retain(static_cast<AXUIElementRef>(item))));
    }
    return elements;
}

bool isStringKeyedDictionary(CFTypeRef value) {
    if (!value || CFGetTypeID(value) != CFDictionaryGetTypeID()) return false;
    auto dictionary = static_cast<CFDictionaryRef>(value);
    std::vector<const void*> keys(static_cast<size_t>(CFDictionaryGetCount(dictionary)));
    CFDictionaryGetKeysAndValues(dictionary, keys.data(), nullptr);
    return std::all_of(keys.begin(), keys.end(), [](const void* key) {
        return key && CFGetTypeID(key) == CFStringGetTypeID();
    });
}

}  // namespace

Value valueFrom(CFTypeRef value) {
    if (!value) return std::monostate{};
    const CFTypeID type = CFGetTypeID(value);
    if (type == CFStringGetTypeID()) return utf8(static_cast<CFStringRef>(value));
    if (type == CFBooleanGetTypeID()) return CFBooleanGetValue(static_cast<CFBooleanRef>(value)) != 0;
    if (type == CFNumberGetTypeID()) return numberFrom(static_cast<CFNumberRef>(value));
    if (type == AXUIElementGetTypeID())
        return wrapElement(CFRef<AXUIElementRef>::retain(static_cast<AXUIElementRef>(value)));
    if (type == AXValueGetTypeID()) return axValueFrom(static_cast<AXValueRef>(value));
    if (type == CFArrayGetTypeID()) return arrayFrom(static_cast<CFArrayRef>(value));
    return Other{};
}

std::optional<std::vector<WindowListEntry>> windowListFrom(CFTypeRef list) {
    if (!list || CFGetTypeID(list) != CFArrayGetTypeID()) return std::nullopt;
    auto array = static_cast<CFArrayRef>(list);
    const CFIndex count = CFArrayGetCount(array);
    std::vector<WindowListEntry> entries;
    entries.reserve(static_cast<size_t>(count));
    for (CFIndex i = 0; i < count; ++i) {
        CFTypeRef item = CFArrayGetValueAtIndex(array, i);
        // One malformed entry makes the whole answer unusable rather than
        // shorter: a list with a hole in it could make a duplicate window
        // look unique.
        if (!isStringKeyedDictionary(item)) return std::nullopt;
        auto entry = static_cast<CFDictionaryRef>(item);

        WindowListEntry& out = entries.emplace_back();
        out.ownerPID = valueFrom(CFDictionaryGetValue(entry, kCGWindowOwnerPID));
        out.layer = valueFrom(CFDictionaryGetValue(entry, kCGWindowLayer));
        out.number = valueFrom(CFDictionaryGetValue(entry, kCGWindowNumber));
        CFTypeRef bounds = CFDictionaryGetValue(entry, kCGWindowBounds);
        CGRect rect;
        if (isStringKeyedDictionary(bounds) &&
            CGRectMakeWithDictionaryRepresentation(static_cast<CFDictionaryRef>(bounds), &rect)) {
            out.bounds = Rect{rect.origin.x, rect.origin.y, rect.size.width, rect.size.height};
        }
    }
    return entries;
}

std::string utf8(CFStringRef text) {
    const CFIndex length = CFStringGetLength(text);
    std::u16string units(static_cast<size_t>(length), u'\0');
    CFStringGetCharacters(text, CFRangeMake(0, length), reinterpret_cast<UniChar*>(units.data()));
    return quorvel::utf8(scalars(units));
}

CFRef<CFStringRef> cfString(std::string_view utf8Text) {
    return CFRef<CFStringRef>::adopt(CFStringCreateWithBytes(
        kCFAllocatorDefault, reinterpret_cast<const UInt8*>(utf8Text.data()),
        static_cast<CFIndex>(utf8Text.size()), kCFStringEncodingUTF8, false));
}

}  // namespace quorvel::macos_backend
