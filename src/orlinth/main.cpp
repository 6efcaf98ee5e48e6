#include "orlinth/Commands/Command.h"
#include "orlinth/Program/Settings.h"
#include "platform/SystemError.h"
#include "platform/linux/LinuxSystem.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <iostream>
#include <sstream>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace orlinth::cli {

namespace {

constexpr const char* aboutConventions =
    "Times are in seconds, with decimals. Exit status: 0 everything asked for was done, 1 it was not,\n"
    "2 the command line is wrong, 130 and 143 ended by SIGINT and SIGTERM.\n"
    "Settings: $XDG_CONFIG_HOME/orlinth/config.toml, a table for each command ([send], [receive]); a flag wins.";

/// A closed standard stream would give its number to the next file opened, and messages would end up in that.
void reserveStandardStreams() {
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(descriptor, F_GETFD) < 0) {
            // the lowest free number, which is this one; reading from standard output's stand-in is all that works,
            // so that writing to it still fails as it should
            static_cast<void>(open("/dev/null", descriptor == STDERR_FILENO ? O_WRONLY : O_RDONLY));
        }
    }
}

/// Keys and file contents lie in memory; a crash must not leave them on a disk.
void forbidCoreDumps() {
    const rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
#if !defined(__has_feature)
#define __has_feature(x) 0
#endif
#if !__has_feature(address_sanitizer) && !__has_feature(thread_sanitizer) // their leak check reads our memory
    prctl(PR_SET_DUMPABLE, 0);
#endif
}

/// The arguments behind the program's name.
///
/// CLI11 takes a positional text in brackets for a list. A file of such a name means the same with "./" in front.
std::vector<std::string> argumentsOf(int count, char** values) {
    std::vector<std::string> arguments(values + std::min(count, 1), values + count);
    for (std::size_t i = 1; i < arguments.size(); ++i) {
        const std::string& text = arguments[i];
        const bool takesFiles = arguments[0] == "send" || arguments[0] == "share";
        if (takesFiles && arguments[i - 1] != "--to" && text.size() > 1 && text.front() == '[' && text.back() == ']') {
            arguments[i].insert(0, "./");
        }
    }
    return arguments;
}

/// Text that somebody asked for: help, version.
int show(Output& output, std::string text) {
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    output.page(text);
    return 0;
}

int runProgram(const std::vector<std::string>& arguments, Output& output) {
    asio::io_context context(1);
    TaskRunner tasks(context); // before anything that may start a thread
    platform::LinuxSystem linux(context);
    platform::System system = linux.system();
    Host host{system, tasks, output};
    host.version = ORLINTH_VERSION;

    CLI::App program(
        "Moves files and short texts between this computer and your phones, encrypted, over the local network.",
        "orlinth");
    program.set_version_flag("--version", "orlinth " ORLINTH_VERSION, "Print the version and end.");
    program.require_subcommand(1);
    program.footer(aboutConventions);
    std::vector<std::unique_ptr<Command>> commands;
    commands.push_back(makeIdCommand(program));
    commands.push_back(makePairCommand(program));
    commands.push_back(makeJoinCommand(program));
    commands.push_back(makePeersCommand(program));
    commands.push_back(makeSendCommand(program));
    commands.push_back(makeReceiveCommand(program));
    commands.push_back(makeServeCommand(program));
    commands.push_back(makeStatusCommand(program));
    commands.push_back(makeCancelCommand(program));
    commands.push_back(makeAcceptCommand(program));
    commands.push_back(makeDeclineCommand(program));
    commands.push_back(makeShareCommand(program));
    commands.push_back(makeOutboxCommand(program));
    commands.push_back(makeHistoryCommand(program));
    commands.push_back(makePartialsCommand(program));
    commands.push_back(makeClipCommand(program));
    commands.push_back(makeWakeCommand(program));
    commands.push_back(makeDoctorCommand(program));

    try {
        host.settings = applySettings(program, system.files, system.directories);
        program.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend())); // it wants the last one first
        host.settings.file = host::SettingsFile(system.files, system.directories).load();
        host.computerName = host.settings.text(host::SettingId::computerName);
        host.defaultPhone = host.settings.text(host::SettingId::defaultPhone);
    } catch (const SettingsError& error) {
        output.failure(error.description(), "Correct the file, or move it away.");
        return wrongCommandLine;
    } catch (const host::SettingsFileError& error) {
        output.failure(error.description(), host::SettingsFileError::hint);
        return wrongCommandLine;
    } catch (const platform::SystemError& error) {
        output.failure("settings file: " + error.description());
        return wrongCommandLine;
    } catch (const CLI::CallForHelp&) {
        return show(output, program.help());
    } catch (const CLI::CallForVersion& version) {
        return show(output, version.what());
    } catch (const CLI::ParseError& error) {
        return tellWrongCommandLine(output, program, error);
    }

    const auto chosen =
        std::find_if(commands.begin(), commands.end(), [](const auto& command) { return command->wasChosen(); });
    if ((*chosen)->wantsJson()) {
        output.useJson();
    }
    if ((*chosen)->wantsQuiet()) {
        output.beQuiet();
    }
    const int status = runCommand(**chosen, host);
    linux.close();
    if (linux.isResolving()) {
        std::_Exit(output.finish(status)); // that thread cannot be interrupted, and waiting for it helps nobody
    }
    tasks.finish();
    return status;
}

} // namespace

} // namespace orlinth::cli

int main(int argc, char** argv) {
    using namespace orlinth;
    cli::reserveStandardStreams();
    cli::forbidCoreDumps();
    std::signal(SIGPIPE, SIG_IGN); // a reader that went away, and a full quota, are errors of a write
    std::signal(SIGXFSZ, SIG_IGN);
    cli::Output output;
    int status = 1;
    try {
        status = cli::runProgram(cli::argumentsOf(argc, argv), output);
    } catch (const std::exception& error) {
        output.failure(describe(error));
    }
    return output.finish(status);
}
