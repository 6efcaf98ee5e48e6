#include "OrlinthHost/Phones/NetworkIdentity.h"

#include "base/Bytes.h"
#include "base/Hex.h"
#include "base/Precondition.h"
#include "platform/Crypto.h"

#include <climits>

#include <algorithm>

namespace orlinth::host {
namespace {

constexpr char separator = ':';
constexpr std::size_t digitsWithSeparator = 3;
constexpr std::size_t textLength = MacAddress::size * digitsWithSeparator - 1;

constexpr MacAddress::Raw zero{};
constexpr MacAddress::Raw hiddenByAndroid{0x02, 0, 0, 0, 0, 0};
constexpr std::uint8_t groupBit = 0x01; // of the first byte: several devices, or all

platform::Ipv4Address firstOf(platform::Ipv4Address address, int prefixBits) {
    for (std::uint8_t& byte : address) {
        const int kept = std::clamp(prefixBits, 0, CHAR_BIT);
        byte = static_cast<std::uint8_t>(byte & (0xFF << (CHAR_BIT - kept)));
        prefixBits -= kept;
    }
    return address;
}

} // namespace

std::optional<MacAddress> MacAddress::fromRaw(const Raw& raw) noexcept {
    const bool isOneDevice = (raw.front() & groupBit) == 0 && raw != zero && raw != hiddenByAndroid;
    return isOneDevice ? std::optional(MacAddress(raw)) : std::nullopt;
}

std::optional<MacAddress> MacAddress::parse(std::string_view text) noexcept {
    if (text.size() != textLength) {
        return std::nullopt;
    }
    Raw raw{};
    for (std::size_t i = 0; i < size; ++i) {
        const std::size_t at = i * digitsWithSeparator;
        const std::optional<unsigned> high = hexDigit(text[at]);
        const std::optional<unsigned> low = hexDigit(text[at + 1]);
        const bool isSeparated = i + 1 == size || text[at + 2] == separator;
        if (!high || !low || !isSeparated) {
            return std::nullopt;
        }
        raw.at(i) = static_cast<std::uint8_t>(*high << 4U | *low);
    }
    return fromRaw(raw);
}

std::string MacAddress::text() const {
    std::string text;
    for (const std::uint8_t byte : raw_) {
        const std::array one{std::byte{byte}};
        text += (text.empty() ? "" : std::string(1, separator)) + hexEncode(one);
    }
    return text;
}

NetworkId NetworkId::of(const platform::Ipv4Address& address, int prefixBits, const MacAddress& gateway) {
    constexpr int addressBits = 32;
    if (prefixBits < 0 || prefixBits > addressBits) {
        preconditionFailed("an IPv4 prefix is outside 0 to 32 bits");
    }
    const std::string network =
        platform::dottedDecimal(firstOf(address, prefixBits)) + "/" + std::to_string(prefixBits) + " " + gateway.text();
    const platform::Sha256Digest digest = platform::sha256({asBytes(network)});
    return NetworkId(hexEncode(ByteView(digest).first(textBytes / 2)));
}

std::optional<NetworkId> NetworkId::parse(std::string_view text) {
    const auto isDigit = [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); };
    const bool isOne = text.size() == textBytes && std::ranges::all_of(text, isDigit);
    return isOne ? std::optional(NetworkId(std::string(text))) : std::nullopt;
}

} // namespace orlinth::host
