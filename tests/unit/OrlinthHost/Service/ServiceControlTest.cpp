#include "OrlinthHost/Service/ControlLine.h"
#include "OrlinthHost/Service/SocketFace.h"
#include "ServiceWorld.h"

#include <gmock/gmock.h>

#include <cerrno>

namespace orlinth::host {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const std::string lendPort = "{\"request\":\"lend_port\"}\n";
const std::string lentAnswer = "{\"port\":7100}";

/// A running service, and other programs of its user that ask it for something.
class ServiceControlTest : public ServiceWorldTest {
protected:
    [[nodiscard]] std::optional<BorrowedPort> borrow(std::optional<std::uint16_t> wanted = std::nullopt) {
        return world_.run(BorrowedPort::borrow(home_, wanted));
    }
    /// Why the port is not lent.
    [[nodiscard]] std::string refusal() {
        return world_.failure<HostError>(BorrowedPort::borrow(home_, std::nullopt)).description();
    }
    /// Somebody connects, and this listener has it.
    void expectConnectionsAt(platform::Listener& listener) {
        const std::unique_ptr<platform::Stream> from =
            world_.run(world_.network.connect("203.0.113.1", port, world_.context.get_executor()));
        const std::unique_ptr<platform::Stream> to = world_.run(listener.accept(world_.context.get_executor()));
        EXPECT_TRUE(to);
    }
    /// Somebody else listens where the service does, and answers one request in this way.
    void answerWith(std::string answer) {
        world_.alongside(answerOnce(std::move(answer)));
        settle();
    }
    [[nodiscard]] Task<> answerOnce(std::string answer) {
        const std::unique_ptr<platform::Listener> odd =
            world_.unixSockets.listen(controlPath, world_.context.get_executor());
        const std::unique_ptr<platform::Stream> stream = co_await odd->accept(world_.context.get_executor());
        static_cast<void>(co_await readLine(*stream));
        co_await write(*stream, std::move(answer));
        try {
            static_cast<void>(co_await readLine(*stream)); // until the end
        } catch (const platform::SystemError&) {
            // who has not read everything resets
        }
    }
    /// The next thing that one who watches is told.
    [[nodiscard]] ServiceNews next(platform::Stream& watcher) {
        return decodeServiceNews(world_.run(readLine(watcher)));
    }
    /// What comes of phones is left out.
    [[nodiscard]] TransferView nextTransfer(platform::Stream& watcher) {
        ServiceNews news = next(watcher);
        while (std::holds_alternative<PhoneView>(news)) {
            news = next(watcher);
        }
        return std::get<TransferView>(news);
    }
    [[nodiscard]] Task<> watchUntilItEnds(bool& hasEnded) {
        hasEnded = co_await watchService(home_, [](const ServiceNews&) {});
    }
    void expectBackAtWork() {
        settle();
        deliver("back.txt");
        EXPECT_EQ("content of back.txt", received("back.txt"));
    }
};

// Who is there

TEST_F(ServiceControlTest, AServiceIsFoundByThoseOfItsDataFolder) {
    EXPECT_FALSE(world_.run(isServiceRunning(home_)));
    EXPECT_EQ(std::nullopt, world_.run(askServicePort(home_)));
    start();
    EXPECT_TRUE(world_.run(isServiceRunning(home_)));
    EXPECT_EQ(port, world_.run(askServicePort(home_)));
    EXPECT_EQ(port, world_.run(findServicePort(home_)));
    const std::optional<PortReply> details = world_.run(findServiceDetails(home_));
    ASSERT_TRUE(details.has_value());
    EXPECT_EQ((PortReply{port, settings_.downloads.string(), world_.clock.epochMilliseconds()}), *details);
    EXPECT_EQ(0, events_.count("lent"));
    stop();
    EXPECT_FALSE(world_.run(isServiceRunning(home_)));
    EXPECT_FALSE(world_.unixSockets.isOpen(controlPath));
}

TEST_F(ServiceControlTest, AServiceWithoutAControlSocketDoesItsWorkAndIsFoundByItsLock) {
    world_.unixSockets.listenErrno = EEXIST;
    start();
    EXPECT_EQ(1, events_.count("no control: File exists"));
    EXPECT_TRUE(world_.run(isServiceRunning(home_)));
    EXPECT_EQ(std::nullopt, world_.run(findServicePort(home_)));
    expectBackAtWork();
}

TEST_F(ServiceControlTest, AServiceThatDoesNotAnswerIsGivenUp) {
    const std::unique_ptr<platform::Listener> hanging =
        world_.unixSockets.listen(controlPath, world_.context.get_executor());
    EXPECT_EQ("the running service did not do it: no answer in time",
              world_.failure<HostError>(askServicePort(home_)).description());
    EXPECT_EQ(15, world_.clock.elapsed());
    EXPECT_EQ("the running service does not lend its port: no answer in time", refusal());
    EXPECT_EQ(std::nullopt, world_.run(findServicePort(home_)));
    EXPECT_TRUE(world_.run(isServiceRunning(home_)));
}

TEST_F(ServiceControlTest, AnAnswerThatMakesNoSenseIsAFailure) {
    answerWith("{\"found\":true}\n");
    EXPECT_EQ("the running service did not do it: its answer makes no sense",
              world_.failure<HostError>(askServicePort(home_)).description());
    answerWith("{\"found\":true}\n");
    EXPECT_EQ("the running service does not lend its port: its answer makes no sense", refusal());
    answerWith("{\"port\":7100}\n"); // and nothing behind it
    EXPECT_THAT(refusal(), HasSubstr("no answer in time"));
    answerWith(std::string(5000, 'x') + "\n");
    EXPECT_EQ("the running service did not do it: a line is too long",
              world_.failure<HostError>(askServicePort(home_)).description());
    answerWith("{\"error\":\"no\"}\n");
    EXPECT_EQ("the running service did not do it: no",
              world_.failure<HostError>(askServiceToRetry(home_, std::nullopt)).description());
}

// Requests

TEST_F(ServiceControlTest, ARetryReachesTheOutbox) {
    share("a.txt");
    start();
    pass(1000s);
    world_.alongside(take());
    EXPECT_EQ(true, world_.run(askServiceToRetry(home_, std::nullopt)));
    pass(100ms);
    EXPECT_THAT(taken_, ElementsAre("content of a.txt"));
    EXPECT_EQ(false, world_.run(askServiceToRetry(home_, BatchId(batch)))) << "it is not there any more";
}

TEST_F(ServiceControlTest, ADropIsAnsweredOnceNothingIsLeft) {
    world_.network.makeSilent("203.0.113.2");
    share("a.txt");
    start();
    pass(1s); // it is under way
    EXPECT_EQ(true, world_.run(askServiceToDrop(home_, BatchId(batch))));
    EXPECT_FALSE(world_.files.exists(outbox / batch));
    EXPECT_EQ(false, world_.run(askServiceToDrop(home_, BatchId(batch))));
}

TEST_F(ServiceControlTest, ADropThatFailsSaysWhy) {
    share("a.txt");
    start();
    pass(1s);
    world_.files.addFault({.operation = fakes::Operation::remove, .errorNumber = EACCES, .nameEnding = "a.txt"});
    EXPECT_EQ("the running service did not do it: it cannot be removed: Permission denied",
              world_.failure<HostError>(askServiceToDrop(home_, BatchId(batch))).description());
    world_.files.clearFaults();
}

TEST_F(ServiceControlTest, WithoutAServiceNothingIsAsked) {
    EXPECT_EQ(std::nullopt, world_.run(askServiceToRetry(home_, BatchId(batch))));
    EXPECT_EQ(std::nullopt, world_.run(askServiceToDrop(home_, BatchId(batch))));
    EXPECT_FALSE(borrow().has_value());
}

TEST_F(ServiceControlTest, NonsenseIsAnsweredWithAnErrorAndHarmsNobody) {
    start();
    for (const std::string& line :
         {std::string(), std::string("{"), std::string("[]"), std::string("{\"request\":5}"),
          std::string("{\"request\":\"lend_money\"}"), std::string("\xff\xfe"),
          std::string("{\"request\":\"outbox_drop\"}"), std::string("{\"request\":\"lend_port\",\"port\":70000}"),
          std::string(4000, '[')}) {
        EXPECT_THAT(ask(line + "\n"), testing::StartsWith("{\"error\":\"")) << line.substr(0, 40);
    }
    EXPECT_EQ("{\"error\":\"a line is too long\"}", ask(std::string(maxControlLine + 1, 'x')));
    expectBackAtWork();
}

TEST_F(ServiceControlTest, WhoeverSaysNothingIsLetGoOfAfterFiveSeconds) {
    start();
    const std::unique_ptr<platform::Stream> silent = connectToControl();
    const double before = world_.clock.elapsed();
    EXPECT_EQ("{\"error\":\"no answer in time\"}", world_.run(readLine(*silent)));
    EXPECT_EQ(controlLineLimit.count(), world_.clock.elapsed() - before);
}

TEST_F(ServiceControlTest, ManyThatSayNothingHoldNobodyUpForLong) {
    start();
    std::vector<std::unique_ptr<platform::Stream>> silent;
    for (int i = 0; i < 40; ++i) {
        silent.push_back(connectToControl());
    }
    const std::optional<BorrowedPort> borrowed = borrow();
    ASSERT_TRUE(borrowed);
    EXPECT_LE(world_.clock.elapsed(), 3 * controlLineLimit.count());
}

// Loans

TEST_F(ServiceControlTest, ABorrowedPortIsTheBorrowersUntilItLetsGo) {
    start();
    {
        std::optional<BorrowedPort> borrowed = borrow();
        ASSERT_TRUE(borrowed);
        settle();
        EXPECT_EQ(port, borrowed->port());
        EXPECT_EQ(1, events_.count("lent"));
        const std::unique_ptr<platform::Listener> listener = borrowed->takeListener();
        expectConnectionsAt(*listener);
        EXPECT_EQ(0, events_.count("returned"));
    }
    settle();
    EXPECT_EQ("returned", events_.all.back());
    expectBackAtWork();
}

TEST_F(ServiceControlTest, TheLoanIsALineAndBehindItTheSocket) {
    start();
    const std::unique_ptr<platform::Stream> stream = connectToControl();
    EXPECT_EQ(lentAnswer, ask(*stream, lendPort));
    const std::unique_ptr<platform::Listener> listener =
        world_.run(world_.unixSockets.receivePort(*stream, world_.context.get_executor()));
    EXPECT_EQ(port, listener->port());
    expectConnectionsAt(*listener);
}

TEST_F(ServiceControlTest, ABorrowerThatVanishesGivesThePortBack) {
    start();
    for (const bool hasRead : {false, true}) { // its answer, or the socket too
        const std::unique_ptr<platform::Stream> stream = connectToControl();
        EXPECT_EQ(lentAnswer, ask(*stream, lendPort));
        std::unique_ptr<platform::Listener> listener;
        if (hasRead) {
            listener = world_.run(world_.unixSockets.receivePort(*stream, world_.context.get_executor()));
        }
        settle();
        ASSERT_EQ("lent", events_.all.back());
        stream->abort();
        listener.reset();
        pass(2s);
        EXPECT_EQ("returned", events_.loans().back());
        expectBackAtWork();
    }
    {
        const std::unique_ptr<platform::Stream> stream = connectToControl();
        world_.run(write(*stream, lendPort)); // and is gone before it is answered
    }
    pass(2s);
    EXPECT_THAT(events_.loans(), ElementsAre("lent", "returned", "lent", "returned", "lent", "returned"));
    expectBackAtWork();
}

TEST_F(ServiceControlTest, OnlyTheWantedPortIsLent) {
    start();
    EXPECT_FALSE(borrow(7101).has_value());
    EXPECT_EQ("{\"lent\":false,\"port\":7100}", ask("{\"request\":\"lend_port\",\"port\":7101}\n"));
    EXPECT_EQ(0, events_.count("lent"));
    EXPECT_TRUE(borrow(port).has_value());
}

TEST_F(ServiceControlTest, OneLoanAtATime) {
    start();
    std::optional<BorrowedPort> first = borrow();
    EXPECT_EQ("the running service does not lend its port: the port is lent already", refusal());
    first.reset();
    settle();
    EXPECT_TRUE(borrow().has_value());
}

TEST_F(ServiceControlTest, AConnectionThatIsThereWhenThePortIsLentGoesOn) {
    start();
    const auto from = phone();
    const std::optional<BorrowedPort> borrowed = borrow();
    ASSERT_TRUE(borrowed);
    world_.run(deliverOn(*from, "a.txt"));
    settle();
    EXPECT_EQ("content of a.txt", received("a.txt"));
    EXPECT_EQ(0, events_.count("returned"));
}

TEST_F(ServiceControlTest, APortThatSomebodyElseHasMeanwhileIsTakenAsSoonAsItIsFree) {
    start();
    std::optional<BorrowedPort> borrowed = borrow();
    ASSERT_TRUE(borrowed);
    settle();
    borrowed->takeListener()->close();
    settle();
    std::unique_ptr<platform::Listener> other = // the moment in which nobody has it
        world_.network.listen({.port = port, .keepAlive = std::nullopt}, world_.context.get_executor());
    borrowed.reset();
    pass(10s);
    EXPECT_EQ(1,
              std::ranges::count_if(events_.all, [](const std::string& text) { return text.starts_with("missing: "); }))
        << "told once";
    EXPECT_EQ(0, events_.count("returned"));
    other.reset();
    pass(1s);
    EXPECT_EQ(1, events_.count("returned"));
    expectBackAtWork();
}

TEST_F(ServiceControlTest, ALoanAndAWatchOutliveTheSocket) {
    start();
    const std::unique_ptr<platform::Stream> watcher = connectToControl();
    world_.run(write(*watcher, "{\"request\":\"watch\"}\n"));
    for (int i = 0; i < 3; ++i) {
        static_cast<void>(next(*watcher));
    }
    std::optional<BorrowedPort> borrowed = borrow();
    ASSERT_TRUE(borrowed);
    EXPECT_EQ(ServiceView::State::lent, std::get<ServiceView>(next(*watcher)).state);
    world_.unixSockets.failAccepting(EIO);
    const std::unique_ptr<platform::Stream> last = connectToControl();
    settle();
    EXPECT_EQ(1, events_.count("no control: Input/output error"));
    EXPECT_FALSE(world_.unixSockets.isOpen(controlPath));
    EXPECT_THAT(events_.loans(), ElementsAre("lent"));
    borrowed.reset();
    EXPECT_EQ(ServiceView::State::listening, std::get<ServiceView>(next(*watcher)).state);
    EXPECT_THAT(events_.loans(), ElementsAre("lent", "returned"));
    expectBackAtWork();
    stop();
    EXPECT_EQ("", world_.run(readLine(*watcher))) << "but not the service";
}

TEST_F(ServiceControlTest, ALoanDoesNotKeepTheServiceFromEnding) {
    start();
    std::optional<BorrowedPort> borrowed = borrow();
    ASSERT_TRUE(borrowed);
    const double before = world_.clock.elapsed();
    stop();
    EXPECT_EQ(before, world_.clock.elapsed());
    EXPECT_EQ("", problem());
    const std::unique_ptr<platform::Listener> listener = borrowed->takeListener();
    expectConnectionsAt(*listener); // the pairing goes on with the port that it has
}

// What it does

TEST_F(ServiceControlTest, TellsWhatThereIs) {
    EXPECT_FALSE(world_.run(readServiceStatus(home_, [](const ServiceNews&) { FAIL(); })));
    start();
    std::vector<ServiceNews> news;
    EXPECT_TRUE(world_.run(readServiceStatus(home_, [&news](const ServiceNews& one) { news.push_back(one); })));
    ASSERT_EQ(3U, news.size());
    EXPECT_EQ(ServiceNews(ServiceView{
                  .state = ServiceView::State::listening, .port = port, .name = "workshop", .downloads = downloads}),
              news[0]);
    EXPECT_EQ("Pixel-8", std::get<PhoneView>(news[1]).name);
    EXPECT_EQ(ServiceNews(CurrentLine{}), news[2]);
}

TEST_F(ServiceControlTest, WhoWatchesSeesATransferUntilItIsForgotten) {
    start();
    const std::unique_ptr<platform::Stream> watcher = connectToControl();
    world_.run(write(*watcher, "{\"request\":\"watch\"}\n"));
    EXPECT_EQ(ServiceView::State::listening, std::get<ServiceView>(next(*watcher)).state);
    EXPECT_EQ(PresenceState::unknown, std::get<PhoneView>(next(*watcher)).presence.state);
    EXPECT_EQ(ServiceNews(CurrentLine{}), next(*watcher));
    const std::unique_ptr<ScriptedPeer> from = phone();
    EXPECT_EQ(PresenceState::here, std::get<PhoneView>(next(*watcher)).presence.state);
    world_.run(from->send(Row::fileOffer("film", 8, "text/plain", "ID-1")));
    static_cast<void>(world_.run(from->expect<Row::Resume>()));
    TransferView view = std::get<TransferView>(next(*watcher));
    EXPECT_EQ(TransferView::State::active, view.state);
    EXPECT_EQ("film", view.name);
    EXPECT_EQ("Pixel-8", view.phone);
    pass(1s);
    world_.run(from->sendBinary(toBytes("four")));
    view = std::get<TransferView>(next(*watcher));
    EXPECT_EQ(4, view.bytes.done);
    EXPECT_NEAR(4, static_cast<double>(view.bytesPerSecond), 1);
    EXPECT_TRUE(world_.run(askServiceToCancel(home_, view.number)).value());
    EXPECT_TRUE(world_.run(from->seesTheEnd()));
    EXPECT_EQ(TransferView::State::cancelled, nextTransfer(*watcher).state);
    EXPECT_FALSE(world_.run(askServiceToCancel(home_, view.number)).value());
    const auto nextButPhones = [this, &watcher] {
        ServiceNews news = next(*watcher);
        while (std::holds_alternative<PhoneView>(news)) {
            news = next(*watcher);
        }
        return news;
    };
    const std::optional<HistoryEntry> entry = std::get<HistoryLine>(nextButPhones()).entry;
    EXPECT_EQ("film", entry.value().file);
    EXPECT_EQ(HistoryEntry::Outcome::cancelled, entry->outcome);
    EXPECT_EQ(ServiceNews(TransferGoneLine{view.number}), nextButPhones());
}

TEST_F(ServiceControlTest, AFileWithANameWithoutEndIsShownToo) {
    start();
    const std::unique_ptr<ScriptedPeer> from = phone();
    world_.run(from->send(Row::fileOffer(std::string(60'000, 'x') + ".txt", 8, "text/plain", "ID-1")));
    static_cast<void>(world_.run(from->expect<Row::Resume>()));
    std::vector<std::string> names;
    const auto onNews = [&names](const ServiceNews& news) {
        if (const auto* const transfer = std::get_if<TransferView>(&news)) {
            names.push_back(transfer->name);
        }
    };
    EXPECT_TRUE(world_.run(readServiceStatus(home_, onNews)));
    ASSERT_THAT(names, testing::SizeIs(1));
    EXPECT_TRUE(names[0].starts_with("xxx") && names[0].ends_with("x.txt")) << names[0];
}

TEST_F(ServiceControlTest, WhoWatchesSeesThePortLentAndAPhoneThatIsRemoved) {
    start();
    const std::unique_ptr<platform::Stream> watcher = connectToControl();
    world_.run(write(*watcher, "{\"request\":\"watch\"}\n"));
    for (int i = 0; i < 3; ++i) {
        static_cast<void>(next(*watcher));
    }
    std::optional<BorrowedPort> loan = borrow();
    ASSERT_TRUE(loan);
    EXPECT_EQ(ServiceView::State::lent, std::get<ServiceView>(next(*watcher)).state);
    loan.reset();
    EXPECT_EQ(ServiceView::State::listening, std::get<ServiceView>(next(*watcher)).state);
    pair({});
    world_.folders.change(dataFolder);
    EXPECT_EQ(ServiceNews(PhoneGoneLine{world_.phoneRecord().peer_pubkey}), next(*watcher));
}

TEST_F(ServiceControlTest, PhonesStayWhileTheirFileCannotBeRead) {
    start();
    const std::unique_ptr<platform::Stream> watcher = connectToControl();
    world_.run(write(*watcher, "{\"request\":\"watch\"}\n"));
    for (int i = 0; i < 3; ++i) {
        static_cast<void>(next(*watcher));
    }
    const std::unique_ptr<ScriptedPeer> from = phone();
    EXPECT_EQ(PresenceState::here, std::get<PhoneView>(next(*watcher)).presence.state);
    const std::string good = world_.files.content(dataFolder / "peer.json").value();
    world_.files.put(dataFolder / "peer.json", "{nonsense");
    world_.folders.change(dataFolder);
    pass(SocketFace::phonesInterval);
    from->close();
    EXPECT_EQ("Pixel-8", std::get<PhoneView>(next(*watcher)).name) << "it has left the port, and is still paired";
    EXPECT_THAT(ask("{\"request\":\"presence\"}\n"), HasSubstr(world_.phoneRecord().peer_pubkey.text()));
    world_.files.put(dataFolder / "peer.json", good);
    pair({});
    world_.folders.change(dataFolder);
    EXPECT_EQ(ServiceNews(PhoneGoneLine{world_.phoneRecord().peer_pubkey}), next(*watcher));
}

TEST_F(ServiceControlTest, AWatchEndsWithTheServiceAndWithTheOneWhoWatches) {
    start();
    bool hasEnded = false;
    world_.alongside(watchUntilItEnds(hasEnded));
    settle();
    std::vector<std::unique_ptr<platform::Stream>> watchers;
    for (std::size_t i = 1; i < SocketFace::maxWatchers; ++i) {
        watchers.push_back(connectToControl());
        EXPECT_THAT(ask(*watchers.back(), "{\"request\":\"watch\"}\n"), HasSubstr("listening"));
    }
    EXPECT_EQ("{\"error\":\"too many programs are watching\"}", ask("{\"request\":\"watch\"}\n"));
    watchers.pop_back();
    pass(1s);
    EXPECT_THAT(ask("{\"request\":\"watch\"}\n"), HasSubstr("listening"));
    stop();
    EXPECT_TRUE(hasEnded);
}

TEST_F(ServiceControlTest, AServiceThatCannotBeWatchedIsAFailureAndNotItsEnd) {
    const auto failure = [this] {
        return world_.failure<HostError>(watchService(home_, [](const ServiceNews&) {})).description();
    };
    const std::string before = "the running service did not do it: ";
    world_.unixSockets.connectErrno = EACCES;
    EXPECT_EQ(before + "Permission denied", failure());
    world_.unixSockets.connectErrno.reset();
    answerWith("{\"event\":\"current\"}\n" + std::string(maxNewsLine + 1, 'x') + "\n");
    EXPECT_EQ(before + "a line is too long", failure());
    answerWith("{\"event\":\"current\"}\nnonsense\n");
    EXPECT_THAT(failure(), testing::StartsWith(before));
    answerWith("{\"error\":\"not today\"}\n");
    EXPECT_EQ(before + "not today", failure());
}

TEST_F(ServiceControlTest, AServiceThatIsKilledHasEndedForThoseWhoWatchIt) {
    for (const bool isReset : {false, true}) {
        std::unique_ptr<platform::Listener> listener =
            world_.unixSockets.listen(controlPath, world_.context.get_executor());
        bool hasEnded = false;
        world_.alongside(watchUntilItEnds(hasEnded));
        const std::unique_ptr<platform::Stream> stream = world_.run(listener->accept(world_.context.get_executor()));
        world_.run(write(*stream, "{\"event\":\"current\"}\n{\"event\":\"phone_"));
        settle();
        EXPECT_FALSE(hasEnded);
        if (isReset) {
            stream->abort();
        } else {
            stream->finishWriting();
        }
        settle();
        EXPECT_TRUE(hasEnded);
    }
}

TEST_F(ServiceControlTest, NobodyWatchesAndNothingRings) {
    start();
    pass(10min);
    const std::size_t alarms = world_.clock.pendingAlarms();
    {
        const std::unique_ptr<platform::Stream> watcher = connectToControl();
        EXPECT_THAT(ask(*watcher, "{\"request\":\"watch\"}\n"), HasSubstr("listening"));
        pass(1s);
        EXPECT_GT(world_.clock.pendingAlarms(), alarms);
    }
    pass(1s);
    EXPECT_EQ(alarms, world_.clock.pendingAlarms());
}

} // namespace
} // namespace orlinth::host
