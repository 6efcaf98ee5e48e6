#include "OrlinthCore/Receiving/RecordUpdates.h"

#include "platform/Spawn.h"

#include <asio/post.hpp>

#include <utility>
#include <vector>

namespace orlinth {

RecordUpdates::RecordUpdates(PeerStore store, platform::Clock& clock, platform::WorkQueues& queues)
    : store_(std::move(store)), clock_(clock), queue_(queues.makeBlockingQueue()), alarm_(clock.makeTimer(queue_)) {}

bool RecordUpdates::isDue(const Phone& phone) const {
    return !phone.isBeingWritten && (!phone.writtenAt || clock_.now() - *phone.writtenAt >= limits::recordInterval);
}

void RecordUpdates::say(const platform::PublicKey& key, RecordChange change, OnTrouble onTrouble) {
    if (change.token && change.token->size() > SenderRecord::maxTokenBytes) {
        change.token.reset();
    }
    if (change.name && !SenderRecord::isUsableName(*change.name)) {
        change.name.reset();
    }
    if (change.isEmpty()) {
        return; // it must not keep what was said before from being written
    }
    const PeerKey peerKey = key.peerKey();
    std::optional<platform::Clock::Instant> before;
    {
        const MutexLock guard(lock_);
        Phone& known =
            phones_
                .try_emplace(
                    peerKey,
                    Phone{.key = key, .waiting = {}, .onTrouble = {}, .writtenAt = {}, .isBeingWritten = false})
                .first->second;
        known.waiting.add(std::move(change));
        if (!isDue(known)) {
            known.onTrouble = std::move(onTrouble);
            asio::post(queue_, [self = shared_from_this()] { self->setAlarm(); });
            return;
        }
        change = std::exchange(known.waiting, {});
        before = std::exchange(known.writtenAt, clock_.now()); // others wait from now on
        known.isBeingWritten = true;
    }
    const auto end = [&](bool wasWritten) {
        const MutexLock guard(lock_);
        if (const auto known = phones_.find(peerKey); known != phones_.end()) {
            known->second.isBeingWritten = false;
            known->second.writtenAt = wasWritten ? known->second.writtenAt : before;
        }
    };
    try {
        end(SenderRecord(store_, key).apply(change));
    } catch (...) {
        end(false);
        throw;
    }
}

void RecordUpdates::forget(const platform::PublicKey& key) {
    const MutexLock guard(lock_);
    if (const auto known = phones_.find(key.peerKey()); known != phones_.end()) {
        known->second.waiting = {};
        known->second.onTrouble = {};
    }
}

/// On the queue.
void RecordUpdates::setAlarm() {
    if (!std::exchange(isAlarmSet_, true)) {
        constexpr Seconds lookInterval = limits::recordInterval / 10; // nobody waits for it
        alarm_->arm(lookInterval, [weak = weak_from_this()] {
            if (const auto self = weak.lock()) {
                self->isAlarmSet_ = false;
                self->writeDue(false);
            }
        });
    }
}

/// On the queue.
void RecordUpdates::writeDue(bool all) {
    std::vector<Phone> due;
    bool isSomethingLeft = false;
    {
        const MutexLock guard(lock_);
        for (auto at = phones_.begin(); at != phones_.end();) {
            Phone& phone = at->second;
            const bool isNow = all || isDue(phone);
            if (isNow && !phone.waiting.isEmpty()) {
                due.push_back(phone);
                phone.waiting = {};
                phone.onTrouble = {};
                phone.writtenAt = clock_.now();
                phone.isBeingWritten = !all;
            }
            isSomethingLeft = isSomethingLeft || !phone.waiting.isEmpty();
            at = all || isDue(phone) ? phones_.erase(at) : std::next(at);
        }
    }
    for (const Phone& phone : due) {
        try {
            static_cast<void>(SenderRecord(store_, phone.key).apply(phone.waiting));
        } catch (const PeerStoreError&) {
            phone.onTrouble(std::current_exception());
        }
        const MutexLock guard(lock_);
        if (const auto known = phones_.find(phone.key.peerKey()); known != phones_.end()) {
            known->second.isBeingWritten = false;
        }
    }
    if (isSomethingLeft) {
        setAlarm();
    }
}

Task<> RecordUpdates::writeAll(std::shared_ptr<RecordUpdates> self) {
    self->alarm_->disarm();
    self->isAlarmSet_ = false;
    self->writeDue(true);
    co_return;
}

Task<> RecordUpdates::finish() {
    return platform::runOn(queue_, writeAll(shared_from_this()));
}

} // namespace orlinth
