#include "OrlinthHost/Service/History.h"

#include "base/Json.h"
#include "base/Text.h"
#include "platform/SystemError.h"
#include "platform/WholeFile.h"

#include <algorithm>
#include <array>
#include <system_error>
#include <utility>

namespace orlinth::host {

namespace {

constexpr std::uint32_t ownerOnly = 0600;
constexpr std::uint32_t ownerOnlyFolder = 0700;
constexpr std::int64_t maxValuesOfLine = 64;
/// The end of the year 9999: what is later is no time.
constexpr std::int64_t latestTime = 253'402'300'799'999;

// Of a line: a control character takes six bytes in JSON, and everything else no more than in UTF-8.
constexpr std::size_t maxNameBytes = 255;
constexpr std::size_t maxProblemBytes = 300;
constexpr std::size_t maxPathBytes = 4096;
constexpr std::size_t maxKeyBytes = 64;
constexpr std::size_t sixfold = 6;
static_assert(sixfold * (2 * maxNameBytes + maxProblemBytes + maxPathBytes + maxKeyBytes) + 512 <=
              History::maxLineBytes);
static_assert(History::maxLineBytes < History::maxFileBytes);

constexpr std::array directions{std::pair(HistoryEntry::Direction::in, "in"),
                                std::pair(HistoryEntry::Direction::out, "out")};
constexpr std::array outcomes{std::pair(HistoryEntry::Outcome::done, "done"),
                              std::pair(HistoryEntry::Outcome::failed, "failed"),
                              std::pair(HistoryEntry::Outcome::cancelled, "cancelled")};

template <typename Table, typename Value>
const char* textIn(const Table& table, Value value) noexcept {
    return std::ranges::find(table, value, [](const auto& row) { return row.first; })->second;
}

/// @throws JsonError
template <typename Table>
auto valueIn(const Table& table, std::string_view text) {
    const auto at = std::ranges::find(table, text, [](const auto& row) { return std::string_view(row.second); });
    if (at == table.end()) {
        throw JsonError("an unknown word");
    }
    return at->first;
}

std::string cut(const std::string& text, std::size_t bytes) {
    return firstCharactersWithin(toUtf8(text), bytes);
}

platform::SystemError notOurs() {
    return platform::SystemError(std::string(History::fileName) + " is not a file of this user alone");
}

bool counts(const HistoryEntry& entry, EpochMilliseconds now) {
    return entry.time >= now - History::maxAge;
}

} // namespace

const char* textOf(HistoryEntry::Direction direction) noexcept {
    return textIn(directions, direction);
}

const char* textOf(HistoryEntry::Outcome outcome) noexcept {
    return textIn(outcomes, outcome);
}

History::History(platform::FileSystem& files, platform::Clock& clock, platform::Log& log, platform::Path directory)
    : files_(files), clock_(clock), log_(log), directory_(std::move(directory)) {}

std::string History::encode(const HistoryEntry& entry) {
    Json line{{"time", toNumber(entry.time)},
              {"direction", textOf(entry.direction)},
              {"phone", cut(entry.phone, maxNameBytes)},
              {"peer_pubkey", cut(entry.peerKey.text(), maxKeyBytes)},
              {"file", cut(entry.file, maxNameBytes)},
              {"size", entry.size},
              {"outcome", textOf(entry.outcome)}};
    if (!entry.problem.empty()) {
        line["problem"] = cut(entry.problem, maxProblemBytes);
    }
    if (!entry.path.empty()) {
        line["path"] = cut(entry.path, maxPathBytes);
    }
    return compactJson(line);
}

std::optional<HistoryEntry> History::decode(std::string_view line) {
    if (line.empty() || line.size() > maxLineBytes) {
        return std::nullopt;
    }
    try {
        const Json json = parseJson(line, maxValuesOfLine);
        const std::int64_t time = requireInt64(json, "time");
        HistoryEntry entry{.time = fromEpochMilliseconds(time),
                           .direction = valueIn(directions, requireString(json, "direction")),
                           .phone = requireString(json, "phone"),
                           .peerKey = PeerKey(requireString(json, "peer_pubkey")),
                           .file = requireString(json, "file"),
                           .size = requireInt64(json, "size"),
                           .outcome = valueIn(outcomes, requireString(json, "outcome")),
                           .problem = optionalString(json, "problem").value_or(""),
                           .path = optionalString(json, "path").value_or("")};
        const bool makesSense = time >= 0 && time <= latestTime && entry.size >= 0;
        return makesSense ? std::optional(std::move(entry)) : std::nullopt;
    } catch (const JsonError&) {
        return std::nullopt; // cut by a kill, or written by something else
    }
}

std::vector<HistoryEntry> History::decodeAll(std::string_view content, EpochMilliseconds now) {
    std::vector<HistoryEntry> entries; // from the end on: what is far in front does not count
    for (std::size_t end = content.size(); entries.size() < maxEntries;) {
        const std::size_t before = end == 0 ? std::string_view::npos : content.rfind('\n', end - 1);
        const std::size_t begin = before == std::string_view::npos ? 0 : before + 1;
        std::optional<HistoryEntry> entry = decode(content.substr(begin, end - begin));
        if (entry && counts(*entry, now)) {
            entries.push_back(std::move(*entry));
        }
        if (before == std::string_view::npos) {
            break;
        }
        end = before;
    }
    std::ranges::reverse(entries);
    return entries;
}

std::vector<HistoryEntry> History::load() const {
    try {
        return read(*files_.openFolder(directory_));
    } catch (const platform::SystemError& error) {
        if (error.code() == std::errc::no_such_file_or_directory) {
            return {};
        }
        throw;
    }
}

std::vector<HistoryEntry> History::read(platform::Folder& folder) const {
    const std::unique_ptr<platform::File> file = folder.open(platform::FileName(fileName), platform::OpenMode::read);
    const platform::FileStatus status = file->status();
    if (status.kind != platform::FileKind::regular || !folder.isOwn(status)) {
        return {}; // a pipe might never end
    }
    const auto size = static_cast<std::size_t>(status.size);
    if (size > maxFileBytes) {
        file->seek(ByteOffset(static_cast<std::int64_t>(size - maxFileBytes)));
    }
    Bytes content(std::min(size, maxFileBytes));
    content.resize(file->read(content));
    return decodeAll(toText(content), clock_.epochMilliseconds());
}

void History::add(const HistoryEntry& entry) noexcept {
    try {
        append(entry);
        isTroubleTold_ = false;
    } catch (const std::exception& error) {
        lines_.reset();
        if (!std::exchange(isTroubleTold_, true)) {
            log_.write(platform::LogLevel::warning, "com.tarvinex.orlinth", "history",
                       "cannot write the history: " + describe(error));
        }
    }
}

void History::clear() {
    lines_.reset();
    try {
        const std::unique_ptr<platform::Folder> folder = files_.openFolder(directory_);
        const platform::FileName name(fileName);
        const std::optional<platform::FileStatus> status = folder->status(name);
        if (!status) {
            return;
        }
        if (status->kind != platform::FileKind::regular || !folder->isOwn(*status)) {
            throw notOurs();
        }
        folder->remove(name);
        try {
            folder->flush(); // else a power cut brings it back
        } catch (const platform::SystemError&) {
            // it is gone all the same, and whoever shows it must know
        }
    } catch (const platform::SystemError& error) {
        if (error.code() != std::errc::no_such_file_or_directory) {
            throw;
        }
    }
}

void History::append(const HistoryEntry& entry) {
    files_.createDirectories(directory_, ownerOnlyFolder);
    const std::unique_ptr<platform::File> file =
        files_.open(directory_ / fileName, platform::OpenMode::openOrCreate, platform::Links::refuse, ownerOnly);
    const platform::FileStatus status = file->status();
    if (status.kind != platform::FileKind::regular || !files_.openFolder(directory_)->isOwn(status)) {
        throw notOurs();
    }
    std::string text = encode(entry) + "\n";
    if (status.size > 0) {
        file->seek(ByteOffset(status.size - 1));
        Bytes last(1);
        if (file->read(last) == 1 && last.front() != std::byte{'\n'}) {
            text.insert(0, "\n"); // behind what a kill has cut
        }
    }
    file->seek(ByteOffset(status.size));
    file->write(asBytes(text));
    const EpochMilliseconds now = clock_.epochMilliseconds();
    const bool isTooLong = std::cmp_greater(status.size, maxFileBytes);
    const bool isTooOld = lines_ && oldest_ < now - maxAge - std::chrono::days(1);
    if (!lines_ || ++*lines_ >= maxEntries + slack || isTooLong || isTooOld) {
        rewrite();
    }
}

/// Also the first time, when what lies there is not known; nothing is written then if all of it counts.
void History::rewrite() {
    const std::unique_ptr<platform::Folder> folder = files_.openFolder(directory_);
    const std::vector<HistoryEntry> entries = read(*folder);
    std::vector<std::string> lines;
    std::size_t bytes = 0;
    for (auto entry = entries.rbegin(); entry != entries.rend() && bytes <= maxFileBytes / 2; ++entry) {
        lines.push_back(encode(*entry) + "\n");
        bytes += lines.back().size();
    }
    std::string content;
    for (auto line = lines.rbegin(); line != lines.rend(); ++line) {
        content += *line;
    }
    oldest_ = clock_.epochMilliseconds();
    for (const HistoryEntry& entry : entries) {
        oldest_ = std::min(oldest_, entry.time);
    }
    lines_ = lines.size();
    const platform::FileStatus status = files_.status(directory_ / fileName).value_or(platform::FileStatus{});
    if (std::cmp_equal(status.size, content.size())) {
        return; // it has nothing else
    }
    platform::writeWholeFile(*folder, platform::FileName(fileName), asBytes(content), ownerOnly,
                             platform::Flush::content);
}

} // namespace orlinth::host
