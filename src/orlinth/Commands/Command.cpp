#include "orlinth/Commands/Command.h"

#include "OrlinthHost/SizeText.h"
#include "orlinth/Reporting/Hints.h"

#include <charconv>
#include <cmath>

namespace orlinth::cli {

namespace {

template <typename Number>
bool parses(const std::string& text, Number& number) {
    const char* end = text.data() + text.size();
    const auto [at, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && at == end;
}

CLI::Validator secondsValidator() {
    const auto check = [](std::string& text) -> std::string {
        double seconds = 0;
        const bool valid =
            parses(text, seconds) && std::isfinite(seconds) && seconds >= 0 && Seconds(seconds) <= longestTime;
        return valid ? ""
                     : "'" + text + "' is not a number of seconds from 0 to " + std::to_string(longestTime.count());
    };
    return {check, ""};
}

} // namespace

CLI::Validator notEmpty() {
    const auto check = [](std::string& text) -> std::string { return text.empty() ? "may not be empty" : ""; };
    return {check, ""};
}

CLI::Validator portFrom(std::uint16_t lowest) {
    const auto check = [lowest](std::string& text) -> std::string {
        std::uint16_t port = 0;
        const bool valid = parses(text, port) && port >= lowest;
        return valid ? "" : "'" + text + "' is not a port from " + std::to_string(lowest) + " to 65535";
    };
    return {check, ""};
}

CLI::Validator numberOf(const char* what) {
    const auto check = [what](std::string& text) -> std::string {
        constexpr std::size_t mostDigits = 18; // which fit in any case
        const bool isNumber = !text.empty() && text.size() <= mostDigits &&
                              text.find_first_not_of("0123456789") == std::string::npos && text[0] != '0';
        return isNumber ? "" : "'" + text + "' is no number of " + what;
    };
    return {check, ""};
}

void Command::addJsonFlag(const char* what) {
    parser_->add_flag("--json", json_, what);
}

void Command::addQuietFlag(const char* what) {
    parser_->add_flag("-q,--quiet", quiet_, what);
}

CLI::Option* Command::addSeconds(const char* flag, Seconds& time, const char* what) {
    const auto take = [&time](double seconds) { time = Seconds(seconds); };
    return parser_->add_option_function<double>(flag, take, what)
        ->type_name("SECONDS")
        ->check(secondsValidator())
        ->take_last()
        ->run_callback_for_default() // which the settings file may give
        ->default_str(CLI::detail::to_string(time.count()));
}

void Command::addPhones(std::vector<std::string>& selectors) {
    parser_
        ->add_option(
            "--to", selectors,
            "Which phone: its name, or the beginning of its name or key, in any letter case. "
            "May be given several times. Default: the phone of the settings, else the one last sent to, else the "
            "one paired last.")
        ->type_name("SELECTOR")
        ->allow_extra_args(false)
        ->check(notEmpty())
        ->configurable(false);
}

CLI::Option* Command::addSize(const char* flag, std::string& size, const char* standard, const char* what) {
    const auto check = [](std::string& text) -> std::string {
        return host::parseSize(text) ? "" : "'" + text + "' is not a size, such as 512M or 1.5G";
    };
    size = standard;
    return parser_->add_option(flag, size, what)
        ->type_name("SIZE")
        ->check(CLI::Validator(check, ""))
        ->take_last()
        ->capture_default_str();
}

CLI::Option* Command::addText(const char* flag, std::string& text, const char* typeName, const char* what) {
    return parser_->add_option(flag, text, what)->type_name(typeName)->check(notEmpty())->take_last();
}

void Command::addListenPublic(bool& listensPublicly) {
    parser_->add_flag(
        "--listen-public", listensPublicly,
        "Also take connections from the internet. By default only those from this computer's own networks "
        "and from private addresses are taken.");
}

void Command::addFind(host::FindSetting& find) {
    const auto take = [&find](const std::string& text) { find = host::findSettingFrom(text).value_or(find); };
    parser_
        ->add_option_function<std::string>(
            "--find", take,
            "Where to look for a phone that does not answer at its recorded address: in networks where it was met "
            "before, in any network, or nowhere.")
        ->type_name("known|always|never")
        ->check(CLI::IsMember({"known", "always", "never"}).description(""))
        ->take_last()
        ->run_callback_for_default() // which the settings file may give
        ->default_str("known");
}

CLI::Option* Command::addPort(const char* flag, std::uint16_t& port, std::uint16_t lowest, const char* what) {
    return parser_->add_option(flag, port, what)->type_name("PORT")->check(portFrom(lowest))->take_last();
}

int tellWrongCommandLine(Output& output, const CLI::App& program, const CLI::ParseError& error) {
    std::string command = "orlinth";
    for (const CLI::App* chosen = &program; !chosen->get_subcommands().empty();) {
        chosen = chosen->get_subcommands().front();
        command += " " + chosen->get_name();
    }
    std::string text = error.what();
    if (program.get_subcommands().empty() && program.remaining_size() > 0) {
        text = "there is no command '" + program.remaining().front() + "'";
    }
    output.failure(text, "`" + command + " --help` explains the command line.");
    return wrongCommandLine;
}

int runCommand(Command& command, Host& host) {
    int status = 1;
    try {
        status = command.run(host);
    } catch (const Interrupted& interrupted) {
        status = interrupted.exitStatus();
    } catch (const UsageError& error) {
        status = wrongCommandLine;
        host.output.failure(error.description(), error.hint());
    } catch (const host::HostError& error) {
        host.output.failure(error.description(), error.hint());
    } catch (const std::exception& error) {
        host.output.failure(describe(error), hintForOwnFiles(host, error));
    }
    return status;
}

} // namespace orlinth::cli
