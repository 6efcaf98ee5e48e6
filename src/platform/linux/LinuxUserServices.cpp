#include "platform/linux/LinuxUserServices.h"

#include "base/Error.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string_view>
#include <utility>

namespace orlinth::platform {
namespace {

using Outcome = ServiceStart::Outcome;
using SteadyClock = std::chrono::steady_clock;

constexpr const char* bus = "org.freedesktop.DBus";
constexpr const char* busObject = "/org/freedesktop/DBus";
constexpr const char* systemdName = "org.freedesktop.systemd1";
constexpr const char* managerObject = "/org/freedesktop/systemd1";
constexpr const char* managerInterface = "org.freedesktop.systemd1.Manager";
constexpr const char* noReply = "org.freedesktop.DBus.Error.NoReply";

/// What the bus answers where nobody has the name, and systemd where it has no such unit.
bool saysThatThereIsNone(std::string_view error) {
    constexpr std::array<std::string_view, 5> names{
        "org.freedesktop.DBus.Error.ServiceUnknown", "org.freedesktop.DBus.Error.NameHasNoOwner",
        "org.freedesktop.DBus.Error.FileNotFound", "org.freedesktop.systemd1.NoSuchUnit", "System.Error.ENOENT"};
    return std::ranges::find(names, error) != names.end();
}

/// What the bus answers where there is no systemd: its service is described on many systems, by a program that fails.
bool saysThatItCannotBeStarted(std::string_view error) {
    return error.starts_with("org.freedesktop.DBus.Error.Spawn.");
}

/// What somebody on the bus has answered.
struct Answer {
    std::string error = {};   ///< the name of the error; "" if it is none
    std::string problem = {}; ///< its text
    std::string text = {};    ///< the object that a good answer names, if it names one
    bool isYes = false;       ///< the good answer to a question
};

/// Some calls on one connection, one after the other. On one thread.
class Conversation {
public:
    Conversation(BusEnvironment environment, std::chrono::milliseconds limit)
        : limit_(limit), bus_(openSessionBus(environment, limit)) {}
    Conversation(const Conversation&) = delete;
    Conversation& operator=(const Conversation&) = delete;
    ~Conversation() = default;

    [[nodiscard]] bool isOpen() const noexcept { return bus_ != nullptr; }

    /// Nothing if the connection is lost.
    template <typename... Arguments>
    std::optional<Answer> ask(const char* whom, const char* object, const char* interface, const char* method,
                              const char* types, Arguments... arguments) {
        sd_bus_message* made = nullptr;
        if (systemd().sd_bus_message_new_method_call(bus_.get(), &made, whom, object, interface, method) < 0) {
            return std::nullopt;
        }
        const BusMessageRef message(made);
        sd_bus_slot* slot = nullptr;
        answer_.reset();
        if (systemd().sd_bus_message_append(made, types, arguments...) < 0 ||
            systemd().sd_bus_call_async(bus_.get(), &slot, made, onAnswer, this,
                                        static_cast<std::uint64_t>(std::chrono::microseconds(limit_).count())) < 0) {
            return std::nullopt;
        }
        const BusSlotRef kept(slot);
        waitUntil([this] { return answer_.has_value(); });
        return std::exchange(answer_, std::nullopt);
    }
    /// A bus that has only just begun waits for the manager, which is about to come to it.
    template <typename... Arguments>
    std::optional<Answer> askManager(const char* method, const char* types, Arguments... arguments) {
        return ask(systemdName, managerObject, managerInterface, method, types, arguments...);
    }

    /// Hears from now on how the manager's jobs end.
    bool listenForJobs() {
        sd_bus_slot* slot = nullptr;
        const bool listens =
            systemd().sd_bus_match_signal_async(bus_.get(), &slot, systemdName, managerObject, managerInterface,
                                                "JobRemoved", onJob, ignoreBusAnswer, this) >= 0;
        jobSlot_.reset(slot);
        return listens;
    }
    /// How this one has ended; "" if it has not in time.
    std::string resultOf(const std::string& job) {
        waitUntil([this, &job] { return jobs_.contains(job); });
        return jobs_.contains(job) ? jobs_.at(job) : "";
    }

private:
    void waitUntil(const std::function<bool()>& isDone) {
        const SteadyClock::time_point end = SteadyClock::now() + limit_ + margin;
        while (!isDone() && processSessionBus(bus_.get()) && !isDone() && SteadyClock::now() < end) {
            waitForSessionBus(bus_.get(), end);
        }
    }

