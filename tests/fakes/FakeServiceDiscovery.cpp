#include "fakes/FakeServiceDiscovery.h"

namespace orlinth::fakes {

FakeServiceDiscovery::~FakeServiceDiscovery() = default;

} // namespace orlinth::fakes
