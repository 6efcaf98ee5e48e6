#pragma once

#include "OrlinthBus/BusObject.h"
#include "OrlinthHost/Service/OfferView.h"

#include <string>
#include <vector>

/// The files that wait for a yes or a no, on the bus.
namespace orlinth::bus {

inline constexpr const char* offersPath = "/com/tarvinex/orlinth1/offers";

[[nodiscard]] std::string pathOfOffer(host::OfferNumber number);

[[nodiscard]] BusInterface offerInterface();

/// Adds an object for each of them.
void addOffers(BusObjects& objects, const std::vector<host::OfferView>& offers);

} // namespace orlinth::bus