    static int onAnswer(sd_bus_message* message, void* data, sd_bus_error* /*error*/) {
        Answer answer;
        if (const sd_bus_error* const error = systemd().sd_bus_message_get_error(message)) {
            answer.error = error->name != nullptr ? error->name : "";
            answer.problem = error->message != nullptr ? error->message : answer.error;
        } else {
            const char* text = nullptr;
            int isYes = 0;
            if (systemd().sd_bus_message_read_basic(message, SD_BUS_TYPE_OBJECT_PATH, static_cast<void*>(&text)) > 0) {
                answer.text = text;
            } else if (systemd().sd_bus_message_read_basic(message, SD_BUS_TYPE_BOOLEAN, &isYes) > 0) {
                answer.isYes = isYes != 0;
            }
        }
        static_cast<Conversation*>(data)->answer_ = std::move(answer);
        return 0;
    }

    static int onJob(sd_bus_message* message, void* data, sd_bus_error* /*error*/) {
        std::uint32_t id = 0;
        const char* job = nullptr;
        const char* unit = nullptr;
        const char* result = nullptr;
        if (systemd().sd_bus_message_read(message, "uoss", &id, &job, &unit, &result) > 0) {
            static_cast<Conversation*>(data)->jobs_.insert_or_assign(job, result);
        }
        return 0;
    }

    /// The library tells of a call that was not answered in time; we are not to be quicker.
    static constexpr std::chrono::milliseconds margin{250};

    const std::chrono::milliseconds limit_;
    SessionBusRef bus_;
    BusSlotRef jobSlot_; // declared behind the bus, so that it goes first
    std::optional<Answer> answer_;
    std::map<std::string, std::string> jobs_;
};

ServiceStart failed(std::string problem) {
    return {.outcome = Outcome::failed, .problem = std::move(problem)};
}

ServiceStart problemOf(const Answer& answer) {
    if (saysThatThereIsNone(answer.error)) {
        return {};
    }
    return failed(answer.error == noReply ? "no answer in time" : answer.problem);
}

ServiceStart problemOfManager(const std::optional<Answer>& answer) {
    return answer && !saysThatItCannotBeStarted(answer->error) ? problemOf(*answer) : ServiceStart();
}

ServiceStart startUnit(Conversation& conversation, const std::string& unit) {
    if (!conversation.listenForJobs()) {
        return {};
    }
    // without it, the manager tells nobody of its jobs
    if (const std::optional<Answer> answer = conversation.askManager("Subscribe", "");
        !answer || !answer->error.empty()) {
        return problemOfManager(answer);
    }
    const std::optional<Answer> answer = conversation.askManager("StartUnit", "ss", unit.c_str(), "replace");
    if (!answer || !answer->error.empty()) {
        return problemOfManager(answer);
    }
    const std::string result = conversation.resultOf(answer->text);
    if (result == "done") {
        return {.outcome = Outcome::running};
    }
    return failed(result.empty() ? "it did not start in time" : "systemd reports: " + result);
}

} // namespace

ServiceStart LinuxUserServices::start(const UserService& service) {
    Conversation conversation(environment_, limit_);
    if (!conversation.isOpen()) {
        return {};
    }
    // the bus starts only what it knows, also if that runs
    if (const std::optional<Answer> runs =
            conversation.ask(bus, busObject, bus, "NameHasOwner", "s", service.busName.c_str());
        !runs || runs->isYes) {
        return {.outcome = runs ? Outcome::running : Outcome::unknown};
    }
    constexpr std::uint32_t noFlags = 0;
    const std::optional<Answer> answer =
        conversation.ask(bus, busObject, bus, "StartServiceByName", "su", service.busName.c_str(), noFlags);
    if (!answer) {
        return {};
    }
    if (answer->error.empty()) {
        return {.outcome = Outcome::running};
    }
    const ServiceStart byUnit = answer->error == noReply ? ServiceStart() : startUnit(conversation, service.unit);
    return byUnit.outcome != Outcome::unknown ? byUnit : problemOf(*answer);
}

ServiceStart LinuxUserServices::enable(const UserService& service) {
    Conversation conversation(environment_, limit_);
    if (!conversation.isOpen()) {
        return {};
    }
    constexpr unsigned one = 1;
    constexpr int isNotForThisSessionOnly = 0;
    constexpr int replacesNothing = 0;
    const std::optional<Answer> enabled = conversation.askManager("EnableUnitFiles", "asbb", one, service.unit.c_str(),
                                                                  isNotForThisSessionOnly, replacesNothing);
    if (!enabled || !enabled->error.empty()) {
        return problemOfManager(enabled);
    }
    if (const std::optional<Answer> answer = conversation.askManager("Reload", ""); !answer || !answer->error.empty()) {
        return problemOfManager(answer);
    }
    return startUnit(conversation, service.unit);
}

} // namespace orlinth::platform
