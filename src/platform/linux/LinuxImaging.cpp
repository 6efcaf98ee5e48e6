#include "base/Precondition.h"
#include "base/SecretBytes.h"
#include "base/Text.h"
#include "platform/Imaging.h"

#define ZX_USE_UTF8
#include <ReadBarcode.h>
#include <array>
#include <cerrno>
#include <csetjmp>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <png.h>
#include <qrencode.h>
#include <span>

namespace orlinth::platform {
namespace {

// --- QR symbols ---

/// Symbols carry secrets, and the library does not wipe what it frees.
struct QrCodeFreer {
    void operator()(QRcode* code) const noexcept {
        const auto modules = static_cast<std::size_t>(code->width) * static_cast<std::size_t>(code->width);
        wipe(std::as_writable_bytes(std::span(code->data, modules)));
        QRcode_free(code);
    }
};
using QrCodePtr = std::unique_ptr<QRcode, QrCodeFreer>;

/// Whether there are as many pixels as width and height say, and no side is above the limit.
bool isWhole(const RasterImage& image) {
    const auto isSide = [](std::int64_t side) { return side >= 0 && side <= maxPictureSide; };
    return isSide(image.width) && isSide(image.height) &&
           image.pixels.size() == static_cast<std::size_t>(image.width * image.height) * RasterImage::bytesPerPixel;
}

/// One byte a pixel, as seen on white paper: 0 is black.
std::vector<std::uint8_t> brightness(const RasterImage& image) {
    constexpr unsigned opaque = 255;
    std::vector<std::uint8_t> result(static_cast<std::size_t>(image.width * image.height));
    const std::byte* pixel = image.pixels.data();
    for (std::uint8_t& value : result) {
        const auto channel = [pixel](std::size_t i) { return std::to_integer<unsigned>(pixel[i]); };
        const unsigned seen = ZXing::RGBToLum(channel(0), channel(1), channel(2));
        const unsigned alpha = channel(3);
        value = static_cast<std::uint8_t>((seen * alpha + opaque * (opaque - alpha) + opaque / 2) / opaque);
        pixel += RasterImage::bytesPerPixel;
    }
    return result;
}

std::string textOf(const ZXing::Result& result) {
    if (!result.hasECI()) {
        // Without a declaration the reader guesses; what is UTF-8 already needs no guess. Anything else is the
        // symbol's own Kanji mode, which the reader converts, or no text at all.
        std::string bytes(result.bytes().asString());
        if (isUtf8(bytes)) {
            return bytes;
        }
    }
    return toUtf8(result.text());
}

std::vector<std::string> readSymbols(std::span<const std::uint8_t> brightness, int width, int height, bool pure) {
    const ZXing::ImageView view(brightness.data(), width, height, ZXing::ImageFormat::Lum);
    ZXing::DecodeHints hints;
    hints.setFormats(ZXing::BarcodeFormat::QRCode).setCharacterSet("UTF8").setIsPure(pure);
    std::vector<std::string> texts;
    for (const ZXing::Result& result : ZXing::ReadBarcodes(view, hints)) {
        if (result.isValid()) {
            texts.push_back(textOf(result));
        }
    }
    return texts;
}

// --- PNG ---

/// libpng's state while a file is read, and what its callbacks need.
///
/// The library reports an error by longjmp, which must not pass a frame that has something to destroy: so this and the
/// steps below are plain C, attempt() is where a jump ends, and owners of memory live in its callers.
struct PngReading {
    png_structp png = nullptr;
    png_infop info = nullptr;
    const std::byte* next = nullptr;
    std::size_t left = 0;
    std::byte* pixels = nullptr;
    std::array<char, 128> error{};
};

[[noreturn]] void onPngError(png_structp png, png_const_charp message) {
    auto& error = static_cast<PngReading*>(png_get_error_ptr(png))->error;
    std::strncpy(error.data(), message, error.size() - 1);
    png_longjmp(png, 1);
}

void onPngWarning(png_structp /*png*/, png_const_charp /*message*/) {
    // What the library can still make a picture of.
}

void readPngBytes(png_structp png, png_bytep into, std::size_t count) {
    auto& reading = *static_cast<PngReading*>(png_get_io_ptr(png));
    if (count > reading.left) {
        png_error(png, "the PNG file ends early");
    }
    std::memcpy(into, reading.next, count);
    reading.next += count;
    reading.left -= count;
}

/// Everything before the first row.
void readPngHeader(PngReading& reading) {
    // Of the chunks that a picture can do without, none is looked into; their checksums count all the same.
    constexpr int allOfThem = -1;
    png_set_keep_unknown_chunks(reading.png, PNG_HANDLE_CHUNK_NEVER, nullptr, allOfThem);
    png_set_crc_action(reading.png, PNG_CRC_ERROR_QUIT, PNG_CRC_ERROR_QUIT);
    png_set_read_fn(reading.png, &reading, readPngBytes);
    png_read_info(reading.png, reading.info);
}

/// All rows, as RGBA with 8 bits each, and the end of the file.
void readPngRows(PngReading& reading) {
    png_set_expand(reading.png);
    png_set_scale_16(reading.png);
    png_set_gray_to_rgb(reading.png);
    png_set_add_alpha(reading.png, 0xFF, PNG_FILLER_AFTER);
    const int passes = png_set_interlace_handling(reading.png);
    png_read_update_info(reading.png, reading.info);
    const std::size_t height = png_get_image_height(reading.png, reading.info);
    const std::size_t rowBytes = png_get_image_width(reading.png, reading.info) * RasterImage::bytesPerPixel;
    if (png_get_rowbytes(reading.png, reading.info) != rowBytes) {
        png_error(reading.png, "the rows of the PNG file are not what they should be");
    }
    for (int pass = 0; pass < passes; ++pass) {
        for (std::size_t y = 0; y < height; ++y) {
            png_read_row(reading.png, reinterpret_cast<png_bytep>(reading.pixels + y * rowBytes), nullptr);
        }
    }
    png_read_end(reading.png, nullptr);
}

/// Whether the step came to its end; if not, `reading.error` says why.
bool attempt(PngReading& reading, void (*step)(PngReading&)) {
    if (setjmp(png_jmpbuf(reading.png)) != 0) {
        return false;
    }
    step(reading);
    return true;
}

class PngReader {
public:
    explicit PngReader(ByteView file) {
        reading_.next = file.data();
        reading_.left = file.size();
        reading_.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &reading_, onPngError, onPngWarning);
        if (reading_.png != nullptr) {
            reading_.info = png_create_info_struct(reading_.png);
        }
        if (reading_.info == nullptr) {
            png_destroy_read_struct(&reading_.png, nullptr, nullptr);
            throw std::bad_alloc();
        }
    }
    PngReader(const PngReader&) = delete;
    PngReader& operator=(const PngReader&) = delete;
    ~PngReader() { png_destroy_read_struct(&reading_.png, &reading_.info, nullptr); }

