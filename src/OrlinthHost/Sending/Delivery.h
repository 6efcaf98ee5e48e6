#pragma once

#include "OrlinthCore/Sending/SendTransfer.h"
#include "base/Error.h"

#include <functional>
#include <optional>

namespace orlinth::host {

/// Brings one file to one phone, and knows when it is there: the one rule for whoever sends.
///
/// When the end of a file has been sent, megabytes of it may still lie in the buffers of both systems. So a file counts
/// as delivered only when the phone has closed the connection in good order behind it, or has at least acknowledged
/// every byte for `farewellSeconds` without a word. Everything else behind the end (a reset, silence with bytes that
/// never came through) leaves it in doubt: it is offered again at once, under the same id, by which a phone can know
/// what it has.

/// Seconds that a phone may take to close behind the end of a file while nothing more is acknowledged. It has to flush
/// its disk.
inline constexpr double farewellSeconds = 60;

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

/// Sends the file, and offers it again as said above, until it was offered `offersAtOnce` times. `inDoubt` is counted
/// up and outlives the call, as does what `terms` refer to. `onAgain` is called before each further offer.
/// @throws DeliveryInDoubt; as sendPrepared(), also after an offer that has ended in doubt: `inDoubt` tells
[[nodiscard]] Task<Delivered> deliver(platform::System& system, PreparedFile file, SendTerms terms, int offersAtOnce,
                                      OffersInDoubt& inDoubt, std::function<void()> onAgain);

/// How far an attempt came that has failed.
struct AttemptReach {
    bool hasProvedKey = false; ///< the phone has
    bool hasBegun = false;     ///< it has accepted the offer
};

/// Whether the phone, once it had proved its key, ended the connection without a word about the offer: it does not
/// take files of this computer, most likely because it does not know it any more.
[[nodiscard]] bool isNotTaken(const AttemptReach& reach, const std::exception_ptr& error);
inline constexpr const char* notTakenText =
    "the phone ended the connection before it took the file; it may no longer know this computer";

} // namespace orlinth::host
