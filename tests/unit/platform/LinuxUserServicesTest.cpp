#include "platform/linux/LinuxUserServices.h"

#include "fakes/BusProgram.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace orlinth::platform {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Outcome = ServiceStart::Outcome;

const UserService service{.busName = "com.example.service1", .unit = "service.service"};

/// The user's service manager, as far as it is asked here, with a thread of its own.
class Manager {
public:
    struct Behaviour {
        std::string error = {};      ///< the name of what every call but Subscribe fails with
        std::string result = "done"; ///< of its jobs; "": none ever ends
        bool endsJobsEarly = false;  ///< before it answers to whoever has asked for them
        std::string silentAt = {};   ///< the method that is not answered
    };

    explicit Manager(Behaviour behaviour) : behaviour_(std::move(behaviour)) {
        static const sd_bus_vtable table[] = {SD_BUS_VTABLE_START(0),
                                              SD_BUS_METHOD("EnableUnitFiles", "asbb", "ba(sss)", onCall, 0),
                                              SD_BUS_METHOD("Reload", "", "", onCall, 0),
                                              SD_BUS_METHOD("Subscribe", "", "", onCall, 0),
                                              SD_BUS_METHOD("StartUnit", "ss", "o", onCall, 0),
                                              SD_BUS_SIGNAL("JobRemoved", "uoss", 0),
                                              SD_BUS_VTABLE_END};
        fakes::requireBus(::sd_bus_add_object_vtable(program_.get(), nullptr, object, interface, table, this));
        fakes::requireBus(::sd_bus_request_name(program_.get(), "org.freedesktop.systemd1", 0));
        thread_ = std::thread([this] {
            while (!isOver_) {
                program_.process();
                ::sd_bus_wait(program_.get(), 10'000);
            }
        });
    }
    ~Manager() {
        isOver_ = true;
        thread_.join();
    }
    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;

    [[nodiscard]] std::vector<std::string> asked() const {
        const std::lock_guard guard(lock_);
        return asked_;
    }

private:
    static constexpr const char* object = "/org/freedesktop/systemd1";
    static constexpr const char* interface = "org.freedesktop.systemd1.Manager";
    static constexpr const char* job = "/org/freedesktop/systemd1/job/7";

    static int onCall(sd_bus_message* message, void* data, sd_bus_error* error) {
        return static_cast<Manager*>(data)->answer(message, error);
    }
    int answer(sd_bus_message* message, sd_bus_error* error) {
        const std::string method = ::sd_bus_message_get_member(message);
        std::string unit;
        const char* text = nullptr;
        if (method == "EnableUnitFiles") {
            int isRuntime = -1;
            int isForced = -1;
            fakes::requireBus(::sd_bus_message_enter_container(message, 'a', "s"));
            fakes::requireBus(::sd_bus_message_read(message, "s", &text));
            fakes::requireBus(::sd_bus_message_exit_container(message));
            unit = text;
            fakes::requireBus(::sd_bus_message_read(message, "bb", &isRuntime, &isForced));
            EXPECT_EQ(isRuntime, 0);
            EXPECT_EQ(isForced, 0);
        } else if (method == "StartUnit") {
            const char* mode = nullptr;
            fakes::requireBus(::sd_bus_message_read(message, "ss", &text, &mode));
            EXPECT_STREQ(mode, "replace");
            unit = text;
        }
        {
            const std::lock_guard guard(lock_);
            asked_.push_back(method + (unit.empty() ? "" : " " + unit));
        }
        if (method == behaviour_.silentAt) {
            return 1; // handled, without an answer
        }
        if (!behaviour_.error.empty() && method != "Subscribe") {
            return ::sd_bus_error_set(error, behaviour_.error.c_str(), "the manager's own words");
        }
        if (method == "EnableUnitFiles") {
            return ::sd_bus_reply_method_return(message, "ba(sss)", 1, 0);
        }
        if (method != "StartUnit") {
            return ::sd_bus_reply_method_return(message, "");
        }
        if (behaviour_.endsJobsEarly) {
            endJob();
        }
        fakes::requireBus(::sd_bus_reply_method_return(message, "o", job));
        if (!behaviour_.endsJobsEarly && !behaviour_.result.empty()) {
            fakes::requireBus(::sd_bus_emit_signal(program_.get(), object, interface, "JobRemoved", "uoss", 6U,
                                                   "/org/freedesktop/systemd1/job/6", "other.service", "failed"));
            endJob();
        }
        return 1;
    }
    void endJob() {
        fakes::requireBus(::sd_bus_emit_signal(program_.get(), object, interface, "JobRemoved", "uoss", 7U, job,
                                               service.unit.c_str(), behaviour_.result.c_str()));
    }

    const Behaviour behaviour_;
    mutable std::mutex lock_;
    std::vector<std::string> asked_;
    std::atomic<bool> isOver_ = false;
    fakes::BusProgram program_;
    std::thread thread_;
};

class LinuxUserServicesTest : public testing::Test {
protected:
    void SetUp() override { fakes::setBusAddress(""); }
    void TearDown() override { SetUp(); }

