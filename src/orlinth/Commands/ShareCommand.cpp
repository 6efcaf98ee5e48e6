#include "OrlinthCore/Share/ServiceActivation.h"
#include "OrlinthCore/Share/ShareStaging.h"
#include "OrlinthHost/HumanText.h"
#include "OrlinthHost/Phones/PeerSelection.h"
#include "OrlinthHost/Service/ServiceControlClient.h"
#include "base/Text.h"
#include "orlinth/Commands/Command.h"
#include "orlinth/Reporting/Hints.h"
#include "orlinth/Reporting/OutboxReporter.h"

namespace orlinth::cli {

namespace {

class ShareCommand final : public Command {
public:
    explicit ShareCommand(CLI::App& program)
        : Command(program.add_subcommand(
              "share",
              "Queue files for delivery by the service, even if the phone is unreachable now. Starts the service if "
              "it does not run.")) {
        addPhones(selectors_);
        addJsonFlag("Print events as JSON, one object a line.");
        addQuietFlag("No messages but failures.");
        parser()
            .add_option("FILE", files_,
                        "The files to send; copies are made now, so they may change or go afterwards. Symbolic links "
                        "are followed.")
            ->type_name("")
            ->required()
            ->check(notEmpty())
            ->configurable(false);
    }

    int run(Host& host) override {
        const Choice choice = choosePhones(host);
        const ShareOutbox outbox(host.system.files, host.system.directories);
        try {
            return share(host, outbox, choice);
        } catch (const ShareError& error) {
            throw host::HostError(error.description(), hintFor(error, outbox));
        }
    }

private:
    struct Choice {
        std::optional<std::vector<PeerKey>> keys; ///< nothing where there was nothing to choose
        std::vector<std::string> names;
    };

    [[nodiscard]] static std::string hintFor(const ShareError& error, const ShareOutbox& outbox) {
        switch (error.which()) {
        case ShareError::Case::containerUnavailable:
            return "Cannot make the folder " + outbox.container().string() + ": " +
                   outbox.containerProblem().value_or("it has come meanwhile") +
                   ". Make the folder above it writable for this account.";
        case ShareError::Case::batchNotCreated:
        case ShareError::Case::manifestNotWritten:
            return "The outbox is in " + outbox.container().string() +
                   ". Free some space there, or make it writable for this account.";
        case ShareError::Case::nothingShareable:
        case ShareError::Case::nothingRead:
            return "Nothing was queued.";
        }
        return {};
    }

    int share(Host& host, const ShareOutbox& outbox, const Choice& choice) const {
        ShareStaging staging({.files = host.system.files,
                              .clock = host.system.clock,
                              .log = host.system.log,
                              .busSignals = host.system.busSignals},
                             outbox);
        std::size_t skipped = 0;
        for (const std::string& file : files_) {
            if (!staging.add(file)) {
                ++skipped;
                host.output.failure("'" + file + "' was skipped: " + whyNot(host.system.files, file, staging), {},
                                    {{"file", file}});
            }
        }
        const ShareOutbox::Manifest manifest = staging.finish(choice.keys);
        tell(host, manifest, choice);
        return skipped == 0 ? 0 : 1;
    }

    /// Why a file was not copied, as far as another look at it tells.
    [[nodiscard]] static std::string whyNot(platform::FileSystem& files, const std::string& file,
                                            const ShareStaging& staging) {
        try {
            const std::optional<platform::FileStatus> status = files.status(file);
            if (!status) {
                return "there is no such file";
            }
            if (status->kind == platform::FileKind::directory) {
                return "it is a folder, and only files are shared";
            }
            if (status->kind != platform::FileKind::regular) {
                return "it is no regular file";
            }
            static_cast<void>(files.open(file, platform::OpenMode::read));
            return "it cannot be copied into the outbox: " + staging.lastProblem();
        } catch (const platform::SystemError& error) {
            return error.description();
        }
    }

    /// Before anything is copied.
    [[nodiscard]] Choice choosePhones(const Host& host) const {
        const platform::PublicKey ownKey = host.staticKey().publicKey();
        const std::vector<host::CheckedPeer> peers = host::selectPeers(host, selectors_, ownKey, host::PeerUse::key);
        Choice choice;
        std::vector<PeerKey> keys;
        for (const host::CheckedPeer& peer : peers) {
            keys.push_back(peer.record.peer_pubkey);
            choice.names.push_back(peer.record.peer_hostname);
        }
        if (!selectors_.empty() || host.peers().loadBook().peers.size() > 1) {
            choice.keys = std::move(keys);
        }
        return choice;
    }

    static void tell(Host& host, const ShareOutbox::Manifest& manifest, const Choice& choice) {
        const bool ranBefore = host.tasks.run(host::isServiceRunning(host));
        const std::string advice =
            ranBefore ? "" : ServiceActivation::startForOutbox(host.system.userServices, host.system.directories);
        host.output.event("shared", {{"batch", manifest.id},
                                     {"files", manifest.files},
                                     {"to", choice.names},
                                     {"service_running", advice.empty()}});
        std::string names;
        for (const std::string& name : choice.names) {
            names += (names.empty() ? "" : ", ") + forDisplay(name);
        }
        host.output.result("shared " + host::countOfFiles(manifest.files.size()) + " with " + names + ", batch " +
                           shortId(BatchId(manifest.id)));
        host.output.message(advice.empty() ? "The service sends it now, or as soon as the phone can be reached."
                                           : advice);
    }

    std::vector<std::string> selectors_;
    std::vector<std::string> files_;
};

} // namespace

std::unique_ptr<Command> makeShareCommand(CLI::App& program) {
    return std::make_unique<ShareCommand>(program);
}

} // namespace orlinth::cli
