#include "platform/linux/LinuxNotifications.h"

#include "base/Text.h"
#include "platform/linux/BusLoop.h"
#include "platform/linux/SessionBus.h"

#include <asio/post.hpp>
#include <asio/steady_timer.hpp>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <list>
#include <optional>

namespace orlinth::platform {
namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr const char* daemonName = "org.freedesktop.Notifications";
constexpr const char* daemonPath = "/org/freedesktop/Notifications";
constexpr const char* busName = "org.freedesktop.DBus";
constexpr const char* busPath = "/org/freedesktop/DBus";

/// How long the bus and the daemon may take for an answer.
constexpr auto answerLimit = 10s;
/// How long isAvailable() waits for the bus.
constexpr auto probeLimit = 250ms;
/// How long those that are on their way have to reach the daemon at the end.
constexpr auto leavingLimit = 250ms;
/// What a notification that should go by itself is given beyond its time before it is taken away.
constexpr auto closingGrace = 1s;
/// How long one may stay that should go by itself.
constexpr Seconds longestShown = 24h;
/// Notifications whose answer is waited for; of more the oldest counts as closed. Some daemons never say so.
constexpr std::size_t maxWaiting = 256;
/// The desktop file of the application, by which a desktop knows whose notification it is.
constexpr const char* desktopEntry = "com.tarvinex.orlinth";
/// The server that brings the application of `desktopEntry` to the front itself if a notification without an action for
/// a click is clicked. With one it would leave that to us, and gives us no token for it.
constexpr const char* raisingServer = "gnome-shell";
/// A longer token is none.
constexpr std::size_t maxTokenBytes = 1024;

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
    if (systemd().sd_bus_message_enter_container(message, SD_BUS_TYPE_ARRAY, "s") < 0) {
        return false;
    }
    const char* text = nullptr;
    while (systemd().sd_bus_message_read_basic(message, SD_BUS_TYPE_STRING, static_cast<void*>(&text)) > 0) {
        strings.emplace_back(text);
    }
    return true;
}

bool contains(const std::vector<std::string>& strings, const char* text) {
    return std::find(strings.begin(), strings.end(), text) != strings.end();
}

/// Who has sent the message: the unique name of a connection, which the bus fills in and nobody can choose.
std::string senderOf(sd_bus_message* message) {
    const char* const sender = systemd().sd_bus_message_get_sender(message);
    return sender == nullptr ? "" : sender;
}

} // namespace

/// The bus, and the notifications that are shown.
class LinuxNotifications::Worker : public std::enable_shared_from_this<Worker> {
public:
    Worker(const Executor& executor, Environment environment)
        : loop_(executor, environment, answerLimit, [this] { disconnect(); }), executor_(executor) {}
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    /// Whether somebody is there: a daemon that runs, or one that the bus would start.
    bool probe() {
        // A bus that has not answered the question before hangs; it is not waited for again.
        if (isProbing_ && !loop_.runUntil([this] { return !isProbing_; }, SteadyClock::now())) {
            return false;
        }
        isThere_ = false;
        isProbing_ = connect() && probeBy("NameHasOwner", onHasOwner);
        const bool isAnswered = loop_.runUntil([this] { return !isProbing_; }, SteadyClock::now() + probeLimit);
        const bool isThere = isAnswered && isThere_;
        leaveIfClosed();
        return isThere;
    }

    void show(Notification notification, Executor executor, OnAnswer onAnswer) {
        if (Waiting* const before = shownAs(notification.tag)) {
            before->notification = std::move(notification);
            before->executor = std::move(executor);
            before->onAnswer = std::move(onAnswer);
            before->token.clear();
            before->end.reset();
            showAgain(*before);
        } else {
            begin({.owner = this,
                   .notification = std::move(notification),
                   .executor = std::move(executor),
                   .onAnswer = std::move(onAnswer)});
        }
        loop_.wake();
        leaveIfClosed();
    }

    void withdraw(std::uint64_t tag) {
        closeTagged(tag);
        closeExpired();
        leaveIfClosed();
    }

    /// Lets those that are on their way to the daemon arrive there, for a moment. Then nobody waits for anything any
    /// more, and what comes later is sent in the same way.
    void close() {
        isClosed_ = true;
        leaveIfClosed();
    }

private:
    /// A notification from show() to its answer.
    struct Waiting {
        Worker* owner;
        Notification notification;
        Executor executor;
        OnAnswer onAnswer;
        std::uint32_t id = 0;    ///< the daemon's; 0 while it has none
        std::string daemon = {}; ///< the unique name of the connection that shows it
        std::string server = {}; ///< what that calls itself
        std::string token = {};  ///< that has come for the press which comes next
        std::optional<SteadyClock::time_point> end = {};
        bool hasMarkup = false;
        bool isWithdrawn = false;    ///< closed as soon as it has a number
        bool isOutdated = false;     ///< something else took its place while it was on its way
        sd_bus_slot* call = nullptr; ///< of the call under way; released with the notification
    };
    using Place = std::list<Waiting>::iterator;

