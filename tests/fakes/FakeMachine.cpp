#include "fakes/FakeMachine.h"

namespace orlinth::fakes {

FakeMachine::~FakeMachine() = default;

FakeFirewall::~FakeFirewall() = default;

} // namespace orlinth::fakes
