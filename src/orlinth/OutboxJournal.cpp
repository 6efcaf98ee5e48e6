#include "orlinth/OutboxJournal.h"

#include "orlinth/SourceMemory.h"

#include <optional>
#include <utility>

namespace orlinth::host {

OutboxJournal::OutboxJournal(platform::System& system, platform::Path file)
    : system_(system), journal_(system.files, std::move(file)), batch_(journal_) {}

std::int64_t OutboxJournal::sizeOf(const platform::Path& file) const {
    const auto prepared = prepared_.find(file);
    return prepared == prepared_.end() ? 0 : prepared->second.key.size;
}

void OutboxJournal::prepare(const std::vector<platform::Path>& files) {
    const SourceMemory memory(system_, journal_);
    std::vector<platform::Path> examined;
    std::vector<InFlightJournal::Batch::Wanted> wanted;
    for (const platform::Path& file : files) {
        std::optional<SourceMemory::Source> source = isPrepared(file) ? std::nullopt : memory.examine(file);
        if (source) {
            examined.push_back(file);
            wanted.push_back({.key = std::move(source->key)});
        }
    }
    const std::vector<std::string> ids = batch_.reserve(wanted, 1);
    for (std::size_t i = 0; i < examined.size(); ++i) {
        prepared_[examined[i]] = {.key = std::move(wanted[i].key), .id = ids[i]};
    }
}

void OutboxJournal::takeBack(const platform::Path& file) {
    if (const auto prepared = prepared_.find(file); prepared != prepared_.end()) {
        batch_.restore(prepared->second.key, prepared->second.id);
    }
}

} // namespace orlinth::host
