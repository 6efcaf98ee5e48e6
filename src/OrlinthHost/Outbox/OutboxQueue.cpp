#include "OrlinthHost/Outbox/OutboxQueue.h"

#include "OrlinthHost/HumanText.h"
#include "OrlinthHost/Outbox/OutboxLookout.h"
#include "OrlinthHost/Phones/LastPhone.h"
#include "base/Text.h"
#include "platform/SystemError.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace orlinth::host {

namespace {

/// What has failed for good, a phrase for each phone and reason. What was cancelled has not.
std::string summaryOf(const OutboxState& state) {
    std::string text;
    for (const OutboxState::Phone& phone : state.phones) {
        std::map<std::string, std::vector<std::string>> byReason;
        for (const auto& [file, reason] : phone.failed) {
            if (reason != OutboxState::cancelled) {
                byReason[reason].push_back(file);
            }
        }
        for (const auto& [reason, files] : byReason) {
            text += text.empty() ? "" : "; ";
            text += (files.size() == 1 ? forDisplay(files.front()) : countOfFiles(files.size())) + " not sent to " +
                    forDisplay(phone.displayName()) + " (" + forDisplay(reason) + ")";
        }
    }
    return text;
}

/// Nothing has failed, nor was anything cancelled.
bool isEverythingSent(const OutboxState& state) {
    return std::ranges::all_of(state.phones, [](const OutboxState::Phone& phone) { return phone.failed.empty(); });
}

} // namespace

bool OutboxQueue::Job::isOpenFor(const PeerKey& peerKey) {
    const OutboxState::Phone* const phone = state.find(peerKey);
    if (phone == nullptr || isDropped) {
        return false;
    }
    const std::vector<std::string>& files = batch.manifest.files;
    std::size_t& first = firstOpen[peerKey];
    while (first < files.size() && !phone->isOpen(files[first])) {
        ++first;
    }
    return first < files.size();
}

std::optional<std::string> OutboxQueue::Job::nextFor(const PeerKey& peerKey) {
    std::optional<std::string> next;
    if (!isOpenFor(peerKey)) {
        return next;
    }
    const OutboxState::Phone& phone = *state.find(peerKey);
    const std::vector<std::string>& files = batch.manifest.files;
    int fewest = 0;
    for (std::size_t i = firstOpen.at(peerKey); i < files.size(); ++i) {
        if (!phone.isOpen(files[i]) || underWay.contains({peerKey, files[i]})) {
            continue;
        }
        const int count = attemptsInVain(peerKey, files[i]);
        if (!next || count < fewest) {
            next = files[i];
            fewest = count;
        }
        if (count == 0) {
            break;
        }
    }
    return next;
}

std::vector<std::string> OutboxQueue::Job::upcoming(const PeerKey& peerKey, std::size_t most) {
    std::vector<std::string> names;
    const std::optional<std::string> next = nextFor(peerKey);
    if (!next) {
        return names;
    }
    names.push_back(*next);
    const OutboxState::Phone& phone = *state.find(peerKey);
    const std::vector<std::string>& files = batch.manifest.files;
    for (std::size_t i = firstOpen.at(peerKey); i < files.size() && names.size() < most; ++i) {
        const bool comesBehind = files[i] != *next && phone.isOpen(files[i]) && !underWay.contains({peerKey, files[i]});
        if (comesBehind && attemptsInVain(peerKey, files[i]) == 0) {
            names.push_back(files[i]);
        }
    }
    return names;
}

int OutboxQueue::Job::attemptsInVain(const PeerKey& peerKey, const std::string& file) const {
    const auto at = inVain.find({peerKey, file});
    return at == inVain.end() ? 0 : at->second;
}

void OutboxQueue::Job::startOver() {
    state.forgetFailures();
    inVain.clear();
    through.clear();
    firstOpen.clear();
}

void OutboxQueue::Job::startOver(const PeerKey& peerKey) {
    state.find(peerKey)->forgetFailures();
    std::erase_if(inVain, [&peerKey](const auto& entry) { return entry.first.first == peerKey; });
    through.erase(peerKey);
    firstOpen.erase(peerKey);
}

OutboxQueue::OutboxQueue(Home& home, OutboxEvents& events)
    : home_(home),
      events_(events),
      store_(home),
      batches_(home.system.files, home.system.clock, home.system.directories) {}

// What comes, and what has gone

void OutboxQueue::forgetOrphans() noexcept {
    try {
        if (!home_.system.files.exists(store_.memory())) {
            return;
        }
        for (const std::string& name : home_.system.files.list(store_.memory())) {
            if (OutboxBatches::isId(name) && batches_.isGone(BatchId(name)) &&
                batches_.isGoneFromSetAside(BatchId(name))) {
                OutboxState(home_.system.files, store_.memory() / name).remove();
            }
        }
    } catch (const std::exception&) {
        return; // it is in nobody's way
    }
}

