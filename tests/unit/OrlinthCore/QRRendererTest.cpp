#include "OrlinthCore/Pairing/QRRenderer.h"

#include "fakes/MemoryFileSystem.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <limits>

namespace orlinth {
namespace {

using fakes::MemoryFileSystem;
using fakes::Operation;
using platform::RasterImage;
using testing::ElementsAre;
using testing::EndsWith;

PairingPayload example(std::string hostname = "desk") {
    PairingPayload payload;
    payload.peer_pubkey = "//////////////////////////////////////////8=";
    payload.peer_ip = "192.168.1.7";
    payload.peer_port = 40112;
    payload.peer_subnet = "192.168.1.0/24";
    payload.peer_hostname = std::move(hostname);
    payload.peer_mac = "3c:22:fb:01:02:0a";
    payload.pairing_secret = "/+/+/+/+/+/+/+/+/+/+/+/+/+/+/+/+/+/+/+/+/+8=";
    return payload;
}

/// One whose JSON has that many bytes.
PairingPayload exampleOf(std::size_t bytes) {
    const std::size_t without = example("").jsonData().size();
    return example(std::string(bytes - without, 'x'));
}

std::array<std::byte, 4> pixelAt(const RasterImage& image, std::int64_t x, std::int64_t y) {
    std::array<std::byte, 4> pixel{};
    std::copy_n(image.pixels.begin() + static_cast<std::ptrdiff_t>((y * image.width + x) * 4), 4, pixel.begin());
    return pixel;
}

constexpr std::array blackPixel{std::byte{0}, std::byte{0}, std::byte{0}, std::byte{255}};
constexpr std::array whitePixel{std::byte{255}, std::byte{255}, std::byte{255}, std::byte{255}};

template <typename Action>
std::string failureOf(Action action) {
    try {
        action();
    } catch (const QRRenderer::Error& error) {
        return error.description();
    }
    return "none";
}

TEST(QRRenderer, DrawsTheSymbolBlackOnWhiteWithFourModulesOfQuietZone) {
    const Bytes bytes = toBytes("hello");
    const platform::QrSymbol symbol = platform::encodeQr(bytes).value();
    const RasterImage image = QRRenderer::makeImage(bytes, 1);
    ASSERT_EQ(image.width, symbol.size + 8);
    ASSERT_EQ(image.height, image.width);
    ASSERT_EQ(image.pixels.size(), static_cast<std::size_t>(image.width * image.width * 4));
    for (std::int64_t y = 0; y < image.height; ++y) {
        for (std::int64_t x = 0; x < image.width; ++x) {
            const bool quiet = std::min({x, y, image.width - 1 - x, image.height - 1 - y}) < 4;
            const bool dark = !quiet && symbol.isDark(x - 4, y - 4);
            ASSERT_EQ(pixelAt(image, x, y), dark ? blackPixel : whitePixel) << x << " " << y;
        }
    }
}

TEST(QRRenderer, EnlargesWithoutSmoothing) {
    const Bytes bytes = toBytes("hello");
    const RasterImage modules = QRRenderer::makeImage(bytes, 1); // 29 a side
    for (const double scale : {1.0, 2.0, 3.0, 8.0, 2.5, 1.3, 7.77, 0.5, 0.9}) {
        const RasterImage image = QRRenderer::makeImage(bytes, scale);
        ASSERT_EQ(image.width, std::lround(29 * scale)) << scale;
        ASSERT_EQ(image.height, image.width);
        const auto moduleUnder = [scale](std::int64_t pixel) {
            return std::min<std::int64_t>(static_cast<std::int64_t>(static_cast<double>(pixel) / scale), 28);
        };
        for (std::int64_t y = 0; y < image.height; ++y) {
            for (std::int64_t x = 0; x < image.width; ++x) {
                ASSERT_EQ(pixelAt(image, x, y), pixelAt(modules, moduleUnder(x), moduleUnder(y))) << scale;
            }
        }
    }
}

TEST(QRRenderer, RefusesAScaleThatMakesNoPicture) {
    const Bytes bytes = toBytes("hello"); // 29 modules a side, quiet zone included
    constexpr double infinity = std::numeric_limits<double>::infinity();
    const double wrong[] = {
        0.0,          -0.0, -1.0,   -1e300, 1e300,       infinity, -infinity,
        std::nan(""), 0.01, 1e-300, 300.0,  8193.0 / 29, 1e18,     std::numeric_limits<double>::denorm_min()};
    for (const double scale : wrong) {
        EXPECT_EQ(failureOf([&] { (void)QRRenderer::makeImage(bytes, scale); }), "CIContext.createCGImage failed")
            << scale;
    }
    EXPECT_EQ(QRRenderer::makeImage(bytes, 1.0 / 29).width, 1);
    EXPECT_EQ(QRRenderer::makeImage(bytes, 1000.0 / 29).width, 1000);
}

TEST(QRRenderer, DrawsUpToTheWidestPicture) {
    EXPECT_EQ(QRRenderer::makeImage(asBytes("x"), 8192.0 / 29).width, platform::maxPictureSide);
    EXPECT_EQ(failureOf([] { (void)QRRenderer::makeImage(asBytes("x"), 8192.6 / 29); }),
              "CIContext.createCGImage failed");
}

TEST(QRRenderer, FailsWhereNoSymbolHoldsTheBytes) {
    EXPECT_EQ(failureOf([] { (void)QRRenderer::makeImage(ByteView(), 1); }),
              "CIFilter.qrCodeGenerator produced no output");
    EXPECT_EQ(failureOf([] { (void)QRRenderer::makeImage(Bytes(2332), 1); }),
              "CIFilter.qrCodeGenerator produced no output");
    EXPECT_EQ(failureOf([] { (void)QRRenderer::makeImage(exampleOf(2332), 1); }),
              "CIFilter.qrCodeGenerator produced no output");
    EXPECT_EQ(failureOf([] { (void)QRRenderer::renderASCII(exampleOf(2332)); }),
              "CIFilter.qrCodeGenerator produced no output");
    EXPECT_EQ(QRRenderer::makeImage(exampleOf(2331), 1).width, 177 + 8);
}

TEST(QRRenderer, PassesOnThatAPayloadCannotBeEncoded) {
    MemoryFileSystem files;
    files.putFolder("/pictures");
    const PairingPayload bad = example("caf\xE9");
    EXPECT_THROW((void)QRRenderer::makeImage(bad, 1), PairingError);
    EXPECT_THROW((void)QRRenderer::renderASCII(bad), PairingError);
    EXPECT_THROW(QRRenderer::writePNG(files, bad, "/pictures/code.png", 4), PairingError);
    EXPECT_THAT(files.allFiles(), testing::IsEmpty());
}

TEST(QRRenderer, ReadsItsOwnPicturesBack) {
    for (const PairingPayload& payload :
         {example(), example("Küche 台所 🍳"), example("École №5 – ﬀ"), exampleOf(2331)}) {
        for (const double scale : {1.0, 2.0, 2.5, 3.0, 5.0, 8.0}) {
            const std::string text = QRRenderer::decode(QRRenderer::makeImage(payload, scale));
            EXPECT_EQ(text, payload.jsonString()) << scale;
            EXPECT_TRUE(PairingPayload::decode(asBytes(text)) == payload);
        }
    }
}

// --- files ---

TEST(QRRenderer, WritesAPngForItsOwnerAlone) {
    MemoryFileSystem files;
    files.put("/pictures/code.png", "an older picture", 0644);
    QRRenderer::writePNG(files, example(), "/pictures/code.png", 4);
    EXPECT_EQ(files.status("/pictures/code.png")->permissions, 0600U);
    EXPECT_THAT(files.allFiles(), ElementsAre("/pictures/code.png"));
    const std::string content = files.content("/pictures/code.png").value();
    EXPECT_EQ(platform::decodePng(asBytes(content)), QRRenderer::makeImage(example(), 4));
}

TEST(QRRenderer, SaysThatAPictureCannotBeWritten) {
    MemoryFileSystem files;
    const auto write = [&files] { QRRenderer::writePNG(files, example(), "/pictures/code.png", 4); };
    EXPECT_EQ(failureOf(write), "CGImageDestination PNG write failed");
    files.put("/pictures/code.png", "an older picture");
    files.addFault({.operation = Operation::write, .errorNumber = ENOSPC});
    EXPECT_EQ(failureOf(write), "CGImageDestination PNG write failed");
    try {
        write();
        ADD_FAILURE();
    } catch (const QRRenderer::Error& error) {
        EXPECT_EQ(error.reason(), "No space left on device");
    }
    EXPECT_EQ(files.content("/pictures/code.png"), "an older picture");
    EXPECT_THAT(files.allFiles(), ElementsAre("/pictures/code.png"));
    files.clearFaults();
    EXPECT_EQ(failureOf(write), "none");
    EXPECT_EQ(failureOf([&files] { QRRenderer::writePNG(files, example(), "/pictures/code.png", 0); }),
              "CIContext.createCGImage failed");
}

// --- terminal text ---

/// The lines of a text, each as its characters; a character is one of the four, by the bits 1 (top) and 2 (bottom).
std::vector<std::vector<unsigned>> linesOf(std::string_view text) {
    constexpr std::array<std::string_view, 4> characters{" ", "▀", "▄", "█"};
    std::vector<std::vector<unsigned>> lines;
    EXPECT_THAT(text, EndsWith("\n"));
    bool begins = true;
    while (!text.empty()) {
        if (begins) {
            lines.emplace_back();
        }
        begins = text.starts_with('\n');
        if (begins) {
            text.remove_prefix(1);
            continue;
        }
        const auto* found = std::ranges::find_if(characters, [text](auto each) { return text.starts_with(each); });
        if (found == characters.end()) {
            ADD_FAILURE() << "an unknown character in " << text;
            return {};
        }
        lines.back().push_back(static_cast<unsigned>(found - characters.begin()));
        text.remove_prefix(found->size());
    }
    return lines;
}

TEST(QRRenderer, DrawsTwoRowsOfModulesALineOfText) {
    for (const PairingPayload& payload : {example(), example("Küche 台所 🍳"), exampleOf(2331)}) {
        const RasterImage modules = QRRenderer::makeImage(payload, 1);
        const auto lines = linesOf(QRRenderer::renderASCII(payload));
        ASSERT_EQ(static_cast<std::int64_t>(lines.size()), (modules.height + 1) / 2);
        for (std::size_t line = 0; line < lines.size(); ++line) {
            ASSERT_EQ(static_cast<std::int64_t>(lines[line].size()), modules.width);
            for (std::size_t x = 0; x < lines[line].size(); ++x) {
                const auto isInk = [&](std::size_t y) {
                    const auto row = static_cast<std::int64_t>(y);
                    return row < modules.height && pixelAt(modules, static_cast<std::int64_t>(x), row) == blackPixel;
                };
                ASSERT_EQ(lines[line][x], (isInk(2 * line) ? 1U : 0U) | (isInk(2 * line + 1) ? 2U : 0U));
            }
        }
    }
}

TEST(QRRenderer, TheLastLineOfAnOddNumberOfRowsHasNothingBelow) {
    const std::string text = QRRenderer::renderASCII(example());
    ASSERT_EQ(QRRenderer::makeImage(example(), 1).height % 2, 1);
    const auto lines = linesOf(text);
    for (const unsigned character : lines.back()) {
        EXPECT_LE(character, 1U);
    }
}

TEST(QRRenderer, TheTextsDarkModulesAreInk) {
    const auto lines = linesOf(QRRenderer::renderASCII(example()));
    // Four rows of quiet zone, then the upper edge of the finder pattern over a lighter row.
    constexpr std::array firstOfPattern{0U, 0U, 0U, 0U, 3U, 1U, 1U, 1U, 1U, 1U, 3U, 0U};
    ASSERT_GE(lines.size(), 3U);
    EXPECT_TRUE(std::ranges::all_of(lines[0], [](unsigned character) { return character == 0; }));
    EXPECT_TRUE(std::ranges::all_of(lines[1], [](unsigned character) { return character == 0; }));
    EXPECT_TRUE(std::ranges::equal(firstOfPattern, std::span(lines[2]).first(firstOfPattern.size())));
}

// --- reading ---

RasterImage blank(std::int64_t side) {
    return {.width = side, .height = side, .pixels = Bytes(static_cast<std::size_t>(side * side * 4), std::byte{255})};
}

TEST(QRRenderer, SaysThatThereIsNoSymbol) {
    for (const std::int64_t side : {0, 1, 50, 400}) {
        try {
            (void)QRRenderer::decode(blank(side));
            ADD_FAILURE() << "read something";
        } catch (const QRRenderer::Error& error) {
            EXPECT_EQ(error.which(), QRRenderer::Error::Case::decodeFailed);
            EXPECT_EQ(error.description(), "QR decode failed: no QR symbol found in image");
        }
    }
}

TEST(QRRenderer, ReadsTheFirstOfSeveralSymbols) {
    const RasterImage left = QRRenderer::makeImage(asBytes("text one"), 4);
    const RasterImage right = QRRenderer::makeImage(asBytes("text two"), 4);
    ASSERT_EQ(left.width, right.width);
    RasterImage both{.width = left.width * 2, .height = left.height, .pixels = {}};
    const auto row = static_cast<std::size_t>(left.width) * RasterImage::bytesPerPixel;
    for (std::size_t y = 0; y < static_cast<std::size_t>(left.height); ++y) {
        for (const RasterImage* half : {&left, &right}) {
            const ByteView line = ByteView(half->pixels).subspan(y * row, row);
            both.pixels.insert(both.pixels.end(), line.begin(), line.end());
        }
    }
    const std::vector<std::string> found = platform::decodeQr(both);
    ASSERT_EQ(found.size(), 2U);
    EXPECT_EQ(QRRenderer::decode(both), found.front());
}

TEST(QRRenderer, ErrorsHaveTheirTexts) {
    using Error = QRRenderer::Error;
    EXPECT_EQ(Error::decodeFailed("why").description(), "QR decode failed: why");
    EXPECT_EQ(Error::filterFailed().which(), Error::Case::filterFailed);
    EXPECT_EQ(Error::renderFailed().which(), Error::Case::renderFailed);
    EXPECT_EQ(Error::pngFailed("no room").which(), Error::Case::pngFailed);
}

} // namespace
} // namespace orlinth
