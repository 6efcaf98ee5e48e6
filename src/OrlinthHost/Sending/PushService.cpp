#include "OrlinthHost/Sending/PushService.h"

#include "OrlinthCore/Sending/FcmWake.h"

#include <cstdlib>

namespace orlinth::host {

std::string pushServiceURL() {
    const char* chosen = std::getenv("ORLINTH_FCM_BASE_URL");
    return chosen != nullptr && *chosen != '\0' ? chosen : FcmWake::defaultBaseURL;
}

} // namespace orlinth::host
