#pragma once

#include "OrlinthHost/Home.h"
#include "OrlinthHost/Outbox/OutboxEvents.h"
#include "OrlinthHost/Outbox/OutboxView.h"
#include "OrlinthHost/Service/DesktopActions.h"
#include "OrlinthHost/Service/NoticeJob.h"
#include "OrlinthHost/Service/NoticeLife.h"
#include "OrlinthHost/Service/NoticeRequests.h"
#include "OrlinthHost/Service/NoticeSlot.h"
#include "OrlinthHost/Service/TransferList.h"

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace orlinth::host {

/// The notifications of what is sent: one for each batch and phone, which says in turn that the phone is waited for,
/// how far the batch is, and how it ended.
///
/// Threading: on the home's executor.
class OutgoingNotices {
public:
    /// For so long nobody is told that a phone is not there.
    static constexpr Seconds longWait = 60s;
    /// Between two files of a batch there may be none under way for so long.
    static constexpr Seconds shortRest = 3s;

    /// `onNews` is called when look() is wanted. What is referred to outlives this. Without views of jobs progress is
    /// always a notification.
    OutgoingNotices(NoticeBoard board, DesktopActions& desktop, NoticeRequests& requests, std::function<void()> onNews)
        : board_(std::move(board)),
          home_(board_.home()),
          desktop_(desktop),
          requests_(requests),
          onNews_(std::move(onNews)) {}
    OutgoingNotices(const OutgoingNotices&) = delete;
    OutgoingNotices& operator=(const OutgoingNotices&) = delete;

    /// The phone has these files, and gets no more of the batch for now.
    void through(const BatchId& batch, const PeerKey& peerKey, const std::string& phone,
                 const std::vector<std::string>& files);
    /// These files of a batch are not sent to a phone.
    void failed(const BatchId& batch, const PeerKey& peerKey, const std::string& phone,
                const std::vector<std::string>& files, OutboxEvents::Failure::Why why);
    /// Shows what there is to show. Returns when another look is due, if nothing happens before.
    [[nodiscard]] std::optional<Seconds> look(const std::vector<OutboxView>& batches,
                                              const std::vector<TransferView>& transfers);
    /// Takes away what is true only while the service runs; nothing more is shown.
    void stop();

private:
    using Instant = platform::Clock::Instant;
    using Key = std::pair<BatchId, PeerKey>;

    enum class What { nothing, waiting, sending, failed };

    struct Batch {
        NoticeSlot slot;
        NoticeJob job = {};
        What what = What::nothing; ///< that was shown last
        Instant shownAt{};
        Instant lastSending; ///< or when it was first seen
        std::optional<Instant> sendingSince = {};
        bool wasFailed = false;            ///< at the last look
        std::set<std::string> failed = {}; ///< files
        std::string phone = {};
        OutboxEvents::Failure::Why why{}; ///< of the last failure
        bool isFailureNew = false;
    };

    [[nodiscard]] Batch& batchOf(const Key& key);
    void lookAtBatch(const Key& key, Batch& batch, const OutboxView& view, bool isPhoneBusy,
                     const std::vector<TransferView>& transfers, std::optional<Seconds>& next);
    [[nodiscard]] bool mayShow(const Batch& batch, What what, std::optional<Seconds>& next) const;
    void showProgress(const Key& key, Batch& batch, const OutboxView& view, const std::vector<TransferView>& transfers,
                      std::optional<Seconds>& next);
    void showFailure(const Key& key, Batch& batch);
    void show(const Key& key, Batch& batch, What what, platform::Notification notification);

    const NoticeBoard board_;
    Home& home_;
    DesktopActions& desktop_;
    NoticeRequests& requests_;
    const std::function<void()> onNews_;
    std::map<Key, Batch> batches_;
    NoticeLife life_; ///< until stop()
    bool isStopped_ = false;
};

} // namespace orlinth::host
