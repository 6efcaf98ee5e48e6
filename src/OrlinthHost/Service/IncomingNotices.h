#pragma once

#include "OrlinthCore/Receiving/Receiver.h"
#include "OrlinthHost/Home.h"
#include "OrlinthHost/Service/DesktopActions.h"
#include "OrlinthHost/Service/NoticeJob.h"
#include "OrlinthHost/Service/NoticeLife.h"
#include "OrlinthHost/Service/NoticeRequests.h"
#include "OrlinthHost/Service/NoticeSlot.h"
#include "OrlinthHost/Service/TransferList.h"
#include "platform/TaskGroup.h"

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace orlinth::host {

/// The notifications of files that come in: one for each that takes long, which then says that it is there; and one for
/// several of a phone that come one soon after the other, which grows.
///
///     a file is there ── alone ──▶ "a.jpg from Pixel" ── another within burstTime ──▶ "2 files from Pixel" ──▶ …
///
/// Threading: on the home's executor.
class IncomingNotices {
public:
    /// Files of a phone that come within this time of each other are told of as one.
    static constexpr Seconds burstTime = 5s;
    /// Of more files that came together the first so many are shown in their folders.
    static constexpr std::size_t maxShownFiles = 500;

    /// Where the files of a phone go just now.
    using FolderOf = std::function<platform::Path(const PeerKey&)>;

    /// `onNews` is called when look() is wanted; `folderOf` may be empty: nobody knows. What is referred to outlives
    /// this. Without views of jobs progress is always a notification.
    IncomingNotices(NoticeBoard board, DesktopActions& desktop, NoticeRequests& requests, std::function<void()> onNews,
                    FolderOf folderOf);
    IncomingNotices(const IncomingNotices&) = delete;
    IncomingNotices& operator=(const IncomingNotices&) = delete;

    void fileReceived(const Receiver::File& file);
    /// Shows what there is to show; `transfers` are those of the service, of both directions. Returns when another look
    /// is due, if nothing happens before.
    [[nodiscard]] std::optional<Seconds> look(const std::vector<TransferView>& transfers);
    /// Takes away what is true only while files come in; nothing more is shown.
    void stop();
    /// Returns when nothing is under way. Behind stop().
    [[nodiscard]] Task<> finish() { return tasks_.join(); }

private:
    using Instant = platform::Clock::Instant;

    struct Arrival {
        platform::Path path;
        std::int64_t bytes;
        std::string phone;
        PeerKey peerKey;
        Instant at;
    };
    struct UnderWay {
        NoticeSlot slot;
        NoticeJob job = {};
        Instant shownAt{};
    };
    /// Files of one phone that came one soon after the other, or one alone.
    struct Burst {
        NoticeSlot slot;
        std::string phone = {};
        std::shared_ptr<std::vector<platform::Path>> files = std::make_shared<std::vector<platform::Path>>();
        std::size_t count = 0;
        std::int64_t bytes = 0;
        platform::Path folder = {};
        Instant lastAt{};
        Instant shownAt{};
        bool isChanged = false;
        bool isExamined = false;
        std::shared_ptr<std::optional<bool>> mayOpen = std::make_shared<std::optional<bool>>(); ///< the only one
    };

    void settleArrivals(const std::vector<TransferView>& transfers);
    void lookAtTransfers(const std::vector<TransferView>& transfers, std::optional<Seconds>& next);
    void lookAtBursts(std::optional<Seconds>& next);
    void showProgress(UnderWay& underWay, const TransferView& transfer, std::optional<Seconds>& next);
    static void endProgress(UnderWay& underWay, TransferNumber number, const std::vector<TransferView>& transfers);
    void showBurst(Burst& burst);
    void examine(Burst& burst);
    [[nodiscard]] Task<> examineFile(platform::Path file, std::shared_ptr<std::optional<bool>> mayOpen);

    const NoticeBoard board_;
    Home& home_;
    DesktopActions& desktop_;
    NoticeRequests& requests_;
    const std::function<void()> onNews_;
    const FolderOf folderOf_;
    std::vector<Arrival> arrivals_; ///< since the last look
    std::map<TransferNumber, UnderWay> underWay_;
    std::map<PeerKey, Burst> bursts_;
    platform::TaskGroup tasks_;
    NoticeLife life_; ///< until stop()
    bool isStopped_ = false;
};

} // namespace orlinth::host
