#include "GatedFiles.h"
#include "OrlinthShare/ShareViewController.h"
#include "SheetFixture.h"

#include <QElapsedTimer>
#include <QTimer>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

namespace orlinth::share {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// With a copy that takes as long as the test wants.
class SlowCopyTest : public ShareViewControllerTest {
protected:
    SlowCopyTest() {
        files_ = &gate_;
        pair(1);
        world_.files.put("/home/ann/large.bin", "large");
        world_.files.put("/home/ann/small.txt", "small");
    }
    ~SlowCopyTest() override {
        gate_.open();
        controller_.reset();
    }

    void shareBoth() {
        share({"/home/ann/large.bin", "/home/ann/small.txt"});
        ASSERT_TRUE(QTest::qWaitFor([this] { return gate_.waiting() == 1; }, 20000));
    }

    GatedFiles gate_{world_.files};
};

TEST_F(SlowCopyTest, LeavesTheWindowAlive) {
    shareBoth();
    int ticks = 0;
    qint64 longestGap = 0;
    QElapsedTimer sinceTick;
    QTimer timer;
    QObject::connect(&timer, &QTimer::timeout, [&] {
        ++ticks;
        longestGap = std::max(longestGap, sinceTick.restart());
    });
    sinceTick.start();
    timer.start(5);
    ASSERT_TRUE(QTest::qWaitFor([&] { return ticks >= 100; }, 20000));
    EXPECT_LT(longestGap, 1000) << "milliseconds between two turns of the event loop";
    ASSERT_TRUE(QTest::qWaitFor([&] { return copyOf("small.txt") == "small"; }, 20000))
        << "copies are made side by side";
    EXPECT_FALSE(request_->hasEnded());
    EXPECT_EQ(copyOf("manifest.json"), "(missing)");
    gate_.open();
    ASSERT_TRUE(finishes());
    EXPECT_THAT(onlyManifest().files, ElementsAre("small.txt", "large.bin")) << "in the order in which they finished";
}

TEST_F(SlowCopyTest, IsCancelledInTheMiddle) {
    shareBoth();
    key(Qt::Key_Escape);
    ASSERT_TRUE(finishes());
    EXPECT_EQ(request_->error()->code, ShareRequest::ErrorCode::cancelled);
    EXPECT_FALSE(controller_->view().isVisible());
    EXPECT_FALSE(controller_->waitForCopies(std::chrono::milliseconds(10)));
    gate_.open();
    EXPECT_TRUE(controller_->waitForCopies(std::chrono::seconds(20)));
    QApplication::processEvents();
    controller_.reset();
    EXPECT_THAT(batches(), IsEmpty());
    EXPECT_THAT(world_.busSignals.posted, IsEmpty());
}

TEST_F(SlowCopyTest, RemovesTheBatchOfACopyThatDoesNotEnd) {
    shareBoth();
    ASSERT_TRUE(QTest::qWaitFor([&] { return copyOf("small.txt") == "small"; }, 20000));
    key(Qt::Key_Escape);
    ASSERT_TRUE(finishes());
    controller_->abandonBatch();
    EXPECT_THAT(batches(), IsEmpty());
}

TEST_F(SlowCopyTest, MakesNoMoreCopiesOnceItIsCancelled) {
    std::vector<std::string> items;
    for (int i = 0; i < 4; ++i) { // as many as there are threads
        const std::string path = "/" + std::to_string(i) + "/large.bin";
        world_.files.put(path, "large");
        items.push_back(path);
    }
    items.emplace_back("/home/ann/small.txt");
    share(items);
    ASSERT_TRUE(QTest::qWaitFor([this] { return gate_.waiting() == 4; }, 20000));
    key(Qt::Key_Escape);
    gate_.open();
    controller_.reset();
    EXPECT_THAT(batches(), IsEmpty());
    const std::vector<std::string> history = world_.files.history();
    EXPECT_EQ(std::ranges::count_if(history,
                                    [](const std::string& line) {
                                        return line.starts_with("create ") &&
                                               line.find("small.txt") != std::string::npos;
                                    }),
              0);
}

TEST_F(SlowCopyTest, CanBeCancelledWhileTheFilesAreLookedAt) {
    gate_.hold("small.txt");
    appear({"/home/ann/small.txt"});
    ASSERT_TRUE(QTest::qWaitFor([this] { return gate_.waiting() == 1; }, 20000));
    EXPECT_EQ(controller_->presented(), nullptr);
    key(Qt::Key_Escape);
    ASSERT_TRUE(finishes());
    EXPECT_EQ(request_->error()->code, ShareRequest::ErrorCode::cancelled);
    gate_.open();
    ASSERT_TRUE(controller_->waitForCopies(std::chrono::seconds(20)));
    QApplication::processEvents();
    EXPECT_EQ(controller_->presented(), nullptr);
    EXPECT_FALSE(world_.files.exists(outbox));
}

TEST_F(SlowCopyTest, GoesOnOnceTheFilesHaveBeenLookedAt) {
    gate_.hold("small.txt");
    appear({"/home/ann/small.txt"});
    ASSERT_TRUE(QTest::qWaitFor([this] { return gate_.waiting() == 1; }, 20000));
    gate_.open();
    ASSERT_TRUE(finishes());
    EXPECT_THAT(onlyManifest().files, ElementsAre("small.txt"));
}

TEST_F(SlowCopyTest, CanBeCancelledWhileItsBatchIsMade) {
    gate_.hold("Outbox");
    share({"/home/ann/small.txt"});
    ASSERT_TRUE(QTest::qWaitFor([this] { return gate_.waiting() == 1; }, 20000));
    key(Qt::Key_Escape);
    ASSERT_TRUE(finishes());
    EXPECT_EQ(request_->error()->code, ShareRequest::ErrorCode::cancelled);
    EXPECT_FALSE(controller_->waitForCopies(std::chrono::milliseconds(10)));
    controller_->abandonBatch();
    gate_.open();
    controller_.reset();
    EXPECT_THAT(batches(), IsEmpty());
    EXPECT_THAT(world_.busSignals.posted, IsEmpty());
}

TEST_F(SlowCopyTest, IsNotCancelledOnceTheManifestIsBeingWritten) {
    gate_.hold("manifest.json");
    share({"/home/ann/small.txt"});
    ASSERT_TRUE(QTest::qWaitFor([this] { return gate_.waiting() == 1; }, 20000));
    key(Qt::Key_Escape);
    EXPECT_FALSE(controller_->view().isVisible());
    EXPECT_FALSE(request_->hasEnded());
    controller_->view().close();
    controller_->abandonBatch();
    EXPECT_FALSE(isFinished_);
    gate_.open();
    ASSERT_TRUE(finishes());
    EXPECT_EQ(request_->exitStatus(), 0);
    EXPECT_THAT(onlyManifest().files, ElementsAre("small.txt"));
    EXPECT_THAT(world_.busSignals.posted, ElementsAre("com.tarvinex.orlinth.share-pending"));
}

TEST_F(SlowCopyTest, ShowsAFailureThatComesAfterItsWindowWasClosed) {
    gate_.hold("manifest.json");
    world_.files.addFault({.operation = fakes::Operation::rename, .errorNumber = EIO});
    share({"/home/ann/small.txt"});
    ASSERT_TRUE(QTest::qWaitFor([this] { return gate_.waiting() == 1; }, 20000));
    key(Qt::Key_Escape);
    EXPECT_FALSE(controller_->view().isVisible());
    gate_.open();
    ASSERT_TRUE(QTest::qWaitFor([this] { return request_->hasEnded(); }, 20000));
    expectFailure("Could not write manifest: Input/output error");
    EXPECT_TRUE(controller_->view().isVisible());
    ASSERT_NE(shown<ShareFailureView>(), nullptr);
}

TEST_F(SlowCopyTest, StagesWhatItWasClosingWhenItIsDestroyed) {
    gate_.hold("manifest.json");
    share({"/home/ann/small.txt"});
    ASSERT_TRUE(QTest::qWaitFor([this] { return gate_.waiting() == 1; }, 20000));
    std::thread opener([this] { gate_.open(); });
    controller_.reset();
    opener.join();
    EXPECT_THAT(onlyManifest().files, ElementsAre("small.txt"));
}

TEST_F(SlowCopyTest, CanBeDestroyedInTheMiddle) {
    shareBoth();
    std::thread opener([this] { gate_.open(); });
    controller_.reset();
    opener.join();
    for (const std::string& id : batches()) { // the copy may have ended before: then nothing is missing
        EXPECT_TRUE(world_.files.exists(outbox / id / "manifest.json"));
    }
    EXPECT_FALSE(request_->hasEnded());
}

} // namespace
} // namespace orlinth::share
