#include "OrlinthCore/Sending/ActiveTransfers.h"

#include "fakes/VirtualClock.h"
#include "platform/Cancelled.h"
#include "platform/Spawn.h"

#include <asio/cancellation_signal.hpp>
#include <asio/executor_work_guard.hpp>
#include <gmock/gmock.h>

#include <atomic>
#include <random>
#include <set>
#include <thread>

namespace orlinth {
namespace {

const TransferId k{"k"};
const TransferId l{"l"};

TransferConnectionRef connection(const std::string& pubkey = "phone", std::function<void()> cancel = [] {}) {
    return std::make_shared<const TransferConnection>(PeerKey(pubkey), std::move(cancel));
}

class ActiveTransfersTest : public testing::Test {
protected:
    ActiveTransfers transfers;
    TransferConnectionRef a = connection();
    TransferConnectionRef b = connection();
    TransferConnectionRef c = connection();
};

TEST_F(ActiveTransfersTest, ClaimingAFreeKeyReturnsNothingAndNeitherDoesClaimingItAgain) {
    EXPECT_EQ(transfers.claim(k, a), nullptr);
    EXPECT_EQ(transfers.claim(k, a), nullptr);
    EXPECT_EQ(transfers.ownerCount(), 1U);
}

TEST_F(ActiveTransfersTest, ClaimingAnOwnedKeyReturnsTheOwnerBeforeAndTakesTheKey) {
    static_cast<void>(transfers.claim(k, a));
    EXPECT_EQ(transfers.claim(k, b), a);
    EXPECT_EQ(transfers.claim(k, b), nullptr) << "it is b's now";
    EXPECT_TRUE(transfers.isReleased(a));
    EXPECT_FALSE(transfers.isReleased(b));
}

TEST_F(ActiveTransfersTest, ReleaseByADisplacedConnectionLeavesTheSuccessorsClaim) {
    static_cast<void>(transfers.claim(k, a));
    static_cast<void>(transfers.claim(k, b));
    transfers.release(k, a);
    EXPECT_FALSE(transfers.isReleased(b));
    EXPECT_EQ(transfers.ownerCount(), 1U);
    transfers.release(k, b);
    EXPECT_EQ(transfers.ownerCount(), 0U);
}

TEST_F(ActiveTransfersTest, ReleasingAKeyThatNobodyOwnsDoesNothing) {
    transfers.release(k, a);
    transfers.finish(k, a);
    EXPECT_TRUE(transfers.isReleased(a));
    EXPECT_EQ(transfers.ownerCount(), 0U);
}

TEST_F(ActiveTransfersTest, AConnectionWithTwoKeysIsNotReleasedBeforeBothAre) {
    static_cast<void>(transfers.claim(k, a));
    static_cast<void>(transfers.claim(l, a));
    transfers.release(k, a);
    EXPECT_FALSE(transfers.isReleased(a));
    transfers.release(l, a);
    EXPECT_TRUE(transfers.isReleased(a));
}

TEST_F(ActiveTransfersTest, ADrainingConnectionThatOwnsNothingIsNotReleasedBeforeItHasFinished) {
    EXPECT_FALSE(transfers.takeOver(k, a).displaced);
    EXPECT_EQ(transfers.takeOver(k, b).displaced, a);
    EXPECT_FALSE(transfers.isReleased(a)) << "it drains from the very step that displaced it";
    transfers.release(k, a);
    EXPECT_FALSE(transfers.isReleased(a));
    EXPECT_FALSE(transfers.mayProceed(k, b));
    transfers.finish(k, a);
    EXPECT_TRUE(transfers.isReleased(a));
    EXPECT_TRUE(transfers.mayProceed(k, b));
    EXPECT_EQ(transfers.drainingCount(), 0U);
}

TEST_F(ActiveTransfersTest, OneThatFinishesBeforeItIsDisplacedHoldsNobodyUp) {
    static_cast<void>(transfers.takeOver(k, a));
    transfers.finish(k, a);
    const ActiveTransfers::Takeover takeover = transfers.takeOver(k, b);
    EXPECT_FALSE(takeover.isRefused());
    EXPECT_EQ(takeover.displaced, nullptr);
    EXPECT_TRUE(transfers.mayProceed(k, b));
}

TEST_F(ActiveTransfersTest, TakingOverWhatIsOnesOwnChangesNothing) {
    static_cast<void>(transfers.takeOver(k, a));
    EXPECT_EQ(transfers.takeOver(k, a).displaced, nullptr);
    EXPECT_EQ(transfers.drainingCount(), 0U);
    EXPECT_TRUE(transfers.mayProceed(k, a));
}

TEST_F(ActiveTransfersTest, OnlyTheOwnerMayProceed) {
    EXPECT_FALSE(transfers.mayProceed(k, a)) << "nobody has claimed it";
    static_cast<void>(transfers.takeOver(k, a));
    EXPECT_FALSE(transfers.mayProceed(k, b));
    EXPECT_FALSE(transfers.mayProceed(l, a));
    static_cast<void>(transfers.takeOver(k, b));
    EXPECT_FALSE(transfers.mayProceed(k, a)) << "displaced";
}

TEST_F(ActiveTransfersTest, TheLastOfAChainWaitsForTheFirstAlsoWhenTheMiddleOneGivesUp) {
    static_cast<void>(transfers.takeOver(k, a));
    EXPECT_EQ(transfers.takeOver(k, b).displaced, a);
    EXPECT_EQ(transfers.takeOver(k, c).displaced, b);
    transfers.finish(k, b);
    EXPECT_FALSE(transfers.mayProceed(k, c)) << "a still writes";
    transfers.finish(k, a);
    EXPECT_TRUE(transfers.mayProceed(k, c));
}

TEST_F(ActiveTransfersTest, WhoComesAfterAnOwnerThatGaveUpWaitsForTheOneBefore) {
    static_cast<void>(transfers.takeOver(k, a));
    static_cast<void>(transfers.takeOver(k, b));
    transfers.finish(k, b); // while it waited; nobody owns the key now
    const ActiveTransfers::Takeover takeover = transfers.takeOver(k, c);
    EXPECT_EQ(takeover.displaced, nullptr);
    EXPECT_FALSE(takeover.isRefused());
    EXPECT_FALSE(transfers.mayProceed(k, c)) << "a still writes";
    transfers.finish(k, a);
    EXPECT_TRUE(transfers.mayProceed(k, c));
}

TEST_F(ActiveTransfersTest, AnotherKeysDrainingHoldsNobodyUp) {
    static_cast<void>(transfers.takeOver(k, a));
    static_cast<void>(transfers.takeOver(k, b));
    static_cast<void>(transfers.takeOver(l, c));
    EXPECT_TRUE(transfers.mayProceed(l, c));
}

TEST_F(ActiveTransfersTest, AConnectionDisplacedFromTwoKeysDrainsFromEachUntilItHasFinishedThatOne) {
    static_cast<void>(transfers.takeOver(k, a));
    static_cast<void>(transfers.takeOver(l, a));
    static_cast<void>(transfers.takeOver(k, b));
    static_cast<void>(transfers.takeOver(l, c));
    transfers.finish(k, a);
    EXPECT_TRUE(transfers.mayProceed(k, b));
    EXPECT_FALSE(transfers.mayProceed(l, c)) << "a still writes what l stands for";
    EXPECT_FALSE(transfers.isReleased(a));
    transfers.finish(l, a);
    EXPECT_TRUE(transfers.mayProceed(l, c));
    EXPECT_TRUE(transfers.isReleased(a));
}

TEST_F(ActiveTransfersTest, AKeyThatIsActiveUnderAnotherPhoneIsRefusedAndNothingChanges) {
    const TransferConnectionRef foreign = connection("another phone");
    static_cast<void>(transfers.takeOver(k, a));
    const ActiveTransfers::Takeover takeover = transfers.takeOver(k, foreign);
    EXPECT_TRUE(takeover.isRefused());
    EXPECT_EQ(takeover.displaced, nullptr);
    EXPECT_TRUE(transfers.mayProceed(k, a));
    EXPECT_TRUE(transfers.isReleased(foreign));
    EXPECT_EQ(transfers.drainingCount(), 0U);
}

TEST_F(ActiveTransfersTest, AnOlderConnectionTakesOverLikeAnyOther) {
    static_cast<void>(transfers.takeOver(k, b));
    EXPECT_EQ(transfers.takeOver(k, a, transfers.now()).displaced, b);
    EXPECT_FALSE(transfers.mayProceed(k, a)) << "b has not wound down";
    transfers.finish(k, b);
    EXPECT_TRUE(transfers.mayProceed(k, a));
}

TEST_F(ActiveTransfersTest, AnOfferThatWaitedIsRefusedIfANewerOneWasQuicker) {
    const ActiveTransfers::Moment offered = transfers.now();
    static_cast<void>(transfers.takeOver(k, b));
    const ActiveTransfers::Takeover takeover = transfers.takeOver(k, a, offered);
    EXPECT_EQ(takeover.refusal, ActiveTransfers::Takeover::Refusal::hasNewerOwner);
    EXPECT_EQ(takeover.displaced, nullptr);
    EXPECT_TRUE(transfers.mayProceed(k, b));
    EXPECT_TRUE(transfers.isReleased(a));
    EXPECT_EQ(transfers.drainingCount(), 0U);
    EXPECT_FALSE(transfers.takeOver(l, a, offered).isRefused()) << "of another transfer";
    transfers.finish(k, b);
    EXPECT_FALSE(transfers.takeOver(k, a, offered).isRefused()) << "the quicker one has gone";
}

TEST_F(ActiveTransfersTest, AClaimIsNewerThanEveryMomentBeforeItAlsoByAPlainClaim) {
    const ActiveTransfers::Moment offered = transfers.now();
    transfers.claim(k, b);
    EXPECT_TRUE(transfers.takeOver(k, a, offered).isRefused());
    EXPECT_FALSE(transfers.takeOver(k, a, transfers.now()).isRefused());
}

TEST_F(ActiveTransfersTest, AKeyThatStillDrainsUnderAnotherPhoneIsRefused) {
    const TransferConnectionRef foreign = connection("another phone");
    static_cast<void>(transfers.takeOver(k, a));
    static_cast<void>(transfers.takeOver(k, b));
    transfers.finish(k, b);
    EXPECT_TRUE(transfers.takeOver(k, foreign).isRefused());
    transfers.finish(k, a);
    EXPECT_FALSE(transfers.takeOver(k, foreign).isRefused());
    EXPECT_TRUE(transfers.mayProceed(k, foreign));
}

TEST(TransferConnectionTest, IdentitiesAreNeverUsedAgain) {
    std::set<std::uint64_t> seen;
    for (int i = 0; i < 1000; ++i) {
        EXPECT_TRUE(seen.insert(connection()->identity()).second); // each dies at once, and its address is free again
    }
}

TEST(TransferConnectionTest, CancelCallsWhatItWasGiven) {
    int calls = 0;
    const TransferConnectionRef one = connection("phone", [&calls] { ++calls; });
    one->cancel();
    one->cancel();
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(one->peerKey(), PeerKey("phone"));
}

TEST(ActiveTransfersShared, IsOneAndTheSame) {
    EXPECT_EQ(&ActiveTransfers::shared(), &ActiveTransfers::shared());
}

TEST_F(ActiveTransfersTest, WaitingEndsSoonAfterTheLastPredecessorHasFinished) {
    asio::io_context context;
    fakes::VirtualClock clock(context);
    static_cast<void>(transfers.takeOver(k, a));
    static_cast<void>(transfers.takeOver(k, b));
    platform::spawn(
        context.get_executor(),
        [](fakes::VirtualClock& virtualTime, ActiveTransfers& registry, TransferConnectionRef first) -> Task<> {
            co_await virtualTime.sleep(5s);
            registry.finish(k, first);
        }(clock, transfers, a),
        [](const std::exception_ptr& error) { EXPECT_FALSE(error); });
    runVirtual(context, clock, transfers.waitUntilDrained(k, b));
    EXPECT_EQ(clock.elapsed(), 5);
    EXPECT_TRUE(transfers.mayProceed(k, b));
}

TEST_F(ActiveTransfersTest, WaitingCanBeCancelled) {
    asio::io_context context;
    fakes::VirtualClock clock(context);
    static_cast<void>(transfers.takeOver(k, a));
    static_cast<void>(transfers.takeOver(k, b));
    asio::cancellation_signal stop;
    std::exception_ptr end;
    platform::spawn(context.get_executor(), transfers.waitUntilDrained(k, b), stop.slot(),
                    [&end](std::exception_ptr error) { end = std::move(error); });
    context.poll();
    stop.emit(asio::cancellation_type::terminal);
    context.restart();
    context.poll();
    ASSERT_TRUE(end);
    try {
        std::rethrow_exception(end);
    } catch (const std::exception& error) {
        EXPECT_TRUE(platform::isCancellation(error));
    }
    EXPECT_EQ(clock.pendingAlarms(), 0U);
}

TEST_F(ActiveTransfersTest, WaitingEndsWhenThePredecessorFinishesOnAnotherThread) {
    asio::io_context context;
    for (int round = 0; round < 100; ++round) {
        static_cast<void>(transfers.takeOver(k, a));
        static_cast<void>(transfers.takeOver(k, b));
        bool hasEnded = false;
        platform::spawn(context.get_executor(), transfers.waitUntilDrained(k, b),
                        [&hasEnded](const std::exception_ptr& error) {
                            EXPECT_FALSE(error);
                            hasEnded = true;
                        });
        const auto work = asio::make_work_guard(context);
        context.restart();
        context.poll_one(); // it has begun, perhaps just so
        std::thread finisher([this] { transfers.finish(k, a); });
        while (!hasEnded && context.run_one_for(std::chrono::seconds(30)) > 0) {
        }
        finisher.join();
        ASSERT_TRUE(hasEnded) << "nobody told it, in round " << round;
        transfers.finish(k, b);
    }
}

/// Connections of two phones fight over a few keys, each on whatever thread it is born on. Who may proceed writes for
/// a moment; nobody else may be writing then.
class Fight {
public:
    static constexpr int keys = 3;

