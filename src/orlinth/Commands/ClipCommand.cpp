#include "OrlinthHost/HumanText.h"
#include "OrlinthHost/Phones/PeerSelection.h"
#include "OrlinthHost/Sending/TextDelivery.h"
#include "OrlinthHost/Service/ServiceControlClient.h"
#include "base/Text.h"
#include "orlinth/Commands/Command.h"
#include "orlinth/Commands/TextSource.h"
#include "orlinth/Reporting/Hints.h"
#include "orlinth/Reporting/Terminal.h"

#include <algorithm>
#include <unistd.h>

namespace orlinth::cli {

namespace {

/// Tells people and scripts what became of the text.
class ClipReporter {
public:
    ClipReporter(Output& output, std::string to, std::size_t textBytes)
        : output_(output), to_(std::move(to)), textBytes_(textBytes) {}

    /// Puts the hooks in; this object outlives the request.
    void watch(OneOffRequest& request) {
        request.onWaking = [this] { output_.message("waking " + to_); };
        request.onSent = [this] { sent_ = true; };
    }

    void tellComplete(OneOffEnd end) {
        output_.event("complete", context());
        output_.result("sent " + host::humanSize(static_cast<std::int64_t>(textBytes_)) + " of text to " +
                       forDisplay(to_));
        if (end == OneOffEnd::brokeOff) {
            output_.message(to_ + " broke the connection off before it had the whole text; it may not have arrived.");
        } else if (end == OneOffEnd::silent) { // nobody promises an answer
            output_.message(to_ + " has neither answered nor closed the connection.");
        }
    }

    void tellFailure(const std::string& text, const std::string& hint) {
        const std::string what = "The text was not sent to " + to_ + ".";
        output_.failure(text, hint.empty() ? what : what + " " + hint, context());
    }

    void tellInterrupted(const Interrupted& interrupted) {
        if (sent_) {
            output_.failure(interrupted.description(), "The text had been sent by then.", context());
        } else {
            tellFailure(interrupted.description(), "");
        }
    }

private:
    [[nodiscard]] Json context() const { return {{"to", to_}}; }

