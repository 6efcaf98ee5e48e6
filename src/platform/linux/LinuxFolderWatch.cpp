#include "platform/linux/LinuxFolderWatch.h"

#include "platform/SystemError.h"

#include <asio/post.hpp>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <limits.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>

namespace orlinth::platform {
namespace {

constexpr std::uint32_t namesChange = IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_CLOSE_WRITE;
constexpr std::uint32_t folderGoes = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED;
constexpr std::uint32_t wanted = namesChange | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
/// How often a folder is looked for that has gone.
constexpr int lookEveryMilliseconds = 2000;

class OpenDescriptor {
public:
    explicit OpenDescriptor(int number) : number_(number) {
        if (number == -1) {
            throw SystemError::fromErrno();
        }
    }
    ~OpenDescriptor() { ::close(number_); }
    OpenDescriptor(const OpenDescriptor&) = delete;
    OpenDescriptor& operator=(const OpenDescriptor&) = delete;

    [[nodiscard]] int get() const noexcept { return number_; }

private:
    int number_;
};

/// What is called on the executor, unless the watch has ended by then.
struct Told {
    std::function<void()> onChange;
    std::atomic<bool> isPosted = false; ///< and has not begun: it will see what happens now as well
};

class InotifyWatch final : public FolderWatch {
public:
    InotifyWatch(Path folder, Executor executor, std::function<void()> onChange)
        : folder_(std::move(folder)),
          executor_(std::move(executor)),
          told_(std::make_shared<Told>(std::move(onChange))),
          inotify_(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)),
          end_(::eventfd(0, EFD_CLOEXEC)),
          watch_(::inotify_add_watch(inotify_.get(), folder_.c_str(), wanted)) {
        if (watch_ == -1) {
            throw SystemError::fromErrno();
        }
        try {
            thread_ = std::thread([this] { run(); });
        } catch (const std::system_error& error) {
            throw SystemError(error.code());
        }
    }

    ~InotifyWatch() override {
        const std::uint64_t one = 1;
        static_cast<void>(!::write(end_.get(), &one, sizeof one)); // it cannot be full
        thread_.join();
    }
    InotifyWatch(const InotifyWatch&) = delete;
    InotifyWatch& operator=(const InotifyWatch&) = delete;

private:
    void run() {
        for (;;) {
            pollfd events[2] = {{.fd = end_.get(), .events = POLLIN, .revents = 0},
                                {.fd = inotify_.get(), .events = POLLIN, .revents = 0}};
            const int count = ::poll(events, 2, watch_ == -1 ? lookEveryMilliseconds : -1);
            if (events[0].revents != 0) {
                return;
            }
            bool isChanged = count > 0 && takeEvents();
            if (watch_ == -1) {
                watch_ = ::inotify_add_watch(inotify_.get(), folder_.c_str(), wanted);
                isChanged = isChanged || watch_ != -1;
            }
            if (isChanged) {
                tell();
            }
        }
    }

    /// Takes what the kernel has to tell; returns whether something has changed.
    bool takeEvents() {
        alignas(inotify_event) std::array<char, 16 * (sizeof(inotify_event) + NAME_MAX + 1)> buffer;
        bool isChanged = false;
        for (;;) {
            const ssize_t size = ::read(inotify_.get(), buffer.data(), buffer.size());
            if (size <= 0) {
                return isChanged; // no more of them; that a signal came between is seen by the next poll
            }
            for (std::size_t place = 0; place + sizeof(inotify_event) <= static_cast<std::size_t>(size);) {
                inotify_event event{};
                std::memcpy(&event, buffer.data() + place, sizeof event);
                place += sizeof event + event.len;
                isChanged = take(event) || isChanged;
            }
        }
    }

    bool take(const inotify_event& event) {
        if ((event.mask & IN_Q_OVERFLOW) != 0) {
            return true; // some were lost
        }
        if (event.wd != watch_) {
            return false; // the last words of a watch that was given up
        }
        if ((event.mask & folderGoes) != 0) {
            ::inotify_rm_watch(inotify_.get(),
                               watch_); // a folder that has moved is still there; else it is gone already
            watch_ = -1;
        }
        return true;
    }

    void tell() {
        if (told_->isPosted.exchange(true)) {
            return;
        }
        asio::post(executor_, [alive = std::weak_ptr(told_)] {
            if (const auto told = alive.lock()) {
                told->isPosted = false; // first: what changes while it looks makes another call
                told->onChange();
            }
        });
    }

    const Path folder_;
    const Executor executor_;
    std::shared_ptr<Told> told_;
    const OpenDescriptor inotify_;
    const OpenDescriptor end_;
    int watch_; ///< -1: the folder is not there. On the thread only, once that has started
    std::thread thread_;
};

} // namespace

std::unique_ptr<FolderWatch> LinuxFolderWatcher::watch(const Path& folder, Executor executor,
                                                       std::function<void()> onChange) {
    return std::make_unique<InotifyWatch>(folder, std::move(executor), std::move(onChange));
}

} // namespace orlinth::platform
