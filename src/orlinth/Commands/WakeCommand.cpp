#include "OrlinthHost/HostError.h"
#include "OrlinthHost/Phones/PeerSelection.h"
#include "OrlinthHost/Sending/PhoneWake.h"
#include "orlinth/Commands/Command.h"
#include "orlinth/Reporting/Hints.h"

#include <utility>

namespace orlinth::cli {

namespace {

/// `host` outlives the task.
Task<bool> push(Host& host, PeerRecord peer) {
    co_await host::wakePhone(host, std::move(peer));
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
        try {
            static_cast<void>(host.tasks.run(push(host, peer)));
        } catch (const Interrupted& interrupted) {
            host.output.failure(interrupted.description(), {}, context);
            throw;
        } catch (const host::HostError& error) {
            host.output.failure(error.description(), error.hint(), context);
            return 1;
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
