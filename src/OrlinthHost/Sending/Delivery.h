#pragma once

#include "OrlinthCore/Sending/SendTransfer.h"
#include "OrlinthHost/Reach/Finder.h"
#include "OrlinthHost/Sending/SendTimes.h"
#include "base/Error.h"

#include <functional>
#include <string>

namespace orlinth::host {

/// Brings one file to one phone, and knows when it is there: the one rule for whoever sends.
///
/// When the end of a file has been sent, megabytes of it may still lie in the buffers of both systems. So a file counts
/// as delivered only when the phone has closed the connection in good order behind it, or has at least acknowledged
/// every byte for `farewellLimit` without a word. Everything else behind the end (a reset, silence with bytes that
/// never came through) leaves it in doubt: it is offered again at once, under the same id, by which a phone can know
/// what it has.

/// The connection to the phone broke behind the end of the file, as often as it was offered: it may have arrived.
class DeliveryInDoubt : public Error {
public:
    DeliveryInDoubt() : Error(std::string(text)) {}
    static constexpr const char* text = "the connection broke at the very end; the file may or may not have arrived";
};

/// How often a file is offered to a phone, and how often that has ended in doubt.
struct OffersInDoubt {
    /// As often as a person who waits for it has patience.
    static constexpr int limitOfCommands = 2;
    /// In the outbox nobody waits: two at once, and another one after a pause.
    static constexpr int limitOfOutbox = 3;
    static constexpr int atOnce = 2;

    int count = 0;
};

struct Delivered {
    SentFile sent;
    /// The phone has closed in good order. Else its system has every byte, but the phone never said so.
    bool isConfirmed = true;
};

/// What to tell of a file that was delivered without a confirmation.
[[nodiscard]] std::string unconfirmedRemark(const std::string& phone, const std::string& file);

/// One file for one phone. What is referred to outlives the delivery.
struct DeliveryRequest {
    PreparedFile file;
    PeerRecord phone;
    const platform::PrivateKey& ownKey;
    SendTimes times = {};
    bool mayWake = true;     ///< whether a phone that does not answer is woken
    Seconds silenceLimit{0}; ///< after which a phone that lets nothing move is given up; 0: never
    SendProgress* progress = nullptr;
    int offersAtOnce = OffersInDoubt::atOnce; ///< how often the file may be offered in this delivery
    OffersInDoubt& inDoubt;                   ///< counted up
    std::function<void()> onAgain = {};       ///< called before each further offer; what it throws ends the delivery
    Finder* finder = nullptr; ///< looks for the phone beside the first attempts to connect; null: nobody does
    MaySweep maySweep = MaySweep::yes;
    /// The phone was found at another address, which this record has; the delivery begins again there. See Approach.
    std::function<void(const PeerRecord&)> onMoved = {};
};

/// Sends the file, and offers it again as said above: the one place where a request to send a file is made.
/// @throws DeliveryInDoubt; as sendPrepared(), also after an offer that has ended in doubt: `inDoubt` tells
[[nodiscard]] Task<Delivered> deliver(platform::System& system, DeliveryRequest request);

} // namespace orlinth::host
