#include "orlinth/Asking/Confirmation.h"

#include "base/Text.h"
#include "orlinth/Asking/Answer.h"
#include "orlinth/Reporting/Terminal.h"
#include "platform/linux/DescriptorWait.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

namespace orlinth::cli {

namespace {

int openTerminal() {
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-vararg): the system's own interface
    const int descriptor = open("/dev/tty", O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (descriptor < 0) {
        throw host::HostError("there is no terminal to ask whether the codes are the same",
                              "`--yes` goes without the question.");
    }
    return descriptor;
}

/// Up to a line feed, which is left out, or the end; not a byte more is taken.
Task<std::string> readLine(int descriptor) {
    std::string text;
    std::array<char, 1> one{};
    while (text.size() < Answer::longest) {
        co_await platform::untilReadable(descriptor);
        const ssize_t count = read(descriptor, one.data(), 1);
        if (count < 0 && (errno == EINTR || errno == EAGAIN)) {
            continue;
        }
        if (count <= 0 || one[0] == '\n') {
            break;
        }
        text += one[0];
    }
    co_return text;
}

/// Asks on standard error and returns the answer. All of it is a task, so that a signal ends it in an orderly way from
/// the moment at which the question stands there.
Task<std::string> ask(int descriptor, std::string question) {
    if (isTerminal(descriptor)) {
        tcflush(descriptor, TCIFLUSH); // what was typed before is no answer
    }
    writeToStandardError(question + " [y/N] ");
    co_return co_await readLine(descriptor);
}

} // namespace

Confirmation::Confirmation(Host& host, bool isGiven, bool standardInputIsUsedUp)
    : host_(host), isGiven_(isGiven), descriptor_(!isGiven && standardInputIsUsedUp ? openTerminal() : STDIN_FILENO) {}

Confirmation::~Confirmation() {
    if (descriptor_ != STDIN_FILENO) {
        close(descriptor_);
    }
}

bool Confirmation::asksForYes(const std::string& question) {
    std::string answer;
    try {
        answer = host_.tasks.run(ask(descriptor_, question));
    } catch (...) {
        writeToStandardError("\n");
        throw;
    }
    if (!isTerminal(descriptor_)) {
        writeToStandardError("\n"); // a terminal has shown the line end that was typed
    }
    return Answer::isYes(answer);
}

void Confirmation::require(const std::string& name) {
    if (!isGiven_ && !asksForYes("Does " + forDisplay(name) + " show the same code?")) {
        throw host::HostError(
            "the codes were not confirmed; nothing was recorded",
            "If they differed, somebody else may have answered: pair again with `--no-advertise`. If the "
            "other side has recorded this machine, remove it there (`orlinth peers remove`).");
    }
}

} // namespace orlinth::cli
