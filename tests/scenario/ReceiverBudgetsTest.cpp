// What strangers, and single phones, may take of the receive service.

#include "fakes/ReceiverWorld.h"

#include <gmock/gmock.h>

namespace orlinth {
namespace {

using fakes::ReceiverWorld;
using fakes::ScriptedPeer;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Row = TransportMessage;

const platform::Path folder = ReceiverWorld::folder;
constexpr const char* tooManyStrangers = "wire: too many connections of strangers";
constexpr const char* notInTime = "noise handshake failed: not complete in time";

class ReceiverBudgets : public testing::Test {
protected:
    ReceiverBudgets() {
        world.putPeers({world.phoneRecord(), world.tabletRecord()});
        world.make().limits = ReceiverLimits::strict();
    }
    std::unique_ptr<platform::Stream> strangerFrom(const std::string& endpoint) {
        world.network.sources.push_back(endpoint);
        auto stranger = world.silentStranger();
        world.settle();
        return stranger;
    }
    std::unique_ptr<ScriptedPeer> phoneFrom(const std::string& endpoint) {
        world.network.sources.push_back(endpoint);
        return world.phone();
    }
    /// Says something to the service, and lets it be heard.
    void say(platform::Stream& stream, Bytes bytes) {
        world.run(stream.writeAll(bytes));
        world.settle();
    }
    static Bytes firstMessage() {
        Bytes frame(4 + 32, std::byte{9});
        frame[0] = frame[1] = frame[2] = std::byte{0};
        frame[3] = std::byte{32};
        return frame;
    }
    [[nodiscard]] std::size_t stillOpen(const std::vector<std::unique_ptr<platform::Stream>>& streams) {
        return static_cast<std::size_t>(
            std::ranges::count_if(streams, [](const auto& stream) { return !stream->hasEnded(); }));
    }

