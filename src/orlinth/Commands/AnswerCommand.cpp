#include "OrlinthHost/HostError.h"
#include "OrlinthHost/Service/ServiceControlClient.h"
#include "orlinth/Commands/Command.h"

namespace orlinth::cli {

namespace {

/// `accept` and `decline`.
class AnswerCommand final : public Command {
public:
    AnswerCommand(CLI::App& program, bool accepts)
        : Command(accepts ? program.add_subcommand("accept", "Take a file about which the service asks.")
                          : program.add_subcommand("decline", "Decline a file about which the service asks.")),
          accepts_(accepts) {
        parser()
            .add_option("OFFER", offer_, "The file's number, as `orlinth status` shows it.")
            ->type_name("")
            ->required()
            ->check(numberOf("an offered file"));
        addJsonFlag("Print JSON, one object a line.");
        addQuietFlag("No messages but failures.");
    }

    int run(Host& host) override {
        const std::string number = std::to_string(offer_);
        const std::optional<bool> isFound =
            host.tasks.run(host::askServiceToAnswerOffer(host, host::OfferNumber{offer_}, accepts_));
        if (!isFound) {
            throw host::HostError("the service does not run, so that no phone offers anything");
        }
        if (!*isFound) {
            throw host::HostError("no file " + number + " waits for an answer",
                                  "`orlinth status` lists those that do. The first answer counts.");
        }
        const char* const what = accepts_ ? "accepted" : "declined";
        host.output.event(what, {{"offer", offer_}});
        host.output.result(what + std::string(" file ") + number);
        return 0;
    }

private:
    const bool accepts_;
    std::uint64_t offer_ = 0;
};

} // namespace

std::unique_ptr<Command> makeAcceptCommand(CLI::App& program) {
    return std::make_unique<AnswerCommand>(program, true);
}

std::unique_ptr<Command> makeDeclineCommand(CLI::App& program) {
    return std::make_unique<AnswerCommand>(program, false);
}

} // namespace orlinth::cli
