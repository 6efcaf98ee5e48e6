#pragma once

#include "OrlinthCore/Peers/PeerRecord.h"
#include "OrlinthCore/Share/ShareOutbox.h"
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
/// A folder `outbox/<batch id>/` of the data folder with `state.json`, replaced whole by each save(), and a journal of
/// transfer ids for each phone, so that one phone's success leaves the others their resumes:
///
///     {"phones" : [{"pubkey" : "…", "hostname" : "Pixel", "done" : ["a.jpg"], "begun" : {"b.jpg" : "b.jpg|7|…"},
///                   "failed" : {"c.jpg" : "the phone declined the file."}, "waiting" : "network: …"}]}
///
/// "begun" is the key of the file's entry in the phone's journal, recorded once that is on disk. The entry goes when
/// the file has been sent, so a file that was begun and has no entry was sent, also if the host was killed before it
/// could say so here.
class OutboxState {
public:
    static constexpr const char* folderName = "outbox";
    static constexpr const char* fileName = "state.json";

    /// One phone that the batch goes to.
    struct Phone {
        std::string pubkey;   ///< Base64, as in the peer store
        std::string hostname; ///< as it was called last; "" if it was never known here
        std::set<std::string> done;
        std::map<std::string, std::string> begun;  ///< file, entry in the journal
        std::map<std::string, std::string> failed; ///< file, reason; those that are not tried again
        std::string waiting;                       ///< why the last attempt failed; "" if none has since a success

        /// The file is not tried again. Nor does it count as begun any more: what becomes of its entry in the journal
        /// then proves nothing.
        void setFailed(const std::string& file, const std::string& reason);
        /// Whether it is neither done nor failed.
        [[nodiscard]] bool isOpen(const std::string& file) const;
        /// What to call it: its name, or the beginning of its key.
        [[nodiscard]] std::string displayName() const;
    };

    /// Nothing is remembered yet. `files` outlives this. Touches no file.
    OutboxState(platform::FileSystem& files, platform::Path folder) : files_(&files), folder_(std::move(folder)) {}
    /// What was remembered; nothing if there is nothing that can be read.
    [[nodiscard]] static std::optional<OutboxState> load(platform::FileSystem& files, const platform::Path& folder);

    /// Makes the folder. @throws platform::SystemError
    void save();
    /// Takes the files as done that were begun and of which the journal has no entry any more. A journal that cannot be
    /// read proves nothing.
    void learnFromJournals();
    /// Puts an entry into the phone's journal under the id that it had. @throws platform::SystemError
    void restoreEntry(const std::string& pubkey, const std::string& entry, const std::string& transferId);
    [[nodiscard]] platform::Path journalFile(const std::string& pubkey) const;
    [[nodiscard]] Phone* find(const std::string& pubkey);
    /// Everything that has failed is to be tried again.
    void forgetFailures();
    /// Removes the folder. @throws platform::SystemError
    void remove();

    std::vector<Phone> phones;

private:
    [[nodiscard]] Json toJson() const;

    platform::FileSystem* files_;
    platform::Path folder_;
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
[[nodiscard]] OutboxState::Phone freshPhone(const std::string& pubkey, const PeerRecord* record);

} // namespace orlinth::host
