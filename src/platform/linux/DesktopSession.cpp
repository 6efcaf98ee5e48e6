#include "platform/linux/DesktopSession.h"

#include <array>

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