std::optional<platform::Path> OutboxQueue::makeOutbox() {
    try {
        platform::Path root = batches_.makeFolder();
        isLackTold_ = false;
        return root;
    } catch (const OutboxError& error) {
        if (!std::exchange(isLackTold_, true)) {
            events_.noOutbox(error.description());
        }
        return std::nullopt;
    }
}

OutboxQueue::News OutboxQueue::look(const Watch& watch) {
    News news;
    const std::optional<platform::Path> root = makeOutbox();
    std::set<BatchId> known = unusable_;
    std::transform(jobs_.begin(), jobs_.end(), std::inserter(known, known.end()),
                   [](const auto& entry) { return entry.first; });
    static_cast<void>(batches_.clearAbandoned(known));
    try {
        std::set<platform::Path> incomplete;
        for (const BatchId& id : batches_.ids()) {
            if (!jobs_.contains(id) && !batches_.isComplete(id)) {
                incomplete.insert(batches_.folderOf(id));
            }
        }
        watch(root, incomplete);
        for (const BatchId& id : batches_.ids()) { // again: it may have come before the watch was there
            if (!jobs_.contains(id) && !unusable_.contains(id) && batches_.isComplete(id)) {
                accept(id, news);
            }
        }
        std::erase_if(unusable_, [this](const BatchId& id) { return batches_.isGone(id); });
        if (root) { // else nothing can be told of what is there
            findVanished(news);
        }
    } catch (const platform::SystemError& error) {
        log(platform::LogLevel::error, "cannot look through the outbox: " + error.description());
    }
    return news;
}

void OutboxQueue::findVanished(News& news) const {
    for (const auto& [id, job] : jobs_) {
        if (batches_.isGone(id)) {
            job->hasVanished = true;
            news.vanished.push_back(id);
        }
    }
}

void OutboxQueue::accept(const BatchId& id, News& news) {
    try {
        OutboxBatches::Batch batch = batches_.read(id);
        OutboxState state = remembered(batch);
        if (state.phones.empty()) {
            throw OutboxError("no phone is paired");
        }
        auto job = std::make_unique<Job>(Job{.batch = std::move(batch), .state = std::move(state)});
        for (const OutboxState::Phone& phone : job->state.phones) {
            if (job->isOpenFor(phone.peerKey)) {
                news.phones.insert(phone.peerKey);
            } else {
                job->through.insert(phone.peerKey);
            }
        }
        save(*job);
        jobs_.emplace(id, std::move(job));
        endIfThrough(id);
    } catch (const OutboxError& error) {
        setAside(id, error.description());
    } catch (const Error& error) { // of the disk or the peer store: the next look may find it well
        log(platform::LogLevel::error, "cannot take in batch " + id.text() + ": " + error.description());
        events_.waiting(id, "", error.description(), OutboxLookout::backstopInterval);
    }
}

OutboxState OutboxQueue::remembered(const OutboxBatches::Batch& batch) {
    const platform::Path folder = store_.memoryOf(BatchId(batch.manifest.id));
    if (std::optional<OutboxState> known = OutboxState::load(home_.system.files, folder)) {
        return std::move(*known); // was checked when it came; a file that is gone since concerns that file alone
    }
    for (const std::string& name : batch.manifest.files) {
        batches_.checkFile(batch, name);
    }
    OutboxState fresh(home_.system.files, folder);
    fresh.phones = store_.phonesOf(batch.manifest);
    return fresh;
}

OutboxQueue::Job* OutboxQueue::find(const BatchId& id) {
    const auto at = jobs_.find(id);
    return at == jobs_.end() ? nullptr : at->second.get();
}

OutboxQueue::Job* OutboxQueue::nextFor(const PeerKey& peerKey) {
    Job* next = nullptr;
    std::pair<int, EpochMilliseconds> place; // in the line
    for (const auto& [id, job] : jobs_) {
        if (const std::optional<std::string> file = job->nextFor(peerKey)) {
            const std::pair<int, EpochMilliseconds> mine = {job->attemptsInVain(peerKey, *file),
                                                            job->batch.manifest.createdAtMs};
            if (next == nullptr || mine < place) {
                next = job.get();
                place = mine;
            }
        }
    }
    return next;
}

// What becomes of it

