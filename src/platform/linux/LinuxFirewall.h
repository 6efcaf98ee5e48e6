#pragma once

#include "platform/Firewall.h"
#include "platform/linux/SessionBus.h"

#include <filesystem>
#include <string_view>

namespace orlinth::platform {

/// Whether a port of firewalld's settings ("28471", "1025-65535") includes this one.
[[nodiscard]] bool includesPort(std::string_view setting, std::uint16_t port) noexcept;

/// Whether a rule in firewalld's own language ("rule family=\"ipv4\" … accept") may let connections in. Those that only
/// drop, reject or count do not, and those that are about ICMP.
[[nodiscard]] bool mayAcceptConnections(std::string_view rule);

/// Whether such a rule may keep connections out or lead them elsewhere: not those that accept, nor those about ICMP.
[[nodiscard]] bool mayRefuseConnections(std::string_view rule);

/// The value that a file of shell settings gives a variable (`ENABLED=yes`), without quotation marks; the last one
/// counts. "" if there is none.
[[nodiscard]] std::string shellSetting(std::string_view text, std::string_view name);

/// Whether the rules of nftables, as their file has them, drop or reject anything.
[[nodiscard]] bool keepsAnythingOut(std::string_view rules);

/// firewalld as it answers on the system's bus (where a zone of their sender, a policy, a rule, or rules of iptables
/// may let connections in, it is not called closed, and where these may keep them out, not open), ufw as its settings
/// say, and nftables by its service and its file. What only root may read, such as the rules that are in force, is not
/// looked at, nor what takes a password to see.
class LinuxFirewall final : public Firewall {
public:
    /// `environment` says where the bus is as if it were the session's: systemBusEnvironment().
    /// `root` is where "etc" is.
    explicit LinuxFirewall(BusEnvironment environment, std::filesystem::path root = "/")
        : environment_(environment), root_(std::move(root)) {}

    [[nodiscard]] Task<FirewallReport> incoming(std::string interface, std::uint16_t port, Executor executor) override;

private:
    [[nodiscard]] FirewallReport byFiles(bool isNftablesActive) const;

    BusEnvironment environment_;
    std::filesystem::path root_;
};

} // namespace orlinth::platform
