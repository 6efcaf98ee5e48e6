#include "OrlinthCore/Receiving/FolderTurns.h"
#include "OrlinthCore/Receiving/Partials.h"
#include "OrlinthCore/Receiving/ReceiveError.h"
#include "OrlinthHost/HumanText.h"
#include "OrlinthHost/Phones/PeerSelection.h"
#include "base/Text.h"
#include "orlinth/Commands/Command.h"
#include "orlinth/Commands/FolderCheck.h"
#include "platform/SystemError.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace orlinth::cli {

namespace {

constexpr std::int64_t mostDays = 36'500;

/// What has come of removing: those that are gone, and those that could not be removed, with the reason.
struct Removal {
    std::vector<PartialDownload> removed;
    std::vector<std::pair<PartialDownload, std::string>> failed;
};

/// Removes those that have not changed since, each in a turn of its own, so that receivers need not wait for all.
/// Also if it ends early, `removal` has what has come of it by then. What it refers to outlives it.
Task<bool> removeOlder(platform::Storage storage, platform::Folder& folder, EpochMilliseconds moment,
                       Removal& removal) {
    FolderTurns turns(std::move(storage));
    for (PartialDownload& download : Partials::in(folder)) {
        if (inMilliseconds(download.changedAt) >= moment) {
            continue;
        }
        try {
            const FolderTurn turn = co_await turns.take(folder.status());
            if (Partials::remove(folder, download)) {
                removal.removed.push_back(std::move(download));
            }
        } catch (const platform::SystemError& error) {
            removal.failed.emplace_back(std::move(download), error.description());
        } catch (const ReceiveError& error) {
            removal.failed.emplace_back(std::move(download), error.description());
        }
    }
    co_return true;
}

class PartialsCommand final : public Command {
public:
    explicit PartialsCommand(CLI::App& program)
        : Command(program.add_subcommand("partials", "List unfinished downloads, and remove old ones.")) {
        addText("--dir", directory_, "DIR",
                "The folder to look in, whatever it is. Default: the folder set in settings.json, else "
                "the user's downloads folder.");
        age_ = parser()
                   .add_option("--remove-older-than", days_,
                               "Remove those of which nothing has come for so many days. A phone that sends such a "
                               "file again starts from the beginning.")
                   ->type_name("DAYS")
                   ->check(CLI::Range(std::int64_t{0}, mostDays).description(""))
                   ->take_last()
                   ->configurable(false);
        addJsonFlag("Print JSON, one object a line.");
        addQuietFlag("No messages but failures.");
    }

    int run(Host& host) override {
        // a folder that somebody names may be any: nothing is received, and only what has a sidecar of ours is removed
        const platform::Path path =
            directory_.empty() ? downloadsFolder(host, folderInSettingsFile(host)) : platform::Path(directory_);
        try {
            if (!host.system.files.status(path)) {
                host.output.message("There are no unfinished downloads: " + path.string() + " does not exist.");
                return 0;
            }
            const std::unique_ptr<platform::Folder> folder = host.system.files.openFolder(path);
            if (age_->count() > 0) {
                return remove(host, *folder) ? 0 : 1;
            }
            list(host, *folder);
            return 0;
        } catch (const platform::SystemError& error) {
            throw host::HostError("cannot look through " + path.string() + ": " + error.description());
        }
    }

private:
    /// config.toml has a folder for this command alone.
    [[nodiscard]] static std::string folderInSettingsFile(const Host& host) {
        const host::SettingValue* const value = host.settings.file.find({.id = host::SettingId::downloads});
        return value != nullptr ? std::get<std::string>(*value) : "";
    }

    void list(Host& host, platform::Folder& folder) const {
        const std::vector<PartialDownload> downloads = Partials::in(folder);
        for (const PartialDownload& download : downloads) {
            host.output.event("partial", fieldsOf(host, folder, download));
            host.output.result(forDisplay(download.final.text()) + "  " + host::humanSize(download.size) + " of " +
                               host::humanSize(download.meta.advertised_size) + "  from " + senderOf(host, download) +
                               "  " + host::humanTime(inMilliseconds(download.changedAt)));
        }
        if (downloads.empty()) {
            host.output.message("There are no unfinished downloads in " + folder.path().string() + ".");
        }
    }

    /// False if some could not be removed. What is gone is told in any case, also if a signal or an error ends it.
    [[nodiscard]] bool remove(Host& host, platform::Folder& folder) const {
        const EpochMilliseconds limit = host.system.clock.epochMilliseconds() - std::chrono::days(days_);
        Removal removal;
        try {
            static_cast<void>(host.tasks.run(removeOlder(host.system.storage(), folder, limit, removal)));
        } catch (...) {
            if (!removal.removed.empty() || !removal.failed.empty()) {
                tell(host, folder, removal);
            }
            throw;
        }
        tell(host, folder, removal);
        return removal.failed.empty();
    }

    static void tell(Host& host, const platform::Folder& folder, const Removal& removal) {
        const auto& [removed, failed] = removal;
        std::int64_t bytes = 0;
        for (const PartialDownload& download : removed) {
            bytes += download.size;
            host.output.event("partial_removed", fieldsOf(host, folder, download));
            host.output.result("removed " + forDisplay(download.partial.text()) + " (" +
                               host::humanSize(download.size) + ")");
        }
        for (const auto& [download, reason] : failed) {
            host.output.failure("cannot remove " + forDisplay(download.partial.text()) + ": " + reason,
                                "Remove it and its sidecar yourself.",
                                {{"path", toUtf8((folder.path() / download.partial.text()).native())}});
        }
        if (!removed.empty()) {
            host.output.message("Removed " + std::to_string(removed.size()) +
                                (removed.size() == 1 ? " unfinished download, " : " unfinished downloads, ") +
                                host::humanSize(bytes) + ".");
        } else if (failed.empty()) {
            host.output.message("There is nothing to remove.");
        }
    }

    [[nodiscard]] static Json fieldsOf(const Host& host, const platform::Folder& folder,
                                       const PartialDownload& download) {
        return {{"name", toUtf8(download.final.text())},
                {"path", toUtf8((folder.path() / download.partial.text()).native())},
                {"size", download.size},
                {"advertised_size", download.meta.advertised_size},
                {"changed_epoch_ms", toNumber(inMilliseconds(download.changedAt))},
                {"peer_pubkey", download.meta.peer_pubkey.text()},
                {"from", phoneOf(host, download)}};
    }

    /// What the phone is called; "" if nobody knows.
    [[nodiscard]] static std::string phoneOf(const Host& host, const PartialDownload& download) {
        try {
            const PeerBook book = host.peers().loadBook();
            const PeerRecord* const phone = book.find(download.meta.peer_pubkey);
            return phone == nullptr ? "" : phone->peer_hostname;
        } catch (const PeerStoreError&) {
            return "";
        }
    }

    [[nodiscard]] static std::string senderOf(const Host& host, const PartialDownload& download) {
        const std::string phone = phoneOf(host, download);
        return phone.empty() ? "an unknown phone" : forDisplay(phone);
    }

    std::string directory_;
    std::int64_t days_ = 0;
    CLI::Option* age_ = nullptr; ///< the parser's
};

} // namespace

std::unique_ptr<Command> makePartialsCommand(CLI::App& program) {
    return std::make_unique<PartialsCommand>(program);
}

} // namespace orlinth::cli
