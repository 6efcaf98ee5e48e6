#pragma once

#include "OrlinthCore/Receiving/CollisionResolver.h"
#include "base/Mutex.h"

#include <list>
#include <memory>

namespace orlinth {

/// What a host lets phones put into the downloads folder.
struct DownloadLimits {
    /// Unfinished downloads that one phone may leave; each offer that breaks off leaves two files, however small.
    static constexpr std::size_t maxPartials = 1000;

    std::int64_t keepFreeBytes = 0; ///< stay free on the folder's file system; 0: none
    std::int64_t maxFileBytes = 0;  ///< the largest file; 0: any size
};

/// Why a file is not taken.
struct DownloadRefusal {
    enum class Reason { tooLarge, noRoom, tooManyPartials };

    Reason reason;
    std::int64_t limit; ///< the one that stands in the way: bytes, or a number of downloads

    /// In words.
    [[nodiscard]] std::string description() const;
    bool operator==(const DownloadRefusal&) const = default;
};

/// Counts what is still to come of the transfers under way, so that several of them together do not fill a disk on
/// which there is room for each. Any thread.
class DownloadRoom {
public:
    /// One transfer's part; it ends with the object, which outlives nothing but itself.
    class Share {
    public:
        Share(Share&&) noexcept = default;
        Share& operator=(Share&&) = delete;
        ~Share();
        /// So many bytes have come.
        void took(std::int64_t bytes);

    private:
        friend class DownloadRoom;
        struct Entry;
        struct Ledger;
        Share(std::shared_ptr<Ledger> ledger, std::shared_ptr<Entry> entry);
        std::shared_ptr<Ledger> ledger_;
        std::shared_ptr<Entry> entry_;
    };

    DownloadRoom();
    /// Bytes still to come of all other transfers; the largest number if there are more than that.
    [[nodiscard]] std::int64_t promisedToOthers(const CollisionResolver::Transfer& transfer) const;
    /// Counts a transfer of which so many bytes are to come, in place of an earlier connection's attempt at it.
    [[nodiscard]] Share promise(const CollisionResolver::Transfer& transfer, std::int64_t bytes);

private:
    std::shared_ptr<Share::Ledger> ledger_;
};

} // namespace orlinth
