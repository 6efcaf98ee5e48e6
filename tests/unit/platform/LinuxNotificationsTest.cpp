#include "platform/linux/LinuxNotifications.h"

#include "fakes/BusProgram.h"

#include <asio/io_context.hpp>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <poll.h>
#include <string>
#include <thread>
#include <utility>

using namespace orlinth;
using namespace orlinth::platform;
using fakes::busName;
using fakes::busPath;
using fakes::PrivateBus;
using fakes::requireBus;
using fakes::setBusAddress;

namespace {

using SteadyClock = std::chrono::steady_clock;
using namespace std::chrono_literals;

/// Nothing here takes this long; it only keeps a broken test from hanging.
constexpr auto patience = 60s;

constexpr const char* daemonName = "org.freedesktop.Notifications";
constexpr const char* daemonPath = "/org/freedesktop/Notifications";

/// Another program of the session, which tells one connection what it likes.
class Stranger {
public:
    Stranger() { program_.arrive(); }

    /// A signal to `whom` alone, with these arguments.
    template <typename... Arguments>
    void tell(const std::string& whom, const char* path, const char* interface, const char* signal, const char* types,
              Arguments... arguments) {
        sd_bus_message* message = nullptr;
        requireBus(::sd_bus_message_new_signal(program_.get(), &message, path, interface, signal));
        requireBus(::sd_bus_message_append(message, types, arguments...));
        requireBus(::sd_bus_message_set_destination(message, whom.c_str()));
        requireBus(::sd_bus_send(program_.get(), message, nullptr));
        ::sd_bus_message_unref(message);
        program_.arrive();
    }

    /// Answers a call that was made to somebody else.
    void answer(sd_bus_message* call, std::uint32_t id) {
        sd_bus_message* reply = nullptr;
        requireBus(::sd_bus_message_new_method_return(call, &reply));
        requireBus(::sd_bus_message_append(reply, "u", id));
        requireBus(::sd_bus_send(program_.get(), reply, nullptr));
        ::sd_bus_message_unref(reply);
        program_.arrive();
    }

private:
    fakes::BusProgram program_;
};

/// A notification daemon that does what a test says.
class Daemon {
public:
    struct Shown {
        std::string title;
        std::string body;
        std::vector<std::string> actions;
        std::map<std::string, std::string> hints; ///< numbers as texts
        std::string application;
        std::string icon;
        int urgency = -1;
        std::int32_t milliseconds = 0;
        std::uint32_t replaces = 0;
        std::uint32_t id = 0;
    };

    explicit Daemon(std::vector<std::string> capabilities = {"actions", "body", "body-markup"})
        : capabilities_(std::move(capabilities)) {
        static const sd_bus_vtable methods[] = {
            SD_BUS_VTABLE_START(0),
            SD_BUS_METHOD("GetCapabilities", "", "as", onGetCapabilities, 0),
            SD_BUS_METHOD("GetServerInformation", "", "ssss", onGetServerInformation, 0),
            SD_BUS_METHOD("Notify", "susssasa{sv}i", "u", onNotify, 0),
            SD_BUS_METHOD("CloseNotification", "u", "", onClose, 0),
            SD_BUS_VTABLE_END,
        };
        requireBus(::sd_bus_add_object_vtable(program_.get(), nullptr, daemonPath, daemonName, methods, this));
        requireBus(::sd_bus_request_name(program_.get(), daemonName,
                                         SD_BUS_NAME_ALLOW_REPLACEMENT | SD_BUS_NAME_REPLACE_EXISTING));
    }
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    void process() { program_.process(); }
    [[nodiscard]] const char* uniqueName() const {
        const char* name = nullptr;
        requireBus(::sd_bus_get_unique_name(program_.get(), &name));
        return name;
    }
    [[nodiscard]] int descriptor() const { return ::sd_bus_get_fd(program_.get()); }

    void press(std::uint32_t id, const char* key) {
        requireBus(::sd_bus_emit_signal(program_.get(), daemonPath, daemonName, "ActionInvoked", "us", id, key));
    }
    void tellClosed(std::uint32_t id) {
        requireBus(::sd_bus_emit_signal(program_.get(), daemonPath, daemonName, "NotificationClosed", "uu", id,
                                        std::uint32_t{2}));
    }

