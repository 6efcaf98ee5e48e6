#include "platform/linux/LinuxWorkQueues.h"

#include <asio/post.hpp>
#include <gtest/gtest.h>

#include <future>
#include <thread>

namespace orlinth::platform {
namespace {

/// The thread on which the queue runs something. `run` lets that come about.
template <typename Run>
std::thread::id threadOf(const Executor& queue, Run run) {
    const auto seen = std::make_shared<std::promise<std::thread::id>>();
    asio::post(queue, [seen] { seen->set_value(std::this_thread::get_id()); });
    run();
    return seen->get_future().get();
}

TEST(LinuxWorkQueues, RunSerialQueuesOnTheContextsThread) {
    asio::io_context context;
    LinuxWorkQueues queues(context);
    const Executor one = queues.makeSerialQueue("one");
    EXPECT_FALSE(queues.makeSerialQueue("other") == one);
    EXPECT_EQ(threadOf(one, [&context] { context.run(); }), std::this_thread::get_id());
}

TEST(LinuxWorkQueues, RunAllOthersOnThreadsOfTheirOwn) {
    asio::io_context context; // which nobody runs
    LinuxWorkQueues queues(context);
    for (const Executor& queue :
         {queues.makeWorkerQueue("worker"), queues.makeBlockingQueue(), queues.makeThreadQueue("thread")}) {
        EXPECT_NE(threadOf(queue, [] {}), std::this_thread::get_id());
    }
}

} // namespace
} // namespace orlinth::platform
