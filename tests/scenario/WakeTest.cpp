#include "OrlinthCore/Sending/ClipboardSender.h"
#include "OrlinthCore/Sending/SendTransfer.h"
#include "fakes/CancelMidway.h"
#include "fakes/TestRsaKey.h"
#include "fakes/World.h"
#include "platform/Spawn.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace orlinth {
namespace {

using fakes::ScriptedPeer;
using fakes::World;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using Row = TransportMessage;

constexpr const char* tokenReply = R"({"access_token":"at","expires_in":3600,"token_type":"Bearer"})";
constexpr const char* accountFile = "/home/ann/.local/share/Orlinth/firebase-service-account.json";

/// A phone that takes one file and closes.
Task<> takeFile(World& world, std::string& content) {
    const auto phone = co_await ScriptedPeer::accept(world, world.phoneKey);
    const auto offer = co_await phone->expect<Row::FileOffer>();
    co_await phone->send(Row::resume(offer.transfer_id, ByteOffset()));
    const Bytes data = co_await phone->receiveUntilDone();
    content = toText(data);
    phone->close();
}

class Waking : public SendProgress {
public:
    explicit Waking(platform::Clock& clock) : clock_(clock) {}
    void onWaking() override { times.push_back(clock_.now().time_since_epoch().count()); }
    void onConnected() override { connected = clock_.now().time_since_epoch().count(); }
    std::vector<double> times;
    double connected = -1;

private:
    platform::Clock& clock_;
};

class Wake : public testing::Test {
protected:
    Wake() {
        world.files.put(accountFile, fakes::serviceAccountJson(fakes::TestRsaKey::shared()));
        world.files.put("/home/ann/a.txt", "0123456789");
    }

    PeerRecord sleepingPhone() { return world.phoneRecord().withFcmToken("fcm-token"); }

    SendRequest request(PeerRecord peer) {
        return {.fileURL = "/home/ann/a.txt",
                .journal = journal,
                .terms = {.peer = std::move(peer),
                          .staticKey = world.computerKey,
                          .warmConnectTimeout = 5s,
                          .postWakeConnectTimeout = 30s,
                          .postWakeAttemptTimeout = 4s,
                          .postWakeRetryInterval = 1500ms,
                          .progress = &progress}};
    }
    Task<SentFile> send() { return sendOneFile(world.system, request(sleepingPhone())); }

    /// The push service accepts, and so many seconds later the phone is awake.
    void pushWakesThePhoneAfter(Seconds time) {
        world.https.willAnswer(200, tokenReply);
        world.https.answers.emplace_back([this, time](const fakes::FakeHttpsClient::Seen&) {
            world.alongside(wakeUp(world, time, content));
            return accepted();
        });
    }
    static Task<platform::HttpResponse> accepted() {
        co_return platform::HttpResponse{.status = 200, .body = toBytes("{}")};
    }
    static Task<> wakeUp(World& theWorld, Seconds time, std::string& to) {
        co_await theWorld.clock.sleep(time);
        theWorld.network.makeAnswer("203.0.113.2");
        co_await takeFile(theWorld, to);
    }

