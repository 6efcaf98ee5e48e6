#include "orlinth/PushService.h"

#include "OrlinthCore/Sending/FcmWake.h"

#include <cstdlib>

namespace orlinth::host {

std::string pushServiceURL() {
    const char* chosen = std::getenv("ORLINTH_FCM_BASE_URL");
    return chosen != nullptr && *chosen != '\0' ? chosen : FcmWake::defaultBaseURL;
}

std::string hintForPush(const std::string& text) {
    const auto says = [&text](const char* words) { return text.find(words) != std::string::npos; };
    const std::string missing = "service account JSON missing at ";
    if (const std::size_t at = text.find(missing); at != std::string::npos) {
        return "The key file of your push project belongs at " + text.substr(at + missing.size()) +
               ". To get one: Firebase console, Project settings, Service accounts, Generate new private key; "
               "docs/wake.md goes through it step by step.";
    }
    if (says("service account JSON malformed") || says("RSA private key import failed") || says("JWT sign failed")) {
        return "The key file of the push project is damaged, or it is another kind of file: docs/wake.md tells how to "
               "get a new one.";
    }
    if (says("OAuth2 HTTP")) {
        return "The push project does not accept the key file. It may have been revoked, or this computer's clock is "
               "wrong: docs/wake.md.";
    }
    if (says("FCM HTTP 404") || says("FCM HTTP 400")) {
        return "The phone's push token is no longer valid, or belongs to another push project. Pair the phone again.";
    }
    if (says("FCM HTTP")) {
        return "The push service refuses to send: docs/wake.md lists the reasons.";
    }
    return "Is this computer on the internet? The push goes through the push service.";
}

} // namespace orlinth::host