    Output& output_;
    std::string to_;
    std::size_t textBytes_;
    bool sent_ = false;
};

/// What stands there may be a secret; the error does not repeat it.
CLI::Validator onlyDash() {
    const auto check = [](std::string& text) -> std::string {
        return text == "-" ? "" : "only '-', for standard input, may stand here; a text goes with --text";
    };
    return {check, ""};
}

CLI::Validator mimeValidator() {
    const auto check = [](std::string& text) -> std::string {
        const auto isOdd = [](char c) { return c <= ' ' || c > '~'; };
        const bool valid = text.find('/') != std::string::npos && std::none_of(text.begin(), text.end(), isOdd);
        return valid ? "" : "'" + text + "' is not a MIME type, as text/plain is one";
    };
    return {check, ""};
}

constexpr const char* noService = "the service does not run, so no text is kept";

/// The lines of a text, made fit for a terminal one by one.
std::string linesForTerminal(std::string_view text) {
    std::string shown;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        shown += madeVisible(text.substr(0, end));
        if (end == text.size()) {
            break;
        }
        shown += '\n';
        text.remove_prefix(end + 1);
    }
    return shown;
}

/// The last text that the service has received: on a terminal with nothing that could steer it, else as it is.
void printLastText(Host& host) {
    const host::LastTextAnswer answer = host.tasks.run(host::askServiceForLastText(host));
    if (!answer.isServiceThere) {
        throw host::HostError(noService, hintToStartService(host));
    }
    if (!answer.text) {
        throw host::HostError("the service has no text",
                              "It keeps the last one that a phone has sent, up to 1 MiB, for 24 hours.");
    }
    const ByteView bytes = answer.text->text.reveal();
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    if (host.output.isJson()) {
        host.output.event(
            "clipboard",
            {{"text", text}, {"from", answer.text->from}, {"received_epoch_ms", toNumber(answer.text->received)}});
    } else if (isTerminal(STDOUT_FILENO)) {
        host.output.page(linesForTerminal(text));
    } else {
        host.output.content(text);
    }
}

void forgetLastText(Host& host) {
    const std::optional<bool> isForgotten = host.tasks.run(host::askServiceToForgetText(host));
    if (!isForgotten) {
        throw host::HostError(noService, hintToStartService(host));
    }
    host.output.event("forgotten", {{"found", *isForgotten}});
    host.output.result(*isForgotten ? "forgot the last text" : "there was no text to forget");
}

class ClipCommand final : public Command {
public:
    explicit ClipCommand(CLI::App& program)
        : Command(program.add_subcommand(
              "clip", "Send a text to a phone's clipboard: the desktop's own, or another. Or print the last "
                      "text that came from a phone.")) {
        CLI::Option* to =
            parser()
                .add_option("--to", selector_,
                            "Which phone: its name, or the beginning of its name or key, in any letter case. "
                            "Default: the phone of the settings, else the one last sent to, else the one paired last.")
                ->type_name("SELECTOR")
                ->check(notEmpty())
                ->take_last()
                ->configurable(false);
        CLI::Option* text =
            addText(
                "--text", text_, "TEXT",
                "What to send. Other users of this computer can see it while the program runs: for a secret, use -.")
                ->configurable(false);
        CLI::Option* input =
            parser()
                .add_option(
                    "INPUT", source_,
                    "\"-\": send what standard input holds, as it is. Default: what is on the desktop's clipboard.")
                ->type_name("")
                ->check(onlyDash())
                ->excludes(text)
                ->configurable(false);
        CLI::Option* last =
            parser()
                .add_flag("--last", isForLast_,
                          "Print the last text that the service has received from a phone: at most 1 MiB, for 24 "
                          "hours. It is there whether or not it has reached the clipboard.")
                ->excludes(to, text, input)
                ->configurable(false);
        parser()
            .add_flag("--forget", isToForget_, "Have the service forget that text.")
            ->excludes(to, text, input, last)
            ->configurable(false);
        addText("--mime", mime_, "TYPE", "What the text is.")->check(mimeValidator())->capture_default_str();
        addSeconds("--warm-timeout", times_.warm, "How long the first attempt to connect may take; 0: no limit.");
        addSeconds("--wake-timeout", times_.wake,
                   "How long to keep trying after waking the phone; 0: try once, without a limit.");
        addSeconds(
            "--timeout", times_.answer,
            "How long the phone may take to answer once the text is sent; silence counts as delivery. Sending may "
            "take as long, and a second more for each 250 kB. 0: no limit.");
        addFind(find_);
        addJsonFlag("Print events as JSON, one object a line.");
        addQuietFlag("No messages but failures.");
    }

    int run(Host& host) override {
        if (isForLast_) {
            printLastText(host);
            return 0;
        }
        if (isToForget_) {
            forgetLastText(host);
            return 0;
        }
        const platform::PrivateKey ownKey = host.staticKey();
        const PeerRecord peer =
            (selector_.empty() ? host::defaultPeer(host, ownKey.publicKey(), host::PeerUse::connection)
                               : host::selectPeer(host, selector_, ownKey.publicKey(), host::PeerUse::connection))
                .record;
        const std::string text = chooseText(host);
        ClipReporter reporter(host.output, peer.peer_hostname, text.size());
        OneOffRequest request = host::textRequest(peer, ownKey, times_, text.size());
        reporter.watch(request);
        try {
            reporter.tellComplete(host.tasks.run(deliverText(host, find_, text, mime_, std::move(request))));
            return 0;
        } catch (const Interrupted& interrupted) {
            reporter.tellInterrupted(interrupted);
            throw;
        } catch (const std::exception& error) {
            reporter.tellFailure(describe(error), hintForSending(host, error, peer));
            return 1;
        }
    }

private:
    [[nodiscard]] std::string chooseText(Host& host) const {
        std::string text = text_;
        if (!source_.empty()) {
            text = textFromStandardInput();
        } else if (text_.empty()) {
            text = textFromClipboard(host);
        }
        host::requireText(text);
        return text;
    }

    std::string selector_;
    std::string text_;
    std::string source_; ///< "-" or nothing
    std::string mime_ = "text/plain";
    bool isForLast_ = false;
    bool isToForget_ = false;
    host::TextTimes times_;
    host::FindSetting find_ = host::FindSetting::known;
};

} // namespace

std::unique_ptr<Command> makeClipCommand(CLI::App& program) {
    return std::make_unique<ClipCommand>(program);
}

} // namespace orlinth::cli
