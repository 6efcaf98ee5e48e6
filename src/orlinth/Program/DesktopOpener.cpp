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

constexpr const char* tokenVariable = "XDG_ACTIVATION_TOKEN";

platform::ChildProgram openerOf(const std::string& target, bool isManaged, const std::string& token) {
    if (isManaged) {
        platform::ChildProgram opener{
            .name = "systemd-run", .package = "systemd", .arguments = {"--user", "--collect", "--quiet"}, .input = {}};
        if (!token.empty()) {
            opener.arguments.push_back("--setenv=" + std::string(tokenVariable) + "=" + token);
        }
        opener.arguments.insert(opener.arguments.end(), {"--", "xdg-open", escapedForServiceManager(target)});
        return opener;
    }
    platform::ChildProgram opener{
        .name = "setsid", .package = "util-linux", .arguments = {"--fork", "xdg-open", target}, .input = {}};
    if (!token.empty()) {
        opener.environment.emplace_back(tokenVariable, token);
    }
    return opener;
}

bool isManaged() {
    return std::getenv("INVOCATION_ID") != nullptr;
}

void runOpener(platform::ChildProgram opener, bool isManaged, platform::Log& log) {
    const auto tell = [&log](const std::string& problem) {
        log.write(platform::LogLevel::error, "com.tarvinex.orlinth", "serve", "cannot open: " + problem);
    };
    try {
        if (!isManaged) { // else it is the manager's environment in any case
            const auto session = variablesOf(
                platform::currentDesktopSession([](const char* name) -> const char* { return std::getenv(name); }));
            opener.environment.insert(opener.environment.end(), session.begin(), session.end());
        }
        const platform::ChildResult result = runChild(opener);
        if (result.status != 0) {
            tell(result.complaint);
        }
    } catch (const std::exception& error) {
        tell(describe(error));
    }
}

} // namespace

platform::ChildProgram openerFor(const platform::Path& path, bool isManaged, const std::string& token) {
    return openerOf(absolute(path).string(), isManaged, token);
}

platform::ChildProgram linkOpenerFor(const std::string& address, bool isManaged, const std::string& token) {
    return openerOf(address, isManaged, token);
}

void openOnDesktop(const platform::Path& path, platform::Log& log, const std::string& token) {
    runOpener(openerFor(path, isManaged(), token), isManaged(), log);
}

void openLinkOnDesktop(const std::string& address, platform::Log& log, const std::string& token) {
    runOpener(linkOpenerFor(address, isManaged(), token), isManaged(), log);
}

} // namespace orlinth::cli
