#pragma once

#include "OrlinthHost/Sending/Delivery.h"
#include "OrlinthHost/Sending/HandshakeLimit.h"
#include "orlinth/Reporting/Output.h"

#include <cstdint>
#include <optional>
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

/// Turns what happens to one file on its way to one phone into events, the progress bar, and the handshake's limit.
class SendReporter final : public SendProgress {
public:
    struct What {
        std::string file; ///< as it was named on the command line
        std::int64_t size = 0;
        std::string to;           ///< the phone's name
        bool isAnnounced = false; ///< an attempt before this one has told what it is
    };

    SendReporter(Output& output, platform::Clock& clock, host::HandshakeLimit& handshake, SendOverview& overview,
                 What what)
        : output_(output),
          clock_(clock),
          handshake_(handshake),
          overview_(overview),
          what_(std::move(what)),
          name_(what_.file) {}

    void onFile(const std::string& name, std::int64_t size, const std::string& mime) override;
    void onConnected() override;
    void onWaking() override;
    void onHandshakeComplete() override;
    void onProgress(std::int64_t bytesSent, std::int64_t totalBytes) override;
    void onComplete(const SentFile& result) override;

    /// The connection broke behind the end of the file, which is offered again now.
    void tellAgain();

    /// Whether a connection to the phone was up.
    [[nodiscard]] bool hasConnected() const noexcept { return hasConnected_; }
    /// How far the last connection came.
    [[nodiscard]] const host::AttemptReach& reach() const noexcept { return reach_; }
    /// Whether the end of the file was sent, and all that is open is how the phone takes its leave.
    [[nodiscard]] bool isAtFarewell() const noexcept { return isAtFarewell_; }
    /// For a person who has interrupted it: "38 % of film.mkv was sent to Pixel".
    [[nodiscard]] std::string howFar() const;

    /// Tells the outcome, once the core has let go of the file.
    void tellComplete(const host::Delivered& delivered);
    /// `isInDoubt` if the end of the file was sent once: it may be there all the same.
    void tellFailure(const std::string& text, const std::string& hint, bool isInDoubt);
    /// The same with `line` in place of what tells of this file.
    void tellFailureLine(const std::string& text, const std::string& line);
    /// The event alone, where one line for people tells of several files.
    void tellFailureToScripts(const std::string& text);

private:
    void tellProgress(std::int64_t bytesSent, std::int64_t totalBytes);
    void showProgress(std::int64_t bytesSent, std::int64_t totalBytes);
    /// What every event of this file carries, so that those of several can be told apart.
    [[nodiscard]] Json context() const { return {{"file", what_.file}, {"to", what_.to}}; }

    Output& output_;
    platform::Clock& clock_;
    host::HandshakeLimit& handshake_;
    SendOverview& overview_;
    What what_;
    std::string name_;
    bool hasConnected_ = false;
    host::AttemptReach reach_;
    bool begun_ = false;       ///< some connection has
    std::int64_t held_ = 0;    ///< bytes that the phone has, as far as the overview was told
    std::int64_t reached_ = 0; ///< bytes that the phone has
    bool isAtFarewell_ = false;
    platform::Clock::Instant lastTold_{0};
};

} // namespace orlinth::cli
