#include "orlinth/Confirmation.h"

#include "base/Text.h"
#include "orlinth/Terminal.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

namespace orlinth::host {

namespace {

constexpr std::size_t longestAnswer = 1024;

/// How often we look whether somebody has typed: a person does not notice, and a signal gets through at once.
constexpr double secondsBetweenLooks = 0.05;

int openTerminal() {
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-vararg): the system's own interface
    const int descriptor = open("/dev/tty", O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (descriptor < 0) {
        throw HostError("there is no terminal to ask whether the codes are the same",
                        "`--yes` goes without the question.");
    }
    return descriptor;
}

/// Whether there is something to read, or the end.
bool isReady(int descriptor) {
    pollfd ready{descriptor, POLLIN, 0};
    return poll(&ready, 1, 0) > 0;
}

/// Up to a line feed, which is left out, or the end; not a byte more is taken.
Task<std::string> readLine(platform::Clock& clock, int descriptor) {
    std::string text;
    std::array<char, 1> one{};
    while (text.size() < longestAnswer) {
        while (!isReady(descriptor)) {
            co_await clock.sleep(secondsBetweenLooks);
        }
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
Task<std::string> ask(platform::Clock& clock, int descriptor, std::string question) {
    if (isTerminal(descriptor)) {
        tcflush(descriptor, TCIFLUSH); // what was typed before is no answer
    }
    writeToStandardError(question + " [y/N] ");
    co_return co_await readLine(clock, descriptor);
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
        answer = host_.tasks.run(ask(host_.system.clock, descriptor_, question));
    } catch (...) {
        writeToStandardError("\n");
        throw;
    }
    if (!isTerminal(descriptor_)) {
        writeToStandardError("\n"); // a terminal has shown the line end that was typed
    }
    answer = lowerCased(trimmed(answer));
    return answer == "y" || answer == "yes";
}

void Confirmation::require(const std::string& name) {
    if (!isGiven_ && !asksForYes("Does " + forDisplay(name) + " show the same code?")) {
        throw HostError("the codes were not confirmed; nothing was recorded",
                        "If they differed, somebody else may have answered: pair again with `--no-advertise`. If the "
                        "other side has recorded this machine, remove it there (`orlinth peers remove`).");
    }
}

} // namespace orlinth::host
