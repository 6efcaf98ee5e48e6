#include "platform/linux/LinuxSleepNews.h"

#include "fakes/BusProgram.h"
#include "fakes/OwnEnvironment.h"

#include <asio/io_context.hpp>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace orlinth::platform {
namespace {

using namespace std::chrono_literals;
using SteadyClock = std::chrono::steady_clock;

/// Nothing here takes this long; it only keeps a broken test from hanging.
constexpr auto patience = 60s;

void tellSleep(fakes::BusProgram& logind, int isAboutToSleep) {
    fakes::requireBus(::sd_bus_emit_signal(logind.get(), "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                                           "PrepareForSleep", "b", isAboutToSleep));
    logind.arrive();
}

class LinuxSleepNewsTest : public testing::Test {
protected:
    void SetUp() override { fakes::setBusAddress(""); }
    void TearDown() override { fakes::setBusAddress(""); }

    void watch() {
        watch_ = news_.watch(context_.get_executor(), [this] { ++told_; });
    }
    /// Lets callbacks run, and `meanwhile`, until this holds.
    void runUntil(const std::function<bool()>& isDone, const std::function<void()>& meanwhile = [] {}) {
        const auto end = SteadyClock::now() + patience;
        while (!isDone()) {
            ASSERT_LT(SteadyClock::now(), end) << "nothing happens any more";
            meanwhile();
            context_.restart();
            context_.run_one_for(2ms);
        }
    }

    asio::io_context context_;
    LinuxSleepNews news_{fakes::busEnvironment};
    int told_ = 0;
    std::unique_ptr<SleepWatch> watch_;
};

TEST_F(LinuxSleepNewsTest, AreToldWhenTheComputerHasWokenUpAndNotWhenItFallsAsleep) {
    const fakes::PrivateBus bus;
    fakes::BusProgram logind;
    watch();
    runUntil([this] { return told_ > 0; }, [&] { tellSleep(logind, 0); }); // nobody knows when the bus listens for it
    context_.restart();
    while (context_.run_one_for(50ms) > 0) { // what was sent too often
    }
    const int before = told_;
    tellSleep(logind, 1);
    fakes::requireBus(::sd_bus_emit_signal(logind.get(), "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                                           "PrepareForSleep", "s", "nonsense"));
    tellSleep(logind, 0);
    runUntil([&] { return told_ > before; });
    EXPECT_EQ(told_, before + 1) << "the bus keeps the order, so the others have come before";
}

TEST_F(LinuxSleepNewsTest, EndWithTheirWatchAlsoInItsOwnCall) {
    const fakes::PrivateBus bus;
    fakes::BusProgram logind;
    watch_ = news_.watch(context_.get_executor(), [this] {
        ++told_;
        watch_.reset();
    });
    runUntil([this] { return told_ > 0; }, [&] { tellSleep(logind, 0); });
    tellSleep(logind, 0);
    context_.restart();
    context_.run(); // ends, since nothing is left to wait for
    EXPECT_EQ(told_, 1);
}

TEST_F(LinuxSleepNewsTest, AreNoneWithoutABusAndOnceItHasGone) {
    watch();
    context_.run(); // ends at once
    watch_.reset();
    {
        fakes::PrivateBus bus;
        fakes::BusProgram logind;
        watch();
        runUntil([this] { return told_ > 0; }, [&] { tellSleep(logind, 0); });
    }
    context_.restart();
    context_.run(); // nobody looks for it again
    EXPECT_GT(told_, 0);
}

TEST(SystemBus, IsWhereTheEnvironmentSaysOrWhereItAlwaysIs) {
    const std::string before = systemBusEnvironment("DBUS_SESSION_BUS_ADDRESS");
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/tmp/bus", 1);
    EXPECT_STREQ(systemBusEnvironment("DBUS_SESSION_BUS_ADDRESS"), "unix:path=/tmp/bus");
    ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    EXPECT_STREQ(systemBusEnvironment("DBUS_SESSION_BUS_ADDRESS"), "unix:path=/run/dbus/system_bus_socket");
    EXPECT_EQ(systemBusEnvironment("XDG_RUNTIME_DIR"), ::getenv("XDG_RUNTIME_DIR"));
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", before.c_str(), 1);
}

} // namespace
} // namespace orlinth::platform
