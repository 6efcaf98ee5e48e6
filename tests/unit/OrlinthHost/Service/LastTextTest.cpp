#include "OrlinthHost/Service/LastText.h"

#include "OrlinthHost/Service/ControlLine.h"
#include "OrlinthHost/Service/ControlMessage.h"
#include "ServiceWorld.h"

namespace orlinth::host {
namespace {

/// The clocks of a computer that sleeps now and then: only its wall clock goes on meanwhile.
class SleepersClock final : public platform::Clock {
public:
    explicit SleepersClock(platform::Clock& clock) : clock_(clock) {}

    std::chrono::milliseconds slept{0};

    [[nodiscard]] EpochMilliseconds epochMilliseconds() const override { return clock_.epochMilliseconds() + slept; }
    [[nodiscard]] Instant now() const override { return clock_.now(); }
    [[nodiscard]] Task<> sleep(Seconds duration) override { return clock_.sleep(duration); }
    [[nodiscard]] std::unique_ptr<platform::Timer> makeTimer(Executor executor) override {
        return clock_.makeTimer(std::move(executor));
    }

private:
    platform::Clock& clock_;
};

class LastTextTest : public ServiceWorldTest {
protected:
    /// A text comes from the phone.
    void come(const std::string& text) {
        const auto from = phone();
        world_.run(from->send(Row::clipboard(text, "text/plain")));
        settle();
    }
    /// What another program of the user gets; "(none)" without a text, "(no service)" without a service.
    [[nodiscard]] std::string last() {
        const LastTextAnswer answer = world_.run(askServiceForLastText(home_));
        if (!answer.isServiceThere) {
            return "(no service)";
        }
        return answer.text ? toText(answer.text->text.reveal()) : "(none)";
    }
    /// A service that does not keep to the limit.
    [[nodiscard]] Task<> giveTooMuch() {
        const auto listener = world_.unixSockets.listen(controlPath, world_.context.get_executor());
        const auto stream = co_await listener->accept(world_.context.get_executor());
        static_cast<void>(co_await readLine(*stream));
        co_await write(*stream, "{\"from\":\"a\",\"received_epoch_ms\":1,\"text_bytes\":4}\n");
        const std::string tooLong(LastText::maxBytes + 1, 'x');
        co_await world_.unixSockets.sendSecret(*stream, asBytes(tooLong));
    }
};

TEST_F(LastTextTest, IsGivenToWhoeverAsks) {
    start();
    EXPECT_EQ(last(), "(none)");
    come("correct horse");
    const EpochMilliseconds received = world_.clock.epochMilliseconds();
    pass(10s);
    EXPECT_EQ(last(), "correct horse");
    EXPECT_EQ(last(), "correct horse") << "it stays";
    const LastTextAnswer answer = world_.run(askServiceForLastText(home_));
    ASSERT_TRUE(answer.text);
    EXPECT_EQ(answer.text->from, "Pixel-8");
    EXPECT_EQ(answer.text->received, received);
    come("battery staple");
    EXPECT_EQ(last(), "battery staple");
}

TEST_F(LastTextTest, IsNotInTheLineThatAnnouncesIt) {
    start();
    come("correct horse");
    EXPECT_EQ(ask("{\"request\":\"last_text\"}\n"),
              "{\"from\":\"Pixel-8\",\"received_epoch_ms\":" +
                  std::to_string(toNumber(world_.run(askServiceForLastText(home_)).text->received)) +
                  ",\"text_bytes\":13}");
}

TEST_F(LastTextTest, IsForgottenOnRequest) {
    start();
    EXPECT_EQ(world_.run(askServiceToForgetText(home_)), false);
    come("correct horse");
    EXPECT_EQ(world_.run(askServiceToForgetText(home_)), true);
    EXPECT_EQ(last(), "(none)");
}

TEST_F(LastTextTest, IsForgottenAfterADay) {
    LastText text(world_.clock, home_.executor);
    text.keep("correct horse", "Pixel");
    pass(LastText::lifetime / 2);
    EXPECT_TRUE(text.get());
    text.keep("battery staple", "Pixel");
    pass(LastText::lifetime - 1s);
    EXPECT_TRUE(text.get()) << "each text has its own day";
    pass(1s);
    settle();
    EXPECT_FALSE(text.get());
}

TEST_F(LastTextTest, GrowsOldWhileTheComputerSleeps) {
    SleepersClock clock(world_.clock);
    LastText text(clock, home_.executor);
    text.keep("correct horse", "Pixel");
    pass(1s);
    clock.slept = 24h - 1001ms;
    EXPECT_TRUE(text.get());
    clock.slept = 24h - 1s;
    EXPECT_FALSE(text.get()) << "as soon as somebody asks";
    EXPECT_EQ(world_.clock.pendingAlarms(), 0U);
}

TEST_F(LastTextTest, IsWipedSoonAfterTheComputerHasSleptForADay) {
    SleepersClock clock(world_.clock);
    LastText text(clock, home_.executor);
    EXPECT_EQ(world_.clock.pendingAlarms(), 0U);
    text.keep("correct horse", "Pixel");
    const std::weak_ptr<const LastText::Text> kept = text.get();
    pass(LastText::longestStep);
    settle();
    EXPECT_FALSE(kept.expired());
    clock.slept = 24h;
    pass(LastText::longestStep);
    settle();
    EXPECT_TRUE(kept.expired()) << "nobody has asked";
    EXPECT_EQ(world_.clock.pendingAlarms(), 0U) << "nothing wakes the service any more";
}

TEST_F(LastTextTest, GrowsOldAlsoIfTheWallClockIsSetBack) {
    SleepersClock clock(world_.clock);
    LastText text(clock, home_.executor);
    text.keep("correct horse", "Pixel");
    clock.slept = -48h;
    pass(LastText::lifetime - 1s);
    EXPECT_TRUE(text.get());
    pass(1s);
    EXPECT_FALSE(text.get());
}

TEST_F(LastTextTest, EndsWithTheService) {
    start();
    come("correct horse");
    stop();
    EXPECT_EQ(last(), "(no service)");
    EXPECT_EQ(world_.run(askServiceToForgetText(home_)), std::nullopt);
    start();
    EXPECT_EQ(last(), "(none)");
}

TEST_F(LastTextTest, IsNotKeptWhenItIsTooLongAndNeitherIsTheOneBefore) {
    LastText text(world_.clock, home_.executor);
    text.keep(std::string(LastText::maxBytes, 'x'), "Pixel");
    ASSERT_TRUE(text.get());
    EXPECT_EQ(text.get()->bytes.size(), LastText::maxBytes);
    text.keep(std::string(LastText::maxBytes + 1, 'x'), "Pixel");
    EXPECT_FALSE(text.get());
    text.keep("short", "Pixel");
    text.keep("", "Pixel");
    EXPECT_FALSE(text.get()) << "the clipboard is empty now, too";
}

TEST_F(LastTextTest, HasANameThatFitsALine) {
    LastText text(world_.clock, home_.executor);
    text.keep("text", std::string(100'000, '\n'));
    ASSERT_TRUE(text.get());
    EXPECT_LT(encodeControlReply(TextReply{.from = text.get()->from}).size(), maxControlLine);
}

TEST_F(LastTextTest, StaysWithWhoeverIsBeingGivenIt) {
    LastText text(world_.clock, home_.executor);
    text.keep("correct horse", "Pixel");
    const std::shared_ptr<const LastText::Text> held = text.get();
    EXPECT_TRUE(text.forget());
    EXPECT_FALSE(text.forget());
    EXPECT_EQ(toText(held->bytes.reveal()), "correct horse");
}

TEST_F(LastTextTest, IsRefusedByItsReaderWhenItIsLongerThanCanBe) {
    world_.alongside(giveTooMuch());
    settle();
    EXPECT_EQ("the running service did not do it: Message too long",
              world_.failure<HostError>(askServiceForLastText(home_)).description());
}

} // namespace
} // namespace orlinth::host