std::shared_ptr<OutboxJournal> OutboxQueue::setUnderWay(Job& job, const PeerKey& peerKey) {
    std::shared_ptr<OutboxJournal>& journal = job.journals[peerKey];
    if (!journal) {
        journal =
            std::make_shared<OutboxJournal>(home_.system.files, home_.system.mimeTypes, job.state.journalFile(peerKey));
    }
    const std::string file = *job.nextFor(peerKey);
    if (!journal->isPrepared(job.batch.folder / file)) {
        note([&job] { job.state.flush(); }); // before the ids of what was sent go from the journal
        journal->prepare(soundOf(job, job.upcoming(peerKey, OutboxJournal::filesPreparedAtOnce)));
    }
    job.underWay.insert({peerKey, file});
    tellChange();
    return journal;
}

/// Those of the files that can be sent as they are; nothing else is to be opened, not even for a look.
std::vector<platform::Path> OutboxQueue::soundOf(const Job& job, const std::vector<std::string>& names) const {
    std::vector<platform::Path> paths;
    for (const std::string& name : names) {
        try {
            checkFile(job, name);
            paths.push_back(job.batch.folder / name);
        } catch (const Error&) {
            continue; // is told when its turn comes
        }
    }
    return paths;
}

void OutboxQueue::setDone(Job& job, const PeerKey& peerKey, const OutboxEvents::Transfer& transfer,
                          const Delivered& delivered) {
    OutboxState::Phone& phone = *job.state.find(peerKey);
    phone.setDone(transfer.file);
    saveFile(job, phone, transfer.file);
    job.journals.at(peerKey)->complete(job.batch.folder / transfer.file);
    events_.sent(transfer, delivered);
    settlePhone(job, peerKey);
    endIfThrough(job.id());
}

void OutboxQueue::setFailed(Job& job, const PeerKey& peerKey, const std::string& file,
                            const OutboxEvents::Failure& failure) {
    OutboxState::Phone& phone = *job.state.find(peerKey);
    phone.failed[file] = failure.message;
    saveFile(job, phone, file);
    events_.failed({.batch = job.id(), .file = file, .to = phone.displayName(), .peerKey = peerKey}, failure);
    settlePhone(job, peerKey);
    endIfThrough(job.id());
}

void OutboxQueue::setCancelled(Job& job, const PeerKey& peerKey, const std::string& file) {
    OutboxState::Phone& phone = *job.state.find(peerKey);
    phone.failed[file] = OutboxState::cancelled;
    saveFile(job, phone, file);
    settlePhone(job, peerKey);
    endIfThrough(job.id());
}

void OutboxQueue::setAllCancelled(Job& job, const PeerKey& peerKey) {
    OutboxState::Phone& phone = *job.state.find(peerKey);
    for (const std::string& file : job.batch.manifest.files) {
        if (phone.isOpen(file) && !job.underWay.contains({peerKey, file})) {
            phone.failed[file] = OutboxState::cancelled;
        }
    }
    phone.cancelFailures();
    save(job);
    settlePhone(job, peerKey);
    endIfThrough(job.id());
}

void OutboxQueue::setAllFailed(const PeerKey& peerKey, const OutboxEvents::Failure& failure) {
    while (Job* const job = nextFor(peerKey)) {
        OutboxState::Phone& phone = *job->state.find(peerKey);
        std::vector<std::string> files;
        while (const std::optional<std::string> file = job->nextFor(peerKey)) {
            phone.failed[*file] = failure.message;
            files.push_back(*file);
        }
        save(*job);
        events_.failed(job->id(), phone, files, failure);
        settlePhone(*job, peerKey);
        endIfThrough(job->id());
    }
}

void OutboxQueue::setWaiting(const PeerKey& peerKey, const std::string& message, Seconds pause, bool isNews) {
    OutboxState::Phone waiting;
    waiting.peerKey = peerKey;
    bool isFirst = false; // of one of the batches
    for (const auto& [id, job] : jobs_) {
        if (!job->isOpenFor(peerKey)) {
            continue;
        }
        OutboxState::Phone& phone = *job->state.find(peerKey);
        waiting.hostname = phone.hostname;
        isFirst = isFirst || phone.waiting.empty();
        if (std::exchange(phone.waiting, message) != message) {
            save(*job);
        }
        events_.waiting(id, waiting.displayName(), message, pause);
    }
    tellChange();
    if (isNews || isFirst) {
        events_.waitingLine(waiting, message);
    }
}

void OutboxQueue::settlePhone(Job& job, const PeerKey& peerKey) {
    if (job.isDropped || job.isOpenFor(peerKey) || !job.through.insert(peerKey).second) {
        return;
    }
    const OutboxState::Phone& phone = *job.state.find(peerKey);
    std::vector<std::string> done;
    std::copy_if(job.batch.manifest.files.begin(), job.batch.manifest.files.end(), std::back_inserter(done),
                 [&phone](const std::string& name) { return phone.done.contains(name); });
    if (!done.empty() && LastPhone(home_).remember(peerKey) && onLastPhone) {
        onLastPhone();
    }
    events_.through(job.id(), phone, done);
}