    void tellToken(std::uint32_t id, const char* token) {
        requireBus(::sd_bus_emit_signal(program_.get(), daemonPath, daemonName, "ActivationToken", "us", id, token));
    }
    /// Answers what it has not answered, in its order.
    void answerLate() {
        for (const auto& [call, id] : std::exchange(late_, {})) {
            requireBus(::sd_bus_reply_method_return(call, "u", id));
            ::sd_bus_message_unref(call);
        }
    }

    bool answers = true;
    bool answersLate = false; ///< by answerLate()
    bool refuses = false;
    std::string server = "daemon";
    std::vector<Shown> shown;         ///< of those that take no other's place the first has the number 1
    std::vector<std::uint32_t> taken; ///< away, by CloseNotification
    std::string caller;               ///< who has shown the last one
    Stranger* quicker = nullptr;      ///< answers Notify in place of this one

private:
    static int onGetCapabilities(sd_bus_message* call, void* data, sd_bus_error*) {
        auto& self = *static_cast<Daemon*>(data);
        sd_bus_message* reply = nullptr;
        requireBus(::sd_bus_message_new_method_return(call, &reply));
        requireBus(::sd_bus_message_open_container(reply, 'a', "s"));
        for (const std::string& capability : self.capabilities_) {
            requireBus(::sd_bus_message_append(reply, "s", capability.c_str()));
        }
        requireBus(::sd_bus_message_close_container(reply));
        const int result = ::sd_bus_send(nullptr, reply, nullptr);
        ::sd_bus_message_unref(reply);
        return result;
    }

    static int onNotify(sd_bus_message* call, void* data, sd_bus_error* error) {
        auto& self = *static_cast<Daemon*>(data);
        const char *application = nullptr, *icon = nullptr, *title = nullptr, *body = nullptr, *action = nullptr;
        std::uint32_t replaces = 0;
        Shown one;
        requireBus(::sd_bus_message_read(call, "susss", &application, &replaces, &icon, &title, &body));
        one.application = application;
        one.icon = icon;
        one.replaces = replaces;
        one.title = title;
        one.body = body;
        requireBus(::sd_bus_message_enter_container(call, 'a', "s"));
        while (::sd_bus_message_read(call, "s", &action) > 0) {
            one.actions.emplace_back(action);
        }
        requireBus(::sd_bus_message_exit_container(call));
        requireBus(::sd_bus_message_enter_container(call, 'a', "{sv}"));
        while (::sd_bus_message_enter_container(call, 'e', "sv") > 0) {
            const char* hint = nullptr;
            requireBus(::sd_bus_message_read(call, "s", &hint));
            one.hints[hint] = readHint(call);
            requireBus(::sd_bus_message_exit_container(call));
        }
        requireBus(::sd_bus_message_exit_container(call));
        requireBus(::sd_bus_message_read(call, "i", &one.milliseconds));
        one.urgency = std::stoi(one.hints.at("urgency"));
        one.id = replaces != 0 ? replaces : ++self.last_;
        self.shown.push_back(one);
        self.caller = ::sd_bus_message_get_sender(call);
        if (self.quicker != nullptr) {
            self.quicker->answer(call, one.id);
            return 1;
        }
        if (self.refuses) {
            return ::sd_bus_error_set(error, "org.example.Refused", "no");
        }
        if (self.answersLate) {
            self.late_.emplace_back(::sd_bus_message_ref(call), one.id);
            return 1;
        }
        return self.answers ? ::sd_bus_reply_method_return(call, "u", one.id) : 1;
    }

    static std::string readHint(sd_bus_message* call) {
        const char* type = nullptr;
        requireBus(::sd_bus_message_peek_type(call, nullptr, &type));
        std::uint8_t byte = 0;
        std::int32_t number = 0;
        int flag = 0;
        const char* text = nullptr;
        switch (*type) {
        case 'y':
            requireBus(::sd_bus_message_read(call, "v", "y", &byte));
            return std::to_string(byte);
        case 'i':
            requireBus(::sd_bus_message_read(call, "v", "i", &number));
            return std::to_string(number);
        case 'b':
            requireBus(::sd_bus_message_read(call, "v", "b", &flag));
            return flag != 0 ? "true" : "false";
        default:
            requireBus(::sd_bus_message_read(call, "v", "s", &text));
            return text;
        }
    }

    static int onGetServerInformation(sd_bus_message* call, void* data, sd_bus_error*) {
        return ::sd_bus_reply_method_return(call, "ssss", static_cast<Daemon*>(data)->server.c_str(), "vendor", "1",
                                            "1.2");
    }

