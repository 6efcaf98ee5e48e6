#include "OrlinthHost/Service/ServicePort.h"

#include "ServiceWorld.h"

#include <gmock/gmock.h>

#include <cerrno>

namespace orlinth::host {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Case = PortError::Case;

/// Where a service listens, and what is in the way.
class ServicePortTest : public ServiceWorldTest {
protected:
    /// How opening the port fails.
    [[nodiscard]] PortError failure() {
        ServicePort made(home_, settings_.port, [](const std::string&) {});
        return world_.failure<PortError>(made.open());
    }
    /// Where a pairing listens that borrows the port from a service at these places.
    [[nodiscard]] std::vector<std::string> lentOf(std::vector<std::string> places) {
        const ServicePort made(home_, {.number = port, .places = std::move(places)}, [](const std::string&) {});
        static_cast<void>(made.listenForPairing({.port = port, .keepAlive = std::nullopt}, home_.executor));
        return world_.network.listens.back().places;
    }
};

TEST_F(ServicePortTest, IsOpenEverywhereUnlessPlacesAreNamed) {
    start();
    EXPECT_THAT(world_.network.listens.back().places, IsEmpty());
    EXPECT_TRUE(world_.network.listens.back().keepAlive) << "a phone that is gone is noticed";
    stop();
    settings_.port.places = {"enp3s0", "192.168.1.23", "enp3s0"};
    start();
    EXPECT_THAT(world_.network.listens.back().places, ElementsAre("enp3s0", "192.168.1.23"));
}

TEST_F(ServicePortTest, IsOpenAtTheSamePlacesAgainAfterALoan) {
    settings_.port.places = {"enp3s0", "lo"};
    start();
    world_.network.listens.clear();
    static_cast<void>(world_.run(BorrowedPort::borrow(home_, std::nullopt)));
    settle();
    ASSERT_EQ(2U, world_.network.listens.size());
    EXPECT_THAT(world_.network.listens[0].places, ElementsAre("enp3s0")) << "one socket is lent";
    EXPECT_THAT(world_.network.listens[1].places, ElementsAre("enp3s0", "lo"));
}

TEST_F(ServicePortTest, LendsThePlaceThatAPhoneReachesBest) {
    platform::InterfaceAddress loopback = fakes::FakeNetworkInterfaces::ipv4("lo", {127, 0, 0, 1});
    loopback.isLoopback = true;
    world_.interfaces.addresses.push_back(loopback);
    EXPECT_THAT(lentOf({}), IsEmpty());
    EXPECT_THAT(lentOf({"lo", "enp3s0"}), ElementsAre("enp3s0"));
    EXPECT_THAT(lentOf({"fe80::1", "127.0.0.1"}), ElementsAre("127.0.0.1"));
    EXPECT_THAT(lentOf({"127.0.0.2", "192.168.1.23", "10.0.0.1"}), ElementsAre("192.168.1.23"));
    EXPECT_THAT(lentOf({"fe80::1", "fe80::2"}), ElementsAre("fe80::1"));
    EXPECT_THAT(lentOf({"::1", "lo"}), ElementsAre("lo"));
}

TEST_F(ServicePortTest, IsTheOneThatAServiceManagerHasOpened) {
    world_.network.inherited = 7200;
    start();
    EXPECT_THAT(events_.all, ElementsAre("inherited 7200", "known 1", "listening 7200, phones 1"));
    EXPECT_EQ(7200, world_.run(askServicePort(home_)));
    static_cast<void>(world_.run(BorrowedPort::borrow(home_, std::nullopt)));
    settle();
    EXPECT_EQ(7200, world_.network.listens.back().port) << "also after a loan";
}

TEST_F(ServicePortTest, MayBeAnyThatIsFree) {
    settings_.port.number = 0;
    start();
    const std::optional<std::uint16_t> chosen = world_.run(askServicePort(home_));
    ASSERT_TRUE(chosen);
    EXPECT_EQ(1, events_.count("listening " + std::to_string(*chosen) + ", phones 1"));
    static_cast<void>(world_.run(BorrowedPort::borrow(home_, std::nullopt)));
    settle();
    EXPECT_EQ(*chosen, world_.network.listens.back().port) << "the same again after a loan";
}

TEST_F(ServicePortTest, TheUsersOwnServiceMayHaveIt) {
    start();
    const PortError error = failure();
    EXPECT_EQ(Case::usedByService, error.which());
    EXPECT_EQ(port, error.port());
    EXPECT_EQ("listener start failed: Address already in use", error.description());
}

TEST_F(ServicePortTest, SomebodyElseMayHaveIt) {
    const std::unique_ptr<platform::Listener> other =
        world_.network.listen({.port = 7101, .keepAlive = std::nullopt}, world_.context.get_executor());
    start();
    settings_.port.number = 7101;
    EXPECT_EQ(Case::usedByOther, failure().which());
    stop();
    EXPECT_EQ(Case::usedByOther, failure().which());
}

TEST_F(ServicePortTest, ItMayBeForbidden) {
    world_.network.listenErrno = EACCES;
    EXPECT_EQ(Case::forbidden, failure().which());
    world_.network.listenErrno = EMFILE;
    EXPECT_EQ(Case::other, failure().which());
}

TEST_F(ServicePortTest, APlaceMayNotBeOfThisComputer) {
    for (const int number : {ENODEV, EADDRNOTAVAIL}) {
        settings_.port.places = {"enp3s0", "eth7"};
        world_.network.placeErrnos = {{"eth7", number}};
        EXPECT_EQ(Case::noSuchPlace, failure().which());
        settings_.port.places = {};
        world_.network.listenErrno = number;
        EXPECT_EQ(Case::other, failure().which()) << "nobody has named a place";
        world_.network.listenErrno.reset();
    }
}

TEST_F(ServicePortTest, PlacesMayExcludeEachOther) {
    settings_.port.places = {"0.0.0.0", "192.168.1.23"};
    world_.network.placesExcludeEachOther = true;
    EXPECT_EQ(Case::placesExcludeEachOther, failure().which());
    world_.network.placeErrnos = {{"192.168.1.23", EADDRINUSE}};
    EXPECT_EQ(Case::usedByOther, failure().which()) << "one of them is somebody else's";
}

} // namespace
} // namespace orlinth::host