    static void answer(Waiting& waiting, const std::string& key) {
        tell(waiting, std::exchange(waiting.onAnswer, nullptr), key);
    }

    static void tell(Waiting& waiting, OnAnswer onAnswer, const std::string& key) {
        if (onAnswer) {
            asio::post(waiting.executor,
                       [onAnswer = std::move(onAnswer),
                        answer = NotificationAnswer{.key = key,
                                                    .token = std::exchange(waiting.token, {}),
                                                    .wasShown = waiting.id != 0}] { onAnswer(answer); });
        }
    }

    // ---- the bus

    bool connect() {
        if (loop_.get() != nullptr) {
            return true;
        }
        const bool isOpen = loop_.open() && listenFor("ActionInvoked", onActionInvoked) &&
                            listenFor("NotificationClosed", onNotificationClosed) &&
                            listenFor("ActivationToken", onActivationToken) &&
                            systemd().sd_bus_add_match_async(loop_.get(), nullptr, daemonsOwnerRule().c_str(),
                                                             onOwnerChanged, ignoreBusAnswer, this) >= 0;
        if (!isOpen) {
            disconnect();
        }
        return isOpen;
    }

    /// Not for every program that comes to the bus or leaves it: each would wake us up.
    static std::string daemonsOwnerRule() {
        return std::string("type='signal',sender='") + busName + "',path='" + busPath + "',interface='" + busName +
               "',member='NameOwnerChanged',arg0='" + daemonName + "'";
    }

    bool listenFor(const char* signal, sd_bus_message_handler_t handler) {
        return systemd().sd_bus_match_signal_async(loop_.get(), nullptr, daemonName, daemonPath, daemonName, signal,
                                                   handler, ignoreBusAnswer, this) >= 0;
    }

    /// Everybody who waits is told that nothing more will come.
    void disconnect() {
        while (!waiting_.empty()) {
            finish(waiting_.begin(), "");
        }
        closing_.reset();
        probe_.reset(); // which would keep the bus
        isProbing_ = false;
        isThere_ = false;
        loop_.close();
    }

    void leaveIfClosed() {
        if (isClosed_ && loop_.get() != nullptr) {
            loop_.runUntil([this] { return isAllShown(); }, SteadyClock::now() + leavingLimit);
            closeExpired();
            disconnect();
        }
    }

    [[nodiscard]] bool isAllShown() const {
        return std::ranges::all_of(waiting_,
                                   [](const Waiting& waiting) { return waiting.id != 0 && waiting.call == nullptr; });
    }

    // ---- whether somebody is there

    bool probeBy(const char* method, sd_bus_message_handler_t handler) {
        sd_bus_slot* slot = nullptr;
        const bool takesName = handler == onHasOwner;
        const int result = takesName ? systemd().sd_bus_call_method_async(loop_.get(), &slot, busName, busPath, busName,
                                                                          method, handler, this, "s", daemonName)
                                     : systemd().sd_bus_call_method_async(loop_.get(), &slot, busName, busPath, busName,
                                                                          method, handler, this, nullptr);
        probe_.reset(slot);
        return result >= 0;
    }

    static int onHasOwner(sd_bus_message* message, void* data, sd_bus_error*) {
        auto* self = static_cast<Worker*>(data);
        int hasOwner = 0;
        self->isThere_ = systemd().sd_bus_message_is_method_error(message, nullptr) == 0 &&
                         systemd().sd_bus_message_read(message, "b", &hasOwner) > 0 && hasOwner != 0;
        self->isProbing_ = !self->isThere_ && self->probeBy("ListActivatableNames", onActivatable);
        return 0;
    }

    static int onActivatable(sd_bus_message* message, void* data, sd_bus_error*) {
        auto* self = static_cast<Worker*>(data);
        std::vector<std::string> names;
        self->isThere_ = systemd().sd_bus_message_is_method_error(message, nullptr) == 0 &&
                         readStrings(message, names) && contains(names, daemonName);
        self->isProbing_ = false;
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
        if (systemd().sd_bus_call_method_async(loop_.get(), &waiting.call, daemonName, daemonPath, daemonName,
                                               "GetCapabilities", onCapabilities, &waiting, nullptr) < 0) {
            finish(std::prev(waiting_.end()), "");
        }
    }

