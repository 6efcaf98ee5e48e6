#pragma once

#include "OrlinthCore/SecureChannel/TransportFrame.h"
#include "base/Bytes.h"
#include "base/Mutex.h"
#include "base/StrongText.h"
#include "platform/Folder.h"
#include "platform/Storage.h"
#include "platform/SystemError.h"
#include "platform/WholeFile.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace orlinth {

/// What was received lately, so that a transfer that its sender offers once more, because it did not see the end of the
/// first delivery, is not received twice.
///
/// A file `delivered.jsonl` in the data folder, one line a change; the last line of a transfer counts. A transfer gets
/// one before its file is moved to its final name, and another one once the move is durable:
///
///     intend() ──▶ move ──▶ flush the folder ──▶ settle() ──▶ report ──▶ close the connection
///
/// A kill at any of these points leaves the partial file, which is resumed, or the delivered one, which find() knows:
/// it compares inode, size and time of change, none of which a move alters. Lines are not flushed: a power cut
/// takes those of the last seconds along, and a transfer whose end its sender has not seen by then is received again.
///
/// It never stands in the way of a file: what cannot be read counts as empty, line by line, and what cannot be written
/// is logged. Changes hold an advisory lock against other processes.
///
/// Threading: any thread. Calls block on the disk.
class DeliveredTransfers {
public:
    static constexpr const char* fileName = "delivered.jsonl";
    /// Transfers that are remembered; the oldest goes first. Many times what all phones of a person have under way at
    /// once, and about 2 MiB of memory.
    static constexpr std::size_t maxEntries = 4096;
    /// How long: a phone that was away for its owner's holidays may come back with what it has not seen the end of.
    static constexpr std::chrono::days maxAge{30};
    /// Longest id that is remembered, bytes: every one that is taken.
    static constexpr std::size_t maxIdBytes = TransportMessage::maxTransferIdBytes;
    /// Longest line that is read: a path of PATH_MAX bytes, each escaped, and the rest.
    static constexpr std::size_t maxLineBytes = 32768;
    /// When the file has grown to this, it is written anew, with what is still remembered.
    static constexpr std::int64_t compactionBytes = 4 << 20;
    /// Above this the file is not ours: it counts as empty, and the next change replaces it.
    static constexpr std::int64_t maxFileBytes = 16 << 20;

    /// One transfer.
    struct Delivery {
        PeerKey peerKey;
        TransferId transfer_id;   ///< as the offer gave it
        platform::Path path;      ///< the final name, absolute
        std::uint64_t device = 0; ///< for people to read; it may change with a reboot
        std::uint64_t inode = 0;
        std::int64_t size = 0; ///< bytes
        EpochNanoseconds modified_ns{};
        EpochMilliseconds at_epoch_ms{};
        bool isSettled = false; ///< false: it was about to be moved, and nobody has been told of it yet

        bool operator==(const Delivery&) const = default;
    };

    /// Touches no file.
    explicit DeliveredTransfers(platform::Storage storage);
    DeliveredTransfers(const DeliveredTransfers&) = delete;
    DeliveredTransfers& operator=(const DeliveredTransfers&) = delete;
    ~DeliveredTransfers();

    /// The transfer, if its file still lies where it was delivered, unchanged: it itself, and no link in its place.
    [[nodiscard]] std::optional<Delivery> find(const PeerKey& peerKey, const TransferId& transferId);
    /// The same, if it has the size that is offered: else it is not the one that is meant, whatever its id says.
    [[nodiscard]] std::optional<Delivery> find(const PeerKey& peerKey, const TransferId& transferId, std::int64_t size);
    /// The folder in which it was delivered; null if that is gone.
    [[nodiscard]] std::unique_ptr<platform::Folder> folderOf(const Delivery& delivery) const;
    /// `file` is what its partial file is like, flushed; it is about to get the name `path`. Instead of what was
    /// remembered of the same transfer.
    void intend(const PeerKey& peerKey, const TransferId& transferId, const platform::Path& path,
                const platform::FileStatus& file);
    /// The file has its name for good.
    void settle(const PeerKey& peerKey, const TransferId& transferId);

    /// What the lines of a file's content say, oldest first, each transfer once; lines that say nothing are skipped.
    [[nodiscard]] static std::vector<Delivery> decode(ByteView content);
    /// As a line, with its end.
    [[nodiscard]] static std::string encode(const Delivery& delivery);

private:
    using Key = std::pair<PeerKey, TransferId>;
    struct Entry {
        Delivery delivery;
        std::uint64_t number = 0; ///< higher than that of every older one
    };
    /// The transfers in the order in which they were remembered.
    class List {
    public:
        void put(Delivery delivery);
        [[nodiscard]] const Delivery* find(const Key& key) const;
        /// Takes in a line; nothing if it says nothing.
        void take(ByteView line);
        [[nodiscard]] std::vector<Delivery> all() const;
        void forgetOlderThan(EpochMilliseconds moment);
        void clear();

    private:
        std::map<Key, Entry> entries_;
        std::map<std::uint64_t, Key> order_;
        std::uint64_t last_ = 0;
    };

    [[nodiscard]] std::size_t takeLines(ByteView content) ORLINTH_REQUIRES(lock_);
    [[nodiscard]] std::optional<Delivery> remembered(const PeerKey& peerKey, const TransferId& transferId);
    [[nodiscard]] bool isStillThere(const Delivery& delivery) const;
    void log(const char* what, const platform::SystemError& error) const;
    [[nodiscard]] platform::KeptFileLock::Turn takeTurn() ORLINTH_REQUIRES(lock_);
    [[nodiscard]] std::int64_t catchUp() ORLINTH_REQUIRES(lock_);
    [[nodiscard]] std::int64_t openLog() ORLINTH_REQUIRES(lock_);
    void closeLog() ORLINTH_REQUIRES(lock_);
    void append(const Delivery& delivery) ORLINTH_REQUIRES(lock_);
    [[nodiscard]] std::int64_t writeAnew() ORLINTH_REQUIRES(lock_);
    template <typename Step>
    void bestEffort(const char* what, Step step) ORLINTH_REQUIRES(lock_);

    platform::Storage storage_;
    platform::Path file_;
    Mutex lock_;
    platform::KeptFileLock turns_ ORLINTH_GUARDED_BY(lock_); ///< of the processes
    List list_ ORLINTH_GUARDED_BY(lock_);
    /// Kept open, so that no other file gets its inode; null if there is none.
    std::unique_ptr<platform::File> log_ ORLINTH_GUARDED_BY(lock_);
    platform::FileStatus opened_ ORLINTH_GUARDED_BY(lock_); ///< it, when it was opened
    std::int64_t taken_ ORLINTH_GUARDED_BY(lock_) = 0;      ///< bytes of it that are in the list; whole lines
};

} // namespace orlinth
