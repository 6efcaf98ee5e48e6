#pragma once

#include "platform/FileSystem.h"
#include "platform/Log.h"
#include "platform/linux/ChildProcess.h"

#include <string>

namespace orlinth::cli {

/// What opens a file or folder with the program that the desktop has for it.
///
/// If a service manager has started us (`isManaged`), that starts it: with the environment of the desktop as it is now,
/// and without what keeps a service in its place and many a program from starting. Otherwise it lives on without us.
///
/// The path is passed on as an absolute one, so that whatever a file is called, its name is neither an option nor an
/// address of the web; and nothing in it is replaced by what a variable says. With `token` (XDG activation), if it is
/// not empty, its window comes to the front.
[[nodiscard]] platform::ChildProgram openerFor(const platform::Path& path, bool isManaged,
                                               const std::string& token = "");
/// The same for an address for which hostOfLink() has a host.
[[nodiscard]] platform::ChildProgram linkOpenerFor(const std::string& address, bool isManaged,
                                                   const std::string& token = "");

/// Opens it; a failure goes to the log. Blocks for up to two seconds.
void openOnDesktop(const platform::Path& path, platform::Log& log, const std::string& token = "");
void openLinkOnDesktop(const std::string& address, platform::Log& log, const std::string& token = "");

} // namespace orlinth::cli
