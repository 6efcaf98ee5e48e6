#include "OrlinthHost/Outbox/OutboxJournal.h"

#include <utility>

namespace orlinth::host {

OutboxJournal::OutboxJournal(platform::FileSystem& files, const platform::MimeTypes& mimeTypes, platform::Path file)
    : files_(files), mimeTypes_(mimeTypes), journal_(files, std::move(file)), batch_(journal_) {}

std::int64_t OutboxJournal::sizeOf(const platform::Path& file) const {
    const auto prepared = prepared_.find(file);
    return prepared == prepared_.end() ? 0 : prepared->second.file.size;
}

void OutboxJournal::prepare(const std::vector<platform::Path>& files) {
    std::vector<InFlightJournal::Batch::Wanted> wanted;
    std::vector<Prepared*> fresh;
    for (const platform::Path& file : files) {
        if (isPrepared(file)) {
            continue;
        }
        try {
            OutgoingFile examined = examineFile(files_, mimeTypes_, file);
            wanted.push_back({.key = keyOf(examined)});
            fresh.push_back(&(prepared_[file] = {.file = std::move(examined), .id = {}}));
        } catch (const Error&) {
            continue; // take() meets the same and reports it
        }
    }
    const std::vector<TransferId> ids = batch_.reserve(wanted);
    for (std::size_t i = 0; i < ids.size(); ++i) {
        fresh[i]->id = ids[i];
    }
}

PreparedFile OutboxJournal::take(const platform::Path& file) {
    if (!isPrepared(file)) {
        prepared_[file] = {.file = examineFile(files_, mimeTypes_, file), .id = {}}; // which gets its id at once
    }
    Prepared& prepared = prepared_.at(file);
    prepared.id = batch_.idOf(keyOf(prepared.file));
    return {.path = file, .file = prepared.file, .transferId = prepared.id};
}

void OutboxJournal::complete(const platform::Path& file) {
    if (const auto prepared = prepared_.find(file); prepared != prepared_.end()) {
        batch_.complete(keyOf(prepared->second.file), prepared->second.id);
        prepared_.erase(prepared);
    }
}

} // namespace orlinth::host
