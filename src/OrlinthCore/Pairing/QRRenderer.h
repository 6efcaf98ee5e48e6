#pragma once

#include "OrlinthCore/Pairing/PairingPayload.h"
#include "base/CaseError.h"
#include "platform/FileSystem.h"
#include "platform/Imaging.h"

namespace orlinth {

/// Pictures of a pairing payload, and back.
class QRRenderer {
public:
    class Error;

    /// Light modules on each side of the symbol (ISO/IEC 18004 §6.3.8).
    static constexpr std::int64_t quietZoneModules = 4;

    QRRenderer() = delete;

    /// One QR symbol of error-correction level M with its quiet zone, black on white, opaque; one module is `scale`
    /// pixels wide and high, enlarged without smoothing. The picture's side is rounded to whole pixels.
    /// @throws Error::filterFailed where no symbol holds the bytes; renderFailed for a scale that is not positive or
    ///         makes a picture wider than platform::maxPictureSide
    [[nodiscard]] static platform::RasterImage makeImage(ByteView bytes, double scale);
    /// @throws PairingError::encodingFailed; Error likewise
    [[nodiscard]] static platform::RasterImage makeImage(const PairingPayload& payload, double scale);
    /// The same as a PNG file. @throws likewise; Error::pngFailed
    [[nodiscard]] static SecretBytes makePNG(const PairingPayload& payload, double scale);
    /// Replaces the file whole; only its owner may read it, as it holds the secret.
    /// @throws PairingError::encodingFailed; Error::filterFailed, renderFailed, pngFailed
    static void writePNG(platform::FileSystem& files, const PairingPayload& payload, const platform::Path& file,
                         double scale);
    /// The symbol with its quiet zone as lines of text, two rows of modules a line: "█", "▀", "▄" and blanks, dark
    /// modules being ink. Each line ends with a line feed.
    [[nodiscard]] static std::string renderASCII(const PairingPayload& payload);
    /// The text of the first QR symbol that has one. @throws Error::decodeFailed
    [[nodiscard]] static std::string decode(const platform::RasterImage& image);
};

/// What QRRenderer throws.
class QRRenderer::Error : public CaseError<QRRenderer::Error> {
public:
    enum class Case { decodeFailed, filterFailed, renderFailed, pngFailed };

    [[nodiscard]] static Error decodeFailed(const std::string& text);
    [[nodiscard]] static Error filterFailed();
    [[nodiscard]] static Error renderFailed();
    /// `reason` is the system's, for example "Permission denied"; the fixed text does not have it.
    [[nodiscard]] static Error pngFailed(std::string reason);

    /// Of pngFailed; else "".
    [[nodiscard]] const std::string& reason() const noexcept { return reason_; }

private:
    Error(Case which, const std::string& description, std::string reason = {})
        : CaseError(which, description), reason_(std::move(reason)) {}
    std::string reason_;
};

} // namespace orlinth
