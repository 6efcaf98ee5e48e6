#include "platform/Imaging.h"

#include "base/Endian.h"
#include "base/Text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>
#include <memory>
#include <ostream>
#include <qrencode.h>

namespace orlinth::platform {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

// --- PNG files made by hand (RFC 2083), so that no reader is tested by its own writer alone ---

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

void append(Bytes& to, ByteView bytes) {
    to.insert(to.end(), bytes.begin(), bytes.end());
}

void append32(Bytes& to, std::uint32_t number) {
    std::array<std::byte, 4> bytes{};
    storeBigEndian32(bytes, number);
    append(to, bytes);
}

Bytes chunk(std::string_view type, ByteView content) {
    Bytes named = toBytes(type);
    append(named, content);
    Bytes result;
    append32(result, static_cast<std::uint32_t>(content.size()));
    append(result, named);
    append32(result, crc32(named));
    return result;
}

/// A zlib stream (RFC 1950) of blocks that are not compressed.
Bytes zlibStored(ByteView data) {
    constexpr std::size_t largestBlock = 65535;
    Bytes result{std::byte{0x78}, std::byte{0x01}};
    std::uint32_t a = 1;
    std::uint32_t b = 0;
    for (const std::byte byte : data) {
        a = (a + std::to_integer<std::uint32_t>(byte)) % 65521;
        b = (b + a) % 65521;
    }
    do {
        const ByteView block = data.first(std::min(data.size(), largestBlock));
        data = data.subspan(block.size());
        const auto low = static_cast<std::byte>(block.size() & 0xFF);
        const auto high = static_cast<std::byte>(block.size() >> 8);
        append(result, Bytes{std::byte(data.empty()), low, high, ~low, ~high});
        append(result, block);
    } while (!data.empty());
    append32(result, b << 16 | a);
    return result;
}

struct Kind {
    unsigned colourType;
    unsigned depth;
    bool interlaced;

