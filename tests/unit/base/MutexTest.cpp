#include "base/Mutex.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace orlinth {
namespace {

/// A number that only one thread at a time may look at and write back.
class Counter {
public:
    void count() {
        const MutexLock guard(lock_);
        const int before = number_;
        std::this_thread::yield();
        number_ = before + 1;
    }
    [[nodiscard]] int number() const {
        const MutexLock guard(lock_);
        return number_;
    }

private:
    mutable Mutex lock_;
    int number_ ORLINTH_GUARDED_BY(lock_) = 0;
};

TEST(Mutex, LetsOneThreadAtATimeThrough) {
    constexpr int threads = 4;
    constexpr int rounds = 1000;
    Counter counter;
    std::vector<std::thread> all;
    for (int i = 0; i < threads; ++i) {
        all.emplace_back([&counter] {
            for (int round = 0; round < rounds; ++round) {
                counter.count();
            }
        });
    }
    for (std::thread& one : all) {
        one.join();
    }
    EXPECT_EQ(counter.number(), threads * rounds);
}

TEST(Mutex, IsFreeAgainWhenItsLockGoesByAnException) {
    Mutex mutex;
    const auto fail = [&mutex] {
        const MutexLock guard(mutex);
        throw 1;
    };
    EXPECT_THROW(fail(), int);
    const MutexLock guard(mutex); // would never come back
}

} // namespace
} // namespace orlinth
