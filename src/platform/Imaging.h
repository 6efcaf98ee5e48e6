#pragma once

#include "base/Bytes.h"
#include "base/Error.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// Pictures, and QR symbols (ISO/IEC 18004) in them. Plain computations without state; any thread.
namespace orlinth::platform {

/// A picture: rows from the top, four bytes a pixel: red, green, blue, alpha (255 is opaque), in sRGB, no padding.
struct RasterImage {
    static constexpr std::size_t bytesPerPixel = 4;

    std::int64_t width = 0;
    std::int64_t height = 0;
    Bytes pixels; ///< width × height × 4

    bool operator==(const RasterImage&) const = default;
};

/// A picture that cannot be read or written, in the words of whoever found out.
class ImagingError : public Error {
public:
    explicit ImagingError(std::string text) : Error(std::move(text)) {}
};

/// The modules of a symbol, without a quiet zone.
struct QrSymbol {
    std::int64_t size = 0;  ///< modules a side: 21 to 177
    std::vector<bool> dark; ///< size × size, rows from the top

    [[nodiscard]] bool isDark(std::int64_t x, std::int64_t y) const {
        return dark.at(static_cast<std::size_t>(y * size + x));
    }
};

/// The smallest symbol of error-correction level M that holds these bytes in byte mode; nothing where none does (more
/// than 2331 bytes, or no byte at all).
[[nodiscard]] std::optional<QrSymbol> encodeQr(ByteView data);

/// The texts of the QR symbols in a picture, in the order in which the reader finds them; bytes without a declared
/// character set are taken for UTF-8. Transparent pixels count as white.
[[nodiscard]] std::vector<std::string> decodeQr(const RasterImage& image);

/// A PNG file (RFC 2083), RGBA with 8 bits each. @throws ImagingError
[[nodiscard]] Bytes encodePng(const RasterImage& image);

/// Pixels a side, at most, of any picture; a square one then takes 256 MiB.
inline constexpr std::int64_t maxPictureSide = 8192;

/// The picture in a PNG file of any colour type and depth, interlaced or not.
/// @throws ImagingError where it is none, is damaged or cut short, or is wider or higher than maxPictureSide
[[nodiscard]] RasterImage decodePng(ByteView file);

} // namespace orlinth::platform
