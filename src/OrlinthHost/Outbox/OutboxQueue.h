#pragma once

#include "OrlinthHost/Home.h"
#include "OrlinthHost/Outbox/OutboxBatches.h"
#include "OrlinthHost/Outbox/OutboxEvents.h"
#include "OrlinthHost/Outbox/OutboxJournal.h"
#include "OrlinthHost/Outbox/OutboxState.h"
#include "OrlinthHost/Outbox/OutboxStore.h"

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace orlinth::host {

/// The batches that wait or are under way, from the moment they are complete until they are gone: removed once every
/// phone has everything, or set aside once the rest has failed for good. Each change is remembered on disk at once, and
/// told.
///
/// Never throws for what is wrong with a batch, the disk or the peer store; that is told, or found again at a later
/// look. On the home's executor.
class OutboxQueue {
public:
    struct Job {
        OutboxBatches::Batch batch;
        OutboxState state;
        std::set<PeerKey> through{}; ///< phones that have been told to have everything
        /// How many attempts in vain there were for a phone's key and a file, although the phone was there.
        std::map<std::pair<PeerKey, std::string>, int> inVain{};
        /// For a phone's key, how many files at the front of the manifest need no look any more: all of them are sent,
        /// or have failed. In a batch of thousands a search from the front would take longer than the sending.
        std::map<PeerKey, std::size_t> firstOpen{};
        std::map<PeerKey, std::shared_ptr<OutboxJournal>> journals{}; ///< by the phone's key; made when needed
        std::set<std::pair<PeerKey, std::string>> underWay{};         ///< a phone's key and a file
        bool isDropped = false;   ///< takes no part any more, and goes when nobody uses it
        bool hasVanished = false; ///< there is nothing in the outbox any more that could be removed with it

        [[nodiscard]] BatchId id() const { return BatchId(batch.manifest.id); }
        /// Whether there is a file that the phone does not have, and may get. Those under way are among them.
        [[nodiscard]] bool isOpenFor(const PeerKey& peerKey);
        /// The next file for a phone: the first of those with the fewest attempts in vain, so that one which the phone
        /// cannot take does not hold up the others. Nothing if there is none that is not under way, or the batch is not
        /// for that phone.
        [[nodiscard]] std::optional<std::string> nextFor(const PeerKey& peerKey);
        /// That file, and those that come behind it if all goes well; `most` in all.
        [[nodiscard]] std::vector<std::string> upcoming(const PeerKey& peerKey, std::size_t most);
        [[nodiscard]] int attemptsInVain(const PeerKey& peerKey, const std::string& file) const;
        /// What has failed is to be tried again.
        void startOver();
        /// The same for one phone.
        void startOver(const PeerKey& peerKey);
    };

    /// Called when a batch has come, has gone, or anything of its state has changed. May be empty. Must not throw.
    std::function<void()> onChanged;
    /// Called when LastPhone is another one than before. May be empty. Must not throw.
    std::function<void()> onLastPhone;

    /// What a look has brought.
    struct News {
        std::set<PeerKey> phones;      ///< those for which a batch has come
        std::vector<BatchId> vanished; ///< batches of the queue whose folder is gone, or no real folder any more
    };

    /// Told what is there before it is looked at more closely: the outbox, if it can be had, and the folders in it that
    /// are not complete.
    using Watch = std::function<void(const std::optional<platform::Path>& outbox, const std::set<platform::Path>&)>;

    /// What is referred to outlives this.
    OutboxQueue(Home& home, OutboxEvents& events);
    OutboxQueue(const OutboxQueue&) = delete;
    OutboxQueue& operator=(const OutboxQueue&) = delete;

    /// Forgets what is remembered of batches that are not there any more. Before the first look.
    void forgetOrphans() noexcept;
    /// Clears what was abandoned and takes in what has become complete.
    [[nodiscard]] News look(const Watch& watch);

    [[nodiscard]] const std::map<BatchId, std::unique_ptr<Job>>& all() const noexcept { return jobs_; }
    /// Null if there is none, or not any more.
    [[nodiscard]] Job* find(const BatchId& id);
    /// The oldest with something for this phone that is not under way, again of those with the fewest attempts in vain;
    /// null if there is none.
    [[nodiscard]] Job* nextFor(const PeerKey& peerKey);
    /// @throws OutboxError, platform::SystemError
    void checkFile(const Job& job, const std::string& file) const { batches_.checkFile(job.batch, file); }

    /// An attempt at the phone's next file begins. Returns the journal, in which the file has its id by now.
    [[nodiscard]] std::shared_ptr<OutboxJournal> setUnderWay(Job& job, const PeerKey& peerKey);
    /// An attempt has ended. Before any of the following that tell how.
    void setEnded(Job& job, const PeerKey& peerKey, const std::string& file) const {
        job.underWay.erase({peerKey, file});
        tellChange();
    }
    /// The phone has the file. What may be ended by these is: no job is to be used afterwards without looking for it
    /// again.
    void setDone(Job& job, const PeerKey& peerKey, const OutboxEvents::Transfer& transfer, const Delivered& delivered);
    void setFailed(Job& job, const PeerKey& peerKey, const std::string& file, const OutboxEvents::Failure& failure);
    /// Somebody does not want it to be sent any more. No event tells of it.
    void setCancelled(Job& job, const PeerKey& peerKey, const std::string& file);
    /// The same of everything that the phone has not got and that is not under way, also of what has failed.
    void setAllCancelled(Job& job, const PeerKey& peerKey);
    /// The phone was there, and took nothing of this file: others go first.
    void putBehind(Job& job, const PeerKey& peerKey, const std::string& file) { ++job.inVain[{peerKey, file}]; }
    /// Everything that is left for this phone, in any batch, and not under way.
    void setAllFailed(const PeerKey& peerKey, const OutboxEvents::Failure& failure);
    /// An attempt for this phone has failed, and the next is made after `pause`. `isNews` if it is for another reason
    /// than was told before.
    void setWaiting(const PeerKey& peerKey, const std::string& message, Seconds pause, bool isNews);

    /// Once more, what could not be noted. The last call.
    void saveWhatIsBehind();

    /// Tries again what has failed in a batch, and brings it back if it was set aside; returns whether there is one.
    /// @throws OutboxError, HostError, PeerStoreError, platform::SystemError
    [[nodiscard]] bool retry(const BatchId& id);
    /// Tries again what has failed for one phone; returns whether there is such a batch for it.
    [[nodiscard]] bool retry(const BatchId& id, const PeerKey& peerKey);
    /// Removes a job with all its files; but no file of one that has vanished, in whose place may be anything. Returns
    /// why it could not be removed, and was set aside; nothing if it is gone.
    std::optional<std::string> discard(const BatchId& id);

private:
    [[nodiscard]] std::optional<platform::Path> makeOutbox();
    void findVanished(News& news) const;
    void accept(const BatchId& id, News& news);
    [[nodiscard]] OutboxState remembered(const OutboxBatches::Batch& batch);
    [[nodiscard]] std::vector<platform::Path> soundOf(const Job& job, const std::vector<std::string>& names) const;
    void settlePhone(Job& job, const PeerKey& peerKey);
    void endIfThrough(const BatchId& id);
    void leaveBehind(const BatchId& id, bool isThere, const std::string& problem);
    void setAside(const BatchId& id, const std::string& message);
    void save(Job& job);
    void saveFile(Job& job, const OutboxState::Phone& phone, const std::string& file);
    /// Runs something that may fail for want of a disk, and tells that once.
    void note(const std::function<void()>& write);
    void tellChange() const;
    void log(platform::LogLevel level, const std::string& text) const noexcept;

    Home& home_;
    OutboxEvents& events_;
    OutboxStore store_;
    OutboxBatches batches_;
    std::map<BatchId, std::unique_ptr<Job>> jobs_; ///< by id
    std::set<BatchId> unusable_;                   ///< that could not be set aside either
    bool isTroubleTold_ = false;                   ///< that nothing can be remembered
    bool isLackTold_ = false;                      ///< that there is no outbox
};

} // namespace orlinth::host
