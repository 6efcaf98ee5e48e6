#include "OrlinthCore/Sending/SendTransfer.h"

#include "OrlinthCore/Sending/OutgoingFile.h"
#include "fakes/CancelMidway.h"
#include "fakes/World.h"
#include "platform/Spawn.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orlinth {
namespace {

using fakes::ScriptedPeer;
using fakes::World;
using testing::ElementsAre;
using Row = TransportMessage;

/// Writes down what a send tells its observer.
class Recorder : public SendProgress {
public:
    void onFile(const std::string& name, std::int64_t size, const std::string& mime) override {
        add("file " + name + " " + std::to_string(size) + " " + mime);
    }
    void onConnected() override { add("connected"); }
    void onWaking() override { add("waking"); }
    void onHandshakeComplete() override { add("handshake"); }
    void onProgress(std::int64_t sent, std::int64_t total) override {
        add("progress " + std::to_string(sent) + "/" + std::to_string(total));
    }
    void onComplete(const SentFile& result) override { add("complete " + std::to_string(result.bytesSent)); }
    std::vector<std::string> lines;

private:
    void add(std::string line) { lines.push_back(std::move(line)); }
};

/// What the phone saw of one conversation.
struct Seen {
    std::optional<Row::FileOffer> offer;
    Bytes data;
    bool ended = false;
};

/// A phone that takes the file from `offset` and closes.
Task<> takeFile(World& world, std::int64_t offset, Seen& seen) {
    const auto phone = co_await ScriptedPeer::accept(world, world.phoneKey);
    seen.offer = co_await phone->expect<Row::FileOffer>();
    co_await phone->send(Row::resume(seen.offer->transfer_id, ByteOffset(offset)));
    seen.data = co_await phone->receiveUntilDone();
    phone->close();
}

/// A phone that answers the offer with something else and waits for the end.
Task<> answer(World& world, TransportMessage message, Seen& seen) {
    const auto phone = co_await ScriptedPeer::accept(world, world.phoneKey);
    seen.offer = co_await phone->expect<Row::FileOffer>();
    co_await phone->send(std::move(message));
    seen.ended = co_await phone->seesTheEnd();
}

/// The same, but the answer quotes the offer's transfer id.
Task<> answerOffset(World& world, std::int64_t offset, Seen& seen) {
    const auto phone = co_await ScriptedPeer::accept(world, world.phoneKey);
    seen.offer = co_await phone->expect<Row::FileOffer>();
    co_await phone->send(Row::resume(seen.offer->transfer_id, ByteOffset(offset)));
    seen.ended = co_await phone->seesTheEnd();
}

class SendTransfer : public testing::Test {
protected:
    SendTransfer() {
        world.files.putFolder("/home/ann/.local/share/Orlinth");
        world.files.put("/home/ann/a.txt", "0123456789");
    }

    SendRequest request(const std::string& path = "/home/ann/a.txt") {
        return {.fileURL = path,
                .journal = journal,
                .terms = {.peer = world.phoneRecord(),
                          .staticKey = world.computerKey,
                          .warmConnectTimeout = 5s,
                          .postWakeConnectTimeout = 30s,
                          .postWakeAttemptTimeout = 5s,
                          .postWakeRetryInterval = 1s,
                          .progress = &recorder}};
    }
    Task<SentFile> send() { return sendOneFile(world.system, request()); }

