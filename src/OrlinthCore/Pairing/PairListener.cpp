#include "OrlinthCore/Pairing/PairListener.h"

#include "OrlinthCore/Pairing/PairCrypto.h"
#include "OrlinthCore/Pairing/PairWire.h"
#include "base/OneShot.h"
#include "platform/Cancelled.h"
#include "platform/Deadline.h"
#include "platform/Spawn.h"

#include <asio/dispatch.hpp>

#include <algorithm>
#include <array>
#include <optional>
#include <utility>

namespace orlinth {
namespace {

/// What a deadline of no time at all is given, where zero would mean that there is none.
constexpr Seconds shortestTimeout = 1us;

std::unique_ptr<platform::Listener> openListener(platform::Network& network, std::uint16_t port,
                                                 const Executor& queue) {
    using Error = PairListener::Error;
    if (port == 0) {
        throw Error::listenerStartFailed("invalid port " + std::to_string(port));
    }
    try {
        return network.listen({.port = port, .keepAlive = std::nullopt}, queue);
    } catch (const orlinth::Error& error) {
        throw Error::listenerStartFailed(error.description());
    }
}

/// The first connection. The port is closed as soon as there is one, so that it stays the only one.
Task<std::unique_ptr<platform::Stream>> acceptFirst(platform::Listener& listener, Executor queue) {
    try {
        std::unique_ptr<platform::Stream> connection = co_await listener.accept(std::move(queue));
        listener.close();
        co_return connection;
    } catch (const std::exception& error) {
        throw PairListener::Error::listenerStartFailed(platform::textOfFailure(error));
    }
}

/// Exactly as many bytes as `into` has; `onEnd` says what it means where the stream ends first.
Task<> readAll(platform::Stream& connection, MutableBytes into, const char* onEnd) {
    using Error = PairListener::Error;
    std::size_t count = 0;
    try {
        count = co_await connection.readExact(into);
    } catch (const std::exception& error) {
        throw Error::readFailed(platform::textOfFailure(error));
    }
    if (count != into.size()) {
        throw Error::readFailed(onEnd);
    }
}

Task<Bytes> readSealedIntroduction(platform::Stream& connection) {
    std::array<std::byte, PairWire::lengthPrefixBytes> prefix{};
    co_await readAll(connection, prefix, "prefix EOF");
    std::size_t length = 0;
    try {
        length = PairWire::parseLengthPrefix(prefix);
    } catch (const PairWire::Error& error) {
        throw PairListener::Error::readFailed("bad length prefix: " + error.description());
    }
    Bytes sealed(length);
    co_await readAll(connection, sealed, "payload short read");
    co_return sealed;
}

} // namespace

/// One attempt. Everything below the constructor's arguments is touched on `queue` only.
struct PairListener::Attempt {
    Attempt(platform::System& owner, const SecretBytes& pairingSecret, std::uint16_t number, Seconds limit,
            std::unique_ptr<platform::Listener> open)
        : system(owner),
          port(number),
          key(PairCrypto::deriveAEADKey(pairingSecret.reveal())),
          timeout(limit),
          queue(owner.queues.makeSerialQueue("orlinth.pair-listener")),
          listener(std::move(open)) {}

    platform::System& system;
    std::uint16_t port;
    SecretBytes key; ///< wiped as soon as the attempt has ended
    Seconds timeout;
    Executor queue;
    std::unique_ptr<platform::Listener> listener; ///< while the port is open, or handed over and not yet used
    std::unique_ptr<platform::Stream> connection; ///< while the phone is being read
    std::string listenerAddress;                  ///< the phone's
    std::optional<OneShot<Result>> outcome;       ///< there from the start of the attempt on
    bool didFinish = false;

    /// From opening the port to the opened introduction.
    [[nodiscard]] static Task<Result> receive(std::shared_ptr<Attempt> attempt);
    /// The same under its deadline, once. On the queue.
    [[nodiscard]] static Task<Result> run(std::shared_ptr<Attempt> attempt);

