#pragma once

#include "OrlinthHost/Home.h"
#include "OrlinthHost/Sending/SendEvents.h"
#include "OrlinthHost/Sending/SendPlan.h"
#include "OrlinthHost/Sending/SendSources.h"
#include "OrlinthHost/Sending/SendTimes.h"
#include "platform/TaskGroup.h"

#include <compare>
#include <map>
#include <string>
#include <vector>

namespace orlinth::host {

/// Sends every one of several files to every one of several phones, as SendPlan has it, and tells SendEvents.
///
/// Threading: everything on the home's executor.
class SendRun {
public:
    /// How long a phone gets to confirm a file whose end was sent when the run was cancelled.
    static constexpr Seconds grace = 1s;

    /// What was cut short when a run was cancelled.
    struct Interruption {
        std::vector<SendEvents::Transfer> cutShort;
        std::size_t notBegun = 0; ///< transfers of which nothing was offered yet
    };

    /// What is referred to outlives this. `journal` is used by nobody else meanwhile.
    SendRun(Home& home, const platform::PrivateKey& ownKey, InFlightJournal& journal, SendTimes times,
            std::vector<std::string> files, std::vector<PeerRecord> phones, SendEvents& events,
            FindSetting find = FindSetting::known);
    ~SendRun();
    SendRun(const SendRun&) = delete;
    SendRun& operator=(const SendRun&) = delete;

    /// Runs all transfers to their ends; returns how many failed. Once.
    /// @throws platform::Cancelled once those under way have ended, and been told, but for what was cut short
    [[nodiscard]] Task<int> run();
    /// Of a run that was cancelled.
    [[nodiscard]] const Interruption& interruption() const noexcept { return interruption_; }

private:
    struct Running;
    /// One file on its way to one phone, both by their numbers from 0.
    struct PhoneAndFile {
        std::size_t phone = 0;
        std::size_t file = 0;
        auto operator<=>(const PhoneAndFile&) const = default;
    };

    [[nodiscard]] SendEvents::Transfer transferOf(const SendPlan::Transfer& transfer) const;
    void goOn();
    void startWhatMay();
    void start(std::size_t phone);
    [[nodiscard]] Task<> send(Running& running);
    void settle(SendPlan::Id id, std::exception_ptr error);
    void cutShort(const SendEvents::Transfer& transfer, std::size_t file,
                  const std::optional<SendSources::Offer>& offer);
    void cancelBeforeFarewell();
    [[nodiscard]] Task<> leave();

    Home& home_;
    const platform::PrivateKey& ownKey_;
    SendTimes times_;
    SendEvents& events_;
    std::vector<PeerRecord> phones_;
    SendSources sources_;
    SendPlan plan_;
    std::map<PhoneAndFile, OffersInDoubt> inDoubt_;
    std::map<SendPlan::Id, std::unique_ptr<Running>> running_;
    std::map<PhoneAndFile, SendSources::Offer> putBack_; ///< what was offered of those that wait for another attempt
    Finder finder_;
    platform::TaskGroup tasks_;        ///< one for each of those
    std::optional<PeerKey> lastTaker_; ///< the phone that a file was last delivered to
    bool isLeaving_ = false;
    int failed_ = 0;
    Interruption interruption_;
};

} // namespace orlinth::host
