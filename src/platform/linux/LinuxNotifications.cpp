#include "platform/linux/LinuxNotifications.h"

#include "base/Text.h"
#include "platform/linux/SessionBus.h"

#include <asio/post.hpp>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <list>
#include <mutex>
#include <optional>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>

namespace orlinth::platform {
namespace {

using SteadyClock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr const char* daemonName = "org.freedesktop.Notifications";
constexpr const char* daemonPath = "/org/freedesktop/Notifications";
constexpr const char* busName = "org.freedesktop.DBus";
constexpr const char* busPath = "/org/freedesktop/DBus";

/// How long the bus and the daemon may take for an answer.
constexpr auto answerLimit = 10s;
/// How long isAvailable() waits for the bus.
constexpr auto probeLimit = 250ms;
/// What a notification that should go by itself is given beyond its time before it is taken away.
constexpr auto closingGrace = 1s;
/// Notifications whose answer is waited for; of more the oldest counts as closed. Some daemons never say so.
constexpr std::size_t maxWaiting = 256;

struct MessageUnref {
    void operator()(sd_bus_message* message) const noexcept { ::sd_bus_message_unref(message); }
};
using MessageRef = std::unique_ptr<sd_bus_message, MessageUnref>;

/// Fit for the bus, which takes UTF-8 without NUL, and for people.
std::string plainText(const std::string& text) {
    return forDisplay(text, maxLineColumns);
}

std::string escapedForMarkup(const std::string& text) {
    std::string escaped;
    escaped.reserve(text.size());
    for (const char character : text) {
        switch (character) {
        case '&':
            escaped += "&amp;";
            break;
        case '<':
            escaped += "&lt;";
            break;
        case '>':
            escaped += "&gt;";
            break;
        default:
            escaped += character;
        }
    }
    return escaped;
}

bool readStrings(sd_bus_message* message, std::vector<std::string>& strings) {
    if (::sd_bus_message_enter_container(message, SD_BUS_TYPE_ARRAY, "s") < 0) {
        return false;
    }
    const char* text = nullptr;
    while (::sd_bus_message_read_basic(message, SD_BUS_TYPE_STRING, static_cast<void*>(&text)) > 0) {
        strings.emplace_back(text);
    }
    return true;
}

bool contains(const std::vector<std::string>& strings, const char* text) {
    return std::find(strings.begin(), strings.end(), text) != strings.end();
}

/// Who has sent the message: the unique name of a connection, which the bus fills in and nobody can choose.
std::string senderOf(sd_bus_message* message) {
    const char* const sender = ::sd_bus_message_get_sender(message);
    return sender == nullptr ? "" : sender;
}

} // namespace

/// The thread with the bus. What has no other word is touched on that thread only.
class LinuxNotifications::Worker {
public:
    explicit Worker(Environment environment) : environment_(environment), wakeUp_(::eventfd(0, EFD_CLOEXEC)) {}

    ~Worker() {
        {
            const std::lock_guard guard(lock_);
            isStopping_ = true;
        }
        wake();
        if (thread_.joinable()) {
            thread_.join();
        }
        for (Waiting& waiting : incoming_) {
            answer(waiting, "");
        }
        if (wakeUp_ != -1) {
            ::close(wakeUp_);
        }
    }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    /// Any thread.
    bool probe() {
        std::unique_lock guard(lock_);
        if (!start()) {
            return false;
        }
        const std::uint64_t wanted = ++probesWanted_;
        wake();
        return changed_.wait_for(guard, probeLimit, [&] { return probesDone_ >= wanted; }) && isThere_;
    }

    /// Any thread.
    void show(Notification notification, Executor executor, std::function<void(const std::string&)> onAnswer) {
        Waiting waiting{.owner = this,
                        .notification = std::move(notification),
                        .executor = std::move(executor),
                        .onAnswer = std::move(onAnswer)};
        const std::lock_guard guard(lock_);
        if (!start()) {
            answer(waiting, "");
            return;
        }
        incoming_.push_back(std::move(waiting));
        wake();
    }

