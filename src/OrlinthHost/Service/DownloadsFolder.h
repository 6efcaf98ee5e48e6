#pragma once

#include "OrlinthHost/Home.h"
#include "platform/FileSystem.h"

#include <optional>
#include <string>

/// Where received files go, and where they must not.
namespace orlinth::host {

/// A folder that files of phones are to go to. It need not exist.
struct DownloadsFolder {
    platform::Path path;
    bool isInPlaceOfHome = false; ///< the user's downloads folder is the home folder, as some desktops have it
};

/// The one that was `chosen`, or, if that is "", the user's downloads folder, and ~/Downloads where that is the home
/// folder. To be asked then whether it may be used: objectionToDownloads().
[[nodiscard]] DownloadsFolder chooseDownloadsFolder(const Home& home, const std::string& chosen);

/// Why files of phones may not go there, as the end of a sentence: "it is your home folder". Nothing if they may.
///
/// Refused is a folder in which a phone could put files that programs run or read by their names: the home folder, the
/// folders of settings and of data, whatever has one of them in it, and what lies in Orlinth's own. Compared are the
/// folders themselves, not only their paths.
[[nodiscard]] std::optional<std::string> objectionToDownloads(const Home& home, const platform::Path& folder);

/// Finds out before anything is received whether files can be put into this folder: it is there, or can be made, and
/// may be written. Leaves nothing behind.
///
/// A full disk is not found out: whether a file fits is known only once it is offered.
/// @throws HostError that names the folder and the system's reason
void requireWritableFolder(const Home& home, const platform::Path& folder);

} // namespace orlinth::host
