#include "platform/linux/CallerProcess.h"

#include "platform/linux/Descriptor.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <fcntl.h>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace orlinth::platform {
namespace {

using detail::Descriptor;

/// A file of /proc, whose length nobody knows before; nothing if it cannot be read, or is longer than any of its kind.
std::optional<std::string> contentOf(int folder, const char* name) {
    const Descriptor file(::openat(folder, name, O_RDONLY | O_CLOEXEC));
    if (!file.isOpen()) {
        return std::nullopt;
    }
    constexpr std::size_t longest = 65536;
    std::string content;
    std::array<char, 4096> piece{};
    for (;;) {
        const auto count = detail::retried([&] { return ::read(file.get(), piece.data(), piece.size()); });
        if (count < 0 || content.size() > longest) {
            return std::nullopt;
        }
        if (count == 0) {
            return content;
        }
        content.append(piece.data(), static_cast<std::size_t>(count));
    }
}

/// Nothing if that cannot be told.
std::optional<bool> hasFlatpakInfo(int process) noexcept {
    const Descriptor root(::openat(process, "root", O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!root.isOpen()) {
        return std::nullopt;
    }
    struct stat status{};
    if (::fstatat(root.get(), ".flatpak-info", &status, AT_SYMLINK_NOFOLLOW) == 0) {
        return true;
    }
    return errno == ENOENT ? std::optional(false) : std::nullopt;
}

} // namespace

bool detail::namesSnap(std::string_view content) noexcept {
    constexpr std::string_view snap = "/snap.";
    return content.find(snap) != std::string_view::npos;
}

Confinement confinementOf(pid_t process) noexcept {
    try {
        const std::string path = "/proc/" + std::to_string(process);
        const Descriptor folder(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (!folder.isOpen()) {
            return Confinement::unknown;
        }
        const std::optional<std::string> groups = contentOf(folder.get(), "cgroup");
        if (groups && detail::namesSnap(*groups)) {
            return Confinement::sandboxed;
        }
        const std::optional<bool> isFlatpak = hasFlatpakInfo(folder.get());
        if (!groups || !isFlatpak) {
            return Confinement::unknown;
        }
        return *isFlatpak ? Confinement::sandboxed : Confinement::none;
    } catch (const std::exception&) {
        return Confinement::unknown; // no memory
    }
}

} // namespace orlinth::platform
