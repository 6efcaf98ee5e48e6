#include "OrlinthHost/Service/DesktopNotices.h"

#include "RecordingDesktop.h"
#include "ServiceWorld.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace orlinth::host {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Actions = std::vector<std::pair<std::string, std::string>>;

/// What a desktop is told of a whole service, in virtual time.
class DesktopNoticesTest : public ServiceWorldTest {
protected:
    DesktopNoticesTest() { settings_.faces.push_back(&notices_); }
    ~DesktopNoticesTest() override { stop(); }

    /// As the program does: what the service tells is told to the notices.
    void forward() {
        for (; files_ < events_.files.size(); ++files_) {
            notices_.fileReceived(events_.files[files_]);
        }
    }
    void passAndForward(Seconds time) {
        forward();
        pass(time);
    }
    /// A text has come from the phone, and got onto the clipboard or not.
    void come(const std::string& text, bool isOnClipboard, std::optional<std::string> linkHost = std::nullopt) {
        const auto from = phone();
        world_.run(from->send(Row::clipboard(text, "text/plain")));
        settle();
        notices_.textReceived(world_.phoneRecord().peer_pubkey, "Pixel-8",
                              {.characters = text.size(),
                               .isOnClipboard = isOnClipboard,
                               .isKept = true,
                               .linkHost = std::move(linkHost)},
                              notices_.keptText());
        pass(300ms);
    }
    /// Another text has come, of which the desktop does not know yet.
    void comeUnseen(const std::string& text) {
        const auto from = phone();
        world_.run(from->send(Row::clipboard(text, "text/plain")));
        settle();
    }
    void press(const std::string& key, const std::string& token = "") {
        world_.notifications.answer(shown().size() - 1, key, token);
        settle();
    }
    [[nodiscard]] std::vector<fakes::FakeNotifications::Shown>& shown() { return world_.notifications.shown; }
    [[nodiscard]] const platform::Notification& last() { return shown().back().notification; }
    [[nodiscard]] std::vector<std::string> screen() {
        std::vector<std::string> texts;
        for (const std::size_t i : world_.notifications.there()) {
            texts.push_back(shown()[i].notification.title + " / " + shown()[i].notification.body);
        }
        return texts;
    }

    RecordingDesktop desktop_;
    bool isOn_ = true;
    std::vector<platform::Path> folders_{downloads};
    DesktopNotices notices_{
        NoticeBoard(home_, nullptr, [this] { return isOn_; }),
        desktop_,
        {.of = [this](const PeerKey&) { return folders_.front(); }, .chosen = [this] { return folders_; }}};
    std::size_t files_ = 0; ///< that were forwarded
};

TEST_F(DesktopNoticesTest, AFileThatHasCome) {
    start();
    pass(1s);
    EXPECT_THAT(shown(), IsEmpty()) << "phones that were there before are not told of";
    deliver("a.jpg");
    passAndForward(1s);
    EXPECT_THAT(screen(), ElementsAre("a.jpg from Pixel-8 / 16 bytes in Downloads"));
    press("open");
    EXPECT_THAT(desktop_.take(), ElementsAre("open /home/ann/Downloads/a.jpg"));
}

TEST_F(DesktopNoticesTest, AFileThatTakesLongCanBeCancelled) {
    start();
    const auto from = phone();
    world_.run(from->send(Row::fileOffer("film.mov", 1000, "video/quicktime", "ID film")));
    static_cast<void>(world_.run(from->expect<Row::Resume>()));
    world_.run(from->sendBinary(Bytes(100)));
    pass(1s);
    world_.run(from->sendBinary(Bytes(280)));
    pass(3s);
    EXPECT_THAT(shown(), IsEmpty());
    pass(2s);
    ASSERT_EQ(1U, screen().size());
    EXPECT_TRUE(screen().front().starts_with("Receiving film.mov from Pixel-8 / 38 %"));
    press("cancel");
    pass(1s);
    EXPECT_THAT(screen(), IsEmpty());
    EXPECT_TRUE(world_.run(from->seesTheEnd()));
}

TEST_F(DesktopNoticesTest, ABatchThatIsShared) {
    start();
    share("a.txt");
    ring();
    pass(62s); // nobody is at the phone's port
    EXPECT_THAT(screen(), ElementsAre("Waiting for Pixel-8 / It gets 1 file as soon as it is here."));
    press("drop");
    pass(1s);
    EXPECT_THAT(screen(), IsEmpty());
    EXPECT_FALSE(world_.files.exists(outbox / batch));
}

