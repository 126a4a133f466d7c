// The ownership holder: each way of taking, sharing and dropping a reference
// moves the object's retain count by exactly what it should.
#include "platform/macos/cf_ref.h"

#include <gtest/gtest.h>

#include <utility>

namespace quorvel::macos_backend {
namespace {

// A fresh mutable array: unlike constant strings, its count is its own.
CFMutableArrayRef freshObject() { return CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks); }

TEST(CFRef, EachWayOfHoldingCountsOnce) {
    CFRef<CFMutableArrayRef> owner = CFRef<CFMutableArrayRef>::adopt(freshObject());
    CFMutableArrayRef object = owner.get();
    EXPECT_EQ(CFGetRetainCount(object), 1);  // adopting took over the creation reference

    {
        CFRef<CFMutableArrayRef> borrowed = CFRef<CFMutableArrayRef>::retain(object);
        EXPECT_EQ(CFGetRetainCount(object), 2);
        CFRef<CFMutableArrayRef> copy = borrowed;
        EXPECT_EQ(CFGetRetainCount(object), 3);
        CFRef<CFMutableArrayRef> moved = std::move(copy);
        EXPECT_EQ(CFGetRetainCount(object), 3);
        EXPECT_FALSE(copy);
        CFRef<CFMutableArrayRef> assigned;
        assigned = moved;
        EXPECT_EQ(CFGetRetainCount(object), 4);
        assigned = CFRef<CFMutableArrayRef>();
        EXPECT_EQ(CFGetRetainCount(object), 3);
    }
    EXPECT_EQ(CFGetRetainCount(object), 1);
}

TEST(CFRef, OutParameterDropsWhatWasHeldAndOwnsWhatIsWritten) {
    CFRef<CFMutableArrayRef> keeper = CFRef<CFMutableArrayRef>::adopt(freshObject());
    CFRef<CFMutableArrayRef> slot = CFRef<CFMutableArrayRef>::retain(keeper.get());
    ASSERT_EQ(CFGetRetainCount(keeper.get()), 2);

    CFMutableArrayRef* out = slot.out();
    EXPECT_EQ(CFGetRetainCount(keeper.get()), 1);
    EXPECT_EQ(*out, nullptr);

    CFMutableArrayRef written = freshObject();
    *out = written;  // what a Copy function does
    EXPECT_EQ(slot.get(), written);
    CFRetain(written);
    slot = CFRef<CFMutableArrayRef>();
    EXPECT_EQ(CFGetRetainCount(written), 1);  // the holder released its reference
    CFRelease(written);
}

TEST(CFRef, NullIsHeldWithoutTouchingAnything) {
    CFRef<CFTypeRef> empty = CFRef<CFTypeRef>::retain(nullptr);
    EXPECT_FALSE(empty);
    CFRef<CFTypeRef> copy = empty;
    EXPECT_EQ(copy.get(), nullptr);
}

}  // namespace
}  // namespace quorvel::macos_backend
