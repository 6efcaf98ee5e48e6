#include "platform/AsyncMutex.h"

#include "fakes/CancelMidway.h"
#include "fakes/RunTask.h"

#include <asio/experimental/awaitable_operators.hpp>
#include <asio/post.hpp>
#include <gmock/gmock.h>

#include <stdexcept>

namespace orlinth::platform {
namespace {

using namespace asio::experimental::awaitable_operators;
using testing::ElementsAre;

struct AsyncMutexTest : testing::Test {
    asio::io_context context;
    AsyncMutex mutex{context.get_executor()};
    std::vector<std::string> steps;

    /// Takes the section, steps back a few turns inside, and leaves.
    Task<> visit(std::string name) {
        const AsyncMutex::Guard turn = co_await mutex.lock();
        steps.push_back(name + " in");
        for (int i = 0; i < 3; ++i) {
            co_await asio::post(context, asio::use_awaitable);
        }
        steps.push_back(name + " out");
    }

    Task<> visitAndFail() {
        const AsyncMutex::Guard turn = co_await mutex.lock();
        throw std::runtime_error("inside");
    }

    Task<> threeVisits() {
        Task<> a = visit("a");
        Task<> b = visit("b");
        Task<> c = visit("c");
        co_await (std::move(a) && std::move(b) && std::move(c));
    }

    Task<> waitBehind(AsyncMutex::Guard* held) {
        static_cast<void>(held); // whoever holds it keeps it meanwhile
        const AsyncMutex::Guard turn = co_await mutex.lock();
        steps.emplace_back("got through");
    }

    Task<> take(std::optional<AsyncMutex::Guard>& into) {
        AsyncMutex::Guard turn = co_await mutex.lock();
        into.emplace(std::move(turn));
    }
};

TEST_F(AsyncMutexTest, LetsOneTaskThroughAtATimeAndEveryoneInTheEnd) {
    fakes::runTask(context, threeVisits());
    ASSERT_EQ(steps.size(), 6U);
    for (std::size_t i = 0; i < steps.size(); i += 2) {
        EXPECT_EQ(steps[i].substr(1), " in");
        EXPECT_EQ(steps[i + 1], steps[i].substr(0, 1) + " out") << "two were inside at once";
    }
}

TEST_F(AsyncMutexTest, IsFreeAgainAfterAFailureInside) {
    EXPECT_THROW(fakes::runTask(context, visitAndFail()), std::runtime_error);
    fakes::runTask(context, visit("next"));
    EXPECT_THAT(steps, ElementsAre("next in", "next out"));
}

TEST_F(AsyncMutexTest, EndsAWaitThatIsCancelledAndStaysWithItsHolder) {
    std::optional<AsyncMutex::Guard> held;
    fakes::runTask(context, take(held));
    EXPECT_TRUE(fakes::isCancelled(fakes::cancelMidway(context, waitBehind(&*held))));
    EXPECT_TRUE(fakes::isCancelled(fakes::cancelMidway(context, waitBehind(&*held))));
    EXPECT_TRUE(steps.empty());
    held.reset();
    fakes::runTask(context, visit("next"));
    EXPECT_THAT(steps, ElementsAre("next in", "next out"));
}

TEST_F(AsyncMutexTest, PassesOnToAnotherWhenAWaiterIsCancelledInTheTurnOfTheRelease) {
    std::optional<AsyncMutex::Guard> held;
    fakes::runTask(context, take(held));
    asio::cancellation_signal signal;
    std::exception_ptr cancelled;
    bool secondEnded = false;
    spawn(context.get_executor(), waitBehind(&*held), signal.slot(),
          [&cancelled](std::exception_ptr error) { cancelled = std::move(error); });
    spawn(context.get_executor(), visit("second"), [&secondEnded](const std::exception_ptr& error) {
        EXPECT_FALSE(error);
        secondEnded = true;
    });
    context.restart();
    context.poll();
    held.reset();
    signal.emit(asio::cancellation_type::terminal);
    context.restart();
    context.run_for(std::chrono::seconds(5));
    EXPECT_TRUE(secondEnded);
    EXPECT_TRUE(fakes::isCancelled(cancelled));
    EXPECT_THAT(steps, ElementsAre("second in", "second out"));
}

TEST_F(AsyncMutexTest, MovesTheRightWithTheGuard) {
    std::optional<AsyncMutex::Guard> held;
    fakes::runTask(context, take(held));
    std::optional<AsyncMutex::Guard> mine(std::move(*held));
    held.reset(); // an empty guard frees nothing
    EXPECT_TRUE(fakes::isCancelled(fakes::cancelMidway(context, waitBehind(&*mine))));
    mine.reset();
    fakes::runTask(context, visit("next"));
    EXPECT_THAT(steps, ElementsAre("next in", "next out"));
}

} // namespace
} // namespace orlinth::platform
