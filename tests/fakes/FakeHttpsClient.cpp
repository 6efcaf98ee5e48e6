#include "fakes/FakeHttpsClient.h"

namespace orlinth::fakes {

FakeHttpsClient::~FakeHttpsClient() = default;

} // namespace orlinth::fakes
