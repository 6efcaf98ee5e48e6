#include "orlinth/Commands/SendSchedule.h"

#include "OrlinthHost/Phones/PeerSelection.h"
#include "OrlinthHost/Sending/Delivery.h"
#include "OrlinthHost/Sending/PhoneKeepAlive.h"
#include "OrlinthHost/Sending/PushService.h"
#include "orlinth/Reporting/Hints.h"

#include <asio/this_coro.hpp>

#include <algorithm>
#include <optional>
#include <utility>

namespace orlinth::cli {

namespace {

std::vector<std::int64_t> sizesOf(platform::FileSystem& files, const std::vector<std::string>& paths) {
    std::vector<std::int64_t> sizes;
    for (const std::string& path : paths) {
        std::int64_t size = 0;
        try {
            const std::optional<platform::FileStatus> status = files.status(path);
            size = status ? status->size : 0;
        } catch (const Error&) {
            size = 0; // the attempt will meet the same and report it
        }
        sizes.push_back(size);
    }
    return sizes;
}

std::int64_t sumOf(const std::vector<std::int64_t>& sizes) {
    std::int64_t sum = 0;
    for (const std::int64_t size : sizes) {
        sum += size;
    }
    return sum;
}

bool isCancelled(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& caught) {
        return platform::isCancellation(caught);
    }
}

bool isNetworkError(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const SendError& caught) {
        return caught.which() == SendError::Case::network;
    } catch (const std::exception&) {
        return false;
    }
}

/// Whether a connection that was up broke, in the handshake or after it.
bool isBrokenConnection(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const SendError& caught) {
        return caught.which() == SendError::Case::noiseHandshakeFailed;
    } catch (const WireConnection::Error&) {
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

} // namespace

/// One file under way to one phone.
struct SendSchedule::Transfer {
    Transfer(Host& host, SendOverview& overview, Phone& phoneOf, std::size_t sourceOf, SendReporter::What what)
        : phone(phoneOf),
          source(sourceOf),
          bytes(what.size),
          handshake(host.system.clock, host.tasks.executor(), [this] { stop.emit(asio::cancellation_type::terminal); }),
          reporter(host.output, host.system.clock, handshake, overview, std::move(what)) {}

    Phone& phone;
    std::size_t source;
    std::int64_t bytes; ///< as counted in the phone's bytesUnderWay
    bool isLeader = false;
    bool hadCompany = false; ///< another connection to the phone was there for a time
    asio::cancellation_signal stop;
    host::HandshakeLimit handshake;
    SendReporter reporter;
    InFlightKey key; ///< of what is offered
    std::string id;  ///< under which; "" before it is
    host::OffersInDoubt inDoubt;
    std::optional<host::Delivered> delivered;
    std::exception_ptr error;
    bool hasEnded = false;

    /// Whether the phone, or whoever answers there, let go of the connection before it said anything to the offer.
    [[nodiscard]] bool wasDropped() const {
        return reporter.hasConnected() && !reporter.reach().hasBegun &&
               (handshake.hasExpired() || isBrokenConnection(error));
    }
};

SendSchedule::SendSchedule(Host& host, const platform::PrivateKey& ownKey, InFlightJournal& journal,
                           host::SendTimes times, const std::vector<std::string>& files,
                           const std::vector<PeerRecord>& phones)
    : host_(host),
      ownKey_(ownKey),
      times_(times),
      overview_(host.output),
      memory_(host.system, journal),
      batch_(journal),
      ended_(host.tasks.executor()) {
    const std::vector<std::int64_t> sizes = sizesOf(host.system.files, files);
    for (std::size_t i = 0; i < files.size(); ++i) {
        sources_.push_back(
            {.path = files[i], .size = sizes[i], .left = phones.size(), .known = std::nullopt, .id = {}});
    }
    for (const PeerRecord& record : phones) {
        Phone phone{.record = record, .waiting = {}, .announced = {}, .inDoubt = {}, .lanes = {}};
        for (std::size_t i = 0; i < files.size(); ++i) {
            phone.waiting.push_back(i);
        }
        phones_.push_back(std::move(phone));
    }
    overview_.expect(files.size() * phones.size(), sumOf(sizes) * static_cast<std::int64_t>(phones.size()));
}

SendSchedule::~SendSchedule() = default;

int SendSchedule::run() {
    try {
        const int failed = host_.tasks.run(runAll());
        tidy();
        return failed;
    } catch (const Interrupted& interrupted) {
        tellInterrupted(interrupted);
        tidy();
        throw;
    }
}

