#include "OrlinthHost/Sending/PhoneWake.h"

#include "OrlinthCore/Sending/FcmWake.h"
#include "OrlinthHost/HostError.h"
#include "OrlinthHost/Sending/PushService.h"
#include "base/Text.h"

namespace orlinth::host {

Task<> wakePhone(Home& home, PeerRecord phone) {
    if (phone.peer_fcm_token.empty()) {
        throw HostError("no push token is recorded for '" + forDisplay(phone.peer_hostname) + "'",
                        "Without one a phone cannot be woken. `orlinth peers add --fcm-token` records it.");
    }
    FcmWake wake({.files = home.system.files,
                  .clock = home.system.clock,
                  .https = home.system.https,
                  .queues = home.system.queues},
                 FcmWake::defaultServiceAccountURL(home.system.directories), pushServiceURL());
    co_await wake.sendWake(phone.peer_fcm_token);
}

} // namespace orlinth::host
