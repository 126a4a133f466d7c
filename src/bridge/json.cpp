#include "bridge/json.h"

#include <charconv>
#include <cmath>
#include <cstdint>

#include "unicode/unicode.h"

namespace quorvel {
namespace {

// Deeper values are refused rather than risking the stack: nothing the
// bridge writes or compares legitimately nests more than a few levels.
constexpr int kMaxDepth = 512;

void writeString(std::string& out, std::string_view s) {
    out += '"';
    size_t i = 0;
    while (i < s.size()) {
        // Plain printable ASCII, by far the most of what is written, goes
        // out in one piece.
        size_t plain = i;
        while (plain < s.size()) {
            unsigned char p = static_cast<unsigned char>(s[plain]);
            if (p < 0x20 || p >= 0x80 || p == '"' || p == '\\') break;
            ++plain;
        }
        if (plain > i) {
            out.append(s.substr(i, plain - i));
            i = plain;
            continue;
        }
        unsigned char c = static_cast<unsigned char>(s[i]);
        if (c < 0x80) {
            switch (c) {
                case '"': out += "\\\""; break;
                case '\\': out += "\\\\"; break;
                case '\b': out += "\\b"; break;
                case '\f': out += "\\f"; break;
                case '\n': out += "\\n"; break;
                case '\r': out += "\\r"; break;
                case '\t': out += "\\t"; break;
                default:
                    if (c < 0x20) {
                        out += "\\u00";
                        appendHex(out, c);
                    } else {
                        out += static_cast<char>(c);
                    }
            }
            ++i;
            continue;
        }
        // Copy a well-formed UTF-8 sequence as it is; each byte of anything
        // else becomes U+FFFD, so the output is always valid JSON and writing
        // it again after a parse gives the same bytes.
        if (size_t len = wellFormedLength(s, i)) {
            out.append(s.substr(i, len));
            i += len;
        } else {
            out += "\xEF\xBF\xBD";
            ++i;
        }
    }
    out += '"';
}

void writeDouble(std::string& out, double v) {
    if (!std::isfinite(v)) throw JsonWriteError("number has no JSON text");
    if (v == 0) {  // negative zero has the value zero
        out += '0';
        return;
    }
    char buf[400];
    std::to_chars_result r;
    if (v == std::trunc(v) && std::fabs(v) < 1e21) {
        // An integral value prints as digits without a fraction, the same
        // text an integer of that value gives.
        r = std::to_chars(buf, buf + sizeof buf, v, std::chars_format::fixed);
    } else {
        r = std::to_chars(buf, buf + sizeof buf, v);  // shortest round trip
    }
    out.append(buf, r.ptr);
}

void write(std::string& out, const Json& v, int depth);

void writeObject(std::string& out, const JsonObject& object, int depth) {
    // object_t is a std::map<std::string, ...>, whose order is the byte order
    // of the keys.
    out += '{';
    bool first = true;
    for (const auto& [key, item] : object) {
        if (!first) out += ',';
        first = false;
        writeString(out, key);
        out += ':';
        write(out, item, depth + 1);
    }
    out += '}';
}

void write(std::string& out, const Json& v, int depth) {
    if (depth > kMaxDepth) throw JsonWriteError("value nested too deeply");
    switch (v.type()) {
        case Json::value_t::null: out += "null"; return;
        case Json::value_t::boolean: out += v.get<bool>() ? "true" : "false"; return;
        case Json::value_t::number_integer: out += std::to_string(v.get<std::int64_t>()); return;
        case Json::value_t::number_unsigned: out += std::to_string(v.get<std::uint64_t>()); return;
        case Json::value_t::number_float: writeDouble(out, v.get<double>()); return;
        case Json::value_t::string: writeString(out, v.get_ref<const std::string&>()); return;
        case Json::value_t::array: {
            out += '[';
            bool first = true;
            for (const Json& item : v.get_ref<const JsonArray&>()) {
                if (!first) out += ',';
                first = false;
                write(out, item, depth + 1);
            }
            out += ']';
            return;
        }
        case Json::value_t::object: writeObject(out, v.get_ref<const JsonObject&>(), depth); return;
        case Json::value_t::binary:
        case Json::value_t::discarded: break;
    }
    throw JsonWriteError("value has no JSON text");
}

}  // namespace

std::string writeJson(const Json& value) {
    std::string out;
    write(out, value, 0);
    return out;
}

std::string writeJson(const JsonObject& object) {
    std::string out;
    writeObject(out, object, 0);
    return out;
}

Json parseJson(std::string_view text) {
    // The parser takes a raw NUL byte for the end of the input and would
    // accept a request followed by one and anything at all. No JSON text
    // holds a raw NUL, so such input is refused whole.
    if (text.find('\0') != std::string_view::npos)
        throw std::invalid_argument("raw NUL byte in JSON text");
    return Json::parse(text.begin(), text.end());
}

}  // namespace quorvel