    [[nodiscard]] bool isPending() const noexcept { return outcome && !didFinish; }

    /// Closes what is open. What waits for it hears of it.
    void close() noexcept {
        if (listener) {
            listener->close();
        }
        if (connection) {
            connection->cancel();
        }
    }

    void finish() noexcept {
        didFinish = true;
        listener.reset();
        connection.reset();
        key = {};
    }
};

Task<PairListener::Result> PairListener::Attempt::receive(std::shared_ptr<Attempt> attempt) {
    if (!attempt->listener) {
        attempt->listener = openListener(attempt->system.network, attempt->port, attempt->queue);
    }
    attempt->connection = co_await acceptFirst(*attempt->listener, attempt->queue);
    attempt->listener.reset();
    if (attempt->outcome->isResolved()) {
        throw Error::cancelled(); // in that very moment, when there was no connection yet that could be closed
    }
    attempt->listenerAddress = attempt->connection->remoteEndpoint();
    const Bytes sealed = co_await readSealedIntroduction(*attempt->connection);
    try {
        co_return Result{.phoneIntroductionPlaintext = PairCrypto::openIntroduction(sealed, attempt->key),
                         .remoteEndpoint = attempt->listenerAddress};
    } catch (const PairCrypto::Error& error) {
        throw Error::decryptFailed(error.description());
    }
}

Task<PairListener::Result> PairListener::Attempt::run(std::shared_ptr<Attempt> attempt) {
    if (attempt->isPending()) {
        throw Error::alreadyRunning();
    }
    if (attempt->didFinish) {
        throw Error::cancelled();
    }
    OneShot<Result>& outcome = attempt->outcome.emplace();
    const auto timedOut = std::make_exception_ptr(Error::timedOut());
    const Seconds timeout = std::max(attempt->timeout, shortestTimeout);
    Task<Result> introduction = receive(attempt);
    std::exception_ptr escaped;
    try {
        co_await platform::settleFirst(outcome, attempt->system.clock, timeout, timedOut, std::move(introduction));
    } catch (...) {
        escaped = std::current_exception();
    }
    attempt->finish();
    if (escaped) {
        std::rethrow_exception(escaped);
    }
    co_return outcome.take();
}

PairListener::PairListener(platform::System& system, const SecretBytes& pairingSecret, std::uint16_t port,
                           Seconds timeout, std::unique_ptr<platform::Listener> listener)
    : attempt_(std::make_shared<Attempt>(system, pairingSecret, port, timeout, std::move(listener))) {}

Task<PairListener::Result> PairListener::awaitIntroduction() {
    // no coroutine itself, so that the task depends on the attempt alone
    return platform::runOn(attempt_->queue, Attempt::run(attempt_));
}

void PairListener::cancel() {
    asio::dispatch(attempt_->queue, [attempt = attempt_] {
        if (attempt->isPending()) {
            attempt->outcome->fail(std::make_exception_ptr(Error::cancelled()));
            attempt->close();
        } else if (!attempt->didFinish) {
            attempt->finish(); // it will never begin
        }
    });
}

PairListener::Error PairListener::Error::listenerStartFailed(const std::string& text) {
    return {Case::listenerStartFailed, "NWListener failed to start: ", text};
}
PairListener::Error PairListener::Error::connectionFailed(const std::string& text) {
    return {Case::connectionFailed, "incoming connection failed: ", text};
}
PairListener::Error PairListener::Error::readFailed(const std::string& text) {
    return {Case::readFailed, "read failed: ", text};
}
PairListener::Error PairListener::Error::decryptFailed(const std::string& text) {
    return {Case::decryptFailed, "decrypt failed: ", text};
}
PairListener::Error PairListener::Error::alreadyRunning() {
    return {Case::alreadyRunning, "PairListener already running"};
}
PairListener::Error PairListener::Error::timedOut() {
    return {Case::timedOut, "pair-mode timeout"};
}
PairListener::Error PairListener::Error::cancelled() {
    return {Case::cancelled, "cancelled"};
}

} // namespace orlinth
