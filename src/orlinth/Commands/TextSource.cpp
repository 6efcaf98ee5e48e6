#include "orlinth/Commands/TextSource.h"

#include "OrlinthCore/Receiving/PasteboardWriter.h"
#include "OrlinthCore/SecureChannel/TransportFrame.h"
#include "platform/SystemError.h"

#include <array>
#include <cerrno>
#include <poll.h>
#include <unistd.h>

namespace orlinth::cli {

namespace {

constexpr const char* otherWays = "Another text goes with `--text TEXT`, or from standard input with `-`.";

/// Waits until there is something to read, for a standard input inherited from somebody who reads without waiting.
void waitForInput() {
    pollfd ready{STDIN_FILENO, POLLIN, 0};
    static_cast<void>(poll(&ready, 1, -1));
}

} // namespace

std::string textFromStandardInput() {
    std::string text;
    std::array<char, 65536> piece{};
    for (;;) {
        const ssize_t count = read(STDIN_FILENO, piece.data(), piece.size());
        if (count == 0) {
            return text;
        }
        if (count < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                waitForInput();
            } else if (errno != EINTR) {
                throw host::HostError("standard input: " + describe(platform::SystemError::fromErrno()));
            }
            continue;
        }
        text.append(piece.data(), static_cast<std::size_t>(count));
        if (text.size() > TransportFramer::maxPlaintextBytes) { // no use in reading on
            throw TransportFramer::Error::plaintextTooLarge(text.size());
        }
    }
}

std::string textFromClipboard(Host& host) {
    PasteboardWriter::ReadResult content;
    try {
        content = PasteboardWriter::readForSend(host.system.clipboard);
    } catch (const platform::SystemError& error) {
        throw host::HostError(describe(error), "`--text TEXT`, and `-` for standard input, work without a desktop.");
    }
    if (std::holds_alternative<PasteboardWriter::BlockedSensitive>(content)) {
        throw host::HostError("the clipboard's content is marked as sensitive; it was not read and is not sent",
                              otherWays);
    }
    if (std::holds_alternative<PasteboardWriter::Empty>(content)) {
        throw host::HostError("there is no text on the clipboard", otherWays);
    }
    return std::get<PasteboardWriter::Text>(std::move(content)).text;
}

} // namespace orlinth::cli
