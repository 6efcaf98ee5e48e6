#include "platform/linux/CallerProcess.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

namespace orlinth::platform {
namespace {

TEST(CallerProcess, IsASnapsByTheNameOfAControlGroup) {
    const std::string desktop = "/user.slice/user-1000.slice/user@1000.service/app.slice/";
    EXPECT_TRUE(detail::namesSnap("0::" + desktop + "snap.firefox.firefox-0a1b2c3d.scope\n"));
    EXPECT_TRUE(detail::namesSnap("12:pids:/\n3:freezer:/snap.firefox\n0::/user.slice\n"));
    EXPECT_FALSE(detail::namesSnap("0::" + desktop + "app-gnome-snap.desktop-1.scope\n"));
    EXPECT_FALSE(detail::namesSnap("0::/system.slice/snapd.service\n"));
    EXPECT_FALSE(detail::namesSnap(""));
}

TEST(CallerProcess, OfThisTestIsInNoSandbox) {
    EXPECT_EQ(Confinement::none, confinementOf(::getpid()));
}

TEST(CallerProcess, ThatHasGoneIsNotKnown) {
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(0);
    }
    ASSERT_EQ(child, ::waitpid(child, nullptr, 0));
    EXPECT_EQ(Confinement::unknown, confinementOf(child));
    EXPECT_EQ(Confinement::unknown, confinementOf(0));
    EXPECT_EQ(Confinement::unknown, confinementOf(-1));
}

} // namespace
} // namespace orlinth::platform
