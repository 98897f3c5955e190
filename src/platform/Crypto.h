// SHA-256 and the system's secure random generator. Stateless; any thread.
#pragma once
#include <array>
#include <cstdint>
#include <span>
#include <string_view>

namespace platform {

std::array<uint8_t, 32> sha256(std::string_view bytes);

class SecureRandom {
public:
    virtual ~SecureRandom() = default;
    // Fills the whole span, or answers false and the bytes mean nothing.
    virtual bool fill(std::span<uint8_t> bytes) = 0;
};

// getrandom(2) from the kernel's pool.
class LinuxSecureRandom final : public SecureRandom {
public:
    bool fill(std::span<uint8_t> bytes) override;
};

// The process's own, never destroyed: work still running on a pool thread
// may use it while the process exits.
SecureRandom& systemSecureRandom();

}  // namespace platform
