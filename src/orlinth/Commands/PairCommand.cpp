#include "OrlinthCore/Pairing/PairAdvertiser.h"
#include "OrlinthCore/Pairing/PairCode.h"
#include "OrlinthCore/Pairing/PairCrypto.h"
#include "OrlinthCore/Pairing/PairIntroduction.h"
#include "OrlinthCore/Pairing/PairListener.h"
#include "OrlinthCore/Pairing/QRRenderer.h"
#include "OrlinthHost/Phones/AddressMemory.h"
#include "OrlinthHost/Phones/PairedPhones.h"
#include "OrlinthHost/Service/PairingDoor.h"
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
#include "platform/IpAddress.h"
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

std::string hintForDevice(const DeviceInfoError& error) {
    switch (error.which()) {
    case DeviceInfoError::Case::getifaddrsFailed:
        return "The system cannot list the network interfaces: " +
               describe(platform::SystemError::fromErrno(error.number())) + ". Try again later.";
    case DeviceInfoError::Case::noActiveInterface:
        return "Is this computer connected? `--interface NAME` takes a certain interface.";
    case DeviceInfoError::Case::macNotFound:
        return "`--interface NAME` takes another interface.";
    }
    return {};
}

std::string hintForPairing(const Host& host, const std::exception& error) {
    if (const auto* own = dynamic_cast<const host::HostError*>(&error)) {
        return own->hint();
    }
    if (const auto* device = dynamic_cast<const DeviceInfoError*>(&error)) {
        return hintForDevice(*device);
    }
    if (const auto* code = dynamic_cast<const QRRenderer::Error*>(&error);
        code != nullptr && code->which() == QRRenderer::Error::Case::filterFailed) {
        return "What the code has to say does not fit into a QR code. Is this computer's host name very long?";
    }
    if (dynamic_cast<const PairIntroductionError*>(&error) != nullptr) {
        return "Nothing was recorded.";
    }
    const auto* listener = dynamic_cast<const PairListener::Error*>(&error);
    if (listener == nullptr) {
        return hintForOwnFiles(host, error);
    }
    switch (listener->which()) {
    case PairListener::Error::Case::listenerStartFailed:
        return "`--port 0` takes a port that is free.";
    case PairListener::Error::Case::timedOut:
        return "No phone has answered. Phone and computer must be in the same network; then pair again.";
    case PairListener::Error::Case::readFailed:
    case PairListener::Error::Case::decryptFailed:
    case PairListener::Error::Case::connectionFailed:
        return "Whoever connected was not a phone that has scanned this code. Nothing was recorded; pair again.";
    case PairListener::Error::Case::alreadyRunning:
    case PairListener::Error::Case::cancelled:
        return {};
    }
    return {};
}

/// What a phone has said, and what both screens show for it.
struct Introduced {
    PeerRecord phone;
    std::string confirmationCode;
    std::string remoteEndpoint;
    std::optional<host::Meeting> met;      ///< where it has spoken from
    std::optional<host::ToldAddress> told; ///< where it has been told to find this computer
};

