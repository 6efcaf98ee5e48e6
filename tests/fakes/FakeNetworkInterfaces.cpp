#include "fakes/FakeNetworkInterfaces.h"

namespace orlinth::fakes {

FakeNetworkInterfaces::~FakeNetworkInterfaces() = default;

} // namespace orlinth::fakes
