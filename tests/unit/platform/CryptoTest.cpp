#include <gtest/gtest.h>

#include <array>
#include <set>

#include "platform/Crypto.h"

namespace {
std::string hex(const std::array<uint8_t, 32>& digest) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (uint8_t b : digest) {
        out.push_back(digits[b >> 4]);
        out.push_back(digits[b & 15]);
    }
    return out;
}
}  // namespace

TEST(Sha256, KnownDigests) {
    EXPECT_EQ(hex(platform::sha256("")), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(hex(platform::sha256("abc")), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(SecureRandomBytes, FillsEveryByteDifferentlyEachTime) {
    platform::LinuxSecureRandom random;
    std::set<std::array<uint8_t, 32>> seen;
    for (int i = 0; i < 8; ++i) {
        std::array<uint8_t, 32> bytes{};
        ASSERT_TRUE(random.fill(bytes));
        seen.insert(bytes);
    }
    EXPECT_EQ(seen.size(), 8u);
}
