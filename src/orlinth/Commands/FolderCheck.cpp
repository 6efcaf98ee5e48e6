#include "orlinth/Commands/FolderCheck.h"

#include "OrlinthHost/Service/DownloadsFolder.h"

#include <optional>

namespace orlinth::cli {

platform::Path downloadsFolder(Host& host, const std::string& chosen) {
    const host::DownloadsFolder folder = host::chooseDownloadsFolder(host, chosen);
    if (folder.isInPlaceOfHome) {
        host.output.message("The desktop's downloads folder is your home folder. Received files go to " +
                            folder.path.string() + " instead.");
    }
    if (const std::optional<std::string> reason = host::objectionToDownloads(host, folder.path)) {
        throw UsageError("received files cannot go to " + folder.path.string() + ": " + *reason,
                         "A phone could put files there that programs run or read, such as .bash_profile. Choose "
                         "another folder with `--dir`.");
    }
    return folder.path;
}

} // namespace orlinth::cli
