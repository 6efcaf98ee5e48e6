#include "fakes/FakeSleepNews.h"

namespace orlinth::fakes {

FakeSleepNews::~FakeSleepNews() = default;

} // namespace orlinth::fakes
