#include "OrlinthCore/Receiving/ReceiveTransfer.h"

#include "fakes/CancelMidway.h"
#include "fakes/Sidecar.h"
#include "fakes/World.h"
#include "platform/Spawn.h"
#include "platform/SystemError.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orlinth {
namespace {

using fakes::ScriptedPeer;
using fakes::World;
using testing::ElementsAre;
using testing::StartsWith;
using Row = TransportMessage;

constexpr std::uint16_t port = 7100;
const platform::Path folder = "/home/ann/Downloads";

/// A phone that sends these things one after the other and then waits for the end.
struct Script {
    std::vector<std::variant<TransportMessage, std::string>> frames;
    std::optional<Row::Resume> resume = {}; ///< the computer's answer to the first offer
    bool ended = false;
};

Task<> play(World& world, Script& script) {
    const auto phone = co_await ScriptedPeer::connect(world, port, world.phoneKey);
    for (const auto& frame : script.frames) {
        if (const auto* data = std::get_if<std::string>(&frame)) {
            co_await phone->sendBinary(toBytes(*data));
            continue;
        }
        const TransportMessage& message = std::get<TransportMessage>(frame);
        co_await phone->send(message);
        if (message.tag() == Row::Tag::FileOffer && !script.resume) {
            script.resume = co_await phone->expect<Row::Resume>();
        }
    }
    script.ended = co_await phone->seesTheEnd();
}

class ReceiveTransfer : public testing::Test {
protected:
    ReceiveTransfer() { world.files.putFolder(folder); }

    ReceiveRequest request(Seconds acceptTimeout = 0s) {
        return {.staticKey = world.computerKey,
                .expectedPeerPubkey = world.phoneKey.publicKey(),
                .downloadsDir = folder,
                .port = port,
                .acceptTimeout = acceptTimeout};
    }
    Task<ReceivedFile> receive() { return receiveOneTransfer(world.system, request()); }

    /// Receives what the script sends.
    ReceivedFile receiveFrom(Script& script) {
        Task<ReceivedFile> task = receive();
        world.alongside(later(script));
        return world.run(std::move(task));
    }
    /// The error that the script ends in.
    template <typename E = ReceiveError>
    E failureFrom(Script& script) {
        world.alongside(later(script));
        const E error = world.failure<E>(receive());
        fakes::runUntilIdle(world.context, world.clock);
        EXPECT_TRUE(script.ended) << "the connection is closed";
        return error;
    }
    /// The phone connects once the port is open.
    Task<> later(Script& script) {
        return [](World& theWorld, Script& what) -> Task<> {
            co_await theWorld.clock.sleep(1s);
            co_await play(theWorld, what);
        }(world, script);
    }

    /// Without what is remembered of deliveries.
    [[nodiscard]] std::vector<std::string> filesInDownloads() const {
        std::vector<std::string> names = world.files.allFiles();
        std::erase_if(names, [](const std::string& name) { return !name.starts_with(folder.native()); });
        return names;
    }

