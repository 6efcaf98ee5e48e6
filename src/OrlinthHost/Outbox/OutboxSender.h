#pragma once

#include "OrlinthCore/Peers/PeerRecord.h"
#include "OrlinthHost/Home.h"
#include "OrlinthHost/Outbox/OutboxLookout.h"
#include "OrlinthHost/Outbox/OutboxQueue.h"
#include "OrlinthHost/Outbox/OutboxView.h"
#include "OrlinthHost/Reach/Finder.h"
#include "OrlinthHost/Sending/Attempt.h"
#include "OrlinthHost/Sending/RetryPolicy.h"
#include "platform/Condition.h"
#include "platform/TaskGroup.h"

#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace orlinth::host {

/// Sends what lies in the outbox: each batch to each of its phones, the phones side by side, and for one phone its
/// batches in the order of their age and the files of a batch in the order of its manifest, several at once as
/// PhoneLanes has it. judge() in Attempt.h says what the end of an attempt means.
///
/// What fails because the phone cannot be reached, or because the connection breaks, is tried again as RetryPolicy has
/// it. There is reason to hope when the phone is heard of or seen again, its record changes, a new batch comes for it,
/// this computer comes into another network, or somebody asks for it. What the phone declines, or what cannot be read,
/// is not tried again, nor is a file whose delivery has ended in doubt as often as OffersInDoubt allows. A batch that
/// every phone has is removed; one of which something is not sent for good, or that makes no sense, is set aside.
///
/// Everything here, and each send, runs on the home's executor, as the events and the receive service's callbacks
/// do: so nothing is shared. A file costs a line in a file there, and every sixteenth a look at the next sixteen and a
/// write that is flushed; both are short. The service's connections have threads of their own.
class OutboxSender {
public:
    /// What an attempt has shown of a phone.
    enum class Contact {
        proved,  ///< it has proved its key, and perhaps sent more since
        refused, ///< whoever has its address does not take connections
        failed   ///< it cannot be reached, or the connection has come to nothing
    };
    /// Told of each contact with a phone, on the home's executor. `at` is when something last came from it, which may
    /// be long before a broken connection is noticed; of the others, it is now. May be empty. Must not throw. Set
    /// before start().
    std::function<void(const PeerRecord& phone, Contact contact, platform::Clock::Instant at)> onContact;

    /// Names an attempt to bring a file to a phone. No two of a sender have the same.
    enum class AttemptNumber : std::uint64_t {};
    /// How an attempt ended whose data was on its way.
    enum class AttemptEnd { delivered, failed, cancelled };
    /// Told of the attempts whose data is on its way, on the home's executor. Each may be empty; none may throw. Set
    /// before start().
    struct Watcher {
        std::function<void(AttemptNumber attempt, const OutboxEvents::Transfer& transfer, const Progress& progress)>
            onStarted;
        /// So many bytes are there; at most once in `watchInterval`.
        std::function<void(AttemptNumber attempt, std::int64_t bytesDone)> onProgress;
        /// `why` is the failure's text; else "".
        std::function<void(AttemptNumber attempt, AttemptEnd end, const std::string& why)> onEnded;
    };
    Watcher watcher;
    /// Called when anything of batches() has changed. May be empty. Must not throw. Set before start().
    std::function<void()> onBatches;
    /// Called when LastPhone is another one than before. May be empty. Must not throw. Set before start().
    std::function<void()> onLastPhone;

    /// Between two calls of Watcher::onProgress for one attempt.
    static constexpr Seconds watchInterval = 250ms;
    /// Between two events of progress.
    static constexpr Seconds progressInterval = 500ms;

    /// What is referred to outlives this.
    OutboxSender(Home& home, const platform::PrivateKey& ownKey, OutboxEvents& events,
                 FindSetting find = FindSetting::known);
    ~OutboxSender();
    OutboxSender(const OutboxSender&) = delete;
    OutboxSender& operator=(const OutboxSender&) = delete;

