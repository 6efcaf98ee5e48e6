#include "OrlinthCore/Pairing/DeviceInfo.h"
#include "OrlinthCore/Pairing/PairListener.h"
#include "OrlinthCore/Pairing/QRRenderer.h"
#include "OrlinthHost/Phones/AddressMemory.h"
#include "OrlinthHost/Service/PairingAttempt.h"
#include "OrlinthHost/Service/ServiceControlClient.h"
#include "base/Text.h"
#include "orlinth/Asking/Confirmation.h"
#include "orlinth/Commands/Command.h"
#include "orlinth/Commands/NearbyOnly.h"
#include "orlinth/Commands/PairingRecord.h"
#include "orlinth/Commands/PortTrouble.h"
#include "orlinth/Commands/ServiceConsent.h"
#include "orlinth/Reporting/Hints.h"
#include "orlinth/Reporting/Terminal.h"
#include "orlinth/Reporting/TerminalQr.h"
#include "platform/SystemError.h"

#include <cmath>
#include <unistd.h>
#include <utility>

namespace orlinth::cli {

namespace {

/// Pixels a module in the picture: large enough for a phone, and for readers of files.
constexpr double pictureScale = 8;

/// The seconds that are left, once a second on the terminal.
class Countdown {
public:
    Countdown(Host& host, Seconds limit)
        : clock_(host.system.clock),
          end_(clock_.now() + limit),
          line_(limit < longestTime && !host.output.isQuiet() && !host.output.isJson()),
          timer_(clock_.makeTimer(host.tasks.executor())) {
        tick();
    }

    /// Takes the line away for something else that is written; the next second brings it back.
    void giveWay() noexcept { line_.clear(); }

private:
    void tick() {
        const auto left = std::chrono::ceil<std::chrono::seconds>(end_ - clock_.now());
        if (left > 0s) {
            line_.show("waiting for a phone, " + std::to_string(left.count()) + " s left");
            timer_->arm(1s, [this] { tick(); });
        }
    }

    platform::Clock& clock_;
    platform::Clock::Instant end_;
    StatusLine line_;
    std::unique_ptr<platform::Timer> timer_;
};

/// The flag that may help; "" if none does.
std::string flagFor(const std::exception& error) {
    if (const auto* device = dynamic_cast<const DeviceInfoError*>(&error)) {
        switch (device->which()) {
        case DeviceInfoError::Case::noActiveInterface:
            return "`--interface NAME` takes a certain interface.";
        case DeviceInfoError::Case::macNotFound:
            return "`--interface NAME` takes another interface.";
        case DeviceInfoError::Case::getifaddrsFailed:
            return {};
        }
    }
    const auto* listener = dynamic_cast<const PairListener::Error*>(&error);
    const bool isPortTaken = listener != nullptr && listener->which() == PairListener::Error::Case::listenerStartFailed;
    return isPortTaken ? "`--port 0` takes a port that is free." : "";
}

std::string hintFor(const Host& host, const std::exception& error) {
    const std::optional<std::string> hint = host::hintForPairing(error);
    if (!hint) {
        return hintForOwnFiles(host, error);
    }
    const std::string flag = flagFor(error);
    return flag.empty() ? *hint : *hint + " " + flag;
}

class PairCommand final : public Command {
public:
    explicit PairCommand(CLI::App& program)
        : Command(program.add_subcommand("pair", "Show a QR code and pair the phone that scans it.")) {
        portOption_ =
            addPort("--port", port_, 0,
                    "The TCP port to wait on, 0 to 65535; 0: any free one. The phone keeps it for sending files later. "
                    "While `orlinth serve` runs, its port is the default, and the service lends it.")
                ->capture_default_str();
        addSeconds("--timeout", timeout_, "How long to wait for a phone; 0: until one comes.");
        addText("--interface", interface_, "NAME",
                "The network interface whose address the code names. Default: the one on which the service lends its "
                "port, or else the first that is up and has one.");
        addText("--png", picture_, "FILE", "Also write the code as a picture. It holds the secret of this pairing.")
            ->check(
                [](const std::string& file) { return std::string(file == "-" ? "a picture needs a file name" : ""); });
        parser().add_flag("--no-advertise", quietly_,
                          "Do not announce the pairing on the network; the phone must then scan the code.");
        addListenPublic(listensPublicly_);
        parser().add_flag("--yes", yes_, "Do not ask whether the phone shows the same confirmation code.");
        parser().add_flag("--no-enable", leavesService_,
                          "Do not have systemd run `orlinth serve` from now on, as it otherwise does after a pairing.");
        addJsonFlag("Print events as JSON, one object a line.");
        addQuietFlag("No countdown and no messages but failures.");
    }

