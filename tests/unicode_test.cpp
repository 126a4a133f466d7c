// Unicode measures: UTF-16 length, scalar decoding of ill-formed input,
// grapheme-cluster cuts and canonical equivalence.
#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "unicode/unicode.h"

namespace quorvel {
namespace {

// Prints a UTF-8 test string as escaped bytes, so a failing case names its
// input legibly whatever bytes it holds.
std::string escaped(std::string_view s) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : s) {
        if (c >= 0x20 && c < 0x7F) {
            out += static_cast<char>(c);
        } else {
            out += "\\x";
            out += kHex[c >> 4];
            out += kHex[c & 15];
        }
    }
    return out;
}

struct DecodeCase {
    const char* name;
    std::string input;
    std::u32string scalars;
};

void PrintTo(const DecodeCase& c, std::ostream* os) { *os << c.name << " \"" << escaped(c.input) << '"'; }

class Decode : public ::testing::TestWithParam<DecodeCase> {};

TEST_P(Decode, GivesOneReplacementPerMaximalSubpart) {
    const DecodeCase& c = GetParam();
    EXPECT_EQ(scalars(c.input), c.scalars);
    // Each replacement counts one UTF-16 unit; a scalar above U+FFFF two.
    size_t units = 0;
    for (char32_t cp : c.scalars) units += cp > 0xFFFF ? 2 : 1;
    EXPECT_EQ(utf16Length(c.input), units);
}

INSTANTIATE_TEST_SUITE_P(
    Table, Decode,
    ::testing::Values(
        DecodeCase{"ascii", "ab", U"ab"},
        DecodeCase{"two_three_four_bytes", "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", U"\u00E9\u20AC\U0001F600"},
        DecodeCase{"stray_continuation", "a\x80" "b", U"a\uFFFDb"},
        DecodeCase{"invalid_lead_bytes", "\xC0\xC1\xF5\xFF", U"\uFFFD\uFFFD\uFFFD\uFFFD"},
        DecodeCase{"overlong_two_bytes", "\xC0\xAF", U"\uFFFD\uFFFD"},
        DecodeCase{"overlong_three_bytes", "\xE0\x80\x80", U"\uFFFD\uFFFD\uFFFD"},
        DecodeCase{"encoded_surrogate", "\xED\xA0\x80", U"\uFFFD\uFFFD\uFFFD"},
        DecodeCase{"above_10FFFF", "\xF4\x90\x80\x80", U"\uFFFD\uFFFD\uFFFD\uFFFD"},
        DecodeCase{"truncated_emoji_counts_once", "\xF0\x9F\x98" "x", U"\uFFFDx"},
        DecodeCase{"truncated_at_end", "a\xE2\x82", U"a\uFFFD"},
        DecodeCase{"five_byte_form", "\xF8\x88\x80\x80\x80", U"\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD"}),
    [](const auto& info) { return std::string(info.param.name); });

struct CutCase {
    const char* name;
    std::string text;
    size_t limit;
    std::string kept;
};

void PrintTo(const CutCase& c, std::ostream* os) {
    *os << c.name << " \"" << escaped(c.text) << "\" to " << c.limit;
}

class GraphemeCut : public ::testing::TestWithParam<CutCase> {};

TEST_P(GraphemeCut, KeepsWholeUserPerceivedCharacters) {
    EXPECT_EQ(escaped(firstGraphemes(GetParam().text, GetParam().limit)),
              escaped(GetParam().kept));
}

const std::string kFamily = "\U0001F468\u200D\U0001F469\u200D\U0001F467";  // 5 scalars, 8 UTF-16 units
const std::string kFlags = "\U0001F1FA\U0001F1F8\U0001F1EB\U0001F1F7";    // two flags

INSTANTIATE_TEST_SUITE_P(
    Table, GraphemeCut,
    ::testing::Values(
        CutCase{"exactly_the_limit", "abc", 3, "abc"},
        CutCase{"zero", "abc", 0, ""},
        CutCase{"combining_mark_stays_with_its_base", "e\u0301e\u0301e\u0301", 2, "e\u0301e\u0301"},
        CutCase{"family_at_start", kFamily + "x", 1, kFamily},
        CutCase{"family_after_a_letter", "x" + kFamily + "y", 2, "x" + kFamily},
        CutCase{"flags_pair_up_at_start", kFlags, 1, "\U0001F1FA\U0001F1F8"},
        CutCase{"flags_pair_up_after_a_letter", "x" + kFlags, 2, "x\U0001F1FA\U0001F1F8"},
        CutCase{"ill_formed_bytes_kept_as_they_are", "\xFF\xFEz", 2, "\xFF\xFE"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(GraphemeCut, CountsClustersNotCodePointsOrBytes) {
    // 500 clusters of two code points each: a cut by code points would keep
    // only 250 of them, a cut by bytes fewer still.
    std::string text;
    for (int i = 0; i < 600; ++i) text += "e\u0301";
    std::string kept = firstGraphemes(text, 500);
    EXPECT_EQ(kept.size(), 500 * std::string("e\u0301").size());
}

struct EquivalenceCase {
    const char* name;
    std::string a;
    std::string b;
    bool equal;
};

void PrintTo(const EquivalenceCase& c, std::ostream* os) {
    *os << c.name << " \"" << escaped(c.a) << "\" vs \"" << escaped(c.b) << '"';
}

class CanonicalEquivalence : public ::testing::TestWithParam<EquivalenceCase> {};

TEST_P(CanonicalEquivalence, ComparesNormalisedText) {
    const EquivalenceCase& c = GetParam();
    EXPECT_EQ(canonicallyEqual(c.a, c.b), c.equal);
    EXPECT_EQ(canonicallyEqual(c.b, c.a), c.equal);
}

INSTANTIATE_TEST_SUITE_P(
    Table, CanonicalEquivalence,
    ::testing::Values(
        EquivalenceCase{"precomposed_against_combining", "caf\u00E9", "cafe\u0301", true},
        EquivalenceCase{"mark_order", "a\u0323\u0301", "a\u0301\u0323", true},
        EquivalenceCase{"letter_case", "Caf\u00E9", "caf\u00E9", false},
        EquivalenceCase{"white_space", "a b", "a  b", false},
        EquivalenceCase{"compatibility_only", "\uFB01", "fi", false},
        EquivalenceCase{"different_mark", "e\u0301", "e\u0300", false},
        EquivalenceCase{"empty", "", "", true},
        EquivalenceCase{"ill_formed_as_replacement", "a\xFF", "a\uFFFD", true}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace quorvel
