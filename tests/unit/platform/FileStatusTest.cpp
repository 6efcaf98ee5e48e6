#include "platform/FileSystem.h"

#include <gtest/gtest.h>

namespace orlinth::platform {
namespace {

template <typename Place>
concept Seeks = requires(File& file, Place place) { file.seek(place); };
template <typename First, typename Second>
concept WritesBack = requires(File& file, First first, Second second) { file.startWriteback(first, second); };

static_assert(Seeks<ByteOffset> && !Seeks<std::int64_t>);
static_assert(WritesBack<ByteOffset, std::int64_t>);
static_assert(!WritesBack<std::int64_t, ByteOffset> && !WritesBack<std::int64_t, std::int64_t>,
              "a swapped pair would write out another part of the file");

constexpr FileStatus look{.kind = FileKind::regular,
                          .size = 10,
                          .modifiedAt = fromEpochNanoseconds(1'000),
                          .inode = 7,
                          .device = 2,
                          .permissions = 0600};

TEST(FileStatus, IsOfTheSameFileWhateverHasBecomeOfItsContent) {
    FileStatus later = look;
    later.size = 0;
    later.modifiedAt = fromEpochNanoseconds(2'000);
    later.permissions = 0644;
    later.names = 2;
    EXPECT_TRUE(isSameFile(look, later));
    EXPECT_FALSE(isSameContent(look, later));
}

TEST(FileStatus, IsOfAnotherFileByItsInodeOrItsDevice) {
    FileStatus inode = look;
    inode.inode = 8;
    FileStatus device = look;
    device.device = 3;
    for (const FileStatus& other : {inode, device}) {
        EXPECT_FALSE(isSameFile(look, other));
        EXPECT_FALSE(isSameContent(look, other));
    }
}

TEST(FileStatus, IsOfTheSameContentWhereNeitherSizeNorTimeHasChanged) {
    FileStatus size = look;
    size.size = 11;
    FileStatus time = look;
    time.modifiedAt = fromEpochNanoseconds(1'001);
    FileStatus permissions = look;
    permissions.permissions = 0644;
    EXPECT_FALSE(isSameContent(look, size));
    EXPECT_FALSE(isSameContent(look, time));
    EXPECT_TRUE(isSameContent(look, permissions));
}

} // namespace
} // namespace orlinth::platform
