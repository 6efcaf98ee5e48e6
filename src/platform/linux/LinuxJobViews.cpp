#include "platform/linux/LinuxJobViews.h"

#include "base/Text.h"
#include "platform/linux/BusLoop.h"
#include "platform/linux/SessionCalls.h"

#include <algorithm>
#include <set>
#include <string>
#include <utility>

namespace orlinth::platform {
namespace {

using namespace std::chrono_literals;

constexpr const char* serverName = "org.kde.JobViewServer";
constexpr const char* serverPath = "/JobViewServer";
constexpr const char* serverInterface = "org.kde.JobViewServerV2";
constexpr const char* viewInterface = "org.kde.JobViewV3";
constexpr const char* desktopEntry = "com.tarvinex.orlinth";
constexpr std::int32_t canBeCancelled = 1;
/// Any but 0 is a failure; this one is "user defined" to KIO.
constexpr std::uint32_t failure = 100;
constexpr auto answerLimit = 3s;
constexpr int wholePercent = 100;

} // namespace

/// The connection, and the views that are there.
struct LinuxJobViews::Worker {
    Worker(const Executor& executor, BusEnvironment environment)
        : loop(executor, environment, answerLimit, [this] { lost(); }) {}

    void lost();

    std::set<View*> views; ///< declared first: its members are used when the connection goes
    BusLoop loop;
};

class LinuxJobViews::View final : public JobView {
public:
    View(std::shared_ptr<Worker> worker, Job job, std::function<void()> onCancel)
        : worker_(std::move(worker)), job_(std::move(job)), onCancel_(std::move(onCancel)) {
        worker_->views.insert(this);
        if (!request()) {
            state_ = State::refused;
        }
        worker_->loop.wake();
    }
    ~View() override {
        if (state_ == State::shown) {
            terminate(0, "");
        }
        worker_->views.erase(this);
    }
    View(const View&) = delete;
    View& operator=(const View&) = delete;

    [[nodiscard]] State state() const noexcept override { return state_; }

    void update(const Job& job) override {
        job_ = job;
        if (state_ == State::shown) {
            tell();
        }
    }

    void fail(const std::string& why) override {
        if (state_ == State::shown) {
            terminate(failure, forDisplay(why));
        }
        state_ = State::refused;
        leave();
    }

    /// There is no connection any more.
    void lost() noexcept {
        state_ = State::refused;
        leave();
    }

private:
    void leave() noexcept {
        call_.reset();
        match_.reset();
        answer_.reset();
    }

    bool request() {
        if (!worker_->loop.open()) {
            return false;
        }
        sd_bus_message* made = nullptr;
        if (systemd().sd_bus_message_new_method_call(worker_->loop.get(), &made, serverName, serverPath,
                                                     serverInterface, "requestView") < 0) {
            return false;
        }
        const BusMessageRef call(made);
        sd_bus_slot* slot = nullptr;
        const bool isSent = systemd().sd_bus_message_set_auto_start(made, 0) >= 0 &&
                            systemd().sd_bus_message_append(made, "sia{sv}", desktopEntry, canBeCancelled, 1,
                                                            "immediate", "b", 1) >= 0 &&
                            systemd().sd_bus_call_async(worker_->loop.get(), &slot, made, onView, this, 0) >= 0;
        call_.reset(slot);
        return isSent;
    }

    static int onView(sd_bus_message* message, void* data, sd_bus_error*) {
        auto& self = *static_cast<View*>(data);
        const char* path = nullptr;
        const char* const sender = systemd().sd_bus_message_get_sender(message);
        if (sender == nullptr || systemd().sd_bus_message_is_method_error(message, nullptr) > 0 ||
            systemd().sd_bus_message_read(message, "o", &path) <= 0) {
            self.state_ = State::refused;
            return 0;
        }
        self.server_ = sender;
        self.path_ = path;
        sd_bus_slot* slot = nullptr;
        if (systemd().sd_bus_match_signal_async(self.worker_->loop.get(), &slot, sender, path, viewInterface,
                                                "cancelRequested", onCancelRequested, ignoreBusAnswer, &self) < 0) {
            self.state_ = State::refused;
            return 0;
        }
        self.match_.reset(slot);
        self.state_ = State::shown;
        self.tell();
        return 0;
    }

