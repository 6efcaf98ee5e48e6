#include "OrlinthHost/Reach/Finder.h"

#include "FinderWorld.h"
#include "OrlinthHost/Phones/PairedPhones.h"
#include "fakes/CrashTrials.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <functional>
#include <map>
#include <set>

namespace orlinth::host {
namespace {

using fakes::FakeNetworkInterfaces;
using platform::IpAddress;
using platform::NeighbourState;
using platform::PrivateKey;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class FinderTest : public FinderWorldTest {
protected:
    /// Where it is found; "" if nowhere. The search ends then.
    [[nodiscard]] std::string search(bool isUrgent = false) { return world.run(searchWith(find, isUrgent)); }
    [[nodiscard]] Task<std::string> searchWith(FindSetting setting, bool isUrgent) {
        Finder finder(homeOf, setting, rate);
        std::unique_ptr<Finder::Search> one = finder.begin(record);
        if (isUrgent) {
            one->hurry();
        }
        co_await one->untilOver();
        const std::optional<HostAddress> found = one->found();
        foundAfter = world.clock.elapsed();
        one.reset();
        co_await finder.finish();
        co_return found ? found->literal() : "";
    }

    /// The record and `other`, with one finder.
    [[nodiscard]] Task<> findBoth(PeerRecord other) {
        Finder finder(homeOf, find, rate);
        std::unique_ptr<Finder::Search> one = finder.begin(record);
        std::unique_ptr<Finder::Search> two = finder.begin(other);
        co_await one->untilOver();
        co_await two->untilOver();
        EXPECT_EQ(one->found(), host("192.168.7.57"));
        EXPECT_EQ(two->found(), host("192.168.7.90"));
        one.reset();
        two.reset();
        co_await finder.finish();
    }
    static Task<> ignoring(Task<std::string> task) { static_cast<void>(co_await std::move(task)); }

    [[nodiscard]] std::set<IpAddress> asked() const {
        std::set<IpAddress> addresses;
        for (const auto& attempt : world.probe.attempts) {
            EXPECT_TRUE(addresses.insert(attempt.address).second) << platform::textOf(attempt.address) << " twice";
        }
        return addresses;
    }

    FindSetting find = FindSetting::known;
    SweepRate rate = SweepRate::shared;
    double foundAfter = 0; ///< seconds
};

TEST_F(FinderTest, FindsThePhoneWhereItWasMetBefore) {
    meetAt("192.168.7.30");
    meetAt("192.168.7.57");
    answer("192.168.7.57", world.phoneKey);
    EXPECT_EQ(search(), "192.168.7.57");
    EXPECT_DOUBLE_EQ(foundAfter, 0.3);
    EXPECT_THAT(asked(), SizeIs(1));
    EXPECT_EQ(received["192.168.7.57"], fakes::bytesOfFirstMessage);
}

TEST_F(FinderTest, WaitsForNothingIfThereIsEvidence) {
    meetAt("192.168.7.57");
    answer("192.168.7.57", world.phoneKey);
    EXPECT_EQ(search(true), "192.168.7.57");
    EXPECT_DOUBLE_EQ(foundAfter, 0);
}

TEST_F(FinderTest, AsksNobodyWhileTheRecordedAddressHasItsTurn) {
    meetAt("192.168.7.57");
    Finder finder(homeOf, find);
    std::unique_ptr<Finder::Search> one = finder.begin(record);
    const auto beforeThen = [](platform::Clock& clock) -> Task<> { co_await clock.sleep(299ms); };
    world.run(beforeThen(world.clock));
    EXPECT_THAT(world.probe.attempts, IsEmpty());
    one.reset();
    world.run(finder.finish());
    EXPECT_THAT(world.probe.attempts, IsEmpty());
    EXPECT_DOUBLE_EQ(world.clock.elapsed(), 0.299);
}

TEST_F(FinderTest, FindsThePhoneByItsHardwareAddress) {
    meetAt("192.168.7.30", phoneMac);
    world.neighbours.put(neighbour("192.168.7.57", NeighbourState::stale, phoneMac));
    answer("192.168.7.57", world.phoneKey);
    EXPECT_EQ(search(), "192.168.7.57");
    EXPECT_THAT(asked(), SizeIs(1));
}

TEST_F(FinderTest, FindsAPhoneThatSharesItsConnectionAsTheRouter) {
    answer("192.168.7.1", world.phoneKey);
    EXPECT_EQ(search(), "192.168.7.1");
    EXPECT_THAT(asked(), SizeIs(1));
}

TEST_F(FinderTest, FindsThePhoneByASweep) {
    meetAt("192.168.7.30");
    answer("192.168.7.57", world.phoneKey);
    EXPECT_EQ(search(), "192.168.7.57");
    EXPECT_NEAR(foundAfter, 1 + (53 - 32) / 128.0, 0.02) << "the 53rd address from .30 on, both ways";
    EXPECT_LE(asked().size(), 56u) << "it ends with the hit";
}

TEST_F(FinderTest, SweepsEvenlyAndKeepsToTheLimits) {
    meetAt("192.168.7.30");
    EXPECT_EQ(search(), "");
    EXPECT_THAT(asked(), SizeIs(252));
    EXPECT_LE(world.probe.most, 254u);
    const auto& attempts = world.probe.attempts;
    EXPECT_GE(attempts.back().at - attempts.front().at, Seconds((251 - 32) / 128.0));
    EXPECT_NEAR(foundAfter, 1 + (251 - 32) / 128.0 + 1.2, 0.001);
}

TEST_F(FinderTest, FindsAnIpv6AddressWithItsZoneAndOneWithout) {
    for (const std::string literal : {"fe80::57%wlan0", "fd00:7::57"}) {
        world.routes.putOnLink(ip(literal));
        meetAt(literal);
        answer(literal, world.phoneKey);
        EXPECT_EQ(search(), literal);
        world.probe.makeSilent(ip(literal), fakes::World::phonePort);
    }
}

TEST_F(FinderTest, LearnsWhereThePhoneWasFound) {
    meetAt("192.168.7.30");
    world.neighbours.put(neighbour("192.168.7.57", NeighbourState::reachable, phoneMac));
    answer("192.168.7.57", world.phoneKey);
    EXPECT_EQ(search(), "192.168.7.57");
    const KnownAddress found = memory.addressesOf(record.peer_pubkey).front();
    EXPECT_EQ(found.host.text(), "192.168.7.57");
    EXPECT_EQ(found.host.interface(), "wlan0");
    EXPECT_EQ(found.mac, phoneMac);
    EXPECT_EQ(found.network, homeNetwork);
    EXPECT_TRUE(found.reached);
}

TEST_F(FinderTest, LearnsWhereThePhoneIsNotAnyMore) {
    meetAt("192.168.7.57");
    EXPECT_EQ(search(), "");
    EXPECT_EQ(memory.addressesOf(record.peer_pubkey).front().failures, 1);
}

// --- what it must not do ---

TEST_F(FinderTest, ShowsStrangersNothingBehindTheFirstMessage) {
    meetAt("192.168.7.30");
    for (int i = 40; i < 80; ++i) {
        answer("192.168.7." + std::to_string(i), otherKey);
    }
    EXPECT_EQ(search(), "");
    EXPECT_THAT(received, SizeIs(40));
    for (const auto& [address, bytes] : received) {
        EXPECT_EQ(bytes, fakes::bytesOfFirstMessage) << address;
    }
}

TEST_F(FinderTest, AsksNobodyIfItMayNot) {
    find = FindSetting::never;
    meetAt("192.168.7.57");
    world.neighbours.put(neighbour("192.168.7.58", NeighbourState::stale, phoneMac));
    EXPECT_EQ(search(true), "");
    EXPECT_THAT(world.probe.attempts, IsEmpty());
    EXPECT_DOUBLE_EQ(world.clock.elapsed(), 0);
}

TEST_F(FinderTest, SweepsNoNetworkInWhichThePhoneWasNotMet) {
    memory.reached(record.peer_pubkey, {.host = host("10.1.4.30")});
    EXPECT_EQ(search(), "");
    EXPECT_THAT(asked(), ElementsAre(ip("192.168.7.1"))) << "the router may be the phone";
}

TEST_F(FinderTest, SweepsANetworkWhoseRouterAnswersMeanwhile) {
    meetAt("192.168.7.30");
    const platform::Neighbour router = neighbour("192.168.7.1", NeighbourState::reachable, routerMac);
    world.neighbours.remove(router);
    EXPECT_EQ(search(), "") << "a network of which nobody knows which it is";
    EXPECT_THAT(asked(), ElementsAre(ip("192.168.7.1")));

    world.probe.attempts.clear();
    answer("192.168.7.57", world.phoneKey);
    world.probe.accept(ip("192.168.7.1"), fakes::World::phonePort, [this, router](std::unique_ptr<platform::Stream>) {
        world.neighbours.put(router); // as soon as it is asked anything
    });
    EXPECT_EQ(search(), "192.168.7.57");
    EXPECT_GT(asked().size(), 20U);
}

TEST_F(FinderTest, SweepsNoNetworkThatATunnelHasTakenAPartOf) {
    meetAt("192.168.7.30");
    world.interfaces.addresses.push_back(FakeNetworkInterfaces::ipv4("tun0", {10, 8, 0, 2}));
    for (int i = 128; i < 255; ++i) {
        world.routes.putOnLink(ip("192.168.7." + std::to_string(i)), "tun0");
    }
    EXPECT_EQ(search(), "");
    EXPECT_THAT(world.probe.attempts, IsEmpty());
}

TEST_F(FinderTest, SweepsANetworkOnceForTwoPhones) {
    meetAt("192.168.7.30");
    PeerRecord tablet = record;
    tablet.peer_pubkey = otherKey.publicKey().peerKey();
    tablet.peer_ip = "192.168.7.31";
    memory.reached(tablet.peer_pubkey, {.host = host("192.168.7.31"), .network = homeNetwork});
    answer("192.168.7.57", world.phoneKey);
    answer("192.168.7.90", otherKey);
    world.run(findBoth(tablet));
    EXPECT_LE(asked().size(), 254u);
}

TEST_F(FinderTest, SweepsForNoPhoneThatWasNotMetInTheNetworkBesideOneThatWas) {
    meetAt("192.168.7.30");
    PeerRecord tablet = record;
    tablet.peer_pubkey = otherKey.publicKey().peerKey();
    tablet.peer_ip = "10.1.1.1";
    tablet.peer_port = 7001;
    const auto searchBoth = [](Home& home, FindSetting setting, PeerRecord phone, PeerRecord other) -> Task<> {
        Finder finder(home, setting);
        std::unique_ptr<Finder::Search> one = finder.begin(std::move(phone));
        std::unique_ptr<Finder::Search> two = finder.begin(std::move(other));
        co_await one->untilOver();
        co_await two->untilOver();
        one.reset();
        two.reset();
        co_await finder.finish();
    };
    world.run(searchBoth(homeOf, find, record, tablet));
    EXPECT_GT(world.probe.attempts.size(), 200U) << "the network is swept";
    const auto ofTablet =
        std::ranges::count_if(world.probe.attempts, [](const auto& attempt) { return attempt.port == 7001; });
    EXPECT_LE(ofTablet, 1) << "the router, which may be the phone";
}

TEST_F(FinderTest, SweepsOnceForAPhoneThatWakesUpHoweverOftenOthersSweep) {
    meetAt("192.168.7.30");
    PeerRecord tablet = record;
    tablet.peer_pubkey = otherKey.publicKey().peerKey();
    tablet.peer_ip = "192.168.7.31";
    tablet.peer_port = 7001;
    memory.reached(tablet.peer_pubkey, {.host = host("192.168.7.31"), .network = homeNetwork});
    Finder finder(homeOf, find);
    std::unique_ptr<Finder::Search> one = finder.begin(record);
    world.run(one->untilOver());
    const auto askedForPhone = [this] {
        return std::ranges::count_if(world.probe.attempts, [](const auto& attempt) {
            return attempt.port == fakes::World::phonePort && attempt.address != ip("192.168.7.30");
        });
    };
    EXPECT_GT(askedForPhone(), 200);
    one->wokenUp();
    const auto pass = [](platform::Clock& clock) -> Task<> { co_await clock.sleep(AddressBook::sweepInterval); };
    world.run(pass(world.clock));
    world.probe.attempts.clear();
    std::unique_ptr<Finder::Search> two = finder.begin(tablet);
    world.run(two->untilOver());
    EXPECT_GT(world.probe.attempts.size(), 200U) << "the network is swept for the tablet";
    EXPECT_LE(askedForPhone(), 3) << "the router, which may be the phone";
    one.reset();
    two.reset();
    world.run(finder.finish());
}

TEST_F(FinderTest, SendsNothingByAVpnThatHasTakenTheWay) {
    meetAt("192.168.7.57");
    world.interfaces.addresses.push_back(fakes::FakeNetworkInterfaces::ipv4("tun0", {10, 8, 0, 2}));
    for (int i = 2; i < 255; ++i) {
        world.routes.putOnLink(ip("192.168.7." + std::to_string(i)), "tun0");
    }
    EXPECT_EQ(search(), "");
    for (const auto& attempt : world.probe.attempts) {
        EXPECT_EQ(attempt.address, ip("192.168.7.1")) << "only the router's address is still on the link";
    }
}

TEST_F(FinderTest, SweepsANetworkOnceForTwoFinders) {
    meetAt("192.168.7.30");
    world.alongside(ignoring(searchWith(find, false)));
    EXPECT_EQ(search(), "") << "the other one has claimed the network";
    fakes::runUntilIdle(world.context, world.clock);
    EXPECT_THAT(asked(), SizeIs(252));
    EXPECT_EQ(search(), "") << "nor does a third one, a moment later";
    EXPECT_THAT(asked(), SizeIs(252));
}

TEST_F(FinderTest, SweepsANetworkOnceMoreForAPersonWhoWaitsForIt) {
    meetAt("192.168.7.30");
    EXPECT_EQ(search(), "");
    const std::size_t once = world.probe.attempts.size();
    EXPECT_EQ(once, 252u);
    rate = SweepRate::once;
    EXPECT_EQ(search(), "");
    EXPECT_EQ(world.probe.attempts.size(), 2 * once);
    const auto wait = [](platform::Clock& clock) -> Task<> { co_await clock.sleep(9min); };
    world.run(wait(world.clock));
    rate = SweepRate::shared;
    EXPECT_EQ(search(), "");
    EXPECT_LT(world.probe.attempts.size(), 2 * once + 17) << "it counts for those who look unasked";
}

TEST_F(FinderTest, SweepsANetworkOnceForTwoPhonesOfAPersonWhoWaitsForThem) {
    meetAt("192.168.7.30");
    EXPECT_EQ(search(), "");
    world.probe.attempts.clear();
    PeerRecord tablet = record;
    tablet.peer_pubkey = otherKey.publicKey().peerKey();
    tablet.peer_ip = "192.168.7.31";
    memory.reached(tablet.peer_pubkey, Whereabouts::look(world.system).meetingAt(host("192.168.7.31")));
    answer("192.168.7.57", world.phoneKey);
    answer("192.168.7.90", otherKey);
    rate = SweepRate::once;
    world.run(findBoth(tablet));
    EXPECT_LE(asked().size(), 254u);
}

TEST_F(FinderTest, DoesNotWaitLongForThoseWhoSayNothing) {
    meetAt("192.168.7.30");
    for (int i = 100; i < 254; ++i) {
        holdOpen("192.168.7." + std::to_string(i));
    }
    answer("192.168.7.57", world.phoneKey);
    EXPECT_EQ(search(), "192.168.7.57");
    EXPECT_LT(foundAfter, 1.5);
}

TEST_F(FinderTest, GivesUpInTimeIfManySayNothing) {
    meetAt("192.168.7.30");
    for (int i = 1; i < 255; ++i) {
        holdOpen("192.168.7." + std::to_string(i));
    }
    EXPECT_EQ(search(), "");
    EXPECT_LE(foundAfter, 0.3 + 6);
    EXPECT_EQ(mostAsked, 16);
}

TEST_F(FinderTest, DoesNotRememberAPhoneThatIsNotPairedAnyMore) {
    meetAt("192.168.7.57");
    static_cast<void>(PairedPhones(homeOf).remove(record, world.computerKey.publicKey()));
    world.neighbours.put(neighbour("192.168.7.57", NeighbourState::reachable, phoneMac));
    record.peer_mac = phoneMac.text();
    answer("192.168.7.57", world.phoneKey);
    EXPECT_EQ(search(), "192.168.7.57");
    EXPECT_THAT(memory.addressesOf(record.peer_pubkey), IsEmpty());
}

TEST_F(FinderTest, LooksAgainAfterAPush) {
    meetAt("192.168.7.57");
    Finder finder(homeOf, find);
    std::unique_ptr<Finder::Search> one = finder.begin(record);
    one->giveUp(); // it is there, and sleeps
    world.run(one->untilOver());
    EXPECT_THAT(world.probe.attempts, IsEmpty());
    answer("192.168.7.57", world.phoneKey);
    one->wokenUp();
    world.run(one->untilFound([] { return true; }));
    EXPECT_EQ(one->found()->literal(), "192.168.7.57");
    EXPECT_DOUBLE_EQ(world.clock.elapsed(), 2);
    one.reset();
    world.run(finder.finish());
}

TEST_F(FinderTest, LooksNowAndThenWhileThePhoneIsWakingUp) {
    meetAt("192.168.7.57");
    world.probe.fail(ip("192.168.7.57"), fakes::World::phonePort, ECONNREFUSED);
    Finder finder(homeOf, find);
    std::unique_ptr<Finder::Search> one = finder.begin(record, MaySweep::no);
    one->giveUp();
    world.run(one->untilOver());
    one->wokenUp();
    const auto pass = [](platform::Clock& clock) -> Task<> { co_await clock.sleep(13s); };
    world.run(pass(world.clock));
    std::vector<double> instants;
    for (const auto& attempt : world.probe.attempts) {
        instants.push_back(attempt.at.time_since_epoch().count());
    }
    EXPECT_THAT(instants, ElementsAre(2, 7, 12));
    EXPECT_EQ(memory.addressesOf(record.peer_pubkey).front().failures, 0);
    one.reset();
    world.run(finder.finish());
}

TEST_F(FinderTest, EndsAsIfNobodyWasThereIfThisComputerHasNoRoomForConnections) {
    meetAt("192.168.7.30");
    meetAt("192.168.7.57");
    world.probe.errorNumber = EMFILE;
    EXPECT_EQ(search(), "");
}

// --- the record ---

class RecordMoveTest : public FinderTest {
protected:
    [[nodiscard]] bool move(const std::string& to) { return recordMove(homeOf, memory, record, host(to)); }
    /// The same on another disk, with another phone beside it in the store.
    void pairOn(fakes::MemoryFileSystem& disk) { storeOn(disk).writeBook({{record, tablet()}}); }
    [[nodiscard]] bool moveOn(fakes::MemoryFileSystem& disk) {
        platform::System system = world.systemOn(disk);
        const Home own{.system = system, .executor = world.context.get_executor()};
        AddressMemory memoryThere(disk, world.clock, world.log, own.dataDirectory());
        return recordMove(own, memoryThere, record, host("192.168.7.57"));
    }
    /// The store is whole, with one address or the other.
    [[nodiscard]] std::string recordedOn(fakes::MemoryFileSystem& disk) {
        const PeerBook book = storeOn(disk).loadBook();
        const std::string address = book.peers.front().peer_ip;
        PeerRecord expected = record;
        expected.peer_ip = address;
        EXPECT_EQ(book.peers, (std::vector{expected, tablet()}));
        EXPECT_TRUE(address == "192.168.7.30" || address == "192.168.7.57") << address;
        return address;
    }
    /// The phone is found once more, without waiting for another minute.
    void expectMadeUpFor(fakes::MemoryFileSystem& disk) {
        const bool wasRecorded = recordedOn(disk) == "192.168.7.57";
        EXPECT_EQ(moveOn(disk), !wasRecorded);
        EXPECT_EQ(recordedOn(disk), "192.168.7.57");
    }
    [[nodiscard]] PeerStore storeOn(fakes::MemoryFileSystem& disk) { return {disk, world.system.directories}; }
    [[nodiscard]] PeerRecord tablet() const {
        PeerRecord other = record;
        other.peer_pubkey = otherKey.publicKey().peerKey();
        other.peer_hostname = "Tablet";
        return other;
    }
    [[nodiscard]] std::string recorded() const { return homeOf.peers().loadBook().peers.front().peer_ip; }
    void let(std::chrono::milliseconds time) {
        const auto pass = [](platform::Clock& clock, Seconds duration) -> Task<> { co_await clock.sleep(duration); };
        world.run(pass(world.clock, time));
    }
};

TEST_F(RecordMoveTest, GetsTheNewAddressAndNothingElse) {
    EXPECT_TRUE(move("192.168.7.57"));
    PeerRecord expected = record;
    expected.peer_ip = "192.168.7.57";
    EXPECT_EQ(homeOf.peers().loadBook().peers, std::vector{expected});
}

TEST_F(RecordMoveTest, KeepsAnAddressThatSomebodyElseHasRecordedMeanwhile) {
    PeerRecord newer = record;
    newer.peer_ip = "192.168.7.99";
    homeOf.peers().upsert(newer);
    EXPECT_FALSE(move("192.168.7.57"));
    EXPECT_EQ(recorded(), "192.168.7.99");
}

TEST_F(RecordMoveTest, KeepsANameAndTakesNoIpv6) {
    EXPECT_FALSE(move("fd00:7::57"));
    EXPECT_FALSE(move("fe80::57%wlan0"));
    record.peer_ip = "pixel.example";
    homeOf.peers().upsert(record);
    EXPECT_FALSE(move("192.168.7.57"));
    EXPECT_EQ(recorded(), "pixel.example");
}

TEST_F(RecordMoveTest, ChangesOnceAMinuteIfTwoAddressesTakeTurns) {
    EXPECT_TRUE(move("192.168.7.57"));
    record.peer_ip = "192.168.7.57";
    EXPECT_FALSE(move("192.168.7.30"));
    let(59s);
    EXPECT_FALSE(move("192.168.7.30"));
    let(1s);
    EXPECT_TRUE(move("192.168.7.30"));
    EXPECT_EQ(recorded(), "192.168.7.30");
}

TEST_F(RecordMoveTest, LeavesTheOldRecordOrTheNewOneHoweverItIsCutOffAndIsMadeUpForTheNextTime) {
    fakes::forEveryCrash([this](fakes::MemoryFileSystem& disk) { pairOn(disk); },
                         [this](fakes::MemoryFileSystem& disk) { static_cast<void>(moveOn(disk)); },
                         [this](const fakes::Aftermath& after) {
                             EXPECT_TRUE(recordedOn(after.files) == "192.168.7.57" || !after.completed);
                             expectMadeUpFor(after.files);
                         });
}

TEST_F(RecordMoveTest, LeavesTheOldRecordOrTheNewOneWhateverFailsAndIsMadeUpForTheNextTime) {
    for (const int number : {ENOSPC, EROFS, EIO}) {
        fakes::forEveryFailure(
            number, [this](fakes::MemoryFileSystem& disk) { pairOn(disk); },
            [this](fakes::MemoryFileSystem& disk) { static_cast<void>(moveOn(disk)); },
            [this](fakes::MemoryFileSystem& disk, const std::exception_ptr& thrown) {
                EXPECT_EQ(thrown, nullptr) << "what was found is of use all the same";
                expectMadeUpFor(disk);
            });
    }
}

TEST_F(RecordMoveTest, DoesNotBringBackAPhoneThatWasRemoved) {
    static_cast<void>(PairedPhones(homeOf).remove(record, world.computerKey.publicKey()));
    EXPECT_FALSE(move("192.168.7.57"));
    EXPECT_THAT(homeOf.peers().loadBook().peers, IsEmpty());
}

} // namespace
} // namespace orlinth::host
