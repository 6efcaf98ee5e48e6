#include "fakes/FakeJobViews.h"

namespace orlinth::fakes {

FakeJobViews::~FakeJobViews() = default;

} // namespace orlinth::fakes
