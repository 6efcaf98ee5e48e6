#include "OrlinthHost/Service/NoticeSlot.h"

#include "fakes/World.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace orlinth::host {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// One place on a desktop.
class NoticeSlotTest : public testing::Test {
protected:
    void show(const std::string& title) {
        slot_.show({.title = title, .body = ""},
                   [this](const platform::NotificationAnswer& answer) { pressed_.push_back(answer.key); });
    }
    void settle() {
        world_.context.restart();
        world_.context.poll();
    }
    [[nodiscard]] std::vector<std::string> screen() {
        std::vector<std::string> titles;
        for (const std::size_t i : world_.notifications.there()) {
            titles.push_back(world_.notifications.shown[i].notification.title);
        }
        return titles;
    }

    fakes::World world_;
    Home home_{.system = world_.system, .executor = world_.context.get_executor()};
    bool isOn_ = true;
    NoticeSlot slot_{NoticeBoard(home_, nullptr, [this] { return isOn_; })};
    std::vector<std::string> pressed_;
};

TEST_F(NoticeSlotTest, SaysOneThingInThePlaceOfTheOther) {
    show("a");
    show("b");
    EXPECT_THAT(screen(), ElementsAre("b"));
    EXPECT_TRUE(slot_.isShown());
    world_.notifications.answer(1, "key");
    settle();
    EXPECT_THAT(pressed_, ElementsAre("key"));
    EXPECT_TRUE(slot_.isDismissed());
    show("c");
    EXPECT_THAT(screen(), ElementsAre("c"));
    slot_.close();
    EXPECT_THAT(screen(), IsEmpty());
    EXPECT_FALSE(slot_.isDismissed());
}

TEST_F(NoticeSlotTest, TakesAwayWhatIsThereIfNobodyWantsNotificationsAnyMore) {
    show("a");
    isOn_ = false;
    show("b");
    settle();
    EXPECT_THAT(screen(), IsEmpty());
    EXPECT_FALSE(slot_.isShown());
    EXPECT_TRUE(slot_.isDismissed());
    isOn_ = true;
    show("c");
    EXPECT_THAT(screen(), ElementsAre("c"));
}

TEST_F(NoticeSlotTest, TheAnswerToWhatWasThereBeforeIsNoneToWhatIsThereNow) {
    show("a");
    world_.notifications.answer(0, "key");
    show("b"); // before the answer has come
    settle();
    EXPECT_THAT(pressed_, ElementsAre("key"));
    EXPECT_TRUE(slot_.isShown());
    slot_.close();
    EXPECT_THAT(screen(), IsEmpty());
}

} // namespace
} // namespace orlinth::host
