#include "OrlinthHost/Phones/AddressMemory.h"
#include "OutboxWorld.h"
#include "fakes/ProvenKey.h"

#include <gmock/gmock.h>

#include <cerrno>

namespace orlinth::host {
namespace {

using testing::Each;
using testing::ElementsAre;

/// A phone whose record has an address at which nobody answers, and which was met at another one on this computer's
/// link. There it proves its key.
class OutboxMovedPhoneTest : public OutboxWorldTest {
protected:
    OutboxMovedPhoneTest() {
        world_.network.makeSilent(oldAddress);
        world_.routes.putOnLink(newIp, "enp3s0");
        AddressMemory(world_.files, world_.clock, world_.log, home_.dataDirectory())
            .reached(phone, {.host = HostAddress::parse(newAddress).value()});
        world_.probe.accept(newIp, fakes::World::phonePort, [this](std::unique_ptr<fakes::MemoryStream> stream) {
            world_.alongside(fakes::proveKey(std::move(stream), world_.phoneKey.clone(), received_));
        });
    }

    [[nodiscard]] std::string recorded() const { return home_.peers().loadBook().peers.front().peer_ip; }

    const std::string oldAddress = world_.phoneRecord().peer_ip;
    const std::string newAddress = "192.168.1.57";
    const platform::IpAddress newIp = platform::parseIpAddress(newAddress).value();
    const PeerKey phone = world_.phoneRecord().peer_pubkey;
    std::size_t received_ = 0;
};

TEST_F(OutboxMovedPhoneTest, GetsItsFilesInTheSameAttempt) {
    put(first, {"a.txt", "b.txt"});
    world_.alongside(take(2));
    std::vector<std::string> provedAt;
    sender_.emplace(home_, world_.computerKey, events_);
    sender_->onContact = [&provedAt](const PeerRecord& record, OutboxSender::Contact contact,
                                     platform::Clock::Instant) {
        EXPECT_EQ(contact, OutboxSender::Contact::proved);
        provedAt.push_back(record.peer_ip);
    };
    sender_->start();
    pass(400ms);
    EXPECT_THAT(taken_, ElementsAre("a.txt", "b.txt"));
    EXPECT_EQ(recorded(), newAddress);
    EXPECT_TRUE(told(What::waiting).empty());
    EXPECT_THAT(provedAt, Each(newAddress));
}

TEST_F(OutboxMovedPhoneTest, IsNotTriedAnewForTheAddressThatWasJustRecorded) {
    world_.network.makeSilent(newAddress);
    put(first, {"a.txt"});
    start();
    pass(400ms);
    EXPECT_EQ(recorded(), newAddress);
    EXPECT_EQ(attempts(), 2u);
    sender_->peersChanged();
    pass(1s);
    EXPECT_EQ(attempts(), 2u);
}

TEST_F(OutboxMovedPhoneTest, GetsAllItsFilesAtAnAddressThatIsNotRecorded) {
    world_.probe.makeSilent(newIp, fakes::World::phonePort);
    const platform::IpAddress ipv6 = platform::parseIpAddress("fd00::57").value();
    world_.routes.putOnLink(ipv6, "enp3s0");
    AddressMemory(world_.files, world_.clock, world_.log, home_.dataDirectory())
        .reached(phone, {.host = HostAddress::parse("fd00::57").value()});
    world_.probe.accept(ipv6, fakes::World::phonePort, [this](std::unique_ptr<fakes::MemoryStream> stream) {
        world_.alongside(fakes::proveKey(std::move(stream), world_.phoneKey.clone(), received_));
    });
    put(first, {"a.txt", "b.txt", "c.txt"});
    world_.alongside(take(3));
    start();
    pass(400ms);
    EXPECT_THAT(taken_, ElementsAre("a.txt", "b.txt", "c.txt"));
    EXPECT_EQ(recorded(), oldAddress);
    world_.network.makeSilent("fd00::57"); // and now it goes
    world_.probe.makeSilent(ipv6, fakes::World::phonePort);
    put(second, {"d.txt"});
    ring();
    pass(12s);
    EXPECT_EQ(world_.network.attempts.back().first, oldAddress) << "where the next attempt begins again";
}

TEST_F(OutboxMovedPhoneTest, IsNotTriedForEverIfWhatWasFoundIsOfNoUse) {
    world_.network.makeFailWithErrno(newAddress, ECONNREFUSED, world_.clock);
    put(first, {"a.txt"});
    start();
    pass(20min);
    EXPECT_LE(attempts(), 8u);
}

TEST_F(OutboxMovedPhoneTest, IsLeftAloneIfNobodyMayBeAsked) {
    put(first, {"a.txt"});
    sender_.emplace(home_, world_.computerKey, events_, FindSetting::never);
    sender_->start();
    pass(10s);
    EXPECT_TRUE(world_.probe.attempts.empty());
    EXPECT_EQ(recorded(), oldAddress);
}

} // namespace
} // namespace orlinth::host
