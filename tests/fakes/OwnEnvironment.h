#pragma once

#include <algorithm>
#include <cstdlib>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace orlinth::fakes {

/// Whether a test sees this variable as it is set outside: it says where this machine keeps its tools, or is for the
/// test program itself.
[[nodiscard]] inline bool isKeptVariable(std::string_view name) {
    for (const std::string_view kept : {"PATH", "LD_LIBRARY_PATH", "TMPDIR", "LLVM_PROFILE_FILE"}) {
        if (name == kept) {
            return true;
        }
    }
    return name.starts_with("GTEST_") || name.ends_with("SAN_OPTIONS") || name.ends_with("SAN_SYMBOLIZER_PATH");
}

/// Gives this process and those it starts an environment that is the same on every machine, whatever is set, installed
/// or running there: the kept variables, a fixed locale, time zone and umask, nobody's home, and no bus. Called by
/// main() of every test program, before anything else; from one thread.
inline void enterOwnEnvironment() {
    std::vector<std::string> others;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        const std::string_view text = *entry;
        const std::string_view name = text.substr(0, text.find('='));
        if (!isKeptVariable(name)) {
            others.emplace_back(name);
        }
    }
    for (const std::string& name : others) {
        ::unsetenv(name.c_str());
    }
    ::setenv("LC_ALL", "C.UTF-8", 1);
    ::setenv("TZ", "UTC", 1);
    ::setenv("HOME", "/nonexistent", 1);
    // An address that leads nowhere; without one, libraries look for a bus elsewhere, or even start one.
    ::setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/session-bus", 1);
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/system-bus", 1);
    ::umask(022);
}

} // namespace orlinth::fakes
