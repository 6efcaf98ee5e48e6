#include "platform/linux/LinuxSessionSignals.h"

#include "platform/SystemError.h"
#include "platform/linux/SessionBus.h"

#include <asio/post.hpp>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string_view>
#include <sys/eventfd.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>

namespace orlinth::platform {
namespace {

using SteadyClock = std::chrono::steady_clock;
using namespace std::chrono_literals;

/// How long post() may take in all.
constexpr auto postLimit = 250ms;
/// How long the bus may take for an answer to somebody who listens, its hello included.
constexpr auto answerLimit = 10s;
/// How often a bus is looked for that is not there.
constexpr auto lookEvery = 2s;

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
    Posting(LinuxSessionSignals::Environment environment, const BusSignalName& name)
        : end_(SteadyClock::now() + postLimit), bus_(openSessionBus(environment, postLimit)) {
        // The bus works through what it is sent in order: once it has answered the question behind the signal, it has
        // passed the signal on, and the connection may end.
        sd_bus_slot* question = nullptr;
        isSent_ = bus_ &&
                  ::sd_bus_emit_signal(bus_.get(), name.path.c_str(), name.interface.c_str(), name.member.c_str(),
                                       nullptr) >= 0 &&
                  ::sd_bus_call_method_async(bus_.get(), &question, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                             "org.freedesktop.DBus", "GetId", onAnswer, this, nullptr) >= 0;
        question_.reset(question);
    }

