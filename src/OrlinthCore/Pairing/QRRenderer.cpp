#include "OrlinthCore/Pairing/QRRenderer.h"

#include "base/SecretBytes.h"
#include "platform/SystemError.h"
#include "platform/WholeFile.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <utility>

namespace orlinth {
namespace {

using platform::RasterImage;

constexpr std::byte black{0};
constexpr std::byte white{255};
constexpr std::byte opaque{255};

/// Pixels a side of a picture of that many modules a side. @throws QRRenderer::Error::renderFailed
std::int64_t pixelsASide(std::int64_t modules, double scale) {
    const double side = static_cast<double>(modules) * scale;
    // NaN fails the comparison as well.
    if (!(side < static_cast<double>(platform::maxPictureSide) + 0.5)) {
        throw QRRenderer::Error::renderFailed();
    }
    const std::int64_t pixels = std::lround(side);
    if (pixels < 1 || pixels > platform::maxPictureSide) {
        throw QRRenderer::Error::renderFailed();
    }
    return pixels;
}

/// Which module, the quiet zone included, each pixel of a row or a column shows.
std::vector<std::int64_t> modulesUnderPixels(std::int64_t pixels, std::int64_t modules, double scale) {
    std::vector<std::int64_t> result(static_cast<std::size_t>(pixels));
    for (std::size_t i = 0; i < result.size(); ++i) {
        // The side is rounded, so that the last pixel may lie just behind the last module.
        result[i] = std::min(static_cast<std::int64_t>(std::floor(static_cast<double>(i) / scale)), modules - 1);
    }
    return result;
}

bool isDark(const platform::QrSymbol& symbol, std::int64_t x, std::int64_t y) {
    x -= QRRenderer::quietZoneModules;
    y -= QRRenderer::quietZoneModules;
    const auto isInside = [&symbol](std::int64_t i) { return i >= 0 && i < symbol.size; };
    return isInside(x) && isInside(y) && symbol.isDark(x, y);
}

/// A picture of a secret, and what was made of it, does not outlive its use.
template <typename Buffer>
class WipedAtEnd {
public:
    explicit WipedAtEnd(Buffer& buffer) noexcept : buffer_(buffer) {}
    WipedAtEnd(const WipedAtEnd&) = delete;
    WipedAtEnd& operator=(const WipedAtEnd&) = delete;
    ~WipedAtEnd() { wipe(buffer_); }

private:
    Buffer& buffer_;
};

} // namespace

QRRenderer::Error QRRenderer::Error::decodeFailed(const std::string& text) {
    return {Case::decodeFailed, "QR decode failed: " + text};
}

QRRenderer::Error QRRenderer::Error::filterFailed() {
    return {Case::filterFailed, "CIFilter.qrCodeGenerator produced no output"};
}

QRRenderer::Error QRRenderer::Error::renderFailed() {
    return {Case::renderFailed, "CIContext.createCGImage failed"};
}

QRRenderer::Error QRRenderer::Error::pngFailed(std::string reason) {
    return {Case::pngFailed, "CGImageDestination PNG write failed", std::move(reason)};
}

RasterImage QRRenderer::makeImage(ByteView bytes, double scale) {
    const std::optional<platform::QrSymbol> symbol = platform::encodeQr(bytes);
    if (!symbol) {
        throw Error::filterFailed();
    }
    const std::int64_t modules = symbol->size + 2 * quietZoneModules;
    const std::int64_t side = pixelsASide(modules, scale);
    const std::vector<std::int64_t> moduleAt = modulesUnderPixels(side, modules, scale);

    const auto rowBytes = static_cast<std::size_t>(side) * RasterImage::bytesPerPixel;
    RasterImage image{.width = side, .height = side, .pixels = Bytes(rowBytes * moduleAt.size())};
    std::byte* pixel = image.pixels.data();
    for (std::size_t y = 0; y < moduleAt.size(); ++y) {
        if (y > 0 && moduleAt[y] == moduleAt[y - 1]) {
            pixel = std::copy_n(pixel - rowBytes, rowBytes, pixel);
            continue;
        }
        for (const std::int64_t x : moduleAt) {
            const std::byte shade = isDark(*symbol, x, moduleAt[y]) ? black : white;
            pixel = std::ranges::copy(std::array{shade, shade, shade, opaque}, pixel).out;
        }
    }
    return image;
}

RasterImage QRRenderer::makeImage(const PairingPayload& payload, double scale) {
    return makeImage(payload.jsonData().reveal(), scale);
}

SecretBytes QRRenderer::makePNG(const PairingPayload& payload, double scale) {
    RasterImage image = makeImage(payload, scale);
    const WipedAtEnd wipedImage(image.pixels);
    try {
        Bytes png = platform::encodePng(image);
        const WipedAtEnd wipedPng(png);
        return SecretBytes(png);
    } catch (const platform::ImagingError& error) {
        throw Error::pngFailed(error.description());
    }
}

void QRRenderer::writePNG(platform::FileSystem& files, const PairingPayload& payload, const platform::Path& file,
                          double scale) {
    constexpr std::uint32_t forTheOwnerAlone = 0600;
    const SecretBytes png = makePNG(payload, scale);
    try {
        platform::writeWholeFile(files, file, png.reveal(), forTheOwnerAlone);
    } catch (const platform::SystemError& error) {
        throw Error::pngFailed(error.description());
    }
}

std::string QRRenderer::renderASCII(const PairingPayload& payload) {
    constexpr double onePixelAModule = 1.0;
    constexpr std::byte middleGrey{128};
    RasterImage image = makeImage(payload, onePixelAModule);
    const WipedAtEnd wipedImage(image.pixels);
    const auto isInk = [&image](std::int64_t x, std::int64_t y) {
        const auto pixel = static_cast<std::size_t>(y * image.width + x) * RasterImage::bytesPerPixel;
        return y < image.height && image.pixels[pixel] < middleGrey;
    };
    std::string text;
    text.reserve(static_cast<std::size_t>((image.width + 1) * image.height));
    for (std::int64_t y = 0; y < image.height; y += 2) {
        for (std::int64_t x = 0; x < image.width; ++x) {
            const bool top = isInk(x, y);
            const bool bottom = isInk(x, y + 1);
            text += top ? (bottom ? "█" : "▀") : (bottom ? "▄" : " ");
        }
        text += '\n';
    }
    return text;
}

std::string QRRenderer::decode(const RasterImage& image) {
    for (std::string& text : platform::decodeQr(image)) {
        if (!text.empty()) {
            return std::move(text);
        }
    }
    throw Error::decodeFailed("no QR symbol found in image");
}

} // namespace orlinth