    int run(Host& host) override {
        try {
            pair(host);
        } catch (const Interrupted& interrupted) {
            host.output.failure(interrupted.description(), "Nothing was recorded.");
            throw;
        } catch (const std::exception& error) {
            host.output.failure(describe(error), hintFor(host, error));
            return 1;
        }
        if (!leavesService_) {
            enableService(host);
        }
        return 0;
    }

private:
    void pair(Host& host) {
        requirePeerStore(host);
        Confirmation confirmation(host, yes_, false);
        const platform::PrivateKey ownKey = host.staticKey();
        host::IntroducedPhone introduced = awaitPhone(host, ownKey.publicKey());
        Json fields;
        fields["confirmation_code"] = introduced.confirmationCode;
        fields["remote_endpoint"] = introduced.remoteEndpoint;
        fields["peer_hostname"] = introduced.record.peer_hostname;
        host.output.event("introduction", std::move(fields));
        host.output.result(forDisplay(introduced.record.peer_hostname) + " (" + introduced.remoteEndpoint +
                           ") wants to be paired.");
        host.output.result("Confirmation code: " + introduced.confirmationCode);
        confirmation.require(introduced.record.peer_hostname);
        recordPaired(host, std::move(introduced.record), introduced.met);
        if (introduced.told) {
            host::AddressMemory(host.system.files, host.system.clock, host.system.log, host.dataDirectory())
                .tell(*introduced.told);
        }
    }

    /// Pair mode. When it ends, by whatever way, the port is closed, the announcement withdrawn and the secret wiped.
    host::IntroducedPhone awaitPhone(Host& host, const platform::PublicKey& ownKey) {
        // given back when this function ends: people may take their time with the question that follows
        std::optional<host::BorrowedPort> borrowed = borrowPort(host);
        std::unique_ptr<platform::Listener> port = borrowed ? nullptr : openPort(host, borrowed);
        host::PairingAttempt::Settings settings{.ownKey = ownKey, .timeout = duration(), .interface = interface_};
        if (borrowed) {
            settings.place = borrowed->place();
            settings.onDelivery = [&output = host.output](const std::string& who) {
                output.message("A paired phone (" + who +
                               ") wanted to deliver something; it can try again afterwards.");
            };
            port = borrowed->takeListener();
        }
        const std::uint16_t number = port->port();
        host::PairingAttempt attempt(host, guarded(host, std::move(port)), std::move(settings));

        if (!borrowed) {
            tellWhereFilesGo(host, number);
        }
        show(host, attempt.payload(), attempt.digits());
        Countdown countdown(host, duration());
        if (!quietly_) {
            attempt.announce({.onPublished =
                                  [&host, &countdown, &attempt, isShown = false]() mutable {
                                      if (!std::exchange(isShown, true)) {
                                          countdown.giveWay();
                                          host.output.result("Or enter these four digits there: " + attempt.digits());
                                      }
                                  },
                              .onFailure =
                                  [&host, &countdown](const std::string& reason) {
                                      countdown.giveWay();
                                      host.output.message("Announcing this computer on the network failed (" + reason +
                                                          "), so that digits cannot find it. Scan the code instead.");
                                  }});
        }
        return host.tasks.run(attempt.awaitPhone());
    }

    /// The phone keeps the port of its pairing: people should know if nobody receives there.
    static void tellWhereFilesGo(Host& host, std::uint16_t port) {
        const std::string number = std::to_string(port);
        const std::optional<std::uint16_t> service = host.tasks.run(host::findServicePort(host));
        if (service && *service != port) {
            host.output.message("The phone will send files to port " + number +
                                ", but the Orlinth service receives on port " + std::to_string(*service) +
                                ". To use the service, pair without `--port`.");
        } else if (!service && port != defaultPort) {
            host.output.message("The phone will send files to port " + number +
                                ". To receive them, write `port = " + number +
                                "` into `[serve]` of config.toml, or run `orlinth serve --port " + number + "`.");
        }
    }

