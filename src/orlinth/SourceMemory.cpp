#include "orlinth/SourceMemory.h"

#include "OrlinthCore/Sending/OutgoingFile.h"
#include "base/Json.h"
#include "platform/WholeFile.h"

namespace orlinth::host {

namespace {

/// As the journal names its entries, so that a reader of both files finds what belongs together.
std::string keyOf(const OutgoingFile& file) {
    std::string key = file.name + "|" + std::to_string(file.size) + "|" + file.mime;
    return file.fingerprint.empty() ? key : key + "|" + file.fingerprint;
}

Json lookOf(const platform::FileStatus& status) {
    Json look;
    look["size"] = status.size;
    look["modified_ns"] = status.modifiedNanoseconds;
    look["inode"] = status.inode;
    look["device"] = status.device;
    return look;
}

} // namespace

SourceMemory::SourceMemory(platform::System& system, InFlightJournal& journal)
    : system_(system), journal_(journal), url_(journal.fileURL().parent_path() / fileName) {}

void SourceMemory::beforeSending(const platform::Path& file) {
    lastKey_.clear();
    std::optional<platform::FileStatus> status;
    std::optional<OutgoingFile> examined;
    try {
        status = system_.files.status(file);
        examined = examineFile(system_, file);
    } catch (const Error&) {
        return; // the attempt will meet the same and report it
    }
    if (!status) {
        return;
    }
    const std::string key = keyOf(*examined);
    const Json look = lookOf(*status);
    system_.files.createDirectories(url_.parent_path(), 0700);
    const platform::FileLock lock(system_.files, url_);
    Json sources = load();
    const auto known = sources.find(key);
    if (known == sources.end() || *known != look) {
        journal_.complete(examined->name, examined->size, examined->mime, examined->fingerprint);
        sources[key] = look;
        write(sources);
    }
    lastKey_ = key;
}

void SourceMemory::afterSending() {
    if (lastKey_.empty()) {
        return;
    }
    const platform::FileLock lock(system_.files, url_);
    Json sources = load();
    if (sources.erase(lastKey_) > 0) {
        write(sources);
    }
}

Json SourceMemory::load() const {
    try {
        const Json file = parseJson(platform::readWholeFile(system_.files, url_));
        const auto sources = file.find("sources");
        return sources != file.end() && sources->is_object() ? *sources : Json::object();
    } catch (const std::exception&) {
        return Json::object();
    }
}

void SourceMemory::write(const Json& sources) {
    Json file;
    file["sources"] = sources;
    platform::writeWholeFile(system_.files, url_, asBytes(prettyJson(file)), 0600);
}

} // namespace orlinth::host
