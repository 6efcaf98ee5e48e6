#include "OrlinthCore/Receiving/DeliveredTransfers.h"

#include "OrlinthCore/Peers/PeerRecord.h"
#include "base/Json.h"
#include "base/Text.h"
#include "platform/SystemError.h"
#include "platform/WholeFile.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace orlinth {
namespace {

/// Names of what somebody has received are nobody else's business.
constexpr std::uint32_t deliveredFilePermissions = 0600;
constexpr std::uint32_t deliveredFolderPermissions = 0700;

/// Bytes: PATH_MAX of Linux; and with room to spare, 32 bytes in Base64.
constexpr std::size_t longestPath = 4096;
constexpr std::size_t longestKeyText = 64;
/// A byte of a text has six as an escape; keys and numbers have less than the rest.
static_assert(6 * (longestPath + longestKeyText + DeliveredTransfers::maxIdBytes) + 512 <=
              DeliveredTransfers::maxLineBytes);

std::uint64_t requireUnsigned(const Json& object, const char* key) {
    const auto member = object.is_object() ? object.find(key) : object.end();
    if (member == object.end() || !member->is_number_unsigned()) {
        throw JsonError("expected a number \"" + std::string(key) + "\"");
    }
    return member->get<std::uint64_t>();
}

Json jsonOf(const DeliveredTransfers::Delivery& delivery) {
    return {{"at_epoch_ms", toNumber(delivery.at_epoch_ms)},
            {"device", delivery.device},
            {"inode", delivery.inode},
            {"modified_ns", toNumber(delivery.modified_ns)},
            {"path", delivery.path.native()},
            {"phone", delivery.peerKey.text()},
            {"settled", delivery.isSettled},
            {"size", delivery.size},
            {"transfer_id", delivery.transfer_id.text()}};
}

/// @throws JsonError
DeliveredTransfers::Delivery deliveryFrom(const Json& json) {
    DeliveredTransfers::Delivery delivery{.peerKey = PeerKey(requireString(json, "phone")),
                                          .transfer_id = TransferId(requireString(json, "transfer_id")),
                                          .path = requireString(json, "path"),
                                          .device = requireUnsigned(json, "device"),
                                          .inode = requireUnsigned(json, "inode"),
                                          .size = requireInt64(json, "size"),
                                          .modified_ns = fromEpochNanoseconds(requireInt64(json, "modified_ns")),
                                          .at_epoch_ms = fromEpochMilliseconds(requireInt64(json, "at_epoch_ms"))};
    const auto settled = json.find("settled");
    delivery.isSettled = settled != json.end() && settled->is_boolean() && settled->get<bool>();
    const bool isPlausible = delivery.path.is_absolute() && delivery.path.has_filename() &&
                             delivery.path.native().find('\0') == std::string::npos &&
                             delivery.path.native().size() <= longestPath && delivery.size >= 0 &&
                             delivery.transfer_id.text().size() <= DeliveredTransfers::maxIdBytes &&
                             delivery.peerKey.text().size() <= longestKeyText;
    if (!isPlausible) {
        throw JsonError("no delivery");
    }
    return delivery;
}

/// By what neither a move changes nor a reboot: not by the device, as some file systems get another number at each
/// mount.
bool isUnchanged(const DeliveredTransfers::Delivery& delivery, const platform::FileStatus& file) {
    return file.kind == platform::FileKind::regular && file.inode == delivery.inode && file.size == delivery.size &&
           file.modifiedAt == delivery.modified_ns;
}

} // namespace

void DeliveredTransfers::List::put(Delivery delivery) {
    Key key(delivery.peerKey, delivery.transfer_id);
    const std::uint64_t number = ++last_;
    if (const auto before = entries_.find(key); before != entries_.end()) {
        order_.erase(before->second.number);
    }
    order_.emplace(number, key);
    entries_.insert_or_assign(std::move(key), Entry{.delivery = std::move(delivery), .number = number});
    if (entries_.size() > maxEntries) {
        const auto oldest = order_.begin();
        entries_.erase(oldest->second);
        order_.erase(oldest);
    }
}

const DeliveredTransfers::Delivery* DeliveredTransfers::List::find(const Key& key) const {
    const auto entry = entries_.find(key);
    return entry == entries_.end() ? nullptr : &entry->second.delivery;
}

void DeliveredTransfers::List::take(ByteView line) {
    if (line.size() > maxLineBytes) {
        return;
    }
    try {
        put(deliveryFrom(parseJson(line)));
    } catch (const JsonError&) {
        // Torn by a kill or a power cut, or somebody else's: a transfer less is remembered.
    }
}

std::vector<DeliveredTransfers::Delivery> DeliveredTransfers::List::all() const {
    std::vector<Delivery> deliveries;
    deliveries.reserve(order_.size());
    for (const auto& [number, key] : order_) {
        deliveries.push_back(entries_.at(key).delivery);
    }
    return deliveries;
}

