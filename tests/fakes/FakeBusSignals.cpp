#include "fakes/FakeBusSignals.h"

namespace orlinth::fakes {

FakeBusSignals::~FakeBusSignals() = default;

} // namespace orlinth::fakes
