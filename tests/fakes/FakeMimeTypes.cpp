#include "fakes/FakeMimeTypes.h"

namespace orlinth::fakes {

FakeMimeTypes::~FakeMimeTypes() = default;

} // namespace orlinth::fakes
