// A sender that did not see the end of its delivery offers the file once more: there is still one, told of once.

#include "OrlinthCore/Receiving/ReceiveTransfer.h"
#include "fakes/ReceiverWorld.h"

#include <gmock/gmock.h>

namespace orlinth {
namespace {

using fakes::ReceiverWorld;
using fakes::ScriptedPeer;
using testing::ElementsAre;
using testing::IsEmpty;
using Row = TransportMessage;

const platform::Path folder = ReceiverWorld::folder;
const platform::Path film = folder / "film.mov";
constexpr const char* orderly = "wire EOF before expected bytes";

class DeliveredAgain : public testing::Test {
protected:
    DeliveredAgain() { world.putPeers({world.phoneRecord(), world.tabletRecord()}); }

    /// One connection: offers the file, sends what is asked for, and Done; returns from where on.
    std::int64_t deliver(ScriptedPeer& who, const std::string& id = "ID-1") {
        const std::string content = "0123456789";
        const std::int64_t offset = world.offer(who, "film.mov", 10, id);
        if (offset < 10) {
            world.sendData(who, content.substr(static_cast<std::size_t>(offset)));
        }
        world.send(who, Row::done());
        EXPECT_EQ(world.run(who.howItEnds()), orderly);
        return offset;
    }
    [[nodiscard]] std::vector<std::string> filesInFolder() const {
        std::vector<std::string> names = world.files.allFiles();
        std::erase_if(names, [](const std::string& name) { return !name.starts_with(folder.native()); });
        return names;
    }
    /// The next run of the service.
    void restart() {
        world.stopAndWait();
        world.make();
        world.start();
    }
    /// The one-file receiver, beside the test.
    static Task<> receive(ReceiverWorld& world, ReceiveProgress& progress, std::optional<ReceivedFile>& received) {
        ReceiveRequest request{.staticKey = world.computerKey,
                               .expectedPeerPubkey = world.phoneKey.publicKey(),
                               .downloadsDir = folder,
                               .port = ReceiverWorld::port,
                               .progress = &progress};
        received = co_await receiveOneTransfer(world.system, std::move(request));
    }

