#include "OrlinthHost/HostError.h"
#include "OrlinthHost/Service/ServiceControlClient.h"
#include "orlinth/Commands/Command.h"

namespace orlinth::cli {

namespace {

class CancelCommand final : public Command {
public:
    explicit CancelCommand(CLI::App& program)
        : Command(program.add_subcommand(
              "cancel", "End a transfer of the service, for good: the rest is neither received nor sent.")) {
        parser()
            .add_option("TRANSFER", transfer_, "The transfer's number, as `orlinth status` shows it.")
            ->type_name("")
            ->required()
            ->check(numberOf("a transfer"));
        addJsonFlag("Print JSON, one object a line.");
        addQuietFlag("No messages but failures.");
    }

    int run(Host& host) override {
        const std::string number = std::to_string(transfer_);
        const std::optional<bool> isFound =
            host.tasks.run(host::askServiceToCancel(host, host::TransferNumber{transfer_}));
        if (!isFound) {
            throw host::HostError("the service does not run, so that nothing of it is under way");
        }
        if (!*isFound) {
            throw host::HostError("there is no transfer " + number + " under way",
                                  "`orlinth status` lists those that are.");
        }
        host.output.event("cancelled", {{"transfer", transfer_}});
        host.output.result("cancelled transfer " + number);
        return 0;
    }

private:
    std::uint64_t transfer_ = 0;
};

} // namespace

std::unique_ptr<Command> makeCancelCommand(CLI::App& program) {
    return std::make_unique<CancelCommand>(program);
}

} // namespace orlinth::cli
