// The parts of the XTest input side that need no X server: how spare
// keycodes are lent and reassigned, the record of them left on the server
// and what of it is given back, how pixels become wheel steps and which
// keysym types a character. The rest, the chords of the named keys among
// it, is exercised against a real desktop by the end-to-end tests.
#include <X11/keysym.h>
#include <gtest/gtest.h>

#include "platform/linux/input/xtest_input.h"
#include "platform/linux/input/spare_key_record.h"
#include "platform/linux/input/spare_keys.h"
#include "platform/linux/input/typist.h"

namespace quorvel::linux_backend {
namespace {

// Room is made for the characters the text needs next, all in one change:
// slots that hold one of them keep it, a slot whose last use the
// application has not confirmed keeps its character, and of the others the
// empty ones go first, then the least recently used.
TEST(SpareKeys, ReassignsConfirmedSlotsToTheCharactersNeededNext) {
    SpareKeys keys({93, 97, 103, 107});
    keys.lease(0x100, 1);  // 93
    keys.lease(0x101, 2);  // 97
    keys.lease(0x102, 3);  // 103
    keys.lease(0x100, 4);  // 93 used again, so 97 is now the oldest
    ASSERT_TRUE(keys.lease(0x103, 5));  // 107, the empty one
    EXPECT_FALSE(keys.lease(0x104, 5)) << "every slot holds a character";

    struct {
        std::vector<SpareKeys::Keysym> wanted;
        SpareKeys::Batch confirmed;
        std::vector<SpareKeys::Keycode> changed;
    } rounds[] = {
        // Nothing confirmed: no slot is free.
        {{0x104, 0x105}, 0, {}},
        // Up to batch 4: 97 (batch 2) goes before 103 (batch 3); 93 and
        // 107 serve later batches.
        {{0x104}, 4, {97}},
        // 0x104 is held already and 0x100 too (on 93): only 0x106 moves in,
        // into 103, the only confirmed slot not wanted.
        {{0x104, 0x100, 0x106, 0x107}, 4, {103}},
        // Everything confirmed: the slots of unwanted characters, those
        // filled and never used since first, then the oldest; what does not
        // fit waits for the next round.
        {{0x108, 0x109, 0x10a, 0x10b, 0x10c}, 5, {97, 103, 93, 107}},
    };
    for (const auto& round : rounds)
        EXPECT_EQ(keys.reassign(round.wanted, round.confirmed), round.changed)
            << round.confirmed;
    for (SpareKeys::Keysym keysym : {0x108, 0x109, 0x10a, 0x10b}) {
        auto lease = keys.lease(keysym, 6);
        ASSERT_TRUE(lease) << keysym;
        EXPECT_FALSE(lease->remap) << keysym;
    }
    EXPECT_FALSE(keys.lease(0x10c, 6));
    EXPECT_EQ(keys.newestUse(), 6u);
    // Only as many characters as there are slots are needed soon: 0x108
    // comes fifth, so its slot (97) makes room too.
    EXPECT_EQ(keys.reassign({0x10c, 0x10d, 0x10e, 0x10f, 0x108}, 6),
              (std::vector<SpareKeys::Keycode>{93, 97, 103, 107}));
}

TEST(SpareKeys, LendsPlainLevelsFirstAndEachLevelOnItsOwn) {
    SpareKeys keys({93, 97}, 2);
    struct {
        SpareKeys::Keysym keysym;
        SpareKeys::Keycode keycode;
        int level;
    } expected[] = {{0x100, 93, 0}, {0x101, 97, 0}, {0x102, 93, 1}, {0x103, 97, 1}};
    for (const auto& e : expected) {
        auto lease = keys.lease(e.keysym, 1);
        ASSERT_TRUE(lease);
        EXPECT_EQ(lease->keycode, e.keycode);
        EXPECT_EQ(lease->level, e.level);
    }

    // 93's plain level serves batch 2 as well; once batch 1 is confirmed,
    // 97's plain level is the oldest free one, and 97's Shift level keeps
    // its keysym.
    keys.lease(0x100, 2);
    EXPECT_EQ(keys.reassign({0x105}, 1), (std::vector<SpareKeys::Keycode>{97}));
    EXPECT_EQ(keys.levels(97), (std::vector<SpareKeys::Keysym>{0x105, 0x103}));
    EXPECT_EQ(keys.lent(), (std::vector<SpareKeys::Keycode>{93, 97}));
}

TEST(SpareKeys, ReservedKeysymsStayUntilEveryEmptySlotIsTaken) {
    SpareKeys keys({93, 97, 103});
    auto reserved = keys.reserve(0x100);
    ASSERT_TRUE(reserved);
    EXPECT_TRUE(reserved->remap);
    auto again = keys.reserve(0x100);
    ASSERT_TRUE(again);
    EXPECT_EQ(again->keycode, reserved->keycode);
    EXPECT_FALSE(again->remap);
    // A reserved slot awaits nothing...
    EXPECT_EQ(keys.newestUse(), 0u);
    // ...and a character that was not reserved takes an empty slot rather
    // than the reserved one, which then types without a remap.
    auto other = keys.lease(0x101, 1);
    ASSERT_TRUE(other);
    EXPECT_NE(other->keycode, reserved->keycode);
    auto use = keys.lease(0x100, 1);
    ASSERT_TRUE(use);
    EXPECT_EQ(use->keycode, reserved->keycode);
    EXPECT_FALSE(use->remap);

    ASSERT_TRUE(keys.reserve(0x102));
    EXPECT_FALSE(keys.reserve(0x103));  // every slot holds a character
    EXPECT_EQ(keys.lent().size(), 3u);
}

// An empty spare keycode as XKB holds it, and one holding `syms`.
KeyEntry emptyKey() { return KeyEntry{{0, 0, 0, 0}, 0, 0, {}}; }
KeyEntry keyHolding(std::vector<unsigned long> syms) {
    return KeyEntry{{static_cast<unsigned char>(syms.size() > 1 ? 1 : 0), 0, 0, 0}, 1,
                    static_cast<unsigned char>(syms.size()), std::move(syms)};
}

TEST(SpareKeyRecord, ReadsBackWhatWasWrittenAndNothingElse) {
    SpareKeyRecord record{4242,
                          {{93, emptyKey(), {0x1004e00, 0x1004e01}},
                           {97, keyHolding({0x61}), {XK_eacute}}}};
    std::vector<long> items = encodeRecord(record);
    EXPECT_EQ(decodeRecord(items.data(), items.size()), record);
    SpareKeyRecord none{7, {}};
    std::vector<long> empty = encodeRecord(none);
    EXPECT_EQ(decodeRecord(empty.data(), empty.size()), none);

    // Whatever else the property holds is no record: another format number,
    // a key cut short, a keycode or a count out of range, items left over.
    auto changed = [&](size_t at, long value) {
        std::vector<long> copy = items;
        copy[at] = value;
        return copy;
    };
    const std::vector<long> broken[] = {
        {},
        changed(0, 2),
        changed(2, 300),                                   // the first keycode
        changed(9, 5000),                                  // its number of original keysyms
        std::vector<long>(items.begin(), items.end() - 1),
        [&] { auto more = items; more.push_back(93); return more; }(),
    };
    for (const std::vector<long>& items : broken)
        EXPECT_FALSE(decodeRecord(items.data(), items.size())) << &items - broken;
}

// A key is given back only while it holds nothing but what the bridge put
// there: a layout loaded after the bridge died may have a key of its own on
// the keycode.
TEST(SpareKeyRecord, GivesBackOnlyKeysThatHoldWhatTheBridgePutThere) {
    const RecordedKey key{93, emptyKey(), {0x1004e00, 0x1004e01, XK_eacute}};
    struct { const char* name; KeyEntry now; bool restores; } cases[] = {
        {"as_found", emptyKey(), false},
        {"two_levels_the_bridge_put", keyHolding({0x1004e00, 0x1004e01}), true},
        {"partly_a_new_layout", keyHolding({XK_eacute, XK_F13}), false},
        {"emptied_but_of_another_type", KeyEntry{{1, 0, 0, 0}, 1, 0, {}}, true},
    };
    for (const auto& c : cases) EXPECT_EQ(restoresTo(key, c.now), c.restores) << c.name;
}

TEST(WheelSteps, RoundPixelsToStepsAndNeverDropANonZeroAmount) {
    struct {
        std::int32_t pixels;
        int perStep;
        int steps;
    } cases[] = {{0, 50, 0},   {1, 50, 1},    {74, 50, 1}, {75, 50, 2},
                 {-75, 50, 2}, {2000, 50, 40},
                 // A step size of nothing never divides by zero.
                 {10, 0, 10}};
    for (const auto& c : cases)
        EXPECT_EQ(wheelSteps(c.pixels, c.perStep), c.steps) << c.pixels << " by " << c.perStep;
}

TEST(KeysymForCharacter, UsesLegacyKeysymsAndUnicodeOnesBeyond) {
    struct { char32_t c; KeySym keysym; } cases[] = {
        {U'\n', XK_Return}, {U'\r', XK_Return}, {U'\t', XK_Tab}, {U'é', XK_eacute}, {U'😀', 0x0101F600},
    };
    for (const auto& c : cases)
        EXPECT_EQ(keysymForCharacter(c.c), c.keysym) << static_cast<unsigned>(c.c);
}

}  // namespace
}  // namespace quorvel::linux_backend
