#include "OrlinthCore/Pairing/PairWire.h"

#include "base/Endian.h"

#include <array>

namespace orlinth {

PairWire::Error PairWire::Error::frameTooLarge(std::int64_t length) {
    return {Case::frameTooLarge,
            "pair frame size " + std::to_string(length) + " exceeds " + std::to_string(maxFrameBytes), length};
}

PairWire::Error PairWire::Error::frameTooShort() {
    return {Case::frameTooShort, "pair frame shorter than length prefix"};
}

Bytes PairWire::encodeFrame(ByteView payload) {
    if (payload.size() > maxFrameBytes) {
        throw Error::frameTooLarge(static_cast<std::int64_t>(payload.size()));
    }
    std::array<std::byte, lengthPrefixBytes> prefix{};
    storeBigEndian32(prefix, static_cast<std::uint32_t>(payload.size()));
    return concatenate({prefix, payload});
}

std::size_t PairWire::parseLengthPrefix(ByteView bytes) {
    if (bytes.size() < lengthPrefixBytes) {
        throw Error::frameTooShort();
    }
    const std::uint32_t length = loadBigEndian32(bytes.first<lengthPrefixBytes>());
    if (length > maxFrameBytes) {
        throw Error::frameTooLarge(length);
    }
    return length;
}

} // namespace orlinth