TEST_F(DesktopNoticesTest, TheButtonsOfABatchThatWasSetAsideAreForOnePhone) {
    const PeerKey pixel("A phone that is gone");
    const PeerKey tablet("Another phone that is gone");
    const platform::Path setAside = container / "OutboxSetAside" / batch;
    share("a.txt", {{pixel, tablet}});
    start();
    pass(1s);
    ASSERT_TRUE(world_.files.exists(setAside));
    const auto fail = [this](const PeerKey& peerKey, const std::string& name) {
        notices_.outgoing().failed(BatchId(batch), peerKey, name, {"a.txt"}, OutboxEvents::Failure::Why::notPaired);
        pass(2s);
        EXPECT_EQ(last().title, "Could not send a.txt to " + name);
    };
    fail(pixel, "Pixel");
    press("drop");
    EXPECT_TRUE(world_.files.exists(setAside / "a.txt")) << "the tablet has not got it";
    fail(tablet, "Tablet");
    outboxEvents_.all.clear();
    press("retry");
    pass(2s);
    const auto tried = outboxEvents_.of(What::phoneFailed);
    ASSERT_THAT(tried, SizeIs(1)) << "the pixel's copy was dropped";
    EXPECT_THAT(tried[0].message, testing::HasSubstr("not paired any more"));
    fail(tablet, "Tablet");
    press("drop");
    EXPECT_FALSE(world_.files.exists(setAside));
}

TEST_F(DesktopNoticesTest, TryAgainOffersNothingToAPhoneThatDidNotAskForIt) {
    const PeerKey pixel("A phone that is gone");
    const PeerKey tablet("Another phone that is gone");
    share("a.txt", {{pixel, tablet}});
    start();
    pass(1s);
    notices_.outgoing().failed(BatchId(batch), pixel, "Pixel", {"a.txt"}, OutboxEvents::Failure::Why::declined);
    pass(2s);
    outboxEvents_.all.clear();
    press("retry");
    pass(2s);
    EXPECT_THAT(outboxEvents_.of(What::phoneFailed), SizeIs(1));
    EXPECT_THAT(outboxEvents_.of(What::setAside), SizeIs(1));
}

TEST_F(DesktopNoticesTest, NothingWhileThatIsSwitchedOff) {
    start();
    isOn_ = false;
    deliver("a.jpg");
    passAndForward(1s);
    come("correct horse", true);
    EXPECT_THAT(shown(), IsEmpty());
    isOn_ = true;
    deliver("b.jpg");
    passAndForward(1s);
    come("correct horse", true);
    EXPECT_THAT(shown(), SizeIs(2));
}

TEST_F(DesktopNoticesTest, ATextIsToldOfWithWhereItIsAndWithoutWhatItSays) {
    start();
    come("correct horse", true);
    EXPECT_THAT(screen(), ElementsAre("Text from Pixel-8 / 13 characters, on the clipboard"));
    EXPECT_THAT(last().actions, IsEmpty());
    EXPECT_EQ(last().category, "im.received");
    EXPECT_TRUE(last().isTransient);
    const std::uint64_t tag = last().tag;
    come("x", false);
    EXPECT_THAT(screen(), ElementsAre("Text from Pixel-8 / 13 characters, on the clipboard")) << "one a second";
    pass(1s);
    EXPECT_THAT(screen(), ElementsAre("Text from Pixel-8 / 1 character, not on the clipboard"));
    EXPECT_EQ(last().tag, tag);
    EXPECT_EQ(last().actions, (Actions{{"copy", "Copy"}}));
    press("copy");
    EXPECT_THAT(desktop_.take(), ElementsAre("copy x"));
    desktop_.copying.front()(true);
    EXPECT_THAT(screen(), ElementsAre("Text from Pixel-8 / 1 character, on the clipboard"));
}

TEST_F(DesktopNoticesTest, ATextIsCopiedOnlyWhileItIsTheLastOne) {
    start();
    come("correct horse", false);
    comeUnseen("battery staple");
    press("copy");
    EXPECT_THAT(desktop_.take(), IsEmpty()) << "it would be another text";
    come("one", false);
    const auto kept = notices_.keptText();
    comeUnseen("two");
    notices_.textReceived(world_.phoneRecord().peer_pubkey, "Pixel-8", {.characters = 3, .isKept = true}, kept);
    pass(2s);
    press("copy");
    EXPECT_THAT(desktop_.take(), IsEmpty()) << "the other one came before the first was announced";
}