void DeliveredTransfers::List::forgetOlderThan(EpochMilliseconds moment) {
    std::erase_if(entries_, [&](const auto& entry) {
        const bool isOld = entry.second.delivery.at_epoch_ms < moment;
        if (isOld) {
            order_.erase(entry.second.number);
        }
        return isOld;
    });
}

void DeliveredTransfers::List::clear() {
    entries_.clear();
    order_.clear();
}

DeliveredTransfers::DeliveredTransfers(platform::Storage storage)
    : storage_(std::move(storage)),
      file_(storage_.directories.data / PeerStore::defaultDirectoryName / fileName),
      turns_(storage_.files, file_) {}

DeliveredTransfers::~DeliveredTransfers() = default;

std::vector<DeliveredTransfers::Delivery> DeliveredTransfers::decode(ByteView content) {
    List list;
    while (!content.empty()) {
        const auto end = std::find(content.begin(), content.end(), std::byte{'\n'});
        const auto length = static_cast<std::size_t>(end - content.begin());
        list.take(content.first(length));
        content = content.subspan(std::min(length + 1, content.size()));
    }
    return list.all();
}

std::string DeliveredTransfers::encode(const Delivery& delivery) {
    return compactJson(jsonOf(delivery)) + "\n";
}

/// Whole lines only; returns how many bytes they have.
std::size_t DeliveredTransfers::takeLines(ByteView content) {
    std::size_t done = 0;
    for (;;) {
        const ByteView rest = content.subspan(done);
        const auto end = std::find(rest.begin(), rest.end(), std::byte{'\n'});
        if (end == rest.end()) {
            return done;
        }
        const auto length = static_cast<std::size_t>(end - rest.begin());
        list_.take(rest.first(length));
        done += length + 1;
    }
}

void DeliveredTransfers::closeLog() {
    log_.reset();
    list_.clear();
    taken_ = 0;
}

/// Returns how many bytes it has.
std::int64_t DeliveredTransfers::openLog() {
    closeLog();
    std::unique_ptr<platform::File> file =
        storage_.files.open(file_, platform::OpenMode::openOrCreate, platform::Links::follow, deliveredFilePermissions);
    opened_ = file->status();
    if (opened_.kind != platform::FileKind::regular) { // reading from a pipe would never end
        throw platform::SystemError::fromErrno(EINVAL);
    }
    log_ = std::move(file);
    return opened_.size;
}

/// Takes in what other processes, and earlier runs, have written. Returns how many bytes the file has.
std::int64_t DeliveredTransfers::catchUp() {
    const std::optional<platform::FileStatus> named = storage_.files.status(file_);
    if (!named) {
        closeLog();
        return 0;
    }
    const bool isOpen = log_ && platform::isSameFile(opened_, *named) && named->size >= taken_;
    const std::int64_t size = isOpen ? named->size : openLog();
    if (size > maxFileBytes) {
        list_.clear();
        taken_ = 0;
        return size;
    }
    if (size == taken_) {
        return size;
    }
    Bytes content(static_cast<std::size_t>(size - taken_));
    log_->seek(ByteOffset(taken_));
    const std::size_t count = log_->read(content);
    taken_ += static_cast<std::int64_t>(takeLines(ByteView(content).first(count)));
    return size;
}

/// Returns how many bytes the file has then.
std::int64_t DeliveredTransfers::writeAnew() {
    list_.forgetOlderThan(storage_.clock.epochMilliseconds() - maxAge);
    std::vector<std::string> lines;
    std::size_t size = 0;
    const std::vector<Delivery> deliveries = list_.all();
    for (auto delivery = deliveries.rbegin(); delivery != deliveries.rend(); ++delivery) {
        std::string line = encode(*delivery);
        if (size + line.size() >
            compactionBytes / 2) { // long paths: the oldest go, so that it does not happen each time
            break;
        }
        size += line.size();
        lines.push_back(std::move(line));
    }
    std::string content;
    content.reserve(size);
    std::for_each(lines.rbegin(), lines.rend(), [&content](const std::string& line) { content += line; });
    platform::writeWholeFile(storage_.files, file_, asBytes(content), deliveredFilePermissions,
                             platform::Flush::content, platform::Links::follow);
    log_.reset();
    return catchUp();
}

/// Waits for its turn among the processes.
platform::KeptFileLock::Turn DeliveredTransfers::takeTurn() {
    try {
        return turns_.take();
    } catch (const platform::SystemError& error) {
        if (error.code() != std::errc::no_such_file_or_directory) {
            throw;
        }
    }
    storage_.files.createDirectories(file_.parent_path(), deliveredFolderPermissions);
    return turns_.take();
}

