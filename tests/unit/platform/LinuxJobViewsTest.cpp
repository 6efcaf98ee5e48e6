#include "platform/linux/LinuxJobViews.h"

#include "fakes/BusProgram.h"

#include <asio/io_context.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <poll.h>
#include <string>
#include <vector>

namespace orlinth::platform {
namespace {

using fakes::requireBus;
using SteadyClock = std::chrono::steady_clock;
using State = JobView::State;
using testing::ElementsAre;

/// Nothing here takes this long; it only keeps a broken test from hanging.
constexpr auto patience = 60s;
constexpr const char* viewPath = "/JobViewServer/JobView_1";
constexpr const char* viewInterface = "org.kde.JobViewV3";

/// KDE's server of job views, which writes down what it is asked for.
class Server {
public:
    explicit Server(bool refuses = false) : refuses_(refuses) {
        static const sd_bus_vtable server[] = {
            SD_BUS_VTABLE_START(0), SD_BUS_METHOD("requestView", "sia{sv}", "o", onRequest, 0), SD_BUS_VTABLE_END};
        static const sd_bus_vtable view[] = {SD_BUS_VTABLE_START(0), SD_BUS_METHOD("update", "a{sv}", "", onUpdate, 0),
                                             SD_BUS_METHOD("terminate", "usa{sv}", "", onTerminate, 0),
                                             SD_BUS_VTABLE_END};
        requireBus(::sd_bus_add_object_vtable(program_.get(), nullptr, "/JobViewServer", "org.kde.JobViewServerV2",
                                              server, this));
        requireBus(::sd_bus_add_object_vtable(program_.get(), nullptr, viewPath, viewInterface, view, this));
        requireBus(::sd_bus_request_name(program_.get(), "org.kde.JobViewServer", 0));
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    void process() { program_.process(); }
    [[nodiscard]] int descriptor() const { return ::sd_bus_get_fd(program_.get()); }
    void cancel() { requireBus(::sd_bus_emit_signal(program_.get(), viewPath, viewInterface, "cancelRequested", "")); }

    std::vector<std::string> all;
    std::string caller;

private:
    static int onRequest(sd_bus_message* call, void* data, sd_bus_error* error) {
        auto& self = *static_cast<Server*>(data);
        const char* entry = nullptr;
        std::int32_t capabilities = 0;
        requireBus(::sd_bus_message_read(call, "si", &entry, &capabilities));
        self.caller = ::sd_bus_message_get_sender(call);
        self.all.push_back("request " + std::string(entry) + " " + std::to_string(capabilities));
        return self.refuses_ ? ::sd_bus_error_set(error, "org.example.Refused", "no")
                             : ::sd_bus_reply_method_return(call, "o", viewPath);
    }

    static int onUpdate(sd_bus_message* call, void* data, sd_bus_error*) {
        std::map<std::string, std::string> values;
        requireBus(::sd_bus_message_enter_container(call, 'a', "{sv}"));
        while (::sd_bus_message_enter_container(call, 'e', "sv") > 0) {
            const char* name = nullptr;
            const char* type = nullptr;
            requireBus(::sd_bus_message_read(call, "s", &name));
            requireBus(::sd_bus_message_peek_type(call, nullptr, &type));
            std::uint64_t large = 0;
            std::uint32_t number = 0;
            const char* text = nullptr;
            if (*type == 't') {
                requireBus(::sd_bus_message_read(call, "v", "t", &large));
                values[name] = std::to_string(large);
            } else if (*type == 'u') {
                requireBus(::sd_bus_message_read(call, "v", "u", &number));
                values[name] = std::to_string(number);
            } else {
                requireBus(::sd_bus_message_read(call, "v", "s", &text));
                values[name] = text;
            }
            requireBus(::sd_bus_message_exit_container(call));
        }
        std::string line = "update";
        for (const auto& [name, value] : values) {
            line += " " + name + "=" + value;
        }
        static_cast<Server*>(data)->all.push_back(line);
        return ::sd_bus_reply_method_return(call, "");
    }

    static int onTerminate(sd_bus_message* call, void* data, sd_bus_error*) {
        std::uint32_t error = 0;
        const char* text = nullptr;
        requireBus(::sd_bus_message_read(call, "us", &error, &text));
        static_cast<Server*>(data)->all.push_back("terminate " + std::to_string(error) + " " + text);
        return ::sd_bus_reply_method_return(call, "");
    }

    const bool refuses_;
    fakes::BusProgram program_;
};

class LinuxJobViewsTest : public testing::Test {
protected:
    void TearDown() override { fakes::setBusAddress(""); }