TEST_F(DesktopNoticesTest, ALinkIsOpenedOnlyWhileItIsTheLastText) {
    start();
    come("https://example.org/a?token=b", true, "example.org");
    EXPECT_EQ(last().actions, (Actions{{"open-link", "Open example.org"}}));
    EXPECT_EQ(screen().front().find("token"), std::string::npos);
    press("open-link", "token-1");
    EXPECT_THAT(desktop_.take(), ElementsAre("link https://example.org/a?token=b with token-1"));
    pass(2s);
    come("https://example.org/a", true, "example.org");
    comeUnseen("https://example.org/another");
    press("open-link");
    EXPECT_THAT(desktop_.take(), IsEmpty());
}

TEST_F(DesktopNoticesTest, PhonesThatComeAndGo) {
    start();
    PeerRecord tablet = world_.phoneRecord();
    tablet.peer_pubkey = platform::PrivateKey::generate().publicKey().peerKey();
    tablet.peer_hostname = "Tablet";
    pair({world_.phoneRecord(), tablet});
    pass(5s);
    EXPECT_THAT(screen(), ElementsAre("Tablet is paired / "));
    EXPECT_EQ(last().category, "device.added");
    pair({world_.phoneRecord()});
    pass(5s);
    EXPECT_EQ(1U, shown().size()) << "whoever has removed it knows";
    notices_.unpaired({.from = "Pixel-8", .peerKey = world_.phoneRecord().peer_pubkey, .isForgotten = true});
    EXPECT_EQ(last().title, "Pixel-8 has removed this computer");
    EXPECT_EQ(last().category, "device.removed");
    press("default", "token-1");
    EXPECT_THAT(desktop_.take(), ElementsAre("raise with token-1"));
    notices_.unpaired({.from = "Pixel-8", .peerKey = world_.phoneRecord().peer_pubkey, .isForgotten = false});
    EXPECT_EQ(last().body, "It is still listed on this computer. Remove it there if you no longer need it.");
}

TEST_F(DesktopNoticesTest, TheFirstPhoneIsNewsAndThoseThatCouldNotBeReadAtTheStartAreNot) {
    pair({});
    start();
    pair({world_.phoneRecord()});
    pass(5s);
    EXPECT_THAT(screen(), ElementsAre("Pixel-8 is paired / "));
    stop();
    world_.files.put(container / "peers.json", "{");
    DesktopNotices notices(NoticeBoard(home_, nullptr, {}), desktop_, {});
    settings_.faces = {&notices};
    start();
    pass(5s);
    PeerRecord tablet = world_.phoneRecord();
    tablet.peer_pubkey = platform::PrivateKey::generate().publicKey().peerKey();
    tablet.peer_hostname = "Tablet";
    world_.files.remove(container / "peers.json");
    pair({world_.phoneRecord()});
    pass(120s);
    EXPECT_THAT(shown(), SizeIs(1)) << "it was there before";
    pair({world_.phoneRecord(), tablet});
    pass(120s);
    EXPECT_EQ(last().title, "Tablet is paired");
    EXPECT_THAT(shown(), SizeIs(2));
    stop();
}

TEST_F(DesktopNoticesTest, AFolderThatCannotBeWrittenToIsToldOfOnceUntilAFileCame) {
    start();
    notices_.cannotSave(world_.phoneRecord().peer_pubkey);
    notices_.cannotSave(world_.phoneRecord().peer_pubkey);
    EXPECT_THAT(screen(),
                ElementsAre("Orlinth cannot receive / Files cannot be saved in /home/ann/Downloads. Check that "
                            "it can be written to, and that the disk is not full."));
    EXPECT_TRUE(last().isUrgent);
    EXPECT_EQ(last().category, "device.error");
    press("");
    notices_.cannotSave(world_.phoneRecord().peer_pubkey);
    EXPECT_THAT(screen(), IsEmpty());
    deliver("a.jpg");
    passAndForward(1s);
    EXPECT_EQ(1U, screen().size());
    notices_.cannotSave(world_.phoneRecord().peer_pubkey);
    EXPECT_EQ(2U, screen().size());
}

