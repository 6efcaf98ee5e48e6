#include "OrlinthCore/Pairing/DeviceInfo.h"
#include "base/Text.h"
#include "orlinth/Commands/Command.h"

namespace orlinth::cli {

namespace {

class IdCommand final : public Command {
public:
    explicit IdCommand(CLI::App& program)
        : Command(program.add_subcommand("id", "Show this computer's identity; makes it on first use.")) {
        addJsonFlag("Print one JSON object: self_pubkey, hostname, data_dir, and name if the settings have one.");
    }

    int run(Host& host) override {
        const std::string publicKey = host.staticKey().publicKey().base64();
        const std::string hostName = DeviceInfo::hostnameString(host.system.interfaces);
        const std::string directory = host.dataDirectory().string();
        Json fields;
        fields["self_pubkey"] = publicKey;
        fields["hostname"] = hostName;
        fields["data_dir"] = directory;
        if (!host.computerName.empty()) {
            fields["name"] = host.computerName.get();
        }
        host.output.event("id", std::move(fields));
        host.output.result("public key   " + publicKey);
        host.output.result("host name    " + forDisplay(hostName));
        if (!host.computerName.empty()) {
            host.output.result("name         " + forDisplay(host.computerName.get()));
        }
        host.output.result("data folder  " + directory);
        return 0;
    }
};

} // namespace

std::unique_ptr<Command> makeIdCommand(CLI::App& program) {
    return std::make_unique<IdCommand>(program);
}

} // namespace orlinth::cli
