#include "orlinth/Commands/ServiceConsent.h"

#include "OrlinthCore/Share/ServiceActivation.h"
#include "OrlinthHost/Service/ServiceControlClient.h"

namespace orlinth::cli {

void enableService(Host& host) {
    using Outcome = platform::ServiceStart::Outcome;
    if (host.tasks.run(host::isServiceRunning(host))) {
        return;
    }
    const bool isOurs = host.system.directories.areUsual(); // a service manager starts no service of another folder
    platform::ServiceStart start =
        isOurs ? host.system.userServices.enable(ServiceActivation::service()) : platform::ServiceStart();
    if (start.outcome == Outcome::running && !host.tasks.run(host::isServiceRunning(host))) {
        start.outcome = Outcome::unknown; // a condition of the unit does not hold, for instance for root
    }
    switch (start.outcome) {
    case Outcome::running:
        host.output.message("The Orlinth service is running now, and starts whenever you log in. To switch it off: "
                            "`systemctl --user disable --now orlinth`");
        return;
    case Outcome::failed:
        host.output.message("The Orlinth service cannot be started: " + start.problem +
                            ". To see what is wrong: `systemctl --user status orlinth`");
        return;
    case Outcome::unknown:
        host.output.message("The Orlinth service is not running. To receive files, and to send what you share, run "
                            "`orlinth serve`.");
        return;
    }
}

} // namespace orlinth::cli
