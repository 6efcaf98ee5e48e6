#include "orlinth/Program/DesktopOpener.h"

#include "base/Error.h"
#include "platform/linux/DesktopSession.h"

#include <cstdlib>

namespace orlinth::cli {

namespace {

/// The service manager replaces "${NAME}" and "$NAME" in the words of a command, and "$$" by "$" (systemd.service(5)).
std::string escapedForServiceManager(const std::string& word) {
    std::string escaped;
    for (const char character : word) {
        escaped.append(character == '$' ? 2 : 1, character);
    }
    return escaped;
}

} // namespace

platform::ChildProgram openerFor(const platform::Path& path, bool isManaged) {
    const std::string target = absolute(path).string();
    if (isManaged) {
        return {.name = "systemd-run",
                .package = "systemd",
                .arguments = {"--user", "--collect", "--quiet", "--", "xdg-open", escapedForServiceManager(target)},
                .input = {}};
    }
    return {.name = "setsid", .package = "util-linux", .arguments = {"--fork", "xdg-open", target}, .input = {}};
}

void openOnDesktop(const platform::Path& path, platform::Log& log) {
    const auto tell = [&log](const std::string& problem) {
        log.write(platform::LogLevel::error, "com.tarvinex.orlinth", "serve", "cannot open: " + problem);
    };
    try {
        const bool isManaged = std::getenv("INVOCATION_ID") != nullptr;
        platform::ChildProgram opener = openerFor(path, isManaged);
        if (!isManaged) { // else it is the manager's environment in any case
            opener.environment = variablesOf(
                platform::currentDesktopSession([](const char* name) -> const char* { return std::getenv(name); }));
        }
        const platform::ChildResult result = runChild(opener);
        if (result.status != 0) {
            tell(result.complaint);
        }
    } catch (const std::exception& error) {
        tell(describe(error));
    }
}

} // namespace orlinth::cli
