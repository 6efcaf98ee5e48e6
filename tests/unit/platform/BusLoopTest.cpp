#include "platform/linux/BusLoop.h"

#include "fakes/BusProgram.h"

#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <gtest/gtest.h>

#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace orlinth::platform {
namespace {

using fakes::busName;
using fakes::busPath;
using fakes::PrivateBus;
using SteadyClock = std::chrono::steady_clock;
using namespace std::chrono_literals;

/// Nothing here takes this long; it only keeps a broken test from hanging.
constexpr auto patience = 60s;

constexpr const char* slowName = "org.example.Slow";
constexpr const char* slowPath = "/slow";

/// A program of the session that answers when it is told to.
class SlowProgram {
public:
    SlowProgram() {
        static const sd_bus_vtable methods[] = {
            SD_BUS_VTABLE_START(0),
            SD_BUS_METHOD("Ask", "", "", onAsk, 0),
            SD_BUS_VTABLE_END,
        };
        fakes::requireBus(::sd_bus_add_object_vtable(program_.get(), nullptr, slowPath, slowName, methods, this));
        fakes::requireBus(::sd_bus_request_name(program_.get(), slowName, 0));
    }
    ~SlowProgram() { ::sd_bus_message_unref(question_); }
    SlowProgram(const SlowProgram&) = delete;
    SlowProgram& operator=(const SlowProgram&) = delete;

    void process() { program_.process(); }
    [[nodiscard]] bool isAsked() const { return question_ != nullptr; }
    void answer() { fakes::requireBus(::sd_bus_reply_method_return(question_, "")); }

    /// So many signals, of which the bus has taken the last one when this returns.
    void flood(int count) {
        for (int i = 0; i < count; ++i) {
            fakes::requireBus(::sd_bus_emit_signal(program_.get(), slowPath, slowName, "Drop", ""));
        }
        program_.arrive();
    }

private:
    static int onAsk(sd_bus_message* call, void* data, sd_bus_error*) {
        static_cast<SlowProgram*>(data)->question_ = ::sd_bus_message_ref(call);
        return 1;
    }

    fakes::BusProgram program_;
    sd_bus_message* question_ = nullptr;
};

class BusLoopTest : public testing::Test {
protected:
    void TearDown() override {
        loop.reset();
        fakes::setBusAddress("");
    }

    void make(std::chrono::microseconds answerLimit = 30s) {
        loop.emplace(context.get_executor(), fakes::busEnvironment, answerLimit, [this] {
            ++lost;
            EXPECT_EQ(loop->get(), nullptr);
            if (onLost) {
                onLost();
            }
        });
    }

    void runUntil(const std::function<bool()>& isDone) {
        const auto end = SteadyClock::now() + patience;
        while (!isDone()) {
            ASSERT_LT(SteadyClock::now(), end) << "nothing happens any more";
            if (slow) {
                slow->process();
            }
            context.restart();
            context.run_one_for(2ms);
        }
    }

    static int onAnswer(sd_bus_message* message, void* data, sd_bus_error*) {
        auto& self = *static_cast<BusLoopTest*>(data);
        ++self.answers;
        self.errors += ::sd_bus_message_is_method_error(message, nullptr) > 0 ? 1 : 0;
        if (self.onAnswered) {
            self.onAnswered();
        }
        return 0;
    }

    /// Asks the bus itself, which answers at once.
    void askBus() {
        fakes::requireBus(::sd_bus_call_method_async(loop->get(), nullptr, busName, busPath, busName, "GetId", onAnswer,
                                                     this, nullptr));
        loop->wake();
    }

    void askSlow() {
        fakes::requireBus(::sd_bus_call_method_async(loop->get(), nullptr, slowName, slowPath, slowName, "Ask",
                                                     onAnswer, this, nullptr));
        loop->wake();
    }

    /// Begins to count the signals of the slow program.
    void listen() {
        fakes::requireBus(::sd_bus_match_signal_async(
            loop->get(), nullptr, slowName, slowPath, slowName, "Drop",
            [](sd_bus_message*, void* data, sd_bus_error*) {
                ++static_cast<BusLoopTest*>(data)->drops;
                return 0;
            },
            ignoreBusAnswer, this));
        askBus(); // whose answer comes behind that of the wish
        runUntil([&] { return answers == 1; });
    }

