#include "OrlinthHost/Phones/PeerSelection.h"
#include "OrlinthHost/Sending/SendRun.h"
#include "orlinth/Commands/Command.h"
#include "orlinth/Reporting/SendReporter.h"

namespace orlinth::cli {

namespace {

class SendCommand final : public Command {
public:
    explicit SendCommand(CLI::App& program) : Command(program.add_subcommand("send", "Send files to paired phones.")) {
        addPhones(selectors_);
        addSeconds("--warm-timeout", times_.warm, "How long the first attempt to connect may take; 0: no limit.");
        addSeconds(
            "--wake-timeout", times_.wake,
            "How long attempts go on after a wake push; 0: none is made. A phone that does not answer is woken if its "
            "push token is known.");
        addSeconds("--attempt-timeout", times_.attempt, "How long each of those attempts may take; 0: no limit.");
        addSeconds("--retry-interval", times_.retry, "The pause between those attempts.");
        addFind(find_);
        addJsonFlag("Print events as JSON, one object a line.");
        addQuietFlag("No progress bar and no messages but failures.");
        parser()
            .add_option("FILE", files_,
                        "The files to send, in this order and several at once where the phone takes them; symbolic "
                        "links are followed.")
            ->type_name("")
            ->required()
            ->check(notEmpty())
            ->configurable(false);
    }

    int run(Host& host) override {
        const platform::PrivateKey ownKey = host.staticKey();
        const std::vector<host::CheckedPeer> peers =
            host::selectPeers(host, selectors_, ownKey.publicKey(), host::PeerUse::connection);
        std::vector<PeerRecord> phones;
        for (const host::CheckedPeer& peer : peers) {
            phones.push_back(peer.record);
        }
        const std::size_t transfers = phones.size() * files_.size();
        InFlightJournal journal(host.system.files, host.system.directories);
        SendReporter reporter(host.output, host);
        host::SendRun run(host, ownKey, journal, times_, files_, std::move(phones), reporter, find_);
        int failed = 0;
        try {
            failed = host.tasks.run(run.run());
        } catch (const Interrupted& interrupted) {
            reporter.tellInterrupted(interrupted.description(), run.interruption());
            throw;
        }
        if (failed > 0 && transfers > 1) {
            host.output.message(std::to_string(failed) + " of " + std::to_string(transfers) + " transfers failed.");
        }
        return failed == 0 ? 0 : 1;
    }

private:
    std::vector<std::string> selectors_;
    std::vector<std::string> files_;
    host::SendTimes times_;
    host::FindSetting find_ = host::FindSetting::known;
};

} // namespace

std::unique_ptr<Command> makeSendCommand(CLI::App& program) {
    return std::make_unique<SendCommand>(program);
}

} // namespace orlinth::cli
