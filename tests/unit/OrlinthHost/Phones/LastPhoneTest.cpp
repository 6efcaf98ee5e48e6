#include "OrlinthHost/Phones/LastPhone.h"

#include "fakes/World.h"
#include "platform/WholeFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

namespace orlinth::host {
namespace {

class LastPhoneTest : public testing::Test {
protected:
    fakes::World world;
    Home home{world.system, world.context.get_executor()};
    LastPhone last{home};
    const platform::Path file = home.dataDirectory() / LastPhone::fileName;
    const PeerKey phone = world.phoneRecord().peer_pubkey;
};

TEST_F(LastPhoneTest, IsRememberedForTheOwnerAloneAndWrittenOnlyIfItIsAnother) {
    home.peers().writeBook({{world.phoneRecord()}});
    const std::size_t locksBefore = world.files.count(fakes::Operation::lock);
    EXPECT_EQ(last.load(), std::nullopt);
    EXPECT_TRUE(last.remember(phone));
    EXPECT_EQ(LastPhone(home).load(), phone);
    EXPECT_EQ(world.files.status(file)->permissions, 0600U);
    const std::size_t before = world.files.mutations();
    EXPECT_FALSE(last.remember(phone));
    EXPECT_EQ(world.files.mutations(), before);
    EXPECT_EQ(world.files.count(fakes::Operation::lock), locksBefore) << "it waits for nobody";
}

TEST_F(LastPhoneTest, IsUnknownIfTheFileMakesNoSense) {
    world.files.createDirectories(home.dataDirectory(), 0700);
    for (const std::string& text :
         {std::string("{"), std::string("[]"), std::string(R"({"peer_pubkey": 7})"),
          std::string(R"({"peer_pubkey": "short"})"), std::string(2000, ' ') + R"({"peer_pubkey": "x"})"}) {
        platform::writeWholeFile(world.files, file, asBytes(text));
        EXPECT_EQ(last.load(), std::nullopt) << text;
    }
    EXPECT_TRUE(last.remember(phone));
    EXPECT_EQ(last.load(), phone);
}

TEST_F(LastPhoneTest, ThatCannotBeSavedHoldsNothingUp) {
    home.peers().writeBook({{world.phoneRecord()}});
    world.files.addFault(
        {.operation = fakes::Operation::rename, .errorNumber = EROFS, .nameEnding = LastPhone::fileName});
    EXPECT_FALSE(last.remember(phone));
    EXPECT_EQ(last.load(), std::nullopt);
    EXPECT_THAT(world.log.messages(),
                testing::Contains(testing::HasSubstr("cannot save which phone was sent to last")));
}

} // namespace
} // namespace orlinth::host