    asio::io_context context;
    std::optional<SlowProgram> slow;
    std::optional<BusLoop> loop;
    int answers = 0;
    int errors = 0;
    int drops = 0;
    int lost = 0;
    std::function<void()> onAnswered;
    std::function<void()> onLost;
};

TEST_F(BusLoopTest, IsNoneWhereThereIsNoBus) {
    make();
    for (const char* address : {"", "unix:path=/nowhere/bus", "rubbish"}) {
        fakes::setBusAddress(address);
        EXPECT_FALSE(loop->open()) << address;
        EXPECT_EQ(loop->get(), nullptr);
    }
    loop->wake();
    EXPECT_FALSE(loop->runUntil([] { return false; }, SteadyClock::now() + patience));
    loop->close();
    context.run();
    EXPECT_EQ(lost, 0);
}

TEST_F(BusLoopTest, AnswersOnTheExecutorAndNeverWithinTheCall) {
    const PrivateBus bus;
    make();
    ASSERT_TRUE(loop->open());
    askBus();
    EXPECT_EQ(answers, 0);
    runUntil([&] { return answers == 1; });
    askBus(); // once it is connected as well
    EXPECT_EQ(answers, 1);
    runUntil([&] { return answers == 2; });
    EXPECT_EQ(errors, 0);
    EXPECT_TRUE(loop->open());
}

TEST_F(BusLoopTest, ASlowAnswerHoldsNobodyUp) {
    const PrivateBus bus;
    slow.emplace();
    make();
    ASSERT_TRUE(loop->open());
    askSlow();
    runUntil([&] { return slow->isAsked(); });
    askBus(); // behind the question that has no answer
    int turns = 0;
    std::function<void()> takeTurn = [&] {
        if (++turns < 100) {
            asio::post(context, takeTurn);
        }
    };
    asio::post(context, takeTurn);
    runUntil([&] { return turns == 100 && answers == 1; });
    slow->answer();
    runUntil([&] { return answers == 2; });
    EXPECT_EQ(errors, 0);
}

TEST_F(BusLoopTest, WhatIsNotAnsweredInTimeHasFailed) {
    const PrivateBus bus;
    slow.emplace();
    make(200ms);
    ASSERT_TRUE(loop->open());
    askBus();
    runUntil([&] { return answers == 1; });
    const auto start = SteadyClock::now();
    askSlow();
    runUntil([&] { return answers == 2; });
    EXPECT_GE(SteadyClock::now() - start, 200ms);
    EXPECT_EQ(errors, 1);
    EXPECT_EQ(lost, 0);
    askBus(); // and the connection is as good as before
    runUntil([&] { return answers == 3; });
    EXPECT_EQ(errors, 1);
}

TEST_F(BusLoopTest, IsLostWithTheBusAndFoundWithTheNextOne) {
    {
        PrivateBus bus;
        slow.emplace();
        make();
        ASSERT_TRUE(loop->open());
        askSlow();
        runUntil([&] { return slow->isAsked(); });
        bus.stop();
        slow.reset();
        runUntil([&] { return lost == 1; });
    }
    EXPECT_EQ(errors, answers) << "who had asked is told that it has failed, if anything";
    const PrivateBus bus;
    const int before = answers;
    ASSERT_TRUE(loop->open());
    askBus();
    runUntil([&] { return answers > before; });
    EXPECT_EQ(errors, before);
    EXPECT_EQ(lost, 1);
}

TEST_F(BusLoopTest, ABusThatDoesNotSayHelloInTimeIsLost) {
    const fakes::SilentBus silent;
    make(100ms);
    ASSERT_TRUE(loop->open());
    const auto start = SteadyClock::now();
    askBus();
    runUntil([&] { return lost == 1; });
    EXPECT_GE(SteadyClock::now() - start, 100ms);
    ASSERT_TRUE(loop->open()); // the same while nobody runs the executor
    EXPECT_FALSE(loop->runUntil([] { return false; }, SteadyClock::now() + patience));
    EXPECT_EQ(lost, 2);
}

TEST_F(BusLoopTest, MayBeDestroyedWithCallsUnderWay) {
    const PrivateBus bus;
    slow.emplace();
    make();
    ASSERT_TRUE(loop->open());
    askBus(); // before it is connected
    loop.reset();
    context.run();
    make();
    ASSERT_TRUE(loop->open());
    askSlow();
    runUntil([&] { return slow->isAsked(); });
    slow->answer();
    askBus();
    loop.reset();
    context.restart();
    context.run(); // nothing is left that would keep it running
    EXPECT_EQ(answers, 0);
    EXPECT_EQ(lost, 0);
}

TEST_F(BusLoopTest, MayEndBeforeAnExecutorThatWasNeverRun) {
    const PrivateBus bus;
    auto shortLived = std::make_unique<asio::io_context>();
    BusLoop early(shortLived->get_executor(), fakes::busEnvironment, 30s, [] {});
    ASSERT_TRUE(early.open());
    early.close();
    shortLived.reset();
}

TEST_F(BusLoopTest, MayBeClosedAndDestroyedInItsCallbacks) {
    const PrivateBus bus;
    make();
    for (const bool isDestroyed : {false, true}) {
        SCOPED_TRACE(isDestroyed);
        answers = 0;
        onAnswered = [&] {
            if (isDestroyed) {
                loop.reset();
            } else {
                loop->close();
            }
        };
        ASSERT_TRUE(loop->open());
        askBus();
        askBus(); // is not answered any more
        runUntil([&] { return answers > 0; });
        context.restart();
        context.run();
        EXPECT_EQ(answers, 1);
    }
    EXPECT_EQ(lost, 0);
}

TEST_F(BusLoopTest, MayBeDestroyedWhenItIsLost) {
    const fakes::SilentBus silent;
    bool isGone = false;
    std::unique_ptr<BusLoop> doomed;
    doomed = std::make_unique<BusLoop>(context.get_executor(), fakes::busEnvironment, 20ms, [&] {
        doomed.reset();
        isGone = true;
    });
    ASSERT_TRUE(doomed->open());
    runUntil([&] { return isGone; });
    EXPECT_EQ(doomed, nullptr);
}

TEST_F(BusLoopTest, MayBeOpenedAgainWhenItIsLost) {
    const fakes::SilentBus silent;
    make(100ms);
    std::optional<PrivateBus> bus;
    onLost = [&] {
        if (!bus) {
            bus.emplace();
        }
        EXPECT_TRUE(loop->open()); // on a busy machine its hello may come too late again
        askBus();
    };
    ASSERT_TRUE(loop->open());
    runUntil([&] { return answers > errors; });
    EXPECT_GE(lost, 1);
}

TEST_F(BusLoopTest, AFloodLeavesOthersTheirTurns) {
    const PrivateBus bus;
    slow.emplace();
    make();
    ASSERT_TRUE(loop->open());
    listen();
    constexpr int count = 1000;
    slow->flood(count);
    int most = 0;
    int before = 0;
    std::function<void()> takeTurn = [&] {
        most = std::max(most, drops - before);
        before = drops;
        if (drops < count) {
            asio::post(context, takeTurn);
        }
    };
    asio::post(context, takeTurn);
    runUntil([&] { return drops == count; });
    EXPECT_LE(most, 2 * BusLoop::maxMessagesPerTurn);
}

TEST_F(BusLoopTest, WorksInPlaceWhereNobodyRunsTheExecutor) {
    const PrivateBus bus;
    make();
    ASSERT_TRUE(loop->open());
    askBus();
    EXPECT_TRUE(loop->runUntil([&] { return answers == 1; }, SteadyClock::now() + patience));
    EXPECT_FALSE(loop->runUntil([] { return false; }, SteadyClock::now() + 20ms));
    askBus(); // and the executor takes over where that has ended
    runUntil([&] { return answers == 2; });
}

TEST_F(BusLoopTest, ProgramsThatAreStartedDoNotInheritItsDescriptors) {
    const auto open = [] {
        std::set<int> numbers;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            numbers.insert(std::stoi(entry.path().filename().string()));
        }
        std::erase_if(numbers, [](int number) { return ::fcntl(number, F_GETFD) == -1; }); // that of the look itself
        return numbers;
    };
    const PrivateBus bus;
    const asio::steady_timer first(context); // so that Asio has what it needs for itself
    const std::set<int> before = open();
    make();
    ASSERT_TRUE(loop->open());
    askBus();
    runUntil([&] { return answers == 1; });
    int count = 0;
    for (const int number : open()) {
        if (!before.contains(number)) {
            EXPECT_EQ(::fcntl(number, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC) << number;
            ++count;
        }
    }
    EXPECT_GE(count, 2);
    loop->close();
    EXPECT_EQ(open(), before);
}

} // namespace
} // namespace orlinth::platform
