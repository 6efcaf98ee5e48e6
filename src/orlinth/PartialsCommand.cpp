#include "OrlinthCore/Receiving/FolderTurns.h"
#include "OrlinthCore/Receiving/Partials.h"
#include "base/Text.h"
#include "orlinth/Command.h"
#include "orlinth/FolderCheck.h"
#include "orlinth/HumanText.h"
#include "orlinth/PeerSelection.h"
#include "platform/SystemError.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace orlinth::host {

namespace {

constexpr std::int64_t nanosecondsInMillisecond = 1'000'000;
constexpr std::int64_t millisecondsInDay = std::int64_t{24} * 3600 * 1000;
constexpr std::int64_t mostDays = 36'500;

std::int64_t changedAt(const PartialDownload& download) {
    return download.changedNanoseconds / nanosecondsInMillisecond;
}

/// What has come of removing: those that are gone, and those that could not be removed, with the reason.
struct Removal {
    std::vector<PartialDownload> removed;
    std::vector<std::pair<PartialDownload, std::string>> failed;
};

/// Removes those that have not changed since, each in a turn of its own, so that receivers need not wait for all.
/// What it refers to outlives it.
Task<Removal> removeOlder(platform::System& system, platform::Folder& folder, std::int64_t epochMilliseconds) {
    FolderTurns turns(system);
    Removal removal;
    for (PartialDownload& download : Partials::in(folder)) {
        if (changedAt(download) >= epochMilliseconds) {
            continue;
        }
        const FolderTurn turn = co_await turns.take(folder.status());
        try {
            if (Partials::remove(folder, download)) {
                removal.removed.push_back(std::move(download));
            }
        } catch (const platform::SystemError& error) {
            removal.failed.emplace_back(std::move(download), error.description());
        }
    }
    co_return removal;
}

class PartialsCommand final : public Command {
public:
    explicit PartialsCommand(CLI::App& program)
        : Command(program.add_subcommand("partials", "List unfinished downloads, and remove old ones.")) {
        addText("--dir", directory_, "DIR", "The folder to look in. Default: the user's downloads folder.");
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
        const platform::Path path = downloadsFolder(host, directory_);
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
            throw HostError("cannot look through " + path.string() + ": " + error.description());
        }
    }

private:
    void list(Host& host, platform::Folder& folder) const {
        const std::vector<PartialDownload> downloads = Partials::in(folder);
        for (const PartialDownload& download : downloads) {
            host.output.event("partial", fieldsOf(host, folder, download));
            host.output.result(forDisplay(download.final.text()) + "  " + humanSize(download.size) + " of " +
                               humanSize(download.meta.advertised_size) + "  from " + senderOf(host, download) + "  " +
                               humanTime(changedAt(download)));
        }
        if (downloads.empty()) {
            host.output.message("There are no unfinished downloads in " + folder.path().string() + ".");
        }
    }

    /// False if some could not be removed.
    [[nodiscard]] bool remove(Host& host, platform::Folder& folder) const {
        const std::int64_t limit = host.system.clock.epochMilliseconds() - days_ * millisecondsInDay;
        const auto [removed, failed] = host.tasks.run(removeOlder(host.system, folder, limit));
        std::int64_t bytes = 0;
        for (const PartialDownload& download : removed) {
            bytes += download.size;
            host.output.event("partial_removed", fieldsOf(host, folder, download));
            host.output.result("removed " + forDisplay(download.partial.text()) + " (" + humanSize(download.size) +
                               ")");
        }
        for (const auto& [download, reason] : failed) {
            host.output.failure("cannot remove " + forDisplay(download.partial.text()) + ": " + reason,
                                "Remove it and its sidecar yourself.",
                                {{"path", toUtf8((folder.path() / download.partial.text()).native())}});
        }
        host.output.message(removed.empty()
                                ? "There is nothing to remove."
                                : "Removed " + std::to_string(removed.size()) +
                                      (removed.size() == 1 ? " unfinished download, " : " unfinished downloads, ") +
                                      humanSize(bytes) + ".");
        return failed.empty();
    }

    [[nodiscard]] static Json fieldsOf(const Host& host, const platform::Folder& folder,
                                       const PartialDownload& download) {
        return {{"name", toUtf8(download.final.text())},
                {"path", toUtf8((folder.path() / download.partial.text()).native())},
                {"size", download.size},
                {"advertised_size", download.meta.advertised_size},
                {"changed_epoch_ms", changedAt(download)},
                {"peer_pubkey", download.meta.peer_pubkey},
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

} // namespace orlinth::host
