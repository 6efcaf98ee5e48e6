#pragma once

#include "OrlinthHost/Home.h"
#include "OrlinthHost/Outbox/OutboxBatches.h"
#include "OrlinthHost/Outbox/OutboxState.h"

#include <optional>
#include <string>
#include <vector>

namespace orlinth::host {

/// What lies in the outbox and what is remembered of it, as the files say: to look at, and to change while no service
/// does. A service has it all in its OutboxQueue, and must be asked instead.
///
/// Threading: none of its own; blocks on the disk. Throws platform::SystemError unless it says otherwise.
class OutboxStore {
public:
    /// `home` outlives this. Touches no file.
    explicit OutboxStore(const Home& home);

    /// A batch, with what has become of it.
    struct Entry {
        BatchId id;
        bool isSetAside = false;
        OutboxBatches::Batch batch;
        OutboxState state;
        std::string problem; ///< why it cannot be read; "" if it can

        /// Of a file of the batch, bytes; 0 if that cannot be found out.
        [[nodiscard]] std::int64_t sizeOf(const platform::FileSystem& files, const std::string& name) const;
    };

    /// The complete ones, and those that were set aside; the oldest first.
    [[nodiscard]] std::vector<Entry> all() const;
    /// Those whose ids begin like this, in any letter case: each once, in the order of the selectors.
    /// @throws HostError if there is none for a selector, or several
    [[nodiscard]] std::vector<Entry> matching(const std::vector<std::string>& selectors) const;

    /// What has failed for good is to be tried again; a batch that was set aside is brought back.
    /// @throws as bringBack()
    void retry(const Entry& entry);
    /// Removes the batch and what is remembered of it.
    void drop(const Entry& entry);
    /// Takes back what one phone has not got of a batch that was set aside: all of the batch, unless it is kept for
    /// another phone.
    void drop(Entry entry, const PeerKey& peerKey);

    /// Moves a batch that was set aside back into the outbox, to be tried as a whole: but for what its phones have. One
    /// for which no phone was chosen, and whose phone is not paired any more, goes to the default phone.
    /// @throws HostError if the settings mean none or several, and then it stays where it is; OutboxError,
    ///         PeerStoreError
    void bringBack(const BatchId& id);
    /// Likewise, to be tried for one of its phones, and for no other that lacks something. Returns false, and changes
    /// nothing, if it was not set aside or that phone is none of its own. @throws as bringBack() of a batch
    [[nodiscard]] bool bringBack(const BatchId& id, const PeerKey& peerKey);

    /// The phones that a batch is for, as phonesFor(manifest, book, …) says. @throws HostError, PeerStoreError,
    /// OutboxError
    [[nodiscard]] std::vector<OutboxState::Phone> phonesOf(const ShareOutbox::Manifest& manifest) const;
    /// Where what is remembered of all batches lies, and of one.
    [[nodiscard]] platform::Path memory() const;
    [[nodiscard]] platform::Path memoryOf(const BatchId& id) const { return memory() / id.text(); }

private:
    [[nodiscard]] Entry look(const BatchId& id, bool isSetAside) const;
    void bringBack(const BatchId& id, std::optional<OutboxState> state, const std::optional<PeerKey>& onlyFor);
    void chooseAgain(const ShareOutbox::Manifest& manifest) const;

    const Home& home_;
    OutboxBatches batches_;
};

} // namespace orlinth::host