TEST_F(DesktopNoticesTest, TroubleWithAFolderIsNotOverBecauseAFileCameIntoAnotherOne) {
    start();
    folders_ = {"/mnt/disk", downloads};
    notices_.cannotSave(PeerKey("a phone with a folder of its own"));
    const std::vector<std::string> trouble{"Orlinth cannot receive / Files cannot be saved in /mnt/disk. Check that it "
                                           "can be written to, and that the disk is not full."};
    EXPECT_EQ(screen(), trouble);
    deliver("a.jpg");
    passAndForward(1s);
    EXPECT_EQ(screen().front(), trouble.front());
    EXPECT_THAT(screen(), SizeIs(2));
}

TEST_F(DesktopNoticesTest, TroubleWithAFolderIsOverOnceNobodysFilesGoThere) {
    start();
    folders_ = {"/mnt/disk", downloads};
    notices_.cannotSaveIn("/mnt/disk");
    world_.run(live_->set("clipboard", false));
    pass(1s);
    EXPECT_THAT(screen(), SizeIs(1)) << "some other setting";
    folders_ = {downloads};
    world_.run(live_->set("clipboard", true));
    pass(1s);
    EXPECT_THAT(screen(), IsEmpty());
    notices_.cannotSaveIn(downloads);
    EXPECT_THAT(screen(), SizeIs(1));
}

TEST_F(DesktopNoticesTest, APortThatIsGoneIsToldOfUntilItIsBack) {
    start();
    std::optional<BorrowedPort> borrowed = world_.run(BorrowedPort::borrow(home_, std::nullopt));
    ASSERT_TRUE(borrowed);
    settle();
    borrowed->takeListener()->close();
    settle();
    std::unique_ptr<platform::Listener> other = // the moment in which nobody has it
        world_.network.listen({.port = port, .keepAlive = std::nullopt}, world_.context.get_executor());
    borrowed.reset();
    pass(2s);
    EXPECT_THAT(screen(), IsEmpty());
    pass(60s);
    EXPECT_THAT(screen(),
                ElementsAre("Orlinth cannot receive / Port 7100 cannot be opened. Another program may have it. "
                            "Orlinth tries again every second."));
    EXPECT_EQ(1U, shown().size());
    EXPECT_TRUE(last().isUrgent);
    other.reset();
    pass(2s);
    EXPECT_THAT(screen(), IsEmpty());
}

TEST_F(DesktopNoticesTest, NothingIsDoneForAClickOnceTheServiceHasEnded) {
    start();
    deliver("a.jpg");
    passAndForward(1s);
    notices_.unpaired({.from = "Pixel-8", .peerKey = world_.phoneRecord().peer_pubkey, .isForgotten = true});
    come("x", false);
    stop();
    EXPECT_THAT(screen(),
                ElementsAre("a.jpg from Pixel-8 / 16 bytes in Downloads", "Pixel-8 has removed this computer / "))
        << "the text is forgotten";
    for (const std::size_t i : world_.notifications.there()) {
        world_.notifications.answer(i, "default");
    }
    settle();
    EXPECT_THAT(desktop_.take(), IsEmpty());
    EXPECT_EQ(0U, world_.clock.pendingAlarms());
}

TEST_F(DesktopNoticesTest, TheEndMayComeAtAnyStepOfALook) {
    constexpr int manyAlarms = 6;
    constexpr int manySteps = 8;
    for (int trial = 0; trial < manyAlarms * manySteps; ++trial) {
        DesktopNotices notices(NoticeBoard(home_, nullptr, {}), desktop_, {});
        settings_.faces = {&notices};
        start();
        Receiver::File file{.file = {}, .from = "Pixel-8", .peerKey = world_.phoneRecord().peer_pubkey};
        file.file.savedAt = downloads / "a.jpg";
        notices.fileReceived(file);
        pass(IncomingNotices::burstTime + 900ms); // soon there is another look, as no more files can join it
        for (int alarm = 0; alarm < trial / manySteps; ++alarm) {
            ASSERT_TRUE(world_.clock.advanceToNextAlarm());
            settle();
        }
        ASSERT_TRUE(world_.clock.advanceToNextAlarm());
        world_.context.restart();
        for (int step = 0; step < trial % manySteps; ++step) {
            world_.context.poll_one();
        }
        notices.stop();
        stop();
    }
}

} // namespace
} // namespace orlinth::host
