#include "platform/linux/LinuxBusSignals.h"

#include "platform/linux/BusLoop.h"
#include "platform/linux/SessionBus.h"

#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <asio/strand.hpp>

#include <algorithm>
#include <chrono>
#include <map>
#include <set>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

namespace orlinth::platform {
namespace {

using SteadyClock = std::chrono::steady_clock;
using namespace std::chrono_literals;

/// How long post() may take in all.
constexpr auto postLimit = 250ms;
/// How long the bus may take for an answer to somebody who listens, its hello included.
constexpr auto answerLimit = 10s;
/// Before a bus that is not there is looked for again: the first time, and, doubled each time, the last.
constexpr std::chrono::seconds firstPause = 2s;
constexpr std::chrono::seconds longestPause = 60s;

bool isLetter(char character) noexcept {
    return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z');
}

bool isDigit(char character) noexcept {
    return character >= '0' && character <= '9';
}

/// Whether D-Bus takes this as a member, or as one part of an interface or a path.
bool isBusWord(std::string_view word) {
    return !word.empty() && !isDigit(word.front()) && std::ranges::all_of(word, [](char character) {
        return isLetter(character) || isDigit(character) || character == '_';
    });
}

/// "part-changed" as "PartChanged".
std::string memberOf(std::string_view word) {
    std::string member;
    bool isFirst = true;
    for (const char character : word) {
        if (character == '-') {
            isFirst = true;
            continue;
        }
        const bool isSmall = character >= 'a' && character <= 'z';
        member += isFirst && isSmall ? static_cast<char>(character - 'a' + 'A') : character;
        isFirst = false;
    }
    return member;
}

/// One signal on its way to the bus.
class Posting {
public:
    Posting(LinuxBusSignals::Environment environment, const BusSignalName& name)
        : end_(SteadyClock::now() + postLimit), bus_(openSessionBus(environment, postLimit)) {
        // The bus works through what it is sent in order: once it has answered the question behind the signal, it has
        // passed the signal on, and the connection may end.
        sd_bus_slot* question = nullptr;
        isSent_ =
            bus_ &&
            systemd().sd_bus_emit_signal(bus_.get(), name.path.c_str(), name.interface.c_str(), name.member.c_str(),
                                         nullptr) >= 0 &&
            systemd().sd_bus_call_method_async(bus_.get(), &question, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                               "org.freedesktop.DBus", "GetId", onAnswer, this, nullptr) >= 0;
        question_.reset(question);
    }

    /// Waits until it has arrived, or the time is over.
    void finish() {
        while (isSent_ && !isAnswered_ && processSessionBus(bus_.get()) && !isAnswered_ && SteadyClock::now() < end_) {
            waitForSessionBus(bus_.get(), end_);
        }
    }

private:
    static int onAnswer(sd_bus_message*, void* data, sd_bus_error*) {
        static_cast<Posting*>(data)->isAnswered_ = true; // an error is an answer as well
        return 0;
    }

    SteadyClock::time_point end_;
    SessionBusRef bus_;
    BusSlotRef question_; // declared behind the bus, so that it goes first
    bool isSent_ = false;
    bool isAnswered_ = false;
};

} // namespace

std::optional<BusSignalName> busSignalName(const std::string& name) {
    const std::size_t lastDot = name.rfind('.');
    if (lastDot == std::string::npos) {
        return std::nullopt;
    }
    BusSignalName signal{
        .path = "/", .interface = name.substr(0, lastDot), .member = memberOf(name.substr(lastDot + 1))};
    std::ranges::replace(signal.interface, '-', '_');
    signal.path += signal.interface;
    std::ranges::replace(signal.path, '.', '/');
    std::string_view rest = signal.interface;
    std::size_t parts = 1;
    for (std::size_t dot = rest.find('.'); dot != std::string_view::npos; dot = rest.find('.')) {
        if (!isBusWord(rest.substr(0, dot))) {
            return std::nullopt;
        }
        rest.remove_prefix(dot + 1);
        ++parts;
    }
    constexpr std::size_t longestName = 255;
    const bool isGood = parts >= 2 && isBusWord(rest) && isBusWord(signal.member) &&
                        signal.interface.size() <= longestName && signal.member.size() <= longestName;
    return isGood ? std::optional(signal) : std::nullopt;
}

/// Who listens, and the connection to the bus. Everything happens on its queue; add() and tendSoon() are for any
/// thread.
class LinuxBusSignals::Ear : public std::enable_shared_from_this<Ear> {
public:
    /// Somebody who listens: `onSignal` is the subscription's, and ends with it.
    struct Listener {
        std::string name;
        Executor executor;
        std::weak_ptr<std::function<void()>> onSignal;
    };

    Ear(Executor queue, Environment environment)
        : queue_(std::move(queue)), loop_(queue_, environment, answerLimit, [this] { onLost(); }) {}
    Ear(const Ear&) = delete;
    Ear& operator=(const Ear&) = delete;

    void add(Listener listener) {
        asio::post(queue_, [weak = weak_from_this(), listener = std::move(listener)]() mutable {
            if (const std::shared_ptr<Ear> self = weak.lock()) {
                self->listeners_.push_back(std::move(listener));
                self->tend();
            }
        });
    }

