#include "bridge/base64.h"

namespace quorvel {

std::string base64(std::span<const std::uint8_t> bytes) {
    static constexpr char kAlphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        std::uint32_t n = bytes[i] << 16 | bytes[i + 1] << 8 | bytes[i + 2];
        out += kAlphabet[n >> 18];
        out += kAlphabet[n >> 12 & 63];
        out += kAlphabet[n >> 6 & 63];
        out += kAlphabet[n & 63];
    }
    if (size_t rest = bytes.size() - i) {
        std::uint32_t n = bytes[i] << 16 | (rest == 2 ? bytes[i + 1] << 8 : 0);
        out += kAlphabet[n >> 18];
        out += kAlphabet[n >> 12 & 63];
        out += rest == 2 ? kAlphabet[n >> 6 & 63] : '=';
        out += '=';
    }
    return out;
}

}  // namespace quorvel
