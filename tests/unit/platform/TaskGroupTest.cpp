#include "platform/TaskGroup.h"

#include "fakes/CancelMidway.h"
#include "fakes/RunTask.h"
#include "fakes/VirtualClock.h"

#include <asio/post.hpp>
#include <asio/this_coro.hpp>
#include <asio/use_awaitable.hpp>
#include <gmock/gmock.h>

#include <stdexcept>

namespace orlinth::platform {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::string textOf(const std::exception_ptr& error) {
    if (!error) {
        return "well";
    }
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& caught) {
        return isCancellation(caught) ? "cancelled" : caught.what();
    }
}

struct TaskGroupTest : testing::Test {
    TaskGroupTest() = default;
    TaskGroupTest(const TaskGroupTest&) = delete;
    TaskGroupTest& operator=(const TaskGroupTest&) = delete;
    ~TaskGroupTest() override {
        fakes::runUntilIdle(context, clock);
        EXPECT_EQ(clock.pendingAlarms(), 0U) << "a task is left behind";
        EXPECT_TRUE(context.stopped()) << "something is left behind";
    }

    asio::io_context context;
    fakes::VirtualClock clock{context};
    std::vector<std::string> steps;
    std::optional<TaskGroup> group{std::in_place, context.get_executor()};

    void settle() {
        context.restart();
        context.poll();
    }
    [[nodiscard]] TaskGroup::OnEnd note(std::string name) {
        return [this, name = std::move(name)](const std::exception_ptr& error) {
            steps.push_back(name + " ended " + textOf(error));
        };
    }
    Task<> sleepFor(std::string name, Seconds time) {
        steps.push_back(name + " began");
        co_await clock.sleep(time);
        steps.push_back(name + " slept");
    }
    Task<> fail(std::string text) {
        co_await clock.sleep(1s);
        throw std::runtime_error(text);
    }
    /// Needs some turns to clear up when it is cancelled.
    Task<> leaveSlowly(std::string name) {
        bool isCancelled = false;
        try {
            co_await clock.sleep(3600s);
        } catch (const Cancelled&) {
            isCancelled = true;
        }
        if (isCancelled) {
            co_await asio::this_coro::reset_cancellation_state();
            co_await clock.sleep(2s);
            steps.push_back(name + " cleared up");
        }
    }
    Task<> addAnother(int more) {
        co_await clock.sleep(1s);
        steps.push_back("one of " + std::to_string(more));
        if (more > 1) {
            group->add(addAnother(more - 1), note("added"));
        }
    }
    Task<> joinAndNote() {
        co_await group->join();
        steps.emplace_back("joined");
    }
    Task<> awaitRoom(std::size_t tasks) {
        co_await group->untilFewerThan(tasks);
        steps.push_back("fewer than " + std::to_string(tasks));
    }
};

TEST_F(TaskGroupTest, RunsItsTasksAndTellsTheEndOfEach) {
    EXPECT_TRUE(group->isEmpty());
    group->add(sleepFor("a", 2s), note("a"));
    group->add(sleepFor("b", 1s), note("b"));
    EXPECT_EQ(group->size(), 2U);
    fakes::runVirtual(context, clock, joinAndNote());
    EXPECT_THAT(steps,
                ElementsAre("a began", "b began", "b slept", "b ended well", "a slept", "a ended well", "joined"));
    EXPECT_TRUE(group->isEmpty());
    EXPECT_EQ(clock.elapsed(), 2);
}

TEST_F(TaskGroupTest, JoinsAtOnceIfThereIsNothingToWaitFor) {
    fakes::runTask(context, joinAndNote());
    EXPECT_THAT(steps, ElementsAre("joined"));
}

TEST_F(TaskGroupTest, HandsOverWhatEscapesAndKeepsTheOthers) {
    group->add(fail("disk full"), note("a"));
    group->add(sleepFor("b", 2s), note("b"));
    fakes::runVirtual(context, clock, joinAndNote());
    EXPECT_THAT(steps, ElementsAre("b began", "a ended disk full", "b slept", "b ended well", "joined"));
}

