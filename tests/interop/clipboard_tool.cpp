// Our side of the clipboard tests: the library's clipboard on the real desktop.
//
//     clipboard_tool read-for-send | read | write
//
// read-for-send prints "text", "empty" or "blocked" as its first line, and the text behind it, as it is. read prints
// the text alone. write puts its standard input on the clipboard. What goes to the log comes on standard error, and so
// does an error, with status 1.

#include "OrlinthCore/Receiving/PasteboardWriter.h"
#include "platform/linux/LinuxSystem.h"

#include <array>
#include <cstdio>
#include <stdexcept>

using namespace orlinth;

namespace {

class StandardErrorLog final : public platform::Log {
public:
    void write(platform::LogLevel /*level*/, std::string_view subsystem, std::string_view category,
               std::string_view message) noexcept override {
        std::fprintf(stderr, "log %.*s %.*s: %.*s\n", static_cast<int>(subsystem.size()), subsystem.data(),
                     static_cast<int>(category.size()), category.data(), static_cast<int>(message.size()),
                     message.data());
    }
};

std::string readStandardInput() {
    std::string text;
    std::array<char, 65536> piece{};
    while (const std::size_t count = std::fread(piece.data(), 1, piece.size(), stdin)) {
        text.append(piece.data(), count);
    }
    return text;
}

void print(std::string_view text) {
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0) {
        throw std::runtime_error("cannot write");
    }
}

void printForSend(platform::Clipboard& clipboard) {
    const PasteboardWriter::ReadResult result = PasteboardWriter::readForSend(clipboard);
    if (const auto* text = std::get_if<PasteboardWriter::Text>(&result)) {
        print("text\n" + text->text);
    } else {
        print(std::holds_alternative<PasteboardWriter::Empty>(result) ? "empty\n" : "blocked\n");
    }
}

int run(std::string_view command) {
    asio::io_context context;
    platform::LinuxSystem linux(context);
    const platform::System real = linux.system();
    StandardErrorLog log;
    if (command == "read-for-send") {
        printForSend(real.clipboard);
    } else if (command == "read") {
        print(PasteboardWriter::read(real.clipboard));
    } else if (command == "write") {
        PasteboardWriter::write(real.clipboard, log, context.get_executor(), readStandardInput());
        context.run();
    } else {
        std::fputs("usage: clipboard_tool read-for-send | read | write\n", stderr);
        return 2;
    }
    return 0;
}

} // namespace

int main(int count, char** arguments) {
    try {
        const std::span words(arguments, static_cast<std::size_t>(count));
        return run(count == 2 ? words[1] : "");
    } catch (const std::exception& error) {
        std::fprintf(stderr, "clipboard_tool: %s\n", error.what());
        return 1;
    }
}