void DeliveredTransfers::append(const Delivery& delivery) {
    const platform::KeptFileLock::Turn turn = takeTurn();
    std::int64_t size = catchUp();
    if (!log_) {
        size = openLog();
    }
    if (size >= compactionBytes) {
        size = writeAnew();
    }
    const bool isTorn = size > taken_; // by a kill in the middle of a line, which ends here
    const std::string line = (isTorn ? "\n" : "") + encode(delivery);
    log_->seek(ByteOffset(size));
    log_->write(asBytes(line));
    taken_ = size + static_cast<std::int64_t>(line.size());
    list_.put(delivery);
}

template <typename Step>
void DeliveredTransfers::bestEffort(const char* what, Step step) {
    try {
        step();
    } catch (const platform::SystemError& error) {
        log_.reset(); // whatever was half done, the next call looks at it anew
        log(what, error);
    }
}

void DeliveredTransfers::log(const char* what, const platform::SystemError& error) const {
    storage_.log.write(platform::LogLevel::warning, "com.tarvinex.orlinth", "receiver",
                       std::string(what) + ": " + error.description());
}

bool DeliveredTransfers::isStillThere(const Delivery& delivery) const {
    try {
        const std::unique_ptr<platform::Folder> folder = storage_.files.openFolder(delivery.path.parent_path());
        const std::optional<platform::FileStatus> file =
            folder->status(platform::FileName(delivery.path.filename().native()));
        return file && isUnchanged(delivery, *file);
    } catch (const platform::SystemError& error) {
        if (error.code() == std::errc::no_such_file_or_directory || error.code() == std::errc::not_a_directory) {
            return false;
        }
        throw;
    }
}

std::optional<DeliveredTransfers::Delivery> DeliveredTransfers::find(const PeerKey& peerKey,
                                                                     const TransferId& transferId) {
    const std::optional<Delivery> delivery = remembered(peerKey, transferId);
    try {
        // not under the lock: its folder may be on a disk that hangs, while today's does not
        return delivery && isStillThere(*delivery) ? delivery : std::nullopt;
    } catch (const platform::SystemError& error) {
        log("cannot look for a file that was delivered", error);
        return std::nullopt;
    }
}

std::optional<DeliveredTransfers::Delivery> DeliveredTransfers::remembered(const PeerKey& peerKey,
                                                                           const TransferId& transferId) {
    const MutexLock guard(lock_);
    std::optional<Delivery> known;
    bestEffort("cannot read which files were delivered", [&] {
        lock_.assertHeld();
        static_cast<void>(catchUp());
        const Delivery* const delivery = list_.find({peerKey, transferId});
        if (delivery != nullptr && delivery->at_epoch_ms >= storage_.clock.epochMilliseconds() - maxAge) {
            known = *delivery;
        }
    });
    return known;
}

std::optional<DeliveredTransfers::Delivery> DeliveredTransfers::find(const PeerKey& peerKey,
                                                                     const TransferId& transferId, std::int64_t size) {
    std::optional<Delivery> found = find(peerKey, transferId);
    return found && found->size == size ? found : std::nullopt;
}

std::unique_ptr<platform::Folder> DeliveredTransfers::folderOf(const Delivery& delivery) const {
    try {
        return storage_.files.openFolder(delivery.path.parent_path());
    } catch (const platform::SystemError&) {
        return nullptr;
    }
}

void DeliveredTransfers::intend(const PeerKey& peerKey, const TransferId& transferId, const platform::Path& path,
                                const platform::FileStatus& file) {
    std::error_code unknown; // where we are: then the path stays relative
    const platform::Path absolute = std::filesystem::absolute(path, unknown);
    if (transferId.text().size() > maxIdBytes || !isUtf8(absolute.native()) || !absolute.is_absolute() ||
        absolute.native().size() > longestPath) {
        return; // JSON holds no other text
    }
    const MutexLock guard(lock_);
    bestEffort("cannot save which file is delivered", [&] {
        lock_.assertHeld();
        append({.peerKey = peerKey,
                .transfer_id = transferId,
                .path = absolute,
                .device = file.device,
                .inode = file.inode,
                .size = file.size,
                .modified_ns = file.modifiedAt,
                .at_epoch_ms = storage_.clock.epochMilliseconds()});
    });
}

void DeliveredTransfers::settle(const PeerKey& peerKey, const TransferId& transferId) {
    const MutexLock guard(lock_);
    const Delivery* const intended = list_.find({peerKey, transferId});
    if (intended == nullptr) {
        return; // it could not be saved, which was logged
    }
    Delivery delivery = *intended;
    delivery.isSettled = true;
    bestEffort("cannot save which file was delivered", [&] {
        lock_.assertHeld();
        append(delivery);
    });
}

} // namespace orlinth