Task<int> SendSchedule::runAll() {
    for (;;) {
        startWhatMay();
        if (transfers_.empty() && hasWaiting()) {
            prepareAnew();
            startWhatMay();
        }
        if (transfers_.empty()) {
            co_return failed_;
        }
        const bool goesOn = co_await waitForEnd();
        if (!goesOn) {
            break;
        }
        settleEnded();
    }
    co_await asio::this_coro::reset_cancellation_state(asio::disable_cancellation());
    cancelBeforeFarewell();
    const std::unique_ptr<platform::Timer> grace = host_.system.clock.makeTimer(host_.tasks.executor());
    grace->arm(graceSeconds, [this] { cancelAll(); });
    const auto haveAllEnded = [this] {
        return std::all_of(transfers_.begin(), transfers_.end(), [](const Transfer& each) { return each.hasEnded; });
    };
    co_await ended_.until(haveAllEnded);
    throw platform::Cancelled();
}

Task<bool> SendSchedule::waitForEnd() {
    const auto hasOneEnded = [this] {
        return std::any_of(transfers_.begin(), transfers_.end(), [](const Transfer& each) { return each.hasEnded; });
    };
    try {
        co_await ended_.until(hasOneEnded);
    } catch (const std::exception& error) {
        if (platform::isCancellation(error)) {
            co_return false;
        }
        throw;
    }
    co_return true;
}

void SendSchedule::startWhatMay() {
    for (Phone& phone : phones_) {
        while (mayStart(phone) && prepare(phone.waiting.front())) {
            start(phone);
        }
    }
}

bool SendSchedule::mayStart(const Phone& phone) const {
    if (phone.waiting.empty()) {
        return false;
    }
    return phone.lanes.mayOpen(
        {.ofPhone = phone.underWay, .bytesOfPhone = phone.bytesUnderWay, .ofAll = transfers_.size()});
}

bool SendSchedule::prepare(std::size_t first) {
    const bool isAgain = sources_[first].isPrepared;
    if (isAgain && !hasChanged(sources_[first])) {
        return true;
    }
    unprepare(sources_[first]);
    std::vector<std::size_t> numbers;
    std::vector<host::SourceMemory::Source> known;
    const std::size_t most = isAgain ? 1 : filesPreparedAtOnce;
    for (std::size_t i = first; i < sources_.size() && numbers.size() < most && !sources_[i].isPrepared; ++i) {
        std::optional<host::SourceMemory::Source> source = memory_.examine(sources_[i].path);
        if (source && !keysUnderWay_.insert(source->key.text()).second) {
            break; // the same name and content again: the two would share an id, so one goes after the other
        }
        sources_[i].isPrepared = true;
        if (source) {
            numbers.push_back(i);
            known.push_back(std::move(*source));
        } else if (isAgain) {
            break;
        }
    }
    if (!sources_[first].isPrepared) {
        return false;
    }
    reserve(numbers, std::move(known));
    return true;
}

/// Writes the ids of these sources down, each for the phones that still are to get it.
void SendSchedule::reserve(const std::vector<std::size_t>& numbers, std::vector<host::SourceMemory::Source> known) {
    memory_.compare(known);
    std::vector<InFlightJournal::Batch::Wanted> wanted;
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        wanted.push_back(
            {.key = known[i].key, .isFresh = known[i].isFresh, .uses = static_cast<int>(sources_[numbers[i]].left)});
    }
    const std::vector<std::string> ids = batch_.reserve(wanted);
    try {
        memory_.remember(known);
    } catch (const std::exception&) {
        // Then the next attempt finds nothing to compare with, and takes fresh ids.
    }
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        sources_[numbers[i]].known = std::move(known[i]);
        sources_[numbers[i]].id = ids[i];
    }
}

/// Much may happen between the preparation of a file and its turn, or its turn with the next phone.
bool SendSchedule::hasChanged(const Source& source) const {
    return source.known && !memory_.isUnchanged(source.path, *source.known);
}

bool SendSchedule::hasWaiting() const {
    return std::any_of(phones_.begin(), phones_.end(), [](const Phone& phone) { return !phone.waiting.empty(); });
}

/// While nothing is under way: a file that has become equal to one behind it must not wait for that for ever.
void SendSchedule::prepareAnew() {
    for (Source& source : sources_) {
        if (source.left > 0) {
            unprepare(source);
        }
    }
}

void SendSchedule::unprepare(Source& source) {
    if (source.known) {
        keysUnderWay_.erase(source.known->key.text());
        source.known.reset();
    }
    source.isPrepared = false;
}

