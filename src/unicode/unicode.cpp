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

struct Decoded {
    char32_t scalar;
    size_t length;  // bytes taken, at least one
    bool wellFormed;
};

// Decodes the sequence at `i`. Ill-formed input yields U+FFFD and the length
// of its maximal subpart: the longest prefix of a well-formed sequence that
// starts there, or one byte when there is none. This is the substitution
// practice the Unicode Standard recommends, so a truncated sequence counts
// once while stray bytes count one each.
Decoded decode(std::string_view s, size_t i) {
    unsigned char lead = static_cast<unsigned char>(s[i]);
    if (lead < 0x80) return {lead, 1, true};
    size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    char32_t scalar = lead & (0x7F >> length);
    Range next = secondByte(lead);
    size_t j = i + 1;
    while (j < s.size() && j < i + length) {
        unsigned char c = static_cast<unsigned char>(s[j]);
        if (c < next.lo || c > next.hi) break;
        scalar = scalar << 6 | (c & 0x3F);
        next = {0x80, 0xBF};
        ++j;
    }
    if (j == i + length) return {scalar, length, true};
    return {0xFFFD, j - i, false};
}

std::string nfd(std::string_view text) {
    // Normalise the well-formed form of the text, so ill-formed input
    // compares as its replacement characters.
    std::string clean = utf8(scalars(text));
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
    for (size_t i = 0; i < s.size();) {
        Decoded d = decode(s, i);
        out += d.scalar;
        i += d.length;
    }
    return out;
}

std::u32string scalars(std::u16string_view units) {
    std::u32string out;
    out.reserve(units.size());
    for (size_t i = 0; i < units.size(); ++i) {
        char16_t unit = units[i];
        bool high = unit >= 0xD800 && unit <= 0xDBFF;
        if (high && i + 1 < units.size() && units[i + 1] >= 0xDC00 && units[i + 1] <= 0xDFFF) {
            out += static_cast<char32_t>(0x10000 + ((unit - 0xD800) << 10) + (units[i + 1] - 0xDC00));
            ++i;
        } else if (unit >= 0xD800 && unit <= 0xDFFF) {
            out += U'\uFFFD';
        } else {
            out += unit;
        }
    }
    return out;
}

size_t wellFormedLength(std::string_view s, size_t at) {
    Decoded d = decode(s, at);
    return d.wellFormed ? d.length : 0;
}

void appendUtf8(std::string& out, char32_t c) {
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

std::string utf8(std::u32string_view text) {
    std::string out;
    out.reserve(text.size());
    for (char32_t c : text) appendUtf8(out, c);
    return out;
}

void appendUtf16(std::u16string& out, char32_t c) {
    if (c > 0xFFFF) {
        out += static_cast<char16_t>(0xD800 + ((c - 0x10000) >> 10));
        out += static_cast<char16_t>(0xDC00 + ((c - 0x10000) & 0x3FF));
    } else {
        out += static_cast<char16_t>(c);
    }
}

size_t utf16Length(std::string_view s) {
    size_t units = 0;
    for (size_t i = 0; i < s.size();) {
        Decoded d = decode(s, i);
        units += utf16Units(d.scalar);
        i += d.length;
    }
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
        Decoded d = decode(s, i);
        char32_t cp = d.scalar;
        i += d.length;
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

void appendHex(std::string& out, std::uint8_t byte) {
    static constexpr char kDigits[] = "0123456789abcdef";
    out += kDigits[byte >> 4];
    out += kDigits[byte & 15];
}

std::string hex(std::span<const std::uint8_t> bytes) {
    std::string out;
    out.reserve(2 * bytes.size());
    for (std::uint8_t byte : bytes) appendHex(out, byte);
    return out;
}

}  // namespace quorvel
