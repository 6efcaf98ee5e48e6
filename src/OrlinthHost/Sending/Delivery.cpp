#include "OrlinthHost/Sending/Delivery.h"

#include "OrlinthHost/Reach/Approach.h"
#include "OrlinthHost/Sending/PhoneTimeouts.h"
#include "OrlinthHost/Sending/PushService.h"
#include "base/Text.h"

#include <utility>

namespace orlinth::host {

namespace {

/// Hands on how far an attempt is, also to the search beside it.
class Watch final : public SendProgress {
public:
    /// Both outlive this; `to` may be null.
    Watch(Approach& approach, SendProgress* to) : approach_(approach), to_(to != nullptr ? *to : nobody_) {}

    void onFile(const std::string& name, std::int64_t size, const std::string& mime) override {
        to_.onFile(name, size, mime);
    }
    void onUnreached(const std::exception& error) override {
        approach_.onUnreached(error);
        to_.onUnreached(error);
    }
    void onConnected() override {
        approach_.onConnected();
        to_.onConnected();
    }
    void onWaking() override {
        approach_.onWaking();
        to_.onWaking();
    }
    void onHandshakeComplete() override {
        approach_.onProved();
        to_.onHandshakeComplete();
    }
    void onProgress(std::int64_t bytesSent, std::int64_t totalBytes) override { to_.onProgress(bytesSent, totalBytes); }
    void onComplete(const SentFile& result) override { to_.onComplete(result); }

private:
    Approach& approach_;
    SendProgress nobody_;
    SendProgress& to_;
};

SendTerms termsOf(const DeliveryRequest& request, const PeerRecord& phone, SendProgress& progress) {
    return {.peer = phone,
            .staticKey = request.ownKey,
            .warmConnectTimeout = request.times.warm,
            .postWakeConnectTimeout = request.times.wake,
            .postWakeAttemptTimeout = request.times.attempt,
            .postWakeRetryInterval = request.times.retry,
            .fcmBaseURL = pushServiceURL(),
            .progress = &progress,
            .mayWake = request.mayWake,
            .handshakeLimit = handshakeLimit,
            .silenceLimit = request.silenceLimit,
            .farewellLimit = farewellLimit,
            .keepAlive = phoneKeepAlive};
}

} // namespace

Task<Delivered> deliver(platform::System& system, DeliveryRequest request) {
    using Farewell = WireConnection::Farewell;
    Approach approach(request.finder, request.phone, request.maySweep, request.onMoved);
    Watch watch(approach, request.progress);
    const std::function<Task<SendOutcome>()> send = [&] {
        return sendPrepared(system, request.file, termsOf(request, approach.phone(), watch));
    };
    for (int offer = 1;; ++offer) {
        SendOutcome outcome = co_await approach.run(send);
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
