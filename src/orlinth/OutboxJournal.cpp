#include "orlinth/OutboxJournal.h"

#include <utility>

namespace orlinth::host {

OutboxJournal::OutboxJournal(platform::System& system, platform::Path file)
    : system_(system), journal_(system.files, std::move(file)), batch_(journal_) {}

std::int64_t OutboxJournal::sizeOf(const platform::Path& file) const {
    const auto prepared = prepared_.find(file);
    return prepared == prepared_.end() ? 0 : prepared->second.size;
}

void OutboxJournal::prepare(const std::vector<platform::Path>& files) {
    std::vector<InFlightJournal::Batch::Wanted> wanted;
    for (const platform::Path& file : files) {
        if (isPrepared(file)) {
            continue;
        }
        try {
            OutgoingFile examined = examineFile(system_, file);
            wanted.push_back({.key = keyOf(examined)});
            prepared_.emplace(file, std::move(examined));
        } catch (const Error&) {
            continue; // take() meets the same and reports it
        }
    }
    batch_.reserve(wanted, 1);
}

PreparedFile OutboxJournal::take(const platform::Path& file) {
    if (!isPrepared(file)) {
        OutgoingFile examined = examineFile(system_, file);
        batch_.reserve({{.key = keyOf(examined)}}, 1);
        prepared_.emplace(file, std::move(examined));
    }
    const OutgoingFile& examined = prepared_.at(file);
    return {.path = file, .file = examined, .transferId = batch_.idOf(keyOf(examined))};
}

void OutboxJournal::complete(const platform::Path& file) {
    if (const auto prepared = prepared_.find(file); prepared != prepared_.end()) {
        batch_.complete(keyOf(prepared->second));
        prepared_.erase(prepared);
    }
}

} // namespace orlinth::host
