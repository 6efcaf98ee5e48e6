#include "base/SecretBytes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <concepts>
#include <type_traits>

namespace orlinth {
namespace {

static_assert(!std::is_copy_constructible_v<SecretBytes> && !std::is_copy_assignable_v<SecretBytes>);
static_assert(std::is_nothrow_move_constructible_v<SecretBytes> && std::is_nothrow_move_assignable_v<SecretBytes>);
static_assert(!std::equality_comparable<SecretBytes>, "a comparison would not run in constant time");

TEST(SecretBytes, StartsAsZerosOfTheAskedSize) {
    const SecretBytes secret(40);
    EXPECT_EQ(secret.size(), 40u);
    EXPECT_TRUE(std::ranges::all_of(secret.reveal(), [](std::byte byte) { return byte == std::byte{0}; }));
}

TEST(SecretBytes, CopiesWhatItIsGiven) {
    Bytes original = toBytes("the key under the mat");
    const SecretBytes secret(original);
    original[0] = std::byte{'T'};
    EXPECT_EQ(toText(secret.reveal()), "the key under the mat");
}

TEST(SecretBytes, LeavesNothingBehindWhenItIsMoved) {
    SecretBytes from(asBytes("secret"));
    const SecretBytes to(std::move(from));
    EXPECT_EQ(toText(to.reveal()), "secret");
    EXPECT_TRUE(from.empty()); // NOLINT(bugprone-use-after-move): what is left is the question
    EXPECT_EQ(from.reveal().data(), nullptr);
}

TEST(SecretBytes, SurvivesBeingMovedIntoItself) {
    SecretBytes secret(asBytes("secret"));
    SecretBytes& same = secret;
    secret = std::move(same);
    EXPECT_EQ(toText(secret.reveal()), "secret");
}

TEST(SecretBytes, TakesOverTheOtherSecretOnAssignment) {
    SecretBytes secret(asBytes("old one"));
    secret = SecretBytes(asBytes("new"));
    EXPECT_EQ(toText(secret.reveal()), "new");
}

TEST(SecretBytes, IsEmptyByDefault) {
    SecretBytes secret;
    EXPECT_TRUE(secret.empty());
    EXPECT_TRUE(secret.revealMutable().empty());
}

TEST(Wipe, OverwritesAllBytesWithZeros) {
    std::array<std::byte, 5> memory{std::byte{1}, std::byte{2}, std::byte{3}, std::byte{4}, std::byte{5}};
    wipe(std::span(memory).first(4));
    const std::array<std::byte, 5> expected{std::byte{0}, std::byte{0}, std::byte{0}, std::byte{0}, std::byte{5}};
    EXPECT_EQ(memory, expected);
    wipe({});
}

} // namespace
} // namespace orlinth