    static int onClose(sd_bus_message* call, void* data, sd_bus_error*) {
        std::uint32_t id = 0;
        requireBus(::sd_bus_message_read(call, "u", &id));
        static_cast<Daemon*>(data)->taken.push_back(id);
        return ::sd_bus_reply_method_return(call, "");
    }

    std::vector<std::string> capabilities_;
    std::uint32_t last_ = 0;
    std::vector<std::pair<sd_bus_message*, std::uint32_t>> late_;
    fakes::BusProgram program_;
};

class LinuxNotificationsTest : public testing::Test {
protected:
    void TearDown() override { setBusAddress(""); }

    /// Lets daemon and callbacks run until this holds.
    void runUntil(const std::function<bool()>& isDone) {
        const auto end = SteadyClock::now() + patience;
        while (!isDone()) {
            ASSERT_LT(SteadyClock::now(), end) << "nothing happens any more";
            context.restart();
            context.poll();
            pollfd events{.fd = -1, .events = POLLIN, .revents = 0};
            if (daemon) {
                daemon->process();
                events.fd = daemon->descriptor();
            }
            ::poll(&events, 1, 5); // our own callbacks come at the next turn
        }
    }

    /// Whether isAvailable() comes to this answer.
    [[nodiscard]] bool becomes(bool isThere) {
        const auto end = SteadyClock::now() + patience;
        while (notifications.isAvailable() != isThere) {
            if (SteadyClock::now() > end) {
                return false;
            }
        }
        return true;
    }

    void show(Notification notification) {
        notifications.show(std::move(notification), context.get_executor(), [this](const NotificationAnswer& answer) {
            answers.push_back(answer.key);
            tokens.push_back(answer.token);
            wereShown.push_back(answer.wasShown);
        });
    }

    /// Shows one and waits until it has a number.
    void showOne(Seconds time = 0s) {
        const std::size_t before = daemon->shown.size();
        show({.title = "A file", .body = "came", .actions = {{"open", "Open"}}, .shownFor = time});
        runUntil([&] { return daemon->shown.size() > before; });
    }

    void expectAnswers(const std::vector<std::string>& expected) {
        runUntil([&] { return answers.size() >= expected.size(); });
        EXPECT_EQ(answers, expected);
    }