    World world;
    InFlightJournal journal{world.files, "/home/ann/.local/share/Orlinth/inflight.json"};
    Recorder recorder;
    Seen seen;
};

std::string pattern(std::size_t size) {
    std::string text(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
        text[i] = static_cast<char>((i * 131 + i / 251) & 0xff);
    }
    return text;
}

TEST_F(SendTransfer, DeliversTheFileAndForgetsItsJournalEntry) {
    world.alongside(takeFile(world, 0, seen));
    const SentFile result = world.run(send());
    EXPECT_EQ(toText(seen.data), "0123456789");
    EXPECT_EQ(seen.offer->name, "a.txt");
    EXPECT_EQ(seen.offer->size, 10);
    EXPECT_EQ(seen.offer->mime, "text/plain");
    EXPECT_EQ(seen.offer->transfer_id.size(), 36U);
    EXPECT_EQ(result.savedPath, "/home/ann/a.txt");
    EXPECT_EQ(result.bytesSent, 10);
    EXPECT_EQ(result.advertisedSize, 10);
    EXPECT_EQ(result.resumedFromOffset, ByteOffset());
    EXPECT_TRUE(journal.snapshotEntries().empty());
    EXPECT_THAT(recorder.lines, ElementsAre("file a.txt 10 text/plain", "connected", "handshake", "progress 0/10",
                                            "progress 10/10", "complete 10"));
    EXPECT_THAT(world.queues.labels, ElementsAre("orlinth.send"));
}

TEST_F(SendTransfer, SwitchesKeepAliveOnOnlyIfAskedTo) {
    world.alongside(takeFile(world, 0, seen));
    static_cast<void>(world.run(send()));
    EXPECT_TRUE(world.network.keepAlives->empty());

    SendRequest watched = request();
    watched.terms.keepAlive = platform::KeepAlive{.idle = 7s, .interval = 3s, .count = 2};
    fakes::runUntilIdle(world.context, world.clock);
    world.alongside(takeFile(world, 0, seen));
    static_cast<void>(world.run(sendOneFile(world.system, std::move(watched))));
    ASSERT_EQ(world.network.keepAlives->size(), 1U);
    EXPECT_EQ(world.network.keepAlives->front().idle, 7s);
    EXPECT_EQ(world.network.keepAlives->front().interval, 3s);
    EXPECT_EQ(world.network.keepAlives->front().count, 2);
}

TEST_F(SendTransfer, SplitsALargeFileIntoChunksOfOneMebibyte) {
    const std::string content = pattern(2 * 1'048'576 + 7);
    world.files.put("/home/ann/big.bin", content);
    world.alongside(takeFile(world, 0, seen));
    const SentFile result = world.run(sendOneFile(world.system, request("/home/ann/big.bin")));
    EXPECT_EQ(toText(seen.data), content);
    EXPECT_EQ(result.bytesSent, 2'097'159);
    EXPECT_THAT(recorder.lines,
                ElementsAre("file big.bin 2097159 application/octet-stream", "connected", "handshake",
                            "progress 0/2097159", "progress 1048576/2097159", "progress 2097152/2097159",
                            "progress 2097159/2097159", "complete 2097159"));
}

TEST_F(SendTransfer, SendsOnlyWhatThePhoneLacks) {
    world.alongside(takeFile(world, 4, seen));
    const SentFile result = world.run(send());
    EXPECT_EQ(toText(seen.data), "456789");
    EXPECT_EQ(result.bytesSent, 10);
    EXPECT_EQ(result.resumedFromOffset, ByteOffset(4));
}

TEST_F(SendTransfer, SendsAnEmptyFileWithoutABinaryFrame) {
    world.files.put("/home/ann/empty", "");
    world.alongside(takeFile(world, 0, seen));
    const SentFile result = world.run(sendOneFile(world.system, request("/home/ann/empty")));
    EXPECT_TRUE(seen.data.empty());
    EXPECT_EQ(result.bytesSent, 0);
    EXPECT_THAT(recorder.lines, ElementsAre("file empty 0 application/octet-stream", "connected", "handshake",
                                            "progress 0/0", "complete 0"));
}

TEST_F(SendTransfer, SendsNothingWhenThePhoneHoldsEverything) {
    world.alongside(takeFile(world, 10, seen));
    const SentFile result = world.run(send());
    EXPECT_TRUE(seen.data.empty());
    EXPECT_EQ(result.bytesSent, 10);
    EXPECT_EQ(result.resumedFromOffset, ByteOffset(10));
}

TEST_F(SendTransfer, RefusesAnOffsetBeyondTheFile) {
    world.alongside(answerOffset(world, 11, seen));
    const auto error = world.failure<SendError>(send());
    EXPECT_EQ(error.which(), SendError::Case::malformedResume);
    EXPECT_EQ(error.description(), "malformed Resume: accepted_offset out of range: 11/10");
    fakes::runUntilIdle(world.context, world.clock);
    EXPECT_TRUE(seen.ended) << "the connection is closed";
}

TEST_F(SendTransfer, RefusesANegativeOffset) {
    world.alongside(answerOffset(world, -1, seen));
    EXPECT_EQ(world.failure<SendError>(send()).description(), "malformed Resume: accepted_offset out of range: -1/10");
}

TEST_F(SendTransfer, RefusesAResumeWithAnIdThatNobodyHasAndDoesNotRepeatIt) {
    world.alongside(answer(world, Row::resume(std::string(1'000'000, 'x'), ByteOffset()), seen));
    EXPECT_EQ(world.failure<SendError>(send()).description(),
              "malformed Resume: transfer_id of 1000000 bytes, more than 256");
}

TEST_F(SendTransfer, RefusesAResumeOfAnotherTransfer) {
    world.alongside(answer(world, Row::resume("OTHER", ByteOffset()), seen));
    const auto error = world.failure<SendError>(send());
    EXPECT_EQ(error.description(),
              "malformed Resume: transfer_id mismatch (got OTHER, want " + seen.offer->transfer_id + ")");
}

TEST_F(SendTransfer, ReportsThatThePhoneDeclined) {
    world.alongside(answer(world, Row::decline(), seen));
    EXPECT_EQ(world.failure<SendError>(send()).description(), "the phone declined the file.");
    EXPECT_EQ(journal.snapshotEntries().size(), 1U);
}

TEST_F(SendTransfer, ReportsThatThePhoneRemovedThisComputer) {
    world.alongside(answer(world, Row::unpair(), seen));
    EXPECT_EQ(world.failure<SendError>(send()).description(), "the phone removed this Mac. Pair again to send to it.");
}

TEST_F(SendTransfer, RefusesAnyOtherAnswerAndNamesIt) {
    world.alongside(answer(world, Row::done(), seen));
    const auto error = world.failure<SendError>(send());
    EXPECT_EQ(error.which(), SendError::Case::unexpectedFrame);
    EXPECT_THAT(error.description(), testing::StartsWith("unexpected frame: expected Resume, got "));
    EXPECT_THAT(error.description(), testing::HasSubstr("Done"));
}

TEST_F(SendTransfer, OffersTheSameIdUntilTheFileHasArrived) {
    world.alongside(answer(world, Row::decline(), seen));
    static_cast<void>(world.failure<SendError>(send()));
    const std::string first = seen.offer->transfer_id;
    world.alongside(takeFile(world, 0, seen));
    static_cast<void>(world.run(send()));
    EXPECT_EQ(seen.offer->transfer_id, first);
    fakes::runUntilIdle(world.context, world.clock);
    world.alongside(takeFile(world, 0, seen));
    static_cast<void>(world.run(send()));
    EXPECT_NE(seen.offer->transfer_id, first);
}

TEST_F(SendTransfer, RefusesAPhoneWithAnotherKeyBeforeItSaysAnything) {
    SendRequest toAnother = request();
    toAnother.terms.peer.peer_pubkey = platform::PrivateKey::generate().publicKey().peerKey();
    world.alongside([](World& theWorld, Seen& what) -> Task<> {
        const auto phone = co_await ScriptedPeer::accept(theWorld, theWorld.phoneKey);
        what.ended = co_await phone->seesTheEnd();
    }(world, seen));
    const auto error = world.failure<SendError>(sendOneFile(world.system, std::move(toAnother)));
    EXPECT_EQ(error.description(), "remote pubkey ≠ paired peer");
    fakes::runUntilIdle(world.context, world.clock);
    EXPECT_TRUE(seen.ended) << "no frame was sent to it";
}

TEST_F(SendTransfer, DoesNotConnectForAKeyThatIsNotBase64) {
    SendRequest broken = request();
    broken.terms.peer.peer_pubkey = PeerKey("not base64!");
    EXPECT_EQ(world.failure<SendError>(sendOneFile(world.system, std::move(broken))).which(),
              SendError::Case::unauthorizedPeer);
    EXPECT_TRUE(world.network.attempts.empty());
}

TEST_F(SendTransfer, ReportsADifferentPrologueAsAFailedHandshake) {
    world.alongside([](World& theWorld) -> Task<> {
        try {
            const auto phone = co_await ScriptedPeer::accept(theWorld, theWorld.phoneKey, "Orlinth_v2");
        } catch (const WireConnection::Error&) {
            // The computer breaks off; that is what this test expects.
        }
    }(world));
    const auto error = world.failure<SendError>(send());
    EXPECT_EQ(error.which(), SendError::Case::noiseHandshakeFailed);
    EXPECT_THAT(error.description(), testing::StartsWith("noise handshake: noise decrypt failed: "));
}

TEST_F(SendTransfer, ReportsAMissingFileByItsPath) {
    EXPECT_EQ(world.failure<SendError>(sendOneFile(world.system, request("/home/ann/none"))).description(),
              "file missing: /home/ann/none");
    EXPECT_TRUE(world.network.attempts.empty());
    EXPECT_TRUE(recorder.lines.empty());
}

TEST_F(SendTransfer, RefusesAFolderBeforeConnecting) {
    const auto error = world.failure<SendError>(sendOneFile(world.system, request("/home/ann")));
    EXPECT_EQ(error.description(), "file read: Is a directory");
    EXPECT_TRUE(world.network.attempts.empty());
    EXPECT_TRUE(journal.snapshotEntries().empty());
}

TEST_F(SendTransfer, RefusesASpecialFileBecauseItWouldNeverEnd) {
    world.files.putSpecial("/home/ann/pipe");
    EXPECT_EQ(world.failure<SendError>(sendOneFile(world.system, request("/home/ann/pipe"))).description(),
              "file read: not a regular file");
}

TEST_F(SendTransfer, FollowsALinkAndSendsItUnderItsOwnName) {
    world.files.putLink("/home/ann/link.pdf", "/home/ann/a.txt");
    world.alongside(takeFile(world, 0, seen));
    static_cast<void>(world.run(sendOneFile(world.system, request("/home/ann/link.pdf"))));
    EXPECT_EQ(seen.offer->name, "link.pdf");
    EXPECT_EQ(seen.offer->mime, "application/pdf");
    EXPECT_EQ(toText(seen.data), "0123456789");
}

TEST_F(SendTransfer, OffersANameThatIsNotUtf8WithReplacements) {
    world.files.put("/home/ann/caf\xe9.txt", "x");
    world.alongside(takeFile(world, 0, seen));
    static_cast<void>(world.run(sendOneFile(world.system, request("/home/ann/caf\xe9.txt"))));
    EXPECT_EQ(seen.offer->name, "caf\xef\xbf\xbd.txt");
}

TEST_F(SendTransfer, SendsWhatTheFileHasGrownByToo) {
    world.alongside([](World& theWorld, Seen& what) -> Task<> {
        const auto phone = co_await ScriptedPeer::accept(theWorld, theWorld.phoneKey);
        what.offer = co_await phone->expect<Row::FileOffer>();
        theWorld.files.put("/home/ann/a.txt", "0123456789ABC");
        co_await phone->send(Row::resume(what.offer->transfer_id, ByteOffset()));
        what.data = co_await phone->receiveUntilDone();
        phone->close();
    }(world, seen));
    const SentFile result = world.run(send());
    EXPECT_EQ(toText(seen.data), "0123456789ABC");
    EXPECT_EQ(result.bytesSent, 13);
    EXPECT_EQ(result.advertisedSize, 10);
}

TEST_F(SendTransfer, ReportsAFileThatVanishedBeforeItWasOpened) {
    world.alongside([](World& theWorld, Seen& what) -> Task<> {
        const auto phone = co_await ScriptedPeer::accept(theWorld, theWorld.phoneKey);
        what.offer = co_await phone->expect<Row::FileOffer>();
        theWorld.files.remove("/home/ann/a.txt");
        co_await phone->send(Row::resume(what.offer->transfer_id, ByteOffset()));
        what.ended = co_await phone->seesTheEnd();
    }(world, seen));
    EXPECT_EQ(world.failure<SendError>(send()).description(), "file read: No such file or directory");
}

TEST_F(SendTransfer, ReportsAReadErrorInTheMiddle) {
    world.files.addFault({.operation = fakes::Operation::read, .errorNumber = EIO, .skip = 1, .nameEnding = "a.txt"});
    world.alongside(answerOffset(world, 0, seen));
    const auto error = world.failure<SendError>(send());
    EXPECT_THAT(error.description(), testing::StartsWith("file read: read failed: "));
    EXPECT_EQ(journal.snapshotEntries().size(), 1U);
}

TEST_F(SendTransfer, ReportsWhereItCouldNotSeekTo) {
    world.files.addFault({.operation = fakes::Operation::seek, .errorNumber = EIO, .nameEnding = "a.txt"});
    world.alongside(answerOffset(world, 4, seen));
    const auto error = world.failure<SendError>(send());
    EXPECT_EQ(error.which(), SendError::Case::fileRead);
    EXPECT_EQ(error.description(), "file read: seek to 4 failed: Input/output error");
    EXPECT_EQ(journal.snapshotEntries().size(), 1U);
}

TEST_F(SendTransfer, PassesOnWhatTheSystemSaysOfAttributesThatCannotBeRead) {
    world.files.addFault(
        {.operation = fakes::Operation::status, .errorNumber = EACCES, .times = 1, .nameEnding = "a.txt"});
    const auto error = world.failure<platform::SystemError>(send());
    EXPECT_EQ(error.description(), "Permission denied");
    EXPECT_THAT(recorder.lines, ElementsAre());
    EXPECT_EQ(journal.snapshotEntries().size(), 0U);
}

TEST_F(SendTransfer, CallsAFileMissingWhoseFolderCannotBeLookedInto) {
    world.files.addFault({.operation = fakes::Operation::status, .errorNumber = EACCES, .nameEnding = "a.txt"});
    EXPECT_EQ(world.failure<SendError>(send()).which(), SendError::Case::fileMissing);
}

TEST_F(SendTransfer, GivesUpAPhoneThatConnectsAndDoesNotProveItsKey) {
    const std::unique_ptr<platform::Listener> listener =
        world.network.listen({.port = World::phonePort, .keepAlive = std::nullopt}, world.context.get_executor());
    const auto limited = [this]() -> Task<SendOutcome> {
        SendTerms terms = request().terms;
        terms.handshakeLimit = 10s;
        PreparedFile file{.path = "/home/ann/a.txt",
                          .file = examineFile(world.files, world.mimeTypes, "/home/ann/a.txt"),
                          .transferId = TransferId("ID")};
        return sendPrepared(world.system, std::move(file), std::move(terms));
    };
    EXPECT_EQ(world.failure<SendError>(limited()).description(), "noise handshake: timed out after 10 seconds");
    EXPECT_DOUBLE_EQ(world.clock.elapsed(), 10);
}

TEST_F(SendTransfer, GivesUpAPhoneThatLetsNothingMove) {
    world.alongside([](World& theWorld) -> Task<> {
        const auto phone = co_await ScriptedPeer::accept(theWorld, theWorld.phoneKey);
        const auto offer = co_await phone->expect<Row::FileOffer>();
        co_await theWorld.clock.sleep(200s); // somebody has to say yes
        co_await phone->send(Row::resume(offer.transfer_id, ByteOffset()));
        co_await theWorld.clock.sleep(3600s);
    }(world));
    world.files.put("/home/ann/a.txt", std::string(3'000'000, 'x'));
    const auto limited = [this]() -> Task<SendOutcome> {
        SendTerms terms = request().terms;
        terms.silenceLimit = 300s;
        PreparedFile file{.path = "/home/ann/a.txt",
                          .file = examineFile(world.files, world.mimeTypes, "/home/ann/a.txt"),
                          .transferId = TransferId("ID")};
        return sendPrepared(world.system, std::move(file), std::move(terms));
    };
    const auto error = world.failure<SendError>(limited());
    EXPECT_EQ(error.description(), "network: no progress for 5 minutes");
    EXPECT_EQ(error.reason(), SendError::Reason::stalled);
    EXPECT_DOUBLE_EQ(world.clock.elapsed(), 500);
}

TEST_F(SendTransfer, GoesOnWithoutAFingerprintThatCannotBeTaken) {
    world.files.addFault({.operation = fakes::Operation::read, .errorNumber = EIO, .times = 1, .nameEnding = "a.txt"});
    const OutgoingFile examined = examineFile(world.files, world.mimeTypes, "/home/ann/a.txt");
    EXPECT_EQ(examined, (OutgoingFile{.name = "a.txt",
                                      .size = 10,
                                      .mime = "text/plain",
                                      .fingerprint = "",
                                      .seen = world.files.status("/home/ann/a.txt").value()}));
    world.files.clearFaults();
    world.files.addFault({.operation = fakes::Operation::read, .errorNumber = EIO, .times = 1, .nameEnding = "a.txt"});
    world.alongside(takeFile(world, 0, seen));
    EXPECT_EQ(world.run(send()).bytesSent, 10);
    EXPECT_EQ(toText(seen.data), "0123456789");
}

TEST_F(SendTransfer, EndsTheProcessForAPortThatIsNone) {
    for (const std::int64_t port : {std::int64_t{-1}, std::int64_t{65536}}) {
        SendRequest wrong = request();
        wrong.terms.peer.peer_port = port;
        EXPECT_DEATH(static_cast<void>(world.run(sendOneFile(world.system, std::move(wrong)))),
                     "programming error: peer_port is outside 0 to 65535");
    }
}

TEST_F(SendTransfer, IsCancelledAfterTheResumeAndBeforeTheFirstChunk) {
    SendRequest cancelled = request();
    cancelled.terms.cancel = [] { return true; };
    world.alongside(answerOffset(world, 0, seen));
    const auto error = world.failure<SendError>(sendOneFile(world.system, std::move(cancelled)));
    EXPECT_EQ(error.description(), "cancelled by user");
    EXPECT_THAT(recorder.lines, ElementsAre("file a.txt 10 text/plain", "connected", "handshake", "progress 0/10"));
    fakes::runUntilIdle(world.context, world.clock);
    EXPECT_TRUE(seen.ended) << "no chunk was sent";
    EXPECT_EQ(journal.snapshotEntries().size(), 1U);
}

TEST_F(SendTransfer, FailsAtTheWarmDeadlineForAPhoneThatDoesNotAnswer) {
    world.network.makeSilent("203.0.113.2");
    EXPECT_EQ(world.failure<SendError>(send()).description(), "network: connect timed out");
    EXPECT_DOUBLE_EQ(world.clock.elapsed(), 5.0);
    EXPECT_EQ(world.network.attempts.size(), 1U);
    EXPECT_EQ(journal.snapshotEntries().size(), 1U);
}

TEST_F(SendTransfer, ReportsARefusedConnection) {
    EXPECT_EQ(world.failure<SendError>(send()).description(), "network: Connection refused");
}

TEST_F(SendTransfer, PassesAWireErrorInTheDataThroughUnchanged) {
    world.files.put("/home/ann/big.bin", pattern(3 << 20));
    world.network.faults.push_back({{.resetAfter = 1'500'000}, {}});
    world.alongside([](World& theWorld, Seen& what) -> Task<> {
        const auto phone = co_await ScriptedPeer::accept(theWorld, theWorld.phoneKey);
        what.offer = co_await phone->expect<Row::FileOffer>();
        co_await phone->send(Row::resume(what.offer->transfer_id, ByteOffset()));
        what.ended = false;
        while (!what.ended) {
            what.ended = co_await phone->seesTheEnd();
        }
    }(world, seen));
    const auto error = world.failure<WireConnection::Error>(sendOneFile(world.system, request("/home/ann/big.bin")));
    EXPECT_EQ(error.description(), "wire I/O error: Connection reset by peer");
    EXPECT_EQ(journal.snapshotEntries().size(), 1U);
}

TEST_F(SendTransfer, ReportsTheEndOfTheStreamInPlaceOfAnAnswer) {
    world.alongside([](World& theWorld, Seen& what) -> Task<> {
        const auto phone = co_await ScriptedPeer::accept(theWorld, theWorld.phoneKey);
        what.offer = co_await phone->expect<Row::FileOffer>();
        phone->close();
    }(world, seen));
    EXPECT_EQ(world.failure<WireConnection::Error>(send()).description(), "wire EOF before expected bytes");
}

TEST_F(SendTransfer, WaitsForTheAnswerAsLongAsAPersonTakes) {
    world.alongside([](World& theWorld, Seen& what) -> Task<> {
        const auto phone = co_await ScriptedPeer::accept(theWorld, theWorld.phoneKey);
        what.offer = co_await phone->expect<Row::FileOffer>();
        co_await theWorld.clock.sleep(7200s);
        co_await phone->send(Row::resume(what.offer->transfer_id, ByteOffset()));
        what.data = co_await phone->receiveUntilDone();
        phone->close();
    }(world, seen));
    const SentFile result = world.run(send());
    EXPECT_EQ(result.bytesSent, 10);
    EXPECT_LT(result.durationSeconds, 1s) << "the wait is not part of the transfer";
}

TEST_F(SendTransfer, WaitsASecondAtMostForThePhoneToClose) {
    world.alongside([](World& theWorld, Seen& what) -> Task<> {
        const auto phone = co_await ScriptedPeer::accept(theWorld, theWorld.phoneKey);
        what.offer = co_await phone->expect<Row::FileOffer>();
        co_await phone->send(Row::resume(what.offer->transfer_id, ByteOffset()));
        what.data = co_await phone->receiveUntilDone();
        co_await theWorld.clock.sleep(60s);
    }(world, seen));
    const SentFile result = world.run(send());
    EXPECT_EQ(result.bytesSent, 10);
    EXPECT_DOUBLE_EQ(world.clock.elapsed(), 1.0);
    EXPECT_EQ(recorder.lines.back(), "complete 10");
}

TEST_F(SendTransfer, CompletesAlthoughThePhoneBreaksOffAfterDone) {
    world.alongside([](World& theWorld, Seen& what) -> Task<> {
        const auto phone = co_await ScriptedPeer::accept(theWorld, theWorld.phoneKey);
        what.offer = co_await phone->expect<Row::FileOffer>();
        co_await phone->send(Row::resume(what.offer->transfer_id, ByteOffset()));
        what.data = co_await phone->receiveUntilDone();
        co_await phone->send(Row::decline());
        co_await phone->send(Row::decline());
        phone->close();
    }(world, seen));
    EXPECT_EQ(world.run(send()).bytesSent, 10);
    EXPECT_TRUE(journal.snapshotEntries().empty());
}

// --- a file that was prepared, without a journal ---

/// What becomes of a prepared file at whose end the phone does this.
SendOutcome outcomeWith(World& world, const std::function<Task<>(ScriptedPeer&)>& atTheEnd) {
    world.alongside([](World& theWorld, std::function<Task<>(ScriptedPeer&)> end) -> Task<> {
        const auto phone = co_await ScriptedPeer::accept(theWorld, theWorld.phoneKey);
        const auto offer = co_await phone->expect<Row::FileOffer>();
        EXPECT_EQ(offer.transfer_id, "MY ID");
        EXPECT_EQ(offer.name, "b.txt");
        co_await phone->send(Row::resume(offer.transfer_id, ByteOffset(4)));
        const Bytes data = co_await phone->receiveUntilDone();
        EXPECT_EQ(toText(data), "456789");
        co_await end(*phone);
    }(world, atTheEnd));
    PreparedFile file{.path = "/home/ann/a.txt",
                      .file = {.name = "b.txt", .size = 10, .mime = "text/plain", .fingerprint = ""},
                      .transferId = TransferId("MY ID")};
    return world.run(sendPrepared(world.system, std::move(file),
                                  {.peer = world.phoneRecord(),
                                   .staticKey = world.computerKey,
                                   .warmConnectTimeout = 5s,
                                   .postWakeConnectTimeout = 30s,
                                   .postWakeAttemptTimeout = 5s,
                                   .postWakeRetryInterval = 1s,
                                   .farewellLimit = 60s}));
}

TEST_F(SendTransfer, TellsOfAPreparedFileHowThePhoneTookItsLeave) {
    const auto close = [](ScriptedPeer& phone) -> Task<> {
        phone.close();
        co_return;
    };
    const SendOutcome outcome = outcomeWith(world, close);
    EXPECT_EQ(outcome.farewell, WireConnection::Farewell::closed);
    EXPECT_EQ(outcome.sent.bytesSent, 10);
    EXPECT_EQ(outcome.sent.resumedFromOffset, ByteOffset(4));
    EXPECT_FALSE(world.files.exists("/home/ann/.local/share/Orlinth/inflight.json"));
}

TEST_F(SendTransfer, DropsWhatThePhoneSaysBehindTheEndOfAPreparedFile) {
    const auto saySomething = [](ScriptedPeer& phone) -> Task<> {
        co_await phone.send(Row::decline());
        co_await phone.send(Row::decline());
        phone.close();
    };
    const SendOutcome outcome = outcomeWith(world, saySomething);
    EXPECT_EQ(outcome.farewell, WireConnection::Farewell::closed) << "what it says behind the end does not count";
    const auto stay = [this](ScriptedPeer&) -> Task<> { co_await world.clock.sleep(100s); };
    EXPECT_EQ(outcomeWith(world, stay).farewell, WireConnection::Farewell::acknowledged);
}

TEST_F(SendTransfer, StoppedAtAnyWaitClosesTheConnectionAndKeepsTheJournalEntry) {
    enum class Wait { connect, handshake, answer };
    for (const Wait wait : {Wait::connect, Wait::handshake, Wait::answer}) {
        World here;
        here.files.put("/home/ann/a.txt", "0123456789");
        InFlightJournal itsJournal(here.files, "/home/ann/inflight.json");
        bool sawTheEnd = wait == Wait::connect;
        if (wait == Wait::connect) {
            here.network.makeSilent("203.0.113.2");
        } else {
            here.alongside([](World& theWorld, bool answers, bool& ended) -> Task<> {
                if (answers) {
                    const auto phone = co_await ScriptedPeer::accept(theWorld, theWorld.phoneKey);
                    const auto offer = co_await phone->expect<Row::FileOffer>();
                    ended = co_await phone->seesTheEnd();
                    co_return;
                }
                const auto listener = theWorld.network.listen({.port = World::phonePort, .keepAlive = std::nullopt},
                                                              theWorld.context.get_executor());
                auto stream = co_await listener->accept(theWorld.context.get_executor());
                Bytes all(1000);
                const std::size_t count = co_await stream->readExact(all);
                ended = count < all.size();
            }(here, wait == Wait::answer, sawTheEnd));
        }
        SendRequest stopped{.fileURL = "/home/ann/a.txt",
                            .journal = itsJournal,
                            .terms = {.peer = here.phoneRecord(),
                                      .staticKey = here.computerKey,
                                      .warmConnectTimeout = 0s,
                                      .postWakeConnectTimeout = 0s,
                                      .postWakeAttemptTimeout = 0s,
                                      .postWakeRetryInterval = 0s}};
        asio::cancellation_signal stop;
        std::exception_ptr outcome;
        platform::spawn(
            here.context.get_executor(),
            [](Task<SentFile> task) -> Task<> {
                const SentFile sent = co_await std::move(task);
            }(sendOneFile(here.system, std::move(stopped))),
            stop.slot(), [&](std::exception_ptr error) { outcome = std::move(error); });
        fakes::runUntilIdle(here.context, here.clock);
        EXPECT_FALSE(outcome);
        stop.emit(asio::cancellation_type::terminal);
        fakes::runUntilIdle(here.context, here.clock);
        fakes::expectCancellation(outcome);
        EXPECT_TRUE(sawTheEnd);
        EXPECT_EQ(itsJournal.snapshotEntries().size(), 1U);
    }
}

TEST(OutgoingFile, HasTheMimeTypeOfItsExtensionOrTheGeneralOne) {
    const fakes::FakeMimeTypes types;
    EXPECT_EQ(mimeType(types, "/a/b.txt"), "text/plain");
    EXPECT_EQ(mimeType(types, "/a/b.PDF"), "application/pdf");
    EXPECT_EQ(mimeType(types, "/a/b"), "application/octet-stream");
    EXPECT_EQ(mimeType(types, "/a.txt/b"), "application/octet-stream");
    EXPECT_EQ(mimeType(types, "/a/.txt"), "application/octet-stream");
    EXPECT_EQ(mimeType(types, "/a/b.unknown"), "application/octet-stream");
}

TEST(SendErrorTexts, AreTheFixedOnes) {
    EXPECT_EQ(SendError::fileMissing("/x").description(), "file missing: /x");
    EXPECT_EQ(SendError::fileRead("x").description(), "file read: x");
    EXPECT_EQ(SendError::network("x").description(), "network: x");
    EXPECT_EQ(SendError::noiseHandshakeFailed("x").description(), "noise handshake: x");
    EXPECT_EQ(SendError::unexpectedFrame("x").description(), "unexpected frame: x");
    EXPECT_EQ(SendError::malformedResume("x").description(), "malformed Resume: x");
    EXPECT_EQ(SendError::unauthorizedPeer().description(), "remote pubkey \u2260 paired peer");
    EXPECT_EQ(SendError::cancelled().description(), "cancelled by user");
    EXPECT_EQ(SendError::peerRemoved().description(), "the phone removed this Mac. Pair again to send to it.");
    EXPECT_EQ(SendError::declined().description(), "the phone declined the file.");
}

} // namespace
} // namespace orlinth