    [[nodiscard]] RasterImage read() {
        run(readPngHeader);
        RasterImage image{.width = png_get_image_width(reading_.png, reading_.info),
                          .height = png_get_image_height(reading_.png, reading_.info),
                          .pixels = {}};
        if (image.width > maxPictureSide || image.height > maxPictureSide) {
            throw ImagingError("the picture is " + std::to_string(image.width) + " × " + std::to_string(image.height) +
                               " pixels large; " + std::to_string(maxPictureSide) + " a side are the limit");
        }
        image.pixels.resize(static_cast<std::size_t>(image.width * image.height) * RasterImage::bytesPerPixel);
        reading_.pixels = image.pixels.data();
        run(readPngRows);
        return image;
    }

private:
    void run(void (*step)(PngReading&)) {
        if (!attempt(reading_, step)) {
            throw ImagingError(reading_.error.data());
        }
    }

    PngReading reading_; // never moves: the library keeps its address
};

} // namespace

std::optional<QrSymbol> encodeQr(ByteView data) {
    if (data.empty() || data.size() > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
        return std::nullopt;
    }
    constexpr int smallestVersion = 0;
    const auto* octets = reinterpret_cast<const unsigned char*>(data.data());
    const QrCodePtr code(QRcode_encodeData(static_cast<int>(data.size()), octets, smallestVersion, QR_ECLEVEL_M));
    if (!code) {
        if (errno == ENOMEM) {
            throw std::bad_alloc();
        }
        return std::nullopt;
    }
    constexpr unsigned char darkBit = 1;
    QrSymbol symbol{.size = code->width, .dark = {}};
    const std::span modules(code->data, static_cast<std::size_t>(symbol.size * symbol.size));
    symbol.dark.reserve(modules.size());
    for (const unsigned char module : modules) {
        symbol.dark.push_back((module & darkBit) != 0);
    }
    return symbol;
}

std::vector<std::string> decodeQr(const RasterImage& image) {
    if (!isWhole(image)) {
        preconditionFailed("decodeQr: the picture's size does not fit its pixels");
    }
    if (image.pixels.empty()) {
        return {};
    }
    const std::vector<std::uint8_t> seen = brightness(image);
    const auto width = static_cast<int>(image.width);
    const auto height = static_cast<int>(image.height);
    std::vector<std::string> texts = readSymbols(seen, width, height, false);
    if (texts.empty()) {
        // Modules of one pixel or two are too small for the search, but not for a picture of nothing but the symbol.
        texts = readSymbols(seen, width, height, true);
    }
    return texts;
}

Bytes encodePng(const RasterImage& image) {
    if (!isWhole(image) || image.pixels.empty()) {
        throw ImagingError("not a picture: its size does not fit its pixels");
    }
    // This function of the library's catches its own jumps and returns what went wrong.
    png_image png{};
    png.version = PNG_IMAGE_VERSION;
    png.width = static_cast<png_uint_32>(image.width);
    png.height = static_cast<png_uint_32>(image.height);
    png.format = PNG_FORMAT_RGBA;
    png_alloc_size_t size = PNG_IMAGE_PNG_SIZE_MAX(png);
    Bytes file(size);
    if (png_image_write_to_memory(&png, file.data(), &size, 0, image.pixels.data(), 0, nullptr) == 0) {
        throw ImagingError(png.message);
    }
    file.resize(size);
    return file;
}

RasterImage decodePng(ByteView file) {
    return PngReader(file).read();
}

} // namespace orlinth::platform