    /// Any thread.
    void withdraw(std::uint64_t tag) {
        const std::lock_guard guard(lock_);
        withdrawn_.push_back(tag);
        wake();
    }

private:
    /// A notification from show() to its answer.
    struct Waiting {
        Worker* owner;
        Notification notification;
        Executor executor;
        std::function<void(const std::string&)> onAnswer;
        std::uint32_t id = 0;    ///< the daemon's; 0 while it has none
        std::string daemon = {}; ///< the unique name of the connection that shows it
        std::optional<SteadyClock::time_point> end = {};
        bool hasMarkup = false;
        bool isWithdrawn = false;
        sd_bus_slot* call = nullptr; ///< of the call under way; released with the notification
    };
    using Place = std::list<Waiting>::iterator;

    /// Starts the thread, once; false if there can be none. Under the lock.
    bool start() {
        if (!thread_.joinable() && wakeUp_ != -1) {
            try {
                thread_ = std::thread([this] { run(); });
            } catch (const std::system_error&) {
                return false; // no threads left: there is nobody to show anything
            }
        }
        return thread_.joinable();
    }

    void wake() const noexcept {
        const std::uint64_t one = 1;
        static_cast<void>(!::write(wakeUp_, &one, sizeof one)); // a counter that is full wakes up as well
    }

    static void answer(Waiting& waiting, const std::string& key) {
        if (auto onAnswer = std::exchange(waiting.onAnswer, nullptr)) {
            asio::post(waiting.executor, [onAnswer = std::move(onAnswer), key] { onAnswer(key); });
        }
    }

    void run() {
        while (takeWork()) {
            processBus();
            closeExpired();
            settleProbes(probesStarted_ > probesAnswered_ && SteadyClock::now() >= probeEnd_);
            waitForSessionBus(bus_.get(), wakeUp_, nextEnd());
        }
        disconnect();
    }

    /// False when the thread shall end.
    bool takeWork() {
        std::deque<Waiting> fresh;
        std::vector<std::uint64_t> withdrawn;
        bool isProbeWanted = false;
        {
            const std::lock_guard guard(lock_);
            if (isStopping_) {
                return false;
            }
            fresh.swap(incoming_);
            withdrawn.swap(withdrawn_);
            isProbeWanted = probesWanted_ > probesStarted_;
            probesStarted_ = probesWanted_;
        }
        if (isProbeWanted) {
            startProbe();
        }
        for (Waiting& waiting : fresh) {
            begin(std::move(waiting));
        }
        for (const std::uint64_t tag : withdrawn) {
            closeTagged(tag);
        }
        return true;
    }

    // ---- the bus

    bool connect() {
        if (bus_) {
            return true;
        }
        bus_ = openSessionBus(environment_, answerLimit);
        const bool isOpen = bus_ && listenFor("ActionInvoked", onActionInvoked) &&
                            listenFor("NotificationClosed", onNotificationClosed) &&
                            ::sd_bus_match_signal_async(bus_.get(), nullptr, busName, busPath, busName,
                                                        "NameOwnerChanged", onOwnerChanged, ignoreBusAnswer, this) >= 0;
        if (!isOpen) {
            disconnect();
        }
        return isOpen;
    }

    bool listenFor(const char* signal, sd_bus_message_handler_t handler) {
        return ::sd_bus_match_signal_async(bus_.get(), nullptr, daemonName, daemonPath, daemonName, signal, handler,
                                           ignoreBusAnswer, this) >= 0;
    }

    /// Everybody who waits is told that nothing more will come.
    void disconnect() {
        while (!waiting_.empty()) {
            finish(waiting_.begin(), "");
        }
        probeSlot_.reset(); // which would keep the bus
        bus_.reset();
        isThereAnswer_ = false;
        settleProbes(true);
    }

    void processBus() {
        if (bus_ && !processSessionBus(bus_.get())) {
            disconnect();
        }
    }

    [[nodiscard]] std::optional<SteadyClock::time_point> nextEnd() const {
        std::optional<SteadyClock::time_point> next;
        for (const Waiting& waiting : waiting_) {
            if (waiting.end && (!next || *waiting.end < *next)) {
                next = waiting.end;
            }
        }
        if (probesStarted_ > probesAnswered_ && (!next || probeEnd_ < *next)) {
            next = probeEnd_;
        }
        return next;
    }

