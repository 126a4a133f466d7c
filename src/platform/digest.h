// SHA-256 from the platform's crypto library (OpenSSL's libcrypto on Linux,
// CommonCrypto on macOS). Not part of `Platform`: it asks nothing of the
// desktop, so the fake desktop uses the real digest too.
#pragma once

#include <array>
#include <cstdint>
#include <span>

namespace quorvel {

std::array<std::uint8_t, 32> sha256(std::span<const std::uint8_t> bytes);

}  // namespace quorvel
