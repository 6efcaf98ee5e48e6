#include "OrlinthHost/Sending/SendSources.h"

#include "OrlinthCore/Sending/SendError.h"

#include <utility>

namespace orlinth::host {

namespace {

std::int64_t sizeAt(platform::FileSystem& files, const std::string& path) {
    try {
        const std::optional<platform::FileStatus> status = files.status(path);
        return status ? status->size : 0;
    } catch (const Error&) {
        return 0; // the attempt will meet the same and report it
    }
}

} // namespace

SendSources::SendSources(platform::FileSystem& files, const platform::MimeTypes& mimeTypes, InFlightJournal& journal,
                         std::vector<std::string> paths, std::size_t phones)
    : files_(files), mimeTypes_(mimeTypes), memory_(files, mimeTypes, journal), batch_(journal) {
    for (std::string& path : paths) {
        const std::int64_t size = sizeAt(files, path);
        sources_.push_back({.path = std::move(path), .size = size, .left = phones, .known = std::nullopt, .id = {}});
    }
}

std::vector<std::int64_t> SendSources::sizes() const {
    std::vector<std::int64_t> sizes;
    for (const Source& source : sources_) {
        sizes.push_back(source.size);
    }
    return sizes;
}

bool SendSources::prepare(std::size_t first) {
    const bool isAgain = sources_[first].isPrepared;
    if (isAgain && !hasChanged(first)) {
        return true;
    }
    unprepare(sources_[first]);
    std::vector<std::size_t> numbers;
    std::vector<SourceMemory::Source> known;
    const std::size_t most = isAgain ? 1 : filesPreparedAtOnce;
    for (std::size_t i = first; i < sources_.size() && numbers.size() < most && !sources_[i].isPrepared; ++i) {
        std::optional<SourceMemory::Source> source = memory_.examine(sources_[i].path);
        if (source && !keysUnderWay_.insert(source->key.text()).second) {
            break; // the same name and content again: the two would share an id, so one goes after the other
        }
        sources_[i].isPrepared = true;
        if (source) {
            numbers.push_back(i);
            known.push_back(std::move(*source));
        } else if (isAgain) {
            break;
        }
    }
    if (!sources_[first].isPrepared) {
        return false;
    }
    reserve(numbers, std::move(known));
    return true;
}

/// Writes the ids of these sources down, each for the phones that still are to get it.
void SendSources::reserve(const std::vector<std::size_t>& numbers, std::vector<SourceMemory::Source> known) {
    memory_.compare(known);
    std::vector<InFlightJournal::Batch::Wanted> wanted;
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        wanted.push_back(
            {.key = known[i].key, .isFresh = known[i].isFresh, .uses = static_cast<int>(sources_[numbers[i]].left)});
    }
    const std::vector<TransferId> ids = batch_.reserve(wanted);
    try {
        memory_.remember(known);
    } catch (const std::exception&) {
        // Then the next attempt finds nothing to compare with, and takes fresh ids.
    }
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        sources_[numbers[i]].known = std::move(known[i]);
        sources_[numbers[i]].id = ids[i];
    }
}

bool SendSources::hasChanged(std::size_t file) const {
    const Source& source = sources_[file];
    return source.known && !memory_.isUnchanged(source.path, *source.known);
}

void SendSources::prepareAnew() {
    for (Source& source : sources_) {
        if (source.left > 0) {
            unprepare(source);
        }
    }
}

void SendSources::unprepare(Source& source) {
    if (source.known) {
        keysUnderWay_.erase(source.known->key.text());
        source.known.reset();
    }
    source.isPrepared = false;
}

PreparedFile SendSources::take(std::size_t file, std::optional<Offer>& offer) {
    Source& source = sources_[file];
    source.isBegun = true;
    if (!source.known) {
        static_cast<void>(
            examineFile(files_, mimeTypes_, source.path)); // says why, unless the file was mended just now
        std::optional<SourceMemory::Source> known = memory_.examine(source.path);
        if (!known || !keysUnderWay_.insert(known->key.text()).second) {
            throw SendError::fileRead(source.path + " changes all the time");
        }
        reserve({file}, {std::move(*known)});
    }
    TransferId id = batch_.idOf(source.known->key);
    if (id != source.id) { // another process has written it, perhaps for a file that only begins like ours
        std::vector<SourceMemory::Source> ours{*source.known};
        memory_.compare(ours);
        if (ours.front().isFresh) {
            reserve({file}, std::move(ours));
            id = source.id;
        }
    }
    source.id = id;
    offer = {.key = source.known->key, .id = id};
    return {.path = source.path, .file = source.known->file, .transferId = std::move(id)};
}

void SendSources::delivered(std::size_t file, const Offer& offer) {
    batch_.complete(offer.key, offer.id);
    doneWith(file, true);
}

void SendSources::failed(std::size_t file, const std::optional<Offer>& offer) {
    keepForNextTime(file, offer);
    doneWith(file, false);
}

/// Another process that sends the same file may have ended its id; what the phone has of it is found by that.
void SendSources::keepForNextTime(std::size_t file, const std::optional<Offer>& offer) noexcept {
    const Source& source = sources_[file];
    if (!offer || !source.known || source.known->key.text() != offer->key.text()) {
        return;
    }
    try {
        batch_.keep(offer->key, offer->id);
        memory_.remember({*source.known});
    } catch (const std::exception&) {
        return; // then the next attempt begins anew
    }
}

void SendSources::doneWith(std::size_t file, bool wasSent) {
    Source& source = sources_[file];
    source.hasFailed = source.hasFailed || !wasSent;
    if (--source.left > 0 || !source.known) {
        return;
    }
    keysUnderWay_.erase(source.known->key.text());
    if (!source.hasFailed) {
        memory_.forget(source.known->key);
    }
}

void SendSources::tidy() noexcept {
    for (const Source& source : sources_) {
        if (source.known && source.known->isFresh && !source.isBegun) {
            memory_.forget(source.known->key);
        }
    }
    batch_.flush();
    try {
        memory_.flush();
    } catch (const std::exception&) {
        // What it remembers of a file too many does no harm.
    }
}

} // namespace orlinth::host
