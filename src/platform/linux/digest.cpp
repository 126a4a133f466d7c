#include "platform/digest.h"

#include <openssl/sha.h>

namespace quorvel {

std::array<std::uint8_t, 32> sha256(std::span<const std::uint8_t> bytes) {
    std::array<std::uint8_t, 32> digest{};
    SHA256(bytes.data(), bytes.size(), digest.data());
    return digest;
}

}  // namespace quorvel
