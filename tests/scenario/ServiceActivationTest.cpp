#include "OrlinthCore/Share/ServiceActivation.h"

#include "OrlinthCore/Share/ServicePresence.h"
#include "fakes/World.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orlinth {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Outcome = platform::ServiceStart::Outcome;

const std::string byHand = "The Orlinth service is not running. Files will be sent once it starts: `orlinth serve`";

class ServiceActivationTest : public testing::Test {
protected:
    ServiceActivationTest() { world_.system.directories.home = "/home/ann"; }

    [[nodiscard]] std::string start() {
        return ServiceActivation::startForOutbox(world_.userServices, world_.system.directories);
    }

    fakes::World world_;
};

TEST_F(ServiceActivationTest, AServiceRunsIfItTakesConnectionsAndIsToldTheVersion) {
    const platform::Path socket = ServicePresence::socketOf(world_.system.directories);
    EXPECT_FALSE(world_.run(ServiceActivation::isRunning(world_.unixSockets, socket, "1.2")));
    const auto service = world_.unixSockets.listen(socket, world_.context.get_executor());
    EXPECT_TRUE(world_.run(ServiceActivation::isRunning(world_.unixSockets, socket, "1.2")));
    const std::unique_ptr<platform::Stream> stream = world_.run(service->accept(world_.context.get_executor()));
    const std::string expected = "{\"request\":\"port\",\"version\":\"1.2\"}\n";
    Bytes told(expected.size() + 1);
    told.resize(world_.run(stream->readExact(told)));
    EXPECT_EQ(toText(told), expected);
}

TEST_F(ServiceActivationTest, AServiceThatStartsIsNothingToTell) {
    world_.userServices.outcome = {.outcome = Outcome::running};
    EXPECT_EQ(start(), "");
    EXPECT_THAT(world_.userServices.asked(), ElementsAre("start com.tarvinex.orlinth1 orlinth.service"));
}

TEST_F(ServiceActivationTest, WhereNobodyStartsServicesThePersonDoes) {
    EXPECT_EQ(start(), byHand);
}

TEST_F(ServiceActivationTest, AServiceThatDoesNotStartIsToldWithTheReason) {
    world_.userServices.outcome = {.outcome = Outcome::failed, .problem = "systemd reports: failed"};
    EXPECT_EQ(start(), "The Orlinth service cannot be started: systemd reports: failed. Files will be sent once it "
                       "runs. To see what is wrong: `orlinth serve`");
}

TEST_F(ServiceActivationTest, TheServiceOfAnotherDataFolderIsLeftToThePerson) {
    world_.userServices.outcome = {.outcome = Outcome::running};
    for (const char* home : {"/home/bob", ""}) {
        world_.system.directories.home = home;
        EXPECT_EQ(start(), byHand);
    }
    EXPECT_THAT(world_.userServices.asked(), IsEmpty());
}

} // namespace
} // namespace orlinth
