#include "OrlinthHost/Sending/Farewell.h"

#include "OrlinthCore/Sending/ClipboardSender.h"
#include "OrlinthHost/Phones/PeerSelection.h"
#include "platform/Cancelled.h"
#include "platform/Deadline.h"

#include <utility>

namespace orlinth::host {

namespace {

constexpr Seconds limit = 5s;

/// `system` outlives the task, which is run where it is made.
Task<> sendUnpair(platform::System& system, OneOffRequest request) {
    static_cast<void>(co_await sendOneOff(system, TransportMessage::unpair(), std::move(request)));
}

} // namespace

Task<Farewell> notifyRemoved(Home& home, const platform::PrivateKey& ownKey, PeerRecord phone) {
    Farewell farewell;
    try {
        OneOffRequest request{.peer = checkPeer(phone, ownKey.publicKey(), PeerUse::connection).record,
                              .staticKey = ownKey,
                              .warmConnectTimeout = limit,
                              .postWakeConnectTimeout = limit,
                              .mayWake = false, // nobody is woken for this
                              .onSent = [&farewell] { farewell.wasSent = true; }};
        Task<> sending = sendUnpair(home.system, std::move(request));
        const bool hasEnded = co_await platform::endsWithin(home.system.clock, limit, std::move(sending));
        farewell.problem = hasEnded ? "" : "it did not answer";
    } catch (const std::exception& error) {
        if (platform::isCancellation(error)) {
            throw;
        }
        farewell.problem = describe(error);
    }
    if (farewell.wasSent) {
        farewell.problem.clear();
    }
    co_return farewell;
}

} // namespace orlinth::host
