#include "platform/linux/SessionCalls.h"

#include "fakes/BusProgram.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace orlinth::platform {
namespace {

using fakes::requireBus;
using testing::ElementsAre;

/// A file manager, and Orlinth's application, with a thread of their own.
class Programs {
public:
    explicit Programs(bool refuses = false) : refuses_(refuses) {
        static const sd_bus_vtable manager[] = {
            SD_BUS_VTABLE_START(0), SD_BUS_METHOD("ShowItems", "ass", "", onShowItems, 0), SD_BUS_VTABLE_END};
        static const sd_bus_vtable application[] = {
            SD_BUS_VTABLE_START(0), SD_BUS_METHOD("Activate", "a{sv}", "", onActivate, 0), SD_BUS_VTABLE_END};
        requireBus(::sd_bus_add_object_vtable(program_.get(), nullptr, "/org/freedesktop/FileManager1",
                                              "org.freedesktop.FileManager1", manager, this));
        requireBus(::sd_bus_add_object_vtable(program_.get(), nullptr, "/com/tarvinex/orlinth",
                                              "org.freedesktop.Application", application, this));
        requireBus(::sd_bus_request_name(program_.get(), "org.freedesktop.FileManager1", 0));
        requireBus(::sd_bus_request_name(program_.get(), "com.tarvinex.orlinth", 0));
        thread_ = std::thread([this] {
            while (!isOver_) {
                program_.process();
                ::sd_bus_wait(program_.get(), 10'000);
            }
        });
    }
    ~Programs() { end(); }
    Programs(const Programs&) = delete;
    Programs& operator=(const Programs&) = delete;

    /// What they were asked for, behind the last of it.
    [[nodiscard]] std::vector<std::string> asked() {
        end();
        return asked_;
    }

private:
    void end() {
        isOver_ = true;
        if (thread_.joinable()) {
            thread_.join();
        }
    }

    static int onShowItems(sd_bus_message* call, void* data, sd_bus_error* error) {
        auto& self = *static_cast<Programs*>(data);
        std::string text = "show";
        const char* item = nullptr;
        requireBus(::sd_bus_message_enter_container(call, 'a', "s"));
        while (::sd_bus_message_read(call, "s", &item) > 0) {
            text += std::string(" ") + item;
        }
        requireBus(::sd_bus_message_exit_container(call));
        requireBus(::sd_bus_message_read(call, "s", &item));
        self.asked_.push_back(text + " with '" + item + "'");
        return self.refuses_ ? ::sd_bus_error_set(error, "org.example.Refused", "no")
                             : ::sd_bus_reply_method_return(call, "");
    }

    static int onActivate(sd_bus_message* call, void* data, sd_bus_error*) {
        auto& self = *static_cast<Programs*>(data);
        std::string text = "activate";
        requireBus(::sd_bus_message_enter_container(call, 'a', "{sv}"));
        while (::sd_bus_message_enter_container(call, 'e', "sv") > 0) {
            const char* name = nullptr;
            const char* value = nullptr;
            requireBus(::sd_bus_message_read(call, "sv", &name, "s", &value));
            text += std::string(" ") + name + "=" + value;
            requireBus(::sd_bus_message_exit_container(call));
        }
        self.asked_.push_back(text);
        return ::sd_bus_reply_method_return(call, "");
    }

    const bool refuses_;
    std::vector<std::string> asked_;
    std::atomic<bool> isOver_ = false;
    fakes::BusProgram program_;
    std::thread thread_;
};

class SessionCallsTest : public testing::Test {
protected:
    void TearDown() override { fakes::setBusAddress(""); }
};

TEST_F(SessionCallsTest, TheFileManagerIsAskedToShowFiles) {
    const fakes::PrivateBus bus;
    Programs programs;
    EXPECT_TRUE(showInFileManager(fakes::busEnvironment, {"/home/ann/a b.jpg", "/home/ann/\u00e4%$#?.jpg"}, "token-1"));
    EXPECT_THAT(programs.asked(),
                ElementsAre("show file:///home/ann/a%20b.jpg file:///home/ann/%C3%A4%25%24%23%3F.jpg with 'token-1'"));
}

TEST_F(SessionCallsTest, AFileManagerThatRefusesOrIsNotThereHasNotShownThem) {
    EXPECT_FALSE(showInFileManager(fakes::busEnvironment, {"/home/ann/a.jpg"}, "")) << "no bus";
    const fakes::PrivateBus bus;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(showInFileManager(fakes::busEnvironment, {"/home/ann/a.jpg"}, "")) << "nobody on it";
    EXPECT_LT(std::chrono::steady_clock::now() - start, sessionCallLimit);
    Programs programs(true);
    EXPECT_FALSE(showInFileManager(fakes::busEnvironment, {"/home/ann/a.jpg"}, ""));
    EXPECT_THAT(programs.asked(), ElementsAre("show file:///home/ann/a.jpg with ''"));
}

TEST_F(SessionCallsTest, TheApplicationIsBroughtToTheFront) {
    EXPECT_FALSE(activateApplication(fakes::busEnvironment, ""));
    const fakes::PrivateBus bus;
    Programs programs;
    EXPECT_TRUE(activateApplication(fakes::busEnvironment, ""));
    EXPECT_TRUE(activateApplication(fakes::busEnvironment, "token-1"));
    EXPECT_THAT(programs.asked(),
                ElementsAre("activate", "activate activation-token=token-1 desktop-startup-id=token-1"));
}

} // namespace
} // namespace orlinth::platform
