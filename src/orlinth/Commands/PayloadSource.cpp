#include "orlinth/Commands/PayloadSource.h"

#include "OrlinthCore/Pairing/QRRenderer.h"
#include "orlinth/Commands/TextSource.h"
#include "platform/SystemError.h"
#include "platform/WholeFile.h"

namespace orlinth::cli {

namespace {

constexpr std::int64_t largestPayload = 64 << 10;
constexpr std::int64_t largestPicture = 64 << 20;
constexpr std::size_t pieceBytes = 64 << 10;

/// Memory that held a secret and is wiped when it goes, whatever happens meanwhile.
template <typename Memory>
class Wiped {
public:
    explicit Wiped(Memory memory) : memory_(std::move(memory)) {}
    ~Wiped() { wipe(std::as_writable_bytes(std::span(memory_.data(), memory_.size()))); }
    Wiped(const Wiped&) = delete;
    Wiped& operator=(const Wiped&) = delete;
    [[nodiscard]] const Memory& get() const noexcept { return memory_; }

private:
    Memory memory_;
};

/// All of a file, or of a pipe, if it is no larger than that.
Bytes readAtMost(platform::FileSystem& files, const platform::Path& path, std::int64_t largest, const char* what) {
    Bytes content;
    try {
        const std::unique_ptr<platform::File> file = files.open(path, platform::OpenMode::read);
        Bytes piece(pieceBytes);
        while (const std::size_t count = file->read(piece)) {
            content.insert(content.end(), piece.begin(), piece.begin() + static_cast<std::ptrdiff_t>(count));
            if (content.size() > static_cast<std::size_t>(largest)) {
                throw host::HostError(path.string() + " is too large for " + what, "Is it the right file?");
            }
        }
        wipe(piece);
    } catch (const platform::SystemError& error) {
        throw host::HostError(path.string() + ": " + describe(error), "Check the file's name and permissions.");
    }
    return content;
}

platform::RasterImage readPicture(Host& host, const std::string& file) {
    const Wiped content(readAtMost(host.system.files, file, largestPicture, "a picture of a code"));
    try {
        return platform::decodePng(content.get());
    } catch (const platform::ImagingError& error) {
        throw host::HostError(file + ": " + describe(error), "The picture must be a PNG file.");
    }
}

/// The payload itself, or the one in the event that `pair --json` prints.
PairingPayload payloadIn(ByteView text) {
    const auto isEvent = [](const Json& json) { return json.is_object() && json.contains("payload"); };
    try {
        const Json json = parseJson(text);
        if (isEvent(json)) {
            const Wiped payload(compactJson(json.at("payload")));
            return PairingPayload::decode(asBytes(payload.get()));
        }
    } catch (const JsonError&) {
        // decode() says what is wrong
    }
    return PairingPayload::decode(text);
}

} // namespace

PairingPayload payloadFromFile(Host& host, const std::string& file) {
    const bool isInput = file == "-";
    try {
        if (isInput) {
            const Wiped text(textFromStandardInput());
            return payloadIn(asBytes(text.get()));
        }
        const Wiped content(readAtMost(host.system.files, file, largestPayload, "a pairing payload"));
        return payloadIn(content.get());
    } catch (const PairingError& error) {
        throw host::HostError(error.description(), (isInput ? "Standard input" : file) +
                                                       " holds no pairing payload. Give the first line that "
                                                       "`orlinth pair --json` prints on the other computer.");
    }
}

PairingPayload payloadFromPicture(Host& host, const std::string& file) {
    platform::RasterImage picture = readPicture(host, file);
    std::string hint = file + " shows no QR code that can be read. Make a picture of the whole code, with its margin.";
    try {
        const Wiped text(QRRenderer::decode(picture));
        wipe(picture.pixels);
        hint = "The QR code in " + file + " is not one of `orlinth pair`. Make a picture of that one.";
        return PairingPayload::decode(asBytes(text.get()));
    } catch (const QRRenderer::Error& error) {
        throw host::HostError(error.description(), hint);
    } catch (const PairingError& error) {
        throw host::HostError(error.description(), hint);
    }
}

} // namespace orlinth::cli