std::optional<host::ToldAddress> toldBy(const PairingPayload& payload) {
    const std::optional<host::HostAddress> host = host::HostAddress::parse(payload.peer_ip);
    if (!host) {
        return std::nullopt; // loopback, for example, which is not worth remembering
    }
    return host::ToldAddress{.host = *host, .port = static_cast<std::uint16_t>(payload.peer_port)};
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
            host.output.failure(describe(error), hintForPairing(host, error));
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
        Introduced introduced = awaitPhone(host, ownKey.publicKey());
        Json fields;
        fields["confirmation_code"] = introduced.confirmationCode;
        fields["remote_endpoint"] = introduced.remoteEndpoint;
        fields["peer_hostname"] = introduced.phone.peer_hostname;
        host.output.event("introduction", std::move(fields));
        host.output.result(forDisplay(introduced.phone.peer_hostname) + " (" + introduced.remoteEndpoint +
                           ") wants to be paired.");
        host.output.result("Confirmation code: " + introduced.confirmationCode);
        confirmation.require(introduced.phone.peer_hostname);
        recordPaired(host, std::move(introduced.phone), introduced.met);
        if (introduced.told) {
            host::AddressMemory(host.system.files, host.system.clock, host.system.log, host.dataDirectory())
                .tell(*introduced.told);
        }
    }

    /// Pair mode. When it ends, by whatever way, the port is closed, the announcement withdrawn and the secret wiped.
    Introduced awaitPhone(Host& host, const platform::PublicKey& ownKey) {
        // given back when this function ends: people may take their time with the question that follows
        std::optional<host::BorrowedPort> borrowed = borrowPort(host);
        std::unique_ptr<platform::Listener> port = borrowed ? nullptr : openPort(host, borrowed);
        const std::uint16_t number = borrowed ? borrowed->port() : port->port();
        DeviceInfo device = deviceAt(host, borrowed ? borrowed->place() : "");
        if (!host.computerName.empty()) {
            device.hostname = host.computerName;
        }
        const PairingPayload payload = PairingPayload::mint(ownKey, device, number);
        const std::string code = PairCode::generate();
        const SecretBytes secret = payload.secret();
        std::optional<host::PairingDoor> door;
        if (borrowed) {
            auto onDelivery = [&output = host.output](const std::string& who) {
                output.message("A paired phone (" + who +
                               ") wanted to deliver something; it can try again afterwards.");
            };
            port =
                door.emplace(host, guarded(host, borrowed->takeListener()), secret, std::move(onDelivery)).listener();
        } else {
            port = guarded(host, std::move(port));
        }
        PairListener listener(host.system, secret, number, duration(), std::move(port));
        PairAdvertiser advertiser(host.system.services, host.system.log, payload, code, host.tasks.executor());

        if (!borrowed) {
            tellWhereFilesGo(host, number);
        }
        show(host, payload, code);
        Countdown countdown(host, duration());
        if (!quietly_) {
            advertiser.start({.onPublished =
                                  [&host, &countdown, code, isShown = false]() mutable {
                                      if (!std::exchange(isShown, true)) {
                                          countdown.giveWay();
                                          host.output.result("Or enter these four digits there: " + code);
                                      }
                                  },
                              .onFailure =
                                  [&host, &countdown](const std::string& reason) {
                                      countdown.giveWay();
                                      host.output.message("Announcing this computer on the network failed (" + reason +
                                                          "), so that digits cannot find it. Scan the code instead.");
                                  }});
        }
        const PairListener::Result result = awaitIntroduction(host, listener, door);
        PeerRecord phone = recordIn(host, result, ownKey);
        const auto phoneKey = platform::PublicKey::fromBase64(phone.peer_pubkey.text());
        return {.phone = std::move(phone),
                .confirmationCode = PairCrypto::confirmationCode(secret.reveal(), ownKey, phoneKey.value(),
                                                                 result.phoneIntroductionPlaintext),
                .remoteEndpoint = result.remoteEndpoint,
                .met = host::PairedPhones(host).meet(platform::addressOfEndpoint(result.remoteEndpoint)),
                .told = toldBy(payload)};
    }

    static PeerRecord recordIn(const Host& host, const PairListener::Result& result,
                               const platform::PublicKey& ownKey) {
        PairIntroduction::Decoded decoded = PairIntroduction::decodeFrom(
            platform::addressOfEndpoint(result.remoteEndpoint), result.phoneIntroductionPlaintext, ownKey);
        const auto log = [&host, &decoded](const std::string& text) {
            host.system.log.write(platform::LogLevel::info, "com.tarvinex.orlinth", "pair",
                                  "introduction of " + forDisplay(decoded.record.peer_hostname) + ": " +
                                      forDisplay(text));
        };
        for (const std::string& objection : decoded.leftOut) {
            log("left out " + objection);
        }
        if (decoded.hasConnectionAddress) {
            log("key \"peer_ip\" is empty, so the connection's address is used: " + decoded.record.peer_ip);
        }
        return std::move(decoded.record);
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

    /// When it ends, nobody who has come to a borrowed port is left there for the service.
    static PairListener::Result awaitIntroduction(Host& host, PairListener& listener,
                                                  std::optional<host::PairingDoor>& door) {
        std::exception_ptr failure;
        std::optional<PairListener::Result> result;
        try {
            result = host.tasks.run(listener.awaitIntroduction());
        } catch (const Interrupted&) {
            throw; // no time for manners
        } catch (...) {
            failure = std::current_exception();
        }
        if (door) {
            static_cast<void>(host.tasks.run(door->finish()));
        }
        if (failure) {
            std::rethrow_exception(failure);
        }
        return std::move(*result);
    }

    /// This computer as it can be reached where the port is open: at an address, on an interface, or ("") everywhere.
    [[nodiscard]] DeviceInfo deviceAt(const Host& host, const std::string& place) const {
        if (place.empty() || place == interface_) {
            return thisDevice(host);
        }
        const std::string text = "the service receives only at " + place;
        const auto address = platform::parseIpAddress(place);
        const auto* const ipv4 = address ? std::get_if<platform::Ipv4Address>(&*address) : nullptr;
        if (address && ipv4 == nullptr) {
            throw host::HostError(text + ", and the code for the phone needs an IPv4 address",
                                  "Give the service an IPv4 address or an interface with `orlinth serve --listen`.");
        }
        try {
            const DeviceInfo device = ipv4 == nullptr ? DeviceInfo::current(host.system.interfaces, place)
                                                      : DeviceInfo::withAddress(host.system.interfaces, *ipv4);
            if (interface_.empty() || interface_ == device.interface) {
                return device;
            }
        } catch (const DeviceInfoError& error) {
            if (error.which() != DeviceInfoError::Case::noActiveInterface) {
                throw;
            }
            throw host::HostError(text + ", which is no IPv4 address or interface of this computer that is up",
                                  "`ip -brief address` lists the interfaces.");
        }
        throw host::HostError(text + ", not on the interface '" + interface_ + "'",
                              "Pair without `--interface`, or let `orlinth serve --listen` name that interface.");
    }

    [[nodiscard]] Seconds duration() const noexcept { return timeout_ > 0s ? timeout_ : longestTime; }

    [[nodiscard]] DeviceInfo thisDevice(const Host& host) const {
        if (interface_.empty()) {
            return DeviceInfo::current(host.system.interfaces);
        }
        try {
            return DeviceInfo::current(host.system.interfaces, interface_);
        } catch (const DeviceInfoError& error) {
            if (error.which() == DeviceInfoError::Case::noActiveInterface) {
                throw host::HostError("there is no interface '" + interface_ + "' that is up and has an IPv4 address",
                                      "`ip -brief address` lists the interfaces.");
            }
            throw;
        }
    }

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
