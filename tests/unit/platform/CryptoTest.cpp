// The digest behind the hand-over's challenge and the random bytes behind its
// nonce.
#include <gtest/gtest.h>

#include <array>
#include <set>

#include "platform/Crypto.h"
#include "platform/Hex.h"

TEST(Crypto, KnownSha256DigestsAndRandomBytesThatDifferEachTime) {
    EXPECT_EQ(platform::hex(platform::sha256("")), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(platform::hex(platform::sha256("abc")), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    platform::LinuxSecureRandom random;
    std::set<std::array<uint8_t, 32>> seen;
    for (int i = 0; i < 8; ++i) {
        std::array<uint8_t, 32> bytes{};
        ASSERT_TRUE(random.fill(bytes));
        seen.insert(bytes);
    }
    EXPECT_EQ(seen.size(), 8u);
}
