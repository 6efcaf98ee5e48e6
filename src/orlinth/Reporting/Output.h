#pragma once

#include "OrlinthHost/HostError.h"
#include "base/Json.h"
#include "orlinth/Reporting/ProgressBar.h"

#include <string_view>

namespace orlinth::cli {

/// A failure after which the command line must change: status 2.
class UsageError : public host::HostError {
public:
    using HostError::HostError;
};

/// Writes to standard error as far as it goes; a failure has nowhere to be told.
void writeToStandardError(std::string_view text) noexcept;

/// Everything a person or a script reads.
///
/// Results go to standard output, messages and progress to standard error. With JSON asked for, standard output
/// carries one object a line and nothing else. Every line is written at once, without a buffer of the process.
/// No call throws: a standard output that fails is remembered, and finish() turns it into the exit status, so that a
/// transfer under way is not torn down by a reader that went away.
class Output {
public:
    void useJson() noexcept;
    void beQuiet() noexcept;
    /// For a service, whose reader may go while it has something better to do: output that is lost is no failure.
    void doWithoutReader() noexcept { needsNoReader_ = true; }
    [[nodiscard]] bool isJson() const noexcept { return json_; }
    [[nodiscard]] bool isQuiet() const noexcept { return quiet_; }
    [[nodiscard]] ProgressBar& bar() noexcept { return bar_; }

    /// A line of the result, for people; nothing in JSON form. Made fit for them, as every line is: forDisplay() with
    /// maxLineColumns. What others have chosen passes through forDisplay() by itself before, so that none of it pushes
    /// the rest out of the line.
    void result(std::string_view line);
    /// The same for what has lines or colours of its own: a QR code, a page of help, the text that a phone has sent.
    /// It must be fit for a terminal.
    void page(std::string_view text);
    /// A content byte by byte, without a line end of ours, for another program or a file; nothing in JSON form. A
    /// terminal is not the place for it.
    void content(std::string_view bytes);
    /// A line of the result in JSON form: `fields` and "event", in ASCII, whole.
    void event(const char* name, Json fields);
    /// A line on standard error, unless quiet.
    void message(std::string_view text);
    /// The line `orlinth: ` + text, its line ends turned into blanks, and a second one if there is a hint. In JSON form
    /// also the event "error", with `context` in it and the text as it is.
    void failure(std::string_view text, std::string_view hint = {}, Json context = Json::object());

    /// The exit status: `status`, unless it says success and a part of the output was lost.
    [[nodiscard]] int finish(int status) noexcept;

private:
    void writeLine(std::string line);
    void write(std::string_view bytes);

    bool json_ = false;
    bool quiet_ = false;
    bool needsNoReader_ = false;
    int outputError_ = 0; ///< errno of the first write to standard output that failed
    ProgressBar bar_;
};

} // namespace orlinth::cli
