#pragma once

#include "platform/Machine.h"

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orlinth::platform {

/// A socket of /proc/net/tcp or tcp6 that listens (proc(5)).
struct ListeningSocket {
    std::uint16_t port = 0;
    bool isEverywhere = false; ///< not at one address only
    std::uint32_t user = 0;
    std::uint64_t inode = 0;

    friend bool operator==(const ListeningSocket&, const ListeningSocket&) = default;
};

/// Those of the table's text; lines that make no sense are left out.
[[nodiscard]] std::vector<ListeningSocket> listeningSockets(std::string_view table);

/// This machine, as /proc and adjtimex(2) have it.
class LinuxMachine final : public Machine {
public:
    /// `proc` is where that file system is.
    explicit LinuxMachine(std::filesystem::path proc = "/proc") : proc_(std::move(proc)) {}

    [[nodiscard]] std::optional<PortHolder> holderOf(std::uint16_t port) const override;
    [[nodiscard]] std::optional<bool> isClockSynchronised() const override;
    [[nodiscard]] std::optional<EpochMilliseconds> startedAt() const override;

private:
    [[nodiscard]] std::string programWith(std::uint64_t inode) const;

    std::filesystem::path proc_;
};

} // namespace orlinth::platform
