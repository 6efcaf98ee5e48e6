#include "fakes/RecordingLog.h"

namespace orlinth::fakes {

RecordingLog::~RecordingLog() = default;

} // namespace orlinth::fakes