    World world;
    InFlightJournal journal{world.files, "/home/ann/inflight.json"};
    Waking progress{world.clock};
    std::string content;
};

TEST_F(Wake, EndsTheProcessForAPauseThatIsNone) {
    for (const Seconds pause :
         {Seconds(-1), Seconds(1e10), Seconds(std::numeric_limits<double>::infinity()), Seconds(std::nan(""))}) {
        const auto sendWithPause = [this, pause] {
            world.https.willAnswer(200, tokenReply);
            world.https.willAnswer(200, "{}");
            SendRequest wrong = request(sleepingPhone());
            wrong.terms.postWakeRetryInterval = pause;
            static_cast<void>(world.run(sendOneFile(world.system, std::move(wrong))));
        };
        EXPECT_DEATH(sendWithPause(), "programming error: the retry interval is negative, not finite or out of range");
    }
}

TEST_F(Wake, ReachesAPhoneThatRefusesByAPushAndHalfASecond) {
    pushWakesThePhoneAfter(100ms);
    EXPECT_EQ(world.run(send()).bytesSent, 10);
    EXPECT_EQ(content, "0123456789");
    EXPECT_THAT(progress.times, ElementsAre(0.0));
    EXPECT_DOUBLE_EQ(progress.connected, 0.5);
}

TEST_F(Wake, ReachesAPhoneThatDoesNotAnswerAfterTheWarmDeadline) {
    world.network.makeSilent("203.0.113.2");
    pushWakesThePhoneAfter(100ms);
    EXPECT_EQ(world.run(send()).bytesSent, 10);
    EXPECT_THAT(progress.times, ElementsAre(5.0));
    EXPECT_DOUBLE_EQ(progress.connected, 5.5);
}

TEST_F(Wake, ReachesAPhoneThatCannotBeReachedAfterTheWarmDeadline) {
    // Its radio is off: nobody answers for its address, and Linux gives up asking after three seconds.
    world.network.makeFailWithErrno("203.0.113.2", EHOSTUNREACH, world.clock, 3100ms);
    pushWakesThePhoneAfter(4s);
    EXPECT_EQ(world.run(send()).bytesSent, 10);
    EXPECT_THAT(progress.times, ElementsAre(5.0));
    // The phone is there at 9; the try that began at 5.5 fails at 8.6, and the next one is that of 9.1.
    EXPECT_DOUBLE_EQ(progress.connected, 9.1);
}

TEST_F(Wake, ReachesAPhoneWhoseNameDoesNotResolveWhileItSleeps) {
    world.network.makeFail("203.0.113.2", asio::error::host_not_found, world.clock);
    pushWakesThePhoneAfter(100ms);
    EXPECT_EQ(world.run(send()).bytesSent, 10);
    EXPECT_THAT(progress.times, ElementsAre(5.0));
    EXPECT_DOUBLE_EQ(progress.connected, 5.5);
}

/// The system's errors in a session of another language.
class German : public std::error_category {
public:
    const char* name() const noexcept override { return "german"; }
    std::string message(int /*number*/) const override { return "Verbindungsaufbau abgelehnt"; }
    std::error_condition default_error_condition(int number) const noexcept override {
        return {number, std::generic_category()};
    }
};

TEST_F(Wake, ReachesAPhoneWhateverLanguageTheSystemSpeaks) {
    static const German german;
    for (const int number : {ECONNREFUSED, ETIMEDOUT}) {
        world.network.makeFail("203.0.113.2", std::error_code(number, german), world.clock);
        pushWakesThePhoneAfter(100ms);
        EXPECT_EQ(world.run(send()).bytesSent, 10);
        fakes::runUntilIdle(world.context, world.clock);
    }
    EXPECT_EQ(progress.times.size(), 2U);
}

TEST_F(Wake, TriesAgainWithPausesUntilThePhoneIsUp) {
    pushWakesThePhoneAfter(4s);
    EXPECT_EQ(world.run(send()).bytesSent, 10);
    // Refused at 0; after the push attempts at 0.5, 2.0, 3.5 are refused, the one at 5.0 succeeds.
    EXPECT_DOUBLE_EQ(progress.connected, 5.0);
    EXPECT_EQ(world.network.attempts.size(), 5U);
}

TEST_F(Wake, EndsWithTheLastAttemptsErrorWhenTheWindowHasPassed) {
    world.network.makeSilent("203.0.113.2");
    world.https.willAnswer(200, tokenReply);
    world.https.willAnswer(200, "{}");
    EXPECT_EQ(world.failure<SendError>(send()).description(), "network: connect timed out");
    // Warm until 5; from 5.5 on attempts of 4 s with 1.5 s between them while the window of 30 s lasts: 6 of them.
    EXPECT_EQ(world.network.attempts.size(), 7U);
    EXPECT_DOUBLE_EQ(world.clock.elapsed(), 5.5 + 6 * 5.5);
    EXPECT_EQ(journal.snapshotEntries().size(), 1U);
}

TEST_F(Wake, MakesNoAttemptInAWindowOfZero) {
    world.https.willAnswer(200, tokenReply);
    world.https.willAnswer(200, "{}");
    SendRequest noWindow = request(sleepingPhone());
    noWindow.terms.postWakeConnectTimeout = 0s;
    EXPECT_EQ(world.failure<SendError>(sendOneFile(world.system, std::move(noWindow))).description(),
              "network: connect timed out after wake");
    EXPECT_EQ(world.network.attempts.size(), 1U);
}

TEST_F(Wake, IsNotTriedForAPhoneWithoutAToken) {
    EXPECT_EQ(world.failure<SendError>(sendOneFile(world.system, request(world.phoneRecord()))).description(),
              "network: Connection refused");
    EXPECT_TRUE(world.https.requests.empty());
    EXPECT_TRUE(progress.times.empty());
}

TEST_F(Wake, IsNotTriedForOtherFailuresOfTheNetwork) {
    PeerRecord noPort = sleepingPhone();
    noPort.peer_port = 0;
    EXPECT_EQ(world.failure<SendError>(sendOneFile(world.system, request(noPort))).description(),
              "network: invalid port 0");
    EXPECT_TRUE(world.https.requests.empty());
}

TEST_F(Wake, IsNotTriedForAPhoneThatCannotBeReachedIfTheFirstAttemptHasNoDeadline) {
    world.network.makeFailWithErrno("203.0.113.2", EHOSTUNREACH, world.clock, 3100ms);
    SendRequest patient = request(sleepingPhone());
    patient.terms.warmConnectTimeout = 0s;
    EXPECT_EQ(world.failure<SendError>(sendOneFile(world.system, std::move(patient))).description(),
              "network: No route to host");
    EXPECT_TRUE(world.https.requests.empty());
}

TEST_F(Wake, ReportsAMissingAccountAsAFailedWake) {
    world.files.remove(accountFile);
    const auto error = world.failure<SendError>(send());
    EXPECT_EQ(error.description(),
              std::string("network: FCM wake failed: service account JSON missing at ") + accountFile);
    EXPECT_EQ(error.reason(), SendError::Reason::pushFailed);
    try {
        std::rethrow_exception(error.cause());
    } catch (const FcmWake::Error& cause) {
        EXPECT_EQ(cause.which(), FcmWake::Error::Case::serviceAccountMissing);
        EXPECT_EQ(cause.detail(), accountFile);
    }
    EXPECT_TRUE(progress.times.empty());
}

TEST_F(Wake, ReportsAPushThatWasRefused) {
    world.https.willAnswer(200, tokenReply);
    world.https.willAnswer(404, "no such phone");
    EXPECT_EQ(world.failure<SendError>(send()).description(), "network: FCM wake failed: FCM HTTP 404: no such phone");
    EXPECT_EQ(world.https.requests.size(), 2U);
    EXPECT_TRUE(progress.times.empty());
}

TEST_F(Wake, StoppedWhileItTriesAgainEndsAtOnceAndDoesNotSpin) {
    world.network.makeSilent("203.0.113.2");
    world.https.willAnswer(200, tokenReply);
    world.https.willAnswer(200, "{}");
    for (const Seconds when : {Seconds(1), Seconds(5.2), Seconds(7), Seconds(10)}) {
        const std::size_t attemptsBefore = world.network.attempts.size();
        const double start = world.clock.elapsed();
        world.https.answers.clear();
        world.https.willAnswer(200, tokenReply);
        world.https.willAnswer(200, "{}");
        asio::cancellation_signal stop;
        std::exception_ptr outcome;
        platform::spawn(
            world.context.get_executor(),
            [](Task<SentFile> task) -> Task<> { const SentFile sent = co_await std::move(task); }(send()), stop.slot(),
            [&](std::exception_ptr error) { outcome = std::move(error); });
        world.run(world.clock.sleep(when));
        stop.emit(asio::cancellation_type::terminal);
        world.context.restart();
        world.context.poll();
        ASSERT_TRUE(outcome) << "at " << when.count();
        fakes::expectCancellation(outcome);
        EXPECT_LE(world.network.attempts.size() - attemptsBefore, 3U);
        EXPECT_DOUBLE_EQ(world.clock.elapsed() - start, when.count());
    }
}

// One-off messages

struct OneOffSeen {
    std::optional<Row::Clipboard> clipboard;
    bool ended = false;
};

Task<> takeMessage(World& world, OneOffSeen& seen) {
    const auto phone = co_await ScriptedPeer::accept(world, world.phoneKey);
    seen.clipboard = co_await phone->expect<Row::Clipboard>();
    phone->close();
}

Task<> answerMessage(World& world, TransportMessage answer, OneOffSeen& seen) {
    const auto phone = co_await ScriptedPeer::accept(world, world.phoneKey);
    seen.clipboard = co_await phone->expect<Row::Clipboard>();
    co_await phone->send(std::move(answer));
    seen.ended = co_await phone->seesTheEnd();
}

class OneOff : public Wake {
protected:
    OneOffRequest oneOff(PeerRecord peer) {
        return {.peer = std::move(peer),
                .staticKey = world.computerKey,
                .warmConnectTimeout = 5s,
                .postWakeConnectTimeout = 8s};
    }
    Task<OneOffEnd> clip(const std::string& text = "hello") {
        return sendClipboard(world.system, text, "text/plain", oneOff(sleepingPhone()));
    }
    /// Runs it; returns the error's text, "" if there was none.
    std::string outcome(Task<OneOffEnd> task) {
        try {
            end = world.run(std::move(task));
            return "";
        } catch (const Error& error) {
            return error.description();
        }
    }
    OneOffSeen seen;
    std::optional<OneOffEnd> end; ///< of the last that succeeded
};

TEST_F(OneOff, DeliversClipboardTextToAPhoneThatClosesWithoutAnAnswer) {
    world.alongside(takeMessage(world, seen));
    EXPECT_EQ(outcome(clip("h\u00e9llo\n")), "");
    EXPECT_EQ(end, OneOffEnd::ended);
    EXPECT_EQ(seen.clipboard, (Row::Clipboard{"h\u00e9llo\n", "text/plain"}));
    EXPECT_THAT(world.queues.labels, ElementsAre("orlinth.clipboard"));
    EXPECT_TRUE(world.log.lines().empty());
}

TEST_F(OneOff, SwitchesKeepAliveOnOnlyIfAskedTo) {
    world.alongside(takeMessage(world, seen));
    EXPECT_EQ(outcome(clip()), "");
    EXPECT_TRUE(world.network.keepAlives->empty());

    OneOffRequest watched = oneOff(sleepingPhone());
    watched.keepAlive = platform::KeepAlive{.idle = 7s, .interval = 3s, .count = 2};
    fakes::runUntilIdle(world.context, world.clock);
    world.alongside(takeMessage(world, seen));
    EXPECT_EQ(outcome(sendClipboard(world.system, "hello", "text/plain", std::move(watched))), "");
    ASSERT_EQ(world.network.keepAlives->size(), 1U);
    EXPECT_EQ(world.network.keepAlives->front().idle, 7s);
}

TEST_F(OneOff, ReportsThatThePhoneRemovedThisComputer) {
    world.alongside(answerMessage(world, Row::unpair(), seen));
    EXPECT_EQ(outcome(clip()), "the phone removed this Mac. Pair again to send to it.");
    fakes::runUntilIdle(world.context, world.clock);
    EXPECT_TRUE(seen.ended);
}

TEST_F(OneOff, IgnoresAnyOtherAnswer) {
    world.alongside(answerMessage(world, Row::done(), seen));
    EXPECT_EQ(outcome(clip()), "");
}

TEST_F(OneOff, IgnoresAnAnswerThatDoesNotDecode) {
    world.alongside([](World& theWorld, OneOffSeen& what) -> Task<> {
        const auto phone = co_await ScriptedPeer::accept(theWorld, theWorld.phoneKey);
        what.clipboard = co_await phone->expect<Row::Clipboard>();
        co_await phone->wire().sendLengthPrefixed(Bytes(40));
        what.ended = co_await phone->seesTheEnd();
    }(world, seen));
    EXPECT_EQ(outcome(clip()), "");
}

/// A phone that shakes hands, says something (or nothing) and closes before it reads a frame.
Task<> closeBeforeReading(World& world, bool saysUnpair) {
    const auto phone = co_await ScriptedPeer::accept(world, world.phoneKey);
    if (saysUnpair) {
        co_await phone->send(Row::unpair());
    }
    phone->close();
}

TEST_F(OneOff, SucceedsWhenTheWriteFailsAndNoUnpairIsSeen) {
    world.alongside(closeBeforeReading(world, false));
    OneOffRequest late = oneOff(sleepingPhone());
    late.onHandshakeComplete = [this] { fakes::runUntilIdle(world.context, world.clock); };
    EXPECT_EQ(outcome(sendClipboard(world.system, "hello", "text/plain", std::move(late))), "");
    EXPECT_EQ(end, OneOffEnd::brokeOff);
    EXPECT_THAT(world.log.messages(), ElementsAre(HasSubstr("write failed, checking for Unpair: wire I/O error: ")));
}

TEST_F(OneOff, SeesAnUnpairAlthoughTheWriteFailed) {
    world.alongside(closeBeforeReading(world, true));
    OneOffRequest late = oneOff(sleepingPhone());
    late.onHandshakeComplete = [this] { fakes::runUntilIdle(world.context, world.clock); };
    EXPECT_EQ(outcome(sendClipboard(world.system, "hello", "text/plain", std::move(late))),
              "the phone removed this Mac. Pair again to send to it.");
    EXPECT_EQ(world.log.lines().size(), 1U);
}

TEST_F(OneOff, WakesAPhoneThatRefusesAndLogsEachStep) {
    world.https.willAnswer(200, tokenReply);
    world.https.answers.emplace_back([this](const fakes::FakeHttpsClient::Seen&) {
        world.alongside(takeMessage(world, seen));
        return accepted();
    });
    EXPECT_EQ(outcome(clip("secret text")), "");
    EXPECT_EQ(seen.clipboard->text, "secret text");
    EXPECT_THAT(world.log.messages(), ElementsAre("warm connect failed: network: Connection refused",
                                                  "needsWake=true hasFcm=true", "firing FCM wake"));
    for (const fakes::RecordingLog::Line& line : world.log.lines()) {
        EXPECT_EQ(line.subsystem, "com.tarvinex.orlinth");
        EXPECT_EQ(line.category, "clipboard-send");
        EXPECT_THAT(line.message, Not(HasSubstr("secret")));
        EXPECT_THAT(line.message, Not(HasSubstr("fcm-token")));
    }
}

TEST_F(OneOff, MakesASingleAttemptAfterAWakeThatLastsThroughRefusals) {
    world.https.willAnswer(200, tokenReply);
    world.https.willAnswer(200, "{}");
    EXPECT_EQ(outcome(clip()), "network: connect timed out");
    EXPECT_EQ(world.network.attempts.size(), 1U + 16U); // every half second from 0.5 to 8
    EXPECT_DOUBLE_EQ(world.clock.elapsed(), 0.5 + 8);
    EXPECT_EQ(world.https.requests.size(), 2U) << "one push";
}

TEST_F(OneOff, ReachesAPhoneWhosePortOpensSomeTimeAfterTheWake) {
    world.https.willAnswer(200, tokenReply);
    world.https.answers.emplace_back([this](const fakes::FakeHttpsClient::Seen&) {
        world.alongside([](World& theWorld, OneOffSeen& what) -> Task<> {
            co_await theWorld.clock.sleep(4s);
            co_await takeMessage(theWorld, what);
        }(world, seen));
        return accepted();
    });
    EXPECT_EQ(outcome(clip()), "");
    EXPECT_EQ(seen.clipboard->text, "hello");
    EXPECT_DOUBLE_EQ(world.clock.elapsed(), 4.0); // the try of that instant, after those from 0.5 to 3.5
}

TEST_F(OneOff, ReachesAPhoneThatAppearsSomeTimeAfterTheWake) {
    world.network.makeFailWithErrno("203.0.113.2", EHOSTUNREACH, world.clock, 3100ms);
    world.https.willAnswer(200, tokenReply);
    world.https.answers.emplace_back([this](const fakes::FakeHttpsClient::Seen&) {
        world.alongside([](World& theWorld, OneOffSeen& what) -> Task<> {
            co_await theWorld.clock.sleep(4s);
            theWorld.network.makeAnswer("203.0.113.2");
            co_await takeMessage(theWorld, what);
        }(world, seen));
        return accepted();
    });
    EXPECT_EQ(outcome(clip()), "");
    EXPECT_EQ(seen.clipboard->text, "hello");
    EXPECT_THAT(world.log.messages(), ElementsAre("warm connect failed: network: connect timed out",
                                                  "needsWake=true hasFcm=true", "firing FCM wake"));
}

TEST_F(OneOff, TriesOnceAfterAWakeIfThatHasNoDeadline) {
    world.https.willAnswer(200, tokenReply);
    world.https.willAnswer(200, "{}");
    OneOffRequest once = oneOff(sleepingPhone());
    once.postWakeConnectTimeout = 0s;
    EXPECT_EQ(outcome(sendClipboard(world.system, "hello", "text/plain", std::move(once))),
              "network: Connection refused");
    EXPECT_EQ(world.network.attempts.size(), 2U);
}

TEST_F(OneOff, GivesTheAttemptAfterAWakeItsOwnDeadline) {
    world.network.makeSilent("203.0.113.2");
    world.https.willAnswer(200, tokenReply);
    world.https.willAnswer(200, "{}");
    EXPECT_EQ(outcome(clip()), "network: connect timed out");
    EXPECT_DOUBLE_EQ(world.clock.elapsed(), 5 + 0.5 + 8);
}

TEST_F(OneOff, DoesNotWakeAPhoneWithoutATokenAndSaysSoInTheLog) {
    EXPECT_EQ(outcome(sendClipboard(world.system, "x", "text/plain", oneOff(world.phoneRecord()))),
              "network: Connection refused");
    EXPECT_THAT(world.log.messages(),
                ElementsAre("warm connect failed: network: Connection refused", "needsWake=true hasFcm=false"));
}

TEST_F(OneOff, DoesNotWakeAPhoneThatIsNotToBeWoken) {
    OneOffRequest quiet = oneOff(sleepingPhone());
    quiet.mayWake = false;
    EXPECT_EQ(outcome(sendClipboard(world.system, "x", "text/plain", std::move(quiet))), "network: Connection refused");
    EXPECT_TRUE(world.https.requests.empty());
}

/// Listens, and says nothing to whoever connects.
Task<> holdAConnection(World& world) {
    const std::unique_ptr<platform::Listener> listener =
        world.network.listen({.port = World::phonePort, .keepAlive = std::nullopt}, world.context.get_executor());
    WireConnection wire(co_await listener->accept(world.context.get_executor()), world.clock);
    try {
        for (;;) {
            const Bytes ignored = co_await wire.receiveLengthPrefixed();
        }
    } catch (const WireConnection::Error&) {
        co_return; // the sender has closed
    }
}

TEST_F(OneOff, GivesAPhoneThatConnectsAndSaysNothingItsTimeForTheHandshake) {
    world.alongside(holdAConnection(world));
    OneOffRequest limited = oneOff(sleepingPhone());
    limited.handshakeLimit = 10s;
    EXPECT_EQ(outcome(sendClipboard(world.system, "x", "text/plain", std::move(limited))),
              "noise handshake: timed out after 10 seconds");
    EXPECT_DOUBLE_EQ(world.clock.elapsed(), 10);
}

TEST_F(OneOff, TakesSilenceBehindTheMessageForADelivery) {
    world.alongside([](World& theWorld, OneOffSeen& what) -> Task<> {
        const auto phone = co_await ScriptedPeer::accept(theWorld, theWorld.phoneKey);
        what.clipboard = co_await phone->expect<Row::Clipboard>();
        what.ended = co_await phone->seesTheEnd();
    }(world, seen));
    OneOffRequest limited = oneOff(sleepingPhone());
    limited.answerLimit = 7s;
    EXPECT_EQ(outcome(sendClipboard(world.system, "x", "text/plain", std::move(limited))), "");
    EXPECT_EQ(end, OneOffEnd::silent);
    EXPECT_DOUBLE_EQ(world.clock.elapsed(), 7);
}

TEST_F(OneOff, RefusesAPhoneWithAnotherKey) {
    PeerRecord other = world.phoneRecord();
    other.peer_pubkey = platform::PrivateKey::generate().publicKey().peerKey();
    world.alongside([](World& theWorld, OneOffSeen& what) -> Task<> {
        const auto phone = co_await ScriptedPeer::accept(theWorld, theWorld.phoneKey);
        what.ended = co_await phone->seesTheEnd();
    }(world, seen));
    EXPECT_EQ(outcome(sendClipboard(world.system, "x", "text/plain", oneOff(other))),
              "remote pubkey \u2260 paired peer");
    fakes::runUntilIdle(world.context, world.clock);
    EXPECT_TRUE(seen.ended);
}

TEST_F(OneOff, DoesNotConnectForAKeyThatIsNotBase64) {
    PeerRecord broken = world.phoneRecord();
    broken.peer_pubkey = PeerKey("?");
    EXPECT_EQ(outcome(sendClipboard(world.system, "x", "text/plain", oneOff(broken))),
              "remote pubkey \u2260 paired peer");
    EXPECT_TRUE(world.network.attempts.empty());
}

TEST_F(OneOff, ReportsABrokenHandshake) {
    world.alongside([](World& theWorld) -> Task<> {
        const auto listener = theWorld.network.listen({.port = World::phonePort, .keepAlive = std::nullopt},
                                                      theWorld.context.get_executor());
        const auto stream = co_await listener->accept(theWorld.context.get_executor());
        stream->cancel();
    }(world));
    EXPECT_THAT(outcome(clip()), testing::StartsWith("noise handshake: wire "));
}

TEST_F(OneOff, RefusesATextThatNoFrameCanCarryBeforeAnythingElse) {
    const std::string json = R"({"mime":"text/plain","text":"","type":"Clipboard"})";
    const std::size_t fits = TransportFramer::maxPlaintextBytes - 1 - json.size();
    EXPECT_EQ(outcome(clip(std::string(fits + 1, 'x'))), "plaintext frame too large: 16777217 bytes");
    EXPECT_TRUE(world.network.attempts.empty());
    world.alongside(takeMessage(world, seen));
    EXPECT_EQ(outcome(clip(std::string(fits, 'x'))), "");
    EXPECT_EQ(seen.clipboard->text.size(), fits);
}

TEST_F(OneOff, WaitsForASilentPhoneUntilItIsStopped) {
    world.alongside([](World& theWorld, OneOffSeen& what) -> Task<> {
        const auto phone = co_await ScriptedPeer::accept(theWorld, theWorld.phoneKey);
        what.clipboard = co_await phone->expect<Row::Clipboard>();
        what.ended = co_await phone->seesTheEnd();
    }(world, seen));
    asio::cancellation_signal stop;
    std::exception_ptr outcomeError;
    const auto send = [](Task<OneOffEnd> task) -> Task<> { static_cast<void>(co_await std::move(task)); };
    platform::spawn(world.context.get_executor(), send(clip()), stop.slot(),
                    [&](std::exception_ptr error) { outcomeError = std::move(error); });
    world.run(world.clock.sleep(3600s));
    EXPECT_FALSE(outcomeError);
    EXPECT_TRUE(seen.clipboard);
    stop.emit(asio::cancellation_type::terminal);
    fakes::runUntilIdle(world.context, world.clock);
    ASSERT_TRUE(outcomeError);
    EXPECT_TRUE(seen.ended);
}

} // namespace
} // namespace orlinth
