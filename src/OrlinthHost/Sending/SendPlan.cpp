#include "OrlinthHost/Sending/SendPlan.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace orlinth::host {

SendPlan::SendPlan(std::vector<std::int64_t> sizes, std::size_t phones) : sizes_(std::move(sizes)) {
    std::deque<std::size_t> all(sizes_.size());
    std::iota(all.begin(), all.end(), std::size_t{0});
    phones_.assign(phones, {.waiting = all, .lanes = {}});
}

std::optional<std::size_t> SendPlan::nextFor(std::size_t phone) const {
    const Phone& to = phones_.at(phone);
    const bool mayOpen =
        to.lanes.mayOpen({.ofPhone = to.underWay, .bytesOfPhone = to.bytesUnderWay, .ofAll = underWay_.size()});
    if (to.waiting.empty() || !mayOpen) {
        return std::nullopt;
    }
    return to.waiting.front();
}

SendPlan::Id SendPlan::begin(std::size_t phone) {
    Phone& to = phones_.at(phone);
    const std::size_t file = to.waiting.front();
    to.waiting.pop_front();
    const Id id{++begun_};
    underWay_.emplace(id, Transfer{.phone = phone, .file = file, .isLeader = !std::exchange(to.hasLeader, true)});
    to.bytesUnderWay += sizes_.at(file);
    if (++to.underWay > 1) {
        for (auto& [other, transfer] : underWay_) {
            transfer.hadCompany = transfer.hadCompany || transfer.phone == phone;
        }
    }
    return id;
}

SendPlan::Outcome SendPlan::end(Id id, SendVerdict verdict, AttemptStage stage) {
    const Transfer transfer = underWay_.at(id);
    underWay_.erase(id);
    Phone& from = phones_.at(transfer.phone);
    --from.underWay;
    from.bytesUnderWay -= sizes_.at(transfer.file);
    from.hasLeader = from.hasLeader && !transfer.isLeader;
    if (verdict == SendVerdict::delivered) {
        from.lanes.addTaken();
        return Outcome::delivered;
    }
    const bool isUnreachable = verdict == SendVerdict::tryAgain && stage == AttemptStage::connecting;
    if (isUnreachable || verdict == SendVerdict::oneTooMany) {
        from.lanes.fallBack();
    }
    if (verdict != SendVerdict::oneTooMany) {
        return Outcome::failed;
    }
    from.waiting.insert(std::ranges::lower_bound(from.waiting, transfer.file), transfer.file);
    return Outcome::putBack;
}

std::size_t SendPlan::waiting() const noexcept {
    return std::accumulate(phones_.begin(), phones_.end(), std::size_t{0},
                           [](std::size_t sum, const Phone& phone) { return sum + phone.waiting.size(); });
}

} // namespace orlinth::host
