#pragma once

#include "platform/NetworkInterfaces.h"

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace orlinth::host {

/// The hardware address of one device in a network of the Ethernet kind.
///
/// A plain value. Only what can be one device's is one: not a group's, not zero, and not 02:00:00:00:00:00, which
/// Android gives to every app that asks for the phone's own.
class MacAddress {
public:
    static constexpr std::size_t size = 6;
    using Raw = std::array<std::uint8_t, size>;

    /// Nothing if it can be no single device's.
    [[nodiscard]] static std::optional<MacAddress> fromRaw(const Raw& raw) noexcept;
    /// Of six pairs of hexadecimal digits in any letter case with ":" between them.
    [[nodiscard]] static std::optional<MacAddress> parse(std::string_view text) noexcept;

    [[nodiscard]] const Raw& raw() const noexcept { return raw_; }
    /// "3e:5a:b4:01:02:03"
    [[nodiscard]] std::string text() const;

    auto operator<=>(const MacAddress&) const = default;

private:
    explicit MacAddress(const Raw& raw) noexcept : raw_(raw) {}
    Raw raw_{};
};

/// Which network this computer is in, told by what stays the same there: the subnet and the router's hardware address.
/// Two homes that both use 192.168.1.0/24 differ, and the same home is itself again after a change of interface.
///
/// A plain value: 16 digits of a hash, so that the file that has it does not name a router.
class NetworkId {
public:
    static constexpr std::size_t textBytes = 16;

    /// The first 8 bytes of the SHA-256 of "192.168.7.0/24 3e:5a:b4:01:02:03", as lower-case hexadecimal digits.
    /// What is behind the prefix in `address` does not count. `prefixBits` is 0 to 32.
    [[nodiscard]] static NetworkId of(const platform::Ipv4Address& address, int prefixBits, const MacAddress& gateway);
    /// Of such a text.
    [[nodiscard]] static std::optional<NetworkId> parse(std::string_view text);

    [[nodiscard]] const std::string& text() const noexcept { return text_; }

    auto operator<=>(const NetworkId&) const = default;

private:
    explicit NetworkId(std::string text) noexcept : text_(std::move(text)) {}
    std::string text_;
};

} // namespace orlinth::host
