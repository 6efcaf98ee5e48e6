#pragma once

#include "OrlinthCore/Sending/InFlightJournal.h"
#include "OrlinthHost/Sending/PhoneLanes.h"
#include "OrlinthHost/Sending/SendTimes.h"
#include "OrlinthHost/Sending/SourceMemory.h"
#include "orlinth/Program/Host.h"
#include "orlinth/Reporting/SendReporter.h"
#include "platform/Condition.h"

#include <cstdint>
#include <deque>
#include <list>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace orlinth::cli {

/// Sends every file to every phone: the phones side by side, and the files of one phone in their order, several at once
/// where that helps.
///
/// How many connections a phone gets is for PhoneLanes to say. Only one transfer at a time, the leading one, may wake
/// the phone. Another that cannot even connect, and any that is dropped before its offer was answered while there were
/// several, goes back to its place in the order, and the phone is down to one connection: so somebody who takes a
/// single file and closes the port, or to whom so many connections are too many, is treated as if there had been one
/// connection from the start.
///
/// Threading: everything on the thread of the runner.
class SendSchedule {
public:
    /// Seconds that a phone gets to confirm a file whose end was sent when a signal came.
    static constexpr double graceSeconds = 1;
    /// Files whose ids are written down at once.
    static constexpr std::size_t filesPreparedAtOnce = 64;

    /// What is referred to outlives this. `journal` is used by nobody else meanwhile.
    SendSchedule(Host& host, const platform::PrivateKey& ownKey, InFlightJournal& journal, host::SendTimes times,
                 const std::vector<std::string>& files, const std::vector<PeerRecord>& phones);
    ~SendSchedule();
    SendSchedule(const SendSchedule&) = delete;
    SendSchedule& operator=(const SendSchedule&) = delete;

    /// Runs all transfers to their ends and tells each outcome; returns how many failed. Once.
    /// @throws Interrupted once those under way have ended, which is told as well
    [[nodiscard]] int run();

private:
    struct Source {
        std::string path;
        std::int64_t size = 0;
        bool isPrepared = false;
        bool isBegun = false;
        bool hasFailed = false;
        std::size_t left = 0; ///< phones that are not done with it
        std::optional<host::SourceMemory::Source> known;
        std::string id; ///< under which it is offered, if it is known
    };
    struct Phone {
        PeerRecord record;
        std::deque<std::size_t> waiting; ///< numbers of sources
        std::set<std::size_t> announced;
        std::map<std::size_t, host::OffersInDoubt> inDoubt; ///< by the source's number
        host::PhoneLanes lanes;
        std::size_t underWay = 0;
        std::int64_t bytesUnderWay = 0;
        bool hasLeader = false;
    };
    struct Transfer;

    [[nodiscard]] Task<int> runAll();
    /// Waits until a transfer has ended. Returns false when the task was cancelled.
    [[nodiscard]] Task<bool> waitForEnd();
    void startWhatMay();
    [[nodiscard]] bool mayStart(const Phone& phone) const;
    /// Finds out what the file is, and that of those behind it, and gives it its id; again if it has changed since.
    /// Returns false if it must wait for an equal one that is under way.
    [[nodiscard]] bool prepare(std::size_t first);
    void reserve(const std::vector<std::size_t>& numbers, std::vector<host::SourceMemory::Source> known);
    /// What to send; of a source that could not be prepared, the reason is thrown.
    [[nodiscard]] PreparedFile take(Transfer& transfer);
    void keepForNextTime(const Transfer& transfer) noexcept;
    [[nodiscard]] bool hasChanged(const Source& source) const;
    void unprepare(Source& source);
    [[nodiscard]] bool hasWaiting() const;
    void prepareAnew();
    void start(Phone& phone);
    [[nodiscard]] Task<> transfer(Transfer& transfer);
    void settleEnded();
    void settle(Transfer& transfer);
    void fail(Transfer& transfer);
    void putBack(Transfer& transfer);
    void doneWith(std::size_t source, bool wasSent);
    void cancelAll();
    void cancelBeforeFarewell();
    void tellInterrupted(const Interrupted& interrupted);
    void tidy() noexcept;

    Host& host_;
    const platform::PrivateKey& ownKey_;
    host::SendTimes times_;
    std::vector<Source> sources_;
    std::vector<Phone> phones_;
    SendOverview overview_;
    host::SourceMemory memory_;
    InFlightJournal::Batch batch_;
    std::set<std::string> keysUnderWay_; ///< of the prepared sources that some phone still has to get
    std::list<Transfer> transfers_;
    platform::Condition ended_; ///< a transfer has
    int failed_ = 0;
};

} // namespace orlinth::cli
