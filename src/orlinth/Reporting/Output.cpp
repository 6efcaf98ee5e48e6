#include "orlinth/Reporting/Output.h"

#include "base/Text.h"
#include "platform/SystemError.h"

#include <cerrno>
#include <poll.h>
#include <unistd.h>

namespace orlinth::cli {

namespace {

/// Writes all of it; the errno of the failure, or 0.
int writeAll(int descriptor, std::string_view text) noexcept {
    while (!text.empty()) {
        const ssize_t written = write(descriptor, text.data(), text.size());
        if (written >= 0) {
            text.remove_prefix(static_cast<std::size_t>(written));
            continue;
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK) { // inherited from somebody who reads without waiting
            pollfd ready{descriptor, POLLOUT, 0};
            if (poll(&ready, 1, -1) >= 0 || errno == EINTR) {
                continue;
            }
        }
        if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

/// Every line end, with the blanks around it, as one blank: what a server answers is often written over several lines.
std::string onOneLine(std::string_view text) {
    const auto isBlank = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; };
    std::string line;
    for (std::size_t at = 0; at < text.size();) {
        std::size_t end = at;
        while (end < text.size() && isBlank(text[end])) {
            ++end;
        }
        const std::string_view blanks = text.substr(at, end - at);
        line += blanks.find('\n') == std::string_view::npos ? blanks : " ";
        at = end;
        if (at < text.size()) {
            line += text[at++];
        }
    }
    return line;
}

} // namespace

void writeToStandardError(std::string_view text) noexcept {
    static_cast<void>(writeAll(STDERR_FILENO, text));
}

void Output::useJson() noexcept {
    json_ = true;
    bar_.disable();
}

void Output::beQuiet() noexcept {
    quiet_ = true;
    bar_.disable();
}

void Output::writeLine(std::string line) {
    line += '\n';
    write(line);
}

void Output::write(std::string_view bytes) {
    bar_.clear();
    if (outputError_ == 0) {
        outputError_ = writeAll(STDOUT_FILENO, bytes);
    }
}

void Output::result(std::string_view line) {
    if (!json_) {
        writeLine(forDisplay(line, maxLineColumns));
    }
}

void Output::page(std::string_view text) {
    if (!json_) {
        writeLine(std::string(text));
    }
}

void Output::content(std::string_view bytes) {
    if (!json_) {
        write(bytes);
    }
}

void Output::event(const char* name, Json fields) {
    if (json_) {
        fields["event"] = name;
        writeLine(asciiJson(fields));
    }
}

void Output::message(std::string_view text) {
    if (!quiet_) {
        bar_.clear();
        writeToStandardError(forDisplay(text, maxLineColumns) + "\n");
    }
}

void Output::failure(std::string_view text, std::string_view hint, Json context) {
    bar_.clear();
    std::string lines = "orlinth: " + forDisplay(onOneLine(text), maxLineColumns) + "\n";
    if (!hint.empty()) {
        lines += forDisplay(hint, maxLineColumns) + "\n";
    }
    writeToStandardError(lines);
    context["message"] = text;
    event("error", std::move(context));
}

int Output::finish(int status) noexcept {
    bar_.clear();
    if (outputError_ == 0) {
        return status;
    }
    const std::string reason = describe(platform::SystemError::fromErrno(outputError_));
    writeToStandardError("orlinth: standard output: " + reason + "\n");
    return status == 0 && !needsNoReader_ ? 1 : status;
}

} // namespace orlinth::cli