    void runUntil(const std::function<bool()>& isDone) {
        const auto end = SteadyClock::now() + patience;
        while (!isDone()) {
            ASSERT_LT(SteadyClock::now(), end) << "nothing happens any more";
            context.restart();
            context.poll();
            pollfd events{.fd = -1, .events = POLLIN, .revents = 0};
            if (server) {
                server->process();
                events.fd = server->descriptor();
            }
            ::poll(&events, 1, 5); // our own callbacks come at the next turn
        }
    }

    asio::io_context context;
    std::optional<Server> server;
    int cancelled = 0;
    LinuxJobViews views{context.get_executor(), fakes::busEnvironment};
    const Job job{.title = "Receiving film.mov",
                  .percent = 38,
                  .bytes = {.done = 380, .total = 1000},
                  .bytesPerSecond = 8,
                  .folder = "/home/ann/My Files"};
};

TEST_F(LinuxJobViewsTest, WithoutABusOrAServerAViewIsRefused) {
    EXPECT_EQ(views.show(job, [] {})->state(), State::refused);
    const fakes::PrivateBus bus;
    const auto view = views.show(job, [] {});
    EXPECT_EQ(view->state(), State::asked);
    runUntil([&] { return view->state() == State::refused; });
    server.emplace(true);
    const auto other = views.show(job, [] {});
    runUntil([&] { return other->state() == State::refused; });
}

TEST_F(LinuxJobViewsTest, AJobIsShownAsItIsAndGoesWhenItIsDone) {
    const fakes::PrivateBus bus;
    server.emplace();
    auto view = views.show(job, [] {});
    runUntil([&] { return server->all.size() == 2; });
    EXPECT_EQ(view->state(), State::shown);
    view->update({.title = "Sending 3 files", .percent = 50});
    runUntil([&] { return server->all.size() == 3; });
    view.reset();
    runUntil([&] { return server->all.size() == 4; });
    EXPECT_THAT(server->all,
                ElementsAre("request com.tarvinex.orlinth 1",
                            "update destUrl=file:///home/ann/My%20Files percent=38 processedBytes=380 speed=8 "
                            "title=Receiving film.mov totalBytes=1000",
                            "update percent=50 speed=0 title=Sending 3 files", "terminate 0 "));
}

TEST_F(LinuxJobViewsTest, AJobThatHasFailedSaysWhyOnce) {
    const fakes::PrivateBus bus;
    server.emplace();
    auto view = views.show(job, [] {});
    runUntil([&] { return view->state() == State::shown; });
    view->fail("The connection broke.");
    view.reset();
    auto other = views.show(job, [] {}); // behind everything of the first
    runUntil([&] { return other->state() == State::shown; });
    EXPECT_THAT(server->all, testing::Contains("terminate 100 The connection broke.").Times(1));
    EXPECT_THAT(server->all, testing::Not(testing::Contains("terminate 0 ")));
}

TEST_F(LinuxJobViewsTest, OnlyTheServerThatShowsItCancelsIt) {
    const fakes::PrivateBus bus;
    server.emplace();
    std::unique_ptr<JobView> view = views.show(job, [this, &view] {
        ++cancelled;
        view.reset(); // as it may
    });
    runUntil([&] { return view->state() == State::shown; });
    fakes::BusProgram stranger;
    sd_bus_message* signal = nullptr;
    requireBus(::sd_bus_message_new_signal(stranger.get(), &signal, viewPath, viewInterface, "cancelRequested"));
    requireBus(::sd_bus_message_set_destination(signal, server->caller.c_str()));
    requireBus(::sd_bus_send(stranger.get(), signal, nullptr));
    ::sd_bus_message_unref(signal);
    stranger.arrive();
    auto other = views.show(job, [] {}); // answered behind it
    runUntil([&] { return other->state() == State::shown; });
    EXPECT_EQ(cancelled, 0);
    server->cancel();
    runUntil([&] { return cancelled == 1; });
    EXPECT_EQ(view, nullptr);
}

TEST_F(LinuxJobViewsTest, AServerThatGoesShowsNothingAnyMore) {
    const fakes::PrivateBus bus;
    server.emplace();
    const auto view = views.show(job, [] {});
    runUntil([&] { return server->all.size() == 2; });
    server.reset();
    view->update(job);
    runUntil([&] { return view->state() == State::refused; });
}

TEST_F(LinuxJobViewsTest, ABusThatGoesShowsNothingAnyMore) {
    fakes::PrivateBus bus;
    server.emplace();
    const auto view = views.show(job, [] {});
    runUntil([&] { return view->state() == State::shown; });
    bus.stop();
    server.reset();
    runUntil([&] { return view->state() == State::refused; });
    view->update(job);
    EXPECT_EQ(views.show(job, [] {})->state(), State::refused);
}

} // namespace
} // namespace orlinth::platform
