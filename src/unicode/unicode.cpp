#include "unicode/unicode.h"

#include <utf8proc.h>

#include <cstdlib>
#include <memory>

namespace quorvel {
namespace {

// The range that the byte after `lead` must fall in for the sequence to be
// well-formed; an empty range (lo > hi) for a byte that starts no sequence.
struct Range {
    unsigned char lo, hi;
};
Range secondByte(unsigned char lead) {
    if (lead >= 0xC2 && lead <= 0xDF) return {0x80, 0xBF};
    if (lead == 0xE0) return {0xA0, 0xBF};  // no overlong forms
    if (lead == 0xED) return {0x80, 0x9F};  // no surrogates
    if (lead >= 0xE1 && lead <= 0xEF) return {0x80, 0xBF};
    if (lead == 0xF0) return {0x90, 0xBF};  // no overlong forms
    if (lead >= 0xF1 && lead <= 0xF3) return {0x80, 0xBF};
    if (lead == 0xF4) return {0x80, 0x8F};  // nothing above U+10FFFF
    return {1, 0};
}

// Decodes one scalar at `i`. Ill-formed input yields U+FFFD and advances past
// its maximal subpart: the longest prefix of a well-formed sequence that
// starts there, or one byte when there is none. This is the substitution
// practice the Unicode Standard recommends, so a truncated sequence counts
// once while stray bytes count one each.
char32_t decode(std::string_view s, size_t& i) {
    utf8proc_int32_t cp = 0;
    utf8proc_ssize_t n = utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(s.data() + i),
                                          static_cast<utf8proc_ssize_t>(s.size() - i), &cp);
    if (n > 0 && cp >= 0) {
        i += static_cast<size_t>(n);
        return static_cast<char32_t>(cp);
    }
    unsigned char lead = static_cast<unsigned char>(s[i]);
    size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    Range next = secondByte(lead);
    size_t j = i + 1;
    while (j < s.size() && j < i + length) {
        unsigned char c = static_cast<unsigned char>(s[j]);
        if (c < next.lo || c > next.hi) break;
        next = {0x80, 0xBF};
        ++j;
    }
    i = j;
    return 0xFFFD;
}

void append(std::string& out, char32_t cp) {
    utf8proc_uint8_t buf[4];
    utf8proc_ssize_t n = utf8proc_encode_char(static_cast<utf8proc_int32_t>(cp), buf);
    out.append(reinterpret_cast<const char*>(buf), static_cast<size_t>(n));
}

std::string nfd(std::string_view text) {
    // Normalise the well-formed form of the text, so ill-formed input
    // compares as its replacement characters.
    std::string clean;
    clean.reserve(text.size());
    for (char32_t cp : scalars(text)) append(clean, cp);
    utf8proc_uint8_t* out = nullptr;
    utf8proc_ssize_t n =
        utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(clean.data()),
                     static_cast<utf8proc_ssize_t>(clean.size()), &out,
                     static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_DECOMPOSE));
    if (n < 0) return clean;
    std::unique_ptr<utf8proc_uint8_t, decltype(&std::free)> owned(out, &std::free);
    return std::string(reinterpret_cast<const char*>(out), static_cast<size_t>(n));
}

}  // namespace

std::u32string scalars(std::string_view s) {
    std::u32string out;
    out.reserve(s.size());
    for (size_t i = 0; i < s.size();) out += decode(s, i);
    return out;
}

size_t utf16Length(std::string_view s) {
    size_t units = 0;
    for (size_t i = 0; i < s.size();) units += decode(s, i) > 0xFFFF ? 2 : 1;
    return units;
}

std::string firstGraphemes(std::string_view s, size_t limit) {
    // A cluster holds at least one byte, so a text no longer than the limit
    // in bytes is whole; most labels and window texts end here.
    if (s.size() <= limit) return std::string(s);
    size_t count = 0;
    utf8proc_int32_t state = 0;
    char32_t previous = 0;
    size_t i = 0;
    while (i < s.size()) {
        size_t start = i;
        char32_t cp = decode(s, i);
        bool breakBefore =
            start == 0 || utf8proc_grapheme_break_stateful(static_cast<utf8proc_int32_t>(previous),
                                                           static_cast<utf8proc_int32_t>(cp),
                                                           &state);
        if (breakBefore) {
            if (count == limit) return std::string(s.substr(0, start));
            ++count;
        }
        previous = cp;
    }
    return std::string(s);
}

bool canonicallyEqual(std::string_view a, std::string_view b) {
    return a == b || nfd(a) == nfd(b);
}

}  // namespace quorvel