    [[nodiscard]] std::size_t channels() const {
        constexpr std::array<std::size_t, 7> counts{1, 0, 3, 1, 2, 0, 4};
        return counts.at(colourType);
    }
    [[nodiscard]] unsigned largest() const { return (1U << depth) - 1; }
};

void PrintTo(const Kind& kind, std::ostream* out) {
    *out << "colour type " << kind.colourType << ", depth " << kind.depth << (kind.interlaced ? ", interlaced" : "");
}

/// What a pixel has in the file; of a depth of 16 only values that 8 bits can say, which are multiples of 257.
unsigned sample(const Kind& kind, std::int64_t x, std::int64_t y, std::size_t channel) {
    const auto mixed = static_cast<unsigned>(x * 37 + y * 101) + static_cast<unsigned>(channel) * 59;
    return kind.depth == 16 ? (mixed & 0xFF) * 257 : mixed & kind.largest();
}

std::array<std::byte, 3> paletteEntry(unsigned index) {
    return {std::byte(index * 3 & 0xFF), std::byte(255 - index), std::byte(index * 7 & 0xFF)};
}

/// The rows of a picture that takes each `stepX`th pixel from `firstX` on, and so on: one pass of Adam7, or all.
Bytes rows(const Kind& kind, std::int64_t width, std::int64_t height, std::int64_t firstX, std::int64_t firstY,
           std::int64_t stepX, std::int64_t stepY) {
    Bytes result;
    for (std::int64_t y = firstY; y < height && firstX < width; y += stepY) {
        result.push_back(std::byte{0}); // no filter
        unsigned bits = 0;
        unsigned count = 0;
        for (std::int64_t x = firstX; x < width; x += stepX) {
            for (std::size_t channel = 0; channel < kind.channels(); ++channel) {
                bits = bits << kind.depth | sample(kind, x, y, channel);
                for (count += kind.depth; count >= 8; count -= 8) {
                    result.push_back(static_cast<std::byte>(bits >> (count - 8) & 0xFF));
                }
            }
        }
        if (count > 0) {
            result.push_back(static_cast<std::byte>(bits << (8 - count) & 0xFF));
        }
    }
    return result;
}

Bytes header(std::uint32_t width, std::uint32_t height, const Kind& kind) {
    Bytes ihdr;
    append32(ihdr, width);
    append32(ihdr, height);
    append(ihdr, Bytes{std::byte(kind.depth), std::byte(kind.colourType), std::byte{0}, std::byte{0},
                       std::byte(kind.interlaced)});
    constexpr std::array signature{0x89, 0x50, 0x4E, 0x47, 0x0D, 0x0A, 0x1A, 0x0A};
    Bytes file;
    for (const int byte : signature) {
        file.push_back(static_cast<std::byte>(byte));
    }
    append(file, chunk("IHDR", ihdr));
    return file;
}

Bytes pngFile(const Kind& kind, std::int64_t width, std::int64_t height, ByteView extraChunks = {}) {
    Bytes file = header(static_cast<std::uint32_t>(width), static_cast<std::uint32_t>(height), kind);
    if (kind.colourType == 3) {
        Bytes palette;
        for (unsigned i = 0; i <= kind.largest(); ++i) {
            append(palette, paletteEntry(i));
        }
        append(file, chunk("PLTE", palette));
    }
    append(file, extraChunks);
    Bytes data;
    if (kind.interlaced) {
        constexpr std::array<std::array<std::int64_t, 4>, 7> passes{
            {{0, 0, 8, 8}, {4, 0, 8, 8}, {0, 4, 4, 8}, {2, 0, 4, 4}, {0, 2, 2, 4}, {1, 0, 2, 2}, {0, 1, 1, 2}}};
        for (const auto& [firstX, firstY, stepX, stepY] : passes) {
            append(data, rows(kind, width, height, firstX, firstY, stepX, stepY));
        }
    } else {
        data = rows(kind, width, height, 0, 0, 1, 1);
    }
    append(file, chunk("IDAT", zlibStored(data)));
    append(file, chunk("IEND", {}));
    return file;
}

std::array<std::byte, 4> expectedPixel(const Kind& kind, std::int64_t x, std::int64_t y) {
    const auto eightBits = [&](std::size_t channel) {
        return static_cast<std::byte>(sample(kind, x, y, channel) * 255 / kind.largest());
    };
    constexpr std::byte opaque{255};
    switch (kind.colourType) {
    case 0:
        return {eightBits(0), eightBits(0), eightBits(0), opaque};
    case 2:
        return {eightBits(0), eightBits(1), eightBits(2), opaque};
    case 3: {
        const auto [red, green, blue] = paletteEntry(sample(kind, x, y, 0));
        return {red, green, blue, opaque};
    }
    case 4:
        return {eightBits(0), eightBits(0), eightBits(0), eightBits(1)};
    default:
        return {eightBits(0), eightBits(1), eightBits(2), eightBits(3)};
    }
}

RasterImage expectedPicture(const Kind& kind, std::int64_t width, std::int64_t height) {
    RasterImage image{.width = width, .height = height, .pixels = {}};
    for (std::int64_t y = 0; y < height; ++y) {
        for (std::int64_t x = 0; x < width; ++x) {
            append(image.pixels, expectedPixel(kind, x, y));
        }
    }
    return image;
}

constexpr Kind trueColourWithAlpha{6, 8, false};

std::string failureOf(ByteView file) {
    try {
        const RasterImage image = decodePng(file);
        return "none: a picture of " + std::to_string(image.width) + " x " + std::to_string(image.height);
    } catch (const ImagingError& error) {
        return error.description();
    }
}

class PngOfEachKind : public testing::TestWithParam<Kind> {};

TEST_P(PngOfEachKind, IsReadPixelByPixel) {
    const std::pair<std::int64_t, std::int64_t> sizes[] = {{1, 1}, {2, 3}, {13, 11}, {64, 5}};
    for (const auto& [width, height] : sizes) {
        EXPECT_EQ(decodePng(pngFile(GetParam(), width, height)), expectedPicture(GetParam(), width, height))
            << width << " x " << height;
    }
}

std::vector<Kind> allKinds() {
    const std::pair<unsigned, std::vector<unsigned>> depths[] = {
        {0, {1, 2, 4, 8, 16}}, {2, {8, 16}}, {3, {1, 2, 4, 8}}, {4, {8, 16}}, {6, {8, 16}},
    };
    std::vector<Kind> kinds;
    for (const auto& [colourType, ofType] : depths) {
        for (const unsigned depth : ofType) {
            kinds.push_back({colourType, depth, false});
            kinds.push_back({colourType, depth, true});
        }
    }
    return kinds;
}

INSTANTIATE_TEST_SUITE_P(Imaging, PngOfEachKind, testing::ValuesIn(allKinds()), [](const auto& instance) {
    const Kind& kind = instance.param;
    return "Type" + std::to_string(kind.colourType) + "Depth" + std::to_string(kind.depth) +
           (kind.interlaced ? "Interlaced" : "");
});

TEST(Imaging, ReadsATransparentColourOfAPng) {
    constexpr Kind grey{0, 8, false};
    const unsigned transparent = sample(grey, 3, 2, 0);
    const Bytes trns = chunk("tRNS", Bytes{std::byte{0}, static_cast<std::byte>(transparent)});
    const RasterImage image = decodePng(pngFile(grey, 5, 4, trns));
    RasterImage expected = expectedPicture(grey, 5, 4);
    for (std::size_t i = 0; i < expected.pixels.size(); i += RasterImage::bytesPerPixel) {
        if (std::to_integer<unsigned>(expected.pixels[i]) == transparent) {
            expected.pixels[i + 3] = std::byte{0};
        }
    }
    EXPECT_EQ(image, expected);
}

TEST(Imaging, ReadsNoPngWithADamagedTransparentColour) {
    Bytes trns = chunk("tRNS", Bytes{std::byte{0}, std::byte{7}});
    ASSERT_NO_THROW((void)decodePng(pngFile({0, 8, false}, 5, 4, trns)));
    trns.back() ^= std::byte{1};
    EXPECT_EQ(failureOf(pngFile({0, 8, false}, 5, 4, trns)), "tRNS: CRC error");
}

TEST(Imaging, WritesAPngThatReadsAsTheSamePicture) {
    const std::pair<std::int64_t, std::int64_t> sizes[] = {{1, 1}, {7, 300}, {300, 7}, {maxPictureSide, 1}};
    for (const auto& [width, height] : sizes) {
        const RasterImage image = expectedPicture(trueColourWithAlpha, width, height);
        EXPECT_EQ(decodePng(encodePng(image)), image) << width << " x " << height;
    }
}

TEST(Imaging, WritesRgbaWithEightBits) {
    const Bytes file = encodePng(expectedPicture(trueColourWithAlpha, 3, 2));
    const Bytes start = header(3, 2, trueColourWithAlpha);
    ASSERT_GE(file.size(), start.size());
    EXPECT_EQ(Bytes(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(start.size())), start);
}

TEST(Imaging, KeepsTheColourOfTransparentPixels) {
    const RasterImage image{
        .width = 1, .height = 1, .pixels = Bytes{std::byte{9}, std::byte{8}, std::byte{7}, std::byte{0}}};
    EXPECT_EQ(decodePng(encodePng(image)), image);
}

TEST(Imaging, RefusesToWriteWhatIsNoPicture) {
    EXPECT_THROW((void)encodePng({}), ImagingError);
    EXPECT_THROW((void)encodePng({.width = 2, .height = 2, .pixels = Bytes(15)}), ImagingError);
    EXPECT_THROW((void)encodePng({.width = 2, .height = 2, .pixels = Bytes(17)}), ImagingError);
    EXPECT_THROW((void)encodePng({.width = -2, .height = -2, .pixels = Bytes(16)}), ImagingError);
    EXPECT_THROW((void)encodePng({.width = 0, .height = 4, .pixels = {}}), ImagingError);
    EXPECT_THROW((void)encodePng({.width = maxPictureSide + 1,
                                  .height = 1,
                                  .pixels = Bytes(static_cast<std::size_t>(maxPictureSide + 1) * 4)}),
                 ImagingError);
}

TEST(Imaging, SaysInTheLibrarysWordsWhyAPngCannotBeRead) {
    EXPECT_EQ(failureOf(asBytes("GIF89a, and then more than a few bytes")), "Not a PNG file");
    Bytes damaged = pngFile(trueColourWithAlpha, 4, 4);
    damaged[damaged.size() - 13] ^= std::byte{1};
    EXPECT_EQ(failureOf(damaged), "IDAT: CRC error");
    EXPECT_NE(failureOf({}), "");
}

TEST(Imaging, ReadsNoPngThatIsCutShort) {
    for (const Bytes& file : {pngFile(trueColourWithAlpha, 5, 4), pngFile({3, 2, true}, 9, 9),
                              encodePng(expectedPicture(trueColourWithAlpha, 5, 4))}) {
        ASSERT_NO_THROW((void)decodePng(file));
        for (std::size_t size = 0; size < file.size(); ++size) {
            EXPECT_THROW((void)decodePng(ByteView(file).first(size)), ImagingError) << size << " of " << file.size();
        }
    }
}

TEST(Imaging, ADamagedPngIsAnErrorOrTheSamePictureAndPrintsNothing) {
    const Bytes file = encodePng(expectedPicture(trueColourWithAlpha, 5, 4));
    const RasterImage picture = decodePng(file);
    std::size_t errors = 0;
    testing::internal::CaptureStderr();
    for (std::size_t i = 0; i < file.size() * 8; ++i) {
        Bytes damaged = file;
        damaged[i / 8] ^= std::byte(1U << (i % 8));
        try {
            EXPECT_EQ(decodePng(damaged), picture) << "bit " << i;
        } catch (const ImagingError&) {
            ++errors;
        }
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_GT(errors, file.size() * 4);
}

TEST(Imaging, RefusesAPngThatIsTooWideOrTooHighByItsHeaderAlone) {
    const auto tooLarge = [](std::uint32_t width, std::uint32_t height) {
        Bytes file = header(width, height, trueColourWithAlpha);
        append(file, chunk("IDAT", {}));
        return failureOf(file);
    };
    EXPECT_THAT(tooLarge(8193, 1), HasSubstr("8192"));
    EXPECT_THAT(tooLarge(1, 8193), HasSubstr("8192"));
    EXPECT_THAT(tooLarge(900'000, 900'000), HasSubstr("8192"));
    EXPECT_THAT(tooLarge(0x7FFF'FFFF, 0x7FFF'FFFF), Not(HasSubstr("none:")));
    EXPECT_THAT(tooLarge(0, 5), Not(HasSubstr("none:")));
    constexpr Kind oneBit{0, 1, false};
    EXPECT_EQ(decodePng(pngFile(oneBit, maxPictureSide, 1)), expectedPicture(oneBit, maxPictureSide, 1));
    EXPECT_EQ(decodePng(pngFile(oneBit, 1, maxPictureSide)), expectedPicture(oneBit, 1, maxPictureSide));
}

// --- QR symbols ---

/// Black on white, `scale` pixels a module, four modules of white around it.
RasterImage picture(const QrSymbol& symbol, std::int64_t scale, std::byte background = std::byte{255}) {
    constexpr std::int64_t quiet = 4;
    const std::int64_t side = (symbol.size + 2 * quiet) * scale;
    RasterImage image{.width = side, .height = side, .pixels = {}};
    for (std::int64_t i = 0; i < side * side; ++i) {
        const std::int64_t x = i % side / scale - quiet;
        const std::int64_t y = i / side / scale - quiet;
        const bool inside = x >= 0 && y >= 0 && x < symbol.size && y < symbol.size;
        const std::byte shade = inside && symbol.isDark(x, y) ? std::byte{0} : background;
        append(image.pixels, std::array{shade, shade, shade, std::byte{255}});
    }
    return image;
}

RasterImage blank(std::int64_t width, std::int64_t height) {
    return {.width = width,
            .height = height,
            .pixels = Bytes(static_cast<std::size_t>(width * height * 4), std::byte{255})};
}

QrSymbol encoded(std::string_view text) {
    return encodeQr(asBytes(text)).value();
}

TEST(Imaging, EncodesTheSmallestSymbolThatHoldsTheBytes) {
    // ISO/IEC 18004, table 7: bytes that versions 1, 2, 39 and 40 hold at level M.
    EXPECT_EQ(encoded("x").size, 21);
    EXPECT_EQ(encoded(std::string(14, 'x')).size, 21);
    EXPECT_EQ(encoded(std::string(15, 'x')).size, 25);
    EXPECT_EQ(encoded(std::string(26, 'x')).size, 25);
    EXPECT_EQ(encoded(std::string(27, 'x')).size, 29);
    EXPECT_EQ(encoded(std::string(2213, 'x')).size, 173);
    EXPECT_EQ(encoded(std::string(2214, 'x')).size, 177);
    EXPECT_EQ(encoded(std::string(2331, 'x')).size, 177);
}

TEST(Imaging, EncodesNothingWhereNoSymbolHoldsTheBytes) {
    EXPECT_EQ(encodeQr({}), std::nullopt);
    EXPECT_EQ(encodeQr(Bytes(2332)), std::nullopt);
    EXPECT_EQ(encodeQr(Bytes(1'000'000)), std::nullopt);
}

TEST(Imaging, EncodesDigitsAsBytesToo) {
    EXPECT_EQ(encoded(std::string(15, '1')).size, 25);
    EXPECT_EQ(encodeQr(asBytes(std::string(2332, '1'))), std::nullopt);
}

TEST(Imaging, EncodesAtErrorCorrectionLevelM) {
    // The level is the two highest bits of the format information, 00 for M, masked with 10 (ISO/IEC 18004 §7.9).
    for (const std::string_view text : {"a", "another text, longer than the first", "\xFF\xFE"}) {
        const QrSymbol symbol = encoded(text);
        EXPECT_TRUE(symbol.isDark(0, 8)) << text;
        EXPECT_FALSE(symbol.isDark(1, 8)) << text;
    }
}

TEST(Imaging, TheSymbolHasItsFinderPatternsAndNoQuietZone) {
    const QrSymbol symbol = encoded("hello");
    ASSERT_EQ(symbol.dark.size(), 21U * 21U);
    for (const auto& [left, top] : {std::pair{0, 0}, {14, 0}, {0, 14}}) {
        for (int i = 0; i < 49; ++i) {
            const int x = i % 7;
            const int y = i / 7;
            const bool ring = x == 0 || y == 0 || x == 6 || y == 6;
            const bool middle = x >= 2 && x <= 4 && y >= 2 && y <= 4;
            EXPECT_EQ(symbol.isDark(left + x, top + y), ring || middle) << x << " " << y;
        }
    }
}

TEST(Imaging, ReadsUtf8BackByteForByte) {
    const std::string texts[] = {"Küche",
                                 "Straße №5 – Ölmühle",
                                 "台所のコンピュータ",
                                 "🍳👩‍👩‍👧‍👦",
                                 "a",
                                 "é",
                                 "שלום",
                                 "\u00a0",
                                 "ÄÖÜäöü",
                                 "\uFEFFmark",
                                 "\uFFFF\U0010FFFF",
                                 "\u0001\u007F",
                                 std::string("a\0b", 3),
                                 "ï¿½",
                                 "1234567890",
                                 "HELLO WORLD",
                                 "{\"a\":\"/\"}",
                                 "ｶﾀｶﾅ"};
    for (const std::string& text : texts) {
        EXPECT_THAT(decodeQr(picture(encoded(text), 3)), ElementsAre(text));
    }
}

TEST(Imaging, ReadsSymbolsOfEveryVersionAtSmallAndLargeScale) {
    for (const std::size_t size : {1U, 30U, 100U, 280U, 500U, 1000U, 1600U, 2331U}) {
        std::string text(size, ' ');
        for (std::size_t i = 0; i < size; ++i) {
            text[i] = static_cast<char>(' ' + (i * 31 + size) % 95);
        }
        for (const std::int64_t scale : {1, 2, 3}) {
            EXPECT_THAT(decodeQr(picture(encoded(text), scale)), ElementsAre(text)) << size << " at " << scale;
        }
    }
}

TEST(Imaging, ReadsASymbolInALargePicture) {
    EXPECT_THAT(decodeQr(picture(encoded("far away"), 40)), ElementsAre("far away"));
    RasterImage wide = blank(1500, 900);
    const RasterImage small = picture(encoded("in a corner"), 4);
    for (std::int64_t y = 0; y < small.height; ++y) {
        const auto row = static_cast<std::ptrdiff_t>(small.width * 4);
        std::copy_n(small.pixels.begin() + y * row, row, wide.pixels.begin() + ((y + 700) * wide.width + 1300) * 4);
    }
    EXPECT_THAT(decodeQr(wide), ElementsAre("in a corner"));
}

TEST(Imaging, ReadsEverySymbolOfAPicture) {
    const RasterImage first = picture(encoded("first one"), 5);
    const RasterImage second = picture(encoded("other one"), 5);
    ASSERT_EQ(first.width, second.width);
    RasterImage both{
        .width = first.width, .height = first.height * 2, .pixels = concatenate({first.pixels, second.pixels})};
    EXPECT_THAT(decodeQr(both), UnorderedElementsAre("first one", "other one"));
}

TEST(Imaging, TransparentPixelsCountAsWhite) {
    RasterImage image = picture(encoded("on glass"), 4, std::byte{0});
    const RasterImage opaque = picture(encoded("on glass"), 4);
    EXPECT_THAT(decodeQr(image), IsEmpty()) << "all black so far";
    for (std::size_t i = 0; i < image.pixels.size(); i += RasterImage::bytesPerPixel) {
        image.pixels[i + 3] = opaque.pixels[i] == std::byte{0} ? std::byte{255} : std::byte{0};
    }
    EXPECT_THAT(decodeQr(image), ElementsAre("on glass"));
}

TEST(Imaging, ReadsColouredSymbols) {
    RasterImage image = picture(encoded("blue on yellow"), 4);
    for (std::size_t i = 0; i < image.pixels.size(); i += RasterImage::bytesPerPixel) {
        const bool dark = image.pixels[i] == std::byte{0};
        const auto colour = dark ? std::array{std::byte{0}, std::byte{0}, std::byte{160}}
                                 : std::array{std::byte{255}, std::byte{230}, std::byte{0}};
        std::ranges::copy(colour, image.pixels.begin() + static_cast<std::ptrdiff_t>(i));
    }
    EXPECT_THAT(decodeQr(image), ElementsAre("blue on yellow"));
}

TEST(Imaging, FindsNothingWhereThereIsNoSymbol) {
    EXPECT_THAT(decodeQr({}), IsEmpty());
    EXPECT_THAT(decodeQr(blank(1, 1)), IsEmpty());
    EXPECT_THAT(decodeQr(blank(maxPictureSide, 1)), IsEmpty());
    EXPECT_THAT(decodeQr(blank(200, 300)), IsEmpty());
    RasterImage checked = blank(99, 99);
    for (std::size_t i = 0; i < checked.pixels.size(); i += 2 * RasterImage::bytesPerPixel) {
        std::fill_n(checked.pixels.begin() + static_cast<std::ptrdiff_t>(i), 3, std::byte{0});
    }
    EXPECT_THAT(decodeQr(checked), IsEmpty());
}

TEST(ImagingDeathTest, AnImpossiblePictureIsAProgrammingError) {
    EXPECT_DEATH((void)decodeQr({.width = 2, .height = 2, .pixels = Bytes(12)}), "programming error");
    EXPECT_DEATH((void)decodeQr({.width = -1, .height = -1, .pixels = Bytes(4)}), "programming error");
}

/// A symbol of pieces in various modes, which our own encoder never makes.
class Pieces {
public:
    Pieces& eci(unsigned number) {
        EXPECT_EQ(QRinput_appendECIheader(input_.get(), number), 0);
        return *this;
    }
    Pieces& piece(QRencodeMode mode, std::string_view bytes) {
        EXPECT_EQ(QRinput_append(input_.get(), mode, static_cast<int>(bytes.size()),
                                 reinterpret_cast<const unsigned char*>(bytes.data())),
                  0);
        return *this;
    }
    [[nodiscard]] std::vector<std::string> read() const {
        const std::unique_ptr<QRcode, decltype(&QRcode_free)> code(QRcode_encodeInput(input_.get()), QRcode_free);
        QrSymbol symbol{.size = code->width, .dark = {}};
        for (int i = 0; i < code->width * code->width; ++i) {
            symbol.dark.push_back((code->data[i] & 1) != 0);
        }
        return decodeQr(picture(symbol, 4));
    }

private:
    std::unique_ptr<QRinput, decltype(&QRinput_free)> input_{QRinput_new2(0, QR_ECLEVEL_M), QRinput_free};
};

TEST(Imaging, HonoursADeclaredCharacterSet) {
    constexpr unsigned latin1 = 3;
    constexpr unsigned utf8 = 26;
    EXPECT_THAT(Pieces()
                    .eci(latin1)
                    .piece(QR_MODE_8, "Gr\xFC\xDF"
                                      "e")
                    .read(),
                ElementsAre("Grüße"));
    EXPECT_THAT(Pieces().eci(utf8).piece(QR_MODE_8, "台所").read(), ElementsAre("台所"));
    // Which is UTF-8 as well, but was not meant so.
    EXPECT_THAT(Pieces().eci(latin1).piece(QR_MODE_8, "\xC3\xBC").read(), ElementsAre("Ã¼"));
}

TEST(Imaging, ReadsTheOtherModesOfASymbol) {
    EXPECT_THAT(Pieces().piece(QR_MODE_NUM, "0123456789").piece(QR_MODE_AN, "ABC:").piece(QR_MODE_8, "ü").read(),
                ElementsAre("0123456789ABC:ü"));
    EXPECT_THAT(Pieces().piece(QR_MODE_KANJI, "\x91\xE4\x8F\x8A").read(), ElementsAre("台所"));
}

TEST(Imaging, GivesUtf8WhateverTheBytesAre) {
    std::string all;
    for (int i = 255; i >= 0; --i) {
        all += static_cast<char>(i);
    }
    for (const std::string& bytes : {all, std::string("\xFF\xFE\xFD"), std::string("caf\xE9"), std::string("\x80")}) {
        for (const std::string& text : decodeQr(picture(encoded(bytes), 4))) {
            EXPECT_TRUE(isUtf8(text));
        }
    }
}

} // namespace
} // namespace orlinth::platform
