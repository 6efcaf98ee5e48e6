#include "FuzzSupport.h"
#include "base/Endian.h"
#include "base/Text.h"
#include "platform/Imaging.h"

#include <array>
#include <string_view>

namespace {

using namespace orlinth;
using fuzzing::demand;
using platform::RasterImage;

constexpr std::size_t signatureBytes = 8;
constexpr std::size_t overheadBytes = 12; // a chunk's length, type and checksum
constexpr std::int64_t largestSide = 256; // so that a run stays quick

std::uint32_t crc32(ByteView bytes) {
    std::uint32_t crc = 0xFFFF'FFFF;
    for (const std::byte byte : bytes) {
        crc ^= std::to_integer<std::uint32_t>(byte);
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0xEDB8'8320 : 0);
        }
    }
    return ~crc;
}

/// Makes the checksums right, or nearly every change would end at the first one.
void repairChecksums(Bytes& file) {
    for (std::size_t at = signatureBytes; at + overheadBytes <= file.size();) {
        const MutableBytes chunk = MutableBytes(file).subspan(at);
        const std::size_t length = loadBigEndian32(chunk.first<4>());
        if (length > chunk.size() - overheadBytes) {
            return;
        }
        storeBigEndian32(chunk.subspan(8 + length).first<4>(), crc32(chunk.subspan(4, 4 + length)));
        at += overheadBytes + length;
    }
}

/// Whether the header tells of a picture that is not worth the time, but is not too large to be read either.
bool isSlow(ByteView file) {
    constexpr std::size_t widthAt = 16;
    if (file.size() < widthAt + 8) {
        return false;
    }
    const std::int64_t width = loadBigEndian32(file.subspan(widthAt).first<4>());
    const std::int64_t height = loadBigEndian32(file.subspan(widthAt + 4).first<4>());
    const bool isRead = width <= platform::maxPictureSide && height <= platform::maxPictureSide;
    return isRead && (width > largestSide || height > largestSide);
}

void readSymbols(const RasterImage& image) {
    for (const std::string& text : platform::decodeQr(image)) {
        demand(isUtf8(text), "texts are UTF-8");
    }
}

void readPng(Bytes file, bool repaired) {
    if (repaired) {
        repairChecksums(file);
    }
    if (isSlow(file)) {
        return;
    }
    try {
        const RasterImage image = platform::decodePng(file);
        demand(image.width > 0 && image.height > 0, "a picture has pixels");
        demand(image.pixels.size() == static_cast<std::size_t>(image.width * image.height * 4), "and all of them");
        demand(platform::decodePng(platform::encodePng(image)) == image, "a picture survives a file");
        readSymbols(image);
    } catch (const platform::ImagingError& error) {
        demand(!error.description().empty(), "an error has a text");
    }
}

/// A bit a pixel; a grey one where the first byte says so, which makes the picture less clean.
void readPixels(fuzzing::Input input) {
    const std::size_t kind = input.byte();
    const auto width = static_cast<std::int64_t>(input.byte() % 200 + 1);
    const ByteView bits = input.rest();
    const auto height = std::min<std::int64_t>(static_cast<std::int64_t>(bits.size()) * 8 / width, largestSide);
    RasterImage image{.width = width, .height = height, .pixels = {}};
    for (std::size_t i = 0; i < static_cast<std::size_t>(width * height); ++i) {
        const bool dark = (std::to_integer<unsigned>(bits[i / 8]) >> (7 - i % 8) & 1U) != 0;
        const auto noise = static_cast<unsigned>(kind == 0 ? 0 : i * kind % 60);
        const auto shade = static_cast<std::byte>(dark ? noise : 255 - noise);
        image.pixels.insert(image.pixels.end(), {shade, shade, shade, std::byte{255}});
    }
    readSymbols(image);
}

} // namespace

/// A picture that somebody gives for that of a code. The first byte says what the rest is: a PNG file (0; 1: with its
/// checksums made right) or, from 2 on, plain pixels.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzzing::Input input(data, size);
    const std::size_t kind = input.byte();
    if (kind < 2) {
        readPng(toBytes(input.rest()), kind == 1);
    } else {
        readPixels(input);
    }
    return 0;
}