    /// From now on. Once.
    void start();
    /// This phone has just proved its key.
    void heardOf(const PeerRecord& record);
    /// This phone seems to be in the network again: it is tried, if it waits, as often as RetryPolicy::returned() has
    /// it. That may be seen because of an attempt that is under way, which then goes on as if nothing was said.
    void isBack(const PeerKey& peerKey);
    /// Whether this computer is in any network; it is until somebody says otherwise. Without one nothing is tried but
    /// what needs none.
    void setConnected(bool isConnected) noexcept { isConnected_ = isConnected; }
    /// It is in another network.
    void networkChanged();
    /// The peer store may have changed.
    void peersChanged();
    /// Tries now what waits; with `id`, that batch as a whole, also if it was set aside. Returns whether there is such
    /// a batch; without one always. @throws as OutboxQueue::retry()
    [[nodiscard]] bool retry(const std::optional<BatchId>& id);
    /// Tries now what one phone has not got of a batch, also what has failed. Returns whether there is such a batch.
    [[nodiscard]] bool retry(const BatchId& id, const PeerKey& peerKey);
    /// Takes a batch back, and returns once nothing is left of it: whether there was such a batch.
    /// @throws HostError if something of it could not be removed
    [[nodiscard]] Task<bool> remove(BatchId id);
    /// Ends this attempt, if it is under way: its file is not sent to its phone any more. What the phone has of it
    /// stays there. A batch of which nothing else is left is removed. One that is delivered first stays delivered.
    void cancel(AttemptNumber attempt);
    /// The same for everything of a batch that a phone has not got, also what has failed. Returns whether there is
    /// anything. Of a batch that was set aside there is nothing here.
    bool cancel(const BatchId& id, const PeerKey& peerKey);
    /// The batches that wait or are under way, one for each phone that has not got all of it.
    [[nodiscard]] std::vector<OutboxView> batches() const;
    /// Ends what is under way, so that it can be resumed. The last call; start() need not have been called.
    [[nodiscard]] Task<> finish();

private:
    struct Running;
    struct Phone;
    using Job = OutboxQueue::Job;

    void look();
    [[nodiscard]] Phone& phoneOf(const PeerKey& peerKey);
    [[nodiscard]] bool isUsed(const BatchId& id) const;
    /// There is reason to try again now.
    void hope(Phone& phone);
    void tryNow(Phone& phone);
    [[nodiscard]] bool mayBegin(const Phone& phone) const;
    void startNext(Phone& phone);
    /// The next file of the job for this phone, unless that fails for good, or has to wait.
    void begin(Phone& phone, Job& job);
    void launch(Phone& phone, Job& job, const std::string& file);
    [[nodiscard]] Task<> transfer(Running& running);
    void tellContact(const Running& running, const std::exception_ptr& error) const;
    void tellEnd(const Running& running, SendVerdict verdict, const EndedAttempt& ended);
    void settle(Phone& phone, const Running& ended, std::exception_ptr error);
    void settle(Phone& phone, Job& job, const Running& running, const EndedAttempt& ended);
    void settleDoubt(Phone& phone, Job& job, const Running& running);
    void settleOneTooMany(Phone& phone, Job& job, const Running& running);
    void settleBreak(Phone& phone, Job& job, const Running& running, const EndedAttempt& ended);
    [[nodiscard]] static bool hasGotFurther(Phone& phone, const Running& running);
    void end(Phone& phone, RetryPolicy::Outcome outcome) const;
    void pause(Phone& phone, const std::string& message);
    void wait(Phone& phone, Seconds pause, const std::string& message);
    [[nodiscard]] bool drop(const BatchId& id);
    void discard(const BatchId& id);

    Home& home_;
    const platform::PrivateKey& ownKey_;
    OutboxEvents& events_;
    OutboxQueue queue_;
    OutboxLookout lookout_;
    std::map<PeerKey, std::unique_ptr<Phone>> phones_; ///< by key; none goes
    Finder finder_;
    platform::TaskGroup tasks_;           ///< one for each attempt
    std::map<BatchId, std::string> left_; ///< batches that could not be removed, and why
    platform::Condition news_;            ///< an attempt has been settled, or a batch is gone
    std::uint64_t lastAttempt_ = 0;
    bool isStopping_ = false;
    bool isConnected_ = true;
};

} // namespace orlinth::host
