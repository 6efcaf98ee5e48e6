#include "orlinth/OutboxJournal.h"

#include "orlinth/SourceMemory.h"

#include <optional>
#include <utility>

namespace orlinth::host {

OutboxJournal::OutboxJournal(platform::System& system, platform::Path file)
    : system_(system), journal_(system.files, std::move(file)), batch_(journal_) {}

void OutboxJournal::prepare(const std::vector<platform::Path>& files) {
    const SourceMemory memory(system_, journal_);
    std::vector<InFlightJournal::Batch::Wanted> wanted;
    prepared_.clear();
    for (const platform::Path& file : files) {
        if (std::optional<SourceMemory::Source> source = memory.examine(file)) {
            wanted.push_back({.key = source->key});
            prepared_.emplace(file, std::move(source->key));
        }
    }
    batch_.reserve(wanted, 1);
}

void OutboxJournal::takeBack(const platform::Path& file) {
    if (const auto prepared = prepared_.find(file); prepared != prepared_.end()) {
        batch_.takeBack(prepared->second);
    }
}

} // namespace orlinth::host
