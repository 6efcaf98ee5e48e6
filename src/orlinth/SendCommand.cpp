#include "OrlinthCore/Sending/SendTransfer.h"
#include "base/Text.h"
#include "orlinth/Command.h"
#include "orlinth/HandshakeLimit.h"
#include "orlinth/Hints.h"
#include "orlinth/HumanText.h"
#include "orlinth/PeerSelection.h"
#include "orlinth/PushService.h"
#include "orlinth/SourceMemory.h"

#include <algorithm>

namespace orlinth::host {

namespace {

/// The four times of a send, in seconds.
struct SendTimes {
    double warm = 5;
    double wake = 30;
    double attempt = 5;
    double retry = 1;
};

/// Turns what happens to one file into events, the progress bar, and the handshake's time limit.
class SendReporter final : public SendProgress {
public:
    SendReporter(Output& output, platform::Clock& clock, HandshakeLimit& handshake, std::string file, std::string to)
        : output_(output),
          clock_(clock),
          handshake_(handshake),
          file_(std::move(file)),
          to_(std::move(to)),
          name_(file_) {}

    void onFile(const std::string& name, std::int64_t size, const std::string& mime) override {
        name_ = name;
        Json fields = context();
        fields["name"] = name;
        fields["size"] = size;
        fields["mime"] = mime;
        output_.event("file", std::move(fields));
        output_.message("sending " + name + " (" + humanSize(size) + ") to " + to_);
    }

    void onConnected() override {
        handshake_.begin();
        output_.event("connected", context());
    }

    void onWaking() override {
        output_.event("waking", context());
        output_.message("waking " + to_);
    }

    void onHandshakeComplete() override {
        handshake_.end();
        output_.event("handshake", context());
    }

    void onProgress(std::int64_t bytesSent, std::int64_t totalBytes) override {
        tellProgress(bytesSent, totalBytes);
        if (!begun_) {
            begun_ = true;
            if (bytesSent > 0) {
                output_.message("going on from " + humanSize(bytesSent));
            }
            output_.bar().begin(madeVisible(name_), bytesSent, totalBytes);
        } else {
            output_.bar().update(bytesSent, totalBytes);
        }
    }

    void onFarewell(WireConnection::Farewell farewell) override {
        brokeOff_ = farewell == WireConnection::Farewell::brokeOff;
    }

    /// Tells the outcome, once the core has let go of the file.
    void tellComplete(const SentFile& sent) {
        Json fields = context();
        fields["bytes_sent"] = sent.bytesSent;
        fields["advertised_size"] = sent.advertisedSize;
        fields["resumed_from_offset"] = sent.resumedFromOffset;
        fields["duration_seconds"] = sent.durationSeconds;
        output_.event("complete", std::move(fields));
        const std::int64_t now = sent.bytesSent - sent.resumedFromOffset;
        std::string line = "sent " + madeVisible(name_) + " to " + madeVisible(to_) + ": " + humanSize(sent.bytesSent);
        line += " in " + humanDuration(sent.durationSeconds);
        if (sent.durationSeconds > 0 && now > 0) {
            line += ", " + humanRate(static_cast<double>(now) / sent.durationSeconds);
        }
        output_.result(line);
        if (sent.bytesSent != sent.advertisedSize) {
            output_.message(name_ + (sent.bytesSent > sent.advertisedSize ? " grew" : " shrank") +
                            " while it was sent: " + std::to_string(sent.bytesSent) + " bytes instead of " +
                            std::to_string(sent.advertisedSize) + ". Send it again if that was not meant.");
        }
        if (brokeOff_) {
            output_.message(to_ + " broke the connection off after the end of the file.");
        }
    }

    void tellFailure(const std::string& text, const std::string& hint) {
        const std::string what = name_ + " was not sent to " + to_ + ".";
        output_.failure(text, hint.empty() ? what : what + " " + hint, context());
    }

private:
    /// At the start, at the end, and ten times a second: a script that reads slowly must not slow the transfer down.
    void tellProgress(std::int64_t bytesSent, std::int64_t totalBytes) {
        constexpr double secondsBetween = 0.1;
        const platform::Clock::Instant now = clock_.now();
        if (begun_ && bytesSent != totalBytes && (now - lastTold_).count() < secondsBetween) {
            return;
        }
        lastTold_ = now;
        Json fields = context();
        fields["bytes_sent"] = bytesSent;
        fields["total_bytes"] = totalBytes;
        output_.event("progress", std::move(fields));
    }

    /// What every event of this file carries, so that those of several can be told apart.
    [[nodiscard]] Json context() const { return {{"file", file_}, {"to", to_}}; }

