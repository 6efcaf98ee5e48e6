#include "fakes/OwnEnvironment.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <sys/stat.h>

namespace orlinth::fakes {
namespace {

TEST(OwnEnvironment, IsTheEnvironmentOfEveryTest) {
    EXPECT_STREQ(std::getenv("HOME"), "/nonexistent");
    EXPECT_STREQ(std::getenv("LC_ALL"), "C.UTF-8");
    EXPECT_STREQ(std::getenv("TZ"), "UTC");
    EXPECT_STREQ(std::getenv("DBUS_SESSION_BUS_ADDRESS"), "unix:path=/nonexistent/session-bus");
    EXPECT_STREQ(std::getenv("DBUS_SYSTEM_BUS_ADDRESS"), "unix:path=/nonexistent/system-bus");
    const mode_t mask = ::umask(0);
    ::umask(mask);
    EXPECT_EQ(mask, mode_t{022});
}

TEST(OwnEnvironment, HasNothingOfADesktopOrAServiceManager) {
    const std::string path = std::getenv("PATH");
    const char* const foreign[] = {"DISPLAY",
                                   "WAYLAND_DISPLAY",
                                   "XDG_RUNTIME_DIR",
                                   "XDG_CONFIG_HOME",
                                   "XDG_DATA_DIRS",
                                   "XDG_CURRENT_DESKTOP",
                                   "QT_SCALE_FACTOR",
                                   "QT_QPA_PLATFORMTHEME",
                                   "LANG",
                                   "LANGUAGE",
                                   "NO_COLOR",
                                   "COLUMNS",
                                   "https_proxy",
                                   "SSL_CERT_FILE",
                                   "INVOCATION_ID",
                                   "NOTIFY_SOCKET",
                                   "LISTEN_FDS",
                                   "LD_PRELOAD",
                                   "EMPTY",
                                   "ORLINTH_FCM_BASE_URL",
                                   "XDG_DOWNLOAD_DIR",
                                   "FONTCONFIG_FILE"};
    for (const char* name : foreign) {
        ::setenv(name, std::string(name) == "EMPTY" ? "" : "theirs", 1);
    }
    ::setenv("LC_ALL", "de_DE.UTF-8", 1);
    ::setenv("GTEST_COLOR", "no", 1);
    enterOwnEnvironment();
    for (const char* name : foreign) {
        EXPECT_EQ(std::getenv(name), nullptr) << name;
    }
    EXPECT_STREQ(std::getenv("LC_ALL"), "C.UTF-8");
    EXPECT_STREQ(std::getenv("GTEST_COLOR"), "no");
    EXPECT_EQ(std::getenv("PATH"), path);
}

} // namespace
} // namespace orlinth::fakes
