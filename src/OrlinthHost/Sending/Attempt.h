#pragma once

#include "OrlinthCore/Sending/SendTransfer.h"

#include <cstdint>
#include <exception>
#include <optional>
#include <string>

namespace orlinth::host {

/// How far the last connection of an attempt came.
///
///     connecting ── a connection is up ──▶ greeting ── the phone has proved its key ──▶ offering
///                                              ▲                                           │ it has accepted
///                     a further offer, in a    │                                           ▼
///                     connection of its own ───┴── farewell ◀── the end was sent ───── sending
enum class AttemptStage {
    connecting, ///< nobody has answered yet, also while a phone is being woken
    greeting,   ///< somebody has, who may be anybody
    offering,   ///< it is the phone; it has not said yes to the file
    sending,    ///< the file is under way
    farewell    ///< all that is open is how the phone takes its leave
};

/// Watches an attempt to bring one file to one phone, which may take several connections.
class Attempt : public SendProgress {
public:
    [[nodiscard]] AttemptStage stage() const noexcept { return stage_; }
    /// Bytes that the phone had when the first connection began to send; nothing if none has.
    [[nodiscard]] std::optional<std::int64_t> beganAt() const noexcept { return beganAt_; }
    /// Whether any byte of the file has gone.
    [[nodiscard]] bool hasMoved() const noexcept { return hasMoved_; }

    /// Who overrides these calls them first.
    void onConnected() override { stage_ = AttemptStage::greeting; }
    void onHandshakeComplete() override { stage_ = AttemptStage::offering; }
    void onProgress(std::int64_t bytesSent, std::int64_t totalBytes) override;
    void onComplete(const SentFile& result) override;

private:
    AttemptStage stage_ = AttemptStage::connecting;
    std::optional<std::int64_t> beganAt_;
    bool hasMoved_ = false;
};

/// An attempt that is over.
struct EndedAttempt {
    std::exception_ptr error; ///< null: the phone has the file
    AttemptStage stage = AttemptStage::connecting;
    bool mayWake = true;     ///< it was the one that might wake the phone
    bool hadCompany = false; ///< another connection to the phone was there for a time
};

/// What the end of an attempt says about what to do next.
enum class SendVerdict {
    delivered,
    inDoubt,    ///< the phone may have it or not; it was there
    fileLost,   ///< this file will not get there: it cannot be read, or the phone does not want it
    phoneLost,  ///< nor will any other: the phone has removed this computer
    oneTooMany, ///< it broke, perhaps only because there were other connections: alone it may work
    tryAgain,   ///< the phone cannot be reached, or the connection broke
    cancelled
};

/// The one place where that is decided, for whoever sends.
///
/// A connection that breaks beside others to the same phone says little about the phone: it may take a single file and
/// close its port, or so many connections may be too many for it. Such an attempt was one too many. Its file goes back
/// to its place, the phone is down to one connection (PhoneLanes says until when), and no pause follows: that takes an
/// attempt that was alone. So it comes out as if there had been one connection from the start.
[[nodiscard]] SendVerdict judge(const EndedAttempt& attempt);

/// Whether the phone, once it had proved its key, ended the connection without a word about the offer: it does not take
/// files of this computer, most likely because it does not know it any more.
[[nodiscard]] bool isNotTaken(const EndedAttempt& attempt);

/// Why the file is not there. The attempt has failed.
[[nodiscard]] std::string failureText(const EndedAttempt& attempt);

} // namespace orlinth::host