    LinuxUserServices services_{fakes::busEnvironment};
    LinuxUserServices hasty_{fakes::busEnvironment, std::chrono::milliseconds(300)};
    const ServiceStart running_{.outcome = Outcome::running};
};

TEST_F(LinuxUserServicesTest, AServiceIsEnabledAndStarted) {
    const fakes::PrivateBus bus;
    const Manager manager({});
    EXPECT_EQ(services_.enable(service), running_);
    EXPECT_THAT(manager.asked(),
                ElementsAre("EnableUnitFiles service.service", "Reload", "Subscribe", "StartUnit service.service"));
}

TEST_F(LinuxUserServicesTest, AServiceThatTheBusDoesNotKnowIsStartedByItsUnit) {
    const fakes::PrivateBus bus;
    const Manager manager({});
    EXPECT_EQ(services_.start(service), running_);
    EXPECT_THAT(manager.asked(), ElementsAre("Subscribe", "StartUnit service.service"));
}

TEST_F(LinuxUserServicesTest, AServiceThatHasItsNameRuns) {
    const fakes::PrivateBus bus;
    const Manager manager({});
    const fakes::BusProgram running;
    fakes::requireBus(::sd_bus_request_name(running.get(), service.busName.c_str(), 0));
    EXPECT_EQ(services_.start(service), running_);
    EXPECT_THAT(manager.asked(), IsEmpty());
}

TEST_F(LinuxUserServicesTest, AJobThatEndsBeforeItIsNamedCounts) {
    const fakes::PrivateBus bus;
    const Manager manager({.endsJobsEarly = true});
    EXPECT_EQ(services_.start(service), running_);
}

TEST_F(LinuxUserServicesTest, AServiceThatDoesNotStartIsAFailure) {
    const fakes::PrivateBus bus;
    const Manager manager({.result = "failed"});
    const ServiceStart expected{.outcome = Outcome::failed, .problem = "systemd reports: failed"};
    EXPECT_EQ(services_.start(service), expected);
    EXPECT_EQ(services_.enable(service), expected);
}

TEST_F(LinuxUserServicesTest, AServiceThatTakesTooLongIsAFailure) {
    const fakes::PrivateBus bus;
    const Manager manager({.result = ""});
    EXPECT_EQ(hasty_.start(service), (ServiceStart{.outcome = Outcome::failed, .problem = "it did not start in time"}));
}

TEST_F(LinuxUserServicesTest, AUnitThatIsNotInstalledIsUnknown) {
    const fakes::PrivateBus bus;
    for (const char* error :
         {"org.freedesktop.systemd1.NoSuchUnit", "org.freedesktop.DBus.Error.FileNotFound", "System.Error.ENOENT"}) {
        const Manager manager({.error = error});
        EXPECT_EQ(services_.enable(service), ServiceStart()) << error;
        EXPECT_EQ(services_.start(service), ServiceStart()) << error;
        EXPECT_THAT(manager.asked(),
                    ElementsAre("EnableUnitFiles service.service", "Subscribe", "StartUnit service.service"));
    }
}

TEST_F(LinuxUserServicesTest, AnyOtherErrorIsAFailureInTheManagersWords) {
    const fakes::PrivateBus bus;
    const Manager manager({.error = "org.freedesktop.systemd1.UnitMasked"});
    const ServiceStart expected{.outcome = Outcome::failed, .problem = "the manager's own words"};
    EXPECT_EQ(services_.enable(service), expected);
    EXPECT_EQ(services_.start(service), expected);
}

TEST_F(LinuxUserServicesTest, AManagerThatDoesNotAnswerIsAFailure) {
    const fakes::PrivateBus bus;
    for (const char* method : {"EnableUnitFiles", "Reload", "Subscribe", "StartUnit"}) {
        const Manager manager({.silentAt = method});
        EXPECT_EQ(hasty_.enable(service), (ServiceStart{.outcome = Outcome::failed, .problem = "no answer in time"}))
            << method;
    }
}

TEST_F(LinuxUserServicesTest, WithoutABusAndWithoutAManagerEverythingIsUnknown) {
    EXPECT_EQ(services_.start(service), ServiceStart());
    EXPECT_EQ(services_.enable(service), ServiceStart());
    fakes::setBusAddress("unix:path=/nonexistent/bus");
    EXPECT_EQ(services_.start(service), ServiceStart());
    EXPECT_EQ(services_.enable(service), ServiceStart());
    const fakes::PrivateBus bus;
    EXPECT_EQ(services_.start(service), ServiceStart());
    EXPECT_EQ(services_.enable(service), ServiceStart());
}

TEST_F(LinuxUserServicesTest, ASilentBusIsNotWaitedForForEver) {
    const fakes::SilentBus bus;
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(hasty_.start(service), ServiceStart());
    EXPECT_EQ(hasty_.enable(service), ServiceStart());
    EXPECT_LT(std::chrono::steady_clock::now() - before, LinuxUserServices::usualLimit);
}

} // namespace
} // namespace orlinth::platform
