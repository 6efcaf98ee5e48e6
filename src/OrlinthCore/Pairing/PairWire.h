#pragma once

#include "base/Bytes.h"
#include "base/CaseError.h"

namespace orlinth {

/// The one frame of a pairing connection: 4-byte big-endian length, then a sealed introduction. Plain functions.
class PairWire {
public:
    class Error;

    static constexpr std::size_t lengthPrefixBytes = 4;
    /// Largest payload, inclusive.
    static constexpr std::size_t maxFrameBytes = 65536;

    PairWire() = delete;

    /// Prefix and payload. @throws Error::frameTooLarge
    [[nodiscard]] static Bytes encodeFrame(ByteView payload);
    /// The payload's length, 0 included; looks at the first four bytes only.
    /// @throws Error::frameTooShort where there are fewer; frameTooLarge
    [[nodiscard]] static std::size_t parseLengthPrefix(ByteView bytes);
};

/// What PairWire throws.
class PairWire::Error : public CaseError<PairWire::Error> {
public:
    enum class Case { frameTooLarge, frameTooShort };

    [[nodiscard]] static Error frameTooLarge(std::int64_t length);
    [[nodiscard]] static Error frameTooShort();

    /// Of frameTooLarge; else 0.
    [[nodiscard]] std::int64_t length() const noexcept { return length_; }

private:
    Error(Case which, const std::string& description, std::int64_t length = 0)
        : CaseError(which, description), length_(length) {}
    std::int64_t length_;
};

} // namespace orlinth
