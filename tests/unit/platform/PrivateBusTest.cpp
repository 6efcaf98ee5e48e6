#include "fakes/PrivateBus.h"

#include <gmock/gmock.h>
#include <systemd/sd-bus.h>

#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

namespace orlinth::fakes {
namespace {

/// While it lives, a variable of the environment has this value.
class Variable {
public:
    Variable(const char* name, const std::string& value) : name_(name) {
        if (const char* before = std::getenv(name)) {
            before_ = before;
        }
        ::setenv(name, value.c_str(), 1);
    }
    ~Variable() { before_ ? ::setenv(name_, before_->c_str(), 1) : ::unsetenv(name_); }
    Variable(const Variable&) = delete;
    Variable& operator=(const Variable&) = delete;

private:
    const char* name_;
    std::optional<std::string> before_;
};

/// The names that are on the session's bus, and those that it would start a program for.
std::vector<std::string> namesOnTheBus() {
    sd_bus* bus = nullptr;
    char** acquired = nullptr;
    char** activatable = nullptr;
    std::vector<std::string> names;
    if (::sd_bus_new(&bus) >= 0 && ::sd_bus_set_address(bus, busAddress()) >= 0 &&
        ::sd_bus_set_bus_client(bus, 1) >= 0 && ::sd_bus_start(bus) >= 0 &&
        ::sd_bus_list_names(bus, &acquired, &activatable) >= 0) {
        for (char** list : {acquired, activatable}) {
            for (char** name = list; name != nullptr && *name != nullptr; ++name) {
                names.emplace_back(*name);
                std::free(*name);
            }
            std::free(list);
        }
    }
    ::sd_bus_flush_close_unref(bus);
    return names;
}

TEST(PrivateBus, KnowsNoServiceThatIsInstalledOnThisMachine) {
    const TemporaryFolder installed;
    writeText(installed / "dbus-1/services/org.freedesktop.Notifications.service",
              "[D-BUS Service]\nName=org.freedesktop.Notifications\nExec=/bin/false\n");
    const Variable ofTheUser("XDG_DATA_HOME", installed.path());
    const Variable ofTheSystem("XDG_DATA_DIRS", installed.path());
    const PrivateBus bus;
    const std::vector<std::string> names = namesOnTheBus();
    EXPECT_THAT(names, testing::Contains("org.freedesktop.DBus"));
    EXPECT_THAT(names, testing::Not(testing::Contains("org.freedesktop.Notifications")));
    setBusAddress("");
}

} // namespace
} // namespace orlinth::fakes
