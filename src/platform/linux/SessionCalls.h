#pragma once

#include "platform/FileSystem.h"
#include "platform/linux/SessionBus.h"

#include <chrono>
#include <string>
#include <vector>

namespace orlinth::platform {

/// How long a program of the session may take for one of these calls; it may have to be started first.
inline constexpr std::chrono::milliseconds sessionCallLimit{5000};

/// Has the session's file manager show these files, selected in their folders (org.freedesktop.FileManager1,
/// ShowItems). `token` is of XDG activation, "" for none. Returns whether it did; false where there is no bus and no
/// such file manager, and if it does not answer in time. Any thread; blocks for up to sessionCallLimit.
[[nodiscard]] bool showInFileManager(BusEnvironment environment, const std::vector<Path>& files,
                                     const std::string& token);

/// Brings Orlinth's application to the front, or starts it (org.freedesktop.Application, Activate), likewise.
[[nodiscard]] bool activateApplication(BusEnvironment environment, const std::string& token);

/// The `file` URI of an absolute path (RFC 8089): "file:///home/ada/a%20b.txt".
[[nodiscard]] std::string fileUriOf(const Path& path);

} // namespace orlinth::platform