    /// The one of this tag that is shown, or on its way; null if there is none that anything could take the place of.
    [[nodiscard]] Waiting* shownAs(std::uint64_t tag) {
        const Place place = std::ranges::find_if(waiting_, [tag](const Waiting& waiting) {
            return tag != 0 && waiting.notification.tag == tag && !waiting.isWithdrawn;
        });
        return place == waiting_.end() ? nullptr : &*place;
    }

    /// What it says now. One that is on its way is shown again once it has its number.
    void showAgain(Waiting& waiting) {
        if (waiting.call != nullptr) {
            waiting.isOutdated = true;
        } else if (!notify(waiting)) {
            finish(placeOf(waiting), "");
        }
    }

    [[nodiscard]] Place placeOf(const Waiting& waiting) {
        return std::find_if(waiting_.begin(), waiting_.end(), [&](const Waiting& other) { return &other == &waiting; });
    }

    void finish(Place place, const std::string& key) {
        answer(*place, key);
        systemd().sd_bus_slot_unref(place->call);
        waiting_.erase(place);
    }

    /// Only who shows a notification says what became of it. A match of the bus is no guard: it holds for signals to
    /// everybody, and any program can send one to us alone.
    [[nodiscard]] Place placeOf(const std::string& sender, std::uint32_t id) {
        return std::find_if(waiting_.begin(), waiting_.end(), [&](const Waiting& one) {
            return id != 0 && one.id == id && !sender.empty() && one.daemon == sender;
        });
    }

    void take(const std::string& sender, std::uint32_t id, const std::string& key) {
        const Place place = placeOf(sender, id);
        if (place == waiting_.end()) {
            return;
        }
        if (!key.empty() && place->notification.isResident) {
            tell(*place, place->onAnswer, key);
        } else if (place->call != nullptr) { // what is on its way in its place would bring it back
            answer(*place, key);
            place->isWithdrawn = true;
        } else {
            finish(place, key);
        }
    }

    static int onCapabilities(sd_bus_message* message, void* data, sd_bus_error*) {
        auto& waiting = *static_cast<Waiting*>(data);
        Worker& self = *waiting.owner;
        std::vector<std::string> capabilities;
        if (systemd().sd_bus_message_is_method_error(message, nullptr) > 0 || !readStrings(message, capabilities)) {
            self.finish(self.placeOf(waiting), "");
            return 0;
        }
        waiting.hasMarkup = contains(capabilities, "body-markup");
        waiting.daemon = senderOf(message);
        waiting.call = systemd().sd_bus_slot_unref(waiting.call);
        if (systemd().sd_bus_call_method_async(self.loop_.get(), &waiting.call, waiting.daemon.c_str(), daemonPath,
                                               daemonName, "GetServerInformation", onServer, &waiting, nullptr) < 0) {
            self.finish(self.placeOf(waiting), "");
        }
        return 0;
    }

    /// Only what it is called matters. One that does not say so is none that needs a special treatment.
    static int onServer(sd_bus_message* message, void* data, sd_bus_error*) {
        auto& waiting = *static_cast<Waiting*>(data);
        Worker& self = *waiting.owner;
        const char* name = nullptr;
        if (senderOf(message) == waiting.daemon && systemd().sd_bus_message_is_method_error(message, nullptr) == 0 &&
            systemd().sd_bus_message_read(message, "s", &name) > 0) {
            waiting.server = name;
        }
        waiting.call = systemd().sd_bus_slot_unref(waiting.call);
        if (systemd().sd_bus_call_method_async(self.loop_.get(), &waiting.call, busName, busPath, busName,
                                               "GetNameOwner", onOwner, &waiting, "s", daemonName) < 0) {
            self.finish(self.placeOf(waiting), "");
        }
        return 0;
    }

    /// Many a session's bus lets any program answer any call. What is the bus's own word, it lets nobody say.
    static int onOwner(sd_bus_message* message, void* data, sd_bus_error*) {
        auto& waiting = *static_cast<Waiting*>(data);
        Worker& self = *waiting.owner;
        waiting.call = systemd().sd_bus_slot_unref(waiting.call);
        const char* owner = nullptr;
        const bool isDaemon = senderOf(message) == busName &&
                              systemd().sd_bus_message_is_method_error(message, nullptr) == 0 &&
                              systemd().sd_bus_message_read(message, "s", &owner) > 0 && waiting.daemon == owner;
        if (!isDaemon || !self.notify(waiting)) {
            self.finish(self.placeOf(waiting), "");
        }
        return 0;
    }