    Output& output_;
    platform::Clock& clock_;
    HandshakeLimit& handshake_;
    std::string file_; ///< as it was named on the command line
    std::string to_;
    std::string name_;
    bool begun_ = false;
    platform::Clock::Instant lastTold_{0};
    bool brokeOff_ = false;
};

class SendCommand final : public Command {
public:
    explicit SendCommand(CLI::App& program) : Command(program.add_subcommand("send", "Send files to paired phones.")) {
        parser()
            .add_option("--to", selectors_,
                        "Which phone: its name, or the beginning of its name or key, in any letter case. "
                        "May be given several times. Default: the phone paired last.")
            ->type_name("SELECTOR")
            ->allow_extra_args(false)
            ->check(notEmpty())
            ->configurable(false);
        addSeconds("--warm-timeout", times_.warm, "How long the first attempt to connect may take; 0: no limit.");
        addSeconds(
            "--wake-timeout", times_.wake,
            "How long attempts go on after a wake push; 0: none is made. A phone that does not answer is woken if its "
            "push token is known.");
        addSeconds("--attempt-timeout", times_.attempt, "How long each of those attempts may take; 0: no limit.");
        addSeconds("--retry-interval", times_.retry, "The pause between those attempts.");
        addJsonFlag("Print events as JSON, one object a line.");
        addQuietFlag("No progress bar and no messages but failures.");
        parser()
            .add_option("FILE", files_, "The files to send, one after the other; symbolic links are followed.")
            ->type_name("")
            ->required()
            ->check(notEmpty())
            ->configurable(false);
    }

    int run(Host& host) override {
        const platform::PrivateKey ownKey = host.staticKey();
        const std::vector<CheckedPeer> peers = choosePeers(host, ownKey.publicKey());
        InFlightJournal journal(host.system.files, host.system.directories);
        int failed = 0;
        for (const CheckedPeer& peer : peers) {
            for (const std::string& file : files_) {
                failed += sendOne(host, ownKey, journal, peer.record, file) ? 0 : 1;
            }
        }
        if (failed > 0 && peers.size() * files_.size() > 1) {
            host.output.message(std::to_string(failed) + " of " + std::to_string(peers.size() * files_.size()) +
                                " transfers failed.");
        }
        return failed == 0 ? 0 : 1;
    }

private:
    /// All of them, before anything is sent; each once.
    [[nodiscard]] std::vector<CheckedPeer> choosePeers(const Host& host, const platform::PublicKey& ownKey) const {
        if (selectors_.empty()) {
            return {mostRecentPeer(host, ownKey)};
        }
        std::vector<CheckedPeer> chosen;
        for (const std::string& selector : selectors_) {
            CheckedPeer peer = selectPeer(host, selector, ownKey);
            const auto isSame = [&peer](const CheckedPeer& other) { return other.key == peer.key; };
            if (std::none_of(chosen.begin(), chosen.end(), isSame)) {
                chosen.push_back(std::move(peer));
            }
        }
        return chosen;
    }

    /// Returns whether it was sent; tells the failure if not. @throws Interrupted
    [[nodiscard]] bool sendOne(Host& host, const platform::PrivateKey& ownKey, InFlightJournal& journal,
                               const PeerRecord& peer, const std::string& file) const {
        HandshakeLimit handshake(host.system.clock, host.tasks);
        SendReporter reporter(host.output, host.system.clock, handshake, file, peer.peer_hostname);
        const std::string where = peer.peer_hostname + " (" + addressOf(peer) + ")";
        try {
            SourceMemory sources(host.system, journal);
            sources.beforeSending(file);
            const SentFile sent = host.tasks.run(sendOneFile(host.system, {.fileURL = file,
                                                                           .peer = peer,
                                                                           .staticKey = ownKey,
                                                                           .journal = journal,
                                                                           .warmConnectTimeout = times_.warm,
                                                                           .postWakeConnectTimeout = times_.wake,
                                                                           .postWakeAttemptTimeout = times_.attempt,
                                                                           .postWakeRetryInterval = times_.retry,
                                                                           .fcmBaseURL = pushServiceURL(),
                                                                           .progress = &reporter}));
            sources.afterSending();
            reporter.tellComplete(sent);
            return true;
        } catch (const Interrupted& interrupted) {
            reporter.tellFailure(interrupted.description(), "Send it again: it goes on where it stopped.");
            throw;
        } catch (const std::exception& error) {
            if (handshake.hasExpired()) {
                const auto late = SendError::noiseHandshakeFailed(HandshakeLimit::text());
                reporter.tellFailure(late.description(), hintForSending(late, where));
            } else {
                reporter.tellFailure(describe(error), hintForSending(error, where));
            }
            return false;
        }
    }

    std::vector<std::string> selectors_;
    std::vector<std::string> files_;
    SendTimes times_;
};

} // namespace

std::unique_ptr<Command> makeSendCommand(CLI::App& program) {
    return std::make_unique<SendCommand>(program);
}

} // namespace orlinth::host