    /// A subscription has ended.
    void tendSoon() {
        asio::post(queue_, [weak = weak_from_this()] {
            if (const std::shared_ptr<Ear> self = weak.lock()) {
                self->tend();
            }
        });
    }

private:
    /// A name that the bus was asked for.
    struct Match {
        Ear* owner;
        std::string name;
        BusSlotRef slot;
    };

    /// Brings the connection in step with what is wanted.
    void tend() {
        std::erase_if(listeners_, [](const Listener& listener) { return listener.onSignal.expired(); });
        std::set<std::string> names;
        for (const Listener& listener : listeners_) {
            names.insert(listener.name);
        }
        if (names.empty()) {
            look_.reset();
            disconnect();
            return;
        }
        const auto now = SteadyClock::now();
        if (loop_.get() == nullptr) {
            if (now < nextLook_) {
                lookLater();
                return;
            }
            nextLook_ = now + pause_;
            pause_ = std::min(2 * pause_, longestPause);
        }
        if (loop_.open() && listenFor(names)) {
            loop_.wake();
        } else {
            disconnect();
            lookLater();
        }
    }

    void lookLater() {
        if (!look_) {
            look_.emplace(queue_);
        }
        look_->expires_at(nextLook_);
        look_->async_wait([weak = weak_from_this()](std::error_code code) {
            const std::shared_ptr<Ear> self = weak.lock();
            if (!code && self) {
                self->tend();
            }
        });
    }

    /// Asks the bus for each name, and for no other any more.
    bool listenFor(const std::set<std::string>& names) {
        std::erase_if(matches_, [&names](const auto& match) { return !names.contains(match.first); });
        for (const std::string& name : names) {
            const std::optional<BusSignalName> signal = busSignalName(name);
            const auto [place, isNew] = matches_.try_emplace(name, nullptr);
            if (!isNew || !signal) {
                continue;
            }
            place->second = std::make_unique<Match>(this, name, nullptr);
            sd_bus_slot* slot = nullptr;
            if (systemd().sd_bus_match_signal_async(loop_.get(), &slot, nullptr, signal->path.c_str(),
                                                    signal->interface.c_str(), signal->member.c_str(), onSignal,
                                                    ignoreBusAnswer, place->second.get()) < 0) {
                return false;
            }
            place->second->slot.reset(slot);
        }
        return true;
    }

    void onLost() {
        if (SteadyClock::now() > nextLook_) {
            pause_ = firstPause; // it was a connection for a while
        }
        disconnect();
        tend();
    }

    void disconnect() {
        matches_.clear(); // which would keep the bus
        loop_.close();
    }

    static int onSignal(sd_bus_message*, void* data, sd_bus_error*) {
        const auto& match = *static_cast<const Match*>(data);
        for (const Listener& listener : match.owner->listeners_) {
            if (listener.name == match.name) {
                asio::post(listener.executor, [wanted = listener.onSignal] {
                    if (const auto action = wanted.lock()) {
                        (*action)();
                    }
                });
            }
        }
        return 0;
    }

    const Executor queue_;
    std::vector<Listener> listeners_;
    BusLoop loop_;
    std::optional<asio::steady_timer> look_;                ///< for a bus
    std::map<std::string, std::unique_ptr<Match>> matches_; ///< on this connection; null for a name that D-Bus has not
    SteadyClock::time_point nextLook_{};
    std::chrono::seconds pause_ = firstPause; ///< behind the next look for a bus that is not there
};

LinuxBusSignals::LinuxBusSignals(asio::io_context& context, Environment environment)
    : environment_(environment), ear_(std::make_shared<Ear>(asio::make_strand(context), environment)) {}

LinuxBusSignals::~LinuxBusSignals() = default;

void LinuxBusSignals::post(const std::string& name) noexcept {
    try {
        if (const std::optional<BusSignalName> signal = busSignalName(name)) {
            Posting(environment_, *signal).finish();
        }
    } catch (const std::exception&) {
        return; // no memory for it; whoever would listen finds out by itself
    }
}

std::unique_ptr<SignalSubscription> LinuxBusSignals::listen(const std::string& name, Executor executor,
                                                            std::function<void()> onSignal) {
    class Subscription final : public SignalSubscription {
    public:
        Subscription(std::weak_ptr<Ear> ear, std::shared_ptr<std::function<void()>> onSignal)
            : ear_(std::move(ear)), onSignal_(std::move(onSignal)) {}
        ~Subscription() override {
            onSignal_.reset();
            try {
                if (const std::shared_ptr<Ear> ear = ear_.lock()) {
                    ear->tendSoon();
                }
            } catch (const std::exception&) {
                return; // no memory for it; the bus is asked for one name too many, and nobody hears it
            }
        }
        Subscription(const Subscription&) = delete;
        Subscription& operator=(const Subscription&) = delete;

    private:
        std::weak_ptr<Ear> ear_; ///< which may have gone before
        std::shared_ptr<std::function<void()>> onSignal_;
    };
    auto shared = std::make_shared<std::function<void()>>(std::move(onSignal));
    ear_->add({.name = name, .executor = std::move(executor), .onSignal = shared});
    return std::make_unique<Subscription>(ear_, std::move(shared));
}

} // namespace orlinth::platform