    World world;
};

TransportMessage offer(const std::string& name, std::int64_t size = 10, const std::string& id = "ID-1") {
    return Row::fileOffer(name, size, "text/plain", id);
}

TEST_F(ReceiveTransfer, SavesTheFileUnderItsNameAndLeavesNothingElse) {
    Script script{.frames = {offer("a.txt"), "01234", "56789", Row::done()}};
    const ReceivedFile file = receiveFrom(script);
    EXPECT_EQ(file.savedAt, folder / "a.txt");
    EXPECT_EQ(file.bytesWritten, 10);
    EXPECT_EQ(file.advertisedSize, 10);
    EXPECT_EQ(file.mime, "text/plain");
    EXPECT_EQ(file.remoteEndpoint, "203.0.113.1:40112");
    EXPECT_EQ(file.bytesReceivedThisSession, 10);
    EXPECT_EQ(file.resumedFromOffset, ByteOffset());
    EXPECT_EQ(world.files.content(folder / "a.txt"), "0123456789");
    EXPECT_THAT(filesInDownloads(), ElementsAre((folder / "a.txt").native()));
    EXPECT_EQ(script.resume, (Row::Resume{"ID-1", ByteOffset()}));
    EXPECT_THAT(world.queues.labels, ElementsAre("orlinth.receive"));
}

TEST_F(ReceiveTransfer, MakesAnEmptyFileFromAnOfferAndDone) {
    Script script{.frames = {offer("empty", 0), Row::done()}};
    EXPECT_EQ(receiveFrom(script).bytesWritten, 0);
    EXPECT_EQ(world.files.content(folder / "empty"), "");
}

TEST_F(ReceiveTransfer, ResumesAPartialOfTheSameTransferWhateverTheAdvertisedSize) {
    world.files.put(folder / "a.txt.partial", "0123");
    world.files.put(folder / "a.txt.partial.meta.json",
                    R"({"transfer_id":"ID-1","advertised_size":99,"started_at_epoch_ms":5})");
    Script script{.frames = {offer("a.txt"), "456789", Row::done()}};
    const ReceivedFile file = receiveFrom(script);
    EXPECT_EQ(script.resume, (Row::Resume{"ID-1", ByteOffset(4)}));
    EXPECT_EQ(file.resumedFromOffset, ByteOffset(4));
    EXPECT_EQ(file.bytesWritten, 10);
    EXPECT_EQ(file.bytesReceivedThisSession, 6);
    EXPECT_EQ(world.files.content(folder / "a.txt"), "0123456789");
}

TEST_F(ReceiveTransfer, StartsAnewBesideAPartialOfAnotherTransfer) {
    world.files.put(folder / "a.txt.partial", "XXXX");
    world.files.put(folder / "a.txt.partial.meta.json",
                    R"({"transfer_id":"OTHER","advertised_size":10,"started_at_epoch_ms":5})");
    Script script{.frames = {offer("a.txt"), "0123456789", Row::done()}};
    EXPECT_EQ(receiveFrom(script).savedAt, folder / "a 2.txt");
    EXPECT_EQ(world.files.content(folder / "a.txt.partial"), "XXXX");
}

TEST_F(ReceiveTransfer, TakesTheNextFreeNameWhenItsOwnWasTakenMeanwhile) {
    world.alongside([](World& theWorld) -> Task<> {
        co_await theWorld.clock.sleep(1s);
        const auto phone = co_await ScriptedPeer::connect(theWorld, port, theWorld.phoneKey);
        co_await phone->send(offer("a.txt"));
        static_cast<void>(co_await phone->expect<Row::Resume>());
        co_await phone->sendBinary(toBytes("0123456789"));
        theWorld.files.put(folder / "a.txt", "somebody else's");
        co_await phone->send(Row::done());
        static_cast<void>(co_await phone->seesTheEnd());
    }(world));
    EXPECT_EQ(world.run(receive()).savedAt, folder / "a 2.txt");
    EXPECT_EQ(world.files.content(folder / "a.txt"), "somebody else's");
    EXPECT_EQ(world.files.content(folder / "a 2.txt"), "0123456789");
}

TEST_F(ReceiveTransfer, NeverReplacesAFileThatAppearsInTheVeryLastMoment) {
    bool appeared = false;
    world.files.beforeEach([&](fakes::Operation operation, const platform::Path& path) {
        if (operation == fakes::Operation::rename && path.filename() == "a.txt" && !std::exchange(appeared, true)) {
            world.files.put(folder / "a.txt", "somebody else's");
        }
    });
    Script script{.frames = {offer("a.txt"), "0123456789", Row::done()}};
    EXPECT_EQ(receiveFrom(script).savedAt, folder / "a 2.txt");
    EXPECT_TRUE(appeared);
    EXPECT_EQ(world.files.content(folder / "a.txt"), "somebody else's");
}

TEST_F(ReceiveTransfer, TrustsDoneWhateverTheAdvertisedSize) {
    Script script{.frames = {offer("a.txt", 1000), "short", Row::done()}};
    const ReceivedFile file = receiveFrom(script);
    EXPECT_EQ(file.bytesWritten, 5);
    EXPECT_EQ(file.advertisedSize, 1000);
}

TEST_F(ReceiveTransfer, SkipsTokenUpdatesInTheMiddle) {
    Script script{
        .frames = {Row::tokenUpdate("t0"), offer("a.txt"), "01234", Row::tokenUpdate("t1"), "56789", Row::done()}};
    EXPECT_EQ(receiveFrom(script).bytesWritten, 10);
}

TEST_F(ReceiveTransfer, KeepsANameThatTriesToEscapeInsideTheFolder) {
    Script script{.frames = {offer("../../etc/passwd"), "x", Row::done()}};
    EXPECT_EQ(receiveFrom(script).savedAt, folder / "passwd");
    EXPECT_THAT(filesInDownloads(), ElementsAre((folder / "passwd").native()));
}

TEST_F(ReceiveTransfer, WritesTheSidecarBeforeItAnswers) {
    world.alongside([](World& theWorld) -> Task<> {
        co_await theWorld.clock.sleep(1s);
        const auto phone = co_await ScriptedPeer::connect(theWorld, port, theWorld.phoneKey);
        co_await phone->send(offer("a.txt", 10, "ID-7"));
        static_cast<void>(co_await phone->expect<Row::Resume>());
        const std::optional<PartialMeta> meta = fakes::sidecarOf(theWorld.files, folder / "a.txt.partial");
        EXPECT_TRUE(meta.has_value());
        if (meta) {
            EXPECT_EQ(meta->transfer_id, TransferId("ID-7"));
            EXPECT_EQ(meta->advertised_size, 10);
            EXPECT_EQ(meta->started_at_epoch_ms, theWorld.clock.epochMilliseconds());
        }
        EXPECT_TRUE(theWorld.files.isLocked(folder / "a.txt.partial"));
        co_await phone->send(Row::done());
        static_cast<void>(co_await phone->seesTheEnd());
    }(world));
    static_cast<void>(world.run(receive()));
}

TEST_F(ReceiveTransfer, RewritesTheSidecarsTimeOnAResume) {
    world.files.put(folder / "a.txt.partial", "0123");
    world.files.put(folder / "a.txt.partial.meta.json",
                    R"({"transfer_id":"ID-1","advertised_size":10,"started_at_epoch_ms":5})");
    Script script{.frames = {offer("a.txt"), Row::clipboard("x", "text/plain")}};
    static_cast<void>(failureFrom(script));
    const std::optional<PartialMeta> meta = fakes::sidecarOf(world.files, folder / "a.txt.partial");
    ASSERT_TRUE(meta);
    EXPECT_GT(meta->started_at_epoch_ms, fromEpochMilliseconds(5));
    EXPECT_EQ(world.files.content(folder / "a.txt.partial"), "0123") << "nothing is cut off";
}

TEST_F(ReceiveTransfer, KeepsAndFlushesThePartialWhenTheConnectionIsLost) {
    world.alongside([](World& theWorld) -> Task<> {
        co_await theWorld.clock.sleep(1s);
        const auto phone = co_await ScriptedPeer::connect(theWorld, port, theWorld.phoneKey);
        co_await phone->send(offer("a.txt"));
        static_cast<void>(co_await phone->expect<Row::Resume>());
        co_await phone->sendBinary(toBytes("01234"));
        phone->close();
    }(world));
    EXPECT_EQ(world.failure<WireConnection::Error>(receive()).description(), "wire EOF before expected bytes");
    const auto next = world.files.afterCrash(fakes::CrashKind::powerCut);
    EXPECT_EQ(next->content(folder / "a.txt.partial"), "01234") << "even a power cut now keeps it";
    EXPECT_TRUE(fakes::sidecarOf(*next, folder / "a.txt.partial"));
    EXPECT_FALSE(world.files.isLocked(folder / "a.txt.partial"));
}

TEST_F(ReceiveTransfer, DeliveredFilesSurviveAPowerCut) {
    Script script{.frames = {offer("a.txt"), "0123456789", Row::done()}};
    static_cast<void>(receiveFrom(script));
    const auto next = world.files.afterCrash(fakes::CrashKind::powerCut);
    EXPECT_EQ(next->content(folder / "a.txt"), "0123456789");
}

TEST_F(ReceiveTransfer, CutAnywhereOnTheDiskLeavesNoWrongByteUnderAFinalNameAndFinishesOnRetry) {
    for (const fakes::CrashKind kind : fakes::allCrashKinds) {
        for (std::size_t cut = 0;; ++cut) {
            World first;
            first.files.putFolder(folder);
            first.files.crashAfter(cut);
            Script script{.frames = {offer("a.txt"), "01234", "56789", Row::done()}};
            ReceiveRequest once{.staticKey = first.computerKey,
                                .expectedPeerPubkey = first.phoneKey.publicKey(),
                                .downloadsDir = folder,
                                .port = port};
            first.alongside([](World& theWorld, Script& what) -> Task<> {
                co_await theWorld.clock.sleep(1s);
                try {
                    co_await play(theWorld, what);
                } catch (const WireConnection::Error&) {
                    // The computer has crashed under it.
                }
            }(first, script));
            bool crashed = false;
            try {
                static_cast<void>(first.run(receiveOneTransfer(first.system, std::move(once))));
            } catch (const fakes::Crash&) {
                crashed = true;
            }
            fakes::runUntilIdle(first.context, first.clock);

            const auto left = first.files.afterCrash(kind);
            const std::optional<std::string> saved = left->content(folder / "a.txt");
            if (saved) {
                EXPECT_EQ(*saved, "0123456789") << "cut after " << cut;
            }
            // The sender tries again, with the same id.
            World second;
            platform::System onTheDisk = second.systemOn(*left);
            ReceiveRequest again{.staticKey = second.computerKey,
                                 .expectedPeerPubkey = second.phoneKey.publicKey(),
                                 .downloadsDir = folder,
                                 .port = port};
            second.alongside([](World& theWorld) -> Task<> {
                co_await theWorld.clock.sleep(1s);
                const auto phone = co_await ScriptedPeer::connect(theWorld, port, theWorld.phoneKey);
                co_await phone->send(offer("a.txt"));
                const auto resume = co_await phone->expect<Row::Resume>();
                const std::string rest =
                    std::string("0123456789").substr(static_cast<std::size_t>(resume.accepted_offset.bytesBefore()));
                co_await phone->sendBinary(toBytes(rest));
                co_await phone->send(Row::done());
                static_cast<void>(co_await phone->seesTheEnd());
            }(second));
            const ReceivedFile file = second.run(receiveOneTransfer(onTheDisk, std::move(again)));
            if (kind == fakes::CrashKind::processKill || kind == fakes::CrashKind::powerCut) {
                EXPECT_EQ(left->content(file.savedAt), "0123456789") << "cut after " << cut;
            }
            if (!crashed) {
                break;
            }
        }
    }
}

TEST_F(ReceiveTransfer, RefusesAPhoneWithAnotherKeyWithoutAnyFrame) {
    ReceiveRequest other = request();
    other.expectedPeerPubkey = platform::PrivateKey::generate().publicKey();
    Script script{.frames = {}};
    world.alongside(later(script));
    const auto error = world.failure<ReceiveError>(receiveOneTransfer(world.system, std::move(other)));
    EXPECT_EQ(error.description(), "remote pubkey \u2260 paired peer");
    fakes::runUntilIdle(world.context, world.clock);
    EXPECT_TRUE(script.ended);
}

/// Somebody who says this in place of a handshake, and is let go of.
Task<> sayInsteadOfAHandshake(World& world, Bytes body) {
    co_await world.clock.sleep(1s);
    auto stream = co_await world.network.connect("203.0.113.1", port, world.context.get_executor());
    WireConnection wire(std::move(stream), world.clock);
    co_await wire.sendLengthPrefixed(body);
    try {
        static_cast<void>(co_await wire.receiveLengthPrefixed());
        ADD_FAILURE() << "the connection stays open";
    } catch (const WireConnection::Error&) {
        // as it should
    }
}

TEST_F(ReceiveTransfer, ReportsABrokenHandshake) {
    world.alongside(sayInsteadOfAHandshake(world, Bytes(31)));
    EXPECT_EQ(world.failure<ReceiveError>(receive()).description(),
              "noise handshake failed: noise message too short (expected \u2265 32, got 31)");
}

TEST_F(ReceiveTransfer, RefusesALowOrderKeyInTheHandshake) {
    world.alongside(sayInsteadOfAHandshake(world, Bytes(32)));
    EXPECT_EQ(world.failure<ReceiveError>(receive()).which(), ReceiveError::Case::noiseHandshakeFailed);
}

TEST_F(ReceiveTransfer, RefusesDataBeforeAnOffer) {
    Script script{.frames = {"data"}};
    EXPECT_EQ(failureFrom(script).description(), "protocol violation: binary frame before FileOffer");
}

TEST_F(ReceiveTransfer, RefusesDoneWithoutAnOffer) {
    Script script{.frames = {Row::done()}};
    EXPECT_EQ(failureFrom(script).description(), "protocol violation: Done received without FileOffer");
}

TEST_F(ReceiveTransfer, RefusesASecondOfferAndKeepsThePartial) {
    Script script{.frames = {offer("a.txt"), "01234", offer("b.txt")}};
    EXPECT_EQ(failureFrom(script).description(), "protocol violation: duplicate FileOffer");
    EXPECT_EQ(world.files.content(folder / "a.txt.partial"), "01234");
}

TEST_F(ReceiveTransfer, RefusesAnIdThatIsTooLong) {
    Script script{.frames = {offer("a.txt", 0, std::string(256, 'x')), Row::done()}};
    EXPECT_EQ(receiveFrom(script).savedAt, folder / "a.txt");
    world.alongside([](World& theWorld) -> Task<> {
        co_await theWorld.clock.sleep(1s);
        const auto phone = co_await ScriptedPeer::connect(theWorld, port, theWorld.phoneKey);
        co_await phone->send(offer("b.txt", 0, std::string(257, 'x')));
        EXPECT_TRUE(co_await phone->seesTheEnd());
    }(world));
    EXPECT_EQ(world.failure<ReceiveError>(receive()).description(),
              "protocol violation: transfer id of 257 bytes, more than 256");
    EXPECT_THAT(filesInDownloads(), ElementsAre((folder / "a.txt").native()));
}

TEST_F(ReceiveTransfer, RefusesAResumeFromTheSender) {
    Script script{.frames = {Row::resume("ID-1", ByteOffset())}};
    EXPECT_EQ(failureFrom(script).description(), "protocol violation: unexpected Resume from sender");
}

TEST_F(ReceiveTransfer, RefusesClipboardText) {
    Script script{.frames = {Row::clipboard("secret", "text/plain")}};
    EXPECT_EQ(failureFrom(script).description(), "protocol violation: clipboard frame on one-shot receive path");
}

TEST_F(ReceiveTransfer, RefusesTheNameMessagesWithOneText) {
    for (const TransportMessage& message : {Row::setName("x"), Row::nameUpdate("x"), Row::unpair(), Row::decline()}) {
        Script script{.frames = {message}};
        EXPECT_EQ(failureFrom(script).description(), "protocol violation: name frame on one-shot receive path");
    }
}

TEST_F(ReceiveTransfer, ReportsATamperedFrameAndWritesNoneOfIt) {
    // The last frame's byte is far behind the handshake, the offer and the first data.
    world.network.faults.push_back({{.flipBitAt = 2000}, {}});
    Script script{.frames = {offer("a.txt", 3000), std::string(1000, 'a'), std::string(2000, 'b'), Row::done()}};
    EXPECT_THAT(failureFrom<TransportFramer::Error>(script).description(),
                StartsWith("frame decrypt failed: noise decrypt failed: "));
    EXPECT_EQ(world.files.content(folder / "a.txt.partial"), std::string(1000, 'a'));
}

TEST_F(ReceiveTransfer, ReportsAFullDiskAndKeepsWhatFits) {
    world.files.setCapacity(6000);
    Script script{.frames = {offer("a.txt", 8000), std::string(4000, 'a'), std::string(4000, 'b'), Row::done()}};
    EXPECT_EQ(failureFrom(script).description(), "file write failed: No space left on device");
    EXPECT_TRUE(fakes::sidecarOf(world.files, folder / "a.txt.partial"));
}

TEST_F(ReceiveTransfer, ReportsASidecarThatCannotBeWrittenAndDoesNotBlockTheName) {
    world.files.addFault({.operation = fakes::Operation::rename, .errorNumber = EACCES, .nameEnding = ".meta.json"});
    Script script{.frames = {offer("a.txt"), "x"}};
    world.alongside([](World& theWorld) -> Task<> {
        co_await theWorld.clock.sleep(1s);
        const auto phone = co_await ScriptedPeer::connect(theWorld, port, theWorld.phoneKey);
        co_await phone->send(offer("a.txt"));
        EXPECT_TRUE(co_await phone->seesTheEnd());
    }(world));
    EXPECT_EQ(world.failure<ReceiveError>(receive()).description(), "file write failed: meta write: Permission denied");
    EXPECT_TRUE(filesInDownloads().empty());
}

TEST_F(ReceiveTransfer, ReportsAFailedRenameAndKeepsEverythingForAResume) {
    world.files.addFault({.operation = fakes::Operation::rename, .errorNumber = EACCES, .nameEnding = "/a.txt"});
    Script script{.frames = {offer("a.txt"), "0123456789", Row::done()}};
    EXPECT_EQ(failureFrom(script).description(), "file write failed: rename: Permission denied");
    EXPECT_EQ(world.files.content(folder / "a.txt.partial"), "0123456789");
    EXPECT_TRUE(fakes::sidecarOf(world.files, folder / "a.txt.partial"));
}

TEST_F(ReceiveTransfer, RefusesAPartialThatAnotherReceiverIsWriting) {
    world.files.put(folder / "a.txt.partial", "0123");
    world.files.put(folder / "a.txt.partial.meta.json",
                    R"({"transfer_id":"ID-1","advertised_size":10,"started_at_epoch_ms":5})");
    const auto held = world.files.open(folder / "a.txt.partial", platform::OpenMode::write);
    ASSERT_TRUE(held->tryLock());
    world.alongside([](World& theWorld) -> Task<> {
        co_await theWorld.clock.sleep(1s);
        const auto phone = co_await ScriptedPeer::connect(theWorld, port, theWorld.phoneKey);
        co_await phone->send(offer("a.txt"));
        EXPECT_TRUE(co_await phone->seesTheEnd());
    }(world));
    const ReceiveError error = world.failure<ReceiveError>(receive());
    EXPECT_EQ(error.description(), "file write failed: another receiver is writing a.txt.partial");
    EXPECT_EQ(error.which(), ReceiveError::Case::fileNotTaken);
}

TEST_F(ReceiveTransfer, DoesNotWriteThroughALinkInThePartialsPlace) {
    world.files.put("/home/ann/precious", "keep me");
    world.files.putLink(folder / "a.txt.partial", "/home/ann/precious");
    world.files.put(folder / "a.txt.partial.meta.json",
                    R"({"transfer_id":"ID-1","advertised_size":10,"started_at_epoch_ms":5})");
    Script script{.frames = {offer("a.txt"), "0123456789", Row::done()}};
    EXPECT_EQ(receiveFrom(script).savedAt, folder / "a 2.txt");
    EXPECT_EQ(world.files.content("/home/ann/precious"), "keep me");
}

TEST_F(ReceiveTransfer, CountsItsDurationFromTheOffer) {
    world.alongside([](World& theWorld) -> Task<> {
        co_await theWorld.clock.sleep(1s);
        const auto phone = co_await ScriptedPeer::connect(theWorld, port, theWorld.phoneKey);
        co_await theWorld.clock.sleep(7s);
        co_await phone->send(offer("a.txt"));
        static_cast<void>(co_await phone->expect<Row::Resume>());
        co_await theWorld.clock.sleep(3s);
        co_await phone->send(Row::done());
        static_cast<void>(co_await phone->seesTheEnd());
    }(world));
    EXPECT_DOUBLE_EQ(world.run(receive()).durationSeconds.count(), 3);
}

TEST_F(ReceiveTransfer, ReportsAPartialThatCannotBeSought) {
    world.files.addFault({.operation = fakes::Operation::seek, .errorNumber = EIO, .nameEnding = ".partial"});
    world.files.put(folder / "a.txt.partial", "0123");
    world.files.put(folder / "a.txt.partial.meta.json",
                    R"({"transfer_id":"ID-1","advertised_size":10,"started_at_epoch_ms":5})");
    world.alongside([](World& theWorld) -> Task<> {
        co_await theWorld.clock.sleep(1s);
        const auto phone = co_await ScriptedPeer::connect(theWorld, port, theWorld.phoneKey);
        co_await phone->send(offer("a.txt"));
        EXPECT_EQ(co_await phone->howItEnds(), "wire I/O error: Connection reset by peer");
    }(world));
    EXPECT_EQ(world.failure<ReceiveError>(receive()).description(), "file write failed: Input/output error");
    EXPECT_EQ(world.files.content(folder / "a.txt.partial"), "0123");
    EXPECT_TRUE(fakes::sidecarOf(world.files, folder / "a.txt.partial"));
}

TEST_F(ReceiveTransfer, LeavesNothingOfAFreshPartialThatCannotBeSought) {
    world.files.addFault({.operation = fakes::Operation::seek, .errorNumber = EIO, .nameEnding = ".partial"});
    world.alongside([](World& theWorld) -> Task<> {
        co_await theWorld.clock.sleep(1s);
        const auto phone = co_await ScriptedPeer::connect(theWorld, port, theWorld.phoneKey);
        co_await phone->send(offer("a.txt"));
        EXPECT_TRUE(co_await phone->seesTheEnd());
    }(world));
    EXPECT_EQ(world.failure<ReceiveError>(receive()).description(), "file write failed: Input/output error");
    EXPECT_TRUE(filesInDownloads().empty());
}

TEST_F(ReceiveTransfer, ServesOnlyTheFirstConnection) {
    bool refused = false;
    world.alongside([](World& theWorld, bool& secondRefused) -> Task<> {
        co_await theWorld.clock.sleep(1s);
        const auto phone = co_await ScriptedPeer::connect(theWorld, port, theWorld.phoneKey);
        try {
            const auto second = co_await theWorld.network.connect("203.0.113.1", port, theWorld.context.get_executor());
        } catch (const platform::SystemError& error) {
            secondRefused = error.code() == std::errc::connection_refused;
        }
        co_await phone->send(offer("a.txt", 0));
        static_cast<void>(co_await phone->expect<Row::Resume>());
        co_await phone->send(Row::done());
        static_cast<void>(co_await phone->seesTheEnd());
    }(world, refused));
    static_cast<void>(world.run(receive()));
    EXPECT_TRUE(refused);
}

TEST_F(ReceiveTransfer, TimesOutWhenNobodyComes) {
    const auto error = world.failure<ReceiveError>(receiveOneTransfer(world.system, request(30s)));
    EXPECT_EQ(error.description(), "timed out");
    EXPECT_DOUBLE_EQ(world.clock.elapsed(), 30.0);
}

TEST_F(ReceiveTransfer, WaitsForEverWithoutATimeout) {
    Script script{.frames = {offer("a.txt", 0), Row::done()}};
    world.alongside([](World& theWorld, Script& what) -> Task<> {
        co_await theWorld.clock.sleep(1e6s);
        co_await play(theWorld, what);
    }(world, script));
    static_cast<void>(world.run(receiveOneTransfer(world.system, request(-1s))));
    EXPECT_GE(world.clock.elapsed(), 1e6);
}

TEST_F(ReceiveTransfer, TheTimeoutDoesNotEndATransferThatHasBegun) {
    world.alongside([](World& theWorld) -> Task<> {
        co_await theWorld.clock.sleep(1s);
        const auto phone = co_await ScriptedPeer::connect(theWorld, port, theWorld.phoneKey);
        co_await theWorld.clock.sleep(3600s);
        co_await phone->send(offer("a.txt", 0));
        static_cast<void>(co_await phone->expect<Row::Resume>());
        co_await phone->send(Row::done());
        static_cast<void>(co_await phone->seesTheEnd());
    }(world));
    EXPECT_EQ(world.run(receiveOneTransfer(world.system, request(30s))).savedAt, folder / "a.txt");
}

TEST_F(ReceiveTransfer, RefusesPortZero) {
    ReceiveRequest zero = request();
    zero.port = 0;
    EXPECT_EQ(world.failure<ReceiveError>(receiveOneTransfer(world.system, std::move(zero))).description(),
              "listener start failed: invalid port 0");
}

TEST_F(ReceiveTransfer, ReportsAPortThatIsTaken) {
    const auto other = world.network.listen({.port = port, .keepAlive = std::nullopt}, world.context.get_executor());
    EXPECT_EQ(world.failure<ReceiveError>(receive()).description(), "listener start failed: Address already in use");
}

TEST_F(ReceiveTransfer, TakesAPortThatTheHostHasOpened) {
    ReceiveRequest opened = request();
    opened.port = 0;
    opened.listener = world.network.listen({.port = port, .keepAlive = std::nullopt}, world.context.get_executor());
    Script script{.frames = {offer("a.txt", 0), Row::done()}};
    world.alongside(later(script));
    EXPECT_EQ(world.run(receiveOneTransfer(world.system, std::move(opened))).savedAt, folder / "a.txt");
}

TEST_F(ReceiveTransfer, PassesTheErrorOfAFolderThatCannotBeMadeThroughUnchanged) {
    world.files.put("/home/ann/file", "a file is in the way");
    ReceiveRequest blocked = request();
    blocked.downloadsDir = "/home/ann/file/inbox";
    const auto error = world.failure<platform::SystemError>(receiveOneTransfer(world.system, std::move(blocked)));
    EXPECT_FALSE(error.description().empty());
    EXPECT_TRUE(world.network.attempts.empty());
}

TEST_F(ReceiveTransfer, StoppedInTheMiddleKeepsThePartial) {
    world.alongside([](World& theWorld) -> Task<> {
        co_await theWorld.clock.sleep(1s);
        const auto phone = co_await ScriptedPeer::connect(theWorld, port, theWorld.phoneKey);
        co_await phone->send(offer("a.txt"));
        static_cast<void>(co_await phone->expect<Row::Resume>());
        co_await phone->sendBinary(toBytes("01234"));
        EXPECT_TRUE(co_await phone->seesTheEnd());
    }(world));
    asio::cancellation_signal stop;
    std::exception_ptr outcome;
    platform::spawn(
        world.context.get_executor(),
        [](Task<ReceivedFile> task) -> Task<> { const ReceivedFile file = co_await std::move(task); }(receive()),
        stop.slot(), [&](std::exception_ptr error) { outcome = std::move(error); });
    fakes::runUntilIdle(world.context, world.clock);
    EXPECT_FALSE(outcome);
    stop.emit(asio::cancellation_type::terminal);
    fakes::runUntilIdle(world.context, world.clock);
    fakes::expectCancellation(outcome);
    EXPECT_EQ(world.files.content(folder / "a.txt.partial"), "01234");
    EXPECT_TRUE(fakes::sidecarOf(world.files, folder / "a.txt.partial"));
}

TEST(ReceiveErrorTexts, AreTheFixedOnes) {
    EXPECT_EQ(ReceiveError::listenerStartFailed("x").description(), "listener start failed: x");
    EXPECT_EQ(ReceiveError::wire("x").description(), "wire: x");
    EXPECT_EQ(ReceiveError::noiseHandshakeFailed("x").description(), "noise handshake failed: x");
    EXPECT_EQ(ReceiveError::protocolViolation("x").description(), "protocol violation: x");
    EXPECT_EQ(ReceiveError::fileWriteFailed("x").description(), "file write failed: x");
    EXPECT_EQ(ReceiveError::fileNotTaken("x").description(), "file write failed: x");
    EXPECT_EQ(ReceiveError::timedOut().description(), "timed out");
    EXPECT_EQ(ReceiveError::noConnection().description(), "no connection arrived");
    EXPECT_EQ(ReceiveError::unauthorizedPeer().description(), "remote pubkey \u2260 paired peer");
}

} // namespace
} // namespace orlinth