    // ---- whether somebody is there

    /// A daemon that runs, or one that the bus would start.
    void startProbe() {
        isThereAnswer_ = false;
        probeEnd_ = SteadyClock::now() + 2 * probeLimit;
        probeSlot_.reset();
        if (!connect() || !probeBy("NameHasOwner", onHasOwner)) {
            settleProbes(true);
        }
    }

    bool probeBy(const char* method, sd_bus_message_handler_t handler) {
        sd_bus_slot* slot = nullptr;
        const bool takesName = handler == onHasOwner;
        const int result = takesName ? ::sd_bus_call_method_async(bus_.get(), &slot, busName, busPath, busName, method,
                                                                  handler, this, "s", daemonName)
                                     : ::sd_bus_call_method_async(bus_.get(), &slot, busName, busPath, busName, method,
                                                                  handler, this, nullptr);
        probeSlot_.reset(slot);
        return result >= 0;
    }

    void settleProbes(bool isOver) {
        if (!isOver) {
            return;
        }
        const std::lock_guard guard(lock_);
        probesAnswered_ = probesStarted_;
        probesDone_ = probesStarted_;
        isThere_ = isThereAnswer_;
        changed_.notify_all();
    }

    static int onHasOwner(sd_bus_message* message, void* data, sd_bus_error*) {
        auto* self = static_cast<Worker*>(data);
        int hasOwner = 0;
        if (::sd_bus_message_is_method_error(message, nullptr) == 0 &&
            ::sd_bus_message_read(message, "b", &hasOwner) > 0 && hasOwner != 0) {
            self->isThereAnswer_ = true;
            self->settleProbes(true);
        } else if (!self->probeBy("ListActivatableNames", onActivatable)) {
            self->settleProbes(true);
        }
        return 0;
    }

    static int onActivatable(sd_bus_message* message, void* data, sd_bus_error*) {
        auto* self = static_cast<Worker*>(data);
        std::vector<std::string> names;
        self->isThereAnswer_ = ::sd_bus_message_is_method_error(message, nullptr) == 0 && readStrings(message, names) &&
                               contains(names, daemonName);
        self->settleProbes(true);
        return 0;
    }

    // ---- showing

    /// What the daemon can do is asked each time: another one may have taken its place.
    void begin(Waiting fresh) {
        if (!connect()) {
            answer(fresh, "");
            return;
        }
        while (waiting_.size() >= maxWaiting) {
            finish(waiting_.begin(), "");
        }
        waiting_.push_back(std::move(fresh));
        Waiting& waiting = waiting_.back();
        if (::sd_bus_call_method_async(bus_.get(), &waiting.call, daemonName, daemonPath, daemonName, "GetCapabilities",
                                       onCapabilities, &waiting, nullptr) < 0) {
            finish(std::prev(waiting_.end()), "");
        }
    }

    [[nodiscard]] Place placeOf(const Waiting& waiting) {
        return std::find_if(waiting_.begin(), waiting_.end(), [&](const Waiting& other) { return &other == &waiting; });
    }

    void finish(Place place, const std::string& key) {
        answer(*place, key);
        ::sd_bus_slot_unref(place->call);
        waiting_.erase(place);
    }

    /// Only who shows a notification says what became of it. A match of the bus is no guard: it holds for signals to
    /// everybody, and any program can send one to us alone.
    void finishById(const std::string& sender, std::uint32_t id, const std::string& key) {
        const Place place = std::find_if(waiting_.begin(), waiting_.end(), [&](const Waiting& one) {
            return id != 0 && one.id == id && !sender.empty() && one.daemon == sender;
        });
        if (place != waiting_.end()) {
            finish(place, key);
        }
    }