void OutboxQueue::endIfThrough(const BatchId& id) {
    Job* const job = find(id);
    if (job == nullptr || job->isDropped) {
        return;
    }
    for (const OutboxState::Phone& phone : job->state.phones) {
        if (job->isOpenFor(phone.peerKey)) {
            return;
        }
    }
    const std::unique_ptr<Job> ended = std::move(jobs_.at(id)); // whose own the id may be
    jobs_.erase(id);
    tellChange();
    note([&ended] { ended->state.flush(); }); // before the ids of what was sent go, and before the batch does
    const std::string failures = summaryOf(ended->state);
    const bool isThere = !batches_.isGone(id);
    if (isThere && !failures.empty()) {
        setAside(id, failures);
        return;
    }
    try {
        if (isThere) { // else somebody has put something else in its place, which is not ours
            batches_.remove(id);
        }
        ended->state.remove(); // last: until then it says that there is nothing to send
        if (isEverythingSent(ended->state)) {
            events_.done(id);
        }
    } catch (const platform::SystemError& error) {
        leaveBehind(id, isThere, "everything was sent, but it cannot be removed: " + error.description());
    }
}

/// What cannot be removed; if the batch itself is not there, only what is remembered of it is left.
void OutboxQueue::leaveBehind(const BatchId& id, bool isThere, const std::string& problem) {
    if (isThere) {
        setAside(id, problem);
    } else {
        log(platform::LogLevel::error, "what is remembered of batch " + id.text() + ": " + problem);
    }
}

void OutboxQueue::setAside(const BatchId& id, const std::string& message) {
    try {
        const platform::Path where = batches_.setAside(id);
        events_.setAside(id, message, where);
    } catch (const platform::SystemError& error) {
        unusable_.insert(id);
        events_.notSetAside(id, message, error.description());
    }
}

void OutboxQueue::save(Job& job) {
    tellChange();
    note([this, &job] {
        job.state.save();
        isTroubleTold_ = false;
    });
}

void OutboxQueue::saveFile(Job& job, const OutboxState::Phone& phone, const std::string& file) {
    tellChange();
    note([&] {
        job.state.saveFile(phone, file);
        isTroubleTold_ = false;
    });
}

void OutboxQueue::note(const std::function<void()>& write) {
    try {
        write();
    } catch (const platform::SystemError& error) {
        if (!std::exchange(isTroubleTold_, true)) {
            events_.notSaved(error.description());
        }
    }
}

void OutboxQueue::saveWhatIsBehind() {
    for (const auto& [id, job] : jobs_) {
        if (job->state.isBehind()) {
            save(*job);
        } else {
            note([&state = job->state] { state.flush(); }); // before the ids of what was sent go
        }
    }
}

bool OutboxQueue::retry(const BatchId& id) {
    if (Job* const job = find(id)) {
        job->startOver();
        save(*job);
        return true;
    }
    if (unusable_.erase(id) > 0) {
        return true; // the next look tries to take it in
    }
    const std::vector<BatchId> setAside = batches_.setAsideIds();
    if (!std::binary_search(setAside.begin(), setAside.end(), id)) {
        return false;
    }
    store_.bringBack(id);
    return true;
}

bool OutboxQueue::retry(const BatchId& id, const PeerKey& peerKey) {
    Job* const job = find(id);
    if (job == nullptr || job->state.find(peerKey) == nullptr) {
        return false;
    }
    job->startOver(peerKey);
    save(*job);
    return true;
}

std::optional<std::string> OutboxQueue::discard(const BatchId& id) {
    const Job& job = *find(id);
    const bool isThere = !job.hasVanished && !batches_.isGone(id);
    OutboxState state = job.state;
    jobs_.erase(id);
    tellChange();
    try {
        if (isThere) {
            batches_.remove(id);
        }
        state.remove();
        return std::nullopt;
    } catch (const platform::SystemError& error) {
        std::string problem = "it cannot be removed: " + error.description();
        leaveBehind(id, isThere, problem);
        return problem;
    }
}

void OutboxQueue::tellChange() const {
    if (onChanged) {
        onChanged();
    }
}

void OutboxQueue::log(platform::LogLevel level, const std::string& text) const noexcept {
    home_.system.log.write(level, "com.tarvinex.orlinth", "outbox", text);
}

} // namespace orlinth::host
