#include "OrlinthCore/Sending/FcmWake.h"
#include "OrlinthHost/Phones/PeerSelection.h"
#include "OrlinthHost/Sending/PushService.h"
#include "base/Text.h"
#include "orlinth/Commands/Command.h"
#include "orlinth/Reporting/Hints.h"

namespace orlinth::cli {

namespace {

/// `wake` outlives the task, which is run where it is made.
Task<bool> push(FcmWake& wake, std::string token) {
    co_await wake.sendWake(std::move(token));
    co_return true;
}

class WakeCommand final : public Command {
public:
    explicit WakeCommand(CLI::App& program)
        : Command(program.add_subcommand("wake", "Send the wake push to a phone, and nothing else.")) {
        parser()
            .add_option("SELECTOR", selector_,
                        "Which phone: its name, or the beginning of its name or key, in any letter case.")
            ->type_name("")
            ->required()
            ->check(notEmpty())
            ->configurable(false);
        addJsonFlag("Print events as JSON, one object a line.");
        addQuietFlag("No messages but failures.");
    }

    int run(Host& host) override {
        const PeerRecord peer = host::resolvePeer(host, selector_);
        const Json context{{"to", peer.peer_hostname}};
        if (peer.peer_fcm_token.empty()) {
            host.output.failure("no push token is recorded for '" + forDisplay(peer.peer_hostname) + "'",
                                "Without one a phone cannot be woken. `orlinth peers add --fcm-token` records it.",
                                context);
            return 1;
        }
        try {
            FcmWake wake({.files = host.system.files,
                          .clock = host.system.clock,
                          .https = host.system.https,
                          .queues = host.system.queues},
                         FcmWake::defaultServiceAccountURL(host.system.directories), host::pushServiceURL());
            static_cast<void>(host.tasks.run(push(wake, peer.peer_fcm_token)));
        } catch (const Interrupted& interrupted) {
            host.output.failure(interrupted.description(), {}, context);
            throw;
        } catch (const std::exception& error) {
            host.output.failure(describe(error), hintForPush(std::current_exception()), context);
            return 1;
        }
        host.output.event("complete", context);
        host.output.result("push accepted");
        return 0;
    }

private:
    std::string selector_;
};

} // namespace

std::unique_ptr<Command> makeWakeCommand(CLI::App& program) {
    return std::make_unique<WakeCommand>(program);
}

} // namespace orlinth::cli