    static int onCapabilities(sd_bus_message* message, void* data, sd_bus_error*) {
        auto& waiting = *static_cast<Waiting*>(data);
        Worker& self = *waiting.owner;
        std::vector<std::string> capabilities;
        if (::sd_bus_message_is_method_error(message, nullptr) > 0 || !readStrings(message, capabilities)) {
            self.finish(self.placeOf(waiting), "");
            return 0;
        }
        waiting.hasMarkup = contains(capabilities, "body-markup");
        waiting.daemon = senderOf(message);
        waiting.call = ::sd_bus_slot_unref(waiting.call);
        if (::sd_bus_call_method_async(self.bus_.get(), &waiting.call, busName, busPath, busName, "GetNameOwner",
                                       onOwner, &waiting, "s", daemonName) < 0) {
            self.finish(self.placeOf(waiting), "");
        }
        return 0;
    }

    /// Many a session's bus lets any program answer any call. What is the bus's own word, it lets nobody say.
    static int onOwner(sd_bus_message* message, void* data, sd_bus_error*) {
        auto& waiting = *static_cast<Waiting*>(data);
        Worker& self = *waiting.owner;
        waiting.call = ::sd_bus_slot_unref(waiting.call);
        const char* owner = nullptr;
        const bool isDaemon = senderOf(message) == busName && ::sd_bus_message_is_method_error(message, nullptr) == 0 &&
                              ::sd_bus_message_read(message, "s", &owner) > 0 && waiting.daemon == owner;
        if (!isDaemon || !self.notify(waiting)) {
            self.finish(self.placeOf(waiting), "");
        }
        return 0;
    }