    /// A match of the bus is no guard: any program can send a signal to us alone.
    static int onCancelRequested(sd_bus_message* message, void* data, sd_bus_error*) {
        auto& self = *static_cast<View*>(data);
        const char* const sender = systemd().sd_bus_message_get_sender(message);
        if (sender != nullptr && self.server_ == sender) {
            const std::function<void()> onCancel = self.onCancel_; // which may destroy this
            onCancel();
        }
        return 0;
    }

    void tell() {
        const auto percent = static_cast<std::uint32_t>(std::clamp(job_.percent, 0, wholePercent));
        const auto bytes = [](std::int64_t count) {
            return static_cast<std::uint64_t>(std::max<std::int64_t>(0, count));
        };
        const std::string title = forDisplay(job_.title);
        const std::string folder = job_.folder.empty() ? "" : fileUriOf(job_.folder);
        sd_bus_slot* slot = nullptr;
        send("update", &slot, [&](sd_bus_message* call) {
            const auto append = [call](const char* name, const char* type, auto value) {
                return systemd().sd_bus_message_append(call, "{sv}", name, type, value) >= 0;
            };
            return systemd().sd_bus_message_open_container(call, SD_BUS_TYPE_ARRAY, "{sv}") >= 0 &&
                   append("title", "s", title.c_str()) && append("percent", "u", percent) &&
                   append("speed", "t", bytes(job_.bytesPerSecond)) &&
                   (job_.bytes.total <= 0 || (append("totalBytes", "t", bytes(job_.bytes.total)) &&
                                              append("processedBytes", "t", bytes(job_.bytes.done)))) &&
                   (folder.empty() || append("destUrl", "s", folder.c_str())) &&
                   systemd().sd_bus_message_close_container(call) >= 0;
        });
        answer_.reset(slot); // that to the one before says nothing more
    }

    /// A server that has gone, or does not know the view any more, shows nothing.
    static int onUpdated(sd_bus_message* message, void* data, sd_bus_error*) {
        auto& self = *static_cast<View*>(data);
        if (systemd().sd_bus_message_is_method_error(message, nullptr) > 0) {
            self.state_ = State::refused;
            self.match_.reset();
        }
        return 0;
    }

    void terminate(std::uint32_t error, const std::string& text) {
        send("terminate", nullptr, [&](sd_bus_message* call) {
            return systemd().sd_bus_message_append(call, "usa{sv}", error, text.c_str(), 0) >= 0;
        });
    }

    /// The answer matters if `slot` is not null.
    template <typename Append>
    void send(const char* method, sd_bus_slot** slot, const Append& append) {
        sd_bus_message* made = nullptr;
        if (worker_->loop.get() == nullptr ||
            systemd().sd_bus_message_new_method_call(worker_->loop.get(), &made, server_.c_str(), path_.c_str(),
                                                     viewInterface, method) < 0) {
            return;
        }
        const BusMessageRef call(made);
        if (append(made)) {
            static_cast<void>(systemd().sd_bus_call_async(worker_->loop.get(), slot, made,
                                                          slot != nullptr ? onUpdated : ignoreBusAnswer, this,
                                                          0)); // what cannot be sent now is said again a second later
        }
        worker_->loop.wake();
    }

    std::shared_ptr<Worker> worker_;
    Job job_;
    std::function<void()> onCancel_;
    State state_ = State::asked;
    std::string server_; ///< the unique name of the connection that shows it
    std::string path_;
    BusSlotRef call_;
    BusSlotRef match_;
    BusSlotRef answer_; ///< to the last update
};

void LinuxJobViews::Worker::lost() {
    for (View* const view : views) {
        view->lost();
    }
}

LinuxJobViews::LinuxJobViews(const Executor& executor, BusEnvironment environment)
    : worker_(std::make_shared<Worker>(executor, environment)) {}

LinuxJobViews::~LinuxJobViews() = default;

std::unique_ptr<JobView> LinuxJobViews::show(Job job, std::function<void()> onCancel) {
    return std::make_unique<View>(worker_, std::move(job), std::move(onCancel));
}

} // namespace orlinth::platform
