#pragma once

#include "OrlinthHost/Service/ControlLine.h"
#include "fakes/World.h"
#include "orlinth/Commands/Command.h"

#include <asio/post.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace orlinth::cli {

/// While it lives, standard input is this text (64 KiB at most), and then its end.
class StandardInput {
public:
    explicit StandardInput(std::string_view text) : earlier_(dup(STDIN_FILENO)) {
        std::array<int, 2> ends{};
        EXPECT_EQ(pipe(ends.data()), 0);
        EXPECT_EQ(write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
        dup2(ends[0], STDIN_FILENO);
        close(ends[0]);
        close(ends[1]);
    }
    ~StandardInput() {
        dup2(earlier_, STDIN_FILENO);
        close(earlier_);
    }
    StandardInput(const StandardInput&) = delete;
    StandardInput& operator=(const StandardInput&) = delete;

private:
    int earlier_;
};

/// A computer with a paired phone, on which single commands of the program run in virtual time.
class CommandWorldTest : public testing::Test {
protected:
    using ScriptedPeer = fakes::ScriptedPeer;
    using Row = TransportMessage;

    CommandWorldTest() {
        pair({world.phoneRecord()});
        world.files.putFolder("/home/ann/Downloads");
    }

    /// What a command has left behind.
    struct Ended {
        int status = -1;
        double after = 0; ///< seconds that it took
        std::string output;
        std::vector<std::string> errors; ///< the lines

        /// The one line that says what has failed; "" if there is none.
        [[nodiscard]] std::string failure() const {
            std::string failure;
            for (const std::string& line : errors) {
                if (line.starts_with("orlinth: ")) {
                    EXPECT_EQ(failure, "") << "a failure is one line";
                    failure = line;
                }
            }
            return failure;
        }
        /// The lines of the output in JSON form.
        [[nodiscard]] std::vector<Json> events() const {
            std::vector<Json> events;
            std::istringstream lines(output);
            for (std::string line; std::getline(lines, line);) {
                events.push_back(parseJson(line));
            }
            return events;
        }
        [[nodiscard]] std::vector<std::string> names() const {
            std::vector<std::string> names;
            for (const Json& event : events()) {
                names.push_back(event.at("event"));
            }
            return names;
        }
    };
    using Make = std::unique_ptr<Command>(CLI::App& program);

    /// Runs `orlinth WORDS...`, whose command `make` makes, to its end.
    Ended run(Make& make, const std::vector<std::string>& words) {
        CLI::App program("", "orlinth");
        const std::unique_ptr<Command> command = make(program);
        Output output;
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        Ended ended;
        const double begin = world.clock.elapsed();
        try { // as the program does
            program.parse(std::vector<std::string>(words.rbegin(), words.rend()));
            ended.status = runChosen(*command, output);
        } catch (const CLI::ParseError& error) {
            ended.status = tellWrongCommandLine(output, program, error);
        }
        ended.after = world.clock.elapsed() - begin;
        ended.output = testing::internal::GetCapturedStdout();
        std::istringstream lines(testing::internal::GetCapturedStderr());
        for (std::string line; std::getline(lines, line);) {
            ended.errors.push_back(line);
        }
        return ended;
    }

    void pair(const std::vector<PeerRecord>& records) {
        PeerStore(world.files, world.system.directories).writeBook({records});
    }
    [[nodiscard]] PeerBook book() { return PeerStore(world.files, world.system.directories).loadBook(); }
    [[nodiscard]] platform::PublicKey ownKey() {
        return KeyVault(world.files, world.system.directories).loadOrCreate().publicKey();
    }

    /// A phone that takes a connection, and says nothing for as long as the other end is there.
    [[nodiscard]] Task<> proveNothing() {
        const std::unique_ptr<platform::Listener> listener = world.network.listen(
            {.port = fakes::World::phonePort, .keepAlive = std::nullopt}, world.context.get_executor());
        const std::unique_ptr<platform::Stream> stream = co_await listener->accept(world.context.get_executor());
        Bytes bytes(1 << 16);
        try {
            static_cast<void>(co_await stream->readExact(bytes));
        } catch (const Error&) {
            // it was broken off
        }
    }

    /// Whatever of the program runs beside the command as its service: it takes one connection for each of the replies,
    /// and gives that when it is asked for something. What it is asked for is in `asked`.
    [[nodiscard]] Task<> serveOthers(std::vector<std::string> replies) {
        const std::unique_ptr<platform::Listener> socket =
            world.unixSockets.listen(dataFolder / "service.sock", world.context.get_executor());
        for (std::string& reply : replies) {
            const std::unique_ptr<platform::Stream> stream = co_await socket->accept(world.context.get_executor());
            try {
                std::string request = co_await host::readControlLine(*stream, world.clock, 5s);
                asked.push_back(std::move(request));
                co_await host::sendControlLine(*stream, world.clock, std::move(reply));
            } catch (const host::HostError&) {
                // whoever it was only wanted to know whether a service runs
            }
        }
    }

    const platform::Path dataFolder = "/home/ann/.local/share/Orlinth";
    std::string computerName; ///< of the settings
    host::SettingSources settings;
    std::vector<std::string> asked;
    fakes::World world;
    TaskRunner tasks{world.context};
    const std::string phoneName = world.phoneRecord().peer_hostname;

    int runChosen(Command& command, Output& output) {
        if (command.wantsJson()) {
            output.useJson();
        }
        if (command.wantsQuiet()) {
            output.beQuiet();
        }
        Host host(world.system, tasks, output);
        host.computerName = computerName;
        host.settings = settings;
        const auto isRunning = std::make_shared<bool>(true);
        asio::post(world.context, [this, isRunning] { moveTime(isRunning); });
        const int status = runCommand(command, host);
        *isRunning = false;
        return status;
    }

private:
    /// As long as a command runs: moves the clock to the next alarm whenever nothing else is to be done.
    void moveTime(const std::shared_ptr<bool>& isRunning) {
        if (!*isRunning) {
            return;
        }
        if (world.context.poll() == 0 && !world.clock.advanceToNextAlarm()) {
            ADD_FAILURE() << "the command waits for something that will never happen";
            tasks.cancel();
        }
        asio::post(world.context, [this, isRunning] { moveTime(isRunning); });
    }
};

} // namespace orlinth::cli
