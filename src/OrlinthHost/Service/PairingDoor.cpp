#include "OrlinthHost/Service/PairingDoor.h"

#include "OrlinthCore/Pairing/PairCrypto.h"
#include "OrlinthCore/Pairing/PairWire.h"
#include "OrlinthCore/Receiving/ReceivingLimits.h"
#include "base/Endian.h"
#include "platform/Condition.h"
#include "platform/Deadline.h"
#include "platform/Spawn.h"
#include "platform/SystemError.h"

#include <asio/cancellation_signal.hpp>
#include <asio/dispatch.hpp>
#include <asio/post.hpp>

#include <algorithm>
#include <cstring>
#include <list>
#include <optional>
#include <utility>

namespace orlinth::host {

namespace {

/// The first message of a handshake with an empty payload: a public key.
constexpr std::uint32_t handshakeBytes = 32;

/// Whoever has connected at the end is still to be turned away: at most so many, each taken at once if it is there.
constexpr int mostLateVisitors = 1024;
constexpr Seconds lateVisitorLimit = 1ms;

/// A connection of which the first bytes have been looked at.
class LookedAtStream final : public platform::Stream {
public:
    LookedAtStream(std::unique_ptr<platform::Stream> stream, Bytes seen)
        : stream_(std::move(stream)), seen_(std::move(seen)) {}

    [[nodiscard]] Task<> writeAll(ByteView data) override { return stream_->writeAll(data); }
    [[nodiscard]] Task<std::size_t> readExact(MutableBytes into) override {
        const std::size_t again = std::min(into.size(), seen_.size() - given_);
        std::memcpy(into.data(), seen_.data() + given_, again);
        given_ += again;
        std::size_t count = again;
        if (again < into.size()) {
            count += co_await stream_->readExact(into.subspan(again));
        }
        co_return count;
    }
    void finishWriting() noexcept override { stream_->finishWriting(); }
    void cancel() noexcept override { stream_->cancel(); }
    void abort() noexcept override { stream_->abort(); }
    void resetOnClose(bool resets) noexcept override { stream_->resetOnClose(resets); }
    void setKeepAlive(const platform::KeepAlive& keepAlive) noexcept override { stream_->setKeepAlive(keepAlive); }
    [[nodiscard]] bool hasEnded() const noexcept override { return stream_->hasEnded(); }
    [[nodiscard]] Task<> untilEnded() override { return stream_->untilEnded(); }
    [[nodiscard]] std::optional<std::int64_t> unacknowledgedBytes() const noexcept override {
        return stream_->unacknowledgedBytes();
    }
    [[nodiscard]] Executor executor() const override { return stream_->executor(); }
    [[nodiscard]] std::string remoteEndpoint() const override { return stream_->remoteEndpoint(); }
    [[nodiscard]] std::string localAddress() const override { return stream_->localAddress(); }

private:
    std::unique_ptr<platform::Stream> stream_;
    Bytes seen_;
    std::size_t given_ = 0;
};

} // namespace

/// Shared by the door, its listener and the tasks. Everything but the first three is touched on `queue` only, once that
/// is known.
struct PairingDoor::State {
    State(Home& owner, std::unique_ptr<platform::Listener> open, const SecretBytes& pairingSecret, OnDelivery tell)
        : home(owner),
          onDelivery(std::move(tell)),
          key(PairCrypto::deriveAEADKey(pairingSecret.reveal())),
          port(std::move(open)) {}

    struct Visitor {
        std::unique_ptr<platform::Stream> stream;
        std::unique_ptr<platform::Timer> timer;
        std::string who;
    };
    using Place = std::list<Visitor>::iterator;

    Home& home;
    const OnDelivery onDelivery;
    const SecretBytes key;
    std::unique_ptr<platform::Listener> port;
    std::optional<Executor> queue;           ///< from the first accept() on
    std::optional<platform::Condition> news; ///< of what is below
    asio::cancellation_signal stop;          ///< ends acceptAll()
    bool isAccepting = false;                ///< acceptAll() runs
    bool isDecided = false;
    std::list<Visitor> visitors; ///< each has a look() of its own
    std::unique_ptr<platform::Stream> phone;
    std::exception_ptr failure; ///< of the port
    int deliveriesTold = 0;     ///< a stranger can look like one, as often as it likes
    int visitorsTold = 0;       ///< the same

