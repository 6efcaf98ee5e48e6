#include "OrlinthShare/ShareViewController.h"

#include "SheetFixture.h"

#include <QKeyEvent>
#include <algorithm>
#include <atomic>
#include <cerrno>

namespace orlinth::share {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Optional;
using testing::UnorderedElementsAre;

TEST_F(ShareViewControllerTest, OpensAtTheHeightForItsPhones) {
    world_.files.put("/home/ann/a.txt", "a");
    const std::pair<std::size_t, int> heights[] = {{0, 216}, {1, 84}, {2, 256}, {3, 316}, {4, 376}, {5, 376}, {9, 376}};
    for (const auto& [count, height] : heights) {
        pair(count);
        ShareRequest request({"/home/ann/a.txt"}, "/");
        ShareViewController controller({.system = {world_.files, world_.clock, world_.log, world_.busSignals},
                                        .directories = world_.system.directories,
                                        .computerName = {}},
                                       request);
        controller.loadView();
        EXPECT_EQ(controller.view().size(), QSize(400, height)) << count;
        controller.viewDidAppear();
        ASSERT_TRUE(QTest::qWaitFor([&controller] { return controller.presented() != nullptr; }, 20000));
        EXPECT_EQ(controller.view().size(), QSize(400, height)) << count;
    }
}

TEST_F(ShareViewControllerTest, SendsToTheOnlyPhoneAtOnceWithoutAChoice) {
    pair(1);
    world_.files.put("/home/ann/a.txt", "content");
    share({"/home/ann/a.txt"});
    ASSERT_NE(shown<ShareStatusView>(), nullptr);
    EXPECT_EQ(shown<ShareStatusView>()->text().toStdString(), "Sending to phone…");
    keepPicture("controller-one-phone");
    ASSERT_TRUE(finishes());
    EXPECT_TRUE(request_->hasEnded());
    EXPECT_EQ(request_->error(), std::nullopt);
    const ShareOutbox::Manifest manifest = onlyManifest();
    EXPECT_EQ(manifest.id, batches().front());
    EXPECT_THAT(manifest.files, ElementsAre("a.txt"));
    EXPECT_EQ(manifest.targetPubkeys, std::nullopt);
    EXPECT_EQ(manifest.createdAtMs, world_.clock.epochMilliseconds());
    EXPECT_EQ(copyOf("a.txt"), "content");
    EXPECT_THAT(copyOf("manifest.json"), testing::Not(HasSubstr("targetPubkeys")));
    EXPECT_THAT(world_.busSignals.posted, ElementsAre("com.tarvinex.orlinth.share-pending"));
    EXPECT_THAT(world_.log.messages(), Contains("staged 1 file(s) in batch " + manifest.id));
    EXPECT_FALSE(controller_->view().isVisible());
}

TEST_F(ShareViewControllerTest, SendsToTheChosenPhonesOfSeveral) {
    pair(3);
    world_.files.put("/home/ann/a.txt", "a");
    share({"file:///home/ann/a.txt"});
    SharePickerView* const picker = shown<SharePickerView>();
    ASSERT_NE(picker, nullptr);
    EXPECT_THAT(picker->selectedKeys(), ElementsAre(PeerKey("key 1")));
    EXPECT_THAT(batches(), IsEmpty()) << "nothing is copied before the choice";
    click(picker->rows()[2]);
    click(picker->sendButton());
    ASSERT_NE(shown<ShareStatusView>(), nullptr);
    EXPECT_EQ(shown<ShareStatusView>()->text().toStdString(), "Sending…");
    ASSERT_EQ(QApplication::focusWidget(), shown<ShareStatusView>());
    EXPECT_EQ(QApplication::focusWidget()->accessibleName().toStdString(), "Sending…");
    EXPECT_EQ(controller_->view().size(), QSize(400, 84));
    ASSERT_TRUE(finishes());
    EXPECT_EQ(request_->exitStatus(), 0);
    EXPECT_THAT(onlyManifest().targetPubkeys, Optional(ElementsAre(PeerKey("key 1"), PeerKey("key 3"))));
}

TEST_F(ShareViewControllerTest, ShowsWhichPhonesAreThereAndOffersThemAll) {
    pair(3);
    world_.files.put("/home/ann/a.txt", "a");
    askPresence_ = [] {
        return std::vector<SharePresence>{
            {.pubkey = PeerKey("key 1"), .state = SharePresence::State::asleep, .canWake = true},
            {.pubkey = PeerKey("key 2"), .state = SharePresence::State::here}};
    };
    share({"/home/ann/a.txt"});
    SharePickerView* const picker = shown<SharePickerView>();
    ASSERT_NE(picker, nullptr);
    ASSERT_EQ(picker->rows().size(), 3U);
    EXPECT_EQ(picker->rows()[0]->subtitle().toStdString(), "Asleep, will be woken");
    EXPECT_EQ(picker->rows()[1]->subtitle().toStdString(), "Here now");
    EXPECT_EQ(picker->rows()[2]->subtitle().toStdString(), "192.168.1.3");
    keepPicture("controller-presence");
    EXPECT_THAT(picker->selectedKeys(), ElementsAre(PeerKey("key 1"))) << "one that sleeps is as good as any";
    click(picker->sendButton());
    ASSERT_TRUE(finishes());
    EXPECT_THAT(onlyManifest().targetPubkeys, Optional(ElementsAre(PeerKey("key 1"))));
}

TEST_F(ShareViewControllerTest, AsksNobodyAboutTheOnlyPhone) {
    pair(1);
    world_.files.put("/home/ann/a.txt", "a");
    std::atomic<int> asked = 0;
    askPresence_ = [&asked] {
        ++asked;
        return std::vector<SharePresence>();
    };
    share({"/home/ann/a.txt"});
    ASSERT_TRUE(finishes());
    EXPECT_EQ(asked, 0);
}

TEST_F(ShareViewControllerTest, HasTheServiceStartedOnceTheBatchIsThere) {
    pair(1);
    world_.files.put("/home/ann/a.txt", "a");
    std::vector<std::string> there;
    startService_ = [this, &there] {
        there = onlyManifest().files;
        return std::string();
    };
    share({"/home/ann/a.txt"});
    ASSERT_TRUE(finishes());
    EXPECT_THAT(there, ElementsAre("a.txt"));
    EXPECT_EQ(request_->exitStatus(), 0);
    EXPECT_EQ(request_->notice(), "");
    EXPECT_EQ(shown<ShareFailureView>(), nullptr);
}

TEST_F(ShareViewControllerTest, SaysWhatToDoIfTheServiceCannotBeStarted) {
    pair(1);
    world_.files.put("/home/ann/a.txt", "a");
    startService_ = [] { return std::string("No service. Start it."); };
    share({"/home/ann/a.txt"});
    ASSERT_TRUE(QTest::qWaitFor([this] { return shown<ShareFailureView>() != nullptr; }, 20000));
    EXPECT_EQ(shown<ShareFailureView>()->message().toStdString(), "No service. Start it.");
    keepPicture("controller-no-service");
    EXPECT_TRUE(request_->hasEnded());
    EXPECT_EQ(request_->exitStatus(), 0) << "the files are in the outbox";
    EXPECT_EQ(request_->notice(), "No service. Start it.");
    EXPECT_FALSE(isFinished_) << "nobody would have read it";
    click(shown<ShareFailureView>()->closeButton());
    ASSERT_TRUE(finishes());
    EXPECT_THAT(onlyManifest().files, ElementsAre("a.txt"));
}

TEST_F(ShareViewControllerTest, ShowsANoticeAlsoIfTheWindowWasClosedMeanwhile) {
    pair(1);
    world_.files.put("/home/ann/a.txt", "a");
    std::atomic<bool> isAsked = false;
    std::atomic<bool> mayAnswer = false;
    startService_ = [&isAsked, &mayAnswer] {
        isAsked = true;
        isAsked.notify_all();
        mayAnswer.wait(false);
        return std::string("No service. Start it.");
    };
    share({"/home/ann/a.txt"});
    isAsked.wait(false);
    key(Qt::Key_Escape);
    ASSERT_TRUE(QTest::qWaitFor([this] { return !controller_->view().isVisible(); }, 20000));
    mayAnswer = true;
    mayAnswer.notify_all();
    ASSERT_TRUE(QTest::qWaitFor([this] { return shown<ShareFailureView>() != nullptr; }, 20000));
    EXPECT_TRUE(controller_->view().isVisible());
    EXPECT_EQ(request_->exitStatus(), 0);
    key(Qt::Key_Escape);
    ASSERT_TRUE(finishes());
}

TEST_F(ShareViewControllerTest, DoesNotWaitWithANoticeWhereNobodySeesIt) {
    pair(1);
    world_.files.put("/home/ann/a.txt", "a");
    startService_ = [] { return std::string("No service. Start it."); };
    share({"/home/ann/a.txt"}, false);
    ASSERT_TRUE(finishes());
    EXPECT_EQ(request_->notice(), "No service. Start it.");
}

TEST_F(ShareViewControllerTest, StartsNoServiceForABatchThatFails) {
    pair(1);
    bool isStarted = false;
    startService_ = [&isStarted] {
        isStarted = true;
        return std::string();
    };
    share({"/home/ann/none.txt"});
    ASSERT_TRUE(QTest::qWaitFor([this] { return request_->hasEnded(); }, 20000));
    EXPECT_EQ(request_->exitStatus(), 1);
    EXPECT_FALSE(isStarted);
}

TEST_F(ShareViewControllerTest, ShowsTheFirstFileOfThemAndItsPicture) {
    pair(2);
    world_.files.putFolder("/home/ann/folder");
    world_.files.put("/home/ann/b.txt", "b");
    world_.files.put("/home/ann/a.txt", "a");
    share({"/home/ann/folder", "/home/ann/b.txt", "/home/ann/a.txt"});
    SharePickerView* const picker = shown<SharePickerView>();
    ASSERT_NE(picker, nullptr);
    QStringList texts;
    for (const QWidget* const widget : picker->findChildren<QWidget*>()) {
        texts << widget->accessibleName();
    }
    EXPECT_TRUE(texts.contains(QStringLiteral("b.txt")));
    EXPECT_TRUE(texts.contains(QStringLiteral("2 files")));
    EXPECT_TRUE(texts.contains(QStringLiteral("ann-laptop")));
    EXPECT_TRUE(QTest::qWaitFor([picker] { return !picker->thumb()->pixmap(Qt::ReturnByValue).isNull(); }, 20000));
}

TEST_F(ShareViewControllerTest, CancelsWithoutLeavingAnything) {
    pair(2);
    world_.files.put("/home/ann/a.txt", "a");
    for (const bool byKey : {false, true}) {
        isFinished_ = false;
        share({"/home/ann/a.txt"});
        if (byKey) {
            key(Qt::Key_Escape);
        } else {
            click(shown<SharePickerView>()->cancelButton());
        }
        ASSERT_TRUE(finishes());
        ASSERT_TRUE(request_->error());
        EXPECT_EQ(*request_->error(), (ShareRequest::Error{ShareRequest::ErrorCode::cancelled, "cancelled"}));
        EXPECT_THAT(batches(), IsEmpty());
        EXPECT_THAT(world_.busSignals.posted, IsEmpty());
        EXPECT_FALSE(controller_->view().isVisible());
    }
}

TEST_F(ShareViewControllerTest, TakesTheClosingOfItsWindowForACancel) {
    pair(2);
    world_.files.put("/home/ann/a.txt", "a");
    share({"/home/ann/a.txt"});
    controller_->view().close();
    ASSERT_TRUE(finishes());
    EXPECT_EQ(request_->error()->code, ShareRequest::ErrorCode::cancelled);
}

TEST_F(ShareViewControllerTest, OffersOnlyToCancelWithoutAPhone) {
    world_.files.put("/home/ann/a.txt", "a");
    share({"/home/ann/a.txt"});
    SharePickerView* const picker = shown<SharePickerView>();
    ASSERT_NE(picker, nullptr);
    EXPECT_EQ(picker->sendButton(), nullptr);
    click(picker->cancelButton());
    ASSERT_TRUE(finishes());
    EXPECT_EQ(request_->error()->code, ShareRequest::ErrorCode::cancelled);
}

TEST_F(ShareViewControllerTest, TakesABrokenListOfPhonesForAnEmptyOne) {
    world_.files.put("/home/ann/a.txt", "a");
    world_.files.put(outbox.parent_path() / "peers.json", R"([{"hostname":"a","pubkey":"b","subtitle":"c"},{}])");
    share({"/home/ann/a.txt"});
    ASSERT_NE(shown<SharePickerView>(), nullptr);
    EXPECT_TRUE(shown<SharePickerView>()->rows().empty());
}

TEST_F(ShareViewControllerTest, SharesFilesOnly) {
    pair(1);
    world_.files.putFolder("/home/ann/folder");
    world_.files.putLink("/home/ann/link", "/home/ann/folder");
    world_.files.putSpecial("/home/ann/pipe");
    const std::vector<std::string> nothings[] = {
        {"just a text"}, {}, {"https://example.com/"}, {"/home/ann/folder"}, {"/home/ann/link"}, {"/home/ann/pipe"}};
    for (const std::vector<std::string>& items : nothings) {
        isFinished_ = false;
        share(items);
        expectFailure("Nothing shareable — Orlinth sends files only");
        ASSERT_NE(shown<ShareFailureView>(), nullptr);
        EXPECT_FALSE(isFinished_) << "until somebody has read it";
        click(shown<ShareFailureView>()->closeButton());
        ASSERT_TRUE(finishes());
    }
    EXPECT_FALSE(world_.files.exists(outbox));
}

TEST_F(ShareViewControllerTest, LeavesOutFoldersAndSpecialFilesAmongFiles) {
    pair(2);
    world_.files.put("/home/ann/a.txt", "a");
    world_.files.put("/home/ann/b.txt", "b");
    world_.files.putFolder("/home/ann/folder");
    world_.files.putLink("/home/ann/to-b", "/home/ann/b.txt");
    world_.files.putSpecial("/home/ann/pipe");
    share({"/home/ann/folder", "/home/ann/a.txt", "/home/ann/pipe", "/home/ann/to-b"});
    EXPECT_THAT(world_.log.messages(),
                ElementsAre("skipped: a folder is not shared", "skipped: a special file is not shared"));
    click(shown<SharePickerView>()->sendButton());
    ASSERT_TRUE(finishes());
    EXPECT_THAT(onlyManifest().files, UnorderedElementsAre("a.txt", "to-b"));
    EXPECT_EQ(copyOf("to-b"), "b");
}

TEST_F(ShareViewControllerTest, GivesEveryFileANameOfItsOwn) {
    pair(1);
    const char* const contents[] = {"1", "2", "3"};
    std::vector<std::string> items;
    for (const char* const name : {"a.txt", "README", "manifest.json"}) {
        for (const char* const content : contents) {
            const std::string path = std::string("/") + content + "/" + name;
            world_.files.put(path, content);
            items.push_back(path);
        }
    }
    share(items);
    ASSERT_TRUE(finishes());
    const std::vector<std::string> names = onlyManifest().files;
    EXPECT_THAT(names, UnorderedElementsAre("a.txt", "a 2.txt", "a 3.txt", "README", "README 2", "README 3",
                                            "manifest 2.json", "manifest 3.json", "manifest 4.json"));
    for (const char* const kind : {"a", "README", "manifest"}) {
        std::vector<std::string> found;
        for (const std::string& name : names) {
            if (name.starts_with(kind)) {
                found.push_back(copyOf(name));
            }
        }
        EXPECT_THAT(found, UnorderedElementsAre("1", "2", "3")) << kind;
    }
}

TEST_F(ShareViewControllerTest, SkipsAFileThatCannotBeRead) {
    pair(1);
    world_.files.put("/home/ann/a.txt", "a");
    world_.files.put("/home/ann/secret", "s", 0000);
    share({"/home/ann/secret", "/home/ann/gone.txt", "/home/ann/a.txt"});
    ASSERT_TRUE(finishes());
    EXPECT_EQ(request_->exitStatus(), 0);
    EXPECT_THAT(onlyManifest().files, ElementsAre("a.txt"));
    EXPECT_EQ(std::ranges::count_if(world_.log.messages(),
                                    [](const std::string& line) { return line.starts_with("copy failed: "); }),
              2);
}

TEST_F(ShareViewControllerTest, FailsIfNoFileCanBeRead) {
    pair(1);
    share({"/home/ann/gone.txt"});
    ASSERT_TRUE(QTest::qWaitFor([this] { return request_->hasEnded(); }, 20000));
    expectFailure("Could not read the shared file(s)");
    ASSERT_NE(shown<ShareFailureView>(), nullptr);
    EXPECT_EQ(shown<ShareFailureView>()->message().toStdString(), "Could not read the shared file(s)");
    EXPECT_EQ(controller_->view().height(), shown<ShareFailureView>()->contentHeight());
    keepPicture("controller-failure");
    key(Qt::Key_Return);
    ASSERT_TRUE(finishes()) << "Close has the focus";
}

TEST_F(ShareViewControllerTest, SkipsAUriThatNamesNoFileHere) {
    pair(1);
    const std::string line = "loadItem failed: the URI names no file of this computer";
    share({"file://elsewhere/a.txt", "file:///%zz"});
    expectFailure("Could not read the shared file(s)");
    EXPECT_EQ(std::ranges::count(world_.log.messages(), line), 2);
    EXPECT_FALSE(world_.files.exists(outbox));
    world_.files.put("/home/ann/a.txt", "a");
    share({"file://elsewhere/a.txt", "/home/ann/a.txt"});
    ASSERT_TRUE(finishes());
    EXPECT_EQ(request_->exitStatus(), 0);
    EXPECT_THAT(onlyManifest().files, ElementsAre("a.txt"));
    EXPECT_EQ(std::ranges::count(world_.log.messages(), line), 3);
}

TEST_F(ShareViewControllerTest, TakesTwoPressesOfAButtonForOne) {
    pair(2);
    world_.files.put("/home/ann/a.txt", "a");
    share({"/home/ann/a.txt"});
    SheetButton* const send = shown<SharePickerView>()->sendButton();
    send->click();
    send->click();
    ASSERT_TRUE(finishes());
    EXPECT_EQ(request_->exitStatus(), 0);
    EXPECT_THAT(onlyManifest().files, ElementsAre("a.txt"));
    isFinished_ = false;
    share({"/home/ann/a.txt"});
    SheetButton* const cancel = shown<SharePickerView>()->cancelButton();
    cancel->click();
    cancel->click();
    ASSERT_TRUE(finishes());
    EXPECT_EQ(request_->error()->code, ShareRequest::ErrorCode::cancelled);
    EXPECT_EQ(batches().size(), 1);
}

TEST_F(ShareViewControllerTest, FailsIfThereCanBeNoBatch) {
    pair(1);
    world_.files.put("/home/ann/a.txt", "a");
    world_.files.addFault({.operation = fakes::Operation::createDirectory, .errorNumber = ENOSPC});
    share({"/home/ann/a.txt"});
    ASSERT_TRUE(QTest::qWaitFor([this] { return request_->hasEnded(); }, 20000));
    expectFailure("Could not create outbox batch: No space left on device");
}

TEST_F(ShareViewControllerTest, FailsIfThereIsNoContainer) {
    pair(2);
    world_.files.put("/home/ann/a.txt", "a");
    share({"/home/ann/a.txt"});
    // it goes while the user chooses, and something else has its name
    world_.files.remove(outbox.parent_path() / "peers.json");
    for (const std::string& name : world_.files.list(outbox.parent_path())) {
        world_.files.remove(outbox.parent_path() / name);
    }
    world_.files.removeDirectory(outbox.parent_path());
    world_.files.put(outbox.parent_path(), "a file");
    click(shown<SharePickerView>()->sendButton());
    ASSERT_TRUE(QTest::qWaitFor([this] { return request_->hasEnded(); }, 20000));
    ASSERT_TRUE(request_->error());
    EXPECT_EQ(request_->error()->description, "App Group container unavailable — check entitlement");
}

TEST_F(ShareViewControllerTest, FailsIfTheManifestCannotBeWritten) {
    pair(2);
    world_.files.put("/home/ann/a.txt", "a");
    share({"/home/ann/a.txt"});
    world_.files.addFault({.operation = fakes::Operation::rename, .errorNumber = EIO});
    click(shown<SharePickerView>()->sendButton());
    ASSERT_TRUE(QTest::qWaitFor([this] { return request_->hasEnded(); }, 20000));
    expectFailure("Could not write manifest: Input/output error");
}

TEST_F(ShareViewControllerTest, EndsByItselfAfterAFailureThatNobodyCanSee) {
    share({"just a text"}, false);
    ASSERT_TRUE(finishes());
    expectFailure("Nothing shareable — Orlinth sends files only");
}

TEST_F(ShareViewControllerTest, ClosesAFailureByEscapeToo) {
    share({"just a text"});
    key(Qt::Key_Escape);
    ASSERT_TRUE(finishes());
    EXPECT_EQ(request_->error()->code, ShareRequest::ErrorCode::failed) << "it did not become a cancel";
}

TEST_F(ShareViewControllerTest, DoesNotCloseAFailureByAKeyThatIsStillHeldDown) {
    share({"just a text"});
    ASSERT_NE(shown<ShareFailureView>(), nullptr);
    SheetButton* const close = shown<ShareFailureView>()->closeButton();
    QKeyEvent again(QEvent::KeyPress, Qt::Key_Return, Qt::NoModifier, QStringLiteral("\r"), true);
    QApplication::sendEvent(close, &again);
    EXPECT_TRUE(controller_->view().isVisible());
    QKeyEvent press(QEvent::KeyPress, Qt::Key_Return, Qt::NoModifier, QStringLiteral("\r"));
    QApplication::sendEvent(close, &press);
    ASSERT_TRUE(finishes());
}

} // namespace
} // namespace orlinth::share
