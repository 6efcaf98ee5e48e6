#include "OrlinthHost/Reach/Approach.h"

#include "FinderWorld.h"
#include "OrlinthHost/Sending/Delivery.h"
#include "OrlinthHost/Sending/TextDelivery.h"
#include "platform/Cancelled.h"
#include "platform/Deadline.h"

#include <asio/this_coro.hpp>
#include <gmock/gmock.h>

#include <cerrno>
#include <vector>

namespace orlinth::host {
namespace {

using fakes::ScriptedPeer;
using platform::NeighbourState;
using Row = TransportMessage;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

constexpr std::uint16_t port = fakes::World::phonePort;

/// How whoever takes a connection behaves.
enum class Taker {
    phone,   ///< takes the file, or the text
    other,   ///< has another key
    nobody,  ///< says nothing
    breaking ///< takes the file, and resets the connection behind its end
};

/// A file, or a text, on its way to the phone, which its record has at .30; what was found is asked by the probe, and
/// what is sent goes by the network, where connections to whatever address come to the same port.
class ApproachTest : public FinderWorldTest {
protected:
    ApproachTest() { world.files.put("/home/ann/a.txt", "0123456789"); }
    ~ApproachTest() override {
        kept.clear();
        fakes::runUntilIdle(world.context, world.clock);
    }

    /// One connection after the other.
    void take(std::vector<Taker> takers) { world.alongside(takeAll(std::move(takers))); }
    [[nodiscard]] Task<> takeAll(std::vector<Taker> takers) {
        const std::unique_ptr<platform::Listener> listener =
            world.network.listen({.port = port, .keepAlive = std::nullopt}, world.context.get_executor());
        for (const Taker taker : takers) {
            std::unique_ptr<platform::Stream> stream = co_await listener->accept(world.context.get_executor());
            if (taker == Taker::nobody) {
                silent.push_back(std::move(stream));
                continue;
            }
            Task<> conversation = converse(std::move(stream), taker);
            co_await std::move(conversation);
        }
    }
    [[nodiscard]] Task<> converse(std::unique_ptr<platform::Stream> stream, Taker taker) {
        auto* const raw = dynamic_cast<fakes::MemoryStream*>(stream.get());
        auto wire = std::make_unique<WireConnection>(std::move(stream), world.clock);
        const platform::PrivateKey& key = taker == Taker::other ? otherKey : world.phoneKey;
        NoiseHandshake handshake(NoiseRole::responder, key.clone(), asBytes(kOrlinthPrologue));
        co_await exchangeAsResponder(*wire, handshake);
        auto peer = std::make_unique<ScriptedPeer>(std::move(wire), std::move(handshake).finalize());
        if (taker == Taker::other) {
            static_cast<void>(co_await peer->seesTheEnd());
            co_return;
        }
        const DecodedFrame frame = co_await peer->receive();
        const auto& message = std::get<TransportMessage>(frame);
        if (const auto* const offer = message.as<Row::FileOffer>()) {
            ids.push_back(offer->transfer_id);
            co_await peer->send(Row::resume(offer->transfer_id, ByteOffset()));
            static_cast<void>(co_await peer->receiveUntilDone());
        } else {
            texts.push_back(message.as<Row::Clipboard>()->text);
        }
        if (taker == Taker::breaking) {
            raw->abort();
        } else {
            raw->cancel();
        }
        kept.push_back(std::move(peer));
    }

    /// Sends the file; "" or why it was not sent.
    [[nodiscard]] std::string send() { return world.run(sendFile()); }
    [[nodiscard]] Task<std::string> sendFile() {
        Finder finder(homeOf, find);
        DeliveryRequest request{.file = {.path = "/home/ann/a.txt",
                                         .file = {.name = "a.txt", .size = 10, .mime = "text/plain", .fingerprint = ""},
                                         .transferId = TransferId("ID")},
                                .phone = record,
                                .ownKey = world.computerKey,
                                .inDoubt = inDoubt,
                                .finder = &finder,
                                .onMoved = [this](const PeerRecord& phone) { movedTo.push_back(phone.peer_ip); }};
        OneShot<Delivered> outcome;
        co_await platform::settle(outcome, deliver(world.system, std::move(request)));
        endedAfter = world.clock.elapsed();
        co_await asio::this_coro::reset_cancellation_state(asio::disable_cancellation());
        co_await finder.finish();
        try {
            static_cast<void>(outcome.take());
            co_return "";
        } catch (const std::exception& error) {
            co_return describe(error);
        }
    }
    [[nodiscard]] OneOffRequest textRequest() const {
        return {.peer = record,
                .staticKey = world.computerKey,
                .warmConnectTimeout = 5s,
                .postWakeConnectTimeout = 10s,
                .handshakeLimit = 10s};
    }