    void run(int threads, int rounds) {
        std::vector<std::thread> fighters;
        for (int i = 0; i < threads; ++i) {
            fighters.emplace_back([this, i, rounds] { fight(i, rounds); });
        }
        for (std::thread& fighter : fighters) {
            fighter.join();
        }
    }

    ActiveTransfers transfers;
    std::atomic<int> collisions = 0;
    std::atomic<int> writes = 0;
    std::atomic<int> refusals = 0;
    std::atomic<int> stuck = 0;
    std::atomic<int> displacements = 0;

private:
    void fight(int seed, int rounds) {
        std::mt19937 random(static_cast<unsigned>(seed));
        for (int round = 0; round < rounds; ++round) {
            const auto slot = random() % keys;
            const TransferId id("transfer " + std::to_string(slot));
            const std::string phone = random() % 8 == 0 ? "other phone" : "phone";
            const auto cancelled = std::make_shared<std::atomic<bool>>(false);
            const TransferConnectionRef self = connection(phone, [cancelled] { *cancelled = true; });
            const ActiveTransfers::Takeover takeover = transfers.takeOver(id, self);
            if (takeover.isRefused()) {
                ++refusals;
                continue;
            }
            if (takeover.displaced) {
                ++displacements;
                takeover.displaced->cancel();
            }
            write(slot, id, self, *cancelled, random() % 4 == 0);
            transfers.finish(id, self);
        }
    }