    void begin(const std::shared_ptr<State>& self, const Executor& executor);
    void admit(const std::shared_ptr<State>& self, std::unique_ptr<platform::Stream> stream);
    void decide() noexcept;
    void end() noexcept;
    void tellDelivery(const std::string& who);

    [[nodiscard]] static Task<std::unique_ptr<platform::Stream>> awaitPhone(std::shared_ptr<State> self);
    [[nodiscard]] static Task<> acceptAll(std::shared_ptr<State> self);
    [[nodiscard]] static Task<> look(std::shared_ptr<State> self, Place place);
    [[nodiscard]] static Task<bool> finish(std::shared_ptr<State> self);
    [[nodiscard]] static Task<> turnAwayLateOnes(std::shared_ptr<State> self);
};

void PairingDoor::State::begin(const std::shared_ptr<State>& self, const Executor& executor) {
    queue = executor;
    news.emplace(executor);
    isAccepting = true;
    platform::spawn(executor, acceptAll(self), stop.slot(), [self](const std::exception_ptr& error) {
        self->isAccepting = false;
        self->failure = error;
        self->news->changed();
    });
}

/// From now on everybody is turned away.
void PairingDoor::State::decide() noexcept {
    isDecided = true;
    for (const Visitor& visitor : visitors) {
        if (visitor.stream) {
            visitor.stream->abort();
        }
    }
}

void PairingDoor::State::end() noexcept {
    decide();
    stop.emit(asio::cancellation_type::terminal);
    port->close();
}

void PairingDoor::State::admit(const std::shared_ptr<State>& self, std::unique_ptr<platform::Stream> stream) {
    if (isDecided) {
        stream->abort();
        return;
    }
    if (visitors.size() >= maxVisitors && visitors.front().stream) {
        visitors.front().stream->abort(); // its task ends, and takes it out
    }
    Visitor visitor{.stream = std::move(stream), .timer = home.system.clock.makeTimer(*queue), .who = {}};
    visitor.who = visitor.stream->remoteEndpoint();
    const Place place = visitors.insert(visitors.end(), std::move(visitor));
    place->timer->arm(patience, [place] {
        if (place->stream) {
            place->stream->abort();
        }
    });
    platform::spawn(*queue, look(self, place), [self, place](const std::exception_ptr& error) {
        const bool isTold = error && ++self->visitorsTold <= limits::linesOfStrangers;
        if (isTold) { // it went away, or took too long: nothing that anybody has to know
            self->home.system.log.write(platform::LogLevel::debug, "com.tarvinex.orlinth", "pair",
                                        "turned away " + place->who + ": " + describe(error));
        }
        self->visitors.erase(place);
        self->news->changed();
    });
}

void PairingDoor::State::tellDelivery(const std::string& who) {
    if (++deliveriesTold > limits::linesOfStrangers) {
        return;
    }
    asio::post(home.executor, [tell = onDelivery, who] { tell(who); });
}

/// Until somebody has connected who brings an introduction. What waits comes back with an exception once the port is
/// closed.
Task<> PairingDoor::State::acceptAll(std::shared_ptr<State> self) {
    for (;;) {
        std::unique_ptr<platform::Stream> stream = co_await self->port->accept(*self->queue);
        self->admit(self, std::move(stream));
    }
}

/// Listens to one visitor until it is clear what it is.
Task<> PairingDoor::State::look(std::shared_ptr<State> self, Place place) {
    platform::Stream& stream = *place->stream;
    Bytes seen(PairWire::lengthPrefixBytes);
    std::size_t count = co_await stream.readExact(seen);
    if (count != seen.size()) {
        co_return;
    }
    if (loadBigEndian32(ByteView(seen).first<PairWire::lengthPrefixBytes>()) == handshakeBytes) {
        Bytes body(handshakeBytes);
        count = co_await stream.readExact(body);
        bool opens = false;
        try {
            static_cast<void>(PairCrypto::openIntroduction(body, self->key));
            opens = count == body.size();
        } catch (const PairCrypto::Error&) {
            opens = false;
        }
        if (!opens) {
            if (count == body.size()) {
                self->tellDelivery(place->who);
            }
            co_return;
        }
        seen.insert(seen.end(), body.begin(), body.end());
    }
    if (self->isDecided) {
        co_return;
    }
    place->timer->disarm();
    self->phone = std::make_unique<LookedAtStream>(std::move(place->stream), std::move(seen));
    self->decide();
    self->news->changed();
}

Task<std::unique_ptr<platform::Stream>> PairingDoor::State::awaitPhone(std::shared_ptr<State> self) {
    const auto isOver = [&door = *self] { return door.phone || door.failure || door.isDecided; };
    co_await self->news->until(isOver);
    if (self->phone) {
        co_return std::move(self->phone);
    }
    if (self->failure) {
        std::rethrow_exception(self->failure);
    }
    throw platform::SystemError("listener cancelled");
}

/// Those whom the system has connected by now. Each is there at once or not at all.
Task<> PairingDoor::State::turnAwayLateOnes(std::shared_ptr<State> self) {
    for (int number = 0; number < mostLateVisitors; ++number) {
        OneShot<std::unique_ptr<platform::Stream>> next;
        Task<std::unique_ptr<platform::Stream>> accepted = self->port->accept(*self->queue);
        const auto nobody = std::make_exception_ptr(platform::SystemError("nobody"));
        co_await platform::settleFirst(next, self->home.system.clock, lateVisitorLimit, nobody, std::move(accepted));
        try {
            next.take()->abort();
        } catch (const std::exception&) {
            co_return; // nobody is left, or the port is closed
        }
    }
}

Task<bool> PairingDoor::State::finish(std::shared_ptr<State> self) {
    self->decide();
    self->stop.emit(asio::cancellation_type::terminal);
    const auto isEmpty = [&door = *self] { return !door.isAccepting && door.visitors.empty(); };
    co_await self->news->until(isEmpty);
    co_await turnAwayLateOnes(self);
    self->port->close();
    co_return true;
}

/// What the pairing has of the door.
class PairingDoor::Port final : public platform::Listener {
public:
    explicit Port(std::shared_ptr<State> state) : state_(std::move(state)) {}
    Port(const Port&) = delete;
    Port& operator=(const Port&) = delete;
    ~Port() override { close(); }

