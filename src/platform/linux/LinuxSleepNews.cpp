#include "platform/linux/LinuxSleepNews.h"

#include "platform/linux/BusLoop.h"

#include <cstdlib>
#include <string_view>
#include <utility>

namespace orlinth::platform {
namespace {

/// How long the bus may take to say hello.
constexpr auto helloLimit = std::chrono::seconds(10);

class LinuxSleepWatch final : public SleepWatch {
public:
    LinuxSleepWatch(Executor executor, BusEnvironment environment, std::function<void()> onWake)
        : onWake_(std::make_shared<const std::function<void()>>(std::move(onWake))),
          loop_(std::move(executor), environment, helloLimit, [this] { match_.reset(); }) {
        sd_bus_slot* slot = nullptr;
        const bool isAsked =
            loop_.open() && systemd().sd_bus_match_signal_async(loop_.get(), &slot, nullptr, "/org/freedesktop/login1",
                                                                "org.freedesktop.login1.Manager", "PrepareForSleep",
                                                                onSignal, ignoreBusAnswer, this) >= 0;
        match_.reset(slot);
        if (isAsked) {
            loop_.wake();
        } else {
            match_.reset();
            loop_.close();
        }
    }
    LinuxSleepWatch(const LinuxSleepWatch&) = delete;
    LinuxSleepWatch& operator=(const LinuxSleepWatch&) = delete;
    ~LinuxSleepWatch() override { match_.reset(); } // which would keep the bus

private:
    static int onSignal(sd_bus_message* message, void* data, sd_bus_error*) {
        int isAboutToSleep = 1;
        if (systemd().sd_bus_message_read(message, "b", &isAboutToSleep) > 0 && isAboutToSleep == 0) {
            const std::shared_ptr<const std::function<void()>> onWake = static_cast<LinuxSleepWatch*>(data)->onWake_;
            (*onWake)(); // may end this
        }
        return 0;
    }

    std::shared_ptr<const std::function<void()>> onWake_; ///< a call that is under way holds it too
    BusLoop loop_;
    BusSlotRef match_; // declared behind the bus, so that it goes first
};

} // namespace

std::unique_ptr<SleepWatch> LinuxSleepNews::watch(Executor executor, std::function<void()> onWake) {
    return std::make_unique<LinuxSleepWatch>(std::move(executor), environment_, std::move(onWake));
}

const char* systemBusEnvironment(const char* name) {
    if (std::string_view(name) != "DBUS_SESSION_BUS_ADDRESS") {
        return std::getenv(name);
    }
    const char* const chosen = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
    return chosen != nullptr && *chosen != '\0' ? chosen : "unix:path=/run/dbus/system_bus_socket";
}

} // namespace orlinth::platform
