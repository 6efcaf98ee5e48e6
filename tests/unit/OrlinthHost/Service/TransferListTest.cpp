#include "OrlinthHost/Service/TransferList.h"

#include "fakes/World.h"

#include <gtest/gtest.h>

namespace orlinth::host {
namespace {

using State = TransferView::State;

class TransferListTest : public testing::Test {
protected:
    static constexpr Receiver::TransferNumber film{1};
    static constexpr OutboxSender::AttemptNumber song{1};

    [[nodiscard]] TransferView only() const {
        EXPECT_EQ(1U, list_.all().size());
        return list_.all().empty() ? TransferView{} : list_.all().begin()->second;
    }
    void pass(Seconds time) { world_.run(world_.clock.sleep(time)); }
    void begin(const TransferList::Carrier& carrier, std::int64_t done, std::int64_t total) {
        list_.began(carrier, {.name = "a", .bytes = {.done = done, .total = total}});
    }

    fakes::World world_;
    Home home_{.system = world_.system, .executor = world_.context.get_executor()};
    int changes_ = 0;
    TransferList list_{home_, [this] { ++changes_; }};
};

TEST_F(TransferListTest, FollowsATransferFromItsBeginningToItsEnd) {
    begin(film, 0, 100);
    EXPECT_EQ(State::active, only().state);
    EXPECT_EQ(0, only().bytesPerSecond);
    pass(1s);
    list_.progressed(film, 40);
    EXPECT_EQ(40, only().bytes.done);
    EXPECT_EQ(40, only().bytesPerSecond);
    pass(1s);
    list_.progressed(film, 100);
    EXPECT_EQ(State::finishing, only().state);
    list_.ended(film, State::done, "", "/home/ann/a");
    EXPECT_EQ(State::done, only().state);
    EXPECT_EQ("/home/ann/a", only().path);
    EXPECT_EQ(0, only().bytesPerSecond);
    EXPECT_EQ(4, changes_);
}

TEST_F(TransferListTest, CountsNoRateForWhatWasThereBefore) {
    begin(film, 50, 100);
    pass(1s);
    list_.progressed(film, 60);
    EXPECT_EQ(10, only().bytesPerSecond);
}

TEST_F(TransferListTest, TellsOneDirectionFromTheOther) {
    begin(film, 0, 100);
    begin(song, 0, 10);
    list_.ended(song, State::failed, "the network");
    ASSERT_EQ(2U, list_.all().size());
    EXPECT_EQ(State::active, list_.all().at(TransferNumber{1}).state);
    EXPECT_EQ("the network", list_.all().at(TransferNumber{2}).problem);
    EXPECT_EQ(TransferList::Carrier(film), list_.carrierOf(TransferNumber{1}));
    EXPECT_EQ(std::nullopt, list_.carrierOf(TransferNumber{2})) << "it has ended";
    EXPECT_EQ(std::nullopt, list_.carrierOf(TransferNumber{3}));
}

TEST_F(TransferListTest, ForgetsWhatHasEndedAfterAWhile) {
    begin(film, 0, 100);
    begin(song, 0, 10);
    list_.ended(film, State::cancelled, "");
    pass(TransferList::endedLifetime - 1s);
    EXPECT_EQ(2U, list_.all().size());
    list_.ended(song, State::done, "");
    const int before = changes_;
    pass(2s);
    EXPECT_EQ(1U, list_.all().size());
    EXPECT_EQ(before + 1, changes_);
    pass(TransferList::endedLifetime);
    EXPECT_TRUE(list_.all().empty());
    EXPECT_EQ(0U, world_.clock.pendingAlarms()) << "nobody rings for nothing";
}

TEST_F(TransferListTest, KeepsOnlySoManyThatHaveEnded) {
    begin(film, 0, 100);
    for (std::uint64_t i = 2; i < 1000; ++i) {
        begin(Receiver::TransferNumber{i}, 0, 1);
        list_.ended(Receiver::TransferNumber{i}, State::done, "");
    }
    EXPECT_EQ(TransferList::maxEnded + 1, list_.all().size());
    EXPECT_TRUE(list_.all().contains(TransferNumber{1})) << "it has not ended";
    EXPECT_TRUE(list_.all().contains(TransferNumber{999}));
}

TEST_F(TransferListTest, WhatIsSaidOfUnknownOnesIsNobodysBusiness) {
    list_.progressed(film, 10);
    list_.ended(film, State::done, "");
    EXPECT_EQ(0, changes_);
    EXPECT_TRUE(list_.all().empty());
}

} // namespace
} // namespace orlinth::host