void SendSchedule::start(Phone& phone) {
    const std::size_t number = phone.waiting.front();
    phone.waiting.pop_front();
    Source& source = sources_[number];
    source.isBegun = true;
    Transfer& begun = transfers_.emplace_back(host_, overview_, phone, number,
                                              SendReporter::What{.file = source.path,
                                                                 .size = source.size,
                                                                 .to = phone.record.peer_hostname,
                                                                 .isAnnounced = phone.announced.contains(number)});
    begun.isLeader = !std::exchange(phone.hasLeader, true);
    if (const auto before = phone.inDoubt.find(number); before != phone.inDoubt.end()) {
        begun.inDoubt = before->second;
    }
    if (++phone.underWay > 1) {
        for (Transfer& other : transfers_) {
            other.hadCompany = other.hadCompany || &other.phone == &phone;
        }
    }
    phone.bytesUnderWay += begun.bytes;
    platform::spawn(host_.tasks.executor(), transfer(begun), begun.stop.slot(),
                    [this, &begun](const std::exception_ptr& error) {
                        if (error) {
                            begun.error = error; // cancelled before it began
                        }
                        begun.hasEnded = true;
                        ended_.changed();
                    });
}

/// `transfer` stays in the list until it has ended.
Task<> SendSchedule::transfer(Transfer& transfer) {
    PeerRecord peer = transfer.phone.record;
    if (!transfer.isLeader) {
        peer.peer_fcm_token.clear(); // one push is enough, and it is the leader's
    }
    SendTerms terms{.peer = std::move(peer),
                    .staticKey = ownKey_,
                    .warmConnectTimeout = times_.warm,
                    .postWakeConnectTimeout = times_.wake,
                    .postWakeAttemptTimeout = times_.attempt,
                    .postWakeRetryInterval = times_.retry,
                    .fcmBaseURL = host::pushServiceURL(),
                    .progress = &transfer.reporter,
                    .keepAlive = host::phoneKeepAlive};
    const int left = host::OffersInDoubt::limitOfCommands - transfer.inDoubt.count;
    const auto onAgain = [this, &transfer] {
        if (hasChanged(sources_[transfer.source])) {
            throw SendError::fileRead(sources_[transfer.source].path + " changed while it was sent");
        }
        transfer.reporter.tellAgain();
    };
    try {
        PreparedFile file = take(transfer);
        host::Delivered delivered =
            co_await host::deliver(host_.system, std::move(file), std::move(terms), left, transfer.inDoubt, onAgain);
        transfer.delivered = std::move(delivered);
    } catch (...) {
        transfer.error = std::current_exception();
    }
}

PreparedFile SendSchedule::take(Transfer& transfer) {
    Source& source = sources_[transfer.source];
    if (!source.known) {
        static_cast<void>(examineFile(host_.system, source.path)); // says why, unless the file was mended just now
        std::optional<host::SourceMemory::Source> known = memory_.examine(source.path);
        if (!known || !keysUnderWay_.insert(known->key.text()).second) {
            throw SendError::fileRead(source.path + " changes all the time");
        }
        reserve({transfer.source}, {std::move(*known)});
    }
    std::string id = batch_.idOf(source.known->key);
    if (id != source.id) { // another process has written it, perhaps for a file that only begins like ours
        std::vector<host::SourceMemory::Source> ours{*source.known};
        memory_.compare(ours);
        if (ours.front().isFresh) {
            reserve({transfer.source}, std::move(ours));
            id = source.id;
        }
    }
    source.id = id;
    transfer.key = source.known->key;
    transfer.id = id;
    return {.path = source.path, .file = source.known->file, .transferId = std::move(id)};
}

/// Another process that sends the same file may have ended its id; what the phone has of it is found by that.
void SendSchedule::keepForNextTime(const Transfer& transfer) noexcept {
    const Source& source = sources_[transfer.source];
    if (transfer.id.empty() || !source.known || source.known->key.text() != transfer.key.text()) {
        return;
    }
    try {
        batch_.keep(transfer.key, transfer.id);
        memory_.remember({*source.known});
    } catch (const std::exception&) {
        return; // then the next attempt begins anew
    }
}

void SendSchedule::settleEnded() {
    for (auto at = transfers_.begin(); at != transfers_.end();) {
        if (at->hasEnded) {
            settle(*at);
            at = transfers_.erase(at);
        } else {
            ++at;
        }
    }
}

void SendSchedule::settle(Transfer& transfer) {
    Phone& phone = transfer.phone;
    --phone.underWay;
    phone.bytesUnderWay -= transfer.bytes;
    if (transfer.isLeader) {
        phone.hasLeader = false;
    }
    if (transfer.inDoubt.count > 0) {
        phone.inDoubt[transfer.source] = transfer.inDoubt;
    }
    if (transfer.delivered) {
        phone.lanes.addTaken();
        batch_.complete(transfer.key, transfer.id);
        transfer.reporter.tellComplete(*transfer.delivered);
        doneWith(transfer.source, true);
        return;
    }
    const bool isUnreachable = !transfer.reporter.hasConnected() && isNetworkError(transfer.error);
    const bool isOneTooMany = transfer.hadCompany && transfer.wasDropped();
    if (isUnreachable || isOneTooMany) {
        phone.lanes.fallBack();
    }
    if ((isUnreachable && !transfer.isLeader) || isOneTooMany) {
        putBack(transfer);
    } else {
        fail(transfer);
    }
}

