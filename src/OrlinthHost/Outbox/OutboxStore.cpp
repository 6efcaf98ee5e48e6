#include "OrlinthHost/Outbox/OutboxStore.h"

#include "OrlinthHost/HostError.h"
#include "OrlinthHost/Phones/PeerSelection.h"
#include "OrlinthHost/Phones/RemovedPeers.h"
#include "base/Text.h"
#include "platform/SystemError.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <tuple>
#include <utility>

namespace orlinth::host {

OutboxStore::OutboxStore(const Home& home)
    : home_(home), batches_(home.system.files, home.system.clock, home.system.directories) {}

platform::Path OutboxStore::memory() const {
    return home_.dataDirectory() / OutboxState::folderName;
}

// ---- looking

std::int64_t OutboxStore::Entry::sizeOf(const platform::FileSystem& files, const std::string& name) const {
    try {
        const std::optional<platform::FileStatus> status = files.status(batch.folder / name);
        return status ? status->size : 0;
    } catch (const platform::SystemError&) {
        return 0;
    }
}

std::vector<OutboxStore::Entry> OutboxStore::all() const {
    std::vector<Entry> entries;
    for (const bool isSetAside : {false, true}) {
        for (const BatchId& id : isSetAside ? batches_.setAsideIds() : batches_.ids()) {
            if (isSetAside || batches_.isComplete(id)) {
                entries.push_back(look(id, isSetAside));
            }
        }
    }
    std::ranges::sort(entries, [](const Entry& one, const Entry& other) {
        return std::tie(one.batch.manifest.createdAtMs, one.id) < std::tie(other.batch.manifest.createdAtMs, other.id);
    });
    return entries;
}

OutboxStore::Entry OutboxStore::look(const BatchId& id, bool isSetAside) const {
    Entry entry{.id = id,
                .isSetAside = isSetAside,
                .batch = {},
                .state = OutboxState(home_.system.files, memoryOf(id)),
                .problem = ""};
    try {
        entry.batch = isSetAside ? batches_.readSetAside(id) : batches_.read(id);
        if (std::optional<OutboxState> known = OutboxState::load(home_.system.files, memoryOf(id))) {
            entry.state = std::move(*known);
        } else {
            for (const std::string& name : entry.batch.manifest.files) {
                batches_.checkFile(entry.batch, name);
            }
            entry.state.phones = phonesOf(entry.batch.manifest);
        }
    } catch (const Error& error) {
        entry.problem = error.description();
    }
    return entry;
}

std::vector<OutboxStore::Entry> OutboxStore::matching(const std::vector<std::string>& selectors) const {
    const std::vector<Entry> entries = all();
    std::vector<Entry> chosen;
    for (const std::string& selector : selectors) {
        std::vector<Entry> found;
        std::ranges::copy_if(entries, std::back_inserter(found), [prefix = lowerCased(selector)](const Entry& entry) {
            return lowerCased(entry.id.text()).starts_with(prefix);
        });
        if (found.empty()) {
            throw HostError("no batch begins with '" + selector + "'", "`orlinth outbox` lists them.");
        }
        if (found.size() > 1) {
            throw HostError("several batches begin with '" + selector + "'", "`orlinth outbox` lists them.");
        }
        if (std::ranges::find(chosen, found.front().id, &Entry::id) == chosen.end()) {
            chosen.push_back(std::move(found.front()));
        }
    }
    return chosen;
}

std::vector<OutboxState::Phone> OutboxStore::phonesOf(const ShareOutbox::Manifest& manifest) const {
    return phonesFor(manifest, home_.peers().loadBook(),
                     [this] { return !RemovedPeers(home_.system.files, home_.dataDirectory()).load().empty(); });
}

// ---- changing

void OutboxStore::retry(const Entry& entry) {
    if (entry.isSetAside) {
        bringBack(entry.id);
    } else if (std::optional<OutboxState> state = OutboxState::load(home_.system.files, memoryOf(entry.id))) {
        state->forgetFailures();
        state->save();
    }
}

void OutboxStore::drop(const Entry& entry) {
    if (entry.isSetAside) {
        batches_.removeSetAside(entry.id);
    } else {
        batches_.remove(entry.id);
    }
    OutboxState(home_.system.files, memoryOf(entry.id)).remove();
}

void OutboxStore::drop(Entry entry, const PeerKey& peerKey) {
    const bool isKeptForAnother = std::ranges::any_of(entry.state.phones, [&peerKey](const OutboxState::Phone& phone) {
        return phone.peerKey != peerKey && phone.hasFailures();
    });
    if (!isKeptForAnother) {
        drop(entry);
    } else if (OutboxState::Phone* const phone = entry.state.find(peerKey)) {
        phone->cancelFailures();
        entry.state.save();
    }
}

void OutboxStore::bringBack(const BatchId& id) {
    bringBack(id, OutboxState::load(home_.system.files, memoryOf(id)), std::nullopt);
}

bool OutboxStore::bringBack(const BatchId& id, const PeerKey& peerKey) {
    const std::vector<BatchId> setAside = batches_.setAsideIds();
    std::optional<OutboxState> state = OutboxState::load(home_.system.files, memoryOf(id));
    if (std::ranges::find(setAside, id) == setAside.end() || !state || state->find(peerKey) == nullptr) {
        return false;
    }
    bringBack(id, std::move(state), peerKey);
    return true;
}

void OutboxStore::bringBack(const BatchId& id, std::optional<OutboxState> state,
                            const std::optional<PeerKey>& onlyFor) {
    std::optional<ShareOutbox::Manifest> manifest;
    try {
        manifest = batches_.readSetAside(id).manifest;
    } catch (const OutboxError&) {
        manifest.reset(); // it makes no sense, and will be set aside again
    }
    const PeerBook paired = home_.peers().loadBook();
    const bool isPaired = state && paired.find(state->phones.front().peerKey) != nullptr;
    if (manifest && !manifest->targetPubkeys && !isPaired) {
        chooseAgain(*manifest);
    } else if (state) {
        if (onlyFor) {
            state->find(*onlyFor)->forgetFailures();
        } else {
            state->forgetFailures();
        }
        state->save();
    }
    batches_.bringBack(id);
}

/// Nobody has chosen the phone of this batch: whoever brings it back wants it to go to the one that is there now. If
/// the settings do not say which that is, nothing is changed.
void OutboxStore::chooseAgain(const ShareOutbox::Manifest& manifest) const {
    bool isKnown = true;
    try {
        static_cast<void>(phonesOf(manifest)); // as the batch is taken in, which finds the same
    } catch (const OutboxError&) {
        isKnown = false;
    }
    const std::optional<PeerRecord> phone = isKnown ? std::nullopt : defaultRecord(home_);
    OutboxState state(home_.system.files, memoryOf(BatchId(manifest.id)));
    state.remove();
    if (phone) {
        state.phones.push_back(freshPhone(phone->peer_pubkey, &*phone));
        state.save();
    }
}

} // namespace orlinth::host
