#pragma once

#include "base/Bytes.h"
#include "base/Time.h"
#include "platform/SystemError.h"

#include <string>
#include <utility>
#include <vector>

namespace orlinth::platform {

/// A program to be run: found in PATH, without a shell.
struct ChildProgram {
    std::string name;
    /// The distribution's package that brings it; for the error that says it is missing.
    std::string package;
    /// Anyone on the machine can read these: no secret, no text of a user's.
    std::vector<std::string> arguments;
    /// What it reads from its standard input.
    ByteView input;
    /// How much of its standard output is kept; it is killed when it writes more. Zero: the output goes to /dev/null,
    /// and processes that it leaves behind in the background are let be.
    std::size_t maxOutputBytes = 0;
    std::chrono::milliseconds deadline = 2s;
    /// What it has in its environment besides what every child has, or in place of that.
    std::vector<std::pair<std::string, std::string>> environment = {};
};

/// What children see of an environment ("NAME=value" each, with a null at the end): where programs, homes, displays and
/// buses are, the language, and what desktops choose programs by. Nothing else: not the sockets of the service manager,
/// and no secret that somebody has put there.
[[nodiscard]] std::vector<std::string> childEnvironment(const char* const* ours);

/// How a program ended.
struct ChildResult {
    /// Its exit status; 128 and the signal's number if a signal ended it, 0 if we did because of `isCut`.
    int status = 0;
    Bytes output;
    /// There was more output than was to be kept.
    bool isCut = false;
    /// What it wrote to standard error, without white space at the end; 4 KiB at most.
    std::string complaint;
};

/// It is not installed, or cannot be run.
class ProgramUnavailable : public SystemError {
public:
    explicit ProgramUnavailable(std::string text) : SystemError(std::move(text)) {}
};

/// Runs a program and waits for its end and, if it is wanted, for the end of its output. Blocks; any thread.
///
/// The program begins a session of its own (Ctrl-C and a closed terminal do not reach it), with no signal blocked or
/// ignored, and inherits none of our descriptors, and of our environment only childEnvironment().
/// @throws ProgramUnavailable; SystemError if it is not done by the deadline ("NAME does not answer"): it and what it
///         has started are killed then.
[[nodiscard]] ChildResult runChild(const ChildProgram& program);

} // namespace orlinth::platform