    /// Waits until it has arrived, or the time is over.
    void finish() {
        while (isSent_ && !isAnswered_ && processSessionBus(bus_.get()) && !isAnswered_ && SteadyClock::now() < end_) {
            waitForSessionBus(bus_.get(), -1, end_);
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

/// Who listens, and the thread that does. What has no other word is touched on that thread only.
class LinuxSessionSignals::Ear {
public:
    explicit Ear(Environment environment) : environment_(environment), wakeUp_(::eventfd(0, EFD_CLOEXEC)) {}

    ~Ear() {
        if (wakeUp_ != -1) {
            ::close(wakeUp_);
        }
    }
    Ear(const Ear&) = delete;
    Ear& operator=(const Ear&) = delete;

    /// Ends the thread. Any other thread.
    void stop() {
        {
            const std::lock_guard guard(lock_);
            isStopping_ = true;
        }
        wake();
        if (thread_.joinable()) {
            thread_.join();
        }
    }

    /// Any thread.
    std::uint64_t add(const std::string& name, Executor executor, std::function<void()> onSignal) {
        const std::lock_guard guard(lock_);
        start();
        const std::uint64_t number = ++lastNumber_;
        auto shared = std::make_shared<std::function<void()>>(std::move(onSignal));
        listeners_.emplace(number, Listener{name, std::move(executor), std::move(shared)});
        wake();
        return number;
    }

    /// Any thread. Nothing is posted any more when this has returned.
    void remove(std::uint64_t number) noexcept {
        std::shared_ptr<std::function<void()>> last; // what it holds may come back here when it goes
        const std::lock_guard guard(lock_);
        const auto place = listeners_.find(number);
        last = std::move(place->second.onSignal);
        listeners_.erase(place);
        wake();
    }

private:
    struct Listener {
        std::string name;
        Executor executor;
        std::shared_ptr<std::function<void()>> onSignal;
    };
    /// A name that the bus was asked for.
    struct Match {
        Ear* owner;
        std::string name;
        BusSlotRef slot;
    };

    void start() {
        if (thread_.joinable()) {
            return;
        }
        if (wakeUp_ == -1) {
            throw SystemError::fromErrno(EMFILE);
        }
        try {
            thread_ = std::thread([this] { run(); });
        } catch (const std::system_error& error) {
            throw SystemError(error.code());
        }
    }

    void wake() const noexcept {
        const std::uint64_t one = 1;
        static_cast<void>(!::write(wakeUp_, &one, sizeof one)); // a counter that is full wakes up as well
    }

    void run() {
        for (;;) {
            std::set<std::string> names;
            {
                const std::lock_guard guard(lock_);
                if (isStopping_) {
                    break;
                }
                for (const auto& [number, listener] : listeners_) {
                    names.insert(listener.name);
                }
            }
            const std::optional<SteadyClock::time_point> next = tend(names); // the bus may be another then
            waitForSessionBus(bus_.get(), wakeUp_, next);
        }
        disconnect();
    }

    /// Does what there is to do; returns when there will be something again, if nothing comes.
    std::optional<SteadyClock::time_point> tend(const std::set<std::string>& names) {
        if (names.empty()) {
            disconnect();
            return std::nullopt;
        }
        const auto now = SteadyClock::now();
        if (!bus_ && now >= nextLook_) {
            bus_ = openSessionBus(environment_, answerLimit);
            nextLook_ = now + lookEvery;
            helloEnd_ = now + answerLimit;
        }
        const bool isGood = bus_ && listenFor(names) && processSessionBus(bus_.get());
        const bool isSilent = isGood && ::sd_bus_is_ready(bus_.get()) <= 0;
        if (!isGood || (isSilent && now >= helloEnd_)) {
            disconnect();
            return nextLook_;
        }
        return isSilent ? std::optional(helloEnd_) : std::nullopt;
    }

    /// Brings what the bus is asked for in step with what is wanted.
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
            if (::sd_bus_match_signal_async(bus_.get(), &slot, nullptr, signal->path.c_str(), signal->interface.c_str(),
                                            signal->member.c_str(), onSignal, ignoreBusAnswer,
                                            place->second.get()) < 0) {
                return false;
            }
            place->second->slot.reset(slot);
        }
        return true;
    }

    void disconnect() {
        matches_.clear(); // which would keep the bus
        bus_.reset();
    }

    static int onSignal(sd_bus_message*, void* data, sd_bus_error*) {
        const auto& match = *static_cast<const Match*>(data);
        const std::lock_guard guard(match.owner->lock_);
        for (const auto& [number, listener] : match.owner->listeners_) {
            if (listener.name == match.name) {
                asio::post(listener.executor, [wanted = std::weak_ptr(listener.onSignal)] {
                    if (const auto action = wanted.lock()) {
                        (*action)();
                    }
                });
            }
        }
        return 0;
    }

    const Environment environment_;
    const int wakeUp_;

    std::mutex lock_; ///< guards the next three; held while something is posted, so that nothing is after remove()
    std::map<std::uint64_t, Listener> listeners_;
    std::uint64_t lastNumber_ = 0;
    bool isStopping_ = false;
    std::thread thread_; ///< started under the lock

    SessionBusRef bus_;
    std::map<std::string, std::unique_ptr<Match>> matches_; ///< on this connection; null for a name that D-Bus has not
    SteadyClock::time_point nextLook_{};
    SteadyClock::time_point helloEnd_{};
};

LinuxSessionSignals::LinuxSessionSignals(Environment environment)
    : environment_(environment), ear_(std::make_shared<Ear>(environment)) {}

LinuxSessionSignals::~LinuxSessionSignals() {
    ear_->stop();
}

void LinuxSessionSignals::post(const std::string& name) noexcept {
    try {
        if (const std::optional<BusSignalName> signal = busSignalName(name)) {
            Posting(environment_, *signal).finish();
        }
    } catch (const std::exception&) {
        return; // no memory for it; whoever would listen finds out by itself
    }
}

std::unique_ptr<SignalSubscription> LinuxSessionSignals::listen(const std::string& name, Executor executor,
                                                                std::function<void()> onSignal) {
    class Subscription final : public SignalSubscription {
    public:
        Subscription(std::shared_ptr<Ear> ear, std::uint64_t number) : ear_(std::move(ear)), number_(number) {}
        ~Subscription() override { ear_->remove(number_); }
        Subscription(const Subscription&) = delete;
        Subscription& operator=(const Subscription&) = delete;

    private:
        std::shared_ptr<Ear> ear_;
        std::uint64_t number_;
    };
    const std::uint64_t number = ear_->add(name, std::move(executor), std::move(onSignal));
    return std::make_unique<Subscription>(ear_, number);
}

} // namespace orlinth::platform
