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

#include <utility>

namespace orlinth::cli {

namespace {

/// A port for one connection after the other. It stays open between them: who looks whether this computer is here
/// comes back at once with a file, and must not be refused.
class KeptPort final : public platform::Listener {
public:
    explicit KeptPort(std::shared_ptr<platform::Listener> port) : port_(std::move(port)) {}

    [[nodiscard]] Task<std::unique_ptr<platform::Stream>> accept(Executor executor) override {
        return port_->accept(std::move(executor));
    }
    [[nodiscard]] std::uint16_t port() const noexcept override { return port_->port(); }
    [[nodiscard]] std::string place() const override { return port_->place(); }
    /// Only ends this use of the port.
    void close() noexcept override {}

private:
    std::shared_ptr<platform::Listener> port_;
};

/// Turns what happens to the file into events, messages and the progress bar, and closes the port once the phone has
/// proved its key.
class ReceiveReporter final : public ReceiveProgress {
public:
    /// `from` is the phone's name. What is referred to outlives this.
    ReceiveReporter(Output& output, std::string from, platform::Listener& port)
        : output_(output), from_(std::move(from)), port_(port) {}

    void onListening(std::uint16_t port) override {
        if (std::exchange(isListening_, true)) {
            return; // and has been since then
        }
        output_.event("listening", {{"port", port}});
        output_.message("listening on port " + std::to_string(port));
    }

    void onConnected(const std::string& remoteEndpoint) override {
        output_.message("connection from " + remoteEndpoint);
    }

    void onHandshakeComplete() override {
        hasProvedKey_ = true;
        port_.close();
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

    /// Whether the phone has proved its key.
    [[nodiscard]] bool hasProvedKey() const noexcept { return hasProvedKey_; }

    void tellLook() { output_.message("it hung up without proving a key; still waiting for " + from_); }

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
    std::string from_;
    platform::Listener& port_;
    bool isListening_ = false;
    bool hasProvedKey_ = false;
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
        const std::string from = forDisplay(peer.record.peer_hostname);
        host::requireWritableFolder(host, folder);
        try {
            receive(host, ownKey, peer, folder);
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
    /// One file. Whoever hangs up in good order before a key is proved, as those do who only look whether this computer
    /// is here, uses up nothing but the time.
    void receive(Host& host, const platform::PrivateKey& ownKey, const host::CheckedPeer& peer,
                 const platform::Path& folder) const {
        const std::shared_ptr<platform::Listener> port = openPort(host);
        ReceiveReporter reporter(host.output, forDisplay(peer.record.peer_hostname), *port);
        const platform::Clock::Instant begin = host.system.clock.now();
        Seconds left = timeout_; // 0: for ever
        for (;;) {
            ReceiveRequest request{.staticKey = ownKey,
                                   .expectedPeerPubkey = peer.key,
                                   .downloadsDir = folder,
                                   .listener = std::make_unique<KeptPort>(port),
                                   .acceptTimeout = left,
                                   .handshakeLimit = host::handshakeLimit,
                                   .progress = &reporter};
            try {
                const ReceivedFile file = host.tasks.run(receiveOneTransfer(host.system, std::move(request)));
                reporter.tellComplete(file);
                return;
            } catch (const WireConnection::Error& error) {
                if (reporter.hasProvedKey() || !error.isBetweenFrames()) {
                    throw;
                }
            }
            reporter.tellLook();
            if (timeout_ > 0s) {
                left = timeout_ - (host.system.clock.now() - begin);
                if (left <= 0s) {
                    throw ReceiveError::timedOut();
                }
            }
        }
    }

    [[nodiscard]] std::unique_ptr<platform::Listener> openPort(Host& host) const {
        std::unique_ptr<platform::Listener> port;
        try { // here, because to the core 0 is no port at all, and for the system's reason
            port = host.system.network.listen({.port = port_, .keepAlive = {}}, host.tasks.executor());
        } catch (const platform::SystemError& error) {
            throw portTrouble(host, port_, error.code(),
                              ReceiveError::listenerStartFailed(describe(error)).description());
        }
        return listensPublicly_ ? std::move(port) : nearbyOnly(host, std::move(port));
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
