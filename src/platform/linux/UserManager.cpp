#include "platform/linux/UserManager.h"

#include <cstdint>
#include <unistd.h>
#include <utility>

namespace orlinth::platform {
namespace {

constexpr const char* service = "org.freedesktop.systemd1";
constexpr const char* object = "/org/freedesktop/systemd1";
constexpr const char* manager = "org.freedesktop.systemd1.Manager";
constexpr const char* properties = "org.freedesktop.DBus.Properties";

/// One question on a connection of its own.
class Question {
public:
    explicit Question(BusEnvironment environment)
        : end_(std::chrono::steady_clock::now() + UserManager::answerLimit),
          bus_(openSessionBus(environment, UserManager::answerLimit)) {
        isSent_ = bus_ && send();
    }
    Question(const Question&) = delete;
    Question& operator=(const Question&) = delete;
    ~Question() = default;

    std::optional<std::vector<std::string>> answer() {
        while (isSent_ && !isAnswered_ && processSessionBus(bus_.get()) && !isAnswered_ &&
               std::chrono::steady_clock::now() < end_) {
            waitForSessionBus(bus_.get(), end_);
        }
        return std::move(variables_);
    }

private:
    bool send() {
        sd_bus_message* made = nullptr;
        if (systemd().sd_bus_message_new_method_call(bus_.get(), &made, service, object, properties, "Get") < 0) {
            return false;
        }
        const BusMessageRef message(made);
        sd_bus_slot* slot = nullptr;
        const bool isSent =
            systemd().sd_bus_message_set_auto_start(made, 0) >= 0 &&
            systemd().sd_bus_message_append(made, "ss", manager, "Environment") >= 0 &&
            systemd().sd_bus_call_async(bus_.get(), &slot, made, onAnswer, this,
                                        std::chrono::microseconds(UserManager::answerLimit).count()) >= 0;
        slot_.reset(slot);
        return isSent;
    }

    static int onAnswer(sd_bus_message* message, void* data, sd_bus_error*) {
        auto& self = *static_cast<Question*>(data);
        self.isAnswered_ = true;
        if (systemd().sd_bus_message_is_method_error(message, nullptr) == 0) {
            self.variables_ = read(message);
        }
        return 0;
    }

    static std::optional<std::vector<std::string>> read(sd_bus_message* message) {
        if (systemd().sd_bus_message_enter_container(message, SD_BUS_TYPE_VARIANT, "as") <= 0 ||
            systemd().sd_bus_message_enter_container(message, SD_BUS_TYPE_ARRAY, "s") <= 0) {
            return std::nullopt;
        }
        std::vector<std::string> variables;
        const char* variable = nullptr;
        while (variables.size() < UserManager::maxVariables &&
               systemd().sd_bus_message_read_basic(message, SD_BUS_TYPE_STRING, static_cast<void*>(&variable)) > 0) {
            variables.emplace_back(variable);
        }
        return variables;
    }

    std::chrono::steady_clock::time_point end_;
    SessionBusRef bus_;
    BusSlotRef slot_; // declared behind the bus, so that it goes first
    bool isSent_ = false;
    bool isAnswered_ = false;
    std::optional<std::vector<std::string>> variables_;
};

} // namespace

std::optional<std::vector<std::string>> UserManager::variables() const {
    return Question(environment_).answer();
}

bool UserManager::hasStartedUs() const {
    const char* const id = environment_("SYSTEMD_EXEC_PID"); // systemd.exec(5); children inherit it too
    return id != nullptr && id == std::to_string(::getpid());
}

} // namespace orlinth::platform
