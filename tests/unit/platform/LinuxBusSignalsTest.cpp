#include "platform/linux/LinuxBusSignals.h"

#include "fakes/PrivateBus.h"

#include <asio/io_context.hpp>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <optional>
#include <poll.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace orlinth::platform {
namespace {

using fakes::PrivateBus;
using SteadyClock = std::chrono::steady_clock;
using namespace std::chrono_literals;

/// Nothing here takes this long; it only keeps a broken test from hanging.
constexpr auto patience = 60s;
constexpr const char* pending = "com.tarvinex.orlinth.share-pending";

/// A program that is started with its output in a pipe, and ended with the object.
class Program {
public:
    explicit Program(const std::vector<std::string>& words) {
        std::array<int, 2> pipe{};
        if (::pipe2(pipe.data(), O_CLOEXEC) != 0) {
            throw std::runtime_error("no pipe");
        }
        output_ = pipe[0];
        std::vector<char*> arguments; // before: the child of a process with threads may do next to nothing
        for (const std::string& word : words) {
            arguments.push_back(const_cast<char*>(word.c_str()));
        }
        arguments.push_back(nullptr);
        process_ = ::fork();
        if (process_ == 0) {
            ::dup2(pipe[1], STDOUT_FILENO);
            ::execvp(arguments.front(), arguments.data());
            ::_exit(127);
        }
        ::close(pipe[1]);
    }
    ~Program() {
        ::kill(process_, SIGKILL);
        ::waitpid(process_, nullptr, 0);
        ::close(output_);
    }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    /// All that it has said, after a moment in which it may say more.
    const std::string& listen() {
        pollfd event{.fd = output_, .events = POLLIN, .revents = 0};
        std::array<char, 4096> buffer{};
        if (::poll(&event, 1, 5) > 0) {
            const ssize_t count = ::read(output_, buffer.data(), buffer.size());
            said_.append(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        }
        return said_;
    }

private:
    int output_ = -1;
    pid_t process_ = -1;
    std::string said_;
};

class LinuxBusSignalsTest : public testing::Test {
protected:
    void SetUp() override { fakes::setBusAddress(""); }
    void TearDown() override { fakes::setBusAddress(""); }

    /// Lets callbacks run, and `meanwhile`, until this holds.
    void runUntil(const std::function<bool()>& isDone, const std::function<void()>& meanwhile = [] {}) {
        const auto end = SteadyClock::now() + patience;
        while (!isDone()) {
            ASSERT_LT(SteadyClock::now(), end) << "nothing happens any more";
            meanwhile();
            context.restart();
            context.poll();
            context.run_one_for(2ms);
        }
    }

    [[nodiscard]] std::unique_ptr<SignalSubscription> count(LinuxBusSignals& signals, const std::string& name,
                                                            int& counter) {
        return signals.listen(name, context.get_executor(), [&counter] { ++counter; });
    }

    /// Posts until it is heard: nobody can know when the bus has taken a wish to listen.
    void postUntilHeard(const std::string& name, const int& counter) {
        const int before = counter;
        runUntil([&] { return counter > before; }, [&] { sender.post(name); });
    }

