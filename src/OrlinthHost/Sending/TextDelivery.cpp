#include "OrlinthHost/Sending/TextDelivery.h"

#include "OrlinthHost/HostError.h"
#include "OrlinthHost/Phones/LastPhone.h"
#include "OrlinthHost/Phones/SharedPeers.h"
#include "OrlinthHost/Reach/Approach.h"
#include "OrlinthHost/Sending/PhoneTimeouts.h"
#include "OrlinthHost/Sending/PushService.h"
#include "base/Text.h"

#include <asio/this_coro.hpp>

#include <cmath>
#include <functional>
#include <utility>

namespace orlinth::host {
namespace {

/// Hands on how far an attempt is to the search beside it, which outlives the request.
OneOffRequest watchedBy(Approach& approach, OneOffRequest request) {
    request.onUnreached = [&approach](const std::exception& error) { approach.onUnreached(error); };
    request.onConnected = [&approach] { approach.onConnected(); };
    request.onWaking = [&approach, tell = std::move(request.onWaking)] {
        approach.onWaking();
        if (tell) {
            tell();
        }
    };
    request.onHandshakeComplete = [&approach, tell = std::move(request.onHandshakeComplete)] {
        approach.onProved();
        if (tell) {
            tell();
        }
    };
    return request;
}

/// How long a phone may take for the text, in seconds that read well; 0: as long as it likes.
Seconds timeToSend(Seconds answerLimit, std::size_t textBytes) {
    constexpr double slowestBytesPerSecond = 250'000; // a phone that takes less does not take anything
    constexpr double tenths = 10;
    const double forBytes = std::ceil(static_cast<double>(textBytes) / slowestBytesPerSecond * tenths) / tenths;
    return answerLimit <= 0s ? 0s : answerLimit + Seconds(forBytes);
}

} // namespace

void requireText(std::string_view text) {
    if (text.empty()) {
        throw HostError("there is no text to send");
    }
    if (!isUtf8(text)) {
        throw HostError("the text is not UTF-8", "`orlinth send` takes files of any kind.");
    }
}

OneOffRequest textRequest(PeerRecord peer, const platform::PrivateKey& ownKey, const TextTimes& times,
                          std::size_t textBytes) {
    OneOffRequest request{.peer = std::move(peer),
                          .staticKey = ownKey,
                          .warmConnectTimeout = times.warm,
                          .postWakeConnectTimeout = times.wake,
                          .fcmBaseURL = pushServiceURL(),
                          .handshakeLimit = handshakeLimit,
                          .sendLimit = timeToSend(times.answer, textBytes),
                          .answerLimit = times.answer};
    if (times.answer <= 0s) { // else the limits of the steps are stricter, and say more
        request.keepAlive = phoneKeepAlive;
    }
    return request;
}

Task<OneOffEnd> deliverText(Home& home, FindSetting find, std::string text, std::string mime, OneOffRequest request) {
    Finder finder(home, find);
    Approach approach(&finder, request.peer, MaySweep::yes, {});
    const OneOffRequest watched = watchedBy(approach, std::move(request));
    const std::function<Task<OneOffEnd>()> send = [&] {
        OneOffRequest next = watched;
        next.peer = approach.phone();
        return sendClipboard(home.system, text, mime, std::move(next));
    };
    OneShot<OneOffEnd> outcome;
    co_await platform::settle(outcome, approach.run(send));
    co_await asio::this_coro::reset_cancellation_state(asio::disable_cancellation());
    approach.abandon();
    co_await finder.finish();
    const OneOffEnd end = outcome.take();
    if (end != OneOffEnd::brokeOff && LastPhone(home).remember(watched.peer.peer_pubkey)) {
        updateSharedPeers(home);
    }
    co_return end;
}

} // namespace orlinth::host