    [[nodiscard]] std::vector<std::string> connectedTo() const {
        std::vector<std::string> hosts;
        for (const auto& [host, at] : world.network.attempts) {
            if (hosts.empty() || hosts.back() != host) { // it is tried again every half second
                hosts.push_back(host);
            }
        }
        return hosts;
    }
    [[nodiscard]] std::string recorded() const { return homeOf.peers().loadBook().peers.front().peer_ip; }
    [[nodiscard]] KnownAddress remembered(const std::string& literal) const {
        for (const KnownAddress& address : memory.addressesOf(record.peer_pubkey)) {
            if (address.host.literal() == literal) {
                return address;
            }
        }
        ADD_FAILURE() << literal << " is not remembered";
        return {.host = host(literal), .mac = {}, .network = {}, .came = {}, .reached = {}};
    }

    FindSetting find = FindSetting::known;
    OffersInDoubt inDoubt;
    double endedAfter = 0; ///< seconds
    std::vector<std::string> ids;
    std::vector<std::string> texts;
    std::vector<std::string> movedTo;
    std::vector<std::unique_ptr<ScriptedPeer>> kept;
    std::vector<std::unique_ptr<platform::Stream>> silent;
};

TEST_F(ApproachTest, DoesNothingElseWhileThePhoneIsAtItsAddress) {
    meetAt("192.168.7.57");
    take({Taker::phone});
    EXPECT_EQ(send(), "");
    EXPECT_DOUBLE_EQ(endedAfter, 0);
    EXPECT_THAT(world.network.attempts, ElementsAre(Pair("192.168.7.30", port)));
    EXPECT_THAT(world.probe.attempts, IsEmpty());
    EXPECT_THAT(movedTo, IsEmpty());
}

TEST_F(ApproachTest, RemembersWhereThePhoneWasReached) {
    world.neighbours.put(neighbour("192.168.7.30", NeighbourState::reachable, phoneMac));
    take({Taker::phone});
    EXPECT_EQ(send(), "");
    const KnownAddress address = remembered("192.168.7.30");
    EXPECT_TRUE(address.reached);
    EXPECT_EQ(address.mac, phoneMac);
    EXPECT_EQ(address.network, homeNetwork);
}

TEST_F(ApproachTest, GoesOnAtTheNewAddressUnderTheSameId) {
    meetAt("192.168.7.30");
    meetAt("192.168.7.57");
    world.network.makeSilent("192.168.7.30");
    answer("192.168.7.57", world.phoneKey);
    take({Taker::phone});
    EXPECT_EQ(send(), "");
    EXPECT_DOUBLE_EQ(endedAfter, 0.3);
    EXPECT_THAT(connectedTo(), ElementsAre("192.168.7.30", "192.168.7.57"));
    EXPECT_THAT(ids, ElementsAre("ID"));
    EXPECT_THAT(movedTo, ElementsAre("192.168.7.57"));
    EXPECT_EQ(recorded(), "192.168.7.57");
    EXPECT_EQ(remembered("192.168.7.30").failures, 1);
    EXPECT_TRUE(remembered("192.168.7.57").reached);
}

TEST_F(ApproachTest, FindsByASweepAPhoneThatNobodyAnswersFor) {
    meetAt("192.168.7.30");
    world.network.makeFailWithErrno("192.168.7.30", EHOSTUNREACH, world.clock);
    answer("192.168.7.31", world.phoneKey);
    take({Taker::phone});
    EXPECT_EQ(send(), "");
    EXPECT_DOUBLE_EQ(endedAfter, 1);
    EXPECT_EQ(recorded(), "192.168.7.31");
}

TEST_F(ApproachTest, LeavesADeviceWithAnotherKeyAndFindsThePhone) {
    meetAt("192.168.7.57");
    answer("192.168.7.57", world.phoneKey);
    take({Taker::other, Taker::phone});
    EXPECT_EQ(send(), "");
    EXPECT_DOUBLE_EQ(endedAfter, 0) << "the other key is evidence";
    EXPECT_EQ(recorded(), "192.168.7.57");
}

TEST_F(ApproachTest, WaitsForAConnectionThatIsThereBeforeItGoesElsewhere) {
    meetAt("192.168.7.57");
    answer("192.168.7.57", world.phoneKey);
    take({Taker::nobody, Taker::phone});
    EXPECT_EQ(send(), "");
    EXPECT_DOUBLE_EQ(endedAfter, 10) << "the time of a handshake";
    EXPECT_EQ(recorded(), "192.168.7.57");
}

TEST_F(ApproachTest, LooksForNobodyWhenThePhoneItselfRefuses) {
    world.neighbours.put(neighbour("192.168.7.30", NeighbourState::reachable, phoneMac));
    meetAt("192.168.7.30", phoneMac);
    meetAt("192.168.7.57");
    EXPECT_EQ(send(), "network: Connection refused");
    EXPECT_DOUBLE_EQ(endedAfter, 0);
    EXPECT_THAT(world.probe.attempts, IsEmpty());
    EXPECT_EQ(remembered("192.168.7.30").failures, 0) << "it is there, and sleeps";
}

TEST_F(ApproachTest, TakesADeviceForThePhoneIfOnlyInOtherNetworksThePhoneHadAnotherHardwareAddress) {
    world.neighbours.put(neighbour("192.168.7.30", NeighbourState::reachable, otherMac));
    memory.reached(
        record.peer_pubkey,
        {.host = host("10.1.4.30"), .mac = phoneMac, .network = NetworkId::of({10, 1, 4, 0}, 24, routerMac)});
    meetAt("192.168.7.57");
    EXPECT_EQ(send(), "network: Connection refused");
    EXPECT_THAT(world.probe.attempts, IsEmpty());
}

TEST_F(ApproachTest, LooksAtOnceWhenAnotherDeviceRefuses) {
    world.neighbours.put(neighbour("192.168.7.30", NeighbourState::reachable, routerMac));
    meetAt("192.168.7.30", phoneMac);
    meetAt("192.168.7.57");
    answer("192.168.7.57", world.phoneKey);
    world.network.makeFailWithErrno("192.168.7.30", ECONNREFUSED, world.clock);
    take({Taker::phone});
    EXPECT_EQ(send(), "");
    EXPECT_DOUBLE_EQ(endedAfter, 0);
    EXPECT_EQ(recorded(), "192.168.7.57");
}

TEST_F(ApproachTest, FailsAsBeforeIfThePhoneIsNowhere) {
    meetAt("192.168.7.30");
    world.network.makeSilent("192.168.7.30");
    EXPECT_EQ(send(), "network: connect timed out");
    EXPECT_DOUBLE_EQ(endedAfter, 5) << "the search was over by then";
    EXPECT_EQ(recorded(), "192.168.7.30");
    EXPECT_EQ(remembered("192.168.7.30").failures, 1);
}

TEST_F(ApproachTest, LooksNowhereIfItMayNot) {
    find = FindSetting::never;
    meetAt("192.168.7.57");
    answer("192.168.7.57", world.phoneKey);
    world.network.makeSilent("192.168.7.30");
    EXPECT_EQ(send(), "network: connect timed out");
    EXPECT_THAT(world.probe.attempts, IsEmpty());
}

TEST_F(ApproachTest, UsesAnIpv6AddressButDoesNotRecordIt) {
    world.routes.putOnLink(ip("fe80::57%wlan0"));
    meetAt("fe80::57%wlan0");
    answer("fe80::57%wlan0", world.phoneKey);
    world.network.makeSilent("192.168.7.30");
    take({Taker::phone});
    EXPECT_EQ(send(), "");
    EXPECT_THAT(connectedTo(), ElementsAre("192.168.7.30", "fe80::57%wlan0"));
    EXPECT_EQ(recorded(), "192.168.7.30");
}

TEST_F(ApproachTest, KeepsANameThatThePersonHasRecorded) {
    record.peer_ip = "pixel.example";
    homeOf.peers().upsert(record);
    meetAt("192.168.7.57");
    answer("192.168.7.57", world.phoneKey);
    world.network.makeSilent("pixel.example");
    take({Taker::phone});
    EXPECT_EQ(send(), "");
    EXPECT_EQ(recorded(), "pixel.example");
}

TEST_F(ApproachTest, OffersAFileInDoubtAgainAtTheNewAddress) {
    meetAt("192.168.7.57");
    answer("192.168.7.57", world.phoneKey);
    world.network.makeSilent("192.168.7.30");
    take({Taker::breaking, Taker::phone});
    EXPECT_EQ(send(), "");
    EXPECT_THAT(connectedTo(), ElementsAre("192.168.7.30", "192.168.7.57"));
    EXPECT_THAT(ids, ElementsAre("ID", "ID"));
}

TEST_F(ApproachTest, BringsTheFileAlsoIfTheNewAddressCannotBeRecordedAndRecordsItTheNextTime) {
    meetAt("192.168.7.57");
    answer("192.168.7.57", world.phoneKey);
    world.network.makeFailWithErrno("192.168.7.30", EHOSTUNREACH, world.clock);
    take({Taker::phone, Taker::phone});
    const std::string before = world.files.content(homeOf.peers().fileURL()).value();
    world.files.addFault({.operation = fakes::Operation::rename, .errorNumber = ENOSPC, .nameEnding = "peer.json"});
    EXPECT_EQ(send(), "");
    EXPECT_THAT(movedTo, ElementsAre("192.168.7.57"));
    EXPECT_EQ(world.files.content(homeOf.peers().fileURL()), before);
    world.files.clearFaults();
    world.run(world.clock.sleep(AddressBook::moveInterval));
    EXPECT_EQ(send(), "");
    EXPECT_EQ(recorded(), "192.168.7.57");
}

TEST_F(ApproachTest, FollowsAPhoneOnceAndNotForEver) {
    meetAt("192.168.7.57");
    answer("192.168.7.57", world.phoneKey);
    world.network.makeSilent("192.168.7.30");
    world.network.makeSilent("192.168.7.57");
    EXPECT_EQ(send(), "network: connect timed out");
    EXPECT_THAT(connectedTo(), ElementsAre("192.168.7.30", "192.168.7.57"));
}

TEST_F(ApproachTest, StaysAtAnAddressThatWorksWhateverAddressThePhoneComesFrom) {
    record.peer_ip = "10.1.4.30"; // behind a router that puts its own address in the phone's place
    homeOf.peers().upsert(record);
    memory.came(record.peer_pubkey, {.host = host("192.168.7.1"), .mac = routerMac, .network = homeNetwork});
    take({Taker::phone});
    EXPECT_EQ(send(), "");
    world.network.makeFailWithErrno("10.1.4.30", EHOSTUNREACH, world.clock);
    EXPECT_EQ(send(), "network: connect timed out");
    EXPECT_THAT(connectedTo(), ElementsAre("10.1.4.30"));
    EXPECT_EQ(recorded(), "10.1.4.30");
}

TEST_F(ApproachTest, EndsWithItsCaller) {
    meetAt("192.168.7.30");
    world.network.makeSilent("192.168.7.30");
    const auto discard = [](Task<std::string> task) -> Task<> { static_cast<void>(co_await std::move(task)); };
    const auto limited = [](platform::Clock& clock, Seconds limit, Task<> task) -> Task<bool> {
        co_return co_await platform::endsWithin(clock, limit, std::move(task));
    };
    EXPECT_FALSE(world.run(limited(world.clock, 1500ms, discard(sendFile()))));
    EXPECT_DOUBLE_EQ(world.clock.elapsed(), 1.5) << "in the middle of the sweep";
}

TEST_F(ApproachTest, FindsThePhoneForATextToo) {
    meetAt("192.168.7.57");
    answer("192.168.7.57", world.phoneKey);
    world.network.makeSilent("192.168.7.30");
    take({Taker::phone});
    EXPECT_EQ(world.run(deliverText(homeOf, find, "a text", "text/plain", textRequest())), OneOffEnd::ended);
    EXPECT_THAT(texts, ElementsAre("a text"));
    EXPECT_EQ(recorded(), "192.168.7.57");
}

TEST_F(ApproachTest, EndsWithWhoeverSendsATextWhileItWaitsForTheSearch) {
    meetAt("192.168.7.30");
    world.network.makeSilent("192.168.7.30");
    OneOffRequest request = textRequest();
    request.warmConnectTimeout = 500ms;
    const auto limited = [](platform::Clock& clock, Task<OneOffEnd> task) -> Task<bool> {
        const auto discard = [](Task<OneOffEnd> work) -> Task<> { static_cast<void>(co_await std::move(work)); };
        Task<> discarded = discard(std::move(task));
        co_return co_await platform::endsWithin(clock, 1500ms, std::move(discarded));
    };
    EXPECT_FALSE(
        world.run(limited(world.clock, deliverText(homeOf, find, "a text", "text/plain", std::move(request)))));
    EXPECT_DOUBLE_EQ(world.clock.elapsed(), 1.5) << "in the middle of the sweep";
}

TEST_F(ApproachTest, ReportsWhyATextWasNotSent) {
    world.network.makeSilent("192.168.7.30");
    const auto error = world.failure<SendError>(deliverText(homeOf, find, "a text", "text/plain", textRequest()));
    EXPECT_EQ(error.reason(), SendError::Reason::timedOut);
    EXPECT_DOUBLE_EQ(world.clock.elapsed(), 5);
}

} // namespace
} // namespace orlinth::host
