#include "OrlinthHost/Sending/Delivery.h"

#include "OrlinthHost/Sending/PhoneTimeouts.h"
#include "OrlinthHost/Sending/PushService.h"
#include "base/Text.h"

#include <utility>

namespace orlinth::host {

namespace {

SendTerms termsOf(const DeliveryRequest& request) {
    return {.peer = request.phone,
            .staticKey = request.ownKey,
            .warmConnectTimeout = request.times.warm,
            .postWakeConnectTimeout = request.times.wake,
            .postWakeAttemptTimeout = request.times.attempt,
            .postWakeRetryInterval = request.times.retry,
            .fcmBaseURL = pushServiceURL(),
            .progress = request.progress,
            .mayWake = request.mayWake,
            .handshakeLimit = handshakeLimit,
            .silenceLimit = request.silenceLimit,
            .farewellLimit = farewellLimit,
            .keepAlive = phoneKeepAlive};
}

} // namespace

Task<Delivered> deliver(platform::System& system, DeliveryRequest request) {
    using Farewell = WireConnection::Farewell;
    const SendTerms terms = termsOf(request);
    for (int offer = 1;; ++offer) {
        SendOutcome outcome = co_await sendPrepared(system, request.file, terms);
        switch (outcome.farewell) {
        case Farewell::closed:
            co_return Delivered{.sent = std::move(outcome.sent), .isConfirmed = true};
        case Farewell::acknowledged:
            co_return Delivered{.sent = std::move(outcome.sent), .isConfirmed = false};
        case Farewell::brokeOff:
        case Farewell::silent:
            break;
        }
        ++request.inDoubt.count;
        if (offer >= request.offersAtOnce) {
            throw DeliveryInDoubt();
        }
        if (request.onAgain) {
            request.onAgain();
        }
    }
}

std::string unconfirmedRemark(const std::string& phone, const std::string& file) {
    return forDisplay(phone) + " has received every byte of " + forDisplay(file) + " but did not confirm the file.";
}

} // namespace orlinth::host
