#include "OrlinthHost/Service/Doctor.h"

#include "OrlinthHost/Reach/ComputerCheck.h"
#include "OrlinthHost/Service/DownloadsFolder.h"
#include "OrlinthHost/Service/ServiceCheck.h"
#include "base/Text.h"
#include "platform/Blocking.h"
#include "platform/Cancelled.h"
#include "platform/Deadline.h"

#include <asio/experimental/awaitable_operators.hpp>

#include <algorithm>
#include <cmath>
#include <limits>

namespace orlinth::host {
namespace {

using Check = Finding::Check;
using Status = Finding::Status;

/// What nothing else helps against; phones are not asked about then.
bool keepsFromAll(Cause cause) {
    return cause == Cause::noNetwork || cause == Cause::vpnTakesLan || cause == Cause::containerNetwork;
}

const char* nameOf(Evidence::Connect connect) {
    switch (connect) {
    case Evidence::Connect::connected:
        return "connected";
    case Evidence::Connect::refused:
        return "refused";
    case Evidence::Connect::timedOut:
        return "timed_out";
    case Evidence::Connect::hostUnreachable:
        return "host_unreachable";
    case Evidence::Connect::networkUnreachable:
        return "network_unreachable";
    case Evidence::Connect::accessDenied:
        return "access_denied";
    case Evidence::Connect::notPermitted:
        return "not_permitted";
    case Evidence::Connect::invalid:
        return "invalid";
    case Evidence::Connect::failed:
        break;
    }
    return "failed";
}

const char* nameOf(Evidence::Proof proof) {
    switch (proof) {
    case Evidence::Proof::phonesKey:
        return "phones_key";
    case Evidence::Proof::otherKey:
        return "other_key";
    case Evidence::Proof::otherProtocol:
        return "other_protocol";
    case Evidence::Proof::silence:
        break;
    }
    return "silence";
}

const char* nameOf(Evidence::Icmp::Sender sender) {
    switch (sender) {
    case Evidence::Icmp::Sender::ownAddress:
        return "own_address";
    case Evidence::Icmp::Sender::phone:
        return "phone";
    case Evidence::Icmp::Sender::router:
        break;
    }
    return "router";
}

const char* nameOf(Evidence::Neighbour::State state) {
    switch (state) {
    case Evidence::Neighbour::State::incomplete:
        return "incomplete";
    case Evidence::Neighbour::State::valid:
        return "valid";
    case Evidence::Neighbour::State::failed:
        break;
    }
    return "failed";
}

const char* nameOf(Evidence::Route::Way way) {
    switch (way) {
    case Evidence::Route::Way::none:
        return "none";
    case Evidence::Route::Way::onLink:
        return "on_link";
    case Evidence::Route::Way::gateway:
        break;
    }
    return "gateway";
}

/// For scripts and those who want to know. Names no hardware address.
Json evidenceOf(const PhoneFindings& found) {
    Json evidence = Json::object();
    evidence["address"] = found.details.address;
    const Evidence& seen = found.evidence;
    if (seen.connect) {
        evidence["connect"] = nameOf(*seen.connect);
    }
    if (seen.icmp) {
        evidence["icmp"] = std::to_string(seen.icmp->type) + "/" + std::to_string(seen.icmp->code);
        evidence["icmp_from"] = nameOf(seen.icmp->sender);
    }
    if (seen.route) {
        evidence["route"] = nameOf(seen.route->way);
        evidence["interface"] = found.details.interface;
    }
    if (seen.neighbour) {
        evidence["neighbour"] = nameOf(seen.neighbour->state);
    }
    if (seen.proof) {
        evidence["proof"] = nameOf(*seen.proof);
    }
    return evidence;
}

/// "4 ms", "1.2 s".
std::string shortTime(Seconds time) {
    constexpr double millisecondsOfASecond = 1000;
    const auto milliseconds = std::llround(time.count() * millisecondsOfASecond);
    if (milliseconds < static_cast<long long>(millisecondsOfASecond)) {
        return std::to_string(milliseconds) + " ms";
    }
    const auto tenths = std::llround(time.count() * 10);
    return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + " s";
}

bool isUsable(const PeerRecord& phone) {
    return !phone.peer_ip.empty() && phone.peer_port > 0 &&
           phone.peer_port <= std::numeric_limits<std::uint16_t>::max();
}

Finding findingOf(const PhoneFindings& found) {
    Finding finding{.check = Check::phone, .status = Status::problem, .cause = found.cause, .details = found.details};
    finding.evidence = evidenceOf(found);
    if (found.cause == Cause::none) {
        finding.status = Status::ok;
        finding.remark =
            "here now, " + forDisplay(found.details.address) + ", answered in " + shortTime(found.duration);
    } else if (keepsFromAll(found.cause)) {
        finding.status = Status::notMeasured;
        finding.cause = Cause::none;
        finding.remark = "not measured: see above";
    } else if (found.cause == Cause::notListening && found.details.hasPushToken && found.details.hasPushKey) {
        finding.status = Status::warning;
    }
    return finding;
}

/// Whether the phone may be anywhere else.
bool isWorthSearching(const PhoneFindings& found) {
    using Device = Evidence::Neighbour::Device;
    const bool isCertainlyThere = found.evidence.neighbour && found.evidence.neighbour->device == Device::phone &&
                                  (found.cause == Cause::swallowed || found.cause == Cause::forbidden);
    return found.cause != Cause::none && found.cause != Cause::notListening && found.cause != Cause::ownOutgoing &&
           !keepsFromAll(found.cause) && !isCertainlyThere;
}

/// Until the phone is found elsewhere and `isConnected`, that its recorded address has taken a connection, is false:
/// whoever is there gets the time to prove the phone's key. Nothing escapes but what is no cancellation. What is
/// referred to outlives the task.
Task<> untilFoundElsewhere(Finder::Search& search, const bool& isConnected) {
    try {
        co_await search.untilFound([&isConnected] { return !isConnected; });
    } catch (const std::exception& error) {
        if (!platform::isCancellation(error)) {
            throw;
        }
    }
}

} // namespace

Doctor::Doctor(Home& home, DoctorRequest request, DoctorEvents& events)
    : home_(home),
      request_(std::move(request)),
      events_(events),
      here_(Whereabouts::look(home.system)),
      phonesLeft_(request_.phones.size()),
      isServiceKnown_(home.executor),
      isWayKnown_(home.executor),
      hasPhoneEnded_(home.executor),
      hasFinding_(home.executor),
      memory_(home.system.files, home.system.clock, home.system.log, home.dataDirectory()),
      finder_(home, request_.find,
              request_.find == FindSetting::always ? SweepRate::once : SweepRate::shared), // a person's word
      tasks_(home.executor) {}

Task<Diagnosis> Doctor::run() {
    beginAll();
    bool isCancelled = false;
    try {
        co_await untilReported();
        if (request_.listens > 0s) {
            events_.listening(request_.listens);
            begin(Check::arrival, request_.listens, lookForArrival());
            co_await untilReported();
        }
    } catch (const std::exception& error) {
        if (!platform::isCancellation(error)) {
            throw;
        }
        isCancelled = true;
    }
    if (!isCancelled) {
        events_.concluded(diagnosis_);
    }
    co_await asio::this_coro::reset_cancellation_state(asio::disable_cancellation());
    tasks_.cancelAll();
    const bool hasEnded = co_await platform::endsWithin(home_.system.clock, endLimit, finish());
    if (!hasEnded) {
        events_.hung();
        co_await finish();
    }
    if (isCancelled) {
        throw platform::Cancelled();
    }
    co_return diagnosis_;
}

/// Also after a call that was cancelled.
Task<> Doctor::finish() {
    co_await tasks_.join();
    co_await finder_.finish();
}

void Doctor::beginAll() {
    diagnosis_.phones = request_.phones.size();
    diagnosis_.canSend = !request_.phones.empty();
    const bool isInQuestion = isWayInQuestion(home_, here_, request_.phones);
    begin(Check::computer, isInQuestion ? wholeLimit : quickLimit, lookAtNetwork());
    if (!request_.isAboutPhones) {
        diagnosis_.canReceive = true;
        begin(Check::service, quickLimit, lookAtService());
        begin(Check::firewall, firewallLimit, lookAtFirewall());
        begin(Check::downloads, downloadsLimit, lookAtDownloads());
    }
    for (const PeerRecord& phone : request_.phones) {
        begin(Check::phone, wholeLimit, lookForPhone(places_.size(), phone), phone.peer_hostname);
        places_.back().peerKey = phone.peer_pubkey;
    }
    if (!request_.isAboutPhones || request_.asksPushProject) {
        begin(Check::waking, request_.asksPushProject ? wholeLimit : quickLimit, lookAtWaking());
    }
}

Task<> Doctor::untilReported() {
    while (reported_ < places_.size()) {
        co_await hasFinding_.wait();
        hasFinding_.reset();
        report();
    }
}

void Doctor::begin(Check check, Seconds limit, Task<Finding> task, std::string phone) {
    const Slot slot = places_.size();
    places_.push_back({.check = check, .phone = std::move(phone), .peerKey = {}, .finding = {}, .task = {}});
    const auto onEnd = [this, slot](const std::exception_ptr& error) {
        if (!error) {
            return;
        }
        try {
            std::rethrow_exception(error);
        } catch (const std::exception& failure) {
            const bool isCalledOff = platform::isCancellation(failure);
            putNothing(slot, isCalledOff ? "not measured" : "not measured: " + forDisplay(describe(failure)));
        }
    };
    places_.back().task = tasks_.add(fill(slot, std::move(task)), onEnd);
    tasks_.add(giveUp(slot, limit), [](const std::exception_ptr&) { /* the check was quicker */ });
}

Task<> Doctor::fill(Slot slot, Task<Finding> task) {
    const platform::Clock::Instant from = home_.system.clock.now();
    Finding finding = co_await std::move(task);
    finding.duration = home_.system.clock.now() - from;
    put(slot, std::move(finding));
}

Task<> Doctor::giveUp(Slot slot, Seconds limit) {
    co_await home_.system.clock.sleep(limit);
    if (places_[slot].finding) {
        co_return;
    }
    if (places_[slot].check == Check::arrival) {
        put(slot, {.check = Check::arrival,
                   .status = Status::problem,
                   .cause = Cause::unknown,
                   .remark = "no phone has come in within " + timeInWords(limit)});
    } else if (places_[slot].hasWaited) {
        putNothing(slot, "not measured: too little time was left for it");
    } else {
        putNothing(slot, "not measured: no answer in " + timeInWords(limit));
    }
    tasks_.cancel(*places_[slot].task);
}

void Doctor::putNothing(Slot slot, std::string remark) {
    Finding finding;
    finding.check = places_[slot].check;
    finding.remark = std::move(remark);
    finding.isUnanswered = true;
    put(slot, std::move(finding));
}

/// The first one counts.
void Doctor::put(Slot slot, Finding finding) {
    Place& place = places_[slot];
    if (place.finding) {
        return;
    }
    finding.phone = place.phone;
    finding.peerKey = place.peerKey;
    place.finding = std::move(finding);
    if (place.check == Check::service) {
        isServiceKnown_.set();
    } else if (place.check == Check::phone && --phonesLeft_ == 0) {
        isWayKnown_.set();
    }
    hasFinding_.set();
}

void Doctor::report() {
    while (reported_ < places_.size() && places_[reported_].finding) {
        const Finding& finding = *places_[reported_].finding;
        ++reported_;
        count(finding);
        events_.found(finding);
    }
}

void Doctor::count(const Finding& finding) {
    const bool isProblem = finding.status == Status::problem;
    diagnosis_.problems += isProblem ? 1 : 0;
    diagnosis_.warnings += finding.status == Status::warning ? 1 : 0;
    diagnosis_.unanswered += finding.isUnanswered ? 1 : 0;
    const auto doubt = [](std::optional<bool>& what) {
        what = what == true ? std::nullopt : what; // what does not work stays so
    };
    if (finding.check == Check::phone) {
        const bool isReached = finding.status == Status::ok || finding.status == Status::warning;
        if (finding.isUnanswered) {
            doubt(diagnosis_.canSend);
        } else if (!isReached) {
            diagnosis_.absent.push_back(finding.phone);
            diagnosis_.canSend = false;
        }
        return;
    }
    const bool isWayTaken = isProblem && keepsFromAll(finding.cause);
    diagnosis_.isWayTaken = diagnosis_.isWayTaken || isWayTaken;
    if (finding.check == Check::arrival) {
        if (finding.status != Status::notMeasured) {
            diagnosis_.canReceive = finding.status == Status::ok; // whatever was thought before
        }
        return;
    }
    if (request_.isAboutPhones || finding.check == Check::waking) {
        return;
    }
    if (finding.isUnanswered) {
        doubt(diagnosis_.canReceive);
    } else if (isProblem && (!isWayTaken || finding.cause == Cause::noNetwork)) {
        diagnosis_.canReceive = false;
    }
}

Task<Finding> Doctor::lookAtNetwork() {
    Finding finding = checkNetwork(home_, here_);
    if (finding.cause != Cause::noNetwork && isWayInQuestion(home_, here_, request_.phones)) {
        co_await isWayKnown_.wait();
        if (wayTaken_) {
            finding = *wayTaken_;
        }
    }
    if (request_.isAboutPhones && finding.cause == Cause::ownAddress) { // about receiving
        finding.status = Status::ok;
        finding.cause = Cause::none;
        finding.remark = finding.details.addressNow;
    }
    finding.isAside = request_.isAboutPhones;
    co_return finding;
}

Task<Finding> Doctor::lookAtService() {
    ServiceFinding found = co_await checkService(home_);
    port_ = found.port;
    downloads_ = std::move(found.downloads);
    co_return std::move(found.finding);
}

Task<Finding> Doctor::lookAtFirewall() {
    co_await isServiceKnown_.wait();
    co_return co_await checkFirewall(home_, homeNetworkOf(here_), port_ != 0 ? port_ : usualPort, request_.phones);
}

Task<Finding> Doctor::lookAtDownloads() {
    co_await isServiceKnown_.wait();
    const auto look = [this, said = downloads_] { // on another thread, while the service may still answer
        return checkDownloads(home_, said.empty() ? chooseDownloadsFolder(home_, request_.downloads).path : said);
    };
    co_return co_await platform::blocking(home_.system.queues, look);
}

Task<Finding> Doctor::lookAtWaking() {
    co_return co_await checkWaking(home_, request_.phones, request_.asksPushProject);
}

/// Whatever the service notes of a phone that connects changes a file in its folder.
Task<Finding> Doctor::lookForArrival() {
    const EpochMilliseconds since = home_.system.clock.epochMilliseconds() - AddressBook::resolution;
    platform::Event hasChanged(home_.executor);
    const std::unique_ptr<platform::FolderWatch> watch =
        home_.system.folders.watch(home_.dataDirectory(), home_.executor, [&hasChanged] { hasChanged.set(); });
    std::optional<Arrival> arrival = lastArrival(home_, request_.phones);
    while (!arrival || arrival->at < since) {
        hasChanged.reset();
        co_await hasChanged.wait();
        arrival = lastArrival(home_, request_.phones);
    }
    co_return Finding{.check = Check::arrival,
                      .status = Status::ok,
                      .remark = arrival->inWords(home_.system.clock.epochMilliseconds())};
}

Task<Finding> Doctor::lookForPhone(Slot slot, const PeerRecord& phone) {
    if (!isUsable(phone)) {
        co_return Finding{.check = Check::phone,
                          .status = Status::problem,
                          .cause = Cause::unknown,
                          .remark = "its recorded address or port cannot be used; pair it again"};
    }
    while (phonesUnderWay_ >= maxPhonesAtOnce) {
        places_[slot].hasWaited = true;
        hasPhoneEnded_.reset();
        co_await hasPhoneEnded_.wait();
    }
    ++phonesUnderWay_;
    struct Place {
        Doctor& doctor;
        ~Place() {
            --doctor.phonesUnderWay_;
            doctor.hasPhoneEnded_.set();
        }
    } const place{*this};
    const std::unique_ptr<Finder::Search> search = finder_.begin(phone);
    std::optional<PhoneFindings> found = co_await checkUnlessFound(phone, *search);
    if (found && isWorthSearching(*found)) {
        co_await search->untilOver();
    }
    if (const std::optional<HostAddress> host = search->found(); host && (!found || found->cause != Cause::none)) {
        co_return findingOfMove(phone, *host);
    }
    if (keepsFromAll(found->cause)) {
        wayTaken_ = Finding{
            .check = Check::computer, .status = Status::problem, .cause = found->cause, .details = found->details};
        isWayKnown_.set();
    }
    co_return findingOf(*found);
}

/// What came of the recorded address; nothing if the phone was found elsewhere before that.
Task<std::optional<PhoneFindings>> Doctor::checkUnlessFound(const PeerRecord& phone, Finder::Search& search) {
    using namespace asio::experimental::awaitable_operators;
    OneShot<PhoneFindings> outcome;
    bool isConnected = false;
    const std::function<void()> onConnected = [&isConnected] { isConnected = true; };
    Task<> check = platform::settle(outcome, checkPhone(home_, phone, {}, onConnected));
    Task<> find = untilFoundElsewhere(search, isConnected);
    co_await (std::move(check) || std::move(find));
    try {
        co_return outcome.take();
    } catch (const std::exception& error) {
        if (!search.found() || !platform::isCancellation(error)) {
            throw;
        }
    }
    co_return std::nullopt;
}

/// It was tried at its recorded address too, and is not there.
Finding Doctor::findingOfMove(const PeerRecord& phone, const HostAddress& found) {
    const bool isRecorded = recordMove(home_, memory_, phone, found);
    Finding finding{.check = Check::phone, .status = Status::ok, .cause = Cause::moved};
    finding.details = {.phone = phone.peer_hostname, .address = phone.peer_ip, .addressNow = found.text()};
    finding.remark = "has moved to " + forDisplay(found.text()) + " (was " + forDisplay(phone.peer_ip) + ")" +
                     (isRecorded ? "; recorded" : "");
    finding.evidence["address"] = found.text();
    finding.evidence["recorded"] = isRecorded;
    return finding;
}

} // namespace orlinth::host
