#pragma once

#include "OrlinthHost/Sending/SendEvents.h"
#include "OrlinthHost/Sending/SendRun.h"
#include "orlinth/Reporting/Output.h"
#include "platform/Clock.h"

#include <cstdint>
#include <map>
#include <string>

namespace orlinth::cli {

/// Draws one line for all the files of a command: how many are done, and how much of their bytes.
class SendOverview {
public:
    explicit SendOverview(Output& output) : output_(output) {}

    /// What there is to do. `files` counts every file once for each phone it goes to; `bytes` likewise.
    void expect(std::size_t files, std::int64_t bytes);

    /// Whether there is more than one transfer, and so a line for all of them.
    [[nodiscard]] bool isMany() const noexcept { return files_ > 1; }
    /// `bytes` are there already, from an earlier attempt.
    void skip(std::int64_t bytes);
    /// `bytes` have been sent.
    void add(std::int64_t bytes);
    /// `bytes` that were counted will be sent once more.
    void takeBack(std::int64_t bytes);
    /// One transfer has ended. `unsent` of its bytes will not come any more.
    void end(std::int64_t unsent);

private:
    void begin();
    [[nodiscard]] std::string name() const;

    Output& output_;
    std::size_t files_ = 0;
    std::size_t ended_ = 0;
    std::int64_t bytes_ = 0;
    std::int64_t held_ = 0;
    bool begun_ = false;
};

/// Turns what happens to files on their way to phones into events, lines and the progress bar.
class SendReporter final : public host::SendEvents {
public:
    /// Both outlive this.
    SendReporter(Output& output, host::Home& home)
        : output_(output), home_(home), clock_(home.system.clock), overview_(output) {}

    void expected(std::size_t transfers, std::int64_t bytes) override;
    void began(const Transfer& transfer, const std::string& name, std::int64_t size, const std::string& mime) override;
    void connected(const Transfer& transfer) override;
    void moved(const Transfer& transfer) override;
    void waking(const Transfer& transfer) override;
    void authenticated(const Transfer& transfer) override;
    void progress(const Transfer& transfer, const Progress& progress) override;
    void endSent(const Transfer& transfer) override;
    void again(const Transfer& transfer) override;
    void putBack(const Transfer& transfer) override;
    void delivered(const Transfer& transfer, const host::Delivered& delivered) override;
    void failed(const Transfer& transfer, const host::EndedAttempt& attempt, bool isInDoubt) override;

    /// A signal has ended the command. What was cut short shares one line, behind one for each that tells how far it
    /// came.
    void tellInterrupted(const std::string& signal, const host::SendRun::Interruption& interruption);

private:
    /// What was reported of one file on its way to one phone.
    struct Report {
        std::string name;
        bool isAnnounced = false; ///< the event about what it is was written
        bool isBegun = false;     ///< bytes have gone, in this attempt
        bool isAtFarewell = false;
        std::int64_t held = 0;    ///< bytes that the phone has, as far as the overview knows
        std::int64_t reached = 0; ///< bytes that the phone has
        platform::Clock::Instant lastEventAt{};
    };

    [[nodiscard]] Report& reportOf(const Transfer& transfer);
    void emitProgress(const Transfer& transfer, Report& report, const Progress& progress);
    void drawProgress(Report& report, const Progress& progress);
    /// "38 % of film.mkv was sent to Pixel".
    [[nodiscard]] std::string howFar(const Transfer& transfer);
    /// What every event of a transfer carries, so that those of several can be told apart.
    [[nodiscard]] static Json context(const Transfer& transfer) {
        return {{"file", transfer.path}, {"to", transfer.phone.peer_hostname}};
    }

    Output& output_;
    host::Home& home_;
    platform::Clock& clock_;
    SendOverview overview_;
    std::map<std::size_t, Report> reports_; ///< by the transfer's number
};

} // namespace orlinth::cli
