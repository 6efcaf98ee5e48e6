#pragma once

#include "OrlinthCore/Receiving/ReceivingLimits.h"
#include "OrlinthCore/Receiving/SenderRecord.h"
#include "base/Mutex.h"
#include "base/StrongText.h"
#include "platform/Clock.h"
#include "platform/WorkQueues.h"

#include <exception>
#include <functional>
#include <map>
#include <memory>

namespace orlinth {

/// What phones say of themselves, on its way into the peer store: at once if the phone's record was not written for
/// limits::recordInterval, else when that time is over, with everything that was said meanwhile in one write. The
/// latest value counts, and none is lost: finish() writes what is left.
///
/// Threading: any thread; calls block on the disk.
class RecordUpdates : public std::enable_shared_from_this<RecordUpdates> {
public:
    /// Told, on any thread, of a write that has failed when nobody waited for it any more.
    using OnTrouble = std::function<void(std::exception_ptr)>;

    /// `clock` and `queues` outlive this.
    RecordUpdates(PeerStore store, platform::Clock& clock, platform::WorkQueues& queues);
    RecordUpdates(const RecordUpdates&) = delete;
    RecordUpdates& operator=(const RecordUpdates&) = delete;

    /// The phone of this key says so. @throws PeerStoreError if the write is due now, and fails; what was to be written
    /// is given up then, as it is after a failure that `onTrouble` is told of
    void say(const platform::PublicKey& key, RecordChange change, OnTrouble onTrouble);
    /// What this phone has said and was not written is dropped: its record goes.
    void forget(const platform::PublicKey& key);
    /// Writes everything that is left. Nothing is said meanwhile.
    [[nodiscard]] Task<> finish();

private:
    struct Phone {
        platform::PublicKey key;
        RecordChange waiting;
        OnTrouble onTrouble;
        std::optional<platform::Clock::Instant> writtenAt;
        bool isBeingWritten = false; ///< what is said meanwhile waits, so that the latest is written last
    };

    [[nodiscard]] bool isDue(const Phone& phone) const;
    void setAlarm();
    void writeDue(bool all);
    [[nodiscard]] static Task<> writeAll(std::shared_ptr<RecordUpdates> self);

    const PeerStore store_;
    platform::Clock& clock_;
    const Executor queue_;                   ///< of the writes that come later
    std::unique_ptr<platform::Timer> alarm_; ///< on the queue
    bool isAlarmSet_ = false;                ///< the same
    Mutex lock_;
    /// Those with something written or to be written.
    std::map<PeerKey, Phone> phones_ ORLINTH_GUARDED_BY(lock_);
};

} // namespace orlinth