    void write(std::size_t slot, const TransferId& id, const TransferConnectionRef& self,
               const std::atomic<bool>& cancelled, bool givesUp) {
        const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (!transfers.mayProceed(id, self)) {
            if (cancelled || givesUp) {
                return;
            }
            if (std::chrono::steady_clock::now() > giveUp) {
                ++stuck;
                return;
            }
            std::this_thread::yield();
        }
        for (int piece = 0; piece < 5 && (piece == 0 || !cancelled); ++piece) {
            const int others = writers_[slot]++;
            collisions += others != 0 ? 1 : 0;
            ++file_[slot]; // not atomic on purpose: the registry alone keeps writers apart
            std::this_thread::yield();
            --writers_[slot];
        }
        ++writes;
    }

    std::atomic<int> writers_[keys] = {};
    int file_[keys] = {};
};

TEST(ActiveTransfersOnManyThreads, NeverLetsTwoWriteAndLeavesNobodyWaiting) {
    Fight fight;
    fight.run(8, 400);
    EXPECT_EQ(fight.collisions, 0);
    EXPECT_EQ(fight.stuck, 0);
    EXPECT_GT(fight.writes, 50);
    EXPECT_GT(fight.displacements, 50) << "too little of what this is about has happened";
    EXPECT_GT(fight.refusals, 0);
    EXPECT_EQ(fight.transfers.ownerCount(), 0U);
    EXPECT_EQ(fight.transfers.drainingCount(), 0U);
}

} // namespace
} // namespace orlinth
