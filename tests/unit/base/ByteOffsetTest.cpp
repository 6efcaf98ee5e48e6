#include "base/ByteOffset.h"

#include <gtest/gtest.h>

#include <type_traits>

namespace orlinth {
namespace {

template <typename One, typename Other>
concept Adds = requires(One one, Other other) { one + other; };
template <typename One, typename Other>
concept Compares = requires(One one, Other other) { one < other; };

static_assert(!std::is_convertible_v<std::int64_t, ByteOffset> && !std::is_convertible_v<ByteOffset, std::int64_t>,
              "an offset is not taken for a size, nor a size for an offset");
static_assert(Adds<ByteOffset, std::int64_t> && !Adds<ByteOffset, ByteOffset>);
static_assert(Compares<ByteOffset, ByteOffset> && !Compares<ByteOffset, std::int64_t>);

TEST(ByteOffset, MovesByBytesAndTellsWhatLiesBetween) {
    ByteOffset offset;
    EXPECT_EQ(offset.bytesBefore(), 0);
    offset += 7;
    EXPECT_EQ(offset, ByteOffset(7));
    EXPECT_EQ(offset + 3, ByteOffset(10));
    EXPECT_EQ(ByteOffset(10) - offset, 3);
    EXPECT_LT(offset, ByteOffset(8));
}

} // namespace
} // namespace orlinth