    ReceiverWorld world;
};

TEST_F(DeliveredAgain, IsAcknowledgedWithoutDataAndToldOnce) {
    world.start();
    EXPECT_EQ(deliver(*world.phone()), 0);
    EXPECT_EQ(deliver(*world.phone()), 10);
    EXPECT_EQ(deliver(*world.phone()), 10);
    EXPECT_EQ(world.transfers.size(), 1U);
    EXPECT_THAT(world.failureTexts(), IsEmpty());
    EXPECT_THAT(world.syncs, IsEmpty());
    EXPECT_THAT(filesInFolder(), ElementsAre(film.native()));
}

TEST_F(DeliveredAgain, IsKnownToTheNextRunOfTheService) {
    world.start();
    EXPECT_EQ(deliver(*world.phone()), 0);
    restart();
    EXPECT_EQ(deliver(*world.phone()), 10);
    EXPECT_EQ(world.transfers.size(), 1U);
    EXPECT_THAT(filesInFolder(), ElementsAre(film.native()));
}

TEST_F(DeliveredAgain, IsAnotherFileFromAnotherPhoneOrUnderAnotherId) {
    world.start();
    EXPECT_EQ(deliver(*world.phone()), 0);
    EXPECT_EQ(deliver(*world.connectAs(world.tabletKey)), 0);
    EXPECT_EQ(deliver(*world.phone(), "ID-2"), 0);
    EXPECT_EQ(filesInFolder().size(), 3U);
    EXPECT_EQ(world.transfers.size(), 3U);
}

TEST_F(DeliveredAgain, IsReceivedAgainIfTheFileIsGoneOrHasChanged) {
    world.start();
    EXPECT_EQ(deliver(*world.phone()), 0);
    world.files.remove(film);
    EXPECT_EQ(deliver(*world.phone()), 0);
    EXPECT_EQ(world.transfers.size(), 2U);
    world.files.put(film, "9876543210");
    EXPECT_EQ(deliver(*world.phone()), 0);
    EXPECT_EQ(world.text(folder / "film 2.mov"), "0123456789");
    EXPECT_EQ(deliver(*world.phone()), 10) << "the last delivery counts";
}

TEST_F(DeliveredAgain, IsAViolationIfDataFollows) {
    world.start();
    EXPECT_EQ(deliver(*world.phone()), 0);
    const auto phone = world.phone();
    EXPECT_EQ(world.offer(*phone, "film.mov"), 10);
    world.sendData(*phone, "x");
    EXPECT_EQ(world.run(phone->howItEnds()), "wire I/O error: Connection reset by peer");
    EXPECT_THAT(world.failureTexts(), ElementsAre("protocol violation: data of a file that was delivered already"));
    EXPECT_EQ(world.text(film), "0123456789");
}

TEST_F(DeliveredAgain, AsksNobodyTwice) {
    int asked = 0;
    world.make().approveOffer = [&asked](Receiver::Offer) -> Task<bool> {
        ++asked;
        co_return true;
    };
    world.start();
    EXPECT_EQ(deliver(*world.phone()), 0);
    EXPECT_EQ(deliver(*world.phone()), 10);
    EXPECT_EQ(asked, 1);
}

TEST_F(DeliveredAgain, IsToldOfIfTheFirstRunWasKilledBeforeItCould) {
    world.start();
    EXPECT_EQ(deliver(*world.phone()), 0);
    const platform::FileStatus file = world.files.status(film).value();
    DeliveredTransfers(world.system.storage())
        .intend(world.phoneKey.publicKey().peerKey(), TransferId("ID-1"), film, file);
    world.transfers.clear();
    EXPECT_EQ(deliver(*world.phone()), 10);
    ASSERT_EQ(world.transfers.size(), 1U);
    EXPECT_EQ(world.transfers[0].file.savedAt, film);
    EXPECT_EQ(world.transfers[0].file.bytesWritten, 10);
    EXPECT_EQ(world.transfers[0].file.bytesReceivedThisSession, 0);
    EXPECT_EQ(deliver(*world.phone()), 10);
    EXPECT_EQ(world.transfers.size(), 1U);
}

TEST_F(DeliveredAgain, IsTheSameFileForAOneFileReceiverWhichSaysSo) {
    struct Watcher : ReceiveProgress {
        void onOffer(const TransportMessage::FileOffer&, ByteOffset) override { ++offers; }
        void onAlreadyHere(const TransportMessage::FileOffer&, const platform::Path& savedAt) override {
            here.push_back(savedAt);
        }
        int offers = 0;
        std::vector<platform::Path> here;
    } watcher;
    world.start();
    EXPECT_EQ(deliver(*world.phone()), 0);
    world.stopAndWait();
    std::optional<ReceivedFile> received;
    world.alongside(receive(world, watcher, received));
    world.settle();
    EXPECT_EQ(deliver(*world.phone()), 10);
    ASSERT_TRUE(received);
    EXPECT_EQ(received->savedAt, film);
    EXPECT_EQ(received->bytesWritten, 10);
    EXPECT_EQ(received->advertisedSize, 10);
    EXPECT_EQ(received->resumedFromOffset, ByteOffset(10));
    EXPECT_EQ(received->bytesReceivedThisSession, 0);
    EXPECT_EQ(watcher.offers, 0);
    EXPECT_THAT(watcher.here, ElementsAre(film));
    EXPECT_THAT(filesInFolder(), ElementsAre(film.native()));
}

TEST_F(DeliveredAgain, IsKnownToTheServiceFromAOneFileReceiver) {
    ReceiveProgress unwatched;
    std::optional<ReceivedFile> received;
    world.alongside(receive(world, unwatched, received));
    world.settle();
    EXPECT_EQ(deliver(*world.phone()), 0);
    world.start();
    EXPECT_EQ(deliver(*world.phone()), 10);
    EXPECT_THAT(world.transfers, IsEmpty());
    EXPECT_THAT(filesInFolder(), ElementsAre(film.native()));
}

TEST_F(DeliveredAgain, IsReceivedTwiceAndNeverRefusedIfTheMemoryIsRuined) {
    world.start();
    EXPECT_EQ(deliver(*world.phone()), 0);
    world.files.put("/home/ann/.local/share/Orlinth/delivered.jsonl", "{\"rubbish\":");
    EXPECT_EQ(deliver(*world.phone()), 0) << "it costs a copy, and no file is refused";
    EXPECT_EQ(world.text(folder / "film 2.mov"), "0123456789");
    EXPECT_EQ(deliver(*world.phone()), 10);
    EXPECT_THAT(world.failureTexts(), IsEmpty());
}

TEST_F(DeliveredAgain, OfAnEmptyFileIsOneFileToo) {
    world.start();
    for (int i = 0; i < 2; ++i) {
        const auto phone = world.phone();
        EXPECT_EQ(world.offer(*phone, "empty", 0), 0);
        world.send(*phone, Row::done());
        EXPECT_EQ(world.run(phone->howItEnds()), orderly);
    }
    EXPECT_EQ(world.transfers.size(), 1U);
    EXPECT_THAT(filesInFolder(), ElementsAre((folder / "empty").native()));
}

} // namespace
} // namespace orlinth
