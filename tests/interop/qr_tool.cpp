// Our side of the tests with another QR reader: pictures of a payload, which is JSON on standard input.
//
//     qr_tool png FILE SCALE | ascii | read FILE
//
// png writes a picture, ascii prints the terminal's text. read needs no payload: it prints the text of the symbol in a
// picture, as it is. An error comes on standard error, with status 1.

#include "OrlinthCore/Pairing/QRRenderer.h"
#include "platform/WholeFile.h"
#include "platform/linux/LinuxFileSystem.h"

#include <array>
#include <cstdio>
#include <stdexcept>

using namespace orlinth;

namespace {

PairingPayload readPayload() {
    std::string text;
    std::array<char, 65536> piece{};
    while (const std::size_t count = std::fread(piece.data(), 1, piece.size(), stdin)) {
        text.append(piece.data(), count);
    }
    return PairingPayload::decode(asBytes(text));
}

void print(std::string_view text) {
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0) {
        throw std::runtime_error("cannot write");
    }
}

int run(std::span<char*> words) {
    const std::string_view command = words.size() > 1 ? words[1] : "";
    platform::LinuxFileSystem files;
    if (command == "png" && words.size() == 4) {
        QRRenderer::writePNG(files, readPayload(), words[2], std::stod(words[3]));
    } else if (command == "ascii" && words.size() == 2) {
        print(QRRenderer::renderASCII(readPayload()));
    } else if (command == "read" && words.size() == 3) {
        print(QRRenderer::decode(platform::decodePng(platform::readWholeFile(files, words[2]))));
    } else {
        std::fputs("usage: qr_tool png FILE SCALE | ascii | read FILE\n", stderr);
        return 2;
    }
    return 0;
}

} // namespace

int main(int count, char** arguments) {
    try {
        return run(std::span(arguments, static_cast<std::size_t>(count)));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "qr_tool: %s\n", error.what());
        return 1;
    }
}
