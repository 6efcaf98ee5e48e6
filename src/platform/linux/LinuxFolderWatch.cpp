#include "platform/linux/LinuxFolderWatch.h"

#include "platform/SystemError.h"
#include "platform/linux/Descriptor.h"

#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>
#include <asio/system_error.hpp>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <limits.h>
#include <sys/inotify.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace orlinth::platform {
namespace {

using detail::Descriptor;
using namespace std::chrono_literals;

constexpr std::uint32_t namesChange = IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE;
constexpr std::uint32_t folderGoes = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED;
constexpr std::uint32_t wanted = namesChange | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
/// How often a folder is looked for that has gone, and a file that cannot be watched.
constexpr auto lookEvery = 2s;
/// Buffers of events that are taken before others have their turn: somebody may make changes without end.
constexpr int maxReads = 16;

/// The inside of a watch. The waits that are under way find it gone once the watch has ended.
class Inotify : public std::enable_shared_from_this<Inotify> {
public:
    /// `file` is the name of the only one that counts; empty if all do.
    Inotify(Path folder, Path file, const Executor& executor, std::function<void()> onChange)
        : folder_(std::move(folder)),
          file_(std::move(file)),
          onChange_(std::move(onChange)),
          events_(executor),
          look_(executor) {
        Descriptor inotify = Descriptor::require(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
        watch_ = watchFolder(inotify.get());
        if (watch_ == -1) {
            throw SystemError::fromErrno();
        }
        if (const std::error_code failure = watchFile(inotify.get())) {
            throw SystemError(failure);
        }
        std::error_code code;
        static_cast<void>(events_.assign(inotify.get(), code));
        if (code) {
            throw SystemError(code);
        }
        static_cast<void>(inotify.release());
    }

    void awaitEvents() {
        events_.async_wait(asio::posix::stream_descriptor::wait_read, [weak = weak_from_this()](std::error_code code) {
            const std::shared_ptr<Inotify> self = weak.lock();
            if (self && !code) {
                self->onEvents();
            }
        });
    }

private:
    void onEvents() {
        const bool isChanged = takeEvents();
        awaitEvents(); // first: what changes while it looks makes another call
        if (watch_ == -1) {
            findFolder();
        }
        if (isChanged) {
            onChange_(); // last: it may end the watch
        }
    }

    [[nodiscard]] int watchFolder(int inotify) const {
        return ::inotify_add_watch(inotify, folder_.c_str(), file_.empty() ? wanted | IN_CLOSE_WRITE : wanted);
    }

    /// By itself, as the folder's watch would wake us up for each of its files that is closed. Returns why it cannot be
    /// watched, if it is there.
    [[nodiscard]] std::error_code watchFile(int inotify) {
        if (file_.empty()) {
            return {};
        }
        const int before = fileWatch_;
        fileWatch_ = ::inotify_add_watch(inotify, (folder_ / file_).c_str(), IN_CLOSE_WRITE);
        const int failure = fileWatch_ == -1 && errno != ENOENT && errno != ENOTDIR ? errno : 0;
        if (before != -1 && before != fileWatch_) { // the file that had the name may live on under another one
            ::inotify_rm_watch(inotify, before);
        }
        return {failure, std::generic_category()};
    }

    /// The file that has the name now. One that cannot be watched is looked at later.
    void followFile() {
        isFileMissed_ = static_cast<bool>(watchFile(events_.native_handle()));
        if (isFileMissed_) {
            lookLater();
        }
    }

    /// Whether it is there again. If not, it is looked for later.
    bool findFolder() {
        watch_ = watchFolder(events_.native_handle());
        followFile();
        if (watch_ == -1) {
            lookLater();
        }
        return watch_ != -1;
    }

    void lookLater() {
        look_.expires_after(lookEvery);
        look_.async_wait([weak = weak_from_this()](std::error_code code) {
            const std::shared_ptr<Inotify> self = weak.lock();
            if (self && !code && self->findWhatIsMissed()) {
                self->onChange_();
            }
        });
    }

    /// Whether something is watched again, in which anything may have changed meanwhile.
    bool findWhatIsMissed() {
        if (watch_ == -1) {
            return findFolder();
        }
        const bool wasMissed = isFileMissed_;
        followFile();
        return wasMissed && !isFileMissed_;
    }

    /// Takes what the kernel has to tell; returns whether something has changed.
    bool takeEvents() {
        // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): read() fills it
        alignas(inotify_event) std::array<char, 16 * (sizeof(inotify_event) + NAME_MAX + 1)> buffer;
        bool isChanged = false;
        for (int reads = 0; reads < maxReads; ++reads) {
            // NOLINTNEXTLINE(clang-analyzer-unix.BlockInCriticalSection): it never waits, and a weak_ptr's lock is none
            const ssize_t size = ::read(events_.native_handle(), buffer.data(), buffer.size());
            if (size <= 0) {
                break; // no more of them; that a signal came between is seen by the next wait
            }
            for (std::size_t place = 0; place + sizeof(inotify_event) <= static_cast<std::size_t>(size);) {
                inotify_event event{};
                std::memcpy(&event, buffer.data() + place, sizeof event);
                const char* const name = event.len > 0 ? buffer.data() + place + sizeof event : "";
                place += sizeof event + event.len;
                isChanged = take(event, name) || isChanged;
            }
        }
        return isChanged;
    }

    bool take(const inotify_event& event, const char* name) {
        if ((event.mask & IN_Q_OVERFLOW) != 0) {
            followFile();
            return true; // some were lost
        }
        if (event.wd == fileWatch_) {
            if ((event.mask & folderGoes) != 0) { // it has gone, perhaps because another one has taken its place
                followFile();
            }
            return true;
        }
        if (event.wd != watch_) {
            return false; // the last words of a watch that was given up
        }
        if ((event.mask & folderGoes) != 0) {
            // a folder that has moved is still there; else it is gone already
            ::inotify_rm_watch(events_.native_handle(), watch_);
            watch_ = -1;
            return true;
        }
        if (file_.empty()) {
            return true;
        }
        if (file_.native() != name) {
            return false;
        }
        followFile();
        return true;
    }

    const Path folder_;
    const Path file_;
    const std::function<void()> onChange_;
    asio::posix::stream_descriptor events_;
    asio::steady_timer look_;
    int watch_ = -1;            ///< -1: the folder is not there
    int fileWatch_ = -1;        ///< -1: no file is watched, or it is not there
    bool isFileMissed_ = false; ///< it is there, and cannot be watched
};

class InotifyWatch final : public FolderWatch {
public:
    InotifyWatch(const Path& folder, const Path& file, const Executor& executor, std::function<void()> onChange)
        : inotify_(std::make_shared<Inotify>(folder, file, executor, std::move(onChange))) {
        inotify_->awaitEvents();
    }

private:
    std::shared_ptr<Inotify> inotify_; ///< a call that is under way holds it too
};

std::unique_ptr<FolderWatch> begin(const Path& folder, const Path& file, const Executor& executor,
                                   std::function<void()> onChange) {
    try {
        return std::make_unique<InotifyWatch>(folder, file, executor, std::move(onChange));
    } catch (const asio::system_error& error) { // no descriptors left for Asio itself
        throw SystemError(error.code());
    }
}

} // namespace

std::unique_ptr<FolderWatch> LinuxFolderWatcher::watch(const Path& folder, Executor executor,
                                                       std::function<void()> onChange) {
    return begin(folder, "", executor, std::move(onChange));
}

std::unique_ptr<FolderWatch> LinuxFolderWatcher::watchFile(const Path& file, Executor executor,
                                                           std::function<void()> onChange) {
    return begin(file.parent_path(), file.filename(), executor, std::move(onChange));
}

} // namespace orlinth::platform
