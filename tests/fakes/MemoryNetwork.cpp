#include "fakes/MemoryNetwork.h"

#include "platform/SystemError.h"

#include <asio/strand.hpp>

#include <algorithm>
#include <cerrno>

namespace orlinth::fakes {

using platform::SystemError;

std::size_t detail::Pipe::untilNextFault() const {
    std::size_t next = SIZE_MAX;
    for (const std::optional<std::size_t>& at : {faults.resetAfter, faults.endAfter, faults.vanishAfter}) {
        if (at && *at > written) {
            next = std::min(next, *at - written);
        }
    }
    return next;
}

void detail::Pipe::take(ByteView piece) {
    const bool vanishes = faults.vanishAfter && written >= *faults.vanishAfter;
    if (vanishes) {
        vanished += piece.size();
    } else if (!ended) {
        bytes.insert(bytes.end(), piece.begin(), piece.end());
        if (faults.flipBitAt && *faults.flipBitAt >= written && *faults.flipBitAt < written + piece.size()) {
            bytes[bytes.size() - piece.size() + (*faults.flipBitAt - written)] ^= std::byte{0x10};
        }
    }
    written += piece.size();
    if (faults.endAfter == written) {
        ended = true;
    }
}

MemoryStream::MemoryStream(std::shared_ptr<detail::Pipe> incoming, std::shared_ptr<detail::Pipe> outgoing,
                           Executor executor, std::string remoteEndpoint)
    : incoming_(std::move(incoming)),
      outgoing_(std::move(outgoing)),
      executor_(std::move(executor)),
      remoteEndpoint_(std::move(remoteEndpoint)) {}

MemoryStream::~MemoryStream() {
    cancel();
}

void MemoryStream::checkUsable(const detail::Pipe& pipe) const {
    if (cancelled_) {
        throw SystemError("connection cancelled");
    }
    if (pipe.broken) {
        throw SystemError::fromErrno(ECONNRESET);
    }
}

Task<> MemoryStream::writeAll(ByteView data) {
    ++writeCalls_;
    const std::shared_ptr<detail::Pipe> pipe = outgoing_; // outlives this object if it is destroyed meanwhile
    while (!data.empty()) {
        checkUsable(*pipe);
        if (pipe->bytes.size() >= detail::Pipe::capacity) {
            co_await pipe->changed.wait();
            continue;
        }
        const std::size_t room = detail::Pipe::capacity - pipe->bytes.size();
        const ByteView piece = data.first(std::min({data.size(), room, pipe->untilNextFault()}));
        data = data.subspan(piece.size());
        pipe->take(piece);
        if (pipe->faults.resetAfter == pipe->written) {
            pipe->broken = true;
            incoming_->broken = true;
            incoming_->changed.notify();
        }
        pipe->changed.notify();
    }
    checkUsable(*pipe);
}

Task<std::size_t> MemoryStream::readExact(MutableBytes into) {
    const std::shared_ptr<detail::Pipe> pipe = incoming_;
    std::size_t filled = 0;
    while (filled < into.size()) {
        checkUsable(*pipe);
        if (pipe->bytes.empty()) {
            if (pipe->ended) {
                break;
            }
            co_await pipe->changed.wait();
            continue;
        }
        const std::size_t count = std::min({into.size() - filled, pipe->bytes.size(), pipe->faults.pieceBytes});
        std::copy_n(pipe->bytes.begin(), count, into.begin() + static_cast<std::ptrdiff_t>(filled));
        pipe->bytes.erase(pipe->bytes.begin(), pipe->bytes.begin() + static_cast<std::ptrdiff_t>(count));
        filled += count;
        pipe->changed.notify();
    }
    co_return filled;
}

Task<> MemoryStream::untilEnded() {
    const std::shared_ptr<detail::Pipe> pipe = incoming_; // which is broken when this end is cancelled or gone
    while (!pipe->broken && !pipe->ended) {
        co_await pipe->changed.wait();
    }
}

void MemoryStream::finishWriting() noexcept {
    const bool vanishes = outgoing_->faults.vanishAfter && outgoing_->written >= *outgoing_->faults.vanishAfter;
    if (vanishes) {
        ++outgoing_->vanished;
        return;
    }
    outgoing_->ended = true;
    outgoing_->changed.notify();
}

void MemoryStream::cancel() noexcept {
    if (!std::exchange(cancelled_, true)) {
        // Closing with unread input makes the kernel send a reset; so it does here.
        if (resetsOnClose_ || !incoming_->bytes.empty()) {
            outgoing_->broken = true;
        }
        finishWriting();
        incoming_->bytes.clear();
        incoming_->ports.clear();
        incoming_->broken = true;
        incoming_->changed.notify();
    }
}

void MemoryStream::abort() noexcept {
    resetsOnClose_ = true;
    cancel();
}

void MemoryStream::cutWire() noexcept {
    incoming_->faults.vanishAfter = incoming_->written;
    ++incoming_->vanished;
}

std::optional<std::int64_t> MemoryStream::unacknowledgedBytes() const noexcept {
    return cancelled_ ? std::nullopt : std::optional(static_cast<std::int64_t>(outgoing_->vanished));
}

MemoryConnection connectedStreams(const Executor& executor, WireFaults fromFirst, WireFaults fromSecond,
                                  const std::string& source) {
    const auto there = std::make_shared<detail::Pipe>(executor);
    const auto back = std::make_shared<detail::Pipe>(executor);
    there->faults = fromFirst;
    back->faults = fromSecond;
    return {std::make_unique<MemoryStream>(back, there, executor, "203.0.113.2:7000"),
            std::make_unique<MemoryStream>(there, back, executor, source)};
}

Task<> MemoryStream::sendPort(std::unique_ptr<platform::Listener> port) {
    checkUsable(*outgoing_);
    outgoing_->ports.push_back(std::move(port));
    const std::byte companion{};
    co_await writeAll(ByteView(&companion, 1));
}

Task<std::unique_ptr<platform::Listener>> MemoryStream::receivePort() {
    std::byte companion{};
    const std::size_t count = co_await readExact(MutableBytes(&companion, 1));
    if (count == 0 || incoming_->ports.empty()) {
        throw SystemError::fromErrno(EBADMSG);
    }
    std::unique_ptr<platform::Listener> port = std::move(incoming_->ports.front());
    incoming_->ports.pop_front();
    co_return port;
}

class MemoryListener : public platform::Listener {
public:
    MemoryListener(MemoryNetwork& network, std::uint16_t port, std::shared_ptr<MemoryNetwork::Port> state)
        : network_(network), port_(port), state_(std::move(state)) {
        ++state_->holders;
    }
    MemoryListener(const MemoryListener&) = delete;
    MemoryListener& operator=(const MemoryListener&) = delete;
    ~MemoryListener() override { close(); }

