#include "platform/linux/OpenSsl.h"

#include <gtest/gtest.h>

namespace orlinth::platform::detail {
namespace {

int freed = 0;

void countFreed(int* /*object*/) {
    ++freed;
}

std::string thrownText(const char* withoutReason) {
    try {
        throwOpenSslError(withoutReason);
    } catch (const CryptoError& error) {
        return error.description();
    }
}

TEST(Freer, FreesOnceAndNothingWhereThereIsNothing) {
    freed = 0;
    int object = 0;
    {
        const std::unique_ptr<int, Freer<countFreed>> owner(&object);
        const std::unique_ptr<int, Freer<countFreed>> nothing;
    }
    EXPECT_EQ(freed, 1);
}

TEST(OpenSslError, IsTheReasonOfTheFailureAndLeavesNoneBehind) {
    const KeyPtr none(EVP_PKEY_new_raw_public_key(EVP_PKEY_X25519, nullptr, nullptr, 1)); // keys have 32 bytes
    ASSERT_FALSE(none);
    EXPECT_NE(thrownText("none"), "none");
    EXPECT_EQ(ERR_peek_error(), 0U);
    EXPECT_EQ(thrownText("none"), "none");
}

TEST(OpenSslBytes, AreNeverANullPointerWhereTheyAreRead) {
    EXPECT_NE(octetsOf(ByteView()), nullptr);
    const Bytes bytes{std::byte{7}};
    EXPECT_EQ(*octetsOf(ByteView(bytes)), 7);
}

} // namespace
} // namespace orlinth::platform::detail