void SendSchedule::putBack(Transfer& transfer) {
    std::deque<std::size_t>& waiting = transfer.phone.waiting;
    waiting.insert(std::lower_bound(waiting.begin(), waiting.end(), transfer.source), transfer.source);
    transfer.phone.announced.insert(transfer.source);
}

void SendSchedule::fail(Transfer& transfer) {
    const PeerRecord& peer = transfer.phone.record;
    const std::string where = host::nameAndAddress(peer);
    try {
        if (transfer.handshake.hasExpired()) {
            throw SendError::noiseHandshakeFailed(host::HandshakeLimit::text());
        }
        std::rethrow_exception(transfer.error);
    } catch (const std::exception& error) {
        const bool notTaken = host::isNotTaken(transfer.reporter.reach(), transfer.error);
        const std::string hint = notTaken ? hintForNotTaken(where) : hintForSending(error, where);
        transfer.reporter.tellFailure(describe(error), hint, transfer.inDoubt.count > 0);
    }
    keepForNextTime(transfer);
    ++failed_;
    doneWith(transfer.source, false);
}

void SendSchedule::doneWith(std::size_t number, bool wasSent) {
    Source& source = sources_[number];
    source.hasFailed = source.hasFailed || !wasSent;
    if (--source.left > 0 || !source.known) {
        return;
    }
    keysUnderWay_.erase(source.known->key.text());
    if (!source.hasFailed) {
        memory_.forget(source.known->key);
    }
}

void SendSchedule::cancelAll() {
    for (Transfer& transfer : transfers_) {
        if (!transfer.hasEnded) {
            transfer.stop.emit(asio::cancellation_type::terminal);
        }
    }
}

/// A file that is there already should not be reported as cut short: its phone gets a moment to say so.
void SendSchedule::cancelBeforeFarewell() {
    for (Transfer& transfer : transfers_) {
        if (!transfer.hasEnded && !transfer.reporter.isAtFarewell()) {
            transfer.stop.emit(asio::cancellation_type::terminal);
        }
    }
}

/// Some may have ended for another reason in the same moment, well or not. Those that were cut short share one line,
/// behind one for each that tells how far it came.
void SendSchedule::tellInterrupted(const Interrupted& interrupted) {
    std::vector<Transfer*> cutShort;
    for (Transfer& transfer : transfers_) {
        const bool wasCancelled = transfer.error && isCancelled(transfer.error) && !transfer.handshake.hasExpired();
        if (wasCancelled) {
            cutShort.push_back(&transfer);
        } else {
            settle(transfer);
        }
    }
    for (const Transfer* transfer : cutShort) {
        keepForNextTime(*transfer);
    }
    std::size_t notBegun = 0;
    for (const Phone& phone : phones_) {
        notBegun += phone.waiting.size();
    }
    const std::string alsoNotBegun =
        notBegun == 0 ? ""
                      : " " + std::to_string(notBegun) + (notBegun == 1 ? " file was" : " files were") + " not begun.";
    if (cutShort.empty()) {
        host_.output.failure(interrupted.description(),
                             notBegun == 0 ? "Everything had been sent." : alsoNotBegun.substr(1));
        return;
    }
    if (cutShort.size() == 1) {
        SendReporter& only = cutShort.front()->reporter;
        only.tellFailureLine(interrupted.description(),
                             only.howFar() + "; send it again and it goes on there." + alsoNotBegun);
        return;
    }
    Transfer* const last = cutShort.back();
    for (Transfer* transfer : cutShort) {
        host_.output.message(transfer->reporter.howFar() + ".");
        if (transfer != last) {
            transfer->reporter.tellFailureToScripts(interrupted.description());
        }
    }
    last->reporter.tellFailureLine(interrupted.description(), "Send them again and they go on there." + alsoNotBegun);
}

/// What was remembered of files that were not begun would only be in the way.
void SendSchedule::tidy() noexcept {
    for (const Source& source : sources_) {
        if (source.known && source.known->isFresh && !source.isBegun) {
            memory_.forget(source.known->key);
        }
    }
    try {
        memory_.flush();
    } catch (const std::exception&) {
        // What it remembers of a file too many does no harm.
    }
}

} // namespace orlinth::cli
