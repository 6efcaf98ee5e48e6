#include "OrlinthHost/Sending/TextDelivery.h"

#include "OrlinthHost/Phones/LastPhone.h"
#include "OrlinthHost/Phones/SharedPeers.h"
#include "OrlinthHost/Reach/Approach.h"

#include <asio/this_coro.hpp>

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

} // namespace

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