    [[nodiscard]] Task<std::unique_ptr<platform::Stream>> accept(Executor) override {
        const std::shared_ptr<MemoryNetwork::Port> state = state_;
        const std::shared_ptr<bool> closed = closed_;
        while (*closed || state->waiting.empty()) {
            if (*closed) {
                throw SystemError("listener cancelled");
            }
            co_await state->changed.wait();
        }
        if (network_.acceptErrno) {
            throw SystemError::fromErrno(*network_.acceptErrno);
        }
        std::unique_ptr<platform::Stream> stream = std::move(state->waiting.front());
        state->waiting.pop_front();
        co_return stream;
    }

    [[nodiscard]] std::uint16_t port() const noexcept override { return port_; }
    [[nodiscard]] std::string place() const override { return *closed_ ? std::string() : state_->place; }

    void close() noexcept override {
        if (!std::exchange(*closed_, true)) {
            if (--state_->holders == 0) {
                network_.ports_.erase(port_);
                state_->waiting.clear();
            }
            state_->changed.notify();
        }
    }

    [[nodiscard]] std::unique_ptr<platform::Listener> share() const {
        return std::make_unique<MemoryListener>(network_, port_, state_);
    }

private:
    MemoryNetwork& network_;
    std::uint16_t port_;
    std::shared_ptr<MemoryNetwork::Port> state_;
    std::shared_ptr<bool> closed_ = std::make_shared<bool>(false); ///< this hold; who waits for it may outlive this
};

std::unique_ptr<platform::Listener> MemoryNetwork::share(const platform::Listener& listener) {
    return dynamic_cast<const MemoryListener&>(listener).share();
}

Task<std::unique_ptr<platform::Stream>> MemoryNetwork::connect(std::string host, std::uint16_t port,
                                                               Executor executor) {
    attempts.emplace_back(host, port);
    if (silent_[host]) {
        Event never(context_.get_executor());
        co_await never.wait();
    }
    if (const auto failing = failing_.find(host); failing != failing_.end()) {
        const Failure failure = failing->second;
        if (failure.delay > 0s) {
            co_await failure.clock->sleep(failure.delay);
        }
        throw SystemError(failure.code);
    }
    const auto found = ports_.find(port);
    if (found == ports_.end()) {
        throw SystemError::fromErrno(ECONNREFUSED);
    }
    std::pair<WireFaults, WireFaults> faultsHere;
    if (!faults.empty()) {
        faultsHere = faults.front();
        faults.pop_front();
    }
    std::string source = "203.0.113.1:40112";
    if (!sources.empty()) {
        source = sources.front();
        sources.pop_front();
    }
    MemoryConnection connection = connectedStreams(executor, faultsHere.first, faultsHere.second, source);
    connection.first->noteKeepAlives(keepAlives);
    found->second->waiting.push_back(std::move(connection.second));
    found->second->changed.notify();
    co_return std::move(connection.first);
}

std::unique_ptr<platform::Listener> MemoryNetwork::listen(const platform::ListenOptions& options, Executor) {
    listens.push_back(options);
    if (listenErrno) {
        throw SystemError::fromErrno(*listenErrno);
    }
    for (const std::string& place : options.places) {
        if (const auto failing = placeErrnos.find(place); failing != placeErrnos.end()) {
            throw SystemError::fromErrno(failing->second);
        }
    }
    const std::uint16_t port = options.port != 0 ? options.port : nextFreePort_++;
    const bool isInherited = inherited == port;
    if (isInherited && ports_.contains(port)) {
        return std::make_unique<MemoryListener>(*this, port, ports_.at(port));
    }
    if (ports_.contains(port) || (placesExcludeEachOther && options.places.size() > 1)) {
        throw SystemError::fromErrno(EADDRINUSE);
    }
    const auto state = std::make_shared<Port>(context_.get_executor());
    state->place = options.places.empty() ? std::string() : options.places.front();
    if (isInherited) {
        ++state->holders; // whoever has opened it
    }
    ports_[port] = state;
    return std::make_unique<MemoryListener>(*this, port, state);
}

} // namespace orlinth::fakes
