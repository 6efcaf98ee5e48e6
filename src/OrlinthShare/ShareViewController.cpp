#include "OrlinthShare/ShareViewController.h"

#include "OrlinthShare/FileThumbnail.h"
#include "OrlinthShare/PhoneSubtitles.h"
#include "base/Precondition.h"
#include "base/Text.h"
#include "platform/SystemError.h"

#include <QPointer>
#include <QTimer>
#include <algorithm>
#include <set>
#include <utility>

namespace orlinth::share {
namespace {

using platform::Path;

/// Copies wait for disks, not for processors.
constexpr int copyThreads = 4;
/// The time for a look at the files, which is done at once where they are on a disk: nothing flickers then.
constexpr std::chrono::milliseconds lookPatience{100};
constexpr const char* logCategory = "share";

QString nameOf(const Path& file) {
    return oneLine(file.filename().string());
}

} // namespace

ShareViewController::ShareViewController(Settings settings, ShareRequest& request)
    : settings_(std::move(settings)), request_(request), outbox_(settings_.system.files, settings_.directories) {
    pool_.setMaxThreadCount(copyThreads);
}

ShareViewController::~ShareViewController() {
    stop();
    pool_.clear();
    pool_.waitForDone();
}

void ShareViewController::loadView() {
    peers_ = outbox_.readPeers();
    view_ = std::make_unique<ShareBackgroundView>();
    view_->onDismiss = [this] { dismiss(); };
    const int height = peers_.size() == 1 ? ShareStatusView::contentHeight : SharePickerView::heightFor(peers_.size());
    view_->setFixedSize(SharePickerView::sheetWidth, height);
}

void ShareViewController::viewDidAppear() {
    pool_.start([this] {
        const auto tell = [this, found = filesToShare(), known = presence()] { goOn(found, known); };
        QMetaObject::invokeMethod(this, tell, Qt::QueuedConnection);
    });
    pool_.waitForDone(static_cast<int>(lookPatience.count()));
}

/// On a thread of the pool. The list of phones does not change meanwhile.
std::vector<SharePresence> ShareViewController::presence() const {
    const bool isAChoice = peers_.size() > 1;
    return isAChoice && settings_.askPresence ? settings_.askPresence() : std::vector<SharePresence>();
}

void ShareViewController::goOn(ShareRequest::FileItems found, const std::vector<SharePresence>& presence) {
    if (request_.hasEnded()) {
        return;
    }
    showPresence(peers_, presence, QDateTime::currentDateTime());
    files_ = std::move(found.paths);
    if (files_.empty()) {
        fail(found.unreadable == 0 ? ShareError::nothingShareable().description()
                                   : ShareError::nothingRead().description());
        return;
    }
    if (peers_.size() == 1) {
        presentStatus(QStringLiteral("Sending to phone…"));
        stage(std::nullopt);
        return;
    }
    presentPicker();
}

/// Without what is certainly no file. What cannot be looked at stays in: that it cannot be read is worth telling.
ShareRequest::FileItems ShareViewController::filesToShare() const {
    const ShareRequest::FileItems items = request_.fileItems(settings_.system.files);
    for (std::size_t i = 0; i < items.unreadable; ++i) {
        logLine(platform::LogLevel::error, "loadItem failed: the URI names no file of this computer");
    }
    ShareRequest::FileItems files{.paths = {}, .unreadable = items.unreadable};
    for (const Path& item : items.paths) {
        if (progress_ == Progress::stopped) {
            break;
        }
        std::optional<platform::FileStatus> status;
        try {
            status = settings_.system.files.status(item);
        } catch (const platform::SystemError&) {
            status.reset(); // the copy will tell why
        }
        if (status && status->kind != platform::FileKind::regular) {
            logLine(platform::LogLevel::notice, status->kind == platform::FileKind::directory
                                                    ? "skipped: a folder is not shared"
                                                    : "skipped: a special file is not shared");
            continue;
        }
        files.paths.push_back(item);
    }
    return files;
}

void ShareViewController::presentPicker() {
    std::set<PeerKey> selected;
    if (!peers_.empty()) {
        selected.insert(peers_.front().pubkey);
    }
    auto picker = std::make_unique<SharePickerView>(peers_, std::move(selected), settings_.computerName);
    SharePickerView& shown = *picker;
    shown.build(files_.size(), nameOf(files_.front()));
    shown.onSend = [this](std::vector<PeerKey> keys) {
        if (step_ != Step::choosing) {
            return; // pressed twice before it was gone
        }
        presentStatus(QStringLiteral("Sending…"));
        stage(std::move(keys));
    };
    shown.onCancel = [this] { cancel(); };
    present(std::move(picker), shown.contentHeight());
    loadFileIcon(shown);
}

void ShareViewController::presentStatus(const QString& text) {
    present(std::make_unique<ShareStatusView>(text), ShareStatusView::contentHeight);
    presented_->setFocus(Qt::OtherFocusReason); // a screen reader reads out what has the focus
    statusShown_.start();
}

void ShareViewController::present(std::unique_ptr<QWidget> next, int height) {
    const QObjectList children = view_->children();
    for (QObject* const child : children) {
        if (auto* const before = qobject_cast<QWidget*>(child)) {
            before->hide();
            before->deleteLater(); // it may be its own button that has led here
        }
    }
    view_->setFixedSize(SharePickerView::sheetWidth, height);
    presented_ = next.release(); // the window owns it from the next line on
    presented_->setParent(view_.get());
    presented_->setGeometry(0, 0, SharePickerView::sheetWidth, height);
    presented_->show();
}

void ShareViewController::stage(std::optional<std::vector<PeerKey>> targetPubkeys) {
    if (step_ != Step::choosing || request_.hasEnded()) {
        preconditionFailed("a request is staged once");
    }
    step_ = Step::staging;
    targets_ = std::move(targetPubkeys);
    pool_.start([this] { openBatch(); });
}

void ShareViewController::openBatch() noexcept {
    if (progress_ == Progress::stopped) {
        return;
    }
    try {
        staging_ = std::make_unique<ShareStaging>(settings_.system, outbox_);
    } catch (const Error& error) {
        const auto tell = [this, failure = std::optional(error.description())] { endStaging(failure); };
        QMetaObject::invokeMethod(this, tell, Qt::QueuedConnection);
        return;
    }
    hasBatch_ = true;
    copiesLeft_ = files_.size();
    for (const Path& file : files_) {
        pool_.start([this, file] { copyOne(file); });
    }
}

void ShareViewController::copyOne(const Path& file) noexcept {
    if (progress_ == Progress::open) {
        staging_->add(file);
    }
    if (copiesLeft_.fetch_sub(1) == 1) {
        closeBatch();
    }
}

void ShareViewController::closeBatch() noexcept {
    Progress expected = Progress::open;
    if (!progress_.compare_exchange_strong(expected, Progress::closing)) {
        return; // cancelled; the batch goes with the controller
    }
    std::optional<std::string> failure;
    std::string notice;
    try {
        staging_->finish(targets_);
    } catch (const Error& error) {
        failure = error.description();
    }
    if (!failure && settings_.startService) {
        notice = settings_.startService();
    }
    QMetaObject::invokeMethod(this, [this, failure, notice] { endStaging(failure, notice); }, Qt::QueuedConnection);
}

void ShareViewController::endStaging(const std::optional<std::string>& failure, const std::string& notice) {
    if (request_.hasEnded()) {
        return; // cancelled before there was a batch
    }
    if (failure) {
        fail(*failure);
        return;
    }
    request_.completeRequest(notice);
    if (!notice.empty()) {
        logLine(platform::LogLevel::notice, notice);
        showUntilClosed(notice);
        return;
    }
    const auto seen = std::chrono::milliseconds(statusShown_.isValid() ? statusShown_.elapsed() : 0);
    const auto rest = std::max(settings_.statusSeen - seen, std::chrono::milliseconds(0));
    QTimer::singleShot(rest, this, [this] { finish(); });
}

void ShareViewController::loadFileIcon(SharePickerView& picker) {
    const qreal ratio = view_->devicePixelRatioF();
    pool_.start([this, ratio, file = files_.front(), target = QPointer<SharePickerView>(&picker)] {
        const FileLook look = lookOfFile(file, SharePickerView::thumbnailSize, ratio);
        const auto show = [this, look, ratio, target] {
            if (target) {
                target->setThumbnail(pictureOf(look, SharePickerView::thumbnailSize, ratio, view_->palette()));
            }
        };
        QMetaObject::invokeMethod(this, show, Qt::QueuedConnection);
    });
}

void ShareViewController::fail(const std::string& message) {
    logLine(platform::LogLevel::error, message);
    request_.cancelRequest({ShareRequest::ErrorCode::failed, message});
    showUntilClosed(message);
}

void ShareViewController::showUntilClosed(const std::string& message) {
    if (!settings_.showsFailures) {
        QTimer::singleShot(0, this, [this] { finish(); });
        return;
    }
    auto failure = std::make_unique<ShareFailureView>(oneLine(message));
    failure->onClose = [this] { finish(); };
    const int height = failure->contentHeight();
    present(std::move(failure), height);
    view_->show(); // it may have been closed when it was too late to cancel
}

bool ShareViewController::stop() noexcept {
    Progress before = Progress::open;
    return progress_.compare_exchange_strong(before, Progress::stopped) || before == Progress::stopped;
}

void ShareViewController::cancel() {
    if (request_.hasEnded()) {
        return;
    }
    if (!stop()) {
        view_->hide();
        return;
    }
    request_.cancelRequest({ShareRequest::ErrorCode::cancelled, "cancelled"});
    finish();
}

/// Escape, or the window's own close button.
void ShareViewController::dismiss() {
    if (request_.hasEnded()) {
        finish();
    } else {
        cancel();
    }
}

void ShareViewController::finish() {
    if (step_ == Step::finished) {
        return;
    }
    step_ = Step::finished;
    view_->hide();
    QTimer::singleShot(0, this, [this] {
        if (onFinished) {
            onFinished();
        }
    });
}

bool ShareViewController::waitForCopies(std::chrono::milliseconds patience) {
    pool_.clear();
    return pool_.waitForDone(static_cast<int>(patience.count()));
}

void ShareViewController::abandonBatch() noexcept {
    if (!stop() || !hasBatch_) {
        return;
    }
    platform::FileSystem& files = settings_.system.files;
    try {
        for (const std::string& name : files.list(staging_->folder())) {
            files.remove(staging_->folder() / name);
        }
        files.removeDirectory(staging_->folder());
    } catch (const std::exception&) {
        return; // a folder without a manifest; the host clears it away
    }
}

void ShareViewController::logLine(platform::LogLevel level, std::string_view message) const noexcept {
    settings_.system.log.write(level, ShareStaging::logSubsystem, logCategory, message);
}

} // namespace orlinth::share
