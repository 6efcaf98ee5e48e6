#pragma once

#include "OrlinthHost/Reach/FinderPlan.h"
#include "orlinth/Program/Host.h"

#include <CLI/CLI.hpp>

#include <memory>
#include <string>
#include <vector>

namespace orlinth::cli {

/// One command of the program: its flags, and what it does. Lives as long as the parser that it has registered with.
class Command {
public:
    virtual ~Command() = default;
    Command(const Command&) = delete;
    Command& operator=(const Command&) = delete;

    [[nodiscard]] bool wasChosen() const { return parser_->parsed(); }
    [[nodiscard]] bool wantsJson() const noexcept { return json_; }
    [[nodiscard]] bool wantsQuiet() const noexcept { return quiet_; }

    /// Does it. Returns the exit status: 0 if everything that was asked for is done, else 1 with the failures told.
    /// @throws anything that ends the command with one line on standard error and status 1
    [[nodiscard]] virtual int run(Host& host) = 0;

protected:
    explicit Command(CLI::App* parser) : parser_(parser) {}

    [[nodiscard]] CLI::App& parser() noexcept { return *parser_; }
    void addJsonFlag(const char* what);
    void addQuietFlag(const char* what);
    /// A time in seconds, with decimals, zero or more.
    CLI::Option* addSeconds(const char* flag, Seconds& time, const char* what);
    /// A size in bytes, as parseSize() takes it; shown as `standard` where nothing is given, which must be one.
    CLI::Option* addSize(const char* flag, std::string& size, const char* standard, const char* what);
    /// A text that may not be empty.
    CLI::Option* addText(const char* flag, std::string& text, const char* typeName, const char* what);
    /// `--to`, as often as wanted: selectors of phones. The settings have it in [send] alone, as one phone for every
    /// command: Home::defaultPhone.
    void addPhones(std::vector<std::string>& selectors);
    /// `--listen-public`.
    void addListenPublic(bool& listensPublicly);
    /// `--find`: where a phone is looked for that is not at its recorded address.
    void addFind(host::FindSetting& find);
    /// A TCP port, from `lowest` to 65535.
    CLI::Option* addPort(const char* flag, std::uint16_t& port, std::uint16_t lowest, const char* what);

private:
    CLI::App* parser_;
    bool json_ = false;
    bool quiet_ = false;
};

/// The exit status of a command line that makes no sense.
inline constexpr int wrongCommandLine = 2;

/// Says what is wrong with a command line that `program` has refused, and where to read on; returns wrongCommandLine.
int tellWrongCommandLine(Output& output, const CLI::App& program, const CLI::ParseError& error);

/// Runs the command, and turns whatever it throws into one line on standard error and an exit status, which it returns.
[[nodiscard]] int runCommand(Command& command, Host& host);

/// Not more than a year: beyond that it is a slip of the finger, and "for ever" has its own value.
inline constexpr std::chrono::seconds longestTime = std::chrono::days(366);

/// Where a computer receives, and pairs, unless told otherwise. Below the range from which Linux takes ports for
/// outgoing connections, so that it is not in use by chance.
inline constexpr std::uint16_t defaultPort = 28471;

[[nodiscard]] CLI::Validator notEmpty();
/// A decimal TCP port, `lowest` to 65535.
[[nodiscard]] CLI::Validator portFrom(std::uint16_t lowest);
/// A number as `orlinth status` shows it, of what is called so: "a transfer".
[[nodiscard]] CLI::Validator numberOf(const char* what);

[[nodiscard]] std::unique_ptr<Command> makeIdCommand(CLI::App& program);
[[nodiscard]] std::unique_ptr<Command> makePairCommand(CLI::App& program);
[[nodiscard]] std::unique_ptr<Command> makeJoinCommand(CLI::App& program);
[[nodiscard]] std::unique_ptr<Command> makePeersCommand(CLI::App& program);
[[nodiscard]] std::unique_ptr<Command> makeSendCommand(CLI::App& program);
[[nodiscard]] std::unique_ptr<Command> makeReceiveCommand(CLI::App& program);
[[nodiscard]] std::unique_ptr<Command> makeClipCommand(CLI::App& program);
[[nodiscard]] std::unique_ptr<Command> makeWakeCommand(CLI::App& program);
[[nodiscard]] std::unique_ptr<Command> makeServeCommand(CLI::App& program);
[[nodiscard]] std::unique_ptr<Command> makeShareCommand(CLI::App& program);
[[nodiscard]] std::unique_ptr<Command> makeOutboxCommand(CLI::App& program);
[[nodiscard]] std::unique_ptr<Command> makeStatusCommand(CLI::App& program);
[[nodiscard]] std::unique_ptr<Command> makeCancelCommand(CLI::App& program);
[[nodiscard]] std::unique_ptr<Command> makeAcceptCommand(CLI::App& program);
[[nodiscard]] std::unique_ptr<Command> makeDeclineCommand(CLI::App& program);
[[nodiscard]] std::unique_ptr<Command> makeHistoryCommand(CLI::App& program);
[[nodiscard]] std::unique_ptr<Command> makeDoctorCommand(CLI::App& program);
[[nodiscard]] std::unique_ptr<Command> makePartialsCommand(CLI::App& program);

} // namespace orlinth::cli
