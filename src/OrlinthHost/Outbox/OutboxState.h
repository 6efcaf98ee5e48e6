#pragma once

#include "OrlinthCore/Peers/PeerRecord.h"
#include "OrlinthCore/Share/ShareOutbox.h"
#include "base/StrongText.h"
#include "platform/FileSystem.h"

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace orlinth::host {

/// What the host remembers of a batch: to whom it goes, and what has become of each file there.
///
/// A folder `outbox/<batch id>/` of the data folder with `state.jsonl`, and a journal of transfer ids for each phone,
/// so that one phone's success leaves the others their resumes. The first line of `state.jsonl` is everything that was
/// known when the file was last written whole, here broken in two, and each line below tells what has become of one
/// file since, so that a batch of thousands costs no more for each of its files than a small one:
///
///     {"phones":[{"pubkey":"…","hostname":"Pixel","done":["a.jpg"],
///                 "failed":{"c.jpg":"the phone declined the file."},"waiting":"network: …"}]}
///     {"done":true,"file":"b.jpg","pubkey":"…"}
///     {"failed":"the phone declined the file.","file":"d.jpg","pubkey":"…"}
class OutboxState {
public:
    static constexpr const char* folderName = "outbox";
    /// Why a file has failed that somebody has cancelled: for good, whoever tries the others again.
    static constexpr const char* cancelled = "cancelled";
    static constexpr const char* fileName = "state.jsonl";

    /// One phone that the batch goes to.
    struct Phone {
        PeerKey peerKey;
        std::string hostname; ///< as it was called last; "" if it was never known here
        std::set<std::string> done;
        std::map<std::string, std::string> failed; ///< file, reason; those that are not tried again
        std::string waiting;                       ///< why the last attempt failed; "" if none has since a success

        /// The file was sent, so the phone does not wait for anything just now.
        void setDone(const std::string& file);
        /// Everything that has failed is to be tried again, but what was cancelled.
        void forgetFailures();
        /// Whether it is neither done nor failed.
        [[nodiscard]] bool isOpen(const std::string& file) const;
        /// Whether anything has failed otherwise than by being cancelled.
        [[nodiscard]] bool hasFailures() const;
        /// What has failed counts as cancelled from now on.
        void cancelFailures();
        /// What to call it: its name, or the beginning of its key.
        [[nodiscard]] std::string displayName() const;

        bool operator==(const Phone&) const = default;
    };

    /// Nothing is remembered yet. `files` outlives this. Touches no file.
    OutboxState(platform::FileSystem& files, platform::Path folder) : files_(&files), folder_(std::move(folder)) {}
    /// What was remembered, up to the first line that cannot be read; nothing if that is the first of all.
    [[nodiscard]] static std::optional<OutboxState> load(platform::FileSystem& files, const platform::Path& folder);
    /// The same of a file's content. @throws JsonError if nothing can be read
    [[nodiscard]] static std::vector<Phone> decode(ByteView content);
    /// As a line that can be read alone, with its end.
    [[nodiscard]] static std::string encode(const std::vector<Phone>& phones);

    /// Everything, whole. Makes the folder. @throws platform::SystemError
    void save();
    /// A file of one of the phones has just become done or failed: a line more, which is not flushed.
    /// Everything, as save() does, if this object has not saved before, or has failed to.
    /// @throws platform::SystemError
    void saveFile(const Phone& phone, const std::string& file);
    /// Returns when the lines of saveFile() would survive a power cut. @throws platform::SystemError
    void flush();
    /// Whether the last save() or saveFile() has failed.
    [[nodiscard]] bool isBehind() const noexcept { return hasSaved_ && !isWhole_; }
    [[nodiscard]] platform::Path journalFile(const PeerKey& peerKey) const;
    [[nodiscard]] Phone* find(const PeerKey& peerKey);
    /// Everything that has failed is to be tried again.
    void forgetFailures();
    /// Removes the folder. @throws platform::SystemError
    void remove();

    std::vector<Phone> phones;

private:
    platform::FileSystem* files_;
    platform::Path folder_;
    bool hasSaved_ = false; ///< or has tried to
    bool isWhole_ = false;  ///< another line may follow: what was written last was written to its end
    bool hasUnflushed_ = false;
};

/// The phones that a batch is for: those that its manifest names, paired or not, each once. Where it names none, there
/// was only one, which is taken to be the one that was paired last when the batch was made; else, since a phone that
/// pairs anew counts as paired later, the only one there is, unless a phone was removed, as `wasOneRemoved` says, which
/// is asked only then.
/// Empty if no phone is paired and none is named.
/// @throws OutboxError if there are phones, but the one that was meant may be none of them
[[nodiscard]] std::vector<OutboxState::Phone> phonesFor(const ShareOutbox::Manifest& manifest, const PeerBook& book,
                                                        const std::function<bool()>& wasOneRemoved);

/// What is remembered of a phone of which nothing has happened yet; `record` may be null.
[[nodiscard]] OutboxState::Phone freshPhone(const PeerKey& peerKey, const PeerRecord* record);

} // namespace orlinth::host
