#pragma once

#include "base/CaseError.h"
#include "base/SecretBytes.h"
#include "platform/System.h"

#include <memory>
#include <string>

namespace orlinth {

/// Waits for one phone to connect and send its sealed introduction. One object an attempt.
///
///     created ──awaitIntroduction──▶ listening ──first connection──▶ reading ──▶ finished
///
/// created: nothing is open. listening: the port is open. reading: the port is closed, the connection open.
/// finished: nothing is open; reached from any state by success, failure, time-out or cancel(), and never left.
///
/// Threading: any thread; all state lives on a serial queue of its own. Destroying the object does not end an attempt
/// that is under way.
class PairListener {
public:
    class Error;

    struct Result {
        Bytes phoneIntroductionPlaintext; ///< as it was opened; nothing has looked into it
        std::string remoteEndpoint;       ///< "192.168.1.7:40112"
    };

    /// Derives the key; opens nothing. `system` outlives the attempt. `timeout`: how long pair mode lasts.
    /// A `listener` that is open already is used in place of `port`, for a caller who must know a free port before.
    PairListener(platform::System& system, const SecretBytes& pairingSecret, std::uint16_t port, Seconds timeout,
                 std::unique_ptr<platform::Listener> listener = nullptr);

    /// The attempt, from opening the port to its end. The accepted connection is closed with it, however it ends;
    /// nothing is ever written to it.
    /// @throws Error; alreadyRunning at once while another call is pending, which goes on; cancelled where the
    ///         attempt has ended before. Cancelling the task ends the attempt.
    [[nodiscard]] Task<Result> awaitIntroduction();

    /// Ends the attempt with `cancelled`, soon after. Nothing once it has ended.
    void cancel();

private:
    struct Attempt;
    std::shared_ptr<Attempt> attempt_;
};

/// What PairListener throws.
class PairListener::Error : public CaseError<PairListener::Error> {
public:
    enum class Case {
        listenerStartFailed,
        connectionFailed,
        readFailed,
        decryptFailed,
        alreadyRunning,
        timedOut,
        cancelled
    };

    [[nodiscard]] static Error listenerStartFailed(const std::string& text);
    [[nodiscard]] static Error connectionFailed(const std::string& text);
    [[nodiscard]] static Error readFailed(const std::string& text);
    [[nodiscard]] static Error decryptFailed(const std::string& text);
    [[nodiscard]] static Error alreadyRunning();
    [[nodiscard]] static Error timedOut();
    [[nodiscard]] static Error cancelled();

private:
    Error(Case which, const std::string& prefix, const std::string& detail = {}) : CaseError(which, prefix, detail) {}
};

} // namespace orlinth
