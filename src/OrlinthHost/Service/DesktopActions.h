#pragma once

#include "platform/FileSystem.h"
#include "platform/Task.h"

#include <functional>
#include <string>
#include <vector>

namespace orlinth::host {

/// What the desktop does when a notification is clicked. `token` lets the window that opens come to the front (XDG
/// activation); "" if the desktop has given none.
///
/// Threading: on the home's executor. Calls return at once, and never throw; what cannot be done goes to the log.
class DesktopActions {
public:
    virtual ~DesktopActions() = default;
    /// Shows these files, in their folders. There is at least one.
    virtual void show(std::vector<platform::Path> files, std::string token) = 0;
    /// Opens a file with the program that the desktop has for it. One that could run as a program is only shown: see
    /// mayBeOpened().
    virtual void open(platform::Path file, std::string token) = 0;
    /// Opens an address for which hostOfLink() has a host.
    virtual void openLink(std::string address, std::string token) = 0;
    /// Brings the application to the front.
    virtual void raiseWindow(std::string token) = 0;
    /// Puts a text on the clipboard. `onDone` is called once, on the home's executor, with whether it got there; not at
    /// all if a newer text has come before its turn. May be empty.
    virtual void copy(std::string text, std::function<void(bool isThere)> onDone) = 0;
    /// Returns when what was asked for is done; from then on nothing is.
    [[nodiscard]] virtual Task<> finish() = 0;
};

} // namespace orlinth::host
