#include "OrlinthHost/Service/PhoneArrivals.h"

#include "OrlinthHost/Phones/AddressMemory.h"
#include "OrlinthHost/Phones/PairedPhones.h"
#include "fakes/World.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

namespace orlinth::host {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

platform::IpAddress address(const std::string& literal) {
    return platform::parseIpAddress(literal).value();
}

class PhoneArrivalsTest : public testing::Test {
protected:
    PhoneArrivalsTest() { pair({world_.phoneRecord(), tablet()}); }
    ~PhoneArrivalsTest() override { world_.run(arrivals_.finish()); }

    [[nodiscard]] PeerRecord tablet() const {
        PeerRecord record = world_.phoneRecord();
        record.peer_pubkey = tabletKey_.publicKey().peerKey();
        record.peer_hostname = "Tablet";
        return record;
    }
    void pair(const std::vector<PeerRecord>& records) { home_.peers().writeBook({records}); }
    [[nodiscard]] AddressMemory memory() { return {world_.files, world_.clock, world_.log, home_.dataDirectory()}; }
    [[nodiscard]] std::vector<KnownAddress> known(const PeerRecord& phone) {
        return memory().addressesOf(phone.peer_pubkey);
    }
    [[nodiscard]] std::vector<std::string> literals(const PeerRecord& phone) {
        std::vector<std::string> literals;
        for (const KnownAddress& one : known(phone)) {
            literals.push_back(one.host.literal());
        }
        return literals;
    }
    /// It comes from there, and whatever follows is done.
    void come(const PeerRecord& phone, const std::string& endpoint) {
        arrivals_.came({.phone = phone, .remoteEndpoint = endpoint});
        settle();
    }
    void settle() {
        world_.context.restart();
        world_.context.poll();
    }
    [[nodiscard]] std::size_t writes() const {
        return static_cast<std::size_t>(std::ranges::count_if(world_.files.history(), [](const std::string& step) {
            return step.starts_with("rename ") && step.ends_with("/addresses.json");
        }));
    }

    fakes::World world_;
    const platform::PrivateKey tabletKey_ = platform::PrivateKey::generate();
    Home home_{world_.system, world_.context.get_executor()};
    int learnt_ = 0;
    PhoneArrivals arrivals_{home_, [this] { ++learnt_; }};
    const PeerRecord phone_ = world_.phoneRecord();
};

TEST_F(PhoneArrivalsTest, AreRememberedWithWhatTheLinkSaysOfThem) {
    const Bytes hardware{std::byte{0x3E}, std::byte{0x5A}, std::byte{0xB4}, std::byte{1}, std::byte{2}, std::byte{3}};
    world_.neighbours.put(fakes::MemoryNeighbours::entry(address("192.168.1.7"), platform::NeighbourState::reachable,
                                                         hardware, "enp3s0"));
    world_.routes.putOnLink(address("192.168.1.7"), "enp3s0");
    come(phone_, "192.168.1.7:40112");
    const std::vector<KnownAddress> addresses = known(phone_);
    ASSERT_EQ(addresses.size(), 1U);
    EXPECT_EQ(addresses[0].host.text(), "192.168.1.7");
    EXPECT_EQ(addresses[0].mac, MacAddress::parse("3e:5a:b4:01:02:03"));
    EXPECT_EQ(addresses[0].came, world_.clock.epochMilliseconds());
    EXPECT_EQ(addresses[0].reached, std::nullopt) << "nobody knows whether it can be reached there";
    EXPECT_THAT(known(tablet()), IsEmpty());
    EXPECT_EQ(learnt_, 1);
}

TEST_F(PhoneArrivalsTest, ChangeNoRecordWhereverAPhoneComesFrom) {
    for (const char* endpoint : {"192.168.1.1:40112", "[2001:db8::7]:40112", "[fe80::1%enp3s0]:40112",
                                 "127.0.0.1:40112", "[::1]:40112", "somewhere"}) {
        come(phone_, endpoint);
        world_.run(world_.clock.sleep(PhoneArrivals::interval));
    }
    EXPECT_THAT(literals(phone_), ElementsAre("fe80::1%enp3s0", "2001:db8::7", "192.168.1.1"));
    EXPECT_THAT(home_.peers().loadBook().peers, ElementsAre(phone_, tablet()));
}

TEST_F(PhoneArrivalsTest, OfAThousandFilesInAMinuteAreOneWriteAPhone) {
    for (int i = 0; i < 1000; ++i) {
        come(phone_, "192.168.1." + std::to_string(1 + i % 200) + ":40112");
        if (i % 20 == 0) {
            world_.run(world_.clock.sleep(1s)); // 50 seconds in all
        }
    }
    EXPECT_EQ(writes(), 1U);
    EXPECT_EQ(world_.files.count(fakes::Operation::lock), 2U) << "of the phones' records, and of the addresses";
    come(tablet(), "192.168.1.8:40112");
    EXPECT_EQ(writes(), 2U);
    world_.run(world_.clock.sleep(10s));
    come(phone_, "192.168.1.9:40112");
    EXPECT_EQ(writes(), 3U);
}

TEST_F(PhoneArrivalsTest, OfARemovedPhoneAreNotRemembered) {
    arrivals_.came({.phone = phone_, .remoteEndpoint = "192.168.1.7:40112"});
    static_cast<void>(PairedPhones(home_).remove(phone_, world_.computerKey.publicKey()));
    settle();
    EXPECT_THAT(known(phone_), IsEmpty());
}

TEST_F(PhoneArrivalsTest, AreForgottenOnceThePhoneIsNotPairedAnyMore) {
    come(phone_, "192.168.1.7:40112");
    come(tablet(), "192.168.1.8:40112");
    arrivals_.peersChanged();
    settle();
    EXPECT_THAT(literals(phone_), ElementsAre("192.168.1.7"));
    pair({tablet()}); // as when the phone has unpaired itself
    arrivals_.peersChanged();
    settle();
    EXPECT_THAT(known(phone_), IsEmpty());
    EXPECT_THAT(literals(tablet()), ElementsAre("192.168.1.8"));
}

TEST_F(PhoneArrivalsTest, StayWhereTheStoreCannotBeRead) {
    come(phone_, "192.168.1.7:40112");
    world_.files.put(home_.peers().fileURL(), "rubbish");
    arrivals_.peersChanged();
    come(tablet(), "192.168.1.8:40112");
    EXPECT_THAT(literals(phone_), ElementsAre("192.168.1.7"));
    EXPECT_THAT(known(tablet()), IsEmpty()) << "nobody knows whether it is paired";
}

TEST_F(PhoneArrivalsTest, ThatCannotBeSavedAreLoggedAndNothingElse) {
    world_.files.addFault(
        {.operation = fakes::Operation::rename, .errorNumber = EROFS, .nameEnding = "addresses.json"});
    come(phone_, "192.168.1.7:40112");
    EXPECT_THAT(known(phone_), IsEmpty());
    EXPECT_EQ(world_.log.messages().size(), 1U);
}

TEST_F(PhoneArrivalsTest, NeedNothingOfTheNetwork) {
    world_.interfaces.listErrno = EMFILE;
    world_.neighbours.listErrno = EMFILE;
    world_.routes.errorNumber = EMFILE;
    come(phone_, "192.168.1.7:40112");
    EXPECT_THAT(literals(phone_), ElementsAre("192.168.1.7"));
}

} // namespace
} // namespace orlinth::host
