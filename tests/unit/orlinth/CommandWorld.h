#pragma once

#include "OrlinthHost/HostError.h"
#include "fakes/World.h"
#include "orlinth/Commands/Command.h"

#include <asio/post.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace orlinth::cli {

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
        program.parse(std::vector<std::string>(words.rbegin(), words.rend()));
        Output output;
        if (command->wantsJson()) {
            output.useJson();
        }
        if (command->wantsQuiet()) {
            output.beQuiet();
        }
        Host host(world.system, tasks, output);
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        Ended ended;
        const double begin = world.clock.elapsed();
        const auto isRunning = std::make_shared<bool>(true);
        asio::post(world.context, [this, isRunning] { moveTime(isRunning); });
        try {
            ended.status = command->run(host);
        } catch (const host::HostError& error) { // as the program does
            ended.status = 1;
            output.failure(error.description(), error.hint());
        } catch (const std::exception& error) {
            ADD_FAILURE() << describe(error);
        }
        *isRunning = false;
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

    fakes::World world;
    TaskRunner tasks{world.context};
    const std::string phoneName = world.phoneRecord().peer_hostname;

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