    asio::io_context context;
    std::optional<Daemon> daemon;
    std::vector<std::string> answers;
    std::vector<std::string> tokens; ///< with those
    std::vector<bool> wereShown;     ///< likewise
    LinuxNotifications notifications{context.get_executor(), fakes::busEnvironment};
};

TEST_F(LinuxNotificationsTest, WithoutABusNobodyIsThereAndTheAnswerIsEmpty) {
    EXPECT_FALSE(notifications.isAvailable());
    show({.title = "A file", .body = "came"});
    expectAnswers({""});
}

TEST_F(LinuxNotificationsTest, OfABusThatDoesNotExistTheSame) {
    setBusAddress("unix:path=/nowhere/bus");
    EXPECT_FALSE(notifications.isAvailable());
    show({.title = "A file", .body = "came"});
    expectAnswers({""});
    setBusAddress("rubbish");
    EXPECT_FALSE(notifications.isAvailable());
    show({.title = "A file", .body = "came"});
    expectAnswers({"", ""});
}

TEST_F(LinuxNotificationsTest, ABusThatSaysNothingHoldsNobodyUp) {
    std::optional<fakes::SilentBus> silent(std::in_place);
    const auto start = SteadyClock::now();
    EXPECT_FALSE(notifications.isAvailable());
    show({.title = "A file", .body = "came"});
    EXPECT_LT(SteadyClock::now() - start, 5s);
    silent.reset(); // and then it is gone
    expectAnswers({""});
}

TEST_F(LinuxNotificationsTest, ABusThatOwesAnAnswerIsNotWaitedForAgain) {
    const fakes::SilentBus silent;
    const auto start = SteadyClock::now();
    for (int round = 0; round < 100; ++round) {
        EXPECT_FALSE(notifications.isAvailable());
    }
    EXPECT_LT(SteadyClock::now() - start, 10s); // each for itself a quarter of a second
}

TEST_F(LinuxNotificationsTest, SomebodyIsThereOnceADaemonHasTheName) {
    const PrivateBus bus;
    EXPECT_FALSE(notifications.isAvailable());
    daemon.emplace();
    EXPECT_TRUE(becomes(true)); // on a busy machine a look may end before the bus has answered
    daemon.reset();
    EXPECT_TRUE(becomes(false)); // nor need the bus have noticed at once
}

TEST_F(LinuxNotificationsTest, TellsTheDaemonEverything) {
    const PrivateBus bus;
    daemon.emplace();
    show({.title = "A & <b>file</b>",
          .body = "from <i>Ann</i> & \xff",
          .actions = {{"open", "Open"}, {"folder", "Show in folder"}},
          .isUrgent = true,
          .shownFor = 2500ms});
    runUntil([&] { return !daemon->shown.empty(); });
    const Daemon::Shown& shown = daemon->shown.front();
    EXPECT_EQ(shown.title, "A & <b>file</b>");
    EXPECT_EQ(shown.body, "from &lt;i&gt;Ann&lt;/i&gt; &amp; \\x{FF}");
    EXPECT_EQ(shown.actions, (std::vector<std::string>{"open", "Open", "folder", "Show in folder"}));
    EXPECT_EQ(shown.urgency, 2);
    EXPECT_EQ(shown.milliseconds, 2500);
}

TEST_F(LinuxNotificationsTest, LeavesTheTextAsItIsForADaemonWithoutMarkup) {
    const PrivateBus bus;
    daemon.emplace(std::vector<std::string>{"body"});
    show({.title = "t", .body = "<i> & co"});
    runUntil([&] { return !daemon->shown.empty(); });
    EXPECT_EQ(daemon->shown.front().body, "<i> & co");
    EXPECT_EQ(daemon->shown.front().urgency, 1);
    EXPECT_EQ(daemon->shown.front().milliseconds, -1);
}

TEST_F(LinuxNotificationsTest, AnswersWithTheButtonOnceAlthoughItIsClosedAfterwards) {
    const PrivateBus bus;
    daemon.emplace();
    showOne();
    showOne();
    daemon->press(2, "open");
    daemon->tellClosed(2);
    expectAnswers({"open"});
    daemon->tellClosed(1);
    expectAnswers({"open", ""});
}

TEST_F(LinuxNotificationsTest, ButtonsOfOtherProgramsNotificationsMeanNothing) {
    const PrivateBus bus;
    daemon.emplace();
    showOne();
    daemon->press(77, "open");
    daemon->press(0, "open");
    daemon->press(1, "folder");
    expectAnswers({"folder"});
}

TEST_F(LinuxNotificationsTest, BelievesNobodyButTheDaemonThatShowsIt) {
    const PrivateBus bus;
    daemon.emplace();
    showOne();
    Stranger stranger;
    for (const std::uint32_t id : {1U, 2U}) {
        stranger.tell(daemon->caller, daemonPath, daemonName, "ActionInvoked", "us", id, "open");
        stranger.tell(daemon->caller, daemonPath, daemonName, "NotificationClosed", "uu", id, std::uint32_t{2});
    }
    daemon->press(1, "folder"); // arrives behind the others
    expectAnswers({"folder"});
}

TEST_F(LinuxNotificationsTest, BelievesNobodyButTheBusThatTheDaemonIsGone) {
    const PrivateBus bus;
    daemon.emplace();
    showOne();
    Stranger stranger;
    stranger.tell(daemon->caller, busPath, busName, "NameOwnerChanged", "sss", daemonName, daemon->uniqueName(), "");
    daemon->press(1, "folder");
    expectAnswers({"folder"});
}

TEST_F(LinuxNotificationsTest, OneWhoseNumberSomebodyElseHasGivenIsAnEmptyAnswer) {
    const PrivateBus bus;
    daemon.emplace();
    Stranger stranger;
    daemon->quicker = &stranger;
    showOne();
    stranger.tell(daemon->caller, daemonPath, daemonName, "ActionInvoked", "us", std::uint32_t{1}, "open");
    expectAnswers({""});
}

TEST_F(LinuxNotificationsTest, ADaemonThatAnotherOneTakesOverFromIsAnEmptyAnswer) {
    const PrivateBus bus;
    daemon.emplace();
    showOne();
    const Daemon next; // the first one's connection stays
    expectAnswers({""});
}

TEST_F(LinuxNotificationsTest, ShowsNothingThatHidesOrFillsTheScreen) {
    const PrivateBus bus;
    daemon.emplace();
    show({.title = "File from \u202Egpj", .body = std::string(std::size_t{45} << 20, 'x') + ".pdf"});
    runUntil([&] { return !daemon->shown.empty(); });
    EXPECT_EQ(daemon->shown.front().title, "File from \\u{202E}gpj");
    EXPECT_LE(daemon->shown.front().body.size(), 4096U);
    EXPECT_TRUE(daemon->shown.front().body.ends_with(".pdf"));
}

TEST_F(LinuxNotificationsTest, OneThatNobodyAnswersIsTakenAwayWhenItsTimeIsOver) {
    const PrivateBus bus;
    daemon.emplace();
    showOne(50ms);
    expectAnswers({""});
    runUntil([&] { return !daemon->taken.empty(); });
    EXPECT_EQ(daemon->taken, std::vector<std::uint32_t>{1});
}

TEST_F(LinuxNotificationsTest, ADaemonThatRefusesIsAnEmptyAnswer) {
    const PrivateBus bus;
    daemon.emplace();
    daemon->refuses = true;
    showOne();
    expectAnswers({""});
    EXPECT_EQ(wereShown, std::vector<bool>{false});
}

TEST_F(LinuxNotificationsTest, ADaemonThatNeverAnswersIsAnEmptyAnswerInTheEnd) {
    const PrivateBus bus;
    daemon.emplace();
    daemon->answers = false;
    showOne();
    expectAnswers({""});
}

TEST_F(LinuxNotificationsTest, ADaemonThatGoesAwayIsAnEmptyAnswerAndTheNextOneIsUsed) {
    const PrivateBus bus;
    daemon.emplace();
    showOne();
    daemon.reset();
    expectAnswers({""});
    daemon.emplace();
    showOne();
    daemon->press(1, "open");
    expectAnswers({"", "open"});
    EXPECT_EQ(wereShown, (std::vector<bool>{true, true}));
}

TEST_F(LinuxNotificationsTest, OneThatNoDaemonTakesWasNeverShown) {
    const PrivateBus bus;
    show({.title = "A file", .body = "came"});
    expectAnswers({""});
    EXPECT_EQ(wereShown, std::vector<bool>{false});
}

TEST_F(LinuxNotificationsTest, ABusThatGoesAwayIsAnEmptyAnswerAndTheNextOneIsUsed) {
    {
        PrivateBus bus;
        daemon.emplace();
        showOne();
        bus.stop();
        daemon.reset();
        expectAnswers({""});
        EXPECT_FALSE(notifications.isAvailable());
    }
    const PrivateBus bus;
    daemon.emplace();
    EXPECT_TRUE(becomes(true));
    showOne();
    daemon->press(1, "open");
    expectAnswers({"", "open"});
}

TEST_F(LinuxNotificationsTest, WhatIsStillShownAtTheEndIsAnsweredEmpty) {
    const PrivateBus bus;
    daemon.emplace();
    {
        LinuxNotifications shortLived(context.get_executor(), fakes::busEnvironment);
        shortLived.show({.title = "t", .body = "b"}, context.get_executor(),
                        [this](const std::string& key) { answers.push_back(key); });
        runUntil([&] { return !daemon->shown.empty(); });
    }
    expectAnswers({""});
}

TEST_F(LinuxNotificationsTest, WhatIsShownLastReachesTheDaemonAlthoughNobodyRunsTheExecutor) {
    const PrivateBus bus;
    daemon.emplace();
    std::atomic<std::size_t> shownFiles = 0;
    std::atomic<std::size_t> shownTexts = 0;
    std::atomic<bool> isOver = false;
    std::thread desktop([&] {
        while (!isOver) {
            daemon->process();
            shownFiles = static_cast<std::size_t>(
                std::ranges::count(daemon->shown, std::string("A file"), &Daemon::Shown::title));
            shownTexts = daemon->shown.size() - shownFiles;
            pollfd event{.fd = daemon->descriptor(), .events = POLLIN, .revents = 0};
            ::poll(&event, 1, 5);
        }
    });
    const auto end = SteadyClock::now() + patience;
    while (shownFiles == 0 && SteadyClock::now() < end) { // on a busy machine it may not be quick enough
        LinuxNotifications oneShot(context.get_executor(), fakes::busEnvironment);
        oneShot.show({.title = "A file", .body = "came"}, context.get_executor(),
                     [this](const std::string& key) { answers.push_back(key); });
    }
    notifications.close();
    while (shownTexts == 0 && SteadyClock::now() < end) { // nor after this
        show({.title = "A text", .body = "came"});
    }
    isOver = true;
    desktop.join();
    EXPECT_GT(shownFiles, 0U);
    EXPECT_GT(shownTexts, 0U);
    context.run(); // nothing keeps it running
    EXPECT_GE(answers.size(), shownFiles + shownTexts);
}

TEST_F(LinuxNotificationsTest, ADaemonThatHangsHoldsNobodyUp) {
    const PrivateBus bus;
    daemon.emplace(); // which does nothing, as nobody runs it
    const auto start = SteadyClock::now();
    {
        LinuxNotifications shortLived(context.get_executor(), fakes::busEnvironment);
        for (int round = 0; round < 100; ++round) {
            shortLived.show({.title = "A file", .body = "came"}, context.get_executor(),
                            [this](const std::string& key) { answers.push_back(key); });
            static_cast<void>(shortLived.isAvailable()); // the bus's own word
        }
        context.poll();
    }
    EXPECT_LT(SteadyClock::now() - start, 10s);
    context.restart();
    context.run();
    EXPECT_EQ(answers, std::vector<std::string>(100));
}

TEST_F(LinuxNotificationsTest, OnceClosedNothingKeepsTheExecutorRunning) {
    const PrivateBus bus;
    daemon.emplace();
    showOne(3600s);
    context.restart();
    context.run_for(10ms);
    EXPECT_FALSE(context.stopped());
    notifications.close();
    context.restart();
    context.run_for(patience);
    EXPECT_TRUE(context.stopped());
    EXPECT_EQ(answers, std::vector<std::string>{""});
}

TEST_F(LinuxNotificationsTest, OfVeryManyTheOldestCountAsClosed) {
    const PrivateBus bus;
    daemon.emplace();
    constexpr std::size_t count = 300;
    for (std::size_t i = 0; i < count; ++i) {
        show({.title = "t", .body = "b"});
    }
    runUntil([&] { return daemon->shown.size() >= 256 && answers.size() >= 44; });
    EXPECT_EQ(answers.size(), 44U);
}

TEST_F(LinuxNotificationsTest, OneThatIsWithdrawnIsTakenAwayAndAnsweredEmpty) {
    const PrivateBus bus;
    daemon.emplace();
    show({.title = "A file", .body = "came", .actions = {{"open", "Open"}}, .tag = 1});
    show({.title = "A file", .body = "came", .actions = {{"open", "Open"}}, .tag = 2});
    runUntil([&] { return daemon->shown.size() == 2; });
    notifications.withdraw(1);
    expectAnswers({""});
    runUntil([&] { return !daemon->taken.empty(); });
    EXPECT_EQ(daemon->taken.size(), 1U);
    notifications.withdraw(7); // of nobody
    show({.title = "A file", .body = "came", .actions = {{"open", "Open"}}, .tag = 3});
    notifications.withdraw(3); // before it has a number
    expectAnswers({"", ""});
    runUntil([&] { return daemon->taken.size() == 2; });
}

TEST_F(LinuxNotificationsTest, SaysWhoseItIsAndWhatKindItIsOf) {
    const PrivateBus bus;
    daemon.emplace();
    show({.title = "t",
          .body = "b",
          .category = "transfer",
          .isQuiet = true,
          .percent = 38,
          .isResident = true,
          .isTransient = true});
    show({.title = "t", .body = "b"});
    runUntil([&] { return daemon->shown.size() == 2; });
    EXPECT_EQ(daemon->shown[0].application, "Orlinth");
    EXPECT_EQ(daemon->shown[0].icon, "");
    EXPECT_EQ(daemon->shown[0].hints, (std::map<std::string, std::string>{{"desktop-entry", "com.tarvinex.orlinth"},
                                                                          {"urgency", "0"},
                                                                          {"category", "transfer"},
                                                                          {"value", "38"},
                                                                          {"resident", "true"},
                                                                          {"transient", "true"}}));
    EXPECT_EQ(daemon->shown[1].hints,
              (std::map<std::string, std::string>{{"desktop-entry", "com.tarvinex.orlinth"}, {"urgency", "1"}}));
}

TEST_F(LinuxNotificationsTest, AClickIsAnActionOfItsOwn) {
    const PrivateBus bus;
    daemon.emplace();
    show({.title = "t", .body = "b", .actions = {{"open", "Open"}}, .clickLabel = "Show"});
    runUntil([&] { return !daemon->shown.empty(); });
    EXPECT_EQ(daemon->shown[0].actions, (std::vector<std::string>{"default", "Show", "open", "Open"}));
    daemon->press(1, "default");
    daemon->press(1, "default"); // as GNOME does for what was replaced
    expectAnswers({"default"});
    showOne();
    daemon->press(2, "open");
    expectAnswers({"default", "open"});
}

TEST_F(LinuxNotificationsTest, GnomeIsLeftToBringTheWindowToTheFrontItself) {
    const PrivateBus bus;
    daemon.emplace();
    for (const char* name : {"gnome-shell", "dunst"}) {
        daemon->server = name;
        show({.title = "t", .body = "b", .clickLabel = "Open Orlinth", .isClickForWindow = true});
        show({.title = "t", .body = "b", .clickLabel = "Show"});
        runUntil([&] { return daemon->shown.size() % 2 == 0 && !daemon->shown.empty(); });
    }
    runUntil([&] { return daemon->shown.size() == 4; });
    EXPECT_EQ(daemon->shown[0].actions, std::vector<std::string>());
    EXPECT_EQ(daemon->shown[1].actions, (std::vector<std::string>{"default", "Show"}));
    EXPECT_EQ(daemon->shown[2].actions, (std::vector<std::string>{"default", "Open Orlinth"}));
}

TEST_F(LinuxNotificationsTest, TheTokenOfThePressComesWithTheAnswer) {
    const PrivateBus bus;
    daemon.emplace();
    showOne();
    showOne();
    Stranger stranger;
    daemon->tellToken(1, "token-1");
    stranger.tell(daemon->caller, daemonPath, daemonName, "ActivationToken", "us", std::uint32_t{1}, "theirs");
    daemon->press(1, "open");
    daemon->press(2, "open");
    expectAnswers({"open", "open"});
    EXPECT_EQ(tokens, (std::vector<std::string>{"token-1", ""}));
}

TEST_F(LinuxNotificationsTest, AResidentOneIsAnsweredAgainUntilItIsClosed) {
    const PrivateBus bus;
    daemon.emplace();
    show({.title = "t", .body = "b", .actions = {{"cancel", "Cancel"}}, .isResident = true});
    runUntil([&] { return !daemon->shown.empty(); });
    daemon->press(1, "cancel");
    daemon->press(1, "default");
    daemon->tellClosed(1);
    expectAnswers({"cancel", "default", ""});
}

TEST_F(LinuxNotificationsTest, WhatIsShownNextTakesThePlaceOfTheSameTag) {
    const PrivateBus bus;
    daemon.emplace();
    daemon->answersLate = true;
    show({.title = "one", .body = "b", .tag = 7});
    runUntil([&] { return daemon->shown.size() == 1; });
    show({.title = "other", .body = "b", .tag = 8});
    for (const char* title : {"two", "three", "four"}) {
        show({.title = title, .body = "b", .tag = 7});
    }
    runUntil([&] { return daemon->shown.size() == 2; });
    EXPECT_EQ(daemon->shown[1].replaces, 0U) << "it has another tag";
    daemon->answersLate = false;
    daemon->answerLate();
    runUntil([&] { return daemon->shown.size() == 3; });
    EXPECT_EQ(daemon->shown[2].title, "four") << "what came meanwhile is shown once, with what came last";
    EXPECT_EQ(daemon->shown[2].replaces, 1U);
    daemon->press(1, "open");
    expectAnswers({"open"}); // once: of the last
    show({.title = "five", .body = "b", .tag = 7});
    runUntil([&] { return daemon->shown.size() == 4; });
    EXPECT_EQ(daemon->shown[3].replaces, 0U) << "that one is gone";
}

TEST_F(LinuxNotificationsTest, OneThatIsClosedWhileAnotherTakesItsPlaceStaysAway) {
    const PrivateBus bus;
    daemon.emplace();
    show({.title = "one", .body = "b", .tag = 7});
    runUntil([&] { return !daemon->shown.empty(); });
    daemon->answersLate = true;
    show({.title = "two", .body = "b", .tag = 7});
    runUntil([&] { return daemon->shown.size() == 2; });
    daemon->tellClosed(1);
    expectAnswers({""});
    daemon->answerLate();
    runUntil([&] { return !daemon->taken.empty(); });
    EXPECT_EQ(daemon->taken, std::vector<std::uint32_t>{1});
}

} // namespace
