#include "platform/linux/SessionCalls.h"

#include "base/Hex.h"

#include <cstdint>
#include <functional>
#include <string_view>
#include <utility>

namespace orlinth::platform {
namespace {

using SteadyClock = std::chrono::steady_clock;

/// One call on a connection of its own.
class SessionCall {
public:
    /// `append` adds the arguments, and returns whether it could.
    SessionCall(BusEnvironment environment, const char* service, const char* path, const char* interface,
                const char* method, const std::function<bool(sd_bus_message*)>& append)
        : end_(SteadyClock::now() + sessionCallLimit), bus_(openSessionBus(environment, sessionCallLimit)) {
        sd_bus_message* made = nullptr;
        if (!bus_ ||
            systemd().sd_bus_message_new_method_call(bus_.get(), &made, service, path, interface, method) < 0) {
            return;
        }
        const BusMessageRef message(made);
        sd_bus_slot* slot = nullptr;
        isSent_ = append(made) && systemd().sd_bus_call_async(bus_.get(), &slot, made, onAnswer, this,
                                                              std::chrono::microseconds(sessionCallLimit).count()) >= 0;
        slot_.reset(slot);
    }
    SessionCall(const SessionCall&) = delete;
    SessionCall& operator=(const SessionCall&) = delete;
    ~SessionCall() = default;

    /// Waits for the answer; whether it is a good one.
    [[nodiscard]] bool succeeds() {
        while (isSent_ && !isAnswered_ && processSessionBus(bus_.get()) && !isAnswered_ && SteadyClock::now() < end_) {
            waitForSessionBus(bus_.get(), end_);
        }
        return isGood_;
    }

private:
    static int onAnswer(sd_bus_message* message, void* data, sd_bus_error*) {
        auto& self = *static_cast<SessionCall*>(data);
        self.isAnswered_ = true;
        self.isGood_ = systemd().sd_bus_message_is_method_error(message, nullptr) == 0;
        return 0;
    }

    SteadyClock::time_point end_;
    SessionBusRef bus_;
    BusSlotRef slot_; // declared behind the bus, so that it goes first
    bool isSent_ = false;
    bool isAnswered_ = false;
    bool isGood_ = false;
};

} // namespace

std::string fileUriOf(const Path& path) {
    std::string uri = "file://";
    for (const char character : path.native()) {
        const bool isPlain = (character >= '0' && character <= '9') || (character >= 'A' && character <= 'Z') ||
                             (character >= 'a' && character <= 'z') ||
                             std::string_view("-._~/").find(character) != std::string_view::npos;
        if (isPlain) {
            uri += character;
        } else {
            appendPercentEncoded(uri, static_cast<unsigned char>(character), HexCase::upper);
        }
    }
    return uri;
}

bool showInFileManager(BusEnvironment environment, const std::vector<Path>& files, const std::string& token) {
    const auto append = [&files, &token](sd_bus_message* message) {
        bool isGood = systemd().sd_bus_message_open_container(message, SD_BUS_TYPE_ARRAY, "s") >= 0;
        for (const Path& file : files) {
            isGood = isGood && systemd().sd_bus_message_append(message, "s", fileUriOf(file).c_str()) >= 0;
        }
        return isGood && systemd().sd_bus_message_close_container(message) >= 0 &&
               systemd().sd_bus_message_append(message, "s", token.c_str()) >= 0;
    };
    return SessionCall(environment, "org.freedesktop.FileManager1", "/org/freedesktop/FileManager1",
                       "org.freedesktop.FileManager1", "ShowItems", append)
        .succeeds();
}

bool activateApplication(BusEnvironment environment, const std::string& token) {
    const auto append = [&token](sd_bus_message* message) {
        return token.empty()
                   ? systemd().sd_bus_message_append(message, "a{sv}", 0) >= 0
                   : systemd().sd_bus_message_append(message, "a{sv}", 2, "activation-token", "s", token.c_str(),
                                                     "desktop-startup-id", "s", token.c_str()) >= 0;
    };
    return SessionCall(environment, "com.tarvinex.orlinth", "/com/tarvinex/orlinth", "org.freedesktop.Application",
                       "Activate", append)
        .succeeds();
}

} // namespace orlinth::platform
