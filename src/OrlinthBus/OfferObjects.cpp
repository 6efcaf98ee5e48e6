#include "OrlinthBus/OfferObjects.h"

#include "OrlinthBus/ObjectPath.h"
#include "base/Text.h"

#include <algorithm>

namespace orlinth::bus {

namespace {

constexpr const char* interfaceName = "com.tarvinex.orlinth1.Offer";

} // namespace

std::string pathOfOffer(host::OfferNumber number) {
    return std::string(offersPath) + "/" + std::to_string(static_cast<std::uint64_t>(number));
}

BusInterface offerInterface() {
    return {.name = interfaceName,
            .methods = {{.name = "Accept"}, {.name = "Decline"}},
            .properties = {{"Phone", "o"}, {"Name", "s"}, {"Size", "t"}, {"Expires", "t"}}};
}

void addOffers(BusObjects& objects, const std::vector<host::OfferView>& offers) {
    for (const host::OfferView& offer : offers) {
        const std::int64_t expires = offer.expires ? toNumber(*offer.expires) : 0;
        objects[pathOfOffer(offer.number)] = {
            .interface = interfaceName,
            .properties = {{"Phone", ObjectPath{pathOfPhone(offer.peerKey)}},
                           {"Name", toUtf8(offer.name)},
                           {"Size", static_cast<std::uint64_t>(std::max<std::int64_t>(0, offer.size))},
                           {"Expires", static_cast<std::uint64_t>(std::max<std::int64_t>(0, expires))}}};
    }
}

} // namespace orlinth::bus
