#pragma once

#include "OrlinthShare/ShareViewController.h"
#include "base/Json.h"
#include "fakes/World.h"
#include "platform/WholeFile.h"

#include <gmock/gmock.h>

#include <QApplication>
#include <QTest>
#include <QWindow>
#include <memory>
#include <stdexcept>

namespace orlinth::share {

using platform::Path;

inline const Path outbox = "/home/ann/.local/share/group.com.tarvinex.orlinth/Outbox";

/// The sheet in front of a computer in memory, operated by real events.
class ShareViewControllerTest : public testing::Test {
protected:
    ~ShareViewControllerTest() override { controller_.reset(); }

    void pair(std::size_t count) {
        std::vector<ShareOutbox::SharePeer> peers;
        for (std::size_t i = 1; i <= count; ++i) {
            peers.push_back({.hostname = "Phone " + std::to_string(i),
                             .pubkey = PeerKey("key " + std::to_string(i)),
                             .subtitle = "192.168.1." + std::to_string(i)});
        }
        ShareOutbox(world_.files, world_.system.directories).writePeers(peers);
    }

    /// Shows the sheet for these items, and goes on until it waits.
    void share(std::vector<std::string> items, bool showsFailures = true) {
        appear(std::move(items), showsFailures);
        ASSERT_TRUE(
            QTest::qWaitFor([this] { return controller_->presented() != nullptr || request_->hasEnded(); }, 20000));
    }

    /// Shows the sheet for these items; nothing is known of them yet.
    void appear(std::vector<std::string> items, bool showsFailures = true) {
        request_ = std::make_unique<ShareRequest>(std::move(items), "/home/ann");
        controller_ = std::make_unique<ShareViewController>(
            ShareViewController::Settings{
                .system = {.files = *files_, .clock = world_.clock, .log = world_.log, .busSignals = world_.busSignals},
                .directories = world_.system.directories,
                .computerName = QStringLiteral("ann-laptop"),
                .showsFailures = showsFailures,
                .askPresence = askPresence_,
                .startService = startService_},
            *request_);
        controller_->onFinished = [this] { isFinished_ = true; };
        controller_->loadView();
        controller_->view().show();
        controller_->view().activateWindow();
        ASSERT_TRUE(QTest::qWaitForWindowActive(&controller_->view()));
        controller_->viewDidAppear();
    }

    [[nodiscard]] bool finishes() {
        return QTest::qWaitFor([this] { return isFinished_; }, 20000);
    }

    template <typename View>
    [[nodiscard]] View* shown() {
        return dynamic_cast<View*>(controller_->presented());
    }

    void click(QWidget* widget) {
        ShareBackgroundView& window = controller_->view();
        QTest::mouseClick(window.windowHandle(), Qt::LeftButton, Qt::NoModifier,
                          widget->mapTo(&window, widget->rect().center()));
    }

    void key(Qt::Key which) { QTest::keyClick(controller_->view().windowHandle(), which); }

    void keepPicture(const char* name) {
        EXPECT_TRUE(
            controller_->view().grab().save(QStringLiteral(ORLINTH_TEST_PICTURES "/%1.png").arg(QLatin1String(name))));
    }

    /// The names of the outbox's folders.
    [[nodiscard]] std::vector<std::string> batches() {
        return world_.files.exists(outbox) ? world_.files.list(outbox) : std::vector<std::string>();
    }

    [[nodiscard]] ShareOutbox::Manifest onlyManifest() {
        const std::vector<std::string> folders = batches();
        if (folders.size() != 1) {
            throw std::logic_error("there is not exactly one batch");
        }
        const Path file = outbox / folders.front() / "manifest.json";
        return ShareOutbox::Manifest::fromJson(parseJson(platform::readWholeFile(world_.files, file)));
    }

    [[nodiscard]] std::string copyOf(const std::string& name) {
        return world_.files.content(outbox / batches().at(0) / name).value_or("(missing)");
    }

    void expectFailure(const std::string& message) {
        ASSERT_TRUE(request_->error());
        EXPECT_EQ(request_->error()->code, ShareRequest::ErrorCode::failed);
        EXPECT_EQ(request_->error()->description, message);
        EXPECT_THAT(world_.log.lines(),
                    testing::Contains(fakes::RecordingLog::Line{platform::LogLevel::error, "com.tarvinex.orlinth.share",
                                                                "share", message}));
        EXPECT_THAT(world_.busSignals.posted, testing::IsEmpty());
        EXPECT_THAT(batches(), testing::IsEmpty());
    }

    fakes::World world_;
    platform::FileSystem* files_ = &world_.files;
    std::unique_ptr<ShareRequest> request_;
    std::unique_ptr<ShareViewController> controller_;
    bool isFinished_ = false;
    std::function<std::vector<SharePresence>()> askPresence_; ///< of the sheets that are shown from now on
    std::function<std::string()> startService_;               ///< likewise
};

} // namespace orlinth::share
