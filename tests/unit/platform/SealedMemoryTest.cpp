#include "platform/linux/SealedMemory.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace orlinth::platform {
namespace {

using detail::Descriptor;
using detail::readSealedMemory;
using detail::sealedMemory;

/// Why it is refused; "" if it is not.
std::string refusal(const Descriptor& file, std::size_t maxBytes = 100) {
    try {
        static_cast<void>(readSealedMemory(file, maxBytes));
    } catch (const SystemError& error) {
        return error.description();
    }
    return "";
}

TEST(SealedMemory, GivesBackWhatWasPutThere) {
    for (const std::string& text : {std::string(), std::string("correct horse"), std::string(1 << 20, 'x')}) {
        const Descriptor file = sealedMemory(asBytes(text));
        for (int reader = 0; reader < 2; ++reader) {
            EXPECT_TRUE(toText(readSealedMemory(file, text.size()).reveal()) == text);
        }
    }
}

TEST(SealedMemory, NeverChanges) {
    const Descriptor file = sealedMemory(asBytes("text"));
    EXPECT_EQ(::pwrite(file.get(), "x", 1, 0), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(::ftruncate(file.get(), 1), -1);
    EXPECT_EQ(::ftruncate(file.get(), 100), -1);
    EXPECT_EQ(::fcntl(file.get(), F_ADD_SEALS, 0), -1);
    EXPECT_NE(::fcntl(file.get(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST(SealedMemory, IsRefusedWhenItIsTooLarge) {
    const Descriptor file = sealedMemory(asBytes("text"));
    EXPECT_EQ(refusal(file, 4), "");
    EXPECT_EQ(refusal(file, 3), "Message too long");
}

TEST(SealedMemory, IsNothingElse) {
    const std::string expected = "no sealed memory was passed";
    EXPECT_EQ(refusal(Descriptor(::memfd_create("open", MFD_CLOEXEC | MFD_ALLOW_SEALING))), expected);
    EXPECT_EQ(refusal(Descriptor(::open("/dev/zero", O_RDONLY | O_CLOEXEC))), expected);
    EXPECT_EQ(refusal(Descriptor()), expected);
    const Descriptor half(::memfd_create("half", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    ASSERT_EQ(::fcntl(half.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW), 0);
    EXPECT_EQ(refusal(half), expected) << "it could still be written";
}

} // namespace
} // namespace orlinth::platform
