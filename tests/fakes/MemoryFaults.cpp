#include "fakes/MemoryFaults.h"

#include "platform/SystemError.h"

#include <utility>

namespace orlinth::fakes::memory {

using platform::Path;

namespace {

const char* nameOf(Operation operation) {
    switch (operation) {
    case Operation::open:
        return "open";
    case Operation::read:
        return "read";
    case Operation::seek:
        return "seek";
    case Operation::lock:
        return "lock";
    case Operation::status:
        return "status";
    case Operation::list:
        return "list";
    case Operation::create:
        return "create";
    case Operation::write:
        return "write";
    case Operation::flush:
        return "flush";
    case Operation::createDirectory:
        return "createDirectory";
    case Operation::rename:
        return "rename";
    case Operation::remove:
        return "remove";
    case Operation::setPermissions:
        return "setPermissions";
    case Operation::flushDirectory:
        return "flushDirectory";
    case Operation::removeDirectory:
        return "removeDirectory";
    }
    return "";
}

} // namespace

void Faults::requireNoCrash() const {
    if (crashed_) {
        throw Crash();
    }
}

void Faults::begin(Operation operation, const Path& path, const std::function<void(std::size_t)>& writeTorn) {
    requireNoCrash();
    ++counts_[operation];
    if (isMutating(operation)) {
        if (crashAtMutation_ && mutations_ == *crashAtMutation_) {
            if (writeTorn) {
                writeTorn(tornBytes_);
            }
            crashed_ = true;
            if (onCrash) {
                onCrash();
            }
            throw Crash();
        }
        ++mutations_;
    }
    for (Fault& fault : faults_) {
        const bool matches = fault.operation ? *fault.operation == operation : isMutating(operation);
        if (!matches || !path.native().ends_with(fault.nameEnding) || fault.times == 0) {
            continue;
        }
        if (fault.skip > 0) {
            --fault.skip;
            continue;
        }
        --fault.times;
        if (writeTorn) {
            writeTorn(fault.writtenBytes);
        }
        throw platform::SystemError::fromErrno(fault.errorNumber);
    }
}

void Faults::record(Operation operation, const Path& path, const Path& second) {
    history_.push_back(std::string(nameOf(operation)) + " " + path.native() +
                       (second.empty() ? "" : " " + second.native()));
}

void Faults::crashAfter(std::size_t mutations, std::size_t tornBytes) {
    crashAtMutation_ = mutations_ + mutations;
    tornBytes_ = tornBytes;
}

std::size_t Faults::count(Operation operation) const {
    const auto found = counts_.find(operation);
    return found == counts_.end() ? 0 : found->second;
}

} // namespace orlinth::fakes::memory