    ReceiverWorld world;
};

// ---- strangers

TEST_F(ReceiverBudgets, AHandshakeHasTenSecondsInAllHoweverItIsDrawnOut) {
    world.start();
    const auto silent = strangerFrom("192.168.1.1:1");
    const auto drawnOut = strangerFrom("192.168.1.2:1");
    const Bytes greeting = firstMessage();
    for (const std::byte part : greeting) { // half of it, and then the rest at once, each in good time
        say(*drawnOut, {part});
        if (world.clock.elapsed() < 9) {
            world.pass(500ms);
        }
    }
    EXPECT_LT(world.clock.elapsed(), 10);
    EXPECT_EQ(world.ends(), 0U);
    world.pass(10s - Seconds(world.clock.elapsed()) - 10ms);
    EXPECT_EQ(world.ends(), 0U);
    world.pass(20ms);
    EXPECT_THAT(world.failureTexts(), ElementsAre(notInTime, notInTime));
    EXPECT_TRUE(silent->hasEnded() && drawnOut->hasEnded());
}

TEST_F(ReceiverBudgets, TheDeadlineEndsWithTheHandshake) {
    world.start();
    const auto phone = world.phone();
    world.pass(30s);
    EXPECT_EQ(world.offer(*phone, "a.txt"), 0);
    EXPECT_THAT(world.failures, IsEmpty());
}

TEST_F(ReceiverBudgets, WithoutAHostsLimitsEachReadHasItsMinute) {
    world.make().limits = {};
    world.start();
    const auto silent = strangerFrom("192.168.1.1:1");
    world.pass(59s);
    EXPECT_EQ(world.ends(), 0U);
    world.pass(2s);
    EXPECT_THAT(world.failures, SizeIs(1));
}

TEST_F(ReceiverBudgets, OneSourceKeepsSixteenSilentConnectionsAndAnotherIsNotConcerned) {
    world.start();
    std::vector<std::unique_ptr<platform::Stream>> crowd;
    std::vector<std::unique_ptr<platform::Stream>> others;
    for (int i = 0; i < 100; ++i) {
        crowd.push_back(strangerFrom("192.168.1.1:" + std::to_string(1000 + i)));
    }
    for (int i = 0; i < 16; ++i) {
        others.push_back(strangerFrom("192.168.1.2:" + std::to_string(1000 + i)));
    }
    world.pass(1500ms);
    EXPECT_EQ(stillOpen(crowd), limits::strangersOfOneSource);
    EXPECT_EQ(stillOpen(others), 16U);
    EXPECT_FALSE(crowd.back()->hasEnded()) << "the oldest go";
    EXPECT_THAT(world.failureTexts(), Each(tooManyStrangers));
    crowd.push_back(strangerFrom("192.168.1.1:2000"));
    EXPECT_EQ(stillOpen(crowd), limits::strangersOfOneSource) << "and then at once";
}

TEST_F(ReceiverBudgets, TheAddressesOfAnIpv6NetworkAreOneSource) {
    world.start();
    std::vector<std::unique_ptr<platform::Stream>> crowd;
    for (int i = 0; i < 20; ++i) {
        crowd.push_back(strangerFrom("[2001:db8:1:2::" + std::to_string(i + 1) + "]:1000"));
    }
    world.pass(1500ms);
    EXPECT_EQ(stillOpen(crowd), limits::strangersOfOneSource);
}

TEST_F(ReceiverBudgets, WhoHasBegunAHandshakeIsKeptBeforeWhoHasNot) {
    world.start();
    const auto slow = strangerFrom("192.168.1.1:1");
    say(*slow, firstMessage());
    std::vector<std::unique_ptr<platform::Stream>> crowd;
    for (int i = 0; i < 40; ++i) {
        crowd.push_back(strangerFrom("192.168.1.1:" + std::to_string(1000 + i)));
    }
    world.pass(1500ms);
    EXPECT_FALSE(slow->hasEnded());
    EXPECT_EQ(stillOpen(crowd), limits::strangersOfOneSource - 1);
}

TEST_F(ReceiverBudgets, ManyPhonesOfOneAddressThatAreServedAreNoCrowd) {
    world.start();
    std::vector<std::unique_ptr<ScriptedPeer>> phones;
    for (int i = 0; i < 30; ++i) { // each has proved its key before the next one comes
        phones.push_back(world.connectAs(i % 2 == 0 ? world.phoneKey : world.tabletKey));
    }
    world.pass(2s);
    EXPECT_THAT(world.failures, IsEmpty());
    EXPECT_EQ(world.authenticated.size(), 30U);
}

TEST_F(ReceiverBudgets, AFloodFromOneSourceThrowsOutItselfAndNoPhoneOfAnother) {
    world.start();
    const auto early = phoneFrom("192.168.1.7:1");
    const auto slow = strangerFrom("192.168.1.7:2"); // of the phone's source, in the middle of its handshake
    std::vector<std::unique_ptr<platform::Stream>> flood;
    for (std::size_t i = 0; i < 2 * limits::strangers; ++i) {
        flood.push_back(strangerFrom("203.0.113.66:" + std::to_string(1000 + i)));
    }
    EXPECT_EQ(stillOpen(flood), limits::strangers - 1);
    EXPECT_FALSE(slow->hasEnded());
    const auto late = phoneFrom("192.168.1.7:3");
    EXPECT_EQ(world.offer(*late, "a.txt", 0), 0);
    world.send(*late, Row::done());
    EXPECT_EQ(world.transfers.size(), 1U);
    world.pass(1500ms);
    EXPECT_EQ(stillOpen(flood), limits::strangersOfOneSource);
    EXPECT_FALSE(slow->hasEnded());
}

// ---- a paired phone: connections

TEST_F(ReceiverBudgets, APhoneKeepsSixteenConnectionsAndTheOldestIdleOneGoes) {
    world.start();
    const auto transfer = world.phone();
    world.offer(*transfer, "a.txt");
    std::vector<std::unique_ptr<ScriptedPeer>> idle;
    for (std::size_t i = 0; i < limits::connectionsOfOnePhone + 4; ++i) {
        idle.push_back(world.phone());
        world.settle();
    }
    const auto gone = std::ranges::count_if(idle, [](const auto& phone) { return phone->wire().hasEnded(); });
    EXPECT_EQ(gone, 5) << "sixteen are there, with the transfer";
    EXPECT_TRUE(idle[0]->wire().hasEnded() && idle[4]->wire().hasEnded());
    EXPECT_THAT(world.failureTexts(), Each(std::string("wire: too many connections of this phone")));
    EXPECT_EQ(world.failures.at(0).from, "Pixel-8");
    EXPECT_EQ(world.failures.at(0).peerKey, world.phoneKey.publicKey().peerKey());
    const auto tablet = world.connectAs(world.tabletKey);
    EXPECT_EQ(world.offer(*tablet, "b.txt", 0, "ID-2"), 0);
    world.sendData(*transfer, "0123456789");
    world.send(*transfer, Row::done());
    EXPECT_EQ(world.transfers.size(), 1U);
}

TEST_F(ReceiverBudgets, APhoneThatComesBackWithAllItsTransfersGetsIn) {
    world.start();
    std::vector<std::unique_ptr<ScriptedPeer>> dead;
    for (std::size_t i = 0; i < limits::connectionsOfOnePhone; ++i) {
        dead.push_back(world.phone());
        const std::string number = std::to_string(i);
        world.offer(*dead.back(), number + ".txt", 10, "ID-" + number);
        world.sendData(*dead.back(), "01234");
    }
    world.pass(1s);
    world.sendData(*dead.front(), "5"); // this one is alive
    for (std::size_t i = 1; i < limits::connectionsOfOnePhone; ++i) {
        const auto again = world.phone();
        const std::string number = std::to_string(i);
        EXPECT_EQ(world.offer(*again, number + ".txt", 10, "ID-" + number), 5) << "what had come is kept";
        world.sendData(*again, "56789");
        world.send(*again, Row::done());
    }
    EXPECT_EQ(world.transfers.size(), limits::connectionsOfOnePhone - 1);
    world.sendData(*dead.front(), "6789");
    world.send(*dead.front(), Row::done());
    EXPECT_EQ(world.text(folder / "0.txt"), "0123456789");
}

// ---- a paired phone: memory

TEST_F(ReceiverBudgets, OfManyLargeFramesOutsideATransferOneIsReadAtATime) {
    world.start();
    constexpr std::size_t size = 3 << 20;
    std::vector<std::unique_ptr<ScriptedPeer>> phones;
    for (int i = 0; i < 5; ++i) {
        phones.push_back(world.phone());
        world.alongside([](ScriptedPeer& phone, int number) -> Task<> {
            try {
                co_await phone.send(Row::clipboard(std::string(size, static_cast<char>('a' + number)), "text/plain"));
            } catch (const WireConnection::Error&) {
                // the test is over
            }
        }(*phones.back(), i));
    }
    fakes::runUntilIdle(world.context, world.clock);
    ASSERT_EQ(world.clips.size(), 5U) << "each of them is legal, and passes";
    for (const Receiver::Clipboard& clip : world.clips) {
        EXPECT_EQ(clip.text.size(), size);
    }
    EXPECT_THAT(world.failures, IsEmpty());
}

TEST_F(ReceiverBudgets, AHalfSentLargeFrameHoldsUpThePhonesOtherLargeFramesAndNobodyElse) {
    world.start();
    constexpr std::size_t handshake = 4 + 32 + 4 + 64;
    world.network.faults.push_back({{.vanishAfter = handshake + (200 << 10)}, {}});
    const auto half = world.phone();
    world.run(half->send(Row::clipboard(std::string(4 << 20, 'h'), "text/plain")));
    world.settle();
    const auto held = world.phone();
    world.alongside([](ScriptedPeer& phone) -> Task<> {
        co_await phone.send(Row::clipboard(std::string(2 << 20, 'x'), "text/plain"));
    }(*held));
    world.settle();
    EXPECT_THAT(world.clips, IsEmpty()) << "it is not read for now";
    const auto transfer = world.phone();
    world.offer(*transfer, "a.txt", 10, "ID-1");
    world.sendData(*transfer, "0123456789");
    world.send(*transfer, Row::done());
    EXPECT_EQ(world.transfers.size(), 1U) << "small frames, and files, pass";
    const auto tablet = world.connectAs(world.tabletKey);
    world.run(tablet->send(Row::clipboard(std::string(2 << 20, 'y'), "text/plain")));
    world.settle();
    EXPECT_THAT(world.clips, SizeIs(1));
    world.pass(61s); // the half one has had its minute
    EXPECT_THAT(world.clips, SizeIs(2)) << "what waited for room was not taken for silence";
    EXPECT_THAT(world.failures, SizeIs(1));
}

TEST_F(ReceiverBudgets, LargeFramesOfATransferArriveWhole) {
    world.start();
    const auto phone = world.phone();
    constexpr std::size_t size = (16 << 20) - 1;
    world.offer(*phone, "a.bin", 2 * size, "ID-1");
    for (int i = 0; i < 2; ++i) {
        world.run(phone->sendBinary(Bytes(size, std::byte{'x'})));
    }
    world.settle();
    world.send(*phone, Row::done());
    EXPECT_EQ(world.transfers.at(0).file.bytesWritten, static_cast<std::int64_t>(2 * size));
}

} // namespace
} // namespace orlinth
