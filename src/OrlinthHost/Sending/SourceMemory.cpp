#include "OrlinthHost/Sending/SourceMemory.h"

#include "base/Json.h"
#include "platform/WholeFile.h"

#include <utility>

namespace orlinth::host {

namespace {

Json lookOf(const platform::FileStatus& status) {
    Json look;
    look["size"] = status.size;
    look["modified_ns"] = toNumber(status.modifiedAt);
    look["inode"] = status.inode;
    look["device"] = status.device;
    return look;
}

} // namespace

SourceMemory::SourceMemory(platform::FileSystem& files, const platform::MimeTypes& mimeTypes,
                           const InFlightJournal& journal)
    : files_(files), mimeTypes_(mimeTypes), path_(journal.fileURL().parent_path() / fileName) {}

std::optional<SourceMemory::Source> SourceMemory::examine(const platform::Path& file) const {
    try {
        OutgoingFile examined = examineFile(files_, mimeTypes_, file);
        InFlightKey key = keyOf(examined);
        return Source{.file = std::move(examined), .key = std::move(key)};
    } catch (const Error&) {
        return std::nullopt;
    }
}

bool SourceMemory::isUnchanged(const platform::Path& file, const Source& source) const {
    try {
        const std::optional<platform::FileStatus> status = files_.status(file);
        return status && platform::isSameContent(*status, source.file.seen);
    } catch (const Error&) {
        return false;
    }
}

void SourceMemory::compare(std::vector<Source>& sources) const {
    const Json known = load();
    for (Source& source : sources) {
        const auto before = known.find(source.key.text());
        source.isFresh = before == known.end() || *before != lookOf(source.file.seen);
    }
}

void SourceMemory::remember(const std::vector<Source>& sources) {
    files_.createDirectories(path_.parent_path(), 0700);
    const platform::FileLock lock(files_, path_);
    Json known = load();
    bool hasChanged = eraseForgotten(known);
    for (const Source& source : sources) {
        Json& remembered = known[source.key.text()];
        const Json look = lookOf(source.file.seen);
        if (remembered != look) {
            remembered = look;
            hasChanged = true;
        }
    }
    if (hasChanged) {
        write(known);
    }
}

void SourceMemory::forget(const InFlightKey& key) {
    forgotten_.push_back(key.text());
}

void SourceMemory::flush() {
    if (forgotten_.empty()) {
        return;
    }
    const platform::FileLock lock(files_, path_);
    Json known = load();
    if (eraseForgotten(known)) {
        write(known);
    }
}

bool SourceMemory::eraseForgotten(Json& sources) {
    std::size_t erased = 0;
    for (const std::string& key : std::exchange(forgotten_, {})) {
        erased += sources.erase(key);
    }
    return erased > 0;
}

Json SourceMemory::load() const {
    try {
        const Json file = parseJson(platform::readWholeFile(files_, path_));
        const auto sources = file.find("sources");
        return sources != file.end() && sources->is_object() ? *sources : Json::object();
    } catch (const std::exception&) {
        return Json::object();
    }
}

void SourceMemory::write(const Json& sources) {
    Json file;
    file["sources"] = sources;
    platform::writeWholeFile(files_, path_, asBytes(prettyJson(file)), 0600, platform::Flush::now,
                             platform::Links::follow);
}

} // namespace orlinth::host
