#include <openssl/evp.h>
#include <sys/random.h>

#include <cerrno>

#include "platform/Crypto.h"

namespace platform {

std::array<uint8_t, 32> sha256(std::string_view bytes) {
    std::array<uint8_t, 32> digest{};
    unsigned int length = 0;
    EVP_Digest(bytes.data(), bytes.size(), digest.data(), &length, EVP_sha256(), nullptr);
    return digest;
}

bool LinuxSecureRandom::fill(std::span<uint8_t> bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = getrandom(bytes.data() + done, bytes.size() - done, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

SecureRandom& systemSecureRandom() {
    static auto* random = new LinuxSecureRandom;
    return *random;
}

}  // namespace platform
