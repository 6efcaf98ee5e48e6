#pragma once

#include "OrlinthHost/Sending/Attempt.h"
#include "OrlinthHost/Sending/PhoneLanes.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <vector>

namespace orlinth::host {

/// Which file goes to which phone next, when every one of several files goes to every one of several phones: the phones
/// side by side, and the files of a phone in their order, several at once as PhoneLanes has it.
///
/// Only one attempt at a time, the phone's leader, may wake it. The file of one that was one too many (judge() in
/// Attempt.h) is put back.
///
///     waiting ── begin() ──▶ under way ── end() ──▶ delivered, or failed
///        ▲                       │
///        └──── put back ─────────┘
///
/// Plain values: does nothing, waits for nothing, on any thread.
class SendPlan {
public:
    /// Names an attempt that is under way. No two of a plan have the same.
    enum class Id : std::uint64_t {};

    /// One attempt to bring a file to a phone, both by their numbers from 0.
    struct Transfer {
        std::size_t phone = 0;
        std::size_t file = 0;
        bool isLeader = false;
        bool hadCompany = false; ///< another connection to the phone was there for a time
    };

    /// What has become of a file for a phone.
    enum class Outcome { delivered, failed, putBack };

    /// Files of these sizes, in bytes.
    SendPlan(std::vector<std::int64_t> sizes, std::size_t phones);

    /// The file that may be begun next for this phone; nothing while none may, or none is left.
    [[nodiscard]] std::optional<std::size_t> nextFor(std::size_t phone) const;
    /// Begins that one. There is one.
    Id begin(std::size_t phone);
    [[nodiscard]] const Transfer& at(Id transfer) const { return underWay_.at(transfer); }
    /// The attempt is over. `stage` is how far it came.
    Outcome end(Id transfer, SendVerdict verdict, AttemptStage stage);

    [[nodiscard]] std::size_t phones() const noexcept { return phones_.size(); }
    [[nodiscard]] bool isIdle() const noexcept { return underWay_.empty(); }
    /// Files that have yet to be begun, one counted for each phone that it goes to.
    [[nodiscard]] std::size_t waiting() const noexcept;

private:
    struct Phone {
        std::deque<std::size_t> waiting;
        PhoneLanes lanes;
        std::size_t underWay = 0;
        std::int64_t bytesUnderWay = 0;
        bool hasLeader = false;
    };

    std::vector<std::int64_t> sizes_;
    std::vector<Phone> phones_;
    std::map<Id, Transfer> underWay_;
    std::uint64_t begun_ = 0;
};

} // namespace orlinth::host