    [[nodiscard]] Task<std::unique_ptr<platform::Stream>> accept(Executor executor) override {
        if (!state_->queue) {
            state_->begin(state_, executor);
        }
        return State::awaitPhone(state_);
    }
    [[nodiscard]] std::uint16_t port() const noexcept override { return state_->port->port(); }
    void close() noexcept override {
        state_->decide();
        if (state_->queue) {
            state_->news->changed();
        }
    }

private:
    std::shared_ptr<State> state_;
};

PairingDoor::PairingDoor(Home& home, std::unique_ptr<platform::Listener> port, const SecretBytes& pairingSecret,
                         OnDelivery onDelivery)
    : state_(std::make_shared<State>(home, std::move(port), pairingSecret, std::move(onDelivery))) {}

PairingDoor::~PairingDoor() {
    if (state_->queue) {
        asio::dispatch(*state_->queue, [state = state_] { state->end(); });
    }
}

std::uint16_t PairingDoor::port() const noexcept {
    return state_->port->port();
}

std::unique_ptr<platform::Listener> PairingDoor::listener() {
    return std::make_unique<Port>(state_);
}

Task<bool> PairingDoor::finish() {
    if (!state_->queue) { // nobody has waited for anybody
        state_->port->close();
        co_return true;
    }
    co_return co_await platform::runOn(*state_->queue, State::finish(state_));
}

} // namespace orlinth::host
