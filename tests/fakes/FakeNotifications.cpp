#include "fakes/FakeNotifications.h"

namespace orlinth::fakes {

FakeNotifications::~FakeNotifications() = default;

} // namespace orlinth::fakes
