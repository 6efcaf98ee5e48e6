#pragma once

#include "OrlinthCore/Sending/InFlightJournal.h"
#include "OrlinthCore/Sending/SendTransfer.h"
#include "OrlinthHost/Sending/SourceMemory.h"
#include "base/StrongText.h"

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace orlinth::host {

/// The files of one `send`: what each of them is, and under which id it is offered.
///
/// They are examined and their ids written down for many at once, in their order, shortly before their turn. Two of the
/// same name and content would share an id, so the second waits until the first is through. A file that changes between
/// its examination and its turn is examined anew, and gets an id of its own: a resume must not join two contents.
///
/// Files go by their numbers, from 0, in the order in which they were named. Threading: one call at a time.
class SendSources {
public:
    /// Files whose ids are written down at once.
    static constexpr std::size_t filesPreparedAtOnce = 64;

    /// What was offered to a phone.
    struct Offer {
        InFlightKey key;
        TransferId id;
    };

    /// Files for so many phones. What is referred to outlives this; the journal is used by nobody else meanwhile.
    SendSources(platform::FileSystem& files, const platform::MimeTypes& mimeTypes, InFlightJournal& journal,
                std::vector<std::string> paths, std::size_t phones);

    [[nodiscard]] const std::string& pathOf(std::size_t file) const { return sources_.at(file).path; }
    [[nodiscard]] std::int64_t sizeOf(std::size_t file) const { return sources_.at(file).size; }
    /// In bytes; 0 of those that cannot be looked at, which is met again when they are sent.
    [[nodiscard]] std::vector<std::int64_t> sizes() const;

    /// Sees to it that this file is examined and has its id, and those behind it. Returns false if it must wait for an
    /// equal one that is under way.
    [[nodiscard]] bool prepare(std::size_t first);
    /// While nothing is under way: a file that has become equal to one behind it must not wait for that for ever.
    void prepareAnew();
    /// What to send of a file that is prepared, and what it is offered as from now on.
    /// @throws SendError, platform::SystemError: the reason why it could not be prepared
    [[nodiscard]] PreparedFile take(std::size_t file, std::optional<Offer>& offer);
    /// Whether it is not what it was when it was prepared.
    [[nodiscard]] bool hasChanged(std::size_t file) const;

    /// A phone has the file.
    void delivered(std::size_t file, const Offer& offer);
    /// A phone does not get it now; what it has of it is kept for the next time. Nothing may have been offered.
    void failed(std::size_t file, const std::optional<Offer>& offer);
    /// The same, when nobody asks about the file any more.
    void keepForNextTime(std::size_t file, const std::optional<Offer>& offer) noexcept;
    /// Forgets what would only be in the way: what was remembered of files that were never begun. The last call.
    void tidy() noexcept;

private:
    struct Source {
        std::string path;
        std::int64_t size = 0;
        bool isPrepared = false;
        bool isBegun = false;
        bool hasFailed = false;
        std::size_t left = 0; ///< phones that are not done with it
        std::optional<SourceMemory::Source> known;
        TransferId id; ///< under which it is offered, if it is known
    };

    void reserve(const std::vector<std::size_t>& numbers, std::vector<SourceMemory::Source> known);
    void unprepare(Source& source);
    void doneWith(std::size_t file, bool wasSent);

    platform::FileSystem& files_;
    const platform::MimeTypes& mimeTypes_;
    std::vector<Source> sources_;
    SourceMemory memory_;
    InFlightJournal::Batch batch_;
    std::set<std::string> keysUnderWay_; ///< of the prepared sources that some phone still has to get
};

} // namespace orlinth::host
