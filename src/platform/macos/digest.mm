// SHA-256 with CommonCrypto.
#include "platform/digest.h"

#include <CommonCrypto/CommonDigest.h>

#include <algorithm>
#include <limits>

namespace quorvel {

std::array<std::uint8_t, 32> sha256(std::span<const std::uint8_t> bytes) {
    static_assert(CC_SHA256_DIGEST_LENGTH == 32);
    CC_SHA256_CTX context;
    CC_SHA256_Init(&context);
    // CommonCrypto takes a 32-bit length per update, so a larger buffer goes
    // in several updates; the digest is the same as of one.
    constexpr size_t kMaxUpdate = std::numeric_limits<CC_LONG>::max();
    for (size_t at = 0; at < bytes.size();) {
        const size_t size = std::min(kMaxUpdate, bytes.size() - at);
        CC_SHA256_Update(&context, bytes.data() + at, static_cast<CC_LONG>(size));
        at += size;
    }
    std::array<std::uint8_t, 32> digest{};
    CC_SHA256_Final(digest.data(), &context);
    return digest;
}

}  // namespace quorvel
