#include "OrlinthCore/SecureChannel/KeyVault.h"
#include "OrlinthCore/Share/ShareOutbox.h"
#include "OrlinthHost/Phones/AddressMemory.h"
#include "OrlinthHost/Phones/LastPhone.h"
#include "fakes/ProvenKey.h"
#include "unit/orlinth/CommandWorld.h"

namespace orlinth::cli {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class SendCommandTest : public CommandWorldTest {
protected:
    SendCommandTest() { world.files.put("/home/ann/a.txt", "content"); }

    Ended send(std::vector<std::string> words) {
        words.insert(words.begin(), "send");
        words.emplace_back("/home/ann/a.txt");
        return CommandWorldTest::run(makeSendCommand, words);
    }
    /// Takes the file, and closes so many seconds behind its end.
    [[nodiscard]] Task<> take(Seconds time = 0s) {
        const auto phone = co_await ScriptedPeer::accept(world, world.phoneKey);
        const auto offer = co_await phone->expect<Row::FileOffer>();
        co_await phone->send(Row::resume(offer.transfer_id, ByteOffset()));
        const Bytes data = co_await phone->receiveUntilDone();
        taken.push_back(offer.name + ": " + toText(data));
        co_await world.clock.sleep(time);
        phone->close();
    }

    std::vector<std::string> taken;
    Output output;
};

TEST_F(SendCommandTest, SaysWhatItHasSent) {
    world.alongside(take());
    const Ended ended = send({"--json"});
    EXPECT_EQ(ended.status, 0) << ended.failure();
    EXPECT_THAT(taken, ElementsAre("a.txt: content"));
    EXPECT_EQ(ended.names().front(), "file");
    EXPECT_EQ(ended.names().back(), "complete");
}

TEST_F(SendCommandTest, RemembersThePhoneThatTookAFileAndNotOneThatDidNot) {
    Host host(world.system, tasks, output);
    EXPECT_EQ(send({"--warm-timeout", "0.1", "--wake-timeout", "0"}).status, 1);
    EXPECT_EQ(host::LastPhone(host).load(), std::nullopt);
    const auto shared = [this] { return ShareOutbox(world.files, world.system.directories).readPeers(); };
    EXPECT_THAT(shared(), IsEmpty());
    world.alongside(take());
    EXPECT_EQ(send({}).status, 0);
    EXPECT_EQ(host::LastPhone(host).load(), world.phoneRecord().peer_pubkey);
    ASSERT_THAT(shared(), testing::SizeIs(1)) << "and brings the share sheet's list in step";
    EXPECT_EQ(shared()[0].pubkey, world.phoneRecord().peer_pubkey);
}

TEST_F(SendCommandTest, GivesAPhoneThatProvesNothingTenSeconds) {
    world.alongside(proveNothing());
    const Ended ended = send({"--json"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.after, 10);
    EXPECT_EQ(ended.failure(), "orlinth: noise handshake: timed out after 10 seconds");
    EXPECT_THAT(ended.names(), ElementsAre("file", "connected", "error"));
}

TEST_F(SendCommandTest, GivesUpOnAPhoneThatDoesNotAnswerAfterFiveSeconds) {
    world.network.makeSilent(world.phoneRecord().peer_ip);
    const Ended ended = send({"--json"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.after, 5);
    EXPECT_EQ(ended.failure(), "orlinth: network: connect timed out");
    EXPECT_NEAR(send({"--warm-timeout", "0.3"}).after, 0.3, 1e-9);
}

TEST_F(SendCommandTest, LooksForThePhoneAsItIsTold) {
    EXPECT_EQ(send({"--find", "sometimes"}).status, 2);
    world.network.makeSilent(world.phoneRecord().peer_ip);
    world.routes.gateways["enp3s0"] = *platform::parseIpAddress("192.168.1.1");
    world.neighbours.put(fakes::MemoryNeighbours::entry(*platform::parseIpAddress("192.168.1.77"),
                                                        platform::NeighbourState::stale, Bytes(6, std::byte{0x3C}),
                                                        "enp3s0"));
    EXPECT_EQ(send({"--find", "never", "--warm-timeout", "1"}).status, 1);
    EXPECT_THAT(world.probe.attempts, IsEmpty());
    EXPECT_EQ(send({"--warm-timeout", "1"}).status, 1);
    EXPECT_EQ(world.probe.attempts.size(), 1u) << "the router may be the phone";
    EXPECT_EQ(send({"--find", "always", "--warm-timeout", "1"}).status, 1);
    EXPECT_EQ(world.probe.attempts.size(), 3u) << "and its neighbour";
}

TEST_F(SendCommandTest, ReportsAtOnceThatAPhoneRefusesAndWhatToDo) {
    const Ended ended = send({});
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.after, 0);
    EXPECT_EQ(ended.failure(), "orlinth: network: Connection refused");
    EXPECT_EQ(ended.errors.back(),
              "a.txt was not sent to Pixel-8. Pixel-8 is on this network, but Orlinth is not open on "
              "it. Open the app there once and allow it to run in the background (battery settings). "
              "It cannot be woken: no push token is recorded; pairing again brings one. `orlinth "
              "doctor Pixel-8` looks further.");
}

TEST_F(SendCommandTest, WaitsForAPhoneThatTakesItsTimeToCloseBehindTheEnd) {
    world.alongside(take(59s));
    const Ended ended = send({"--json"});
    EXPECT_EQ(ended.status, 0) << ended.failure();
    EXPECT_EQ(ended.after, 59);
}

TEST_F(SendCommandTest, ConnectsToNobodyForAFileThatIsNotThere) {
    world.files.remove("/home/ann/a.txt");
    const Ended ended = send({"--json"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_THAT(world.network.attempts, IsEmpty());
    EXPECT_THAT(ended.names(), testing::Contains("error"));
}

TEST_F(SendCommandTest, SaysThatThePhoneHasMoved) {
    const PeerRecord record = world.phoneRecord();
    const platform::IpAddress address = *platform::parseIpAddress("192.168.1.57");
    world.network.makeSilent(record.peer_ip);
    world.routes.putOnLink(address, "enp3s0");
    const platform::Path folder = world.system.directories.data / KeyVault::defaultDirectoryName;
    host::AddressMemory(world.files, world.clock, world.log, folder)
        .reached(record.peer_pubkey, {.host = *host::HostAddress::parse("192.168.1.57")});
    std::size_t received = 0;
    world.probe.accept(address, fakes::World::phonePort, [&](std::unique_ptr<fakes::MemoryStream> stream) {
        world.alongside(fakes::proveKey(std::move(stream), world.phoneKey.clone(), received));
    });
    world.alongside(take());
    const Ended ended = send({"--json"});
    EXPECT_EQ(ended.status, 0) << ended.failure();
    ASSERT_THAT(ended.names(),
                ElementsAre("file", "moved", "connected", "handshake", "progress", "progress", "complete"));
    EXPECT_EQ(ended.events().at(1).at("address"), "192.168.1.57");
    EXPECT_EQ(book().peers.front().peer_ip, "192.168.1.57");
    pair({record});
    world.alongside(take());
    EXPECT_THAT(send({}).errors, Contains("Pixel-8 has moved to 192.168.1.57"));
}

} // namespace
} // namespace orlinth::cli
