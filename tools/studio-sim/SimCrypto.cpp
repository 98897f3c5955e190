#include "SimCrypto.h"

#include <openssl/evp.h>
#include <sys/random.h>

#include <cerrno>
#include <cstdint>
#include <stdexcept>
#include <vector>

namespace studiosim {
namespace {

constexpr char kHex[] = "0123456789abcdef";

std::string hex(const unsigned char* data, std::size_t size) {
    std::string text;
    text.reserve(size * 2);
    for (std::size_t i = 0; i < size; ++i) {
        text.push_back(kHex[data[i] >> 4]);
        text.push_back(kHex[data[i] & 0xF]);
    }
    return text;
}

void randomBytes(unsigned char* out, std::size_t size) {
    std::size_t done = 0;
    while (done < size) {
        ssize_t n = getrandom(out + done, size - done, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) throw std::runtime_error("getrandom failed");
        done += static_cast<std::size_t>(n);
    }
}

}  // namespace

std::string sha256Hex(std::string_view bytes) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr) != 1)
        throw std::runtime_error("SHA-256 failed");
    return hex(digest, length);
}

std::string randomHex(std::size_t count) {
    std::vector<unsigned char> bytes(count);
    randomBytes(bytes.data(), count);
    return hex(bytes.data(), count);
}

std::string randomUuid() {
    unsigned char b[16];
    randomBytes(b, sizeof b);
    b[6] = static_cast<unsigned char>((b[6] & 0x0F) | 0x40);
    b[8] = static_cast<unsigned char>((b[8] & 0x3F) | 0x80);
    std::string h = hex(b, sizeof b);
    for (auto& c : h) c = static_cast<char>(c >= 'a' ? c - 'a' + 'A' : c);
    return h.substr(0, 8) + "-" + h.substr(8, 4) + "-" + h.substr(12, 4) + "-" + h.substr(16, 4) + "-" + h.substr(20);
}

}  // namespace studiosim
