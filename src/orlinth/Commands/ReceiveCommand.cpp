#include "OrlinthCore/Receiving/ReceiveTransfer.h"
#include "OrlinthHost/HumanText.h"
#include "OrlinthHost/Phones/PeerSelection.h"
#include "OrlinthHost/Sending/PhoneTimeouts.h"
#include "OrlinthHost/Service/DownloadsFolder.h"
#include "base/Text.h"
#include "orlinth/Commands/Command.h"
#include "orlinth/Commands/FolderCheck.h"
#include "orlinth/Commands/NearbyOnly.h"
#include "orlinth/Commands/PortTrouble.h"
#include "orlinth/Reporting/Hints.h"
#include "orlinth/Reporting/ReceivedFields.h"
#include "platform/SystemError.h"

namespace orlinth::cli {

namespace {

/// Turns what happens to the file into events, messages and the progress bar.
class ReceiveReporter final : public ReceiveProgress {
public:
    explicit ReceiveReporter(Output& output) : output_(output) {}

    void onListening(std::uint16_t port) override {
        output_.event("listening", {{"port", port}});
        output_.message("listening on port " + std::to_string(port));
    }

    void onConnected(const std::string& remoteEndpoint) override {
        output_.message("connection from " + remoteEndpoint);
    }

    void onOffer(const TransportMessage::FileOffer& offer, ByteOffset resumedFromOffset) override {
        std::string line = "receiving " + forDisplay(offer.name) + " (" + host::humanSize(offer.size) + ")";
        if (resumedFromOffset > ByteOffset()) {
            line += ", going on from " + host::humanSize(resumedFromOffset.bytesBefore());
        }
        output_.message(line);
        output_.bar().begin(forDisplay(offer.name), {.done = resumedFromOffset.bytesBefore(), .total = offer.size});
    }

    void onAlreadyHere(const TransportMessage::FileOffer& /*offer*/, const platform::Path& /*savedAt*/) override {
        wasHere_ = true;
    }

    void onProgress(std::int64_t bytesWritten, std::int64_t totalBytes) override {
        output_.bar().update({.done = bytesWritten, .total = totalBytes});
    }

    void tellComplete(const ReceivedFile& received) {
        Json fields = receivedFields(received);
        if (wasHere_) {
            fields["already_here"] = true;
        }
        output_.event("complete", std::move(fields));
        output_.page(visiblePath(received)); // whole: it is the result
        if (wasHere_) {
            output_.message("already here: an earlier attempt delivered this file, and it has not changed");
            return;
        }
        output_.message("received " + receivedFigures(received));
        if (const std::string remark = remarkOnSize(received); !remark.empty()) {
            output_.message(remark);
        }
    }

private:
    Output& output_;
    bool wasHere_ = false;
};

class ReceiveCommand final : public Command {
public:
    explicit ReceiveCommand(CLI::App& program)
        : Command(program.add_subcommand("receive", "Receive one file from one phone, then end.")) {
        addText("--from", selector_, "SELECTOR",
                "Which phone: its name, or the beginning of its name or key, in any letter case.")
            ->required();
        addPort("--port", port_, 0, "The TCP port to listen on, 0 to 65535; 0: any free one.")->required();
        addText("--dir", directory_, "DIR", "Where the file goes. Default: the user's downloads folder.");
        addListenPublic(listensPublicly_);
        addSeconds("--timeout", timeout_, "How long to wait for a connection; 0: for ever.");
        addJsonFlag("Print events as JSON, one object a line.");
        addQuietFlag("No progress bar and no messages but failures.");
    }

    int run(Host& host) override {
        const platform::Path folder = downloadsFolder(host, directory_);
        const platform::PrivateKey ownKey = host.staticKey();
        const host::CheckedPeer peer = host::selectPeer(host, selector_, ownKey.publicKey(), host::PeerUse::key);
        ReceiveReporter reporter(host.output);
        const std::string from = forDisplay(peer.record.peer_hostname);
        host::requireWritableFolder(host, folder);
        try {
            reporter.tellComplete(
                host.tasks.run(receiveOneTransfer(host.system, request(host, ownKey, peer, folder, reporter))));
            return 0;
        } catch (const Interrupted& interrupted) {
            host.output.failure(interrupted.description(), "What has arrived is kept for another attempt.");
            throw;
        } catch (const std::exception& error) {
            host.output.failure(describe(error), hintForReceiving(error, from, folder));
            return 1;
        }
    }

private:
    [[nodiscard]] ReceiveRequest request(Host& host, const platform::PrivateKey& ownKey, const host::CheckedPeer& peer,
                                         const platform::Path& folder, ReceiveReporter& reporter) const {
        ReceiveRequest request{.staticKey = ownKey,
                               .expectedPeerPubkey = peer.key,
                               .downloadsDir = folder,
                               .port = port_,
                               .acceptTimeout = timeout_,
                               .handshakeLimit = host::handshakeLimit,
                               .progress = &reporter};
        try { // here, because to the core 0 is no port at all, and for the system's reason
            request.listener = host.system.network.listen({.port = port_, .keepAlive = {}}, host.tasks.executor());
        } catch (const platform::SystemError& error) {
            throw portTrouble(host, port_, error.code(),
                              ReceiveError::listenerStartFailed(describe(error)).description());
        }
        if (!listensPublicly_) {
            request.listener = nearbyOnly(host, std::move(request.listener));
        }
        return request;
    }

    std::string selector_;
    std::uint16_t port_ = 0;
    std::string directory_;
    bool listensPublicly_ = false;
    Seconds timeout_{0};
};

} // namespace

std::unique_ptr<Command> makeReceiveCommand(CLI::App& program) {
    return std::make_unique<ReceiveCommand>(program);
}

} // namespace orlinth::cli
