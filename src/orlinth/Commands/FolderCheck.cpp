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
    requireGoodDownloads(host, folder.path);
    return folder.path;
}

void requireGoodDownloads(const Host& host, const platform::Path& folder) {
    if (const std::optional<std::string> reason = host::objectionToDownloads(host, folder)) {
        throw UsageError("received files cannot go to " + folder.string() + ": " + *reason,
                         "A phone could put files there that programs run or read, such as .bash_profile. Choose "
                         "another folder with `--dir`.");
    }
}

} // namespace orlinth::cli
