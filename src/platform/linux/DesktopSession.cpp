#include "platform/linux/DesktopSession.h"

#include "platform/linux/UserManager.h"

#include <array>
#include <optional>
#include <string_view>

namespace orlinth::platform {
namespace {

struct Variable {
    const char* name;
    std::string DesktopSession::* value;
};

constexpr std::array<Variable, 4> variables{{{"WAYLAND_DISPLAY", &DesktopSession::waylandDisplay},
                                             {"DISPLAY", &DesktopSession::display},
                                             {"XAUTHORITY", &DesktopSession::xAuthority},
                                             {"XDG_RUNTIME_DIR", &DesktopSession::runtimeFolder}}};

} // namespace

DesktopSession desktopSession(const std::function<const char*(const char*)>& environment) {
    DesktopSession session;
    for (const Variable& variable : variables) {
        const char* const value = environment(variable.name);
        session.*variable.value = value != nullptr ? value : "";
    }
    return session;
}

DesktopSession currentDesktopSession(BusEnvironment environment) {
    DesktopSession own = desktopSession(environment);
    const UserManager manager(environment);
    if (own.isThere() && !manager.hasStartedUs()) {
        return own;
    }
    const std::optional<std::vector<std::string>> entries = manager.variables();
    if (!entries) {
        return own;
    }
    DesktopSession session = desktopSession([&entries](std::string_view name) -> const char* {
        for (const std::string& entry : *entries) {
            if (entry.size() > name.size() && entry.starts_with(name) && entry[name.size()] == '=') {
                return entry.c_str() + name.size() + 1;
            }
        }
        return nullptr;
    });
    if (session.runtimeFolder.empty()) {
        session.runtimeFolder = own.runtimeFolder;
    }
    return session.isThere() ? session : own;
}

std::vector<std::pair<std::string, std::string>> variablesOf(const DesktopSession& session) {
    std::vector<std::pair<std::string, std::string>> set;
    for (const Variable& variable : variables) {
        if (const std::string& value = session.*variable.value; !value.empty()) {
            set.emplace_back(variable.name, value);
        }
    }
    return set;
}

} // namespace orlinth::platform
