// Base64 (RFC 4648, standard alphabet, padded): how binary data travels in a
// JSON string.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace quorvel {

std::string base64(std::span<const std::uint8_t> bytes);

}  // namespace quorvel
