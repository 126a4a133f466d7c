#include "platform/digest.h"

// The one-shot SHA256() goes through OpenSSL's provider machinery, which
// brings four megabytes of the library into a statically linked bridge;
// the digest's own functions, deprecated but kept in OpenSSL 3, are the same
// code (SHA-NI where the processor has it) in a few kilobytes.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/sha.h>

namespace quorvel {

std::array<std::uint8_t, 32> sha256(std::span<const std::uint8_t> bytes) {
    std::array<std::uint8_t, 32> digest{};
    SHA256_CTX context;
    SHA256_Init(&context);
    SHA256_Update(&context, bytes.data(), bytes.size());
    SHA256_Final(digest.data(), &context);
    return digest;
}

}  // namespace quorvel
