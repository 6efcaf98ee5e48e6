#include "OrlinthHost/Sending/Delivery.h"

#include "base/Text.h"

#include <utility>

namespace orlinth::host {

Task<Delivered> deliver(platform::System& system, PreparedFile file, SendTerms terms, int offersAtOnce,
                        OffersInDoubt& inDoubt, std::function<void()> onAgain) {
    using Farewell = WireConnection::Farewell;
    terms.farewellSeconds = farewellSeconds;
    for (int offer = 1;; ++offer) {
        SendOutcome outcome = co_await sendPrepared(system, file, terms);
        switch (outcome.farewell) {
        case Farewell::closed:
            co_return Delivered{.sent = std::move(outcome.sent), .isConfirmed = true};
        case Farewell::acknowledged:
            co_return Delivered{.sent = std::move(outcome.sent), .isConfirmed = false};
        case Farewell::brokeOff:
        case Farewell::silent:
            break;
        }
        ++inDoubt.count;
        if (offer >= offersAtOnce) {
            throw DeliveryInDoubt();
        }
        onAgain();
    }
}

std::string unconfirmedRemark(const std::string& phone, const std::string& file) {
    return forDisplay(phone) + " has received every byte of " + forDisplay(file) + " but did not confirm the file.";
}

bool isNotTaken(const AttemptReach& reach, const std::exception_ptr& error) {
    if (!reach.hasProvedKey || reach.hasBegun || !error) {
        return false;
    }
    try {
        std::rethrow_exception(error);
    } catch (const WireConnection::Error& failure) {
        return failure.which() != WireConnection::Error::Case::oversize;
    } catch (...) {
        return false;
    }
}

} // namespace orlinth::host
