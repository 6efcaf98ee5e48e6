#include "fakes/FakeClipboard.h"

namespace orlinth::fakes {

FakeClipboard::~FakeClipboard() = default;

} // namespace orlinth::fakes
