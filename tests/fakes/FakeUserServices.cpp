#include "fakes/FakeUserServices.h"

namespace orlinth::fakes {

FakeUserServices::~FakeUserServices() = default;

} // namespace orlinth::fakes
