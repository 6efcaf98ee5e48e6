#pragma once

#include "OrlinthCore/Share/ServicePresence.h"
#include "OrlinthCore/Share/ShareOutbox.h"
#include "OrlinthCore/Share/ShareStaging.h"
#include "OrlinthShare/ShareBackgroundView.h"
#include "OrlinthShare/SharePickerView.h"
#include "OrlinthShare/ShareRequest.h"
#include "OrlinthShare/ShareStatusView.h"
#include "platform/Directories.h"

#include <QElapsedTimer>
#include <QObject>
#include <QThreadPool>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace orlinth::share {

/// One use of the share sheet: looks at what is shared, lets the user choose phones if there are several, copies the
/// files into a batch of the outbox, and ends the request. It connects to no phone: the host sends the batch.
///
///     viewDidAppear ─┬─ no file ─────────────────────────────────▶ fail
///                    ├─ one phone ──────────┐
///                    └─ picker ── Send ─────┴▶ stage ─ copies ─ manifest ─┬─ service ─┬─▶ request completed
///                         └─ Cancel, Escape ▶ cancel ◀──┘                 └─▶ fail    └─▶ the same, with a notice
///
/// Threading: on the main thread, with a QApplication. Everything that may have to wait for a disk or a network is done
/// on threads of its own, so that the window stays alive.
class ShareViewController : public QObject {
public:
    struct Settings {
        ShareStaging::System system; ///< all of it outlives the controller
        platform::UserDirectories directories;
        QString computerName; ///< as the user knows this computer
        /// How long a status is to be seen at least; the batch does not wait for that.
        std::chrono::milliseconds statusSeen{0};
        /// Whether a failure stays in the window until it is closed. Not where nobody can see a window.
        bool showsFailures = true;
        /// Says what the service knows of whether the phones are there. Called on a thread of the pool, for a choice of
        /// several phones, and may block for a blink of an eye. Empty: the list has to do.
        std::function<std::vector<SharePresence>()> askPresence = {};
        /// Has the service run that sends the batch; "" if it does, else what to tell the user. Called on a thread of
        /// the pool, once the batch is complete, and may block for seconds, but not throw. Empty: somebody else sees to
        /// that.
        std::function<std::string()> startService = {};
    };

    /// `request` outlives the controller.
    ShareViewController(Settings settings, ShareRequest& request);
    /// In the middle of staging: waits for the copies that are being made, makes no more, and removes the batch; but
    /// for one of which the manifest is being written.
    ~ShareViewController() override;

    /// Makes the window, at the height for the phones that there are. It is not shown yet.
    void loadView();
    [[nodiscard]] ShareBackgroundView& view() { return *view_; }
    /// The flow. To be called once, when the window is on the screen.
    void viewDidAppear();

    /// The window has been closed; the request had ended before. From the event loop.
    std::function<void()> onFinished;

    /// Waits until no copy is being made any more; returns false if that takes longer.
    [[nodiscard]] bool waitForCopies(std::chrono::milliseconds patience);
    /// Removes the batch of a cancelled request under the hands of a copy that will not end soon. Only for a process
    /// that ends right after this, without destructors.
    void abandonBatch() noexcept;

    // The steps of the flow.
    /// Shows a view in place of the one before, at the top and as wide as the sheet.
    void present(std::unique_ptr<QWidget> next, int height);
    void stage(std::optional<std::vector<PeerKey>> targetPubkeys);
    /// Puts the first file's picture, or the icon of its type, into the picker.
    void loadFileIcon(SharePickerView& picker);
    void fail(const std::string& message);
    /// Nothing if the request has ended. Too late once the manifest is being written: the window is hidden, and the
    /// request ends as it will.
    void cancel();

    /// The view that is shown.
    [[nodiscard]] QWidget* presented() const noexcept { return presented_; }

private:
    /// How far the sheet is.
    ///
    ///     choosing ──stage()──▶ staging ──the request has ended, and was seen──▶ finished
    ///         └────────────────── cancelled, or failed ─────────────────────────────▲
    enum class Step {
        choosing, ///< nothing is staged: files are looked at, the user chooses, or a failure is shown
        staging,  ///< the request's one batch is being made, or how that ended is shown
        finished  ///< the window is closed, and onFinished comes, or has come
    };
    /// How far a batch is. Whoever leaves `open` decides what becomes of it.
    enum class Progress {
        open,    ///< files are looked at and copied, or will be
        closing, ///< the manifest is being written, then the service started: the host may have the batch
        stopped, ///< cancelled: nothing more is done
    };

    // on threads of the pool
    [[nodiscard]] ShareRequest::FileItems filesToShare() const;
    void openBatch() noexcept;
    void copyOne(const platform::Path& file) noexcept;
    void closeBatch() noexcept;

    [[nodiscard]] std::vector<SharePresence> presence() const;

    void goOn(ShareRequest::FileItems found, const std::vector<SharePresence>& presence);
    void presentPicker();
    void presentStatus(const QString& text);
    void endStaging(const std::optional<std::string>& failure, const std::string& notice = {});
    /// Shows the text until it is closed, or does without where nobody can see it.
    void showUntilClosed(const std::string& message);
    /// Returns whether nothing becomes of the batch any more.
    bool stop() noexcept;
    void dismiss();
    void finish();
    void logLine(platform::LogLevel level, std::string_view message) const noexcept;

    Settings settings_;
    ShareRequest& request_;
    ShareOutbox outbox_;
    std::unique_ptr<ShareBackgroundView> view_;
    QWidget* presented_ = nullptr; ///< owned by view_
    std::vector<ShareOutbox::SharePeer> peers_;
    std::vector<platform::Path> files_;
    std::optional<std::vector<PeerKey>> targets_;
    Step step_ = Step::choosing;
    std::unique_ptr<ShareStaging> staging_; ///< the pool's, until it has no more to do
    std::atomic<bool> hasBatch_ = false;    ///< staging_ is set
    std::atomic<std::size_t> copiesLeft_ = 0;
    std::atomic<Progress> progress_ = Progress::open;
    QElapsedTimer statusShown_;
    QThreadPool pool_; ///< its threads use what is above
};

} // namespace orlinth::share