    asio::io_context context;
    LinuxBusSignals sender{context, fakes::busEnvironment};
    LinuxBusSignals receiver{context, fakes::busEnvironment};
};

TEST(BusSignalName, IsMadeOfTheReverseDnsName) {
    const BusSignalName expected{
        .path = "/com/tarvinex/orlinth", .interface = "com.tarvinex.orlinth", .member = "SharePending"};
    EXPECT_EQ(busSignalName(pending), expected);
    EXPECT_EQ(busSignalName("a.b.c"), (BusSignalName{"/a/b", "a.b", "C"}));
    EXPECT_EQ(busSignalName("org.my-app.v2.a-b2-Cd_e"), (BusSignalName{"/org/my_app/v2", "org.my_app.v2", "AB2Cd_e"}));
    EXPECT_EQ(busSignalName("a.b._x-"), (BusSignalName{"/a/b", "a.b", "_x"}));
}

TEST(BusSignalName, IsNothingWhereDBusWouldNotTakeIt) {
    for (const char* name : {"", ".", "a", "a.b", "..a", "a..b", "a.b.", ".a.b", "a.b.-", "a.b.2c", "a.2b.c", "a.b.c/d",
                             "a/b.c.d", "a.b.c d", "a.b.\xC3\xA9"}) {
        EXPECT_EQ(busSignalName(name), std::nullopt) << name;
    }
    EXPECT_EQ(busSignalName("a.b." + std::string(256, 'c')), std::nullopt);
    EXPECT_NE(busSignalName("a.b." + std::string(255, 'c')), std::nullopt);
}

TEST_F(LinuxBusSignalsTest, AreHeardByOthersAndByTheSenderItself) {
    const PrivateBus bus;
    int others = 0;
    int own = 0;
    const auto one = count(receiver, pending, others);
    const auto two = count(sender, pending, own);
    runUntil([&] { return others > 0 && own > 0; }, [&] { sender.post(pending); });
}

TEST_F(LinuxBusSignalsTest, AreHeardOnceEachByEveryoneWhoListensForThatNameAndByNobodyElse) {
    const PrivateBus bus;
    int first = 0;
    int second = 0;
    int member = 0;
    int interface = 0;
    int last = 0;
    int ready = 0;
    const auto one = count(receiver, "a.b.changed", first);
    const auto two = count(receiver, "a.b.changed", second);
    const auto three = count(receiver, "a.b.changing", member);
    const auto four = count(receiver, "a.c.changed", interface);
    const auto five = count(receiver, "y.z.last", last);
    const auto six = count(receiver, "z.z.ready", ready); // the bus is asked in the order of the names
    postUntilHeard("z.z.ready", ready);
    sender.post("a.b.changed");
    sender.post("a.b.changed");
    sender.post("a.b.changed");
    sender.post("y.z.last");
    runUntil([&] { return last == 1; });
    EXPECT_EQ(first, 3);
    EXPECT_EQ(second, 3);
    EXPECT_EQ(member, 0);
    EXPECT_EQ(interface, 0);
}

TEST_F(LinuxBusSignalsTest, AreSignalsOnTheBusForEveryProgram) {
    const PrivateBus bus;
    Program monitor(
        {"dbus-monitor", "--address", fakes::busAddress(), "type='signal',interface='com.tarvinex.orlinth'"});
    const std::string signal = "path=/com/tarvinex/orlinth; interface=com.tarvinex.orlinth; member=SharePending\n";
    std::string said;
    runUntil([&] { return said.find(signal) != std::string::npos; },
             [&] {
                 sender.post(pending);
                 said = monitor.listen();
             });
    const std::string behind = said.substr(said.find(signal) + signal.size(), 1);
    EXPECT_NE(behind, " ") << "an indented line is an argument: " << said;
}

TEST_F(LinuxBusSignalsTest, OfOtherProgramsAreHeardWhateverTheyCarry) {
    const PrivateBus bus;
    int heard = 0;
    const auto subscription = count(receiver, pending, heard);
    const std::string address = std::string("--bus=") + fakes::busAddress();
    const std::string member = "com.tarvinex.orlinth.SharePending";
    for (const std::string& argument : {std::string(), std::string("string:x")}) {
        std::vector<std::string> words{"dbus-send", address, "--type=signal", "/com/tarvinex/orlinth", member};
        if (!argument.empty()) {
            words.push_back(argument);
        }
        std::optional<Program> program;
        const int before = heard;
        runUntil([&] { return heard > before; },
                 [&] {
                     program.emplace(words);
                     program->listen();
                 });
    }
}

TEST_F(LinuxBusSignalsTest, AreNotHeardAnyMoreOnceTheSubscriptionIsGone) {
    const PrivateBus bus;
    int heard = 0;
    int other = 0;
    auto subscription = count(receiver, pending, heard);
    const auto kept = count(receiver, "z.z.kept", other);
    postUntilHeard("z.z.kept", other);
    asio::io_context elsewhere; // not run, so that what is posted there waits
    int late = 0;
    auto waiting = receiver.listen(pending, elsewhere.get_executor(), [&late] { ++late; });
    postUntilHeard(pending, heard);
    waiting.reset();
    subscription.reset();
    const int before = heard;
    sender.post(pending);
    postUntilHeard("z.z.kept", other);
    elsewhere.poll();
    EXPECT_EQ(late, 0);
    EXPECT_EQ(heard, before);
}

TEST_F(LinuxBusSignalsTest, MayEndTheirOwnSubscription) {
    const PrivateBus bus;
    std::unique_ptr<SignalSubscription> subscription;
    int heard = 0;
    subscription = receiver.listen(pending, context.get_executor(), [&] {
        ++heard;
        subscription.reset();
    });
    postUntilHeard(pending, heard);
    EXPECT_EQ(heard, 1);
    EXPECT_EQ(subscription, nullptr);
}

TEST_F(LinuxBusSignalsTest, OfABusThatComesLaterAreHeard) {
    int heard = 0;
    const auto subscription = count(receiver, pending, heard);
    sender.post(pending);
    const PrivateBus bus;
    postUntilHeard(pending, heard);
}

TEST_F(LinuxBusSignalsTest, OfABusThatComesBackAreHeard) {
    const fakes::TemporaryFolder folder;
    int heard = 0;
    const auto subscription = count(receiver, pending, heard);
    {
        const PrivateBus bus(folder / "bus");
        postUntilHeard(pending, heard);
    }
    sender.post(pending);
    const PrivateBus bus(folder / "bus");
    postUntilHeard(pending, heard);
}

TEST_F(LinuxBusSignalsTest, WithoutABusGoNowhereAndHoldNobodyUp) {
    int heard = 0;
    const auto subscription = count(receiver, pending, heard);
    for (const char* address : {"", "unix:path=/nowhere/bus", "rubbish"}) {
        fakes::setBusAddress(address);
        const auto start = SteadyClock::now();
        sender.post(pending);
        EXPECT_LT(SteadyClock::now() - start, 5s);
    }
    context.poll();
    EXPECT_EQ(heard, 0);
}

TEST_F(LinuxBusSignalsTest, HoldNobodyUpWhereTheBusSaysNothing) {
    const fakes::SilentBus bus;
    const auto start = SteadyClock::now();
    {
        LinuxBusSignals signals(context, fakes::busEnvironment);
        int heard = 0;
        const auto subscription = count(signals, pending, heard);
        signals.post(pending);
    }
    EXPECT_LT(SteadyClock::now() - start, 5s);
}

TEST_F(LinuxBusSignalsTest, WithNamesThatDBusDoesNotKnowAreNeitherSentNorHeard) {
    const PrivateBus bus;
    int odd = 0;
    int heard = 0;
    const auto one = count(receiver, "not a name", odd);
    const auto two = count(receiver, pending, heard);
    sender.post("not a name");
    postUntilHeard(pending, heard);
    EXPECT_EQ(odd, 0);
}

TEST_F(LinuxBusSignalsTest, MayBeSentAndListenedForFromManyThreads) {
    const PrivateBus bus;
    int heard = 0;
    const auto subscription = count(receiver, pending, heard);
    postUntilHeard(pending, heard);
    const int before = heard;
    std::vector<std::thread> threads;
    for (int number = 0; number < 4; ++number) {
        threads.emplace_back([this] {
            for (int round = 0; round < 5; ++round) {
                const auto other = receiver.listen("a.b.c", context.get_executor(), [] {});
                sender.post(pending);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    runUntil([&] { return heard >= before + 20; });
}

TEST_F(LinuxBusSignalsTest, LeaveNothingWaitingOnceNobodyListens) {
    int heard = 0;
    auto subscription = count(receiver, pending, heard); // without a bus as well
    context.restart();
    context.run_for(10ms);
    EXPECT_FALSE(context.stopped());
    const PrivateBus bus;
    postUntilHeard(pending, heard);
    subscription.reset();
    context.restart();
    context.run_for(patience);
    EXPECT_TRUE(context.stopped());
}

TEST_F(LinuxBusSignalsTest, DoNotMindASubscriptionThatOutlivesThem) {
    const PrivateBus bus;
    std::unique_ptr<SignalSubscription> subscription;
    int heard = 0;
    {
        LinuxBusSignals signals(context, fakes::busEnvironment);
        subscription = count(signals, pending, heard);
        postUntilHeard(pending, heard);
    }
    const int before = heard;
    sender.post(pending);
    context.poll();
    EXPECT_EQ(heard, before);
}

} // namespace
} // namespace orlinth::platform
