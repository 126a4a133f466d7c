// Unicode measures: UTF-16 length, scalar decoding of ill-formed input,
// encodings, grapheme-cluster cuts and canonical equivalence.
#include <gtest/gtest.h>

#include <string>

#include "unicode/unicode.h"

namespace quorvel {
namespace {

// Failures name a case by its input, printed with its bytes escaped.
using ::testing::PrintToString;

TEST(Decode, GivesOneReplacementPerMaximalSubpart) {
    for (const auto& [input, expected] : std::vector<std::pair<std::string, std::u32string>>{
             {"ab", U"ab"},
             {"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", U"\u00E9\u20AC\U0001F600"},
             {"a\x80" "b", U"a\uFFFDb"},                                   // stray continuation
             {"\xC0\xC1\xF5\xFF", U"\uFFFD\uFFFD\uFFFD\uFFFD"},            // invalid lead bytes
             {"\xC0\xAF", U"\uFFFD\uFFFD"},                                // overlong, two bytes
             {"\xE0\x80\x80", U"\uFFFD\uFFFD\uFFFD"},                      // overlong, three bytes
             {"\xED\xA0\x80", U"\uFFFD\uFFFD\uFFFD"},                      // encoded surrogate
             {"\xF4\x90\x80\x80", U"\uFFFD\uFFFD\uFFFD\uFFFD"},            // above U+10FFFF
             {"\xF0\x9F\x98" "x", U"\uFFFDx"},                             // truncated: counts once
             {"a\xE2\x82", U"a\uFFFD"},                                    // truncated at the end
             {"\xF8\x88\x80\x80\x80", U"\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD"},  // five-byte form
         }) {
        EXPECT_TRUE(scalars(input) == expected) << PrintToString(input);
        // Each replacement counts one UTF-16 unit; a scalar above U+FFFF two.
        size_t units = 0;
        for (char32_t cp : expected) units += cp > 0xFFFF ? 2 : 1;
        EXPECT_EQ(utf16Length(input), units) << PrintToString(input);
    }
}

// The encoders and the UTF-16 decoder at every length boundary, and unpaired
// surrogates read as U+FFFD.
TEST(Encodings, RoundTripAtEveryLengthBoundary) {
    const std::u32string boundaries = U"\u007F\u0080\u07FF\u0800\uFFFF\U00010000\U0010FFFF";
    const std::string bytes = utf8(boundaries);
    EXPECT_EQ(bytes, "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF");
    EXPECT_TRUE(scalars(bytes) == boundaries);
    std::u16string units;
    for (char32_t c : boundaries) appendUtf16(units, c);
    EXPECT_TRUE(units == u"\u007F\u0080\u07FF\u0800\uFFFF\U00010000\U0010FFFF");
    EXPECT_EQ(utf16Length(bytes), units.size());
    EXPECT_TRUE(scalars(units) == boundaries);
    EXPECT_TRUE(scalars(u"a\xD800" u"b\xDC00\xD800") == U"a\uFFFDb\uFFFD\uFFFD");
}

TEST(GraphemeCut, KeepsWholeUserPerceivedCharacters) {
    const std::string family = "\U0001F468\u200D\U0001F469\u200D\U0001F467";  // 5 scalars
    const std::string flags = "\U0001F1FA\U0001F1F8\U0001F1EB\U0001F1F7";      // two flags
    struct Case { std::string text; size_t limit; std::string kept; };
    for (const Case& c : {
             Case{"abc", 3, "abc"},
             Case{"abc", 0, ""},
             Case{"e\u0301e\u0301e\u0301", 2, "e\u0301e\u0301"},  // a mark stays with its base
             Case{family + "x", 1, family},
             Case{"x" + family + "y", 2, "x" + family},
             Case{flags, 1, "\U0001F1FA\U0001F1F8"},
             Case{"x" + flags, 2, "x\U0001F1FA\U0001F1F8"},
             Case{"\xFF\xFEz", 2, "\xFF\xFE"},  // ill-formed bytes kept as they are
         }) {
        EXPECT_EQ(firstGraphemes(c.text, c.limit), c.kept)
            << PrintToString(c.text) << " to " << c.limit;
    }
}

TEST(CanonicalEquivalence, ComparesNormalisedText) {
    struct Case { std::string a, b; bool equal; };
    for (const Case& c : {
             Case{"caf\u00E9", "cafe\u0301", true},        // precomposed and combining
             Case{"a\u0323\u0301", "a\u0301\u0323", true},  // order of marks
             Case{"Caf\u00E9", "caf\u00E9", false},
             Case{"a b", "a  b", false},
             Case{"\uFB01", "fi", false},  // compatibility only
             Case{"e\u0301", "e\u0300", false},
             Case{"", "", true},
             Case{"a\xFF", "a\uFFFD", true},  // ill-formed as its replacement
         }) {
        SCOPED_TRACE(PrintToString(c.a) + " vs " + PrintToString(c.b));
        EXPECT_EQ(canonicallyEqual(c.a, c.b), c.equal);
        EXPECT_EQ(canonicallyEqual(c.b, c.a), c.equal);
    }
}

}  // namespace
}  // namespace quorvel
