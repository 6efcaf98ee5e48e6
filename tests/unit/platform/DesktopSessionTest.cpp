#include "platform/linux/DesktopSession.h"

#include "fakes/BusProgram.h"
#include "platform/linux/UserManager.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace orlinth::platform {
namespace {

/// The user's service manager, as far as it is asked here, with a thread of its own.
class Manager {
public:
    explicit Manager(std::vector<std::string> variables) : variables_(std::move(variables)) {
        static const sd_bus_vtable table[] = {
            SD_BUS_VTABLE_START(0), SD_BUS_PROPERTY("Environment", "as", environment, 0, 0), SD_BUS_VTABLE_END};
        fakes::requireBus(::sd_bus_add_object_vtable(program_.get(), nullptr, "/org/freedesktop/systemd1",
                                                     "org.freedesktop.systemd1.Manager", table, this));
        fakes::requireBus(::sd_bus_request_name(program_.get(), "org.freedesktop.systemd1", 0));
        thread_ = std::thread([this] {
            while (!isOver_) {
                program_.process();
                ::sd_bus_wait(program_.get(), 10'000);
            }
        });
    }
    ~Manager() {
        isOver_ = true;
        thread_.join();
    }
    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;

    [[nodiscard]] int asked() const noexcept { return asked_; }

private:
    static int environment(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void* data,
                           sd_bus_error*) {
        auto& self = *static_cast<Manager*>(data);
        ++self.asked_;
        fakes::requireBus(::sd_bus_message_open_container(reply, 'a', "s"));
        for (const std::string& variable : self.variables_) {
            fakes::requireBus(::sd_bus_message_append(reply, "s", variable.c_str()));
        }
        return ::sd_bus_message_close_container(reply);
    }

    const std::vector<std::string> variables_;
    std::atomic<int> asked_ = 0;
    std::atomic<bool> isOver_ = false;
    fakes::BusProgram program_;
    std::thread thread_;
};

/// What this process was told, beside where the bus is.
std::map<std::string, std::string>& own() {
    static std::map<std::string, std::string> variables;
    return variables;
}

const char* environment(const char* name) {
    const auto found = own().find(name);
    return found != own().end() ? found->second.c_str() : fakes::busEnvironment(name);
}

class DesktopSessionTest : public testing::Test {
protected:
    void SetUp() override {
        fakes::setBusAddress("");
        own().clear();
    }
    void TearDown() override { SetUp(); }

    [[nodiscard]] static DesktopSession now() { return currentDesktopSession(environment); }

    const std::vector<std::string> desktop_{"PATH=/bin", "WAYLAND_DISPLAY=wayland-0", "DISPLAY=:1",
                                            "XAUTHORITY=/run/user/7/.xauth", "XDG_RUNTIME_DIR=/run/user/7"};
    const DesktopSession expected_{.waylandDisplay = "wayland-0",
                                   .display = ":1",
                                   .xAuthority = "/run/user/7/.xauth",
                                   .runtimeFolder = "/run/user/7"};
};

TEST_F(DesktopSessionTest, IsFoundThroughTheServiceManagerWhenItHasBegunLater) {
    const fakes::PrivateBus bus;
    own() = {{"XDG_RUNTIME_DIR", "/run/user/7"}};
    {
        const Manager manager({"PATH=/bin", "DISPLAYS=none", "NODISPLAY=:8", "DISPLAY"});
        EXPECT_FALSE(now().isThere());
        EXPECT_EQ(manager.asked(), 1);
    }
    const Manager manager(desktop_);
    EXPECT_EQ(now(), expected_);
    EXPECT_EQ(now(), expected_);
    EXPECT_EQ(manager.asked(), 2) << "the desktop may be another one each time";
}

TEST_F(DesktopSessionTest, IsThatOfThisProcessWhenItWasToldOfOne) {
    const fakes::PrivateBus bus;
    const Manager manager(desktop_);
    own() = {{"DISPLAY", ":9"}};
    EXPECT_EQ(now(), (DesktopSession{.display = ":9"}));
    own() = {{"WAYLAND_DISPLAY", "wayland-9"}, {"SYSTEMD_EXEC_PID", "1"}, {"INVOCATION_ID", "0"}};
    EXPECT_EQ(now(), (DesktopSession{.waylandDisplay = "wayland-9"})) << "a program on the desktop, as terminals are";
    EXPECT_EQ(manager.asked(), 0);
}

TEST_F(DesktopSessionTest, IsTheManagersWhenThatHasStartedThisProcess) {
    const fakes::PrivateBus bus;
    own() = {{"DISPLAY", ":9"}, {"XAUTHORITY", "/old"}, {"SYSTEMD_EXEC_PID", std::to_string(::getpid())}};
    {
        const Manager manager(desktop_);
        EXPECT_EQ(now(), expected_);
    }
    const Manager manager({"PATH=/bin"});
    EXPECT_EQ(now(), (DesktopSession{.display = ":9", .xAuthority = "/old"}));
}

TEST_F(DesktopSessionTest, HasTheRuntimeFolderOfThisProcessWhereTheManagerNamesNone) {
    const fakes::PrivateBus bus;
    own() = {{"XDG_RUNTIME_DIR", "/run/user/8"}};
    const Manager manager({"WAYLAND_DISPLAY=wayland-0"});
    EXPECT_EQ(now(), (DesktopSession{.waylandDisplay = "wayland-0", .runtimeFolder = "/run/user/8"}));
}

TEST_F(DesktopSessionTest, IsNoneWithoutABusAndWithoutAManager) {
    EXPECT_EQ(now(), DesktopSession());
    const fakes::PrivateBus bus;
    EXPECT_EQ(now(), DesktopSession());
}

TEST_F(DesktopSessionTest, IsNotWaitedForWhenTheBusIsSilent) {
    const fakes::SilentBus bus;
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(now(), DesktopSession());
    EXPECT_GE(std::chrono::steady_clock::now() - before, UserManager::answerLimit);
}

TEST_F(DesktopSessionTest, IsPassedOnInWhatIsSet) {
    using Variables = std::vector<std::pair<std::string, std::string>>;
    EXPECT_EQ(variablesOf({}), Variables());
    EXPECT_EQ(variablesOf({.display = ":1", .runtimeFolder = "/run"}),
              (Variables{{"DISPLAY", ":1"}, {"XDG_RUNTIME_DIR", "/run"}}));
}

} // namespace
} // namespace orlinth::platform
