#pragma once

#include "OrlinthCore/Pairing/DeviceInfo.h"
#include "base/CaseError.h"
#include "base/SecretBytes.h"
#include "platform/Crypto.h"

#include <cstdint>
#include <string>

namespace orlinth {

class PairingError : public CaseError<PairingError> {
public:
    enum class Case { randomBytesFailed, encodingFailed, decodingFailed };

    [[nodiscard]] static PairingError randomBytesFailed(std::int32_t status);
    [[nodiscard]] static PairingError encodingFailed(const std::string& text);
    [[nodiscard]] static PairingError decodingFailed(const std::string& text);

    /// Of randomBytesFailed; else 0.
    [[nodiscard]] std::int32_t status() const noexcept { return status_; }

private:
    PairingError(Case which, const std::string& prefix, const std::string& detail) : CaseError(which, prefix, detail) {}
    explicit PairingError(std::int32_t status)
        : CaseError(Case::randomBytesFailed, "SecRandomCopyBytes failed (" + std::to_string(status) + ")"),
          status_(status) {}
    std::int32_t status_ = 0;
};

/// What the QR code carries: this computer's key, where it waits, and a fresh secret for the introduction.
/// "Peer" is seen from the phone: the peer of the phone is this computer. The JSON keys are the field names.
///
/// The secret's text is wiped with the payload, and with every copy of it.
struct PairingPayload {
    static constexpr std::int64_t currentVersion = 1;
    static constexpr std::size_t secretBytes = 32;

    std::int64_t version = currentVersion;
    std::string peer_pubkey;    ///< 32 bytes, standard Base64
    std::string peer_ip;        ///< IPv4, dotted decimal
    std::int64_t peer_port = 0; ///< TCP port on which the introduction is awaited
    std::string peer_subnet;    ///< CIDR
    std::string peer_hostname;
    std::string peer_mac;
    std::string pairing_secret; ///< 32 bytes, standard Base64

    PairingPayload() = default;
    PairingPayload(const PairingPayload&) = default;
    PairingPayload& operator=(const PairingPayload& other);
    PairingPayload(PairingPayload&& other) noexcept;
    PairingPayload& operator=(PairingPayload&& other) noexcept;
    ~PairingPayload();

    /// A payload with a secret of its own. @throws PairingError::randomBytesFailed
    [[nodiscard]] static PairingPayload mint(const platform::PublicKey& publicKey, const DeviceInfo& device,
                                             std::uint16_t port);
    /// Bytes from the system's cryptographic generator, none for 0; a negative count ends the process.
    /// @throws PairingError::randomBytesFailed
    [[nodiscard]] static SecretBytes generatePairingSecret(std::int64_t byteCount);

    /// The secret's bytes. @throws PairingError::decodingFailed where the text is not the Base64 of 32 bytes
    [[nodiscard]] SecretBytes secret() const;

    /// One JSON object: keys sorted, no white space, "/" not escaped. Holds the secret: for the code alone.
    /// @throws PairingError::encodingFailed where a text is not UTF-8
    [[nodiscard]] SecretBytes jsonData() const;
    /// The same as text; wiping it is the caller's business.
    [[nodiscard]] std::string jsonString() const;
    /// All eight keys are required; others are ignored. The values are not looked into.
    /// @throws PairingError::decodingFailed
    [[nodiscard]] static PairingPayload decode(ByteView jsonData);

    /// Field by field.
    [[nodiscard]] bool operator==(const PairingPayload&) const = default;
};

} // namespace orlinth
