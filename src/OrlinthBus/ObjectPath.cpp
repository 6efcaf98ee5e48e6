#include "OrlinthBus/ObjectPath.h"

#include "base/Hex.h"
#include "platform/Crypto.h"

#include <algorithm>
#include <optional>
#include <span>

namespace orlinth::bus {

namespace {

constexpr std::size_t digestBytesShown = 8;

std::string digitsOf(const PeerKey& peerKey) {
    const std::optional<platform::PublicKey> key = platform::PublicKey::fromBase64(peerKey.text());
    // a record may have been written by hand, so that its key need not be one
    const platform::Sha256Digest digest =
        key ? platform::sha256({key->raw()}) : platform::sha256({asBytes(peerKey.text())});
    return hexEncode(std::span(digest).first(digestBytesShown));
}

} // namespace

std::string pathOfPhone(const PeerKey& peerKey) {
    return std::string(phonesPath) + "/" + digitsOf(peerKey);
}

std::string pathOfBatch(const BatchId& batch, const PeerKey& peerKey) {
    std::string id = batch.text();
    std::ranges::replace(id, '-', '_');
    return std::string(batchesPath) + "/" + id + "_" + digitsOf(peerKey);
}

std::string pathOfTransfer(host::TransferNumber number) {
    return std::string(transfersPath) + "/" + std::to_string(static_cast<std::uint64_t>(number));
}

} // namespace orlinth::bus