    bool notify(Waiting& waiting) {
        const Notification& what = waiting.notification;
        waiting.isOutdated = false;
        const std::string title = plainText(what.title);
        const std::string body = waiting.hasMarkup ? escapedForMarkup(plainText(what.body)) : plainText(what.body);
        constexpr int asTheDesktopLikes = -1;
        const auto shownFor =
            std::chrono::duration_cast<std::chrono::milliseconds>(std::min(what.shownFor, longestShown));
        const auto milliseconds =
            what.shownFor > 0s ? static_cast<std::int32_t>(shownFor.count()) : std::int32_t{asTheDesktopLikes};
        sd_bus_message* made = nullptr;
        if (systemd().sd_bus_message_new_method_call(loop_.get(), &made, waiting.daemon.c_str(), daemonPath, daemonName,
                                                     "Notify") < 0) {
            return false;
        }
        const BusMessageRef call(made);
        const bool isGood = systemd().sd_bus_message_append(made, "susss", "Orlinth", waiting.id, "", title.c_str(),
                                                            body.c_str()) >= 0 &&
                            appendActions(made, waiting) && appendHints(made, what) &&
                            systemd().sd_bus_message_append(made, "i", milliseconds) >= 0;
        return isGood && systemd().sd_bus_call_async(loop_.get(), &waiting.call, made, onNotified, &waiting, 0) >= 0;
    }

    static bool appendActions(sd_bus_message* call, const Waiting& waiting) {
        const Notification& what = waiting.notification;
        const auto append = [call](const std::string& key, const std::string& label) {
            return systemd().sd_bus_message_append(call, "ss", plainText(key).c_str(), plainText(label).c_str()) >= 0;
        };
        bool isGood = systemd().sd_bus_message_open_container(call, SD_BUS_TYPE_ARRAY, "s") >= 0;
        if (!what.clickLabel.empty() && !(what.isClickForWindow && waiting.server == raisingServer)) {
            isGood = isGood && append(Notification::clickKey, what.clickLabel);
        }
        for (const auto& [key, label] : what.actions) {
            isGood = isGood && append(key, label);
        }
        return isGood && systemd().sd_bus_message_close_container(call) >= 0;
    }

    static bool appendHints(sd_bus_message* call, const Notification& what) {
        constexpr std::uint8_t low = 0;
        constexpr std::uint8_t normal = 1;
        constexpr std::uint8_t critical = 2;
        const int urgency = what.isUrgent ? critical : what.isQuiet ? low : normal;
        const auto append = [call](const char* hint, const char* type, auto value) {
            return systemd().sd_bus_message_append(call, "{sv}", hint, type, value) >= 0;
        };
        return systemd().sd_bus_message_open_container(call, SD_BUS_TYPE_ARRAY, "{sv}") >= 0 &&
               append("desktop-entry", "s", desktopEntry) && append("urgency", "y", urgency) &&
               (what.category.empty() || append("category", "s", what.category.c_str())) &&
               (!what.percent || append("value", "i", std::int32_t{std::clamp(*what.percent, 0, 100)})) &&
               (!what.isResident || append("resident", "b", 1)) && (!what.isTransient || append("transient", "b", 1)) &&
               systemd().sd_bus_message_close_container(call) >= 0;
    }

    static int onNotified(sd_bus_message* message, void* data, sd_bus_error*) {
        auto& waiting = *static_cast<Waiting*>(data);
        Worker& self = *waiting.owner;
        waiting.call = systemd().sd_bus_slot_unref(waiting.call);
        std::uint32_t id = 0;
        const bool isShown = senderOf(message) == waiting.daemon &&
                             systemd().sd_bus_message_is_method_error(message, nullptr) == 0 &&
                             systemd().sd_bus_message_read(message, "u", &id) > 0 && id != 0;
        const bool isAwaited = waiting.onAnswer || waiting.notification.tag != 0;
        if (!isShown || !isAwaited) {
            self.finish(self.placeOf(waiting), "");
            return 0;
        }
        waiting.id = id;
        if (waiting.isOutdated && !waiting.isWithdrawn) {
            self.showAgain(waiting);
            return 0;
        }
        if (waiting.notification.shownFor > 0s) {
            const auto shownFor = std::chrono::duration_cast<SteadyClock::duration>(
                std::min(waiting.notification.shownFor, longestShown));
            waiting.end = SteadyClock::now() + shownFor + closingGrace;
        }
        if (waiting.isWithdrawn) {
            waiting.end = SteadyClock::now();
        }
        self.closeLater();
        return 0;
    }

