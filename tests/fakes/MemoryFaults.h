#pragma once

#include "fakes/MemoryFileSystem.h"

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace orlinth::fakes::memory {

/// What shall go wrong in a MemoryFileSystem, and what was done there so far. One thread at a time.
class Faults {
public:
    /// Counts the operation and throws what was planned for it: SystemError or Crash. For a write that fails,
    /// `writeTorn` is told first how many bytes reach the file all the same.
    void begin(Operation operation, const platform::Path& path, const std::function<void(std::size_t)>& writeTorn = {});
    /// The operation has succeeded.
    void record(Operation operation, const platform::Path& path, const platform::Path& second = {});
    /// @throws Crash if the computer has stopped
    void requireNoCrash() const;

    void add(Fault fault) { faults_.push_back(std::move(fault)); }
    void clear() { faults_.clear(); }
    /// As MemoryFileSystem::crashAfter().
    void crashAfter(std::size_t mutations, std::size_t tornBytes);

    [[nodiscard]] bool hasCrashed() const noexcept { return crashed_; }
    [[nodiscard]] std::size_t count(Operation operation) const;
    [[nodiscard]] std::size_t mutations() const noexcept { return mutations_; }
    [[nodiscard]] const std::vector<std::string>& history() const noexcept { return history_; }

    std::function<void()> onCrash; ///< called when the computer stops, before begin() throws

private:
    std::map<Operation, std::size_t> counts_;
    std::size_t mutations_ = 0;
    std::vector<std::string> history_;
    std::vector<Fault> faults_;
    std::optional<std::size_t> crashAtMutation_;
    std::size_t tornBytes_ = 0;
    bool crashed_ = false;
};

} // namespace orlinth::fakes::memory