    bool notify(Waiting& waiting) {
        const Notification& what = waiting.notification;
        const std::string title = plainText(what.title);
        const std::string body = waiting.hasMarkup ? escapedForMarkup(plainText(what.body)) : plainText(what.body);
        constexpr int asTheDesktopLikes = -1;
        const auto milliseconds = what.seconds > 0 ? static_cast<std::int32_t>(std::min(what.seconds * 1000, 86'400e3))
                                                   : std::int32_t{asTheDesktopLikes};
        constexpr std::uint8_t normal = 1;
        constexpr std::uint8_t critical = 2;
        sd_bus_message* made = nullptr;
        if (::sd_bus_message_new_method_call(bus_.get(), &made, waiting.daemon.c_str(), daemonPath, daemonName,
                                             "Notify") < 0) {
            return false;
        }
        const MessageRef call(made);
        bool isGood =
            ::sd_bus_message_append(made, "susss", "Orlinth", std::uint32_t{0}, "", title.c_str(), body.c_str()) >= 0 &&
            ::sd_bus_message_open_container(made, SD_BUS_TYPE_ARRAY, "s") >= 0;
        for (const auto& [key, label] : what.actions) {
            isGood =
                isGood && ::sd_bus_message_append(made, "ss", plainText(key).c_str(), plainText(label).c_str()) >= 0;
        }
        isGood = isGood && ::sd_bus_message_close_container(made) >= 0 &&
                 ::sd_bus_message_append(made, "a{sv}i", 1, "urgency", "y", what.isUrgent ? critical : normal,
                                         milliseconds) >= 0;
        return isGood && ::sd_bus_call_async(bus_.get(), &waiting.call, made, onNotified, &waiting, 0) >= 0;
    }

    static int onNotified(sd_bus_message* message, void* data, sd_bus_error*) {
        auto& waiting = *static_cast<Waiting*>(data);
        Worker& self = *waiting.owner;
        waiting.call = ::sd_bus_slot_unref(waiting.call);
        std::uint32_t id = 0;
        const bool isShown = senderOf(message) == waiting.daemon &&
                             ::sd_bus_message_is_method_error(message, nullptr) == 0 &&
                             ::sd_bus_message_read(message, "u", &id) > 0 && id != 0;
        if (!isShown || !waiting.onAnswer) {
            self.finish(self.placeOf(waiting), "");
            return 0;
        }
        waiting.id = id;
        if (waiting.notification.seconds > 0) {
            const std::chrono::duration<double> shownFor(std::min(waiting.notification.seconds, 86'400.0));
            waiting.end =
                SteadyClock::now() + std::chrono::duration_cast<SteadyClock::duration>(shownFor) + closingGrace;
        }
        if (waiting.isWithdrawn) {
            waiting.end = SteadyClock::now();
        }
        return 0;
    }

    /// Those that nobody wants an answer to any more. One that is just being shown is closed once it has a number.
    void closeTagged(std::uint64_t tag) {
        for (Waiting& waiting : waiting_) {
            if (tag != 0 && waiting.notification.tag == tag) {
                waiting.isWithdrawn = true;
                if (waiting.id != 0) {
                    waiting.end = SteadyClock::now();
                }
            }
        }
    }

    /// Those that should be gone by now, of daemons that keep them or do not tell.
    void closeExpired() {
        const auto now = SteadyClock::now();
        for (Place place = waiting_.begin(); place != waiting_.end();) {
            const Place current = place++;
            if (current->end && *current->end <= now) {
                static_cast<void>(::sd_bus_call_method_async(bus_.get(), nullptr, current->daemon.c_str(), daemonPath,
                                                             daemonName, "CloseNotification", ignoreBusAnswer, nullptr,
                                                             "u",
                                                             current->id)); // best effort: it is answered in any case
                finish(current, "");
            }
        }
    }

    // ---- what the daemon tells

    static int onActionInvoked(sd_bus_message* message, void* data, sd_bus_error*) {
        std::uint32_t id = 0;
        const char* key = nullptr;
        if (::sd_bus_message_read(message, "us", &id, &key) > 0) {
            static_cast<Worker*>(data)->finishById(senderOf(message), id, key);
        }
        return 0;
    }

    static int onNotificationClosed(sd_bus_message* message, void* data, sd_bus_error*) {
        std::uint32_t id = 0;
        std::uint32_t reason = 0;
        if (::sd_bus_message_read(message, "uu", &id, &reason) > 0) {
            static_cast<Worker*>(data)->finishById(senderOf(message), id, "");
        }
        return 0;
    }

    /// The numbers of a daemon that went away mean nothing to the next one, be it that another program has taken its
    /// name, or that its connection has ended.
    static int onOwnerChanged(sd_bus_message* message, void* data, sd_bus_error*) {
        auto* self = static_cast<Worker*>(data);
        const char* name = nullptr;
        const char* before = nullptr;
        const char* after = nullptr;
        if (senderOf(message) != busName || ::sd_bus_message_read(message, "sss", &name, &before, &after) <= 0 ||
            *before == '\0') {
            return 0;
        }
        const std::string daemon = before;
        if (name == std::string_view(daemonName) || name == daemon) {
            for (Place place = self->waiting_.begin(); place != self->waiting_.end();) {
                const Place current = place++;
                if (current->id != 0 && current->daemon == daemon) {
                    self->finish(current, "");
                }
            }
        }
        return 0;
    }

    const Environment environment_;
    const int wakeUp_;

    std::mutex lock_; ///< guards the next eight
    std::condition_variable changed_;
    std::deque<Waiting> incoming_;
    std::vector<std::uint64_t> withdrawn_;
    bool isStopping_ = false;
    std::uint64_t probesWanted_ = 0;
    std::uint64_t probesDone_ = 0;
    bool isThere_ = false;
    std::thread thread_;

    SessionBusRef bus_;
    std::list<Waiting> waiting_;
    BusSlotRef probeSlot_;
    bool isThereAnswer_ = false;
    std::uint64_t probesStarted_ = 0;
    std::uint64_t probesAnswered_ = 0;
    SteadyClock::time_point probeEnd_;
};

LinuxNotifications::LinuxNotifications(Environment environment) : worker_(std::make_unique<Worker>(environment)) {}

LinuxNotifications::~LinuxNotifications() = default;

bool LinuxNotifications::isAvailable() {
    return worker_->probe();
}

void LinuxNotifications::show(Notification notification, Executor executor,
                              std::function<void(const std::string&)> onAnswer) {
    worker_->show(std::move(notification), std::move(executor), std::move(onAnswer));
}

void LinuxNotifications::withdraw(std::uint64_t tag) {
    worker_->withdraw(tag);
}

} // namespace orlinth::platform