    /// Those that nobody wants an answer to any more. One that is just being shown is closed once it has a number.
    void closeTagged(std::uint64_t tag) {
        for (Waiting& waiting : waiting_) {
            if (tag != 0 && waiting.notification.tag == tag) {
                waiting.isWithdrawn = true;
                if (waiting.id != 0 && waiting.call == nullptr) {
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
                static_cast<void>(
                    systemd().sd_bus_call_method_async(loop_.get(), nullptr, current->daemon.c_str(), daemonPath,
                                                       daemonName, "CloseNotification", ignoreBusAnswer, nullptr, "u",
                                                       current->id)); // best effort: it is answered in any case
                finish(current, "");
            }
        }
        loop_.wake();
        closeLater();
    }

    /// When the next one should be gone.
    void closeLater() {
        std::optional<SteadyClock::time_point> next;
        for (const Waiting& waiting : waiting_) {
            if (waiting.end && (!next || *waiting.end < *next)) {
                next = waiting.end;
            }
        }
        if (!next) {
            closing_.reset();
            return;
        }
        if (!closing_) {
            closing_.emplace(executor_);
        }
        closing_->expires_at(*next);
        closing_->async_wait([weak = weak_from_this()](std::error_code code) {
            const std::shared_ptr<Worker> self = weak.lock();
            if (!code && self) {
                self->closeExpired(); // of an alarm that was set anew meanwhile: nothing has expired
            }
        });
    }

    // ---- what the daemon tells

    static int onActionInvoked(sd_bus_message* message, void* data, sd_bus_error*) {
        std::uint32_t id = 0;
        const char* key = nullptr;
        if (systemd().sd_bus_message_read(message, "us", &id, &key) > 0) {
            static_cast<Worker*>(data)->take(senderOf(message), id, key);
        }
        return 0;
    }

    static int onNotificationClosed(sd_bus_message* message, void* data, sd_bus_error*) {
        std::uint32_t id = 0;
        std::uint32_t reason = 0;
        if (systemd().sd_bus_message_read(message, "uu", &id, &reason) > 0) {
            static_cast<Worker*>(data)->take(senderOf(message), id, "");
        }
        return 0;
    }

    /// Comes before the press that it is for.
    static int onActivationToken(sd_bus_message* message, void* data, sd_bus_error*) {
        auto* self = static_cast<Worker*>(data);
        std::uint32_t id = 0;
        const char* token = nullptr;
        if (systemd().sd_bus_message_read(message, "us", &id, &token) > 0 &&
            std::string_view(token).size() <= maxTokenBytes) {
            if (const Place place = self->placeOf(senderOf(message), id); place != self->waiting_.end()) {
                place->token = token;
            }
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
        if (senderOf(message) != busName ||
            systemd().sd_bus_message_read(message, "sss", &name, &before, &after) <= 0 || *before == '\0') {
            return 0;
        }
        const std::string daemon = before;
        if (name == std::string_view(daemonName)) {
            for (Place place = self->waiting_.begin(); place != self->waiting_.end();) {
                const Place current = place++;
                if (current->id != 0 && current->daemon == daemon) {
                    self->finish(current, "");
                }
            }
        }
        return 0;
    }

    BusLoop loop_;
    const Executor executor_;
    std::optional<asio::steady_timer> closing_; ///< until the next one should be gone
    std::list<Waiting> waiting_;
    BusSlotRef probe_;       ///< the last question whether somebody is there
    bool isProbing_ = false; ///< and it has no answer yet
    bool isThere_ = false;
    bool isClosed_ = false;
};

LinuxNotifications::LinuxNotifications(const Executor& executor, Environment environment)
    : worker_(std::make_shared<Worker>(executor, environment)) {}

LinuxNotifications::~LinuxNotifications() {
    try {
        worker_->close();
    } catch (const std::exception&) {
        return; // no memory to tell the rest that nothing more will come
    }
}

bool LinuxNotifications::isAvailable() {
    return worker_->probe();
}

void LinuxNotifications::show(Notification notification, Executor executor, OnAnswer onAnswer) {
    worker_->show(std::move(notification), std::move(executor), std::move(onAnswer));
}

void LinuxNotifications::withdraw(std::uint64_t tag) {
    worker_->withdraw(tag);
}

void LinuxNotifications::close() {
    worker_->close();
}

} // namespace orlinth::platform