    [[nodiscard]] Seconds duration() const noexcept { return timeout_ > 0s ? timeout_ : longestTime; }

    /// The port of a running service, unless another one is asked for.
    std::optional<host::BorrowedPort> borrowPort(Host& host) const {
        const bool isChosen = portOption_->count() > 0 || port_ != defaultPort;
        if (isChosen && port_ == 0) {
            return std::nullopt;
        }
        return host.tasks.run(host::BorrowedPort::borrow(host, isChosen ? std::optional(port_) : std::nullopt));
    }

    [[nodiscard]] std::unique_ptr<platform::Listener> guarded(Host& host,
                                                              std::unique_ptr<platform::Listener> port) const {
        return listensPublicly_ ? std::move(port) : nearbyOnly(host, std::move(port));
    }

    /// Before the code is shown, so that it names a port that is really ours. One that a service manager keeps open for
    /// a service that has not been needed yet is borrowed: then this returns null.
    std::unique_ptr<platform::Listener> openPort(Host& host, std::optional<host::BorrowedPort>& borrowed) const {
        try {
            return host.system.network.listen({.port = port_, .keepAlive = std::nullopt}, host.tasks.executor());
        } catch (const platform::SystemError& error) {
            if (error.code() == std::errc::address_in_use) {
                borrowed = host.tasks.run(host::BorrowedPort::borrowFromSleeping(host, port_));
            }
            if (!borrowed) {
                throw portTrouble(host, port_, error.code(),
                                  PairListener::Error::listenerStartFailed(describe(error)).description());
            }
            return nullptr;
        }
    }

    void show(Host& host, const PairingPayload& payload, const std::string& code) const {
        if (!picture_.empty()) {
            writePicture(host, payload);
        }
        if (host.output.isJson()) {
            Json fields; // the one place where the secret is put out as text: whoever asks for JSON shows the code
            fields["payload"] = parseJson(payload.jsonData().reveal());
            fields["code"] = code;
            host.output.event("payload", std::move(fields));
        } else {
            showCode(host, payload, quietly_);
        }
        host.output.result("Scan the code with the phone."); // the digits follow once they can be found
    }

    void writePicture(Host& host, const PairingPayload& payload) const {
        try {
            QRRenderer::writePNG(host.system.files, payload, picture_, pictureScale);
        } catch (const QRRenderer::Error& error) {
            throw host::HostError(describe(error), "Cannot write '" + picture_ + "': " + error.reason() +
                                                       ". Choose a file in a folder that you may write to.");
        }
    }

    static void showCode(Host& host, const PairingPayload& payload, bool quietly) {
        const std::string text = QRRenderer::renderASCII(payload);
        host.output.page(styledQr(text, qrStyleForStandardOutput()));
        // below the code stand the line on scanning, that with the digits, and the countdown
        const std::size_t rows = qrRows(text) + (quietly ? 2 : 3);
        const bool fits = qrColumns(text) <= columnsOfTerminal(STDOUT_FILENO) && rows <= rowsOfTerminal(STDOUT_FILENO);
        if (isTerminal(STDOUT_FILENO) && !fits) {
            host.output.message("The window is too small for the code, which takes " + std::to_string(qrColumns(text)) +
                                " columns and " + std::to_string(rows) +
                                " lines; `--png FILE` writes a picture of it.");
        }
    }

    std::uint16_t port_ = defaultPort;
    CLI::Option* portOption_ = nullptr; ///< the parser's
    Seconds timeout_ = 2min;
    std::string interface_;
    std::string picture_;
    bool quietly_ = false;
    bool listensPublicly_ = false;
    bool yes_ = false;
    bool leavesService_ = false;
};

} // namespace

std::unique_ptr<Command> makePairCommand(CLI::App& program) {
    return std::make_unique<PairCommand>(program);
}

} // namespace orlinth::cli
