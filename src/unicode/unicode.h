// Unicode measures the bridge needs, over UTF-8 text. Ill-formed UTF-8
// counts as U+FFFD, one replacement per maximal ill-formed subpart.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace quorvel {

// The scalar values of the text, in order.
std::u32string scalars(std::string_view utf8);
// How many UTF-16 code units the text takes.
size_t utf16Length(std::string_view utf8);
// The first `limit` user-perceived characters (extended grapheme clusters).
std::string firstGraphemes(std::string_view utf8, size_t limit);
// Whether two texts are equal under Unicode canonical equivalence.
bool canonicallyEqual(std::string_view a, std::string_view b);

}  // namespace quorvel
