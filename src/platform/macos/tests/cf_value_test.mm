// The translation of platform values into seam values, on real Core
// Foundation and accessibility objects.
#include "platform/macos/cf_value.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <vector>

namespace quorvel::macos_backend {
namespace {

template <typename Ref>
CFRef<Ref> own(Ref ref) {
    return CFRef<Ref>::adopt(ref);
}

CFRef<CFStringRef> utf16(std::vector<UniChar> units) {
    return own(CFStringCreateWithCharacters(nullptr, units.data(), static_cast<CFIndex>(units.size())));
}

CFRef<CFNumberRef> number(CFNumberType type, const void* value) {
    return own(CFNumberCreate(nullptr, type, value));
}

CFRef<CFArrayRef> array(std::vector<CFTypeRef> items) {
    return own(CFArrayCreate(nullptr, items.data(), static_cast<CFIndex>(items.size()),
                             &kCFTypeArrayCallBacks));
}

CFRef<CFDictionaryRef> dictionary(std::vector<CFTypeRef> keys, std::vector<CFTypeRef> values) {
    return own(CFDictionaryCreate(nullptr, keys.data(), values.data(),
                                  static_cast<CFIndex>(keys.size()), &kCFTypeDictionaryKeyCallBacks,
                                  &kCFTypeDictionaryValueCallBacks));
}

// Whether `value` holds the alternative of `expected` with an equal value.
template <typename T>
::testing::AssertionResult Holds(const Value& value, const T& expected) {
    const T* held = std::get_if<T>(&value);
    if (!held) return ::testing::AssertionFailure() << "holds alternative #" << value.index();
    if (!(*held == expected)) return ::testing::AssertionFailure() << "holds another value";
    return ::testing::AssertionSuccess();
}

struct TextCase {
    const char* name;
    std::vector<UniChar> units;
    std::string utf8;
};

class Utf8Text : public ::testing::TestWithParam<TextCase> {};

TEST_P(Utf8Text, TranscodesWithReplacementForUnpairedSurrogates) {
    const TextCase& c = GetParam();
    Value v = valueFrom(utf16(c.units).get());
    ASSERT_TRUE(std::holds_alternative<std::string>(v));
    EXPECT_EQ(std::get<std::string>(v), c.utf8);
}

INSTANTIATE_TEST_SUITE_P(
    Strings, Utf8Text,
    ::testing::Values(
        TextCase{"empty", {}, ""},
        TextCase{"ascii", {'A', 'X', 'B', 'u', 't', 't', 'o', 'n'}, "AXButton"},
        TextCase{"two_and_three_byte_forms", {0x00E9, 0x4E2D}, "\xC3\xA9\xE4\xB8\xAD"},
        TextCase{"surrogate_pair", {0xD83D, 0xDE00}, "\xF0\x9F\x98\x80"},
        TextCase{"embedded_nul", {'a', 0, 'b'}, std::string("a\0b", 3)},
        TextCase{"lone_high_surrogate", {'a', 0xD800, 'b'}, "a\xEF\xBF\xBD" "b"},
        TextCase{"lone_high_surrogate_at_end", {'a', 0xD800}, "a\xEF\xBF\xBD"},
        TextCase{"lone_low_surrogate", {0xDC00, 'z'}, "\xEF\xBF\xBDz"},
        TextCase{"pair_in_wrong_order", {0xDC00, 0xD800}, "\xEF\xBF\xBD\xEF\xBF\xBD"}),
    [](const ::testing::TestParamInfo<TextCase>& info) { return info.param.name; });

TEST(CfString, RoundTripsUtf8AndRefusesIllFormedUtf8) {
    CFRef<CFStringRef> s = cfString("caf\xC3\xA9 \xF0\x9F\x98\x80");
    ASSERT_TRUE(s);
    EXPECT_EQ(CFStringGetLength(s.get()), 7);  // c a f é space + surrogate pair
    EXPECT_EQ(utf8(s.get()), "caf\xC3\xA9 \xF0\x9F\x98\x80");
    EXPECT_FALSE(cfString("\xFF"));
}

TEST(ValueFrom, BooleansStayBooleans) {
    EXPECT_TRUE(Holds(valueFrom(kCFBooleanTrue), true));
    EXPECT_TRUE(Holds(valueFrom(kCFBooleanFalse), false));
}

TEST(ValueFrom, IntegralNumbersAreIntegersAndFloatTypesAreDoubles) {
    const SInt32 small = -42;
    const SInt64 large = INT64_MAX;
    const Float64 integralDouble = 2.0;
    const Float32 half = 0.5f;
    const CGFloat one = 1.0;
    EXPECT_TRUE(Holds(valueFrom(number(kCFNumberSInt32Type, &small).get()), std::int64_t{-42}));
    EXPECT_TRUE(Holds(valueFrom(number(kCFNumberSInt64Type, &large).get()), std::int64_t{INT64_MAX}));
    // A float type stays a double even when its value is whole.
    EXPECT_TRUE(Holds(valueFrom(number(kCFNumberFloat64Type, &integralDouble).get()), 2.0));
    EXPECT_TRUE(Holds(valueFrom(number(kCFNumberFloat32Type, &half).get()), 0.5));
    EXPECT_TRUE(Holds(valueFrom(number(kCFNumberCGFloatType, &one).get()), 1.0));
}

TEST(ValueFrom, PointsAndSizesUnpackOtherAxValuesDoNot) {
    const CGPoint point{12.5, -3};
    const CGSize size{640, 480};
    const CGRect rect{{1, 2}, {3, 4}};
    const CFRange range{5, 6};
    Value p = valueFrom(own(AXValueCreate(kAXValueTypeCGPoint, &point)).get());
    ASSERT_TRUE(std::holds_alternative<Point>(p));
    EXPECT_EQ(std::get<Point>(p).x, 12.5);
    EXPECT_EQ(std::get<Point>(p).y, -3);
    Value s = valueFrom(own(AXValueCreate(kAXValueTypeCGSize, &size)).get());
    ASSERT_TRUE(std::holds_alternative<Size>(s));
    EXPECT_EQ(std::get<Size>(s).width, 640);
    EXPECT_EQ(std::get<Size>(s).height, 480);
    EXPECT_TRUE(Holds(valueFrom(own(AXValueCreate(kAXValueTypeCGRect, &rect)).get()), Other{}));
    EXPECT_TRUE(Holds(valueFrom(own(AXValueCreate(kAXValueTypeCFRange, &range)).get()), Other{}));
}

TEST(ValueFrom, NullIsNoValueAndUnknownTypesAreOther) {
    EXPECT_TRUE(Holds(valueFrom(nullptr), std::monostate{}));
    EXPECT_TRUE(Holds(valueFrom(dictionary({}, {}).get()), Other{}));
    const UInt8 byte = 1;
    EXPECT_TRUE(Holds(valueFrom(own(CFDataCreate(nullptr, &byte, 1)).get()), Other{}));
}

TEST(ValueFrom, ElementsAndArraysOfElements) {
    CFRef<AXUIElementRef> self = own(AXUIElementCreateApplication(getpid()));
    CFRef<AXUIElementRef> other = own(AXUIElementCreateApplication(1));

    Value single = valueFrom(self.get());
    ASSERT_TRUE(std::holds_alternative<Element>(single));
    EXPECT_EQ(axElement(std::get<Element>(single)), self.get());

    Value list = valueFrom(array({self.get(), other.get()}).get());
    ASSERT_TRUE(std::holds_alternative<ElementList>(list));
    const ElementList& elements = std::get<ElementList>(list);
    ASSERT_EQ(elements.size(), 2u);
    EXPECT_EQ(axElement(elements[0]), self.get());
    EXPECT_EQ(axElement(elements[1]), other.get());

    EXPECT_TRUE(Holds(valueFrom(array({}).get()), ElementList{}));
    EXPECT_TRUE(Holds(valueFrom(array({self.get(), CFSTR("AXButton")}).get()), Other{}));
    EXPECT_TRUE(Holds(valueFrom(array({CFSTR("a"), CFSTR("b")}).get()), Other{}));
}

TEST(ValueFrom, ElementHandlesOwnTheirReference) {
    CFRef<AXUIElementRef> element = own(AXUIElementCreateApplication(getpid()));
    const CFIndex before = CFGetRetainCount(element.get());
    {
        Value list = valueFrom(array({element.get()}).get());
        // The array is gone; the handle alone keeps one more reference.
        EXPECT_EQ(CFGetRetainCount(element.get()), before + 1);
    }
    EXPECT_EQ(CFGetRetainCount(element.get()), before);
}

// One window-list entry with the window server's keys.
CFRef<CFDictionaryRef> entry(CFTypeRef pid, CFTypeRef layer, CFTypeRef number, CFTypeRef bounds) {
    std::vector<CFTypeRef> keys, values;
    auto add = [&](CFStringRef key, CFTypeRef value) {
        if (!value) return;
        keys.push_back(key);
        values.push_back(value);
    };
    add(kCGWindowOwnerPID, pid);
    add(kCGWindowLayer, layer);
    add(kCGWindowNumber, number);
    add(kCGWindowBounds, bounds);
    add(kCGWindowName, CFSTR("ignored"));
    return dictionary(keys, values);
}

TEST(WindowListFrom, TranslatesEachFieldAsGiven) {
    const SInt32 pid = 321, layer = 0, windowNumber = 77;
    CFRef<CFNumberRef> pidNumber = number(kCFNumberSInt32Type, &pid);
    CFRef<CFNumberRef> layerNumber = number(kCFNumberSInt32Type, &layer);
    CFRef<CFNumberRef> windowID = number(kCFNumberSInt32Type, &windowNumber);
    CFRef<CFDictionaryRef> bounds = own(CGRectCreateDictionaryRepresentation(CGRectMake(10, 20.5, 300, 40)));
    CFRef<CFDictionaryRef> full = entry(pidNumber.get(), layerNumber.get(), windowID.get(), bounds.get());
    CFRef<CFDictionaryRef> empty = entry(nullptr, nullptr, nullptr, nullptr);
    CFRef<CFDictionaryRef> mistyped = entry(CFSTR("321"), CFSTR("0"), kCFBooleanTrue, CFSTR("bounds"));
    CFRef<CFDictionaryRef> partialBounds = dictionary({CFSTR("X"), CFSTR("Y")}, {windowID.get(), windowID.get()});
    CFRef<CFDictionaryRef> withPartialBounds = entry(nullptr, nullptr, nullptr, partialBounds.get());

    auto list = windowListFrom(
        array({full.get(), empty.get(), mistyped.get(), withPartialBounds.get()}).get());
    ASSERT_TRUE(list);
    ASSERT_EQ(list->size(), 4u);

    const WindowListEntry& a = (*list)[0];
    EXPECT_TRUE(Holds(a.ownerPID, std::int64_t{321}));
    EXPECT_TRUE(Holds(a.layer, std::int64_t{0}));
    EXPECT_TRUE(Holds(a.number, std::int64_t{77}));
    ASSERT_TRUE(a.bounds);
    EXPECT_EQ(a.bounds->x, 10);
    EXPECT_EQ(a.bounds->y, 20.5);
    EXPECT_EQ(a.bounds->width, 300);
    EXPECT_EQ(a.bounds->height, 40);

    const WindowListEntry& b = (*list)[1];
    EXPECT_TRUE(Holds(b.ownerPID, std::monostate{}));
    EXPECT_TRUE(Holds(b.layer, std::monostate{}));
    EXPECT_TRUE(Holds(b.number, std::monostate{}));
    EXPECT_FALSE(b.bounds);

    const WindowListEntry& c = (*list)[2];
    EXPECT_TRUE(Holds(c.ownerPID, std::string("321")));
    EXPECT_TRUE(Holds(c.layer, std::string("0")));
    EXPECT_TRUE(Holds(c.number, true));
    EXPECT_FALSE(c.bounds);

    EXPECT_FALSE((*list)[3].bounds);
}

TEST(WindowListFrom, AnythingButAnArrayOfStringKeyedDictionariesIsNoList) {
    const SInt32 one = 1;
    CFRef<CFNumberRef> numberKey = number(kCFNumberSInt32Type, &one);
    CFRef<CFDictionaryRef> good = entry(numberKey.get(), numberKey.get(), numberKey.get(), nullptr);
    CFRef<CFDictionaryRef> numberKeyed = dictionary({numberKey.get()}, {numberKey.get()});

    EXPECT_FALSE(windowListFrom(nullptr));
    EXPECT_FALSE(windowListFrom(CFSTR("windows")));
    EXPECT_FALSE(windowListFrom(good.get()));
    EXPECT_FALSE(windowListFrom(array({good.get(), CFSTR("not an entry")}).get()));
    EXPECT_FALSE(windowListFrom(array({good.get(), numberKeyed.get()}).get()));
    auto none = windowListFrom(array({}).get());
    ASSERT_TRUE(none);
    EXPECT_TRUE(none->empty());
}

}  // namespace
}  // namespace quorvel::macos_backend
