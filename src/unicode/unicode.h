// Text encodings, written once for the core and the backends: UTF-8 and
// UTF-16 decoding and encoding, the Unicode measures the bridge needs, and
// lower-case hex. Ill-formed UTF-8 counts as U+FFFD, one replacement per
// maximal ill-formed subpart; an unpaired UTF-16 surrogate as one U+FFFD.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace quorvel {

// The scalar values of the text, in order.
std::u32string scalars(std::string_view utf8);
std::u32string scalars(std::u16string_view utf16);
// How many bytes the well-formed UTF-8 sequence at `at` takes; 0 when the
// bytes there are ill-formed.
size_t wellFormedLength(std::string_view utf8, size_t at);

void appendUtf8(std::string& out, char32_t scalar);
std::string utf8(std::u32string_view scalars);
void appendUtf16(std::u16string& out, char32_t scalar);
// How many UTF-16 code units a scalar value takes.
inline size_t utf16Units(char32_t scalar) { return scalar > 0xFFFF ? 2 : 1; }
// How many UTF-16 code units the text takes.
size_t utf16Length(std::string_view utf8);

// The first `limit` user-perceived characters (extended grapheme clusters).
std::string firstGraphemes(std::string_view utf8, size_t limit);
// Whether two texts are equal under Unicode canonical equivalence.
bool canonicallyEqual(std::string_view a, std::string_view b);

// Two lower-case hex digits per byte.
void appendHex(std::string& out, std::uint8_t byte);
std::string hex(std::span<const std::uint8_t> bytes);

}  // namespace quorvel
