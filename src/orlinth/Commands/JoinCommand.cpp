#include "OrlinthCore/Pairing/PairJoin.h"
#include "OrlinthCore/Pairing/PairSearch.h"
#include "OrlinthCore/Pairing/QRRenderer.h"
#include "OrlinthHost/Phones/PairedPhones.h"
#include "OrlinthHost/Service/ServiceControlClient.h"
#include "base/Text.h"
#include "orlinth/Asking/Confirmation.h"
#include "orlinth/Commands/Command.h"
#include "orlinth/Commands/PairingRecord.h"
#include "orlinth/Commands/PayloadSource.h"
#include "orlinth/Commands/ServiceConsent.h"
#include "orlinth/Reporting/Hints.h"

#include <algorithm>

namespace orlinth::cli {

namespace {

CLI::Validator fourDigits() {
    const auto check = [](std::string& text) -> std::string {
        const bool valid =
            text.size() == 4 && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
        return valid ? "" : "'" + text + "' is not a pair code of four digits";
    };
    return {check, ""};
}

std::string hintForJoining(const Host& host, const std::exception& error) {
    if (const auto* own = dynamic_cast<const host::HostError*>(&error)) {
        return own->hint();
    }
    if (const auto* search = dynamic_cast<const PairSearchError*>(&error)) {
        switch (search->which()) {
        case PairSearchError::Case::notFound:
            return "Is `orlinth pair` running there, and does it show these four digits?";
        case PairSearchError::Case::ambiguous:
            return "Use the QR code or the payload: `--qr`, `--payload`.";
        case PairSearchError::Case::unavailable:
            return "Looking needs the Avahi service. The QR code and the payload work without: `--qr`, `--payload`.";
        }
    }
    const auto* join = dynamic_cast<const PairJoinError*>(&error);
    if (join != nullptr && join->which() == PairJoinError::Case::payload) {
        return "Run `orlinth pair` on the other computer again, and use its new code.";
    }
    if (join != nullptr) {
        return "A code works once, and while it is shown: run `orlinth pair` there again.";
    }
    return hintForOwnFiles(host, error);
}

class JoinCommand final : public Command {
public:
    explicit JoinCommand(CLI::App& program)
        : Command(program.add_subcommand("join", "Pair with a computer that runs `orlinth pair`, as its phone.")) {
        CLI::Option_group* source = parser().add_option_group("Where the computer's code comes from (exactly one)");
        source
            ->add_option("--payload", payloadFile_,
                         "The payload, or the line of `pair --json` that has it, in a file; -: standard input.")
            ->type_name("FILE")
            ->check(notEmpty());
        source->add_option("--qr", picture_, "A picture of the QR code.")->type_name("PNG")->check(notEmpty());
        source->add_option("--code", code_, "The four digits beside the code; the computer is looked for by DNS-SD.")
            ->type_name("NNNN")
            ->check(fourDigits());
        source->require_option(1);
        const std::string port = "The TCP port on which this machine receives, 1 to 65535. Default: that of the "
                                 "running service, or else " +
                                 std::to_string(defaultPort) + ".";
        portOption_ = addPort("--listen-port", listenPort_, 1, port.c_str());
        addSeconds("--timeout", timeout_, "How long finding the computer, and then pairing, may take each; not 0.")
            ->check(
                [](const std::string& text) { return std::string(std::stod(text) > 0 ? "" : "must be more than 0"); });
        parser().add_flag("--yes", yes_, "Do not ask whether the computer shows the same confirmation code.");
        parser().add_flag("--no-enable", leavesService_,
                          "Do not have systemd run `orlinth serve` from now on, as it otherwise does after a pairing.");
        addJsonFlag("Print events as JSON, one object a line.");
        addQuietFlag("No messages but failures.");
    }

    int run(Host& host) override {
        try {
            join(host);
        } catch (const Interrupted& interrupted) {
            host.output.failure(interrupted.description(), "Nothing was recorded.");
            throw;
        } catch (const std::exception& error) {
            host.output.failure(describe(error), hintForJoining(host, error));
            return 1;
        }
        if (!leavesService_) {
            enableService(host);
        }
        return 0;
    }

private:
    void join(Host& host) {
        requirePeerStore(host);
        Confirmation confirmation(host, yes_, payloadFile_ == "-");
        const platform::PrivateKey ownKey = host.staticKey();
        PairJoinRequest request{.payload = takePayload(host),
                                .ownKey = ownKey.publicKey(),
                                .receivePort = receivePort(host),
                                .timeout = timeout_,
                                .ownName = host.computerName.get()};
        static_cast<void>(checkPayload(request.payload, request.ownKey)); // before anything of it is shown
        host.output.message("pairing with " + forDisplay(request.payload.peer_hostname) + " at " +
                            forDisplay(request.payload.peer_ip));
        PairJoinResult joined = host.tasks.run(joinPairing(host.system, std::move(request)));
        const std::optional<host::Meeting> met = host::PairedPhones(host).meet(joined.computer.peer_ip);
        host.output.event("introduction", {{"confirmation_code", joined.confirmationCode}});
        host.output.result("Confirmation code: " + joined.confirmationCode);
        confirmation.require(joined.computer.peer_hostname);
        recordPaired(host, std::move(joined.computer), met);
    }

    /// Where the other computer will send its files.
    [[nodiscard]] std::uint16_t receivePort(Host& host) const {
        if (portOption_->count() > 0 || listenPort_ != defaultPort) {
            return listenPort_;
        }
        return host.tasks.run(host::findServicePort(host)).value_or(listenPort_);
    }

    PairingPayload takePayload(Host& host) {
        if (!payloadFile_.empty()) {
            return payloadFromFile(host, payloadFile_);
        }
        if (!picture_.empty()) {
            return payloadFromPicture(host, picture_);
        }
        host.output.message("looking for the computer that shows " + code_);
        return host.tasks.run(findPairingComputer(host.system.services, host.system.clock, code_, timeout_));
    }

    std::string payloadFile_;
    std::string picture_;
    std::string code_;
    std::uint16_t listenPort_ = defaultPort;
    CLI::Option* portOption_ = nullptr; ///< the parser's
    Seconds timeout_ = 30s;
    bool yes_ = false;
    bool leavesService_ = false;
};

} // namespace

std::unique_ptr<Command> makeJoinCommand(CLI::App& program) {
    return std::make_unique<JoinCommand>(program);
}

} // namespace orlinth::cli
