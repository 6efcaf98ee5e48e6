#include "OrlinthCore/SecureChannel/FrameBuffer.h"

#include "base/Hex.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace orlinth {
namespace {

TEST(FrameBuffer, IsEmptyAtFirst) {
    FrameBuffer buffer;
    EXPECT_TRUE(buffer.body().empty());
    EXPECT_EQ(buffer.bodyCapacity(), 0u);
    EXPECT_EQ(hexEncode(buffer.frame()), "00000000");
}

TEST(FrameBuffer, PutsTheLengthBeforeTheBodyMostSignificantByteFirst) {
    FrameBuffer buffer;
    buffer.resizeBody(261);
    std::ranges::fill(buffer.body(), std::byte{0xEE});
    const ByteView frame = buffer.frame();
    ASSERT_EQ(frame.size(), 265u);
    EXPECT_EQ(hexEncode(frame.first(6)), "00000105eeee");
    EXPECT_EQ(frame.data() + FrameBuffer::prefixBytes, buffer.body().data()) << "the body was copied";
}

TEST(FrameBuffer, KeepsTheBodyWhenItGrowsAndWhenItShrinks) {
    FrameBuffer buffer;
    buffer.resizeBody(4);
    std::ranges::copy(asBytes("abcd"), buffer.body().begin());
    buffer.resizeBody(100'000);
    EXPECT_EQ(toText(buffer.body().first(4)), "abcd");
    buffer.resizeBody(2);
    EXPECT_EQ(toText(buffer.body()), "ab");
}

TEST(FrameBuffer, TakesNoNewMemoryWithinItsCapacity) {
    FrameBuffer buffer;
    buffer.resizeBody(1000);
    const std::byte* const place = buffer.body().data();
    buffer.resizeBody(0);
    EXPECT_EQ(buffer.bodyCapacity(), 1000u);
    buffer.resizeBody(1000);
    EXPECT_EQ(buffer.body().data(), place);
}

TEST(FrameBuffer, LeavesAnEmptyOneBehindWhenItIsMoved) {
    FrameBuffer from;
    from.resizeBody(3);
    std::ranges::copy(asBytes("abc"), from.body().begin());
    FrameBuffer to(std::move(from));
    EXPECT_EQ(toText(to.body()), "abc");
    // NOLINTBEGIN(bugprone-use-after-move): what is left is the question
    EXPECT_TRUE(from.body().empty());
    EXPECT_EQ(from.bodyCapacity(), 0u);
    from = std::move(to);
    // NOLINTEND(bugprone-use-after-move)
    EXPECT_EQ(hexEncode(from.frame()), "00000003616263");
    EXPECT_EQ(hexEncode(to.frame()), "00000000");
}

} // namespace
} // namespace orlinth