TEST_F(TaskGroupTest, CancelsAllAndJoinsThoseThatClearUp) {
    group->add(leaveSlowly("a"), note("a"));
    group->add(sleepFor("b", 3600s), note("b"));
    settle();
    group->cancelAll();
    EXPECT_EQ(group->size(), 2U) << "they end later, on the executor";
    fakes::runVirtual(context, clock, joinAndNote());
    EXPECT_THAT(steps, ElementsAre("b began", "b ended cancelled", "a cleared up", "a ended well", "joined"));
    EXPECT_EQ(clock.elapsed(), 2);
}

TEST_F(TaskGroupTest, ATaskThatIsCancelledBeforeItBeginsNeverRuns) {
    group->add(sleepFor("a", 1s), note("a"));
    group->cancelAll();
    fakes::runVirtual(context, clock, joinAndNote());
    EXPECT_THAT(steps, ElementsAre("a ended cancelled", "joined"));
}

TEST_F(TaskGroupTest, CancellingConcernsNobodyWhoIsAddedLater) {
    group->cancelAll();
    group->add(sleepFor("a", 1s), note("a"));
    fakes::runVirtual(context, clock, joinAndNote());
    EXPECT_THAT(steps, ElementsAre("a began", "a slept", "a ended well", "joined"));
}

TEST_F(TaskGroupTest, CancellingTwiceAndAfterTheEndDoesNoHarm) {
    group->add(sleepFor("a", 1s), note("a"));
    settle();
    group->cancelAll();
    group->cancelAll();
    settle();
    group->cancelAll();
    EXPECT_THAT(steps, ElementsAre("a began", "a ended cancelled"));
}

TEST_F(TaskGroupTest, TakesItsTasksAlongWhenItGoes) {
    group->add(sleepFor("a", 3600s), note("a"));
    group->add(leaveSlowly("b"), note("b"));
    settle();
    group->add(sleepFor("c", 3600s), note("c")); // has not begun
    group.reset();
    fakes::runUntilIdle(context, clock);
    EXPECT_THAT(steps,
                ElementsAre("a began", "a ended cancelled", "c ended cancelled", "b cleared up", "b ended well"));
    EXPECT_EQ(clock.elapsed(), 2);
}

TEST_F(TaskGroupTest, TellsWhatEscapesAlsoWhenItIsGone) {
    const auto failToClearUp = [](fakes::VirtualClock& virtualTime) -> Task<> {
        bool isCancelled = false;
        try {
            co_await virtualTime.sleep(3600s);
        } catch (const Cancelled&) {
            isCancelled = true;
        }
        if (isCancelled) {
            throw std::runtime_error("cannot save");
        }
    };
    group->add(failToClearUp(clock), note("a"));
    settle();
    group.reset();
    settle();
    EXPECT_THAT(steps, ElementsAre("a ended cannot save"));
}

TEST_F(TaskGroupTest, MayGoInTheMiddleOfOneOfItsTasks) {
    const auto end = [](TaskGroupTest& test) -> Task<> {
        test.group.reset();
        test.steps.emplace_back("group is gone");
        co_await test.clock.sleep(1s);
        test.steps.emplace_back("not reached");
    };
    group->add(end(*this), note("a"));
    settle();
    EXPECT_THAT(steps, ElementsAre("group is gone", "a ended cancelled"));
}

TEST_F(TaskGroupTest, MayGoInAnEndHandler) {
    group->add(sleepFor("a", 1s), [this](const std::exception_ptr&) {
        group.reset();
        steps.emplace_back("group is gone");
    });
    group->add(sleepFor("b", 3600s), note("b"));
    fakes::runUntilIdle(context, clock);
    EXPECT_THAT(steps, ElementsAre("a began", "b began", "a slept", "group is gone", "b ended cancelled"));
}

