#pragma once

#include <string>
#include <string_view>

namespace orlinth {

/// The four digits that pair mode shows, by which a phone on the same network picks the right computer.
struct PairCode {
    /// DNS-SD type of pair mode.
    static constexpr const char* serviceType = "_orlinth-pair._tcp.";

    PairCode() = delete;

    /// "0000" to "9999", each as likely as any other. @throws platform::CryptoError
    [[nodiscard]] static std::string generate();
    /// The first 16 characters of the lower-case hexadecimal SHA-256 of "orlinth-pair:" + code + ":" + pubkey;
    /// `pubkey` is the Base64 text of the computer's key.
    [[nodiscard]] static std::string hash(std::string_view code, std::string_view pubkey);
};

} // namespace orlinth
