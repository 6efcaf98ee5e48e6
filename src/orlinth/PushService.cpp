#include "orlinth/PushService.h"

#include "OrlinthCore/Sending/FcmWake.h"

#include <cstdlib>

namespace orlinth::host {

std::string pushServiceURL() {
    const char* chosen = std::getenv("ORLINTH_FCM_BASE_URL");
    return chosen != nullptr && *chosen != '\0' ? chosen : FcmWake::defaultBaseURL;
}

std::string hintForPush(const std::exception_ptr& error) {
    using Case = FcmWake::Error::Case;
    constexpr const char* fallback = "Is this computer on the internet? The push goes through the push service.";
    try {
        if (error) {
            std::rethrow_exception(error);
        }
        return fallback;
    } catch (const FcmWake::Error& failure) {
        switch (failure.which()) {
        case Case::serviceAccountMissing:
            return "The key file of your push project belongs at " + failure.detail() +
                   ". To get one: Firebase console, Project settings, Service accounts, Generate new private key; "
                   "docs/wake.md goes through it step by step.";
        case Case::serviceAccountMalformed:
        case Case::privateKeyImport:
        case Case::sign:
            return "The key file of the push project is damaged, or it is another kind of file: docs/wake.md tells how "
                   "to get a new one.";
        case Case::oauthHTTP:
            return "The push project does not accept the key file. It may have been revoked, or this computer's clock "
                   "is wrong: docs/wake.md.";
        case Case::fcmHTTP:
            return failure.status() == 404 || failure.status() == 400
                       ? "The phone's push token is no longer valid, or belongs to another push project. Pair the "
                         "phone again."
                       : "The push service refuses to send: docs/wake.md lists the reasons.";
        case Case::transport:
            break;
        }
        return fallback;
    } catch (const std::exception&) {
        return fallback;
    }
}

} // namespace orlinth::host