TEST_F(TaskGroupTest, WaitsForTasksThatItsTasksAdd) {
    group->add(addAnother(3), note("first"));
    fakes::runVirtual(context, clock, joinAndNote());
    EXPECT_THAT(steps, ElementsAre("one of 3", "first ended well", "one of 2", "added ended well", "one of 1",
                                   "added ended well", "joined"));
    EXPECT_EQ(clock.elapsed(), 3);
}

TEST_F(TaskGroupTest, WaitsForATaskThatAnEndHandlerAdds) {
    group->add(sleepFor("a", 1s), [this](const std::exception_ptr&) {
        EXPECT_TRUE(group->isEmpty()) << "a task has left before its end is told";
        group->add(sleepFor("b", 1s), note("b"));
    });
    fakes::runVirtual(context, clock, joinAndNote());
    EXPECT_THAT(steps, ElementsAre("a began", "a slept", "b began", "b slept", "b ended well", "joined"));
}

TEST_F(TaskGroupTest, CancelsATaskThatCancelsAll) {
    const auto cancelAll = [](TaskGroupTest& test) -> Task<> {
        test.group->cancelAll();
        co_await test.clock.sleep(1s);
        test.steps.emplace_back("not reached");
    };
    group->add(cancelAll(*this), note("a"));
    fakes::runVirtual(context, clock, joinAndNote());
    EXPECT_THAT(steps, ElementsAre("a ended cancelled", "joined"));
}

TEST_F(TaskGroupTest, IsInOrderAfterAnEndHandlerHasThrown) {
    group->add(sleepFor("a", 1s), [](const std::exception_ptr&) { throw std::logic_error("in the handler"); });
    group->add(sleepFor("b", 2s), note("b"));
    EXPECT_THROW(fakes::runVirtual(context, clock, joinAndNote()), std::logic_error) << "it must not get lost";
    EXPECT_EQ(group->size(), 1U);
    fakes::runUntilIdle(context, clock);
    EXPECT_TRUE(group->isEmpty());
    EXPECT_THAT(steps, ElementsAre("a began", "b began", "a slept", "b slept", "b ended well", "joined"));
}

TEST_F(TaskGroupTest, LetsSomebodyWaitForRoom) {
    group->add(sleepFor("a", 1s), note("a"));
    group->add(sleepFor("b", 2s), note("b"));
    fakes::runVirtual(context, clock, awaitRoom(3));
    EXPECT_EQ(clock.elapsed(), 0);
    fakes::runVirtual(context, clock, awaitRoom(2));
    EXPECT_EQ(clock.elapsed(), 1);
    EXPECT_EQ(group->size(), 1U);
}

TEST_F(TaskGroupTest, AJoinCanBeCancelledAndTheTasksStay) {
    group->add(sleepFor("a", 5s), note("a"));
    std::exception_ptr end;
    asio::cancellation_signal stop;
    spawn(context.get_executor(), joinAndNote(), stop.slot(), [&end](std::exception_ptr error) { end = error; });
    settle();
    stop.emit(asio::cancellation_type::terminal);
    settle();
    EXPECT_TRUE(fakes::isCancelled(end));
    EXPECT_EQ(group->size(), 1U);
    fakes::runUntilIdle(context, clock);
    EXPECT_THAT(steps, ElementsAre("a began", "a slept", "a ended well"));
}

TEST_F(TaskGroupTest, AJoinOutlivesTheGroup) {
    group->add(leaveSlowly("a"), note("a"));
    spawn(context.get_executor(), joinAndNote(), [](const std::exception_ptr& error) { EXPECT_FALSE(error); });
    settle();
    group.reset();
    fakes::runUntilIdle(context, clock);
    EXPECT_THAT(steps, ElementsAre("a cleared up", "a ended well", "joined"));
}

} // namespace
} // namespace orlinth::platform
